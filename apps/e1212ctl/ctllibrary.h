// SPDX-License-Identifier: MIT
// e1212ctl's run-time libraries (lib/e1212/e1212ctl_<name> next to the executable's folder):
// what only some subcommands need (the simulator, the MQTT gateway) is loaded on first use.
#pragma once

#include <QString>

class CtlStep;

// The entry `symbol` of library `name`, loaded once and kept; nullptr (with *error) when the
// library cannot be loaded or lacks the symbol.
QFunctionPointer ctlLibraryEntry(const QString &name, const char *symbol, QString *error);

// Runs the step through the entry `symbol` (void (CtlStep *)) of library `name`; the step
// fails with the loader's words when the library cannot give it.
void ctlRunFromLibrary(CtlStep &step, const QString &name, const char *symbol);
