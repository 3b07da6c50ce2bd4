// SPDX-License-Identifier: MIT
// One device's Modbus TCP connection: opened on first use and kept, reopened after a loss
// or a broken exchange with bounded back-off, one request on the wire at a time.
// An answer that comes late (after its request timed out) or twice is dropped: the request
// on the wire waits for its own answer within its own time-out.
#pragma once

#include "derror.h"
#include "modbusconnectionsettings.h"

#include <QBasicTimer>
#include <QElapsedTimer>
#include <QModbusDataUnit>
#include <QObject>
#include <QQueue>

#include <functional>

class QTcpSocket;

class ModbusConnection : public QObject
{
    Q_OBJECT
public:
    enum State { Unconnected, Connecting, Connected };

    // Commands (one-shot reads and writes) go before polls; each queue keeps its order.
    enum Priority { Command, Poll };

    // Runs once per request, from a socket or timer event, never from inside submit(). On
    // success `error` is CeNoError and `values` holds the values read (nothing for a write);
    // on failure error.text is the cause alone: errorText() puts the device and the
    // registers in front of it.
    using Completion = std::function<void(const DError &error, const QVector<quint16> &values)>;

    explicit ModbusConnection(const ModbusConnectionSettings &settings, QObject *parent = nullptr);
    ~ModbusConnection() override;

    const ModbusConnectionSettings &settings() const { return m_settings; }
    State state() const { return m_state; }

    // Counted over the object's life, across reopenings.
    struct Statistics {
        quint64 connections = 0;      // opened
        quint64 requests = 0;         // written to the socket
        quint64 discardedAnswers = 0; // late or duplicate answers to requests already settled
    };
    const Statistics &statistics() const { return m_statistics; }

    // Queues a read (`write` false: the unit gives table, start and count) or a write of the
    // unit's values. The device gets `timeoutMs` to answer, counted from when the request is
    // written to the socket; opening the connection for it is bounded by the same figure.
    // `tag` lets cancel() withdraw it.
    void submit(quint64 tag, const QModbusDataUnit &unit, bool write, int timeoutMs, Priority priority,
                Completion done);
    // Withdraws every request under `tag`; their completions never run. A request already on
    // the wire keeps the line until it is answered or times out, so no answer can be taken
    // for another request's.
    void cancel(quint64 tag);
    // Closes the socket and drops every request without running its completion; the object
    // does nothing more afterwards (it may be deleted later, from inside a completion too).
    void shutdown();

    // "device host:port (unit N), <table> register <address>: <cause>"
    QString errorText(const QModbusDataUnit &unit, const QString &cause) const;

    // Time before the next automatic reopening after a failure: doubles from
    // InitialBackoffMs up to MaxBackoffMs, back to the start after a good answer.
    static constexpr int InitialBackoffMs = 100;
    static constexpr int MaxBackoffMs = 2000;
    // An answer is recognised as late or duplicate while its request is one of the last
    // this many settled (answered or given up) on the current socket; any other id that is
    // not the request on the wire is a broken exchange.
    static constexpr int SettledWindow = 32;

protected:
    // The connection's one timer: the opening deadline while connecting, the answer
    // deadline while a request is out, the next opening while unconnected.
    void timerEvent(QTimerEvent *event) override;

private:
    struct Request {
        quint64 tag = 0;
        QModbusDataUnit unit;
        bool write = false;
        int timeoutMs = 0;
        Completion done;
    };

    void pump();
    void open();
    void onConnected();
    void onSocketError();
    void onReadyRead();
    void connectFailed(IMessenger::EnErrorCode code, const QString &reason);
    void lost(const QString &cause);
    // Ends the request on the wire with `error` (or its values) and runs its completion.
    void complete(const DError &error, const QVector<quint16> &values = {});
    // After a broken exchange: the socket is closed so no stale byte is read later, and
    // reopened (with back-off) before the next request.
    void resynchronise(const QString &why);
    void closeSocket();
    void noteFailure();
    // The transaction id of the last settled request on this socket.
    quint16 lastSettledId() const { return m_busy ? quint16(m_transactionId - 1) : m_transactionId; }

    const ModbusConnectionSettings m_settings;
    QTcpSocket *m_socket = nullptr;
    QBasicTimer m_timer;
    QQueue<Request> m_commands;
    QQueue<Request> m_polls;
    Request m_current;
    bool m_busy = false; // m_current is on the wire
    QByteArray m_received;
    quint16 m_transactionId = 0;
    int m_settled = 0;        // requests settled on this socket, at most SettledWindow
    int m_silentTimeouts = 0; // time-outs in a row on this socket with not a byte between
    Statistics m_statistics;
    int m_connectTimeoutMs = 0;
    State m_state = Unconnected;
    QElapsedTimer m_sinceFailure;
    int m_backoffMs = 0;
    bool m_shutdown = false;
};
