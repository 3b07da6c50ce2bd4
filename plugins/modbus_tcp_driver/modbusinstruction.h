// SPDX-License-Identifier: MIT
// One driver instruction ("read", "write", "listen") checked and turned into a Modbus data unit.
#pragma once

#include "dchanneltable.h"

#include <QModbusDataUnit>
#include <QString>
#include <QVariantMap>

class ModbusInstruction
{
public:
    enum Operation { Read, Write, Listen };

    // Parameter keys: "registerType" ("coilsRegister", "discreteInputs", "inputRegisters",
    // "holdingRegisters", case-sensitive), "register" (first address), "dataSize" (count
    // to read, default 1) and, for a write, "data" (a number, or a list written to
    // consecutive addresses; for a coil any non-zero value is ON).
    // False, with *error naming the register and what is wrong, when the instruction is
    // unknown, a key is missing or out of range, the run passes address 65535, the count
    // exceeds what one Modbus request carries, or a read-only table is written.
    static bool parse(const QString &instruction, const QVariantMap &parameters, ModbusInstruction *out,
                      QString *error);

    Operation operation() const { return m_operation; }
    // For a read or listen: table, start and count; for a write: table, start and values.
    const QModbusDataUnit &unit() const { return m_unit; }
    // "holdingRegisters register 256", or "... registers 256-263" for a run of the unit.
    static QString registerText(const QModbusDataUnit &unit);

    // Values as the driver's reply carries them (unsigned numbers).
    static QVariantList replyValues(const quint16 *values, int count);

    // The Modbus table of a register space and back (NoSpace <-> Invalid).
    static QModbusDataUnit::RegisterType tableOf(DChannelTable::RegisterSpace space);
    static DChannelTable::RegisterSpace spaceOf(QModbusDataUnit::RegisterType table);

private:
    Operation m_operation = Read;
    QModbusDataUnit m_unit;
};
