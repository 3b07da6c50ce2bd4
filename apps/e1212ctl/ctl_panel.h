// SPDX-License-Identifier: MIT
// e1212ctl's maintenance panel subcommand: panel.
#pragma once

#include "ctlcommand.h"

CtlGroup panelGroup();
