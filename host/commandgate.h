// SPDX-License-Identifier: MIT
// What every caller's command must satisfy before it may run (unless the caller asks for raw
// arguments): the host refuses it otherwise, with one line and nothing sent.
#pragma once

#include "derror.h"

#include <QString>
#include <QVariantMap>

class DAbstractCommand;
class DChannelTable;

namespace CommandGate {

// Whether `command` drives outputs ("setValue", "setValues", "setBlink").
bool drivesOutputs(const QString &command);

// Every argument must be a declared parameter, every declared parameter without a default of its type must be given; a "channel" (given
// or by default) must name a record of `table`, and when the command drives outputs an
// output channel's record (never a pulse-register record). The values' type ranges are the command's own
// check (DAbstractCommand::setArgumentChecks). CeNoError when the command may run; otherwise
// CeRefused and one line naming the parameter, the value and the rule.
DError check(const DAbstractCommand &command, const DChannelTable &table, const QVariantMap &arguments);

} // namespace CommandGate
