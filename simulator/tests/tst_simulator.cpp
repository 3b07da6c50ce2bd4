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
        QTest::newRow("read MAC") << QByteArray::fromHex("0413A00003") << "fc 4 address 5024 count 3";
        QTest::newRow("coil on") << QByteArray::fromHex("050011FF00") << "fc 5 address 17 values 1";
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
};

QTEST_GUILESS_MAIN(TstSimulator)
#include "tst_simulator.moc"
