// SPDX-License-Identifier: MIT
#include "pscripteddriver.h"

#include <QTimer>

PScriptedDriver::PScriptedDriver(const QUuid &instanceUuid, QObject *parent)
    : DAbstractDriver(QUuid("{5c0a7e2e-4d1b-4b8e-9a43-1f2e3d4c5b6a}"), QStringLiteral("Scripted test driver"),
                      IPlugin::CeDriver, quint64(1) << 48, instanceUuid, parent, true)
{}

IPlugin *PScriptedDriver::createInstance(const QUuid &instanceUuid) const
{
    return property("makesNoInstance").toBool() ? nullptr : new PScriptedDriver(instanceUuid, nullptr);
}

void PScriptedDriver::startInstruction(unsigned long long id, const QString &instruction,
                                       const QMap<QString, QVariant> &parameters, int timeoutMs)
{
    m_started << QVariantMap{{QStringLiteral("id"), id}, {QStringLiteral("instruction"), instruction},
                             {QStringLiteral("parameters"), parameters}, {QStringLiteral("timeoutMs"), timeoutMs}};
    for (const QVariant &value : qAsConst(m_rules)) {
        const QVariantMap rule = value.toMap();
        const QVariant address = rule.value(QStringLiteral("register"));
        if (rule.value(QStringLiteral("instruction")) == instruction
            && (!address.isValid() || address == parameters.value(QStringLiteral("register")))) {
            reply(id, rule, 0);
            return;
        }
    }
}

void PScriptedDriver::reply(unsigned long long id, const QVariantMap &rule, int index)
{
    const QVariantList replies = rule.value(QStringLiteral("replies")).toList();
    if (index >= replies.size())
        return;
    QTimer::singleShot(rule.value(QStringLiteral("delayMs")).toInt(), this, [=] {
        if (m_stopped.contains(id))
            return;
        emit sigInstructionReply(id, replies.at(index).toMap(), index + 1 == replies.size() && !rule.value(QStringLiteral("open")).toBool());
        reply(id, rule, index + 1);
    });
}
