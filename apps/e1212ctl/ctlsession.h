// SPDX-License-Identifier: MIT
// What every e1212ctl subcommand works with: the global options, the output, and the
// devices of the configuration, opened once on first use (plug-ins, one host, embedded
// simulators) and kept for every later step of a script.
#pragma once

#include "derror.h"
#include "deviceconfig.h"

#include <QJsonObject>
#include <QObject>
#include <QPointer>
#include <QScopedPointer>
#include <QTextStream>
#include <QVariantMap>

#include <functional>
#include <memory>
#include <vector>

class DAbstractPlugin;
class E1212Simulator;
class Execution;
class Host;
class PluginManager;

// What a listening run waits for besides Ctrl-C / SIGTERM; 0 means no limit.
struct CtlListenLimits
{
    int count = 0;
    int ms = 0;
};

// A channel of one device, as a subcommand names it ("DI0" or "io2:DI0").
struct CtlChannel
{
    int device = -1;
    QString id;
};

class CtlSession : public QObject
{
    Q_OBJECT
public:
    enum ExitCode { ExitOk = 0, ExitFailed = 1, ExitUsage = 2 };
    enum ChannelKind { AnyChannel, OutputChannel };

    struct Options
    {
        QString configFile;          // empty: the built-in E1212 configuration
        QString ref;                 // the device of a multi-device file; empty: the first
        QString device;              // HOST[:PORT]; empty: the configuration's connection
        bool json = false;
        int timeoutMs = 0;           // 0: the commands' own time-outs
        QStringList pluginDirs;      // searched after the folders next to the executable
        bool keepGoing = false;
        bool verbose = false;
    };

    explicit CtlSession(const Options &options, QObject *parent = nullptr);
    ~CtlSession() override;

    const Options &options() const { return m_options; }
    QTextStream &out() { return m_out; }

    // The line of the script step being run (0 outside scripts), and its file for messages.
    void setStep(const QString &source, int line);
    int stepLine() const { return m_line; }

    // Prints "e1212ctl: [FILE:LINE: ]<text>" on stderr and returns `code`. A refusal
    // (ExitUsage) with --json is also one line {"ok": false, "error", "code": "refused"} on stdout.
    int fail(int code, const QString &text);
    int usageError(const QString &text);

    // Loads the configuration, the plug-ins and, for devices without an address, embedded
    // simulators on free loopback ports; adds every device to one host. Does the work once;
    // later calls return the first outcome. On failure prints one line and sets *exitCode.
    bool openDevices(int *exitCode);
    Host *host() const { return m_host.data(); }
    int deviceCount() const { return int(m_configs.size()); }
    const DeviceConfig &config(int device) const { return m_configs.at(device); }
    DAbstractPlugin *device(int device) const;
    // The device subcommands use when a channel names none: --ref, or `use NAME`.
    int current() const { return m_current; }
    const DeviceConfig &config() const { return config(m_current); }
    DAbstractPlugin *device() const { return device(m_current); }
    // The index of the device whose reference, or the reference's last word, is `name`; -1.
    int findDevice(const QString &name) const;
    // Makes `name` the current device; false after printing a refusal.
    bool use(const QString &name, int *exitCode);
    // The embedded simulator of a device, or nullptr when it has a real address.
    E1212Simulator *simulator(int device) const;
    // "host:port" a device is reached at ("" when it has none).
    QString address(int device) const;

    // The ids of a device's real channels (records with a "type"), in table order, and the
    // information entries of one record (entry id -> value).
    QStringList channelIds(int device) const;
    QVariantMap channelInfo(int device, const QString &id) const;
    // Resolves "CH" or "NAME:CH" to a channel of a configured device; with OutputChannel the
    // channel must be of type "digitalOutput". False after printing a refusal naming the
    // channel and the known ones.
    bool channel(const QString &text, ChannelKind kind, CtlChannel *channel, int *exitCode);

    // Starts a command of a device; `raw` skips the host's argument checks.
    Execution *execute(int device, const QString &command, const QVariantMap &arguments, bool raw = false);
    // Runs a command to its end and reports it: with --json one flat line per listen event
    // and a last line {"command", "ok", "results", "error", "code"}; otherwise `human`
    // prints the results of a success and each event is one line. `shape` may rewrite the
    // results before they are printed. Listening commands run until `limits`, Ctrl-C or
    // SIGTERM. Returns the exit status.
    using Printer = std::function<void(const QVariantMap &results)>;
    using Shaper = std::function<QVariantMap(const QVariantMap &results)>;
    int runAndReport(int device, const QString &command, const QVariantMap &arguments, const Printer &human,
                     const CtlListenLimits &limits = CtlListenLimits(), bool raw = false, const Shaper &shape = {});
    // Reports a result the subcommand made itself (no device command).
    int reportLocal(const QString &name, const QVariantMap &results, const Printer &human);
    // Runs `command` and waits for its end; the caller deletes the finished execution.
    Execution *runToEnd(int device, const QString &command, const QVariantMap &arguments);

    // A listen that runs until stopBackground(): its events go to the output as they come.
    void startBackground(int device, const QString &channel);
    // Stops every background listen and waits for their ends; ExitFailed when one failed.
    int stopBackground();

    void printJson(QJsonObject object);
    static QString toText(const QVariant &value);

private:
    bool loadConfig(QString *error);
    // Prints the events and outages of a listening execution; *outage holds the driver's
    // last word while the device does not answer, *events counts the events.
    void watchListen(Execution *execution, int device, const QString &channel, int *events, DError *outage);

    Options m_options;
    QTextStream m_out;
    QString m_source;
    int m_line = 0;
    bool m_opened = false;
    int m_openStatus = ExitOk;
    std::vector<DeviceConfig> m_configs;
    int m_current = 0;
    QScopedPointer<PluginManager> m_plugins;
    std::vector<std::unique_ptr<E1212Simulator>> m_simulators;
    QScopedPointer<Host> m_host;
    qint64 m_seq = 0;
    struct Background
    {
        QPointer<Execution> execution;
        DError outage;
        int events = 0;
    };
    std::vector<std::unique_ptr<Background>> m_background;
};
