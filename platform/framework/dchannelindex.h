// SPDX-License-Identifier: MIT
// Index of a plug-in's channel table (its "channels" parameter) by channel id and entry id.
#pragma once

#include <QHash>
#include <QString>
#include <QVariant>

class DChannelIndex
{
public:
    // Indexes `table`, a list of records {"id", "value": [{"id", "value"}, ...]}, read as a
    // scan in table order reads it: the first record of each id, and in it the first entry
    // of each id (ids compared as text; a record or entry that is not a map has the id "").
    void rebuild(const QVariant &table);
    // The entry's raw "value"; an invalid QVariant when the record or the entry is missing.
    QVariant value(const QString &channel, const QString &key) const;

private:
    QHash<QString, QHash<QString, QVariant>> m_records;
};
