// SPDX-License-Identifier: MIT
// e1212ctl's logging category "e1212.ctl" and where diagnostic lines go.
#pragma once

#include <QLoggingCategory>
#include <QString>

Q_DECLARE_LOGGING_CATEGORY(lcCtl)

// The log file: $XDG_STATE_HOME/e1212/e1212ctl.log, else ~/.local/state/e1212/e1212ctl.log;
// the temporary folder's e1212ctl.log when that folder cannot be made.
QString ctlLogFilePath();
// Sends Qt messages to stderr (verbose, our debug lines included) or appends them to the
// log file (info and worse; buffered, flushed on warnings and at exit).
void installCtlMessageHandler(bool verbose);
