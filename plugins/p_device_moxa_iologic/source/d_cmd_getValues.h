// SPDX-License-Identifier: MIT
// Command "getValues": reads the run of registers that starts at one named channel.
#pragma once

#include "dabstractcommand.h"

class DCmdGetValues : public DAbstractCommand
{
    Q_OBJECT
public:
    DCmdGetValues(const QMap<QString, QVariant> &parameters, QObject *parent);
    explicit DCmdGetValues(QObject *parent);

    // Sends one "read" of the channel record's "size" registers from the channel's own
    // register (no pulse status offset), without a reply callback.
    bool commandExecute() override;
};
