// SPDX-License-Identifier: MIT
// A failure as a value: its code, the Modbus exception number where there is one, and
// one line of text naming what failed and where.
#pragma once

#include "imessenger.h"

#include <QString>
#include <QVariantMap>

struct DError
{
    IMessenger::EnErrorCode code = IMessenger::CeNoError;
    // The device's exception number (1 illegal function, 2 illegal data address, ...)
    // with CeModbusException; 0 otherwise.
    int exceptionCode = 0;
    QString text;

    bool isError() const { return code != IMessenger::CeNoError; }

    // "timeout", "no_connection", "modbus_exception", ...: the name scripts decide on.
    static QString codeName(IMessenger::EnErrorCode code);
    // "illegal data address" for 2, ...; "exception N" for a number the protocol does not name.
    static QString exceptionName(int exceptionCode);

    // A driver's failure reply: {"error": text, "errorCode": code, "exceptionCode": n}
    // ("exceptionCode" only with CeModbusException).
    QVariantMap toReply() const;
    // The failure a driver reply carries; code CeNoError when it carries "values" or no
    // "error". A reply with an "error" but no known "errorCode" is a CeDriverError.
    static DError fromReply(const QVariantMap &reply);
};
