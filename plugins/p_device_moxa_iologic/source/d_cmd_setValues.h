// SPDX-License-Identifier: MIT
// Command "setValues": starts or stops the pulse generator of consecutive outputs with
// caller-given pulse widths.
#pragma once

#include "dabstractcommand.h"

class DCmdSetValues : public DAbstractCommand
{
    Q_OBJECT
public:
    DCmdSetValues(const QMap<QString, QVariant> &parameters, QObject *parent);
    explicit DCmdSetValues(QObject *parent);

    // Writes the channel's on-width and off-width (swapped when active-low, 0 counted as 1),
    // then the "values" list to the pulse status registers from the channel's own on.
    // No reply is asked for and no result is ever posted.
    bool commandExecute() override;
    // A new setValues with `parameters`, parented like this one.
    QSharedPointer<ICommand> createCommand(const QMap<QString, QVariant> &parameters) const override;

    // Write-reply handler in the manner of setValue's; no instruction is bound to it.
    bool rplWriteDone(unsigned long long instructionId, const QMap<QString, QVariant> &reply);

    // What "setValues" and "setBlink" share: their parameters, in declaration order, and
    // the three writes of one execution, sent on behalf of `command`.
    static DCommandArguments pulseParameters();
    static void sendPulseWrites(DAbstractCommand *command);
};
