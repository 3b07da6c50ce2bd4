// SPDX-License-Identifier: MIT
// One input or output channel of the module, as the maintenance screen shows it.
#pragma once

#include "dobject.h"

#include <QMap>
#include <QSharedPointer>
#include <QVariant>

class DMoxaChannel : public DObject
{
    Q_OBJECT
    Q_PROPERTY(QString id READ id NOTIFY idChanged FINAL)
    Q_PROPERTY(QString name READ name NOTIFY nameChanged FINAL)
    Q_PROPERTY(QString label READ label NOTIFY labelChanged FINAL)
    Q_PROPERTY(QVariant value READ value NOTIFY valueChanged FINAL)
    Q_PROPERTY(EnChannelType type READ type NOTIFY typeChanged FINAL)
public:
    enum EnChannelType {
        CeCtUnknown,
        CeCtAnaIn,
        CeCtAnaOut,
        CeCtBinIn,
        CeCtBinOut,
        _CeCtNbr
    };
    Q_ENUM(EnChannelType)

    // Configuration type names ("digitalInput"...) to channel types; exact, case-sensitive.
    static const QMap<QString, EnChannelType> c_channelTypesMap;

    explicit DMoxaChannel(QObject *parent = nullptr);
    ~DMoxaChannel() override;

    QString id() const { return m_id; }
    QString name() const { return m_name; }
    QString label() const { return m_label; }
    QVariant value() const { return m_value; }
    EnChannelType type() const { return m_type; }
    // Every information entry given to create(), by entry id.
    QMap<QString, QVariant> properties() const { return m_properties; }

    void setId(const QString &id);
    void setName(const QString &name);
    void setLabel(const QString &label);
    void setType(EnChannelType type);
    // Stores the value (emitting valueChanged on a real change) and returns whether the
    // stored value suits the channel's type; the value is stored even when it does not.
    bool setValue(const QVariant &value);

    // Digital outputs are the channels a user may toggle.
    Q_INVOKABLE bool isSwitchable();

    // A channel from one channel-table record ("id", "name", "value" list of {"id","value"}
    // entries); null for an empty record. Label and value are left unset.
    static QSharedPointer<DMoxaChannel> create(const QMap<QString, QVariant> &record);

signals:
    void idChanged();
    void nameChanged();
    void labelChanged();
    void valueChanged();
    void typeChanged();
    // A request to toggle the channel. Declared for the channel's interface; the panel
    // toggles outputs through the back-end instead.
    void sigSwitchChannelValue(const QString &channelId);

private:
    QString m_id;
    QString m_name;
    QString m_label;
    QVariant m_value;
    EnChannelType m_type = CeCtUnknown;
    QMap<QString, QVariant> m_properties;
};
