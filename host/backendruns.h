// SPDX-License-Identifier: MIT
// The runs a plug-in's back-end asks for (runCommand, runCommandEvery): each run is an
// execution of the host, its progress goes to the back-end's hooks.
#pragma once

#include "deadlinequeue.h"

#include <QHash>
#include <QObject>
#include <QPointer>
#include <QVariantMap>

class DAbstractPluginBackend;
class Execution;
class Host;

class BackendRuns : public QObject
{
    Q_OBJECT
public:
    explicit BackendRuns(Host *host);
    ~BackendRuns() override;

    // See IMessenger::runCommandEvery (0: one run). Returns the run id, unique among runs.
    unsigned long long start(DAbstractPluginBackend *backend, const QString &command, const QVariantMap &arguments,
                             int repeatMs);
    // See IMessenger::stopCommand.
    bool stop(unsigned long long runId);

private:
    struct Run
    {
        QPointer<DAbstractPluginBackend> backend;
        QString command;
        QVariantMap arguments;
        int repeatMs = 0;
        bool stopped = false;
        QPointer<Execution> current;
        DeadlineQueue::Handle next;
    };

    void startRun(unsigned long long runId);
    void runEnded(unsigned long long runId, Execution *execution);

    Host *m_host;
    unsigned long long m_lastId = 0;
    QHash<unsigned long long, Run> m_runs;
    // The next runs of schedules, keyed by run id.
    DeadlineQueue m_schedule{this};
};
