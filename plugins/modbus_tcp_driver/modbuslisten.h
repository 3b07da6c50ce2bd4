// SPDX-License-Identifier: MIT
// A "listen" instruction: polls registers and reports the values at once and on each change.
#pragma once

#include "modbusconnection.h"

#include <QObject>
#include <QPointer>
#include <QVector>

class QTimer;

class ModbusListen : public QObject
{
    Q_OBJECT
public:
    // Polls `unit` (table, start, count) through `connection` every `intervalMs`, measured
    // from the end of one poll to the start of the next. Starts polling at once.
    ModbusListen(quint64 id, ModbusConnection *connection, const QModbusDataUnit &unit,
                 const QString &registerText, int intervalMs, QObject *parent = nullptr);
    // Withdraws the pending poll; nothing is reported afterwards.
    ~ModbusListen() override;

    quint64 id() const { return m_id; }

signals:
    // The first values read, then each change; after an error the next values read,
    // changed or not, so the listener knows the device answers again.
    void valuesReported(quint64 id, const QVariantList &values);
    // Once per outage: the first failing poll after a success (or at start).
    void errorReported(quint64 id, const QString &error);

private:
    void poll();
    void onPolled(const QModbusDataUnit &result, const QString &error);

    const quint64 m_id;
    const QPointer<ModbusConnection> m_connection; // may go first when the driver closes
    const QModbusDataUnit m_unit;
    const QString m_registerText;
    QTimer *m_timer = nullptr;
    QVector<quint16> m_last;
    bool m_reported = false; // values reported since start or the last error
    bool m_failing = false;
};
