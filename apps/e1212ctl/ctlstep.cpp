// SPDX-License-Identifier: MIT
#include "ctlstep.h"

#include "ctlcall.h"
#include "ctlsession.h"

CtlStep::CtlStep(CtlRunner &runner, CtlSession &session, const CtlArgs &args, const Done &done)
    : m_runner(runner)
    , m_session(session)
    , m_args(args)
    , m_done(done)
{}

void CtlStep::finish(const CtlOutcome &outcome)
{
    if (m_finished)
        return;
    m_finished = true;
    m_cancel = nullptr;
    // A refusal's JSON line names the subcommand that refused.
    CtlOutcome named = outcome;
    if (named.command.isEmpty() && named.isRefusal())
        named.command = m_args.name();
    const int exitCode = m_session.report(named);
    deleteLater();
    const Done done = std::move(m_done);
    if (done)
        done(exitCode);
}

void CtlStep::setCancel(const std::function<void()> &cancel)
{
    if (m_session.isCheckOnly())
        return finish(CtlOutcome());
    m_cancel = cancel;
}

void CtlStep::cancel()
{
    if (!m_finished && m_cancel)
        m_cancel();
}

void CtlStep::run(const CtlRequest &request)
{
    if (m_session.isCheckOnly())
        return finish(CtlOutcome());
    auto *call = new CtlCall(m_session, request, false, [this](const CtlOutcome &outcome) { finish(outcome); }, this);
    setCancel([call] { call->stop(); });
}
