// SPDX-License-Identifier: MIT
// One driver instruction ("read", "write", "listen") checked and turned into a Modbus data unit.
#include "modbusinstruction.h"

namespace {
struct TableInfo {
    const char *name;
    QModbusDataUnit::RegisterType table;
    bool writable;
    int maxRead;  // per request: 2000 bits (FC1/FC2), 125 registers (FC3/FC4)
    int maxWrite; // per request: 1968 coils (FC15), 123 registers (FC16)
};

const TableInfo c_tables[] = {
    {"coilsRegister", QModbusDataUnit::Coils, true, 2000, 1968},
    {"discreteInputs", QModbusDataUnit::DiscreteInputs, false, 2000, 0},
    {"inputRegisters", QModbusDataUnit::InputRegisters, false, 125, 0},
    {"holdingRegisters", QModbusDataUnit::HoldingRegisters, true, 125, 123},
};

const TableInfo *findTable(const QString &name)
{
    for (const TableInfo &info : c_tables) {
        if (name == QLatin1String(info.name))
            return &info;
    }
    return nullptr;
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
    const auto fail = [error](const QString &text) {
        if (error)
            *error = text;
        return false;
    };

    ModbusInstruction result;
    if (instruction == QLatin1String("read"))
        result.m_operation = Read;
    else if (instruction == QLatin1String("write"))
        result.m_operation = Write;
    else if (instruction == QLatin1String("listen"))
        result.m_operation = Listen;
    else
        return fail(QStringLiteral("unknown instruction \"%1\" (expected read, write or listen)").arg(instruction));

    result.m_typeName = parameters.value(QStringLiteral("registerType")).toString();
    const QVariant registerValue = parameters.value(QStringLiteral("register"));
    const QString where = QStringLiteral("%1 register %2")
                              .arg(result.m_typeName.isEmpty() ? QStringLiteral("(no register type)")
                                                               : result.m_typeName,
                                   registerValue.isValid() ? registerValue.toString() : QStringLiteral("(none)"));
    const TableInfo *table = findTable(result.m_typeName);
    if (!table)
        return fail(QStringLiteral("%1: unknown register type \"%2\" (expected coilsRegister, discreteInputs, "
                                   "inputRegisters or holdingRegisters)")
                        .arg(where, result.m_typeName));

    qlonglong start = 0;
    if (!registerValue.isValid())
        return fail(QStringLiteral("%1: no \"register\" given").arg(where));
    if (!toInteger(registerValue, &start) || start < 0 || start > 0xFFFF)
        return fail(QStringLiteral("%1: address %2 is outside 0-65535").arg(where, registerValue.toString()));

    QVector<quint16> values;
    qlonglong count = 1;
    if (result.m_operation == Write) {
        if (!table->writable)
            return fail(QStringLiteral("%1: %2 is read-only, it cannot be written")
                            .arg(where, result.m_typeName));
        const QVariant data = parameters.value(QStringLiteral("data"));
        QVariantList items;
        if (data.type() == QVariant::List || data.type() == QVariant::StringList)
            items = data.toList();
        else if (data.isValid())
            items = {data};
        if (items.isEmpty())
            return fail(QStringLiteral("%1: no \"data\" to write").arg(where));
        for (int i = 0; i < items.size(); ++i) {
            qlonglong v = 0;
            const bool numeric = toInteger(items.at(i), &v);
            if (table->table == QModbusDataUnit::Coils && numeric) {
                values.append(v != 0 ? 1 : 0);
            } else if (numeric && v >= 0 && v <= 0xFFFF) {
                values.append(quint16(v));
            } else {
                return fail(QStringLiteral("%1: data value \"%2\" for address %3 is not a number from 0 to 65535")
                                .arg(where, items.at(i).toString())
                                .arg(start + i));
            }
        }
        count = values.size();
    } else {
        const QVariant size = parameters.value(QStringLiteral("dataSize"));
        if (size.isValid() && (!toInteger(size, &count) || count < 0 || count > 0xFFFF))
            return fail(QStringLiteral("%1: dataSize %2 is outside 0-65535").arg(where, size.toString()));
        if (count == 0)
            return fail(QStringLiteral("%1: dataSize 0, nothing to read").arg(where));
    }

    const int limit = result.m_operation == Write ? table->maxWrite : table->maxRead;
    if (start + count - 1 > 0xFFFF)
        return fail(QStringLiteral("%1: %2 addresses from %3 run past the end of the table (last address 65535)")
                        .arg(where).arg(count).arg(start));
    if (count > limit)
        return fail(QStringLiteral("%1: %2 %3 in one request, at most %4 allowed")
                        .arg(where).arg(count)
                        .arg(result.m_operation == Write ? QStringLiteral("values to write")
                                                         : QStringLiteral("values to read"))
                        .arg(limit));

    result.m_unit = QModbusDataUnit(table->table, int(start), quint16(count));
    if (result.m_operation == Write)
        result.m_unit.setValues(values);
    *out = result;
    return true;
}

QString ModbusInstruction::registerText() const
{
    const int start = m_unit.startAddress();
    const int count = int(m_unit.valueCount());
    if (count <= 1)
        return QStringLiteral("%1 register %2").arg(m_typeName).arg(start);
    return QStringLiteral("%1 registers %2-%3").arg(m_typeName).arg(start).arg(start + count - 1);
}

QVariantList ModbusInstruction::replyValues(const QModbusDataUnit &unit)
{
    QVariantList list;
    list.reserve(int(unit.valueCount()));
    for (quint16 value : unit.values())
        list.append(uint(value));
    return list;
}
