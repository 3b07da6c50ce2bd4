// SPDX-License-Identifier: MIT
#include "deviceconfig.h"

#include "dchanneltable.h"

#include <QFile>
#include <QHash>
#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>

#include <cmath>

namespace {

const char c_e1212PluginUuid[] = "{43ae4651-f855-42c1-81e2-c73130e79008}";
const char c_modbusDriverUuid[] = "{7d3f2a10-5b9e-4c61-8f0a-2e4b6c8d9a13}";
// Larger files are refused unread.
const qint64 c_maxFileSize = 16 * 1024 * 1024;

QString typeName(const QJsonValue &value)
{
    switch (value.type()) {
    case QJsonValue::Null: return QStringLiteral("null");
    case QJsonValue::Bool: return QStringLiteral("a boolean");
    case QJsonValue::Double: return QStringLiteral("a number");
    case QJsonValue::String: return QStringLiteral("a text");
    case QJsonValue::Array: return QStringLiteral("a list");
    case QJsonValue::Object: return QStringLiteral("an object");
    case QJsonValue::Undefined: break;
    }
    return QStringLiteral("missing");
}

// The value as it stands in the file.
QString jsonText(const QJsonValue &value)
{
    const QByteArray json = QJsonDocument(QJsonArray{value}).toJson(QJsonDocument::Compact);
    return QString::fromUtf8(json.mid(1, json.size() - 2));
}

bool wholeNumberIn(const QJsonValue &value, qint64 min, qint64 max)
{
    const double number = value.toDouble();
    return value.isDouble() && std::floor(number) == number && number >= double(min) && number <= double(max);
}

// The value of a channel record's entry `id`; undefined when the record has no such entry.
QJsonValue entryOf(const QJsonObject &record, const QString &id)
{
    const QJsonArray entries = record.value(QStringLiteral("value")).toArray();
    for (const QJsonValue &entry : entries)
        if (entry.toObject().value(QStringLiteral("id")).toString() == id)
            return entry.toObject().value(QStringLiteral("value"));
    return QJsonValue(QJsonValue::Undefined);
}

QString oneOf(const QStringList &names)
{
    return QStringLiteral("one of \"%1\"").arg(names.join(QStringLiteral("\", \"")));
}

// Reads one file's worth of devices; every check reports "<file>: <path>: <what>".
class Reader
{
public:
    Reader(const QString &source, const QVariantList &defaultChannels) : m_source(source), m_defaultChannels(defaultChannels) {}

    bool fail(const QString &path, const QString &what)
    {
        m_error = QStringLiteral("%1: %2: %3").arg(m_source, path, what);
        return false;
    }

    bool expect(const QJsonValue &value, QJsonValue::Type type, const QString &path, const char *wanted)
    {
        if (value.type() == type)
            return true;
        return fail(path, QStringLiteral("expected %1, found %2").arg(QLatin1String(wanted), typeName(value)));
    }

    bool knownKeys(const QJsonObject &object, const QStringList &known, const QString &path)
    {
        for (auto it = object.begin(); it != object.end(); ++it)
            if (!known.contains(it.key()))
                return fail(join(path, it.key()),
                            QStringLiteral("unknown key (known: %1)").arg(known.join(QStringLiteral(", "))));
        return true;
    }

    bool integerIn(const QJsonObject &object, const QString &key, qint64 min, qint64 max, const QString &path)
    {
        if (!object.contains(key))
            return true;
        const QJsonValue value = object.value(key);
        const QString at = join(path, key);
        if (!expect(value, QJsonValue::Double, at, "a whole number"))
            return false;
        if (!wholeNumberIn(value, min, max))
            return fail(at, QStringLiteral("%1 is out of range (expected a whole number from %2 to %3)")
                                .arg(jsonText(value)).arg(min).arg(max));
        return true;
    }

    bool uuidAt(const QJsonObject &object, const QString &key, const QString &path, QUuid *uuid)
    {
        if (!object.contains(key))
            return true;
        const QString at = join(path, key);
        if (!expect(object.value(key), QJsonValue::String, at, "a plug-in UUID text"))
            return false;
        *uuid = QUuid::fromString(object.value(key).toString());
        if (uuid->isNull())
            return fail(at, QStringLiteral("\"%1\" is not a UUID").arg(object.value(key).toString()));
        return true;
    }

    // One information entry's value; `readSpace` is the record's "readRegisterType", which
    // decides the largest "size".
    bool entryValue(const QString &id, const QJsonValue &value, const QString &readSpace, const QString &at)
    {
        auto wrong = [&](const QString &wanted) {
            return fail(at, QStringLiteral("\"%1\" must be %2, found %3").arg(id, wanted, jsonText(value)));
        };
        if (id == QLatin1String("register"))
            return wholeNumberIn(value, 0, 65535) || wrong(QStringLiteral("a whole number 0-65535"));
        if (id == QLatin1String("size")) {
            const int max = DChannelTable::maxReadCount(DChannelTable::spaceFromName(readSpace));
            return wholeNumberIn(value, 1, max)
                || wrong(QStringLiteral("a whole number 1-%1").arg(max)
                         + (readSpace.isEmpty() ? QString() : QStringLiteral(" for \"%1\"").arg(readSpace)));
        }
        if (id == QLatin1String("readRegisterType") || id == QLatin1String("writeRegisterType"))
            return (value.isString() && DChannelTable::spaceFromName(value.toString()) != DChannelTable::NoSpace)
                || wrong(oneOf(DChannelTable::spaceNames()));
        if (id == QLatin1String("type")) {
            const QStringList types = DChannelTable::typeNames();
            return (value.isString() && types.contains(value.toString())) || wrong(oneOf(types));
        }
        if (id == QLatin1String("activeLevelHigh"))
            return value.isBool() || wrong(QStringLiteral("true or false"));
        return true;
    }

    // One record {"id", "name", "value": [{"id", "value"}...]}.
    bool channelRecord(const QJsonValue &value, const QString &at)
    {
        if (!expect(value, QJsonValue::Object, at, "a channel record object"))
            return false;
        const QJsonObject record = value.toObject();
        const QString idPath = join(at, QStringLiteral("id"));
        if (!expect(record.value(QStringLiteral("id")), QJsonValue::String, idPath, "a channel id text"))
            return false;
        if (record.value(QStringLiteral("id")).toString().isEmpty())
            return fail(idPath, QStringLiteral("the channel id is empty"));
        if (record.contains(QStringLiteral("name"))
            && !expect(record.value(QStringLiteral("name")), QJsonValue::String, join(at, QStringLiteral("name")), "a text"))
            return false;
        const QString entriesPath = join(at, QStringLiteral("value"));
        if (!expect(record.value(QStringLiteral("value")), QJsonValue::Array, entriesPath, "a list of {\"id\", \"value\"} entries"))
            return false;
        const QJsonArray entries = record.value(QStringLiteral("value")).toArray();
        const QString readSpace = entryOf(record, QStringLiteral("readRegisterType")).toString();
        QStringList entryIds;
        for (int e = 0; e < entries.size(); ++e) {
            const QString entryPath = entriesPath + QStringLiteral("[%1]").arg(e);
            const QJsonObject entry = entries.at(e).toObject();
            if (!expect(entries.at(e), QJsonValue::Object, entryPath, "an {\"id\", \"value\"} entry")
                || !expect(entry.value(QStringLiteral("id")), QJsonValue::String, join(entryPath, QStringLiteral("id")), "an entry id text"))
                return false;
            const QString id = entry.value(QStringLiteral("id")).toString();
            if (entryIds.contains(id))
                return fail(join(entryPath, QStringLiteral("id")), QStringLiteral("\"%1\" is given twice in this record").arg(id));
            entryIds << id;
            if (!entry.contains(QStringLiteral("value")))
                return fail(join(entryPath, QStringLiteral("value")), QStringLiteral("\"%1\" has no value").arg(id));
            if (!entryValue(id, entry.value(QStringLiteral("value")), readSpace, join(entryPath, QStringLiteral("value"))))
                return false;
        }
        return true;
    }

    bool channelTable(const QJsonValue &table, const QString &path)
    {
        if (!expect(table, QJsonValue::Array, path, "a list of channel records"))
            return false;
        const QJsonArray records = table.toArray();
        QHash<QString, int> indexOf;
        QString firstOutput;
        for (int i = 0; i < records.size(); ++i) {
            const QString at = path + QStringLiteral("[%1]").arg(i);
            if (!channelRecord(records.at(i), at))
                return false;
            const QJsonObject record = records.at(i).toObject();
            const QString id = record.value(QStringLiteral("id")).toString();
            if (indexOf.contains(id))
                return fail(join(at, QStringLiteral("id")), QStringLiteral("\"%1\" is used by %2[%3] already").arg(id, path).arg(indexOf.value(id)));
            indexOf.insert(id, i);
            if (firstOutput.isEmpty() && entryOf(record, QStringLiteral("type")) == QJsonValue(QStringLiteral("digitalOutput")))
                firstOutput = id;
        }
        if (firstOutput.isEmpty())
            return true;
        // A table with digital outputs needs the records of their pulse generators.
        const QStringList pulseEntries = DChannelTable::pulseRecordEntryIds();
        const QStringList pulseRecords = DChannelTable::pulseRecordIds();
        for (const QString &pulse : pulseRecords) {
            if (!indexOf.contains(pulse))
                return fail(path, QStringLiteral("\"%1\" is a digital output, so the table needs the pulse record \"%2\"")
                                      .arg(firstOutput, pulse));
            const int index = indexOf.value(pulse);
            for (const QString &needed : pulseEntries)
                if (entryOf(records.at(index).toObject(), needed).isUndefined())
                    return fail(path + QStringLiteral("[%1].value").arg(index),
                                QStringLiteral("the pulse record \"%1\" has no \"%2\"").arg(pulse, needed));
        }
        return true;
    }

    bool device(const QJsonValue &value, const QString &path, DeviceConfig *config)
    {
        if (!expect(value, QJsonValue::Object, path, "a device object"))
            return false;
        const QJsonObject object = value.toObject();
        const QStringList known{QStringLiteral("reference"), QStringLiteral("plugin"), QStringLiteral("driver"),
                                QStringLiteral("parameters"), QStringLiteral("connection")};
        if (!knownKeys(object, known, path))
            return false;

        const QString referencePath = join(path, QStringLiteral("reference"));
        if (!expect(object.value(QStringLiteral("reference")), QJsonValue::String, referencePath, "the device reference text"))
            return false;
        config->reference = object.value(QStringLiteral("reference")).toString();
        if (config->reference.trimmed().isEmpty())
            return fail(referencePath, QStringLiteral("the reference is empty"));

        config->pluginUuid = DeviceConfig::defaultPluginUuid();
        if (!uuidAt(object, QStringLiteral("plugin"), path, &config->pluginUuid)
            || !uuidAt(object, QStringLiteral("driver"), path, &config->driverUuid))
            return false;

        if (object.contains(QStringLiteral("parameters"))) {
            const QString at = join(path, QStringLiteral("parameters"));
            const QJsonValue parameters = object.value(QStringLiteral("parameters"));
            if (!expect(parameters, QJsonValue::Object, at, "an object"))
                return false;
            const QJsonObject map = parameters.toObject();
            for (auto it = map.begin(); it != map.end(); ++it)
                if (it.key().endsWith(QLatin1String("_channels")) && !channelTable(it.value(), join(at, it.key())))
                    return false;
            config->parameters = map.toVariantMap();
        } else if (!m_defaultChannels.isEmpty()) {
            config->parameters.insert(config->reference.section(QLatin1Char(' '), -1) + QStringLiteral("_channels"), m_defaultChannels);
        }

        if (object.contains(QStringLiteral("connection"))) {
            const QString at = join(path, QStringLiteral("connection"));
            if (!expect(object.value(QStringLiteral("connection")), QJsonValue::Object, at, "an object"))
                return false;
            const QJsonObject connection = object.value(QStringLiteral("connection")).toObject();
            if (!knownKeys(connection, {QStringLiteral("host"), QStringLiteral("port"), QStringLiteral("unitId"),
                                        QStringLiteral("timeoutMs"), QStringLiteral("pollIntervalMs")}, at))
                return false;
            if (connection.contains(QStringLiteral("host"))
                && (!expect(connection.value(QStringLiteral("host")), QJsonValue::String, join(at, QStringLiteral("host")), "a host name or address text")))
                return false;
            if (connection.value(QStringLiteral("host")).toString().isEmpty() && connection.contains(QStringLiteral("host")))
                return fail(join(at, QStringLiteral("host")), QStringLiteral("the host is empty"));
            if (!integerIn(connection, QStringLiteral("port"), 1, 65535, at)
                || !integerIn(connection, QStringLiteral("unitId"), 0, 255, at)
                || !integerIn(connection, QStringLiteral("timeoutMs"), 1, 3600000, at)
                || !integerIn(connection, QStringLiteral("pollIntervalMs"), 1, 3600000, at))
                return false;
            config->connection = connection.toVariantMap();
            // JSON numbers arrive as doubles or 64-bit integers; the driver gets ints.
            for (auto it = config->connection.begin(); it != config->connection.end(); ++it)
                if (it.value().userType() != QMetaType::QString)
                    it.value() = it.value().toInt();
        }
        config->sourceFile = m_source;
        config->jsonPath = path;
        return true;
    }

    static QString join(const QString &path, const QString &key)
    {
        return path.isEmpty() ? key : path + QLatin1Char('.') + key;
    }

    QString m_source;
    QVariantList m_defaultChannels;
    QString m_error;
};

} // namespace

QUuid DeviceConfig::defaultPluginUuid() { return QUuid(c_e1212PluginUuid); }
QUuid DeviceConfig::defaultDriverUuid() { return QUuid(c_modbusDriverUuid); }

QVariantList DeviceConfig::channelTable() const
{
    const QString tableName = reference.section(QLatin1Char(' '), -1, -1) + QStringLiteral("_channels");
    return parameters.value(tableName).toList();
}

QList<DeviceConfig> DeviceConfig::loadFile(const QString &path, QString *error, const QVariantList &defaultChannels)
{
    QFile file(path);
    if (!file.open(QIODevice::ReadOnly)) {
        if (error)
            *error = QStringLiteral("%1: cannot read the configuration: %2").arg(path, file.errorString());
        return {};
    }
    auto tooLarge = [&] {
        if (error)
            *error = QStringLiteral("%1: the configuration is larger than %2 MiB").arg(path).arg(c_maxFileSize >> 20);
        return QList<DeviceConfig>();
    };
    if (!file.isSequential() && file.size() > c_maxFileSize)
        return tooLarge();
    // A stream (a device, a pipe) has no size: it is read to its end or one byte past the
    // limit, whichever comes first (a file read returns short only at the end).
    const QByteArray json = file.read(c_maxFileSize + 1);
    if (json.size() > c_maxFileSize)
        return tooLarge();
    return fromJson(json, path, error, defaultChannels);
}

QList<DeviceConfig> DeviceConfig::fromJson(const QByteArray &json, const QString &sourceName, QString *error,
                                           const QVariantList &defaultChannels)
{
    QJsonParseError parseError;
    const QJsonDocument document = QJsonDocument::fromJson(json, &parseError);
    if (parseError.error != QJsonParseError::NoError) {
        const QByteArray before = json.left(parseError.offset);
        const int line = before.count('\n') + 1;
        const int column = parseError.offset - (before.lastIndexOf('\n') + 1) + 1;
        if (error)
            *error = QStringLiteral("%1: line %2, column %3: JSON syntax error: %4")
                         .arg(sourceName).arg(line).arg(column).arg(parseError.errorString());
        return {};
    }
    Reader reader(sourceName, defaultChannels);
    QList<DeviceConfig> devices;
    const QJsonObject root = document.object();
    bool ok; // set on every branch below
    if (!document.isObject()) {
        ok = reader.fail(QStringLiteral("(top)"), QStringLiteral("expected a device object or {\"devices\": [...]}, found %1")
                                                     .arg(document.isArray() ? QStringLiteral("a list") : QStringLiteral("nothing")));
    } else if (root.contains(QStringLiteral("devices"))) {
        ok = reader.knownKeys(root, {QStringLiteral("devices")}, QString())
            && reader.expect(root.value(QStringLiteral("devices")), QJsonValue::Array, QStringLiteral("devices"), "a list of device objects");
        const QJsonArray list = root.value(QStringLiteral("devices")).toArray();
        if (ok && list.isEmpty())
            ok = reader.fail(QStringLiteral("devices"), QStringLiteral("the list is empty"));
        for (int i = 0; ok && i < list.size(); ++i) {
            DeviceConfig config;
            ok = reader.device(list.at(i), QStringLiteral("devices[%1]").arg(i), &config);
            for (const DeviceConfig &other : qAsConst(devices))
                if (ok && other.reference == config.reference)
                    ok = reader.fail(QStringLiteral("devices[%1].reference").arg(i),
                                     QStringLiteral("\"%1\" is used by %2 already").arg(config.reference, other.jsonPath));
            devices << config;
        }
    } else {
        DeviceConfig config;
        ok = reader.device(root, QString(), &config);
        devices << config;
    }
    if (!ok) {
        if (error)
            *error = reader.m_error;
        return {};
    }
    return devices;
}
