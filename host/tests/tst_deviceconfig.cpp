// SPDX-License-Identifier: MIT
// Reading device configuration files: both file shapes, every checked entry at its bounds, and every kind of mistake.
#include "deviceconfig.h"

#include <QTemporaryDir>
#include <QtTest>

class TstDeviceConfig : public QObject
{
    Q_OBJECT
private slots:
    void deviceList()
    {
        // Every checked entry at its bounds, an unknown entry, pulse records that can be read as blocks,
        // and a table without outputs that needs none.
        QString error;
        const QList<DeviceConfig> devices = DeviceConfig::fromJson(R"({"devices": [
            {"reference": "bench a", "connection": {"host": "127.0.0.1", "port": 1, "unitId": 0, "timeoutMs": 1, "pollIntervalMs": 3600000},
             "parameters": {"a_channels": [{"id": "DI0", "value": [{"id": "type", "value": "digitalInput"}, {"id": "size", "value": 1}]}]}},
            {"reference": "bench b", "plugin": "{a3c1f2d4-6b7e-4f80-9c1d-2e3f4a5b6c7d}", "parameters": {"b_channels": [
                {"id": "DO0", "name": "", "value": [{"id": "type", "value": "digitalOutput"}, {"id": "register", "value": 65535},
                    {"id": "size", "value": 2000}, {"id": "activeLevelHigh", "value": false}, {"id": "mode", "value": [1]}]},
                {"id": "AI0", "value": [{"id": "readRegisterType", "value": "inputRegisters"}, {"id": "size", "value": 125}]},
                {"id": "DO_PulseStatus", "value": [{"id": "register", "value": 0}, {"id": "writeRegisterType", "value": "coilsRegister"}]},
                {"id": "DO_PulseOnWidth", "value": [{"id": "register", "value": 256}, {"id": "writeRegisterType", "value": "holdingRegisters"},
                    {"id": "readRegisterType", "value": "holdingRegisters"}, {"id": "size", "value": 8}]},
                {"id": "DO_PulseOffWidth", "value": [{"id": "writeRegisterType", "value": "holdingRegisters"}, {"id": "register", "value": 512}]}]}}]})",
                                                                   QStringLiteral("two.json"), &error);
        QVERIFY2(error.isEmpty(), qPrintable(error));
        QCOMPARE(devices.size(), 2);
        QCOMPARE(devices.at(0).connection.value(QStringLiteral("port")).userType(), int(QMetaType::Int));
        QCOMPARE(devices.at(0).connection.value(QStringLiteral("port")).toInt(), 1);
        QCOMPARE(devices.at(0).jsonPath, QStringLiteral("devices[0]"));
        QCOMPARE(devices.at(1).pluginUuid, QUuid("{a3c1f2d4-6b7e-4f80-9c1d-2e3f4a5b6c7d}"));
        QCOMPARE(devices.at(1).sourceFile, QStringLiteral("two.json"));
        QCOMPARE(devices.at(1).channelTable().size(), 5);
    }

    void mistakes_data()
    {
        QTest::addColumn<QByteArray>("json");
        // Empty: the JSON text is written to bad.json; otherwise the file read instead.
        QTest::addColumn<QString>("file");
        // When above 0, bad.json is grown with zero bytes to this size.
        QTest::addColumn<qint64>("size");
        // What follows "<file>: " in the message.
        QTest::addColumn<QString>("message");

        auto entry = [](const char *id, const char *value) { return QStringLiteral(R"({"id": "%1", "value": %2})").arg(id, value); };
        auto record = [](const char *id, const QStringList &entries) {
            return QStringLiteral(R"({"id": "%1", "name": "%1", "value": [%2]})").arg(id, entries.join(QStringLiteral(", ")));
        };
        // A device whose "io2_channels" (a table its reference does not select) holds these records.
        auto table = [](const QStringList &records) {
            return QStringLiteral(R"({"devices": [{"reference": "a io1", "parameters": {"io2_channels": [%1]}}]})")
                .arg(records.join(QStringLiteral(", "))).toUtf8();
        };
        auto oneEntry = [&](const char *id, const char *value) {
            return table({record("X", {entry("readRegisterType", "\"holdingRegisters\""), entry(id, value)})});
        };
        const QString records = QStringLiteral("devices[0].parameters.io2_channels");
        const QString entryAt = records + "[0].value[1].value: ";
        const QString output = record("DO0", {entry("type", "\"digitalOutput\"")});
        const QString status = record("DO_PulseStatus", {entry("register", "16"), entry("writeRegisterType", "\"coilsRegister\"")});
        const QString onWidth = record("DO_PulseOnWidth", {entry("register", "256"), entry("writeRegisterType", "\"holdingRegisters\"")});
        const qint64 limit = 16 * 1024 * 1024;
        const auto row = [](const char *name, const QByteArray &json, const QString &message, const QString &file = {}, qint64 size = 0) {
            QTest::newRow(name) << json << file << size << message;
        };

        row("syntax, line 3", "{\n  \"reference\": \"x\",\n  \"parameters\": {,}\n}", "line 3, column 19: JSON syntax error:");
        row("top-level list", "[]", "(top): expected a device object");
        row("no reference", "{}", "reference: expected the device reference text, found missing");
        row("unknown key", R"({"reference": "a", "conection": {}})", "conection: unknown key (known: reference, plugin, driver, parameters, connection)");
        row("plugin not a uuid", R"({"reference": "a", "plugin": "moxa"})", "plugin: \"moxa\" is not a UUID");
        row("devices empty", R"({"devices": []})", "devices: the list is empty");
        row("device not an object", R"({"devices": [{"reference": "a"}, 7]})", "devices[1]: expected a device object, found a number");
        row("device in list", R"({"devices": [{"reference": "a"}, {"reference": "b", "connection": {"timeoutMs": 3600001}}]})",
            "devices[1].connection.timeoutMs: 3600001 is out of range (expected a whole number from 1 to 3600000)");
        row("port 65536", R"({"reference": "a", "connection": {"port": 65536}})",
            "connection.port: 65536 is out of range (expected a whole number from 1 to 65535)");
        row("poll interval 3600001", R"({"reference": "a", "connection": {"pollIntervalMs": 3600001}})",
            "connection.pollIntervalMs: 3600001 is out of range (expected a whole number from 1 to 3600000)");
        row("unit 256", R"({"reference": "a", "connection": {"unitId": 256}})",
            "connection.unitId: 256 is out of range (expected a whole number from 0 to 255)");
        row("connection not an object", R"({"reference": "a", "connection": "10.0.0.9"})", "connection: expected an object, found a text");
        row("port as text", R"({"reference": "a", "connection": {"port": "502"}})", "connection.port: expected a whole number, found a text");
        row("host empty", R"({"reference": "a", "connection": {"host": ""}})", "connection.host: the host is empty");
        row("host not text", R"({"reference": "a", "connection": {"host": 1}})", "connection.host: expected a host name or address text, found a number");
        row("duplicate reference", R"({"devices": [{"reference": "a"}, {"reference": "a"}]})",
            "devices[1].reference: \"a\" is used by devices[0] already");
        row("table not a list", R"({"reference": "a io1", "parameters": {"io1_channels": {}}})",
            "parameters.io1_channels: expected a list of channel records, found an object");
        row("no channel id", table({R"({"id": null, "value": []})"}), records + "[0].id: expected a channel id text, found null");
        row("name not text", table({R"({"id": "DI0", "name": 5, "value": []})"}), records + "[0].name: expected a text, found a number");
        row("empty channel id", table({record("", {})}), records + "[0].id: the channel id is empty");
        row("duplicate channel id", table({record("DI0", {}), record("DI1", {}), record("DI0", {})}),
            records + "[2].id: \"DI0\" is used by " + records + "[0] already");
        row("entries not a list", table({R"({"id": "DI0", "value": 3})"}),
            records + "[0].value: expected a list of {\"id\", \"value\"} entries, found a number");
        row("entry not an object", table({R"({"id": "DI0", "value": [3]})"}),
            records + "[0].value[0]: expected an {\"id\", \"value\"} entry, found a number");
        row("entry without value", table({R"({"id": "DI0", "value": [{"id": "register"}]})"}), records + "[0].value[0].value: \"register\" has no value");
        row("entry given twice", table({record("DI0", {entry("register", "1"), entry("register", "2")})}),
            records + "[0].value[1].id: \"register\" is given twice in this record");
        row("register text", oneEntry("register", "\"abc\""), entryAt + "\"register\" must be a whole number 0-65535, found \"abc\"");
        row("register 65536", oneEntry("register", "65536"), entryAt + "\"register\" must be");
        row("register negative", oneEntry("register", "-1"), entryAt + "\"register\" must be");
        row("size of words", oneEntry("size", "126"), entryAt + "\"size\" must be a whole number 1-125 for \"holdingRegisters\", found 126");
        row("size of bits", table({record("X", {entry("size", "2001")})}),
            records + "[0].value[0].value: \"size\" must be a whole number 1-2000, found 2001");
        row("size 0", oneEntry("size", "0"), entryAt + "\"size\" must be");
        row("register space", oneEntry("writeRegisterType", "\"coils\""),
            entryAt + "\"writeRegisterType\" must be one of \"coilsRegister\", \"discreteInputs\", \"inputRegisters\", "
                       "\"holdingRegisters\", found \"coils\"");
        row("type", oneEntry("type", "\"DigitalOutput\""),
            entryAt + "\"type\" must be one of \"analogInput\", \"analogOutput\", \"digitalInput\", \"digitalOutput\", found \"DigitalOutput\"");
        row("active level", oneEntry("activeLevelHigh", "\"true\""), entryAt + "\"activeLevelHigh\" must be true or false, found \"true\"");
        const QString needs = records + ": \"DO0\" is a digital output, so the table needs the pulse record ";
        row("no pulse records", table({output}), needs + "\"DO_PulseStatus\"");
        row("third pulse record", table({status, onWidth, output}), needs + "\"DO_PulseOffWidth\"");
        row("pulse record incomplete", table({output, status, record("DO_PulseOnWidth", {entry("register", "256")})}),
            records + "[2].value: the pulse record \"DO_PulseOnWidth\" has no \"writeRegisterType\"");
        row("larger than the limit", R"({"reference": "a"})", "the configuration is larger than 16 MiB", {}, limit + 1);
        row("at the limit, read", R"({"reference": "a"})", "line 1, column 19: JSON syntax error:", {}, limit);
        row("endless stream", {}, "the configuration is larger than 16 MiB", "/dev/zero");
        row("missing file", {}, "cannot read the configuration: ", "missing.json");
    }

    void mistakes()
    {
        QFETCH(QByteArray, json);
        QFETCH(QString, file);
        QFETCH(qint64, size);
        QFETCH(QString, message);
        QTemporaryDir dir;
        const QString path = file.startsWith(QLatin1Char('/')) ? file : dir.filePath(file.isEmpty() ? QStringLiteral("bad.json") : file);
        if (file.isEmpty()) {
            QFile out(path);
            QVERIFY(out.open(QIODevice::WriteOnly) && out.write(json) == json.size());
            QVERIFY(size == 0 || out.resize(size));
        }
        QString error;
        QVERIFY(DeviceConfig::loadFile(path, &error).isEmpty());
        QVERIFY2(error.startsWith(path + QStringLiteral(": ") + message), qPrintable(error));
        QVERIFY(!error.contains(QLatin1Char('\n')));
    }
};

QTEST_GUILESS_MAIN(TstDeviceConfig)
#include "tst_deviceconfig.moc"
