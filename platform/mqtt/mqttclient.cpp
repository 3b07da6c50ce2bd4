// SPDX-License-Identifier: MIT
#include "mqttclient.h"

#include <QFile>
#include <QFileInfo>
#include <QLoggingCategory>
#include <QSocketNotifier>
#include <QUrl>

#include <mosquitto.h>
#include <mqtt_protocol.h>

#include <cerrno>
#include <cstring>

Q_LOGGING_CATEGORY(lcMqtt, "e1212.mqtt")

namespace {

// Subscriptions take QoS 1. We publish at QoS 0: libmosquitto would resend an unacknowledged
// QoS 1 message after a reconnection, behind the fresher value republished from the cache.
constexpr int c_qos = 1;
constexpr int c_publishQos = 0;
constexpr int c_firstBackoffMs = 100;
constexpr int c_maxBackoffMs = 2000;
constexpr int c_miscIntervalMs = 1000;
// libmosquitto 2 ignores its max_packets argument.
constexpr int c_maxPackets = 1;

// libmosquitto is initialised once per process, before the first client.
void initLibrary()
{
    static const int once = mosquitto_lib_init();
    Q_UNUSED(once)
}

QString errorText(int rc)
{
    if (rc == MOSQ_ERR_ERRNO)
        return QString::fromLocal8Bit(strerror(errno));
    if (rc == MOSQ_ERR_KEEPALIVE) // libmosquitto has no words of its own for it
        return QStringLiteral("nothing heard from the broker within the keep-alive time");
    return QString::fromUtf8(mosquitto_strerror(rc));
}

// CONNACK reason codes that another attempt cannot cure: the broker does not want us.
bool refusalIsFinal(int reason)
{
    switch (reason) {
    case CONNACK_REFUSED_IDENTIFIER_REJECTED:
    case CONNACK_REFUSED_BAD_USERNAME_PASSWORD:
    case CONNACK_REFUSED_NOT_AUTHORIZED:
    case MQTT_RC_CLIENTID_NOT_VALID:
    case MQTT_RC_BAD_USERNAME_OR_PASSWORD:
    case MQTT_RC_NOT_AUTHORIZED:
    case MQTT_RC_BANNED:
    case MQTT_RC_BAD_AUTHENTICATION_METHOD:
        return true;
    default:
        return false;
    }
}

} // namespace

bool MqttClient::parseUrl(const QString &url, Options *options, QString *error)
{
    const QUrl parsed(url, QUrl::StrictMode);
    const QString scheme = parsed.scheme();
    const bool known = scheme == QLatin1String("mqtt") || scheme == QLatin1String("mqtts");
    if (!parsed.isValid() || !known || parsed.host().isEmpty() || !parsed.userInfo().isEmpty()
        || (!parsed.path().isEmpty() && parsed.path() != QLatin1String("/")) || parsed.hasQuery() || parsed.hasFragment()) {
        *error = QStringLiteral("--mqtt %1: not mqtt://HOST[:PORT] or mqtts://HOST[:PORT]").arg(url);
        return false;
    }
    const bool tls = scheme == QLatin1String("mqtts");
    const int port = parsed.port(tls ? 8883 : 1883);
    if (port < 1) { // QUrl refuses a port over 65535
        *error = QStringLiteral("--mqtt %1: the port must be 1-65535").arg(url);
        return false;
    }
    options->host = parsed.host();
    options->port = quint16(port);
    options->tls = tls;
    return true;
}

MqttClient::MqttClient(const Options &options, QObject *parent)
    : QObject(parent)
    , m_options(options)
{
    qRegisterMetaType<MqttClient::Message>();
    m_misc.setInterval(c_miscIntervalMs);
    // Runs only while a connection attempt or a connection is up.
    connect(&m_misc, &QTimer::timeout, this, [this] { step(mosquitto_loop_misc(m_mosq), "keep-alive"); });
    m_retry.setSingleShot(true);
    connect(&m_retry, &QTimer::timeout, this, &MqttClient::connectNow);
}

MqttClient::~MqttClient()
{
    stop();
    if (m_mosq)
        mosquitto_destroy(m_mosq);
}

bool MqttClient::start(QString *error)
{
    initLibrary();
    const QString where = QStringLiteral("MQTT broker %1:%2").arg(m_options.host).arg(m_options.port);
    if (m_options.clientId.isEmpty()) {
        *error = where + QStringLiteral(": no client id");
        return false;
    }
    for (const auto &file : {qMakePair(QStringLiteral("--mqtt-ca"), m_options.caFile),
                             qMakePair(QStringLiteral("--mqtt-cert"), m_options.certFile),
                             qMakePair(QStringLiteral("--mqtt-key"), m_options.keyFile)}) {
        if (!file.second.isEmpty() && !QFileInfo(file.second).isReadable()) {
            *error = QStringLiteral("%1 %2: no such readable file").arg(file.first, file.second);
            return false;
        }
    }
    if (m_options.certFile.isEmpty() != m_options.keyFile.isEmpty()) {
        *error = QStringLiteral("--mqtt-cert and --mqtt-key go together");
        return false;
    }
    m_mosq = mosquitto_new(m_options.clientId.toUtf8().constData(), true, this);
    if (!m_mosq) {
        *error = where + QStringLiteral(": cannot create the client: ") + errorText(MOSQ_ERR_ERRNO);
        return false;
    }
    mosquitto_int_option(m_mosq, MOSQ_OPT_PROTOCOL_VERSION, MQTT_PROTOCOL_V5);
    mosquitto_connect_v5_callback_set(m_mosq, &MqttClient::onConnect);
    mosquitto_message_v5_callback_set(m_mosq, &MqttClient::onMessage);
    mosquitto_log_callback_set(m_mosq, &MqttClient::onLog);
    int rc = MOSQ_ERR_SUCCESS;
    if (!m_options.username.isEmpty())
        rc = mosquitto_username_pw_set(m_mosq, m_options.username.toUtf8().constData(),
                                       m_options.password.isEmpty() ? nullptr : m_options.password.toUtf8().constData());
    if (rc == MOSQ_ERR_SUCCESS && !m_options.willTopic.isEmpty())
        rc = mosquitto_will_set_v5(m_mosq, m_options.willTopic.toUtf8().constData(), m_options.willPayload.size(),
                                   m_options.willPayload.constData(), c_qos, true, nullptr);
    if (rc == MOSQ_ERR_SUCCESS && m_options.tls) {
        const auto path = [](const QString &file) { return file.isEmpty() ? QByteArray() : QFile::encodeName(file); };
        const QByteArray ca = path(m_options.caFile), cert = path(m_options.certFile), key = path(m_options.keyFile);
        if (ca.isEmpty())
            mosquitto_int_option(m_mosq, MOSQ_OPT_TLS_USE_OS_CERTS, 1);
        rc = mosquitto_tls_set(m_mosq, ca.isEmpty() ? nullptr : ca.constData(), ca.isEmpty() ? "/etc/ssl/certs" : nullptr,
                               cert.isEmpty() ? nullptr : cert.constData(), key.isEmpty() ? nullptr : key.constData(), nullptr);
    }
    if (rc != MOSQ_ERR_SUCCESS) {
        *error = where + QStringLiteral(": ") + errorText(rc);
        return false;
    }
    m_running = true;
    // The first attempt starts from the event loop, so that its outcome is always a signal.
    QMetaObject::invokeMethod(this, &MqttClient::connectNow, Qt::QueuedConnection);
    return true;
}

void MqttClient::stop()
{
    if (!m_running)
        return;
    m_running = false;
    m_retry.stop();
    m_misc.stop();
    if (m_connected) {
        mosquitto_disconnect(m_mosq);
        // Writes what is queued and the DISCONNECT as far as the socket takes them now; it is
        // non-blocking, so this never waits.
        mosquitto_loop_write(m_mosq, c_maxPackets);
    }
    m_connected = false;
    dropNotifiers();
}

void MqttClient::setRetained(const QString &topic, const QByteArray &payload)
{
    if (!m_retained.contains(topic))
        m_retainedOrder << topic;
    else if (m_retained.value(topic) == payload)
        return;
    m_retained.insert(topic, payload);
    if (m_connected)
        send(topic, payload, true, QByteArray());
}

bool MqttClient::publish(const QString &topic, const QByteArray &payload, const QByteArray &correlationData)
{
    if (!m_connected)
        return false;
    send(topic, payload, false, correlationData);
    return true;
}

void MqttClient::subscribe(const QString &filter)
{
    if (m_filters.contains(filter))
        return;
    m_filters << filter;
    if (m_connected) {
        subscribeNow(filter);
        updateWriteInterest();
    }
}

void MqttClient::subscribeNow(const QString &filter)
{
    const int rc = mosquitto_subscribe_v5(m_mosq, nullptr, filter.toUtf8().constData(), c_qos, MQTT_SUB_OPT_NO_LOCAL, nullptr);
    if (rc != MOSQ_ERR_SUCCESS)
        qCWarning(lcMqtt).noquote() << "subscribing to" << filter << "failed:" << errorText(rc);
}

void MqttClient::send(const QString &topic, const QByteArray &payload, bool retain, const QByteArray &correlationData)
{
    mosquitto_property *properties = nullptr;
    if (!correlationData.isEmpty())
        mosquitto_property_add_binary(&properties, MQTT_PROP_CORRELATION_DATA, correlationData.constData(),
                                      uint16_t(correlationData.size()));
    const int rc = mosquitto_publish_v5(m_mosq, nullptr, topic.toUtf8().constData(), payload.size(), payload.constData(),
                                        c_publishQos, retain, properties);
    mosquitto_property_free_all(&properties);
    if (rc != MOSQ_ERR_SUCCESS)
        qCWarning(lcMqtt).noquote() << "publish to" << topic << "failed:" << errorText(rc);
    updateWriteInterest();
}

void MqttClient::connectNow()
{
    if (!m_running)
        return;
    m_refusal = 0;
    m_libraryError.clear();
    const int rc = mosquitto_connect_async(m_mosq, m_options.host.toUtf8().constData(), m_options.port,
                                           m_options.keepAliveSeconds);
    if (rc != MOSQ_ERR_SUCCESS) {
        step(rc, "connect");
        return;
    }
    watchSocket();
    m_misc.start();
}

void MqttClient::watchSocket()
{
    dropNotifiers();
    const int fd = mosquitto_socket(m_mosq);
    if (fd < 0)
        return;
    m_read = new QSocketNotifier(fd, QSocketNotifier::Read, this);
    connect(m_read, &QSocketNotifier::activated, this, [this] { step(mosquitto_loop_read(m_mosq, c_maxPackets), "read"); });
    m_write = new QSocketNotifier(fd, QSocketNotifier::Write, this);
    connect(m_write, &QSocketNotifier::activated, this, [this] { step(mosquitto_loop_write(m_mosq, c_maxPackets), "write"); });
    updateWriteInterest();
}

void MqttClient::dropNotifiers()
{
    // They may be the sender of the signal being handled: delete them later.
    for (QSocketNotifier *notifier : {m_read, m_write}) {
        if (notifier) {
            notifier->setEnabled(false);
            notifier->deleteLater();
        }
    }
    m_read = m_write = nullptr;
}

void MqttClient::updateWriteInterest()
{
    if (m_write)
        m_write->setEnabled(mosquitto_want_write(m_mosq));
}

void MqttClient::step(int rc, const char *what)
{
    if (rc == MOSQ_ERR_SUCCESS) {
        updateWriteInterest();
        return;
    }
    if (m_refusal != 0) {
        const QString reason = QString::fromUtf8(mosquitto_reason_string(m_refusal));
        lost(QStringLiteral("refused the connection: %1").arg(reason), refusalIsFinal(m_refusal));
        return;
    }
    // A refused client certificate shows only as a lost connection, with OpenSSL's words logged.
    const bool tls = rc == MOSQ_ERR_TLS || rc == MOSQ_ERR_TLS_HANDSHAKE || m_libraryError.startsWith(QLatin1String("OpenSSL"));
    // For TLS, OpenSSL's own words (from libmosquitto's log) say what is wrong.
    if (tls && !m_libraryError.isEmpty())
        lost(QStringLiteral("TLS failed: %1").arg(m_libraryError), true);
    else if (!m_libraryError.isEmpty())
        lost(QStringLiteral("%1 failed: %2 (%3)").arg(QLatin1String(what), errorText(rc), m_libraryError), tls);
    else
        lost(QStringLiteral("%1 failed: %2").arg(QLatin1String(what), errorText(rc)), tls);
}

void MqttClient::lost(const QString &reason, bool fatal)
{
    dropNotifiers();
    m_misc.stop();
    const QString text = QStringLiteral("MQTT broker %1:%2: %3").arg(m_options.host).arg(m_options.port).arg(reason);
    const bool wasConnected = m_connected;
    m_connected = false;
    mosquitto_disconnect(m_mosq); // closes the socket when libmosquitto did not already
    if (fatal && !m_everConnected) {
        m_running = false;
        qCCritical(lcMqtt).noquote() << text;
        emit fatalError(text);
        return;
    }
    m_backoffMs = m_backoffMs == 0 ? c_firstBackoffMs : qMin(m_backoffMs * 2, c_maxBackoffMs);
    qCWarning(lcMqtt).noquote() << text << "- again in" << m_backoffMs << "ms";
    m_retry.start(m_backoffMs);
    if (wasConnected)
        emit disconnected(text);
}

void MqttClient::onConnect(mosquitto *, void *self, int rc, int, const mqtt5__property *)
{
    auto *client = static_cast<MqttClient *>(self);
    if (rc != 0) {
        // The read that carried the CONNACK fails next; step() reports it.
        client->m_refusal = rc;
        return;
    }
    client->m_connected = true;
    client->m_everConnected = true;
    client->m_backoffMs = 0;
    qCInfo(lcMqtt).noquote() << "connected to" << client->m_options.host << client->m_options.port;
    for (const QString &filter : qAsConst(client->m_filters))
        client->subscribeNow(filter);
    for (const QString &topic : qAsConst(client->m_retainedOrder))
        client->send(topic, client->m_retained.value(topic), true, QByteArray());
    emit client->connected();
}

void MqttClient::onLog(mosquitto *, void *self, int level, const char *text)
{
    auto *client = static_cast<MqttClient *>(self);
    if (level == MOSQ_LOG_ERR && client->m_libraryError.isEmpty())
        client->m_libraryError = QString::fromUtf8(text);
}

void MqttClient::onMessage(mosquitto *, void *self, const mosquitto_message *message, const mqtt5__property *properties)
{
    auto *client = static_cast<MqttClient *>(self);
    Message received;
    received.topic = QString::fromUtf8(message->topic);
    received.payload = QByteArray(static_cast<const char *>(message->payload), message->payloadlen);
    received.retained = message->retain;
    char *responseTopic = nullptr;
    if (mosquitto_property_read_string(properties, MQTT_PROP_RESPONSE_TOPIC, &responseTopic, false)) {
        received.responseTopic = QString::fromUtf8(responseTopic);
        free(responseTopic);
    }
    void *correlation = nullptr;
    uint16_t length = 0;
    if (mosquitto_property_read_binary(properties, MQTT_PROP_CORRELATION_DATA, &correlation, &length, false)) {
        received.correlationData = QByteArray(static_cast<const char *>(correlation), length);
        free(correlation);
    }
    emit client->messageReceived(received);
}
