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
#include <QTimer>

namespace {

const QString c_driverTarget = QStringLiteral("driver");
// Used when a command gives no positive time-out of its own.
const int c_defaultTimeoutMs = 3000;

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
{}

Host::~Host()
{
    const QList<Execution *> executions = findChildren<Execution *>(QString(), Qt::FindDirectChildrenOnly);
    for (Execution *execution : executions)
        finish(execution, Execution::Stopped, CeStopped, QStringLiteral("the host is shutting down"));
    m_released.clear();
    for (const Device &device : qAsConst(m_devices)) {
        device.instance->setMessenger(nullptr);
        delete device.instance;
        delete device.driver;
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
    driver->setProperty(QStringLiteral("reference"), config.reference, false);
    // Replies are handled on a later event-loop turn, whatever thread or call they come from.
    connect(driver, &DAbstractDriver::sigInstructionReply, this,
            [this](unsigned long long id, const QMap<QString, QVariant> &reply, bool last) {
                QMetaObject::invokeMethod(this, [this, id, reply, last] { onDriverReply(id, reply, last); }, Qt::QueuedConnection);
            });

    instance->setProperty(QStringLiteral("reference"), config.reference, false);
    instance->addToParameters(QStringLiteral("parameters"), config.parameters);
    instance->setMessenger(this);
    instance->initPluginCommands();
    m_devices << Device{config, instance, driver};
    qCInfo(lcHost).noquote() << "device" << config.reference << "uses" << root->pluginName()
                             << "with driver" << driverRoot->pluginName() << compact(config.connection);
    return true;
}

QList<DAbstractPlugin *> Host::devices() const
{
    QList<DAbstractPlugin *> result;
    for (const Device &device : m_devices)
        result << device.instance;
    return result;
}

DAbstractPlugin *Host::device(const QString &reference) const
{
    for (const Device &device : m_devices)
        if (device.config.reference == reference)
            return device.instance;
    return nullptr;
}

const Host::Device *Host::deviceEntry(const DAbstractPlugin *device) const
{
    for (const Device &entry : m_devices)
        if (entry.instance == device)
            return &entry;
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
    const QSharedPointer<ICommand> fresh = declared->createCommand(arguments);
    if (fresh) {
        execution->m_fresh = fresh;
        QTimer::singleShot(0, execution, [this, execution] { start(execution); });
    } else {
        m_queues[declared] << execution;
        QPointer<DAbstractCommand> guard(declared);
        QTimer::singleShot(0, this, [this, guard] {
            if (guard)
                startNext(guard);
        });
    }
    return execution;
}

void Host::failLater(Execution *execution, EnErrorCode code, const QString &error)
{
    QTimer::singleShot(0, execution, [this, execution, code, error] { finish(execution, Execution::Failed, code, error); });
}

void Host::startNext(DAbstractCommand *declared)
{
    if (m_active.contains(declared))
        return;
    QList<QPointer<Execution>> &queue = m_queues[declared];
    while (!queue.isEmpty()) {
        Execution *next = queue.takeFirst();
        if (next && next->state() == Execution::Queued) {
            start(next);
            return;
        }
    }
}

void Host::start(Execution *execution)
{
    if (execution->state() != Execution::Queued)
        return;
    DAbstractPlugin *device = execution->device();
    DAbstractCommand *command = nullptr;
    if (execution->m_fresh)
        command = qobject_cast<DAbstractCommand *>(execution->m_fresh->commandObject());
    else if (device)
        command = device->command(execution->commandName());
    if (!command) {
        finish(execution, Execution::Failed, CeRefused,
               QStringLiteral("command \"%1\" is no longer available").arg(execution->commandName()));
        return;
    }
    execution->m_command = command;
    m_active.insert(command, execution);
    execution->m_connections << connect(command, &DAbstractCommand::sigResultChanged, execution, &Execution::postResult);
    execution->m_connections << connect(command, &DAbstractCommand::sigFinished, execution,
                                        [this, execution](bool ok, const QString &error) {
                                            if (ok)
                                                finish(execution, Execution::Succeeded, CeNoError, QString());
                                            else
                                                finish(execution, Execution::Failed, CeRefused,
                                                       QStringLiteral("%1 failed: %2").arg(execution->commandName(), error));
                                        });
    execution->setState(Execution::Running);
    qCDebug(lcHost).noquote() << "running" << execution->commandName() << compact(execution->arguments())
                              << "on" << (device ? device->getName() : QString());

    command->setParameters(execution->arguments());
    command->setArgumentChecks(execution->m_checkArguments);
    if (!command->commandExecute()) {
        const QString reason = command->errorString();
        finish(execution, Execution::Failed, CeRefused,
               QStringLiteral("%1 refused to run: %2")
                   .arg(execution->commandName(), reason.isEmpty() ? QStringLiteral("the command gave no reason") : reason));
        return;
    }
    // A command without instructions ends once it had its chance to finish on its own.
    QPointer<Execution> guard(execution);
    QTimer::singleShot(0, this, [this, guard] {
        if (guard)
            checkSettled(guard);
    });
}

void Host::checkSettled(Execution *execution)
{
    if (execution->state() != Execution::Running || execution->isListening())
        return;
    for (const Pending &pending : qAsConst(m_pending))
        if (pending.execution == execution)
            return;
    finish(execution, Execution::Succeeded, CeNoError, QString());
}

void Host::finish(Execution *execution, Execution::State state, EnErrorCode code, const QString &error,
                  int exceptionCode)
{
    if (execution->isFinished())
        return;
    QList<unsigned long long> ids;
    for (auto it = m_pending.cbegin(); it != m_pending.cend(); ++it)
        if (it->execution == execution)
            ids << it.key();
    for (unsigned long long id : qAsConst(ids))
        dropPending(id, true);
    for (const QMetaObject::Connection &connection : qAsConst(execution->m_connections))
        disconnect(connection);
    execution->m_connections.clear();

    DAbstractCommand *command = execution->m_command;
    if (command && m_active.value(command) == execution)
        m_active.remove(command);
    if (execution->m_fresh) {
        m_released << execution->m_fresh;
        execution->m_fresh.reset();
        QTimer::singleShot(0, this, [this] { m_released.clear(); });
    } else if (command) {
        QPointer<DAbstractCommand> guard(command);
        QTimer::singleShot(0, this, [this, guard] {
            if (guard)
                startNext(guard);
        });
    }
    if (state == Execution::Failed)
        qCWarning(lcHost).noquote() << error;
    else
        qCDebug(lcHost).noquote() << execution->commandName() << "ended" << state << error;
    execution->end(state, code, error, exceptionCode);
}

void Host::forget(Execution *execution)
{
    for (auto &queue : m_queues)
        queue.removeAll(execution);
    finish(execution, Execution::Stopped, CeStopped, QStringLiteral("the execution was deleted"));
}

bool Host::stop(Execution *execution)
{
    if (!execution || execution->isFinished())
        return false;
    if (execution->state() == Execution::Queued) {
        for (auto &queue : m_queues)
            queue.removeAll(execution);
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
    Execution *execution = command ? m_active.value(command) : nullptr;
    const Device *device = command ? deviceEntry(command->plugin()) : nullptr;
    const QString commandName = command ? command->commandName() : QStringLiteral("(no command)");
    QString refusal;
    if (!device)
        refusal = QStringLiteral("%1: instruction \"%2\" comes from a command of no device of this host").arg(commandName, instruction);
    else if (target != c_driverTarget)
        refusal = QStringLiteral("%1: device \"%2\" has no target \"%3\" for instruction \"%4\" (known targets: %5)")
                      .arg(commandName, device->config.reference, target, instruction, c_driverTarget);
    if (!refusal.isEmpty()) {
        if (execution)
            finish(execution, Execution::Failed, CeNoRoute, refusal);
        else
            qCWarning(lcHost).noquote() << refusal;
        return 0;
    }

    const unsigned long long id = ++m_lastId;
    Pending pending;
    pending.command = command;
    pending.execution = execution;
    pending.driver = device->driver;
    pending.commandName = commandName;
    pending.instruction = instruction;
    pending.deviceReference = device->config.reference;
    pending.callback = callback;
    pending.timeoutMs = m_timeoutOverride > 0 ? m_timeoutOverride : (timeoutMs > 0 ? timeoutMs : c_defaultTimeoutMs);
    pending.timer = new QTimer(this);
    pending.timer->setSingleShot(true);
    connect(pending.timer, &QTimer::timeout, this, [this, id] { onTimeout(id); });
    pending.timer->start(pending.timeoutMs);
    m_pending.insert(id, pending);
    qCDebug(lcHost).noquote() << "instruction" << id << instruction << compact(parameters) << "of" << commandName
                              << "to the driver of" << device->config.reference;
    device->driver->startInstruction(id, instruction, parameters, pending.timeoutMs);
    return id;
}

void Host::dropPending(unsigned long long id, bool stopDriver)
{
    const Pending pending = m_pending.take(id);
    delete pending.timer;
    if (stopDriver && pending.driver)
        pending.driver->stopInstruction(id);
}

void Host::onTimeout(unsigned long long id)
{
    const auto it = m_pending.constFind(id);
    if (it == m_pending.constEnd())
        return;
    const QPointer<Execution> execution = it->execution;
    const QString error = QStringLiteral("%1: no reply to instruction %2 (\"%3\" to the driver of \"%4\") within %5 ms")
                              .arg(it->commandName).arg(id).arg(it->instruction, it->deviceReference).arg(it->timeoutMs);
    dropPending(id, true);
    m_timedOut.insert(id);
    if (execution)
        finish(execution, Execution::Failed, CeTimeout, error);
    else
        qCWarning(lcHost).noquote() << error;
}

void Host::onDriverReply(unsigned long long id, const QVariantMap &reply, bool last)
{
    const auto it = m_pending.find(id);
    if (it == m_pending.end()) {
        if (m_timedOut.remove(id))
            qCWarning(lcHost).noquote() << QStringLiteral("the reply to instruction %1 came after its time-out and is dropped: %2")
                                               .arg(id).arg(compact(reply));
        return;
    }
    it->timer->stop();
    const Pending pending = *it;
    if (last)
        dropPending(id, false);
    if (!pending.command)
        return;

    const DError driverError = DError::fromReply(reply);
    if (driverError.isError()) {
        // The command still sees the reply and makes its own checks (and log line); the
        // caller is told the driver's text.
        if (!pending.callback.empty())
            pending.callback(id, reply);
        const QString error = QStringLiteral("%1: the driver of \"%2\" failed instruction %3 (\"%4\"): %5")
                                  .arg(pending.commandName, pending.deviceReference).arg(id)
                                  .arg(pending.instruction, driverError.text);
        // A listen outlives an outage: the driver goes on and reports again once it can.
        if (!last && pending.execution && pending.execution->isListening()) {
            qCWarning(lcHost).noquote() << error;
            emit pending.execution->errorReported(error);
            return;
        }
        if (!last)
            dropPending(id, true);
        if (pending.execution)
            finish(pending.execution, Execution::Failed, driverError.code, error, driverError.exceptionCode);
        else
            qCWarning(lcHost).noquote() << error;
        return;
    }

    bool accepted = true;
    if (!pending.callback.empty()) {
        accepted = pending.callback(id, reply);
    } else {
        // Nobody waits for this reply: what it carries under a declared result name becomes that result.
        for (auto value = reply.cbegin(); value != reply.cend(); ++value)
            if (pending.command->declaresResult(value.key()))
                pending.command->commandUpdateResult(value.key(), value.value());
    }
    if (!pending.execution)
        return;
    if (!accepted) {
        finish(pending.execution, Execution::Failed, CeReplyRejected,
               QStringLiteral("%1: the command rejected the reply to instruction %2 (\"%3\"): %4")
                   .arg(pending.commandName).arg(id).arg(pending.instruction, compact(reply)));
        return;
    }
    if (last)
        checkSettled(pending.execution);
}

unsigned long long Host::runCommand(DAbstractPluginBackend *backend, const QString &command,
                                    const QMap<QString, QVariant> &arguments)
{
    const unsigned long long runId = ++m_lastId;
    QPointer<DAbstractPluginBackend> target(backend);
    Execution *execution = execute(backend ? backend->plugin() : nullptr, command, arguments);
    m_runs.insert(runId, execution);
    connect(execution, &Execution::resultChanged, this, [target, runId, command](const QString &name, const QVariant &value) {
        if (target)
            target->commandResultChanged(runId, command, name, value);
    });
    connect(execution, &Execution::finished, this, [this, target, runId, command, execution] {
        m_runs.remove(runId);
        if (target) {
            if (execution->isOk())
                target->commandFinished(runId, command, execution->results());
            else
                target->commandFailed(runId, command, execution->error());
        }
        execution->deleteLater();
    });
    return runId;
}

bool Host::stopCommand(unsigned long long runId)
{
    const QPointer<Execution> execution = m_runs.value(runId);
    return execution && stop(execution);
}
