// SPDX-License-Identifier: MIT
// The "listen" instructions of one device, polled together: once per interval the listened
// registers are read with as few requests as the protocol allows, and each listener is told
// about its own registers only.
#pragma once

#include "derror.h"

#include <QBasicTimer>
#include <QElapsedTimer>
#include <QHash>
#include <QModbusDataUnit>
#include <QObject>
#include <QVector>

class ModbusConnection;

class ModbusPoller : public QObject
{
    Q_OBJECT
public:
    // Polls through `connection` (which must outlive this object, or see takeAll() first).
    // A round of reads starts every `intervalMs`, or as soon as the last one ends when it
    // took longer.
    ModbusPoller(ModbusConnection *connection, int intervalMs, QObject *parent = nullptr);

    // Listens to the unit's registers under `id`, each read given `timeoutMs`. The first
    // values come at once (right after the round under way, if any).
    void add(quint64 id, const QModbusDataUnit &unit, int timeoutMs);
    // Nothing more is reported for `id`; the other listeners go on.
    void remove(quint64 id);
    // Withdraws every listener and every poll; returns the ids that were listening.
    QList<quint64> takeAll();

    // Listeners of one table whose addresses are at most this far apart share a read.
    static constexpr int NearGap = 8;

signals:
    // The first values, then each change; after an outage the first values again, changed
    // or not, so the listener knows the device answers again.
    void valuesReported(quint64 id, const QVariantList &values);
    // Once per outage, with the listener's own registers in the text.
    void errorReported(quint64 id, const DError &error);

protected:
    void timerEvent(QTimerEvent *event) override;

private:
    struct Listener {
        QModbusDataUnit unit;
        int timeoutMs = 0;
        QVector<quint16> last;
        bool reported = false; // values reported since the start or the last outage
        bool failing = false;
        bool alone = false; // read on its own since a shared read met a Modbus exception
    };
    struct Span {
        QModbusDataUnit unit;
        int timeoutMs = 0;
        QVector<quint64> members;
    };

    void plan();
    void poll(const Span &span);
    void onPolled(const Span &span, int round, const DError &error, const QVector<quint16> &values);
    void deliver(quint64 id, const Span &span, const DError &error, const QVector<quint16> &values);

    ModbusConnection *const m_connection;
    const int m_intervalMs;
    QHash<quint64, Listener> m_listeners;
    QVector<Span> m_plan;
    bool m_planned = false;
    int m_round = 0;       // bumped when the polls under way are withdrawn
    int m_outstanding = 0; // reads of the round under way
    bool m_again = false;  // a listener came during a round: the next one starts at once
    QBasicTimer m_timer;
    QElapsedTimer m_roundClock; // since the round under way started
};
