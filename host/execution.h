// SPDX-License-Identifier: MIT
// One run of a device command, from Host::execute() to its end: the reply object of the host,
// as QModbusReply is QModbusClient's. It owns its state, its results and error, the command
// object it runs on and its instructions still pending at the driver (with their reply
// callbacks and guards); the host only routes replies and guard expiries to it.
#pragma once

#include "deadlinequeue.h"
#include "dabstractcommand.h"
#include "dabstractplugin.h"
#include "derror.h"
#include "imessenger.h"

#include <QHash>
#include <QObject>
#include <QPointer>
#include <QSharedPointer>
#include <QVariantMap>

#include <vector>

class CommandQueue;
class Host;

class Execution : public QObject
{
    Q_OBJECT
public:
    enum State { Queued, Running, Succeeded, Failed, Stopped };
    Q_ENUM(State)

    // Made by Host::execute(), which it tells of its end; `guards` times the instructions
    // this execution sends.
    Execution(Host *host, DeadlineQueue *guards, DAbstractPlugin *device, const QString &command,
              const QVariantMap &arguments);
    // Deleting a running execution stops it first.
    ~Execution() override;

    State state() const { return m_state; }
    bool isFinished() const { return m_state == Succeeded || m_state == Failed || m_state == Stopped; }
    // Succeeded, or a listening execution ended by Host::stop() (its normal end).
    bool isOk() const { return m_state == Succeeded || (m_state == Stopped && m_listening); }
    DAbstractPlugin *device() const { return m_device; }
    QString commandName() const { return m_commandName; }
    QVariantMap arguments() const { return m_arguments; }
    // True for a command with a stop command ("listenEvents"): it runs until stopped.
    bool isListening() const { return m_listening; }
    // Results posted by this execution so far (the latest value of each).
    QVariantMap results() const { return m_results; }
    // CeNoError while running and on success; CeStopped once stopped. CeRefused means that
    // nothing was sent.
    IMessenger::EnErrorCode errorCode() const { return m_error.code; }
    // Empty unless Failed (or Stopped before its end): one line saying what went wrong.
    QString errorString() const { return m_error.text; }
    // The Modbus exception number when errorCode() is CeModbusException, else 0.
    int exceptionCode() const { return m_error.exceptionCode; }
    DError error() const { return m_error; }

    // The host's side. The command object this execution runs on: `fresh` when the command
    // made one for it, else the declared `command`; `queue` runs it and forwards what the
    // command posts while it is active.
    void setCommand(DAbstractCommand *command, const QSharedPointer<ICommand> &fresh, bool listening,
                    bool checkArguments, CommandQueue *queue);
    DAbstractCommand *command() const { return m_command; }
    CommandQueue *queue() const { return m_queue; }
    // Whether the command runs on this execution's behalf now (inside its commandExecute or
    // one of its reply callbacks): what the command posts or sends then is this execution's.
    bool isActive() const { return m_active > 0; }
    // Runs the command: Running, then commandExecute(). Ends at once when the command refuses
    // or sends nothing.
    void start();
    // Stops it: a queued or running one ends Stopped with CeStopped and a line saying so; a
    // listening one ends Stopped without error, its normal end. False once finished.
    bool stop();
    // Ends the execution (once): its pending instructions are dropped (the host stops them
    // at the driver and its queue moves on), then stateChanged() and finished() are emitted.
    void setFinished(State state, const DError &error = DError());

    // An instruction the command sent on this execution's behalf; the guard expires
    // `guardMs` from now unless a reply comes first.
    void addInstruction(unsigned long long id, const QString &instruction, const IMessenger::ReplyCallback &callback,
                        int guardMs);
    // A driver's reply to instruction `id`; `last` when the driver ends the instruction with it.
    void deliver(unsigned long long id, const QVariantMap &reply, bool last);
    // The guard of instruction `id` expired: the driver gave no answer in time.
    void guardExpired(unsigned long long id);
    // What the command posted (a result) or said (its end) while it worked for this execution.
    void commandPosted(const QString &name, const QVariant &value);
    void commandFinished(bool ok, const QString &error);

signals:
    void stateChanged(Execution::State state);
    // Every result the command posts; for a listening command, one per report.
    void resultChanged(const QString &name, const QVariant &value);
    // A listening execution's driver reported an error and goes on (an outage): the driver's
    // code and exception number, and a text naming the command, the device and the reason.
    void errorReported(const DError &error);
    // Emitted once, when the state becomes Succeeded, Failed or Stopped.
    void finished();

private:
    struct Pending
    {
        unsigned long long id = 0;
        QString instruction;
        IMessenger::ReplyCallback callback;
        int guardMs = 0;
        DeadlineQueue::Handle guard;
    };

    void setState(State state);
    // Succeeded once a non-listening execution has nothing pending.
    void settleIfDone();
    QString deviceName() const;

    Host *m_host = nullptr;
    CommandQueue *m_queue = nullptr;
    DeadlineQueue *m_guards = nullptr;
    QPointer<DAbstractPlugin> m_device;
    const QString m_commandName;
    const QVariantMap m_arguments;
    bool m_listening = false;
    bool m_checkArguments = true;
    State m_state = Queued;
    QVariantMap m_results;
    DError m_error;
    QPointer<DAbstractCommand> m_command;
    QSharedPointer<ICommand> m_fresh;
    int m_active = 0;
    // Few at a time (one per instruction on its way), searched in order.
    std::vector<Pending> m_pending;
    std::vector<Pending>::iterator findPending(unsigned long long id);
};
