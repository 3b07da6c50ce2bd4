// SPDX-License-Identifier: MIT
// The simulator's public socket: relays each client connection to the Modbus server and
// injects connection-level faults (held-back answers, dropped connections).
#pragma once

#include <QByteArray>
#include <QElapsedTimer>
#include <QHostAddress>
#include <QList>
#include <QObject>
#include <QQueue>

class QTcpServer;
class QTcpSocket;
class QTimer;

class SimulatorFaultProxy : public QObject
{
    Q_OBJECT
public:
    explicit SimulatorFaultProxy(QObject *parent = nullptr);
    ~SimulatorFaultProxy() override;

    // Listens on address:port and relays to the server on loopback at backendPort.
    // False, with *error, when the address cannot be bound.
    bool listen(const QHostAddress &address, quint16 port, quint16 backendPort, QString *error);
    void close();
    quint16 port() const;

    void setResponseDelay(int ms) { m_responseDelay = ms; }
    void dropConnections();
    int connectionCount() const { return m_links.size(); }

signals:
    void connectionCountChanged(int count);

private:
    struct Link {
        QTcpSocket *client = nullptr;
        QTcpSocket *backend = nullptr;
        QByteArray toBackend;                      // client bytes waiting for the backend
        QQueue<QPair<qint64, QByteArray>> answers; // held-back answers with their due time
        QTimer *answerTimer = nullptr;
    };

    void onNewConnection();
    void closeLink(Link *link);
    void flushAnswers(Link *link);

    QTcpServer *m_server = nullptr;
    QList<Link *> m_links;
    QElapsedTimer m_clock;
    quint16 m_backendPort = 0;
    int m_responseDelay = 0;
};
