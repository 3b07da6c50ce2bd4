// SPDX-License-Identifier: MIT
// One device's Modbus TCP connection: opened on first use and kept, reopened after a loss
// with bounded back-off, requests sent one at a time in order.
#include "modbusconnection.h"

#include "modbuslog.h"

#include <QModbusReply>
#include <QModbusTcpClient>
#include <QTimer>

namespace {
QString exceptionName(QModbusPdu::ExceptionCode code)
{
    switch (code) {
    case QModbusPdu::IllegalFunction: return QStringLiteral("illegal function");
    case QModbusPdu::IllegalDataAddress: return QStringLiteral("illegal data address");
    case QModbusPdu::IllegalDataValue: return QStringLiteral("illegal data value");
    case QModbusPdu::ServerDeviceFailure: return QStringLiteral("server device failure");
    case QModbusPdu::Acknowledge: return QStringLiteral("acknowledge");
    case QModbusPdu::ServerDeviceBusy: return QStringLiteral("server device busy");
    case QModbusPdu::NegativeAcknowledge: return QStringLiteral("negative acknowledge");
    case QModbusPdu::MemoryParityError: return QStringLiteral("memory parity error");
    case QModbusPdu::GatewayPathUnavailable: return QStringLiteral("gateway path unavailable");
    case QModbusPdu::GatewayTargetDeviceFailedToRespond:
        return QStringLiteral("gateway target device failed to respond");
    default: return QStringLiteral("unknown exception");
    }
}
} // namespace

ModbusConnection::ModbusConnection(const ModbusConnectionSettings &settings, QObject *parent)
    : QObject(parent)
    , m_settings(settings)
    , m_client(new QModbusTcpClient(this))
    , m_connectTimer(new QTimer(this))
    , m_retryTimer(new QTimer(this))
{
    m_client->setConnectionParameter(QModbusDevice::NetworkAddressParameter, m_settings.host);
    m_client->setConnectionParameter(QModbusDevice::NetworkPortParameter, m_settings.port);
    m_client->setTimeout(m_settings.timeoutMs);
    // A retry would stretch the time-out and resend a write behind the caller's back.
    m_client->setNumberOfRetries(0);

    m_connectTimer->setSingleShot(true);
    m_retryTimer->setSingleShot(true);
    connect(m_connectTimer, &QTimer::timeout, this, [this] {
        onConnectFailed(QStringLiteral("no connection within %1 ms").arg(m_settings.timeoutMs));
    });
    connect(m_retryTimer, &QTimer::timeout, this, &ModbusConnection::pump);
    connect(m_client, &QModbusDevice::stateChanged, this, &ModbusConnection::onClientStateChanged);
    connect(m_client, &QModbusDevice::errorOccurred, this, [this](QModbusDevice::Error error) {
        if (m_state == Connecting && error == QModbusDevice::ConnectionError)
            onConnectFailed(m_client->errorString());
    });
}

ModbusConnection::~ModbusConnection()
{
    // Nothing may call back into a half-destroyed connection.
    m_client->disconnect(this);
    if (m_reply)
        m_reply->disconnect(this);
    m_client->disconnectDevice();
}

void ModbusConnection::submit(quint64 tag, bool write, const QModbusDataUnit &unit, const QString &registerText,
                              Priority priority, Completion done)
{
    Request request{tag, write, unit, registerText, std::move(done)};
    (priority == Command ? m_commands : m_polls).enqueue(std::move(request));
    schedulePump();
}

void ModbusConnection::cancel(quint64 tag)
{
    const auto matches = [tag](const Request &request) { return request.tag == tag; };
    m_commands.erase(std::remove_if(m_commands.begin(), m_commands.end(), matches), m_commands.end());
    m_polls.erase(std::remove_if(m_polls.begin(), m_polls.end(), matches), m_polls.end());
    // The request on the wire still gets its answer (or time-out) before the next one goes,
    // so no answer can be mistaken for another's; only its completion is dropped.
    if (m_reply && m_current.tag == tag)
        m_current.done = nullptr;
}

void ModbusConnection::schedulePump()
{
    if (m_pumpScheduled)
        return;
    m_pumpScheduled = true;
    QMetaObject::invokeMethod(this, [this] {
        m_pumpScheduled = false;
        pump();
    }, Qt::QueuedConnection);
}

void ModbusConnection::pump()
{
    if (m_reply || (m_commands.isEmpty() && m_polls.isEmpty()))
        return;
    switch (m_state) {
    case Connected:
        send(!m_commands.isEmpty() ? m_commands.dequeue() : m_polls.dequeue());
        return;
    case Connecting:
        return;
    case Unconnected:
        // A command reopens at once; polls alone wait for the back-off.
        if (m_commands.isEmpty() && m_sinceFailure.isValid()) {
            const qint64 remaining = m_backoffMs - m_sinceFailure.elapsed();
            if (remaining > 0) {
                if (!m_retryTimer->isActive())
                    m_retryTimer->start(int(remaining));
                return;
            }
        }
        open();
        return;
    }
}

void ModbusConnection::open()
{
    m_retryTimer->stop();
    ++m_attempt;
    setState(Connecting);
    qCDebug(lcModbus) << "opening" << m_settings.endpoint();
    m_connectTimer->start(m_settings.timeoutMs);
    if (!m_client->connectDevice())
        onConnectFailed(m_client->errorString());
}

void ModbusConnection::onClientStateChanged()
{
    const QModbusDevice::State clientState = m_client->state();
    if (clientState == QModbusDevice::ConnectedState && m_state == Connecting) {
        m_connectTimer->stop();
        m_backoffMs = 0;
        m_sinceFailure.invalidate();
        qCInfo(lcModbus).noquote() << "connected to" << m_settings.endpoint();
        setState(Connected);
        schedulePump();
    } else if (clientState == QModbusDevice::UnconnectedState && m_state == Connecting) {
        // The error, if any, comes right after; give it the chance to name the cause.
        QMetaObject::invokeMethod(this, [this, attempt = m_attempt] {
            if (attempt != m_attempt)
                return;
            const QString reason = m_client->errorString();
            onConnectFailed(reason.isEmpty() ? QStringLiteral("connection closed") : reason);
        }, Qt::QueuedConnection);
    } else if (clientState == QModbusDevice::UnconnectedState && m_state == Connected) {
        // The request on the wire, if any, is finished by the client as aborted.
        qCWarning(lcModbus).noquote() << "connection to" << m_settings.endpoint() << "lost";
        m_backoffMs = InitialBackoffMs;
        m_sinceFailure.restart();
        setState(Unconnected);
        schedulePump();
    }
}

void ModbusConnection::onConnectFailed(const QString &reason)
{
    if (m_state != Connecting)
        return;
    m_connectTimer->stop();
    setState(Unconnected);
    m_client->disconnectDevice();
    // Said once per outage; the retries that follow are only traced.
    if (m_sinceFailure.isValid())
        qCDebug(lcModbus).noquote() << "still cannot connect to" << m_settings.endpoint() << ":" << reason;
    else
        qCWarning(lcModbus).noquote() << "cannot connect to" << m_settings.endpoint() << ":" << reason;
    m_backoffMs = m_backoffMs == 0 ? InitialBackoffMs : qMin(m_backoffMs * 2, int(MaxBackoffMs));
    m_sinceFailure.restart();
    failQueued(QStringLiteral("cannot connect to %1: %2").arg(m_settings.endpoint(), reason));
    schedulePump();
}

void ModbusConnection::send(Request request)
{
    QModbusReply *reply = request.write ? m_client->sendWriteRequest(request.unit, m_settings.unitId)
                                        : m_client->sendReadRequest(request.unit, m_settings.unitId);
    if (!reply) {
        finish(std::move(request), {}, m_client->errorString());
        schedulePump();
        return;
    }
    m_current = std::move(request);
    m_reply = reply;
    if (reply->isFinished())
        onReplyFinished(reply);
    else
        connect(reply, &QModbusReply::finished, this, [this, reply] { onReplyFinished(reply); });
}

void ModbusConnection::onReplyFinished(QModbusReply *reply)
{
    reply->deleteLater();
    if (reply != m_reply)
        return;
    m_reply = nullptr;
    Request request = std::move(m_current);
    m_current = Request();

    QString cause;
    switch (reply->error()) {
    case QModbusDevice::NoError:
        break;
    case QModbusDevice::ProtocolError: {
        const QModbusPdu::ExceptionCode code = reply->rawResult().exceptionCode();
        cause = QStringLiteral("Modbus exception %1 (%2)").arg(int(code)).arg(exceptionName(code));
        break;
    }
    case QModbusDevice::TimeoutError:
        cause = QStringLiteral("no answer within %1 ms").arg(m_settings.timeoutMs);
        break;
    case QModbusDevice::ReplyAbortedError:
    case QModbusDevice::ConnectionError:
        cause = QStringLiteral("connection to %1 lost").arg(m_settings.endpoint());
        break;
    default:
        cause = reply->errorString();
        break;
    }
    if (cause.isEmpty())
        finish(std::move(request), reply->result(), QString());
    else
        finish(std::move(request), {}, cause);
    schedulePump();
}

void ModbusConnection::finish(Request request, const QModbusDataUnit &result, const QString &cause)
{
    if (request.done)
        request.done(result, cause.isEmpty() ? QString() : errorText(request, cause));
}

void ModbusConnection::failQueued(const QString &cause)
{
    QQueue<Request> failed;
    failed.swap(m_commands);
    failed.append(m_polls);
    m_polls.clear();
    for (Request &request : failed)
        finish(std::move(request), {}, cause);
}

void ModbusConnection::setState(State state)
{
    if (m_state == state)
        return;
    m_state = state;
    emit stateChanged(state);
}

QString ModbusConnection::errorText(const Request &request, const QString &cause) const
{
    return QStringLiteral("%1, %2: %3").arg(m_settings.deviceText(), request.registerText, cause);
}
