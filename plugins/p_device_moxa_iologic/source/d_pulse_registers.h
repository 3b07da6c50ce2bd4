// SPDX-License-Identifier: MIT
// The module's pulse generator registers, as the channel table's pulse register records
// give them, and the writes that drive one output through them.
#pragma once

#include "dabstractcommand.h"

class DPulseRegisters
{
public:
    // Reads "register" (low 16 bits) and "writeRegisterType" of the records
    // "DO_PulseStatus", "DO_PulseOnWidth" and "DO_PulseOffWidth", in that order, through
    // `command`'s channel table. A missing record gives register 0 and an empty type.
    explicit DPulseRegisters(const DAbstractCommand *command);

    // Queues the on-width write, then the off-width write, for the output whose own
    // register is `channelRegister`; both carry `callback`.
    void writeWidths(DAbstractCommand *command, quint16 channelRegister, int onWidthData, int offWidthData,
                     const DAbstractCommand::ReplyCallback &callback) const;
    // Queues the pulse status write for the output at `channelRegister`.
    void writeStatus(DAbstractCommand *command, quint16 channelRegister, const QVariant &data,
                     const DAbstractCommand::ReplyCallback &callback) const;

private:
    struct Record
    {
        quint16 address = 0;
        QString registerType;
    };

    static Record lookUp(const DAbstractCommand *command, const QString &record);
    static void write(DAbstractCommand *command, const Record &record, quint16 channelRegister,
                      const QVariant &data, const DAbstractCommand::ReplyCallback &callback);

    Record m_status;
    Record m_onWidth;
    Record m_offWidth;
};
