// SPDX-License-Identifier: MIT
// What every e1212ctl subcommand works with: the global options, the output, and the
// devices of the configuration, opened once on first use (plug-ins, one host, embedded
// simulators) and kept for every later step of a script.
#pragma once

#include "ctloutcome.h"
#include "deviceconfig.h"

#include <QJsonObject>
#include <QObject>
#include <QScopedPointer>
#include <QTextStream>
#include <QVariantMap>

#include <functional>
#include <memory>
#include <vector>

class CtlCall;
class QDateTime;
class DAbstractPlugin;
class CtlSimulator;
class Host;
class PluginManager;

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
    enum ExitCode { ExitOk = CtlOutcome::ExitOk, ExitFailed = CtlOutcome::ExitFailed, ExitUsage = CtlOutcome::ExitUsage };
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
    // Called before anything is printed (a script clears its progress line); nullptr: nothing.
    void setBeforeOutput(const std::function<void()> &beforeOutput) { m_beforeOutput = beforeOutput; }
    void beforeOutput()
    {
        if (m_beforeOutput)
            m_beforeOutput();
    }

    // The line of the script step being run (0 outside scripts), and its file for messages.
    void setStep(const QString &source, int line);
    int stepLine() const { return m_line; }

    // The printer of every outcome: with --json its result line, one flat object (the values,
    // "command", "ok", "device", "channel", "time", and "error" and "code" when it failed; a
    // refusal gets one even without a command), otherwise the outcome's text; then the
    // failure's one line on stderr, "e1212ctl: [FILE:LINE: ]message". Returns the exit code.
    int report(const CtlOutcome &outcome);
    // report() of a one-line failure with this exit code (ExitUsage: a refusal).
    int fail(int code, const QString &text);
    int usageError(const QString &text) { return fail(ExitUsage, text); }

    // Loads the configuration, the plug-ins and, for devices without an address, embedded
    // simulators on free loopback ports; adds every device to one host. Does the work once;
    // later calls return the first outcome. False, with the failure in *failure, otherwise.
    bool openDevices(CtlOutcome *failure);
    // The host commands run on. While checking, one that serves no device: whatever a step
    // starts then is refused there, so nothing reaches a device.
    Host *host() const { return m_checkOnly ? m_checkHost.data() : m_host.data(); }
    // A check (script --check): steps are read and checked, successes print nothing,
    // background listens do not start and host() serves no device.
    void setCheckOnly(bool checkOnly) { m_checkOnly = checkOnly; }
    bool isCheckOnly() const { return m_checkOnly; }
    int deviceCount() const { return int(m_configs.size()); }
    const DeviceConfig &config(int device) const { return m_configs.at(device); }
    DAbstractPlugin *device(int device) const;
    // The device subcommands use when a channel names none: --ref, or `use NAME`.
    int current() const { return m_current; }
    const DeviceConfig &config() const { return config(m_current); }
    DAbstractPlugin *device() const { return device(m_current); }
    // The index of the device whose reference is `name`, else of the one device whose
    // reference's last word is; -1 when none or several are (those in *candidates, quoted).
    int findDevice(const QString &name, QStringList *candidates = nullptr) const;
    // Why findDevice(name) found none: no such device, or the candidates when several.
    QString noDevice(const QString &name) const;
    // Makes `name` the current device; false, with the refusal in *failure, otherwise.
    bool use(const QString &name, CtlOutcome *failure);
    // The embedded simulator of a device, or nullptr when it has a real address.
    CtlSimulator *simulator(int device) const;
    // "host:port" a device is reached at ("" when it has none).
    QString address(int device) const;

    // The ids of a device's real channels (records with a "type"), in table order, and the
    // information entries of one record (entry id -> value).
    QStringList channelIds(int device) const;
    QVariantMap channelInfo(int device, const QString &id) const;
    // Resolves "CH" or "NAME:CH" to a channel of a configured device; with OutputChannel the
    // channel must be of type "digitalOutput". False, with a refusal naming the channel and the
    // known ones in *failure, otherwise.
    bool channel(const QString &text, ChannelKind kind, CtlChannel *channel, CtlOutcome *failure);

    // A listen that runs until stopBackground(): its events go to the output as they come.
    void startBackground(int device, const QString &channel);
    // Stops every background listen; `done` gets, once they have all ended, the first failure
    // or a success (at once when none runs).
    void stopBackground(const std::function<void(const CtlOutcome &outcome)> &done);

    // How text output names a channel: "DO1", or "io2:DO1" when the session has several devices.
    QString label(int device, const QString &channel) const;
    // True when the record `channel` of `device` is a "digitalOutput" channel.
    bool isOutput(int device, const QString &channel) const;
    // The record whose getValues reads every output's pulse status at once.
    static QString pulseStatusRecord() { return QStringLiteral("DO_PulseStatus"); }
    // Where output `channel` of `device` stands in the values getValues of pulseStatusRecord()
    // reads: at its coil, as getValue addresses its pulse status. -1 when it is no output read
    // from the coils or its coil lies past that run.
    int pulseStatusPlace(int device, const QString &channel) const;

    // A listen's report of `value`, or its outage `error`, as one flat --json object: "event"
    // ("value" or "error"), "command", "ok", "device", "channel", "value" or "error" and "code",
    // "time" and "seq" (the session's next event number).
    QJsonObject event(const QString &command, int device, const QString &channel, const QVariant &value,
                      const DError &error = DError());
    // Prints one object as a JSON line; a script step's objects get its "line".
    void printJson(QJsonObject object);
    // ISO 8601 with milliseconds and the offset from UTC: "2026-11-24T01:02:03.456+01:00".
    static QString timestamp(const QDateTime &time);
    static QString toText(const QVariant &value);

private:
    bool loadConfig(QString *error);
    CtlOutcome open();
    void backgroundEnded();

    Options m_options;
    QTextStream m_out;
    std::function<void()> m_beforeOutput;
    QString m_source;
    int m_line = 0;
    bool m_opened = false;
    CtlOutcome m_openOutcome;
    std::vector<DeviceConfig> m_configs;
    int m_current = 0;
    QScopedPointer<PluginManager> m_plugins;
    std::vector<std::unique_ptr<CtlSimulator>> m_simulators;
    QScopedPointer<Host> m_host;
    QScopedPointer<Host> m_checkHost;
    bool m_checkOnly = false;
    qint64 m_seq = 0;
    // Background listens, and the outcome stopBackground() reports when they have ended.
    std::vector<std::unique_ptr<CtlCall>> m_background;
    CtlOutcome m_backgroundOutcome;
    int m_backgroundRunning = 0;
    std::function<void(const CtlOutcome &outcome)> m_backgroundDone;
};
