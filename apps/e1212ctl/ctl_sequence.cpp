// SPDX-License-Identifier: MIT
// e1212ctl's sessions: script and shell run subcommand lines as steps over one host
// session, and the steps made for sequences (expect, wait, use, stop).
#include "ctl_sequence.h"

#include "ctlcall.h"
#include "ctlrunner.h"
#include "ctllibrary.h"
#include "ctlsession.h"
#include "ctlstep.h"
#include "dabstractplugin.h"
#include "execution.h"
#include "host.h"

#include <QJsonObject>
#include <QTimer>

namespace {

constexpr quint32 c_maxWaitMs = 7 * 24 * 3600 * 1000;

// The sequence and GNU readline live in the sequence library, loaded now.
void script(CtlStep &step)
{
    ctlRunFromLibrary(step, QStringLiteral("sequence"), "e1212ctlScript");
}

void shell(CtlStep &step)
{
    ctlRunFromLibrary(step, QStringLiteral("sequence"), "e1212ctlShell");
}

// help [STEP]: the steps a sequence runs, or one step's usage.
void help(CtlStep &step)
{
    const QStringList &words = step.args().positional();
    const QList<CtlGroup> &groups = step.runner().groups();
    if (words.size() > 1)
        return step.finish(CtlOutcome::refused(QStringLiteral("usage: help [STEP]")));
    if (words.isEmpty())
        return step.finish(CtlOutcome::local(QStringLiteral("help"), {}, ctlStepHelp(groups)));
    const CtlCommand *command = findCtlCommand(groups, words.first());
    if (!command || command->where == CtlCommand::CommandLineOnly)
        return step.finish(CtlOutcome::refused(QStringLiteral("help: \"%1\" is not a step").arg(words.first())));
    step.finish(CtlOutcome::local(QStringLiteral("help"), {{QStringLiteral("step"), command->name}}, ctlCommandHelp(*command)));
}

// expect CH VALUE [--within MS]: without --within one read decides (an output's coil, as get
// reads it). With it, a listen on the channel reports its value (an output's coil) now and on
// each change, until one is VALUE or the deadline has passed and a value has come.
class Expectation : public QObject
{
public:
    Expectation(CtlStep &step, const CtlChannel &channel, quint32 expected, quint32 within)
        : QObject(&step), m_step(step), m_session(step.session()), m_channel(channel), m_expected(expected), m_within(within)
    {
        step.setCancel([this] { conclude(failure(QStringLiteral("stopped before the value was read"), QStringLiteral("stopped"))); });
        if (within == 0) {
            new CtlCall(m_session, CtlCall::stateRead(m_session, channel.device, channel.id), false, [this](const CtlOutcome &outcome) {
                if (!outcome.isOk())
                    return conclude(failure(outcome.error, outcome.code));
                judge(outcome.results.value(QStringLiteral("value")));
            }, this);
            return;
        }
        m_listen = m_session.host()->execute(m_session.device(channel.device), QStringLiteral("listenEvents"),
                                             {{QStringLiteral("channel"), channel.id}});
        connect(m_listen, &Execution::resultChanged, this, [this](const QString &, const QVariant &report) {
            const QVariantList values = report.toMap().value(QStringLiteral("values")).toList();
            judge(values.value(0));
        });
        connect(m_listen, &Execution::errorReported, this, [this](const DError &error) { conclude(failure(error)); });
        connect(m_listen, &Execution::finished, this, [this] { conclude(failure(m_listen->error())); });
        m_deadline.setSingleShot(true);
        connect(&m_deadline, &QTimer::timeout, this, [this] {
            m_expired = true;
            if (m_seen)
                judge(m_value);
        });
        m_deadline.start(int(within));
    }

    ~Expectation() override
    {
        delete m_listen; // stops it
    }

private:
    void judge(const QVariant &value)
    {
        m_value = value;
        m_seen = true;
        const bool met = value.toUInt() == m_expected;
        if (!met && !m_expired && m_within > 0)
            return;
        const QString label = m_session.label(m_channel.device, m_channel.id);
        CtlOutcome outcome = result();
        outcome.results.insert(QStringLiteral("value"), int(value.toUInt()));
        if (met) {
            outcome.text = QStringLiteral("%1 = %2 as expected\n").arg(label).arg(m_expected);
        } else {
            outcome.exitCode = CtlOutcome::ExitFailed;
            outcome.error = outcome.message = QStringLiteral("expect %1: read %2, expected %3%4").arg(label).arg(value.toUInt()).arg(m_expected)
                                                  .arg(m_within > 0 ? QStringLiteral(" (within %1 ms)").arg(m_within) : QString());
            outcome.code = QStringLiteral("expect_failed");
        }
        conclude(outcome);
    }

    CtlOutcome result() const
    {
        CtlOutcome outcome;
        outcome.command = QStringLiteral("expect");
        outcome.device = m_session.config(m_channel.device).reference;
        outcome.channel = m_channel.id;
        outcome.results = {{QStringLiteral("expected"), int(m_expected)}};
        return outcome;
    }
    CtlOutcome failure(const DError &error) { return failure(error.text, DError::codeName(error.code)); }
    CtlOutcome failure(const QString &text, const QString &code)
    {
        CtlOutcome outcome = result();
        outcome.exitCode = CtlOutcome::ExitFailed;
        outcome.error = text;
        outcome.code = code;
        outcome.message = QStringLiteral("expect %1: %2").arg(m_session.label(m_channel.device, m_channel.id), text);
        return outcome;
    }

    void conclude(const CtlOutcome &outcome)
    {
        m_deadline.stop();
        if (m_listen) {
            disconnect(m_listen, nullptr, this, nullptr);
            m_listen->deleteLater(); // stops it
            m_listen = nullptr;
        }
        m_step.finish(outcome);
    }

    CtlStep &m_step;
    CtlSession &m_session;
    const CtlChannel m_channel;
    const quint32 m_expected;
    const quint32 m_within;
    Execution *m_listen = nullptr;
    QTimer m_deadline;
    bool m_expired = false;
    bool m_seen = false;
    QVariant m_value;
};

void expect(CtlStep &step)
{
    const CtlArgs &args = step.args();
    if (args.positional().size() != 2)
        return step.finish(CtlOutcome::refused(QStringLiteral("usage: expect CH VALUE [--within MS]")));
    quint32 expected = 0;
    quint32 within = 0;
    QString error;
    if (!CtlArgs::number(args.positional().at(1), 0, 0xFFFF, QStringLiteral("VALUE"), &expected, &error)
        || (args.has(QStringLiteral("within"))
            && !CtlArgs::number(args.value(QStringLiteral("within")), 0, c_maxWaitMs, QStringLiteral("--within"), &within, &error)))
        return step.finish(CtlOutcome::refused(error));
    CtlChannel channel;
    CtlOutcome failure;
    if (!step.session().channel(args.positional().first(), CtlSession::AnyChannel, &channel, &failure))
        return step.finish(failure);
    new Expectation(step, channel, expected, within);
}

void wait(CtlStep &step)
{
    quint32 ms = 0;
    QString error;
    if (step.args().positional().size() != 1)
        return step.finish(CtlOutcome::refused(QStringLiteral("usage: wait MS")));
    if (!CtlArgs::number(step.args().positional().first(), 0, c_maxWaitMs, QStringLiteral("wait"), &ms, &error))
        return step.finish(CtlOutcome::refused(error));
    auto *timer = new QTimer(&step);
    timer->setSingleShot(true);
    const auto done = [&step, ms] { step.finish(CtlOutcome::local(QStringLiteral("wait"), {{QStringLiteral("ms"), ms}})); };
    QObject::connect(timer, &QTimer::timeout, &step, done);
    step.setCancel(done);
    timer->start(int(ms));
}

void use(CtlStep &step)
{
    CtlOutcome failure;
    if (step.args().positional().size() != 1)
        return step.finish(CtlOutcome::refused(QStringLiteral("usage: use NAME")));
    CtlSession &session = step.session();
    if (!session.openDevices(&failure) || !session.use(step.args().positional().first(), &failure))
        return step.finish(failure);
    step.finish(CtlOutcome::local(QStringLiteral("use"), {{QStringLiteral("device"), session.config().reference}}));
}

void stop(CtlStep &step)
{
    if (!step.args().positional().isEmpty())
        return step.finish(CtlOutcome::refused(QStringLiteral("usage: stop")));
    step.session().stopBackground([&step](const CtlOutcome &outcome) { step.finish(outcome); });
}

} // namespace

CtlGroup sequenceGroup()
{
    return {QStringLiteral("Sequences (one session: plug-ins loaded once, one connection per device; a step is a "
                           "subcommand line, # starts a comment)"),
            {
                {QStringLiteral("script"), QStringLiteral("FILE|-"), QStringLiteral("run the steps of FILE (- standard input); stops at the first failure unless --keep-going"),
                 &script, {{QStringLiteral("check"), QStringLiteral("read and check every step (syntax, channels, values, devices), send nothing")}},
                 CtlCommand::CommandLineOnly},
                {QStringLiteral("shell"), QString(),
                 QStringLiteral("read steps at a prompt naming the device, with line editing, history and completion at a "
                                "terminal; Ctrl-C stops the running step, Ctrl-D, quit or a second Ctrl-C at an empty prompt leaves"),
                 &shell, {}, CtlCommand::CommandLineOnly},
                {QStringLiteral("expect"), QStringLiteral("CH VALUE"), QStringLiteral("pass when CH reads VALUE, or, with --within, once its reports show VALUE"),
                 &expect, {{QStringLiteral("within"), QStringLiteral("wait up to MS milliseconds for it"), QStringLiteral("MS")}}},
                {QStringLiteral("wait"), QStringLiteral("MS"), QStringLiteral("wait MS milliseconds"), &wait},
                {QStringLiteral("use"), QStringLiteral("NAME"), QStringLiteral("(steps only) make device NAME the one channels refer to"), &use, {},
                 CtlCommand::ScriptOnly},
                {QStringLiteral("stop"), QString(), QStringLiteral("(steps only) stop the background listens"), &stop, {}, CtlCommand::ScriptOnly},
                {QStringLiteral("help"), QStringLiteral("[STEP]"), QStringLiteral("(steps only) list the steps, or show one step's usage"), &help, {},
                 CtlCommand::ScriptOnly},
            }};
}
