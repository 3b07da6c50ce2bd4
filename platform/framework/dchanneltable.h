// SPDX-License-Identifier: MIT
// A device's channel table: the records of a plug-in's "channels" parameter (and of a
// configuration's "*_channels" entries), looked up by channel id and entry id, and the
// Modbus register spaces the records name, with their per-request size limits.
#pragma once

#include <QHash>
#include <QString>
#include <QStringList>
#include <QVariant>
#include <QVector>

class DChannelTable
{
public:
    // The register spaces a record's "readRegisterType"/"writeRegisterType" names.
    enum RegisterSpace { NoSpace, Coils, DiscreteInputs, InputRegisters, HoldingRegisters };

    // "coilsRegister", "discreteInputs", "inputRegisters", "holdingRegisters"; NoSpace otherwise.
    static RegisterSpace spaceFromName(const QString &name);
    static QString spaceName(RegisterSpace space);
    static QStringList spaceNames();
    // Coils and discrete inputs hold bits, the register spaces 16-bit words.
    static bool isBitSpace(RegisterSpace space) { return space == Coils || space == DiscreteInputs; }
    static bool isWritable(RegisterSpace space) { return space == Coils || space == HoldingRegisters; }
    // Most items one request may read (2000 bits, 125 words) and write (1968 coils, 123
    // registers; 0 for a read-only space). NoSpace reads as a bit space.
    static int maxReadCount(RegisterSpace space);
    static int maxWriteCount(RegisterSpace space);

    // The channel types a record's "type" entry names; outputs take writes.
    static QStringList typeNames();
    static bool isOutputType(const QString &type);

    // The fixed records of the module's pulse-output registers, and the entries each must give.
    static QStringList pulseRecordIds();
    static QStringList pulseRecordEntryIds();

    struct Record
    {
        QString id;
        QString name;
        // The first entry of each id, raw.
        QHash<QString, QVariant> entries;
        // Entry ids in table order (first occurrence).
        QStringList entryIds;

        QVariant value(const QString &key) const { return entries.value(key); }
        QString type() const { return entries.value(QStringLiteral("type")).toString(); }
        // A real channel (it has a "type"), as opposed to a pulse-register record.
        bool isChannel() const { return entries.contains(QStringLiteral("type")); }
        bool isOutput() const { return isOutputType(type()); }
        RegisterSpace readSpace() const;
        RegisterSpace writeSpace() const;
    };

    DChannelTable() = default;
    // Reads `table`, a list of records {"id", "name", "value": [{"id", "value"}, ...]}, as a
    // scan in table order reads it: the first record of each id, and in it the first entry
    // of each id (ids compared as text; a record or entry that is not a map has the id "").
    explicit DChannelTable(const QVariant &table);

    bool isEmpty() const { return m_records.isEmpty(); }
    // Every record (first of each id), in table order.
    const QVector<Record> &records() const { return m_records; }
    // The record with this id, or nullptr.
    const Record *record(const QString &id) const;
    // The entry's raw "value"; an invalid QVariant when the record or the entry is missing.
    QVariant value(const QString &channel, const QString &key) const;
    // The ids of the real channels (records with a "type"), in table order.
    QStringList channelIds() const;

private:
    QVector<Record> m_records;
    QHash<QString, int> m_byId;
};
