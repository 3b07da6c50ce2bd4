// SPDX-License-Identifier: MIT
// e1212ctl's simulator subcommand: simulate.
#pragma once

#include "ctlcommand.h"

CtlGroup simulateGroup();
