// SPDX-License-Identifier: MIT
// Finds, loads and keeps the host's plug-in libraries.
#pragma once

#include <QList>
#include <QMap>
#include <QObject>
#include <QStringList>
#include <QUuid>

class DAbstractPlugin;
class QPluginLoader;

class PluginManager : public QObject
{
    Q_OBJECT
public:
    explicit PluginManager(QObject *parent = nullptr);
    ~PluginManager() override;

    // The folders to scan, in order: those next to the running executable (an installed
    // tree's ../lib/e1212/plugins, the build tree's ../plugins), then `extra`, then each folder
    // of the environment variable E1212_PLUGIN_PATH (separated like PATH). Needs the
    // application object.
    static QStringList searchPath(const QStringList &extra = {});

    // Loads every library file found in `dirs` (missing folders are skipped). Returns the
    // number of plug-ins loaded by this call; each refused file adds one line to refusals().
    int scan(const QStringList &dirs);
    // Loads one file. Refused, with *error naming the file and the reason, when the file is
    // not a Qt plug-in, declares an interface id outside E1212_HOST_IID_PREFIX, cannot be
    // loaded, is not a DAbstractPlugin, or carries a plug-in UUID already loaded from
    // another file. Loading the same file twice is accepted and changes nothing.
    bool load(const QString &file, QString *error);

    // Root instances of the loaded plug-ins, in load order. The manager keeps them loaded
    // for its whole life.
    QList<DAbstractPlugin *> plugins() const;
    // The loaded plug-in with this UUID, or nullptr.
    DAbstractPlugin *plugin(const QUuid &pluginUuid) const;
    // The loaded driver plug-ins (type CeDriver).
    QList<DAbstractPlugin *> drivers() const;
    // The file a plug-in was loaded from; empty when it is not loaded.
    QString fileOf(const QUuid &pluginUuid) const;
    // Folders scanned so far, in order.
    QStringList scannedDirs() const { return m_scannedDirs; }
    // One line per refused file, in the order met.
    QStringList refusals() const { return m_refusals; }

private:
    struct Entry
    {
        QString file;
        QPluginLoader *loader = nullptr;
        DAbstractPlugin *plugin = nullptr;
    };

    bool refuse(const QString &text, QString *error);

    QList<Entry> m_entries;
    QStringList m_scannedDirs;
    QStringList m_refusals;
};
