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
    QVariantMap finishedResults;
    IMessenger::EnErrorCode failCode = IMessenger::CeNoError;

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
        failCode = error.code;
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
        QTest::newRow("accepted") << QVariantList{reply(QVariantList{7, 1})} << int(Execution::Succeeded)
                                  << int(IMessenger::CeNoError) << QString() << QVariantMap{{QStringLiteral("value"), 7u}};
        QTest::newRow("callback returns false") << QVariantList{QVariantMap{{QStringLiteral("status"), 1}}} << int(Execution::Failed)
                                                << int(IMessenger::CeReplyRejected)
                                                << QStringLiteral("probe: the command rejected the reply to instruction %1 (\"read\"): {\"status\":1}")
                                                << QVariantMap();
        QTest::newRow("driver error") << QVariantList{QVariantMap{{QStringLiteral("error"), QStringLiteral("connection to 127.0.0.1:1502 refused")}}}
                                      << int(Execution::Failed) << int(IMessenger::CeDriverError)
                                      << QStringLiteral("probe: the driver of \"bench io1\" failed instruction %1 (\"read\"): connection to 127.0.0.1:1502 refused")
                                      << QVariantMap();
        QTest::newRow("no reply") << QVariantList() << int(Execution::Failed) << int(IMessenger::CeTimeout)
                                  << QStringLiteral("probe: no reply to instruction %1 (\"read\" to the driver of \"bench io1\") within 1150 ms")
                                  << QVariantMap();
    }

    void replyOutcomes()
    {
        QFETCH(QVariantList, replies);
        QFETCH(int, state);
        QFETCH(int, code);
        QFETCH(QString, error);
        QFETCH(QVariantMap, results);
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

    void lateReplyIsDroppedAndSaidOnce()
    {
        const QVariantMap late{{QStringLiteral("delayMs"), 1300}, {QStringLiteral("intervalMs"), 20},
                               {QStringLiteral("ignoreStop"), true}};
        setScript({rule(QStringLiteral("read"), {reply(QVariantList{1}), reply(QVariantList{2})}, late)});
        m_host->setTimeoutOverride(100);
        LogCapture log;
        Execution *execution = m_host->execute(m_device, QStringLiteral("probe"));
        QSignalSpy results(execution, &Execution::resultChanged);
        QVERIFY(waitFinished(execution));
        QCOMPARE(execution->errorCode(), IMessenger::CeTimeout);
        const unsigned long long id = started().first().toMap().value(QStringLiteral("id")).toULongLong();
        QCOMPARE(stopped(), QVariantList{id});
        auto lateLines = [&] {
            int count = 0;
            for (const LogCapture::Message &message : log.messages())
                count += message.text.contains(QStringLiteral("the reply to instruction %1 came after its time-out and is dropped").arg(id));
            return count;
        };
        QTRY_COMPARE_WITH_TIMEOUT(lateLines(), 1, 3000);
        // The second late reply is dropped without a word.
        QVERIFY(!QTest::qWaitFor([&] { return lateLines() > 1; }, 200));
        QCOMPARE(results.size(), 0);
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

    void listenStreamsUntilStopped()
    {
        QVariantList reports;
        for (int i = 0; i < 3; ++i)
            reports << reply(QVariantList{i % 2});
        setScript({rule(QStringLiteral("listen"), reports, {{QStringLiteral("open"), true}, {QStringLiteral("intervalMs"), 10}})});
        Execution *execution = m_host->execute(m_device, QStringLiteral("watch"), {{QStringLiteral("channel"), QStringLiteral("DI2")}});
        QSignalSpy results(execution, &Execution::resultChanged);
        QSignalSpy finished(execution, &Execution::finished);
        QVERIFY(execution->isListening());
        QTRY_COMPARE_WITH_TIMEOUT(results.size(), 3, 3000);
        QCOMPARE(results.at(2).at(1).toList(), QVariantList{0});
        // Still running after its last report: a listening execution ends only when stopped.
        QVERIFY(!finished.wait(100));
        QCOMPARE(execution->state(), Execution::Running);
        QVERIFY(m_host->stop(execution));
        QCOMPARE(finished.size(), 1);
        QCOMPARE(execution->state(), Execution::Stopped);
        QVERIFY(execution->isOk());
        QCOMPARE(stopped(), QVariantList{started().first().toMap().value(QStringLiteral("id"))});
        QVERIFY(!m_host->stop(execution));
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

    void declaredObjectRunsOneExecutionAtATime()
    {
        setScript({rule(QStringLiteral("read"), {reply(QVariantList{1})}, {{QStringLiteral("delayMs"), 100}, {QStringLiteral("times"), 1}}),
                   rule(QStringLiteral("read"), {reply(QVariantList{2})})});
        Execution *first = m_host->execute(m_device, QStringLiteral("probe"), {{QStringLiteral("channel"), QStringLiteral("DI0")}});
        Execution *second = m_host->execute(m_device, QStringLiteral("probe"), {{QStringLiteral("channel"), QStringLiteral("DI1")}});
        Execution::State secondWhenFirstEnded = Execution::Running;
        int sentWhenFirstEnded = -1;
        connect(first, &Execution::finished, this, [&] {
            secondWhenFirstEnded = second->state();
            sentWhenFirstEnded = started().size();
        });
        QVERIFY(waitFinished(second));
        QVERIFY(first->isFinished());
        QCOMPARE(secondWhenFirstEnded, Execution::Queued);
        QCOMPARE(sentWhenFirstEnded, 1);
        QCOMPARE(first->results().value(QStringLiteral("value")).toUInt(), 1u);
        QCOMPARE(second->results().value(QStringLiteral("value")).toUInt(), 2u);
        QCOMPARE(started().at(1).toMap().value(QStringLiteral("parameters")).toMap().value(QStringLiteral("channel")).toString(),
                 QStringLiteral("DI1"));
    }

    void stoppingAQueuedExecution()
    {
        Execution *first = m_host->execute(m_device, QStringLiteral("probe"));
        Execution *second = m_host->execute(m_device, QStringLiteral("probe"));
        QVERIFY(m_host->stop(second));
        QCOMPARE(second->state(), Execution::Stopped);
        QCOMPARE(second->errorCode(), IMessenger::CeStopped);
        QVERIFY(!second->isOk());
        QVERIFY(waitFinished(first));
        QCOMPARE(first->state(), Execution::Succeeded);
        QCOMPARE(started().size(), 1);
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

    void backendRunsThroughTheHost()
    {
        setScript({rule(QStringLiteral("listen"), {reply(QVariantList{1})}, {{QStringLiteral("open"), true}})});
        RecordingBackend backend;
        backend.setPlugin(m_device);
        const unsigned long long probe = backend.runCommand(QStringLiteral("probe"));
        const unsigned long long unknown = backend.runCommand(QStringLiteral("nope"));
        const unsigned long long watch = backend.runCommand(QStringLiteral("watch"));
        QVERIFY(probe && unknown && watch && probe != unknown && unknown != watch);
        QVERIFY(backend.events.isEmpty());
        QTRY_COMPARE_WITH_TIMEOUT(backend.events.size(), 4, 3000);
        QVERIFY(backend.events.contains(QStringLiteral("probe finished")));
        QVERIFY(backend.events.contains(QStringLiteral("nope failed")));
        QVERIFY(backend.events.contains(QStringLiteral("watch result values")));
        QCOMPARE(backend.failCode, IMessenger::CeRefused);
        QVERIFY(backend.stopCommand(watch));
        QCOMPARE(backend.events.last(), QStringLiteral("watch finished"));
        QCOMPARE(backend.finishedResults.value(QStringLiteral("values")).toList(), QVariantList{1});
        QVERIFY(!backend.stopCommand(watch));
    }

    void periodicRuns_data()
    {
        QTest::addColumn<QVariantList>("replies");
        QTest::addColumn<QString>("event");
        QTest::newRow("every run succeeds") << QVariantList{reply(QVariantList{4})} << QStringLiteral("probe finished");
        QTest::newRow("failed runs go on") << QVariantList{QVariantMap{{QStringLiteral("error"), QStringLiteral("refused")},
                                                                     {QStringLiteral("errorCode"), int(IMessenger::CeNoConnection)}}}
                                           << QStringLiteral("probe failed");
    }

    // A schedule runs again a period after each run ends, reports every run under one id,
    // and ends with stopCommand.
    void periodicRuns()
    {
        QFETCH(QVariantList, replies);
        QFETCH(QString, event);
        setScript({rule(QStringLiteral("read"), replies)});
        RecordingBackend backend;
        backend.setPlugin(m_device);
        QElapsedTimer clock;
        clock.start();
        const unsigned long long runId = backend.runCommandEvery(QStringLiteral("probe"), {}, 40);
        QVERIFY(runId);
        QTRY_VERIFY_WITH_TIMEOUT(backend.events.count(event) >= 3, 3000);
        // Three runs, two periods between them at least.
        QVERIFY(clock.elapsed() >= 80);
        QCOMPARE(backend.runIds, QSet<unsigned long long>{runId});
        QCOMPARE(backend.failCode, event.endsWith(QLatin1String("failed")) ? IMessenger::CeNoConnection : IMessenger::CeNoError);
        QVERIFY(backend.stopCommand(runId));
        const int runs = started().size();
        QVERIFY(!QTest::qWaitFor([&] { return started().size() > runs; }, 150));
        QVERIFY(!backend.stopCommand(runId));
    }

    void deletedBackendHearsNothing()
    {
        setScript({rule(QStringLiteral("read"), {reply(QVariantList{1})}, {{QStringLiteral("delayMs"), 50}})});
        auto backend = new RecordingBackend;
        backend->setPlugin(m_device);
        backend->runCommand(QStringLiteral("probe"));
        delete backend;
        Execution *after = m_host->execute(m_device, QStringLiteral("probe"));
        QVERIFY(waitFinished(after));
        QCOMPARE(after->state(), Execution::Succeeded);
    }
};

QTEST_GUILESS_MAIN(TstHost)
#include "tst_host.moc"
