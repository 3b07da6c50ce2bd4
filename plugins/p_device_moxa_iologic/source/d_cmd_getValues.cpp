// SPDX-License-Identifier: MIT
#include "d_cmd_getValues.h"

#include "d_driver_instruction.h"

DCmdGetValues::DCmdGetValues(const QMap<QString, QVariant> &parameters, QObject *parent)
    : DAbstractCommand(QStringLiteral("getValues"), parameters, parent)
{
    setDescription(QStringLiteral("Return the mesured value on GPIO pins"));
    declareAParameter(QStringLiteral("channel"), QStringLiteral("strg"), QStringLiteral("Channel of the first gpio"), QVariant());
    declareAResult(QStringLiteral("values"), QStringLiteral("vart"), QStringLiteral("Return a list of GPIO values"), QVariant());
}

DCmdGetValues::DCmdGetValues(QObject *parent)
    : DCmdGetValues(QMap<QString, QVariant>(), parent)
{}

bool DCmdGetValues::commandExecute()
{
    if (!DAbstractCommand::commandExecute())
        return false;
    const QString channel = getParameterValue(QStringLiteral("channel"), QVariant()).toString();
    const quint32 address = getInfoFromChannel(channel, QStringLiteral("register"), QMetaType::UInt, QVariant()).toUInt();
    const quint32 size = getInfoFromChannel(channel, QStringLiteral("size"), QMetaType::UInt, QVariant()).toUInt();
    const QString readType = getInfoFromChannel(channel, QStringLiteral("readRegisterType"), QMetaType::QString, QVariant()).toString();
    const QVariantMap parameters{
        {QStringLiteral("register"), int(address & 0xFFFF)},
        {QStringLiteral("dataSize"), int(size & 0xFFFF)},
        {QStringLiteral("registerType"), readType},
    };
    addInstruction(QLatin1String(c_driverTarget), QStringLiteral("read"), parameters, c_driverTimeoutMs, ReplyCallback());
    return true;
}
