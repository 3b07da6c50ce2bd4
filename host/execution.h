// SPDX-License-Identifier: MIT
// One run of a device command, from Host::execute() to its end.
#pragma once

#include "dabstractcommand.h"
#include "dabstractplugin.h"
#include "derror.h"
#include "imessenger.h"

#include <QObject>
#include <QPointer>
#include <QSharedPointer>
#include <QVariantMap>
#include <QVector>

class Host;

class Execution : public QObject
{
    Q_OBJECT
public:
    enum State { Queued, Running, Succeeded, Failed, Stopped };
    Q_ENUM(State)

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
    // CeNoError while running and on success; CeStopped once stopped.
    IMessenger::EnErrorCode errorCode() const { return m_errorCode; }
    // Empty unless Failed (or Stopped before its end): one line saying what went wrong.
    QString errorString() const { return m_errorString; }
    // The Modbus exception number when errorCode() is CeModbusException, else 0.
    int exceptionCode() const { return m_exceptionCode; }
    DError error() const { return DError{m_errorCode, m_exceptionCode, m_errorString}; }

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
    friend class Host;
    Execution(Host *host, DAbstractPlugin *device, const QString &command, const QVariantMap &arguments);

    void setState(State state);
    void postResult(const QString &name, const QVariant &value);
    void end(State state, IMessenger::EnErrorCode code, const QString &error, int exceptionCode = 0);

    Host *m_host = nullptr;
    QPointer<DAbstractPlugin> m_device;
    const QString m_commandName;
    const QVariantMap m_arguments;
    bool m_listening = false;
    // Whether the command checks the arguments against their declared type codes.
    bool m_checkArguments = true;
    State m_state = Queued;
    QVariantMap m_results;
    IMessenger::EnErrorCode m_errorCode = IMessenger::CeNoError;
    QString m_errorString;
    int m_exceptionCode = 0;

    // Kept by the host: the object the execution runs on (a fresh one from the command's
    // factory, held here, or the declared one) and its instructions still pending.
    QPointer<DAbstractCommand> m_command;
    QSharedPointer<ICommand> m_fresh;
    QVector<unsigned long long> m_instructions;
};
