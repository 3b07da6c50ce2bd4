// SPDX-License-Identifier: MIT
// The host runtime: a registry of device instances and their drivers, and the router of
// the instructions their commands send.
//
// Ownership: the host owns the device and driver instances, every Execution (its QObject
// children), one CommandQueue per command object and the BackendRuns of back-ends. An
// Execution owns its state, results, pending instructions with their reply callbacks and
// guards; the host keeps only the route from an instruction id to its execution and stops
// at the driver whatever an execution leaves pending when it ends.
#pragma once

#include "backendruns.h"
#include "commandqueue.h"
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
    // execution comes later on the event loop, a refusal included (Failed with CeRefused for
    // an unknown command, one the command gate or the command's base checks refuse, and
    // nothing sent then; CeNoRoute for a device that is not this host's). A command with a
    // factory runs on a fresh object. A listening command (one with a stop command, e.g.
    // "listenEvents") runs on its declared object, any number of executions at once (one per
    // channel). Any other command runs on its declared object one execution at a time,
    // later ones queued in order. The host owns the execution; the caller may delete it
    // once finished (deleting a running one stops it).
    Execution *execute(DAbstractPlugin *device, const QString &command, const QVariantMap &arguments = {},
                       ArgumentCheck check = CheckArguments);
    // Stops exactly this execution (Execution::stop()). A listening one has its driver
    // "listen" instructions stopped (its stop command, e.g. "stopListening") and ends
    // Stopped, its normal end; other listens of the same command go on. False when it has
    // finished already.
    bool stop(Execution *execution);
    // Called once by an execution as it ends: its instructions still pending at the driver
    // are stopped there, and its queue moves on.
    void release(Execution *execution, const QList<unsigned long long> &pending);

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

    // Where a driver's reply to an instruction goes.
    struct Route
    {
        Execution *execution = nullptr;
        Device *device = nullptr;
        bool listen = false;
    };

    Device *deviceEntry(const DAbstractPlugin *device) const { return m_byInstance.value(device); }
    CommandQueue *queueFor(DAbstractCommand *command, CommandQueue::Mode mode);
    void failLater(Execution *execution, EnErrorCode code, const QString &error);
    void unroute(unsigned long long id, bool stopDriver);
    void onDriverReply(unsigned long long id, const QVariantMap &reply, bool last);
    void onGuardExpired(quint64 id);

    PluginManager *m_plugins;
    QList<Device *> m_devices;
    QHash<const DAbstractPlugin *, Device *> m_byInstance;
    int m_timeoutOverride = 0;
    unsigned long long m_lastInstruction = 0;
    QHash<unsigned long long, Route> m_routes;
    // Instruction guards, keyed by instruction id; each execution keeps the handles of its own.
    DeadlineQueue m_guards{this};
    // The executions of each command object (declared ones for the host's life, fresh ones
    // while their execution runs).
    QHash<DAbstractCommand *, CommandQueue *> m_queues;
    // The queues' parent, so that the host's own children are its executions alone: an
    // ending execution is found near the front of that list, not behind every queue.
    QObject m_queueParent;
    BackendRuns *m_runs;
};
