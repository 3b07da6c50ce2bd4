// SPDX-License-Identifier: MIT
// Serves the devices of a host on an MQTT broker: every channel's state, each module's
// availability and identity, Home Assistant discovery, and commands from command topics.
#pragma once

#include "derror.h"
#include "gatewayrequest.h"
#include "mqttclient.h"

#include <QObject>
#include <QPointer>
#include <QVariantMap>

#include <memory>
#include <vector>

class DAbstractPlugin;
class Execution;
class Host;

class MqttGateway : public QObject
{
    Q_OBJECT
public:
    struct Options
    {
        // First topic level(s).
        QString prefix = QStringLiteral("e1212");
        // Names the gateway in its status topic and in discovery ids; also the MQTT client id.
        QString id;
        // Without it every write is refused with code "read_only".
        bool allowWrites = false;
        // Home Assistant discovery prefix; empty: no discovery.
        QString discoveryPrefix;
        // Requests in progress per device; more are refused with code "busy".
        int maxPending = 256;
    };

    // Topics (DEV is the last word of a device's reference, CH a channel id):
    //   P/gateway/ID/status    retained  "online"; the will "offline"
    //   P/DEV/availability     retained  "online" while the module answers, "offline" from the first failed poll
    //   P/DEV/info             retained  {"model", "firmware", "mac"} once the module answered getInfo
    //   P/DEV/CH               retained  {"value", "time", "seq"} on every change (seq counts per device)
    //   P/DEV/CH/set|pulse|blink, P/DEV/run/NAME   requests (GatewayRequest)
    //   P/DEV/result           the outcome of every request, also to its MQTT 5 response topic
    // `host` and `devices` must outlive the gateway. The broker connection uses `mqtt` with
    // the client id and will set from `options`.
    MqttGateway(Host *host, const QList<DAbstractPlugin *> &devices, MqttClient::Options mqtt, const Options &options,
                QObject *parent = nullptr);
    ~MqttGateway() override;

    // Starts watching every channel and connecting to the broker; false with *error when
    // the broker options are unusable. Later failures the gateway cannot recover from
    // come as fatalError().
    bool start(QString *error);
    // Stops the watches, publishes the status "offline" and leaves the broker.
    void stop();

    QString statusTopic() const;
    const MqttClient &mqtt() const { return m_mqtt; }

signals:
    void fatalError(const QString &error);

private:
    struct Device
    {
        enum Availability { Unknown, Online, Offline };
        DAbstractPlugin *plugin = nullptr;
        QString reference;
        // The last word of the reference: its topic level.
        QString name;
        QList<GatewayRequest::Channel> channels;
        Availability availability = Unknown;
        DError outage;
        qint64 seq = 0;
        QVariantMap info;
        bool infoRunning = false;
        int pending = 0;
        QList<QPointer<Execution>> listens;
    };

    QString topic(const Device &device, const QString &leaf) const;
    Device *deviceNamed(const QString &name) const;
    void watch(Device *device, const GatewayRequest::Channel &channel);
    void answered(Device *device);
    void outage(Device *device, const DError &error);
    void requestInfo(Device *device);
    void publishDiscovery(const Device &device);
    void onMessage(const MqttClient::Message &message);
    void reply(const MqttClient::Message &message, const QString &device, const QString &reference,
               const QString &command, const QVariantMap &results, const QString &code, const QString &error);

    Host *m_host;
    Options m_options;
    MqttClient m_mqtt;
    std::vector<std::unique_ptr<Device>> m_devices;
    bool m_running = false;
};
