// SPDX-License-Identifier: MIT
// The simulator's Modbus TCP server: the register tables plus injected exception answers.
#include "simulatormodbusserver.h"

#include <QTcpServer>

SimulatorModbusServer::SimulatorModbusServer(QObject *parent)
    : QModbusTcpServer(parent)
{
}

quint16 SimulatorModbusServer::listeningPort() const
{
    // QModbusTcpServer keeps its listening socket as a child and does not tell its port.
    const QTcpServer *tcp = findChild<QTcpServer *>();
    return (tcp && tcp->isListening()) ? tcp->serverPort() : 0;
}

quint64 SimulatorModbusServer::key(QModbusDataUnit::RegisterType table, int address)
{
    return (quint64(table) << 32) | quint32(address);
}

void SimulatorModbusServer::setException(QModbusDataUnit::RegisterType table, int address,
                                         QModbusPdu::ExceptionCode code)
{
    m_exceptions.insert(key(table, address), code);
}

QModbusResponse SimulatorModbusServer::processRequest(const QModbusPdu &request)
{
    ++m_requestCount;
    if (!m_exceptions.isEmpty()) {
        QModbusDataUnit::RegisterType table = QModbusDataUnit::Invalid;
        quint16 start = 0;
        quint16 count = 1;
        switch (request.functionCode()) {
        case QModbusPdu::ReadCoils:
            table = QModbusDataUnit::Coils;
            request.decodeData(&start, &count);
            break;
        case QModbusPdu::ReadDiscreteInputs:
            table = QModbusDataUnit::DiscreteInputs;
            request.decodeData(&start, &count);
            break;
        case QModbusPdu::ReadHoldingRegisters:
            table = QModbusDataUnit::HoldingRegisters;
            request.decodeData(&start, &count);
            break;
        case QModbusPdu::ReadInputRegisters:
            table = QModbusDataUnit::InputRegisters;
            request.decodeData(&start, &count);
            break;
        case QModbusPdu::WriteSingleCoil:
            table = QModbusDataUnit::Coils;
            request.decodeData(&start);
            break;
        case QModbusPdu::WriteSingleRegister:
            table = QModbusDataUnit::HoldingRegisters;
            request.decodeData(&start);
            break;
        case QModbusPdu::WriteMultipleCoils:
            table = QModbusDataUnit::Coils;
            request.decodeData(&start, &count);
            break;
        case QModbusPdu::WriteMultipleRegisters:
            table = QModbusDataUnit::HoldingRegisters;
            request.decodeData(&start, &count);
            break;
        default:
            break;
        }
        for (int address = start; table != QModbusDataUnit::Invalid && address < start + count; ++address) {
            const auto it = m_exceptions.constFind(key(table, address));
            if (it != m_exceptions.constEnd())
                return QModbusExceptionResponse(request.functionCode(), it.value());
        }
    }
    return QModbusTcpServer::processRequest(request);
}
