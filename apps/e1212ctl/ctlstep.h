// SPDX-License-Identifier: MIT
// One running e1212ctl subcommand: started by the runner, it ends exactly once with an
// outcome, at once or when what it waits for (an execution, a timer, a line) says so.
#pragma once

#include "ctlargs.h"
#include "ctloutcome.h"

#include <QObject>

#include <functional>

class CtlRunner;
class CtlSession;
struct CtlRequest;

class CtlStep : public QObject
{
    Q_OBJECT
public:
    using Done = std::function<void(int exitCode)>;

    // `done` gets the exit code once the outcome is printed; it may come from inside start.
    CtlStep(CtlRunner &runner, CtlSession &session, const CtlArgs &args, const Done &done);

    CtlRunner &runner() const { return m_runner; }
    CtlSession &session() const { return m_session; }
    const CtlArgs &args() const { return m_args; }
    bool isFinished() const { return m_finished; }

    // Prints the outcome, tells the runner and deletes the step later. Only the first call counts.
    void finish(const CtlOutcome &outcome);
    // What Ctrl-C / SIGTERM do to this step; without it, nothing (the step ends on its own).
    // A step sets it once its checks have passed and before it starts its work, so in a check
    // (CtlSession::isCheckOnly()) the step ends here, passed, and what it starts is dropped.
    void setCancel(const std::function<void()> &cancel);
    void cancel();

    // Runs one device command and ends with its outcome; a cancel stops the command. In a
    // check the step ends passed and nothing runs.
    void run(const CtlRequest &request);

private:
    CtlRunner &m_runner;
    CtlSession &m_session;
    const CtlArgs m_args;
    Done m_done;
    std::function<void()> m_cancel;
    bool m_finished = false;
};
