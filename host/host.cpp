// SPDX-License-Identifier: MIT
#include "host.h"

#include "dabstractcommand.h"
#include "dabstractdriver.h"
#include "dabstractplugin.h"
#include "dabstractpluginbackend.h"
#include "hostlog.h"
#include "pluginmanager.h"

#include <QJsonDocument>
#include <QJsonObject>

namespace {

const QString c_driverTarget = QStringLiteral("driver");
const QString c_listen = QStringLiteral("listen");
// Used when a command gives no positive time-out of its own.
const int c_defaultTimeoutMs = 3000;
// What the host's guard allows a driver beyond the device's time-outs.
const int c_guardSlackMs = 1000;

QString where(const DeviceConfig &config, const QString &key)
{
    const QString file = config.sourceFile.isEmpty() ? QStringLiteral("configuration") : config.sourceFile;
    const QString path = config.jsonPath.isEmpty() ? key : config.jsonPath + QLatin1Char('.') + key;
    return file + QStringLiteral(": ") + path;
}

QString compact(const QVariantMap &map)
{
    return QString::fromUtf8(QJsonDocument(QJsonObject::fromVariantMap(map)).toJson(QJsonDocument::Compact));
}

QString pluginList(const QList<DAbstractPlugin *> &plugins)
{
    QStringList names;
    for (const DAbstractPlugin *plugin : plugins)
        names << plugin->pluginName() + QLatin1Char(' ') + plugin->pluginUuid().toString();
    return names.isEmpty() ? QStringLiteral("none") : names.join(QStringLiteral(", "));
}

template<class T>
T *asPlugin(IPlugin *instance)
{
    T *plugin = dynamic_cast<T *>(instance);
    if (!plugin)
        delete instance;
    return plugin;
}

} // namespace

Host::Host(PluginManager *plugins, QObject *parent)
    : QObject(parent)
    , m_plugins(plugins)
{
    connect(&m_deadlines, &DeadlineQueue::expired, this, &Host::onDeadline);
}

Host::~Host()
{
    const QList<Execution *> executions = findChildren<Execution *>(QString(), Qt::FindDirectChildrenOnly);
    for (Execution *execution : executions)
        finish(execution, Execution::Stopped, CeStopped, QStringLiteral("the host is shutting down"));
    m_runs.clear();
    m_released.clear();
    for (Device *device : qAsConst(m_devices)) {
        device->instance->setMessenger(nullptr);
        delete device->instance;
        delete device->driver;
        delete device;
    }
}

bool Host::addDevice(const DeviceConfig &config, QString *error)
{
    auto fail = [error](const QString &text) {
        if (error)
            *error = text;
        return false;
    };
    if (device(config.reference))
        return fail(where(config, QStringLiteral("reference")) + QStringLiteral(": a device \"%1\" exists already").arg(config.reference));

    DAbstractPlugin *root = m_plugins->plugin(config.pluginUuid);
    const QString searched = m_plugins->scannedDirs().isEmpty() ? QStringLiteral("no folder") : m_plugins->scannedDirs().join(QStringLiteral(", "));
    if (!root)
        return fail(where(config, QStringLiteral("plugin"))
                    + QStringLiteral(": no plug-in with UUID %1 is loaded (searched %2; loaded: %3)")
                          .arg(config.pluginUuid.toString(), searched, pluginList(m_plugins->plugins())));
    if (root->pluginType() != IPlugin::CeDevice)
        return fail(where(config, QStringLiteral("plugin"))
                    + QStringLiteral(": %1 (%2) is not a device plug-in").arg(root->pluginName(), config.pluginUuid.toString()));

    DAbstractPlugin *driverRoot = nullptr;
    if (!config.driverUuid.isNull()) {
        driverRoot = m_plugins->plugin(config.driverUuid);
        if (!driverRoot || driverRoot->pluginType() != IPlugin::CeDriver)
            return fail(where(config, QStringLiteral("driver"))
                        + QStringLiteral(": no driver plug-in with UUID %1 is loaded (searched %2; drivers: %3)")
                              .arg(config.driverUuid.toString(), searched, pluginList(m_plugins->drivers())));
    } else {
        driverRoot = m_plugins->plugin(DeviceConfig::defaultDriverUuid());
        if (!driverRoot && !m_plugins->drivers().isEmpty())
            driverRoot = m_plugins->drivers().constFirst();
        if (!driverRoot)
            return fail(where(config, QStringLiteral("driver"))
                        + QStringLiteral(": no driver plug-in is loaded (searched %1)").arg(searched));
    }

    auto instance = asPlugin<DAbstractPlugin>(root->createInstance(QUuid::createUuid()));
    if (!instance)
        return fail(where(config, QStringLiteral("plugin")) + QStringLiteral(": %1 made no plug-in instance").arg(root->pluginName()));
    auto driver = asPlugin<DAbstractDriver>(driverRoot->createInstance(QUuid::createUuid()));
    if (!driver) {
        delete instance;
        return fail(where(config, QStringLiteral("driver")) + QStringLiteral(": %1 made no driver instance").arg(driverRoot->pluginName()));
    }
    QString connectionError;
    if (!driver->configureConnection(config.connection, &connectionError)) {
        delete instance;
        delete driver;
        return fail(where(config, QStringLiteral("connection")) + QStringLiteral(": ") + connectionError);
    }
    // Drivers reply on a later event-loop turn than startInstruction, so replies are
    // handled as they come.
    connect(driver, &DAbstractDriver::sigInstructionReply, this, &Host::onDriverReply);

    instance->setProperty(QStringLiteral("reference"), config.reference, false);
    instance->addToParameters(QStringLiteral("parameters"), config.parameters);
    instance->setMessenger(this);
    auto entry = new Device{config, instance, driver};
    entry->timeoutMs = qMax(0, config.connection.value(QStringLiteral("timeoutMs")).toInt());
    m_devices << entry;
    m_byInstance.insert(instance, entry);
    instance->initPluginCommands();
    if (lcHost().isInfoEnabled())
        qCInfo(lcHost).noquote() << "device" << config.reference << "uses" << root->pluginName()
                                 << "with driver" << driverRoot->pluginName() << compact(config.connection);
    return true;
}

QList<DAbstractPlugin *> Host::devices() const
{
    QList<DAbstractPlugin *> result;
    for (const Device *device : m_devices)
        result << device->instance;
    return result;
}

DAbstractPlugin *Host::device(const QString &reference) const
{
    for (const Device *device : m_devices)
        if (device->config.reference == reference)
            return device->instance;
    return nullptr;
}

DAbstractDriver *Host::driverOf(const DAbstractPlugin *device) const
{
    const Device *entry = deviceEntry(device);
    return entry ? entry->driver : nullptr;
}

const DeviceConfig *Host::configOf(const DAbstractPlugin *device) const
{
    const Device *entry = deviceEntry(device);
    return entry ? &entry->config : nullptr;
}

Host::CommandState &Host::wire(DAbstractCommand *command)
{
    auto it = m_commands.find(command);
    if (it != m_commands.end())
        return *it;
    // What a command posts goes to the execution it runs for now (inside commandExecute or
    // a reply callback); outside a call from the host, nowhere.
    connect(command, &DAbstractCommand::sigResultChanged, this, [this, command](const QString &name, const QVariant &value) {
        if (Execution *execution = executionOf(command))
            execution->postResult(name, value);
    });
    connect(command, &DAbstractCommand::sigFinished, this, [this, command](bool ok, const QString &error) {
        Execution *execution = executionOf(command);
        if (!execution)
            return;
        if (ok)
            finish(execution, Execution::Succeeded, CeNoError, QString());
        else
            finish(execution, Execution::Failed, CeRefused, QStringLiteral("%1 failed: %2").arg(execution->commandName(), error));
    });
    return *m_commands.insert(command, CommandState());
}

Execution *Host::executionOf(DAbstractCommand *command) const
{
    return m_current && m_current->m_command == command ? m_current : nullptr;
}

Execution *Host::execute(DAbstractPlugin *device, const QString &command, const QVariantMap &arguments,
                         ArgumentCheck check)
{
    auto execution = new Execution(this, device, command, arguments);
    execution->m_checkArguments = check == CheckArguments;
    if (!device || !deviceEntry(device)) {
        failLater(execution, CeNoRoute, QStringLiteral("cannot run \"%1\": the plug-in instance is not a device of this host").arg(command));
        return execution;
    }
    DAbstractCommand *declared = device->command(command);
    if (!declared) {
        failLater(execution, CeRefused, QStringLiteral("device \"%1\" has no command \"%2\" (it has: %3)")
                                            .arg(device->getName(), command, device->commandNames().join(QStringLiteral(", "))));
        return execution;
    }
    if (declared->commandName() != command) {
        failLater(execution, CeRefused, QStringLiteral("\"%1\" is the stop command of \"%2\": stop a running \"%2\" execution instead")
                                            .arg(command, declared->commandName()));
        return execution;
    }
    execution->m_listening = !declared->stopCommandName().isEmpty();
    execution->m_fresh = declared->createCommand(arguments);
    execution->m_command = execution->m_fresh ? qobject_cast<DAbstractCommand *>(execution->m_fresh->commandObject()) : declared;
    QMetaObject::invokeMethod(execution, [this, execution] { start(execution); }, Qt::QueuedConnection);
    return execution;
}

void Host::failLater(Execution *execution, EnErrorCode code, const QString &error)
{
    QMetaObject::invokeMethod(execution, [this, execution, code, error] { finish(execution, Execution::Failed, code, error); },
                              Qt::QueuedConnection);
}

void Host::startNext(DAbstractCommand *declared)
{
    CommandState &state = wire(declared);
    while (!state.queue.isEmpty() && (!state.queue.constFirst() || state.queue.constFirst()->state() != Execution::Queued))
        state.queue.removeFirst();
    if (!state.queue.isEmpty())
        start(state.queue.constFirst());
}

void Host::start(Execution *execution)
{
    if (execution->state() != Execution::Queued)
        return;
    DAbstractCommand *command = execution->m_command;
    if (!command) {
        finish(execution, Execution::Failed, CeRefused,
               QStringLiteral("command \"%1\" is no longer available").arg(execution->commandName()));
        return;
    }
    CommandState &state = wire(command);
    if (!execution->m_fresh && !execution->isListening()) {
        // One at a time on a declared object, in the order of execute().
        if (!state.running.isEmpty() || (!state.queue.isEmpty() && state.queue.constFirst() != execution)) {
            if (!state.queue.contains(execution))
                state.queue << execution;
            return;
        }
        state.queue.removeOne(execution);
    }
    state.running << execution;
    execution->setState(Execution::Running);
    if (lcHost().isDebugEnabled())
        qCDebug(lcHost).noquote() << "running" << execution->commandName() << compact(execution->arguments())
                                  << "on" << (execution->device() ? execution->device()->getName() : QString());

    command->setParameters(execution->arguments());
    command->setArgumentChecks(execution->m_checkArguments);
    Execution *outer = m_current;
    m_current = execution;
    const bool started = command->commandExecute();
    m_current = outer;
    if (execution->isFinished())
        return;
    if (!started) {
        const QString reason = command->errorString();
        finish(execution, Execution::Failed, CeRefused,
               QStringLiteral("%1 refused to run: %2")
                   .arg(execution->commandName(), reason.isEmpty() ? QStringLiteral("the command gave no reason") : reason));
        return;
    }
    // A command that sent no instruction has ended.
    checkSettled(execution);
}

void Host::checkSettled(Execution *execution)
{
    if (execution->state() == Execution::Running && !execution->isListening() && execution->m_instructions.isEmpty())
        finish(execution, Execution::Succeeded, CeNoError, QString());
}

void Host::finish(Execution *execution, Execution::State state, EnErrorCode code, const QString &error,
                  int exceptionCode)
{
    if (execution->isFinished())
        return;
    const QVector<unsigned long long> ids = execution->m_instructions;
    for (unsigned long long id : ids)
        dropPending(id, true);

    DAbstractCommand *command = execution->m_command;
    const auto it = command ? m_commands.find(command) : m_commands.end();
    if (it != m_commands.end()) {
        it->running.removeOne(execution);
        it->queue.removeAll(execution);
        if (execution->m_fresh) {
            m_commands.erase(it);
        } else if (it->running.isEmpty() && !it->queue.isEmpty()) {
            QPointer<DAbstractCommand> guard(command);
            QMetaObject::invokeMethod(this, [this, guard] {
                if (guard)
                    startNext(guard);
            }, Qt::QueuedConnection);
        }
    }
    if (execution->m_fresh) {
        if (m_released.isEmpty())
            QMetaObject::invokeMethod(this, [this] { m_released.clear(); }, Qt::QueuedConnection);
        m_released << execution->m_fresh;
        execution->m_fresh.reset();
    }
    if (state == Execution::Failed)
        qCWarning(lcHost).noquote() << error;
    else
        qCDebug(lcHost).noquote() << execution->commandName() << "ended" << state << error;
    execution->end(state, code, error, exceptionCode);
}

void Host::forget(Execution *execution)
{
    if (m_current == execution)
        m_current = nullptr;
    finish(execution, Execution::Stopped, CeStopped, QStringLiteral("the execution was deleted"));
}

bool Host::stop(Execution *execution)
{
    if (!execution || execution->isFinished())
        return false;
    if (execution->state() == Execution::Queued) {
        finish(execution, Execution::Stopped, CeStopped, QStringLiteral("%1 was stopped before it started").arg(execution->commandName()));
        return true;
    }
    if (execution->isListening()) {
        const DAbstractCommand *command = execution->m_command;
        qCDebug(lcHost).noquote() << "running" << (command ? command->stopCommandName() : QString()) << "for" << execution->commandName();
        finish(execution, Execution::Stopped, CeStopped, QString());
    } else {
        finish(execution, Execution::Stopped, CeStopped, QStringLiteral("%1 was stopped before it completed").arg(execution->commandName()));
    }
    return true;
}

unsigned long long Host::sendInstruction(DAbstractCommand *command, const QString &target, const QString &instruction,
                                         const QMap<QString, QVariant> &parameters, int timeoutMs,
                                         const ReplyCallback &callback)
{
    Execution *execution = command ? executionOf(command) : nullptr;
    Device *device = command ? deviceEntry(command->plugin()) : nullptr;
    if (!device || target != c_driverTarget) {
        const QString commandName = command ? command->commandName() : QStringLiteral("(no command)");
        const QString refusal = !device
            ? QStringLiteral("%1: instruction \"%2\" comes from a command of no device of this host").arg(commandName, instruction)
            : QStringLiteral("%1: device \"%2\" has no target \"%3\" for instruction \"%4\" (known targets: %5)")
                  .arg(commandName, device->config.reference, target, instruction, c_driverTarget);
        if (execution)
            finish(execution, Execution::Failed, CeNoRoute, refusal);
        else
            qCWarning(lcHost).noquote() << refusal;
        return 0;
    }

    const unsigned long long id = ++m_lastId;
    const int effectiveMs = m_timeoutOverride > 0 ? m_timeoutOverride
        : device->timeoutMs > 0                   ? device->timeoutMs
        : timeoutMs > 0                           ? timeoutMs
                                                  : c_defaultTimeoutMs;
    Pending &pending = m_pending[id];
    pending.command = command;
    pending.execution = execution;
    pending.device = device;
    pending.commandName = command->commandName();
    pending.instruction = instruction;
    pending.callback = callback;
    pending.listen = instruction == c_listen;
    // The driver answers the requests ahead of this one first, each within the time-out.
    const int ahead = device->oneShots + (device->listens > 0 ? 1 : 0);
    pending.guardMs = effectiveMs * (ahead + 1) + c_guardSlackMs;
    pending.guard = m_deadlines.add(id, pending.guardMs);
    ++(pending.listen ? device->listens : device->oneShots);
    if (execution)
        execution->m_instructions << id;
    if (lcHost().isDebugEnabled())
        qCDebug(lcHost).noquote() << "instruction" << id << instruction << compact(parameters) << "of" << pending.commandName
                                  << "to the driver of" << device->config.reference << "time-out" << effectiveMs << "ms";
    device->driver->startInstruction(id, instruction, parameters, effectiveMs);
    return id;
}

void Host::dropPending(unsigned long long id, bool stopDriver)
{
    const auto it = m_pending.find(id);
    if (it == m_pending.end())
        return;
    m_deadlines.remove(it->guard);
    --(it->listen ? it->device->listens : it->device->oneShots);
    if (it->execution)
        it->execution->m_instructions.removeOne(id);
    DAbstractDriver *driver = it->device->driver;
    m_pending.erase(it);
    if (!stopDriver)
        return;
    if (m_delivering > 0)
        m_stopsLater << qMakePair(QPointer<DAbstractDriver>(driver), id);
    else
        driver->stopInstruction(id);
}

void Host::onDeadline(quint64 key)
{
    const auto it = m_pending.find(key);
    if (it == m_pending.end()) {
        if (m_runs.contains(key))
            startRun(key);
        return;
    }
    it->guard = m_deadlines.none();
    Execution *execution = it->execution;
    const QString error = QStringLiteral("%1: no reply to instruction %2 (\"%3\" to the driver of \"%4\") within %5 ms")
                              .arg(it->commandName).arg(key).arg(it->instruction, it->device->config.reference).arg(it->guardMs);
    dropPending(key, true);
    if (execution)
        finish(execution, Execution::Failed, CeTimeout, error);
    else
        qCWarning(lcHost).noquote() << error;
}

void Host::onDriverReply(unsigned long long id, const QVariantMap &reply, bool last)
{
    const auto it = m_pending.find(id);
    if (it == m_pending.end()) {
        // Timed out or stopped: the driver was told, but may have had the reply on its way.
        if (lcHost().isDebugEnabled())
            qCDebug(lcHost).noquote() << "reply to instruction" << id << "dropped, it ended already:" << compact(reply);
        return;
    }
    // The guard covers the first reply; a listen then reports only changes.
    m_deadlines.remove(it->guard);
    it->guard = m_deadlines.none();
    const QPointer<DAbstractCommand> command = it->command;
    const QPointer<Execution> execution = it->execution;
    const ReplyCallback callback = it->callback;
    const QString instruction = it->instruction;
    const Device *device = it->device;
    if (last)
        dropPending(id, false);
    if (!command)
        return;

    Execution *outer = m_current;
    m_current = execution;
    ++m_delivering;
    const DError driverError = DError::fromReply(reply);
    bool accepted = true;
    if (!callback.empty()) {
        // On a driver error the command still sees the reply and makes its own checks (and
        // log line); the caller is told the driver's code and text.
        accepted = callback(id, reply);
    } else if (!driverError.isError()) {
        // Nobody waits for this reply: what it carries under a declared result name becomes that result.
        for (auto value = reply.cbegin(); value != reply.cend(); ++value)
            if (command->declaresResult(value.key()))
                command->commandUpdateResult(value.key(), value.value());
    }
    m_current = outer;

    if (driverError.isError()) {
        const QString error = QStringLiteral("%1: the driver of \"%2\" failed instruction %3 (\"%4\"): %5")
                                  .arg(command->commandName(), device->config.reference)
                                  .arg(id)
                                  .arg(instruction, driverError.text);
        if (!execution || execution->isFinished()) {
            qCWarning(lcHost).noquote() << error;
        } else if (!last && execution->isListening()) {
            // A listen outlives an outage: the driver goes on and reports again once it can.
            qCWarning(lcHost).noquote() << error;
            emit execution->errorReported(DError{driverError.code, driverError.exceptionCode, error});
        } else {
            finish(execution, Execution::Failed, driverError.code, error, driverError.exceptionCode);
        }
    } else if (execution && !execution->isFinished()) {
        if (!accepted)
            finish(execution, Execution::Failed, CeReplyRejected,
                   QStringLiteral("%1: the command rejected the reply to instruction %2 (\"%3\"): %4")
                       .arg(command->commandName()).arg(id).arg(instruction, compact(reply)));
        else if (last)
            checkSettled(execution);
    }
    if (--m_delivering == 0 && !m_stopsLater.isEmpty()) {
        const auto stops = m_stopsLater;
        m_stopsLater.clear();
        for (const auto &stop : stops)
            if (stop.first)
                stop.first->stopInstruction(stop.second);
    }
}

unsigned long long Host::runCommand(DAbstractPluginBackend *backend, const QString &command,
                                    const QMap<QString, QVariant> &arguments)
{
    return runCommandEvery(backend, command, arguments, 0);
}

unsigned long long Host::runCommandEvery(DAbstractPluginBackend *backend, const QString &command,
                                         const QMap<QString, QVariant> &arguments, int repeatMs)
{
    const unsigned long long runId = ++m_lastId;
    Run &run = m_runs[runId];
    run.backend = backend;
    run.command = command;
    run.arguments = arguments;
    run.repeatMs = qMax(0, repeatMs);
    run.next = m_deadlines.none();
    startRun(runId);
    return runId;
}

void Host::startRun(unsigned long long runId)
{
    const auto it = m_runs.find(runId);
    it->next = m_deadlines.none();
    if (!it->backend) {
        m_runs.erase(it);
        return;
    }
    Execution *execution = execute(it->backend->plugin(), it->command, it->arguments);
    it->current = execution;
    connect(execution, &Execution::resultChanged, this, [this, runId](const QString &name, const QVariant &value) {
        const auto run = m_runs.constFind(runId);
        if (run != m_runs.constEnd() && run->backend)
            run->backend->commandResultChanged(runId, run->command, name, value);
    });
    connect(execution, &Execution::finished, this, [this, runId, execution] { runEnded(runId, execution); });
}

void Host::runEnded(unsigned long long runId, Execution *execution)
{
    execution->deleteLater();
    const auto it = m_runs.find(runId);
    if (it == m_runs.end())
        return;
    const QPointer<DAbstractPluginBackend> backend = it->backend;
    const QString command = it->command;
    it->current = nullptr;
    // The next run is due `repeatMs` after this one's end, whatever its outcome.
    if (it->repeatMs != 0 && !it->stopped && backend)
        it->next = m_deadlines.add(runId, it->repeatMs);
    else
        m_runs.erase(it);
    if (!backend)
        return;
    if (execution->isOk())
        backend->commandFinished(runId, command, execution->results());
    else
        backend->commandFailed(runId, command, execution->error());
}

bool Host::stopCommand(unsigned long long runId)
{
    const auto it = m_runs.find(runId);
    if (it == m_runs.end() || it->stopped)
        return false;
    if (it->current) {
        it->stopped = true;
        return stop(it->current);
    }
    m_deadlines.remove(it->next);
    m_runs.erase(it);
    return true;
}
