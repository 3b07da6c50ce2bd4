// SPDX-License-Identifier: MIT
// Runs e1212ctl's subcommands as steps on the event loop: a step starts, and what ends it
// (an execution's end, a listen's report, a timer, a line of input) starts the next. The
// same runner serves one-shot commands, script and shell; Ctrl-C and SIGTERM cancel what runs.
#pragma once

#include "ctlcommand.h"
#include "ctlstep.h"
#include "signalwatcher.h"

#include <QObject>
#include <QPointer>

class CtlSession;

class CtlRunner : public QObject
{
    Q_OBJECT
public:
    // `groups` are the subcommands a line may name (ctlGroups()).
    CtlRunner(CtlSession &session, const QList<CtlGroup> &groups, QObject *parent = nullptr);

    // Starts `command` once the event loop runs; when it has ended and the background listens
    // have stopped, finished() gives the exit status.
    void start(const CtlCommand &command, const CtlArgs &args);

    // Runs one line of a sequence as a step: its subcommand parsed with that subcommand's
    // options, refused when it is not a step. `done` gets the exit code, maybe from inside
    // this call. Returns the step (finished already when it ended at once).
    CtlStep *runLine(const QStringList &words, const CtlStep::Done &done);
    // A line that is no step (too long, a NUL in it): a step that ends at once with `outcome`.
    CtlStep *answer(const CtlOutcome &outcome, const CtlStep::Done &done);

    const QList<CtlGroup> &groups() const { return m_groups; }

    // A shell takes Ctrl-C itself: `handler` gets each signal first and returns true when it
    // has dealt with it. nullptr: none.
    void setInterruptHandler(const std::function<bool(int signalNumber)> &handler) { m_interruptHandler = handler; }

signals:
    void finished(int exitCode);

private:
    CtlStep *run(const CtlCommand &command, const CtlArgs &args, const CtlStep::Done &done);
    void interrupt(int signalNumber);

    CtlSession &m_session;
    const QList<CtlGroup> m_groups;
    SignalWatcher m_signals;
    QPointer<CtlStep> m_top;
    std::function<bool(int signalNumber)> m_interruptHandler;
};
