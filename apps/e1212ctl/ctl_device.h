// SPDX-License-Identifier: MIT
// e1212ctl's channel subcommands: info, get, get-run, set, pulse, blink, listen.
#pragma once

#include "ctlcommand.h"

CtlGroup deviceGroup();
