// SPDX-License-Identifier: MIT
// The executions of one command object, in the order they were submitted. The queue holds
// the one connection to the object's signals and hands what the command posts to the
// execution it works for at that moment.
#pragma once

#include <QList>
#include <QObject>
#include <QPointer>

class DAbstractCommand;
class Execution;

class CommandQueue : public QObject
{
    Q_OBJECT
public:
    // OneAtATime: a declared object that keeps state per execution; the next starts once the
    // running one has ended. AllAtOnce: a listening command's declared object (one execution
    // per channel) or a fresh object made for one execution.
    enum Mode { OneAtATime, AllAtOnce };

    CommandQueue(DAbstractCommand *command, Mode mode, QObject *parent = nullptr);

    // Takes a Queued execution; it starts on a later event-loop turn, when its turn comes. An
    // execution stopped while it waits is skipped.
    void submit(Execution *execution);
    // The execution has ended (called once, by the host): the next may start.
    void release(Execution *execution);
    // The running execution whose command works for it now (Execution::isActive), or nullptr.
    Execution *active() const;
    bool isIdle() const { return m_running.isEmpty() && m_waiting.isEmpty(); }

signals:
    // Nothing runs or waits any more.
    void idle();

private:
    void schedule();
    void startWaiting();

    const Mode m_mode;
    QList<Execution *> m_running;
    QList<QPointer<Execution>> m_waiting;
    bool m_scheduled = false;
};
