// SPDX-License-Identifier: MIT
#include "be_maintenance_plugin.h"

#include "dabstractplugin.h"

#include <QLoggingCategory>
#include <QSet>

Q_LOGGING_CATEGORY(lcPanel, "e1212.panel")

namespace {
const QString c_getInfo = QStringLiteral("getInfo");
const QString c_setValue = QStringLiteral("setValue");
const QString c_getValues = QStringLiteral("getValues");

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
    m_pollTimer.setInterval(500);
    connect(&m_pollTimer, &QTimer::timeout, this, &BeMaintenanceDeviceMoxaIoLogic::pollTick);
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

void BeMaintenanceDeviceMoxaIoLogic::setPollIntervalMs(int ms)
{
    if (ms < 10 || ms == m_pollTimer.interval())
        return;
    m_pollTimer.setInterval(ms);
    emit pollIntervalMsChanged();
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
        m_pollTimer.start();
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
        *error = QStringLiteral("No channels: the device \"%1\" has no channel table (plug-in parameter \"channels\")")
                     .arg(plugin()->getProperty(QStringLiteral("reference"), QVariant()).toString());
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
        m_runs.insert(id, {c_getInfo, QString(), QStringList(), 0});
}

void BeMaintenanceDeviceMoxaIoLogic::updateChannelsValue()
{
    QSet<QString> busy;
    for (const Run &run : qAsConst(m_runs)) {
        if (run.command == c_getValues)
            busy.unite(QSet<QString>(run.block.cbegin(), run.block.cend()));
    }
    // A record's "size" counts the channels from it to the end of its register block, so one
    // read from the first channel of a block covers the whole block.
    QSet<QString> covered;
    for (int i = 0; i < m_channels->count(); ++i) {
        const QSharedPointer<DMoxaChannel> first = m_channels->at(i);
        if (covered.contains(first->id()))
            continue;
        const QVariantMap props = first->properties();
        const uint base = props.value(QStringLiteral("register")).toUInt();
        const uint size = qMax(1u, props.value(QStringLiteral("size")).toUInt());
        const QString space = props.value(QStringLiteral("readRegisterType")).toString();
        Run run{c_getValues, first->id(), QStringList(), 0};
        for (int j = i; j < m_channels->count(); ++j) {
            const QVariantMap other = m_channels->at(j)->properties();
            const uint offset = other.value(QStringLiteral("register")).toUInt() - base;
            if (other.value(QStringLiteral("readRegisterType")).toString() != space || offset >= size)
                continue;
            while (run.block.size() <= int(offset))
                run.block.append(QString());
            run.block[int(offset)] = m_channels->at(j)->id();
            covered.insert(m_channels->at(j)->id());
        }
        if (busy.contains(first->id()))
            continue; // its previous read has not ended: never queue reads behind a slow device
        run.serial = ++m_lastSerial;
        if (const unsigned long long id = runCommand(c_getValues, {{QStringLiteral("channel"), first->id()}}))
            m_runs.insert(id, run);
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
    m_runs.insert(id, {c_setValue, channelId, QStringList(), 0});
    m_readBackFrom.insert(channelId, 0);
    setPending(channelId, true);
    return true;
}

void BeMaintenanceDeviceMoxaIoLogic::applyTreatmentReply(unsigned long long runId, const QString &command,
                                                         const QString &name, const QVariant &value)
{
    const Run run = m_runs.value(runId);
    if (command == c_getInfo && name == QLatin1String("deviceInformation")) {
        applyDeviceInformation(value.toMap());
    } else if (command == c_getValues && name == QLatin1String("values")) {
        if (!applyBlockValues(run, value))
            return;
    } else if (command == c_setValue && name == QLatin1String("doneOk")) {
        if (!value.toBool()) {
            setPending(run.channel, false);
            setState(CeCsError, QStringLiteral("%1: the device did not accept the new value")
                                    .arg(describeRun(command, run.channel)));
            return;
        }
    } else {
        return;
    }
    setState(CeCsConnected);
}

void BeMaintenanceDeviceMoxaIoLogic::treatmentReleased(unsigned long long runId, const QString &command,
                                                       IMessenger::EnErrorCode code, const QString &error)
{
    const Run run = m_runs.take(runId);
    if (code == IMessenger::CeNoError) {
        if (run.command == c_setValue && m_pending.contains(run.channel)) {
            // The first read that starts from now on is the read-back; start it at once.
            m_readBackFrom.insert(run.channel, m_lastSerial + 1);
            updateChannelsValue();
        }
        return;
    }
    if (run.command == c_setValue)
        setPending(run.channel, false);
    if (code == IMessenger::CeStopped && !m_started)
        return;
    // TODO(driver codes): the text test goes once the driver sends CeNoConnection.
    const bool unreachable = code == IMessenger::CeTimeout || code == IMessenger::CeNoConnection
        || (code == IMessenger::CeDriverError && !error.contains(QLatin1String("exception"), Qt::CaseInsensitive));
    setState(unreachable ? CeCsNotAnswering : CeCsError,
             QStringLiteral("%1: %2").arg(describeRun(command, run.channel), error));
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
                                                   const DError &error)
{
    treatmentReleased(runId, command, error.code, error.text);
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

bool BeMaintenanceDeviceMoxaIoLogic::applyBlockValues(const Run &run, const QVariant &values)
{
    // The values of a read, in register order; the host may hand them bare or in a
    // {"values": [...]} map, as the driver replied.
    QVariant list = values;
    if (list.type() == QVariant::Map)
        list = list.toMap().value(QStringLiteral("values"));
    if (list.type() != QVariant::List) {
        qCWarning(lcPanel) << "ignored a malformed read of" << run.channel << ":" << values;
        return false;
    }
    const QVariantList read = list.toList();
    for (int offset = 0; offset < read.size() && offset < run.block.size(); ++offset) {
        DMoxaChannel *target = channel(run.block.at(offset));
        if (!target)
            continue;
        const uint raw = read.at(offset).toUInt();
        const bool digital = target->type() == DMoxaChannel::CeCtBinIn || target->type() == DMoxaChannel::CeCtBinOut;
        target->setValue(digital ? QVariant(raw != 0) : QVariant(raw));
        const quint64 readBackFrom = m_readBackFrom.value(target->id());
        if (readBackFrom != 0 && run.serial >= readBackFrom) {
            m_readBackFrom.remove(target->id());
            setPending(target->id(), false);
        }
    }
    return true;
}

void BeMaintenanceDeviceMoxaIoLogic::setPending(const QString &channelId, bool pending)
{
    if (pending == m_pending.contains(channelId))
        return;
    if (pending) {
        m_pending.append(channelId);
    } else {
        m_pending.removeAll(channelId);
        m_readBackFrom.remove(channelId);
    }
    emit pendingChannelsChanged();
}

void BeMaintenanceDeviceMoxaIoLogic::setState(EnConnectionState state, const QString &errorText)
{
    setField(m_errorText, errorText, &BeMaintenanceDeviceMoxaIoLogic::errorTextChanged);
    if (state == m_state)
        return;
    // Said once per change: a dead device fails every poll.
    if (state == CeCsNotAnswering || state == CeCsError)
        qCWarning(lcPanel).noquote() << errorText;
    else if (state == CeCsConnected && (m_state == CeCsNotAnswering || m_state == CeCsError))
        qCInfo(lcPanel).noquote() << "the device answers again";
    m_state = state;
    emit connectionStateChanged();
}

void BeMaintenanceDeviceMoxaIoLogic::pollTick()
{
    if (!m_started)
        return;
    if (!m_infoKnown)
        getDeviceInfo();
    updateChannelsValue();
}

void BeMaintenanceDeviceMoxaIoLogic::stopAll()
{
    m_pollTimer.stop();
    m_started = false;
    m_runs.clear();
    m_readBackFrom.clear();
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
