// SPDX-License-Identifier: MIT
#include "backendruns.h"

#include "dabstractpluginbackend.h"
#include "execution.h"
#include "host.h"

BackendRuns::BackendRuns(Host *host)
    : QObject(host)
    , m_host(host)
{
    connect(&m_schedule, &DeadlineQueue::expired, this, [this](quint64 runId) {
        if (m_runs.contains(runId))
            startRun(runId);
    });
}

BackendRuns::~BackendRuns()
{
    // Runs still going end without telling their back-ends.
    for (const Run &run : qAsConst(m_runs))
        if (run.current)
            disconnect(run.current, nullptr, this, nullptr);
}

unsigned long long BackendRuns::start(DAbstractPluginBackend *backend, const QString &command,
                                      const QVariantMap &arguments, int repeatMs)
{
    const unsigned long long runId = ++m_lastId;
    Run &run = m_runs[runId];
    run.backend = backend;
    run.command = command;
    run.arguments = arguments;
    run.repeatMs = qMax(0, repeatMs);
    run.next = m_schedule.none();
    startRun(runId);
    return runId;
}

void BackendRuns::startRun(unsigned long long runId)
{
    const auto it = m_runs.find(runId);
    it->next = m_schedule.none();
    if (!it->backend) {
        m_runs.erase(it);
        return;
    }
    Execution *execution = m_host->execute(it->backend->plugin(), it->command, it->arguments);
    it->current = execution;
    connect(execution, &Execution::resultChanged, this,
            [runId, backend = it->backend, command = it->command](const QString &name, const QVariant &value) {
                if (backend)
                    backend->commandResultChanged(runId, command, name, value);
            });
    connect(execution, &Execution::finished, this, [this, runId, execution] { runEnded(runId, execution); });
}

void BackendRuns::runEnded(unsigned long long runId, Execution *execution)
{
    execution->deleteLater();
    const auto it = m_runs.find(runId);
    if (it == m_runs.end())
        return;
    const QPointer<DAbstractPluginBackend> backend = it->backend;
    const QString command = it->command;
    it->current = nullptr;
    // The next run is due `repeatMs` after this one's end, whatever its outcome.
    if (it->repeatMs != 0 && !it->stopped && backend)
        it->next = m_schedule.add(runId, it->repeatMs);
    else
        m_runs.erase(it);
    if (!backend)
        return;
    if (execution->isOk())
        backend->commandFinished(runId, command, execution->results());
    else
        backend->commandFailed(runId, command, execution->error());
}

bool BackendRuns::stop(unsigned long long runId)
{
    const auto it = m_runs.find(runId);
    if (it == m_runs.end() || it->stopped)
        return false;
    if (it->current) {
        it->stopped = true;
        return it->current->stop();
    }
    m_schedule.remove(it->next);
    m_runs.erase(it);
    return true;
}
