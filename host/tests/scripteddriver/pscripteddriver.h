// SPDX-License-Identifier: MIT
// A driver for tests that answers instructions by a script instead of a device.
#pragma once

#include "dabstractdriver.h"

#include <QVariantList>

// A script is a list of rules; an instruction takes the first rule whose "instruction" is its
// name and whose "register" (when given) is its "register" parameter. The rule's "replies"
// go out one by one, each "delayMs" after the one before; the last one ends the instruction
// unless the rule is "open" (a listen). No rule, or no replies: no answer at all.
class PScriptedDriver : public DAbstractDriver
{
    Q_OBJECT
    Q_PLUGIN_METADATA(IID "org.e1212bench.host.plugin.PScriptedDriver")
public:
    explicit PScriptedDriver(const QUuid &instanceUuid = QUuid(), QObject *parent = nullptr);

    // None while the object's property "makesNoInstance" is true.
    IPlugin *createInstance(const QUuid &instanceUuid) const override;
    bool configureConnection(const QMap<QString, QVariant> &, QString *) override { return true; }
    void startInstruction(unsigned long long id, const QString &instruction,
                          const QMap<QString, QVariant> &parameters, int timeoutMs) override;
    void stopInstruction(unsigned long long id) override { m_stopped << id; }

    Q_INVOKABLE void setScript(const QVariantList &rules) { m_rules = rules; }
    // Every started instruction as {"id", "instruction", "parameters", "timeoutMs"}, in order.
    Q_INVOKABLE QVariantList started() const { return m_started; }
    // The ids given to stopInstruction, in order.
    Q_INVOKABLE QVariantList stopped() const { return m_stopped; }

private:
    void reply(unsigned long long id, const QVariantMap &rule, int index);

    QVariantList m_rules;
    QVariantList m_started;
    QVariantList m_stopped;
};
