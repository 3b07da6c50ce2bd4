// SPDX-License-Identifier: MIT
// Base of a driver plug-in: the target "driver" to which the host routes a device's
// instructions ("read", "write", "listen").
#pragma once

#include "dabstractplugin.h"
#include "derror.h"

class DAbstractDriver : public DAbstractPlugin
{
    Q_OBJECT
public:
    using DAbstractPlugin::DAbstractPlugin;

    // Applies a device's "connection" settings. False, with *error naming the key and
    // what is wrong, when a setting is unusable; nothing is opened here.
    virtual bool configureConnection(const QMap<QString, QVariant> &settings, QString *error) = 0;

    // Starts one instruction under the host's id. `timeoutMs` is the time the device gets
    // to answer each request of the instruction (each poll of a "listen"), counted from when
    // the request is written to the socket; the driver enforces it itself. Every reply comes
    // later through sigInstructionReply, never from inside this call: a success carries
    // "values", a failure is DError::toReply() (an "error" text, its "errorCode" and, for a
    // Modbus exception, the "exceptionCode") and carries no "values".
    virtual void startInstruction(unsigned long long id, const QString &instruction,
                                  const QMap<QString, QVariant> &parameters, int timeoutMs) = 0;
    // Cancels an instruction (ends a "listen"); nothing more is replied for it. The host
    // never calls it from inside the driver's own sigInstructionReply emission.
    virtual void stopInstruction(unsigned long long id) = 0;

signals:
    // `last` is false while more replies will follow (the reports of a "listen"). The host
    // handles a reply while it is emitted (no re-posting), and a command's callback may
    // start its next instruction from there: emit only where startInstruction may be
    // called again.
    void sigInstructionReply(unsigned long long id, const QMap<QString, QVariant> &reply, bool last);
};
