// SPDX-License-Identifier: MIT
// Command "setValue": sets one named channel, through the pulse generator or, with a bit
// mask, by read-modify-write of the channel's register.
#pragma once

#include "dabstractcommand.h"

class DCmdSetValue : public DAbstractCommand
{
    Q_OBJECT
public:
    DCmdSetValue(const QMap<QString, QVariant> &parameters, QObject *parent);
    explicit DCmdSetValue(QObject *parent);

    // "bitMask" 65535 (the default): writes the pulse on-width, off-width and status of
    // the output. Any other mask: reads the channel's register; rplReadForMask writes it back.
    bool commandExecute() override;
    // A new setValue with `parameters`, parented like this one.
    QSharedPointer<ICommand> createCommand(const QMap<QString, QVariant> &parameters) const override;

    // Merges "value" into the register just read under the mask and writes it.
    bool rplReadForMask(unsigned long long instructionId, const QMap<QString, QVariant> &reply);
    // Reply of the last write: posts "doneOk".
    bool rplWriteDone(unsigned long long instructionId, const QMap<QString, QVariant> &reply);
    // Reply of a pulse width write: accepted unseen.
    bool rplAccept(unsigned long long instructionId, const QMap<QString, QVariant> &reply);

private:
    // Set by every execution; rplReadForMask uses them as they stand when the read returns.
    QString m_channel;
    quint16 m_register = 0;
    quint16 m_bitMask = 0;
};
