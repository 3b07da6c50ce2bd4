// SPDX-License-Identifier: MIT
#include "ctlsession.h"

#include "ctlargs.h"
#include "ctlcall.h"
#include "ctllog.h"
#include "ctltext.h"
#include "dabstractplugin.h"
#include "dchanneltable.h"
#include "ctl_simulate.h"
#include "ctlsimulator.h"
#include "host.h"
#include "pluginmanager.h"

#include <QDateTime>
#include <QFile>
#include <QJsonArray>
#include <QJsonDocument>

#include <cstdio>

namespace {

const char c_builtInConfig[] = ":/e1212ctl/e1212.json";

} // namespace

CtlSession::CtlSession(const Options &options, QObject *parent)
    : QObject(parent)
    , m_options(options)
    , m_out(stdout)
{}

CtlSession::~CtlSession() = default;

void CtlSession::setStep(const QString &source, int line)
{
    m_source = source;
    m_line = line;
}

int CtlSession::report(const CtlOutcome &outcome)
{
    const int stepLine = outcome.line >= 0 ? outcome.line : m_line;
    const QString where = stepLine > 0 ? QStringLiteral("%1:%2: ").arg(m_source).arg(stepLine) : QString();
    const bool ok = outcome.isOk();
    if (ok && m_checkOnly)
        return outcome.exitCode;
    beforeOutput();
    if (m_options.json && (!outcome.command.isEmpty() || outcome.isRefusal())) {
        // One flat object: the command's values, then the members every line has.
        QJsonObject line = QJsonObject::fromVariantMap(outcome.results);
        if (!outcome.command.isEmpty())
            line.insert(QStringLiteral("command"), outcome.command);
        line.insert(QStringLiteral("ok"), ok);
        if (!outcome.device.isEmpty())
            line.insert(QStringLiteral("device"), outcome.device);
        if (!outcome.channel.isEmpty())
            line.insert(QStringLiteral("channel"), outcome.channel);
        line.insert(QStringLiteral("time"), timestamp(QDateTime::currentDateTime()));
        if (!ok) {
            line.insert(QStringLiteral("error"), CtlText::line(outcome.command.isEmpty() ? where + outcome.message : outcome.error));
            line.insert(QStringLiteral("code"), outcome.code.isEmpty() ? DError::codeName(IMessenger::CeRefused) : outcome.code);
        }
        printJson(line);
    } else {
        m_out << outcome.text;
    }
    m_out.flush();
    if (!outcome.message.isEmpty()) {
        const QString message = CtlText::line(where + outcome.message);
        qCWarning(lcCtl).noquote() << message;
        const QByteArray text = QStringLiteral("e1212ctl: %1\n").arg(message).toUtf8();
        fwrite(text.constData(), 1, size_t(text.size()), stderr);
        fflush(stderr);
    }
    return outcome.exitCode;
}

int CtlSession::fail(int code, const QString &text)
{
    CtlOutcome outcome = CtlOutcome::failed(text);
    outcome.exitCode = code;
    return report(outcome);
}

bool CtlSession::loadConfig(QString *error)
{
    // The module's own configuration: the default, and the channel table of every device
    // of a file that gives no "parameters".
    QFile builtIn(QString::fromLatin1(c_builtInConfig));
    builtIn.open(QIODevice::ReadOnly);
    QList<DeviceConfig> devices = DeviceConfig::fromJson(builtIn.readAll(), QStringLiteral("built-in configuration"), error);
    if (!m_options.configFile.isEmpty() && !devices.isEmpty())
        devices = DeviceConfig::loadFile(m_options.configFile, error, devices.front().channelTable());
    if (devices.isEmpty())
        return false;
    m_configs.assign(devices.cbegin(), devices.cend());
    m_simulators.resize(m_configs.size());
    if (!m_options.ref.isEmpty()) {
        QStringList candidates;
        m_current = findDevice(m_options.ref, &candidates);
        if (m_current < 0) {
            QStringList known;
            for (const DeviceConfig &config : m_configs)
                known << QLatin1Char('"') + config.reference + QLatin1Char('"');
            *error = candidates.size() > 1
                         ? QStringLiteral("--ref %1: more than one device is called so in %2 (%3); give the whole reference")
                               .arg(m_options.ref, m_configs.front().sourceFile, candidates.join(QStringLiteral(", ")))
                         : QStringLiteral("--ref %1: no such device in %2 (known: %3)")
                               .arg(m_options.ref, m_configs.front().sourceFile, known.join(QStringLiteral(", ")));
            m_current = 0;
            return false;
        }
    }
    if (!m_options.device.isEmpty()) {
        QString host;
        quint16 port = 0;
        if (!CtlArgs::hostAndPort(QStringLiteral("--device"), m_options.device, 502, 1, &host, &port, error))
            return false;
        m_configs[size_t(m_current)].connection.insert(QStringLiteral("host"), host);
        m_configs[size_t(m_current)].connection.insert(QStringLiteral("port"), port);
    }
    return true;
}

bool CtlSession::openDevices(CtlOutcome *failure)
{
    if (!m_opened) {
        m_opened = true;
        m_openOutcome = open();
    }
    *failure = m_openOutcome;
    return m_openOutcome.isOk();
}

CtlOutcome CtlSession::open()
{
    QString error;
    if (!loadConfig(&error))
        return CtlOutcome::refused(error);
    m_plugins.reset(new PluginManager);
    m_plugins->scan(PluginManager::searchPath(m_options.pluginDirs));

    for (size_t i = 0; i < m_configs.size(); ++i) {
        DeviceConfig &config = m_configs[i];
        if (!config.connection.isEmpty())
            continue;
        m_simulators[i].reset(ctlStartSimulator(&error));
        if (!m_simulators[i])
            return CtlOutcome::failed(QStringLiteral("cannot start the embedded simulator: %1").arg(error));
        config.connection.insert(QStringLiteral("host"), QStringLiteral("127.0.0.1"));
        config.connection.insert(QStringLiteral("port"), int(m_simulators[i]->port()));
        qCInfo(lcCtl).noquote() << config.reference << "has no address: using an embedded simulator on"
                                << address(int(i));
    }

    m_host.reset(new Host(m_plugins.data()));
    m_checkHost.reset(new Host(m_plugins.data()));
    m_host->setTimeoutOverride(m_options.timeoutMs);
    for (const DeviceConfig &config : m_configs) {
        if (!m_host->addDevice(config, &error))
            return CtlOutcome::refused(error);
    }
    return CtlOutcome();
}

DAbstractPlugin *CtlSession::device(int device) const
{
    return m_host ? m_host->device(m_configs.at(size_t(device)).reference) : nullptr;
}

int CtlSession::findDevice(const QString &name, QStringList *candidates) const
{
    int found = -1;
    QStringList matches;
    for (size_t i = 0; i < m_configs.size(); ++i) {
        if (m_configs[i].reference == name)
            return int(i);
        if (m_configs[i].reference.section(QLatin1Char(' '), -1) == name) {
            found = int(i);
            matches << QLatin1Char('"') + m_configs[i].reference + QLatin1Char('"');
        }
    }
    if (candidates)
        *candidates = matches;
    return matches.size() == 1 ? found : -1;
}

QString CtlSession::noDevice(const QString &name) const
{
    QStringList candidates;
    findDevice(name, &candidates);
    if (candidates.size() > 1)
        return QStringLiteral("\"%1\" names more than one device (%2); give the whole reference")
            .arg(name, candidates.join(QStringLiteral(", ")));
    return QStringLiteral("no device \"%1\" in the configuration").arg(name);
}

bool CtlSession::use(const QString &name, CtlOutcome *failure)
{
    const int found = findDevice(name);
    if (found < 0) {
        *failure = CtlOutcome::refused(noDevice(name));
        return false;
    }
    m_current = found;
    return true;
}

CtlSimulator *CtlSession::simulator(int device) const
{
    return m_simulators.at(size_t(device)).get();
}

QString CtlSession::address(int device) const
{
    const QVariantMap &connection = m_configs.at(size_t(device)).connection;
    const QString host = connection.value(QStringLiteral("host")).toString();
    if (host.isEmpty())
        return QString();
    return host + QLatin1Char(':') + QString::number(connection.value(QStringLiteral("port"), 502).toInt());
}

QVariantMap CtlSession::channelInfo(int device, const QString &id) const
{
    const DChannelTable::Record *record = this->device(device)->channelTable().record(id);
    QVariantMap info;
    if (record)
        for (auto it = record->entries.cbegin(); it != record->entries.cend(); ++it)
            info.insert(it.key(), it.value());
    return info;
}

QStringList CtlSession::channelIds(int device) const
{
    return this->device(device)->channelTable().channelIds();
}

bool CtlSession::channel(const QString &text, ChannelKind kind, CtlChannel *channel, CtlOutcome *failure)
{
    if (!openDevices(failure))
        return false;
    const int colon = text.lastIndexOf(QLatin1Char(':'));
    channel->device = colon < 0 ? m_current : findDevice(text.left(colon));
    channel->id = text.mid(colon + 1);
    if (channel->device < 0) {
        *failure = CtlOutcome::refused(QStringLiteral("channel \"%1\": %2").arg(text, noDevice(text.left(colon))));
        return false;
    }
    const QString reference = config(channel->device).reference;
    const DChannelTable &table = device(channel->device)->channelTable();
    const DChannelTable::Record *record = table.record(channel->id);
    if (!record || !record->isChannel()) {
        const QStringList known = table.channelIds();
        *failure = CtlOutcome::refused(QStringLiteral("unknown channel \"%1\" for device \"%2\" (known: %3)")
                                           .arg(channel->id, reference,
                                                known.isEmpty() ? QStringLiteral("none") : known.join(QStringLiteral(", "))));
        return false;
    }
    if (kind == OutputChannel && record->type() != QLatin1String("digitalOutput")) {
        *failure = CtlOutcome::refused(QStringLiteral("channel \"%1\" of device \"%2\" is of type \"%3\"; only \"digitalOutput\" "
                                                      "channels can be driven")
                                           .arg(channel->id, reference, record->type()));
        return false;
    }
    return true;
}

void CtlSession::printJson(QJsonObject object)
{
    if (m_line > 0 && !object.contains(QStringLiteral("line")))
        object.insert(QStringLiteral("line"), m_line);
    else if (object.value(QStringLiteral("line")).toInt() <= 0)
        object.remove(QStringLiteral("line"));
    beforeOutput();
    m_out << QString::fromUtf8(QJsonDocument(object).toJson(QJsonDocument::Compact)) << '\n';
    m_out.flush();
}

QJsonObject CtlSession::event(const QString &command, int device, const QString &channel, const QVariant &value,
                              const DError &error)
{
    QJsonObject object{{QStringLiteral("event"), error.isError() ? QStringLiteral("error") : QStringLiteral("value")},
                       {QStringLiteral("command"), command},
                       {QStringLiteral("ok"), !error.isError()},
                       {QStringLiteral("device"), config(device).reference},
                       {QStringLiteral("channel"), channel},
                       {QStringLiteral("time"), timestamp(QDateTime::currentDateTime())},
                       {QStringLiteral("seq"), ++m_seq}};
    if (error.isError()) {
        object.insert(QStringLiteral("error"), error.text);
        object.insert(QStringLiteral("code"), DError::codeName(error.code));
    } else {
        object.insert(QStringLiteral("value"), QJsonValue::fromVariant(value));
    }
    return object;
}

QString CtlSession::timestamp(const QDateTime &time)
{
    // Local time with its offset: "+01:00", or "Z" where local time is UTC.
    return time.toOffsetFromUtc(time.offsetFromUtc()).toString(Qt::ISODateWithMs);
}

QString CtlSession::label(int device, const QString &channel) const
{
    if (deviceCount() < 2)
        return channel;
    return config(device).reference.section(QLatin1Char(' '), -1) + QLatin1Char(':') + channel;
}

bool CtlSession::isOutput(int device, const QString &channel) const
{
    const DChannelTable::Record *record = this->device(device)->channelTable().record(channel);
    return record && record->type() == QLatin1String("digitalOutput");
}

int CtlSession::pulseStatusPlace(int device, const QString &channel) const
{
    const QVariantMap info = channelInfo(device, channel);
    const int place = info.value(QStringLiteral("register")).toInt();
    if (!isOutput(device, channel) || info.value(QStringLiteral("readRegisterType")) != QLatin1String("coilsRegister")
        || place >= channelInfo(device, pulseStatusRecord()).value(QStringLiteral("size")).toInt())
        return -1;
    return place;
}

QString CtlSession::toText(const QVariant &value)
{
    const QJsonValue json = QJsonValue::fromVariant(value);
    if (json.isArray())
        return QString::fromUtf8(QJsonDocument(json.toArray()).toJson(QJsonDocument::Compact));
    if (json.isObject())
        return QString::fromUtf8(QJsonDocument(json.toObject()).toJson(QJsonDocument::Compact));
    return value.toString();
}

void CtlSession::startBackground(int device, const QString &channel)
{
    if (m_checkOnly)
        return;
    CtlRequest request;
    request.device = device;
    request.command = QStringLiteral("listenEvents");
    request.name = QStringLiteral("listen");
    request.arguments.insert(QStringLiteral("channel"), channel);
    ++m_backgroundRunning;
    m_background.emplace_back(new CtlCall(*this, request, true, [this](const CtlOutcome &outcome) {
        if (m_backgroundOutcome.isOk())
            m_backgroundOutcome = outcome;
        if (--m_backgroundRunning == 0 && m_backgroundDone)
            backgroundEnded();
    }));
}

void CtlSession::stopBackground(const std::function<void(const CtlOutcome &outcome)> &done)
{
    // A listen may end inside its stop: the last one to end calls `done`, after the loop.
    std::vector<CtlCall *> calls;
    for (const auto &call : m_background)
        calls.push_back(call.get());
    for (CtlCall *call : calls)
        call->stop();
    m_backgroundDone = done;
    if (m_backgroundRunning == 0)
        backgroundEnded();
}

void CtlSession::backgroundEnded()
{
    const auto done = std::move(m_backgroundDone);
    m_backgroundDone = nullptr;
    const CtlOutcome outcome = m_backgroundOutcome.isOk() ? CtlOutcome::local(QStringLiteral("stop"), {}) : m_backgroundOutcome;
    m_backgroundOutcome = CtlOutcome();
    // Deleted later: this may run inside the last call's own end.
    for (auto &call : m_background)
        call.release()->deleteLater();
    m_background.clear();
    done(outcome);
}
