// SPDX-License-Identifier: MIT
#include "gatewayrequest.h"

#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>
#include <QSet>

#include <cmath>

namespace {

const QString c_refused = QStringLiteral("refused");
const QString c_readOnly = QStringLiteral("read_only");

// Commands that never write, the only ones a read-only gateway runs.
const QSet<QString> c_reads{QStringLiteral("getInfo"), QStringLiteral("getValue"), QStringLiteral("getValues")};
// Listening runs only as the gateway's own watch.
const QSet<QString> c_listening{QStringLiteral("listenEvents"), QStringLiteral("stopListening")};

QString shown(const QJsonValue &value)
{
    if (value.isString())
        return QLatin1Char('"') + value.toString() + QLatin1Char('"');
    if (value.isObject() || value.isArray()) {
        const QJsonDocument document = value.isObject() ? QJsonDocument(value.toObject()) : QJsonDocument(value.toArray());
        return QString::fromUtf8(document.toJson(QJsonDocument::Compact));
    }
    return QString::fromUtf8(QJsonDocument(QJsonArray{value}).toJson(QJsonDocument::Compact)).mid(1).chopped(1);
}

// A JSON whole number from `min` to `max`.
bool whole(const QJsonValue &value, int min, int max, int *out)
{
    if (!value.isDouble())
        return false;
    const double number = value.toDouble();
    if (std::floor(number) != number || number < min || number > max)
        return false;
    *out = int(number);
    return true;
}

// The payload as a JSON object; false with *error when it is not one.
bool object(const QByteArray &payload, QJsonObject *object, QString *error)
{
    QJsonParseError parse;
    const QJsonDocument document = QJsonDocument::fromJson(payload, &parse);
    if (parse.error != QJsonParseError::NoError || !document.isObject()) {
        *error = QStringLiteral("the payload is not a JSON object: %1").arg(QString::fromUtf8(payload.left(80)));
        return false;
    }
    *object = document.object();
    return true;
}

// Keys of `object` outside `known`, as one refusal text; empty when there are none.
QString unknownKeys(const QJsonObject &object, const QStringList &known)
{
    for (const QString &key : object.keys())
        if (!known.contains(key))
            return QStringLiteral("unknown key \"%1\" (known: %2)").arg(key, known.join(QStringLiteral(", ")));
    return QString();
}

int indexOf(const QList<GatewayRequest::Channel> &channels, const QString &id)
{
    for (int i = 0; i < channels.size(); ++i)
        if (channels.at(i).id == id)
            return i;
    return -1;
}

QString known(const QList<GatewayRequest::Channel> &channels)
{
    QStringList ids;
    for (const GatewayRequest::Channel &channel : channels)
        ids << channel.id;
    return ids.join(QStringLiteral(", "));
}

} // namespace

QList<GatewayRequest::Channel> GatewayRequest::channels(const QVariantList &table)
{
    QList<Channel> channels;
    for (const QVariant &record : table) {
        const QVariantMap map = record.toMap();
        Channel channel{map.value(QStringLiteral("id")).toString(), map.value(QStringLiteral("name")).toString(), QString()};
        for (const QVariant &entry : map.value(QStringLiteral("value")).toList())
            if (entry.toMap().value(QStringLiteral("id")) == QLatin1String("type"))
                channel.type = entry.toMap().value(QStringLiteral("value")).toString();
        if (!channel.type.isEmpty())
            channels << channel;
    }
    return channels;
}

QString GatewayRequest::commandFor(const QString &action, const QString &target)
{
    if (action == QLatin1String("set"))
        return QStringLiteral("setValue");
    if (action == QLatin1String("pulse"))
        return QStringLiteral("setValues");
    if (action == QLatin1String("blink"))
        return QStringLiteral("setBlink");
    return target;
}

GatewayRequest GatewayRequest::refuse(const QString &command, const QString &code, const QString &error)
{
    GatewayRequest request;
    request.command = command;
    request.code = code;
    request.error = error;
    return request;
}

GatewayRequest GatewayRequest::parse(const QString &action, const QString &target, const QByteArray &payload,
                                     const QList<Channel> &channels, bool allowWrites)
{
    const QString command = commandFor(action, target);
    if (payload.size() > MaxPayload)
        return refuse(command, c_refused, QStringLiteral("a payload of %1 bytes is over the 64 KiB limit").arg(payload.size()));
    const bool run = action == QLatin1String("run");
    const int first = run ? -1 : indexOf(channels, target);
    const Channel *channel = first < 0 ? nullptr : &channels.at(first);
    if (!run && !channel)
        return refuse(command, c_refused, QStringLiteral("no channel \"%1\" (known: %2)").arg(target, known(channels)));
    if (run && c_listening.contains(command))
        return refuse(command, c_refused, QStringLiteral("%1 runs only as the gateway's own watch of every channel").arg(command));
    const bool write = !run || !c_reads.contains(command);
    if (write && !allowWrites)
        return refuse(command, c_readOnly, QStringLiteral("%1 may write and the gateway is read-only (start it with --allow-writes)").arg(command));
    if (channel && !channel->isOutput())
        return refuse(command, c_refused, QStringLiteral("%1 is an input (%2), not an output").arg(channel->id, channel->type));

    GatewayRequest request;
    request.command = command;
    QJsonObject json;
    QString error;
    if (action == QLatin1String("set")) {
        int value = 0;
        // A bare JSON number, or an object.
        const QJsonDocument scalar = QJsonDocument::fromJson('[' + payload + ']');
        const QJsonValue number = scalar.array().size() == 1 ? scalar.array().first() : QJsonValue();
        if (number.isDouble()) {
            if (!whole(number, 0, 1, &value))
                return refuse(command, c_refused, QStringLiteral("the value must be 0 or 1, found %1").arg(shown(number)));
        } else {
            const QString usage = QStringLiteral("the payload must be 0, 1 or {\"value\": 0|1, \"mask\": 0-65535}");
            if (!object(payload, &json, &error))
                return refuse(command, c_refused, error + QStringLiteral("; ") + usage);
            if (!(error = unknownKeys(json, {QStringLiteral("value"), QStringLiteral("mask")})).isEmpty())
                return refuse(command, c_refused, error);
            if (!whole(json.value(QStringLiteral("value")), 0, 1, &value))
                return refuse(command, c_refused, QStringLiteral("\"value\" must be 0 or 1, found %1").arg(shown(json.value(QStringLiteral("value")))));
            int mask = 0;
            if (json.contains(QStringLiteral("mask"))) {
                if (!whole(json.value(QStringLiteral("mask")), 0, 0xFFFF, &mask))
                    return refuse(command, c_refused, QStringLiteral("\"mask\" must be a whole number 0-65535, found %1").arg(shown(json.value(QStringLiteral("mask")))));
                request.arguments.insert(QStringLiteral("bitMask"), mask);
            }
        }
        request.arguments.insert(QStringLiteral("channel"), target);
        request.arguments.insert(QStringLiteral("value"), value);
        return request;
    }
    if (!run) { // pulse, blink
        if (!object(payload, &json, &error))
            return refuse(command, c_refused, error + QStringLiteral("; the payload must be {\"on\": ms, \"off\": ms, \"values\": [0|1, ...]}"));
        if (!(error = unknownKeys(json, {QStringLiteral("on"), QStringLiteral("off"), QStringLiteral("values")})).isEmpty())
            return refuse(command, c_refused, error);
        int on = 0, off = 0;
        for (const auto &width : {qMakePair(QStringLiteral("on"), &on), qMakePair(QStringLiteral("off"), &off)})
            if (!whole(json.value(width.first), 1, 0xFFFF, width.second))
                return refuse(command, c_refused, QStringLiteral("\"%1\" must be 1-65535 ms, found %2").arg(width.first, shown(json.value(width.first))));
        const QJsonArray values = json.value(QStringLiteral("values")).toArray();
        if (!json.value(QStringLiteral("values")).isArray() || values.isEmpty())
            return refuse(command, c_refused, QStringLiteral("\"values\" must be a list of 0 and 1, found %1").arg(shown(json.value(QStringLiteral("values")))));
        QVariantList list;
        for (int i = 0; i < values.size(); ++i) {
            int value = 0;
            if (!whole(values.at(i), 0, 1, &value))
                return refuse(command, c_refused, QStringLiteral("\"values\"[%1] must be 0 or 1, found %2").arg(i).arg(shown(values.at(i))));
            // Each value drives the next channel of the table from CH on: all must be outputs.
            const int index = first + i;
            const Channel *driven = index < channels.size() ? &channels.at(index) : nullptr;
            if (!driven || !driven->isOutput())
                return refuse(command, c_refused, QStringLiteral("\"values\"[%1] would drive %2, not an output")
                                                      .arg(i).arg(driven ? driven->id : QStringLiteral("past the table")));
            list << value;
        }
        request.arguments = {{QStringLiteral("channel"), target}, {QStringLiteral("pulseOnWidth"), on},
                             {QStringLiteral("pulseOffWidth"), off}, {QStringLiteral("values"), list}};
        return request;
    }
    if (!payload.trimmed().isEmpty() && !object(payload, &json, &error))
        return refuse(command, c_refused, error);
    if (json.contains(QStringLiteral("channel"))) {
        const QJsonValue value = json.value(QStringLiteral("channel"));
        const int named = value.isString() ? indexOf(channels, value.toString()) : -1;
        if (named < 0)
            return refuse(command, c_refused, QStringLiteral("\"channel\" %1 names no channel (known: %2)").arg(shown(value), known(channels)));
        if (write && !channels.at(named).isOutput())
            return refuse(command, c_refused, QStringLiteral("%1 is an input (%2), not an output").arg(channels.at(named).id, channels.at(named).type));
    }
    request.arguments = json.toVariantMap();
    return request;
}
