// SPDX-License-Identifier: MIT
// e1212ctl's gateway subcommand: serve (every device of the configuration on an MQTT broker).
#pragma once

#include "ctlcommand.h"

CtlGroup serveGroup();
