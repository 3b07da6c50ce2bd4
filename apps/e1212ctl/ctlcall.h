// SPDX-License-Identifier: MIT
// One device command run by e1212ctl, from Host::execute() to its outcome: a listening one
// prints each report as an event line until its limit, a stop or its end.
#pragma once

#include "ctloutcome.h"

#include <QObject>
#include <QTimer>

#include <functional>

class CtlSession;
class Execution;

struct CtlRequest
{
    int device = 0;
    QString command;
    QVariantMap arguments;
    // The "command" of its result and event lines (the subcommand: "get"); empty: `command`.
    QString name;
    // Skips the host's argument checks.
    bool raw = false;
    // A listen's limits besides a stop: this many events, this many ms; 0 means none.
    int count = 0;
    int ms = 0;
    // A listen whose reports and outages are not printed (a read made through a listen).
    bool quiet = false;
    // On success: fills the outcome's text, and may rewrite its results or make it a failure.
    std::function<void(CtlOutcome *outcome)> shape;
};

class CtlCall : public QObject
{
    Q_OBJECT
public:
    using Ended = std::function<void(const CtlOutcome &outcome)>;

    // Starts the request on the session's host; `ended` gets the outcome once the execution
    // has finished. A foreground listen stopped before the device ever answered, or while it
    // does not answer, has failed. In the background only the execution's own end counts (its
    // outages are said as they come), and the outcome is just a line when it failed.
    CtlCall(CtlSession &session, const CtlRequest &request, bool background, const Ended &ended,
            QObject *parent = nullptr);
    // A read of a channel's state, its outcome's results {"value": v}: an input's value, an
    // output's coil (what its listen reports and the wire shows), never its pulse status.
    static CtlRequest stateRead(CtlSession &session, int device, const QString &channel);

    // A call deleted while it runs stops its execution.
    ~CtlCall() override;

    // Ends the execution (a listen's normal end); nothing once it has finished.
    void stop();
    bool isFinished() const { return !m_execution; }

private:
    void onReport(const QVariant &report);
    void onOutage(const DError &error);
    void onFinished();
    QString channel() const;
    QString name() const;

    CtlSession &m_session;
    const CtlRequest m_request;
    const bool m_background;
    const Ended m_ended;
    Execution *m_execution = nullptr;
    // The step's line (events carry the line of the step that started the listen), the
    // device's reference and how a text line names the channel.
    const int m_line;
    const QString m_reference;
    QString m_label;
    int m_events = 0;
    QVariant m_value;
    // The driver's last word on a listen, while the device does not answer.
    DError m_outage;
    QTimer m_limit;
};
