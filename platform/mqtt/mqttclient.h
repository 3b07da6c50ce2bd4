// SPDX-License-Identifier: MIT
// An MQTT 5 client over libmosquitto, driven from the Qt event loop through its socket.
#pragma once

#include <QByteArray>
#include <QHash>
#include <QMetaType>
#include <QObject>
#include <QString>
#include <QStringList>
#include <QTimer>

class QSocketNotifier;
struct mosquitto;
struct mqtt5__property;

class MqttClient : public QObject
{
    Q_OBJECT
public:
    struct Options
    {
        QString host;
        quint16 port = 1883;
        bool tls = false;
        // TLS: the CA to trust (empty: the system's), and a client certificate and key.
        QString caFile;
        QString certFile;
        QString keyFile;
        QString clientId;
        QString username;
        QString password;
        int keepAliveSeconds = 30;
        // Published retained by the broker when the connection is lost without a goodbye.
        QString willTopic;
        QByteArray willPayload;
    };

    struct Message
    {
        QString topic;
        QByteArray payload;
        bool retained = false;
        // MQTT 5 request/response: where the requester wants the answer, and what to echo.
        QString responseTopic;
        QByteArray correlationData;
    };

    // "mqtt://HOST[:PORT]" (1883) or "mqtts://HOST[:PORT]" (8883) into host, port and tls.
    // False with *error naming the URL and what is wrong.
    static bool parseUrl(const QString &url, Options *options, QString *error);

    explicit MqttClient(const Options &options, QObject *parent = nullptr);
    // Leaves without the will (stop()).
    ~MqttClient() override;

    // Checks the options (TLS files readable, client id given) and starts connecting; every
    // later outcome is a signal. A lost or refused connection is retried with back-off
    // (100 ms doubling, at most 2 s), except the failures fatalError() names.
    bool start(QString *error);
    // Sends what is queued and a DISCONNECT (the broker drops the will); no reconnection after.
    void stop();
    bool isConnected() const { return m_connected; }

    // Keeps `payload` as the one retained value of `topic`: published now when connected, and
    // again on every later connection. Only the latest value of each topic is kept.
    void setRetained(const QString &topic, const QByteArray &payload);
    QByteArray retained(const QString &topic) const { return m_retained.value(topic); }
    int retainedCount() const { return m_retained.size(); }
    // Publishes once, not retained, now; false (and nothing kept) while not connected.
    // `correlationData` goes along as the MQTT 5 property when not empty.
    bool publish(const QString &topic, const QByteArray &payload, const QByteArray &correlationData = QByteArray());
    // Subscribes to `filter` (QoS 1, not our own messages) now and on every later connection.
    void subscribe(const QString &filter);

signals:
    void connected();
    void disconnected(const QString &reason);
    void messageReceived(const MqttClient::Message &message);
    // Before the first connection: the broker refused the credentials or the client, or TLS
    // failed (untrusted certificate, bad key). One line; the client does not retry.
    void fatalError(const QString &error);

private:
    static void onConnect(mosquitto *, void *self, int rc, int flags, const mqtt5__property *properties);
    static void onLog(mosquitto *, void *self, int level, const char *text);
    static void onMessage(mosquitto *, void *self, const struct mosquitto_message *message,
                          const mqtt5__property *properties);

    void connectNow();
    // Runs one libmosquitto step (read, write or misc) and handles its outcome.
    void step(int rc, const char *what);
    void lost(const QString &reason, bool fatal);
    void watchSocket();
    void dropNotifiers();
    void updateWriteInterest();
    void subscribeNow(const QString &filter);
    void send(const QString &topic, const QByteArray &payload, bool retain, const QByteArray &correlationData);

    Options m_options;
    mosquitto *m_mosq = nullptr;
    QSocketNotifier *m_read = nullptr;
    QSocketNotifier *m_write = nullptr;
    // Keep-alive and pings (mosquitto_loop_misc), and the next connection attempt.
    QTimer m_misc;
    QTimer m_retry;
    int m_backoffMs = 0;
    bool m_running = false;
    bool m_connected = false;
    bool m_everConnected = false;
    // The CONNACK's reason code when the broker refused us.
    int m_refusal = 0;
    // libmosquitto's first error line of this attempt (OpenSSL's reason for a TLS failure).
    QString m_libraryError;
    QHash<QString, QByteArray> m_retained;
    QStringList m_retainedOrder;
    QStringList m_filters;
};

Q_DECLARE_METATYPE(MqttClient::Message)
