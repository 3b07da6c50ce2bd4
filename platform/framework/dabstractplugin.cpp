// SPDX-License-Identifier: MIT
#include "dabstractplugin.h"

#include "dabstractcommand.h"
#include "dcmdpluginidentity.h"

#include <QJsonArray>

namespace {

QStringList splitPath(const QString &path)
{
    return path.split(QLatin1Char('/'), Qt::SkipEmptyParts);
}

QJsonValue valueAt(const QJsonObject &root, const QStringList &keys, bool *found)
{
    QJsonValue current = root;
    for (const QString &key : keys) {
        if (!current.isObject() || !current.toObject().contains(key)) {
            *found = false;
            return QJsonValue();
        }
        current = current.toObject().value(key);
    }
    *found = true;
    return current;
}

// Sets root[keys...] = value, creating the objects on the way; false when a key on the
// way names a value that is not an object.
bool setValueAt(QJsonObject &root, const QStringList &keys, int index, const QJsonValue &value)
{
    const QString &key = keys.at(index);
    if (index == keys.size() - 1) {
        root.insert(key, value);
        return true;
    }
    QJsonValue child = root.value(key);
    if (!child.isUndefined() && !child.isObject())
        return false;
    QJsonObject childObject = child.toObject();
    if (!setValueAt(childObject, keys, index + 1, value))
        return false;
    root.insert(key, childObject);
    return true;
}

QString pluginConfigPath(const QUuid &pluginUuid, const QString &path)
{
    return QStringLiteral("plugins/") + pluginUuid.toString() + QLatin1Char('/') + path;
}

} // namespace

DAbstractPlugin::DAbstractPlugin(const QUuid &pluginUuid, const QString &pluginName, IPlugin::Type type,
                                 quint64 version, const QUuid &instanceUuid, QObject *parent, bool hidden)
    : QObject(parent)
    , m_pluginUuid(pluginUuid)
    , m_pluginName(pluginName)
    , m_type(type)
    , m_version(version)
    , m_instanceUuid(instanceUuid)
    , m_hidden(hidden)
{
    setObjectName(pluginName);
}

// Declared commands are QObject children and go with the plug-in.
DAbstractPlugin::~DAbstractPlugin() = default;

QUuid DAbstractPlugin::objectUuid() const { return m_instanceUuid; }

QString DAbstractPlugin::getName() const
{
    const QString reference = m_properties.value(QStringLiteral("reference")).toString();
    return reference.isEmpty() ? m_pluginName : reference;
}

QUuid DAbstractPlugin::pluginUuid() const { return m_pluginUuid; }
QString DAbstractPlugin::pluginName() const { return m_pluginName; }
quint64 DAbstractPlugin::pluginVersion() const { return m_version; }
IPlugin::Type DAbstractPlugin::pluginType() const { return m_type; }
QList<QUuid> DAbstractPlugin::compatiblePlugins() const { return {}; }
QString DAbstractPlugin::compatibilityString() const { return QString(); }

QVariant DAbstractPlugin::getProperty(const QString &name, bool *ok) const
{
    const auto it = m_properties.constFind(name);
    if (ok)
        *ok = it != m_properties.constEnd();
    return it != m_properties.constEnd() ? it.value() : QVariant();
}

QVariant DAbstractPlugin::getProperty(const QString &name, const QVariant &defaultValue) const
{
    return m_properties.value(name, defaultValue);
}

void DAbstractPlugin::setProperty(const QString &name, const QVariant &value, bool notify)
{
    const auto it = m_properties.constFind(name);
    const bool changed = it == m_properties.constEnd() || it.value() != value
        || it.value().userType() != value.userType();
    m_properties.insert(name, value);
    if (notify && changed)
        emit sigPropertyChanged(name, value);
}

QStringList DAbstractPlugin::getFunctions(bool withStopCommands) const
{
    QStringList names;
    for (const DAbstractCommand *command : m_commands) {
        names << command->commandName();
        if (withStopCommands && !command->stopCommandName().isEmpty())
            names << command->stopCommandName();
    }
    return names;
}

QString DAbstractPlugin::getFunctionDescription(const QString &name) const
{
    const DAbstractCommand *found = command(name);
    return found && found->commandName() == name ? found->commandDescription() : QString();
}

DCommandArguments DAbstractPlugin::getCommandParameters(const QString &name) const
{
    const DAbstractCommand *found = command(name);
    if (!found || found->commandName() != name)
        return {};
    DCommandArguments ordered;
    const DCommandArguments all = found->commandArguments();
    for (const DCommandArgument &argument : all)
        if (argument.kind == DCommandArgument::CeParameter)
            ordered << argument;
    for (const DCommandArgument &argument : all)
        if (argument.kind == DCommandArgument::CeResult)
            ordered << argument;
    return ordered;
}

void DAbstractPlugin::setMainConfig(QSharedPointer<QJsonObject> config) { m_mainConfig = config; }
QSharedPointer<QJsonObject> DAbstractPlugin::getMainConfig() const { return m_mainConfig; }

QJsonValue DAbstractPlugin::getInMainConfig(const QString &path, const QJsonValue &defaultValue, bool *ok) const
{
    bool found = false;
    QJsonValue value;
    if (m_mainConfig)
        value = valueAt(*m_mainConfig, splitPath(path), &found);
    if (ok)
        *ok = found;
    return found ? value : defaultValue;
}

QJsonValue DAbstractPlugin::getInPluginConfig(const QString &path, const QJsonValue &defaultValue, bool *ok) const
{
    return getInMainConfig(pluginConfigPath(m_pluginUuid, path), defaultValue, ok);
}

bool DAbstractPlugin::setInMainConfig(const QString &path, const QJsonValue &value)
{
    const QStringList keys = splitPath(path);
    if (!m_mainConfig || keys.isEmpty())
        return false;
    return setValueAt(*m_mainConfig, keys, 0, value);
}

bool DAbstractPlugin::setInPluginConfig(const QString &path, const QJsonValue &value)
{
    return setInMainConfig(pluginConfigPath(m_pluginUuid, path), value);
}

QString DAbstractPlugin::getDebugIdentification() const
{
    return m_pluginName + QLatin1Char(' ') + m_instanceUuid.toString();
}

void DAbstractPlugin::initPluginCommands() {}

const char *DAbstractPlugin::pluginSubTypeName() const { return ""; }

QVariant DAbstractPlugin::getFromParameters(const QString &name) const
{
    return m_parameters.value(name);
}

void DAbstractPlugin::addToParameters(const QString &name, const QVariant &value)
{
    m_parameters.insert(name, value);
    if (name == QLatin1String("channels"))
        m_channelTable = DChannelTable(value);
}

void DAbstractPlugin::initAbstractCommands()
{
    declareInstructionCommand(new DCmdPluginIdentity(this));
}

bool DAbstractPlugin::declareInstructionCommand(DAbstractCommand *newCommand)
{
    if (!newCommand)
        return false;
    if (command(newCommand->commandName())
        || (!newCommand->stopCommandName().isEmpty() && command(newCommand->stopCommandName()))) {
        qWarning("%s: command \"%s\" is declared already; the second declaration is dropped",
                 qPrintable(getDebugIdentification()), qPrintable(newCommand->commandName()));
        delete newCommand;
        return false;
    }
    newCommand->setParent(this);
    m_commands << newCommand;
    return true;
}

QStringList DAbstractPlugin::commandNames() const
{
    return getFunctions(false);
}

DAbstractCommand *DAbstractPlugin::command(const QString &name) const
{
    for (DAbstractCommand *candidate : m_commands)
        if (candidate->commandName() == name || (!candidate->stopCommandName().isEmpty() && candidate->stopCommandName() == name))
            return candidate;
    return nullptr;
}

IMessenger *DAbstractPlugin::messenger() const { return m_messenger; }
void DAbstractPlugin::setMessenger(IMessenger *messenger) { m_messenger = messenger; }
