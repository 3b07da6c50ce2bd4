// SPDX-License-Identifier: MIT
// A device plug-in for the host's tests: one command for each way a command can use the host.
#pragma once

#include "dabstractplugin.h"

// Commands:
//   "probe"  (channel)  one read with a callback; the callback refuses a reply without "values"
//                       and posts "value" = the first value
//   "collect" (channel) one read without a callback (dataSize 3); declares result "values"
//   "watch"  (channel)  a listen with stop command "stopWatch"; each report posts "values"
//   "stamp"  (tag)      factory command: a write carrying the tag; its callback posts "tag"
//                       from the object's own field
//   "route"             sends an instruction to the target "plc", which no device has
class PTestDevice : public DAbstractPlugin
{
    Q_OBJECT
    Q_PLUGIN_METADATA(IID "org.e1212bench.host.plugin.PTestDevice")
public:
    explicit PTestDevice(const QUuid &instanceUuid = QUuid(), QObject *parent = nullptr);

    void initPluginCommands() override;
    IPlugin *createInstance(const QUuid &instanceUuid) const override;
};
