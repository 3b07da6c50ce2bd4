// SPDX-License-Identifier: MIT
#include "deadlinequeue.h"

#include <chrono>

namespace {

// Milliseconds on the monotonic clock.
qint64 nowMs()
{
    return std::chrono::duration_cast<std::chrono::milliseconds>(std::chrono::steady_clock::now().time_since_epoch()).count();
}

} // namespace

DeadlineQueue::DeadlineQueue(QObject *parent)
    : QObject(parent)
{
    m_timer.setSingleShot(true);
    connect(&m_timer, &QTimer::timeout, this, &DeadlineQueue::onTimer);
}

DeadlineQueue::Handle DeadlineQueue::add(quint64 key, qint64 inMs)
{
    const qint64 deadline = nowMs() + inMs; // one already past fires on the next turn
    const Handle handle = m_deadlines.emplace(deadline, key);
    // The timer is only moved earlier here; a removed deadline leaves it armed, and it
    // re-arms itself for the earliest one left when it fires.
    if (!m_timer.isActive() || deadline < m_armedFor)
        arm(deadline);
    return handle;
}

void DeadlineQueue::remove(Handle handle)
{
    if (handle != m_deadlines.end())
        m_deadlines.erase(handle);
}

void DeadlineQueue::arm(qint64 deadline)
{
    m_armedFor = deadline;
    m_timer.start(int(qMax<qint64>(0, deadline - nowMs())));
}

void DeadlineQueue::onTimer()
{
    // One at a time: a receiver may add or remove deadlines.
    while (!m_deadlines.empty() && m_deadlines.begin()->first <= nowMs()) {
        const quint64 key = m_deadlines.begin()->second;
        m_deadlines.erase(m_deadlines.begin());
        emit expired(key);
    }
    if (!m_deadlines.empty())
        arm(m_deadlines.begin()->first);
}
