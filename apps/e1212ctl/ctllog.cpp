// SPDX-License-Identifier: MIT
#include "ctllog.h"

#include <QDir>
#include <QFile>
#include <QFileInfo>

#include <cstdio>
#include <cstdlib>
#include <ctime>

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

// "2026-11-21T12:00:00.123Z": UTC, so no time-zone files are read; formatted by the C
// library, which a one-shot has mapped anyway (Qt's calendar and locale code it has not).
void appendTimeStamp(QByteArray *line)
{
    timespec now{};
    clock_gettime(CLOCK_REALTIME, &now);
    tm utc{};
    gmtime_r(&now.tv_sec, &utc);
    char text[32];
    line->append(text, int(strftime(text, sizeof text, "%Y-%m-%dT%H:%M:%S", &utc)));
    std::snprintf(text, sizeof text, ".%03dZ", int(now.tv_nsec / 1000000));
    line->append(text);
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
