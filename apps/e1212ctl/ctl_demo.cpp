// SPDX-License-Identifier: MIT
// e1212ctl's demonstration subcommand: demo. Every device command once, end to end over
// Modbus TCP (by default against the embedded simulator), with the time each one took.
#include "ctl_demo.h"

#include "ctlargs.h"
#include "ctlsession.h"
#include "e1212simulator.h"
#include "execution.h"
#include "host.h"

#include <QElapsedTimer>
#include <QEventLoop>
#include <QTimer>

namespace {

constexpr int c_commandWaitMs = 10000;

struct Timing
{
    QString what;
    double ms;
    bool ok;
};

class Demo
{
public:
    explicit Demo(CtlSession &session) : m_session(session) {}

    // Runs `command` to its end; a listening one is stopped after `listenMs`.
    // `during` runs once the command is under way (to make things happen meanwhile).
    Execution *run(const QString &label, const QString &command, const QVariantMap &arguments,
                   int listenMs = 0, const std::function<void(Execution *)> &during = {})
    {
        QElapsedTimer clock;
        clock.start();
        Execution *execution = m_session.host()->execute(m_session.device(), command, arguments);
        QEventLoop loop;
        QObject::connect(execution, &Execution::finished, &loop, &QEventLoop::quit);
        QTimer::singleShot(listenMs > 0 ? listenMs : c_commandWaitMs, &loop, &QEventLoop::quit);
        if (during)
            during(execution);
        if (!execution->isFinished())
            loop.exec();
        if (!execution->isFinished())
            m_session.host()->stop(execution);
        while (!execution->isFinished()) {
            QTimer::singleShot(1000, &loop, &QEventLoop::quit);
            loop.exec();
            if (!execution->isFinished())
                break;
        }
        const double ms = clock.nsecsElapsed() / 1e6;
        m_timings.append({label, ms, execution->isOk()});
        if (!execution->isOk())
            m_session.out() << "  FAILED: " << execution->errorString() << Qt::endl;
        return execution;
    }

    void printTimings()
    {
        m_session.out() << Qt::endl << "Timings (host + plug-in + driver + Modbus TCP round trips):" << Qt::endl;
        for (const Timing &t : qAsConst(m_timings))
            m_session.out() << QStringLiteral("  %1 %2 ms  %3")
                                   .arg(t.what, -44)
                                   .arg(t.ms, 8, 'f', 1)
                                   .arg(t.ok ? QStringLiteral("ok") : QStringLiteral("FAILED"))
                            << Qt::endl;
    }

    bool allOk() const
    {
        for (const Timing &t : m_timings)
            if (!t.ok)
                return false;
        return true;
    }

private:
    CtlSession &m_session;
    QList<Timing> m_timings;
};

QString bits(const QVariant &values)
{
    QStringList text;
    for (const QVariant &v : values.toList())
        text << v.toString();
    return text.join(QLatin1Char(' '));
}

int demo(CtlSession &session, const CtlArgs &args)
{
    if (!args.positional().isEmpty())
        return session.usageError(QStringLiteral("demo takes no argument, got \"%1\"").arg(args.positional().first()));
    int exitCode = CtlSession::ExitOk;
    if (!session.openDevices(&exitCode))
        return exitCode;
    QTextStream &out = session.out();
    E1212Simulator *sim = session.simulator(session.current());
    out << "E1212 demonstration against " << (sim ? "the embedded simulator at " : "the module at ")
        << session.address(session.current()) << Qt::endl;
    Demo demo(session);

    out << Qt::endl << "1. Identity (getInfo)" << Qt::endl;
    Execution *info = demo.run(QStringLiteral("getInfo"), QStringLiteral("getInfo"), {});
    const QVariantMap identity = info->results().value(QStringLiteral("deviceInformation")).toMap();
    out << "  model " << identity.value(QStringLiteral("modelName")).toString() << ", firmware "
        << identity.value(QStringLiteral("softwareVersion")).toString() << ", MAC "
        << identity.value(QStringLiteral("macAddress")).toString() << Qt::endl;

    out << Qt::endl << "2. All 16 channels (getValues DI0, getValues DO0)" << Qt::endl;
    if (sim) {
        sim->setInput(1, true);
        sim->setInput(4, true);
    }
    Execution *inputs = demo.run(QStringLiteral("getValues DI0 (8 inputs)"), QStringLiteral("getValues"),
                                 {{QStringLiteral("channel"), QStringLiteral("DI0")}});
    out << "  DI0-DI7: " << bits(inputs->results().value(QStringLiteral("values"))) << Qt::endl;
    Execution *outputs = demo.run(QStringLiteral("getValues DO0 (8 outputs)"), QStringLiteral("getValues"),
                                  {{QStringLiteral("channel"), QStringLiteral("DO0")}});
    out << "  DO0-DO7: " << bits(outputs->results().value(QStringLiteral("values"))) << Qt::endl;

    out << Qt::endl << "3. Set DO3 and read it back (setValue, getValue)" << Qt::endl;
    Execution *set = demo.run(QStringLiteral("setValue DO3 1"), QStringLiteral("setValue"),
                              {{QStringLiteral("channel"), QStringLiteral("DO3")}, {QStringLiteral("value"), 1}});
    out << "  doneOk " << set->results().value(QStringLiteral("doneOk")).toString() << Qt::endl;
    Execution *get = demo.run(QStringLiteral("getValue DO3"), QStringLiteral("getValue"),
                              {{QStringLiteral("channel"), QStringLiteral("DO3")}});
    out << "  DO3 reads " << get->results().value(QStringLiteral("value")).toString() << Qt::endl;
    demo.run(QStringLiteral("setValue DO3 0"), QStringLiteral("setValue"),
             {{QStringLiteral("channel"), QStringLiteral("DO3")}, {QStringLiteral("value"), 0}});

    out << Qt::endl << "4. Blink DO6 at 100 ms on / 100 ms off, watched for 1 s (setBlink, listenEvents DO6)" << Qt::endl;
    demo.run(QStringLiteral("setBlink DO6 100/100"), QStringLiteral("setBlink"),
             {{QStringLiteral("channel"), QStringLiteral("DO6")}, {QStringLiteral("pulseOnWidth"), 100},
              {QStringLiteral("pulseOffWidth"), 100}, {QStringLiteral("values"), QVariantList{1}}});
    QElapsedTimer blinkClock;
    QStringList seen;
    demo.run(QStringLiteral("listenEvents DO6 (1 s)"), QStringLiteral("listenEvents"),
             {{QStringLiteral("channel"), QStringLiteral("DO6")}}, 1000, [&](Execution *listen) {
                 blinkClock.start();
                 QObject::connect(listen, &Execution::resultChanged, [&](const QString &, const QVariant &value) {
                     seen << QStringLiteral("%1@%2ms").arg(bits(value.toMap().value(QStringLiteral("values"))))
                                 .arg(blinkClock.elapsed());
                 });
             });
    out << "  " << seen.size() << " changes seen: " << seen.join(QLatin1Char(' ')) << Qt::endl;
    demo.run(QStringLiteral("setBlink DO6 stop"), QStringLiteral("setBlink"),
             {{QStringLiteral("channel"), QStringLiteral("DO6")}, {QStringLiteral("values"), QVariantList{0}}});

    out << Qt::endl << "5. Listen to DI2 while it changes (listenEvents DI2)" << Qt::endl;
    QStringList reports;
    demo.run(QStringLiteral("listenEvents DI2 (0.8 s)"), QStringLiteral("listenEvents"),
             {{QStringLiteral("channel"), QStringLiteral("DI2")}}, 800, [&](Execution *listen) {
                 QObject::connect(listen, &Execution::resultChanged, [&](const QString &, const QVariant &value) {
                     reports << bits(value.toMap().value(QStringLiteral("values")));
                 });
                 if (!sim) {
                     out << "  (a real module: change DI2 by hand to see reports)" << Qt::endl;
                     return;
                 }
                 for (int i = 1; i <= 3; ++i)
                     QTimer::singleShot(200 * i, sim, [sim, i] { sim->setInput(2, i % 2 == 1); });
             });
    out << "  reports: " << reports.join(QStringLiteral(", ")) << Qt::endl;

    demo.printTimings();
    return demo.allOk() ? CtlSession::ExitOk : CtlSession::ExitFailed;
}

} // namespace

CtlGroup demoGroup()
{
    return {QStringLiteral("Demonstration"),
            {
                {QStringLiteral("demo"), QString(),
                 QStringLiteral("identity, all channels, set/read back, blink, listen, with timings (embedded simulator unless --device)"),
                 &demo},
            }};
}
