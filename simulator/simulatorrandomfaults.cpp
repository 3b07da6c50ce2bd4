// SPDX-License-Identifier: MIT
// Random faults for rehearsing a bench.
#include "simulatorrandomfaults.h"

#include "e1212simulator.h"

#include <QRandomGenerator>

SimulatorRandomFaults::SimulatorRandomFaults(E1212Simulator *simulator, QObject *parent)
    : QObject(parent)
    , m_simulator(simulator)
{
    m_timer.setSingleShot(true);
    connect(&m_timer, &QTimer::timeout, this, &SimulatorRandomFaults::step);
}

void SimulatorRandomFaults::start()
{
    m_timer.start(QRandomGenerator::global()->bounded(2000, 8001));
}

void SimulatorRandomFaults::stop()
{
    m_timer.stop();
    if (m_active) {
        m_simulator->setSilent(false);
        m_simulator->setGarbageAnswers(false);
        m_active = false;
    }
}

void SimulatorRandomFaults::step()
{
    QRandomGenerator &random = *QRandomGenerator::global();
    if (m_active) {
        stop();
        emit faultInjected(QStringLiteral("end"));
        return start();
    }
    // A fault that lasts: switched on now, off when the timer fires.
    const auto timed = [&](void (E1212Simulator::*set)(bool), const char *name, int minMs, int maxMs) {
        const int ms = random.bounded(minMs, maxMs + 1);
        (m_simulator->*set)(true);
        m_active = true;
        m_timer.start(ms);
        emit faultInjected(QStringLiteral("%1 %2 ms").arg(QLatin1String(name)).arg(ms));
    };
    switch (random.bounded(4)) {
    case 0:
        return timed(&E1212Simulator::setSilent, "silence", 500, 5000);
    case 1:
        m_simulator->dropConnections();
        emit faultInjected(QStringLiteral("reset"));
        break;
    case 2:
        return timed(&E1212Simulator::setGarbageAnswers, "garbage", 200, 1000);
    default:
        break;
    }
    start();
}
