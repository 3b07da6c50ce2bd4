// SPDX-License-Identifier: MIT
// The one table of e1212ctl's subcommand groups.
#include "ctlcommand.h"

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
    E1212CTL_GROUP(genericGroup);
    E1212CTL_GROUP(simulateGroup);
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
