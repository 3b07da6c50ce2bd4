// SPDX-License-Identifier: MIT
// Deadlines of the host (instruction guards, periodic runs) behind one timer.
#pragma once

#include <QObject>
#include <QTimer>

#include <map>

class DeadlineQueue : public QObject
{
    Q_OBJECT
public:
    using Handle = std::multimap<qint64, quint64>::iterator;

    explicit DeadlineQueue(QObject *parent = nullptr);

    // Emits expired(key) once, `inMs` from now, unless removed first. Keys need not be unique.
    Handle add(quint64 key, qint64 inMs);
    // Forgets a deadline; `handle` may be none() (nothing happens), never one that expired.
    void remove(Handle handle);
    Handle none() { return m_deadlines.end(); }
    int size() const { return int(m_deadlines.size()); }

signals:
    void expired(quint64 key);

private:
    void onTimer();
    void arm(qint64 deadline);

    QTimer m_timer{this};
    qint64 m_armedFor = 0; // the deadline the timer is set for, while it is active
    std::multimap<qint64, quint64> m_deadlines;
};
