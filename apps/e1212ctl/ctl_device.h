// SPDX-License-Identifier: MIT
// e1212ctl's channel subcommands: info, get, get-run, set, pulse, blink, listen.
#pragma once

#include "ctlcommand.h"

class CtlArgs;
struct CtlOutcome;

CtlGroup deviceGroup();

// A listen's limits besides a stop, from --count N (1-10^9 events) and --for SECONDS (above
// 0, up to 7 days): 0 where not given. False, with the refusal in *failure, otherwise.
bool listenLimits(const CtlArgs &args, int *count, int *ms, CtlOutcome *failure);
// The --count and --for options.
QList<QCommandLineOption> listenLimitOptions();
