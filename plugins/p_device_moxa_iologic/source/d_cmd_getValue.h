// SPDX-License-Identifier: MIT
// Command "getValue": reads the present value of one named channel.
#pragma once

#include "dabstractcommand.h"

class DCmdGetValue : public DAbstractCommand
{
    Q_OBJECT
public:
    DCmdGetValue(const QMap<QString, QVariant> &parameters, QObject *parent);
    explicit DCmdGetValue(QObject *parent);

    // Sends one "read" of the channel's register; a "coilsRegister" channel is read at its
    // register plus the "DO_PulseStatus" base. The result "value" comes from the reply.
    bool commandExecute() override;

    // Posts the first value of the reply as result "value" (unsigned, not masked).
    bool rplValue(unsigned long long instructionId, const QMap<QString, QVariant> &reply);
};
