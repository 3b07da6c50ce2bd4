// SPDX-License-Identifier: MIT
#include "mqttinbox.h"

void MqttInbox::collect(MqttClient *client)
{
    QObject::connect(client, &MqttClient::messageReceived, client, [this](const MqttClient::Message &m) { messages << m; });
}

QByteArray MqttInbox::latest(const QString &topic) const
{
    for (int i = messages.size() - 1; i >= 0; --i)
        if (messages.at(i).topic == topic)
            return messages.at(i).payload;
    return QByteArray();
}

int MqttInbox::count(const QString &topic) const
{
    return int(std::count_if(messages.cbegin(), messages.cend(), [&](const MqttClient::Message &m) { return m.topic == topic; }));
}

QMap<QString, QByteArray> MqttInbox::topics() const
{
    QMap<QString, QByteArray> map;
    for (const MqttClient::Message &message : messages)
        map.insert(message.topic, message.payload);
    return map;
}
