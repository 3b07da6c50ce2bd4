// SPDX-License-Identifier: MIT
// The E1212 simulator behind CtlSimulator, in the simulator library.
#pragma once

#include "ctlsimulator.h"
#include "e1212simulator.h"

class CtlEmbeddedSimulator : public CtlSimulator
{
public:
    // Serves on a free loopback port; false, with *error, when it cannot.
    bool start(QString *error);

    quint16 port() const override { return m_simulator.port(); }
    void setInput(int channel, bool on) override { m_simulator.setInput(channel, on); }

private:
    E1212Simulator m_simulator;
};
