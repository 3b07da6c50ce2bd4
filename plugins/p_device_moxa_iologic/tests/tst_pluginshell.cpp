// SPDX-License-Identifier: MIT
// The device plug-in loaded by QPluginLoader: metadata, root instance, identity,
// embedded panel and QML types.
#include "dabstractplugin.h"
#include "hostutils.h"

#include <QFile>
#include <QPluginLoader>
#include <QQmlComponent>
#include <QQmlEngine>
#include <QtTest>

namespace {
const QString c_pluginPath = QStringLiteral(E1212_PLUGIN_DIR "/libp_device_moxa_iologic.so");
const QUuid c_pluginUuid(QStringLiteral("{43ae4651-f855-42c1-81e2-c73130e79008}"));
} // namespace

class TstPluginShell : public QObject
{
    Q_OBJECT
private slots:
    void initTestCase();
    void metadata();
    void rootInstanceLifecycle();
    void identityThroughIPlugin_data();
    void identityThroughIPlugin();
    void freshInstanceHasNoCommandsOrTable();
    void embeddedPanel();
    void qmlCreatesChannel();

private:
    QPluginLoader m_loader{c_pluginPath};
};

void TstPluginShell::initTestCase()
{
    QVERIFY2(m_loader.load(), qPrintable(m_loader.errorString()));
}

void TstPluginShell::metadata()
{
    const QJsonObject meta = m_loader.metaData();
    QCOMPARE(meta.value(QStringLiteral("IID")).toString(), QStringLiteral("org.e1212bench.host.plugin.PDeviceMoxaIoLogic"));
    QCOMPARE(meta.value(QStringLiteral("className")).toString(), QStringLiteral("PDeviceMoxaIoLogic"));
    // No JSON file is attached.
    QVERIFY(meta.value(QStringLiteral("MetaData")).toObject().isEmpty());
}

void TstPluginShell::rootInstanceLifecycle()
{
    QObject *first = m_loader.instance();
    QVERIFY(first);
    QCOMPARE(m_loader.instance(), first);
    QCOMPARE(first->metaObject()->className(), "PDeviceMoxaIoLogic");
    QVERIFY(qobject_cast<IPlugin *>(first));
    QVERIFY(first->inherits("DAbstractPlugin"));

    delete first;
    QObject *second = m_loader.instance();
    QVERIFY(second);
    IPlugin *plugin = qobject_cast<IPlugin *>(second);
    QVERIFY(plugin);
    QVERIFY(plugin->objectUuid().isNull());
    QCOMPARE(plugin->pluginUuid(), c_pluginUuid);
}

void TstPluginShell::identityThroughIPlugin_data()
{
    QTest::addColumn<QUuid>("instanceUuid");
    QTest::newRow("given uuid") << QUuid(QStringLiteral("{11111111-2222-4333-8444-555555555555}"));
    QTest::newRow("null uuid") << QUuid();
}

void TstPluginShell::identityThroughIPlugin()
{
    QFETCH(QUuid, instanceUuid);
    IPlugin *root = qobject_cast<IPlugin *>(m_loader.instance());
    QVERIFY(root);
    QScopedPointer<IPlugin> instance(root->createInstance(instanceUuid));
    QVERIFY(instance);
    QVERIFY(static_cast<const void *>(instance.data()) != static_cast<const void *>(root));

    QCOMPARE(instance->objectUuid(), instanceUuid);
    QCOMPARE(instance->pluginUuid(), c_pluginUuid);
    QCOMPARE(instance->pluginName(), QStringLiteral("Device Moxa IoLogic E1212"));
    QCOMPARE(instance->pluginName().size(), 25);
    QCOMPARE(quint32(instance->pluginType()), 0x44657669u);
    QCOMPARE(quint32(instance->pluginType()), IPlugin::typeCode("Devi"));
    QCOMPARE(instance->pluginVersion(), versionFromString(QStringLiteral("1.0"), nullptr, QLatin1Char('.')));
    QCOMPARE(QByteArray(instance->pluginSubTypeName()), QByteArray());

    bool ok = false;
    const QVariant typeName = instance->getProperty(QStringLiteral("typeName"), &ok);
    QVERIFY(ok);
    QCOMPARE(typeName.userType(), int(QMetaType::QString));
    QVERIFY(typeName.toString().isEmpty());
}

void TstPluginShell::freshInstanceHasNoCommandsOrTable()
{
    IPlugin *root = qobject_cast<IPlugin *>(m_loader.instance());
    QScopedPointer<IPlugin> instance(root->createInstance(QUuid::createUuid()));
    auto *plugin = dynamic_cast<DAbstractPlugin *>(instance.data());
    QVERIFY(plugin);
    QVERIFY(plugin->commandNames().isEmpty());
    QVERIFY(!plugin->getFromParameters(QStringLiteral("channels")).isValid());
}

void TstPluginShell::embeddedPanel()
{
    QFile panel(QStringLiteral(":/{43ae4651-f855-42c1-81e2-c73130e79008}/maintenance_panel.qml"));
    QVERIFY2(panel.open(QIODevice::ReadOnly), qPrintable(panel.errorString()));
    QVERIFY(panel.readAll().contains("import QtQuick"));
}

void TstPluginShell::qmlCreatesChannel()
{
    // Every construction registers the types again; that must stay harmless.
    IPlugin *root = qobject_cast<IPlugin *>(m_loader.instance());
    delete root->createInstance(QUuid::createUuid());
    delete root->createInstance(QUuid::createUuid());

    QQmlEngine engine;
    QQmlComponent component(&engine);
    component.setData("import PlgLibDeviceMoxaIoLogic 1.0\n"
                      "DMoxaChannel { property bool switchable: isSwitchable() }\n",
                      QUrl());
    QScopedPointer<QObject> channel(component.create());
    QVERIFY2(channel, qPrintable(component.errorString()));
    QVERIFY(channel->inherits("DMoxaChannel"));
    QCOMPARE(channel->objectName(), QStringLiteral("DMoxaChannel"));
    QCOMPARE(channel->property("switchable").toBool(), false);
    QCOMPARE(channel->property("type").toInt(), 0);
    QVERIFY(!channel->property("value").isValid());

    component.setData("import PlgLibDeviceMoxaIoLogic 1.0\nBeMaintenanceDeviceMoxaIoLogic {}\n", QUrl());
    QScopedPointer<QObject> backend(component.create());
    QVERIFY2(backend, qPrintable(component.errorString()));
    QVERIFY(backend->inherits("DAbstractPluginBackend"));
}

QTEST_MAIN(TstPluginShell)
#include "tst_pluginshell.moc"
