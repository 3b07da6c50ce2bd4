// SPDX-License-Identifier: MIT
// The E1212 simulator as a Modbus client meets it: pulse generator, faults, dropped connections.
#include "e1212simulator.h"

#include <QElapsedTimer>
#include <QModbusReply>
#include <QModbusTcpClient>
#include <QSignalSpy>
#include <QtTest>

class TstE1212Simulator : public QObject
{
    Q_OBJECT
private slots:
    void init();
    void cleanup();

    void pulseGeneratorToggles();
    void injectedException();
    void dropOnRequestAndDropConnections();
    void startOnBusyPortFails();

private:
    // A real client read; on failure the reply's error is returned through *error.
    QVector<quint16> read(QModbusDataUnit::RegisterType table, int start, int count, QString *error = nullptr);
    bool write(QModbusDataUnit::RegisterType table, int start, const QVector<quint16> &values);

    QScopedPointer<E1212Simulator> m_sim;
    QScopedPointer<QModbusTcpClient> m_client;
};

void TstE1212Simulator::init()
{
    m_sim.reset(new E1212Simulator);
    QString error;
    QVERIFY2(m_sim->start(QHostAddress::LocalHost, 0, &error), qPrintable(error));
    m_client.reset(new QModbusTcpClient);
    m_client->setConnectionParameter(QModbusDevice::NetworkAddressParameter, QStringLiteral("127.0.0.1"));
    m_client->setConnectionParameter(QModbusDevice::NetworkPortParameter, m_sim->port());
    m_client->setTimeout(1000);
    m_client->setNumberOfRetries(0);
    QVERIFY(m_client->connectDevice());
    QTRY_COMPARE_WITH_TIMEOUT(m_client->state(), QModbusDevice::ConnectedState, 3000);
}

void TstE1212Simulator::cleanup()
{
    m_client.reset();
    m_sim.reset();
}

QVector<quint16> TstE1212Simulator::read(QModbusDataUnit::RegisterType table, int start, int count, QString *error)
{
    QModbusReply *reply = m_client->sendReadRequest(QModbusDataUnit(table, start, quint16(count)), 1);
    if (!reply)
        return {};
    QSignalSpy finished(reply, &QModbusReply::finished);
    if (!reply->isFinished())
        finished.wait(3000);
    reply->deleteLater();
    if (reply->error() != QModbusDevice::NoError) {
        if (error)
            *error = QStringLiteral("%1 exception %2").arg(reply->errorString()).arg(int(reply->rawResult().exceptionCode()));
        return {};
    }
    return reply->result().values();
}

bool TstE1212Simulator::write(QModbusDataUnit::RegisterType table, int start, const QVector<quint16> &values)
{
    QModbusDataUnit unit(table, start, values);
    QModbusReply *reply = m_client->sendWriteRequest(unit, 1);
    if (!reply)
        return false;
    QSignalSpy finished(reply, &QModbusReply::finished);
    if (!reply->isFinished())
        finished.wait(3000);
    reply->deleteLater();
    return reply->isFinished() && reply->error() == QModbusDevice::NoError;
}

void TstE1212Simulator::pulseGeneratorToggles()
{
    const int onMs = 40, offMs = 80;
    QVERIFY(write(QModbusDataUnit::HoldingRegisters, 256 + 5, {quint16(onMs)}));
    QVERIFY(write(QModbusDataUnit::HoldingRegisters, 512 + 5, {quint16(offMs)}));
    QSignalSpy outputs(m_sim.data(), &E1212Simulator::outputChanged);
    QElapsedTimer clock;
    QVector<qint64> at;
    connect(m_sim.data(), &E1212Simulator::outputChanged, this, [&](int, bool) { at.append(clock.elapsed()); });
    clock.start();
    QVERIFY(write(QModbusDataUnit::Coils, 16 + 5, {1}));
    QVERIFY(m_sim->pulseStatus(5));
    QTRY_VERIFY_WITH_TIMEOUT(outputs.size() >= 7, 5000);
    // On first, then alternating, each phase lasting its width (timer slack allowed).
    for (int i = 0; i < 7; ++i) {
        QCOMPARE(outputs.at(i).at(0).toInt(), 5);
        QCOMPARE(outputs.at(i).at(1).toBool(), i % 2 == 0);
    }
    for (int i = 1; i < 7; ++i) {
        const qint64 width = at.at(i) - at.at(i - 1);
        const int expected = (i % 2 == 1) ? onMs : offMs;
        QVERIFY2(width >= expected - 2 && width <= expected + 40,
                 qPrintable(QStringLiteral("phase %1 lasted %2 ms, expected %3").arg(i).arg(width).arg(expected)));
    }
}

void TstE1212Simulator::injectedException()
{
    QString error;
    // Outside the module's map, as on the module.
    QVERIFY(read(QModbusDataUnit::DiscreteInputs, 8, 1, &error).isEmpty());
    QVERIFY2(error.endsWith(QStringLiteral("exception 2")), qPrintable(error));
    m_sim->setException(QModbusDataUnit::Coils, 19, QModbusPdu::ServerDeviceFailure);
    QVERIFY(read(QModbusDataUnit::Coils, 16, 8, &error).isEmpty());
    QVERIFY2(error.endsWith(QStringLiteral("exception 4")), qPrintable(error));
    QVERIFY(!write(QModbusDataUnit::Coils, 19, {1}));
    QVERIFY(!m_sim->pulseStatus(3));
    QCOMPARE(read(QModbusDataUnit::Coils, 16, 3, &error), QVector<quint16>(3, 0)); // not touching 19
    m_sim->clearExceptions();
    QCOMPARE(read(QModbusDataUnit::Coils, 19, 1, &error), QVector<quint16>{0});
}

void TstE1212Simulator::dropOnRequestAndDropConnections()
{
    QCOMPARE(m_sim->connectionCount(), 1);
    m_sim->setDropOnRequest(true);
    QString error;
    QVERIFY(read(QModbusDataUnit::Coils, 0, 1, &error).isEmpty());
    QTRY_COMPARE_WITH_TIMEOUT(m_client->state(), QModbusDevice::UnconnectedState, 2000);
    QCOMPARE(m_sim->connectionCount(), 0);

    m_sim->setDropOnRequest(false);
    QVERIFY(m_client->connectDevice());
    QTRY_COMPARE_WITH_TIMEOUT(m_client->state(), QModbusDevice::ConnectedState, 2000);
    QTRY_COMPARE_WITH_TIMEOUT(m_sim->connectionCount(), 1, 2000);
    QSignalSpy count(m_sim.data(), &E1212Simulator::connectionCountChanged);
    m_sim->dropConnections();
    QCOMPARE(m_sim->connectionCount(), 0);
    QCOMPARE(count.size(), 1);
    QTRY_COMPARE_WITH_TIMEOUT(m_client->state(), QModbusDevice::UnconnectedState, 2000);
}

void TstE1212Simulator::startOnBusyPortFails()
{
    E1212Simulator second;
    QString error;
    QTest::ignoreMessage(QtWarningMsg, QRegularExpression(QStringLiteral("cannot listen")));
    QVERIFY(!second.start(QHostAddress::LocalHost, m_sim->port(), &error));
    QVERIFY2(error.startsWith(QStringLiteral("cannot listen on 127.0.0.1:%1").arg(m_sim->port())), qPrintable(error));
    QCOMPARE(second.errorString(), error);
    QCOMPARE(second.state(), E1212Simulator::Stopped);
}

QTEST_GUILESS_MAIN(TstE1212Simulator)
#include "tst_e1212simulator.moc"
