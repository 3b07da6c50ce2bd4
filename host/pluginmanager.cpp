// SPDX-License-Identifier: MIT
#include "pluginmanager.h"

#include "dabstractplugin.h"
#include "hostlog.h"
#include "hostplugin.h"

#include <QCoreApplication>
#include <QDir>
#include <QFileInfo>
#include <QJsonObject>
#include <QLibrary>
#include <QPluginLoader>

PluginManager::PluginManager(QObject *parent)
    : QObject(parent)
{}

// Loaders are never unloaded: instances made from the plug-ins may outlive the manager's
// last use, and unloading code under live objects crashes.
PluginManager::~PluginManager() = default;

QStringList PluginManager::searchPath(const QStringList &extra)
{
    const QString bin = QCoreApplication::applicationDirPath();
    QStringList dirs{bin + QStringLiteral("/../lib/e1212/plugins"), bin + QStringLiteral("/../plugins")};
    dirs << extra;
    const QString environment = qEnvironmentVariable("E1212_PLUGIN_PATH");
    if (!environment.isEmpty())
        dirs << environment.split(QDir::listSeparator(), Qt::SkipEmptyParts);
    return dirs;
}

int PluginManager::scan(const QStringList &dirs)
{
    int loaded = 0;
    for (const QString &dirPath : dirs) {
        const QDir dir(dirPath);
        if (!dir.exists())
            continue;
        m_scannedDirs << dir.absolutePath();
        const QFileInfoList files = dir.entryInfoList(QDir::Files | QDir::Readable, QDir::Name);
        for (const QFileInfo &info : files) {
            if (!QLibrary::isLibrary(info.fileName()))
                continue;
            const int before = m_entries.size();
            if (load(info.absoluteFilePath(), nullptr) && m_entries.size() > before)
                ++loaded;
        }
    }
    return loaded;
}

bool PluginManager::refuse(const QString &text, QString *error)
{
    m_refusals << text;
    qCWarning(lcHost).noquote() << text;
    if (error)
        *error = text;
    return false;
}

bool PluginManager::load(const QString &file, QString *error)
{
    const QString path = QFileInfo(file).canonicalFilePath();
    if (path.isEmpty())
        return refuse(QStringLiteral("plug-in %1 refused: no such file").arg(file), error);
    for (const Entry &entry : qAsConst(m_entries))
        if (entry.file == path)
            return true;

    auto loader = new QPluginLoader(path, this);
    const QJsonObject meta = loader->metaData();
    if (meta.isEmpty()) {
        delete loader;
        return refuse(QStringLiteral("plug-in %1 refused: not a Qt plug-in (no plug-in metadata)").arg(path), error);
    }
    const QString iid = meta.value(QStringLiteral("IID")).toString();
    const QString prefix = QStringLiteral(E1212_HOST_IID_PREFIX ".");
    if (!iid.startsWith(prefix) || iid.size() == prefix.size()) {
        delete loader;
        return refuse(QStringLiteral("plug-in %1 refused: foreign interface id \"%2\" (expected %3<ClassName>)")
                          .arg(path, iid, prefix), error);
    }
    QObject *root = loader->instance();
    if (!root) {
        const QString reason = loader->errorString();
        delete loader;
        return refuse(QStringLiteral("plug-in %1 refused: cannot load it: %2").arg(path, reason), error);
    }
    auto plugin = qobject_cast<DAbstractPlugin *>(root);
    if (!plugin) {
        loader->unload();
        delete loader;
        return refuse(QStringLiteral("plug-in %1 refused: its root object (%2) is not a host plug-in")
                          .arg(path, QString::fromLatin1(root->metaObject()->className())), error);
    }
    const QUuid uuid = plugin->pluginUuid();
    for (const Entry &entry : qAsConst(m_entries)) {
        if (entry.plugin->pluginUuid() == uuid) {
            loader->unload();
            delete loader;
            return refuse(QStringLiteral("plug-in %1 refused: its UUID %2 is already loaded from %3")
                              .arg(path, uuid.toString(), entry.file), error);
        }
    }
    m_entries << Entry{path, loader, plugin};
    qCInfo(lcHost).noquote() << "loaded plug-in" << plugin->pluginName() << uuid.toString() << "from" << path;
    return true;
}

QList<DAbstractPlugin *> PluginManager::plugins() const
{
    QList<DAbstractPlugin *> result;
    for (const Entry &entry : m_entries)
        result << entry.plugin;
    return result;
}

DAbstractPlugin *PluginManager::plugin(const QUuid &pluginUuid) const
{
    for (const Entry &entry : m_entries)
        if (entry.plugin->pluginUuid() == pluginUuid)
            return entry.plugin;
    return nullptr;
}

QList<DAbstractPlugin *> PluginManager::drivers() const
{
    QList<DAbstractPlugin *> result;
    for (const Entry &entry : m_entries)
        if (entry.plugin->pluginType() == IPlugin::CeDriver)
            result << entry.plugin;
    return result;
}

QString PluginManager::fileOf(const QUuid &pluginUuid) const
{
    for (const Entry &entry : m_entries)
        if (entry.plugin->pluginUuid() == pluginUuid)
            return entry.file;
    return QString();
}
