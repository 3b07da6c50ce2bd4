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
    switch (random.bounded(4)) {
    case 0: {
        const int ms = random.bounded(500, 5001);
        m_simulator->setSilent(true);
        m_active = true;
        m_timer.start(ms);
        emit faultInjected(QStringLiteral("silence %1 ms").arg(ms));
        return;
    }
    case 1:
        m_simulator->dropConnections();
        emit faultInjected(QStringLiteral("reset"));
        break;
    case 2: {
        const int ms = random.bounded(200, 1001);
        m_simulator->setGarbageAnswers(true);
        m_active = true;
        m_timer.start(ms);
        emit faultInjected(QStringLiteral("garbage %1 ms").arg(ms));
        return;
    }
    default:
        break;
    }
    start();
}
