// SPDX-License-Identifier: MIT
// A driver for tests that answers instructions by a script instead of a device.
#pragma once

#include "dabstractdriver.h"

#include <QSet>
#include <QVariantList>

// A script is a list of rules, tried in order against each started instruction:
//   "instruction"  name to match ("read", "write", "listen")
//   "match"        map of instruction parameters that must be equal (optional)
//   "times"        how many instructions the rule serves (optional, default every one)
//   "replies"      list of reply maps, sent one after the other; an empty list never answers
//   "delayMs"      wait before the first reply; "intervalMs" between replies
//   "open"         the last reply is not the last: more may follow (a listen)
// Without a matching rule: "write" answers {"values": [1]}, "read" and "listen" answer
// {"values": [0, ...]} with "dataSize" zeros (default 1); a listen stays open.
// The script comes from setScript(), or from the environment variable
// E1212_SCRIPTED_DRIVER (JSON text) when the connection is configured.
class PScriptedDriver : public DAbstractDriver
{
    Q_OBJECT
    Q_PLUGIN_METADATA(IID "org.e1212bench.host.plugin.PScriptedDriver")
public:
    explicit PScriptedDriver(const QUuid &instanceUuid = QUuid(), QObject *parent = nullptr);

    IPlugin *createInstance(const QUuid &instanceUuid) const override;
    // Refuses a "host" of "refuse.invalid", to exercise a refused connection.
    bool configureConnection(const QMap<QString, QVariant> &settings, QString *error) override;
    void startInstruction(unsigned long long id, const QString &instruction,
                          const QMap<QString, QVariant> &parameters, int timeoutMs) override;
    void stopInstruction(unsigned long long id) override;

    Q_INVOKABLE void setScript(const QVariantList &rules);
    // Every started instruction as {"id", "instruction", "parameters", "timeoutMs"}, in order.
    Q_INVOKABLE QVariantList started() const { return m_started; }
    // The ids given to stopInstruction, in order.
    Q_INVOKABLE QVariantList stopped() const { return m_stopped; }

private:
    void sendReply(unsigned long long id, const QVariantList &replies, int index, int intervalMs, bool open);

    QVariantList m_rules;
    QVariantList m_started;
    QVariantList m_stopped;
    QSet<unsigned long long> m_active;
};
