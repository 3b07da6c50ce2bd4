// SPDX-License-Identifier: MIT
// e1212ctl's sessions: script and shell run subcommand lines as steps over one host
// session, and the steps made for sequences (expect, wait, use, stop).
#include "ctl_sequence.h"

#include "ctlargs.h"
#include "ctlsession.h"
#include "execution.h"

#include <QDeadlineTimer>
#include <QEventLoop>
#include <QFile>
#include <QJsonObject>
#include <QProcess>
#include <QSocketNotifier>
#include <QTimer>

#include <fcntl.h>
#include <unistd.h>

namespace {

constexpr quint32 c_maxWaitMs = 7 * 24 * 3600 * 1000;
constexpr int c_expectPollMs = 20;

// Lets the event loop run (background listens print) for `ms`.
void pause(int ms)
{
    QEventLoop loop;
    QTimer::singleShot(ms, &loop, &QEventLoop::quit);
    loop.exec();
}

// The words of one step: the text before a "#" that starts the line or follows a blank.
QStringList stepWords(const QString &line)
{
    int comment = -1;
    for (int i = 0; i < line.size() && comment < 0; ++i)
        if (line.at(i) == QLatin1Char('#') && (i == 0 || line.at(i - 1).isSpace()))
            comment = i;
    return QProcess::splitCommand(comment < 0 ? line : line.left(comment));
}

int runStep(CtlSession &session, const QList<CtlGroup> &groups, const QStringList &words)
{
    const CtlCommand *command = findCtlCommand(groups, words.first());
    if (!command || command->where == CtlCommand::CommandLineOnly)
        return session.usageError(QStringLiteral("\"%1\" is not a step (see e1212ctl help script)").arg(words.first()));
    CtlArgs args;
    QString error;
    QList<QCommandLineOption> options = command->options;
    options << QCommandLineOption({QStringLiteral("h"), QStringLiteral("help")}, QString());
    if (!CtlArgs::parse(words, options, &args, &error))
        return session.usageError(QStringLiteral("%1 (see e1212ctl %2 --help)").arg(error, command->name));
    if (args.has(QStringLiteral("help"))) {
        session.out() << ctlCommandHelp(*command);
        return CtlSession::ExitOk;
    }
    if (args.background() && command->name != QLatin1String("listen"))
        return session.usageError(QStringLiteral("only listen runs in the background (&)"));
    return command->run(session, args);
}

// Steps come from a file descriptor; while a line is awaited the event loop runs, so the
// events of background listens keep coming (at a shell prompt too).
class LineReader
{
public:
    explicit LineReader(int fd) : m_fd(fd) {}

    // The next line without its end; false at the end of the input.
    bool next(QByteArray *line)
    {
        while (true) {
            const int end = m_pending.indexOf('\n');
            if (end >= 0) {
                *line = m_pending.left(end);
                m_pending.remove(0, end + 1);
                return true;
            }
            QSocketNotifier readable(m_fd, QSocketNotifier::Read);
            QEventLoop loop;
            QObject::connect(&readable, &QSocketNotifier::activated, &loop, &QEventLoop::quit);
            loop.exec();
            char buffer[4096];
            const ssize_t got = ::read(m_fd, buffer, sizeof buffer);
            if (got <= 0) {
                *line = m_pending;
                m_pending.clear();
                return !line->isEmpty();
            }
            m_pending.append(buffer, int(got));
        }
    }

private:
    int m_fd;
    QByteArray m_pending;
};

// Runs every line of `fd` as a step; returns the status of the first failing step.
int runSteps(CtlSession &session, int fd, const QString &source, bool prompt)
{
    const QList<CtlGroup> groups = ctlGroups();
    LineReader reader(fd);
    QByteArray bytes;
    int first = CtlSession::ExitOk;
    int number = 0;
    while (true) {
        if (prompt)
            session.out() << "e1212ctl> " << Qt::flush;
        if (!reader.next(&bytes))
            break;
        ++number;
        const QStringList words = stepWords(QString::fromUtf8(bytes).trimmed());
        if (words.isEmpty())
            continue;
        if (prompt && (words.first() == QLatin1String("quit") || words.first() == QLatin1String("exit")))
            break;
        session.setStep(source, number);
        const int status = runStep(session, groups, words);
        if (status != CtlSession::ExitOk && first == CtlSession::ExitOk)
            first = status;
        if (status != CtlSession::ExitOk && !prompt && !session.options().keepGoing)
            break;
    }
    const int background = session.stopBackground();
    session.setStep(QString(), 0);
    return first != CtlSession::ExitOk ? first : background;
}

int script(CtlSession &session, const CtlArgs &args)
{
    if (args.positional().size() != 1)
        return session.usageError(QStringLiteral("usage: script FILE (or - for standard input)"));
    const QString path = args.positional().first();
    if (path == QLatin1String("-"))
        return runSteps(session, STDIN_FILENO, QStringLiteral("-"), false);
    const int fd = ::open(QFile::encodeName(path).constData(), O_RDONLY);
    if (fd < 0)
        return session.usageError(QStringLiteral("script %1: cannot read it").arg(path));
    const int status = runSteps(session, fd, path, false);
    ::close(fd);
    return status;
}

int shell(CtlSession &session, const CtlArgs &args)
{
    if (!args.positional().isEmpty())
        return session.usageError(QStringLiteral("usage: shell"));
    return runSteps(session, STDIN_FILENO, QStringLiteral("shell"), !session.options().json);
}

int expect(CtlSession &session, const CtlArgs &args)
{
    int exitCode = 0;
    if (args.positional().size() != 2)
        return session.usageError(QStringLiteral("usage: expect CH VALUE [--within MS]"));
    quint32 expected = 0;
    quint32 within = 0;
    QString error;
    if (!CtlArgs::number(args.positional().at(1), 0, 0xFFFF, QStringLiteral("VALUE"), &expected, &error)
        || (args.has(QStringLiteral("within"))
            && !CtlArgs::number(args.value(QStringLiteral("within")), 0, c_maxWaitMs, QStringLiteral("--within"), &within, &error)))
        return session.usageError(error);
    CtlChannel channel;
    if (!session.channel(args.positional().first(), CtlSession::AnyChannel, &channel, &exitCode))
        return exitCode;
    const QDeadlineTimer deadline(within);
    QVariant value;
    while (true) {
        Execution *read = session.runToEnd(channel.device, QStringLiteral("getValue"), {{QStringLiteral("channel"), channel.id}});
        const bool ok = read->isOk();
        value = read->results().value(QStringLiteral("value"));
        const DError readError = read->error();
        delete read;
        if (!ok) {
            if (session.options().json)
                session.printJson({{QStringLiteral("command"), QStringLiteral("expect")}, {QStringLiteral("ok"), false},
                                   {QStringLiteral("channel"), channel.id}, {QStringLiteral("error"), readError.text},
                                   {QStringLiteral("code"), DError::codeName(readError.code)}});
            return session.fail(CtlSession::ExitFailed, QStringLiteral("expect %1: %2").arg(channel.id, readError.text));
        }
        if (value.toUInt() == expected || deadline.hasExpired())
            break;
        pause(int(qMin<qint64>(c_expectPollMs, qMax<qint64>(1, deadline.remainingTime()))));
    }
    const bool met = value.toUInt() == expected;
    const QString text = QStringLiteral("expect %1: read %2, expected %3%4").arg(channel.id).arg(value.toUInt()).arg(expected)
                             .arg(within > 0 ? QStringLiteral(" (within %1 ms)").arg(within) : QString());
    if (session.options().json) {
        QJsonObject line{{QStringLiteral("command"), QStringLiteral("expect")}, {QStringLiteral("ok"), met},
                         {QStringLiteral("device"), session.config(channel.device).reference},
                         {QStringLiteral("channel"), channel.id}, {QStringLiteral("expected"), int(expected)},
                         {QStringLiteral("value"), int(value.toUInt())}, {QStringLiteral("error"), met ? QString() : text}};
        if (!met)
            line.insert(QStringLiteral("code"), QStringLiteral("expect_failed"));
        session.printJson(line);
    } else if (met) {
        session.out() << channel.id << " = " << expected << " as expected\n";
    }
    return met ? CtlSession::ExitOk : session.fail(CtlSession::ExitFailed, text);
}

int wait(CtlSession &session, const CtlArgs &args)
{
    quint32 ms = 0;
    QString error;
    if (args.positional().size() != 1)
        return session.usageError(QStringLiteral("usage: wait MS"));
    if (!CtlArgs::number(args.positional().first(), 0, c_maxWaitMs, QStringLiteral("wait"), &ms, &error))
        return session.usageError(error);
    pause(int(ms));
    return session.reportLocal(QStringLiteral("wait"), {{QStringLiteral("ms"), ms}}, [](const QVariantMap &) {});
}

int use(CtlSession &session, const CtlArgs &args)
{
    int exitCode = 0;
    if (args.positional().size() != 1)
        return session.usageError(QStringLiteral("usage: use NAME"));
    if (!session.openDevices(&exitCode) || !session.use(args.positional().first(), &exitCode))
        return exitCode;
    return session.reportLocal(QStringLiteral("use"), {{QStringLiteral("device"), session.config().reference}},
                               [](const QVariantMap &) {});
}

int stop(CtlSession &session, const CtlArgs &args)
{
    if (!args.positional().isEmpty())
        return session.usageError(QStringLiteral("usage: stop"));
    const int status = session.stopBackground();
    return status != CtlSession::ExitOk ? status : session.reportLocal(QStringLiteral("stop"), {}, [](const QVariantMap &) {});
}

} // namespace

CtlGroup sequenceGroup()
{
    return {QStringLiteral("Sequences (one session: plug-ins loaded once, one connection per device; a step is a "
                           "subcommand line, # starts a comment)"),
            {
                {QStringLiteral("script"), QStringLiteral("FILE|-"), QStringLiteral("run the steps of FILE (- standard input); stops at the first failure unless --keep-going"),
                 &script, {}, CtlCommand::CommandLineOnly},
                {QStringLiteral("shell"), QString(), QStringLiteral("read steps at a prompt until end of input or quit"), &shell, {},
                 CtlCommand::CommandLineOnly},
                {QStringLiteral("expect"), QStringLiteral("CH VALUE"), QStringLiteral("pass when CH reads VALUE, polling until --within MS is up"),
                 &expect, {{QStringLiteral("within"), QStringLiteral("keep reading for up to MS milliseconds"), QStringLiteral("MS")}}},
                {QStringLiteral("wait"), QStringLiteral("MS"), QStringLiteral("wait MS milliseconds"), &wait},
                {QStringLiteral("use"), QStringLiteral("NAME"), QStringLiteral("(steps only) make device NAME the one channels refer to"), &use, {},
                 CtlCommand::ScriptOnly},
                {QStringLiteral("stop"), QString(), QStringLiteral("(steps only) stop the background listens"), &stop, {}, CtlCommand::ScriptOnly},
            }};
}
