// SPDX-License-Identifier: MIT
// The E1212 device plug-in: identity, channel table and the device commands.
#pragma once

#include "dabstractplugin.h"

class PDeviceMoxaIoLogic : public DAbstractPlugin
{
    Q_OBJECT
    Q_PLUGIN_METADATA(IID "org.e1212bench.host.plugin.PDeviceMoxaIoLogic")
public:
    explicit PDeviceMoxaIoLogic(const QUuid &instanceUuid = QUuid(), QObject *parent = nullptr);
    ~PDeviceMoxaIoLogic() override;

    static QUuid getPluginId();
    static const char *getPluginName();
    static IPlugin::Type getPluginType();

    // Publishes the reference's channel table as "channels", then declares the commands.
    void initPluginCommands() override;
    IPlugin *createInstance(const QUuid &instanceUuid) const override;
    const char *pluginSubTypeName() const override;
};
