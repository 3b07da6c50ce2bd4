// SPDX-License-Identifier: MIT
#include "ctlsession.h"

#include "ctlargs.h"
#include "ctllog.h"
#include "dabstractplugin.h"
#include "derror.h"
#include "e1212simulator.h"
#include "host.h"
#include "pluginmanager.h"
#include "signalwatcher.h"

#include <QDateTime>
#include <QEventLoop>
#include <QFile>
#include <QJsonArray>
#include <QJsonDocument>
#include <QTimer>

#include <cstdio>

namespace {

const char c_builtInConfig[] = ":/e1212ctl/e1212.json";

// Failures decided before the device was asked: exit status 2.
bool isRefusal(IMessenger::EnErrorCode code)
{
    return code == IMessenger::CeRefused || code == IMessenger::CeBadInstruction || code == IMessenger::CeNoRoute;
}

QString now()
{
    return QDateTime::currentDateTime().toString(Qt::ISODateWithMs);
}

// The one value of a listen report {"values": [v]}; the report itself otherwise.
QVariant eventValue(const QVariant &report)
{
    const QVariantList values = report.toMap().value(QStringLiteral("values")).toList();
    return values.size() == 1 ? values.first() : report;
}

} // namespace

CtlSession::CtlSession(const Options &options, QObject *parent)
    : QObject(parent)
    , m_options(options)
    , m_out(stdout)
{}

CtlSession::~CtlSession()
{
    stopBackground();
}

void CtlSession::setStep(const QString &source, int line)
{
    m_source = source;
    m_line = line;
}

int CtlSession::fail(int code, const QString &text)
{
    const QString where = m_line > 0 ? QStringLiteral("%1:%2: ").arg(m_source).arg(m_line) : QString();
    if (code == ExitUsage && m_options.json)
        printJson({{QStringLiteral("ok"), false}, {QStringLiteral("error"), QString(where + text)},
                   {QStringLiteral("code"), DError::codeName(IMessenger::CeRefused)}});
    m_out.flush();
    qCWarning(lcCtl).noquote() << where + text;
    const QByteArray line = QStringLiteral("e1212ctl: %1%2\n").arg(where, text).toUtf8();
    fwrite(line.constData(), 1, size_t(line.size()), stderr);
    fflush(stderr);
    return code;
}

int CtlSession::usageError(const QString &text)
{
    return fail(ExitUsage, text);
}

bool CtlSession::loadConfig(QString *error)
{
    QList<DeviceConfig> devices;
    if (m_options.configFile.isEmpty()) {
        QFile builtIn(QString::fromLatin1(c_builtInConfig));
        builtIn.open(QIODevice::ReadOnly);
        devices = DeviceConfig::fromJson(builtIn.readAll(), QStringLiteral("built-in configuration"), error);
    } else {
        devices = DeviceConfig::loadFile(m_options.configFile, error);
    }
    if (devices.isEmpty())
        return false;
    m_configs.assign(devices.cbegin(), devices.cend());
    m_simulators.resize(m_configs.size());
    if (!m_options.ref.isEmpty()) {
        m_current = findDevice(m_options.ref);
        if (m_current < 0) {
            QStringList known;
            for (const DeviceConfig &config : m_configs)
                known << QLatin1Char('"') + config.reference + QLatin1Char('"');
            *error = QStringLiteral("--ref %1: no such device in %2 (known: %3)")
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

bool CtlSession::openDevices(int *exitCode)
{
    if (m_opened) {
        *exitCode = m_openStatus;
        return m_openStatus == ExitOk;
    }
    m_opened = true;
    m_openStatus = *exitCode = ExitUsage;
    QString error;
    if (!loadConfig(&error)) {
        fail(ExitUsage, error);
        return false;
    }
    m_plugins.reset(new PluginManager);
    m_plugins->scan(PluginManager::searchPath(m_options.pluginDirs));

    for (size_t i = 0; i < m_configs.size(); ++i) {
        DeviceConfig &config = m_configs[i];
        if (!config.connection.isEmpty())
            continue;
        m_simulators[i].reset(new E1212Simulator);
        if (!m_simulators[i]->start(QHostAddress::LocalHost, 0, &error)) {
            m_openStatus = *exitCode = ExitFailed;
            fail(ExitFailed, QStringLiteral("cannot start the embedded simulator: %1").arg(error));
            return false;
        }
        config.connection.insert(QStringLiteral("host"), QStringLiteral("127.0.0.1"));
        config.connection.insert(QStringLiteral("port"), int(m_simulators[i]->port()));
        qCInfo(lcCtl).noquote() << config.reference << "has no address: using an embedded simulator on"
                                << address(int(i));
    }

    m_host.reset(new Host(m_plugins.data()));
    m_host->setTimeoutOverride(m_options.timeoutMs);
    for (const DeviceConfig &config : m_configs) {
        if (!m_host->addDevice(config, &error)) {
            fail(ExitUsage, error);
            return false;
        }
    }
    m_openStatus = *exitCode = ExitOk;
    return true;
}

DAbstractPlugin *CtlSession::device(int device) const
{
    return m_host ? m_host->device(m_configs.at(size_t(device)).reference) : nullptr;
}

int CtlSession::findDevice(const QString &name) const
{
    for (size_t i = 0; i < m_configs.size(); ++i)
        if (m_configs[i].reference == name || m_configs[i].reference.section(QLatin1Char(' '), -1) == name)
            return int(i);
    return -1;
}

bool CtlSession::use(const QString &name, int *exitCode)
{
    const int found = findDevice(name);
    if (found < 0) {
        *exitCode = usageError(QStringLiteral("no device \"%1\" in the configuration").arg(name));
        return false;
    }
    m_current = found;
    return true;
}

E1212Simulator *CtlSession::simulator(int device) const
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
    const QVariantList table = m_configs.at(size_t(device)).channelTable();
    for (const QVariant &record : table) {
        const QVariantMap map = record.toMap();
        if (map.value(QStringLiteral("id")).toString() != id)
            continue;
        QVariantMap info;
        const QVariantList entries = map.value(QStringLiteral("value")).toList();
        for (const QVariant &entry : entries)
            info.insert(entry.toMap().value(QStringLiteral("id")).toString(), entry.toMap().value(QStringLiteral("value")));
        return info;
    }
    return {};
}

QStringList CtlSession::channelIds(int device) const
{
    QStringList ids;
    const QVariantList table = m_configs.at(size_t(device)).channelTable();
    for (const QVariant &record : table) {
        const QString id = record.toMap().value(QStringLiteral("id")).toString();
        if (channelInfo(device, id).contains(QStringLiteral("type")))
            ids << id;
    }
    return ids;
}

bool CtlSession::channel(const QString &text, ChannelKind kind, CtlChannel *channel, int *exitCode)
{
    if (!openDevices(exitCode))
        return false;
    const int colon = text.lastIndexOf(QLatin1Char(':'));
    channel->device = colon < 0 ? m_current : findDevice(text.left(colon));
    channel->id = text.mid(colon + 1);
    if (channel->device < 0) {
        *exitCode = usageError(QStringLiteral("channel \"%1\": no device \"%2\" in the configuration").arg(text, text.left(colon)));
        return false;
    }
    const QString reference = config(channel->device).reference;
    const QStringList known = channelIds(channel->device);
    if (!known.contains(channel->id)) {
        *exitCode = usageError(QStringLiteral("unknown channel \"%1\" for device \"%2\" (known: %3)")
                                   .arg(channel->id, reference,
                                        known.isEmpty() ? QStringLiteral("none") : known.join(QStringLiteral(", "))));
        return false;
    }
    const QString type = channelInfo(channel->device, channel->id).value(QStringLiteral("type")).toString();
    if (kind == OutputChannel && type != QLatin1String("digitalOutput")) {
        *exitCode = usageError(QStringLiteral("channel \"%1\" of device \"%2\" is of type \"%3\"; only \"digitalOutput\" "
                                              "channels can be driven")
                                   .arg(channel->id, reference, type));
        return false;
    }
    return true;
}

Execution *CtlSession::execute(int device, const QString &command, const QVariantMap &arguments, bool raw)
{
    return m_host->execute(this->device(device), command, arguments, raw ? Host::RawArguments : Host::CheckArguments);
}

void CtlSession::printJson(QJsonObject object)
{
    if (m_line > 0 && !object.contains(QStringLiteral("line")))
        object.insert(QStringLiteral("line"), m_line);
    else if (object.value(QStringLiteral("line")).toInt() <= 0)
        object.remove(QStringLiteral("line"));
    m_out << QString::fromUtf8(QJsonDocument(object).toJson(QJsonDocument::Compact)) << '\n';
    m_out.flush();
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

void CtlSession::watchListen(Execution *execution, int device, const QString &channel, int *events, DError *outage)
{
    const QString reference = config(device).reference;
    const int line = m_line; // events carry the line of the step that started the listen
    const QString label = device == m_current ? channel : reference.section(QLatin1Char(' '), -1) + QLatin1Char(':') + channel;
    connect(execution, &Execution::resultChanged, this, [=](const QString &, const QVariant &report) {
        if (!execution->isListening())
            return;
        ++*events;
        *outage = DError();
        const QVariant value = eventValue(report);
        if (m_options.json)
            printJson({{QStringLiteral("event"), QStringLiteral("value")}, {QStringLiteral("device"), reference},
                       {QStringLiteral("line"), line},
                       {QStringLiteral("channel"), channel}, {QStringLiteral("value"), QJsonValue::fromVariant(value)},
                       {QStringLiteral("time"), now()}, {QStringLiteral("seq"), ++m_seq}});
        else
            m_out << QDateTime::currentDateTime().toString(QStringLiteral("yyyy-MM-dd hh:mm:ss.zzz")) << "  " << label
                  << " = " << toText(value) << Qt::endl;
    });
    connect(execution, &Execution::errorReported, this, [=](const DError &error) {
        *outage = error;
        if (m_options.json)
            printJson({{QStringLiteral("event"), QStringLiteral("error")}, {QStringLiteral("device"), reference},
                       {QStringLiteral("line"), line},
                       {QStringLiteral("channel"), channel}, {QStringLiteral("error"), error.text},
                       {QStringLiteral("code"), DError::codeName(error.code)},
                       {QStringLiteral("time"), now()}, {QStringLiteral("seq"), ++m_seq}});
        fail(ExitFailed, error.text);
    });
}

int CtlSession::runAndReport(int device, const QString &command, const QVariantMap &arguments, const Printer &human,
                             const CtlListenLimits &limits, bool raw, const Shaper &shape)
{
    Execution *execution = execute(device, command, arguments, raw);
    QEventLoop loop;
    SignalWatcher watcher;
    int events = 0;
    // The driver's last word on a listen, while the device does not answer.
    DError outage;
    connect(execution, &Execution::finished, &loop, &QEventLoop::quit);
    connect(&watcher, &SignalWatcher::interrupted, execution, [this, execution](int number) {
        qCInfo(lcCtl) << "signal" << number << "received: stopping";
        m_host->stop(execution);
    });
    watchListen(execution, device, arguments.value(QStringLiteral("channel")).toString(), &events, &outage);
    if (limits.count > 0)
        connect(execution, &Execution::resultChanged, this, [&] {
            if (events >= limits.count)
                m_host->stop(execution);
        });
    QTimer limit;
    if (limits.ms > 0) {
        limit.setSingleShot(true);
        connect(&limit, &QTimer::timeout, execution, [this, execution] { m_host->stop(execution); });
        limit.start(limits.ms);
    }
    if (!execution->isFinished())
        loop.exec();
    disconnect(execution, nullptr, this, nullptr);

    // A listen stopped while the device was not answering has failed, though it ended normally.
    const bool ok = execution->isOk() && !outage.isError();
    const DError error = execution->isOk() ? outage : execution->error();
    const QVariantMap results = shape ? shape(execution->results()) : execution->results();
    delete execution;
    if (m_options.json) {
        QJsonObject line{{QStringLiteral("command"), command}, {QStringLiteral("ok"), ok},
                         {QStringLiteral("device"), config(device).reference},
                         {QStringLiteral("results"), QJsonObject::fromVariantMap(results)},
                         {QStringLiteral("error"), ok ? QString() : error.text}};
        if (!ok)
            line.insert(QStringLiteral("code"), DError::codeName(error.code));
        printJson(line);
    } else if (ok && human) {
        human(results);
    }
    if (ok)
        return ExitOk;
    if (outage.isError())
        return ExitFailed; // the outage is on stderr already
    const int code = isRefusal(error.code) ? ExitUsage : ExitFailed;
    const bool json = m_options.json;
    m_options.json = false; // the JSON line is out already
    fail(code, code == ExitUsage ? error.text : QStringLiteral("%1 failed: %2").arg(command, error.text));
    m_options.json = json;
    return code;
}

Execution *CtlSession::runToEnd(int device, const QString &command, const QVariantMap &arguments)
{
    Execution *execution = execute(device, command, arguments);
    execution->setParent(this);
    if (!execution->isFinished()) {
        QEventLoop loop;
        connect(execution, &Execution::finished, &loop, &QEventLoop::quit);
        loop.exec();
    }
    return execution;
}

int CtlSession::reportLocal(const QString &name, const QVariantMap &results, const Printer &human)
{
    if (m_options.json)
        printJson({{QStringLiteral("command"), name}, {QStringLiteral("ok"), true},
                   {QStringLiteral("results"), QJsonObject::fromVariantMap(results)}, {QStringLiteral("error"), QString()}});
    else
        human(results);
    return ExitOk;
}

void CtlSession::startBackground(int device, const QString &channel)
{
    m_background.emplace_back(new Background);
    Background *background = m_background.back().get();
    background->execution = execute(device, QStringLiteral("listenEvents"), {{QStringLiteral("channel"), channel}});
    watchListen(background->execution, device, channel, &background->events, &background->outage);
}

int CtlSession::stopBackground()
{
    int status = ExitOk;
    for (const auto &background : m_background) {
        Execution *execution = background->execution;
        if (!execution)
            continue;
        if (!execution->isFinished()) {
            QEventLoop loop;
            connect(execution, &Execution::finished, &loop, &QEventLoop::quit);
            if (m_host->stop(execution) && !execution->isFinished())
                loop.exec();
        }
        if (!execution->isOk() && status == ExitOk)
            status = fail(isRefusal(execution->errorCode()) ? ExitUsage : ExitFailed,
                          QStringLiteral("listen failed: %1").arg(execution->errorString()));
        delete execution;
    }
    m_background.clear();
    return status;
}
