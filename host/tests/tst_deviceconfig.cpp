// SPDX-License-Identifier: MIT
// Reading device configuration files: the shipped one, both file shapes, and every kind of mistake.
#include "deviceconfig.h"

#include <QTemporaryDir>
#include <QtTest>

class TstDeviceConfig : public QObject
{
    Q_OBJECT
private slots:
    void shippedConfiguration()
    {
        QString error;
        const QList<DeviceConfig> devices = DeviceConfig::loadFile(QStringLiteral(E1212_SOURCE_DIR "/config/e1212.json"), &error);
        QVERIFY2(error.isEmpty(), qPrintable(error));
        QCOMPARE(devices.size(), 1);
        const DeviceConfig &device = devices.first();
        QCOMPARE(device.reference, QStringLiteral("Moxa E1212 io1"));
        QCOMPARE(device.pluginUuid, DeviceConfig::defaultPluginUuid());
        QVERIFY(device.driverUuid.isNull());
        QVERIFY(device.connection.isEmpty());
        const QVariantList table = device.channelTable();
        QCOMPARE(table.size(), 19);
        QCOMPARE(table.first().toMap().value(QStringLiteral("id")).toString(), QStringLiteral("DI0"));
    }

    void deviceList()
    {
        QString error;
        const QList<DeviceConfig> devices = DeviceConfig::fromJson(R"({"devices": [
            {"reference": "bench a", "connection": {"host": "127.0.0.1", "port": 1502, "unitId": 3}},
            {"reference": "bench b", "plugin": "{a3c1f2d4-6b7e-4f80-9c1d-2e3f4a5b6c7d}"}]})", QStringLiteral("two.json"), &error);
        QVERIFY2(error.isEmpty(), qPrintable(error));
        QCOMPARE(devices.size(), 2);
        QCOMPARE(devices.at(0).connection.value(QStringLiteral("port")).userType(), int(QMetaType::Int));
        QCOMPARE(devices.at(0).connection.value(QStringLiteral("port")).toInt(), 1502);
        QCOMPARE(devices.at(0).jsonPath, QStringLiteral("devices[0]"));
        QCOMPARE(devices.at(1).pluginUuid, QUuid("{a3c1f2d4-6b7e-4f80-9c1d-2e3f4a5b6c7d}"));
        QCOMPARE(devices.at(1).sourceFile, QStringLiteral("two.json"));
    }

    void mistakes_data()
    {
        QTest::addColumn<QByteArray>("json");
        QTest::addColumn<QString>("message");
        QTest::newRow("syntax, line 3") << QByteArray("{\n  \"reference\": \"x\",\n  \"parameters\": {,}\n}")
                                        << "bad.json: line 3, column 19: JSON syntax error:";
        QTest::newRow("top-level list") << QByteArray("[]") << "bad.json: (top): expected a device object";
        QTest::newRow("no reference") << QByteArray("{}") << "bad.json: reference: expected the device reference text, found missing";
        QTest::newRow("empty reference") << QByteArray(R"({"reference": " "})") << "bad.json: reference: the reference is empty";
        QTest::newRow("unknown key") << QByteArray(R"({"reference": "a", "conection": {}})") << "bad.json: conection: unknown key (known: reference, plugin, driver, parameters, connection)";
        QTest::newRow("plugin not a uuid") << QByteArray(R"({"reference": "a", "plugin": "moxa"})") << "bad.json: plugin: \"moxa\" is not a UUID";
        QTest::newRow("channel table object") << QByteArray(R"({"reference": "a io1", "parameters": {"io1_channels": {}}})")
                                              << "bad.json: parameters.io1_channels: expected a list of channel records, found an object";
        QTest::newRow("entry not an object") << QByteArray(R"({"reference": "a", "parameters": {"io1_channels": [{"id": "DI0", "value": [3]}]}})")
                                             << "bad.json: parameters.io1_channels[0].value[0]: expected an {\"id\", \"value\"} entry, found a number";
        QTest::newRow("port text") << QByteArray(R"({"reference": "a", "connection": {"port": "502"}})") << "bad.json: connection.port: expected a whole number, found a text";
        QTest::newRow("port range") << QByteArray(R"({"reference": "a", "connection": {"port": 70000}})") << "bad.json: connection.port: 70000 is out of range (expected a whole number from 1 to 65535)";
        QTest::newRow("connection key") << QByteArray(R"({"reference": "a", "connection": {"hots": "x"}})") << "bad.json: connection.hots: unknown key (known: host, port, unitId, timeoutMs, pollIntervalMs)";
        QTest::newRow("devices empty") << QByteArray(R"({"devices": []})") << "bad.json: devices: the list is empty";
        QTest::newRow("device in list") << QByteArray(R"({"devices": [{"reference": "a"}, {"reference": "b", "connection": {"timeoutMs": 0}}]})")
                                        << "bad.json: devices[1].connection.timeoutMs: 0 is out of range";
        QTest::newRow("duplicate reference") << QByteArray(R"({"devices": [{"reference": "a"}, {"reference": "a"}]})")
                                             << "bad.json: devices[1].reference: \"a\" is used by devices[0] already";
    }

    void mistakes()
    {
        QFETCH(QByteArray, json);
        QFETCH(QString, message);
        QString error;
        const QList<DeviceConfig> devices = DeviceConfig::fromJson(json, QStringLiteral("bad.json"), &error);
        QVERIFY(devices.isEmpty());
        QVERIFY2(error.startsWith(message), qPrintable(error));
        QVERIFY(!error.contains(QLatin1Char('\n')));
    }

    void unreadableFile()
    {
        QTemporaryDir dir;
        const QString path = dir.filePath(QStringLiteral("missing.json"));
        QString error;
        QVERIFY(DeviceConfig::loadFile(path, &error).isEmpty());
        QVERIFY2(error.startsWith(path + QStringLiteral(": cannot read the configuration: ")), qPrintable(error));
    }
};

QTEST_GUILESS_MAIN(TstDeviceConfig)
#include "tst_deviceconfig.moc"
