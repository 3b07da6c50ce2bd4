// SPDX-License-Identifier: MIT
// One driver instruction ("read", "write", "listen") checked and turned into a Modbus data unit.
#include "modbusinstruction.h"

namespace {
// "a, b, c or d"
QString alternatives(const QStringList &names)
{
    return names.mid(0, names.size() - 1).join(QStringLiteral(", ")) + QStringLiteral(" or ") + names.last();
}

// A whole number from a JSON double, an int, a bool or a numeric string.
bool toInteger(const QVariant &value, qlonglong *out)
{
    if (value.type() == QVariant::Bool) {
        *out = value.toBool() ? 1 : 0;
        return true;
    }
    bool ok = false;
    const double d = value.toDouble(&ok);
    if (!ok || d != double(qlonglong(d)))
        return false;
    *out = qlonglong(d);
    return true;
}
} // namespace

bool ModbusInstruction::parse(const QString &instruction, const QVariantMap &parameters, ModbusInstruction *out,
                              QString *error)
{
    const QString typeName = parameters.value(QStringLiteral("registerType")).toString();
    const QVariant registerValue = parameters.value(QStringLiteral("register"));
    // Texts are built only on failure.
    const auto fail = [&](const QString &problem) {
        if (error)
            *error = QStringLiteral("%1 register %2: %3")
                         .arg(typeName.isEmpty() ? QStringLiteral("(no register type)") : typeName,
                              registerValue.isValid() ? registerValue.toString() : QStringLiteral("(none)"), problem);
        return false;
    };

    ModbusInstruction result;
    if (instruction == QLatin1String("read"))
        result.m_operation = Read;
    else if (instruction == QLatin1String("write"))
        result.m_operation = Write;
    else if (instruction == QLatin1String("listen"))
        result.m_operation = Listen;
    else {
        if (error)
            *error = QStringLiteral("unknown instruction \"%1\" (expected read, write or listen)").arg(instruction);
        return false;
    }

    const DChannelTable::RegisterSpace space = DChannelTable::spaceFromName(typeName);
    if (space == DChannelTable::NoSpace)
        return fail(QStringLiteral("unknown register type \"%1\" (expected %2)")
                        .arg(typeName, alternatives(DChannelTable::spaceNames())));

    qlonglong start = 0;
    if (!registerValue.isValid())
        return fail(QStringLiteral("no \"register\" given"));
    if (!toInteger(registerValue, &start) || start < 0 || start > 0xFFFF)
        return fail(QStringLiteral("address %1 is outside 0-65535").arg(registerValue.toString()));

    QVector<quint16> values;
    qlonglong count = 1;
    if (result.m_operation == Write) {
        if (!DChannelTable::isWritable(space))
            return fail(QStringLiteral("%1 is read-only, it cannot be written").arg(typeName));
        const QVariant data = parameters.value(QStringLiteral("data"));
        QVariantList items;
        if (data.type() == QVariant::List || data.type() == QVariant::StringList)
            items = data.toList();
        else if (data.isValid())
            items = {data};
        if (items.isEmpty())
            return fail(QStringLiteral("no \"data\" to write"));
        values.reserve(items.size());
        for (int i = 0; i < items.size(); ++i) {
            qlonglong v = 0;
            const bool numeric = toInteger(items.at(i), &v);
            if (space == DChannelTable::Coils && numeric)
                values.append(v != 0 ? 1 : 0);
            else if (numeric && v >= 0 && v <= 0xFFFF)
                values.append(quint16(v));
            else
                return fail(QStringLiteral("data value \"%1\" for address %2 is not a number from 0 to 65535")
                                .arg(items.at(i).toString()).arg(start + i));
        }
        count = values.size();
    } else {
        const QVariant size = parameters.value(QStringLiteral("dataSize"));
        if (size.isValid() && (!toInteger(size, &count) || count < 0 || count > 0xFFFF))
            return fail(QStringLiteral("dataSize %1 is outside 0-65535").arg(size.toString()));
        if (count == 0)
            return fail(QStringLiteral("dataSize 0, nothing to read"));
    }

    const int limit = result.m_operation == Write ? DChannelTable::maxWriteCount(space) : DChannelTable::maxReadCount(space);
    if (start + count - 1 > 0xFFFF)
        return fail(QStringLiteral("%1 addresses from %2 run past the end of the table (last address 65535)")
                        .arg(count).arg(start));
    if (count > limit)
        return fail(QStringLiteral("%1 %2 in one request, at most %3 allowed")
                        .arg(count)
                        .arg(result.m_operation == Write ? QStringLiteral("values to write")
                                                         : QStringLiteral("values to read"))
                        .arg(limit));

    result.m_unit = QModbusDataUnit(tableOf(space), int(start), quint16(count));
    if (result.m_operation == Write)
        result.m_unit.setValues(values);
    *out = result;
    return true;
}

QString ModbusInstruction::registerText(const QModbusDataUnit &unit)
{
    const QString typeName = DChannelTable::spaceName(spaceOf(unit.registerType()));
    const int start = unit.startAddress();
    const int count = int(unit.valueCount());
    if (count <= 1)
        return QStringLiteral("%1 register %2").arg(typeName).arg(start);
    return QStringLiteral("%1 registers %2-%3").arg(typeName).arg(start).arg(start + count - 1);
}

QVariantList ModbusInstruction::replyValues(const quint16 *values, int count)
{
    QVariantList list;
    list.reserve(count);
    for (int i = 0; i < count; ++i)
        list.append(uint(values[i]));
    return list;
}

QModbusDataUnit::RegisterType ModbusInstruction::tableOf(DChannelTable::RegisterSpace space)
{
    switch (space) {
    case DChannelTable::Coils: return QModbusDataUnit::Coils;
    case DChannelTable::DiscreteInputs: return QModbusDataUnit::DiscreteInputs;
    case DChannelTable::InputRegisters: return QModbusDataUnit::InputRegisters;
    case DChannelTable::HoldingRegisters: return QModbusDataUnit::HoldingRegisters;
    case DChannelTable::NoSpace: break;
    }
    return QModbusDataUnit::Invalid;
}

DChannelTable::RegisterSpace ModbusInstruction::spaceOf(QModbusDataUnit::RegisterType table)
{
    switch (table) {
    case QModbusDataUnit::Coils: return DChannelTable::Coils;
    case QModbusDataUnit::DiscreteInputs: return DChannelTable::DiscreteInputs;
    case QModbusDataUnit::InputRegisters: return DChannelTable::InputRegisters;
    case QModbusDataUnit::HoldingRegisters: return DChannelTable::HoldingRegisters;
    case QModbusDataUnit::Invalid: break;
    }
    return DChannelTable::NoSpace;
}
