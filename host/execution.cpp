// SPDX-License-Identifier: MIT
#include "execution.h"

#include "host.h"

Execution::Execution(Host *host, DAbstractPlugin *device, const QString &command, const QVariantMap &arguments)
    : QObject(host)
    , m_host(host)
    , m_device(device)
    , m_commandName(command)
    , m_arguments(arguments)
{}

Execution::~Execution()
{
    if (!isFinished() && m_host)
        m_host->forget(this);
}

void Execution::setState(State state)
{
    if (m_state == state)
        return;
    m_state = state;
    emit stateChanged(state);
}

void Execution::postResult(const QString &name, const QVariant &value)
{
    m_results.insert(name, value);
    emit resultChanged(name, value);
}

void Execution::end(State state, IMessenger::EnErrorCode code, const QString &error, int exceptionCode)
{
    if (isFinished())
        return;
    m_errorCode = code;
    m_errorString = error;
    m_exceptionCode = exceptionCode;
    setState(state);
    emit finished();
}
