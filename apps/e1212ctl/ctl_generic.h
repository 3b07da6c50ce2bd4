// SPDX-License-Identifier: MIT
// e1212ctl's generic subcommands: run, commands, channels.
#pragma once

#include "ctlcommand.h"

CtlGroup genericGroup();
