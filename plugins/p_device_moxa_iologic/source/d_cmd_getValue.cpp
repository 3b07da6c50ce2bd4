// SPDX-License-Identifier: MIT
#include "d_cmd_getValue.h"

#include "d_driver_instruction.h"
#include "d_reply_check.h"

namespace {
const char c_sourceFile[] = "plugins/p_device_moxa_iologic/source/d_cmd_getValue";
// The reply messages of this command are logged under this line.
const DReplyCheck c_replyCheck(c_sourceFile, __LINE__, __LINE__, __LINE__);
} // namespace

DCmdGetValue::DCmdGetValue(const QMap<QString, QVariant> &parameters, QObject *parent)
    : DAbstractCommand(QStringLiteral("getValue"), parameters, parent)
{
    setDescription(QStringLiteral("Return the mesured value on the GPIO pin"));
    declareAParameter(QStringLiteral("channel"), QStringLiteral("strg"), QStringLiteral("Channel name"), QVariant());
    declareAResult(QStringLiteral("value"), QStringLiteral("ui16"),
                   QStringLiteral("Return 0 or 1 for digital IO and a 16 bits unsigned interger for analog IO"), QVariant());
}

DCmdGetValue::DCmdGetValue(QObject *parent)
    : DCmdGetValue(QMap<QString, QVariant>(), parent)
{}

bool DCmdGetValue::commandExecute()
{
    if (!DAbstractCommand::commandExecute())
        return false;
    const QString channel = getParameterValue(QStringLiteral("channel"), QVariant()).toString();
    quint32 address = getInfoFromChannel(channel, QStringLiteral("register"), QMetaType::UInt, QVariant()).toUInt();
    const QString readType = getInfoFromChannel(channel, QStringLiteral("readRegisterType"), QMetaType::QString, QVariant()).toString();
    // An output read from the coil space is read in the pulse status area, by design.
    if (readType == QLatin1String("coilsRegister"))
        address += getInfoFromChannel(QStringLiteral("DO_PulseStatus"), QStringLiteral("register"), QMetaType::UInt, QVariant()).toUInt();
    const QVariantMap parameters{
        {QStringLiteral("register"), int(address & 0xFFFF)},
        {QStringLiteral("registerType"), readType},
    };
    addInstruction(QLatin1String(c_driverTarget), QStringLiteral("read"), parameters, c_driverTimeoutMs,
                   ReplyCallback(this, &DCmdGetValue::rplValue));
    return true;
}

bool DCmdGetValue::rplValue(unsigned long long, const QMap<QString, QVariant> &reply)
{
    QVariant first;
    if (!c_replyCheck.firstValue(this, reply, &first))
        return false;
    return commandUpdateResult(QStringLiteral("value"), QVariant(first.toUInt()));
}
