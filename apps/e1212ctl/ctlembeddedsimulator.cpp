// SPDX-License-Identifier: MIT
#include "ctlembeddedsimulator.h"

bool CtlEmbeddedSimulator::start(QString *error)
{
    return m_simulator.start(QHostAddress::LocalHost, 0, error);
}
