// SPDX-License-Identifier: MIT
// The QML face shared by every object list model: a change signal, length/isEmpty and
// item access. The storage lives in the QObjectListModelBase<T> template.
#pragma once

#include <QAbstractListModel>

namespace __qobjectsqmllist {

class QObjectListModelQml : public QAbstractListModel
{
    Q_OBJECT
    Q_PROPERTY(int length READ length NOTIFY changed)
    // An int on purpose: QML sees 1 or 0.
    Q_PROPERTY(int isEmpty READ isEmpty NOTIFY changed)
public:
    // The one data role: the item object itself.
    static constexpr int ModelDataRole = Qt::UserRole;

    using QAbstractListModel::QAbstractListModel;

    int length() const { return rowCount(); }
    int isEmpty() const { return rowCount() == 0 ? 1 : 0; }

    Q_INVOKABLE QVariant header(int section);

signals:
    // Emitted by the owner after it changed the list.
    void changed();

protected slots:
    // Called by name from endResetModel(), so a reset refreshes length and isEmpty too.
    void resetInternalData();

protected:
    // The object of row i for QML, kept in C++ ownership; invalid when out of range.
    Q_INVOKABLE virtual QVariant item(int i) = 0;
};

} // namespace __qobjectsqmllist
