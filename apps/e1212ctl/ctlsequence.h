// SPDX-License-Identifier: MIT
// The steps of script and shell: each line of a file descriptor run as a step, the next line
// read once the step has ended. While a line is awaited the event loop runs, so background
// listens keep printing (at a shell prompt too).
#pragma once

#include <QElapsedTimer>
#include <QObject>
#include <QPointer>

class CtlReadline;
class CtlStep;
class QSocketNotifier;

class CtlSequence : public QObject
{
    Q_OBJECT
public:
    // Script: stops at the first failing line unless --keep-going, ends with a summary.
    // Check: every line read and checked, nothing sent, then the summary.
    // Shell: a prompt naming the current device; GNU readline when `fd` is a terminal; quit,
    // exit or end of input ends it; Ctrl-C cancels the running line, twice at an empty prompt
    // it ends the shell.
    enum Mode { Script, Check, Shell };

    // A script larger than this is refused (a stream is stopped there); a longer line is
    // refused as a step.
    static constexpr qint64 MaxScript = 64 << 20;
    static constexpr int MaxLine = 64 << 10;

    // Runs the lines of `fd` as steps of `step` (a child of it); `source` names them in
    // messages. The step ends with the status of the first failing line, else that of the
    // background listens, stopped at the end.
    CtlSequence(CtlStep &step, int fd, const QString &source, Mode mode);
    ~CtlSequence() override;

    void start();
    // SIGTERM, or Ctrl-C outside a shell: the running line is cancelled and no other starts.
    void cancel();

private:
    enum Input { Line, Overlong, Wait, End, TooLarge };
    Input takeLine(QByteArray *line, qint64 *length);
    void next();
    void lineDone(int status);
    // Ctrl-C in a shell.
    void interrupt();
    void end();
    QString prompt() const;
    QStringList completions(const QStringList &before, const QString &word) const;
    void showProgress();
    void clearProgress();

    CtlStep &m_step;
    const int m_fd;
    const QString m_source;
    const Mode m_mode;
    const bool m_prompt;
    // Regular files are read as needed; anything else once the notifier says it is readable.
    bool m_regular = false;
    qint64 m_size = 0;
    QSocketNotifier *m_notifier = nullptr;
    CtlReadline *m_readline = nullptr;
    QList<QByteArray> m_edited;
    bool m_readable = false;
    bool m_eof = false;
    QByteArray m_pending;
    qint64 m_consumed = 0;
    // The length so far of a line too long to keep, while its rest is skipped; -1: none.
    qint64 m_skipping = -1;
    int m_number = 0;
    int m_first = 0;
    int m_steps = 0;
    int m_failed = 0;
    bool m_prompted = false;
    bool m_ending = false;
    bool m_cancelled = false;
    // Ctrl-C came at an empty prompt: another one ends the shell.
    bool m_armed = false;
    QPointer<CtlStep> m_current;
    // next() runs lines in a loop; a line that ends inside it asks for another round.
    bool m_inNext = false;
    bool m_again = false;
    QElapsedTimer m_clock;
    // Progress on stderr when it is a terminal, at most every 100 ms.
    bool m_progress = false;
    bool m_progressShown = false;
    qint64 m_progressAt = -1000;
};
