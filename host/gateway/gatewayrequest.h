// SPDX-License-Identifier: MIT
// A request that came in on a command topic, checked against the device's channel table
// before anything is sent: the command and its arguments, or a refusal with its code.
#pragma once

#include <QByteArray>
#include <QList>
#include <QString>
#include <QVariantMap>

class GatewayRequest
{
public:
    // A channel of the device's table (records with a "type").
    struct Channel
    {
        QString id;
        QString name;
        QString type;
        bool isOutput() const { return type == QLatin1String("digitalOutput"); }
    };

    // Payloads above this are refused unread.
    static constexpr int MaxPayload = 64 * 1024;

    // The channels of a channel table, in table order.
    static QList<Channel> channels(const QVariantList &table);

    // `action` is "set", "pulse", "blink" (`target` a channel) or "run" (`target` a command name).
    //   set     0, 1 or {"value": 0|1, "mask": 0-65535}           -> setValue
    //   pulse   {"on": ms, "off": ms, "values": [0|1, ...]}         -> setValues
    //   blink   the same                                             -> setBlink
    //   run     a JSON object of arguments (empty payload: none)     -> the named command
    // Writes go only to outputs and only when `allowWrites`; "run" lets through getInfo,
    // getValue and getValues without it, never a listening command, and a "channel" argument
    // must name a channel of `channels` (an output for a write).
    static GatewayRequest parse(const QString &action, const QString &target, const QByteArray &payload,
                                const QList<Channel> &channels, bool allowWrites);

    // The device command the action stands for ("setValue" for "set", the name for "run").
    static QString commandFor(const QString &action, const QString &target);

    QString command;
    QVariantMap arguments;
    // Empty when accepted; "refused" or "read_only" otherwise, with one line in `error`.
    QString code;
    QString error;
    bool isRefused() const { return !code.isEmpty(); }

private:
    static GatewayRequest refuse(const QString &command, const QString &code, const QString &error);
};
