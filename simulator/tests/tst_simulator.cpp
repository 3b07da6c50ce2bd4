// SPDX-License-Identifier: MIT
// The simulator's faults, request log, connection limit and MAC address, seen by a raw
// Modbus TCP client on a real loopback connection.
#include "e1212simulator.h"

#include <QElapsedTimer>
#include <QSignalSpy>
#include <QTcpSocket>
#include <QtEndian>
#include <QtTest>

#include <memory>
#include <vector>

namespace {
constexpr int WaitMs = 5000;

// A Modbus TCP frame for unit 1 around `pdu` (function code first).
QByteArray frame(quint16 transactionId, const QByteArray &pdu)
{
    QByteArray bytes(7, '\0');
    qToBigEndian<quint16>(transactionId, bytes.data());
    qToBigEndian<quint16>(quint16(pdu.size() + 1), bytes.data() + 4);
    bytes[6] = 1;
    return bytes + pdu;
}

const QByteArray c_readCoils = QByteArray::fromHex("0100000008");
} // namespace

class TstSimulator : public QObject
{
    Q_OBJECT
    std::unique_ptr<E1212Simulator> m_sim;

    // A client connected to the simulator (not waited for).
    std::unique_ptr<QTcpSocket> connectClient()
    {
        auto socket = std::make_unique<QTcpSocket>();
        socket->connectToHost(QHostAddress::LocalHost, m_sim->port());
        return socket;
    }

    // Sends `request` and returns the first `bytes` bytes that come back (fewer on time-out).
    static QByteArray exchange(QTcpSocket &socket, const QByteArray &request, int bytes)
    {
        socket.write(request);
        QByteArray got;
        if (!QTest::qWaitFor([&] { return (got += socket.readAll()).size() >= bytes; }, WaitMs))
            qWarning("only %d of %d bytes came back", int(got.size()), bytes);
        return got;
    }

private slots:
    void init()
    {
        m_sim = std::make_unique<E1212Simulator>();
        QString error;
        QVERIFY2(m_sim->start(QHostAddress::LocalHost, 0, &error), qPrintable(error));
    }

    void cleanup() { m_sim.reset(); }

    void requestLog_data()
    {
        QTest::addColumn<QByteArray>("pdu");
        QTest::addColumn<QString>("expected");
        QTest::newRow("read coils") << c_readCoils << "fc 1 address 0 count 8";
        QTest::newRow("read inputs") << QByteArray::fromHex("0200030002") << "fc 2 address 3 count 2";
        QTest::newRow("read holding") << QByteArray::fromHex("0301000002") << "fc 3 address 256 count 2";
        QTest::newRow("read MAC") << QByteArray::fromHex("0413A00003") << "fc 4 address 5024 count 3";
        QTest::newRow("coil on") << QByteArray::fromHex("050011FF00") << "fc 5 address 17 values 1";
        QTest::newRow("coil off") << QByteArray::fromHex("0500010000") << "fc 5 address 1 values 0";
        QTest::newRow("register") << QByteArray::fromHex("06020001F4") << "fc 6 address 512 values 500";
        QTest::newRow("coils") << QByteArray::fromHex("0F0002000A02FD02") << "fc 15 address 2 values 1 0 1 1 1 1 1 1 0 1";
        QTest::newRow("registers") << QByteArray::fromHex("10010000020400640102") << "fc 16 address 256 values 100 258";
        QTest::newRow("unmapped") << QByteArray::fromHex("0100640001") << "fc 1 address 100 count 1 exception 2";
        QTest::newRow("injected") << QByteArray::fromHex("0100100001") << "fc 1 address 16 count 1 exception 4";
        QTest::newRow("unknown function") << QByteArray::fromHex("41") << "fc 65 exception 1";
        // Qt's server reads on into the next frame here and sends no exception.
        QTest::newRow("truncated") << QByteArray::fromHex("010000") << "fc 1 truncated";
    }

    // Each request is told once, when answered, with its client and the exception sent.
    void requestLog()
    {
        QFETCH(QByteArray, pdu);
        QFETCH(QString, expected);
        m_sim->setException(QModbusDataUnit::Coils, E1212Simulator::PulseStatusBase, QModbusPdu::ServerDeviceFailure);
        QSignalSpy served(m_sim.get(), &E1212Simulator::requestServed);
        auto client = connectClient();
        QTRY_COMPARE_WITH_TIMEOUT(client->state(), QAbstractSocket::ConnectedState, WaitMs);
        // Another request before it and after it: each is paired with its own answer.
        exchange(*client, frame(7, c_readCoils) + frame(8, pdu) + frame(9, c_readCoils), 10);
        QTRY_COMPARE_WITH_TIMEOUT(served.size(), 3, WaitMs);
        const auto request = served.at(1).at(0).value<SimulatorRequest>();
        QCOMPARE(request.transactionId, quint16(8));
        const QString client_ = QStringLiteral("127.0.0.1:%1").arg(client->localPort());
        QCOMPARE(request.toString(), request.time.toString(Qt::ISODateWithMs) + ' ' + client_ + ' ' + expected);
        QVERIFY(qAbs(request.time.msecsTo(QDateTime::currentDateTime())) < WaitMs);
        QCOMPARE(served.at(2).at(0).value<SimulatorRequest>().toString().section(' ', 2), "fc 1 address 0 count 8");
    }

    void frameSize_data()
    {
        QTest::addColumn<QByteArray>("bytes");
        QTest::addColumn<int>("size");
        QTest::newRow("header incomplete") << QByteArray::fromHex("000100000006") << 0;
        QTest::newRow("body missing") << QByteArray::fromHex("00010000000601010000") << 0;
        QTest::newRow("whole") << QByteArray::fromHex("000100000006010100000008") << 12;
        QTest::newRow("whole, more behind") << QByteArray::fromHex("00010000000601010000000800") << 12;
        QTest::newRow("length 1") << QByteArray::fromHex("00010000000101") << -1;
        QTest::newRow("length 2") << QByteArray::fromHex("0001000000020141") << 8;
        QTest::newRow("length 254") << QByteArray(6, '\0').replace(5, 1, "\xFE") + QByteArray(254, '\1') << 260;
        QTest::newRow("length 255") << QByteArray(6, '\0').replace(5, 1, "\xFF") + QByteArray(255, '\1') << -1;
    }

    void frameSize()
    {
        QFETCH(QByteArray, bytes);
        QFETCH(int, size);
        QCOMPARE(SimulatorRequest::frameSize(bytes), size);
    }

    void describe_data()
    {
        QTest::addColumn<QByteArray>("pdu");
        QTest::addColumn<QString>("expected");
        QTest::newRow("coil, raw value") << QByteArray::fromHex("0500031234") << "fc 5 address 3 values 4660";
        QTest::newRow("read, short") << QByteArray::fromHex("03000100") << "fc 3 truncated";
        QTest::newRow("coils, bytes missing") << QByteArray::fromHex("0F0000000A02FF") << "fc 15 truncated";
        QTest::newRow("coils, more than asked") << QByteArray::fromHex("0F0000000302FFFF") << "fc 15 address 0 values 1 1 1";
        QTest::newRow("coils, fewer than asked") << QByteArray::fromHex("0F0000000A0105") << "fc 15 address 0 values 1 0 1 0 0 0 0 0";
        QTest::newRow("registers, bytes missing") << QByteArray::fromHex("1000000002040001") << "fc 16 truncated";
        QTest::newRow("registers, odd count") << QByteArray::fromHex("100000000203000100") << "fc 16 address 0 values 1";
        QTest::newRow("no byte count") << QByteArray::fromHex("1000000002") << "fc 16 truncated";
        QTest::newRow("diagnostics") << QByteArray::fromHex("0800000000") << "fc 8";
    }

    // Requests the server would refuse are told as far as they go.
    void describe()
    {
        QFETCH(QByteArray, pdu);
        QFETCH(QString, expected);
        const SimulatorRequest request = SimulatorRequest::fromFrame(frame(3, pdu), QStringLiteral("client"));
        QCOMPARE(request.transactionId, quint16(3));
        QCOMPARE(request.toString(), " client " + expected);
    }

    void macAddress_data()
    {
        QTest::addColumn<QByteArray>("set");
        QTest::addColumn<bool>("accepted");
        QTest::addColumn<QString>("text");
        QTest::addColumn<QByteArray>("words");
        QTest::newRow("default") << QByteArray() << false << "00:90:E8:12:34:56" << QByteArray::fromHex("0090E8123456");
        QTest::newRow("set") << QByteArray::fromHex("0200ABCDEF01") << true << "02:00:AB:CD:EF:01"
                             << QByteArray::fromHex("0200ABCDEF01");
        QTest::newRow("five bytes") << QByteArray::fromHex("0200ABCDEF") << false << "00:90:E8:12:34:56"
                                    << QByteArray::fromHex("0090E8123456");
        QTest::newRow("seven bytes") << QByteArray::fromHex("0200ABCDEF0102") << false << "00:90:E8:12:34:56"
                                     << QByteArray::fromHex("0090E8123456");
    }

    void macAddress()
    {
        QFETCH(QByteArray, set);
        QFETCH(bool, accepted);
        QFETCH(QString, text);
        QFETCH(QByteArray, words);
        QCOMPARE(m_sim->setMacAddress(set), accepted);
        QCOMPARE(m_sim->macAddress(), text);
        auto client = connectClient();
        const QByteArray answer = exchange(*client, frame(1, QByteArray::fromHex("0413A00003")), 15);
        QCOMPARE(answer.toHex(), frame(1, QByteArray::fromHex("0406") + words).toHex());
    }

    // Silence holds answers back, the requests still served; the held answers follow in
    // order once it ends.
    void silence()
    {
        m_sim->setSilent(true);
        QSignalSpy served(m_sim.get(), &E1212Simulator::requestServed);
        auto client = connectClient();
        QSignalSpy answered(client.get(), &QTcpSocket::readyRead);
        client->write(frame(1, c_readCoils) + frame(2, QByteArray::fromHex("0200000008")));
        QTRY_COMPARE_WITH_TIMEOUT(served.size(), 2, WaitMs);
        QVERIFY(!answered.wait(300));
        m_sim->setSilent(false);
        QByteArray got;
        QTRY_COMPARE_WITH_TIMEOUT((got += client->readAll()).toHex(),
                                  QByteArray(frame(1, QByteArray::fromHex("010100")) + frame(2, QByteArray::fromHex("020100"))).toHex(),
                                  WaitMs);
    }
};

QTEST_GUILESS_MAIN(TstSimulator)
#include "tst_simulator.moc"
