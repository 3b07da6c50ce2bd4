// SPDX-License-Identifier: MIT
#include "derror.h"

namespace {
const QString c_error = QStringLiteral("error");
const QString c_errorCode = QStringLiteral("errorCode");
const QString c_exceptionCode = QStringLiteral("exceptionCode");
} // namespace

QString DError::codeName(IMessenger::EnErrorCode code)
{
    switch (code) {
    case IMessenger::CeNoError: return QStringLiteral("ok");
    case IMessenger::CeTimeout: return QStringLiteral("timeout");
    case IMessenger::CeReplyRejected: return QStringLiteral("reply_rejected");
    case IMessenger::CeDriverError: return QStringLiteral("driver_error");
    case IMessenger::CeNoRoute: return QStringLiteral("no_route");
    case IMessenger::CeRefused: return QStringLiteral("refused");
    case IMessenger::CeStopped: return QStringLiteral("stopped");
    case IMessenger::CeNoConnection: return QStringLiteral("no_connection");
    case IMessenger::CeModbusException: return QStringLiteral("modbus_exception");
    case IMessenger::CeMalformedReply: return QStringLiteral("malformed_reply");
    case IMessenger::CeBadInstruction: return QStringLiteral("bad_instruction");
    case IMessenger::_CeNbr: break;
    }
    return QStringLiteral("unknown");
}

QString DError::exceptionName(int exceptionCode)
{
    switch (exceptionCode) {
    case 1: return QStringLiteral("illegal function");
    case 2: return QStringLiteral("illegal data address");
    case 3: return QStringLiteral("illegal data value");
    case 4: return QStringLiteral("server device failure");
    case 5: return QStringLiteral("acknowledge");
    case 6: return QStringLiteral("server device busy");
    case 8: return QStringLiteral("memory parity error");
    case 10: return QStringLiteral("gateway path unavailable");
    case 11: return QStringLiteral("gateway target device failed to respond");
    default: return QStringLiteral("exception %1").arg(exceptionCode);
    }
}

QVariantMap DError::toReply() const
{
    QVariantMap reply{{c_error, text}, {c_errorCode, int(code)}};
    if (code == IMessenger::CeModbusException)
        reply.insert(c_exceptionCode, exceptionCode);
    return reply;
}

DError DError::fromReply(const QVariantMap &reply)
{
    DError error;
    const auto text = reply.constFind(c_error);
    if (text == reply.constEnd() || reply.contains(QStringLiteral("values")))
        return error;
    error.text = text->toString();
    bool ok = false;
    const int code = reply.value(c_errorCode).toInt(&ok);
    error.code = ok && code > IMessenger::CeNoError && code < IMessenger::_CeNbr ? IMessenger::EnErrorCode(code)
                                                                                  : IMessenger::CeDriverError;
    if (error.code == IMessenger::CeModbusException)
        error.exceptionCode = reply.value(c_exceptionCode).toInt();
    return error;
}
