// SPDX-License-Identifier: MIT
// The one table of e1212ctl's subcommand groups, the global options and the help texts.
#include "ctlcommand.h"

#include "ctllog.h"
#include "ctlsequence.h"

#include <QTextStream>

// A group lives in its own source pair and defines `CtlGroup <name>()`; registering it is
// one line below (and its .cpp in CMakeLists.txt).
#define E1212CTL_GROUP(function) \
    do { \
        extern CtlGroup function(); \
        groups << function(); \
    } while (false)

QList<CtlGroup> ctlGroups()
{
    QList<CtlGroup> groups;
    E1212CTL_GROUP(deviceGroup);
    E1212CTL_GROUP(watchGroup);
    E1212CTL_GROUP(genericGroup);
    E1212CTL_GROUP(sequenceGroup);
    E1212CTL_GROUP(simulateGroup);
    E1212CTL_GROUP(serveGroup);
    E1212CTL_GROUP(demoGroup);
    E1212CTL_GROUP(panelGroup);
    return groups;
}

const CtlCommand *findCtlCommand(const QList<CtlGroup> &groups, const QString &name)
{
    for (const CtlGroup &group : groups)
        for (const CtlCommand &command : group.commands)
            if (command.name == name)
                return &command;
    return nullptr;
}


QList<QCommandLineOption> ctlGlobalOptions()
{
    return {
        {QStringLiteral("config"), QStringLiteral("device configuration (JSON: one device or {\"devices\": [...]}); "
                                                  "default: the built-in E1212 configuration"), QStringLiteral("FILE")},
        {QStringLiteral("ref"), QStringLiteral("the device of a multi-device file, by its reference or the reference's "
                                               "last word; default: the first"), QStringLiteral("NAME")},
        {QStringLiteral("device"), QStringLiteral("the module's address (port default 502); overrides the device's "
                                                  "\"connection\". Without both, an embedded simulator is started on a "
                                                  "free loopback port"), QStringLiteral("HOST[:PORT]")},
        {QStringLiteral("json"), QStringLiteral("one flat JSON object per line, per result and per event: \"command\", \"ok\", "
                                                "\"time\", \"device\", \"channel\", the values, \"error\" and \"code\" when it failed")},
        {QStringLiteral("timeout"), QStringLiteral("time the device gets to answer each request (default: the "
                                                   "command's own 3000, unless the device's \"timeoutMs\" is set)"),
         QStringLiteral("MS")},
        {QStringLiteral("plugin-dir"), QStringLiteral("also search DIR for plug-ins, after the folder next to the "
                                                      "executable and before $E1212_PLUGIN_PATH (repeatable)"),
         QStringLiteral("DIR")},
        {QStringLiteral("keep-going"), QStringLiteral("script and shell: run every step even after a failure")},
        {QStringLiteral("verbose"), QStringLiteral("diagnostic lines on stderr instead of the log file")},
        {{QStringLiteral("h"), QStringLiteral("help")}, QStringLiteral("this text; e1212ctl SUB --help for one subcommand")},
        {QStringLiteral("version"), QStringLiteral("the version of e1212ctl")},
    };
}

QString ctlOptionLines(const QList<QCommandLineOption> &options)
{
    QString text;
    QTextStream out(&text);
    for (const QCommandLineOption &option : options) {
        if (option.flags() & QCommandLineOption::HiddenFromHelp)
            continue;
        QStringList names;
        for (const QString &name : option.names())
            names << (name.size() == 1 ? QStringLiteral("-") : QStringLiteral("--")) + name;
        QString synopsis = names.join(QStringLiteral(", "));
        if (!option.valueName().isEmpty())
            synopsis += QLatin1Char(' ') + option.valueName();
        out << "  " << synopsis.leftJustified(22) << ' ' << option.description() << '\n';
    }
    return text;
}

QString ctlCommandHelp(const CtlCommand &command)
{
    QString text;
    QTextStream out(&text);
    out << "Usage: e1212ctl [OPTIONS] " << command.name;
    if (!command.usage.isEmpty())
        out << ' ' << command.usage;
    if (!command.options.isEmpty())
        out << " [" << command.name << " OPTIONS]";
    out << '\n' << command.summary << ".\n";
    if (!command.options.isEmpty())
        out << '\n' << command.name << " options:\n" << ctlOptionLines(command.options);
    if (command.where != CtlCommand::ScriptOnly)
        out << "\nOptions:\n" << ctlOptionLines(ctlGlobalOptions());
    return text;
}

namespace {

// One line of a command list: "name USAGE [--option VALUE]...", then the summary.
QString commandLine(const CtlCommand &command)
{
    QStringList synopsis{command.name};
    if (!command.usage.isEmpty())
        synopsis << command.usage;
    for (const QCommandLineOption &option : command.options)
        if (!(option.flags() & QCommandLineOption::HiddenFromHelp) && !command.usage.contains(QStringLiteral("--") + option.names().last()))
            synopsis << QStringLiteral("[--%1%2]").arg(option.names().last(),
                                                      option.valueName().isEmpty() ? QString() : QLatin1Char(' ') + option.valueName());
    const QString line = synopsis.join(QLatin1Char(' '));
    return QStringLiteral("  ") + line.leftJustified(30) + (line.size() > 30 ? QStringLiteral("\n%1").arg(QString(), 33) : QStringLiteral(" "))
        + command.summary + QLatin1Char('\n');
}

} // namespace

QString ctlHelp(const QList<CtlGroup> &groups)
{
    QString text;
    QTextStream out(&text);
    out << "Usage: e1212ctl [OPTIONS] COMMAND [ARGUMENTS]\n"
           "Drives an E1212 remote I/O module by channel name through the device plug-in.\n"
           "A channel CH may be written NAME:CH to name a device of a multi-device file.\n"
           "\nOptions (anywhere on the line):\n"
        << ctlOptionLines(ctlGlobalOptions());
    for (const CtlGroup &group : groups) {
        out << '\n' << group.title << ":\n";
        for (const CtlCommand &command : group.commands)
            out << commandLine(command);
    }
    out << "\nHelp:\n  " << QStringLiteral("help [COMMAND]").leftJustified(30) << " this text, or one subcommand's\n"
        << "\nScripts: at most " << (CtlSequence::MaxScript >> 20) << " MiB, lines at most " << (CtlSequence::MaxLine >> 10)
        << " KiB; a NUL byte in a line is refused. script --check FILE checks every step and sends nothing.\n"
        << "\nExit status: 0 success; 1 the device or the command failed after something was sent\n"
           "(device error, time-out, wrong reply, failed expect); 2 refused before anything was sent\n"
           "(usage, configuration, argument, unknown command or channel).\n"
           "Log file (without --verbose): "
        << ctlLogFilePath() << '\n';
    return text;
}

QString ctlStepHelp(const QList<CtlGroup> &groups)
{
    QString text = QStringLiteral("Steps (help STEP for one; # starts a comment; listen CH & runs in the background):\n");
    for (const CtlGroup &group : groups)
        for (const CtlCommand &command : group.commands)
            if (command.where != CtlCommand::CommandLineOnly)
                text += commandLine(command);
    return text + QStringLiteral("  %1 leave the shell (so does Ctrl-D)\n").arg(QStringLiteral("quit, exit").leftJustified(30));
}
