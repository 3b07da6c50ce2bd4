// SPDX-License-Identifier: MIT
// The simulator's public socket: relays each client connection to the Modbus server and
// injects connection-level faults (held-back, doubled or garbled answers, a connection
// limit), and tells each request it served.
#pragma once

#include "simulatorrequest.h"

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

    // Each answer leaves `ms` after the server made it; order is kept.
    void setResponseDelay(int ms) { m_responseDelay = ms; }
    // While silent no answer leaves; they go out, in order, when silence ends.
    void setSilent(bool silent);
    // Every answer is sent twice.
    void setDuplicateAnswers(bool on) { m_duplicate = on; }
    // Every answer is replaced by as many random bytes.
    void setGarbageAnswers(bool on) { m_garbage = on; }
    // With `max` clients connected (0: no limit) a new one is accepted and closed at once.
    void setMaxConnections(int max) { m_maxConnections = max; }
    void dropConnections();
    int connectionCount() const { return m_links.size(); }
    // Clients closed at once for the connection limit since listen().
    int refusedConnectionCount() const { return m_refusedConnections; }

signals:
    void connectionCountChanged(int count);
    void connectionRefused(const QString &client);
    void requestServed(const SimulatorRequest &request);

private:
    struct Link {
        QString name;                              // the client's "address:port"
        QTcpSocket *client = nullptr;
        QTcpSocket *backend = nullptr;
        QByteArray toBackend;                      // client bytes waiting for the backend
        QByteArray requestBytes;                   // client bytes not yet read as a request
        QByteArray answerBytes;                    // server bytes not yet a whole answer
        QQueue<SimulatorRequest> requests;         // requests waiting for their answer
        QQueue<QPair<qint64, QByteArray>> answers; // held-back answers with their due time
        QTimer *answerTimer = nullptr;
    };

    void onNewConnection();
    void onClientBytes(Link *link);
    void onServerBytes(Link *link);
    void tellServed(Link *link, const QByteArray &answer);
    void closeLink(Link *link);
    void flushAnswers(Link *link);

    QTcpServer *m_server = nullptr;
    QList<Link *> m_links;
    QElapsedTimer m_clock;
    quint16 m_backendPort = 0;
    int m_responseDelay = 0;
    int m_maxConnections = 0;
    int m_refusedConnections = 0;
    bool m_silent = false;
    bool m_duplicate = false;
    bool m_garbage = false;
};
