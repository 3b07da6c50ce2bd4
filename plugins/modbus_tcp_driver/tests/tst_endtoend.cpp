// SPDX-License-Identifier: MIT
// Every device command end to end: host runtime, device plug-in and Modbus TCP driver
// loaded from the build tree, over a real loopback connection to the simulator.
#include "dabstractplugin.h"
#include "deviceconfig.h"
#include "e1212simulator.h"
#include "execution.h"
#include "host.h"
#include "logcapture.h"
#include "pluginmanager.h"

#include <QElapsedTimer>
#include <QSignalSpy>
#include <QtTest>

class TstEndToEnd : public QObject
{
    Q_OBJECT
private slots:
    void init();
    void cleanup();

    void getInfo();
    void setValueThenGetValue();
    void maskedWriteChangesOnlyMaskedBits_data();
    void maskedWriteChangesOnlyMaskedBits();
    void blinkTogglesAtTheWidthsGiven_data();
    void blinkTogglesAtTheWidthsGiven();
    void setValuesWritesAListOfPulseStatuses();
    void listenReportsInputChangesInOrder();
    void getValuesReadsTheRun();
    void deadDeviceFailsWithinTimeout();
    void exceptionReachesCommandAndCaller();

private:
    // Runs a command to its end (bounded) and returns the execution.
    Execution *run(const QString &command, const QVariantMap &arguments, int waitMs = 5000);

    QScopedPointer<E1212Simulator> m_sim;
    QScopedPointer<PluginManager> m_plugins;
    QScopedPointer<Host> m_host;
    DAbstractPlugin *m_device = nullptr;
};

void TstEndToEnd::init()
{
    m_sim.reset(new E1212Simulator);
    QString error;
    QVERIFY2(m_sim->start(QHostAddress::LocalHost, 0, &error), qPrintable(error));
    m_plugins.reset(new PluginManager);
    QVERIFY(m_plugins->scan({QStringLiteral(E1212_PLUGIN_DIR)}) >= 2);
    QList<DeviceConfig> configs = DeviceConfig::loadFile(QStringLiteral(E1212_SOURCE_DIR "/config/e1212.json"), &error);
    QVERIFY2(configs.size() == 1, qPrintable(error));
    configs[0].connection = {{"host", "127.0.0.1"}, {"port", m_sim->port()}, {"timeoutMs", 500}, {"pollIntervalMs", 20}};
    m_host.reset(new Host(m_plugins.data()));
    QVERIFY2(m_host->addDevice(configs.first(), &error), qPrintable(error));
    m_device = m_host->device(configs.first().reference);
    QVERIFY(m_device);
}

void TstEndToEnd::cleanup()
{
    m_host.reset();
    m_plugins.reset();
    m_sim.reset();
}

Execution *TstEndToEnd::run(const QString &command, const QVariantMap &arguments, int waitMs)
{
    Execution *execution = m_host->execute(m_device, command, arguments);
    QSignalSpy finished(execution, &Execution::finished);
    if (!execution->isFinished())
        finished.wait(waitMs);
    return execution;
}

void TstEndToEnd::getInfo()
{
    Execution *execution = run(QStringLiteral("getInfo"), {});
    QVERIFY2(execution->isOk(), qPrintable(execution->errorString()));
    const QVariantMap info = execution->results().value(QStringLiteral("deviceInformation")).toMap();
    QCOMPARE(info.value(QStringLiteral("modelName")).toString(), QStringLiteral("E1212"));
    QCOMPARE(info.value(QStringLiteral("softwareVersion")).toString(), QStringLiteral("V3.2.1 Build23041709"));
    QCOMPARE(info.value(QStringLiteral("macAddress")).toString(), QStringLiteral("00:90:E8:12:34:56"));
    QCOMPARE(info.value(QStringLiteral("serialNumber")).toString(), QString());
}

void TstEndToEnd::setValueThenGetValue()
{
    for (const uint value : {1u, 0u}) {
        Execution *set = run(QStringLiteral("setValue"), {{"channel", "DO3"}, {"value", value}});
        QVERIFY2(set->isOk(), qPrintable(set->errorString()));
        QCOMPARE(set->results().value(QStringLiteral("doneOk")), QVariant(true));
        QCOMPARE(m_sim->pulseStatus(3), value == 1);
        QCOMPARE(m_sim->output(3), value == 1);
        if (value == 1) { // active-high: held on
            QCOMPARE(m_sim->pulseOnWidth(3), quint16(65535));
            QCOMPARE(m_sim->pulseOffWidth(3), quint16(1));
        }
        Execution *get = run(QStringLiteral("getValue"), {{"channel", "DO3"}});
        QVERIFY2(get->isOk(), qPrintable(get->errorString()));
        QCOMPARE(get->results().value(QStringLiteral("value")).toUInt(), value);
    }
}

void TstEndToEnd::maskedWriteChangesOnlyMaskedBits_data()
{
    QTest::addColumn<bool>("outputBefore");
    QTest::addColumn<int>("mask");
    QTest::addColumn<int>("value");
    QTest::addColumn<bool>("outputAfter");
    QTest::newRow("mask 1 sets") << false << 0x0001 << 1 << true;
    QTest::newRow("mask 0 keeps on") << true << 0x0000 << 0 << true;
    QTest::newRow("mask 0xFFFE leaves bit 0") << true << 0xFFFE << 0 << true;
}

void TstEndToEnd::maskedWriteChangesOnlyMaskedBits()
{
    QFETCH(bool, outputBefore);
    QFETCH(int, mask);
    QFETCH(int, value);
    QFETCH(bool, outputAfter);
    m_sim->setOutput(5, outputBefore);
    m_sim->setOutput(4, true);
    m_sim->setOutput(6, false);
    Execution *set = run(QStringLiteral("setValue"), {{"channel", "DO5"}, {"value", value}, {"bitMask", mask}});
    QVERIFY2(set->isOk(), qPrintable(set->errorString()));
    QCOMPARE(set->results().value(QStringLiteral("doneOk")), QVariant(true));
    QCOMPARE(m_sim->output(5), outputAfter);
    QVERIFY(m_sim->output(4));
    QVERIFY(!m_sim->output(6));
    QVERIFY(!m_sim->pulseStatus(5)); // the masked path writes the output itself
}

void TstEndToEnd::blinkTogglesAtTheWidthsGiven_data()
{
    QTest::addColumn<QString>("command");
    QTest::newRow("setBlink") << "setBlink";
    QTest::newRow("setValues") << "setValues";
}

void TstEndToEnd::blinkTogglesAtTheWidthsGiven()
{
    QFETCH(QString, command);
    QElapsedTimer clock;
    QVector<qint64> at;
    connect(m_sim.data(), &E1212Simulator::outputChanged, this, [&](int channel, bool) {
        if (channel == 6)
            at.append(clock.elapsed());
    });
    clock.start();
    Execution *blink = run(command, {{"channel", "DO6"}, {"pulseOnWidth", 40}, {"pulseOffWidth", 80},
                                     {"values", QVariantList{1}}});
    QVERIFY2(blink->isOk(), qPrintable(blink->errorString()));
    QCOMPARE(m_sim->pulseOnWidth(6), quint16(40));
    QCOMPARE(m_sim->pulseOffWidth(6), quint16(80));
    QTRY_VERIFY_WITH_TIMEOUT(at.size() >= 6, 3000);
    for (int i = 2; i < 6; ++i) { // phase i-1 ended at change i: on after odd changes
        const qint64 width = at.at(i) - at.at(i - 1);
        const int expected = (i % 2 == 1) ? 40 : 80;
        QVERIFY2(width >= expected - 2 && width <= expected + 40,
                 qPrintable(QStringLiteral("phase lasted %1 ms, expected %2").arg(width).arg(expected)));
    }
    QVERIFY(run(command, {{"channel", "DO6"}, {"values", QVariantList{0}}})->isOk());
    QVERIFY(!m_sim->pulseStatus(6));
    QVERIFY(!m_sim->output(6));
}

void TstEndToEnd::setValuesWritesAListOfPulseStatuses()
{
    Execution *set = run(QStringLiteral("setValues"), {{"channel", "DO1"}, {"pulseOnWidth", 30}, {"pulseOffWidth", 30},
                                                        {"values", QVariantList{1, 0, 1}}});
    QVERIFY2(set->isOk(), qPrintable(set->errorString()));
    QVERIFY(m_sim->pulseStatus(1));
    QVERIFY(!m_sim->pulseStatus(2));
    QVERIFY(m_sim->pulseStatus(3));
    QCOMPARE(m_sim->pulseOnWidth(1), quint16(30)); // widths for the first channel only
    QCOMPARE(m_sim->pulseOnWidth(3), quint16(1));
}

void TstEndToEnd::listenReportsInputChangesInOrder()
{
    Execution *listen = m_host->execute(m_device, QStringLiteral("listenEvents"),
                                        {{QStringLiteral("channel"), QStringLiteral("DI2")}});
    QSignalSpy results(listen, &Execution::resultChanged);
    QTRY_COMPARE_WITH_TIMEOUT(results.size(), 1, 2000);
    for (bool on : {true, false, true, false}) {
        const int before = results.size();
        m_sim->setInput(2, on);
        QTRY_COMPARE_WITH_TIMEOUT(results.size(), before + 1, 2000);
    }
    const QVariantList expected{0u, 1u, 0u, 1u, 0u};
    QCOMPARE(results.size(), expected.size());
    for (int i = 0; i < results.size(); ++i)
        QCOMPARE(results.at(i), (QVariantList{"values", QVariantMap{{"values", QVariantList{expected.at(i)}}}}));
    QSignalSpy finished(listen, &Execution::finished);
    QVERIFY(m_host->stop(listen));
    QVERIFY(finished.wait(2000) || listen->isFinished());
    QVERIFY(listen->isOk());
    m_sim->setInput(2, true);
    QTest::qWait(100);
    QCOMPARE(results.size(), expected.size());
}

void TstEndToEnd::getValuesReadsTheRun()
{
    m_sim->setInput(0, true);
    m_sim->setInput(7, true);
    Execution *get = run(QStringLiteral("getValues"), {{"channel", "DI0"}});
    QVERIFY2(get->isOk(), qPrintable(get->errorString()));
    QCOMPARE(get->results().value(QStringLiteral("values")).toList(),
             (QVariantList{1u, 0u, 0u, 0u, 0u, 0u, 0u, 1u}));
}

void TstEndToEnd::deadDeviceFailsWithinTimeout()
{
    const quint16 port = m_sim->port();
    m_sim->stop();
    QElapsedTimer clock;
    clock.start();
    Execution *get = run(QStringLiteral("getValue"), {{QStringLiteral("channel"), QStringLiteral("DI1")}});
    QVERIFY(clock.elapsed() < 500 + 1000);
    QCOMPARE(get->state(), Execution::Failed);
    QVERIFY2(get->errorString().contains(QStringLiteral("cannot connect to 127.0.0.1:%1").arg(port))
                 && get->errorString().contains(QStringLiteral("discreteInputs register 1")),
             qPrintable(get->errorString()));
}

void TstEndToEnd::exceptionReachesCommandAndCaller()
{
    m_sim->setException(QModbusDataUnit::DiscreteInputs, 4, QModbusPdu::IllegalDataAddress);
    LogCapture log;
    Execution *get = run(QStringLiteral("getValue"), {{QStringLiteral("channel"), QStringLiteral("DI4")}});
    QCOMPARE(get->state(), Execution::Failed);
    QCOMPARE(get->errorCode(), IMessenger::CeModbusException);
    QCOMPARE(get->exceptionCode(), 2);
    // The command made its own check of the reply, in its own diagnostic line.
    const QStringList critical = log.criticalTexts();
    QCOMPARE(critical.size(), 1);
    QVERIFY2(critical.first().contains(QStringLiteral("d_cmd_getValue"))
                 && critical.first().endsWith(QStringLiteral("ERROR: Reply data is not in the correct format")),
             qPrintable(critical.first()));
}

QTEST_GUILESS_MAIN(TstEndToEnd)
#include "tst_endtoend.moc"
