// SPDX-License-Identifier: MIT
// One Modbus TCP request as the simulator served it, for its request log.
#pragma once

#include <QByteArray>
#include <QDateTime>
#include <QMetaType>
#include <QString>
#include <QVector>

struct SimulatorRequest
{
    QDateTime time;             // when the answer was made (held-back answers leave later)
    QString client;             // "127.0.0.1:40512"
    quint16 transactionId = 0;
    int functionCode = 0;
    int address = -1;           // -1: the function has none, or the request is too short
    int count = 0;              // a read's quantity
    QVector<quint16> values;    // a write's values (a coil as 0 or 1)
    int exceptionCode = 0;      // 0: a normal answer

    // "2026-11-21T12:00:00.123 127.0.0.1:40512 fc 1 address 0 count 8", a write with
    // "values 1 0 1", " exception 2" appended when one was sent, " truncated" for a
    // request too short for its function code.
    QString toString() const;

    // The size of the Modbus TCP frame at the start of `buffer`: 0 while its header is
    // incomplete or its body still missing, -1 when the length field cannot be one.
    static int frameSize(const QByteArray &buffer);
    // Decodes a whole request frame (header included) sent by `client`.
    static SimulatorRequest fromFrame(const QByteArray &frame, const QString &client);
};

Q_DECLARE_METATYPE(SimulatorRequest)
