// SPDX-License-Identifier: MIT
// A read-only list model over shared QObject-derived items, for QML: role "modelData"
// hands out the item object itself.
#pragma once

#include <QAbstractListModel>
#include <QList>
#include <QQmlEngine>
#include <QSharedPointer>

namespace __qobjectsqmllist {

// A template cannot carry a meta-object: each concrete model is a Q_OBJECT class that
// declares, in this order, the signal changed() (overriding the one below), the invokables
// header() and item() (protected), and the int properties length and isEmpty, notified by changed.
template<class T>
class QObjectListModelBase : public QAbstractListModel
{
public:
    // The one data role: the item object itself.
    static constexpr int ModelDataRole = Qt::UserRole;

    explicit QObjectListModelBase(QObject *parent = nullptr)
        : QAbstractListModel(parent)
    {
        // Qt 5 reaches resetInternalData() by name only, so a reset comes here through its signal.
        connect(this, &QAbstractItemModel::modelReset, this, [this] { resetInternalData(); });
    }

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

    int length() const { return m_items.size(); }
    // An int on purpose: QML sees 1 or 0.
    int isEmpty() const { return m_items.isEmpty() ? 1 : 0; }
    QVariant header(int section) { return headerData(section, Qt::Horizontal, Qt::DisplayRole); }

    // Appends one item (null pointers are ignored) and emits changed().
    void append(const QSharedPointer<T> &object)
    {
        if (!object)
            return;
        const int row = m_items.size();
        beginInsertRows(QModelIndex(), row, row);
        m_items.append(object);
        endInsertRows();
        changed();
    }

    // Null when out of range.
    QSharedPointer<T> at(int i) const
    {
        return i >= 0 && i < m_items.size() ? m_items.at(i) : QSharedPointer<T>();
    }

    int count() const { return m_items.size(); }

    // Emitted by the owner after it changed the list; the concrete model's signal.
    virtual void changed() = 0;

protected:
    // A reset refreshes length and isEmpty too.
    virtual void resetInternalData() { changed(); }

    // The object of row i for QML, kept in C++ ownership; invalid when out of range.
    QVariant item(int i)
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
