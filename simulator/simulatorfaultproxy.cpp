// SPDX-License-Identifier: MIT
// The simulator's public socket: relays each client connection to the Modbus server and
// injects connection-level faults (held-back answers, dropped connections).
#include "simulatorfaultproxy.h"

#include <QTcpServer>
#include <QTcpSocket>
#include <QTimer>

SimulatorFaultProxy::SimulatorFaultProxy(QObject *parent)
    : QObject(parent)
    , m_server(new QTcpServer(this))
{
    m_clock.start();
    connect(m_server, &QTcpServer::newConnection, this, &SimulatorFaultProxy::onNewConnection);
}

SimulatorFaultProxy::~SimulatorFaultProxy()
{
    close();
}

bool SimulatorFaultProxy::listen(const QHostAddress &address, quint16 port, quint16 backendPort,
                                 QString *error)
{
    m_backendPort = backendPort;
    if (m_server->listen(address, port))
        return true;
    if (error)
        *error = QStringLiteral("cannot listen on %1:%2: %3")
                     .arg(address.toString()).arg(port).arg(m_server->errorString());
    return false;
}

void SimulatorFaultProxy::close()
{
    m_server->close();
    dropConnections();
}

quint16 SimulatorFaultProxy::port() const
{
    return m_server->isListening() ? m_server->serverPort() : 0;
}

void SimulatorFaultProxy::dropConnections()
{
    const QList<Link *> links = m_links;
    for (Link *link : links)
        closeLink(link);
}

void SimulatorFaultProxy::onNewConnection()
{
    while (QTcpSocket *client = m_server->nextPendingConnection()) {
        auto *link = new Link;
        link->client = client;
        link->backend = new QTcpSocket(this);
        link->answerTimer = new QTimer(this);
        link->answerTimer->setSingleShot(true);
        m_links.append(link);

        connect(client, &QTcpSocket::readyRead, this, [this, link] {
            const QByteArray bytes = link->client->readAll();
            if (link->backend->state() == QAbstractSocket::ConnectedState)
                link->backend->write(bytes);
            else
                link->toBackend += bytes;
        });
        connect(client, &QTcpSocket::disconnected, this, [this, link] { closeLink(link); });
        connect(link->backend, &QTcpSocket::connected, this, [link] {
            link->backend->write(link->toBackend);
            link->toBackend.clear();
        });
        connect(link->backend, &QTcpSocket::readyRead, this, [this, link] {
            link->answers.enqueue({m_clock.elapsed() + m_responseDelay, link->backend->readAll()});
            flushAnswers(link);
        });
        connect(link->backend, &QTcpSocket::disconnected, this, [this, link] { closeLink(link); });
        connect(link->answerTimer, &QTimer::timeout, this, [this, link] { flushAnswers(link); });
        link->backend->connectToHost(QHostAddress::LocalHost, m_backendPort);
        emit connectionCountChanged(m_links.size());
    }
}

void SimulatorFaultProxy::flushAnswers(Link *link)
{
    const qint64 now = m_clock.elapsed();
    while (!link->answers.isEmpty() && link->answers.head().first <= now)
        link->client->write(link->answers.dequeue().second);
    if (!link->answers.isEmpty())
        link->answerTimer->start(int(link->answers.head().first - now));
}

void SimulatorFaultProxy::closeLink(Link *link)
{
    if (!m_links.removeOne(link))
        return;
    // Signals from the sockets must not reach this link again while they close.
    link->client->disconnect(this);
    link->backend->disconnect(this);
    link->answerTimer->disconnect(this);
    link->answerTimer->stop();
    link->client->abort();
    link->backend->abort();
    link->client->deleteLater();
    link->backend->deleteLater();
    link->answerTimer->deleteLater();
    delete link;
    emit connectionCountChanged(m_links.size());
}
