// SPDX-License-Identifier: MIT
// Base of every plug-in object: identity, properties, parameters, configuration and
// the registry of the commands the plug-in declares.
#pragma once

#include "dchanneltable.h"
#include "iplugin.h"

#include <QList>
#include <QMap>
#include <QObject>

class DAbstractCommand;
class IMessenger;

class DAbstractPlugin : public QObject, public IPlugin
{
    Q_OBJECT
    Q_INTERFACES(IPlugin)
public:
    // `hidden` keeps the plug-in out of the host's user-facing listings.
    DAbstractPlugin(const QUuid &pluginUuid, const QString &pluginName, IPlugin::Type type,
                    quint64 version, const QUuid &instanceUuid, QObject *parent, bool hidden);
    ~DAbstractPlugin() override;

    QUuid objectUuid() const override;
    QString getName() const override;
    QUuid pluginUuid() const override;
    QString pluginName() const override;
    quint64 pluginVersion() const override;
    IPlugin::Type pluginType() const override;
    QList<QUuid> compatiblePlugins() const override;
    QString compatibilityString() const override;
    QVariant getProperty(const QString &name, bool *ok) const override;
    QVariant getProperty(const QString &name, const QVariant &defaultValue) const override;
    QStringList getFunctions(bool withStopCommands) const override;
    QString getFunctionDescription(const QString &command) const override;
    DCommandArguments getCommandParameters(const QString &command) const override;
    void setMainConfig(QSharedPointer<QJsonObject> config) override;
    QJsonValue getInMainConfig(const QString &path, const QJsonValue &defaultValue, bool *ok) const override;
    QJsonValue getInPluginConfig(const QString &path, const QJsonValue &defaultValue, bool *ok) const override;
    QString getDebugIdentification() const override;
    QSharedPointer<QJsonObject> getMainConfig() const override;
    bool setInPluginConfig(const QString &path, const QJsonValue &value) override;
    bool setInMainConfig(const QString &path, const QJsonValue &value) override;

    // Declares the plug-in's own commands; called once by the host after configuration.
    virtual void initPluginCommands();
    IPlugin *createInstance(const QUuid &instanceUuid) const override = 0;
    const char *pluginSubTypeName() const override;

    using QObject::property;
    using QObject::setProperty;
    // Stores a plug-in property; with `notify`, emits sigPropertyChanged on a real change.
    void setProperty(const QString &name, const QVariant &value, bool notify);

    // Parameters: values the host (or the plug-in itself) publishes for the commands.
    // An invalid QVariant when the name was never added.
    QVariant getFromParameters(const QString &name) const;
    // Publishing "channels" also re-indexes the channel table for channelInfo().
    void addToParameters(const QString &name, const QVariant &value);
    // The raw "value" of entry `key` in the "channels" record `channel` (see DChannelTable).
    QVariant channelInfo(const QString &channel, const QString &key) const { return m_channelTable.value(channel, key); }
    // The published channel table.
    const DChannelTable &channelTable() const { return m_channelTable; }

    // Lets the framework declare its generic commands, before the plug-in's own.
    void initAbstractCommands();
    // Takes ownership of `command` and makes it reachable by name. A null command or a
    // name already declared is refused (and the command deleted): returns false.
    bool declareInstructionCommand(DAbstractCommand *command);
    // Declared command names, in declaration order, without stop commands.
    QStringList commandNames() const;
    // The command declared under `name`, or under its stop name; nullptr when none.
    DAbstractCommand *command(const QString &name) const;

    bool isHidden() const { return m_hidden; }

    // The host's messenger for this instance; nullptr until the host attaches one.
    IMessenger *messenger() const;
    void setMessenger(IMessenger *messenger);

signals:
    void sigCommandsInitDone(const QUuid &instanceUuid, const QStringList &commandNames);
    void sigPropertyChanged(const QString &name, const QVariant &value);

private:
    const QUuid m_pluginUuid;
    const QString m_pluginName;
    const IPlugin::Type m_type;
    const quint64 m_version;
    const QUuid m_instanceUuid;
    const bool m_hidden;
    QMap<QString, QVariant> m_properties;
    QMap<QString, QVariant> m_parameters;
    DChannelTable m_channelTable;
    QSharedPointer<QJsonObject> m_mainConfig;
    QList<DAbstractCommand *> m_commands;
    IMessenger *m_messenger = nullptr;
};
