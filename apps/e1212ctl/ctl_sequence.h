// SPDX-License-Identifier: MIT
// e1212ctl's sessions and sequence steps: script, shell, expect, wait, use, stop.
#pragma once

#include "ctlcommand.h"

CtlGroup sequenceGroup();
