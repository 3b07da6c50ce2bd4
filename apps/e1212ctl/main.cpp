// SPDX-License-Identifier: MIT
// Loads the device plug-in as the host does and prints what it declares about itself.
#include "dabstractplugin.h"

#include <QCoreApplication>
#include <QDir>
#include <QJsonDocument>
#include <QPluginLoader>
#include <QTextStream>

int main(int argc, char *argv[])
{
    QCoreApplication app(argc, argv);
    QTextStream out(stdout);
    QTextStream err(stderr);

    const QString path = QDir(QStringLiteral(E1212_BUILD_PLUGIN_DIR)).filePath(QStringLiteral("libp_device_moxa_iologic.so"));
    QPluginLoader loader(path);
    const QJsonObject meta = loader.metaData();
    out << "plug-in file: " << path << "\n"
        << "interface id: " << meta.value(QStringLiteral("IID")).toString() << "\n"
        << "class name:   " << meta.value(QStringLiteral("className")).toString() << "\n";

    IPlugin *plugin = qobject_cast<IPlugin *>(loader.instance());
    if (!plugin) {
        err << "cannot load " << path << ": " << loader.errorString() << "\n";
        return 1;
    }
    out << "name:         " << plugin->pluginName() << "\n"
        << "uuid:         " << plugin->pluginUuid().toString() << "\n"
        << "type:         0x" << QString::number(plugin->pluginType(), 16) << "\n"
        << "version:      0x" << QString::number(plugin->pluginVersion(), 16) << "\n";
    return 0;
}
