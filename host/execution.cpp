// SPDX-License-Identifier: MIT
#include "execution.h"

#include "commandqueue.h"
#include "host.h"
#include "hostlog.h"

#include <QJsonDocument>
#include <QJsonObject>

#include <algorithm>

namespace {

QString compact(const QVariantMap &map)
{
    return QString::fromUtf8(QJsonDocument(QJsonObject::fromVariantMap(map)).toJson(QJsonDocument::Compact));
}

} // namespace

Execution::Execution(Host *host, DeadlineQueue *guards, DAbstractPlugin *device, const QString &command,
                     const QVariantMap &arguments)
    : QObject(host)
    , m_host(host)
    , m_guards(guards)
    , m_device(device)
    , m_commandName(command)
    , m_arguments(arguments)
{}

Execution::~Execution()
{
    if (!isFinished())
        setFinished(Stopped, DError{IMessenger::CeStopped, 0, QStringLiteral("the execution was deleted")});
}

void Execution::setCommand(DAbstractCommand *command, const QSharedPointer<ICommand> &fresh, bool listening,
                           bool checkArguments, CommandQueue *queue)
{
    m_command = command;
    m_fresh = fresh;
    m_listening = listening;
    m_checkArguments = checkArguments;
    m_queue = queue;
}

void Execution::setState(State state)
{
    if (m_state == state)
        return;
    m_state = state;
    emit stateChanged(state);
}

QString Execution::deviceName() const
{
    return m_device ? m_device->getName() : QString();
}

void Execution::start()
{
    if (m_state != Queued)
        return;
    DAbstractCommand *command = m_command;
    if (!command) {
        setFinished(Failed, DError{IMessenger::CeRefused, 0, QStringLiteral("command \"%1\" is no longer available").arg(m_commandName)});
        return;
    }
    setState(Running);
    if (lcHost().isDebugEnabled())
        qCDebug(lcHost).noquote() << "running" << m_commandName << compact(m_arguments) << "on" << deviceName();
    command->setParameters(m_arguments);
    command->setArgumentChecks(m_checkArguments);
    const QPointer<Execution> self(this);
    // Active while the command runs: what it posts or sends meanwhile is this execution's.
    ++m_active;
    const bool started = command->commandExecute();
    if (self)
        --m_active;
    if (!self || isFinished())
        return;
    if (!started) {
        const QString reason = command->errorString();
        setFinished(Failed, DError{IMessenger::CeRefused, 0,
                                   QStringLiteral("%1 refused to run: %2")
                                       .arg(m_commandName, reason.isEmpty() ? QStringLiteral("the command gave no reason") : reason)});
        return;
    }
    settleIfDone();
}

void Execution::settleIfDone()
{
    if (m_state == Running && !m_listening && m_pending.empty())
        setFinished(Succeeded);
}

bool Execution::stop()
{
    if (isFinished())
        return false;
    if (m_state == Queued) {
        setFinished(Stopped, DError{IMessenger::CeStopped, 0, QStringLiteral("%1 was stopped before it started").arg(m_commandName)});
    } else if (m_listening) {
        qCDebug(lcHost).noquote() << "running" << (m_command ? m_command->stopCommandName() : QString()) << "for" << m_commandName;
        setFinished(Stopped, DError{IMessenger::CeStopped, 0, QString()});
    } else {
        setFinished(Stopped, DError{IMessenger::CeStopped, 0, QStringLiteral("%1 was stopped before it completed").arg(m_commandName)});
    }
    return true;
}

void Execution::setFinished(State state, const DError &error)
{
    if (isFinished())
        return;
    if (state == Failed)
        qCWarning(lcHost).noquote() << error.text;
    else
        qCDebug(lcHost).noquote() << m_commandName << "ended" << state << error.text;
    m_error = error;
    QList<unsigned long long> pending;
    for (const Pending &instruction : m_pending) {
        pending << instruction.id;
        m_guards->remove(instruction.guard);
    }
    m_pending.clear();
    if (m_fresh) {
        // This may be a call from inside the fresh command itself: it goes on the next turn
        // (the host flushes these before it deletes the plug-ins).
        QMetaObject::invokeMethod(m_guards, [fresh = m_fresh] { Q_UNUSED(fresh) }, Qt::QueuedConnection);
        m_fresh.reset();
    }
    // The host first stops what is left at the driver, then the queue moves on.
    m_host->release(this, pending);
    setState(state);
    emit finished();
}

void Execution::addInstruction(unsigned long long id, const QString &instruction,
                               const IMessenger::ReplyCallback &callback, int guardMs)
{
    m_pending.push_back(Pending{id, instruction, callback, guardMs, m_guards->add(id, guardMs)});
}

std::vector<Execution::Pending>::iterator Execution::findPending(unsigned long long id)
{
    return std::find_if(m_pending.begin(), m_pending.end(), [id](const Pending &pending) { return pending.id == id; });
}

void Execution::guardExpired(unsigned long long id)
{
    const auto it = findPending(id);
    if (it == m_pending.end())
        return;
    it->guard = m_guards->none();
    setFinished(Failed, DError{IMessenger::CeTimeout, 0,
                               QStringLiteral("%1: no reply to instruction %2 (\"%3\" to the driver of \"%4\") within %5 ms")
                                   .arg(m_commandName).arg(id).arg(it->instruction, deviceName()).arg(it->guardMs)});
}

void Execution::deliver(unsigned long long id, const QVariantMap &reply, bool last)
{
    const auto it = findPending(id);
    if (it == m_pending.end() || isFinished())
        return;
    // The guard covers the first reply; a listen then reports only changes.
    m_guards->remove(it->guard);
    it->guard = m_guards->none();
    const IMessenger::ReplyCallback callback = it->callback;
    const QString instruction = it->instruction;
    if (last)
        m_pending.erase(it);
    const QPointer<DAbstractCommand> command = m_command;
    if (!command)
        return;

    const QPointer<Execution> self(this);
    const DError driverError = DError::fromReply(reply);
    bool accepted = true;
    ++m_active;
    if (!callback.empty()) {
        // On a driver error the command still sees the reply and makes its own checks (and
        // log line); the caller is told the driver's code and text.
        accepted = callback(id, reply);
    } else if (!driverError.isError()) {
        // Nobody waits for this reply: what it carries under a declared result name becomes that result.
        for (auto value = reply.cbegin(); value != reply.cend(); ++value)
            if (command->declaresResult(value.key()))
                command->commandUpdateResult(value.key(), value.value());
    }
    if (self)
        --m_active;
    if (!self || isFinished())
        return;
    if (driverError.isError()) {
        const DError error{driverError.code, driverError.exceptionCode,
                           QStringLiteral("%1: the driver of \"%2\" failed instruction %3 (\"%4\"): %5")
                               .arg(m_commandName, deviceName())
                               .arg(id)
                               .arg(instruction, driverError.text)};
        if (!last && m_listening) {
            // A listen outlives an outage: the driver goes on and reports again once it can.
            qCWarning(lcHost).noquote() << error.text;
            emit errorReported(error);
        } else {
            setFinished(Failed, error);
        }
    } else if (!accepted) {
        setFinished(Failed, DError{IMessenger::CeReplyRejected, 0,
                                   QStringLiteral("%1: the command rejected the reply to instruction %2 (\"%3\"): %4")
                                       .arg(m_commandName).arg(id).arg(instruction, compact(reply))});
    } else if (last) {
        settleIfDone();
    }
}

void Execution::commandPosted(const QString &name, const QVariant &value)
{
    if (!isActive())
        return;
    m_results.insert(name, value);
    emit resultChanged(name, value);
}

void Execution::commandFinished(bool ok, const QString &error)
{
    if (!isActive())
        return;
    if (ok)
        setFinished(Succeeded);
    else
        setFinished(Failed, DError{IMessenger::CeRefused, 0, QStringLiteral("%1 failed: %2").arg(m_commandName, error)});
}
