// SPDX-License-Identifier: MIT
// The simulator's Modbus TCP server: the register tables plus injected exception answers.
#pragma once

#include <QHash>
#include <QModbusTcpServer>

class SimulatorModbusServer : public QModbusTcpServer
{
    Q_OBJECT
public:
    explicit SimulatorModbusServer(QObject *parent = nullptr);

    // The port the server listens on once connected; 0 otherwise.
    quint16 listeningPort() const;

    void setException(QModbusDataUnit::RegisterType table, int address, QModbusPdu::ExceptionCode code);
    void clearExceptions() { m_exceptions.clear(); }
    int requestCount() const { return m_requestCount; }
    void resetRequestCount() { m_requestCount = 0; }

protected:
    QModbusResponse processRequest(const QModbusPdu &request) override;

private:
    static quint64 key(QModbusDataUnit::RegisterType table, int address);

    QHash<quint64, QModbusPdu::ExceptionCode> m_exceptions;
    int m_requestCount = 0;
};
