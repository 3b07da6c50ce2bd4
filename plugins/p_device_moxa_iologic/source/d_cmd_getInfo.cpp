// SPDX-License-Identifier: MIT
#include "d_cmd_getInfo.h"

#include "d_driver_instruction.h"
#include "diagnosticlog.h"

namespace {
const char c_sourceFile[] = "plugins/p_device_moxa_iologic/source/d_cmd_getInfo";

// Identity input registers of the module: model name (two characters a word, zero
// padded), firmware version and build (one byte a field), MAC address.
constexpr int c_modelNameRegister = 5000;
constexpr int c_modelNameWords = 10;
constexpr int c_firmwareRegister = 5029;
constexpr int c_firmwareWords = 4;
constexpr int c_macAddressRegister = 5024;
constexpr int c_macAddressWords = 3;

quint8 highByte(quint16 word) { return quint8(word >> 8); }
quint8 lowByte(quint16 word) { return quint8(word & 0xFF); }
} // namespace

DCmdGetInfo::DCmdGetInfo(const QMap<QString, QVariant> &parameters, QObject *parent)
    : DAbstractCommand(QStringLiteral("getInfo"), parameters, parent)
{
    setDescription(QStringLiteral("Get the connected device information"));
    declareAResult(QStringLiteral("deviceInformation"), QStringLiteral("vart"), QStringLiteral("Return device information"), QVariant());
}

DCmdGetInfo::DCmdGetInfo(QObject *parent)
    : DCmdGetInfo(QMap<QString, QVariant>(), parent)
{}

bool DCmdGetInfo::commandExecute()
{
    if (!DAbstractCommand::commandExecute())
        return false;
    m_modelNameReceived = false;
    m_firmwareReceived = false;
    m_macAddressReceived = false;
    readRegisters(c_modelNameRegister, c_modelNameWords, ReplyCallback(this, &DCmdGetInfo::rplModelName));
    readRegisters(c_firmwareRegister, c_firmwareWords, ReplyCallback(this, &DCmdGetInfo::rplFirmwareInfo));
    readRegisters(c_macAddressRegister, c_macAddressWords, ReplyCallback(this, &DCmdGetInfo::rplMacAddress));
    return true;
}

void DCmdGetInfo::readRegisters(int address, int words, ReplyCallback callback)
{
    const QVariantMap parameters{
        {QStringLiteral("register"), address},
        {QStringLiteral("registerType"), QStringLiteral("inputRegisters")},
        {QStringLiteral("dataSize"), words},
    };
    addInstruction(QLatin1String(c_driverTarget), QStringLiteral("read"), parameters, c_driverTimeoutMs, callback);
}

bool DCmdGetInfo::replyWords(const char *handler, const QMap<QString, QVariant> &reply, int minimumWords,
                             QList<quint16> *words) const
{
    const QString prefix = QStringLiteral("DCmdGetInfo::") + QLatin1String(handler) + QStringLiteral(" :");
    const auto values = reply.constFind(QStringLiteral("values"));
    if (values == reply.constEnd()) {
        diagnosticLine(this, c_sourceFile, __LINE__).noquote() << prefix << "reply does not contain values";
        return false;
    }
    if (values->type() != QVariant::List) {
        diagnosticLine(this, c_sourceFile, __LINE__).noquote() << prefix << "reply values are not a list";
        return false;
    }
    const QVariantList list = values->toList();
    if (list.size() < minimumWords) {
        diagnosticLine(this, c_sourceFile, __LINE__).noquote()
            << prefix << QStringLiteral("expected %1 words, got").arg(minimumWords) << list.size();
        return false;
    }
    for (const QVariant &value : list)
        words->append(quint16(value.toUInt() & 0xFFFF));
    return true;
}

bool DCmdGetInfo::rplModelName(unsigned long long, const QMap<QString, QVariant> &reply)
{
    QList<quint16> words;
    if (!replyWords("rplModelName", reply, 0, &words))
        return false;
    // The first zero byte ends the name.
    QByteArray name;
    for (const quint16 word : qAsConst(words)) {
        if (highByte(word) == 0)
            break;
        name.append(char(highByte(word)));
        if (lowByte(word) == 0)
            break;
        name.append(char(lowByte(word)));
    }
    m_modelName = QString::fromLatin1(name).trimmed();
    // An empty name is still a real (non-null) text.
    if (m_modelName.isNull())
        m_modelName = QLatin1String("");
    m_modelNameReceived = true;
    return complete();
}

bool DCmdGetInfo::rplFirmwareInfo(unsigned long long, const QMap<QString, QVariant> &reply)
{
    QList<quint16> words;
    if (!replyWords("rplFirmwareInfo", reply, c_firmwareWords, &words))
        return false;
    // Bytes b0..b7, high byte first: version b0.b1.b2, build b4 b5 b6 b7; b3 is unused.
    m_firmwareVersion = QStringLiteral("V%1.%2.%3").arg(highByte(words.at(0))).arg(lowByte(words.at(0))).arg(highByte(words.at(1)));
    const QLatin1Char zero('0');
    m_firmwareBuild = QStringLiteral("Build%1%2%3%4")
                          .arg(highByte(words.at(2)), 2, 10, zero)
                          .arg(lowByte(words.at(2)), 2, 10, zero)
                          .arg(highByte(words.at(3)), 2, 10, zero)
                          .arg(lowByte(words.at(3)), 2, 10, zero);
    m_firmwareReceived = true;
    return complete();
}

bool DCmdGetInfo::rplMacAddress(unsigned long long, const QMap<QString, QVariant> &reply)
{
    QList<quint16> words;
    if (!replyWords("rplMacAddress", reply, c_macAddressWords, &words))
        return false;
    const QLatin1Char zero('0');
    m_macAddress = QStringLiteral("%1:%2:%3:%4:%5:%6")
                       .arg(highByte(words.at(0)), 2, 16, zero)
                       .arg(lowByte(words.at(0)), 2, 16, zero)
                       .arg(highByte(words.at(1)), 2, 16, zero)
                       .arg(lowByte(words.at(1)), 2, 16, zero)
                       .arg(highByte(words.at(2)), 2, 16, zero)
                       .arg(lowByte(words.at(2)), 2, 16, zero)
                       .toUpper();
    m_macAddressReceived = true;
    return complete();
}

bool DCmdGetInfo::complete()
{
    if (!m_modelNameReceived || !m_firmwareReceived || !m_macAddressReceived)
        return true;
    const QString softwareVersion = m_firmwareBuild.isEmpty()
        ? m_firmwareVersion
        : QString(m_firmwareVersion + QLatin1Char(' ') + m_firmwareBuild);
    const QVariantMap information{
        {QStringLiteral("modelName"), m_modelName},
        {QStringLiteral("softwareVersion"), softwareVersion},
        {QStringLiteral("serialNumber"), QStringLiteral("")}, // not read: always empty, never null
        {QStringLiteral("macAddress"), m_macAddress},
    };
    return commandUpdateResult(QStringLiteral("deviceInformation"), information);
}
