// SPDX-License-Identifier: MIT
// Modbus TCP frames (MBAP header + PDU) as the driver writes them and checks the answers.
#pragma once

#include "derror.h"

#include <QByteArray>
#include <QModbusDataUnit>
#include <QVector>

// Qt's QModbusTcpClient is not used: it cannot resynchronise after a broken frame, does
// not check the unit and protocol ids or the echo of a write, and keeps a time-out of its
// own. The framing and every check of an answer are therefore here; Qt SerialBus only
// lends QModbusDataUnit as the container of a request.
class ModbusFrame
{
public:
    enum Status { Incomplete, Complete };

    // The function code of a request: 1-4 for a read of coils, discrete inputs, holding or
    // input registers; 5/6 to write one coil/register, 15/16 to write a list.
    static quint8 functionCode(const QModbusDataUnit &unit, bool write);
    // The whole request frame.
    static QByteArray request(quint16 transactionId, quint8 unitId, const QModbusDataUnit &unit, bool write);

    // Checks the bytes received so far against the request. Incomplete: a well-formed start
    // of the answer, more bytes are due. Complete: *error tells the outcome: CeNoError with
    // *values filled (reads only), CeModbusException with the exception number, or
    // CeMalformedReply with a cause saying what was expected and what came (the header is
    // judged as soon as it is there, so a broken length or id never waits for more bytes).
    static Status checkReply(const QByteArray &bytes, quint16 transactionId, quint8 unitId,
                             const QModbusDataUnit &unit, bool write, DError *error, QVector<quint16> *values);

    // The size the frame at the start of `bytes` gives itself in its header (6 + length
    // field); 0 while fewer than 6 bytes are there.
    static int frameSize(const QByteArray &bytes);
    // Whether `bytes` start with an answer to one of the `count` transactions up to and
    // including `lastId`: -1 when they cannot (another id, a protocol id other than 0, another
    // unit, a length field outside 3-254); otherwise the size of that frame, HeaderSize while
    // its header is incomplete. Only the header is judged: such an answer is dropped unread.
    static int earlierAnswerSize(const QByteArray &bytes, quint16 lastId, int count, quint8 unitId);

    static constexpr int HeaderSize = 7; // MBAP: transaction, protocol, length, unit
    // Length field of an answer: unit id, function code and at least one byte, at most the
    // unit id and the largest PDU (253 bytes).
    static constexpr int MinLength = 3;
    static constexpr int MaxLength = 254;
};
