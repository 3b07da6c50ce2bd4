// SPDX-License-Identifier: MIT
// e1212ctl's simulator subcommand: simulate.
#include "ctl_simulate.h"

#include "ctlargs.h"
#include "ctlsession.h"
#include "ctlstep.h"
#include "e1212simulator.h"

#include <QRegularExpression>
#include <QSocketNotifier>

#include <unistd.h>

namespace {

// "DI3=1": sets a simulated input. False, with *error naming the text, for anything else.
bool applyInput(E1212Simulator &simulator, const QString &text, QString *error)
{
    static const QRegularExpression format(QStringLiteral("^DI([0-7])=([01])$"));
    const QRegularExpressionMatch match = format.match(text.trimmed());
    if (!match.hasMatch()) {
        *error = QStringLiteral("input \"%1\" is not DIn=0 or DIn=1 with n from 0 to 7").arg(text.trimmed());
        return false;
    }
    simulator.setInput(match.captured(1).toInt(), match.captured(2) == QLatin1String("1"));
    return true;
}

// e1212ctl simulate [--listen ADDRESS:PORT] [--input DIn=V...]: serves a simulated module
// until Ctrl-C/SIGTERM; "DIn=V" lines on standard input set its inputs meanwhile.
void simulate(CtlStep &step)
{
    CtlSession &session = step.session();
    const CtlArgs &args = step.args();
    if (!args.positional().isEmpty())
        return step.finish(CtlOutcome::refused(QStringLiteral("simulate takes no argument besides its options, got \"%1\"")
                                                   .arg(args.positional().first())));
    QHostAddress address = QHostAddress::LocalHost;
    quint16 port = 5020;
    QString error;
    if (args.has(QStringLiteral("listen"))) {
        const QString text = args.value(QStringLiteral("listen"));
        QString host;
        if (!CtlArgs::hostAndPort(QStringLiteral("--listen"), text, -1, 0, &host, &port, &error))
            return step.finish(CtlOutcome::refused(error));
        if (!address.setAddress(host))
            return step.finish(CtlOutcome::refused(QStringLiteral("--listen %1: \"%2\" is not an IP address").arg(text, host)));
    }
    // Serves until the step is cancelled (Ctrl-C/SIGTERM).
    auto &simulator = *new E1212Simulator(&step);
    for (const QString &input : args.values(QStringLiteral("input")))
        if (!applyInput(simulator, input, &error))
            return step.finish(CtlOutcome::refused(error));
    if (!simulator.start(address, port, &error))
        return step.finish(CtlOutcome::failed(error));
    session.out() << "E1212 simulator (" << E1212Simulator::modelName() << ", " << E1212Simulator::firmwareVersion()
                  << ", MAC " << E1212Simulator::macAddress() << ") listening on " << address.toString() << ":"
                  << simulator.port() << "; DIn=0/1 lines set inputs; Ctrl-C stops it" << Qt::endl;
    QObject::connect(&simulator, &E1212Simulator::outputChanged, &session, [&session](int channel, bool on) {
        if (session.options().verbose)
            session.out() << "DO" << channel << (on ? " on" : " off") << Qt::endl;
    });
    auto &input = *new QSocketNotifier(STDIN_FILENO, QSocketNotifier::Read, &step);
    QObject::connect(&input, &QSocketNotifier::activated, &step, [&session, &simulator, &input, pending = QByteArray()]() mutable {
        char buffer[256];
        const ssize_t got = ::read(STDIN_FILENO, buffer, sizeof buffer);
        if (got <= 0) {
            input.setEnabled(false); // end of input: keep serving
            return;
        }
        pending.append(buffer, int(got));
        for (int end = pending.indexOf('\n'); end >= 0; end = pending.indexOf('\n')) {
            const QString line = QString::fromUtf8(pending.left(end)).trimmed();
            pending.remove(0, end + 1);
            QString lineError;
            if (line.isEmpty())
                continue;
            if (applyInput(simulator, line, &lineError))
                session.out() << line << Qt::endl;
            else
                session.fail(CtlSession::ExitUsage, lineError);
        }
    });
    step.setCancel([&step, &simulator] {
        simulator.stop();
        step.finish(CtlOutcome());
    });
}

} // namespace

CtlGroup simulateGroup()
{
    return {QStringLiteral("Simulator"),
            {
                {QStringLiteral("simulate"), QString(),
                 QStringLiteral("serve a simulated E1212 over Modbus TCP (default 127.0.0.1:5020) until stopped; "
                                "DIn=0/1 lines on standard input set its inputs"),
                 &simulate,
                 {{QStringLiteral("listen"), QStringLiteral("the address to serve on"), QStringLiteral("ADDRESS:PORT")},
                  {QStringLiteral("input"), QStringLiteral("set input DIn at start (repeatable)"), QStringLiteral("DIn=V")}},
                 CtlCommand::CommandLineOnly},
            }};
}
