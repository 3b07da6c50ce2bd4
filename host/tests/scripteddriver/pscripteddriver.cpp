// SPDX-License-Identifier: MIT
#include "pscripteddriver.h"

#include <QJsonDocument>
#include <QTimer>

namespace {
const char c_uuid[] = "{5c0a7e2e-4d1b-4b8e-9a43-1f2e3d4c5b6a}";
}

PScriptedDriver::PScriptedDriver(const QUuid &instanceUuid, QObject *parent)
    : DAbstractDriver(QUuid(c_uuid), QStringLiteral("Scripted test driver"), IPlugin::CeDriver,
                      quint64(1) << 48, instanceUuid, parent, true)
{}

IPlugin *PScriptedDriver::createInstance(const QUuid &instanceUuid) const
{
    return new PScriptedDriver(instanceUuid, nullptr);
}

bool PScriptedDriver::configureConnection(const QMap<QString, QVariant> &settings, QString *error)
{
    if (settings.value(QStringLiteral("host")).toString() == QLatin1String("refuse.invalid")) {
        if (error)
            *error = QStringLiteral("host \"refuse.invalid\" is refused by the scripted driver");
        return false;
    }
    const QByteArray script = qgetenv("E1212_SCRIPTED_DRIVER");
    if (!script.isEmpty())
        m_rules = QJsonDocument::fromJson(script).toVariant().toList();
    return true;
}

void PScriptedDriver::setScript(const QVariantList &rules)
{
    m_rules = rules;
}

void PScriptedDriver::startInstruction(unsigned long long id, const QString &instruction,
                                       const QMap<QString, QVariant> &parameters, int timeoutMs)
{
    m_started << QVariantMap{{QStringLiteral("id"), id}, {QStringLiteral("instruction"), instruction},
                             {QStringLiteral("parameters"), parameters}, {QStringLiteral("timeoutMs"), timeoutMs}};
    m_active.insert(id);
    for (QVariant &ruleValue : m_rules) {
        QVariantMap rule = ruleValue.toMap();
        if (rule.value(QStringLiteral("instruction")).toString() != instruction)
            continue;
        const QVariantMap match = rule.value(QStringLiteral("match")).toMap();
        bool matches = true;
        for (auto it = match.cbegin(); it != match.cend(); ++it)
            matches = matches && parameters.value(it.key()).toString() == it.value().toString();
        if (!matches)
            continue;
        if (rule.contains(QStringLiteral("times"))) {
            const int times = rule.value(QStringLiteral("times")).toInt();
            if (times <= 0)
                continue;
            rule.insert(QStringLiteral("times"), times - 1);
            ruleValue = rule;
        }
        const QVariantList replies = rule.value(QStringLiteral("replies")).toList();
        if (replies.isEmpty())
            return;
        const int interval = rule.value(QStringLiteral("intervalMs")).toInt();
        const bool open = rule.value(QStringLiteral("open")).toBool();
        QTimer::singleShot(rule.value(QStringLiteral("delayMs")).toInt(), this,
                           [=] { sendReply(id, replies, 0, interval, open); });
        return;
    }
    QVariantList values;
    if (instruction == QLatin1String("write"))
        values << 1;
    else
        for (int i = 0; i < qMax(1, parameters.value(QStringLiteral("dataSize"), 1).toInt()); ++i)
            values << 0;
    const bool open = instruction == QLatin1String("listen");
    QTimer::singleShot(0, this, [=] { sendReply(id, {QVariantMap{{QStringLiteral("values"), values}}}, 0, 0, open); });
}

void PScriptedDriver::sendReply(unsigned long long id, const QVariantList &replies, int index, int intervalMs, bool open)
{
    if (!m_active.contains(id))
        return;
    const bool last = index == replies.size() - 1 && !open;
    if (last)
        m_active.remove(id);
    emit sigInstructionReply(id, replies.at(index).toMap(), last);
    if (index + 1 < replies.size())
        QTimer::singleShot(intervalMs, this, [=] { sendReply(id, replies, index + 1, intervalMs, open); });
}

void PScriptedDriver::stopInstruction(unsigned long long id)
{
    m_stopped << id;
    m_active.remove(id);
}
