// SPDX-License-Identifier: MIT
#include "ctlsession.h"

#include "ctlargs.h"
#include "ctllog.h"
#include "dabstractplugin.h"
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
}

CtlSession::CtlSession(const Options &options, QObject *parent)
    : QObject(parent)
    , m_options(options)
    , m_out(stdout)
{}

CtlSession::~CtlSession() = default;

int CtlSession::fail(int code, const QString &text)
{
    m_out.flush();
    qCWarning(lcCtl).noquote() << text;
    const QByteArray line = QStringLiteral("e1212ctl: %1\n").arg(text).toUtf8();
    fwrite(line.constData(), 1, size_t(line.size()), stderr);
    fflush(stderr);
    return code;
}

int CtlSession::usageError(const QString &text)
{
    return fail(ExitUsage, text + QStringLiteral(" (see e1212ctl --help)"));
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
    m_config = devices.first();
    if (devices.size() > 1)
        qCInfo(lcCtl).noquote() << "using the first of" << devices.size() << "devices:" << m_config.reference;

    if (!m_options.device.isEmpty()) {
        QString host;
        quint16 port = 0;
        if (!CtlArgs::hostAndPort(QStringLiteral("--device"), m_options.device, 502, 1, &host, &port, error))
            return false;
        m_config.connection.insert(QStringLiteral("host"), host);
        m_config.connection.insert(QStringLiteral("port"), port);
    }
    return true;
}

bool CtlSession::openDevice(int *exitCode)
{
    *exitCode = ExitUsage;
    QString error;
    if (!loadConfig(&error)) {
        fail(ExitUsage, error);
        return false;
    }
    m_plugins.reset(new PluginManager);
    m_plugins->scan(m_options.pluginDirs + PluginManager::defaultPluginDirs());

    if (m_config.connection.isEmpty()) {
        m_simulator.reset(new E1212Simulator);
        if (!m_simulator->start(QHostAddress::LocalHost, 0, &error)) {
            *exitCode = ExitFailed;
            fail(ExitFailed, QStringLiteral("cannot start the embedded simulator: %1").arg(error));
            return false;
        }
        m_config.connection.insert(QStringLiteral("host"), QStringLiteral("127.0.0.1"));
        m_config.connection.insert(QStringLiteral("port"), int(m_simulator->port()));
        qCInfo(lcCtl).noquote() << "no device address given: using the embedded simulator on" << address();
    }

    m_host.reset(new Host(m_plugins.data()));
    m_host->setTimeoutOverride(m_options.timeoutMs);
    if (!m_host->addDevice(m_config, &error)) {
        fail(ExitUsage, error);
        return false;
    }
    m_device = m_host->device(m_config.reference);
    *exitCode = ExitOk;
    return true;
}

QString CtlSession::address() const
{
    const QString host = m_config.connection.value(QStringLiteral("host")).toString();
    if (host.isEmpty())
        return QString();
    return host + QLatin1Char(':') + QString::number(m_config.connection.value(QStringLiteral("port"), 502).toInt());
}

QVariantList CtlSession::channelTable() const
{
    return m_config.channelTable();
}

QVariantMap CtlSession::channelInfo(const QString &id) const
{
    const QVariantList table = channelTable();
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

QStringList CtlSession::channelIds() const
{
    QStringList ids;
    const QVariantList table = channelTable();
    for (const QVariant &record : table) {
        const QString id = record.toMap().value(QStringLiteral("id")).toString();
        if (channelInfo(id).contains(QStringLiteral("type")))
            ids << id;
    }
    return ids;
}

bool CtlSession::checkChannel(const QString &channel, int *exitCode)
{
    const QStringList known = channelIds();
    if (known.contains(channel))
        return true;
    *exitCode = fail(ExitUsage, QStringLiteral("unknown channel \"%1\" for device \"%2\" (known: %3)")
                                    .arg(channel, m_config.reference,
                                         known.isEmpty() ? QStringLiteral("none") : known.join(QStringLiteral(", "))));
    return false;
}

void CtlSession::printJson(const QJsonObject &object)
{
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

int CtlSession::runAndReport(const QString &command, const QVariantMap &arguments, const Printer &human,
                             const EventPrinter &event, const CtlListenLimits &limits)
{
    Execution *execution = m_host->execute(m_device, command, arguments);
    QEventLoop loop;
    SignalWatcher watcher;
    int events = 0;
    // The driver's last word on a listen, while the device does not answer.
    QString outage;
    connect(execution, &Execution::finished, &loop, &QEventLoop::quit);
    connect(&watcher, &SignalWatcher::interrupted, execution, [this, execution](int number) {
        qCInfo(lcCtl) << "signal" << number << "received: stopping";
        m_host->stop(execution);
    });
    connect(execution, &Execution::resultChanged, this, [&](const QString &name, const QVariant &value) {
        if (!execution->isListening())
            return;
        ++events;
        outage.clear();
        if (m_options.json)
            printJson({{QStringLiteral("event"), name}, {QStringLiteral("value"), QJsonValue::fromVariant(value)},
                       {QStringLiteral("time"), QDateTime::currentDateTime().toString(Qt::ISODateWithMs)}});
        else if (event)
            event(name, value);
        else
            m_out << QDateTime::currentDateTime().toString(QStringLiteral("yyyy-MM-dd hh:mm:ss.zzz")) << "  " << name
                  << " = " << toText(value) << Qt::endl;
        if (limits.count > 0 && events >= limits.count)
            m_host->stop(execution);
    });
    connect(execution, &Execution::errorReported, this, [this, &outage](const QString &error) {
        outage = error;
        if (m_options.json)
            printJson({{QStringLiteral("event"), QStringLiteral("error")}, {QStringLiteral("error"), error},
                       {QStringLiteral("time"), QDateTime::currentDateTime().toString(Qt::ISODateWithMs)}});
        fail(ExitFailed, error);
    });
    QTimer limit;
    if (limits.seconds > 0) {
        limit.setSingleShot(true);
        connect(&limit, &QTimer::timeout, execution, [this, execution] { m_host->stop(execution); });
        limit.start(int(limits.seconds * 1000));
    }
    if (!execution->isFinished())
        loop.exec();

    // A listen stopped while the device was not answering has failed, though it ended normally.
    const bool ok = execution->isOk() && outage.isEmpty();
    const QString error = !execution->isOk() ? execution->errorString() : outage;
    if (m_options.json) {
        printJson({{QStringLiteral("command"), command}, {QStringLiteral("ok"), ok},
                   {QStringLiteral("results"), QJsonObject::fromVariantMap(execution->results())},
                   {QStringLiteral("error"), ok ? QString() : error}});
    } else if (ok && human) {
        human(execution->results());
    }
    if (!ok && execution->isOk())
        return ExitFailed; // the outage is on stderr already
    if (!ok)
        return fail(ExitFailed, QStringLiteral("%1 failed: %2").arg(command, error));
    return ExitOk;
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
