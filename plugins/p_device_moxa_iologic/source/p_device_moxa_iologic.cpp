// SPDX-License-Identifier: MIT
#include "p_device_moxa_iologic.h"

#include "be_maintenance_plugin.h"
#include "d_cmd_getInfo.h"
#include "d_cmd_getValue.h"
#include "d_cmd_getValues.h"
#include "d_cmd_listenEvents.h"
#include "d_cmd_setValue.h"
#include "d_cmd_setValues.h"
#include "d_cmd_setValuesWithPulse.h"
#include "d_moxa_channel.h"
#include "diagnosticlog.h"
#include "hostutils.h"

#include <QtQml>

namespace {
const char c_sourceFile[] = "plugins/p_device_moxa_iologic/source/p_device_moxa_iologic";
const char c_pluginUuid[] = "{43ae4651-f855-42c1-81e2-c73130e79008}";
const char c_pluginName[] = "Device Moxa IoLogic E1212";
const char c_qmlUri[] = "PlgLibDeviceMoxaIoLogic";
} // namespace

PDeviceMoxaIoLogic::PDeviceMoxaIoLogic(const QUuid &instanceUuid, QObject *parent)
    : DAbstractPlugin(QUuid(c_pluginUuid), QString::fromLatin1(c_pluginName), IPlugin::Type(0x44657669),
                      versionFromString(QStringLiteral("1.0"), nullptr, QLatin1Char('.')), instanceUuid,
                      parent, false)
{
    // Registering again on every construction is harmless.
    qmlRegisterType<BeMaintenanceDeviceMoxaIoLogic>(c_qmlUri, 1, 0, "BeMaintenanceDeviceMoxaIoLogic");
    qmlRegisterType<DMoxaChannel>(c_qmlUri, 1, 0, "DMoxaChannel");
    DAbstractPlugin::setProperty(QStringLiteral("typeName"), QVariant(QString::fromLatin1(pluginSubTypeName())), false);
}

PDeviceMoxaIoLogic::~PDeviceMoxaIoLogic() = default;

QUuid PDeviceMoxaIoLogic::getPluginId() { return QUuid(c_pluginUuid); }
const char *PDeviceMoxaIoLogic::getPluginName() { return c_pluginName; }
IPlugin::Type PDeviceMoxaIoLogic::getPluginType() { return IPlugin::Type(0x44657669); }

void PDeviceMoxaIoLogic::initPluginCommands()
{
    const QString reference = getProperty(QStringLiteral("reference"), nullptr).toString();
    if (!reference.isEmpty()) {
        const QVariantMap params = getFromParameters(QStringLiteral("parameters")).toMap();
        const QString tableName = reference.section(QLatin1Char(' '), -1, -1) + QStringLiteral("_channels");
        const QVariant table = params.value(tableName);
        if (table.isValid())
            addToParameters(QStringLiteral("channels"), table);
        else
            diagnosticLine(this, c_sourceFile, 77) << "PDeviceMoxaIoLogic: no channel table for reference" << reference;
    }

    initAbstractCommands();

    // Each command is declared before the next one is created.
    declareInstructionCommand(new DCmdGetInfo(this));
    declareInstructionCommand(new DCmdGetValue(this));
    declareInstructionCommand(new DCmdGetValues(this));
    declareInstructionCommand(new DCmdSetValue(this));
    declareInstructionCommand(new DCmdSetValues(this));
    declareInstructionCommand(new DCmdSetValuesWithPulse(this));
    declareInstructionCommand(new DCmdListenEvents(this));

    emit sigCommandsInitDone(objectUuid(), commandNames());
}

IPlugin *PDeviceMoxaIoLogic::createInstance(const QUuid &instanceUuid) const
{
    return new PDeviceMoxaIoLogic(instanceUuid, nullptr);
}

const char *PDeviceMoxaIoLogic::pluginSubTypeName() const
{
    return "";
}
