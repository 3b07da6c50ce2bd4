// SPDX-License-Identifier: MIT
#include "be_maintenance_plugin.h"

#include "dabstractplugin.h"

#include <QLoggingCategory>

Q_LOGGING_CATEGORY(lcPanel, "e1212.panel")

namespace {
const QString c_getInfo = QStringLiteral("getInfo");
const QString c_getValue = QStringLiteral("getValue");
const QString c_setValue = QStringLiteral("setValue");
const QString c_listenEvents = QStringLiteral("listenEvents");

QString describeRun(const QString &command, const QString &channel)
{
    return channel.isEmpty() ? QStringLiteral("\"%1\"").arg(command)
                             : QStringLiteral("\"%1\" on %2").arg(command, channel);
}
} // namespace

BeMaintenanceDeviceMoxaIoLogic::BeMaintenanceDeviceMoxaIoLogic(QObject *parent)
    : DAbstractPluginBackend(parent)
    , m_channels(new OLM_DMoxaChannel(this))
{
    m_retryTimer.setSingleShot(true);
    m_retryTimer.setInterval(1000);
    connect(&m_retryTimer, &QTimer::timeout, this, &BeMaintenanceDeviceMoxaIoLogic::retry);
}

BeMaintenanceDeviceMoxaIoLogic::~BeMaintenanceDeviceMoxaIoLogic()
{
    stopAll();
}

QObject *BeMaintenanceDeviceMoxaIoLogic::device() const
{
    return plugin();
}

void BeMaintenanceDeviceMoxaIoLogic::setDevice(QObject *device)
{
    auto *newPlugin = qobject_cast<DAbstractPlugin *>(device);
    if (newPlugin == plugin())
        return;
    stopAll();
    m_started = false;
    m_infoKnown = false;
    setPlugin(newPlugin);
    setState(CeCsIdle);
}

void BeMaintenanceDeviceMoxaIoLogic::setConnectionPath(const QString &path)
{
    setField(m_connectionPath, path, &BeMaintenanceDeviceMoxaIoLogic::connectionPathChanged);
}

void BeMaintenanceDeviceMoxaIoLogic::setRetryDelayMs(int ms)
{
    if (ms < 0 || ms == m_retryTimer.interval())
        return;
    m_retryTimer.setInterval(ms);
    emit retryDelayMsChanged();
}

bool BeMaintenanceDeviceMoxaIoLogic::initBackend()
{
    DAbstractPlugin *device = plugin();
    if (!device) {
        setState(CeCsError, QStringLiteral("No device: the panel was opened without an E1212 plug-in instance"));
        return false;
    }
    QString error;
    if (m_channels->count() == 0 && !fillChannels(&error)) {
        qCWarning(lcPanel).noquote() << error;
        setState(CeCsError, error);
        return false;
    }
    if (m_connectionPath.isEmpty()) {
        QString path = device->getProperty(QStringLiteral("connectionPath"), QVariant()).toString();
        if (path.isEmpty())
            path = device->getProperty(QStringLiteral("reference"), QVariant()).toString();
        setConnectionPath(path);
    }
    if (!m_started) {
        m_started = true;
        setState(CeCsConnecting);
    }
    getDeviceInfo();
    updateChannelsValue();
    return true;
}

bool BeMaintenanceDeviceMoxaIoLogic::fillChannels(QString *error)
{
    const QVariantList table = plugin()->getFromParameters(QStringLiteral("channels")).toList();
    for (const QVariant &record : table) {
        QSharedPointer<DMoxaChannel> channel = DMoxaChannel::create(record.toMap());
        // The pulse register records carry no "type": they are not channels.
        if (!channel || !channel->properties().contains(QStringLiteral("type")))
            continue;
        channel->setLabel(channel->name());
        m_channels->append(channel);
    }
    if (m_channels->count() == 0) {
        *error = QStringLiteral("No channels: the plug-in \"%1\" has no channel table (parameter \"channels\") "
                                "for reference \"%2\"")
                     .arg(plugin()->getName(),
                          plugin()->getProperty(QStringLiteral("reference"), QVariant()).toString());
        return false;
    }
    return true;
}

void BeMaintenanceDeviceMoxaIoLogic::getDeviceInfo()
{
    for (const Run &run : qAsConst(m_runs)) {
        if (run.command == c_getInfo)
            return;
    }
    if (const unsigned long long id = runCommand(c_getInfo))
        m_runs.insert(id, {c_getInfo, QString(), QVariant()});
}

void BeMaintenanceDeviceMoxaIoLogic::updateChannelsValue()
{
    for (int i = 0; i < m_channels->count(); ++i) {
        const QString channelId = m_channels->at(i)->id();
        if (m_listening.contains(channelId))
            continue;
        const unsigned long long id = runCommand(c_listenEvents, {{QStringLiteral("channel"), channelId}});
        if (!id)
            return;
        m_runs.insert(id, {c_listenEvents, channelId, QVariant()});
        m_listening.insert(channelId, id);
    }
}

bool BeMaintenanceDeviceMoxaIoLogic::clickedOnChannel(const QString &channelId)
{
    DMoxaChannel *target = channel(channelId);
    if (!target || !target->isSwitchable() || !target->value().isValid() || m_pending.contains(channelId))
        return false;
    const bool wanted = !target->value().toBool();
    const unsigned long long id = runCommand(c_setValue, {{QStringLiteral("channel"), channelId},
                                                          {QStringLiteral("value"), wanted ? 1 : 0}});
    if (!id)
        return false;
    m_runs.insert(id, {c_setValue, channelId, wanted});
    setPending(channelId, true);
    return true;
}

void BeMaintenanceDeviceMoxaIoLogic::applyTreatmentReply(unsigned long long runId, const QString &command,
                                                         const QString &name, const QVariant &value)
{
    const Run run = m_runs.value(runId);
    if (command == c_getInfo && name == QLatin1String("deviceInformation")) {
        applyDeviceInformation(value.toMap());
    } else if (command == c_listenEvents && name == QLatin1String("values")) {
        // A report is {"values": [value]}; the command posts an empty map for a bad one.
        const QVariantList values = value.toMap().value(QStringLiteral("values")).toList();
        if (values.size() != 1) {
            qCWarning(lcPanel) << "ignored a malformed report for" << run.channel << ":" << value;
            return;
        }
        applyChannelValue(run.channel, values.constFirst());
    } else if (command == c_setValue && name == QLatin1String("doneOk")) {
        if (!value.toBool()) {
            setPending(run.channel, false);
            setState(CeCsError, QStringLiteral("%1: the device did not accept the new value")
                                    .arg(describeRun(command, run.channel)));
            return;
        }
    } else if (command == c_getValue && name == QLatin1String("value")) {
        // Read-back after a toggle: the device has taken the write.
        setPending(run.channel, false);
    } else {
        return;
    }
    setState(CeCsConnected);
}

void BeMaintenanceDeviceMoxaIoLogic::treatmentReleased(unsigned long long runId, const QString &command,
                                                       IMessenger::EnErrorCode code, const QString &error)
{
    const Run run = m_runs.take(runId);
    if (run.command == c_listenEvents && m_listening.value(run.channel) == runId)
        m_listening.remove(run.channel);

    if (code == IMessenger::CeNoError) {
        if (run.command == c_setValue && m_pending.contains(run.channel)) {
            const unsigned long long id = runCommand(c_getValue, {{QStringLiteral("channel"), run.channel}});
            if (id)
                m_runs.insert(id, {c_getValue, run.channel, run.target});
            else
                setPending(run.channel, false);
        }
        if (run.command == c_listenEvents && m_started)
            m_retryTimer.start(); // a listening only ends when stopped: start it again
        return;
    }

    if (!run.channel.isEmpty() && run.command != c_listenEvents)
        setPending(run.channel, false);
    const QString what = describeRun(command, run.channel);
    qCWarning(lcPanel).noquote() << what << "failed:" << error;
    switch (code) {
    case IMessenger::CeTimeout:
        setState(CeCsNotAnswering, QStringLiteral("%1: %2").arg(what, error));
        break;
    case IMessenger::CeStopped:
        if (!m_started)
            return;
        break;
    default:
        setState(CeCsError, QStringLiteral("%1: %2").arg(what, error));
        break;
    }
    // A refusal by the host or the plug-in is no device fault: asking again cannot help.
    if (m_started && code != IMessenger::CeNoRoute && code != IMessenger::CeRefused)
        m_retryTimer.start();
}

void BeMaintenanceDeviceMoxaIoLogic::commandResultChanged(unsigned long long runId, const QString &command,
                                                          const QString &name, const QVariant &value)
{
    applyTreatmentReply(runId, command, name, value);
}

void BeMaintenanceDeviceMoxaIoLogic::commandFinished(unsigned long long runId, const QString &command,
                                                     const QMap<QString, QVariant> &)
{
    // Every result already came through commandResultChanged.
    treatmentReleased(runId, command, IMessenger::CeNoError, QString());
}

void BeMaintenanceDeviceMoxaIoLogic::commandFailed(unsigned long long runId, const QString &command,
                                                   IMessenger::EnErrorCode code, const QString &error)
{
    treatmentReleased(runId, command, code, error);
}

DMoxaChannel *BeMaintenanceDeviceMoxaIoLogic::channel(const QString &id) const
{
    for (int i = 0; i < m_channels->count(); ++i) {
        if (m_channels->at(i)->id() == id)
            return m_channels->at(i).data();
    }
    return nullptr;
}

void BeMaintenanceDeviceMoxaIoLogic::applyDeviceInformation(const QVariantMap &info)
{
    setField(m_modelName, info.value(QStringLiteral("modelName")).toString(),
             &BeMaintenanceDeviceMoxaIoLogic::modelNameChanged);
    setField(m_version, info.value(QStringLiteral("softwareVersion")).toString(),
             &BeMaintenanceDeviceMoxaIoLogic::versionChanged);
    setField(m_macAddress, info.value(QStringLiteral("macAddress")).toString(),
             &BeMaintenanceDeviceMoxaIoLogic::macAddressChanged);
    setField(m_serialNumber, info.value(QStringLiteral("serialNumber")).toString(),
             &BeMaintenanceDeviceMoxaIoLogic::serialNumberChanged);
    m_infoKnown = true;
}

void BeMaintenanceDeviceMoxaIoLogic::applyChannelValue(const QString &channelId, const QVariant &reported)
{
    DMoxaChannel *target = channel(channelId);
    if (!target)
        return;
    const uint raw = reported.toUInt();
    const bool digital = target->type() == DMoxaChannel::CeCtBinIn || target->type() == DMoxaChannel::CeCtBinOut;
    target->setValue(digital ? QVariant(raw != 0) : QVariant(raw));
}

void BeMaintenanceDeviceMoxaIoLogic::setPending(const QString &channelId, bool pending)
{
    if (pending == m_pending.contains(channelId))
        return;
    if (pending)
        m_pending.append(channelId);
    else
        m_pending.removeAll(channelId);
    emit pendingChannelsChanged();
}

void BeMaintenanceDeviceMoxaIoLogic::setState(EnConnectionState state, const QString &errorText)
{
    setField(m_errorText, errorText, &BeMaintenanceDeviceMoxaIoLogic::errorTextChanged);
    if (state == m_state)
        return;
    m_state = state;
    emit connectionStateChanged();
}

void BeMaintenanceDeviceMoxaIoLogic::retry()
{
    if (!m_started)
        return;
    if (!m_infoKnown || m_state != CeCsConnected)
        getDeviceInfo();
    updateChannelsValue();
}

void BeMaintenanceDeviceMoxaIoLogic::stopAll()
{
    m_retryTimer.stop();
    m_started = false;
    const QList<unsigned long long> ids = m_listening.values();
    m_listening.clear();
    for (unsigned long long id : ids)
        stopCommand(id);
    m_runs.clear();
    if (!m_pending.isEmpty()) {
        m_pending.clear();
        emit pendingChannelsChanged();
    }
}

template<typename T>
void BeMaintenanceDeviceMoxaIoLogic::setField(T &field, const T &value, void (BeMaintenanceDeviceMoxaIoLogic::*changed)())
{
    if (field == value)
        return;
    field = value;
    emit(this->*changed)();
}
