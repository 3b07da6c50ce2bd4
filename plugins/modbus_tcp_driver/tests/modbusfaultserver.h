// SPDX-License-Identifier: MIT
// A Modbus TCP server for tests that answers wrong on purpose: each request gets a correct
// answer (zeros for a read, the echo for a write) unless a fault is set.
#pragma once

#include <QObject>

class QTcpServer;
class QTcpSocket;

class ModbusFaultServer : public QObject
{
    Q_OBJECT
public:
    enum Fault {
        None,
        Truncated,        // the answer without its last two bytes
        LengthZero,       // MBAP length field 0
        LengthMax,        // MBAP length field 0xFFFF
        RandomBytes,      // 1-40 random bytes instead of the answer
        TrailingBytes,    // the answer followed by three more bytes
        WrongTransaction, // transaction id + 1
        WrongUnit,        // unit id + 1
        ProtocolOne,      // protocol id 1
        SisterFunction,   // 1<->2, 3<->4, 5<->6, 15<->16
        WrongAddress,     // a write echo naming the next address
        WrongValue,       // a write echo with another value (or quantity)
        Exception,        // exception 6, server device busy
        Silent,           // no answer
        Slow,             // the answer after delayMs
        Drop,             // the connection closed instead of an answer
        Unsolicited,      // the answer, and a copy of it after delayMs
    };
    Q_ENUM(Fault)

    explicit ModbusFaultServer(QObject *parent = nullptr);

    // Listens on loopback; port 0 picks a free one.
    bool start(quint16 port = 0);
    // Closes the listening socket and every connection.
    void stop();
    quint16 port() const { return m_port; }
    int connectionCount() const;

    // Applies to every request from now on.
    void setFault(Fault fault, int delayMs = 0);

private:
    void onReadyRead(QTcpSocket *socket);
    QByteArray answer(const QByteArray &request) const;

    QTcpServer *m_server = nullptr;
    quint16 m_port = 0;
    Fault m_fault = None;
    int m_delayMs = 0;
};
