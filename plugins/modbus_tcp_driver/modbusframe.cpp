// SPDX-License-Identifier: MIT
// Modbus TCP frames (MBAP header + PDU) as the driver writes them and checks the answers.
#include "modbusframe.h"

#include "modbusinstruction.h"

namespace {
bool isBits(QModbusDataUnit::RegisterType table)
{
    return DChannelTable::isBitSpace(ModbusInstruction::spaceOf(table));
}

void put16(char *at, int value)
{
    at[0] = char((value >> 8) & 0xFF);
    at[1] = char(value & 0xFF);
}

int get16(const uchar *at)
{
    return at[0] << 8 | at[1];
}

// Bytes of the PDU after the function code in a complete normal answer.
int answerDataSize(const QModbusDataUnit &unit, bool write)
{
    if (write)
        return 4; // address + value, or address + quantity
    const int count = int(unit.valueCount());
    return 1 + (isBits(unit.registerType()) ? (count + 7) / 8 : 2 * count);
}

ModbusFrame::Status malformed(DError *error, const QString &cause)
{
    error->code = IMessenger::CeMalformedReply;
    error->text = QStringLiteral("malformed reply: ") + cause;
    return ModbusFrame::Complete;
}
} // namespace

quint8 ModbusFrame::functionCode(const QModbusDataUnit &unit, bool write)
{
    const bool list = unit.valueCount() > 1;
    switch (unit.registerType()) {
    case QModbusDataUnit::Coils: return write ? (list ? 15 : 5) : 1;
    case QModbusDataUnit::DiscreteInputs: return 2;
    case QModbusDataUnit::HoldingRegisters: return write ? (list ? 16 : 6) : 3;
    case QModbusDataUnit::InputRegisters: return 4;
    default: return 0;
    }
}

QByteArray ModbusFrame::request(quint16 transactionId, quint8 unitId, const QModbusDataUnit &unit, bool write)
{
    const quint8 fc = functionCode(unit, write);
    const int count = int(unit.valueCount());
    int dataSize = 4; // address + count, or address + value
    if (fc == 15)
        dataSize = 5 + (count + 7) / 8;
    else if (fc == 16)
        dataSize = 5 + 2 * count;
    QByteArray frame(HeaderSize + 1 + dataSize, '\0');
    char *p = frame.data();
    put16(p, transactionId);
    put16(p + 4, 2 + dataSize); // unit id + function code + data
    p[6] = char(unitId);
    p[7] = char(fc);
    put16(p + 8, unit.startAddress());
    if (fc == 5) {
        put16(p + 10, unit.value(0) ? 0xFF00 : 0x0000);
    } else if (fc == 6) {
        put16(p + 10, unit.value(0));
    } else {
        put16(p + 10, count);
        if (fc == 15) {
            p[12] = char((count + 7) / 8);
            for (int i = 0; i < count; ++i) {
                if (unit.value(i))
                    p[13 + i / 8] = char(p[13 + i / 8] | (1 << (i % 8)));
            }
        } else if (fc == 16) {
            p[12] = char(2 * count);
            for (int i = 0; i < count; ++i)
                put16(p + 13 + 2 * i, unit.value(i));
        }
    }
    return frame;
}

int ModbusFrame::frameSize(const QByteArray &bytes)
{
    return bytes.size() < 6 ? 0 : 6 + get16(reinterpret_cast<const uchar *>(bytes.constData()) + 4);
}

int ModbusFrame::earlierAnswerSize(const QByteArray &bytes, quint16 lastId, int count, quint8 unitId)
{
    const auto *b = reinterpret_cast<const uchar *>(bytes.constData());
    const int size = bytes.size();
    if (count <= 0 || (size >= 2 && quint16(lastId - get16(b)) >= count) || (size >= 4 && get16(b + 2) != 0))
        return -1;
    if (size < 6)
        return HeaderSize;
    const int length = get16(b + 4);
    if (length < MinLength || length > MaxLength || (size >= HeaderSize && b[6] != unitId))
        return -1;
    return 6 + length;
}

ModbusFrame::Status ModbusFrame::checkReply(const QByteArray &bytes, quint16 transactionId, quint8 unitId,
                                            const QModbusDataUnit &unit, bool write, DError *error,
                                            QVector<quint16> *values)
{
    if (bytes.size() < HeaderSize)
        return Incomplete;
    const auto *b = reinterpret_cast<const uchar *>(bytes.constData());
    const int transaction = get16(b);
    const int protocol = get16(b + 2);
    const int length = get16(b + 4); // unit id + PDU
    if (protocol != 0)
        return malformed(error, QStringLiteral("protocol id %1, expected 0").arg(protocol));
    if (transaction != transactionId)
        return malformed(error, QStringLiteral("transaction id %1, expected %2").arg(transaction).arg(transactionId));
    if (b[6] != unitId)
        return malformed(error, QStringLiteral("unit id %1, expected %2").arg(b[6]).arg(unitId));
    if (length < MinLength || length > MaxLength)
        return malformed(error, QStringLiteral("length field %1, expected %2 to %3").arg(length).arg(MinLength).arg(MaxLength));
    if (bytes.size() < 6 + length)
        return Incomplete;
    if (bytes.size() > 6 + length)
        return malformed(error, QStringLiteral("%1 bytes after a frame whose length field is %2")
                                    .arg(bytes.size() - 6 - length).arg(length));

    const quint8 fc = functionCode(unit, write);
    const uchar *pdu = b + HeaderSize;
    const int pduSize = length - 1;
    if (pdu[0] == (fc | 0x80)) {
        if (pduSize != 2)
            return malformed(error, QStringLiteral("exception answer of %1 bytes, expected 2").arg(pduSize));
        error->code = IMessenger::CeModbusException;
        error->exceptionCode = pdu[1];
        error->text = QStringLiteral("Modbus exception %1 (%2)").arg(pdu[1]).arg(DError::exceptionName(pdu[1]));
        return Complete;
    }
    if (pdu[0] != fc)
        return malformed(error, QStringLiteral("function code %1, expected %2").arg(pdu[0]).arg(fc));
    const int dataSize = answerDataSize(unit, write);
    if (pduSize - 1 != dataSize)
        return malformed(error, QStringLiteral("%1 data bytes, expected %2").arg(pduSize - 1).arg(dataSize));

    const int count = int(unit.valueCount());
    if (write) {
        const int address = get16(pdu + 1);
        const int echoed = get16(pdu + 3);
        const int expected = fc == 5 ? (unit.value(0) ? 0xFF00 : 0) : fc == 6 ? unit.value(0) : count;
        if (address != unit.startAddress())
            return malformed(error, QStringLiteral("write echo names address %1, expected %2")
                                        .arg(address).arg(unit.startAddress()));
        if (echoed != expected)
            return malformed(error, QStringLiteral("write echo carries %1 %2, expected %3")
                                        .arg(fc == 5 || fc == 6 ? QStringLiteral("value") : QStringLiteral("quantity"))
                                        .arg(echoed).arg(expected));
        return Complete;
    }
    if (pdu[1] != dataSize - 1)
        return malformed(error, QStringLiteral("byte count %1 for %2 values, expected %3")
                                    .arg(pdu[1]).arg(count).arg(dataSize - 1));
    values->resize(count);
    quint16 *out = values->data();
    if (isBits(unit.registerType())) {
        for (int i = 0; i < count; ++i)
            out[i] = (pdu[2 + i / 8] >> (i % 8)) & 1;
    } else {
        for (int i = 0; i < count; ++i)
            out[i] = quint16(get16(pdu + 2 + 2 * i));
    }
    return Complete;
}
