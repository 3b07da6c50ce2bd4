// SPDX-License-Identifier: MIT
// One Modbus TCP request as the simulator served it, for its request log.
#include "simulatorrequest.h"

#include <QtEndian>

namespace {
constexpr int HeaderSize = 7; // transaction id, protocol id, length, unit id
constexpr int MaxLength = 254; // unit id and the largest PDU

quint16 word(const QByteArray &bytes, int at)
{
    return qFromBigEndian<quint16>(bytes.constData() + at);
}
} // namespace

int SimulatorRequest::frameSize(const QByteArray &buffer)
{
    if (buffer.size() < HeaderSize)
        return 0;
    const int length = word(buffer, 4);
    if (length < 2 || length > MaxLength)
        return -1;
    return buffer.size() >= 6 + length ? 6 + length : 0;
}

SimulatorRequest SimulatorRequest::fromFrame(const QByteArray &frame, const QString &client)
{
    SimulatorRequest request;
    request.client = client;
    request.transactionId = word(frame, 0);
    request.functionCode = quint8(frame.at(HeaderSize));
    const QByteArray pdu = frame.mid(HeaderSize + 1);
    auto has = [&pdu](int bytes) { return pdu.size() >= bytes; };
    switch (request.functionCode) {
    case 1: case 2: case 3: case 4:
        if (has(4)) {
            request.address = word(pdu, 0);
            request.count = word(pdu, 2);
        }
        break;
    case 5: case 6:
        if (has(4)) {
            request.address = word(pdu, 0);
            const quint16 value = word(pdu, 2);
            request.values = {request.functionCode == 5 && value == 0xFF00 ? quint16(1) : value};
        }
        break;
    case 15:
        if (has(5) && has(5 + quint8(pdu.at(4)))) {
            request.address = word(pdu, 0);
            const int quantity = qMin<int>(word(pdu, 2), quint8(pdu.at(4)) * 8);
            for (int bit = 0; bit < quantity; ++bit)
                request.values.append((quint8(pdu.at(5 + bit / 8)) >> (bit % 8)) & 1);
        }
        break;
    case 16:
        if (has(5) && has(5 + quint8(pdu.at(4)))) {
            request.address = word(pdu, 0);
            const int quantity = qMin<int>(word(pdu, 2), quint8(pdu.at(4)) / 2);
            for (int i = 0; i < quantity; ++i)
                request.values.append(word(pdu, 5 + 2 * i));
        }
        break;
    default:
        break;
    }
    return request;
}

QString SimulatorRequest::toString() const
{
    QString line = time.toString(Qt::ISODateWithMs) + QLatin1Char(' ') + client
        + QStringLiteral(" fc ") + QString::number(functionCode);
    const bool known = (functionCode >= 1 && functionCode <= 6) || functionCode == 15 || functionCode == 16;
    if (address >= 0) {
        line += QStringLiteral(" address ") + QString::number(address);
        if (functionCode <= 4) {
            line += QStringLiteral(" count ") + QString::number(count);
        } else {
            line += QStringLiteral(" values");
            for (quint16 value : values)
                line += QLatin1Char(' ') + QString::number(value);
        }
    } else if (known) {
        line += QStringLiteral(" truncated");
    }
    if (exceptionCode != 0)
        line += QStringLiteral(" exception ") + QString::number(exceptionCode);
    return line;
}
