// SPDX-License-Identifier: MIT
#include "ctlreadline.h"

#include <QFile>
#include <QProcess>
#include <QSocketNotifier>
#include <QTimer>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <unistd.h>

#include <readline/history.h>
#include <readline/readline.h>

namespace {

CtlReadline *s_instance = nullptr;
const int c_historyLines = 1000;

} // namespace

CtlReadline::CtlReadline(const QString &historyFile, const Completer &completer, QObject *parent)
    : QObject(parent)
    , m_historyFile(historyFile)
    , m_completer(completer)
{
    s_instance = this;
    // Ctrl-C and SIGTERM are the session's: readline installs no handlers of its own.
    rl_catch_signals = 0;
    rl_catch_sigwinch = 0;
    rl_readline_name = "e1212ctl";
    rl_attempted_completion_function = &CtlReadline::complete;
    rl_completer_word_break_characters = const_cast<char *>(" \t");
    using_history();
    stifle_history(c_historyLines);
    // Each line is appended as it is entered, to a file that must exist.
    if (!m_historyFile.isEmpty() && read_history(QFile::encodeName(m_historyFile).constData()) != 0)
        write_history(QFile::encodeName(m_historyFile).constData());
    m_notifier = new QSocketNotifier(STDIN_FILENO, QSocketNotifier::Read, this);
    m_notifier->setEnabled(false);
    connect(m_notifier, &QSocketNotifier::activated, this, [] { rl_callback_read_char(); });
}

CtlReadline::~CtlReadline()
{
    pause();
    if (!m_historyFile.isEmpty())
        history_truncate_file(QFile::encodeName(m_historyFile).constData(), c_historyLines);
    rl_attempted_completion_function = nullptr;
    s_instance = nullptr;
}

void CtlReadline::prompt(const QString &prompt)
{
    m_prompt = prompt.toUtf8();
    rl_callback_handler_install(m_prompt.constData(), &CtlReadline::onLine);
    m_installed = true;
    m_notifier->setEnabled(true);
}

void CtlReadline::pause()
{
    m_notifier->setEnabled(false);
    if (m_installed)
        rl_callback_handler_remove();
    m_installed = false;
}

void CtlReadline::makeRoom()
{
    if (!m_installed || m_wiped)
        return;
    m_wiped = true;
    fputs("\r\x1b[K", rl_outstream);
    fflush(rl_outstream);
    QTimer::singleShot(0, this, [this] {
        m_wiped = false;
        if (m_installed)
            rl_forced_update_display();
    });
}

bool CtlReadline::hasText() const
{
    return m_installed && rl_end > 0;
}

void CtlReadline::dropLine()
{
    rl_callback_sigcleanup();
    rl_replace_line("", 1); // and its undo list: Ctrl-_ must not bring the dropped text back
    rl_point = rl_end = 0;
    fputs("^C\n", rl_outstream);
    rl_on_new_line();
    rl_redisplay();
}

void CtlReadline::onLine(char *line)
{
    CtlReadline *self = s_instance;
    // Readline calls this from inside rl_callback_read_char(): the handler goes first, so
    // the step the line starts runs with the terminal as it was.
    self->pause();
    if (!line) { // Ctrl-D: readline has ended the prompt's line itself
        fflush(rl_outstream);
        emit self->ended();
        return;
    }
    const QByteArray text(line);
    std::free(line);
    if (!text.trimmed().isEmpty()) {
        add_history(text.constData());
        if (!self->m_historyFile.isEmpty())
            append_history(1, QFile::encodeName(self->m_historyFile).constData());
    }
    emit self->lineRead(text);
}

char **CtlReadline::complete(const char *text, int start, int end)
{
    Q_UNUSED(end)
    rl_attempted_completion_over = 1; // no file names
    CtlReadline *self = s_instance;
    if (!self || !self->m_completer)
        return nullptr;
    const QStringList before = QProcess::splitCommand(QString::fromUtf8(rl_line_buffer, start));
    self->m_matches = self->m_completer(before, QString::fromUtf8(text));
    return rl_completion_matches(text, &CtlReadline::nextMatch);
}

char *CtlReadline::nextMatch(const char *text, int state)
{
    static int next = 0;
    if (state == 0)
        next = 0;
    const QByteArray prefix(text);
    const QStringList &matches = s_instance->m_matches;
    while (next < matches.size()) {
        const QByteArray candidate = matches.at(next++).toUtf8();
        if (candidate.startsWith(prefix))
            return strdup(candidate.constData());
    }
    return nullptr;
}
