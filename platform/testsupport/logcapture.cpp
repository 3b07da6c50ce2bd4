// SPDX-License-Identifier: MIT
#include "logcapture.h"

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

void LogCapture::handler(QtMsgType type, const QMessageLogContext &context, const QString &text)
{
    if (s_current)
        s_current->m_messages << Message{type, QString::fromLatin1(context.category), text, context.file, context.line,
                                         context.function};
}
