// SPDX-License-Identifier: MIT
// Where and how the driver talks to one device: a device configuration's "connection".
#include "modbusconnectionsettings.h"

#include <QStringList>

namespace {
bool readInt(const QVariantMap &map, const QString &key, int min, int max, int *out, QString *error)
{
    const auto it = map.constFind(key);
    if (it == map.constEnd())
        return true;
    bool ok = false;
    const qlonglong value = it->toLongLong(&ok);
    // A fractional or textual value is a configuration mistake, not something to round.
    const bool integral = ok && (it->type() != QVariant::Double || it->toDouble() == double(value))
        && it->type() != QVariant::String;
    if (!integral || value < min || value > max) {
        if (error)
            *error = QStringLiteral("connection/%1: %2 is not a whole number from %3 to %4")
                         .arg(key, it->toString().isEmpty() ? QStringLiteral("the value") : it->toString())
                         .arg(min).arg(max);
        return false;
    }
    *out = int(value);
    return true;
}
} // namespace

bool ModbusConnectionSettings::fromMap(const QVariantMap &map, ModbusConnectionSettings *out, QString *error)
{
    static const QStringList known = {QStringLiteral("host"), QStringLiteral("port"), QStringLiteral("unitId"),
                                      QStringLiteral("timeoutMs"), QStringLiteral("pollIntervalMs")};
    for (auto it = map.constBegin(); it != map.constEnd(); ++it) {
        if (!known.contains(it.key())) {
            if (error)
                *error = QStringLiteral("connection/%1: unknown key (known keys: %2)")
                             .arg(it.key(), known.join(QStringLiteral(", ")));
            return false;
        }
    }
    ModbusConnectionSettings settings = *out;
    const auto host = map.constFind(QStringLiteral("host"));
    if (host != map.constEnd()) {
        if (host->type() != QVariant::String || host->toString().trimmed().isEmpty()) {
            if (error)
                *error = QStringLiteral("connection/host: expected a host name or address, got \"%1\"")
                             .arg(host->toString());
            return false;
        }
        settings.host = host->toString().trimmed();
    }
    if (!readInt(map, QStringLiteral("port"), 1, 65535, &settings.port, error)
        || !readInt(map, QStringLiteral("unitId"), 0, 255, &settings.unitId, error)
        || !readInt(map, QStringLiteral("timeoutMs"), 1, 3600000, &settings.timeoutMs, error)
        || !readInt(map, QStringLiteral("pollIntervalMs"), 1, 3600000, &settings.pollIntervalMs, error))
        return false;
    *out = settings;
    return true;
}

QString ModbusConnectionSettings::endpoint() const
{
    return QStringLiteral("%1:%2").arg(host).arg(port);
}

QString ModbusConnectionSettings::deviceText() const
{
    return QStringLiteral("device %1 (unit %2)").arg(endpoint()).arg(unitId);
}
