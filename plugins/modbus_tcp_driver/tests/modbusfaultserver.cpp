// SPDX-License-Identifier: MIT
// A Modbus TCP server for tests that answers wrong on purpose.
#include "modbusfaultserver.h"

#include <QRandomGenerator>
#include <QTcpSocket>
#include <QTimer>

ModbusFaultServer::ModbusFaultServer(QObject *parent)
    : QTcpServer(parent)
{
    connect(this, &QTcpServer::newConnection, this, [this] {
        while (QTcpSocket *socket = nextPendingConnection())
            connect(socket, &QTcpSocket::readyRead, this, [this, socket] { onReadyRead(socket); });
    });
}

void ModbusFaultServer::stop()
{
    close();
    for (QTcpSocket *socket : findChildren<QTcpSocket *>()) {
        socket->abort();
        socket->deleteLater();
    }
}

int ModbusFaultServer::connectionCount() const
{
    const QList<QTcpSocket *> sockets = findChildren<QTcpSocket *>();
    return int(std::count_if(sockets.begin(), sockets.end(),
                             [](QTcpSocket *s) { return s->state() == QAbstractSocket::ConnectedState; }));
}

void ModbusFaultServer::onReadyRead(QTcpSocket *socket)
{
    QByteArray bytes = socket->property("pending").toByteArray() + socket->readAll();
    for (int size; bytes.size() >= 7 && bytes.size() >= (size = 6 + (quint8(bytes[4]) << 8 | quint8(bytes[5])));) {
        const QByteArray request = bytes.left(size);
        bytes.remove(0, size);
        const quint8 fc = quint8(request[7]);
        const int count = quint8(request[10]) << 8 | quint8(request[11]);
        const int dataBytes = fc <= 2 ? (count + 7) / 8 : 2 * count;
        // MBAP + function code, then the read's byte count and zeros or the write's address and value
        QByteArray reply = request.left(8) + (fc <= 4 ? char(dataBytes) + QByteArray(dataBytes, '\0') : request.mid(8, 4));
        reply[4] = char((reply.size() - 6) >> 8);
        reply[5] = char(reply.size() - 6);
        switch (m_fault) {
        case Truncated: reply.chop(2); break;
        case LengthZero: reply[4] = reply[5] = 0; break;
        case LengthMax: reply[4] = reply[5] = char(0xFF); break;
        case RandomBytes:
            reply.resize(1 + QRandomGenerator::global()->bounded(40));
            for (char &byte : reply)
                byte = char(QRandomGenerator::global()->bounded(256));
            break;
        case TrailingBytes: reply += QByteArray(3, '\x01'); break;
        case WrongTransaction: reply[1] = char(reply[1] + 1); break;
        case WrongUnit: reply[6] = char(reply[6] + 1); break;
        case EarlierTransaction: reply[1] = char(reply[1] - 1); break;
        case ProtocolOne: reply[3] = 1; break;
        case SisterFunction: reply[7] = char(fc == 15 || fc == 16 ? 31 - fc : ((fc - 1) ^ 1) + 1); break;
        case WrongAddress: reply[9] = char(reply[9] + 1); break;
        case WrongValue: reply[11] = char(reply[11] + 1); break;
        case Exception: reply = request.left(4) + QByteArray("\0\3", 2) + request[6] + char(fc | 0x80) + char(6); break;
        case Silent: reply.clear(); break;
        case Slow: QTimer::singleShot(m_delayMs, Qt::PreciseTimer, socket, [socket, reply] { socket->write(reply); });
            reply.clear(); break;
        case Drop: socket->abort(); socket->deleteLater(); return;
        case Unsolicited: {
            QByteArray next = reply;
            next[1] = char(next[1] + 1);
            QTimer::singleShot(m_delayMs, socket, [socket, next] { socket->write(next); });
            break;
        }
        case None: break;
        }
        socket->write(reply);
    }
    socket->setProperty("pending", bytes);
}
