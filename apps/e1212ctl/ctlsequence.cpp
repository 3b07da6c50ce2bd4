// SPDX-License-Identifier: MIT
#include "ctlsequence.h"

#include "ctllog.h"
#include "ctlreadline.h"
#include "ctlrunner.h"
#include "ctlsession.h"
#include "ctlstep.h"
#include "ctltext.h"

#include <QDir>
#include <QFileInfo>
#include <QProcess>
#include <QSocketNotifier>
#include <QTimer>

#include <csignal>
#include <cstdio>
#include <sys/stat.h>
#include <unistd.h>

namespace {

// Lines run without a turn of the event loop, so that signals, timers and progress still
// come during a long run of lines that end at once.
const int c_burst = 256;

// The words of one step: the text before a "#" that starts the line or follows a blank.
QStringList stepWords(const QString &line)
{
    for (int i = 0; i < line.size(); ++i)
        if (line.at(i) == QLatin1Char('#') && (i == 0 || line.at(i - 1).isSpace()))
            return QProcess::splitCommand(line.left(i));
    return QProcess::splitCommand(line);
}

void writeStderr(const QByteArray &text)
{
    fwrite(text.constData(), 1, size_t(text.size()), stderr);
    fflush(stderr);
}

} // namespace

CtlSequence::CtlSequence(CtlStep &step, int fd, const QString &source, Mode mode)
    : QObject(&step)
    , m_step(step)
    , m_fd(fd)
    , m_source(source)
    , m_mode(mode)
    , m_prompt(mode == Shell && !step.session().options().json)
{
    struct stat status = {};
    m_regular = ::fstat(fd, &status) == 0 && S_ISREG(status.st_mode);
    m_size = m_regular ? qint64(status.st_size) : 0;
    m_progress = mode != Shell && ::isatty(STDERR_FILENO);
    if (m_progress)
        step.session().setBeforeOutput([this] { clearProgress(); });
    if (mode == Shell && ::isatty(fd)) {
        const QString history = QFileInfo(ctlLogFilePath()).dir().filePath(QStringLiteral("e1212ctl.history"));
        m_readline = new CtlReadline(history, [this](const QStringList &before, const QString &word) { return completions(before, word); },
                                     this);
        connect(m_readline, &CtlReadline::lineRead, this, [this](const QByteArray &line) {
            m_edited << line;
            next();
        });
        connect(m_readline, &CtlReadline::ended, this, [this] {
            m_eof = true;
            next();
        });
        step.session().setBeforeOutput([this] {
            if (m_readline)
                m_readline->makeRoom();
        });
    } else if (!m_regular) {
        m_notifier = new QSocketNotifier(fd, QSocketNotifier::Read, this);
        m_notifier->setEnabled(false);
        connect(m_notifier, &QSocketNotifier::activated, this, [this] {
            m_notifier->setEnabled(false);
            m_readable = true;
            next();
        });
    }
    step.setCancel([this] { cancel(); });
    if (mode == Shell)
        step.runner().setInterruptHandler([this](int signalNumber) {
            if (signalNumber != SIGINT || m_ending)
                return false;
            interrupt();
            return true;
        });
    step.session().setCheckOnly(mode == Check);
}

CtlSequence::~CtlSequence()
{
    if (m_mode == Shell)
        m_step.runner().setInterruptHandler(nullptr);
    if (m_progress || m_mode == Shell)
        m_step.session().setBeforeOutput(nullptr);
}

void CtlSequence::start()
{
    m_clock.start();
    CtlOutcome failure;
    if (m_regular && m_size > MaxScript)
        return m_step.finish(CtlOutcome::refused(QStringLiteral("script %1: larger than %2 MiB").arg(m_source).arg(MaxScript >> 20)));
    // The prompt names the current device, so the shell opens them first.
    if (m_mode == Shell && !m_step.session().openDevices(&failure))
        return m_step.finish(failure);
    next();
}

CtlSequence::Input CtlSequence::takeLine(QByteArray *line, qint64 *length)
{
    while (true) {
        if (m_readline) {
            if (!m_edited.isEmpty()) {
                *line = m_edited.takeFirst();
                *length = line->size();
                return *length > MaxLine ? Overlong : Line;
            }
            return m_eof ? End : Wait;
        }
        const int end = m_pending.indexOf('\n');
        if (m_skipping >= 0) {
            // The rest of a line too long to keep, up to its end.
            m_skipping += end >= 0 ? end : m_pending.size();
            m_pending.remove(0, end >= 0 ? end + 1 : m_pending.size());
            if (end >= 0 || m_eof) {
                *length = m_skipping;
                m_skipping = -1;
                return Overlong;
            }
        } else if (end > MaxLine) {
            *length = end;
            m_pending.remove(0, end + 1);
            return Overlong;
        } else if (end >= 0) {
            *line = m_pending.left(end);
            *length = end;
            m_pending.remove(0, end + 1);
            return Line;
        } else if (m_pending.size() > MaxLine) {
            m_skipping = m_pending.size();
            m_pending.clear();
            continue;
        } else if (m_eof) {
            *line = m_pending;
            *length = line->size();
            m_pending.clear();
            return line->isEmpty() ? End : Line;
        }
        if (!m_regular && !m_readable)
            return Wait;
        if (m_mode != Shell && m_consumed > MaxScript)
            return TooLarge;
        m_readable = false;
        char buffer[65536];
        const ssize_t got = ::read(m_fd, buffer, sizeof buffer);
        if (got <= 0)
            m_eof = true;
        else
            m_pending.append(buffer, int(got));
        m_consumed += qMax(got, ssize_t(0));
    }
}

void CtlSequence::next()
{
    if (m_inNext) {
        m_again = true;
        return;
    }
    m_inNext = true;
    CtlSession &session = m_step.session();
    CtlRunner &runner = m_step.runner();
    int burst = 0;
    do {
        m_again = false;
        if (m_current || m_ending)
            break;
        if (m_cancelled || (m_first != CtlOutcome::ExitOk && m_mode == Script && !session.options().keepGoing)) {
            end();
            break;
        }
        if (++burst > c_burst) {
            QTimer::singleShot(0, this, &CtlSequence::next);
            break;
        }
        if (m_prompt && !m_prompted && !m_readline) {
            session.out() << prompt() << Qt::flush;
            m_prompted = true;
        }
        QByteArray bytes;
        qint64 length = 0;
        const Input input = takeLine(&bytes, &length);
        if (input == Wait) {
            if (m_readline && !m_prompted)
                m_readline->prompt(m_prompt ? prompt() : QString());
            else if (m_notifier)
                m_notifier->setEnabled(true);
            m_prompted = true;
            break;
        }
        if (input == End) {
            end();
            break;
        }
        if (input == TooLarge) {
            session.setStep(m_source, m_number + 1);
            runner.answer(CtlOutcome::refused(QStringLiteral("script %1: larger than %2 MiB").arg(m_source).arg(MaxScript >> 20)),
                          [this](int status) { lineDone(status); });
            ++m_steps;
            m_cancelled = true;
            m_again = true;
            continue;
        }
        m_prompted = false;
        ++m_number;
        showProgress();
        m_again = true;
        const auto done = [this](int status) { lineDone(status); };
        session.setStep(m_source, m_number);
        if (input == Overlong) {
            ++m_steps;
            runner.answer(CtlOutcome::refused(QStringLiteral("the line is longer than %1 bytes (%2 bytes)").arg(MaxLine).arg(length)), done);
            continue;
        }
        if (bytes.contains('\0')) {
            ++m_steps;
            runner.answer(CtlOutcome::refused(QStringLiteral("the line holds a NUL byte (at byte %1)").arg(bytes.indexOf('\0') + 1)), done);
            continue;
        }
        const QStringList words = stepWords(QString::fromUtf8(bytes).trimmed());
        if (words.isEmpty())
            continue;
        m_armed = false;
        if (m_mode == Shell && (words.first() == QLatin1String("quit") || words.first() == QLatin1String("exit"))) {
            end();
            break;
        }
        ++m_steps;
        CtlStep *line = runner.runLine(words, done);
        m_current = line->isFinished() ? nullptr : line;
    } while (m_again);
    m_inNext = false;
}

void CtlSequence::lineDone(int status)
{
    m_current = nullptr;
    if (status != CtlOutcome::ExitOk) {
        ++m_failed;
        if (m_first == CtlOutcome::ExitOk)
            m_first = status;
    }
    next();
}

void CtlSequence::cancel()
{
    m_cancelled = true;
    if (m_current)
        m_current->cancel();
    else if (!m_ending)
        end();
}

void CtlSequence::interrupt()
{
    if (m_current) {
        m_armed = false;
        m_current->cancel();
        return;
    }
    const bool typed = m_readline && m_readline->hasText();
    if (!typed && m_armed) {
        m_step.session().out() << (m_readline ? "^C\n" : "\n") << Qt::flush;
        return cancel();
    }
    m_armed = !typed;
    if (m_readline)
        m_readline->dropLine();
    else
        m_step.session().out() << "\n" << prompt() << Qt::flush;
}

void CtlSequence::end()
{
    m_ending = true;
    if (m_notifier)
        m_notifier->setEnabled(false);
    if (m_readline) {
        m_readline->pause();
        m_readline->deleteLater();
        m_readline = nullptr;
    }
    CtlSession &session = m_step.session();
    session.setCheckOnly(false);
    session.stopBackground([this, &session](const CtlOutcome &background) {
        const int stopped = background.isOk() ? int(CtlOutcome::ExitOk) : session.report(background);
        session.setStep(QString(), 0);
        if (m_mode != Shell) {
            // The summary is a result line of its own; the failed steps have said what failed.
            const QString seconds = QString::number(double(m_clock.elapsed()) / 1000, 'f', 2);
            const int passed = m_steps - m_failed;
            CtlOutcome summary = CtlOutcome::local(
                QStringLiteral("script"),
                {{QStringLiteral("file"), m_source}, {QStringLiteral("checked"), m_mode == Check}, {QStringLiteral("steps"), m_steps},
                 {QStringLiteral("passed"), passed}, {QStringLiteral("failed"), m_failed}, {QStringLiteral("seconds"), seconds.toDouble()}},
                QStringLiteral("%1: %2 step%3%4, %5 passed, %6 failed, %7 s\n")
                    .arg(CtlText::echo(m_source)).arg(m_steps).arg(m_steps == 1 ? QString() : QStringLiteral("s"))
                    .arg(m_mode == Check ? QStringLiteral(" checked") : QString())
                    .arg(passed).arg(m_failed).arg(seconds));
            if (m_failed > 0) {
                summary.exitCode = m_first;
                summary.error = QStringLiteral("%1 of %2 steps failed").arg(m_failed).arg(m_steps);
                summary.code = QStringLiteral("steps_failed");
            }
            session.report(summary);
        }
        CtlOutcome outcome;
        outcome.exitCode = m_first != CtlOutcome::ExitOk ? m_first : stopped;
        m_step.finish(outcome);
    });
}

QString CtlSequence::prompt() const
{
    const CtlSession &session = m_step.session();
    return session.deviceCount() > 0 ? CtlText::echo(session.config().reference.section(QLatin1Char(' '), -1)) + QStringLiteral("> ")
                                     : QStringLiteral("e1212ctl> ");
}

QStringList CtlSequence::completions(const QStringList &before, const QString &word) const
{
    const CtlSession &session = m_step.session();
    QStringList devices;
    for (int i = 0; i < session.deviceCount(); ++i)
        devices << session.config(i).reference.section(QLatin1Char(' '), -1);
    QStringList words;
    const QList<CtlGroup> &groups = m_step.runner().groups();
    if (before.isEmpty() || (before.size() == 1 && before.first() == QLatin1String("help"))) {
        for (const CtlGroup &group : groups)
            for (const CtlCommand &command : group.commands)
                if (command.where != CtlCommand::CommandLineOnly)
                    words << command.name;
        if (before.isEmpty())
            words << QStringLiteral("quit") << QStringLiteral("exit");
        return words;
    }
    if (before.first() == QLatin1String("use"))
        return before.size() == 1 ? devices : QStringList();
    if (word.startsWith(QLatin1Char('-'))) {
        if (const CtlCommand *command = findCtlCommand(groups, before.first()))
            for (const QCommandLineOption &option : command->options)
                words << QStringLiteral("--") + option.names().last();
        return words;
    }
    const int colon = word.indexOf(QLatin1Char(':'));
    const int device = colon < 0 ? session.current() : session.findDevice(word.left(colon));
    if (device < 0)
        return words;
    const QString prefix = colon < 0 ? QString() : word.left(colon + 1);
    for (const QString &id : session.channelIds(device))
        words << prefix + id;
    if (colon < 0)
        for (const QString &name : qAsConst(devices))
            words << name + QLatin1Char(':');
    return words;
}

void CtlSequence::showProgress()
{
    if (!m_progress || m_clock.elapsed() - m_progressAt < 100)
        return;
    m_progressAt = m_clock.elapsed();
    QString text = QStringLiteral("\r\x1b[K%1: line %2").arg(CtlText::echo(m_source)).arg(m_number);
    if (m_size > 0)
        text += QStringLiteral(" (%1%)").arg(qMin<qint64>(100, (m_consumed - m_pending.size()) * 100 / m_size));
    writeStderr(text.toUtf8());
    m_progressShown = true;
}

void CtlSequence::clearProgress()
{
    if (m_progressShown)
        writeStderr("\r\x1b[K");
    m_progressShown = false;
}
