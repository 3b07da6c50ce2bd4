// SPDX-License-Identifier: MIT
// Captures the messages written while it lives, with their context.
#pragma once

#include <QList>
#include <QString>
#include <QtGlobal>

class LogCapture
{
public:
    struct Message
    {
        QtMsgType type;
        QString category;
        QString text;
        // The context as the writer gave it: null file and function and line 0 when empty.
        const char *file;
        int line;
        const char *function;
    };

    LogCapture();
    ~LogCapture();
    LogCapture(const LogCapture &) = delete;
    LogCapture &operator=(const LogCapture &) = delete;

    const QList<Message> &messages() const { return m_messages; }

private:
    static void handler(QtMsgType type, const QMessageLogContext &context, const QString &text);

    QList<Message> m_messages;
    QtMessageHandler m_previous = nullptr;
    LogCapture *m_outer = nullptr;
};
