// SPDX-License-Identifier: MIT
// The interface through which the host talks to every plug-in object.
#pragma once

#include "dcommandargument.h"
#include "hostplugin.h"

#include <QJsonObject>
#include <QJsonValue>
#include <QList>
#include <QSharedPointer>
#include <QStringList>
#include <QUuid>
#include <QVariant>
#include <QtPlugin>

class IPlugin
{
public:
    // Four ASCII characters packed big-end first.
    enum Type : quint32 {
        CeUnknown = 0,
        CeDevice = 0x44657669, // "Devi"
        CeDriver = 0x44726976, // "Driv"
    };

    static constexpr quint32 typeCode(const char (&tag)[5])
    {
        return (quint32(quint8(tag[0])) << 24) | (quint32(quint8(tag[1])) << 16)
            | (quint32(quint8(tag[2])) << 8) | quint32(quint8(tag[3]));
    }

    virtual ~IPlugin() = default;

    // The instance's own UUID; null for a library's root instance.
    virtual QUuid objectUuid() const = 0;
    // Display name of the instance.
    virtual QString getName() const = 0;
    virtual QUuid pluginUuid() const = 0;
    virtual QString pluginName() const = 0;
    virtual quint64 pluginVersion() const = 0;
    virtual Type pluginType() const = 0;
    virtual QList<QUuid> compatiblePlugins() const = 0;
    virtual QString compatibilityString() const = 0;
    // An invalid QVariant, with *ok false, when the property was never set.
    virtual QVariant getProperty(const QString &name, bool *ok) const = 0;
    virtual QVariant getProperty(const QString &name, const QVariant &defaultValue) const = 0;
    virtual void setMainConfig(QSharedPointer<QJsonObject> config) = 0;
    // Paths are keys separated by '/'. The default, with *ok false, when the path is missing.
    virtual QJsonValue getInMainConfig(const QString &path, const QJsonValue &defaultValue, bool *ok) const = 0;
    virtual QJsonValue getInPluginConfig(const QString &path, const QJsonValue &defaultValue, bool *ok) const = 0;
    virtual QString getDebugIdentification() const = 0;
    // A new, independent instance; the caller owns it.
    virtual IPlugin *createInstance(const QUuid &instanceUuid) const = 0;
    virtual const char *pluginSubTypeName() const = 0;
    // Declared command names in declaration order; with stop commands after each command that has one.
    virtual QStringList getFunctions(bool withStopCommands) const = 0;
    // Empty when no such command is declared.
    virtual QString getFunctionDescription(const QString &command) const = 0;
    // Parameters then results, each in declaration order; empty for an unknown command.
    virtual DCommandArguments getCommandParameters(const QString &command) const = 0;
    virtual QSharedPointer<QJsonObject> getMainConfig() const = 0;
    // False when no main configuration is set or the path crosses a non-object value.
    virtual bool setInPluginConfig(const QString &path, const QJsonValue &value) = 0;
    virtual bool setInMainConfig(const QString &path, const QJsonValue &value) = 0;
};

Q_DECLARE_INTERFACE(IPlugin, "org.e1212bench.host.plugin.IPlugin/1.0")
