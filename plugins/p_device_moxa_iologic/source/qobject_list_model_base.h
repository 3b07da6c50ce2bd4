// SPDX-License-Identifier: MIT
// A read-only list model over shared QObject-derived items, for QML: role "modelData"
// hands out the item object itself.
#pragma once

#include "qobject_list_model_qml.h"

#include <QList>
#include <QQmlEngine>
#include <QSharedPointer>

namespace __qobjectsqmllist {

template<class T>
class QObjectListModelBase : public QObjectListModelQml
{
public:
    using QObjectListModelQml::QObjectListModelQml;

    int rowCount(const QModelIndex & = QModelIndex()) const override { return m_items.size(); }

    QVariant data(const QModelIndex &index, int role) const override
    {
        if (index.row() < 0 || index.row() >= m_items.size() || role != ModelDataRole)
            return QVariant();
        return QVariant::fromValue(static_cast<QObject *>(m_items.at(index.row()).data()));
    }

    // The model has no header entries: always invalid.
    QVariant headerData(int, Qt::Orientation, int) const override { return QVariant(); }

    QHash<int, QByteArray> roleNames() const override
    {
        QHash<int, QByteArray> names = QAbstractListModel::roleNames();
        names.insert(ModelDataRole, QByteArrayLiteral("modelData"));
        return names;
    }

    // Appends one item (null pointers are ignored) and emits changed().
    void append(const QSharedPointer<T> &object)
    {
        if (!object)
            return;
        const int row = m_items.size();
        beginInsertRows(QModelIndex(), row, row);
        m_items.append(object);
        endInsertRows();
        emit changed();
    }

    // Null when out of range.
    QSharedPointer<T> at(int i) const
    {
        return i >= 0 && i < m_items.size() ? m_items.at(i) : QSharedPointer<T>();
    }

    int count() const { return m_items.size(); }

protected:
    QVariant item(int i) override
    {
        if (i < 0 || i >= m_items.size())
            return QVariant();
        T *object = m_items.at(i).data();
        QQmlEngine::setObjectOwnership(object, QQmlEngine::CppOwnership);
        return QVariant::fromValue(object);
    }

private:
    QList<QSharedPointer<T>> m_items;
};

} // namespace __qobjectsqmllist
