// SPDX-License-Identifier: MIT
// A subcommand of e1212ctl, and the groups they come in.
#pragma once

#include <QList>
#include <QString>
#include <QStringList>

#include <functional>

class CtlSession;

struct CtlCommand
{
    // The word on the command line ("get").
    QString name;
    // Its arguments for --help ("CH [--mask M]").
    QString usage;
    // One line for --help.
    QString summary;
    // Runs the subcommand with the words after its name (global options removed) and
    // returns the exit status (CtlSession::ExitCode).
    std::function<int(CtlSession &session, const QStringList &args)> run;
    // The subcommand needs a QGuiApplication instead of a QCoreApplication.
    bool needsGui = false;
};

struct CtlGroup
{
    QString title;
    QList<CtlCommand> commands;
};

// Every group, in --help order (ctlcommandtable.cpp).
QList<CtlGroup> ctlGroups();
// The subcommand called `name`, or nullptr.
const CtlCommand *findCtlCommand(const QList<CtlGroup> &groups, const QString &name);
