// SPDX-License-Identifier: MIT
// Where and how the driver talks to one device: a device configuration's "connection".
#pragma once

#include <QString>
#include <QVariantMap>

struct ModbusConnectionSettings
{
    QString host = QStringLiteral("127.0.0.1");
    int port = 502;
    int unitId = 1;
    int timeoutMs = 1000;     // per request, and for opening the connection
    int pollIntervalMs = 100; // between two polls of one "listen"

    // Reads the keys "host", "port", "unitId", "timeoutMs" and "pollIntervalMs"; absent
    // keys keep the defaults above. False, with *error naming the key, the value and the
    // accepted range, for a bad value or an unknown key; *out is then unchanged.
    static bool fromMap(const QVariantMap &map, ModbusConnectionSettings *out, QString *error);

    // "host:port"
    QString endpoint() const;
    // "device host:port (unit N)", the prefix of every error text.
    QString deviceText() const;
};
