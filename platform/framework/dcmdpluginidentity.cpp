// SPDX-License-Identifier: MIT
#include "dcmdpluginidentity.h"

#include "dabstractplugin.h"

#include <QTimer>

DCmdPluginIdentity::DCmdPluginIdentity(QObject *parent)
    : DAbstractCommand(QStringLiteral("getPluginIdentity"), {}, parent)
{
    setDescription(QStringLiteral("Return the plug-in's name, UUID, version and instance"));
    declareAResult(QStringLiteral("identity"), QStringLiteral("vart"),
                   QStringLiteral("Map of name, pluginUuid, version, instanceUuid and reference"), QVariant());
}

bool DCmdPluginIdentity::commandExecute()
{
    if (!DAbstractCommand::commandExecute())
        return false;
    const DAbstractPlugin *owner = plugin();
    const quint64 version = owner->pluginVersion();
    commandUpdateResult(QStringLiteral("identity"), QVariantMap{
        {QStringLiteral("name"), owner->pluginName()},
        {QStringLiteral("pluginUuid"), owner->pluginUuid().toString()},
        {QStringLiteral("version"), QStringLiteral("%1.%2").arg(version >> 48).arg((version >> 32) & 0xFFFF)},
        {QStringLiteral("instanceUuid"), owner->objectUuid().toString()},
        {QStringLiteral("reference"), owner->getProperty(QStringLiteral("reference"), QVariant()).toString()},
    });
    // Finishing is reported on the event loop, like every other completion.
    QTimer::singleShot(0, this, [this] { finishTheCommand(true); });
    return true;
}
