// SPDX-License-Identifier: MIT
#include "d_cmd_setValues.h"

#include "d_pulse_registers.h"
#include "d_reply_check.h"

namespace {
const char c_sourceFile[] = "plugins/p_device_moxa_iologic/source/d_cmd_setValues";
// Lines under which the reply messages are logged: list empty, not a list, no "values".
const DReplyCheck c_writeDoneCheck(c_sourceFile, 110, 113, 116);

quint16 widthArgument(const DAbstractCommand *command, const QString &name)
{
    const quint16 width = quint16(command->getParameterValue(name, QVariant()).toUInt() & 0xFFFF);
    // A missing, non-numeric or zero width is the shortest one the module takes.
    return width == 0 ? 1 : width;
}
} // namespace

DCmdSetValues::DCmdSetValues(const QMap<QString, QVariant> &parameters, QObject *parent)
    : DAbstractCommand(QStringLiteral("setValues"), parameters, parent)
{
    setDescription(QStringLiteral("Return the mesured value on the GPIO pin"));
    for (const DCommandArgument &parameter : pulseParameters())
        declareAParameter(parameter.name, parameter.typeCode, parameter.description, parameter.defaultValue);
}

DCmdSetValues::DCmdSetValues(QObject *parent)
    : DCmdSetValues(QMap<QString, QVariant>(), parent)
{}

QSharedPointer<ICommand> DCmdSetValues::createCommand(const QMap<QString, QVariant> &parameters) const
{
    return QSharedPointer<DCmdSetValues>(new DCmdSetValues(parameters, parent()));
}

bool DCmdSetValues::commandExecute()
{
    if (!DAbstractCommand::commandExecute())
        return false;
    sendPulseWrites(this);
    return true;
}

bool DCmdSetValues::rplWriteDone(unsigned long long, const QMap<QString, QVariant> &reply)
{
    return c_writeDoneCheck.postDoneOk(this, reply);
}

DCommandArguments DCmdSetValues::pulseParameters()
{
    const QVariant emptyText{QStringLiteral("")};
    const auto parameter = [&emptyText](const char *name, const char *typeCode, const char *description) {
        return DCommandArgument{DCommandArgument::CeParameter, QLatin1String(name), QLatin1String(typeCode),
                                QLatin1String(description), emptyText};
    };
    return {
        parameter("channel", "strg", "Channel name"),
        parameter("pulseOnWidth", "int", "On pulse width (ms)"),
        parameter("pulseOffWidth", "int", "Off pulse width (ms)"),
        parameter("values", "varL", "Values to set on the channel"),
    };
}

void DCmdSetValues::sendPulseWrites(DAbstractCommand *command)
{
    const QString channel = command->getParameterValue(QStringLiteral("channel"), QVariant()).toString();
    const quint16 channelRegister = quint16(command->getInfoFromChannel(channel, QStringLiteral("register"), QMetaType::UInt, QVariant()).toUInt() & 0xFFFF);
    // The widths go to the module in the caller's unit (ms), unscaled.
    const int onWidth = widthArgument(command, QStringLiteral("pulseOnWidth"));
    const int offWidth = widthArgument(command, QStringLiteral("pulseOffWidth"));
    const bool activeHigh = command->getInfoFromChannel(channel, QStringLiteral("activeLevelHigh"), QMetaType::Bool, QVariant(false)).toBool();
    const DPulseRegisters pulse(command);
    pulse.writeWidths(command, channelRegister, activeHigh ? onWidth : offWidth, activeHigh ? offWidth : onWidth,
                      DAbstractCommand::ReplyCallback());
    // The caller's list goes out untouched; the driver spreads it over consecutive
    // status registers, one output per element.
    pulse.writeStatus(command, channelRegister, command->getParameterValue(QStringLiteral("values"), QVariant()),
                      DAbstractCommand::ReplyCallback());
}
