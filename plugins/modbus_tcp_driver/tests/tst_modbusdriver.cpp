// SPDX-License-Identifier: MIT
// The Modbus TCP driver plug-in, loaded with QPluginLoader, over real loopback connections
// to the simulator and to a server that answers wrong on purpose.
#include "dabstractdriver.h"
#include "e1212simulator.h"
#include "modbusfaultserver.h"

#include <QElapsedTimer>
#include <QLoggingCategory>
#include <QPluginLoader>
#include <QScopedPointer>
#include <QSignalSpy>
#include <QTcpSocket>
#include <QtTest>

#include <arpa/inet.h>
#include <sys/socket.h>
#include <unistd.h>

using Reply = QMap<QString, QVariant>;

static QVariantMap params(const QString &type, int reg, const QVariant &extraKey = {}, const QVariant &extra = {})
{
    QVariantMap map{{QStringLiteral("registerType"), type}, {QStringLiteral("register"), reg}};
    if (extraKey.isValid())
        map.insert(extraKey.toString(), extra);
    return map;
}

static Reply values(const QVariantList &list) { return {{QStringLiteral("values"), list}}; }

namespace {
constexpr int TimeoutMs = 400;
constexpr int Restart = -1; // not a wrong answer: the server goes away and comes back
} // namespace

class TstModbusDriver : public QObject
{
    Q_OBJECT
    QPluginLoader m_loader;
    DAbstractDriver *m_root = nullptr;
    QScopedPointer<E1212Simulator> m_sim;
    QList<DAbstractDriver *> m_drivers;
    unsigned long long m_nextId = 1;

    DAbstractDriver *newDriver(QVariantMap settings, QString *error = nullptr)
    {
        if (!settings.contains(QStringLiteral("port")))
            settings.insert(QStringLiteral("port"), double(m_sim->port())); // as a JSON file gives it
        auto *driver = dynamic_cast<DAbstractDriver *>(m_root->createInstance(QUuid::createUuid()));
        m_drivers.append(driver);
        return driver && driver->configureConnection(settings, error) ? driver : nullptr;
    }

    // Starts `instruction` and waits for its one final reply.
    Reply run(DAbstractDriver *driver, const QString &instruction, const QVariantMap &parameters,
              int timeoutMs = 1000, int waitMs = 5000)
    {
        QSignalSpy spy(driver, &DAbstractDriver::sigInstructionReply);
        const unsigned long long id = m_nextId++;
        driver->startInstruction(id, instruction, parameters, timeoutMs);
        // Never answered from inside startInstruction; one final reply to this instruction.
        if (!spy.isEmpty() || !spy.wait(waitMs) || spy.size() != 1 || spy.at(0).at(0).toULongLong() != id || !spy.at(0).at(2).toBool())
            return {{QStringLiteral("error"), QStringLiteral("TEST: no single asynchronous final reply")}};
        return spy.at(0).at(1).value<Reply>();
    }

    static qulonglong statistic(DAbstractDriver *driver, const char *name)
    {
        QVariantMap statistics;
        QMetaObject::invokeMethod(driver, "connectionStatistics", Q_RETURN_ARG(QVariantMap, statistics));
        return statistics.value(QLatin1String(name), ~0ull).toULongLong();
    }

private slots:
    void initTestCase()
    {
        m_loader.setFileName(QStringLiteral(E1212_PLUGIN_DIR "/libmodbus_tcp_driver.so"));
        QVERIFY2(m_loader.load(), qPrintable(m_loader.errorString()));
        m_root = qobject_cast<DAbstractDriver *>(m_loader.instance());
        QVERIFY(m_root);
        QLoggingCategory::setFilterRules(QStringLiteral("e1212.modbus.warning=false"));
    }

    void init()
    {
        m_sim.reset(new E1212Simulator);
        QString error;
        QVERIFY2(m_sim->start(QHostAddress::LocalHost, 0, &error), qPrintable(error));
    }

    void cleanup() { qDeleteAll(m_drivers), m_drivers.clear(), m_sim.reset(); }

    void badSettings_data()
    {
        QTest::addColumn<QVariantMap>("settings");
        QTest::addColumn<QString>("expected");
        QTest::newRow("port 0") << QVariantMap{{"port", 0}} << "connection/port: 0 is not a whole number from 1 to 65535";
        QTest::newRow("empty host") << QVariantMap{{"host", ""}} << "connection/host: expected a host name";
        QTest::newRow("unit 256") << QVariantMap{{"unitId", 256}} << "connection/unitId: 256 is not a whole number from 0 to 255";
        QTest::newRow("time-out 0") << QVariantMap{{"timeoutMs", 0}} << "connection/timeoutMs: 0 is not a whole number from 1 to 3600000";
        QTest::newRow("fraction") << QVariantMap{{"pollIntervalMs", 1.5}} << "connection/pollIntervalMs: 1.5 is not a whole number";
        QTest::newRow("typo") << QVariantMap{{"timeoutms", 100}} << "connection/timeoutms: unknown key";
    }

    void badSettings()
    {
        QFETCH(QVariantMap, settings);
        QFETCH(QString, expected);
        QString error;
        QVERIFY(!newDriver(settings, &error));
        QVERIFY2(error.startsWith(expected), qPrintable(error));
        // Left unconfigured, the instance refuses every instruction.
        const Reply reply = run(m_drivers.last(), QStringLiteral("read"), params("coilsRegister", 0));
        QCOMPARE(reply.value(QStringLiteral("error")).toString(), QStringLiteral("no connection configured for this driver instance"));
        QCOMPARE(DError::fromReply(reply).code, IMessenger::CeNoConnection);
    }

    void badInstruction_data()
    {
        QTest::addColumn<QString>("instruction");
        QTest::addColumn<QVariantMap>("parameters");
        QTest::addColumn<QString>("expected"); // after "device <address> (unit 1), "
        const auto row = [](const char *name, const char *instruction, const QVariantMap &parameters, const QString &expected) {
            QTest::newRow(name) << QString::fromLatin1(instruction) << parameters << expected;
        };
        row("type in other case", "read", params("CoilsRegister", 3), "CoilsRegister register 3: unknown register type "
            "\"CoilsRegister\" (expected coilsRegister, discreteInputs, inputRegisters or holdingRegisters)");
        row("write read-only inputs", "write", params("discreteInputs", 2, "data", 1), "discreteInputs register 2: discreteInputs is read-only, it cannot be written");
        row("no register", "read", {{"registerType", "coilsRegister"}}, "coilsRegister register (none): no \"register\" given");
        row("unreduced sum 65537", "write", params("holdingRegisters", 65537, "data", 1), "holdingRegisters register 65537: address 65537 is outside 0-65535");
        row("run past 65535", "read", params("holdingRegisters", 65535, "dataSize", 2),
            "holdingRegisters register 65535: 2 addresses from 65535 run past the end of the table (last address 65535)");
        row("too many registers", "read", params("inputRegisters", 0, "dataSize", 126), "inputRegisters register 0: 126 values to read in one request, at most 125 allowed");
        row("too many bits", "read", params("coilsRegister", 0, "dataSize", 65535), "coilsRegister register 0: 65535 values to read in one request, at most 2000 allowed");
        row("too many coils", "write", params("coilsRegister", 0, "data", QVector<QVariant>(1969, 1).toList()),
            "coilsRegister register 0: 1969 values to write in one request, at most 1968 allowed");
        row("value too big", "write", params("holdingRegisters", 256, "data", 70000),
            "holdingRegisters register 256: data value \"70000\" for address 256 is not a number from 0 to 65535");
        row("unknown instruction", "poke", params("coilsRegister", 0), "unknown instruction \"poke\" (expected read, write or listen)");
    }

    void badInstruction()
    {
        QFETCH(QString, instruction);
        QFETCH(QVariantMap, parameters);
        QFETCH(QString, expected);
        DAbstractDriver *driver = newDriver({});
        QVERIFY(driver);
        const Reply reply = run(driver, instruction, parameters);
        QCOMPARE(DError::fromReply(reply).code, IMessenger::CeBadInstruction);
        QCOMPARE(reply.value(QStringLiteral("error")).toString(), QStringLiteral("device 127.0.0.1:%1 (unit 1), %2").arg(m_sim->port()).arg(expected));
        QCOMPARE(m_sim->connectionCount(), 0); // nothing was sent
    }

    void faults_data()
    {
        QTest::addColumn<int>("fault");
        QTest::addColumn<QString>("instruction"); // "queued": three reads at once; "write two": a list
        QTest::addColumn<int>("code");            // what the caller sees
        QTest::addColumn<int>("boundMs");         // at most, from the fault to that reply
        QTest::addColumn<QString>("text");        // how the error goes on after "device <address> (unit 1), <register>: "
        QTest::addColumn<int>("discarded");       // late answers dropped by the end
        using F = ModbusFaultServer;
        const auto row = [](const char *name, int fault, const char *instruction, int code, const QString &text,
                            int boundMs = TimeoutMs + 1000, int discarded = 0) {
            QTest::newRow(name) << fault << QString::fromLatin1(instruction) << code << boundMs << text << discarded;
        };
        const int bad = IMessenger::CeMalformedReply, timeout = IMessenger::CeTimeout, lost = IMessenger::CeNoConnection;
        const QString malformed = QStringLiteral("malformed reply: "), late = QStringLiteral("no answer within 400 ms");
        row("truncated frame", F::Truncated, "read", bad, malformed + "only 8 bytes within 400 ms");
        row("length 0", F::LengthZero, "read", bad, malformed + "length field 0, expected 3 to 254");
        row("length 0xFFFF", F::LengthMax, "read", bad, malformed + "length field 65535, expected 3 to 254");
        row("random bytes", F::RandomBytes, "read", bad, malformed);
        row("bytes after the answer", F::TrailingBytes, "read", bad, malformed + "3 bytes after a frame whose length field is 4");
        row("transaction id never sent", F::WrongTransaction, "read", bad, malformed + "transaction id 2, expected 1");
        row("transaction id before the first", F::EarlierTransaction, "read", bad, malformed + "transaction id 0, expected 1");
        row("wrong unit id", F::WrongUnit, "read", bad, malformed + "unit id 2, expected 1");
        row("protocol id 1", F::ProtocolOne, "read", bad, malformed + "protocol id 1, expected 0");
        row("sister function code, read", F::SisterFunction, "read", bad, malformed + "function code 1, expected 2");
        row("sister function code, write", F::SisterFunction, "write", bad, malformed + "function code 6, expected 5");
        row("write echo, other address", F::WrongAddress, "write", bad, malformed + "write echo names address 4, expected 3");
        row("write echo, other value", F::WrongValue, "write", bad, malformed + "write echo carries value 65281, expected 65280");
        row("write echo, other quantity", F::WrongValue, "write two", bad, malformed + "write echo carries quantity 3, expected 2");
        row("exception", F::Exception, "write", IMessenger::CeModbusException, "Modbus exception 6 (server device busy)");
        row("silent", F::Silent, "read", timeout, late);
        row("answer after the time-out, dropped while the next is out", F::Slow, "read", timeout, late, TimeoutMs + 1000, 1);
        row("slow but in time, queued behind two others", F::Slow, "queued", IMessenger::CeNoError, {}, 3 * TimeoutMs + 1000);
        row("dropped mid-request", F::Drop, "write", lost, "connection to 127.0.0.1:");
        row("no server", Restart, "read", lost, "cannot connect to 127.0.0.1:");
        row("listen: truncated frame", F::Truncated, "listen", bad, malformed + "only 8 bytes within 400 ms");
        row("listen: silent", F::Silent, "listen", timeout, late);
        row("listen: restart", Restart, "listen", lost, "cannot connect to 127.0.0.1:");
    }

    // Each fault ends with its code within its bound; once the server answers right again the
    // next request gets its own answer and a listen reports again (having told the outage once).
    void faults()
    {
        QFETCH(int, fault);
        QFETCH(QString, instruction);
        QFETCH(int, code);
        QFETCH(int, boundMs);
        QFETCH(QString, text);
        QFETCH(int, discarded);
        const bool listen = instruction == QLatin1String("listen"), queued = instruction == QLatin1String("queued");
        ModbusFaultServer server;
        QVERIFY(server.start());
        const quint16 port = server.serverPort();
        DAbstractDriver *driver = newDriver({{"port", port}, {"pollIntervalMs", 20}});
        QVERIFY(driver);
        const QVariantMap read = params("discreteInputs", 2);
        QSignalSpy spy(driver, &DAbstractDriver::sigInstructionReply);
        if (listen) {
            driver->startInstruction(m_nextId++, instruction, read, TimeoutMs);
            QTRY_COMPARE_WITH_TIMEOUT(spy.size(), 1, 2000);
        }

        QElapsedTimer clock;
        clock.start();
        // A slow answer comes after the time-out, or in time for each of three queued reads.
        fault == Restart ? server.stop() : server.setFault(ModbusFaultServer::Fault(fault), queued ? TimeoutMs - 150 : TimeoutMs + 100);
        Reply reply;
        if (listen || queued) {
            for (int i = 0; queued && i < 3; ++i)
                driver->startInstruction(m_nextId++, QStringLiteral("read"), read, TimeoutMs);
            QTRY_COMPARE_WITH_TIMEOUT(spy.size(), listen ? 2 : 3, boundMs + 500);
            for (int i = 0; queued && i < 3; ++i)
                QCOMPARE(spy.at(i).at(1).value<Reply>(), values({0u}));
            QCOMPARE(spy.last().at(2).toBool(), queued); // a listen's report of the outage is not its end
            reply = spy.last().at(1).value<Reply>();
        } else {
            const QVariant data = instruction == QLatin1String("write two") ? QVariant(QVariantList{1, 0}) : QVariant(1);
            reply = run(driver, instruction.left(5), instruction == QLatin1String("read") ? read : params("coilsRegister", 3, "data", data), TimeoutMs, boundMs + 500);
        }
        QVERIFY2(clock.elapsed() <= boundMs, qPrintable(QString::number(clock.elapsed())));
        const DError error = DError::fromReply(reply);
        QVERIFY2(error.code == code && error.exceptionCode == (code == IMessenger::CeModbusException ? 6 : 0), qPrintable(error.text));
        const QString where = instruction == QLatin1String("write") ? "coilsRegister register 3"
                            : instruction == QLatin1String("write two") ? "coilsRegister registers 3-4" : "discreteInputs register 2";
        QVERIFY2(code == IMessenger::CeNoError || error.text.startsWith(QStringLiteral("device 127.0.0.1:%1 (unit 1), %2: %3").arg(port).arg(where, text)),
                 qPrintable(error.text));

        if (fault == Restart)
            QVERIFY(server.start(port));
        // The next request is still out when any late byte of the broken exchange comes.
        server.setFault(ModbusFaultServer::Slow, TimeoutMs / 2 + 50);
        if (listen) // resumes within the longest back-off and one poll
            QTRY_COMPARE_WITH_TIMEOUT(spy.size() > 2 ? spy.at(2).at(1).value<Reply>() : Reply(), values({0u}), 2000 + TimeoutMs + 1000);
        else
            QCOMPARE(run(driver, QStringLiteral("read"), read, TimeoutMs), values({0u}));
        QCOMPARE(statistic(driver, "discardedAnswers"), qulonglong(discarded));
    }

    // A time-out keeps the connection for the late answer; a second one in a row with not a
    // byte between opens a new connection.
    void timeoutsInARow()
    {
        ModbusFaultServer server;
        QVERIFY(server.start());
        DAbstractDriver *driver = newDriver({{"port", server.serverPort()}});
        const QVariantMap read = params("discreteInputs", 2);
        const auto timedOut = [&] { return DError::fromReply(run(driver, QStringLiteral("read"), read, 200)).code == IMessenger::CeTimeout; };
        // Each late answer comes while the next request is out, so each time-out is the first in a row.
        server.setFault(ModbusFaultServer::Slow, 300);
        QVERIFY(timedOut() && timedOut() && timedOut());
        QTRY_COMPARE_WITH_TIMEOUT(statistic(driver, "discardedAnswers"), 3ull, 2000);
        server.setFault(ModbusFaultServer::Silent);
        QVERIFY(timedOut());
        QCOMPARE(statistic(driver, "connections"), 1ull);
        QVERIFY(timedOut());
        server.setFault(ModbusFaultServer::None);
        QCOMPARE(run(driver, QStringLiteral("read"), read, TimeoutMs), values({0u}));
        QCOMPARE(statistic(driver, "connections"), 2ull);
        QCOMPARE(statistic(driver, "requests"), 6ull);
    }

    void sixteenListensShareTwoReads()
    {
        const int interval = 40;
        DAbstractDriver *driver = newDriver({{"pollIntervalMs", interval}});
        QSignalSpy spy(driver, &DAbstractDriver::sigInstructionReply);
        m_sim->setInput(3, true);
        for (int i = 0; i < 16; ++i) // DI0-DI7, the pulse on-widths of DO0-DO7 (1 ms)
            driver->startInstruction(100 + i, QStringLiteral("listen"),
                                     params(i < 8 ? "discreteInputs" : "holdingRegisters", i < 8 ? i : i + 248), 1000);
        QTRY_COMPARE_WITH_TIMEOUT(spy.size(), 16, 2000);
        for (const QList<QVariant> &each : qAsConst(spy))
            QCOMPARE(each.at(1).value<Reply>(), values({each.at(0).toULongLong() == 103 || each.at(0).toULongLong() >= 108 ? 1u : 0u}));

        // At most two requests per interval: twenty requests take at least ten intervals.
        const int before = m_sim->requestCount();
        QElapsedTimer clock;
        clock.start();
        QTRY_VERIFY_WITH_TIMEOUT(m_sim->requestCount() >= before + 20, 5000);
        QVERIFY2(clock.elapsed() >= 9 * interval, qPrintable(QString::number(clock.elapsed())));
        QCOMPARE(spy.size(), 16);

        // A change goes to its own listener; a stopped one hears nothing more.
        driver->stopInstruction(105);
        m_sim->setInput(5, true);
        m_sim->setInput(6, true);
        QTRY_COMPARE_WITH_TIMEOUT(spy.size(), 17, 2000);
        QCOMPARE(spy.at(16).at(0).toULongLong(), 106ull);

        // An exception at one address is that listener's alone; its neighbours go on.
        m_sim->setException(QModbusDataUnit::DiscreteInputs, 4, QModbusPdu::ServerDeviceBusy);
        m_sim->setInput(7, true);
        QTRY_COMPARE_WITH_TIMEOUT(spy.size(), 19, 2000);
        QCOMPARE(spy.at(17).at(0).toULongLong(), 104ull);
        QCOMPARE(DError::fromReply(spy.at(17).at(1).value<Reply>()).exceptionCode, 6);
        QCOMPARE(spy.at(18).at(0).toULongLong(), 107ull);
        QCOMPARE(spy.at(18).at(1).value<Reply>(), values({1u}));
    }

    void stopWithdrawsQueuedRead()
    {
        DAbstractDriver *driver = newDriver({});
        QCOMPARE(run(driver, QStringLiteral("read"), params("coilsRegister", 0)), values({0u})); // connected: the next read goes out at once
        QSignalSpy spy(driver, &DAbstractDriver::sigInstructionReply);
        driver->startInstruction(1, QStringLiteral("read"), params("coilsRegister", 0), 1000);
        driver->startInstruction(2, QStringLiteral("read"), params("coilsRegister", 1), 1000);
        driver->startInstruction(3, QStringLiteral("read"), params("bogus", 1), 1000);
        driver->stopInstruction(2);
        driver->stopInstruction(3);
        // Answers keep their order: once the next read is answered, nothing came for the stopped ones.
        driver->startInstruction(4, QStringLiteral("read"), params("coilsRegister", 2), 1000);
        QTRY_COMPARE_WITH_TIMEOUT(spy.size(), 2, 2000);
        QCOMPARE(QString::number(spy.at(0).at(0).toULongLong()) + QString::number(spy.at(1).at(0).toULongLong()), QStringLiteral("14"));
    }

    void unansweredConnect()
    {
        // A listening socket whose accept queue is full leaves the next handshake unanswered.
        const int fd = ::socket(AF_INET, SOCK_STREAM, 0);
        sockaddr_in address{AF_INET, 0, {htonl(INADDR_LOOPBACK)}, {}};
        socklen_t size = sizeof address;
        QVERIFY(::bind(fd, reinterpret_cast<sockaddr *>(&address), size) == 0 && ::listen(fd, 0) == 0
                && ::getsockname(fd, reinterpret_cast<sockaddr *>(&address), &size) == 0);
        const quint16 port = ntohs(address.sin_port);
        QTcpSocket filler;
        filler.connectToHost(QHostAddress::LocalHost, port);
        QVERIFY(filler.waitForConnected(1000));
        const Reply reply = run(newDriver({{"port", port}}), QStringLiteral("read"), params("discreteInputs", 2), 300);
        ::close(fd);
        QCOMPARE(DError::fromReply(reply).code, IMessenger::CeTimeout);
        QCOMPARE(reply.value(QStringLiteral("error")).toString(), QStringLiteral("device 127.0.0.1:%1 (unit 1), discreteInputs register 2: "
                                                                                 "cannot connect to 127.0.0.1:%1: no connection within 300 ms").arg(port));
    }

    void unsolicitedBytesReopen()
    {
        ModbusFaultServer server;
        QVERIFY(server.start());
        DAbstractDriver *driver = newDriver({{"port", server.serverPort()}});
        server.setFault(ModbusFaultServer::Unsolicited, 50);
        QCOMPARE(run(driver, QStringLiteral("read"), params("discreteInputs", 2)), values({0u}));
        // A frame for an id not yet asked comes while nothing is out: that connection is dropped,
        // the next request opens a new one.
        QTRY_COMPARE_WITH_TIMEOUT(server.connectionCount(), 0, 2000);
        // An id answered on the old connection was never sent on the new one.
        server.setFault(ModbusFaultServer::EarlierTransaction);
        const Reply reply = run(driver, QStringLiteral("read"), params("discreteInputs", 2));
        QVERIFY2(reply.value(QStringLiteral("error")).toString().endsWith(QStringLiteral("malformed reply: transaction id 1, expected 2")),
                 qPrintable(reply.value(QStringLiteral("error")).toString()));
        server.setFault(ModbusFaultServer::None);
        QCOMPARE(run(driver, QStringLiteral("read"), params("discreteInputs", 2)), values({0u}));
        QCOMPARE(statistic(driver, "discardedAnswers"), 0ull);
    }
};

QTEST_GUILESS_MAIN(TstModbusDriver)
#include "tst_modbusdriver.moc"
