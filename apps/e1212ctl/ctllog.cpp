// SPDX-License-Identifier: MIT
#include "ctllog.h"

#include <QDateTime>
#include <QDir>
#include <QFile>
#include <QFileInfo>

#include <cstdio>
#include <cstdlib>

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

// "2026-11-21T12:00:00.123Z": UTC, so no time-zone files are read; the part up to the
// seconds is formatted once a second.
void appendTimeStamp(QByteArray *line)
{
    static qint64 s_second = -1;
    static QByteArray s_prefix;
    const qint64 ms = QDateTime::currentMSecsSinceEpoch();
    if (ms / 1000 != s_second) {
        s_second = ms / 1000;
        s_prefix = QDateTime::fromMSecsSinceEpoch(s_second * 1000, Qt::UTC).toString(QStringLiteral("yyyy-MM-ddThh:mm:ss.")).toLatin1();
    }
    char millis[6];
    std::snprintf(millis, sizeof millis, "%03dZ", int(ms % 1000));
    line->append(s_prefix).append(millis);
}

void handler(QtMsgType type, const QMessageLogContext &context, const QString &text)
{
    QByteArray line;
    line.reserve(64 + text.size() * 3);
    appendTimeStamp(&line);
    line.append(' ').append(context.category ? context.category : "default").append(' ');
    line.append(typeName(type)).append(": ").append(text.toUtf8()).append('\n');
    FILE *target = s_logFile ? s_logFile : stderr;
    fwrite(line.constData(), 1, size_t(line.size()), target);
    // Lines are buffered; a warning or worse, and the exit, write them out.
    if (type != QtDebugMsg && type != QtInfoMsg)
        fflush(target);
}

void flushLog()
{
    if (s_logFile)
        fflush(s_logFile);
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
        if (s_logFile)
            std::atexit(flushLog);
    }
    // Levels per category: our debug lines only with --verbose, everyone's info and worse
    // always. QT_LOGGING_RULES, when set, overrides these rules category by category; a
    // line a rule turns off is never formatted.
    QLoggingCategory::setFilterRules(verbose ? QStringLiteral("*.debug=false\ne1212.*.debug=true")
                                             : QStringLiteral("*.debug=false"));
    qInstallMessageHandler(handler);
}
