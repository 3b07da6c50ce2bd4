// SPDX-License-Identifier: MIT
// What one e1212ctl step ended with, as a value: CtlSession::report() prints it, as text or
// as one JSON line, and its exit code decides the status.
#pragma once

#include "derror.h"

#include <QString>
#include <QVariantMap>

struct CtlOutcome
{
    enum ExitCode { ExitOk = 0, ExitFailed = 1, ExitUsage = 2 };

    // 0 success; 1 failed after something was sent; 2 refused before anything was sent.
    int exitCode = ExitOk;
    // The result line's "command"; empty: no result line (a refusal with --json still gets
    // {"ok": false, "error", "code": "refused"}).
    QString command;
    // The result line's "device" (the reference) and "channel"; empty: none.
    QString device;
    QString channel;
    // The result line's values, each a member of its own ("value", "channels", ...); the
    // members every line has ("command", "ok", "device", ...) take precedence over them.
    QVariantMap results;
    // The result line's "error" and "code" when it failed ("timeout", "expect_failed", ...).
    QString error;
    QString code;
    // The one line on stderr ("e1212ctl: [FILE:LINE: ]message"); empty: none (said already).
    QString message;
    // What it prints without --json (with it too when there is no result line); a failure
    // has none unless what it shows is still of use (the table `channels` could not fill).
    QString text;
    // The script line the outcome belongs to; -1: the step that runs (a background listen
    // names the line that started it).
    int line = -1;

    bool isOk() const { return exitCode == ExitOk; }
    // Refused before anything was sent, and not said yet.
    bool isRefusal() const { return exitCode == ExitUsage && !message.isEmpty(); }

    // A result of the command line's own making.
    static CtlOutcome local(const QString &command, const QVariantMap &results, const QString &text = QString())
    {
        CtlOutcome outcome;
        outcome.command = command;
        outcome.results = results;
        outcome.text = text;
        return outcome;
    }

    // Refused before anything was sent: exit 2 and `message`.
    static CtlOutcome refused(const QString &message)
    {
        CtlOutcome outcome;
        outcome.exitCode = ExitUsage;
        outcome.message = outcome.error = message;
        outcome.code = DError::codeName(IMessenger::CeRefused);
        return outcome;
    }

    // Failed after something was sent: exit 1 and `message`, no result line.
    static CtlOutcome failed(const QString &message)
    {
        CtlOutcome outcome;
        outcome.exitCode = ExitFailed;
        outcome.message = outcome.error = message;
        return outcome;
    }

    // The status of a failure the host or the driver reports: 2 when nothing was sent.
    static int exitCodeOf(IMessenger::EnErrorCode code)
    {
        return code == IMessenger::CeRefused || code == IMessenger::CeBadInstruction || code == IMessenger::CeNoRoute
                   ? ExitUsage
                   : ExitFailed;
    }
};
