// SPDX-License-Identifier: MIT
#include "mqttgateway.h"

#include "dabstractplugin.h"
#include "execution.h"
#include "host.h"

#include <QDateTime>
#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>
#include <QLoggingCategory>
#include <QRegularExpression>

Q_LOGGING_CATEGORY(lcGateway, "e1212.gateway")

namespace {

const QByteArray c_online = QByteArrayLiteral("online");
const QByteArray c_offline = QByteArrayLiteral("offline");

QByteArray compact(const QJsonObject &object)
{
    return QJsonDocument(object).toJson(QJsonDocument::Compact);
}

// Letters, digits, '_' and '-' only: a discovery topic level and a unique id.
QString idPart(const QString &text)
{
    static const QRegularExpression other(QStringLiteral("[^A-Za-z0-9_-]"));
    return QString(text).replace(other, QStringLiteral("_"));
}

// A listen report {"values": [v]} gives v; anything else is kept whole.
QVariant reportedValue(const QVariant &report)
{
    const QVariantList values = report.toMap().value(QStringLiteral("values")).toList();
    return values.size() == 1 ? values.first() : report;
}

QString statusTopicOf(const MqttGateway::Options &options)
{
    return QStringLiteral("%1/gateway/%2/status").arg(options.prefix, options.id);
}

// The broker connection as this gateway: its client id, and its will on its status topic.
MqttClient::Options withIdentity(MqttClient::Options mqtt, const QString &id, const QString &statusTopic)
{
    mqtt.clientId = id;
    mqtt.willTopic = statusTopic;
    mqtt.willPayload = c_offline;
    return mqtt;
}

} // namespace

MqttGateway::MqttGateway(Host *host, const QList<DAbstractPlugin *> &devices, MqttClient::Options mqtt,
                         const Options &options, QObject *parent)
    : QObject(parent)
    , m_host(host)
    , m_options(options)
    , m_mqtt(withIdentity(mqtt, options.id, statusTopicOf(options)))
{
    for (DAbstractPlugin *plugin : devices) {
        auto device = std::make_unique<Device>();
        device->plugin = plugin;
        const DeviceConfig *config = host->configOf(plugin);
        device->reference = config ? config->reference : QString();
        device->name = device->reference.section(QLatin1Char(' '), -1);
        device->channels = config ? GatewayRequest::channels(config->channelTable()) : QList<GatewayRequest::Channel>();
        m_devices.push_back(std::move(device));
    }
    connect(&m_mqtt, &MqttClient::messageReceived, this, &MqttGateway::onMessage);
    connect(&m_mqtt, &MqttClient::fatalError, this, &MqttGateway::fatalError);
}

MqttGateway::~MqttGateway()
{
    stop();
}

QString MqttGateway::statusTopic() const
{
    return statusTopicOf(m_options);
}

QString MqttGateway::topic(const Device &device, const QString &leaf) const
{
    return QStringLiteral("%1/%2/%3").arg(m_options.prefix, device.name, leaf);
}

MqttGateway::Device *MqttGateway::deviceNamed(const QString &name) const
{
    for (const auto &device : m_devices)
        if (device->name == name)
            return device.get();
    return nullptr;
}

bool MqttGateway::start(QString *error)
{
    // Device names and channel ids become topic levels: one level each, no wildcard, unique.
    static const QRegularExpression notALevel(QStringLiteral("^$|[/+#\\x00]"));
    QStringList names;
    for (const auto &device : m_devices) {
        QStringList levels{device->name};
        for (const GatewayRequest::Channel &channel : qAsConst(device->channels))
            levels << channel.id;
        for (const QString &level : qAsConst(levels)) {
            if (level.contains(notALevel)) {
                *error = QStringLiteral("%1: \"%2\" cannot be a topic level (empty, or with /, + or #)").arg(device->reference, level);
                return false;
            }
        }
        if (names.contains(device->name) || device->name == QLatin1String("gateway")) {
            *error = QStringLiteral("%1: its last word \"%2\" names another device's topics already").arg(device->reference, device->name);
            return false;
        }
        names << device->name;
    }
    m_mqtt.setRetained(statusTopic(), c_online);
    m_mqtt.subscribe(m_options.prefix + QStringLiteral("/+/+/+"));
    if (!m_mqtt.start(error))
        return false;
    m_running = true;
    for (const auto &device : m_devices)
        for (const GatewayRequest::Channel &channel : qAsConst(device->channels))
            watch(device.get(), channel);
    return true;
}

void MqttGateway::stop()
{
    if (!m_running)
        return;
    m_running = false;
    for (const auto &device : m_devices)
        for (const QPointer<Execution> &listen : qAsConst(device->listens))
            if (listen)
                m_host->stop(listen);
    m_mqtt.setRetained(statusTopic(), c_offline);
    m_mqtt.stop();
}

void MqttGateway::watch(Device *device, const GatewayRequest::Channel &channel)
{
    Execution *listen = m_host->execute(device->plugin, QStringLiteral("listenEvents"), {{QStringLiteral("channel"), channel.id}},
                                        Host::CheckArguments);
    device->listens << listen;
    const QString stateTopic = topic(*device, channel.id);
    connect(listen, &Execution::resultChanged, this, [this, device, stateTopic](const QString &, const QVariant &report) {
        answered(device);
        const QJsonObject state{{QStringLiteral("value"), QJsonValue::fromVariant(reportedValue(report))},
                                {QStringLiteral("time"), QDateTime::currentDateTimeUtc().toString(Qt::ISODateWithMs)},
                                {QStringLiteral("seq"), ++device->seq}};
        m_mqtt.setRetained(stateTopic, compact(state));
    });
    connect(listen, &Execution::errorReported, this, [this, device](const DError &error) { outage(device, error); });
    connect(listen, &Execution::finished, this, [this, listen, channel] {
        if (m_running)
            qCCritical(lcGateway).noquote() << "the watch of" << channel.id << "ended:" << listen->errorString();
        listen->deleteLater();
    });
}

void MqttGateway::answered(Device *device)
{
    if (device->availability == Device::Online)
        return;
    device->availability = Device::Online;
    qCInfo(lcGateway).noquote() << device->reference << "answers";
    m_mqtt.setRetained(topic(*device, QStringLiteral("availability")), c_online);
    // Asked again on every return: the module may have been replaced meanwhile.
    requestInfo(device);
}

void MqttGateway::outage(Device *device, const DError &error)
{
    device->outage = error;
    if (device->availability == Device::Offline)
        return;
    device->availability = Device::Offline;
    qCWarning(lcGateway).noquote() << device->reference << "does not answer:" << error.text;
    m_mqtt.setRetained(topic(*device, QStringLiteral("availability")), c_offline);
}

void MqttGateway::requestInfo(Device *device)
{
    if (device->infoRunning)
        return;
    device->infoRunning = true;
    Execution *execution = m_host->execute(device->plugin, QStringLiteral("getInfo"), {}, Host::CheckArguments);
    connect(execution, &Execution::finished, this, [this, device, execution] {
        device->infoRunning = false;
        execution->deleteLater();
        const QVariantMap information = execution->results().value(QStringLiteral("deviceInformation")).toMap();
        if (!execution->isOk() || information.isEmpty()) {
            qCWarning(lcGateway).noquote() << device->reference << "getInfo failed:" << execution->errorString();
            return;
        }
        device->info = information;
        const QJsonObject info{{QStringLiteral("model"), information.value(QStringLiteral("modelName")).toString()},
                               {QStringLiteral("firmware"), information.value(QStringLiteral("softwareVersion")).toString()},
                               {QStringLiteral("mac"), information.value(QStringLiteral("macAddress")).toString()}};
        m_mqtt.setRetained(topic(*device, QStringLiteral("info")), compact(info));
        publishDiscovery(*device);
    });
}

void MqttGateway::publishDiscovery(const Device &device)
{
    if (m_options.discoveryPrefix.isEmpty())
        return;
    const QString node = idPart(m_options.id + QLatin1Char('_') + device.name);
    QJsonObject block{{QStringLiteral("identifiers"), QJsonArray{node}},
                      {QStringLiteral("name"), device.reference},
                      {QStringLiteral("manufacturer"), QStringLiteral("Moxa")},
                      {QStringLiteral("model"), device.info.value(QStringLiteral("modelName")).toString()},
                      {QStringLiteral("sw_version"), device.info.value(QStringLiteral("softwareVersion")).toString()}};
    const QString mac = device.info.value(QStringLiteral("macAddress")).toString();
    if (!mac.isEmpty())
        block.insert(QStringLiteral("connections"), QJsonArray{QJsonArray{QStringLiteral("mac"), mac}});
    const QJsonArray availability{QJsonObject{{QStringLiteral("topic"), statusTopic()}},
                                  QJsonObject{{QStringLiteral("topic"), topic(device, QStringLiteral("availability"))}}};
    for (const GatewayRequest::Channel &channel : device.channels) {
        const bool output = channel.isOutput();
        QJsonObject config{{QStringLiteral("name"), channel.name.isEmpty() ? channel.id : channel.name},
                           {QStringLiteral("unique_id"), QString(node + QLatin1Char('_') + idPart(channel.id))},
                           {QStringLiteral("state_topic"), topic(device, channel.id)},
                           {QStringLiteral("value_template"), QStringLiteral("{{ value_json.value }}")},
                           {QStringLiteral("availability"), QJsonValue(availability)},
                           {QStringLiteral("availability_mode"), QStringLiteral("all")},
                           {QStringLiteral("device"), QJsonValue(block)}};
        if (output) {
            config.insert(QStringLiteral("state_on"), QStringLiteral("1"));
            config.insert(QStringLiteral("state_off"), QStringLiteral("0"));
            if (m_options.allowWrites) {
                config.insert(QStringLiteral("command_topic"), topic(device, channel.id + QStringLiteral("/set")));
                config.insert(QStringLiteral("payload_on"), QStringLiteral("1"));
                config.insert(QStringLiteral("payload_off"), QStringLiteral("0"));
            }
        } else {
            config.insert(QStringLiteral("payload_on"), QStringLiteral("1"));
            config.insert(QStringLiteral("payload_off"), QStringLiteral("0"));
        }
        const QString component = output ? QStringLiteral("switch") : QStringLiteral("binary_sensor");
        m_mqtt.setRetained(QStringLiteral("%1/%2/%3/%4/config").arg(m_options.discoveryPrefix, component, node, idPart(channel.id)),
                           compact(config));
    }
}

void MqttGateway::onMessage(const MqttClient::Message &message)
{
    // P/DEV/CH/ACTION or P/DEV/run/NAME; anything else under P/+/+/+ is not for us.
    const QString prefix = m_options.prefix + QLatin1Char('/');
    if (!message.topic.startsWith(prefix))
        return;
    const QStringList levels = message.topic.mid(prefix.size()).split(QLatin1Char('/'));
    if (levels.size() != 3)
        return;
    const bool run = levels.at(1) == QLatin1String("run");
    const QString action = run ? QStringLiteral("run") : levels.at(2);
    if (!run && action != QLatin1String("set") && action != QLatin1String("pulse") && action != QLatin1String("blink"))
        return;
    const QString target = run ? levels.at(2) : levels.at(1);
    const QString command = GatewayRequest::commandFor(action, target);
    Device *device = deviceNamed(levels.at(0));
    if (!device) {
        QStringList known;
        for (const auto &each : m_devices)
            known << each->name;
        reply(message, levels.at(0), levels.at(0), command, {}, QStringLiteral("refused"),
              QStringLiteral("no device \"%1\" (known: %2)").arg(levels.at(0), known.join(QStringLiteral(", "))));
        return;
    }
    if (message.retained) {
        reply(message, device->name, device->reference, command, {}, QStringLiteral("refused"),
              QStringLiteral("a retained request is not run (it would run again on every connection)"));
        return;
    }
    const GatewayRequest request = GatewayRequest::parse(action, target, message.payload, device->channels, m_options.allowWrites);
    if (request.isRefused()) {
        reply(message, device->name, device->reference, command, {}, request.code, request.error);
        return;
    }
    if (device->availability == Device::Offline) {
        reply(message, device->name, device->reference, command, {}, DError::codeName(IMessenger::CeNoConnection),
              QStringLiteral("%1 does not answer: %2").arg(device->reference, device->outage.text));
        return;
    }
    if (device->pending >= m_options.maxPending) {
        reply(message, device->name, device->reference, command, {}, QStringLiteral("busy"),
              QStringLiteral("%1 requests are in progress on %2 already").arg(device->pending).arg(device->reference));
        return;
    }
    ++device->pending;
    Execution *execution = m_host->execute(device->plugin, request.command, request.arguments, Host::CheckArguments);
    connect(execution, &Execution::finished, this, [this, device, execution, message] {
        --device->pending;
        execution->deleteLater();
        const bool ok = execution->isOk();
        reply(message, device->name, device->reference, execution->commandName(), execution->results(),
              ok ? QString() : DError::codeName(execution->errorCode()), execution->errorString());
    });
}

void MqttGateway::reply(const MqttClient::Message &message, const QString &device, const QString &reference,
                        const QString &command, const QVariantMap &results, const QString &code, const QString &error)
{
    QJsonObject result{{QStringLiteral("command"), command},
                       {QStringLiteral("ok"), code.isEmpty()},
                       {QStringLiteral("device"), reference},
                       {QStringLiteral("results"), QJsonObject::fromVariantMap(results)},
                       {QStringLiteral("error"), error},
                       {QStringLiteral("topic"), message.topic}};
    if (!code.isEmpty()) {
        result.insert(QStringLiteral("code"), code);
        qCInfo(lcGateway).noquote() << message.topic << "refused or failed:" << code << error;
    }
    const QByteArray payload = compact(result);
    m_mqtt.publish(QStringLiteral("%1/%2/result").arg(m_options.prefix, device), payload);
    if (!message.responseTopic.isEmpty())
        m_mqtt.publish(message.responseTopic, payload, message.correlationData);
}
