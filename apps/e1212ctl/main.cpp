// SPDX-License-Identifier: MIT
// e1212ctl: runs the E1212 device plug-in's commands from the command line.
#include "ctlcommand.h"
#include "ctllog.h"
#include "ctlsession.h"

#include <QCoreApplication>
#include <QGuiApplication>
#include <QScopedPointer>
#include <QTextStream>

#include <cstdio>

namespace {

QString helpText(const QList<CtlGroup> &groups)
{
    QString text;
    QTextStream out(&text);
    out << "Usage: e1212ctl [OPTIONS] COMMAND [ARGUMENTS]\n"
           "Drives an E1212 remote I/O module by channel name through the device plug-in.\n"
           "\n"
           "Options (anywhere on the line):\n"
           "  --config FILE       device configuration (JSON; the first device of the file);\n"
           "                      default: the built-in E1212 configuration\n"
           "  --device HOST[:PORT]  the module's address (port default 502); overrides the\n"
           "                      configuration's \"connection\". Without both, an embedded\n"
           "                      simulator is started on a free loopback port\n"
           "  --json              one JSON object per line: {\"event\": ...} per streamed update,\n"
           "                      then {\"command\", \"ok\", \"results\", \"error\"}\n"
           "  --timeout MS        time-out of every instruction (default: the command's own, 3000)\n"
           "  --plugin-dir DIR    search DIR for plug-ins first (repeatable)\n"
           "  --verbose           diagnostic lines on stderr instead of the log file\n"
           "  -h, --help          this text\n";
    for (const CtlGroup &group : groups) {
        out << '\n' << group.title << ":\n";
        for (const CtlCommand &command : group.commands) {
            const QString synopsis = command.usage.isEmpty() ? command.name : command.name + QLatin1Char(' ') + command.usage;
            out << "  " << synopsis.leftJustified(34) << ' ' << command.summary << '\n';
        }
    }
    out << "\nExit status: 0 success, 1 the command failed (device error, time-out, rejected reply),\n"
           "2 usage or configuration error (nothing is sent).\n"
           "Log file (without --verbose): "
        << ctlLogFilePath() << '\n';
    return text;
}

int usageError(const QString &text)
{
    const QByteArray line = QStringLiteral("e1212ctl: %1 (see e1212ctl --help)\n").arg(text).toUtf8();
    fwrite(line.constData(), 1, size_t(line.size()), stderr);
    return CtlSession::ExitUsage;
}

} // namespace

int main(int argc, char *argv[])
{
    QStringList words;
    for (int i = 1; i < argc; ++i)
        words << QString::fromLocal8Bit(argv[i]);

    CtlSession::Options options;
    bool help = false;
    QString commandName;
    QStringList commandWords;
    QString error;
    bool onlyPositional = false;
    for (int i = 0; i < words.size() && error.isEmpty(); ++i) {
        const QString word = words.at(i);
        if (onlyPositional || !word.startsWith(QLatin1Char('-')) || word == QLatin1String("-")) {
            if (commandName.isEmpty())
                commandName = word;
            else
                commandWords << word;
            continue;
        }
        if (word == QLatin1String("--")) {
            onlyPositional = true;
            continue;
        }
        const int equals = word.indexOf(QLatin1Char('='));
        const QString name = equals < 0 ? word : word.left(equals);
        auto value = [&]() -> QString {
            if (equals >= 0)
                return word.mid(equals + 1);
            if (i + 1 < words.size())
                return words.at(++i);
            error = QStringLiteral("option %1 needs a value").arg(name);
            return QString();
        };
        if (name == QLatin1String("--help") || name == QLatin1String("-h")) {
            help = true;
        } else if (name == QLatin1String("--json")) {
            options.json = true;
        } else if (name == QLatin1String("--verbose")) {
            options.verbose = true;
        } else if (name == QLatin1String("--config")) {
            options.configFile = value();
        } else if (name == QLatin1String("--device")) {
            options.device = value();
        } else if (name == QLatin1String("--plugin-dir")) {
            options.pluginDirs << value();
        } else if (name == QLatin1String("--timeout")) {
            const QString text = value();
            bool ok = false;
            options.timeoutMs = text.toInt(&ok);
            if (error.isEmpty() && (!ok || options.timeoutMs <= 0))
                error = QStringLiteral("--timeout \"%1\" is not a positive number of milliseconds").arg(text);
        } else if (!commandName.isEmpty()) {
            commandWords << word; // the subcommand's own option
        } else {
            error = QStringLiteral("unknown option %1").arg(name);
        }
    }

    const QList<CtlGroup> groups = ctlGroups();
    const CtlCommand *command = commandName.isEmpty() ? nullptr : findCtlCommand(groups, commandName);
    QScopedPointer<QCoreApplication> app(command && command->needsGui ? new QGuiApplication(argc, argv)
                                                                      : new QCoreApplication(argc, argv));
    QCoreApplication::setApplicationName(QStringLiteral("e1212ctl"));

    if (help) {
        QTextStream(stdout) << helpText(groups);
        return CtlSession::ExitOk;
    }
    if (!error.isEmpty())
        return usageError(error);
    if (commandName.isEmpty())
        return usageError(QStringLiteral("no command given"));
    if (!command)
        return usageError(QStringLiteral("unknown command \"%1\"").arg(commandName));

    installCtlMessageHandler(options.verbose);
    qCInfo(lcCtl).noquote() << "e1212ctl" << words.join(QLatin1Char(' '));
    CtlSession session(options);
    const int status = command->run(session, commandWords);
    session.out().flush();
    qCInfo(lcCtl) << "exit status" << status;
    return status;
}
