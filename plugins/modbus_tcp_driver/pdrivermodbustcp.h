// SPDX-License-Identifier: MIT
// The Modbus TCP driver plug-in: carries a device's "read", "write" and "listen"
// instructions to the device over one kept Modbus TCP connection.
#pragma once

#include "dabstractdriver.h"
#include "modbusconnectionsettings.h"

#include <QSet>

class ModbusConnection;
class ModbusPoller;

// Replies: {"values": [unsigned numbers in register order]} for a read or a listen report,
// {"values": [1]} for a write whose echo matched; on failure DError::toReply() with a text
// naming the device, the registers and the cause. A read or write gets exactly one reply
// (last = true); a listen reports with last = false until stopInstruction(), an outage
// once as an error reply, then values again once the device answers.
class PDriverModbusTcp : public DAbstractDriver
{
    Q_OBJECT
    Q_PLUGIN_METADATA(IID "org.e1212bench.host.plugin.PDriverModbusTcp")
public:
    explicit PDriverModbusTcp(const QUuid &instanceUuid = QUuid(), QObject *parent = nullptr);
    ~PDriverModbusTcp() override;

    static QUuid getPluginId();

    IPlugin *createInstance(const QUuid &instanceUuid) const override;
    const char *pluginSubTypeName() const override;

    // Keys "host" (default 127.0.0.1), "port" (502), "unitId" (1), "timeoutMs" (1000, used
    // when an instruction comes with no time-out of its own) and "pollIntervalMs" (100).
    // Nothing is opened here: the connection opens on first use.
    // Reconfiguring drops the old connection; instructions under way get an error reply.
    bool configureConnection(const QMap<QString, QVariant> &settings, QString *error) override;
    void startInstruction(unsigned long long id, const QString &instruction,
                          const QMap<QString, QVariant> &parameters, int timeoutMs) override;
    void stopInstruction(unsigned long long id) override;

    const ModbusConnectionSettings &connectionSettings() const { return m_settings; }
    // The current connection's counters: {"connections": n (opened), "requests": n (sent),
    // "discardedAnswers": n (late or duplicate answers dropped)}; zeros before the first
    // instruction and after a reconfiguration.
    Q_INVOKABLE QVariantMap connectionStatistics() const;

private:
    void replyLater(unsigned long long id, const QVariantMap &reply);
    void closeConnection(const QString &reason);

    ModbusConnectionSettings m_settings;
    bool m_configured = false;
    ModbusConnection *m_connection = nullptr;
    ModbusPoller *m_poller = nullptr;
    QSet<unsigned long long> m_pending; // one-shot instructions not yet replied to
};
