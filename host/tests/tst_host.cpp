// SPDX-License-Identifier: MIT
// The host runtime with plug-ins loaded from files: a test device and a scripted driver,
// and the real E1212 plug-in.
#include "dabstractdriver.h"
#include "dabstractpluginbackend.h"
#include "host.h"
#include "logcapture.h"
#include "pluginmanager.h"

#include <QtTest>

Q_DECLARE_METATYPE(IMessenger::EnErrorCode)
Q_DECLARE_METATYPE(Execution::State)

namespace {

const char c_testDevice[] = "{a3c1f2d4-6b7e-4f80-9c1d-2e3f4a5b6c7d}";
const char c_scriptedDriver[] = "{5c0a7e2e-4d1b-4b8e-9a43-1f2e3d4c5b6a}";

QVariantMap reply(const QVariant &values) { return {{QStringLiteral("values"), values}}; }

QVariantMap rule(const QString &instruction, const QVariantList &replies, const QVariantMap &extra = {})
{
    QVariantMap map = extra;
    map.insert(QStringLiteral("instruction"), instruction);
    map.insert(QStringLiteral("replies"), replies);
    return map;
}

// Records what the host reports to a back-end.
class RecordingBackend : public DAbstractPluginBackend
{
public:
    QStringList events;
    QSet<unsigned long long> runIds;
    QList<IMessenger::EnErrorCode> failCodes;
    QVariantMap finishedResults;

    void commandResultChanged(unsigned long long runId, const QString &command, const QString &name, const QVariant &) override
    {
        runIds << runId;
        events << command + QStringLiteral(" result ") + name;
    }
    void commandFinished(unsigned long long runId, const QString &command, const QMap<QString, QVariant> &results) override
    {
        runIds << runId;
        events << command + QStringLiteral(" finished");
        finishedResults = results;
    }
    void commandFailed(unsigned long long runId, const QString &command, const DError &error) override
    {
        runIds << runId;
        events << command + QStringLiteral(" failed");
        failCodes << error.code;
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

    DAbstractDriver *driver() const { return m_host->driverOf(m_device); }

    void setScript(const QVariantList &rules)
    {
        QVERIFY(QMetaObject::invokeMethod(driver(), "setScript", Q_ARG(QVariantList, rules)));
    }
    // The scripted driver's record: "started" or "stopped".
    QVariantList record(const char *which) const
    {
        QVariantList list;
        QMetaObject::invokeMethod(driver(), which, Q_RETURN_ARG(QVariantList, list));
        return list;
    }
    QVariantList started() const { return record("started"); }
    QVariantList stopped() const { return record("stopped"); }
    static bool waitFinished(Execution *execution, int ms = 5000)
    {
        if (execution->isFinished())
            return true;
        QSignalSpy spy(execution, &Execution::finished);
        return spy.wait(ms);
    }
    static DeviceConfig config(const QString &reference, const char *plugin = c_testDevice)
    {
        DeviceConfig config;
        config.reference = reference;
        config.pluginUuid = QUuid(plugin);
        config.driverUuid = QUuid(c_scriptedDriver);
        config.sourceFile = QStringLiteral("bench.json");
        return config;
    }

private slots:
    void initTestCase()
    {
        qRegisterMetaType<Execution::State>();
        m_plugins.scan({QStringLiteral(E1212_PLUGIN_DIR), QStringLiteral(E1212_TEST_PLUGIN_DIR)});
        QVERIFY(m_plugins.plugin(QUuid(c_testDevice)));
        QVERIFY(m_plugins.plugin(QUuid(c_scriptedDriver)));
    }

    void init()
    {
        m_host.reset(new Host(&m_plugins));
        QString error;
        QVERIFY2(m_host->addDevice(config(QStringLiteral("bench io1")), &error), qPrintable(error));
        m_device = m_host->device(QStringLiteral("bench io1"));
        QVERIFY(m_device);
        QCOMPARE(m_device->messenger(), static_cast<IMessenger *>(m_host.data()));
    }

    void cleanup() { m_host.reset(); }

    void replyOutcomes_data()
    {
        QTest::addColumn<QVariantList>("replies");
        QTest::addColumn<int>("state");
        QTest::addColumn<int>("code");
        QTest::addColumn<QString>("error");
        QTest::addColumn<QVariantMap>("results");
        QTest::addColumn<int>("exception");
        QTest::newRow("accepted") << QVariantList{reply(QVariantList{7, 1})} << int(Execution::Succeeded)
                                  << int(IMessenger::CeNoError) << QString() << QVariantMap{{QStringLiteral("value"), 7u}} << 0;
        QTest::newRow("callback returns false") << QVariantList{QVariantMap{{QStringLiteral("status"), 1}}} << int(Execution::Failed)
                                                << int(IMessenger::CeReplyRejected)
                                                << QStringLiteral("probe: the command rejected the reply to instruction %1 (\"read\"): {\"status\":1}")
                                                << QVariantMap() << 0;
        QTest::newRow("driver error") << QVariantList{QVariantMap{{QStringLiteral("error"), QStringLiteral("connection to 127.0.0.1:1502 refused")}}}
                                      << int(Execution::Failed) << int(IMessenger::CeDriverError)
                                      << QStringLiteral("probe: the driver of \"bench io1\" failed instruction %1 (\"read\"): connection to 127.0.0.1:1502 refused")
                                      << QVariantMap() << 0;
        QTest::newRow("driver's code") << QVariantList{DError{IMessenger::CeModbusException, 2, QStringLiteral("illegal data address")}.toReply()}
                                       << int(Execution::Failed) << int(IMessenger::CeModbusException)
                                       << QStringLiteral("probe: the driver of \"bench io1\" failed instruction %1 (\"read\"): illegal data address")
                                       << QVariantMap() << 2;
        QTest::newRow("no reply") << QVariantList() << int(Execution::Failed) << int(IMessenger::CeTimeout)
                                  << QStringLiteral("probe: no reply to instruction %1 (\"read\" to the driver of \"bench io1\") within 1150 ms")
                                  << QVariantMap() << 0;
    }

    void replyOutcomes()
    {
        QFETCH(QVariantList, replies);
        QFETCH(int, state);
        QFETCH(int, code);
        QFETCH(QString, error);
        QFETCH(QVariantMap, results);
        QFETCH(int, exception);
        setScript({rule(QStringLiteral("read"), replies)});
        m_host->setTimeoutOverride(150);
        LogCapture log;
        Execution *execution = m_host->execute(m_device, QStringLiteral("probe"), {{QStringLiteral("channel"), QStringLiteral("DI0")}});
        QSignalSpy states(execution, &Execution::stateChanged);
        QSignalSpy finished(execution, &Execution::finished);
        QCOMPARE(execution->state(), Execution::Queued);
        QVERIFY(finished.wait(5000));
        QCOMPARE(int(execution->state()), state);
        QCOMPARE(int(execution->errorCode()), code);
        QCOMPARE(execution->exceptionCode(), exception);
        const QVariantList sent = started();
        QCOMPARE(sent.size(), 1);
        const unsigned long long id = sent.first().toMap().value(QStringLiteral("id")).toULongLong();
        QCOMPARE(execution->errorString(), error.contains(QLatin1String("%1")) ? error.arg(id) : error);
        QCOMPARE(execution->results(), results);
        QCOMPARE(states.size(), 2);
        QCOMPARE(states.at(0).at(0).value<Execution::State>(), Execution::Running);
        QVERIFY(!QTest::qWaitFor([&] { return finished.size() > 1; }, 50));
        if (code != IMessenger::CeNoError)
            QVERIFY(log.messages().size() >= 1 && log.messages().last().text == execution->errorString());
    }

    void replyWithoutCallbackFillsDeclaredResults()
    {
        setScript({rule(QStringLiteral("read"), {QVariantMap{{QStringLiteral("values"), QVariantList{1, 0, 1}},
                                                             {QStringLiteral("elapsedMs"), 3}}})});
        Execution *execution = m_host->execute(m_device, QStringLiteral("collect"), {{QStringLiteral("channel"), QStringLiteral("DI0")}});
        QSignalSpy results(execution, &Execution::resultChanged);
        QVERIFY(waitFinished(execution));
        QCOMPARE(execution->state(), Execution::Succeeded);
        QCOMPARE(results.size(), 1);
        QCOMPARE(results.first().at(0).toString(), QStringLiteral("values"));
        QCOMPARE(execution->results(), (QVariantMap{{QStringLiteral("values"), QVariantList{1, 0, 1}}}));
    }

    void listenOutlivesADriverOutage()
    {
        const QVariantMap outage{{QStringLiteral("error"), QStringLiteral("no answer from 127.0.0.1:1502")}};
        setScript({rule(QStringLiteral("listen"), {outage, reply(QVariantList{1})}, {{QStringLiteral("open"), true}})});
        LogCapture log;
        Execution *execution = m_host->execute(m_device, QStringLiteral("watch"));
        QSignalSpy errors(execution, &Execution::errorReported);
        QSignalSpy results(execution, &Execution::resultChanged);
        QTRY_COMPARE_WITH_TIMEOUT(results.size(), 1, 3000);
        QCOMPARE(errors.size(), 1);
        QVERIFY(errors.first().first().toString().endsWith(QStringLiteral("(\"listen\"): no answer from 127.0.0.1:1502")));
        QCOMPARE(execution->state(), Execution::Running);
        QVERIFY(m_host->stop(execution));
        QVERIFY(execution->isOk());
    }

    void timeOuts_data()
    {
        QTest::addColumn<int>("override");
        QTest::addColumn<int>("configured");
        QTest::addColumn<int>("sent");
        QTest::newRow("the command's own") << 0 << 0 << 3000;
        QTest::newRow("the device's timeoutMs") << 0 << 700 << 700;
        QTest::newRow("--timeout wins") << 100 << 700 << 100;
    }

    // The driver gets the effective time-out; the host's guard allows it for each request
    // ahead on the device, plus one second.
    void timeOuts()
    {
        QFETCH(int, override);
        QFETCH(int, configured);
        QFETCH(int, sent);
        DeviceConfig device = config(QStringLiteral("bench io2"));
        if (configured)
            device.connection.insert(QStringLiteral("timeoutMs"), configured);
        QString error;
        QVERIFY2(m_host->addDevice(device, &error), qPrintable(error));
        m_device = m_host->device(QStringLiteral("bench io2"));
        setScript({rule(QStringLiteral("read"), {})});
        m_host->setTimeoutOverride(override);
        Execution *first = m_host->execute(m_device, QStringLiteral("probe"));
        Execution *second = m_host->execute(m_device, QStringLiteral("collect"));
        QTRY_COMPARE_WITH_TIMEOUT(started().size(), 2, 2000);
        for (const QVariant &instruction : started())
            QCOMPARE(instruction.toMap().value(QStringLiteral("timeoutMs")).toInt(), sent);
        if (sent > 100)
            return;
        QVERIFY(waitFinished(second));
        QVERIFY(first->isFinished());
        QCOMPARE(second->errorCode(), IMessenger::CeTimeout);
        QVERIFY(first->errorString().endsWith(QStringLiteral(" within %1 ms").arg(sent + 1000)));
        QVERIFY(second->errorString().endsWith(QStringLiteral(" within %1 ms").arg(2 * sent + 1000)));
    }

    void concurrentListens_data()
    {
        QTest::addColumn<int>("count");
        QTest::addColumn<int>("stopAt");
        QTest::newRow("one") << 1 << 0;
        QTest::newRow("sixteen, stop the first") << 16 << 0;
        QTest::newRow("sixteen, stop one in the middle") << 16 << 9;
    }

    // Several listens run at once on the declared object; each report goes to the execution
    // whose instruction it answers, and a stop ends exactly one.
    void concurrentListens()
    {
        QFETCH(int, count);
        QFETCH(int, stopAt);
        QVariantList rules;
        for (int i = 0; i < count; ++i)
            rules << rule(QStringLiteral("listen"), {reply(QVariantList{i}), reply(QVariantList{i})},
                          {{QStringLiteral("match"), QVariantMap{{QStringLiteral("channel"), QStringLiteral("C%1").arg(i)}}},
                           {QStringLiteral("open"), true}, {QStringLiteral("intervalMs"), 20}});
        setScript(rules);
        QList<Execution *> executions;
        QList<QVariantList> reports;
        for (int i = 0; i < count; ++i) {
            executions << m_host->execute(m_device, QStringLiteral("watch"), {{QStringLiteral("channel"), QStringLiteral("C%1").arg(i)}});
            reports << QVariantList();
            connect(executions.last(), &Execution::resultChanged, this,
                    [&reports, i](const QString &, const QVariant &value) { reports[i] << value; });
        }
        auto reported = [&](int atLeast) {
            for (int i = 0; i < count; ++i)
                if (i != stopAt && reports.at(i).size() < atLeast)
                    return false;
            return true;
        };
        QTRY_VERIFY_WITH_TIMEOUT(reports.at(stopAt).size() == 1 && reported(1), 3000);
        QVERIFY(m_host->stop(executions.at(stopAt)));
        QVERIFY(executions.at(stopAt)->isOk());
        QVERIFY(!m_host->stop(executions.at(stopAt)));
        const QVariantList sent = started();
        QCOMPARE(sent.size(), count);
        QCOMPARE(stopped(), QVariantList{sent.at(stopAt).toMap().value(QStringLiteral("id"))});
        QTRY_VERIFY_WITH_TIMEOUT(reported(2), 3000);
        QCOMPARE(reports.at(stopAt).size(), 1);
        for (int i = 0; i < count; ++i) {
            for (const QVariant &report : reports.at(i))
                QCOMPARE(report.toList(), QVariantList{i});
            QCOMPARE(executions.at(i)->state(), i == stopAt ? Execution::Stopped : Execution::Running);
        }
    }

    // Executions of a declared command without a factory run one at a time, in order; a
    // queued one that is stopped never runs.
    void declaredObjectRunsOneExecutionAtATime()
    {
        setScript({rule(QStringLiteral("read"), {reply(QVariantList{1})}, {{QStringLiteral("delayMs"), 100}, {QStringLiteral("times"), 1}}),
                   rule(QStringLiteral("read"), {reply(QVariantList{2})})});
        Execution *first = m_host->execute(m_device, QStringLiteral("probe"), {{QStringLiteral("channel"), QStringLiteral("DI0")}});
        Execution *stopped = m_host->execute(m_device, QStringLiteral("probe"), {{QStringLiteral("channel"), QStringLiteral("DI9")}});
        Execution *second = m_host->execute(m_device, QStringLiteral("probe"), {{QStringLiteral("channel"), QStringLiteral("DI1")}});
        Execution *third = m_host->execute(m_device, QStringLiteral("probe"), {{QStringLiteral("channel"), QStringLiteral("DI2")}});
        QVERIFY(m_host->stop(stopped));
        QCOMPARE(stopped->errorCode(), IMessenger::CeStopped);
        QVERIFY(!stopped->isOk());
        Execution::State secondWhenFirstEnded = Execution::Running;
        connect(first, &Execution::finished, this, [&] { secondWhenFirstEnded = second->state(); });
        QVERIFY(waitFinished(third));
        QCOMPARE(secondWhenFirstEnded, Execution::Queued);
        QCOMPARE(first->results().value(QStringLiteral("value")).toUInt(), 1u);
        QCOMPARE(second->results().value(QStringLiteral("value")).toUInt(), 2u);
        QStringList channels;
        for (const QVariant &instruction : started())
            channels << instruction.toMap().value(QStringLiteral("parameters")).toMap().value(QStringLiteral("channel")).toString();
        QCOMPARE(channels, (QStringList{QStringLiteral("DI0"), QStringLiteral("DI1"), QStringLiteral("DI2")}));
    }

    void factoryCommandsRunOnFreshObjects()
    {
        setScript({rule(QStringLiteral("write"), {reply(QVariantList{1})}, {{QStringLiteral("match"), QVariantMap{{QStringLiteral("tag"), QStringLiteral("a")}}},
                                                                           {QStringLiteral("delayMs"), 100}})});
        Execution *a = m_host->execute(m_device, QStringLiteral("stamp"), {{QStringLiteral("tag"), QStringLiteral("a")}});
        Execution *b = m_host->execute(m_device, QStringLiteral("stamp"), {{QStringLiteral("tag"), QStringLiteral("b")}});
        QStringList order;
        connect(a, &Execution::finished, this, [&] { order << QStringLiteral("a"); });
        connect(b, &Execution::finished, this, [&] { order << QStringLiteral("b"); });
        QVERIFY(waitFinished(a));
        QVERIFY(waitFinished(b));
        QCOMPARE(order, (QStringList{QStringLiteral("b"), QStringLiteral("a")}));
        QCOMPARE(a->results().value(QStringLiteral("tag")).toString(), QStringLiteral("a"));
        QCOMPARE(b->results().value(QStringLiteral("tag")).toString(), QStringLiteral("b"));
        const QVariantList sent = started();
        QCOMPARE(sent.size(), 2);
        QVERIFY(sent.at(0).toMap().value(QStringLiteral("id")) != sent.at(1).toMap().value(QStringLiteral("id")));
        // The declared object itself never ran.
        QVERIFY(m_device->command(QStringLiteral("stamp"))->results().isEmpty());
    }

    void refusals_data()
    {
        QTest::addColumn<QString>("command");
        QTest::addColumn<QVariantMap>("arguments");
        QTest::addColumn<int>("code");
        QTest::addColumn<QString>("error");
        QTest::newRow("unknown command") << QStringLiteral("nope") << QVariantMap() << int(IMessenger::CeRefused)
                                         << QStringLiteral("device \"bench io1\" has no command \"nope\" (it has: getPluginIdentity, probe, collect, watch, stamp, route)");
        QTest::newRow("undeclared argument") << QStringLiteral("probe") << QVariantMap{{QStringLiteral("chanel"), 1}} << int(IMessenger::CeRefused)
                                             << QStringLiteral("probe refused to run: command \"probe\" has no parameter \"chanel\" (it takes: channel)");
        QTest::newRow("unknown target") << QStringLiteral("route") << QVariantMap() << int(IMessenger::CeNoRoute)
                                        << QStringLiteral("route: device \"bench io1\" has no target \"plc\" for instruction \"read\" (known targets: driver)");
    }

    void refusals()
    {
        QFETCH(QString, command);
        QFETCH(QVariantMap, arguments);
        QFETCH(int, code);
        QFETCH(QString, error);
        LogCapture log;
        Execution *execution = m_host->execute(m_device, command, arguments);
        QSignalSpy finished(execution, &Execution::finished);
        QVERIFY(finished.wait(2000));
        QCOMPARE(execution->state(), Execution::Failed);
        QCOMPARE(int(execution->errorCode()), code);
        QCOMPARE(execution->errorString(), error);
        QVERIFY(started().isEmpty());
    }

    void argumentChecks_data()
    {
        QTest::addColumn<QVariant>("value");
        QTest::addColumn<int>("check");
        QTest::addColumn<int>("code");
        QTest::addColumn<QVariant>("statusData");
        // The real plug-in's setValue declares "value" as "ui16"; raw, 65536 takes the pulse
        // path as 0 (its low 16 bits), as the command itself masks it.
        QTest::newRow("65536 refused") << QVariant(65536) << int(Host::CheckArguments) << int(IMessenger::CeRefused) << QVariant();
        QTest::newRow("65536 raw") << QVariant(65536) << int(Host::RawArguments) << int(IMessenger::CeNoError) << QVariant(0);
        QTest::newRow("hex text converted") << QVariant(QStringLiteral("0x1")) << int(Host::CheckArguments) << int(IMessenger::CeNoError) << QVariant(1);
    }

    void argumentChecks()
    {
        QFETCH(QVariant, value);
        QFETCH(int, check);
        QFETCH(int, code);
        QFETCH(QVariant, statusData);
        DeviceConfig e1212 = config(QStringLiteral("bench e1"));
        e1212.pluginUuid = DeviceConfig::defaultPluginUuid();
        e1212.parameters.insert(QStringLiteral("e1_channels"), QVariantList());
        QString error;
        QVERIFY2(m_host->addDevice(e1212, &error), qPrintable(error));
        DAbstractPlugin *device = m_host->device(e1212.reference);
        QObject *driver = m_host->driverOf(device);
        const QVariantList script{rule(QStringLiteral("write"), {reply(QVariantList{1})})};
        QVERIFY(QMetaObject::invokeMethod(driver, "setScript", Q_ARG(QVariantList, script)));

        Execution *execution = m_host->execute(device, QStringLiteral("setValue"),
                                               {{QStringLiteral("channel"), QStringLiteral("DO0")}, {QStringLiteral("value"), value}},
                                               Host::ArgumentCheck(check));
        QVERIFY(waitFinished(execution));
        QCOMPARE(int(execution->errorCode()), code);
        QVariantList sent;
        QMetaObject::invokeMethod(driver, "started", Q_RETURN_ARG(QVariantList, sent));
        if (code == IMessenger::CeRefused) {
            QCOMPARE(execution->errorString(), QStringLiteral("setValue refused to run: command \"setValue\": argument \"value\" is 65536, "
                                                              "expected \"ui16\" (a whole number from 0 to 65535, decimal or 0x hex)"));
            QVERIFY(sent.isEmpty());
            return;
        }
        QCOMPARE(sent.size(), 3);
        QCOMPARE(sent.last().toMap().value(QStringLiteral("parameters")).toMap().value(QStringLiteral("data")), statusData);
    }

    void addDeviceErrors_data()
    {
        QTest::addColumn<QString>("plugin");
        QTest::addColumn<QString>("host");
        QTest::addColumn<QString>("error");
        QTest::newRow("unknown plug-in") << QStringLiteral("{11111111-2222-3333-4444-555555555555}") << QString()
                                         << QStringLiteral("bench.json: devices[1].plugin: no plug-in with UUID {11111111-2222-3333-4444-555555555555} is loaded");
        QTest::newRow("driver as device") << QString::fromLatin1(c_scriptedDriver) << QString()
                                          << QStringLiteral("bench.json: devices[1].plugin: Scripted test driver ({5c0a7e2e-4d1b-4b8e-9a43-1f2e3d4c5b6a}) is not a device plug-in");
        QTest::newRow("connection refused") << QString::fromLatin1(c_testDevice) << QStringLiteral("refuse.invalid")
                                            << QStringLiteral("bench.json: devices[1].connection: host \"refuse.invalid\" is refused by the scripted driver");
    }

    void addDeviceErrors()
    {
        QFETCH(QString, plugin);
        QFETCH(QString, host);
        QFETCH(QString, error);
        DeviceConfig device = config(QStringLiteral("bench io2"));
        device.pluginUuid = QUuid(plugin);
        device.jsonPath = QStringLiteral("devices[1]");
        if (!host.isEmpty())
            device.connection.insert(QStringLiteral("host"), host);
        QString message;
        QVERIFY(!m_host->addDevice(device, &message));
        QVERIFY2(message.startsWith(error), qPrintable(message));
        QCOMPARE(m_host->devices().size(), 1);
        QVERIFY(!m_host->addDevice(config(QStringLiteral("bench io1")), &message));
        QCOMPARE(message, QStringLiteral("bench.json: reference: a device \"bench io1\" exists already"));
    }

    void periodicRuns_data()
    {
        QTest::addColumn<QVariantList>("replies");
        QTest::addColumn<QString>("event");
        QTest::addColumn<int>("repeatMs");
        QTest::addColumn<int>("code");
        QTest::newRow("one run (runCommand)") << QVariantList{reply(QVariantList{4})} << QStringLiteral("probe finished") << 0 << 0;
        QTest::newRow("every run succeeds") << QVariantList{reply(QVariantList{4})} << QStringLiteral("probe finished") << 40 << 0;
        QTest::newRow("failed runs go on") << QVariantList{QVariantMap{{QStringLiteral("error"), QStringLiteral("refused")},
                                                                     {QStringLiteral("errorCode"), int(IMessenger::CeNoConnection)}}}
                                           << QStringLiteral("probe failed") << 40 << int(IMessenger::CeNoConnection);
        QTest::newRow("unknown command") << QVariantList() << QStringLiteral("nope failed") << 40 << int(IMessenger::CeRefused);
    }

    // A schedule runs again a period after each run ends, reports every run under one id,
    // and ends with stopCommand.
    void periodicRuns()
    {
        QFETCH(QVariantList, replies);
        QFETCH(QString, event);
        QFETCH(int, repeatMs);
        QFETCH(int, code);
        setScript({rule(QStringLiteral("read"), replies)});
        RecordingBackend backend;
        backend.setPlugin(m_device);
        const QString command = event.section(QLatin1Char(' '), 0, 0);
        QElapsedTimer clock;
        clock.start();
        const unsigned long long runId = repeatMs ? backend.runCommandEvery(command, {}, repeatMs) : backend.runCommand(command);
        QVERIFY(runId);
        QVERIFY(backend.events.isEmpty());
        const int runs = repeatMs ? 3 : 1;
        QTRY_VERIFY_WITH_TIMEOUT(backend.events.count(event) >= runs, 3000);
        QVERIFY(clock.elapsed() >= (runs - 1) * repeatMs);
        QCOMPARE(backend.events.count(), backend.events.count(event) + backend.events.count(QStringLiteral("probe result value")));
        QCOMPARE(backend.runIds, QSet<unsigned long long>{runId});
        QCOMPARE(int(backend.failCodes.value(0, IMessenger::CeNoError)), code);
        QCOMPARE(backend.stopCommand(runId), repeatMs > 0);
        const int sent = started().size();
        QVERIFY(!QTest::qWaitFor([&] { return started().size() > sent || backend.events.count(event) > runs + 1; }, 150));
        QVERIFY(!backend.stopCommand(runId));
    }

    void listenRunStoppedByTheBackend()
    {
        setScript({rule(QStringLiteral("listen"), {reply(QVariantList{1})}, {{QStringLiteral("open"), true}})});
        RecordingBackend backend;
        backend.setPlugin(m_device);
        const unsigned long long watch = backend.runCommand(QStringLiteral("watch"));
        QTRY_COMPARE_WITH_TIMEOUT(backend.events, QStringList{QStringLiteral("watch result values")}, 3000);
        QVERIFY(backend.stopCommand(watch));
        QCOMPARE(backend.events.last(), QStringLiteral("watch finished"));
        QCOMPARE(backend.finishedResults.value(QStringLiteral("values")).toList(), QVariantList{1});
    }
};

QTEST_GUILESS_MAIN(TstHost)
#include "tst_host.moc"
