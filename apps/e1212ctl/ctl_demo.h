// SPDX-License-Identifier: MIT
// e1212ctl's demonstration subcommand: demo.
#pragma once

#include "ctlcommand.h"

CtlGroup demoGroup();
