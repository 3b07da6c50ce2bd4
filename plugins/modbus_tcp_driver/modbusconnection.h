// SPDX-License-Identifier: MIT
// One device's Modbus TCP connection: opened on first use and kept, reopened after a loss
// with bounded back-off, requests sent one at a time in order.
#pragma once

#include "modbusconnectionsettings.h"

#include <QElapsedTimer>
#include <QModbusDataUnit>
#include <QObject>
#include <QQueue>

#include <functional>

class QModbusReply;
class QModbusTcpClient;
class QTimer;

class ModbusConnection : public QObject
{
    Q_OBJECT
public:
    enum State { Unconnected, Connecting, Connected };
    Q_ENUM(State)

    // Commands (one-shot reads and writes) go before polls; polls keep their own order,
    // so several listens on one device take turns.
    enum Priority { Command, Poll };

    // Runs once per request, always from the event loop: on success with the unit read
    // (or written) and an empty error, on failure with an error text that names the
    // device, the registers and the cause.
    using Completion = std::function<void(const QModbusDataUnit &result, const QString &error)>;

    explicit ModbusConnection(const ModbusConnectionSettings &settings, QObject *parent = nullptr);
    ~ModbusConnection() override;

    const ModbusConnectionSettings &settings() const { return m_settings; }
    State state() const { return m_state; }

    // Queues a read (`write` false: the unit gives table, start and count) or a write.
    // `tag` lets cancel() withdraw it; `registerText` names the registers in errors.
    void submit(quint64 tag, bool write, const QModbusDataUnit &unit, const QString &registerText,
                Priority priority, Completion done);
    // Withdraws every request under `tag`; their completions never run.
    void cancel(quint64 tag);

    // Time before the next automatic reopening after a failure: doubles from
    // InitialBackoffMs up to MaxBackoffMs, back to the start once connected.
    static constexpr int InitialBackoffMs = 100;
    static constexpr int MaxBackoffMs = 2000;

signals:
    void stateChanged(ModbusConnection::State state);

private:
    struct Request {
        quint64 tag = 0;
        bool write = false;
        QModbusDataUnit unit;
        QString registerText;
        Completion done;
    };

    void schedulePump();
    void pump();
    void open();
    void onClientStateChanged();
    void onConnectFailed(const QString &reason);
    void send(Request request);
    void onReplyFinished(QModbusReply *reply);
    void finish(Request request, const QModbusDataUnit &result, const QString &error);
    void failQueued(const QString &cause);
    void setState(State state);
    QString errorText(const Request &request, const QString &cause) const;

    const ModbusConnectionSettings m_settings;
    QModbusTcpClient *m_client = nullptr;
    QTimer *m_connectTimer = nullptr;
    QTimer *m_retryTimer = nullptr;
    QQueue<Request> m_commands;
    QQueue<Request> m_polls;
    Request m_current;
    QModbusReply *m_reply = nullptr;
    State m_state = Unconnected;
    QElapsedTimer m_sinceFailure;
    int m_backoffMs = 0;
    int m_attempt = 0; // opening attempts, so a stale notice of an earlier one is ignored
    bool m_pumpScheduled = false;
};
