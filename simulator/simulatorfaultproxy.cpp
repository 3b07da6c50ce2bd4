// SPDX-License-Identifier: MIT
// The simulator's public socket: relays each client connection to the Modbus server and
// injects connection-level faults (held-back, doubled or garbled answers, a connection
// limit), and tells each request it served.
#include "simulatorfaultproxy.h"

#include <QRandomGenerator>
#include <QTcpServer>
#include <QTcpSocket>
#include <QTimer>
#include <QtEndian>

namespace {
QString peerName(const QTcpSocket *socket)
{
    const QHostAddress address = socket->peerAddress();
    const QString host = address.protocol() == QAbstractSocket::IPv6Protocol
        ? QLatin1Char('[') + address.toString() + QLatin1Char(']') : address.toString();
    return host + QLatin1Char(':') + QString::number(socket->peerPort());
}
} // namespace

SimulatorFaultProxy::SimulatorFaultProxy(QObject *parent)
    : QObject(parent)
    , m_server(new QTcpServer(this))
{
    qRegisterMetaType<SimulatorRequest>();
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
    m_refusedConnections = 0;
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

void SimulatorFaultProxy::setSilent(bool silent)
{
    m_silent = silent;
    const QList<Link *> links = m_links;
    for (Link *link : links)
        flushAnswers(link);
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
        if (m_maxConnections > 0 && m_links.size() >= m_maxConnections) {
            ++m_refusedConnections;
            emit connectionRefused(peerName(client));
            connect(client, &QTcpSocket::disconnected, client, &QObject::deleteLater);
            client->disconnectFromHost();
            continue;
        }
        auto *link = new Link;
        link->name = peerName(client);
        link->client = client;
        link->backend = new QTcpSocket(this);
        link->answerTimer = new QTimer(this);
        link->answerTimer->setSingleShot(true);
        m_links.append(link);

        connect(client, &QTcpSocket::readyRead, this, [this, link] { onClientBytes(link); });
        connect(client, &QTcpSocket::disconnected, this, [this, link] { closeLink(link); });
        connect(link->backend, &QTcpSocket::connected, this, [link] {
            link->backend->write(link->toBackend);
            link->toBackend.clear();
        });
        connect(link->backend, &QTcpSocket::readyRead, this, [this, link] { onServerBytes(link); });
        connect(link->backend, &QTcpSocket::disconnected, this, [this, link] { closeLink(link); });
        connect(link->answerTimer, &QTimer::timeout, this, [this, link] { flushAnswers(link); });
        link->backend->connectToHost(QHostAddress::LocalHost, m_backendPort);
        emit connectionCountChanged(m_links.size());
    }
}

void SimulatorFaultProxy::onClientBytes(Link *link)
{
    const QByteArray bytes = link->client->readAll();
    if (link->backend->state() == QAbstractSocket::ConnectedState)
        link->backend->write(bytes);
    else
        link->toBackend += bytes;
    // A copy of the stream is read for the log only; what is no frame is left to the server.
    link->requestBytes += bytes;
    for (int size = SimulatorRequest::frameSize(link->requestBytes); size != 0;
         size = SimulatorRequest::frameSize(link->requestBytes)) {
        if (size < 0) {
            link->requestBytes.clear();
            break;
        }
        link->requests.enqueue(SimulatorRequest::fromFrame(link->requestBytes.left(size), link->name));
        link->requestBytes.remove(0, size);
    }
}

void SimulatorFaultProxy::onServerBytes(Link *link)
{
    link->answerBytes += link->backend->readAll();
    for (int size = SimulatorRequest::frameSize(link->answerBytes); size != 0;
         size = SimulatorRequest::frameSize(link->answerBytes)) {
        // The server frames its answers; should it not, its bytes go out as they are.
        QByteArray answer = link->answerBytes.left(size < 0 ? link->answerBytes.size() : size);
        link->answerBytes.remove(0, answer.size());
        if (size > 0)
            tellServed(link, answer);
        if (m_garbage) {
            for (char &byte : answer)
                byte = char(QRandomGenerator::global()->bounded(256));
        }
        const qint64 due = m_clock.elapsed() + m_responseDelay;
        link->answers.enqueue({due, answer});
        if (m_duplicate)
            link->answers.enqueue({due, answer});
    }
    flushAnswers(link);
}

void SimulatorFaultProxy::tellServed(Link *link, const QByteArray &answer)
{
    // The server answers in order; requests it skipped have no answer.
    const quint16 transactionId = qFromBigEndian<quint16>(answer.constData());
    while (!link->requests.isEmpty() && link->requests.head().transactionId != transactionId)
        link->requests.dequeue();
    if (link->requests.isEmpty())
        return;
    SimulatorRequest request = link->requests.dequeue();
    request.time = QDateTime::currentDateTime();
    if (answer.size() > 8 && (quint8(answer.at(7)) & 0x80))
        request.exceptionCode = quint8(answer.at(8));
    emit requestServed(request);
}

void SimulatorFaultProxy::flushAnswers(Link *link)
{
    if (m_silent)
        return;
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
