// SPDX-License-Identifier: MIT
// The steps of script and shell: each line of a file descriptor run as a step, the next line
// read once the step has ended. While a line is awaited the event loop runs, so background
// listens keep printing (at a shell prompt too).
#pragma once

#include <QObject>
#include <QPointer>

class CtlStep;
class QSocketNotifier;

class CtlSequence : public QObject
{
    Q_OBJECT
public:
    // Runs the lines of `fd` as steps of `step` (a child of it); `source` names them in
    // messages; `prompt` shows "e1212ctl> " before each line and lets quit/exit end it. The
    // step ends with the status of the first failing line (a script stops there unless
    // --keep-going), else that of the background listens, stopped at the end.
    CtlSequence(CtlStep &step, int fd, const QString &source, bool prompt);
    ~CtlSequence() override;

    void start() { next(); }
    // Ctrl-C / SIGTERM: the running line is cancelled and no other starts.
    void cancel();

private:
    enum Input { Line, Wait, End };
    Input takeLine(QByteArray *line);
    void next();
    void lineDone(int status);
    void end();

    CtlStep &m_step;
    const int m_fd;
    const QString m_source;
    const bool m_prompt;
    // Regular files are read as needed; anything else once the notifier says it is readable.
    bool m_regular = false;
    QSocketNotifier *m_notifier = nullptr;
    bool m_readable = false;
    bool m_eof = false;
    QByteArray m_pending;
    int m_number = 0;
    int m_first = 0;
    bool m_prompted = false;
    bool m_ending = false;
    bool m_cancelled = false;
    QPointer<CtlStep> m_current;
    // next() runs lines in a loop; a line that ends inside it asks for another round.
    bool m_inNext = false;
    bool m_again = false;
};
