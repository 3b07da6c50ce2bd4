// SPDX-License-Identifier: MIT
// One device's Modbus TCP connection: opened on first use and kept, reopened after a loss
// or a broken exchange with bounded back-off, one request on the wire at a time.
#include "modbusconnection.h"

#include "modbusframe.h"
#include "modbusinstruction.h"
#include "modbuslog.h"

#include <QTcpSocket>
#include <QTimerEvent>

ModbusConnection::ModbusConnection(const ModbusConnectionSettings &settings, QObject *parent)
    : QObject(parent)
    , m_settings(settings)
    , m_socket(new QTcpSocket(this))
{
    connect(m_socket, &QTcpSocket::connected, this, &ModbusConnection::onConnected);
    connect(m_socket, &QTcpSocket::readyRead, this, &ModbusConnection::onReadyRead);
    connect(m_socket, &QTcpSocket::errorOccurred, this, &ModbusConnection::onSocketError);
    connect(m_socket, &QTcpSocket::disconnected, this, [this] {
        if (m_state == Connected)
            lost(QStringLiteral("connection to %1 lost").arg(m_settings.endpoint()));
    });
}

ModbusConnection::~ModbusConnection()
{
    shutdown();
}

void ModbusConnection::submit(quint64 tag, const QModbusDataUnit &unit, bool write, int timeoutMs,
                              Priority priority, Completion done)
{
    if (m_shutdown)
        return;
    (priority == Command ? m_commands : m_polls).enqueue(Request{tag, unit, write, timeoutMs, std::move(done)});
    pump();
}

void ModbusConnection::cancel(quint64 tag)
{
    const auto matches = [tag](const Request &request) { return request.tag == tag; };
    m_commands.erase(std::remove_if(m_commands.begin(), m_commands.end(), matches), m_commands.end());
    m_polls.erase(std::remove_if(m_polls.begin(), m_polls.end(), matches), m_polls.end());
    if (m_busy && m_current.tag == tag)
        m_current.done = nullptr;
}

void ModbusConnection::shutdown()
{
    m_shutdown = true;
    m_timer.stop();
    m_commands.clear();
    m_polls.clear();
    m_current = Request();
    m_busy = false;
    m_socket->disconnect(this);
    m_socket->abort();
    m_state = Unconnected;
}

QString ModbusConnection::errorText(const QModbusDataUnit &unit, const QString &cause) const
{
    return QStringLiteral("%1, %2: %3").arg(m_settings.deviceText(), ModbusInstruction::registerText(unit), cause);
}

// Sends the next request if the line is free. Opening is always left to the timer, so no
// socket error (and no completion) can come from inside submit().
void ModbusConnection::pump()
{
    if (m_shutdown || m_busy || (m_commands.isEmpty() && m_polls.isEmpty()))
        return;
    if (m_state == Connected) {
        m_current = !m_commands.isEmpty() ? m_commands.dequeue() : m_polls.dequeue();
        m_busy = true;
        ++m_transactionId;
        ++m_statistics.requests;
        m_socket->write(ModbusFrame::request(m_transactionId, quint8(m_settings.unitId), m_current.unit,
                                             m_current.write));
        m_timer.start(m_current.timeoutMs, this);
    } else if (m_state == Unconnected) {
        // A command reopens at once; polls alone wait for the back-off.
        qint64 delay = 0;
        if (m_commands.isEmpty() && m_sinceFailure.isValid())
            delay = qMax<qint64>(0, m_backoffMs - m_sinceFailure.elapsed());
        m_timer.start(int(delay), this);
    }
}

void ModbusConnection::open()
{
    m_connectTimeoutMs = (!m_commands.isEmpty() ? m_commands : m_polls).head().timeoutMs;
    m_state = Connecting;
    qCDebug(lcModbus) << "opening" << m_settings.endpoint();
    m_timer.start(m_connectTimeoutMs, this);
    m_socket->connectToHost(m_settings.host, quint16(m_settings.port));
}

void ModbusConnection::timerEvent(QTimerEvent *event)
{
    if (event->timerId() != m_timer.timerId()) {
        QObject::timerEvent(event);
        return;
    }
    m_timer.stop();
    if (m_state == Unconnected) {
        if (!m_commands.isEmpty() || !m_polls.isEmpty())
            open();
    } else if (m_state == Connecting) {
        connectFailed(IMessenger::CeTimeout, QStringLiteral("no connection within %1 ms").arg(m_connectTimeoutMs));
    } else if (m_busy) {
        // A partial answer is a broken one; no answer at all is a time-out. The socket stays
        // open for the late answer (which is then dropped) unless the request before also went
        // unanswered: a silent device or a half-open connection gets a new connection.
        DError error;
        if (m_received.isEmpty()) {
            error.code = IMessenger::CeTimeout;
            error.text = QStringLiteral("no answer within %1 ms").arg(m_current.timeoutMs);
            if (++m_silentTimeouts > 1)
                resynchronise(error.text);
        } else {
            error.code = IMessenger::CeMalformedReply;
            error.text = QStringLiteral("malformed reply: only %1 bytes within %2 ms")
                             .arg(m_received.size()).arg(m_current.timeoutMs);
            resynchronise(error.text);
        }
        complete(error);
        pump();
    }
}

void ModbusConnection::onConnected()
{
    if (m_state != Connecting)
        return;
    m_timer.stop();
    m_state = Connected;
    ++m_statistics.connections;
    m_socket->setSocketOption(QAbstractSocket::LowDelayOption, 1);
    qCInfo(lcModbus).noquote() << "connected to" << m_settings.endpoint();
    pump();
}

void ModbusConnection::onSocketError()
{
    if (m_state == Connecting)
        connectFailed(IMessenger::CeNoConnection, m_socket->errorString());
    else if (m_state == Connected)
        lost(QStringLiteral("connection to %1 lost").arg(m_settings.endpoint()));
}

void ModbusConnection::onReadyRead()
{
    // Exactly what came, appended in place: readAll() on a socket grows a 16 KiB buffer
    // and copies it back on every answer.
    const qint64 available = m_socket->bytesAvailable();
    if (available > 0) {
        const int kept = m_received.size();
        m_received.resize(kept + int(available));
        const qint64 got = m_socket->read(m_received.data() + kept, available);
        m_received.resize(kept + int(qMax<qint64>(0, got)));
    }
    m_silentTimeouts = 0;
    const quint8 unitId = quint8(m_settings.unitId);
    // Frame by frame: a completion may send the next request before the rest is judged.
    while (!m_received.isEmpty() && m_state == Connected) {
        const int earlier = ModbusFrame::earlierAnswerSize(m_received, lastSettledId(), m_settled, unitId);
        if (earlier > m_received.size())
            return; // the rest of it is due (at most one frame, bounded by the request's time-out)
        if (earlier > 0) {
            m_received.remove(0, earlier);
            ++m_statistics.discardedAnswers;
            qCDebug(lcModbus).noquote() << m_settings.deviceText() << ": dropped a late or duplicate answer";
            continue;
        }
        if (!m_busy) {
            resynchronise(QStringLiteral("%1 bytes came while no request was out").arg(m_received.size()));
            pump();
            return;
        }
        // The answer is judged alone when what follows it may be a copy of it.
        QByteArray answer = m_received;
        const int size = ModbusFrame::frameSize(m_received);
        if (size > 0 && size < m_received.size()
            && ModbusFrame::earlierAnswerSize(m_received.mid(size), m_transactionId, m_settled + 1, unitId) > 0)
            answer.truncate(size);
        DError error;
        QVector<quint16> values;
        if (ModbusFrame::checkReply(answer, m_transactionId, unitId, m_current.unit, m_current.write, &error,
                                    &values) == ModbusFrame::Incomplete)
            return;
        m_received.remove(0, answer.size());
        if (error.code == IMessenger::CeMalformedReply) {
            resynchronise(error.text);
        } else {
            m_timer.stop();
            m_backoffMs = 0;
            m_sinceFailure.invalidate();
        }
        complete(error, values);
        pump();
    }
}

void ModbusConnection::complete(const DError &error, const QVector<quint16> &values)
{
    m_busy = false;
    if (m_state == Connected)
        m_settled = qMin(m_settled + 1, int(SettledWindow));
    const Completion done = std::move(m_current.done);
    m_current.done = nullptr;
    if (done)
        done(error, values);
}

void ModbusConnection::connectFailed(IMessenger::EnErrorCode code, const QString &reason)
{
    // Said once per outage; the retries that follow are only traced.
    if (m_sinceFailure.isValid())
        qCDebug(lcModbus).noquote() << "still cannot connect to" << m_settings.endpoint() << ":" << reason;
    else
        qCWarning(lcModbus).noquote() << "cannot connect to" << m_settings.endpoint() << ":" << reason;
    closeSocket();
    noteFailure();
    DError error{code, 0, QStringLiteral("cannot connect to %1: %2").arg(m_settings.endpoint(), reason)};
    QQueue<Request> failed;
    failed.swap(m_commands);
    failed.append(m_polls);
    m_polls.clear();
    for (const Request &request : qAsConst(failed)) {
        if (m_shutdown)
            return;
        if (request.done)
            request.done(error, {});
    }
    pump();
}

void ModbusConnection::lost(const QString &cause)
{
    qCWarning(lcModbus).noquote() << cause;
    closeSocket();
    noteFailure();
    if (m_busy)
        complete(DError{IMessenger::CeNoConnection, 0, cause});
    pump();
}

void ModbusConnection::resynchronise(const QString &why)
{
    qCWarning(lcModbus).noquote() << m_settings.deviceText() << ": reopening the connection after" << why;
    closeSocket();
    noteFailure();
}

void ModbusConnection::closeSocket()
{
    // Unconnected first: the socket's own notices of this close are then ignored.
    m_state = Unconnected;
    m_timer.stop();
    m_received.clear();
    m_settled = 0;
    m_silentTimeouts = 0;
    m_socket->abort();
}

void ModbusConnection::noteFailure()
{
    m_backoffMs = m_backoffMs == 0 ? InitialBackoffMs : qMin(m_backoffMs * 2, int(MaxBackoffMs));
    m_sinceFailure.restart();
}
