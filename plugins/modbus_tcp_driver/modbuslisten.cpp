// SPDX-License-Identifier: MIT
// A "listen" instruction: polls registers and reports the values at once and on each change.
#include "modbuslisten.h"

#include "modbusinstruction.h"

#include <QTimer>

ModbusListen::ModbusListen(quint64 id, ModbusConnection *connection, const QModbusDataUnit &unit,
                           const QString &registerText, int intervalMs, QObject *parent)
    : QObject(parent)
    , m_id(id)
    , m_connection(connection)
    , m_unit(unit)
    , m_registerText(registerText)
    , m_timer(new QTimer(this))
{
    m_timer->setSingleShot(true);
    m_timer->setInterval(intervalMs);
    connect(m_timer, &QTimer::timeout, this, &ModbusListen::poll);
    poll();
}

ModbusListen::~ModbusListen()
{
    if (m_connection)
        m_connection->cancel(m_id);
}

void ModbusListen::poll()
{
    if (!m_connection)
        return;
    m_connection->submit(m_id, false, m_unit, m_registerText, ModbusConnection::Poll,
                         [this](const QModbusDataUnit &result, const QString &error) { onPolled(result, error); });
}

void ModbusListen::onPolled(const QModbusDataUnit &result, const QString &error)
{
    if (!error.isEmpty()) {
        if (!m_failing)
            emit errorReported(m_id, error);
        m_failing = true;
        m_reported = false;
    } else {
        m_failing = false;
        if (!m_reported || result.values() != m_last) {
            m_last = result.values();
            m_reported = true;
            emit valuesReported(m_id, ModbusInstruction::replyValues(result));
        }
    }
    m_timer->start();
}
