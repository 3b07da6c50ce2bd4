// SPDX-License-Identifier: MIT
#include "ctllog.h"

#include <QDateTime>
#include <QDir>
#include <QFile>
#include <QFileInfo>

#include <cstdio>

Q_LOGGING_CATEGORY(lcCtl, "e1212.ctl")

namespace {

FILE *s_logFile = nullptr;

const char *typeName(QtMsgType type)
{
    switch (type) {
    case QtDebugMsg: return "debug";
    case QtInfoMsg: return "info";
    case QtWarningMsg: return "warning";
    case QtCriticalMsg: return "critical";
    case QtFatalMsg: return "fatal";
    }
    return "";
}

void handler(QtMsgType type, const QMessageLogContext &context, const QString &text)
{
    const QByteArray line = QStringLiteral("%1 %2 %3: %4\n")
                                .arg(QDateTime::currentDateTime().toString(Qt::ISODateWithMs),
                                     QLatin1String(context.category ? context.category : "default"),
                                     QLatin1String(typeName(type)), text)
                                .toUtf8();
    FILE *target = s_logFile ? s_logFile : stderr;
    fwrite(line.constData(), 1, size_t(line.size()), target);
    fflush(target);
}

} // namespace

QString ctlLogFilePath()
{
    QString stateHome = qEnvironmentVariable("XDG_STATE_HOME");
    if (stateHome.isEmpty())
        stateHome = QDir::homePath() + QStringLiteral("/.local/state");
    const QString dir = stateHome + QStringLiteral("/e1212");
    if (QDir().mkpath(dir) && QFileInfo(dir).isWritable())
        return dir + QStringLiteral("/e1212ctl.log");
    return QDir::tempPath() + QStringLiteral("/e1212ctl.log");
}

void installCtlMessageHandler(bool verbose)
{
    if (!verbose) {
        const QByteArray path = QFile::encodeName(ctlLogFilePath());
        s_logFile = fopen(path.constData(), "a");
        if (!s_logFile) {
            const QByteArray fallback = QFile::encodeName(QDir::tempPath() + QStringLiteral("/e1212ctl.log"));
            s_logFile = fopen(fallback.constData(), "a");
        }
    }
    // Debug lines of our own categories are worth having in the log.
    QLoggingCategory::setFilterRules(QStringLiteral("e1212.*.debug=true"));
    qInstallMessageHandler(handler);
}
