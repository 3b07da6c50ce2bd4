// SPDX-License-Identifier: MIT
// Command "listenEvents" (stopped by "stopListening"): watches one named channel and
// publishes every report the driver sends for it.
#pragma once

#include "dabstractcommand.h"

class DCmdListenEvents : public DAbstractCommand
{
    Q_OBJECT
public:
    DCmdListenEvents(const QMap<QString, QVariant> &parameters, QObject *parent);
    explicit DCmdListenEvents(QObject *parent);

    // Sends one "listen" of the channel's register; false, after logging, when the
    // "channel" argument is empty. Stopping is the host's work.
    bool commandExecute() override;

    // Publishes a report as result "values" = {"values": [value]}; a report that does not
    // hold exactly one value publishes an empty map. False when the reply has no "values".
    bool rplEvent(unsigned long long instructionId, const QMap<QString, QVariant> &reply);

private:
    QString m_channel;
};
