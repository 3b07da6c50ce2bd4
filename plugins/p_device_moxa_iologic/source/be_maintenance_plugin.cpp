// SPDX-License-Identifier: MIT
#include "be_maintenance_plugin.h"

#include "dabstractplugin.h"
#include "diagnosticlog.h"

#include <QDateTime>

namespace {
const char c_sourceFile[] = "plugins/p_device_moxa_iologic/source/be_maintenance_plugin";
const QString c_getInfo = QStringLiteral("getInfo");
const QString c_setValue = QStringLiteral("setValue");
const QString c_getValues = QStringLiteral("getValues");
const QString c_listenEvents = QStringLiteral("listenEvents");
const QString c_pulseStatus = QStringLiteral("DO_PulseStatus");
const QString c_pulseOnWidth = QStringLiteral("DO_PulseOnWidth");
const QString c_channel = QStringLiteral("channel");
const QString c_values = QStringLiteral("values");
// setValue's on-width for a steady "on": its pulse generator runs too, but never turns off.
constexpr uint c_steadyOnWidth = 65535;

qint64 now() { return QDateTime::currentMSecsSinceEpoch(); }
// Whole seconds as a technician reads a silence: rounded, at least 1.
int seconds(qint64 ms) { return int(qMax<qint64>(1, (ms + 500) / 1000)); }

// The values of a read in register order; the host hands them bare or as {"values": [...]}.
QVariantList valueList(const QVariant &value)
{
    const QVariant list = value.type() == QVariant::Map ? value.toMap().value(c_values) : value;
    return list.type() == QVariant::List ? list.toList() : QVariantList();
}

QString registerText(const QVariantMap &record)
{
    static const QHash<QString, QString> spaces{{QStringLiteral("coilsRegister"), QStringLiteral("coil")},
                                                {QStringLiteral("discreteInputs"), QStringLiteral("discrete input")},
                                                {QStringLiteral("holdingRegisters"), QStringLiteral("holding register")},
                                                {QStringLiteral("inputRegisters"), QStringLiteral("input register")}};
    const QString type = record.value(QStringLiteral("readRegisterType")).toString();
    return QStringLiteral("%1 %2").arg(spaces.value(type, type)).arg(record.value(QStringLiteral("register")).toUInt());
}
} // namespace

BeMaintenanceDeviceMoxaIoLogic::BeMaintenanceDeviceMoxaIoLogic(QObject *parent)
    : DAbstractPluginBackend(parent)
    , m_channels(new OLM_DMoxaChannel(this))
{}

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
    m_infoKnown = false;
    setPlugin(newPlugin);
    setState(CeCsIdle);
}

void BeMaintenanceDeviceMoxaIoLogic::setConnectionPath(const QString &path)
{
    setField(m_connectionPath, path, &BeMaintenanceDeviceMoxaIoLogic::connectionPathChanged);
}

QString BeMaintenanceDeviceMoxaIoLogic::reference() const
{
    return plugin() ? plugin()->getProperty(QStringLiteral("reference"), QVariant()).toString() : QString();
}

void BeMaintenanceDeviceMoxaIoLogic::setPollIntervalMs(int ms)
{
    if (ms < 10 || ms == m_pollIntervalMs)
        return;
    m_pollIntervalMs = ms;
    emit pollIntervalMsChanged();
    // Reschedule the running reads at the new interval.
    for (auto it = m_runs.begin(); it != m_runs.end();) {
        if (it->kind == CeRkPulseStatus || it->kind == CeRkPulseOnWidth) {
            stopCommand(it.key());
            it = m_runs.erase(it);
        } else {
            ++it;
        }
    }
    if (m_started)
        updateChannelsValue();
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
        setConnectionPath(path.isEmpty() ? reference() : path);
    }
    if (!m_started) {
        m_started = true;
        m_lastAnswerMs = now();
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
        if (!channel)
            continue;
        m_records.insert(channel->id(), channel->properties());
        // The pulse register records carry no "type": they are not channels.
        if (!channel->properties().contains(QStringLiteral("type")))
            continue;
        channel->setLabel(channel->name());
        if (channel->type() == DMoxaChannel::CeCtBinOut) {
            const int offset = channel->properties().value(QStringLiteral("register")).toInt();
            if (offset >= 0 && offset < 64) {
                while (m_outputsByOffset.size() <= offset)
                    m_outputsByOffset.append(QString());
                m_outputsByOffset[offset] = channel->id();
            }
        }
        m_channels->append(channel);
    }
    if (m_channels->count() == 0) {
        *error = QStringLiteral("No channels: the device \"%1\" has no channel table (plug-in parameter \"channels\")")
                     .arg(reference());
        return false;
    }
    return true;
}

void BeMaintenanceDeviceMoxaIoLogic::getDeviceInfo()
{
    for (const Run &run : qAsConst(m_runs)) {
        if (run.kind == CeRkInfo)
            return;
    }
    if (const unsigned long long id = runCommand(c_getInfo))
        m_runs.insert(id, {CeRkInfo, QString()});
}

void BeMaintenanceDeviceMoxaIoLogic::updateChannelsValue()
{
    QSet<QString> listened;
    bool status = false;
    bool onWidth = false;
    for (const Run &run : qAsConst(m_runs)) {
        listened.insert(run.kind == CeRkListen ? run.channel : QString());
        status = status || run.kind == CeRkPulseStatus;
        onWidth = onWidth || run.kind == CeRkPulseOnWidth;
    }
    for (int i = 0; i < m_channels->count(); ++i) {
        const QString id = m_channels->at(i)->id();
        if (listened.contains(id))
            continue;
        if (const unsigned long long runId = runCommand(c_listenEvents, {{c_channel, id}}))
            m_runs.insert(runId, {CeRkListen, id});
    }
    const auto schedule = [this](EnRunKind kind, const QString &record) {
        if (!m_records.contains(record))
            return;
        if (const unsigned long long runId = runCommandEvery(c_getValues, {{c_channel, record}}, m_pollIntervalMs))
            m_runs.insert(runId, {kind, record});
    };
    if (!status)
        schedule(CeRkPulseStatus, c_pulseStatus);
    if (!onWidth)
        schedule(CeRkPulseOnWidth, c_pulseOnWidth);
}

bool BeMaintenanceDeviceMoxaIoLogic::clickedOnChannel(const QString &channelId)
{
    DMoxaChannel *target = channel(channelId);
    if (!target || !target->isSwitchable() || !target->value().isValid() || m_pending.contains(channelId))
        return false;
    // A blinking output is switched off whatever its coil shows at this instant.
    const bool wanted = !target->value().toBool() && !m_blinking.contains(channelId);
    const unsigned long long id = runCommand(c_setValue, {{c_channel, channelId}, {QStringLiteral("value"), wanted ? 1 : 0}});
    if (!id)
        return false;
    m_runs.insert(id, {CeRkWrite, channelId, wanted});
    setPending(channelId, true);
    return true;
}

void BeMaintenanceDeviceMoxaIoLogic::applyTreatmentReply(unsigned long long runId, const QString &,
                                                         const QString &name, const QVariant &value)
{
    const auto run = m_runs.constFind(runId);
    if (run == m_runs.constEnd())
        return;
    switch (run->kind) {
    case CeRkInfo:
        if (name == QLatin1String("deviceInformation"))
            applyDeviceInformation(value.toMap());
        break;
    case CeRkListen: {
        const QVariantList values = valueList(value);
        DMoxaChannel *target = channel(run->channel);
        if (values.size() != 1 || !target)
            break; // the command has said what is wrong with the report
        const bool on = values.constFirst().toUInt() != 0;
        target->setValue(on);
        recordChange(run->channel, on, now());
        confirmWrites(run->channel, on, false);
        answered(CeRkListen);
        break;
    }
    case CeRkPulseStatus:
    case CeRkPulseOnWidth:
        applyPulseRead(run->kind, value);
        break;
    case CeRkWrite:
        if (name == QLatin1String("doneOk") && !value.toBool()) {
            setPending(run->channel, false);
            setState(CeCsError, QStringLiteral("Module did not accept the new value of %1").arg(run->channel),
                     QStringLiteral("setValue on %1: \"doneOk\" is false").arg(run->channel));
            m_errorKind = CeRkWrite;
            m_runs.remove(runId); // its end says nothing more
        }
        break;
    }
}

void BeMaintenanceDeviceMoxaIoLogic::treatmentReleased(unsigned long long runId, const QString &command,
                                                       const DError &error)
{
    const auto found = m_runs.find(runId);
    if (found == m_runs.end()) {
        if (runId == 0 && error.isError()) // the run could not even start
            setState(CeCsError, plainError(error, m_connectionPath, 0, command), error.text);
        return;
    }
    const Run run = *found;
    const bool scheduled = run.kind == CeRkPulseStatus || run.kind == CeRkPulseOnWidth;
    if (!scheduled || error.code == IMessenger::CeStopped)
        m_runs.erase(found);
    if (error.code == IMessenger::CeStopped)
        return;

    if (!error.isError()) {
        if (run.kind == CeRkWrite) {
            if (m_pending.contains(run.channel))
                m_writes.insert(run.channel, {CeRkWrite, run.channel, run.wanted, 0});
            answered(CeRkWrite);
        } else if (run.kind == CeRkPulseStatus) {
            // The second status read to end after a write started after it: what it showed stands.
            QStringList done;
            for (Run &write : m_writes) {
                if (++write.readsSinceEnd >= 2)
                    done << write.channel;
            }
            for (const QString &channelId : qAsConst(done))
                setPending(channelId, false);
        }
        if (run.kind != CeRkWrite)
            answered(run.kind);
        if (scheduled) {
            // The device answers: bring back what an outage ended.
            if (!m_infoKnown)
                getDeviceInfo();
            updateChannelsValue();
        }
        return;
    }

    if (run.kind == CeRkWrite)
        setPending(run.channel, false);
    const qint64 silentMs = now() - m_lastAnswerMs;
    const bool unreachable = error.code == IMessenger::CeTimeout || error.code == IMessenger::CeNoConnection;
    if (unreachable) {
        bool shown = false;
        for (int i = 0; i < m_channels->count() && !shown; ++i)
            shown = m_channels->at(i)->value().isValid();
        setStale(shown, seconds(silentMs));
    }
    setState(unreachable ? CeCsNotAnswering : CeCsError, plainError(error, m_connectionPath, silentMs, where(run)),
             error.text);
    m_errorKind = run.kind;
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
    treatmentReleased(runId, command, DError());
}

void BeMaintenanceDeviceMoxaIoLogic::commandFailed(unsigned long long runId, const QString &command,
                                                   const DError &error)
{
    treatmentReleased(runId, command, error);
}

QString BeMaintenanceDeviceMoxaIoLogic::plainError(const DError &error, const QString &device, qint64 silentMs,
                                                   const QString &where)
{
    switch (error.code) {
    case IMessenger::CeTimeout:
    case IMessenger::CeNoConnection:
        return QStringLiteral("No answer from %1 for %2 s").arg(device).arg(seconds(silentMs));
    case IMessenger::CeModbusException:
        return QStringLiteral("Module refused: %1 at %2").arg(DError::exceptionName(error.exceptionCode), where);
    case IMessenger::CeMalformedReply:
        return QStringLiteral("Garbled answer from the module at %1").arg(where);
    case IMessenger::CeReplyRejected:
        return QStringLiteral("Unexpected answer from the module at %1").arg(where);
    case IMessenger::CeRefused:
        return QStringLiteral("The host refused the request for %1").arg(where);
    case IMessenger::CeNoRoute:
        return QStringLiteral("No host or driver reaches the module for %1").arg(where);
    case IMessenger::CeBadInstruction:
        return QStringLiteral("The driver cannot send the request for %1").arg(where);
    default:
        return QStringLiteral("The driver failed at %1").arg(where);
    }
}

QVariantList BeMaintenanceDeviceMoxaIoLogic::history(const QString &channelId) const
{
    QVariantList list;
    for (const Change &change : m_history.value(channelId))
        list << QVariantMap{{QStringLiteral("time"), change.ms}, {QStringLiteral("value"), int(change.value)}};
    return list;
}

void BeMaintenanceDeviceMoxaIoLogic::trimHistory(qint64 nowMs)
{
    for (auto it = m_history.begin(); it != m_history.end(); ++it) {
        if (trim(*it, nowMs))
            emit historyChanged(it.key());
    }
}

void BeMaintenanceDeviceMoxaIoLogic::recordChange(const QString &channelId, bool value, qint64 ms)
{
    QVector<Change> &changes = m_history[channelId];
    if (!changes.isEmpty() && changes.constLast().value == value)
        return;
    changes.append({ms, value});
    trim(changes, ms);
    emit historyChanged(channelId);
}

bool BeMaintenanceDeviceMoxaIoLogic::trim(QVector<Change> &changes, qint64 nowMs)
{
    const qint64 start = nowMs - historySeconds() * 1000;
    int drop = qMax(0, changes.size() - historyLength());
    // The change before the window's start holds until the next one: keep the last such.
    while (drop + 1 < changes.size() && changes.at(drop + 1).ms < start)
        ++drop;
    changes.remove(0, drop);
    return drop > 0;
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

void BeMaintenanceDeviceMoxaIoLogic::applyPulseRead(EnRunKind kind, const QVariant &value)
{
    QVector<uint> &target = kind == CeRkPulseStatus ? m_pulseStatus : m_pulseOnWidth;
    target.clear();
    for (const QVariant &v : valueList(value))
        target.append(v.toUInt());
    // Blinking is status 1 with an on-width other than 65535: setValue 1 also runs the pulse
    // generator, with that on-width, for a steady "on".
    QStringList blinking;
    for (int offset = 0; offset < m_outputsByOffset.size(); ++offset) {
        if (offset < m_pulseStatus.size() && offset < m_pulseOnWidth.size() && m_pulseStatus.at(offset) != 0
            && m_pulseOnWidth.at(offset) != c_steadyOnWidth && !m_outputsByOffset.at(offset).isEmpty())
            blinking << m_outputsByOffset.at(offset);
    }
    setField(m_blinking, blinking, &BeMaintenanceDeviceMoxaIoLogic::blinkingChannelsChanged);
    if (kind != CeRkPulseStatus)
        return;
    for (int offset = 0; offset < m_outputsByOffset.size() && offset < m_pulseStatus.size(); ++offset)
        confirmWrites(m_outputsByOffset.at(offset), m_pulseStatus.at(offset) != 0, true);
}

void BeMaintenanceDeviceMoxaIoLogic::confirmWrites(const QString &channelId, bool value, bool scheduledRead)
{
    if (!m_pending.contains(channelId))
        return;
    const auto write = m_writes.constFind(channelId);
    // A listen report shows the coil as it changes; a scheduled read counts once the write has ended.
    bool seen = false;
    if (write != m_writes.constEnd())
        seen = write->wanted == value;
    else if (!scheduledRead) {
        for (const Run &run : qAsConst(m_runs))
            seen = seen || (run.kind == CeRkWrite && run.channel == channelId && run.wanted == value);
    }
    if (!seen)
        return;
    setPending(channelId, false);
    m_writes.remove(channelId);
}

void BeMaintenanceDeviceMoxaIoLogic::answered(EnRunKind kind)
{
    m_lastAnswerMs = now();
    setStale(false, 0);
    // A refusal stays on screen until the same kind of run goes through; the device
    // answering anything ends "not answering".
    if (m_state != CeCsError || kind == m_errorKind)
        setState(CeCsConnected);
}

QString BeMaintenanceDeviceMoxaIoLogic::where(const Run &run) const
{
    switch (run.kind) {
    case CeRkInfo:
        return QStringLiteral("the identity registers");
    case CeRkWrite:
        return QStringLiteral("output %1").arg(run.channel);
    default:
        return registerText(m_records.value(run.channel));
    }
}

void BeMaintenanceDeviceMoxaIoLogic::setPending(const QString &channelId, bool pending)
{
    if (pending == m_pending.contains(channelId))
        return;
    if (pending) {
        m_pending.append(channelId);
    } else {
        m_pending.removeAll(channelId);
        m_writes.remove(channelId);
    }
    emit pendingChannelsChanged();
}

void BeMaintenanceDeviceMoxaIoLogic::setStale(bool stale, int seconds)
{
    if (stale == m_stale && seconds == m_staleSeconds)
        return;
    m_stale = stale;
    m_staleSeconds = seconds;
    emit staleChanged();
}

void BeMaintenanceDeviceMoxaIoLogic::setState(EnConnectionState state, const QString &errorText, const QString &details)
{
    const bool changed = state != m_state || (state == CeCsError && errorText != m_errorText);
    if (errorText != m_errorText || details != m_errorDetails) {
        m_errorText = errorText;
        m_errorDetails = details;
        emit errorTextChanged();
    }
    if (!changed)
        return;
    // Said once per change: a dead device fails every scheduled read.
    if (!errorText.isEmpty())
        diagnosticLine(this, c_sourceFile, __LINE__) << qUtf8Printable(errorText) << details;
    if (state != m_state) {
        m_state = state;
        emit connectionStateChanged();
    }
}

void BeMaintenanceDeviceMoxaIoLogic::stopAll()
{
    m_started = false;
    const auto runs = m_runs;
    m_runs.clear();
    for (auto it = runs.cbegin(); it != runs.cend(); ++it) {
        if (it->kind != CeRkWrite && it->kind != CeRkInfo)
            stopCommand(it.key());
    }
    m_writes.clear();
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
