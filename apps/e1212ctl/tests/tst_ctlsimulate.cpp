// SPDX-License-Identifier: MIT
// e1212ctl simulate as a rehearsal runs it: the process served on a free loopback port and
// read by a client that is not ours (mbpoll), or by a raw socket where the bytes matter.
#include <QProcess>
#include <QRegularExpression>
#include <QTcpSocket>
#include <QtEndian>
#include <QtTest>

#include <memory>
#include <vector>

namespace {
constexpr int WaitMs = 10000;
const QString c_ctl = QStringLiteral(E1212_BUILD_DIR "/bin/e1212ctl");

struct Outcome
{
    int exitCode = -1;
    QString output;
    qint64 ms = 0;
};

// Runs `program` to its end (bounded), its two output channels merged.
Outcome run(const QString &program, const QStringList &arguments)
{
    QProcess process;
    process.setProcessChannelMode(QProcess::MergedChannels);
    QSignalSpy finished(&process, qOverload<int, QProcess::ExitStatus>(&QProcess::finished));
    QElapsedTimer clock;
    clock.start();
    process.start(program, arguments);
    Outcome outcome;
    if (finished.wait(WaitMs) && process.exitStatus() == QProcess::NormalExit)
        outcome.exitCode = process.exitCode();
    else
        process.kill();
    outcome.ms = clock.elapsed();
    outcome.output = QString::fromUtf8(process.readAll());
    return outcome;
}

// mbpoll reading (or, with values, writing) the simulator at `port`, PDU addressing.
Outcome mbpoll(quint16 port, const QStringList &options, const QStringList &values = {})
{
    return run(QStringLiteral("mbpoll"), QStringList{"-m", "tcp", "-a", "1", "-p", QString::number(port), "-0", "-1"}
                                             + options + QStringList{"127.0.0.1"} + values);
}
} // namespace

class TstCtlSimulate : public QObject
{
    Q_OBJECT

    struct Simulator
    {
        std::unique_ptr<QProcess> process;
        quint16 port = 0;
        QString mac;
    };
    std::vector<Simulator> m_simulators;

    // Starts `e1212ctl simulate --listen 127.0.0.1:0 ARGS` and waits for its first line.
    Simulator &serve(const QStringList &arguments)
    {
        m_simulators.push_back({std::make_unique<QProcess>(), 0, QString()});
        Simulator &simulator = m_simulators.back();
        simulator.process->start(c_ctl, QStringList{"simulate", "--listen", "127.0.0.1:0"} + arguments);
        static const QRegularExpression banner(QStringLiteral("MAC ([0-9A-F:]{17})\\) listening on 127\\.0\\.0\\.1:(\\d+);"));
        QRegularExpressionMatch match;
        if (QTest::qWaitFor([&] { return (match = banner.match(QString::fromUtf8(simulator.process->peek(4096)))).hasMatch(); },
                            WaitMs)) {
            simulator.port = quint16(match.captured(2).toUInt());
            simulator.mac = match.captured(1);
        }
        return simulator;
    }

    // Stops a simulator (SIGTERM) and returns all it printed.
    static QString stop(Simulator &simulator)
    {
        QSignalSpy finished(simulator.process.get(), qOverload<int, QProcess::ExitStatus>(&QProcess::finished));
        simulator.process->terminate();
        if (!finished.wait(WaitMs))
            simulator.process->kill();
        return QString::fromUtf8(simulator.process->readAllStandardOutput());
    }

private slots:
    void initTestCase() { qRegisterMetaType<QProcess::ExitStatus>(); }

    void cleanup()
    {
        for (Simulator &simulator : m_simulators)
            if (simulator.process->state() != QProcess::NotRunning)
                stop(simulator);
        m_simulators.clear();
    }

    void refusals_data()
    {
        QTest::addColumn<QStringList>("arguments");
        QTest::addColumn<QString>("error");
        const QString notNumber = QStringLiteral("%1 \"%2\" is not a whole number from %3 to %4 (decimal or 0x hexadecimal)");
        const QString notMac = QStringLiteral("--mac \"%1\" is not six two-digit hexadecimal bytes separated by colons (XX:XX:XX:XX:XX:XX)");
        const QString notFault = QStringLiteral("--fault \"%1\" is not silence, delay:MS, exception:TABLE:ADDRESS:CODE, duplicate, garbage or random");
        QTest::newRow("latency 60001") << QStringList{"--latency", "60001"} << notNumber.arg("--latency", "60001").arg(0).arg(60000);
        QTest::newRow("connections 0") << QStringList{"--max-connections", "0"} << notNumber.arg("--max-connections", "0").arg(1).arg(64);
        QTest::newRow("connections 65") << QStringList{"--max-connections", "65"} << notNumber.arg("--max-connections", "65").arg(1).arg(64);
        QTest::newRow("MAC of five bytes") << QStringList{"--mac", "00:90:E8:12:34"} << notMac.arg("00:90:E8:12:34");
        QTest::newRow("unknown fault") << QStringList{"--fault", "drop"} << notFault.arg("drop");
        QTest::newRow("exception without code") << QStringList{"--fault", "exception:coils:16"} << notFault.arg("exception:coils:16");
        QTest::newRow("unknown table") << QStringList{"--fault", "exception:coil:16:2"}
                                       << "--fault \"exception:coil:16:2\": table \"coil\" is not coils, discreteInputs, inputRegisters or holdingRegisters";
        QTest::newRow("address 65536") << QStringList{"--fault", "exception:coils:65536:2"}
                                       << notNumber.arg("--fault \"exception:coils:65536:2\": ADDRESS", "65536").arg(0).arg(65535);
        QTest::newRow("code 0") << QStringList{"--fault", "exception:coils:16:0"}
                                << notNumber.arg("--fault \"exception:coils:16:0\": CODE", "0").arg(1).arg(255);
        QTest::newRow("code 256") << QStringList{"--fault", "exception:inputRegisters:16:256"}
                                  << notNumber.arg("--fault \"exception:inputRegisters:16:256\": CODE", "256").arg(1).arg(255);
        QTest::newRow("delay 60001") << QStringList{"--fault", "delay:60001"}
                                     << notNumber.arg("--fault \"delay:60001\": MS", "60001").arg(0).arg(60000);
        const QString twice = QStringLiteral("--latency and --fault delay:MS set the same delay; give it once");
        QTest::newRow("latency and delay") << QStringList{"--latency", "5", "--fault", "delay:5"} << twice;
        QTest::newRow("delay twice") << QStringList{"--fault", "delay:5", "--fault", "duplicate", "--fault", "delay:6"} << twice;
        QTest::newRow("random and silence") << QStringList{"--fault", "random", "--fault", "silence"}
                                            << QString("--fault random switches silence and garbage itself; give neither with it");
        QTest::newRow("bad after good") << QStringList{"--fault", "duplicate", "--fault", "garbage", "--fault", "late"} << notFault.arg("late");
    }

    // A bad option is refused with one line and status 2 before anything listens.
    void refusals()
    {
        QFETCH(QStringList, arguments);
        QFETCH(QString, error);
        const Outcome outcome = run(c_ctl, QStringList{"simulate", "--listen", "127.0.0.1:0"} + arguments);
        QCOMPARE(outcome.output, "e1212ctl: " + error + '\n');
        QCOMPARE(outcome.exitCode, 2);
    }

    void withMbpoll_data()
    {
        QTest::addColumn<QStringList>("arguments");
        QTest::addColumn<int>("held");          // raw connections made before mbpoll's
        QTest::addColumn<QStringList>("poll");  // mbpoll's options, then "=" and values to write
        QTest::addColumn<bool>("ok");
        QTest::addColumn<QString>("output");    // a pattern in mbpoll's output
        QTest::addColumn<int>("atLeastMs");
        QTest::addColumn<QString>("line");      // a pattern of a whole line the simulator printed
        QTest::addColumn<int>("refused");
        const QString time = QStringLiteral("^\\d{4}-\\d\\d-\\d\\dT\\d\\d:\\d\\d:\\d\\d\\.\\d{3} 127\\.0\\.0\\.1:\\d+ ");
        const QStringList coils{"-t", "0", "-r", "0", "-c", "8"};
        QTest::newRow("MAC") << QStringList{"--mac", "02:00:00:AB:cd:EF"} << 0 << QStringList{"-t", "3:hex", "-r", "5024", "-c", "3"}
                             << true << "\\[5024\\]: \t0x0200\\s+\\[5025\\]: \t0x00AB\\s+\\[5026\\]: \t0xCDEF\\s" << 0 << "" << 0;
        QTest::newRow("exception") << QStringList{"--fault", "exception:coils:16:2"} << 0 << QStringList{"-t", "0", "-r", "16"}
                                   << false << "Illegal data address" << 0 << "" << 0;
        QTest::newRow("exception 3, discrete inputs") << QStringList{"--fault", "exception:discreteInputs:7:3"} << 0
                                                      << QStringList{"-t", "1", "-r", "0", "-c", "8"} << false << "Illegal data value" << 0 << "" << 0;
        QTest::newRow("exception elsewhere") << QStringList{"--fault", "exception:coils:16:2"} << 0 << coils
                                             << true << "\\[7\\]: \t0" << 0 << "" << 0;
        QTest::newRow("latency") << QStringList{"--latency", "400"} << 0 << coils << true << "\\[7\\]: \t0" << 400 << "" << 0;
        QTest::newRow("silence") << QStringList{"--fault", "silence", "--log"} << 0 << QStringList{"-t", "0", "-r", "3", "-o", "0.5"}
                                 << false << "timed out" << 500 << time + "fc 1 address 3 count 1$" << 0;
        QTest::newRow("garbage") << QStringList{"--fault", "garbage"} << 0 << coils << false << "failed" << 0 << "" << 0;
        QTest::newRow("log read") << QStringList{"--log"} << 0 << coils << true << "\\[7\\]: \t0" << 0
                                  << time + "fc 1 address 0 count 8$" << 0;
        QTest::newRow("log write") << QStringList{"--log"} << 0 << QStringList{"-t", "0", "-r", "3", "=", "1"} << true
                                   << "Written 1 references" << 0 << time + "fc 5 address 3 values 1$" << 0;
        QTest::newRow("log registers") << QStringList{"--log"} << 0 << QStringList{"-t", "4", "-r", "256", "=", "100", "200"} << true
                                       << "Written 2 references" << 0 << time + "fc 16 address 256 values 100 200$" << 0;
        QTest::newRow("log exception") << QStringList{"--log", "--fault", "exception:coils:16:2"} << 0 << QStringList{"-t", "0", "-r", "16"}
                                       << false << "Illegal data address" << 0 << time + "fc 1 address 16 count 1 exception 2$" << 0;
        QTest::newRow("limit reached") << QStringList{"--max-connections", "1", "--log"} << 1 << coils << false << "failed" << 0
                                       << time + "refused: 1 clients connected, the limit \\(1 refused so far\\)$" << 1;
        QTest::newRow("limit not reached") << QStringList{"--max-connections", "2"} << 1 << coils << true << "\\[7\\]: \t0" << 0 << "" << 0;
    }

    // Each option as mbpoll sees it, and what the simulator prints meanwhile and at its end.
    void withMbpoll()
    {
        QFETCH(QStringList, arguments);
        QFETCH(int, held);
        QFETCH(QStringList, poll);
        QFETCH(bool, ok);
        QFETCH(QString, output);
        QFETCH(int, atLeastMs);
        QFETCH(QString, line);
        QFETCH(int, refused);
        Simulator &simulator = serve(arguments);
        QVERIFY(simulator.port != 0);
        std::vector<std::unique_ptr<QTcpSocket>> sockets;
        for (int i = 0; i < held; ++i) {
            sockets.push_back(std::make_unique<QTcpSocket>());
            QSignalSpy connected(sockets.back().get(), &QTcpSocket::connected);
            sockets.back()->connectToHost(QHostAddress::LocalHost, simulator.port);
            QVERIFY(connected.wait(WaitMs));
        }
        const int split = poll.indexOf(QStringLiteral("="));
        const Outcome outcome = mbpoll(simulator.port, poll.mid(0, split), split < 0 ? QStringList() : poll.mid(split + 1));
        QVERIFY2(outcome.output.contains(QRegularExpression(output)), qPrintable(outcome.output));
        QCOMPARE(outcome.exitCode == 0, ok);
        QVERIFY2(outcome.ms >= atLeastMs, qPrintable(QString::number(outcome.ms)));
        // The held connections are still served.
        for (auto &socket : sockets) {
            QSignalSpy answered(socket.get(), &QTcpSocket::readyRead);
            socket->write(QByteArray::fromHex("000100000006010200000008"));
            QVERIFY(answered.wait(WaitMs));
        }
        const QString printed = stop(simulator);
        if (!line.isEmpty())
            QVERIFY2(printed.contains(QRegularExpression(line, QRegularExpression::MultilineOption)), qPrintable(printed));
        QVERIFY2(printed.endsWith(QStringLiteral(" connections refused\n")), qPrintable(printed));
        QCOMPARE(printed.section(' ', -3, -3).toInt(), refused);
    }

    // Without --mac two simulators tell themselves apart: 00:90:E8:00 and their port.
    void defaultMac()
    {
        const quint16 ports[2] = {serve({}).port, serve({}).port};
        for (int i = 0; i < 2; ++i) {
            QVERIFY(ports[i] != 0);
            const QString expected = QStringLiteral("00:90:E8:00:%1:%2").arg(ports[i] >> 8, 2, 16, QLatin1Char('0'))
                                         .arg(ports[i] & 0xFF, 2, 16, QLatin1Char('0')).toUpper();
            QCOMPARE(m_simulators.at(size_t(i)).mac, expected);
            const Outcome outcome = mbpoll(ports[i], {"-t", "3:hex", "-r", "5024", "-c", "3"});
            const QString words = QStringLiteral("[5024]: \t0x0090\n[5025]: \t0xE800\n[5026]: \t0x%1\n")
                                      .arg(ports[i], 4, 16, QLatin1Char('0')).toUpper().replace("0X", "0x");
            QVERIFY2(outcome.output.contains(words), qPrintable(outcome.output));
        }
        QVERIFY(m_simulators.at(0).mac != m_simulators.at(1).mac);
    }

    // Input lines on stdin, one of them in two pieces, reach the inputs a client reads.
    void inputsFromStdin()
    {
        Simulator &simulator = serve({"--input", "DI0=1"});
        simulator.process->write("DI2=1\nDI5");
        QTRY_VERIFY_WITH_TIMEOUT(simulator.process->peek(4096).contains("\nDI2=1\n"), WaitMs);
        simulator.process->write("=1\n");
        QTRY_VERIFY_WITH_TIMEOUT(simulator.process->peek(4096).contains("\nDI5=1\n"), WaitMs);
        const Outcome outcome = mbpoll(simulator.port, {"-t", "1", "-r", "0", "-c", "8"});
        QVERIFY2(outcome.output.contains("[0]: \t1\n[1]: \t0\n[2]: \t1\n[3]: \t0\n[4]: \t0\n[5]: \t1\n"), qPrintable(outcome.output));
    }

    // A duplicate answer on the wire: each of two requests answered twice, in order.
    void duplicate()
    {
        Simulator &simulator = serve({"--fault", "duplicate", "--input", "DI1=1"});
        QTcpSocket socket;
        socket.connectToHost(QHostAddress::LocalHost, simulator.port);
        socket.write(QByteArray::fromHex("000100000006010200000008"));
        const QByteArray first = QByteArray::fromHex("00010000000401020102");
        QByteArray got;
        QTRY_COMPARE_WITH_TIMEOUT((got += socket.readAll()).toHex(), QByteArray(first + first).toHex(), WaitMs);
        socket.write(QByteArray::fromHex("000200000006010200000008"));
        const QByteArray second = QByteArray::fromHex("00020000000401020102");
        QTRY_COMPARE_WITH_TIMEOUT((got += socket.readAll()).toHex(), QByteArray(first + first + second + second).toHex(), WaitMs);
    }
};

QTEST_GUILESS_MAIN(TstCtlSimulate)
#include "tst_ctlsimulate.moc"
