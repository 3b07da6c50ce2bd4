// SPDX-License-Identifier: MIT
// Device commands end to end: host runtime, device plug-in and Modbus TCP driver loaded
// from the build tree, over a real loopback connection to the simulator.
#include "dabstractplugin.h"
#include "deviceconfig.h"
#include "e1212simulator.h"
#include "execution.h"
#include "host.h"
#include "logcapture.h"
#include "pluginmanager.h"

#include <QSignalSpy>
#include <QtTest>

class TstEndToEnd : public QObject
{
    Q_OBJECT
    QScopedPointer<E1212Simulator> m_sim;
    QScopedPointer<PluginManager> m_plugins;
    QScopedPointer<Host> m_host;
    DAbstractPlugin *m_device = nullptr;

private slots:
    void init()
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

    void cleanup() { m_host.reset(), m_plugins.reset(), m_sim.reset(); }

    void listenReportsInputChangesInOrder()
    {
        Execution *listen = m_host->execute(m_device, QStringLiteral("listenEvents"),
                                            {{QStringLiteral("channel"), QStringLiteral("DI2")}});
        QSignalSpy results(listen, &Execution::resultChanged);
        const auto report = [](uint value) { return QVariantList{"values", QVariantMap{{"values", QVariantList{value}}}}; };
        QTRY_COMPARE_WITH_TIMEOUT(results.size(), 1, 2000);
        QCOMPARE(results.last(), report(0));
        for (bool on : {true, false, true, false}) {
            const int before = results.size();
            m_sim->setInput(2, on);
            QTRY_COMPARE_WITH_TIMEOUT(results.size(), before + 1, 2000);
            QCOMPARE(results.last(), report(on));
        }
        QVERIFY(m_host->stop(listen));
        QTRY_VERIFY_WITH_TIMEOUT(listen->isFinished(), 2000);
        QVERIFY(listen->isOk());
        m_sim->setInput(2, true);
        QTest::qWait(100);
        QCOMPARE(results.size(), 5);
    }

    void exceptionReachesCommandAndCaller()
    {
        m_sim->setException(QModbusDataUnit::DiscreteInputs, 4, QModbusPdu::IllegalDataAddress);
        LogCapture log;
        Execution *get = m_host->execute(m_device, QStringLiteral("getValue"), {{QStringLiteral("channel"), QStringLiteral("DI4")}});
        QTRY_VERIFY_WITH_TIMEOUT(get->isFinished(), 5000);
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
};

QTEST_GUILESS_MAIN(TstEndToEnd)
#include "tst_endtoend.moc"
