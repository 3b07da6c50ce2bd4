// SPDX-License-Identifier: MIT
// A Modbus TCP server for tests that answers wrong on purpose.
#pragma once

#include <QTcpServer>

// Each request gets a correct answer (zeros for a read, the echo for a write) unless a fault is set.
class ModbusFaultServer : public QTcpServer
{
    Q_OBJECT
public:
    // Truncated: without its last two bytes. LengthZero, LengthMax: MBAP length 0, 0xFFFF. RandomBytes: 1-40
    // random bytes instead. TrailingBytes: three more after it. WrongTransaction, WrongUnit: that id + 1.
    // EarlierTransaction: transaction id - 1. ProtocolOne: protocol id 1. SisterFunction: 1<->2, 3<->4, 5<->6,
    // 15<->16. WrongAddress, WrongValue: a write echo naming the next address, another value. Exception:
    // exception 6. Silent: no answer. Slow: the answer after delayMs. Drop: the connection closed instead.
    // Unsolicited: the answer, after delayMs a copy with the next transaction id (one not yet asked).
    enum Fault { None, Truncated, LengthZero, LengthMax, RandomBytes, TrailingBytes, WrongTransaction, WrongUnit,
                 EarlierTransaction, ProtocolOne, SisterFunction, WrongAddress, WrongValue, Exception, Silent, Slow,
                 Drop, Unsolicited };

    explicit ModbusFaultServer(QObject *parent = nullptr);
    bool start(quint16 port = 0) { return listen(QHostAddress::LocalHost, port); } // 0 picks a free port
    void stop(); // closes the listening socket and every connection
    int connectionCount() const;
    void setFault(Fault fault, int delayMs = 0) { m_fault = fault, m_delayMs = delayMs; } // from now on

private:
    void onReadyRead(QTcpSocket *socket);

    Fault m_fault = None;
    int m_delayMs = 0;
};
