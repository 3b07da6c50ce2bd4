// SPDX-License-Identifier: MIT
// e1212ctl's watch subcommand: channels of one or more devices, as a table that refreshes in
// place on a terminal and as one record per change otherwise (and in --csv/--jsonl files).
#pragma once

#include "ctlcommand.h"

CtlGroup watchGroup();
