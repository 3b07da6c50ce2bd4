// SPDX-License-Identifier: MIT
#include "dchanneltable.h"

#include <QVariantList>
#include <QVariantMap>

namespace {

struct SpaceInfo
{
    DChannelTable::RegisterSpace space;
    const char *name;
    int maxRead;
    int maxWrite;
};

// Modbus limits per request: FC1/FC2 2000 bits, FC3/FC4 125 words, FC15 1968 coils, FC16 123 registers.
const SpaceInfo c_spaces[] = {
    {DChannelTable::Coils, "coilsRegister", 2000, 1968},
    {DChannelTable::DiscreteInputs, "discreteInputs", 2000, 0},
    {DChannelTable::InputRegisters, "inputRegisters", 125, 0},
    {DChannelTable::HoldingRegisters, "holdingRegisters", 125, 123},
};

const SpaceInfo *infoOf(DChannelTable::RegisterSpace space)
{
    for (const SpaceInfo &info : c_spaces)
        if (info.space == space)
            return &info;
    return nullptr;
}

} // namespace

DChannelTable::RegisterSpace DChannelTable::spaceFromName(const QString &name)
{
    for (const SpaceInfo &info : c_spaces)
        if (name == QLatin1String(info.name))
            return info.space;
    return NoSpace;
}

QString DChannelTable::spaceName(RegisterSpace space)
{
    const SpaceInfo *info = infoOf(space);
    return info ? QString::fromLatin1(info->name) : QString();
}

QStringList DChannelTable::spaceNames()
{
    QStringList names;
    for (const SpaceInfo &info : c_spaces)
        names << QString::fromLatin1(info.name);
    return names;
}

int DChannelTable::maxReadCount(RegisterSpace space)
{
    const SpaceInfo *info = infoOf(space);
    return info ? info->maxRead : c_spaces[0].maxRead;
}

int DChannelTable::maxWriteCount(RegisterSpace space)
{
    const SpaceInfo *info = infoOf(space);
    return info ? info->maxWrite : 0;
}

QStringList DChannelTable::typeNames()
{
    return {QStringLiteral("analogInput"), QStringLiteral("analogOutput"), QStringLiteral("digitalInput"),
            QStringLiteral("digitalOutput")};
}

bool DChannelTable::isOutputType(const QString &type)
{
    return type == QLatin1String("digitalOutput") || type == QLatin1String("analogOutput");
}

QStringList DChannelTable::pulseRecordIds()
{
    return {QStringLiteral("DO_PulseStatus"), QStringLiteral("DO_PulseOnWidth"), QStringLiteral("DO_PulseOffWidth")};
}

QStringList DChannelTable::pulseRecordEntryIds()
{
    return {QStringLiteral("register"), QStringLiteral("writeRegisterType")};
}

DChannelTable::RegisterSpace DChannelTable::Record::readSpace() const
{
    return spaceFromName(value(QStringLiteral("readRegisterType")).toString());
}

DChannelTable::RegisterSpace DChannelTable::Record::writeSpace() const
{
    return spaceFromName(value(QStringLiteral("writeRegisterType")).toString());
}

DChannelTable::DChannelTable(const QVariant &table)
{
    const QString id = QStringLiteral("id");
    const QString value = QStringLiteral("value");
    const QVariantList records = table.toList();
    for (const QVariant &recordValue : records) {
        const QVariantMap recordMap = recordValue.toMap();
        const QString channel = recordMap.value(id).toString();
        if (m_byId.contains(channel))
            continue;
        Record record;
        record.id = channel;
        record.name = recordMap.value(QStringLiteral("name")).toString();
        const QVariantList list = recordMap.value(value).toList();
        for (const QVariant &entry : list) {
            const QVariantMap entryMap = entry.toMap();
            const QString key = entryMap.value(id).toString();
            if (record.entries.contains(key))
                continue;
            record.entries.insert(key, entryMap.value(value));
            record.entryIds << key;
        }
        m_byId.insert(channel, m_records.size());
        m_records << record;
    }
}

const DChannelTable::Record *DChannelTable::record(const QString &id) const
{
    const auto it = m_byId.constFind(id);
    return it == m_byId.constEnd() ? nullptr : &m_records.at(*it);
}

QVariant DChannelTable::value(const QString &channel, const QString &key) const
{
    const Record *found = record(channel);
    return found ? found->value(key) : QVariant();
}

QStringList DChannelTable::channelIds() const
{
    QStringList ids;
    for (const Record &record : m_records)
        if (record.isChannel())
            ids << record.id;
    return ids;
}
