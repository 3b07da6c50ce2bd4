// SPDX-License-Identifier: MIT
// The host's view of one command object.
#pragma once

#include "dcommandargument.h"

#include <QMap>
#include <QString>
#include <QVariant>
#include <QtPlugin>

class QObject;

class ICommand
{
public:
    virtual ~ICommand() = default;

    virtual QString commandName() const = 0;
    // Empty when the command has no stop command.
    virtual QString stopCommandName() const = 0;
    virtual QString commandDescription() const = 0;
    virtual DCommandArguments commandArguments() const = 0;

    // The caller's arguments for the next execution.
    virtual void setParameters(const QMap<QString, QVariant> &parameters) = 0;
    virtual QMap<QString, QVariant> parameters() const = 0;

    // Starts an execution. False when the command refused to run; errorString() says why.
    virtual bool commandExecute() = 0;
    // Results posted since the execution started.
    virtual QMap<QString, QVariant> results() const = 0;
    virtual QString errorString() const = 0;

    // The QObject behind the interface, for its signals.
    virtual QObject *commandObject() = 0;
};

Q_DECLARE_INTERFACE(ICommand, "org.e1212bench.host.plugin.ICommand/1.0")
