// SPDX-License-Identifier: MIT
// e1212ctl's simulator subcommand: simulate.
#pragma once

#include "ctlcommand.h"

class CtlSimulator;

CtlGroup simulateGroup();
// A simulator of the module serving on a free loopback port, from the simulator library
// (loaded on first use); nullptr, with *error, when it cannot be loaded or started.
CtlSimulator *ctlStartSimulator(QString *error);
