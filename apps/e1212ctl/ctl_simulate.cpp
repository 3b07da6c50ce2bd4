// SPDX-License-Identifier: MIT
// e1212ctl's simulator subcommand: simulate.
#include "ctl_simulate.h"

#include "ctlargs.h"
#include "ctlsession.h"
#include "e1212simulator.h"
#include "signalwatcher.h"

#include <QCoreApplication>

namespace {

// e1212ctl simulate [--listen ADDRESS:PORT]: serves a simulated module until Ctrl-C/SIGTERM.
int simulate(CtlSession &session, const QStringList &words)
{
    const CtlArgs args(words, {QStringLiteral("--listen")});
    if (!args.error().isEmpty())
        return session.usageError(args.error());
    if (!args.positional().isEmpty())
        return session.usageError(QStringLiteral("simulate takes no argument besides --listen, got \"%1\"")
                                      .arg(args.positional().first()));
    QHostAddress address = QHostAddress::LocalHost;
    quint16 port = 5020;
    QString error;
    if (args.has(QStringLiteral("--listen"))) {
        const QString text = args.value(QStringLiteral("--listen"));
        QString host;
        if (!CtlArgs::hostAndPort(QStringLiteral("--listen"), text, -1, 0, &host, &port, &error))
            return session.usageError(error);
        if (!address.setAddress(host))
            return session.usageError(QStringLiteral("--listen %1: \"%2\" is not an IP address").arg(text, host));
    }
    E1212Simulator simulator;
    if (!simulator.start(address, port, &error))
        return session.fail(CtlSession::ExitFailed, error);
    session.out() << "E1212 simulator (" << E1212Simulator::modelName() << ", " << E1212Simulator::firmwareVersion()
                  << ", MAC " << E1212Simulator::macAddress() << ") listening on " << address.toString() << ":"
                  << simulator.port() << "; Ctrl-C stops it" << Qt::endl;
    QObject::connect(&simulator, &E1212Simulator::outputChanged, &session, [&session](int channel, bool on) {
        if (session.options().verbose)
            session.out() << "DO" << channel << (on ? " on" : " off") << Qt::endl;
    });
    SignalWatcher watcher;
    QObject::connect(&watcher, &SignalWatcher::interrupted, qApp, &QCoreApplication::quit);
    QCoreApplication::exec();
    simulator.stop();
    return CtlSession::ExitOk;
}

} // namespace

CtlGroup simulateGroup()
{
    return {QStringLiteral("Simulator"),
            {
                {QStringLiteral("simulate"), QStringLiteral("[--listen ADDRESS:PORT]"),
                 QStringLiteral("serve a simulated E1212 over Modbus TCP (default 127.0.0.1:5020) until stopped"),
                 &simulate},
            }};
}
