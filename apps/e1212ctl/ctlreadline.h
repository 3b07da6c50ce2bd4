// SPDX-License-Identifier: MIT
// GNU readline on the event loop: line editing, history and completion for the shell at a
// terminal. Readline's callback interface reads one character each time standard input is
// readable, so nothing blocks and background listens keep printing. One instance at a time.
#pragma once

#include <QObject>
#include <QStringList>

#include <functional>

class QSocketNotifier;

class CtlReadline : public QObject
{
    Q_OBJECT
public:
    // The words a word being typed may become: `before` are the words before it on the line.
    using Completer = std::function<QStringList(const QStringList &before, const QString &word)>;

    // Reads standard input; keeps the history in `historyFile` ("" for none).
    CtlReadline(const QString &historyFile, const Completer &completer, QObject *parent = nullptr);
    // Gives the terminal back as it was and writes the history.
    ~CtlReadline() override;

    // Shows `prompt` and edits a line until Enter (lineRead) or Ctrl-D at an empty line (ended).
    void prompt(const QString &prompt);
    // Stops reading (while a step runs the terminal is as it was).
    void pause();
    // Output is coming while the prompt shows: the prompt line is wiped now and drawn again,
    // with what was typed, once the event loop turns.
    void makeRoom();
    // Whether something is typed at the prompt.
    bool hasText() const;
    // Ctrl-C at the prompt: the line typed so far is dropped and the prompt shown afresh.
    void dropLine();

signals:
    void lineRead(const QByteArray &line);
    void ended();

private:
    static void onLine(char *line);
    static char **complete(const char *text, int start, int end);
    static char *nextMatch(const char *text, int state);

    const QString m_historyFile;
    const Completer m_completer;
    QSocketNotifier *m_notifier = nullptr;
    bool m_installed = false;
    bool m_wiped = false;
    QByteArray m_prompt;
    QStringList m_matches;
};
