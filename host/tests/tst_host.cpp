// SPDX-License-Identifier: MIT
// The host runtime with plug-ins loaded from files: the E1212 plug-in on a scripted driver.
#include "dabstractdriver.h"
#include "dabstractpluginbackend.h"
#include "host.h"
#include "logcapture.h"
#include "pluginmanager.h"

#include <QtTest>

namespace {

const QUuid c_scriptedDriver("{5c0a7e2e-4d1b-4b8e-9a43-1f2e3d4c5b6a}");
const QString c_channel = QStringLiteral("channel");
const QString c_values = QStringLiteral("values");

QVariantMap reply(int value) { return {{c_values, QVariantList{value}}}; }

QVariantMap rule(const char *instruction, const QVariantList &replies, int delayMs = 0, const QVariant &address = {}, bool open = false)
{
    return {{QStringLiteral("instruction"), QLatin1String(instruction)}, {QStringLiteral("replies"), replies},
            {QStringLiteral("delayMs"), delayMs}, {QStringLiteral("register"), address}, {QStringLiteral("open"), open}};
}

// Records what the host reports to a back-end: "<command> result|finished|failed <code>".
class RecordingBackend : public DAbstractPluginBackend
{
public:
    QStringList events;
    QSet<unsigned long long> runIds;

    void commandResultChanged(unsigned long long runId, const QString &command, const QString &, const QVariant &) override
    {
        runIds << runId;
        events << command + QStringLiteral(" result");
    }
    void commandFinished(unsigned long long runId, const QString &command, const QMap<QString, QVariant> &results) override
    {
        runIds << runId;
        events << command + QStringLiteral(" finished ") + QString::number(results.size());
    }
    void commandFailed(unsigned long long runId, const QString &command, const DError &error) override
    {
        runIds << runId;
        events << command + QStringLiteral(" failed ") + QString::number(error.code);
    }
};

} // namespace

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
    static DeviceConfig config(const QString &reference)
    {
        DeviceConfig config;
        config.reference = reference;
        config.pluginUuid = DeviceConfig::defaultPluginUuid();
        config.driverUuid = c_scriptedDriver;
        config.sourceFile = QStringLiteral("bench.json");
        config.jsonPath = QStringLiteral("devices[1]");
        // The plug-in's channel table "<last word of the reference>_channels": C0..C7 at registers 0..7.
        QVariantList channels;
        for (int i = 0; i < 8; ++i)
            channels << QVariantMap{{QStringLiteral("id"), QStringLiteral("C%1").arg(i)},
                                    {QStringLiteral("value"), QVariantList{QVariantMap{{QStringLiteral("id"), QStringLiteral("register")}, {QStringLiteral("value"), i}}}}};
        config.parameters.insert(reference.section(QLatin1Char(' '), -1) + QStringLiteral("_channels"), channels);
        return config;
    }
    bool addDevice(const DeviceConfig &config)
    {
        QString error;
        const bool added = m_host->addDevice(config, &error);
        m_device = m_host->device(config.reference);
        if (!added)
            qWarning() << error;
        return added;
    }

private slots:
    void initTestCase()
    {
        qRegisterMetaType<Execution::State>();
        m_plugins.scan({QStringLiteral(E1212_PLUGIN_DIR), QStringLiteral(E1212_TEST_PLUGIN_DIR)});
        QVERIFY(m_plugins.plugin(c_scriptedDriver));
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
        QTest::addColumn<QVariantList>("replies");
        QTest::addColumn<int>("code");
        QTest::addColumn<QString>("error");
        QTest::addColumn<QVariantMap>("results");
        const QVariantMap driverError = DError{IMessenger::CeModbusException, 2, QStringLiteral("illegal data address")}.toReply();
        const QString failed = QStringLiteral("%1: the driver of \"bench io1\" failed instruction %2 (\"read\"): illegal data address");
        QTest::newRow("accepted") << "getValue" << QVariantList{QVariantMap{{c_values, QVariantList{7, 1}}}} << 0 << QString()
                                  << QVariantMap{{QStringLiteral("value"), 7u}};
        QTest::newRow("no callback: declared results") << "getValues"
                                                       << QVariantList{QVariantMap{{c_values, QVariantList{1, 0}}, {QStringLiteral("elapsedMs"), 3}}}
                                                       << 0 << QString() << QVariantMap{{c_values, QVariantList{1, 0}}};
        QTest::newRow("rejected") << "getValue" << QVariantList{QVariantMap{{QStringLiteral("status"), 1}}} << int(IMessenger::CeReplyRejected)
                                  << QStringLiteral("%1: the command rejected the reply to instruction %2 (\"read\"): {\"status\":1}") << QVariantMap();
        QTest::newRow("driver error") << "getValue" << QVariantList{driverError} << int(IMessenger::CeModbusException) << failed << QVariantMap();
        QTest::newRow("no callback: driver error") << "getValues" << QVariantList{driverError} << int(IMessenger::CeModbusException) << failed
                                                   << QVariantMap();
        QTest::newRow("no reply") << "getValue" << QVariantList() << int(IMessenger::CeTimeout)
                                  << QStringLiteral("%1: no reply to instruction %2 (\"read\" to the driver of \"bench io1\") within 1150 ms")
                                  << QVariantMap();
    }

    // One instruction's outcome: the execution runs, then ends once, with the reply's
    // results or with the code and one line (also logged) saying what went wrong.
    void replies()
    {
        QFETCH(QString, command);
        QFETCH(QVariantList, replies);
        QFETCH(int, code);
        QFETCH(QString, error);
        QFETCH(QVariantMap, results);
        setScript({rule("read", replies)});
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
        Execution *first = m_host->execute(m_device, QStringLiteral("getValue"));
        Execution *second = m_host->execute(m_device, QStringLiteral("getValues"));
        QTRY_COMPARE_WITH_TIMEOUT(record("started").size(), listen ? 3 : 2, 2000);
        QCOMPARE(record("started").last().toMap().value(QStringLiteral("timeoutMs")).toInt(), sent);
        if (!guard)
            return;
        QVERIFY(waitFinished(second));
        QCOMPARE(second->errorCode(), IMessenger::CeTimeout);
        QVERIFY(first->errorString().endsWith(QStringLiteral(" within %1 ms").arg(guard)));
        QVERIFY(second->errorString().endsWith(QStringLiteral(" within %1 ms").arg(guard + sent)));
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
    }

    void concurrentListens_data()
    {
        QTest::addColumn<int>("stopAt");
        QTest::newRow("stop the first") << 0;
        QTest::newRow("stop one in the middle") << 2;
    }

    // Listens run at once on the declared object and outlive a driver outage; each report
    // goes to the execution whose instruction it answers, and a stop ends exactly one.
    void concurrentListens()
    {
        QFETCH(int, stopAt);
        const QVariantMap outage{{QStringLiteral("error"), QStringLiteral("no answer")}};
        QVariantList rules;
        for (int i = 0; i < 4; ++i)
            rules << rule("listen", {outage, reply(i), reply(i)}, 30, i, true);
        setScript(rules);
        QList<Execution *> runs;
        QList<QVariantList> reports;
        QList<QStringList> errors;
        for (int i = 0; i < 4; ++i) {
            runs << m_host->execute(m_device, QStringLiteral("listenEvents"), {{c_channel, QStringLiteral("C%1").arg(i)}});
            reports << QVariantList();
            errors << QStringList();
            // Stopped from inside its first report.
            connect(runs.last(), &Execution::resultChanged, this, [&, i](const QString &, const QVariant &value) {
                reports[i] << value;
                if (i == stopAt)
                    m_host->stop(runs.at(i));
            });
            connect(runs.last(), &Execution::errorReported, this, [&errors, i](const QString &error) { errors[i] << error; });
        }
        auto reported = [&](int atLeast) {
            return std::all_of(reports.cbegin(), reports.cend(), [&](const QVariantList &list) { return list.size() >= atLeast || &list == &reports.at(stopAt); });
        };
        QTRY_VERIFY_WITH_TIMEOUT(runs.at(stopAt)->isOk() && reported(1), 3000);
        QVERIFY(!m_host->stop(runs.at(stopAt)));
        // Deleting a running execution stops it.
        QString deleted;
        Execution *doomed = runs.takeLast();
        connect(doomed, &Execution::finished, this, [&deleted, doomed] { deleted = doomed->errorString(); });
        delete doomed;
        QCOMPARE(deleted, QStringLiteral("the execution was deleted"));
        const QVariantList sent = record("started");
        QCOMPARE(record("stopped"), (QVariantList{sent.at(stopAt).toMap().value(QStringLiteral("id")), sent.at(3).toMap().value(QStringLiteral("id"))}));
        reports.removeLast();
        QTRY_VERIFY_WITH_TIMEOUT(reported(2), 3000);
        QCOMPARE(reports.at(stopAt).size(), 1);
        for (int i = 0; i < 3; ++i) {
            QCOMPARE(errors.at(i).size(), 1);
            QVERIFY(errors.at(i).first().endsWith(QStringLiteral("(\"listen\"): no answer")));
            for (const QVariant &report : reports.at(i))
                QCOMPARE(report, QVariant(QVariantMap{{c_values, QVariantList{i}}}));
            QCOMPARE(runs.at(i)->state(), i == stopAt ? Execution::Stopped : Execution::Running);
        }
    }

    void refusals_data()
    {
        QTest::addColumn<QString>("command");
        QTest::addColumn<int>("code");
        QTest::addColumn<QString>("error");
        QTest::newRow("unknown command") << "nope" << int(IMessenger::CeRefused)
                                         << "device \"bench io1\" has no command \"nope\" (it has: getPluginIdentity, getInfo, getValue,";
        QTest::newRow("a stop command") << "stopListening" << int(IMessenger::CeRefused)
                                        << "\"stopListening\" is the stop command of \"listenEvents\": stop a running \"listenEvents\" execution instead";
        QTest::newRow("refused without a reason") << "listenEvents" << int(IMessenger::CeRefused)
                                                  << "listenEvents refused to run: the command gave no reason";
        QTest::newRow("not this host's device") << "getValue" << int(IMessenger::CeNoRoute)
                                                << "cannot run \"getValue\": the plug-in instance is not a device of this host";
    }

    // A refusal fails the execution on the event loop and sends nothing.
    void refusals()
    {
        QFETCH(QString, command);
        QFETCH(int, code);
        QFETCH(QString, error);
        DAbstractPlugin *device = code == IMessenger::CeNoRoute ? m_plugins.plugin(DeviceConfig::defaultPluginUuid()) : m_device;
        Execution *execution = m_host->execute(device, command);
        QCOMPARE(execution->state(), Execution::Queued);
        QVERIFY(waitFinished(execution));
        QCOMPARE(int(execution->errorCode()), code);
        QVERIFY2(execution->errorString().startsWith(error), qPrintable(execution->errorString()));
        QVERIFY(record("started").isEmpty());
    }

    void addDevice_data()
    {
        QTest::addColumn<QString>("reference");
        QTest::addColumn<QUuid>("plugin");
        QTest::addColumn<QUuid>("driver");
        QTest::addColumn<QString>("host");
        QTest::addColumn<QString>("error");
        const QUuid e1212 = DeviceConfig::defaultPluginUuid();
        const QUuid unknown("{11111111-2222-3333-4444-555555555555}");
        QTest::newRow("the Modbus TCP driver by default") << "io2" << e1212 << QUuid() << QString() << QString();
        QTest::newRow("duplicate reference") << "bench io1" << e1212 << c_scriptedDriver << QString()
                                             << "bench.json: devices[1].reference: a device \"bench io1\" exists already";
        QTest::newRow("unknown plug-in") << "io2" << unknown << c_scriptedDriver << QString()
                                         << "bench.json: devices[1].plugin: no plug-in with UUID {11111111-2222-3333-4444-555555555555} is loaded (searched ";
        QTest::newRow("driver as device") << "io2" << c_scriptedDriver << c_scriptedDriver << QString()
                                          << "bench.json: devices[1].plugin: Scripted test driver ({5c0a7e2e-4d1b-4b8e-9a43-1f2e3d4c5b6a}) is not a device plug-in";
        QTest::newRow("device as driver") << "io2" << e1212 << e1212 << QString()
                                          << "bench.json: devices[1].driver: no driver plug-in with UUID {43ae4651-f855-42c1-81e2-c73130e79008} is loaded";
        QTest::newRow("connection refused") << "io2" << e1212 << c_scriptedDriver << "refuse.invalid"
                                            << "bench.json: devices[1].connection: host \"refuse.invalid\" is refused by the scripted driver";
    }

    // A device is added with its driver, or refused with one line naming file and path, and
    // nothing is kept.
    void addDevice()
    {
        QFETCH(QString, reference);
        QFETCH(QUuid, plugin);
        QFETCH(QUuid, driver);
        QFETCH(QString, host);
        QFETCH(QString, error);
        DeviceConfig device = config(reference);
        device.pluginUuid = plugin;
        device.driverUuid = driver;
        device.connection.insert(QStringLiteral("host"), host.isEmpty() ? QStringLiteral("127.0.0.1") : host);
        QString message;
        QCOMPARE(m_host->addDevice(device, &message), error.isEmpty());
        QVERIFY2(message.startsWith(error), qPrintable(message));
        QCOMPARE(m_host->devices().size(), error.isEmpty() ? 2 : 1);
        if (!error.isEmpty())
            return;
        m_device = m_host->device(reference);
        QCOMPARE(m_host->driverOf(m_device)->pluginUuid(), DeviceConfig::defaultDriverUuid());
        QCOMPARE(m_host->configOf(m_device)->reference, reference);
        QCOMPARE(m_device->getProperty(QStringLiteral("reference"), QVariant()).toString(), reference);
    }

    void runs_data()
    {
        QTest::addColumn<QString>("command");
        QTest::addColumn<QVariantMap>("reply");
        QTest::addColumn<int>("repeatMs");
        QTest::addColumn<QString>("event");
        QTest::addColumn<int>("runs");
        QTest::newRow("one run") << "getValue" << reply(4) << 0 << "getValue finished 1" << 1;
        QTest::newRow("every 40 ms") << "getValue" << reply(4) << 40 << "getValue finished 1" << 3;
        QTest::newRow("failed runs go on") << "getValue" << DError{IMessenger::CeNoConnection, 0, QStringLiteral("refused")}.toReply() << 40
                                           << QStringLiteral("getValue failed %1").arg(IMessenger::CeNoConnection) << 3;
        QTest::newRow("unknown command") << "nope" << QVariantMap() << 40 << QStringLiteral("nope failed %1").arg(IMessenger::CeRefused) << 3;
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
