// SPDX-License-Identifier: MIT
// A subcommand of e1212ctl, and the groups they come in.
#pragma once

#include <QCommandLineOption>
#include <QList>
#include <QString>
#include <QStringList>

#include <functional>

class CtlStep;

struct CtlCommand
{
    enum Where { Anywhere, CommandLineOnly, ScriptOnly };
    using Runner = std::function<void(CtlStep &step)>;

    CtlCommand(const QString &name, const QString &usage, const QString &summary, const Runner &run,
               const QList<QCommandLineOption> &options = {}, Where where = Anywhere)
        : name(name), usage(usage), summary(summary), run(run), options(options), where(where)
    {}

    // The word on the command line ("get").
    QString name;
    // Its positional arguments for help ("CH VALUE").
    QString usage;
    // One line for help.
    QString summary;
    // Starts the subcommand with its parsed line; it ends with step.finish(), at once or later.
    Runner run;
    // Its own options.
    QList<QCommandLineOption> options;
    Where where = Anywhere;
};

struct CtlGroup
{
    QString title;
    QList<CtlCommand> commands;
};

// Every group, in help order (ctlcommandtable.cpp).
QList<CtlGroup> ctlGroups();
// The subcommand called `name`, or nullptr.
const CtlCommand *findCtlCommand(const QList<CtlGroup> &groups, const QString &name);
// The options every command line takes, besides the subcommand's own.
QList<QCommandLineOption> ctlGlobalOptions();
// "e1212ctl SUB --help": usage, summary and options of one subcommand.
QString ctlCommandHelp(const CtlCommand &command);
// "e1212ctl --help".
QString ctlHelp(const QList<CtlGroup> &groups);
// The step `help`: every subcommand a script or shell line may run.
QString ctlStepHelp(const QList<CtlGroup> &groups);
// The options of one option list, one per line, for help texts.
QString ctlOptionLines(const QList<QCommandLineOption> &options);
