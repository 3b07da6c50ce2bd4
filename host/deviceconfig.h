// SPDX-License-Identifier: MIT
// One device of a configuration file, and the reader of such files.
#pragma once

#include <QByteArray>
#include <QList>
#include <QString>
#include <QUuid>
#include <QVariantMap>

// A file holds one device object or {"devices": [device objects]}. A device object:
//   "reference"  (text, required)  names the instance; its last word selects the channel table
//   "plugin"     (UUID text)       the device plug-in; default the E1212 plug-in
//   "driver"     (UUID text)       the driver plug-in; default the Modbus TCP driver
//   "parameters" (object)          given to the instance as its "parameters"; without it, the
//                                  caller's default channel table as "<last word>_channels"; a "*_channels"
//                                  entry is a list of channel records {"id", "name", "value": [...]}
//                                  with unique, non-empty ids; their entries "register" (0-65535),
//                                  "size" (1-2000 bits, 1-125 words, by "readRegisterType"),
//                                  "readRegisterType"/"writeRegisterType" (a register space the
//                                  driver knows), "type" (a channel-type name) and "activeLevelHigh"
//                                  (boolean) are checked, others kept as they are; a table with a
//                                  "digitalOutput" needs the pulse records "DO_PulseStatus",
//                                  "DO_PulseOnWidth" and "DO_PulseOffWidth", each with "register"
//                                  and "writeRegisterType"
//   "connection" (object)          "host" (text), "port" (1-65535), "unitId" (0-255),
//                                  "timeoutMs" (>0), "pollIntervalMs" (>0); absent means none
struct DeviceConfig
{
    QString reference;
    QUuid pluginUuid;
    // Null when the file names no driver.
    QUuid driverUuid;
    QVariantMap parameters;
    // Empty when the file has no "connection".
    QVariantMap connection;
    // Where the device came from, for messages: the file and the JSON path of its object.
    QString sourceFile;
    QString jsonPath;

    static QUuid defaultPluginUuid();
    static QUuid defaultDriverUuid();

    // The channel table selected by the reference's last word, as the device plug-in
    // selects it; empty when there is none.
    QVariantList channelTable() const;

    // Reads a configuration file of at most 16 MiB (a larger one is refused unread). On failure returns an empty list and sets *error to one
    // line naming the file, the JSON path or line, and what is wrong. A device without
    // "parameters" gets `defaultChannels` (when not empty) as its channel table.
    static QList<DeviceConfig> loadFile(const QString &path, QString *error, const QVariantList &defaultChannels = {});
    // Reads configuration text; `sourceName` stands for the file in messages.
    static QList<DeviceConfig> fromJson(const QByteArray &json, const QString &sourceName, QString *error,
                                        const QVariantList &defaultChannels = {});
};
