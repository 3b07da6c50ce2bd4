// SPDX-License-Identifier: MIT
#include "ctlsequence.h"

#include "ctlrunner.h"
#include "ctlsession.h"
#include "ctlstep.h"

#include <QProcess>
#include <QSocketNotifier>

#include <sys/stat.h>
#include <unistd.h>

namespace {

// The words of one step: the text before a "#" that starts the line or follows a blank.
QStringList stepWords(const QString &line)
{
    int comment = -1;
    for (int i = 0; i < line.size() && comment < 0; ++i)
        if (line.at(i) == QLatin1Char('#') && (i == 0 || line.at(i - 1).isSpace()))
            comment = i;
    return QProcess::splitCommand(comment < 0 ? line : line.left(comment));
}

} // namespace

CtlSequence::CtlSequence(CtlStep &step, int fd, const QString &source, bool prompt)
    : QObject(&step)
    , m_step(step)
    , m_fd(fd)
    , m_source(source)
    , m_prompt(prompt)
{
    struct stat status = {};
    m_regular = ::fstat(fd, &status) == 0 && S_ISREG(status.st_mode);
    if (!m_regular) {
        m_notifier = new QSocketNotifier(fd, QSocketNotifier::Read, this);
        m_notifier->setEnabled(false);
        connect(m_notifier, &QSocketNotifier::activated, this, [this] {
            m_notifier->setEnabled(false);
            m_readable = true;
            next();
        });
    }
    step.setCancel([this] { cancel(); });
}

CtlSequence::~CtlSequence() = default;

CtlSequence::Input CtlSequence::takeLine(QByteArray *line)
{
    while (true) {
        const int end = m_pending.indexOf('\n');
        if (end >= 0) {
            *line = m_pending.left(end);
            m_pending.remove(0, end + 1);
            return Line;
        }
        if (m_eof) {
            *line = m_pending;
            m_pending.clear();
            return line->isEmpty() ? End : Line;
        }
        if (!m_regular && !m_readable)
            return Wait;
        m_readable = false;
        char buffer[65536];
        const ssize_t got = ::read(m_fd, buffer, sizeof buffer);
        if (got <= 0)
            m_eof = true;
        else
            m_pending.append(buffer, int(got));
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
    do {
        m_again = false;
        if (m_current || m_ending)
            break;
        if (m_cancelled || (m_first != CtlOutcome::ExitOk && !m_prompt && !session.options().keepGoing)) {
            end();
            break;
        }
        if (m_prompt && !m_prompted) {
            session.out() << "e1212ctl> " << Qt::flush;
            m_prompted = true;
        }
        QByteArray bytes;
        const Input input = takeLine(&bytes);
        if (input == Wait) {
            m_notifier->setEnabled(true);
            break;
        }
        if (input == End) {
            end();
            break;
        }
        m_prompted = false;
        ++m_number;
        const QStringList words = stepWords(QString::fromUtf8(bytes).trimmed());
        m_again = true;
        if (words.isEmpty())
            continue;
        if (m_prompt && (words.first() == QLatin1String("quit") || words.first() == QLatin1String("exit"))) {
            end();
            break;
        }
        session.setStep(m_source, m_number);
        CtlStep *line = m_step.runner().runLine(words, [this](int status) { lineDone(status); });
        m_current = line->isFinished() ? nullptr : line;
    } while (m_again);
    m_inNext = false;
}

void CtlSequence::lineDone(int status)
{
    m_current = nullptr;
    if (status != CtlOutcome::ExitOk && m_first == CtlOutcome::ExitOk)
        m_first = status;
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

void CtlSequence::end()
{
    m_ending = true;
    if (m_notifier)
        m_notifier->setEnabled(false);
    CtlSession &session = m_step.session();
    session.stopBackground([this, &session](const CtlOutcome &background) {
        const int stopped = background.isOk() ? int(CtlOutcome::ExitOk) : session.report(background);
        session.setStep(QString(), 0);
        CtlOutcome outcome;
        outcome.exitCode = m_first != CtlOutcome::ExitOk ? m_first : stopped;
        m_step.finish(outcome);
    });
}
