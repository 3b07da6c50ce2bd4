// SPDX-License-Identifier: MIT
#include "d_pulse_registers.h"

#include "d_driver_instruction.h"

DPulseRegisters::DPulseRegisters(const DAbstractCommand *command)
    : m_status(lookUp(command, QStringLiteral("DO_PulseStatus")))
    , m_onWidth(lookUp(command, QStringLiteral("DO_PulseOnWidth")))
    , m_offWidth(lookUp(command, QStringLiteral("DO_PulseOffWidth")))
{}

DPulseRegisters::Record DPulseRegisters::lookUp(const DAbstractCommand *command, const QString &record)
{
    Record found;
    found.address = quint16(command->getInfoFromChannel(record, QStringLiteral("register"), QMetaType::UInt, QVariant()).toUInt() & 0xFFFF);
    found.registerType = command->getInfoFromChannel(record, QStringLiteral("writeRegisterType"), QMetaType::QString, QVariant()).toString();
    return found;
}

void DPulseRegisters::writeWidths(DAbstractCommand *command, quint16 channelRegister, int onWidthData,
                                  int offWidthData, const DAbstractCommand::ReplyCallback &callback) const
{
    write(command, m_onWidth, channelRegister, onWidthData, callback);
    write(command, m_offWidth, channelRegister, offWidthData, callback);
}

void DPulseRegisters::writeStatus(DAbstractCommand *command, quint16 channelRegister, const QVariant &data,
                                  const DAbstractCommand::ReplyCallback &callback) const
{
    write(command, m_status, channelRegister, data, callback);
}

void DPulseRegisters::write(DAbstractCommand *command, const Record &record, quint16 channelRegister,
                            const QVariant &data, const DAbstractCommand::ReplyCallback &callback)
{
    // The sum of two 16-bit addresses goes out as it is: it is not wrapped to 16 bits.
    const QVariantMap parameters{
        {QStringLiteral("register"), int(channelRegister) + int(record.address)},
        {QStringLiteral("data"), data},
        {QStringLiteral("registerType"), record.registerType},
    };
    command->addInstruction(QLatin1String(c_driverTarget), QStringLiteral("write"), parameters, c_driverTimeoutMs, callback);
}
