// SPDX-License-Identifier: MIT
#include "d_cmd_listenEvents.h"

#include "d_driver_instruction.h"
#include "diagnosticlog.h"

namespace {
const char c_sourceFile[] = "plugins/p_device_moxa_iologic/source/d_cmd_listenEvents";
} // namespace

DCmdListenEvents::DCmdListenEvents(const QMap<QString, QVariant> &parameters, QObject *parent)
    : DAbstractCommand(QStringLiteral("listenEvents"), QStringLiteral("stopListening"), parameters, parent)
{
    setDescription(QStringLiteral("Return the mesured value on the GPIO pin"));
    declareAParameter(QStringLiteral("channel"), QStringLiteral("strg"), QStringLiteral("Channel name"), QVariant());
    declareAResult(QStringLiteral("values"), QStringLiteral("vart"),
                   QStringLiteral("Return 0 or 1 for digital IO and a 16 bits unsigned interger for analog IO"), QVariant());
}

DCmdListenEvents::DCmdListenEvents(QObject *parent)
    : DCmdListenEvents(QMap<QString, QVariant>(), parent)
{}

bool DCmdListenEvents::commandExecute()
{
    if (!DAbstractCommand::commandExecute())
        return false;
    m_channel = getParameterValue(QStringLiteral("channel"), QVariant()).toString();
    if (m_channel.isEmpty()) {
        diagnosticLine(this, c_sourceFile, __LINE__) << "ERROR: Register number not valid";
        return false;
    }
    const quint32 address = getInfoFromChannel(m_channel, QStringLiteral("register"), QMetaType::UInt, QVariant()).toUInt();
    const QString readType = getInfoFromChannel(m_channel, QStringLiteral("readRegisterType"), QMetaType::QString, QVariant()).toString();
    const QVariantMap parameters{
        {QStringLiteral("register"), int(address & 0xFFFF)},
        {QStringLiteral("registerType"), readType},
        {QStringLiteral("dataSize"), 1},
    };
    addInstruction(QLatin1String(c_driverTarget), QStringLiteral("listen"), parameters, c_driverTimeoutMs,
                   ReplyCallback(this, &DCmdListenEvents::rplEvent));
    return true;
}

bool DCmdListenEvents::rplEvent(unsigned long long, const QMap<QString, QVariant> &reply)
{
    QVariantMap result;
    QVariantList values;
    const auto received = reply.constFind(QStringLiteral("values"));
    if (received == reply.constEnd()) {
        diagnosticLine(this, c_sourceFile, __LINE__) << "ERROR: Invalid reply format";
        return false;
    }
    if (received->type() == QVariant::List)
        values = received->toList();
    else
        diagnosticLine(this, c_sourceFile, __LINE__) << "ERROR: Reply data format not managed";

    if (values.size() == 1)
        result.insert(QStringLiteral("values"), values);
    else
        diagnosticLine(this, c_sourceFile, __LINE__) << "ERROR: Command returns unwaited number of data :" << values.size()
                                                     << "expected" << 1 << ", receivedData =" << *received;
    // A wrong report still replaces the result, with the empty map.
    return commandUpdateResult(QStringLiteral("values"), result);
}
