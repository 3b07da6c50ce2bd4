// SPDX-License-Identifier: MIT
#include "dchannelindex.h"

#include <QVariantList>
#include <QVariantMap>

void DChannelIndex::rebuild(const QVariant &table)
{
    const QString id = QStringLiteral("id");
    const QString value = QStringLiteral("value");
    m_records.clear();
    const QVariantList records = table.toList();
    for (const QVariant &record : records) {
        const QVariantMap recordMap = record.toMap();
        const QString channel = recordMap.value(id).toString();
        if (m_records.contains(channel))
            continue;
        QHash<QString, QVariant> &entries = m_records[channel];
        const QVariantList list = recordMap.value(value).toList();
        for (const QVariant &entry : list) {
            const QVariantMap entryMap = entry.toMap();
            const QString key = entryMap.value(id).toString();
            if (!entries.contains(key))
                entries.insert(key, entryMap.value(value));
        }
    }
}

QVariant DChannelIndex::value(const QString &channel, const QString &key) const
{
    const auto record = m_records.constFind(channel);
    return record == m_records.constEnd() ? QVariant() : record->value(key);
}
