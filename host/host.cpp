// SPDX-License-Identifier: MIT
#include "host.h"

#include "dabstractcommand.h"
#include "dabstractdriver.h"
#include "dabstractplugin.h"
#include "commandgate.h"
#include "hostlog.h"
#include "pluginmanager.h"

#include <QCoreApplication>
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
    , m_runs(new BackendRuns(this))
{
    connect(&m_guards, &DeadlineQueue::expired, this, &Host::onGuardExpired);
}

Host::~Host()
{
    const QList<Execution *> executions = findChildren<Execution *>(QString(), Qt::FindDirectChildrenOnly);
    for (Execution *execution : executions)
        execution->setFinished(Execution::Stopped, DError{CeStopped, 0, QStringLiteral("the host is shutting down")});
    delete m_runs;
    qDeleteAll(m_queues);
    m_queues.clear();
    // Fresh command objects that ended executions let go of on the next turn go now, while
    // their plug-ins still live.
    QCoreApplication::removePostedEvents(&m_guards, QEvent::MetaCall);
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

CommandQueue *Host::queueFor(DAbstractCommand *command, CommandQueue::Mode mode)
{
    CommandQueue *&queue = m_queues[command];
    if (!queue)
        queue = new CommandQueue(command, mode, &m_queueParent);
    return queue;
}

Execution *Host::execute(DAbstractPlugin *device, const QString &command, const QVariantMap &arguments,
                         ArgumentCheck check)
{
    auto execution = new Execution(this, &m_guards, device, command, arguments);
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
    if (check == CheckArguments) {
        const DError refusal = CommandGate::check(*declared, device->channelTable(), arguments);
        if (refusal.isError()) {
            failLater(execution, refusal.code, refusal.text);
            return execution;
        }
    }
    const bool listening = !declared->stopCommandName().isEmpty();
    const QSharedPointer<ICommand> fresh = declared->createCommand(arguments);
    auto *object = fresh ? qobject_cast<DAbstractCommand *>(fresh->commandObject()) : declared;
    CommandQueue *queue = queueFor(object, fresh || listening ? CommandQueue::AllAtOnce : CommandQueue::OneAtATime);
    execution->setCommand(object, fresh, listening, check == CheckArguments, queue);
    if (fresh) {
        // A fresh object's queue lives as long as its one execution.
        connect(queue, &CommandQueue::idle, this, [this, object, queue] {
            m_queues.remove(object);
            queue->deleteLater();
        });
    }
    queue->submit(execution);
    return execution;
}

void Host::failLater(Execution *execution, EnErrorCode code, const QString &error)
{
    QMetaObject::invokeMethod(execution, [execution, code, error] { execution->setFinished(Execution::Failed, DError{code, 0, error}); },
                              Qt::QueuedConnection);
}

bool Host::stop(Execution *execution)
{
    return execution && execution->stop();
}

void Host::release(Execution *execution, const QList<unsigned long long> &pending)
{
    for (unsigned long long id : pending)
        unroute(id, true);
    if (CommandQueue *queue = execution->queue())
        queue->release(execution);
}

unsigned long long Host::sendInstruction(DAbstractCommand *command, const QString &target, const QString &instruction,
                                         const QMap<QString, QVariant> &parameters, int timeoutMs,
                                         const ReplyCallback &callback)
{
    const CommandQueue *queue = m_queues.value(command);
    Execution *execution = queue ? queue->active() : nullptr;
    Device *device = command ? deviceEntry(command->plugin()) : nullptr;
    if (!execution || !device || target != c_driverTarget) {
        const QString commandName = command ? command->commandName() : QStringLiteral("(no command)");
        const QString refusal = !device ? QStringLiteral("%1: instruction \"%2\" comes from a command of no device of this host").arg(commandName, instruction)
            : !execution ? QStringLiteral("%1: instruction \"%2\" comes from outside any execution of the command").arg(commandName, instruction)
                         : QStringLiteral("%1: device \"%2\" has no target \"%3\" for instruction \"%4\" (known targets: %5)")
                               .arg(commandName, device->config.reference, target, instruction, c_driverTarget);
        if (execution)
            execution->setFinished(Execution::Failed, DError{CeNoRoute, 0, refusal});
        else
            qCWarning(lcHost).noquote() << refusal;
        return 0;
    }

    const unsigned long long id = ++m_lastInstruction;
    const int effectiveMs = m_timeoutOverride > 0 ? m_timeoutOverride
        : device->timeoutMs > 0                   ? device->timeoutMs
        : timeoutMs > 0                           ? timeoutMs
                                                  : c_defaultTimeoutMs;
    const bool listen = instruction == c_listen;
    // The driver answers the requests ahead of this one first, each within the time-out.
    const int ahead = device->oneShots + (device->listens > 0 ? 1 : 0);
    m_routes.insert(id, Route{execution, device, listen});
    ++(listen ? device->listens : device->oneShots);
    execution->addInstruction(id, instruction, callback, effectiveMs * (ahead + 1) + c_guardSlackMs);
    if (lcHost().isDebugEnabled())
        qCDebug(lcHost).noquote() << "instruction" << id << instruction << compact(parameters) << "of" << command->commandName()
                                  << "to the driver of" << device->config.reference << "time-out" << effectiveMs << "ms";
    device->driver->startInstruction(id, instruction, parameters, effectiveMs);
    return id;
}

void Host::unroute(unsigned long long id, bool stopDriver)
{
    const auto it = m_routes.find(id);
    if (it == m_routes.end())
        return;
    --(it->listen ? it->device->listens : it->device->oneShots);
    const QPointer<DAbstractDriver> driver = it->device->driver;
    m_routes.erase(it);
    // Never from inside the driver's own reply: the driver hears of it on the next turn.
    if (stopDriver)
        QMetaObject::invokeMethod(driver, [driver, id] { driver->stopInstruction(id); }, Qt::QueuedConnection);
}

void Host::onGuardExpired(quint64 id)
{
    const Route route = m_routes.value(id);
    if (route.execution)
        route.execution->guardExpired(id);
}

void Host::onDriverReply(unsigned long long id, const QVariantMap &reply, bool last)
{
    const auto it = m_routes.constFind(id);
    if (it == m_routes.constEnd()) {
        // Timed out or stopped: the driver was told, but may have had the reply on its way.
        if (lcHost().isDebugEnabled())
            qCDebug(lcHost).noquote() << "reply to instruction" << id << "dropped, it ended already:" << compact(reply);
        return;
    }
    Execution *execution = it->execution;
    if (last)
        unroute(id, false);
    execution->deliver(id, reply, last);
}

unsigned long long Host::runCommand(DAbstractPluginBackend *backend, const QString &command,
                                    const QMap<QString, QVariant> &arguments)
{
    return m_runs->start(backend, command, arguments, 0);
}

unsigned long long Host::runCommandEvery(DAbstractPluginBackend *backend, const QString &command,
                                         const QMap<QString, QVariant> &arguments, int repeatMs)
{
    return m_runs->start(backend, command, arguments, repeatMs);
}

bool Host::stopCommand(unsigned long long runId)
{
    return m_runs->stop(runId);
}
