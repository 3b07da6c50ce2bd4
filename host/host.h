// SPDX-License-Identifier: MIT
// The host runtime: device instances, their drivers, and the messenger through which
// their commands run.
#pragma once

#include "deadlinequeue.h"
#include "deviceconfig.h"
#include "execution.h"
#include "imessenger.h"

#include <QHash>
#include <QObject>
#include <QPointer>

class DAbstractDriver;
class DAbstractPlugin;
class PluginManager;

class Host : public QObject, public IMessenger
{
    Q_OBJECT
public:
    // The host takes plug-ins from `plugins`, which must outlive it.
    explicit Host(PluginManager *plugins, QObject *parent = nullptr);
    // Stops every execution, then deletes the device and driver instances.
    ~Host() override;

    // Creates the device instance (its "reference" property and "parameters" parameter set,
    // this host as messenger, commands declared) and its driver instance, configured with
    // the device's "connection". The driver is the configuration's "driver", else the Modbus
    // TCP driver, else the only driver loaded. False, with *error naming the file, the JSON
    // path and what is wrong, for a duplicate reference, a plug-in that is not loaded or not
    // of the right type, or a connection the driver refuses; nothing is kept then.
    bool addDevice(const DeviceConfig &config, QString *error);
    QList<DAbstractPlugin *> devices() const;
    // The device with this reference, or nullptr.
    DAbstractPlugin *device(const QString &reference) const;
    DAbstractDriver *driverOf(const DAbstractPlugin *device) const;
    const DeviceConfig *configOf(const DAbstractPlugin *device) const;

    // When above 0, replaces the time-out of every instruction. Otherwise an instruction's
    // time-out is its device connection's "timeoutMs" when the configuration gives one, else
    // the command's own (3000 when it gives none). The driver gets it and enforces it per
    // request from when the request is on the wire; the host only guards against a driver
    // that never answers: time-out x (requests ahead on that device + 1) + 1 s, then CeTimeout.
    void setTimeoutOverride(int ms) { m_timeoutOverride = ms; }
    int timeoutOverride() const { return m_timeoutOverride; }

    // CheckArguments: before the command runs, each argument must be a value of the type
    // code its command declares (numbers given as text are converted); a refusal names the
    // argument, its value and the type. RawArguments skips only these checks, so protocol-level
    // work reaches the command with arguments exactly as given.
    enum ArgumentCheck { CheckArguments, RawArguments };

    // Starts `command` of `device` with `arguments`. Never null; every signal of the
    // execution comes later on the event loop, a refusal included (Failed with CeRefused
    // for an unknown command or one whose base checks refuse, CeNoRoute for a device that
    // is not this host's). A command with a factory runs on a fresh object. A listening
    // command (one with a stop command, e.g. "listenEvents") runs on its declared object,
    // any number of executions at once (one per channel): each reply goes to the command's
    // callback while the host attributes what the command posts to the execution whose
    // instruction it answers. Any other command runs on its declared object one execution
    // at a time, later ones queued in order.
    // The host owns the execution; the caller may delete it once finished.
    Execution *execute(DAbstractPlugin *device, const QString &command, const QVariantMap &arguments = {},
                       ArgumentCheck check = CheckArguments);
    // Stops exactly this execution. A listening one has its driver "listen" instructions
    // stopped (its stop command, e.g. "stopListening") and ends Stopped, its normal end;
    // other listens of the same command go on. A queued or other running execution ends
    // Stopped with CeStopped. False when it has finished already.
    bool stop(Execution *execution);

    // IMessenger
    unsigned long long sendInstruction(DAbstractCommand *command, const QString &target,
                                       const QString &instruction, const QMap<QString, QVariant> &parameters,
                                       int timeoutMs, const ReplyCallback &callback) override;
    unsigned long long runCommand(DAbstractPluginBackend *backend, const QString &command,
                                  const QMap<QString, QVariant> &arguments) override;
    unsigned long long runCommandEvery(DAbstractPluginBackend *backend, const QString &command,
                                       const QMap<QString, QVariant> &arguments, int repeatMs) override;
    bool stopCommand(unsigned long long runId) override;

private:
    friend class Execution;

    struct Device
    {
        DeviceConfig config;
        DAbstractPlugin *instance = nullptr;
        DAbstractDriver *driver = nullptr;
        // The connection's "timeoutMs", 0 when the configuration gives none.
        int timeoutMs = 0;
        // Instructions sent to the driver and not answered for good yet.
        int oneShots = 0;
        int listens = 0;
    };

    struct Pending
    {
        QPointer<DAbstractCommand> command;
        Execution *execution = nullptr;
        Device *device = nullptr;
        QString commandName;
        QString instruction;
        ReplyCallback callback;
        int guardMs = 0;
        bool listen = false;
        DeadlineQueue::Handle guard;
    };

    // The executions of one command object: running, and waiting for a declared one.
    struct CommandState
    {
        QList<Execution *> running;
        QList<QPointer<Execution>> queue;
    };

    // A back-end's run (runCommand) or schedule of runs (runCommandEvery).
    struct Run
    {
        QPointer<DAbstractPluginBackend> backend;
        QString command;
        QMap<QString, QVariant> arguments;
        int repeatMs = 0;
        bool stopped = false;
        QPointer<Execution> current;
        DeadlineQueue::Handle next;
    };

    Device *deviceEntry(const DAbstractPlugin *device) const { return m_byInstance.value(device); }
    CommandState &wire(DAbstractCommand *command);
    Execution *executionOf(DAbstractCommand *command) const;
    void failLater(Execution *execution, EnErrorCode code, const QString &error);
    void startNext(DAbstractCommand *declared);
    void start(Execution *execution);
    void checkSettled(Execution *execution);
    void finish(Execution *execution, Execution::State state, EnErrorCode code, const QString &error,
                int exceptionCode = 0);
    void forget(Execution *execution);
    void dropPending(unsigned long long id, bool stopDriver);
    void onDriverReply(unsigned long long id, const QVariantMap &reply, bool last);
    void onDeadline(quint64 key);
    void startRun(unsigned long long runId);
    void runEnded(unsigned long long runId, Execution *execution);

    PluginManager *m_plugins;
    QList<Device *> m_devices;
    QHash<const DAbstractPlugin *, Device *> m_byInstance;
    int m_timeoutOverride = 0;
    unsigned long long m_lastId = 0;
    QHash<unsigned long long, Pending> m_pending;
    // Instruction guards and the next runs of schedules.
    DeadlineQueue m_deadlines;
    QHash<DAbstractCommand *, CommandState> m_commands;
    // The execution on whose behalf a command runs now (inside commandExecute or a reply
    // callback): what the command posts or sends belongs to it.
    Execution *m_current = nullptr;
    // Inside a driver's reply: stops for drivers wait until it has returned.
    int m_delivering = 0;
    QList<QPair<QPointer<DAbstractDriver>, unsigned long long>> m_stopsLater;
    // Fresh command objects of finished executions, released on the next event-loop turn
    // (never from inside one of their own signals).
    QList<QSharedPointer<ICommand>> m_released;
    QHash<unsigned long long, Run> m_runs;
};
