// SPDX-License-Identifier: MIT
// The Modbus TCP driver plug-in, loaded with QPluginLoader, over real loopback connections
// to the simulator and to a pymodbus server.
#include "dabstractdriver.h"
#include "e1212simulator.h"

#include <QElapsedTimer>
#include <QFileInfo>
#include <QPluginLoader>
#include <QProcess>
#include <QScopedPointer>
#include <QSignalSpy>
#include <QStandardPaths>
#include <QTcpServer>
#include <QTcpSocket>
#include <QtTest>

using Reply = QMap<QString, QVariant>;

class TstModbusDriver : public QObject
{
    Q_OBJECT
private slots:
    void initTestCase();
    void init();
    void cleanup();

    void badSettings_data();
    void badSettings();
    void readAndWriteEachTable_data();
    void readAndWriteEachTable();
    void badInstruction_data();
    void badInstruction();
    void exceptionAnswer();
    void timeoutThenNextAnswerIsItsOwn();
    void noDeviceAtAddress();
    void connectionDroppedMidRequest();
    void stopWithdrawsQueuedRead();
    void listenResumesAfterSimulatorRestart();
    void writeGoesBeforeListenPolls();
    void interopWithPymodbus_data();
    void interopWithPymodbus();
    void benchmarkReads();

private:
    DAbstractDriver *newDriver(QVariantMap settings, QString *error = nullptr);
    // Starts `instruction` and waits for its one final reply.
    Reply run(DAbstractDriver *driver, const QString &instruction, const QVariantMap &parameters,
              int waitMs = 5000);
    static quint16 freePort();

    QPluginLoader m_loader;
    DAbstractDriver *m_root = nullptr;
    QScopedPointer<E1212Simulator> m_sim;
    QList<DAbstractDriver *> m_drivers;
    unsigned long long m_nextId = 1;
};

void TstModbusDriver::initTestCase()
{
    m_loader.setFileName(QStringLiteral(E1212_PLUGIN_DIR "/libmodbus_tcp_driver.so"));
    QVERIFY2(m_loader.load(), qPrintable(m_loader.errorString()));
    m_root = qobject_cast<DAbstractDriver *>(m_loader.instance());
    QVERIFY(m_root);
}

void TstModbusDriver::init()
{
    m_sim.reset(new E1212Simulator);
    QString error;
    QVERIFY2(m_sim->start(QHostAddress::LocalHost, 0, &error), qPrintable(error));
}

void TstModbusDriver::cleanup()
{
    qDeleteAll(m_drivers);
    m_drivers.clear();
    m_sim.reset();
}

DAbstractDriver *TstModbusDriver::newDriver(QVariantMap settings, QString *error)
{
    if (!settings.contains(QStringLiteral("port")))
        settings.insert(QStringLiteral("port"), m_sim->port());
    auto *driver = dynamic_cast<DAbstractDriver *>(m_root->createInstance(QUuid::createUuid()));
    m_drivers.append(driver);
    return driver && driver->configureConnection(settings, error) ? driver : nullptr;
}

Reply TstModbusDriver::run(DAbstractDriver *driver, const QString &instruction, const QVariantMap &parameters,
                           int waitMs)
{
    QSignalSpy spy(driver, &DAbstractDriver::sigInstructionReply);
    const unsigned long long id = m_nextId++;
    driver->startInstruction(id, instruction, parameters, 1000);
    // Never answered from inside startInstruction.
    if (!spy.isEmpty())
        return {{QStringLiteral("error"), QStringLiteral("TEST: replied synchronously")}};
    if (!spy.wait(waitMs))
        return {{QStringLiteral("error"), QStringLiteral("TEST: no reply")}};
    if (spy.size() != 1 || spy.at(0).at(0).toULongLong() != id || !spy.at(0).at(2).toBool())
        return {{QStringLiteral("error"), QStringLiteral("TEST: unexpected reply shape")}};
    return spy.at(0).at(1).value<Reply>();
}

quint16 TstModbusDriver::freePort()
{
    QTcpServer probe;
    probe.listen(QHostAddress::LocalHost, 0);
    return probe.serverPort();
}

static QVariantMap params(const QString &type, int reg, const QVariant &extraKey = {}, const QVariant &extra = {})
{
    QVariantMap map{{QStringLiteral("registerType"), type}, {QStringLiteral("register"), reg}};
    if (extraKey.isValid())
        map.insert(extraKey.toString(), extra);
    return map;
}

void TstModbusDriver::badSettings_data()
{
    QTest::addColumn<QVariantMap>("settings");
    QTest::addColumn<QString>("expected");
    QTest::newRow("port 0") << QVariantMap{{"port", 0}} << "connection/port: 0 is not a whole number from 1 to 65535";
    QTest::newRow("empty host") << QVariantMap{{"host", ""}} << "connection/host: expected a host name";
    QTest::newRow("unit 256") << QVariantMap{{"unitId", 256}} << "connection/unitId: 256 is not a whole number from 0 to 255";
    QTest::newRow("typo") << QVariantMap{{"timeoutms", 100}} << "connection/timeoutms: unknown key";
}

void TstModbusDriver::badSettings()
{
    QFETCH(QVariantMap, settings);
    QFETCH(QString, expected);
    QString error;
    QVERIFY(!newDriver(settings, &error));
    QVERIFY2(error.startsWith(expected), qPrintable(error));
}

void TstModbusDriver::readAndWriteEachTable_data()
{
    QTest::addColumn<QString>("type");
    QTest::addColumn<int>("reg");
    QTest::addColumn<QVariant>("data"); // invalid: read only
    QTest::addColumn<QVariantList>("expected");
    QTest::newRow("FC2 discrete inputs") << "discreteInputs" << 0 << QVariant() << QVariantList{0u, 0u, 1u, 0u, 0u, 0u, 0u, 1u};
    QTest::newRow("FC4 model name") << "inputRegisters" << 5000 << QVariant() << QVariantList{0x4531u, 0x3231u, 0x3200u};
    QTest::newRow("FC5 one coil, non-zero is ON") << "coilsRegister" << 3 << QVariant(7) << QVariantList{0u, 0u, 0u, 1u, 0u};
    QTest::newRow("FC15 coil list") << "coilsRegister" << 1 << QVariant(QVariantList{1, 0, 1}) << QVariantList{0u, 1u, 0u, 1u, 0u};
    QTest::newRow("FC6 one register") << "holdingRegisters" << 257 << QVariant(65535) << QVariantList{1u, 65535u, 1u};
    QTest::newRow("FC16 register list") << "holdingRegisters" << 256 << QVariant(QVariantList{500, 250.0, "7"}) << QVariantList{500u, 250u, 7u};
}

void TstModbusDriver::readAndWriteEachTable()
{
    QFETCH(QString, type);
    QFETCH(int, reg);
    QFETCH(QVariant, data);
    QFETCH(QVariantList, expected);
    m_sim->setInput(2, true);
    m_sim->setInput(7, true);
    DAbstractDriver *driver = newDriver({});
    QVERIFY(driver);
    int readFrom = reg;
    if (data.isValid()) {
        const Reply written = run(driver, QStringLiteral("write"), params(type, reg, "data", data));
        QCOMPARE(written, (Reply{{QStringLiteral("values"), QVariantList{1u}}}));
        readFrom = type == QLatin1String("coilsRegister") ? 0 : 256;
    }
    const Reply read = run(driver, QStringLiteral("read"), params(type, readFrom, "dataSize", expected.size()));
    QCOMPARE(read, (Reply{{QStringLiteral("values"), expected}}));
}

void TstModbusDriver::badInstruction_data()
{
    QTest::addColumn<QString>("instruction");
    QTest::addColumn<QVariantMap>("parameters");
    QTest::addColumn<QStringList>("expected");
    QTest::newRow("type in other case") << "read" << params("CoilsRegister", 3)
        << QStringList{"CoilsRegister register 3", "unknown register type \"CoilsRegister\""};
    QTest::newRow("write read-only inputs") << "write" << params("discreteInputs", 2, "data", 1)
        << QStringList{"discreteInputs register 2", "read-only"};
    QTest::newRow("unreduced sum 65537") << "write" << params("holdingRegisters", 65537, "data", 1)
        << QStringList{"holdingRegisters register 65537", "outside 0-65535"};
    QTest::newRow("run past 65535") << "read" << params("holdingRegisters", 65535, "dataSize", 2)
        << QStringList{"run past the end"};
    QTest::newRow("too many registers") << "read" << params("inputRegisters", 0, "dataSize", 126) << QStringList{"at most 125"};
    QTest::newRow("value too big") << "write" << params("holdingRegisters", 256, "data", 70000)
        << QStringList{"\"70000\"", "0 to 65535"};
    QTest::newRow("no data") << "write" << params("holdingRegisters", 256) << QStringList{"no \"data\""};
    QTest::newRow("unknown instruction") << "poke" << params("coilsRegister", 0) << QStringList{"unknown instruction \"poke\""};
}

void TstModbusDriver::badInstruction()
{
    QFETCH(QString, instruction);
    QFETCH(QVariantMap, parameters);
    QFETCH(QStringList, expected);
    DAbstractDriver *driver = newDriver({});
    QVERIFY(driver);
    QTest::ignoreMessage(QtWarningMsg, QRegularExpression(QStringLiteral(".")));
    const Reply reply = run(driver, instruction, parameters);
    QVERIFY(!reply.contains(QStringLiteral("values")));
    const QString error = reply.value(QStringLiteral("error")).toString();
    QVERIFY2(error.startsWith(QStringLiteral("device 127.0.0.1:%1 (unit 1)").arg(m_sim->port())), qPrintable(error));
    for (const QString &part : expected)
        QVERIFY2(error.contains(part), qPrintable(error));
    QCOMPARE(m_sim->connectionCount(), 0); // nothing was sent
}

void TstModbusDriver::exceptionAnswer()
{
    m_sim->setException(QModbusDataUnit::HoldingRegisters, 258, QModbusPdu::ServerDeviceBusy);
    DAbstractDriver *driver = newDriver({});
    QTest::ignoreMessage(QtWarningMsg, QRegularExpression(QStringLiteral("exception 6")));
    const Reply reply = run(driver, QStringLiteral("read"), params("holdingRegisters", 256, "dataSize", 4));
    QCOMPARE(reply, (Reply{{QStringLiteral("error"),
                            QStringLiteral("device 127.0.0.1:%1 (unit 1), holdingRegisters registers 256-259: "
                                           "Modbus exception 6 (server device busy)").arg(m_sim->port())}}));
    // Outside the faulty address the device answers normally.
    QCOMPARE(run(driver, QStringLiteral("read"), params("holdingRegisters", 256)).value("values"), QVariant(QVariantList{1u}));
}

void TstModbusDriver::timeoutThenNextAnswerIsItsOwn()
{
    DAbstractDriver *driver = newDriver({{"timeoutMs", 300}});
    QVERIFY(m_sim->setValue(QModbusDataUnit::HoldingRegisters, 256, 777));
    m_sim->setResponseDelay(400);
    QTest::ignoreMessage(QtWarningMsg, QRegularExpression(QStringLiteral("no answer within 300 ms")));
    QElapsedTimer clock;
    clock.start();
    const Reply late = run(driver, QStringLiteral("read"), params("inputRegisters", 5000));
    QVERIFY(clock.elapsed() < 300 + 1000);
    QCOMPARE(late, (Reply{{QStringLiteral("error"),
                           QStringLiteral("device 127.0.0.1:%1 (unit 1), inputRegisters register 5000: "
                                          "no answer within 300 ms").arg(m_sim->port())}}));
    // The late answer (0x4531) comes in while the next request waits: it must not be taken for it.
    m_sim->setResponseDelay(0);
    QCOMPARE(run(driver, QStringLiteral("read"), params("holdingRegisters", 256)),
             (Reply{{QStringLiteral("values"), QVariantList{777u}}}));
}

void TstModbusDriver::noDeviceAtAddress()
{
    const quint16 port = freePort();
    DAbstractDriver *driver = newDriver({{"port", port}, {"timeoutMs", 500}});
    QTest::ignoreMessage(QtWarningMsg, QRegularExpression(QStringLiteral("cannot connect")));
    QTest::ignoreMessage(QtWarningMsg, QRegularExpression(QStringLiteral("cannot connect")));
    QElapsedTimer clock;
    clock.start();
    const QString error = run(driver, QStringLiteral("read"), params("coilsRegister", 19)).value("error").toString();
    QVERIFY(clock.elapsed() < 500 + 1000);
    QVERIFY2(error.startsWith(QStringLiteral("device 127.0.0.1:%1 (unit 1), coilsRegister register 19: cannot connect "
                                             "to 127.0.0.1:%1: ").arg(port)), qPrintable(error));
    QVERIFY2(error.contains(QStringLiteral("Connection refused")), qPrintable(error));
}

void TstModbusDriver::connectionDroppedMidRequest()
{
    DAbstractDriver *driver = newDriver({{"timeoutMs", 1000}});
    QCOMPARE(run(driver, QStringLiteral("read"), params("coilsRegister", 0)).value("values"), QVariant(QVariantList{0u}));
    m_sim->setDropOnRequest(true);
    QTest::ignoreMessage(QtWarningMsg, QRegularExpression(QStringLiteral("lost")));
    QTest::ignoreMessage(QtWarningMsg, QRegularExpression(QStringLiteral("lost")));
    QElapsedTimer clock;
    clock.start();
    const QString error = run(driver, QStringLiteral("write"), params("coilsRegister", 4, "data", 1)).value("error").toString();
    QVERIFY(clock.elapsed() < 1000 + 1000);
    QCOMPARE(error, QStringLiteral("device 127.0.0.1:%1 (unit 1), coilsRegister register 4: connection to "
                                   "127.0.0.1:%1 lost").arg(m_sim->port()));
    QVERIFY(!m_sim->output(4));
    // The next request reopens the connection.
    m_sim->setDropOnRequest(false);
    QCOMPARE(run(driver, QStringLiteral("write"), params("coilsRegister", 4, "data", 1)).value("values"), QVariant(QVariantList{1u}));
    QVERIFY(m_sim->output(4));
}

void TstModbusDriver::stopWithdrawsQueuedRead()
{
    DAbstractDriver *driver = newDriver({});
    QSignalSpy spy(driver, &DAbstractDriver::sigInstructionReply);
    driver->startInstruction(1, QStringLiteral("read"), params("coilsRegister", 0), 1000);
    driver->startInstruction(2, QStringLiteral("read"), params("coilsRegister", 1), 1000);
    QTest::ignoreMessage(QtWarningMsg, QRegularExpression(QStringLiteral("unknown register type \"bogus\"")));
    driver->startInstruction(3, QStringLiteral("read"), params("bogus", 1), 1000);
    driver->stopInstruction(2);
    driver->stopInstruction(3);
    QTRY_COMPARE_WITH_TIMEOUT(spy.size(), 1, 2000);
    QTest::qWait(100); // nothing more may come for the stopped ones
    QCOMPARE(spy.size(), 1);
    QCOMPARE(spy.at(0).at(0).toULongLong(), 1ull);
}

void TstModbusDriver::listenResumesAfterSimulatorRestart()
{
    DAbstractDriver *driver = newDriver({{"pollIntervalMs", 20}, {"timeoutMs", 300}});
    QSignalSpy spy(driver, &DAbstractDriver::sigInstructionReply);
    driver->startInstruction(9, QStringLiteral("listen"), params("discreteInputs", 5), 1000);
    QTRY_COMPARE_WITH_TIMEOUT(spy.size(), 1, 2000);
    const quint16 port = m_sim->port();
    m_sim->stop();
    QTRY_COMPARE_WITH_TIMEOUT(spy.size(), 2, 1300);
    const QString error = spy.at(1).at(1).value<Reply>().value("error").toString();
    QVERIFY2(error.contains(QStringLiteral("discreteInputs register 5")) && error.contains(QString::number(port)),
             qPrintable(error));
    QTest::qWait(500); // several failing polls: the error is told once
    QCOMPARE(spy.size(), 2);
    m_sim->setInput(5, true);
    QString startError;
    QVERIFY2(m_sim->start(QHostAddress::LocalHost, port, &startError), qPrintable(startError));
    QTRY_COMPARE_WITH_TIMEOUT(spy.size(), 3, 2000 + 1000);
    QCOMPARE(spy.at(2).at(1).value<Reply>(), (Reply{{QStringLiteral("values"), QVariantList{1u}}}));
    driver->stopInstruction(9);
}

void TstModbusDriver::writeGoesBeforeListenPolls()
{
    DAbstractDriver *driver = newDriver({{"pollIntervalMs", 10}});
    QSignalSpy spy(driver, &DAbstractDriver::sigInstructionReply);
    for (int i = 0; i < 8; ++i)
        driver->startInstruction(50 + i, QStringLiteral("listen"), params("discreteInputs", i), 1000);
    QTRY_COMPARE_WITH_TIMEOUT(spy.size(), 8, 3000); // every listen got its turn
    m_sim->setResponseDelay(20);
    QElapsedTimer clock;
    clock.start();
    const Reply written = run(driver, QStringLiteral("write"), params("coilsRegister", 6, "data", 1));
    QCOMPARE(written.value("values"), QVariant(QVariantList{1u}));
    // At most the poll on the wire goes first, not the other seven.
    QVERIFY2(clock.elapsed() < 8 * 20, qPrintable(QString::number(clock.elapsed())));
    for (int i = 0; i < 8; ++i)
        driver->stopInstruction(50 + i);
}

void TstModbusDriver::interopWithPymodbus_data()
{
    QTest::addColumn<QString>("instruction");
    QTest::addColumn<QVariantMap>("parameters");
    QTest::addColumn<QVariantList>("expected");
    QTest::newRow("read coils") << "read" << params("coilsRegister", 0, "dataSize", 4) << QVariantList{0u, 1u, 0u, 1u};
    QTest::newRow("read input registers") << "read" << params("inputRegisters", 1, "dataSize", 3) << QVariantList{22u, 33u, 65535u};
    QTest::newRow("write coils then read") << "write" << params("coilsRegister", 0, "data", QVariantList{1, 0, 0, 0}) << QVariantList{1u, 0u, 0u, 0u};
    QTest::newRow("write register then read") << "write" << params("holdingRegisters", 1, "data", 4660) << QVariantList{100u, 4660u, 300u, 400u};
}

void TstModbusDriver::interopWithPymodbus()
{
    QFETCH(QString, instruction);
    QFETCH(QVariantMap, parameters);
    QFETCH(QVariantList, expected);
    const QString python = QStringLiteral("/usr/bin/python3");
    QProcess check;
    check.start(python, {QStringLiteral("-c"), QStringLiteral("import pymodbus.server")});
    if (!check.waitForFinished(10000) || check.exitCode() != 0)
        QSKIP("python3 with pymodbus (python3-pymodbus, python3-serial-asyncio) is not installed");

    const quint16 port = freePort();
    QProcess server;
    server.setStandardErrorFile(QProcess::nullDevice());
    server.start(python, {QStringLiteral(E1212_SOURCE_DIR "/plugins/modbus_tcp_driver/tests/pymodbus_server.py"),
                          QString::number(port), QStringLiteral("20")});
    QVERIFY(server.waitForStarted(5000));
    const auto stopServer = qScopeGuard([&server] { server.kill(); server.waitForFinished(2000); });
    QTRY_VERIFY_WITH_TIMEOUT([port] {
        QTcpSocket probe;
        probe.connectToHost(QHostAddress::LocalHost, port);
        return probe.waitForConnected(200);
    }(), 10000);

    DAbstractDriver *driver = newDriver({{"port", port}, {"unitId", 1}});
    QVERIFY(driver);
    Reply reply = run(driver, instruction, parameters);
    if (instruction == QLatin1String("write")) { // then read back from register 0
        QCOMPARE(reply, (Reply{{QStringLiteral("values"), QVariantList{1u}}}));
        reply = run(driver, QStringLiteral("read"),
                    params(parameters.value("registerType").toString(), 0, "dataSize", expected.size()));
    }
    QCOMPARE(reply, (Reply{{QStringLiteral("values"), expected}}));
}

void TstModbusDriver::benchmarkReads()
{
    DAbstractDriver *driver = newDriver({});
    QSignalSpy spy(driver, &DAbstractDriver::sigInstructionReply);
    const int count = 500;
    QElapsedTimer clock;
    clock.start();
    for (int i = 0; i < count; ++i)
        driver->startInstruction(1000 + i, QStringLiteral("read"), params("discreteInputs", 0, "dataSize", 8), 1000);
    QTRY_COMPARE_WITH_TIMEOUT(spy.size(), count, 30000);
    const double seconds = clock.nsecsElapsed() / 1e9;
    qInfo("BENCHMARK: %d reads of 8 discrete inputs in %.3f s = %.0f reads/s (%.2f ms each) over loopback",
          count, seconds, count / seconds, 1000 * seconds / count);
}

QTEST_GUILESS_MAIN(TstModbusDriver)
#include "tst_modbusdriver.moc"
