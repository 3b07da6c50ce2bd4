// SPDX-License-Identifier: MIT
// The host runtime: device instances, their drivers, and the messenger through which
// their commands run.
#pragma once

#include "deviceconfig.h"
#include "execution.h"
#include "imessenger.h"

#include <QHash>
#include <QObject>
#include <QPointer>
#include <QSet>

class DAbstractDriver;
class DAbstractPlugin;
class PluginManager;
class QTimer;

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

    // When above 0, replaces the time-out every command gives its instructions.
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
    // is not this host's). A command with a factory runs on a fresh object; any other
    // runs on its declared object, one execution at a time, later ones queued in order.
    // The host owns the execution; the caller may delete it once finished.
    Execution *execute(DAbstractPlugin *device, const QString &command, const QVariantMap &arguments = {},
                       ArgumentCheck check = CheckArguments);
    // Runs the stop command of a listening execution (its driver "listen" instructions are
    // stopped and it ends Stopped, which is its normal end); a queued or other running
    // execution ends Stopped with CeStopped. False when it has finished already.
    bool stop(Execution *execution);

    // IMessenger
    unsigned long long sendInstruction(DAbstractCommand *command, const QString &target,
                                       const QString &instruction, const QMap<QString, QVariant> &parameters,
                                       int timeoutMs, const ReplyCallback &callback) override;
    unsigned long long runCommand(DAbstractPluginBackend *backend, const QString &command,
                                  const QMap<QString, QVariant> &arguments) override;
    bool stopCommand(unsigned long long runId) override;

private:
    friend class Execution;

    struct Device
    {
        DeviceConfig config;
        DAbstractPlugin *instance = nullptr;
        DAbstractDriver *driver = nullptr;
    };

    struct Pending
    {
        QPointer<DAbstractCommand> command;
        QPointer<Execution> execution;
        QPointer<DAbstractDriver> driver;
        QString commandName;
        QString instruction;
        QString deviceReference;
        ReplyCallback callback;
        int timeoutMs = 0;
        QTimer *timer = nullptr;
    };

    const Device *deviceEntry(const DAbstractPlugin *device) const;
    void failLater(Execution *execution, EnErrorCode code, const QString &error);
    void startNext(DAbstractCommand *declared);
    void start(Execution *execution);
    void checkSettled(Execution *execution);
    void finish(Execution *execution, Execution::State state, EnErrorCode code, const QString &error,
                int exceptionCode = 0);
    void forget(Execution *execution);
    void dropPending(unsigned long long id, bool stopDriver);
    void onDriverReply(unsigned long long id, const QVariantMap &reply, bool last);
    void onTimeout(unsigned long long id);

    PluginManager *m_plugins;
    QList<Device> m_devices;
    int m_timeoutOverride = 0;
    unsigned long long m_lastId = 0;
    QHash<unsigned long long, Pending> m_pending;
    // Instructions that timed out, until their late reply (if any) has been reported.
    QSet<unsigned long long> m_timedOut;
    // The execution running on each command object, and the queue waiting for each declared one.
    QHash<DAbstractCommand *, Execution *> m_active;
    QHash<DAbstractCommand *, QList<QPointer<Execution>>> m_queues;
    // Fresh command objects of finished executions, released on the next event-loop turn
    // (never from inside one of their own signals).
    QList<QSharedPointer<ICommand>> m_released;
    QHash<unsigned long long, QPointer<Execution>> m_runs;
};
