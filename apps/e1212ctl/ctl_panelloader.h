// SPDX-License-Identifier: MIT
// e1212ctl's panel subcommand: loads the panel library (Qt Quick) only when it is asked for.
#pragma once

#include "ctlargs.h"
#include "ctlcommand.h"
#include "ctlsession.h"

CtlGroup panelGroup();

// Loads lib/e1212/libe1212ctl_panel next to the executable's folder and runs the panel;
// the library builds the QGuiApplication from argc/argv (Qt's own options included).
int ctlRunPanel(int argc, char **argv, const CtlSession::Options &options, const CtlArgs &args);
