// SPDX-License-Identifier: MIT
// The host runtime with plug-ins loaded from files (the E1212 plug-in on a scripted driver),
// and the plug-in files it refuses.
#include "dabstractdriver.h"
#include "dabstractpluginbackend.h"
#include "host.h"
#include "logcapture.h"
#include "pluginmanager.h"

#include <QJsonDocument>
#include <QTemporaryDir>
#include <QtTest>

namespace {

const QUuid c_scriptedDriver("{5c0a7e2e-4d1b-4b8e-9a43-1f2e3d4c5b6a}");
const QString c_driverFile = QFileInfo(QStringLiteral(E1212_TEST_PLUGIN_DIR "/libscripteddriver.so")).canonicalFilePath();
const QString c_channel = QStringLiteral("channel");
const QString c_values = QStringLiteral("values");

QVariantMap reply(int value) { return {{c_values, QVariantList{value}}}; }

QVariantMap rule(const char *instruction, const QVariantList &replies, int delayMs = 0, const QVariant &address = {}, bool open = false)
{
    return {{QStringLiteral("instruction"), QLatin1String(instruction)}, {QStringLiteral("replies"), replies},
            {QStringLiteral("delayMs"), delayMs}, {QStringLiteral("register"), address}, {QStringLiteral("open"), open}};
}

// Records what the host reports to a back-end: "<command> result", "<command> finished
// <number of results>", "<command> failed <code>", and the run ids.
class RecordingBackend : public DAbstractPluginBackend
{
public:
    QStringList events;
    QSet<unsigned long long> runIds;

    void add(unsigned long long runId, const QString &event) { runIds << runId; events << event; }
    void commandResultChanged(unsigned long long runId, const QString &command, const QString &, const QVariant &) override
    {
        add(runId, command + QStringLiteral(" result"));
    }
    void commandFinished(unsigned long long runId, const QString &command, const QMap<QString, QVariant> &results) override
    {
        add(runId, command + QStringLiteral(" finished %1").arg(results.size()));
    }
    void commandFailed(unsigned long long runId, const QString &command, const DError &error) override
    {
        add(runId, command + QStringLiteral(" failed %1").arg(error.code));
    }
};

} // namespace

// Sends one "read" to `target` without a time-out of its own, and keeps the host's id for it.
class SendingCommand : public DAbstractCommand
{
public:
    explicit SendingCommand(const QString &target) : DAbstractCommand(QStringLiteral("send"), {}, nullptr), m_target(target) {}
    bool commandExecute() override
    {
        if (!DAbstractCommand::commandExecute())
            return false;
        id = addInstruction(m_target, QStringLiteral("read"), {}, 0, {});
        return true;
    }
    unsigned long long id = ~0ull;

private:
    const QString m_target;
};

// Ends its execution itself, as a command may: failed, with its reason.
class GivingUpCommand : public DAbstractCommand
{
public:
    GivingUpCommand() : DAbstractCommand(QStringLiteral("giveUp"), {}, nullptr) {}
    bool commandExecute() override
    {
        if (!DAbstractCommand::commandExecute())
            return false;
        finishTheCommand(false, QStringLiteral("out of paper"));
        return true;
    }
};

class TstHost : public QObject
{
    Q_OBJECT
private:
    PluginManager m_plugins;
    QScopedPointer<Host> m_host;
    DAbstractPlugin *m_device = nullptr;

    QVariantList record(const char *which) const
    {
        QVariantList list;
        QMetaObject::invokeMethod(m_host->driverOf(m_device), which, Q_RETURN_ARG(QVariantList, list));
        return list;
    }
    void setScript(const QVariantList &rules) { QMetaObject::invokeMethod(m_host->driverOf(m_device), "setScript", Q_ARG(QVariantList, rules)); }
    static bool waitFinished(Execution *execution) { return QTest::qWaitFor([execution] { return execution->isFinished(); }, 5000); }
    static QVariantMap entry(const char *id, const QVariant &value) { return {{QStringLiteral("id"), QLatin1String(id)}, {QStringLiteral("value"), value}}; }
    static DeviceConfig config(const QString &reference)
    {
        DeviceConfig config;
        config.reference = reference;
        config.pluginUuid = DeviceConfig::defaultPluginUuid();
        config.driverUuid = c_scriptedDriver;
        config.sourceFile = QStringLiteral("bench.json");
        config.jsonPath = QStringLiteral("devices[1]");
        // The plug-in's channel table "<last word of the reference>_channels": outputs C0..C6 and input C7 at
        // registers 0..7, and a pulse-status record.
        QVariantList channels;
        for (int i = 0; i < 8; ++i)
            channels << QVariantMap{{QStringLiteral("id"), QStringLiteral("C%1").arg(i)},
                                    {QStringLiteral("value"), QVariantList{entry("register", i), entry("type", i < 7 ? "digitalOutput" : "digitalInput")}}};
        channels << QVariantMap{{QStringLiteral("id"), QStringLiteral("DO_PulseStatus")}, {QStringLiteral("value"), QVariantList{entry("register", 16)}}};
        config.parameters.insert(reference.section(QLatin1Char(' '), -1) + QStringLiteral("_channels"), channels);
        return config;
    }
    bool addDevice(const DeviceConfig &config)
    {
        const bool added = m_host->addDevice(config, nullptr);
        m_device = m_host->device(config.reference);
        return added;
    }

private slots:
    // The plug-ins of the folders load, in file name order; a missing folder is skipped, a
    // second scan loads nothing new.
    void initTestCase()
    {
        qRegisterMetaType<Execution::State>();
        QCOMPARE(m_plugins.scan({QStringLiteral(E1212_PLUGIN_DIR), QStringLiteral(E1212_TEST_PLUGIN_DIR), QStringLiteral("/nonexistent")}), 3);
        QCOMPARE(m_plugins.scan({QStringLiteral(E1212_TEST_PLUGIN_DIR)}), 0);
        QCOMPARE(m_plugins.drivers(), (QList<DAbstractPlugin *>{m_plugins.plugin(DeviceConfig::defaultDriverUuid()), m_plugins.plugin(c_scriptedDriver)}));
        QCOMPARE(m_plugins.fileOf(c_scriptedDriver), c_driverFile);
        QVERIFY(m_plugins.refusals().isEmpty());
    }

    // Plug-ins next to the executable (installed, then build tree), the caller's folders, $E1212_PLUGIN_PATH's.
    void searchPath()
    {
        qputenv("E1212_PLUGIN_PATH", "/a::/b");
        const QString bin = QCoreApplication::applicationDirPath();
        QCOMPARE(PluginManager::searchPath({"/x"}), (QStringList{bin + "/../lib/e1212/plugins", bin + "/../plugins", "/x", "/a", "/b"}));
        qunsetenv("E1212_PLUGIN_PATH");
    }

    void pluginRefusals_data()
    {
        QTest::addColumn<QString>("file");
        QTest::addColumn<QString>("reason");
        QTest::newRow("no file") << "/nonexistent/libnothing.so" << "no such file";
        QTest::newRow("not a plug-in") << "libgarbage.so" << "not a Qt plug-in (no plug-in metadata)";
        QTest::newRow("foreign id") << E1212_REFUSED_PLUGIN_DIR "/libforeignplugin.so"
                                    << "foreign interface id \"com.example.otherapp.ForeignPlugin\" (expected org.e1212bench.host.plugin.<ClassName>)";
        QTest::newRow("duplicate UUID") << "libcopy.so" << "its UUID {5c0a7e2e-4d1b-4b8e-9a43-1f2e3d4c5b6a} is already loaded from " + c_driverFile;
    }

    // A refused plug-in file is reported once (returned, kept, logged) and loads nothing.
    void pluginRefusals()
    {
        QFETCH(QString, file);
        QFETCH(QString, reason);
        QTemporaryDir dir;
        QFile garbage(dir.filePath(file));
        if (file == QLatin1String("libgarbage.so"))
            QVERIFY(garbage.open(QIODevice::WriteOnly) && garbage.write("not a library") && garbage.flush());
        if (file == QLatin1String("libcopy.so"))
            QVERIFY(QFile::copy(c_driverFile, garbage.fileName()));
        if (garbage.exists())
            file = garbage.fileName();
        PluginManager manager;
        QString error;
        QVERIFY(manager.load(c_driverFile, &error));
        LogCapture log;
        QVERIFY(!manager.load(file, &error));
        const QString path = QFileInfo::exists(file) ? QFileInfo(file).canonicalFilePath() : file;
        QCOMPARE(error, QStringLiteral("plug-in %1 refused: %2").arg(path, reason));
        QCOMPARE(manager.refusals(), QStringList{error});
        QCOMPARE(log.messages().size(), 1);
        QCOMPARE(log.messages().first().category + log.messages().first().text, QStringLiteral("e1212.host") + error);
        QCOMPARE(manager.plugins().size(), 1);
    }

    void init()
    {
        m_host.reset(new Host(&m_plugins));
        QVERIFY(addDevice(config(QStringLiteral("bench io1"))));
    }

    void cleanup() { m_host.reset(); }

    void replies_data()
    {
        QTest::addColumn<QString>("command");
        QTest::addColumn<QVariantMap>("reply"); // none when empty
        QTest::addColumn<int>("code");
        QTest::addColumn<QString>("error");
        QTest::addColumn<QVariantMap>("results");
        const QVariantMap driverError = DError{IMessenger::CeModbusException, 2, QStringLiteral("illegal data address")}.toReply();
        const QString failed = QStringLiteral("%1: the driver of \"bench io1\" failed instruction %2 (\"read\"): illegal data address");
        QTest::newRow("accepted") << "getValue" << QVariantMap{{c_values, QVariantList{7, 1}}} << 0 << QString()
                                  << QVariantMap{{QStringLiteral("value"), 7u}};
        QTest::newRow("no callback: declared results") << "getValues"
                                                       << QVariantMap{{c_values, QVariantList{1, 0}}, {QStringLiteral("elapsedMs"), 3}}
                                                       << 0 << QString() << QVariantMap{{c_values, QVariantList{1, 0}}};
        QTest::newRow("rejected") << "getValue" << QVariantMap{{QStringLiteral("status"), 1}} << int(IMessenger::CeReplyRejected)
                                  << QStringLiteral("%1: the command rejected the reply to instruction %2 (\"read\"): {\"status\":1}") << QVariantMap();
        QTest::newRow("driver error") << "getValue" << driverError << int(IMessenger::CeModbusException) << failed << QVariantMap();
        QTest::newRow("no callback: driver error") << "getValues" << driverError << int(IMessenger::CeModbusException) << failed << QVariantMap();
        QTest::newRow("no reply") << "getValue" << QVariantMap() << int(IMessenger::CeTimeout)
                                  << QStringLiteral("%1: no reply to instruction %2 (\"read\" to the driver of \"bench io1\") within 1150 ms")
                                  << QVariantMap();
    }

    // One instruction's outcome: the execution runs, then ends once, with the reply's
    // results or with the code and one line (also logged) saying what went wrong.
    void replies()
    {
        QFETCH(QString, command);
        QFETCH(QVariantMap, reply);
        QFETCH(int, code);
        QFETCH(QString, error);
        QFETCH(QVariantMap, results);
        setScript({rule("read", reply.isEmpty() ? QVariantList() : QVariantList{reply})});
        m_host->setTimeoutOverride(150);
        LogCapture log;
        Execution *execution = m_host->execute(m_device, command, {{c_channel, QStringLiteral("C1")}});
        QSignalSpy states(execution, &Execution::stateChanged);
        QVERIFY(waitFinished(execution));
        const QVariant id = record("started").value(0).toMap().value(QStringLiteral("id"));
        QCOMPARE(int(execution->errorCode()), code);
        QCOMPARE(execution->exceptionCode(), code == IMessenger::CeModbusException ? 2 : 0);
        if (code)
            error = error.arg(command, id.toString());
        QCOMPARE(execution->errorString(), error);
        QCOMPARE(execution->results(), results);
        QCOMPARE(states.size(), 2);
        QCOMPARE(states.at(0).at(0).value<Execution::State>(), Execution::Running);
        QCOMPARE(states.at(1).at(0).value<Execution::State>(), code ? Execution::Failed : Execution::Succeeded);
        QCOMPARE(record("started").size(), 1);
        QCoreApplication::sendPostedEvents(); // a stop at the driver is a queued call: it has come by now
        QCOMPARE(record("stopped"), code == IMessenger::CeTimeout ? QVariantList{id} : QVariantList());
        QCOMPARE(log.messages().last().text == error, code != 0);
    }

    void timeOuts_data()
    {
        QTest::addColumn<int>("override");
        QTest::addColumn<int>("configured");
        QTest::addColumn<bool>("listen");
        QTest::addColumn<int>("sent");
        QTest::addColumn<int>("guard");
        QTest::newRow("the command's own") << 0 << 0 << false << 3000 << 0;
        QTest::newRow("the device's timeoutMs") << 0 << 700 << false << 700 << 0;
        QTest::newRow("override wins") << 100 << 700 << false << 100 << 1100;
        QTest::newRow("a listen ahead") << 100 << 0 << true << 100 << 1200;
    }

    // The driver gets the effective time-out; the host's guard allows it once for each
    // request ahead on the device (a running listen counts once), plus one second.
    void timeOuts()
    {
        QFETCH(int, override);
        QFETCH(int, configured);
        QFETCH(bool, listen);
        QFETCH(int, sent);
        QFETCH(int, guard);
        DeviceConfig device = config(QStringLiteral("bench io2"));
        if (configured)
            device.connection.insert(QStringLiteral("timeoutMs"), configured);
        QVERIFY(addDevice(device));
        m_host->setTimeoutOverride(override);
        if (listen)
            m_host->execute(m_device, QStringLiteral("listenEvents"), {{c_channel, QStringLiteral("C0")}});
        Execution *first = m_host->execute(m_device, QStringLiteral("getValue"), {{c_channel, QStringLiteral("C0")}});
        Execution *second = m_host->execute(m_device, QStringLiteral("getValues"), {{c_channel, QStringLiteral("C0")}});
        QTRY_COMPARE_WITH_TIMEOUT(record("started").size(), listen ? 3 : 2, 2000);
        QCOMPARE(record("started").last().toMap().value(QStringLiteral("timeoutMs")).toInt(), sent);
        if (!guard)
            return;
        QVERIFY(waitFinished(second));
        QCOMPARE(second->errorCode(), IMessenger::CeTimeout);
        QVERIFY(first->errorString().endsWith(QStringLiteral(" within %1 ms").arg(guard)));
        QVERIFY(second->errorString().endsWith(QStringLiteral(" within %1 ms").arg(guard + sent)));
        // Nothing is due now, so no timer of the host is left to wake it.
        const QList<QTimer *> timers = m_host->findChildren<QTimer *>();
        QVERIFY(std::none_of(timers.cbegin(), timers.cend(), [](QTimer *timer) { return timer->isActive(); }));
    }

    void ownInstructions_data()
    {
        QTest::addColumn<QString>("target");
        QTest::addColumn<int>("code");
        QTest::newRow("no time-out of its own: 3000 ms") << "driver" << int(IMessenger::CeNoError);
        QTest::newRow("no such target") << "nowhere" << int(IMessenger::CeNoRoute);
    }

    // What a command sends reaches the driver with the command's time-out, else 3000 ms; an
    // instruction for a target the device lacks fails the execution, and its id is 0.
    void ownInstructions()
    {
        QFETCH(QString, target);
        QFETCH(int, code);
        auto *command = new SendingCommand(target);
        QVERIFY(m_device->declareInstructionCommand(command));
        Execution *execution = m_host->execute(m_device, QStringLiteral("send"));
        QTRY_VERIFY_WITH_TIMEOUT(command->id != ~0ull, 2000);
        QCOMPARE(int(execution->errorCode()), code);
        QCOMPARE(command->id == 0, code != 0);
        QCOMPARE(record("started").value(0).toMap().value(QStringLiteral("timeoutMs")).toInt(), code ? 0 : 3000);
    }

    // A command that ends its own execution: that end stands, with the command's reason.
    void commandGivesUp()
    {
        QVERIFY(m_device->declareInstructionCommand(new GivingUpCommand));
        Execution *execution = m_host->execute(m_device, QStringLiteral("giveUp"));
        QVERIFY(waitFinished(execution));
        QCOMPARE(execution->error().code, IMessenger::CeRefused);
        QCOMPARE(execution->exceptionCode(), 0);
        QCOMPARE(execution->errorString(), QStringLiteral("giveUp failed: out of paper"));
        QVERIFY(record("started").isEmpty());
    }

    void executions_data()
    {
        QTest::addColumn<QString>("command");
        QTest::addColumn<int>("perRun");
        QTest::addColumn<int>("sentWhenFirstEnded");
        QTest::newRow("declared object: one at a time") << "getValue" << 1 << 1;
        QTest::newRow("factory: each on a fresh object") << "setValue" << 3 << 6;
    }

    // Three executions of one command; the second, stopped while queued, never runs.
    void executions()
    {
        QFETCH(QString, command);
        QFETCH(int, perRun);
        QFETCH(int, sentWhenFirstEnded);
        setScript({rule("read", {reply(1)}, 50, 0), rule("read", {reply(3)}), rule("write", {reply(1)}, 50)});
        QList<Execution *> runs;
        for (int i = 0; i < 3; ++i) {
            QVariantMap arguments{{c_channel, QStringLiteral("C%1").arg(i)}};
            if (command == QLatin1String("setValue"))
                arguments.insert(QStringLiteral("value"), i);
            runs << m_host->execute(m_device, command, arguments);
        }
        QVERIFY(m_host->stop(runs.at(1)));
        QCOMPARE(runs.at(1)->errorString(), command + QStringLiteral(" was stopped before it started"));
        QVERIFY(!runs.at(1)->isOk());
        int sent = -1;
        connect(runs.at(0), &Execution::finished, this, [&] { sent = record("started").size(); });
        QVERIFY(waitFinished(runs.at(2)));
        QCOMPARE(sent, sentWhenFirstEnded);
        QCOMPARE(record("started").size(), 2 * perRun);
        QVERIFY(runs.at(0)->isOk() && runs.at(2)->isOk());
        if (perRun == 1)
            QCOMPARE(runs.at(2)->results().value(QStringLiteral("value")), QVariant(3u));
        // Once the others are released, a new execution's object (fresh or not) is wired anew.
        QCoreApplication::processEvents();
        Execution *again = m_host->execute(m_device, command, runs.at(0)->arguments());
        QVERIFY(waitFinished(again));
        QCOMPARE(again->results(), runs.at(0)->results());
    }

    // Listens run at once on the declared object and outlive a driver outage; each report
    // goes to the execution whose instruction it answers, and a stop ends exactly one.
    void concurrentListens()
    {
        const QVariantMap outage{{QStringLiteral("error"), QStringLiteral("no answer")}};
        QVariantList rules;
        for (int i = 0; i < 4; ++i)
            rules << rule("listen", {outage, reply(i), reply(i)}, 30, i, true);
        setScript(rules);
        QList<Execution *> runs;
        QList<QStringList> seen{{}, {}, {}, {}};
        for (int i = 0; i < 4; ++i) {
            runs << m_host->execute(m_device, QStringLiteral("listenEvents"), {{c_channel, QStringLiteral("C%1").arg(i)}});
            connect(runs.last(), &Execution::errorReported, this, [&seen, i](const DError &error) { seen[i] << error.text.section(QStringLiteral("): "), -1); });
            // The second one is stopped from inside its first report: the driver is told once
            // the reply has been handled.
            connect(runs.last(), &Execution::resultChanged, this, [&, i](const QString &, const QVariant &value) {
                seen[i] << QString::fromUtf8(QJsonDocument::fromVariant(value).toJson(QJsonDocument::Compact));
                if (i == 1 && m_host->stop(runs.at(i)))
                    seen[i] << QStringLiteral("driver stops: %1").arg(record("stopped").size());
            });
        }
        QTRY_VERIFY_WITH_TIMEOUT(runs.at(1)->isOk(), 3000);
        QVERIFY(!m_host->stop(runs.at(1)));
        // Deleting a running execution stops it.
        QString deleted;
        connect(runs.at(3), &Execution::finished, this, [&] { deleted = runs.at(3)->errorString(); });
        delete runs.at(3);
        QCOMPARE(deleted, QStringLiteral("the execution was deleted"));
        const QVariantList sent = record("started");
        QTRY_COMPARE_WITH_TIMEOUT(record("stopped"), (QVariantList{sent.at(1).toMap().value(QStringLiteral("id")), sent.at(3).toMap().value(QStringLiteral("id"))}), 1000);
        QTRY_VERIFY_WITH_TIMEOUT(seen.at(0).size() == 3 && seen.at(2).size() == 3, 3000);
        for (int i = 0; i < 3; ++i) {
            const QString report = QStringLiteral("{\"values\":[%1]}").arg(i);
            QCOMPARE(seen.at(i), i == 1 ? QStringList({"no answer", report, "driver stops: 0"}) : QStringList({"no answer", report, report}));
            QCOMPARE(runs.at(i)->state(), i == 1 ? Execution::Stopped : Execution::Running);
        }
        // A host that goes ends what still runs, stopped, saying why.
        QStringList ended;
        for (int i : {0, 2})
            connect(runs.at(i), &Execution::finished, this, [&ended, run = runs.at(i)] {
                ended << QStringLiteral("%1 %2 %3").arg(run->errorCode()).arg(run->exceptionCode()).arg(run->errorString());
            });
        m_host.reset();
        const QString stopped = QStringLiteral("%1 0 the host is shutting down").arg(IMessenger::CeStopped);
        QCOMPARE(ended, QStringList({stopped, stopped}));
    }

    // A listen outlives an outage the driver reports, but not the driver giving it up.
    void listenEndsWithItsDriver()
    {
        const QVariantMap outage{{QStringLiteral("error"), QStringLiteral("no answer")}};
        setScript({rule("listen", {outage, outage})});
        Execution *listen = m_host->execute(m_device, QStringLiteral("listenEvents"), {{c_channel, QStringLiteral("C0")}});
        QSignalSpy reported(listen, &Execution::errorReported);
        QVERIFY(waitFinished(listen));
        QCOMPARE(reported.size(), 1);
        QCOMPARE(listen->state(), Execution::Failed);
    }

    void refusals_data()
    {
        QTest::addColumn<QString>("command");
        QTest::addColumn<QVariantMap>("arguments");
        QTest::addColumn<bool>("raw");
        QTest::addColumn<int>("code");
        QTest::addColumn<QString>("error");
        const auto channel = [](const char *id) { return QVariantMap{{c_channel, QLatin1String(id)}}; };
        QTest::newRow("unknown command") << "nope" << QVariantMap() << false << int(IMessenger::CeRefused)
                                         << "device \"bench io1\" has no command \"nope\" (it has: getPluginIdentity, getInfo, getValue,";
        QTest::newRow("a stop command") << "stopListening" << QVariantMap() << false << int(IMessenger::CeRefused)
                                        << "\"stopListening\" is the stop command of \"listenEvents\": stop a running \"listenEvents\" execution instead";
        QTest::newRow("refused without a reason") << "listenEvents" << QVariantMap() << true << int(IMessenger::CeRefused)
                                                  << "listenEvents refused to run: the command gave no reason";
        QTest::newRow("not this host's device") << "getValue" << QVariantMap() << false << int(IMessenger::CeNoRoute)
                                                << "cannot run \"getValue\": the plug-in instance is not a device of this host";
        QTest::newRow("missing parameter") << "getValue" << QVariantMap() << false << int(IMessenger::CeRefused)
                                           << "command \"getValue\": parameter \"channel\" is missing (type \"strg\": Channel name)";
        QTest::newRow("missing value") << "setValue" << channel("C0") << false << int(IMessenger::CeRefused)
                                       << "command \"setValue\": parameter \"value\" is missing";
        QTest::newRow("no such channel") << "getValue" << channel("C9") << false << int(IMessenger::CeRefused)
                                         << "command \"getValue\": \"channel\" is \"C9\", which names no channel of the device (channels: C0, C1,";
        QTest::newRow("channel by default") << "setValue" << QVariantMap{{QStringLiteral("value"), 1}} << false
                                            << int(IMessenger::CeRefused) << "command \"setValue\": \"channel\" is \"\", which names no channel";
        QTest::newRow("a register record") << "setValue" << QVariantMap{{c_channel, QStringLiteral("DO_PulseStatus")}, {QStringLiteral("value"), 1}}
                                           << false << int(IMessenger::CeRefused)
                                           << "command \"setValue\": \"channel\" is \"DO_PulseStatus\", which names no channel of the device (it is a register record)";
        const QVariantMap pulse{{c_channel, QStringLiteral("C7")}, {QStringLiteral("values"), QVariantList{1}},
                                {QStringLiteral("pulseOnWidth"), 5}, {QStringLiteral("pulseOffWidth"), 5}};
        for (const char *command : {"setValue", "setValues", "setBlink"})
            QTest::newRow(command) << command
                                   << (command == QLatin1String("setValue") ? QVariantMap{{c_channel, QStringLiteral("C7")}, {QStringLiteral("value"), 1}} : pulse)
                                   << false << int(IMessenger::CeRefused)
                                   << QStringLiteral("command \"%1\": \"channel\" is \"C7\", a digitalInput channel: only output channels take writes").arg(command);
        QTest::newRow("out of range") << "setValue" << QVariantMap{{c_channel, QStringLiteral("C0")}, {QStringLiteral("value"), 65536}} << false
                                      << int(IMessenger::CeRefused) << "setValue refused to run: command \"setValue\": argument \"value\" is 65536, expected \"ui16\"";
    }

    // A refusal fails the execution on the event loop and sends nothing.
    void refusals()
    {
        QFETCH(QString, command);
        QFETCH(QVariantMap, arguments);
        QFETCH(bool, raw);
        QFETCH(int, code);
        QFETCH(QString, error);
        DAbstractPlugin *device = code == IMessenger::CeNoRoute ? m_plugins.plugin(DeviceConfig::defaultPluginUuid()) : m_device;
        Execution *execution = m_host->execute(device, command, arguments, raw ? Host::RawArguments : Host::CheckArguments);
        QCOMPARE(execution->state(), Execution::Queued);
        QVERIFY(waitFinished(execution));
        QCOMPARE(int(execution->errorCode()), code);
        QCOMPARE(execution->exceptionCode(), 0);
        QVERIFY2(execution->errorString().startsWith(error), qPrintable(execution->errorString()));
        QVERIFY(record("started").isEmpty());
    }

    void addDeviceRefusals_data()
    {
        QTest::addColumn<QString>("reference");
        QTest::addColumn<QUuid>("plugin");
        QTest::addColumn<QUuid>("driver");
        QTest::addColumn<QString>("host");
        QTest::addColumn<QString>("error");
        const QUuid e1212 = DeviceConfig::defaultPluginUuid();
        QTest::newRow("duplicate reference") << "bench io1" << e1212 << c_scriptedDriver << QString()
                                             << "bench.json: devices[1].reference: a device \"bench io1\" exists already";
        QTest::newRow("driver as device") << "io2" << c_scriptedDriver << c_scriptedDriver << QString()
                                          << "bench.json: devices[1].plugin: Scripted test driver ({5c0a7e2e-4d1b-4b8e-9a43-1f2e3d4c5b6a}) is not a device plug-in";
        QTest::newRow("device as driver") << "io2" << e1212 << e1212 << QString()
                                          << "bench.json: devices[1].driver: no driver plug-in with UUID {43ae4651-f855-42c1-81e2-c73130e79008} is loaded";
        QTest::newRow("no driver instance") << "io2" << e1212 << c_scriptedDriver << QString()
                                            << "bench.json: devices[1].driver: Scripted test driver made no driver instance";
        QTest::newRow("connection refused") << "io2" << e1212 << QUuid() << " "
                                            << "bench.json: devices[1].connection: connection/host: expected a host name or address, got \" \"";
    }

    // A refused device is one line naming the file and the JSON path; nothing is kept.
    void addDeviceRefusals()
    {
        QFETCH(QString, reference);
        QFETCH(QUuid, plugin);
        QFETCH(QUuid, driver);
        QFETCH(QString, host);
        QFETCH(QString, error);
        DeviceConfig device = config(reference);
        device.pluginUuid = plugin;
        device.driverUuid = driver;
        if (!host.isEmpty())
            device.connection.insert(QStringLiteral("host"), host);
        QString message;
        QObject *driverRoot = m_plugins.plugin(c_scriptedDriver);
        driverRoot->setProperty("makesNoInstance", error.endsWith(QLatin1String("made no driver instance")));
        QVERIFY(!m_host->addDevice(device, &message));
        driverRoot->setProperty("makesNoInstance", false);
        QVERIFY2(message.startsWith(error), qPrintable(message));
        QCOMPARE(m_host->devices().size(), 1);
    }

    void runs_data()
    {
        QTest::addColumn<QString>("command");
        QTest::addColumn<QVariantMap>("reply");
        QTest::addColumn<int>("repeatMs");
        QTest::addColumn<QString>("event");
        QTest::addColumn<int>("runs");
        QTest::newRow("one run") << "getValue" << reply(4) << 0 << "getValue finished 1" << 1;
        QTest::newRow("every 40 ms") << "getValue" << reply(4) << 40 << "getValue finished 1" << 6;
        QTest::newRow("failed runs go on") << "getValue" << DError{IMessenger::CeNoConnection, 0, QStringLiteral("refused")}.toReply() << 40
                                           << QStringLiteral("getValue failed %1").arg(IMessenger::CeNoConnection) << 6;
        QTest::newRow("unknown command") << "nope" << QVariantMap() << 40 << QStringLiteral("nope failed %1").arg(IMessenger::CeRefused) << 6;
        QTest::newRow("a listen, stopped while it runs") << "listenEvents" << reply(1) << 40 << "listenEvents result" << 1;
    }

    // A schedule runs again a period after each run ends, reports every run under one id,
    // and ends with stopCommand, also in the middle of a run.
    void runs()
    {
        QFETCH(QString, command);
        QFETCH(QVariantMap, reply);
        QFETCH(int, repeatMs);
        QFETCH(QString, event);
        QFETCH(int, runs);
        setScript({rule("read", {reply}), rule("listen", {reply}, 0, {}, true)});
        RecordingBackend backend;
        backend.setPlugin(m_device);
        QElapsedTimer clock;
        clock.start();
        const QVariantMap arguments{{c_channel, QStringLiteral("C1")}};
        const unsigned long long runId = repeatMs ? backend.runCommandEvery(command, arguments, repeatMs) : backend.runCommand(command, arguments);
        QVERIFY(backend.events.isEmpty());
        // Six runs take about a quarter of a second; a schedule that drifts later run by run does not make it.
        QTRY_VERIFY_WITH_TIMEOUT(backend.events.count(event) >= runs, 3000);
        QVERIFY(clock.elapsed() >= (runs - 1) * repeatMs);
        QCOMPARE(backend.runIds, QSet<unsigned long long>{runId});
        QStringList others = backend.events;
        others.removeAll(event);
        QCOMPARE(others.count(), others.count(command + QStringLiteral(" result")));
        QCOMPARE(backend.stopCommand(runId), repeatMs > 0);
        if (runs == 1 && repeatMs)
            QCOMPARE(backend.events.last(), command + QStringLiteral(" finished 1"));
        const int sent = record("started").size();
        QVERIFY(!QTest::qWaitFor([&] { return record("started").size() > sent || backend.events.count(event) > runs + 1; }, 150));
        QVERIFY(!backend.stopCommand(runId));
    }
};

QTEST_GUILESS_MAIN(TstHost)
#include "tst_host.moc"
