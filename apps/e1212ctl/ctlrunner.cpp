// SPDX-License-Identifier: MIT
#include "ctlrunner.h"

#include "ctllog.h"
#include "ctlsession.h"

#include <QTimer>

CtlRunner::CtlRunner(CtlSession &session, const QList<CtlGroup> &groups, QObject *parent)
    : QObject(parent)
    , m_session(session)
    , m_groups(groups)
{
    connect(&m_signals, &SignalWatcher::interrupted, this, &CtlRunner::interrupt);
}

void CtlRunner::start(const CtlCommand &command, const CtlArgs &args)
{
    QTimer::singleShot(0, this, [this, command, args] {
        m_top = run(command, args, [this](int status) {
            m_session.stopBackground([this, status](const CtlOutcome &background) {
                const int stopped = background.isOk() ? int(CtlOutcome::ExitOk) : m_session.report(background);
                emit finished(status != CtlOutcome::ExitOk ? status : stopped);
            });
        });
    });
}

CtlStep *CtlRunner::runLine(const QStringList &words, const CtlStep::Done &done)
{
    CtlArgs args;
    // A line that is not a step ends as a step of its own, with what is wrong or the help.
    const auto answer = [&](const CtlOutcome &outcome) { return this->answer(outcome, done); };
    const CtlCommand *command = findCtlCommand(m_groups, words.first());
    if (!command || command->where == CtlCommand::CommandLineOnly)
        return answer(CtlOutcome::refused(QStringLiteral("\"%1\" is not a step (see help)").arg(words.first())));
    QString error;
    QList<QCommandLineOption> options = command->options;
    options << QCommandLineOption({QStringLiteral("h"), QStringLiteral("help")}, QString());
    if (!CtlArgs::parse(words, options, &args, &error))
        return answer(CtlOutcome::refused(QStringLiteral("%1 (see e1212ctl %2 --help)").arg(error, command->name)));
    if (args.has(QStringLiteral("help"))) {
        CtlOutcome help;
        help.text = ctlCommandHelp(*command);
        return answer(help);
    }
    if (args.background() && command->name != QLatin1String("listen"))
        return answer(CtlOutcome::refused(QStringLiteral("only listen runs in the background (&)")));
    return run(*command, args, done);
}

CtlStep *CtlRunner::answer(const CtlOutcome &outcome, const CtlStep::Done &done)
{
    auto *step = new CtlStep(*this, m_session, CtlArgs(), done);
    step->setParent(this);
    step->finish(outcome);
    return step;
}

CtlStep *CtlRunner::run(const CtlCommand &command, const CtlArgs &args, const CtlStep::Done &done)
{
    auto *step = new CtlStep(*this, m_session, args, done);
    step->setParent(this);
    command.run(*step);
    return step;
}

void CtlRunner::interrupt(int signalNumber)
{
    if (m_interruptHandler && m_interruptHandler(signalNumber))
        return;
    qCInfo(lcCtl) << "signal" << signalNumber << "received: stopping";
    if (m_top)
        m_top->cancel();
}
