// SPDX-License-Identifier: MIT
#include "d_moxa_channel.h"

// Library load registers the embedded maintenance panel first and builds c_channelTypesMap
// second; unload undoes them in reverse. Both are statics of this one file, which are built
// in the order they appear and destroyed in the reverse order.
#include "qrc_maintenance_panel.cpp"

const QMap<QString, DMoxaChannel::EnChannelType> DMoxaChannel::c_channelTypesMap = {
    {QStringLiteral("analogInput"), DMoxaChannel::CeCtAnaIn},
    {QStringLiteral("analogOutput"), DMoxaChannel::CeCtAnaOut},
    {QStringLiteral("digitalInput"), DMoxaChannel::CeCtBinIn},
    {QStringLiteral("digitalOutput"), DMoxaChannel::CeCtBinOut},
};

namespace {
// canConvert() alone only looks at the types: a text such as "abc" would pass as an integer.
bool convertsTo(const QVariant &value, QMetaType::Type type)
{
    QVariant copy = value;
    return value.canConvert(type) && copy.convert(type);
}
} // namespace

DMoxaChannel::DMoxaChannel(QObject *parent)
    : DObject(QStringLiteral("DMoxaChannel"), parent)
{}

DMoxaChannel::~DMoxaChannel() = default;

void DMoxaChannel::setId(const QString &id)
{
    if (m_id == id)
        return;
    m_id = id;
    emit idChanged();
}

void DMoxaChannel::setName(const QString &name)
{
    if (m_name == name)
        return;
    m_name = name;
    emit nameChanged();
}

void DMoxaChannel::setLabel(const QString &label)
{
    if (m_label == label)
        return;
    m_label = label;
    emit labelChanged();
}

void DMoxaChannel::setType(EnChannelType type)
{
    if (m_type == type)
        return;
    m_type = type;
    emit typeChanged();
}

bool DMoxaChannel::setValue(const QVariant &value)
{
    if (value != m_value) {
        m_value = value;
        emit valueChanged();
    }
    switch (m_type) {
    case CeCtAnaIn:
    case CeCtAnaOut:
        return convertsTo(m_value, QMetaType::Int);
    case CeCtBinIn:
    case CeCtBinOut:
        return convertsTo(m_value, QMetaType::Bool);
    default:
        return false;
    }
}

bool DMoxaChannel::isSwitchable()
{
    return m_type == CeCtBinOut;
}

QSharedPointer<DMoxaChannel> DMoxaChannel::create(const QMap<QString, QVariant> &record)
{
    if (record.isEmpty())
        return {};
    QSharedPointer<DMoxaChannel> channel(new DMoxaChannel(nullptr));
    channel->setId(record.value(QStringLiteral("id")).toString());
    channel->setName(record.value(QStringLiteral("name")).toString());

    const QVariant entries = record.value(QStringLiteral("value"));
    if (entries.type() != QVariant::List)
        return channel;
    for (const QVariant &entry : entries.toList()) {
        if (entry.type() != QVariant::Map)
            continue;
        const QVariantMap entryMap = entry.toMap();
        const QString key = entryMap.value(QStringLiteral("id")).toString();
        const QVariant value = entryMap.value(QStringLiteral("value"));
        channel->m_properties.insert(key, value);
        if (key == QLatin1String("type"))
            channel->setType(c_channelTypesMap.value(value.toString(), CeCtUnknown));
    }
    return channel;
}
