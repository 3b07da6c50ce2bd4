// SPDX-License-Identifier: MIT
// The way a plug-in's commands and back-ends reach the host.
#pragma once

#include "fastdelegate.h"

#include <QMap>
#include <QString>
#include <QVariant>

class DAbstractCommand;
class DAbstractPluginBackend;

class IMessenger
{
public:
    // What went wrong, decided on by code (DError::codeName() gives the name scripts see).
    enum EnErrorCode {
        CeNoError = 0,
        CeTimeout,          // the device did not answer a request within the instruction's time-out
        CeReplyRejected,    // the command's reply callback returned false
        CeDriverError,      // the driver failed for a reason none of the other codes names
        CeNoRoute,          // no target of that name for this device
        CeRefused,          // refused before anything was sent: unknown command, bad argument, base checks
        CeStopped,          // the execution was stopped
        CeNoConnection,     // the device cannot be reached: connection refused, failed or lost
        CeModbusException,  // the device answered with a Modbus exception (DError::exceptionCode)
        CeMalformedReply,   // the answer is broken or does not match its request
        CeBadInstruction,   // the driver cannot carry the instruction's parameters; nothing was sent
        _CeNbr
    };

    // Arguments: the host's instruction id and the reply map; true when the reply was accepted.
    using ReplyCallback = fastdelegate::FastDelegate2<unsigned long long, const QMap<QString, QVariant> &, bool>;

    virtual ~IMessenger() = default;

    // Queues an instruction of `command` for `target` ("driver"). The reply (or, for a
    // "listen", each report) reaches `callback` later on the host's event loop, never from
    // inside this call. An empty callback means no reply is wanted. `timeoutMs` bounds the
    // wait for the (first) reply. Returns an id unique within the host, 0 when nothing was sent.
    virtual unsigned long long sendInstruction(DAbstractCommand *command, const QString &target,
                                               const QString &instruction,
                                               const QMap<QString, QVariant> &parameters,
                                               int timeoutMs, const ReplyCallback &callback) = 0;

    // Runs one of the back-end's plug-in commands; progress reaches the back-end's
    // command…() hooks, always later on the event loop, a refusal included.
    // Returns a run id unique within the host.
    virtual unsigned long long runCommand(DAbstractPluginBackend *backend, const QString &command,
                                          const QMap<QString, QVariant> &arguments) = 0;
    // Runs the command now and again `repeatMs` after each run ends, until stopCommand(runId).
    // Every run reports through the back-end's hooks under the same run id; a failed run
    // does not end the schedule. Returns a run id unique within the host.
    virtual unsigned long long runCommandEvery(DAbstractPluginBackend *backend, const QString &command,
                                               const QMap<QString, QVariant> &arguments, int repeatMs) = 0;
    // Stops a run started by runCommand or a schedule started by runCommandEvery (and its
    // run in progress). False when no such run is active.
    virtual bool stopCommand(unsigned long long runId) = 0;
};
