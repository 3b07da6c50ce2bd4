// SPDX-License-Identifier: MIT
// The simulator library of e1212ctl (lib/e1212/e1212ctl_simulator), loaded only when a
// subcommand needs the simulator: the simulate subcommand, and the embedded simulator of a
// device without an address. Everything else runs without Qt SerialBus.
#include "ctlargs.h"
#include "ctlembeddedsimulator.h"
#include "ctlsession.h"
#include "ctlstep.h"
#include "e1212simulator.h"
#include "simulatorrandomfaults.h"

#include <QDateTime>
#include <QRegularExpression>
#include <QSocketNotifier>

#include <memory>

#include <unistd.h>

namespace {

constexpr quint32 MaxDelayMs = 60000;

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

// "00:90:E8:0A:1B:FF" as six bytes. False, with *error, for anything else.
bool parseMac(const QString &text, QByteArray *mac, QString *error)
{
    static const QRegularExpression format(QStringLiteral("^[0-9A-Fa-f]{2}(:[0-9A-Fa-f]{2}){5}$"));
    if (!format.match(text).hasMatch()) {
        *error = QStringLiteral("--mac \"%1\" is not six two-digit hexadecimal bytes separated by colons "
                                "(XX:XX:XX:XX:XX:XX)").arg(text);
        return false;
    }
    *mac = QByteArray::fromHex(text.toLatin1().replace(':', QByteArray()));
    return true;
}

// One --fault KIND applied to the simulator; a delay goes to *delayMs. False, with *error
// naming the text, for an unknown kind or a bad field.
bool applyFault(E1212Simulator &simulator, const QString &kind, int *delayMs, QString *error)
{
    const QString what = QStringLiteral("--fault \"%1\"").arg(kind);
    const QStringList fields = kind.split(QLatin1Char(':'));
    const QString name = fields.first();
    if (name == QLatin1String("random") && fields.size() == 1)
        return true; // started with the simulator
    if ((name == QLatin1String("silence") || name == QLatin1String("duplicate") || name == QLatin1String("garbage"))
        && fields.size() == 1) {
        if (name == QLatin1String("silence"))
            simulator.setSilent(true);
        else if (name == QLatin1String("duplicate"))
            simulator.setDuplicateAnswers(true);
        else
            simulator.setGarbageAnswers(true);
        return true;
    }
    quint32 number = 0;
    if (name == QLatin1String("delay") && fields.size() == 2) {
        if (!CtlArgs::number(fields.at(1), 0, MaxDelayMs, what + QStringLiteral(": MS"), &number, error))
            return false;
        *delayMs = int(number);
        return true;
    }
    if (name == QLatin1String("exception") && fields.size() == 4) {
        static const QMap<QString, QModbusDataUnit::RegisterType> tables{
            {QStringLiteral("coils"), QModbusDataUnit::Coils},
            {QStringLiteral("discreteInputs"), QModbusDataUnit::DiscreteInputs},
            {QStringLiteral("inputRegisters"), QModbusDataUnit::InputRegisters},
            {QStringLiteral("holdingRegisters"), QModbusDataUnit::HoldingRegisters}};
        if (!tables.contains(fields.at(1))) {
            *error = what + QStringLiteral(": table \"%1\" is not coils, discreteInputs, inputRegisters or holdingRegisters")
                                .arg(fields.at(1));
            return false;
        }
        quint32 address = 0;
        if (!CtlArgs::number(fields.at(2), 0, 0xFFFF, what + QStringLiteral(": ADDRESS"), &address, error)
            || !CtlArgs::number(fields.at(3), 1, 0xFF, what + QStringLiteral(": CODE"), &number, error))
            return false;
        simulator.setException(tables.value(fields.at(1)), int(address), QModbusPdu::ExceptionCode(number));
        return true;
    }
    *error = what + QStringLiteral(" is not silence, delay:MS, exception:TABLE:ADDRESS:CODE, duplicate, garbage or random");
    return false;
}

// Every option but --listen applied to the (not yet started) simulator. *mac stays empty
// without --mac. False, with *error, on the first bad one.
bool configure(E1212Simulator &simulator, const CtlArgs &args, QByteArray *mac, QString *error)
{
    for (const QString &input : args.values(QStringLiteral("input")))
        if (!applyInput(simulator, input, error))
            return false;
    quint32 number = 0;
    int delays = 0;
    int delayMs = 0;
    if (args.has(QStringLiteral("latency"))) {
        if (!CtlArgs::number(args.value(QStringLiteral("latency")), 0, MaxDelayMs, QStringLiteral("--latency"), &number, error))
            return false;
        delayMs = int(number);
        delays += args.values(QStringLiteral("latency")).size();
    }
    for (const QString &kind : args.values(QStringLiteral("fault"))) {
        if (!applyFault(simulator, kind, &delayMs, error))
            return false;
        delays += kind.startsWith(QLatin1String("delay:")) ? 1 : 0;
    }
    const QStringList faults = args.values(QStringLiteral("fault"));
    if (faults.contains(QStringLiteral("random"))
        && (faults.contains(QStringLiteral("silence")) || faults.contains(QStringLiteral("garbage")))) {
        *error = QStringLiteral("--fault random switches silence and garbage itself; give neither with it");
        return false;
    }
    if (delays > 1) {
        *error = QStringLiteral("--latency and --fault delay:MS set the same delay; give it once");
        return false;
    }
    simulator.setResponseDelay(delayMs);
    if (args.has(QStringLiteral("max-connections"))) {
        if (!CtlArgs::number(args.value(QStringLiteral("max-connections")), 1, 64, QStringLiteral("--max-connections"),
                             &number, error))
            return false;
        simulator.setMaxConnections(int(number));
    }
    return !args.has(QStringLiteral("mac")) || parseMac(args.value(QStringLiteral("mac")), mac, error);
}

// e1212ctl simulate [--listen ADDRESS:PORT] [OPTIONS]: serves a simulated module until
// Ctrl-C/SIGTERM; "DIn=V" lines on standard input set its inputs meanwhile.
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
    QByteArray mac;
    if (!configure(simulator, args, &mac, &error))
        return step.finish(CtlOutcome::refused(error));
    if (!simulator.start(address, port, &error))
        return step.finish(CtlOutcome::failed(error));
    // Without --mac each simulator tells itself apart by its port: 00:90:E8:00:<port>.
    if (mac.isEmpty())
        mac = QByteArray::fromHex("0090E800") + QByteArray(1, char(simulator.port() >> 8)) + QByteArray(1, char(simulator.port()));
    simulator.setMacAddress(mac);
    session.out() << "E1212 simulator (" << E1212Simulator::modelName() << ", " << E1212Simulator::firmwareVersion()
                  << ", MAC " << simulator.macAddress() << ") listening on " << address.toString() << ":"
                  << simulator.port() << "; DIn=0/1 lines set inputs; Ctrl-C stops it" << Qt::endl;
    QObject::connect(&simulator, &E1212Simulator::outputChanged, &session, [&session](int channel, bool on) {
        if (session.options().verbose)
            session.out() << "DO" << channel << (on ? " on" : " off") << Qt::endl;
    });
    if (args.has(QStringLiteral("log"))) {
        QObject::connect(&simulator, &E1212Simulator::requestServed, &session, [&session](const SimulatorRequest &request) {
            session.out() << request.toString() << Qt::endl;
        });
        QObject::connect(&simulator, &E1212Simulator::connectionRefused, &session, [&](const QString &client) {
            session.out() << QDateTime::currentDateTime().toString(Qt::ISODateWithMs) << ' ' << client
                          << " refused: " << simulator.connectionCount() << " clients connected, the limit ("
                          << simulator.refusedConnectionCount() << " refused so far)" << Qt::endl;
        });
    }
    if (args.values(QStringLiteral("fault")).contains(QStringLiteral("random"))) {
        auto &faults = *new SimulatorRandomFaults(&simulator, &simulator);
        QObject::connect(&faults, &SimulatorRandomFaults::faultInjected, &session, [&session](const QString &what) {
            session.out() << QDateTime::currentDateTime().toString(Qt::ISODateWithMs) << " fault " << what << Qt::endl;
        });
        faults.start();
    }
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
    step.setCancel([&step, &session, &simulator] {
        session.out() << "E1212 simulator stopped: " << simulator.requestCount() << " requests served, "
                      << simulator.refusedConnectionCount() << " connections refused" << Qt::endl;
        simulator.stop();
        step.finish(CtlOutcome());
    });
}

} // namespace

extern "C" Q_DECL_EXPORT void e1212ctlSimulate(CtlStep *step)
{
    simulate(*step);
}

extern "C" Q_DECL_EXPORT CtlSimulator *e1212ctlStartSimulator(QString *error)
{
    auto simulator = std::make_unique<CtlEmbeddedSimulator>();
    return simulator->start(error) ? simulator.release() : nullptr;
}
