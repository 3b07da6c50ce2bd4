// SPDX-License-Identifier: MIT
// What every e1212ctl subcommand works with: the global options, the output, and the
// device opened on demand (configuration, plug-ins, host, embedded simulator).
#pragma once

#include "deviceconfig.h"

#include <QJsonObject>
#include <QObject>
#include <QScopedPointer>
#include <QTextStream>
#include <QVariantMap>

#include <functional>

class DAbstractPlugin;
class E1212Simulator;
class Host;
class PluginManager;

// What a listening run waits for besides Ctrl-C / SIGTERM; 0 means no limit.
struct CtlListenLimits
{
    int count = 0;
    double seconds = 0;
};

class CtlSession : public QObject
{
    Q_OBJECT
public:
    enum ExitCode { ExitOk = 0, ExitFailed = 1, ExitUsage = 2 };

    struct Options
    {
        QString configFile;          // empty: the built-in E1212 configuration
        QString device;              // HOST[:PORT]; empty: the configuration's connection
        bool json = false;
        int timeoutMs = 0;           // 0: the commands' own time-outs
        QStringList pluginDirs;      // searched before the default folders
        bool verbose = false;
    };

    explicit CtlSession(const Options &options, QObject *parent = nullptr);
    ~CtlSession() override;

    const Options &options() const { return m_options; }
    QTextStream &out() { return m_out; }

    // Prints "e1212ctl: <text>" on stderr and returns `code`.
    int fail(int code, const QString &text);
    int usageError(const QString &text);

    // Loads the configuration (its first device), the plug-ins and, without --device and
    // without a configured connection, starts the embedded simulator on a free loopback
    // port; then adds the device to a host. On failure prints one line and returns false
    // with *exitCode set (ExitUsage for configuration errors).
    bool openDevice(int *exitCode);
    Host *host() const { return m_host.data(); }
    DAbstractPlugin *device() const { return m_device; }
    const DeviceConfig &config() const { return m_config; }
    // The embedded simulator, or nullptr when a real address is used.
    E1212Simulator *simulator() const { return m_simulator.data(); }
    // "host:port" the device is reached at ("" when the configuration names none).
    QString address() const;

    // The channel records of the device's table, and the ids of the real channels (records
    // with a "type"), in table order.
    QVariantList channelTable() const;
    QStringList channelIds() const;
    // The information entries of one record as a map (entry id -> value).
    QVariantMap channelInfo(const QString &id) const;
    // False, after printing the refusal with the known channels, for an unknown channel.
    bool checkChannel(const QString &channel, int *exitCode);

    // Runs a command and reports it: with --json one line per streamed update and a last
    // line {"command", "ok", "results", "error"}; otherwise `human` prints the results of
    // a success and `event` each streamed update. Listening commands run until `limits`,
    // Ctrl-C or SIGTERM, then are stopped. Returns the exit status.
    using Printer = std::function<void(const QVariantMap &results)>;
    using EventPrinter = std::function<void(const QString &name, const QVariant &value)>;
    int runAndReport(const QString &command, const QVariantMap &arguments, const Printer &human,
                     const EventPrinter &event = {}, const CtlListenLimits &limits = CtlListenLimits());
    // Reports a result the subcommand made itself (no device command).
    int reportLocal(const QString &name, const QVariantMap &results, const Printer &human);

    void printJson(const QJsonObject &object);
    static QString toText(const QVariant &value);

private:
    bool loadConfig(QString *error);

    Options m_options;
    QTextStream m_out;
    DeviceConfig m_config;
    QScopedPointer<PluginManager> m_plugins;
    QScopedPointer<E1212Simulator> m_simulator;
    QScopedPointer<Host> m_host;
    DAbstractPlugin *m_device = nullptr;
};
