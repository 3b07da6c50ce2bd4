// SPDX-License-Identifier: MIT
#include "ctlcall.h"

#include "ctllog.h"
#include "ctlsession.h"
#include "execution.h"
#include "host.h"

#include <QDateTime>

namespace {

// The one value of a listen report {"values": [v]}; the report itself otherwise.
QVariant eventValue(const QVariant &report)
{
    const QVariantList values = report.toMap().value(QStringLiteral("values")).toList();
    return values.size() == 1 ? values.first() : report;
}

} // namespace

CtlRequest CtlCall::stateRead(CtlSession &session, int device, const QString &channel)
{
    CtlRequest request;
    request.device = device;
    request.arguments.insert(QStringLiteral("channel"), channel);
    const bool output = session.isOutput(device, channel);
    // getValue of an output reads its pulse status; getValues from it and its listen read its coil.
    if (!output)
        request.command = QStringLiteral("getValue");
    else if (session.channelInfo(device, channel).contains(QStringLiteral("size")))
        request.command = QStringLiteral("getValues");
    else
        request.command = QStringLiteral("listenEvents");
    request.count = 1;
    request.quiet = true;
    request.shape = [command = request.command](CtlOutcome *outcome) {
        QVariant value = outcome->results.value(QStringLiteral("value"));
        if (command == QLatin1String("getValues"))
            value = outcome->results.value(QStringLiteral("values")).toList().value(0);
        outcome->results = {{QStringLiteral("value"), value}};
        if (value.isValid())
            return;
        outcome->exitCode = CtlOutcome::ExitFailed;
        outcome->code = DError::codeName(IMessenger::CeMalformedReply);
        outcome->error = outcome->message
            = QStringLiteral("%1 %2: the reply holds no value").arg(command, outcome->channel);
    };
    return request;
}

CtlCall::CtlCall(CtlSession &session, const CtlRequest &request, bool background, const Ended &ended, QObject *parent)
    : QObject(parent)
    , m_session(session)
    , m_request(request)
    , m_background(background)
    , m_ended(ended)
    , m_line(session.stepLine())
    , m_reference(session.config(request.device).reference)
{
    m_label = session.label(request.device, request.arguments.value(QStringLiteral("channel")).toString());
    m_execution = session.host()->execute(session.device(request.device), request.command, request.arguments,
                                          request.raw ? Host::RawArguments : Host::CheckArguments);
    connect(m_execution, &Execution::resultChanged, this, [this](const QString &, const QVariant &report) {
        if (m_execution->isListening())
            onReport(report);
    });
    connect(m_execution, &Execution::errorReported, this, &CtlCall::onOutage);
    connect(m_execution, &Execution::finished, this, &CtlCall::onFinished);
    if (request.ms > 0) {
        m_limit.setSingleShot(true);
        connect(&m_limit, &QTimer::timeout, this, &CtlCall::stop);
        m_limit.start(request.ms);
    }
}

CtlCall::~CtlCall()
{
    delete m_execution;
}

void CtlCall::stop()
{
    if (m_execution && !m_execution->isFinished())
        m_session.host()->stop(m_execution);
}

void CtlCall::onReport(const QVariant &report)
{
    ++m_events;
    m_outage = DError();
    m_value = eventValue(report);
    if (m_request.quiet) {
        // read only: the caller's shape says what came
    } else if (m_session.options().json) {
        QJsonObject event = m_session.event(name(), m_request.device, channel(), m_value);
        event.insert(QStringLiteral("line"), m_line);
        m_session.printJson(event);
    } else {
        m_session.beforeOutput();
        m_session.out() << QDateTime::currentDateTime().toString(QStringLiteral("yyyy-MM-dd hh:mm:ss.zzz")) << "  "
                        << m_label << " = " << CtlSession::toText(m_value) << Qt::endl;
    }
    if (m_request.count > 0 && m_events >= m_request.count)
        stop();
}

void CtlCall::onOutage(const DError &error)
{
    m_outage = error;
    // A read through a listen ends on the outage, with its error.
    if (m_request.quiet)
        return stop();
    if (m_session.options().json) {
        QJsonObject event = m_session.event(name(), m_request.device, channel(), QVariant(), error);
        event.insert(QStringLiteral("line"), m_line);
        m_session.printJson(event);
    }
    CtlOutcome outage = CtlOutcome::failed(error.text);
    outage.line = m_line;
    m_session.report(outage);
}

QString CtlCall::name() const
{
    return m_request.name.isEmpty() ? m_request.command : m_request.name;
}

QString CtlCall::channel() const
{
    return m_request.arguments.value(QStringLiteral("channel")).toString();
}

void CtlCall::onFinished()
{
    m_limit.stop();
    Execution *execution = m_execution;
    m_execution = nullptr;
    execution->deleteLater();
    CtlOutcome outcome;
    if (m_background) {
        if (!execution->isOk()) {
            outcome = CtlOutcome::failed(QStringLiteral("listen failed: %1").arg(execution->errorString()));
            outcome.exitCode = CtlOutcome::exitCodeOf(execution->errorCode());
            outcome.line = m_line;
        }
        m_ended(outcome);
        return;
    }
    outcome.command = name();
    outcome.device = m_reference;
    outcome.channel = channel();
    outcome.results = execution->results();
    // A listen's result is its last report: {"value": v}, and how many reports came.
    if (execution->isListening())
        outcome.results = {{QStringLiteral("value"), m_value}, {QStringLiteral("events"), m_events}};
    DError error = execution->isOk() ? m_outage : execution->error();
    // A listen that heard nothing at all has not shown the channel's state: the device is silent.
    const bool silent = execution->isOk() && execution->isListening() && m_events == 0 && !error.isError();
    if (silent)
        error = DError{IMessenger::CeTimeout, 0,
                       QStringLiteral("device \"%1\" has not answered: no report of %2 before the listen ended")
                           .arg(m_reference, m_label)};
    if (!error.isError()) {
        if (m_request.shape)
            m_request.shape(&outcome);
        m_ended(outcome);
        return;
    }
    const bool saidAlready = !m_request.quiet && execution->isOk() && m_outage.isError(); // the outage is on stderr
    outcome.exitCode = execution->isOk() ? int(CtlOutcome::ExitFailed) : CtlOutcome::exitCodeOf(error.code);
    outcome.error = error.text;
    outcome.code = DError::codeName(error.code);
    if (!saidAlready)
        outcome.message = outcome.exitCode == CtlOutcome::ExitUsage
                              ? error.text
                              : QStringLiteral("%1 failed: %2").arg(m_request.command, error.text);
    qCDebug(lcCtl).noquote() << m_request.command << "ended:" << error.text;
    m_ended(outcome);
}
