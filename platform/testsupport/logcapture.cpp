// SPDX-License-Identifier: MIT
#include "logcapture.h"

#include <QStringList>

namespace {
LogCapture *s_current = nullptr;
}

LogCapture::LogCapture()
    : m_outer(s_current)
{
    s_current = this;
    m_previous = qInstallMessageHandler(&LogCapture::handler);
}

LogCapture::~LogCapture()
{
    qInstallMessageHandler(m_previous);
    s_current = m_outer;
}

QStringList LogCapture::criticalTexts() const
{
    QStringList texts;
    for (const Message &message : m_messages)
        if (message.type == QtCriticalMsg)
            texts << message.text;
    return texts;
}

void LogCapture::handler(QtMsgType type, const QMessageLogContext &context, const QString &text)
{
    if (s_current)
        s_current->m_messages << Message{type, QString::fromLatin1(context.category), text, context.file, context.line,
                                         context.function};
}
