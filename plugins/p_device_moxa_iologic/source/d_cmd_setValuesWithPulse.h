// SPDX-License-Identifier: MIT
// Command "setBlink": makes consecutive outputs blink with caller-given pulse widths;
// it behaves exactly as "setValues".
#pragma once

#include "dabstractcommand.h"

class DCmdSetValuesWithPulse : public DAbstractCommand
{
    Q_OBJECT
public:
    DCmdSetValuesWithPulse(const QMap<QString, QVariant> &parameters, QObject *parent);
    explicit DCmdSetValuesWithPulse(QObject *parent);

    // The three writes of setValues; no reply is asked for and no result is posted.
    bool commandExecute() override;
    // A new setBlink with `parameters`, parented like this one.
    QSharedPointer<ICommand> createCommand(const QMap<QString, QVariant> &parameters) const override;

    // Write-reply handler in the manner of setValue's; no instruction is bound to it.
    bool rplWriteDone(unsigned long long instructionId, const QMap<QString, QVariant> &reply);
};
