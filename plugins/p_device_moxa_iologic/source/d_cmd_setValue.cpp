// SPDX-License-Identifier: MIT
#include "d_cmd_setValue.h"

#include "d_driver_instruction.h"
#include "d_pulse_registers.h"
#include "d_reply_check.h"

namespace {
const char c_sourceFile[] = "plugins/p_device_moxa_iologic/source/d_cmd_setValue";
// Lines under which the reply messages are logged: list empty, not a list, no "values".
const DReplyCheck c_readForMaskCheck(c_sourceFile, 136, 139, 142);
const DReplyCheck c_writeDoneCheck(c_sourceFile, 168, 171, 174);
constexpr quint16 c_noMask = 0xFFFF;
constexpr int c_widthRunning = 65535;
constexpr int c_widthShort = 1;
} // namespace

DCmdSetValue::DCmdSetValue(const QMap<QString, QVariant> &parameters, QObject *parent)
    : DAbstractCommand(QStringLiteral("setValue"), parameters, parent)
{
    setDescription(QStringLiteral("Set the value of a GPIO pin"));
    declareAParameter(QStringLiteral("channel"), QStringLiteral("strg"), QStringLiteral("Channel name"), QVariant(QStringLiteral("")));
    declareAParameter(QStringLiteral("value"), QStringLiteral("ui16"), QStringLiteral("Value to set on the GPIO"), QVariant(QStringLiteral("")));
    declareAParameter(QStringLiteral("bitMask"), QStringLiteral("ui16"), QStringLiteral("Value to set on the GPIO"), QVariant(int(c_noMask)));
    declareAResult(QStringLiteral("doneOk"), QStringLiteral("bool"), QStringLiteral("Job done"), QVariant(false));
}

DCmdSetValue::DCmdSetValue(QObject *parent)
    : DCmdSetValue(QMap<QString, QVariant>(), parent)
{}

QSharedPointer<ICommand> DCmdSetValue::createCommand(const QMap<QString, QVariant> &parameters) const
{
    return QSharedPointer<DCmdSetValue>(new DCmdSetValue(parameters, parent()));
}

bool DCmdSetValue::commandExecute()
{
    if (!DAbstractCommand::commandExecute())
        return false;
    m_channel = getParameterValue(QStringLiteral("channel"), QVariant()).toString();
    m_register = quint16(getInfoFromChannel(m_channel, QStringLiteral("register"), QMetaType::UInt, QVariant()).toUInt() & 0xFFFF);
    m_bitMask = quint16(getParameterValue(QStringLiteral("bitMask"), QVariant()).toUInt() & 0xFFFF);
    const QString readType = getInfoFromChannel(m_channel, QStringLiteral("readRegisterType"), QMetaType::QString, QVariant()).toString();

    if (m_bitMask != c_noMask) {
        const QVariantMap parameters{
            {QStringLiteral("register"), int(m_register)},
            {QStringLiteral("registerType"), readType},
        };
        addInstruction(QLatin1String(c_driverTarget), QStringLiteral("read"), parameters, c_driverTimeoutMs,
                       ReplyCallback(this, &DCmdSetValue::rplReadForMask));
        return true;
    }

    const bool activeHigh = getInfoFromChannel(m_channel, QStringLiteral("activeLevelHigh"), QMetaType::Bool, QVariant(false)).toBool();
    const quint16 value = quint16(getParameterValue(QStringLiteral("value"), QVariant()).toUInt() & 0xFFFF);
    const int onWidth = value != 0 ? c_widthRunning : c_widthShort;
    const int offWidth = c_widthShort;
    const DPulseRegisters pulse(this);
    pulse.writeWidths(this, m_register, activeHigh ? onWidth : offWidth, activeHigh ? offWidth : onWidth,
                      ReplyCallback(this, &DCmdSetValue::rplAccept));
    // The value itself goes to the status register (2 stays 2).
    pulse.writeStatus(this, m_register, int(value), ReplyCallback(this, &DCmdSetValue::rplWriteDone));
    return true;
}

bool DCmdSetValue::rplReadForMask(unsigned long long, const QMap<QString, QVariant> &reply)
{
    QVariant first;
    if (!c_readForMaskCheck.firstValue(this, reply, &first))
        return false;
    const quint32 current = first.toUInt();
    const quint32 value = getParameterValue(QStringLiteral("value"), QVariant()).toUInt();
    const QString writeType = getInfoFromChannel(m_channel, QStringLiteral("writeRegisterType"), QMetaType::QString, QVariant()).toString();
    const quint32 mask = m_bitMask;
    const QVariantMap parameters{
        {QStringLiteral("register"), int(m_register)},
        {QStringLiteral("data"), int(((current & ~mask) | (value & mask)) & 0xFFFF)},
        {QStringLiteral("registerType"), writeType},
    };
    addInstruction(QLatin1String(c_driverTarget), QStringLiteral("write"), parameters, c_driverTimeoutMs,
                   ReplyCallback(this, &DCmdSetValue::rplWriteDone));
    return true;
}

bool DCmdSetValue::rplWriteDone(unsigned long long, const QMap<QString, QVariant> &reply)
{
    return c_writeDoneCheck.postDoneOk(this, reply);
}

bool DCmdSetValue::rplAccept(unsigned long long, const QMap<QString, QVariant> &)
{
    return true;
}
