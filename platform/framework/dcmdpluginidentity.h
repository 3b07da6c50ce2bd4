// SPDX-License-Identifier: MIT
// The framework's generic command, declared in every plug-in by initAbstractCommands():
// "getPluginIdentity" answers the plug-in's identity without touching any device.
#pragma once

#include "dabstractcommand.h"

class DCmdPluginIdentity : public DAbstractCommand
{
    Q_OBJECT
public:
    explicit DCmdPluginIdentity(QObject *parent);

    bool commandExecute() override;
};
