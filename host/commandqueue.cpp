// SPDX-License-Identifier: MIT
#include "commandqueue.h"

#include "dabstractcommand.h"
#include "execution.h"

CommandQueue::CommandQueue(DAbstractCommand *command, Mode mode, QObject *parent)
    : QObject(parent)
    , m_mode(mode)
{
    // Several executions may share a declared object (listens): what the command posts
    // belongs to the one it works for now, if any.
    connect(command, &DAbstractCommand::sigResultChanged, this, [this](const QString &name, const QVariant &value) {
        if (Execution *execution = active())
            execution->commandPosted(name, value);
    });
    connect(command, &DAbstractCommand::sigFinished, this, [this](bool ok, const QString &error) {
        if (Execution *execution = active())
            execution->commandFinished(ok, error);
    });
}

void CommandQueue::submit(Execution *execution)
{
    m_waiting << execution;
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

void CommandQueue::release(Execution *execution)
{
    m_running.removeOne(execution);
    if (!m_waiting.isEmpty())
        schedule();
    else if (m_running.isEmpty())
        emit idle();
}
