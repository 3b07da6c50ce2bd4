// SPDX-License-Identifier: MIT
// The MQTT client against a real mosquitto on a free loopback port: URLs, retained state
// republished after a broker restart (latest value only), correlation data, and the
// failures that end it at start-up (credentials, untrusted certificate).
#include "logcapture.h"
#include "mosquittobroker.h"
#include "mqttclient.h"
#include "mqttinbox.h"

#include <QtTest>

#include <memory>

namespace {

std::unique_ptr<MqttClient> client(const MosquittoBroker &broker, const QString &id, MqttClient::Options options = {})
{
    QString error;
    MqttClient::parseUrl(broker.url(), &options, &error);
    options.clientId = id;
    return std::make_unique<MqttClient>(options);
}

// The texts of the messages of `type` captured so far; every message must be the client's own.
QStringList lines(const LogCapture &log, QtMsgType type)
{
    QStringList texts;
    for (const LogCapture::Message &message : log.messages())
        if (message.type == type || message.category != QLatin1String("e1212.mqtt"))
            texts << (message.category == QLatin1String("e1212.mqtt") ? message.text : message.category + QLatin1String(": ") + message.text);
    return texts;
}

} // namespace

class TstMqttClient : public QObject
{
    Q_OBJECT
private slots:
    void parseUrl_data();
    void parseUrl();
    void startRefusals_data();
    void startRefusals();
    void correlationDataTravels();
    void startupFailures_data();
    void startupFailures();
};

void TstMqttClient::parseUrl_data()
{
    QTest::addColumn<QString>("url");
    QTest::addColumn<QString>("expected"); // host:port:tls, or the error

    QTest::newRow("plain default port") << "mqtt://broker.local" << "broker.local:1883:0";
    QTest::newRow("tls default port") << "mqtts://10.0.0.5" << "10.0.0.5:8883:1";
    QTest::newRow("given port") << "mqtt://127.0.0.1:1884" << "127.0.0.1:1884:0";
    QTest::newRow("trailing slash") << "mqtts://h:1/" << "h:1:1";
    QTest::newRow("other scheme") << "http://h" << "--mqtt http://h: not mqtt://HOST[:PORT] or mqtts://HOST[:PORT]";
    QTest::newRow("no scheme") << "h:1883" << "--mqtt h:1883: not mqtt://HOST[:PORT] or mqtts://HOST[:PORT]";
    QTest::newRow("no host") << "mqtt://:1883" << "--mqtt mqtt://:1883: not mqtt://HOST[:PORT] or mqtts://HOST[:PORT]";
    QTest::newRow("path") << "mqtt://h/x" << "--mqtt mqtt://h/x: not mqtt://HOST[:PORT] or mqtts://HOST[:PORT]";
    QTest::newRow("user in url") << "mqtt://u:p@h" << "--mqtt mqtt://u:p@h: not mqtt://HOST[:PORT] or mqtts://HOST[:PORT]";
    QTest::newRow("query") << "mqtt://h?x=1" << "--mqtt mqtt://h?x=1: not mqtt://HOST[:PORT] or mqtts://HOST[:PORT]";
    QTest::newRow("port 0") << "mqtt://h:0" << "--mqtt mqtt://h:0: the port must be 1-65535";
    QTest::newRow("port too big") << "mqtt://h:65536" << "--mqtt mqtt://h:65536: not mqtt://HOST[:PORT] or mqtts://HOST[:PORT]";
}

void TstMqttClient::parseUrl()
{
    QFETCH(QString, url);
    QFETCH(QString, expected);
    MqttClient::Options options;
    QString error;
    const bool ok = MqttClient::parseUrl(url, &options, &error);
    QCOMPARE(ok ? QStringLiteral("%1:%2:%3").arg(options.host).arg(options.port).arg(int(options.tls)) : error, expected);
}

void TstMqttClient::startRefusals_data()
{
    QTest::addColumn<QString>("clientId");
    QTest::addColumn<QString>("ca");
    QTest::addColumn<QString>("cert");
    QTest::addColumn<QString>("key");
    QTest::addColumn<QString>("expected");

    const QString readable = QStringLiteral(E1212_SOURCE_DIR "/config/e1212.json");
    QTest::newRow("no client id") << "" << "" << "" << "" << "MQTT broker h:8883: no client id";
    QTest::newRow("missing CA") << "c" << "/nonexistent/ca.crt" << "" << "" << "--mqtt-ca /nonexistent/ca.crt: no such readable file";
    QTest::newRow("missing certificate") << "c" << "" << "/nonexistent/c.crt" << readable << "--mqtt-cert /nonexistent/c.crt: no such readable file";
    QTest::newRow("missing key") << "c" << "" << readable << "/nonexistent/k" << "--mqtt-key /nonexistent/k: no such readable file";
    QTest::newRow("certificate without key") << "c" << "" << readable << "" << "--mqtt-cert and --mqtt-key go together";
    QTest::newRow("key without certificate") << "c" << "" << "" << readable << "--mqtt-cert and --mqtt-key go together";
}

void TstMqttClient::startRefusals()
{
    QFETCH(QString, clientId);
    QFETCH(QString, ca);
    QFETCH(QString, cert);
    QFETCH(QString, key);
    QFETCH(QString, expected);
    MqttClient::Options options;
    QString error;
    QVERIFY(MqttClient::parseUrl(QStringLiteral("mqtts://h"), &options, &error));
    options.clientId = clientId;
    options.caFile = ca;
    options.certFile = cert;
    options.keyFile = key;
    MqttClient mqtt(options);
    QVERIFY(!mqtt.start(&error));
    QCOMPARE(error, expected);
}

void TstMqttClient::correlationDataTravels()
{
    MosquittoBroker broker;
    QString error;
    QVERIFY2(broker.start(&error), qPrintable(error));
    QTRY_VERIFY2_WITH_TIMEOUT(broker.isReady(), qPrintable(broker.log()), 10000);
    auto a = client(broker, QStringLiteral("a"));
    auto b = client(broker, QStringLiteral("b"));
    MqttInbox inboxA, inboxB;
    inboxA.collect(a.get());
    inboxB.collect(b.get());
    a->subscribe(QStringLiteral("q/#"));
    QSignalSpy aUp(a.get(), &MqttClient::connected), bUp(b.get(), &MqttClient::connected);
    QVERIFY(a->start(&error) && b->start(&error));
    QVERIFY(aUp.count() == 1 || aUp.wait(10000));
    QVERIFY(bUp.count() == 1 || bUp.wait(10000));
    // Subscribed while connected already.
    b->subscribe(QStringLiteral("q/#"));
    // Retained, so that b gets it whether its subscription is in place yet or not.
    a->setRetained(QStringLiteral("q/sync"), "s");
    QTRY_COMPARE_WITH_TIMEOUT(inboxB.count(QStringLiteral("q/sync")), 1, 10000);
    a->setRetained(QStringLiteral("q/sync"), "s"); // unchanged: not sent again
    QVERIFY(a->publish(QStringLiteral("q/x"), "payload", QByteArray("\x00\x01id", 4)));
    QTRY_COMPARE_WITH_TIMEOUT(inboxB.count(QStringLiteral("q/x")), 1, 10000);
    QCOMPARE(inboxB.messages.last().correlationData, QByteArray("\x00\x01id", 4));
    QCOMPARE(inboxB.count(QStringLiteral("q/sync")), 1);
    QCOMPARE(inboxB.messages.last().payload, QByteArray("payload"));
    QVERIFY(!inboxB.messages.last().retained);
    // Not our own messages back.
    QCOMPARE(inboxA.messages.size(), 0);
    // A filter or a topic libmosquitto refuses: one warning, and the connection goes on.
    LogCapture log;
    b->subscribe(QStringLiteral("q/#/x"));
    QVERIFY(a->publish(QStringLiteral("q/+"), "wildcard"));
    QCOMPARE(lines(log, QtWarningMsg), (QStringList{QStringLiteral("subscribing to q/#/x failed: Invalid function arguments provided."),
                                                     QStringLiteral("publish to q/+ failed: Invalid function arguments provided.")}));
    QVERIFY(a->isConnected() && b->isConnected());
}

void TstMqttClient::startupFailures_data()
{
    QTest::addColumn<bool>("tls");
    QTest::addColumn<QString>("password");
    QTest::addColumn<QString>("ca"); // "ca" the broker's, "other" one that signed nothing of it, "junk" not a certificate
    QTest::addColumn<int>("clientCertificate"); // 0 none asked, 1 asked and not given, 2 asked and given
    QTest::addColumn<QByteArray>("brokerConfig");
    QTest::addColumn<QString>("expected"); // empty: connects; "... - again in 100 ms": retried

    QTest::newRow("right password") << false << "secret" << "ca" << 0 << QByteArray() << "";
    QTest::newRow("wrong password") << false << "wrong" << "ca" << 0 << QByteArray() << "refused the connection: Not authorized";
    QTest::newRow("untrusted certificate") << true << "" << "other" << 0 << QByteArray() << "TLS failed: OpenSSL Error[0]: error:0A000086:SSL routines::certificate verify failed";
    QTest::newRow("CA file not a certificate") << true << "" << "junk" << 0 << QByteArray() << "TLS failed: Error: Unable to load CA certificates, check cafile \"" E1212_SOURCE_DIR "/config/e1212.json\".";
    QTest::newRow("client certificate given") << true << "" << "ca" << 2 << QByteArray() << "";
    QTest::newRow("client certificate missing") << true << "" << "ca" << 1 << QByteArray() << "TLS failed: OpenSSL Error[0]: error:0A00045C:SSL routines::tlsv13 alert certificate required";
    QTest::newRow("refusal another attempt may cure") << false << "secret" << "ca" << 0 << QByteArray("retain_available false\n")
                                                      << "refused the connection: Retain not supported - again in 100 ms";
}

void TstMqttClient::startupFailures()
{
    QFETCH(bool, tls);
    QFETCH(QString, password);
    QFETCH(QString, ca);
    QFETCH(int, clientCertificate);
    QFETCH(QByteArray, brokerConfig);
    QFETCH(QString, expected);
    MosquittoBroker::Options brokerOptions;
    brokerOptions.tls = tls;
    brokerOptions.requireClientCertificate = clientCertificate > 0;
    brokerOptions.extraConfig = brokerConfig;
    if (!tls)
        brokerOptions.user = QStringLiteral("gw"), brokerOptions.password = QStringLiteral("secret");
    MosquittoBroker broker(brokerOptions);
    QString error;
    QVERIFY2(broker.start(&error), qPrintable(error));
    QTRY_VERIFY2_WITH_TIMEOUT(broker.isReady(), qPrintable(broker.log()), 10000);

    MqttClient::Options options;
    if (!password.isEmpty())
        options.username = QStringLiteral("gw"), options.password = password;
    if (tls)
        options.caFile = ca == QLatin1String("ca") ? broker.caFile()
                       : ca == QLatin1String("other") ? broker.otherCaFile() : QStringLiteral(E1212_SOURCE_DIR "/config/e1212.json");
    if (clientCertificate == 2)
        options.certFile = broker.clientCertFile(), options.keyFile = broker.clientKeyFile();
    // The gateway's will: retained.
    options.willTopic = QStringLiteral("w/status"), options.willPayload = "offline";
    auto mqtt = client(broker, QStringLiteral("c"), options);
    QSignalSpy connected(mqtt.get(), &MqttClient::connected);
    QSignalSpy fatal(mqtt.get(), &MqttClient::fatalError);
    LogCapture log;
    QVERIFY(mqtt->start(&error));
    const QString where = QStringLiteral("MQTT broker 127.0.0.1:%1: ").arg(broker.port());
    // A refused client certificate may first look like a lost connection (TLS 1.3 sends the
    // alert after the handshake): a fatal error is waited for through the retries.
    const bool retries = expected.endsWith(QLatin1String(" ms"));
    QTRY_VERIFY_WITH_TIMEOUT(connected.count() + fatal.count() + (retries ? lines(log, QtWarningMsg).size() : 0) > 0, 10000);
    if (expected.isEmpty()) {
        QCOMPARE(connected.count(), 1);
        QCOMPARE(lines(log, QtInfoMsg), QStringList{QStringLiteral("connected to 127.0.0.1 %1").arg(broker.port())});
        return;
    }
    QCOMPARE(connected.count(), 0);
    if (retries) {
        QCOMPARE(fatal.count(), 0);
        QCOMPARE(lines(log, QtWarningMsg).value(0), where + expected);
        return;
    }
    QCOMPARE(fatal.count(), 1);
    QCOMPARE(fatal.at(0).at(0).toString(), where + expected);
    QCOMPARE(lines(log, QtCriticalMsg), QStringList{where + expected});
}

QTEST_MAIN(TstMqttClient)
#include "tst_mqttclient.moc"
