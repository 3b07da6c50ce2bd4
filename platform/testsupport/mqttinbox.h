// SPDX-License-Identifier: MIT
// Every message an MQTT client received, in order, with look-ups by topic.
#pragma once

#include "mqttclient.h"

#include <QMap>

struct MqttInbox
{
    QList<MqttClient::Message> messages;

    // Collects what `client` receives from now on.
    void collect(MqttClient *client);
    // The latest payload on `topic`; empty when none came.
    QByteArray latest(const QString &topic) const;
    int count(const QString &topic) const;
    // The latest payload of each topic.
    QMap<QString, QByteArray> topics() const;
};
