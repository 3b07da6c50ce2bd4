// SPDX-License-Identifier: MIT
#include "dabstractpluginbackend.h"

#include "dabstractplugin.h"

DAbstractPluginBackend::DAbstractPluginBackend(QObject *parent)
    : QObject(parent)
{}

DAbstractPluginBackend::~DAbstractPluginBackend() = default;

DAbstractPlugin *DAbstractPluginBackend::plugin() const { return m_plugin; }

void DAbstractPluginBackend::setPlugin(DAbstractPlugin *plugin)
{
    if (m_plugin == plugin)
        return;
    m_plugin = plugin;
    emit pluginChanged();
}

unsigned long long DAbstractPluginBackend::runCommand(const QString &command, const QMap<QString, QVariant> &arguments)
{
    IMessenger *messenger = attachedMessenger(command);
    return messenger ? messenger->runCommand(this, command, arguments) : 0;
}

unsigned long long DAbstractPluginBackend::runCommandEvery(const QString &command, const QMap<QString, QVariant> &arguments,
                                                           int repeatMs)
{
    IMessenger *messenger = attachedMessenger(command);
    return messenger ? messenger->runCommandEvery(this, command, arguments, repeatMs) : 0;
}

IMessenger *DAbstractPluginBackend::attachedMessenger(const QString &command)
{
    IMessenger *messenger = m_plugin ? m_plugin->messenger() : nullptr;
    if (!messenger)
        commandFailed(0, command, DError{IMessenger::CeNoRoute, 0,
                      QStringLiteral("cannot run \"%1\": the back-end is not attached to a plug-in with a host").arg(command)});
    return messenger;
}

bool DAbstractPluginBackend::stopCommand(unsigned long long runId)
{
    IMessenger *messenger = m_plugin ? m_plugin->messenger() : nullptr;
    return messenger && messenger->stopCommand(runId);
}

void DAbstractPluginBackend::commandResultChanged(unsigned long long, const QString &, const QString &, const QVariant &) {}
void DAbstractPluginBackend::commandFinished(unsigned long long, const QString &, const QMap<QString, QVariant> &) {}
void DAbstractPluginBackend::commandFailed(unsigned long long, const QString &, const DError &) {}
