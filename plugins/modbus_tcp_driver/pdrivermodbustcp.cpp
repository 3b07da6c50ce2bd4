// SPDX-License-Identifier: MIT
// The Modbus TCP driver plug-in: carries a device's "read", "write" and "listen"
// instructions to the device over one kept Modbus TCP connection.
#include "pdrivermodbustcp.h"

#include "hostutils.h"
#include "modbusconnection.h"
#include "modbusinstruction.h"
#include "modbuslog.h"
#include "modbuspoller.h"

namespace {
const char c_pluginUuid[] = "{7d3f2a10-5b9e-4c61-8f0a-2e4b6c8d9a13}";
const char c_pluginName[] = "Driver Modbus TCP";
} // namespace

PDriverModbusTcp::PDriverModbusTcp(const QUuid &instanceUuid, QObject *parent)
    : DAbstractDriver(QUuid(c_pluginUuid), QString::fromLatin1(c_pluginName), IPlugin::CeDriver,
                      versionFromString(QStringLiteral("1.0"), nullptr, QLatin1Char('.')), instanceUuid, parent,
                      false)
{
}

PDriverModbusTcp::~PDriverModbusTcp()
{
    delete m_poller;
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
    const QVariantMap reply =
        DError{IMessenger::CeNoConnection, 0, QStringLiteral("%1: %2").arg(m_settings.deviceText(), reason)}.toReply();
    const QList<quint64> listening = m_poller->takeAll();
    m_connection->shutdown();
    // This may run inside a reply of theirs: they go when the event loop is back.
    m_poller->deleteLater();
    m_connection->deleteLater();
    m_poller = nullptr;
    m_connection = nullptr;
    QSet<unsigned long long> ids = m_pending;
    for (quint64 id : listening)
        ids.insert(id);
    m_pending.clear();
    for (unsigned long long id : qAsConst(ids))
        replyLater(id, reply);
}

void PDriverModbusTcp::startInstruction(unsigned long long id, const QString &instruction,
                                        const QMap<QString, QVariant> &parameters, int timeoutMs)
{
    if (!m_configured) {
        replyLater(id, DError{IMessenger::CeNoConnection, 0,
                              QStringLiteral("no connection configured for this driver instance")}.toReply());
        return;
    }
    ModbusInstruction parsed;
    QString error;
    if (!ModbusInstruction::parse(instruction, parameters, &parsed, &error)) {
        const DError refused{IMessenger::CeBadInstruction, 0, QStringLiteral("%1, %2").arg(m_settings.deviceText(), error)};
        qCWarning(lcModbus).noquote() << refused.text;
        replyLater(id, refused.toReply());
        return;
    }
    if (timeoutMs <= 0)
        timeoutMs = m_settings.timeoutMs;
    if (!m_connection) {
        m_connection = new ModbusConnection(m_settings, this);
        m_poller = new ModbusPoller(m_connection, m_settings.pollIntervalMs, this);
        connect(m_poller, &ModbusPoller::valuesReported, this, [this](quint64 listenId, const QVariantList &values) {
            emit sigInstructionReply(listenId, {{QStringLiteral("values"), values}}, false);
        });
        connect(m_poller, &ModbusPoller::errorReported, this, [this](quint64 listenId, const DError &failure) {
            qCWarning(lcModbus).noquote() << failure.text;
            emit sigInstructionReply(listenId, failure.toReply(), false);
        });
    }

    if (parsed.operation() == ModbusInstruction::Listen) {
        m_poller->add(id, parsed.unit(), timeoutMs);
        return;
    }
    const bool write = parsed.operation() == ModbusInstruction::Write;
    const QModbusDataUnit unit = parsed.unit();
    ModbusConnection *connection = m_connection;
    m_pending.insert(id);
    connection->submit(id, unit, write, timeoutMs, ModbusConnection::Command,
                       [this, id, write, unit, connection](const DError &failure, const QVector<quint16> &values) {
                           m_pending.remove(id);
                           if (failure.isError()) {
                               const DError error{failure.code, failure.exceptionCode,
                                                  connection->errorText(unit, failure.text)};
                               qCWarning(lcModbus).noquote() << error.text;
                               emit sigInstructionReply(id, error.toReply(), true);
                               return;
                           }
                           const QVariantList reply = write ? QVariantList{1u}
                                                            : ModbusInstruction::replyValues(values.constData(),
                                                                                             values.size());
                           emit sigInstructionReply(id, {{QStringLiteral("values"), reply}}, true);
                       });
}

void PDriverModbusTcp::stopInstruction(unsigned long long id)
{
    m_pending.remove(id);
    if (m_connection) {
        m_poller->remove(id);
        m_connection->cancel(id);
    }
}

QVariantMap PDriverModbusTcp::connectionStatistics() const
{
    const ModbusConnection::Statistics counted = m_connection ? m_connection->statistics() : ModbusConnection::Statistics();
    return {{QStringLiteral("connections"), counted.connections}, {QStringLiteral("requests"), counted.requests},
            {QStringLiteral("discardedAnswers"), counted.discardedAnswers}};
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
