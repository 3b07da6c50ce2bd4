// SPDX-License-Identifier: MIT
// Random faults for rehearsing a bench: after a pause of 2-8 s, one of: every answer held
// back for 0.5-5 s (then sent, late), every connection reset, random bytes instead of the
// answers for 0.2-1 s, or nothing; then the next pause. It owns the simulator's silence and
// garbage switches while it runs.
#pragma once

#include <QObject>
#include <QTimer>

class E1212Simulator;

class SimulatorRandomFaults : public QObject
{
    Q_OBJECT
public:
    // `simulator` must outlive this object.
    explicit SimulatorRandomFaults(E1212Simulator *simulator, QObject *parent = nullptr);

    void start();
    // Ends the fault under way.
    void stop();

signals:
    // "silence 1200 ms", "reset", "garbage 400 ms", and "end" when a timed fault ends.
    void faultInjected(const QString &what);

private:
    void step();

    E1212Simulator *const m_simulator;
    QTimer m_timer;
    bool m_active = false; // a timed fault is on until the timer fires
};
