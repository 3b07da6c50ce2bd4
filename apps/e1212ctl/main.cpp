// SPDX-License-Identifier: MIT
// e1212ctl: runs the E1212 device plug-in's commands from the command line.
//
// The line is read before any application object exists, so --help, --version and every
// refusal of the line work without a display; only `panel` builds a QGuiApplication (in the
// panel library it loads).
#include "ctl_panelloader.h"
#include "ctlargs.h"
#include "ctlcommand.h"
#include "ctllog.h"
#include "ctlrunner.h"
#include "ctlsession.h"
#include "ctltext.h"

#include <QCoreApplication>
#include <QDateTime>
#include <QFileInfo>
#include <QJsonDocument>
#include <QJsonObject>
#include <QTextStream>

#include <cstdio>

#include <unistd.h>

namespace {

int refuse(const QString &text, bool json)
{
    const QString shown = CtlText::line(text);
    const QByteArray line = QStringLiteral("e1212ctl: %1\n").arg(shown).toUtf8();
    if (json)
        QTextStream(stdout) << QJsonDocument(QJsonObject{{QStringLiteral("ok"), false}, {QStringLiteral("error"), shown},
                                                         {QStringLiteral("code"), QStringLiteral("refused")},
                                                         {QStringLiteral("time"), CtlSession::timestamp(QDateTime::currentDateTime())}})
                                   .toJson(QJsonDocument::Compact)
                            << '\n';
    fwrite(line.constData(), 1, size_t(line.size()), stderr);
    return CtlSession::ExitUsage;
}

int print(const QString &text)
{
    QTextStream(stdout) << text;
    return CtlSession::ExitOk;
}

// The subcommand's name: the first word that is neither an option nor an option's value.
QString commandName(const QStringList &words, const QList<QCommandLineOption> &options)
{
    QStringList valueOptions;
    for (const QCommandLineOption &option : options)
        if (!option.valueName().isEmpty())
            valueOptions << option.names();
    for (int i = 0; i < words.size(); ++i) {
        const QString &word = words.at(i);
        if (word == QLatin1String("--"))
            return words.value(i + 1);
        if (!word.startsWith(QLatin1Char('-')) || word == QLatin1String("-"))
            return word;
        QString name = word.mid(word.startsWith(QLatin1String("--")) ? 2 : 1);
        if (!name.contains(QLatin1Char('=')) && valueOptions.contains(name))
            ++i;
    }
    return QString();
}

bool options(const CtlArgs &args, CtlSession::Options *options, QString *error)
{
    options->configFile = args.value(QStringLiteral("config"));
    options->ref = args.value(QStringLiteral("ref"));
    options->device = args.value(QStringLiteral("device"));
    options->json = args.has(QStringLiteral("json"));
    options->pluginDirs = args.values(QStringLiteral("plugin-dir"));
    for (const QString &dir : qAsConst(options->pluginDirs)) {
        if (!QFileInfo(dir).isDir()) {
            *error = QStringLiteral("--plugin-dir %1: no such folder").arg(dir);
            return false;
        }
    }
    options->keepGoing = args.has(QStringLiteral("keep-going"));
    options->verbose = args.has(QStringLiteral("verbose"));
    quint32 timeout = 0;
    if (args.has(QStringLiteral("timeout"))
        && !CtlArgs::number(args.value(QStringLiteral("timeout")), 1, 3600000, QStringLiteral("--timeout"), &timeout, error))
        return false;
    options->timeoutMs = int(timeout);
    return true;
}

} // namespace

int main(int argc, char *argv[])
{
    QStringList words;
    for (int i = 1; i < argc; ++i)
        words << QString::fromLocal8Bit(argv[i]);
    const bool json = words.contains(QLatin1String("--json"));

    const QList<CtlGroup> groups = ctlGroups();
    QList<QCommandLineOption> known = ctlGlobalOptions();
    const CtlCommand *panel = findCtlCommand(groups, QStringLiteral("panel"));
    const QString name = commandName(words, known + panel->options);
    const CtlCommand *command = findCtlCommand(groups, name);
    if (command && command->where != CtlCommand::ScriptOnly)
        known += command->options;

    CtlArgs args;
    QString error;
    if (!CtlArgs::parse(words, known, &args, &error))
        return refuse(QStringLiteral("%1 (see e1212ctl %2--help)").arg(error, command ? name + QLatin1Char(' ') : QString()), json);
    if (args.has(QStringLiteral("version")))
        return print(QStringLiteral("e1212ctl " E1212_VERSION "\n"));
    if (name == QLatin1String("help") || (name.isEmpty() && args.has(QStringLiteral("help")))) {
        const QString topic = args.positional().value(0);
        if (topic.isEmpty())
            return print(ctlHelp(groups));
        const CtlCommand *about = findCtlCommand(groups, topic);
        return about ? print(ctlCommandHelp(*about)) : refuse(QStringLiteral("help: unknown command \"%1\"").arg(topic), json);
    }
    if (name.isEmpty())
        return refuse(QStringLiteral("no command given (see e1212ctl --help)"), json);
    if (!command || command->where == CtlCommand::ScriptOnly)
        return refuse(QStringLiteral("unknown command \"%1\" (see e1212ctl --help)").arg(name), json);
    if (args.has(QStringLiteral("help")))
        return print(ctlCommandHelp(*command));

    CtlSession::Options sessionOptions;
    if (!options(args, &sessionOptions, &error))
        return refuse(error, json);
    installCtlMessageHandler(sessionOptions.verbose);
    if (command == panel)
        return ctlRunPanel(argc, argv, sessionOptions, args);

    // Qt's own event dispatcher: with hundreds of sockets (serve) the GLib one costs a third
    // more CPU, and nothing here needs GLib's loop.
    qputenv("QT_NO_GLIB", "1");
    int status = CtlSession::ExitOk;
    {
        QCoreApplication app(argc, argv);
        QCoreApplication::setApplicationName(QStringLiteral("e1212ctl"));
        qCInfo(lcCtl).noquote() << "e1212ctl" << words.join(QLatin1Char(' '));
        CtlSession session(sessionOptions);
        CtlRunner runner(session, groups);
        QObject::connect(&runner, &CtlRunner::finished, &app, [](int status) {
            qCInfo(lcCtl) << "exit status" << status;
            QCoreApplication::exit(status);
        });
        runner.start(*command, args);
        status = QCoreApplication::exec();
    }
    // Everything of ours is gone and every stream is written out; the libraries' own teardown
    // (Qt's, ICU's, Kerberos' statics) would only touch about 1 MiB of pages to free memory
    // the kernel takes back anyway.
    fflush(nullptr);
    _exit(status);
}
