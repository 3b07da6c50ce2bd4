// SPDX-License-Identifier: MIT
// Base of a plug-in's QML back-end: runs the plug-in's commands through the host and
// receives their progress.
#pragma once

#include "derror.h"
#include "imessenger.h"

#include <QObject>
#include <QPointer>

class DAbstractPlugin;

class DAbstractPluginBackend : public QObject
{
    Q_OBJECT
public:
    explicit DAbstractPluginBackend(QObject *parent = nullptr);
    ~DAbstractPluginBackend() override;

    // The plug-in instance whose commands the back-end runs; nullptr until set.
    DAbstractPlugin *plugin() const;
    void setPlugin(DAbstractPlugin *plugin);

    // Runs one of the plug-in's commands. Returns the run id, or 0 when the back-end has
    // no plug-in or the plug-in no messenger (commandFailed is then called with CeNoRoute).
    unsigned long long runCommand(const QString &command, const QMap<QString, QVariant> &arguments = {});
    // Runs the command now and again `repeatMs` after each run ends, until stopCommand();
    // each run reports through the hooks below under the returned run id, a failed one
    // included, and the schedule goes on. 0 as for runCommand.
    unsigned long long runCommandEvery(const QString &command, const QMap<QString, QVariant> &arguments, int repeatMs);
    // Stops a running command (a listening one); false when no such run is active.
    bool stopCommand(unsigned long long runId);

    // Called by the host as a run progresses; the defaults do nothing.
    virtual void commandResultChanged(unsigned long long runId, const QString &command,
                                      const QString &name, const QVariant &value);
    virtual void commandFinished(unsigned long long runId, const QString &command,
                                 const QMap<QString, QVariant> &results);
    virtual void commandFailed(unsigned long long runId, const QString &command, const DError &error);

signals:
    void pluginChanged();

private:
    // The plug-in's messenger; nullptr after telling commandFailed (CeNoRoute) why not.
    IMessenger *attachedMessenger(const QString &command);

    QPointer<DAbstractPlugin> m_plugin;
};
