// SPDX-License-Identifier: MIT
#include "commandqueue.h"

#include "execution.h"

CommandQueue::CommandQueue(Mode mode, QObject *parent)
    : QObject(parent)
    , m_mode(mode)
{}

void CommandQueue::submit(Execution *execution)
{
    m_waiting << execution;
    connect(execution, &Execution::released, this, [this, execution] { onReleased(execution); });
    schedule();
}

Execution *CommandQueue::active() const
{
    for (Execution *execution : m_running)
        if (execution->isActive())
            return execution;
    return nullptr;
}

void CommandQueue::schedule()
{
    if (m_scheduled)
        return;
    m_scheduled = true;
    QMetaObject::invokeMethod(this, &CommandQueue::startWaiting, Qt::QueuedConnection);
}

void CommandQueue::startWaiting()
{
    m_scheduled = false;
    while (!m_waiting.isEmpty() && (m_mode == AllAtOnce || m_running.isEmpty())) {
        const QPointer<Execution> next = m_waiting.takeFirst();
        if (!next || next->state() != Execution::Queued)
            continue;
        m_running << next;
        next->start();
    }
    if (isIdle())
        emit idle();
}

void CommandQueue::onReleased(Execution *execution)
{
    m_running.removeOne(execution);
    if (!m_waiting.isEmpty())
        schedule();
    else if (m_running.isEmpty())
        emit idle();
}
