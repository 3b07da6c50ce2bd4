// SPDX-License-Identifier: MIT
// The gateway as plant integrators meet it: a real mosquitto on a free loopback port, a real
// host with the plug-ins the PluginManager loads, embedded simulators, subscribers of ours
// in-process and, end to end, mosquitto_pub/mosquitto_sub and e1212ctl serve as processes.
#include "dabstractplugin.h"
#include "e1212simulator.h"
#include "execution.h"
#include "host.h"
#include "logcapture.h"
#include "mosquittobroker.h"
#include "mqttgateway.h"
#include "mqttinbox.h"
#include "pluginmanager.h"
#include "processrun.h"

#include <QJsonDocument>
#include <QJsonObject>
#include <QtTest>

#include <memory>

namespace {

const QString c_timePattern = QStringLiteral("^\\d{4}-\\d\\d-\\d\\dT\\d\\d:\\d\\d:\\d\\d\\.\\d{3}Z$");
constexpr int c_timeoutMs = 300;

QJsonObject json(const QByteArray &payload)
{
    return QJsonDocument::fromJson(payload).object();
}

// The built-in device as `reference`, served on loopback at `port`, polled every 50 ms.
DeviceConfig deviceConfig(const QString &reference, quint16 port)
{
    QFile file(QStringLiteral(E1212_SOURCE_DIR "/config/e1212.json"));
    file.open(QIODevice::ReadOnly);
    QJsonObject object = QJsonDocument::fromJson(file.readAll()).object();
    QJsonObject parameters = object.value(QStringLiteral("parameters")).toObject();
    parameters.insert(reference.section(QLatin1Char(' '), -1) + QStringLiteral("_channels"), parameters.take(QStringLiteral("io1_channels")));
    object.insert(QStringLiteral("parameters"), parameters);
    object.insert(QStringLiteral("reference"), reference);
    object.insert(QStringLiteral("connection"), QJsonObject{{QStringLiteral("host"), QStringLiteral("127.0.0.1")},
                                                            {QStringLiteral("port"), port},
                                                            {QStringLiteral("timeoutMs"), c_timeoutMs},
                                                            {QStringLiteral("pollIntervalMs"), 50}});
    QString error;
    const QList<DeviceConfig> configs = DeviceConfig::fromJson(QJsonDocument(object).toJson(), QStringLiteral("test"), &error);
    return configs.value(0);
}

// A broker, the plug-ins, `devices` simulators (io1, io2, ...), a host, the gateway, and an
// observer subscribed to everything.
struct Bench
{
    MosquittoBroker broker;
    PluginManager plugins;
    std::vector<std::unique_ptr<E1212Simulator>> simulators;
    std::unique_ptr<Host> host;
    std::unique_ptr<MqttGateway> gateway;
    std::vector<std::unique_ptr<MqttClient>> clients;
    MqttInbox inbox;

    bool start(int devices, const MqttGateway::Options &options, QString *error)
    {
        if (!broker.isRunning() && !broker.start(error))
            return false;
        if (!QTest::qWaitFor([this] { return broker.isReady(); }, 10000)) {
            *error = QStringLiteral("the broker does not accept connections");
            return false;
        }
        plugins.scan({QStringLiteral(E1212_PLUGIN_DIR)});
        host = std::make_unique<Host>(&plugins);
        for (int i = 1; i <= devices; ++i) {
            simulators.push_back(std::make_unique<E1212Simulator>());
            if (!simulators.back()->start(QHostAddress::LocalHost, 0, error)
                || !host->addDevice(deviceConfig(QStringLiteral("Moxa E1212 io%1").arg(i), simulators.back()->port()), error))
                return false;
        }
        MqttClient::Options mqtt;
        MqttClient::parseUrl(broker.url(), &mqtt, error);
        gateway = std::make_unique<MqttGateway>(host.get(), host->devices(), mqtt, options);
        return gateway->start(error) && subscriber(QStringLiteral("observer"), QStringLiteral("#"), &inbox, error);
    }

    MqttClient *client(const QString &id, QString *error)
    {
        MqttClient::Options options;
        MqttClient::parseUrl(broker.url(), &options, error);
        options.clientId = id;
        clients.push_back(std::make_unique<MqttClient>(options));
        return clients.back()->start(error) ? clients.back().get() : nullptr;
    }

    bool subscriber(const QString &id, const QString &filter, MqttInbox *to, QString *error)
    {
        MqttClient *mqtt = client(id, error);
        if (!mqtt)
            return false;
        to->collect(mqtt);
        mqtt->subscribe(filter);
        return true;
    }

    // Every channel state of every device has reached the observer.
    bool settled() const
    {
        for (size_t d = 1; d <= simulators.size(); ++d)
            for (const char *kind : {"DI", "DO"})
                for (int c = 0; c < 8; ++c)
                    if (inbox.count(QStringLiteral("e1212/io%1/%2%3").arg(d).arg(QLatin1String(kind)).arg(c)) == 0)
                        return false;
        return true;
    }
};

MqttGateway::Options gatewayOptions(bool allowWrites, const QString &discovery = QString())
{
    MqttGateway::Options options;
    options.id = QStringLiteral("gw1");
    options.allowWrites = allowWrites;
    options.discoveryPrefix = discovery;
    return options;
}

// The texts the gateway logged of `type`.
QStringList gatewayLines(const LogCapture &log, QtMsgType type)
{
    QStringList texts;
    for (const LogCapture::Message &message : log.messages())
        if (message.type == type && message.category == QLatin1String("e1212.gateway"))
            texts << message.text;
    return texts;
}

} // namespace

class TstMqttGateway : public QObject
{
    Q_OBJECT
private slots:
    void topicNamesChecked_data();
    void topicNamesChecked();
    void statesOnChange_data();
    void statesOnChange();
    void retainedForLateSubscriber();
    void discovery_data();
    void discovery();
    void requests_data();
    void requests();
    void retainedRequestIsNotRun();
    void responseTopicEndToEnd();
    void brokerRestart();
    void moduleRestart();
    void serveRefusals_data();
    void serveRefusals();
    void serveUntilStopped_data();
    void serveUntilStopped();
    void installAndPackage();
};

void TstMqttGateway::topicNamesChecked_data()
{
    QTest::addColumn<QStringList>("references");
    QTest::addColumn<QString>("error");
    QTest::newRow("same last word") << QStringList{"Bench A io1", "Bench B io1"}
                                    << "Bench B io1: its last word \"io1\" names another device's topics already";
    QTest::newRow("the gateway's own level") << QStringList{"Moxa gateway"} << "Moxa gateway: its last word \"gateway\" names another device's topics already";
    QTest::newRow("wildcard") << QStringList{"Moxa io+"} << "Moxa io+: \"io+\" cannot be a topic level (empty, or with /, + or #)";
    QTest::newRow("multi-level wildcard") << QStringList{"Moxa a#"} << "Moxa a#: \"a#\" cannot be a topic level (empty, or with /, + or #)";
}

void TstMqttGateway::topicNamesChecked()
{
    QFETCH(QStringList, references);
    QFETCH(QString, error);
    PluginManager plugins;
    plugins.scan({QStringLiteral(E1212_PLUGIN_DIR)});
    Host host(&plugins);
    QString text;
    for (const QString &reference : qAsConst(references))
        QVERIFY2(host.addDevice(deviceConfig(reference, 1), &text), qPrintable(text));
    MqttClient::Options mqtt;
    mqtt.host = QStringLiteral("127.0.0.1");
    MqttGateway gateway(&host, host.devices(), mqtt, gatewayOptions(true));
    QVERIFY(!gateway.start(&text));
    QCOMPARE(text, error);
}

void TstMqttGateway::statesOnChange_data()
{
    QTest::addColumn<bool>("input");
    QTest::addColumn<int>("channel");
    QTest::newRow("input DI3") << true << 3;
    QTest::newRow("output DO5") << false << 5;
}

void TstMqttGateway::statesOnChange()
{
    QFETCH(bool, input);
    QFETCH(int, channel);
    Bench bench;
    QString error;
    QVERIFY2(bench.start(1, gatewayOptions(false), &error), qPrintable(error));
    QTRY_VERIFY2_WITH_TIMEOUT(bench.settled(), qPrintable(bench.broker.log()), 15000);
    const QString topic = QStringLiteral("e1212/io1/%1%2").arg(input ? QStringLiteral("DI") : QStringLiteral("DO")).arg(channel);
    // seq counts the device's reports: 16 so far, one per channel.
    qint64 last = 0;
    for (const QByteArray &payload : bench.inbox.topics())
        last = qMax(last, qint64(json(payload).value(QStringLiteral("seq")).toDouble()));
    QCOMPARE(last, 16);
    QCOMPARE(json(bench.inbox.latest(topic)).value(QStringLiteral("value")), QJsonValue(0));

    if (input)
        bench.simulators[0]->setInput(channel, true);
    else
        bench.simulators[0]->setOutput(channel, true);
    QTRY_COMPARE_WITH_TIMEOUT(bench.inbox.count(topic), 2, 5000);
    const QJsonObject state = json(bench.inbox.latest(topic));
    QCOMPARE(state.value(QStringLiteral("value")), QJsonValue(1));
    QCOMPARE(state.value(QStringLiteral("seq")), QJsonValue(17));
    QVERIFY2(QRegularExpression(c_timePattern).match(state.value(QStringLiteral("time")).toString()).hasMatch(),
             qPrintable(state.value(QStringLiteral("time")).toString()));
    QCOMPARE(state.size(), 3);
    QVERIFY(!bench.inbox.messages.last().retained); // live, to a subscriber already there
}

void TstMqttGateway::retainedForLateSubscriber()
{
    Bench bench;
    QString error;
    QVERIFY2(bench.start(2, gatewayOptions(false), &error), qPrintable(error));
    QTRY_VERIFY_WITH_TIMEOUT(bench.settled() && bench.inbox.count(QStringLiteral("e1212/io2/info")) == 1, 15000);
    bench.simulators[1]->setInput(7, true);
    QTRY_COMPARE_WITH_TIMEOUT(json(bench.inbox.latest(QStringLiteral("e1212/io2/DI7"))).value(QStringLiteral("value")), QJsonValue(1), 5000);

    MqttInbox late, other;
    QVERIFY(bench.subscriber(QStringLiteral("late"), QStringLiteral("e1212/#"), &late, &error));
    QVERIFY(bench.subscriber(QStringLiteral("other"), QStringLiteral("e1212/+/DI7"), &other, &error));
    // Status, and per device availability, info and 16 states.
    QTRY_COMPARE_WITH_TIMEOUT(late.messages.size(), 1 + 2 * 18, 10000);
    QTRY_COMPARE_WITH_TIMEOUT(other.messages.size(), 2, 10000);
    for (const MqttClient::Message &message : qAsConst(late.messages))
        QVERIFY2(message.retained, qPrintable(message.topic));
    QCOMPARE(late.latest(QStringLiteral("e1212/gateway/gw1/status")), QByteArray("online"));
    QCOMPARE(late.latest(QStringLiteral("e1212/io1/availability")), QByteArray("online"));
    QCOMPARE(json(late.latest(QStringLiteral("e1212/io2/info"))),
             (QJsonObject{{QStringLiteral("model"), QStringLiteral("E1212")}, {QStringLiteral("firmware"), QStringLiteral("V3.2.1 Build23041709")},
                          {QStringLiteral("mac"), QStringLiteral("00:90:E8:12:34:56")}}));
    QCOMPARE(late.latest(QStringLiteral("e1212/io2/DI7")), bench.inbox.latest(QStringLiteral("e1212/io2/DI7")));
    QCOMPARE(json(late.latest(QStringLiteral("e1212/io1/DI7"))).value(QStringLiteral("value")), QJsonValue(0));
    // Three subscribers, one Modbus connection per module.
    for (const auto &simulator : bench.simulators)
        QCOMPARE(simulator->connectionCount(), 1);
}

void TstMqttGateway::discovery_data()
{
    QTest::addColumn<bool>("allowWrites");
    QTest::newRow("read-only") << false;
    QTest::newRow("writes allowed") << true;
}

void TstMqttGateway::discovery()
{
    QFETCH(bool, allowWrites);
    Bench bench;
    QString error;
    QVERIFY2(bench.start(1, gatewayOptions(allowWrites, QStringLiteral("ha")), &error), qPrintable(error));
    const QString input = QStringLiteral("ha/binary_sensor/gw1_io1/DI2/config");
    const QString output = QStringLiteral("ha/switch/gw1_io1/DO6/config");
    QTRY_VERIFY_WITH_TIMEOUT(bench.inbox.count(input) == 1 && bench.inbox.count(output) == 1, 15000);
    int configs = 0;
    for (const QString &topic : bench.inbox.topics().keys())
        configs += topic.startsWith(QLatin1String("ha/")) ? 1 : 0;
    QCOMPARE(configs, 16);

    // Home Assistant's configs, member for member (a typo here gives an empty object).
    const QByteArray common = R"("value_template": "{{ value_json.value }}", "availability_mode": "all",
        "availability": [{"topic": "e1212/gateway/gw1/status"}, {"topic": "e1212/io1/availability"}],
        "device": {"identifiers": ["gw1_io1"], "name": "Moxa E1212 io1", "manufacturer": "Moxa", "model": "E1212",
                   "sw_version": "V3.2.1 Build23041709", "connections": [["mac", "00:90:E8:12:34:56"]]}})";
    QCOMPARE(json(bench.inbox.latest(input)), QJsonDocument::fromJson(R"({"name": "Digital input 2", "unique_id": "gw1_io1_DI2",
        "state_topic": "e1212/io1/DI2", "payload_on": "1", "payload_off": "0", )" + common).object());
    const QByteArray writes = allowWrites ? R"("command_topic": "e1212/io1/DO6/set", "payload_on": "1", "payload_off": "0", )" : "";
    QCOMPARE(json(bench.inbox.latest(output)), QJsonDocument::fromJson(R"({"name": "Digital output 6", "unique_id": "gw1_io1_DO6",
        "state_topic": "e1212/io1/DO6", "state_on": "1", "state_off": "0", )" + writes + common).object());
}

void TstMqttGateway::requests_data()
{
    QTest::addColumn<bool>("allowWrites");
    QTest::addColumn<QString>("topic");      // after "e1212/"
    QTest::addColumn<QByteArray>("payload");
    QTest::addColumn<QString>("command");
    QTest::addColumn<QString>("code");       // empty: ok
    QTest::addColumn<QString>("error");      // checked when not empty
    QTest::addColumn<QString>("effect");     // "DO1": that output on; "pulse DO3": its pulse running; empty: nothing written

    const QString usage = QStringLiteral("; the payload must be 0, 1 or {\"value\": 0|1, \"mask\": 0-65535}");
    const QString channels = QStringLiteral("DI0, DI1, DI2, DI3, DI4, DI5, DI6, DI7, DO0, DO1, DO2, DO3, DO4, DO5, DO6, DO7");
    QTest::newRow("set 1") << true << "io1/DO1/set" << QByteArray("1") << "setValue" << "" << "" << "DO1";
    QTest::newRow("set 0") << true << "io1/DO1/set" << QByteArray("0") << "setValue" << "" << "" << "";
    QTest::newRow("set object value 0") << true << "io1/DO1/set" << QByteArray(R"({"value": 0})") << "setValue" << "" << "" << "";
    QTest::newRow("pulse 0 then 1, longest on") << true << "io1/DO2/pulse" << QByteArray(R"({"on": 65535, "off": 1, "values": [0, 1]})") << "setValues" << "" << "" << "pulse DO3";
    QTest::newRow("set object with mask") << true << "io1/DO2/set" << QByteArray(R"({"value": 1, "mask": 65535})") << "setValue" << "" << "" << "DO2";
    QTest::newRow("pulse") << true << "io1/DO3/pulse" << QByteArray(R"({"on": 50, "off": 50, "values": [1]})") << "setValues" << "" << "" << "pulse DO3";
    QTest::newRow("run setValue") << true << "io1/run/setValue" << QByteArray(R"({"channel": "DO4", "value": 1})") << "setValue" << "" << "" << "DO4";
    QTest::newRow("run getValue read-only") << false << "io1/run/getValue" << QByteArray(R"({"channel": "DI0"})") << "getValue" << "" << "" << "";
    QTest::newRow("run getInfo without payload") << false << "io1/run/getInfo" << QByteArray() << "getInfo" << "" << "" << "";

    QTest::newRow("not a number") << true << "io1/DO1/set" << QByteArray("on") << "setValue" << "refused" << "the payload is not a JSON object: on" + usage << "";
    QTest::newRow("value 2") << true << "io1/DO1/set" << QByteArray("2") << "setValue" << "refused" << "the value must be 0 or 1, found 2" << "";
    QTest::newRow("value 0.5") << true << "io1/DO1/set" << QByteArray("0.5") << "setValue" << "refused" << "the value must be 0 or 1, found 0.5" << "";
    QTest::newRow("object value 2") << true << "io1/DO1/set" << QByteArray(R"({"value": 2})") << "setValue" << "refused" << "\"value\" must be 0 or 1, found 2" << "";
    QTest::newRow("object value text") << true << "io1/DO1/set" << QByteArray(R"({"value": "1"})") << "setValue" << "refused" << "\"value\" must be 0 or 1, found \"1\"" << "";
    QTest::newRow("mask 65536") << true << "io1/DO1/set" << QByteArray(R"({"value": 1, "mask": 65536})") << "setValue" << "refused" << "\"mask\" must be a whole number 0-65535, found 65536" << "";
    QTest::newRow("mask -1") << true << "io1/DO1/set" << QByteArray(R"({"value": 1, "mask": -1})") << "setValue" << "refused" << "\"mask\" must be a whole number 0-65535, found -1" << "";
    QTest::newRow("unknown key") << true << "io1/DO1/set" << QByteArray(R"({"value": 1, "force": true})") << "setValue" << "refused" << "unknown key \"force\" (known: value, mask)" << "";
    QTest::newRow("over 64 KiB") << true << "io1/DO1/set" << QByteArray(64 * 1024, ' ') + '1' << "setValue" << "refused" << "a payload of 65537 bytes is over the 64 KiB limit" << "";
    QTest::newRow("unknown device") << true << "io9/DO1/set" << QByteArray("1") << "setValue" << "refused" << "no device \"io9\" (known: io1)" << "";
    QTest::newRow("unknown channel") << true << "io1/DO8/set" << QByteArray("1") << "setValue" << "refused" << "no channel \"DO8\" (known: " + channels + ")" << "";
    QTest::newRow("write to an input") << true << "io1/DI0/set" << QByteArray("1") << "setValue" << "refused" << "DI0 is an input (digitalInput), not an output" << "";
    QTest::newRow("pulse on 0") << true << "io1/DO3/pulse" << QByteArray(R"({"on": 0, "off": 50, "values": [1]})") << "setValues" << "refused" << "\"on\" must be 1-65535 ms, found 0" << "";
    QTest::newRow("blink off 65536") << true << "io1/DO3/blink" << QByteArray(R"({"on": 1, "off": 65536, "values": [1]})") << "setBlink" << "refused" << "\"off\" must be 1-65535 ms, found 65536" << "";
    QTest::newRow("pulse values empty") << true << "io1/DO3/pulse" << QByteArray(R"({"on": 1, "off": 1, "values": []})") << "setValues" << "refused" << "\"values\" must be a list of 0 and 1, found []" << "";
    QTest::newRow("pulse value 2") << true << "io1/DO3/pulse" << QByteArray(R"({"on": 1, "off": 1, "values": [1, 2]})") << "setValues" << "refused" << "\"values\"[1] must be 0 or 1, found 2" << "";
    QTest::newRow("pulse past the outputs") << true << "io1/DO6/pulse" << QByteArray(R"({"on": 1, "off": 1, "values": [1, 1, 1]})") << "setValues" << "refused" << "\"values\"[2] would drive past the table, not an output" << "";
    QTest::newRow("pulse not an object") << true << "io1/DO3/pulse" << QByteArray("[1]") << "setValues" << "refused" << "the payload is not a JSON object: [1]; the payload must be {\"on\": ms, \"off\": ms, \"values\": [0|1, ...]}" << "";
    QTest::newRow("run listenEvents") << true << "io1/run/listenEvents" << QByteArray(R"({"channel": "DI0"})") << "listenEvents" << "refused" << "listenEvents runs only as the gateway's own watch of every channel" << "";
    QTest::newRow("run unknown channel") << true << "io1/run/getValue" << QByteArray(R"({"channel": "DX"})") << "getValue" << "refused" << "\"channel\" \"DX\" names no channel (known: " + channels + ")" << "";
    QTest::newRow("run write to an input") << true << "io1/run/setValue" << QByteArray(R"({"channel": "DI1", "value": 1})") << "setValue" << "refused" << "DI1 is an input (digitalInput), not an output" << "";
    QTest::newRow("run value out of its type") << true << "io1/run/setValue" << QByteArray(R"({"channel": "DO1", "value": 65536})") << "setValue" << "refused" << "" << "";
    QTest::newRow("run unknown command") << true << "io1/run/selfDestruct" << QByteArray("{}") << "selfDestruct" << "refused" << "" << "";
    QTest::newRow("run not JSON") << true << "io1/run/getValue" << QByteArray("channel=DI0") << "getValue" << "refused" << "the payload is not a JSON object: channel=DI0" << "";
    const QString readOnly = QStringLiteral(" may write and the gateway is read-only (start it with --allow-writes)");
    QTest::newRow("read-only set") << false << "io1/DO1/set" << QByteArray("1") << "setValue" << "read_only" << "setValue" + readOnly << "";
    QTest::newRow("read-only blink") << false << "io1/DO1/blink" << QByteArray(R"({"on": 1, "off": 1, "values": [1]})") << "setBlink" << "read_only" << "setBlink" + readOnly << "";
    QTest::newRow("read-only run setValue") << false << "io1/run/setValue" << QByteArray(R"({"channel": "DO4", "value": 1})") << "setValue" << "read_only" << "setValue" + readOnly << "";
}

void TstMqttGateway::requests()
{
    QFETCH(bool, allowWrites);
    QFETCH(QString, topic);
    QFETCH(QByteArray, payload);
    QFETCH(QString, command);
    QFETCH(QString, code);
    QFETCH(QString, error);
    QFETCH(QString, effect);
    Bench bench;
    QString text;
    LogCapture log;
    QVERIFY2(bench.start(1, gatewayOptions(allowWrites), &text), qPrintable(text));
    MqttClient *requester = bench.client(QStringLiteral("requester"), &text);
    QVERIFY(requester);
    QTRY_VERIFY_WITH_TIMEOUT(bench.settled() && requester->isConnected(), 15000);
    E1212Simulator &simulator = *bench.simulators[0];
    QSignalSpy outputs(&simulator, &E1212Simulator::outputChanged);
    QSignalSpy pulses(&simulator, &E1212Simulator::pulseStatusChanged);

    const QString full = QStringLiteral("e1212/") + topic;
    QVERIFY(requester->publish(full, payload));
    const QString resultTopic = QStringLiteral("e1212/%1/result").arg(topic.section(QLatin1Char('/'), 0, 0));
    QTRY_COMPARE_WITH_TIMEOUT(bench.inbox.count(resultTopic), 1, 10000);
    const QJsonObject result = json(bench.inbox.latest(resultTopic));
    QCOMPARE(result.value(QStringLiteral("command")).toString(), command);
    QCOMPARE(result.value(QStringLiteral("ok")).toBool(), code.isEmpty());
    QCOMPARE(result.value(QStringLiteral("topic")).toString(), full);
    QCOMPARE(result.value(QStringLiteral("device")).toString(),
             topic.startsWith(QLatin1String("io1/")) ? QStringLiteral("Moxa E1212 io1") : topic.section(QLatin1Char('/'), 0, 0));
    QCOMPARE(result.value(QStringLiteral("code")).toString(), code);
    QVERIFY(result.contains(QStringLiteral("results")));
    if (code.isEmpty())
        QCOMPARE(result.value(QStringLiteral("error")).toString(), QString());
    else if (error.isEmpty())
        QVERIFY(!result.value(QStringLiteral("error")).toString().isEmpty());
    else
        QCOMPARE(result.value(QStringLiteral("error")).toString(), error);
    if (!code.isEmpty())
        QCOMPARE(gatewayLines(log, QtInfoMsg).filter(full),
                 QStringList{QStringLiteral("%1 refused or failed: %2 %3").arg(full, code, result.value(QStringLiteral("error")).toString())});
    if (command == QLatin1String("getValue") && code.isEmpty())
        QCOMPARE(result.value(QStringLiteral("results")).toObject(), (QJsonObject{{QStringLiteral("value"), 0}}));

    if (effect.startsWith(QLatin1String("pulse "))) {
        QVERIFY(simulator.pulseStatus(effect.rightRef(1).toInt()));
    } else if (!effect.isEmpty()) {
        QVERIFY(simulator.output(effect.rightRef(1).toInt()));
        QCOMPARE(outputs.count(), 1);
    } else {
        QCOMPARE(outputs.count(), 0);
        QCOMPARE(pulses.count(), 0);
    }
    QCOMPARE(simulator.connectionCount(), 1);
    // Stopped, the gateway leaves no execution behind: watches, getInfo and the request.
    bench.gateway->stop();
    QTRY_COMPARE_WITH_TIMEOUT(bench.host->findChildren<Execution *>().size(), 0, 5000);
    QCOMPARE(gatewayLines(log, QtCriticalMsg), QStringList()); // its own watches ending is no news
}

void TstMqttGateway::retainedRequestIsNotRun()
{
    Bench bench;
    QString error;
    QVERIFY2(bench.broker.start(&error), qPrintable(error));
    QTRY_VERIFY_WITH_TIMEOUT(bench.broker.isReady(), 10000);
    // Left retained on the broker before the gateway came: stale, it would run on every connection.
    const ProcessRun pub = ProcessRun::run(QStringLiteral("mosquitto_pub"), {QStringLiteral("-p"), QString::number(bench.broker.port()), QStringLiteral("-r"),
                                                                  QStringLiteral("-t"), QStringLiteral("e1212/io1/DO1/set"), QStringLiteral("-m"), QStringLiteral("1")});
    QCOMPARE(pub.exitCode, 0);
    QVERIFY2(bench.start(1, gatewayOptions(true), &error), qPrintable(error));
    QTRY_VERIFY_WITH_TIMEOUT(bench.inbox.count(QStringLiteral("e1212/io1/result")) == 1 && bench.settled(), 15000);
    const QJsonObject result = json(bench.inbox.latest(QStringLiteral("e1212/io1/result")));
    QCOMPARE(result.value(QStringLiteral("code")), QJsonValue(QStringLiteral("refused")));
    QCOMPARE(result.value(QStringLiteral("error")), QJsonValue(QStringLiteral("a retained request is not run (it would run again on every connection)")));
    QVERIFY(!bench.simulators[0]->output(1));
}

void TstMqttGateway::responseTopicEndToEnd()
{
    Bench bench;
    QString error;
    QVERIFY2(bench.start(1, gatewayOptions(true), &error), qPrintable(error));
    QTRY_VERIFY_WITH_TIMEOUT(bench.settled(), 15000);
    const QString port = QString::number(bench.broker.port());
    // A client that is not ours waits for the answer on its own response topic...
    QProcess sub;
    sub.start(QStringLiteral("mosquitto_sub"), {QStringLiteral("-p"), port, QStringLiteral("-V"), QStringLiteral("5"),
                                                QStringLiteral("-t"), QStringLiteral("replies/bench"), QStringLiteral("-q"), QStringLiteral("1"), QStringLiteral("-C"), QStringLiteral("1"),
                                                QStringLiteral("-W"), QStringLiteral("20"), QStringLiteral("-F"), QStringLiteral("%D|%q|%p")});
    QTRY_VERIFY_WITH_TIMEOUT(bench.broker.log().contains(QLatin1String("replies/bench")), 10000);
    // ...and another sends the request with it.
    const ProcessRun pub = ProcessRun::run(QStringLiteral("mosquitto_pub"),
                               {QStringLiteral("-p"), port, QStringLiteral("-V"), QStringLiteral("5"), QStringLiteral("-t"),
                                QStringLiteral("e1212/io1/DO6/set"), QStringLiteral("-m"), QStringLiteral("1"),
                                QStringLiteral("-D"), QStringLiteral("publish"), QStringLiteral("response-topic"), QStringLiteral("replies/bench"),
                                QStringLiteral("-D"), QStringLiteral("publish"), QStringLiteral("correlation-data"), QStringLiteral("req-42")});
    QCOMPARE(pub.exitCode, 0);
    QSignalSpy finished(&sub, qOverload<int, QProcess::ExitStatus>(&QProcess::finished));
    QVERIFY(sub.state() == QProcess::NotRunning || finished.wait(20000));
    QCOMPARE(sub.exitCode(), 0);
    const QString line = QString::fromUtf8(sub.readAllStandardOutput()).trimmed();
    QCOMPARE(line.section(QLatin1Char('|'), 0, 0), QStringLiteral("req-42"));
    QCOMPARE(line.section(QLatin1Char('|'), 1, 1), QStringLiteral("0")); // published at QoS 0 whatever the subscription asks
    const QJsonObject result = json(line.section(QLatin1Char('|'), 2).toUtf8());
    QCOMPARE(result.value(QStringLiteral("ok")), QJsonValue(true));
    QCOMPARE(result.value(QStringLiteral("command")), QJsonValue(QStringLiteral("setValue")));
    QVERIFY(bench.simulators[0]->output(6));
    // The same result went to the device's result topic.
    QTRY_COMPARE_WITH_TIMEOUT(json(bench.inbox.latest(QStringLiteral("e1212/io1/result"))), result, 5000);
    QTRY_COMPARE_WITH_TIMEOUT(json(bench.inbox.latest(QStringLiteral("e1212/io1/DO6"))).value(QStringLiteral("value")), QJsonValue(1), 5000);
}

void TstMqttGateway::brokerRestart()
{
    Bench bench;
    QString error;
    QVERIFY2(bench.start(1, gatewayOptions(true, QStringLiteral("homeassistant")), &error), qPrintable(error));
    QTRY_VERIFY_WITH_TIMEOUT(bench.settled() && bench.inbox.count(QStringLiteral("homeassistant/switch/gw1_io1/DO7/config")) == 1, 15000);
    const QMap<QString, QByteArray> before = bench.inbox.topics();
    QCOMPARE(before.size(), 1 + 2 + 16 + 16);

    QSignalSpy down(&bench.gateway->mqtt(), &MqttClient::disconnected);
    bench.broker.kill();
    QVERIFY(down.count() == 1 || down.wait(10000));
    // A change while the broker is away: only its latest state is kept.
    bench.simulators[0]->setInput(5, true);
    QTRY_COMPARE_WITH_TIMEOUT(json(bench.gateway->mqtt().retained(QStringLiteral("e1212/io1/DI5"))).value(QStringLiteral("value")), QJsonValue(1), 5000);
    bench.simulators[0]->setInput(5, false);
    QTRY_COMPARE_WITH_TIMEOUT(json(bench.gateway->mqtt().retained(QStringLiteral("e1212/io1/DI5"))).value(QStringLiteral("value")), QJsonValue(0), 5000);
    QCOMPARE(bench.gateway->mqtt().retainedCount(), before.size());

    QVERIFY2(bench.broker.start(&error), qPrintable(error));
    MqttInbox late;
    QVERIFY(bench.subscriber(QStringLiteral("late"), QStringLiteral("#"), &late, &error));
    QTRY_COMPARE_WITH_TIMEOUT(late.topics().size(), before.size(), 10000);
    const QMap<QString, QByteArray> after = late.topics();
    for (auto it = before.cbegin(); it != before.cend(); ++it)
        if (it.key() != QLatin1String("e1212/io1/DI5"))
            QCOMPARE(after.value(it.key()), it.value());
    const QJsonObject di5 = json(after.value(QStringLiteral("e1212/io1/DI5")));
    QCOMPARE(di5.value(QStringLiteral("value")), QJsonValue(0));
    QCOMPARE(di5.value(QStringLiteral("seq")), QJsonValue(18));
}

void TstMqttGateway::moduleRestart()
{
    Bench bench;
    QString error;
    QVERIFY2(bench.start(1, gatewayOptions(true), &error), qPrintable(error));
    MqttClient *requester = bench.client(QStringLiteral("requester"), &error);
    QTRY_VERIFY_WITH_TIMEOUT(bench.settled() && requester->isConnected()
                                 && bench.inbox.latest(QStringLiteral("e1212/io1/availability")) == "online", 15000);
    E1212Simulator &simulator = *bench.simulators[0];
    const quint16 port = simulator.port();
    LogCapture log;
    const QByteArray do0 = bench.inbox.latest(QStringLiteral("e1212/io1/DO0"));

    simulator.stop();
    // Offline within the time-out + 1 s of the first failed poll.
    QTRY_COMPARE_WITH_TIMEOUT(bench.inbox.latest(QStringLiteral("e1212/io1/availability")), QByteArray("offline"), c_timeoutMs + 1000 + 50);
    QCOMPARE(bench.inbox.latest(QStringLiteral("e1212/io1/DO0")), do0); // states stay as last published

    // A command meanwhile is refused at once, never kept for later.
    QVERIFY(requester->publish(QStringLiteral("e1212/io1/DO0/set"), "1"));
    QTRY_COMPARE_WITH_TIMEOUT(bench.inbox.count(QStringLiteral("e1212/io1/result")), 1, 5000);
    const QJsonObject result = json(bench.inbox.latest(QStringLiteral("e1212/io1/result")));
    QCOMPARE(result.value(QStringLiteral("code")), QJsonValue(QStringLiteral("no_connection")));
    QVERIFY(result.value(QStringLiteral("error")).toString().startsWith(QLatin1String("Moxa E1212 io1 does not answer: ")));

    simulator.setInput(4, true);
    QVERIFY(simulator.setMacAddress(QByteArray::fromHex("0200ABCDEF01"))); // another module in its place
    QVERIFY2(simulator.start(QHostAddress::LocalHost, port, &error), qPrintable(error));
    QTRY_COMPARE_WITH_TIMEOUT(bench.inbox.latest(QStringLiteral("e1212/io1/availability")), QByteArray("online"), 5000);
    QTRY_COMPARE_WITH_TIMEOUT(json(bench.inbox.latest(QStringLiteral("e1212/io1/info"))).value(QStringLiteral("mac")),
                              QJsonValue(QStringLiteral("02:00:AB:CD:EF:01")), 5000);
    // Fresh states: the changed input and the unchanged ones again.
    QTRY_COMPARE_WITH_TIMEOUT(json(bench.inbox.latest(QStringLiteral("e1212/io1/DI4"))).value(QStringLiteral("value")), QJsonValue(1), 5000);
    QTRY_VERIFY_WITH_TIMEOUT(bench.inbox.latest(QStringLiteral("e1212/io1/DO0")) != do0, 5000);
    QCOMPARE(json(bench.inbox.latest(QStringLiteral("e1212/io1/DO0"))).value(QStringLiteral("value")), QJsonValue(0));
    QVERIFY(!simulator.output(0));
    const int availability = bench.inbox.count(QStringLiteral("e1212/io1/availability"));
    QCOMPARE(availability, 3); // online, offline, online
    const QStringList warnings = gatewayLines(log, QtWarningMsg);
    QCOMPARE(warnings.size(), 1);
    QVERIFY2(warnings.at(0).startsWith(QLatin1String("Moxa E1212 io1 does not answer: listenEvents: the driver of \"Moxa E1212 io1\" failed ")),
             qPrintable(warnings.at(0)));
    QCOMPARE(gatewayLines(log, QtInfoMsg).filter(QStringLiteral("answers")), QStringList{QStringLiteral("Moxa E1212 io1 answers")});
}

void TstMqttGateway::serveRefusals_data()
{
    QTest::addColumn<QString>("broker");  // "", "password", "tls" or "tls-client" (a client certificate required)
    QTest::addColumn<QStringList>("arguments");
    QTest::addColumn<int>("exitCode");
    QTest::addColumn<QString>("error");   // BROKERPORT stands for the broker's port

    QTest::newRow("no --mqtt") << "" << QStringList() << 2 << "serve needs --mqtt mqtt://HOST[:PORT] or mqtts://HOST[:PORT]";
    QTest::newRow("bad url") << "" << QStringList{"--mqtt", "tcp://h"} << 2 << "--mqtt tcp://h: not mqtt://HOST[:PORT] or mqtts://HOST[:PORT]";
    QTest::newRow("wildcard prefix") << "" << QStringList{"--mqtt", "mqtt://h", "--mqtt-prefix", "a/+"} << 2
                                     << "--mqtt-prefix \"a/+\": must be a non-empty topic prefix, no empty level, without + or #";
    QTest::newRow("client id with a level") << "" << QStringList{"--mqtt", "mqtt://h", "--mqtt-client-id", "a/b"} << 2
                                            << "--mqtt-client-id \"a/b\": must be a non-empty topic level without + or #";
    QTest::newRow("missing password file") << "" << QStringList{"--mqtt", "mqtt://h", "--mqtt-user", "u", "--mqtt-password-file", "/nonexistent/pw"} << 2
                                           << "--mqtt-password-file /nonexistent/pw: No such file or directory";
    QTest::newRow("discovery prefix with a wildcard") << "" << QStringList{"--mqtt", "mqtt://h", "--ha-discovery", "ha/+"} << 2
                                                      << "--ha-discovery \"ha/+\": must be a non-empty topic prefix, no empty level, without + or #";
    QTest::newRow("keep-alive 4 s") << "" << QStringList{"--mqtt", "mqtt://h", "--mqtt-keepalive", "4"} << 2
                                    << "--mqtt-keepalive \"4\" is not a whole number from 5 to 65535 (decimal or 0x hexadecimal)";
    QTest::newRow("keep-alive 65536 s") << "" << QStringList{"--mqtt", "mqtt://h", "--mqtt-keepalive", "65536"} << 2
                                        << "--mqtt-keepalive \"65536\" is not a whole number from 5 to 65535 (decimal or 0x hexadecimal)";
    QTest::newRow("password without user") << "" << QStringList{"--mqtt", "mqtt://h", "--mqtt-password-file", "PWFILE"} << 2
                                           << "a password needs --mqtt-user";
    QTest::newRow("key without certificate") << "" << QStringList{"--mqtt", "mqtts://h", "--mqtt-key", "PWFILE"} << 2
                                             << "--mqtt-cert and --mqtt-key go together";
    QTest::newRow("stray argument") << "" << QStringList{"--mqtt", "mqtt://h", "extra"} << 2 << "serve takes no argument besides its options, got \"extra\"";
    QTest::newRow("wrong password") << "password" << QStringList{"--mqtt-user", "gw", "--mqtt-password-file", "PWFILE"} << 1
                                    << "MQTT broker 127.0.0.1:BROKERPORT: refused the connection: Not authorized";
    QTest::newRow("client certificate required, CA given") << "tls-client" << QStringList{"--mqtt-ca", "CAFILE"} << 1
                                                           << "MQTT broker 127.0.0.1:BROKERPORT: TLS failed: OpenSSL Error[0]: error:0A00045C:SSL routines::tlsv13 alert certificate required";
    QTest::newRow("untrusted certificate") << "tls" << QStringList{"--mqtt-ca", "OTHERCA"} << 1
                                           << "MQTT broker 127.0.0.1:BROKERPORT: TLS failed: OpenSSL Error[0]: error:0A000086:SSL routines::certificate verify failed";
}

void TstMqttGateway::serveRefusals()
{
    QFETCH(QString, broker);
    QFETCH(QStringList, arguments);
    QFETCH(int, exitCode);
    QFETCH(QString, error);
    MosquittoBroker::Options options;
    options.tls = broker.startsWith(QLatin1String("tls"));
    options.requireClientCertificate = broker == QLatin1String("tls-client");
    if (broker == QLatin1String("password"))
        options.user = QStringLiteral("gw"), options.password = QStringLiteral("secret");
    MosquittoBroker mosquitto(options);
    QTemporaryDir dir;
    QString text;
    QFile password(dir.filePath(QStringLiteral("pw")));
    QVERIFY(password.open(QIODevice::WriteOnly));
    password.write("not-the-secret\n");
    password.close();
    arguments.replaceInStrings(QStringLiteral("PWFILE"), password.fileName());
    if (!broker.isEmpty()) {
        QVERIFY2(mosquitto.start(&text), qPrintable(text));
        QTRY_VERIFY_WITH_TIMEOUT(mosquitto.isReady(), 10000);
        arguments.replaceInStrings(QStringLiteral("OTHERCA"), mosquitto.otherCaFile());
        arguments.replaceInStrings(QStringLiteral("CAFILE"), mosquitto.caFile());
        arguments << QStringLiteral("--mqtt") << mosquitto.url();
    }
    const ProcessRun run = ProcessRun::run(QStringLiteral(E1212_BUILD_DIR "/bin/e1212ctl"), QStringList{QStringLiteral("serve")} + arguments);
    QCOMPARE(run.exitCode, exitCode);
    QCOMPARE(run.err, QStringLiteral("e1212ctl: %1\n").arg(QString(error).replace(QStringLiteral("BROKERPORT"), QString::number(mosquitto.port()))));
}

void TstMqttGateway::serveUntilStopped_data()
{
    QTest::addColumn<bool>("kill");
    QTest::addColumn<QStringList>("arguments");
    QTest::addColumn<int>("keepAlive");
    QTest::newRow("SIGTERM: status offline as it leaves") << false << QStringList() << 30;
    QTest::newRow("SIGKILL: the will says offline") << true << QStringList{"--mqtt-keepalive", "5"} << 5;
}

void TstMqttGateway::serveUntilStopped()
{
    QFETCH(bool, kill);
    QFETCH(QStringList, arguments);
    QFETCH(int, keepAlive);
    MosquittoBroker broker;
    QString error;
    QVERIFY2(broker.start(&error), qPrintable(error));
    QTRY_VERIFY_WITH_TIMEOUT(broker.isReady(), 10000);
    QProcess serve;
    serve.start(QStringLiteral(E1212_BUILD_DIR "/bin/e1212ctl"),
                QStringList{QStringLiteral("serve"), QStringLiteral("--mqtt"), broker.url(), QStringLiteral("--mqtt-client-id"), QStringLiteral("bench-gw")} + arguments);
    const QStringList sub{QStringLiteral("-p"), QString::number(broker.port()), QStringLiteral("-C"), QStringLiteral("1"),
                          QStringLiteral("-W"), QStringLiteral("20"), QStringLiteral("-t")};
    // A client that is not ours sees the module's retained state, then the gateway leave.
    const ProcessRun state = ProcessRun::run(QStringLiteral("mosquitto_sub"), sub + QStringList{QStringLiteral("e1212/io1/DI0")});
    QCOMPARE(state.exitCode, 0);
    QCOMPARE(json(state.out.toUtf8()).value(QStringLiteral("value")), QJsonValue(0));
    QCOMPARE(ProcessRun::run(QStringLiteral("mosquitto_sub"), sub + QStringList{QStringLiteral("e1212/gateway/bench-gw/status")}).out,
             QStringLiteral("online\n"));
    // MQTT 5, a clean start, the keep-alive asked; requests subscribed at QoS 1.
    QVERIFY2(broker.log().contains(QStringLiteral(" as bench-gw (p5, c1, k%1)").arg(keepAlive)), qPrintable(broker.log()));
    QVERIFY2(broker.log().contains(QLatin1String(" bench-gw 1 e1212/+/+/+\n")), qPrintable(broker.log()));
    QSignalSpy finished(&serve, qOverload<int, QProcess::ExitStatus>(&QProcess::finished));
    if (kill)
        serve.kill();
    else
        serve.terminate();
    QVERIFY(finished.wait(10000));
    QCOMPARE(serve.exitStatus(), kill ? QProcess::CrashExit : QProcess::NormalExit);
    // A clean leave says goodbye (the will is dropped); a killed one just vanishes.
    const QString leave = kill ? QStringLiteral("Client bench-gw closed its connection.") : QStringLiteral("Client bench-gw disconnected.");
    QTRY_VERIFY2_WITH_TIMEOUT(broker.log().contains(leave), qPrintable(broker.log()), 5000);
    if (!kill)
        QCOMPARE(serve.exitCode(), 0);
    QCOMPARE(QString::fromUtf8(serve.readAllStandardOutput()),
             QStringLiteral("serving 1 device(s) on %1 as bench-gw under e1212/ (read-only); Ctrl-C stops\n").arg(broker.url()));
    QCOMPARE(ProcessRun::run(QStringLiteral("mosquitto_sub"), sub + QStringList{QStringLiteral("e1212/gateway/bench-gw/status")}).out,
             QStringLiteral("offline\n"));
}

void TstMqttGateway::installAndPackage()
{
    QTemporaryDir dir;
    const QString prefix = dir.filePath(QStringLiteral("prefix"));
    QCOMPARE(ProcessRun::run(QStringLiteral(E1212_CMAKE), {QStringLiteral("--install"), QStringLiteral(E1212_BUILD_DIR),
                                                          QStringLiteral("--prefix"), prefix}, 120000).exitCode, 0);
    const auto execStart = [](const QString &unit) {
        QFile file(unit);
        file.open(QIODevice::ReadOnly);
        for (const QByteArray &line : file.readAll().split('\n'))
            if (line.startsWith("ExecStart="))
                return QString::fromUtf8(line);
        return QString();
    };
    const QString tail = QStringLiteral(" serve --config /etc/e1212/%i.json --mqtt ${E1212_MQTT_URL} --mqtt-client-id e1212-%H-%i $E1212_GATEWAY_ARGS");
    QCOMPARE(execStart(prefix + QStringLiteral("/lib/systemd/system/e1212-gateway@.service")),
             QStringLiteral("ExecStart=") + prefix + QStringLiteral("/bin/e1212ctl") + tail);

    const QString packages = dir.filePath(QStringLiteral("packages"));
    QCOMPARE(ProcessRun::run(QStringLiteral(E1212_CPACK), {QStringLiteral("-G"), QStringLiteral("DEB"), QStringLiteral("-B"), packages,
                                                          QStringLiteral("--config"), QStringLiteral(E1212_BUILD_DIR "/CPackConfig.cmake")}, 120000).exitCode, 0);
    const QStringList debs = QDir(packages).entryList({QStringLiteral("*.deb")});
    QCOMPARE(debs.size(), 1);
    const QString root = dir.filePath(QStringLiteral("root"));
    QCOMPARE(ProcessRun::run(QStringLiteral("dpkg-deb"), {QStringLiteral("-x"), packages + QLatin1Char('/') + debs.first(), root}).exitCode, 0);
    for (const char *file : {"/usr/bin/e1212ctl", "/usr/lib/e1212/plugins/libp_device_moxa_iologic.so",
                             "/usr/lib/e1212/plugins/libmodbus_tcp_driver.so", "/usr/lib/libe1212gateway.so"})
        QVERIFY2(QFileInfo::exists(root + QLatin1String(file)), file);
    QCOMPARE(execStart(root + QStringLiteral("/usr/lib/systemd/system/e1212-gateway@.service")),
             QStringLiteral("ExecStart=/usr/bin/e1212ctl") + tail);
    const ProcessRun info = ProcessRun::run(QStringLiteral("dpkg-deb"), {QStringLiteral("-f"), packages + QLatin1Char('/') + debs.first(), QStringLiteral("Depends")});
    QVERIFY2(info.out.contains(QLatin1String("libmosquitto1")), qPrintable(info.out));
}

QTEST_GUILESS_MAIN(TstMqttGateway)
#include "tst_mqttgateway.moc"
