// SPDX-License-Identifier: MIT
// The Modbus TCP driver plug-in: carries a device's "read", "write" and "listen"
// instructions to the device over one kept Modbus TCP connection.
#include "pdrivermodbustcp.h"

#include "hostutils.h"
#include "modbusconnection.h"
#include "modbusinstruction.h"
#include "modbuslisten.h"
#include "modbuslog.h"

namespace {
const char c_pluginUuid[] = "{7d3f2a10-5b9e-4c61-8f0a-2e4b6c8d9a13}";
const char c_pluginName[] = "Driver Modbus TCP";

QVariantMap errorReply(const QString &text)
{
    return {{QStringLiteral("error"), text}};
}
} // namespace

PDriverModbusTcp::PDriverModbusTcp(const QUuid &instanceUuid, QObject *parent)
    : DAbstractDriver(QUuid(c_pluginUuid), QString::fromLatin1(c_pluginName), IPlugin::CeDriver,
                      versionFromString(QStringLiteral("1.0"), nullptr, QLatin1Char('.')), instanceUuid, parent,
                      false)
{
}

PDriverModbusTcp::~PDriverModbusTcp()
{
    qDeleteAll(m_listens);
    m_listens.clear();
    delete m_connection;
}

QUuid PDriverModbusTcp::getPluginId()
{
    return QUuid(c_pluginUuid);
}

IPlugin *PDriverModbusTcp::createInstance(const QUuid &instanceUuid) const
{
    return new PDriverModbusTcp(instanceUuid, nullptr);
}

const char *PDriverModbusTcp::pluginSubTypeName() const
{
    return "modbusTcp";
}

bool PDriverModbusTcp::configureConnection(const QMap<QString, QVariant> &settings, QString *error)
{
    ModbusConnectionSettings parsed;
    if (!ModbusConnectionSettings::fromMap(settings, &parsed, error))
        return false;
    closeConnection(QStringLiteral("the connection settings were changed"));
    m_settings = parsed;
    m_configured = true;
    return true;
}

void PDriverModbusTcp::closeConnection(const QString &reason)
{
    if (!m_connection)
        return;
    const QString text = QStringLiteral("%1: %2").arg(m_settings.deviceText(), reason);
    const auto listens = m_listens;
    m_listens.clear();
    for (ModbusListen *listen : listens) {
        replyLater(listen->id(), errorReply(text));
        delete listen;
    }
    const auto pending = m_pending;
    m_pending.clear();
    for (unsigned long long id : pending)
        replyLater(id, errorReply(text));
    delete m_connection;
    m_connection = nullptr;
}

void PDriverModbusTcp::startInstruction(unsigned long long id, const QString &instruction,
                                        const QMap<QString, QVariant> &parameters, int)
{
    ModbusInstruction parsed;
    QString error;
    if (!m_configured) {
        replyLater(id, errorReply(QStringLiteral("no connection configured for this driver instance")));
        return;
    }
    if (!ModbusInstruction::parse(instruction, parameters, &parsed, &error)) {
        qCWarning(lcModbus).noquote() << m_settings.deviceText() << error;
        replyLater(id, errorReply(QStringLiteral("%1, %2").arg(m_settings.deviceText(), error)));
        return;
    }
    if (!m_connection)
        m_connection = new ModbusConnection(m_settings, this);

    if (parsed.operation() == ModbusInstruction::Listen) {
        auto *listen = new ModbusListen(id, m_connection, parsed.unit(), parsed.registerText(),
                                        m_settings.pollIntervalMs, this);
        connect(listen, &ModbusListen::valuesReported, this, [this](quint64 listenId, const QVariantList &values) {
            emit sigInstructionReply(listenId, {{QStringLiteral("values"), values}}, false);
        });
        connect(listen, &ModbusListen::errorReported, this, [this](quint64 listenId, const QString &text) {
            qCWarning(lcModbus).noquote() << text;
            emit sigInstructionReply(listenId, errorReply(text), false);
        });
        delete m_listens.value(id);
        m_listens.insert(id, listen);
        return;
    }

    const bool write = parsed.operation() == ModbusInstruction::Write;
    m_pending.insert(id);
    m_connection->submit(id, write, parsed.unit(), parsed.registerText(), ModbusConnection::Command,
                         [this, id, write](const QModbusDataUnit &result, const QString &text) {
                             m_pending.remove(id);
                             if (!text.isEmpty()) {
                                 qCWarning(lcModbus).noquote() << text;
                                 emit sigInstructionReply(id, errorReply(text), true);
                             } else {
                                 const QVariantList values = write ? QVariantList{1u}
                                                                   : ModbusInstruction::replyValues(result);
                                 emit sigInstructionReply(id, {{QStringLiteral("values"), values}}, true);
                             }
                         });
}

void PDriverModbusTcp::stopInstruction(unsigned long long id)
{
    m_pending.remove(id);
    if (ModbusListen *listen = m_listens.take(id)) {
        listen->disconnect(this);
        listen->deleteLater();
    }
    if (m_connection)
        m_connection->cancel(id);
}

void PDriverModbusTcp::replyLater(unsigned long long id, const QVariantMap &reply)
{
    m_pending.insert(id);
    QMetaObject::invokeMethod(this, [this, id, reply] {
        // A stop in the meantime withdraws the reply.
        if (m_pending.remove(id))
            emit sigInstructionReply(id, reply, true);
    }, Qt::QueuedConnection);
}
