// SPDX-License-Identifier: MIT
// A Modbus TCP server for tests that answers wrong on purpose.
#include "modbusfaultserver.h"

#include <QRandomGenerator>
#include <QTcpServer>
#include <QTcpSocket>
#include <QTimer>

ModbusFaultServer::ModbusFaultServer(QObject *parent)
    : QObject(parent)
    , m_server(new QTcpServer(this))
{
    connect(m_server, &QTcpServer::newConnection, this, [this] {
        while (QTcpSocket *socket = m_server->nextPendingConnection())
            connect(socket, &QTcpSocket::readyRead, this, [this, socket] { onReadyRead(socket); });
    });
}

bool ModbusFaultServer::start(quint16 port)
{
    if (!m_server->listen(QHostAddress::LocalHost, port))
        return false;
    m_port = m_server->serverPort();
    return true;
}

void ModbusFaultServer::stop()
{
    m_server->close();
    for (QTcpSocket *socket : m_server->findChildren<QTcpSocket *>()) {
        socket->abort();
        socket->deleteLater();
    }
}

int ModbusFaultServer::connectionCount() const
{
    int open = 0;
    for (const QTcpSocket *socket : m_server->findChildren<QTcpSocket *>())
        open += socket->state() == QAbstractSocket::ConnectedState ? 1 : 0;
    return open;
}

void ModbusFaultServer::setFault(Fault fault, int delayMs)
{
    m_fault = fault;
    m_delayMs = delayMs;
}

void ModbusFaultServer::onReadyRead(QTcpSocket *socket)
{
    QByteArray bytes = socket->property("pending").toByteArray() + socket->readAll();
    while (bytes.size() >= 7 && bytes.size() >= 6 + (quint8(bytes[4]) << 8 | quint8(bytes[5]))) {
        const int size = 6 + (quint8(bytes[4]) << 8 | quint8(bytes[5]));
        const QByteArray request = bytes.left(size);
        bytes.remove(0, size);
        if (m_fault == Drop) {
            socket->abort();
            socket->deleteLater();
            return;
        }
        const QByteArray reply = answer(request);
        if (m_fault == Slow) {
            QTimer::singleShot(m_delayMs, Qt::PreciseTimer, socket, [socket, reply] { socket->write(reply); });
        } else if (m_fault != Silent) {
            socket->write(reply);
            if (m_fault == Unsolicited)
                QTimer::singleShot(m_delayMs, socket, [socket, reply] { socket->write(reply); });
        }
    }
    socket->setProperty("pending", bytes);
}

QByteArray ModbusFaultServer::answer(const QByteArray &request) const
{
    QByteArray reply = request.left(8); // MBAP + function code
    const quint8 fc = quint8(request[7]);
    const int count = quint8(request[10]) << 8 | quint8(request[11]);
    if (fc <= 4) {
        const int bytes = fc <= 2 ? (count + 7) / 8 : 2 * count;
        reply += char(bytes) + QByteArray(bytes, '\0');
    } else {
        reply += request.mid(8, 4); // address + value, or address + quantity
    }
    reply[4] = char((reply.size() - 6) >> 8);
    reply[5] = char(reply.size() - 6);
    switch (m_fault) {
    case Truncated: reply.chop(2); break;
    case LengthZero: reply[4] = reply[5] = 0; break;
    case LengthMax: reply[4] = reply[5] = char(0xFF); break;
    case RandomBytes: {
        reply.resize(1 + QRandomGenerator::global()->bounded(40));
        for (char &byte : reply)
            byte = char(QRandomGenerator::global()->bounded(256));
        break;
    }
    case TrailingBytes: reply += QByteArray(3, '\x01'); break;
    case WrongTransaction: reply[1] = char(reply[1] + 1); break;
    case WrongUnit: reply[6] = char(reply[6] + 1); break;
    case ProtocolOne: reply[3] = 1; break;
    case SisterFunction: reply[7] = char(fc == 15 || fc == 16 ? 31 - fc : ((fc - 1) ^ 1) + 1); break;
    case WrongAddress: reply[9] = char(reply[9] + 1); break;
    case WrongValue: reply[11] = char(reply[11] + 1); break;
    case Exception: reply = request.left(7) + char(fc | 0x80) + char(6); reply[5] = 3; reply[4] = 0; break;
    default: break;
    }
    return reply;
}
