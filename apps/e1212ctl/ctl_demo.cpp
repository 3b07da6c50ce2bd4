// SPDX-License-Identifier: MIT
// e1212ctl's demonstration subcommand: demo. Every device command once, end to end over
// Modbus TCP (by default against the embedded simulator), with the time each one took.
#include "ctl_demo.h"

#include "ctlargs.h"
#include "ctlsession.h"
#include "ctlstep.h"
#include "ctlsimulator.h"
#include "execution.h"
#include "host.h"

#include <QElapsedTimer>
#include <QTimer>

#include <vector>

namespace {

constexpr int c_commandWaitMs = 10000;

QString bits(const QVariant &values)
{
    QStringList text;
    for (const QVariant &v : values.toList())
        text << v.toString();
    return text.join(QLatin1Char(' '));
}

// One command of the demonstration: `before` runs first (a heading, inputs to set), `during`
// once the command is under way, `after` once it has ended. A listening command is stopped
// after `listenMs`, any other after c_commandWaitMs.
struct Stage
{
    QString label;
    QString command;
    QVariantMap arguments;
    int listenMs = 0;
    std::function<void()> before;
    std::function<void(Execution *)> during;
    std::function<void(const Execution &)> after;
};

// Runs the stages one after the other, each started when the one before has finished.
class Demo : public QObject
{
public:
    Demo(CtlStep &step, std::vector<Stage> stages)
        : QObject(&step), m_step(step), m_session(step.session()), m_stages(std::move(stages))
    {
        m_limit.setSingleShot(true);
        connect(&m_limit, &QTimer::timeout, this, [this] { m_session.host()->stop(m_execution); });
        step.setCancel([this] {
            m_cancelled = true;
            m_session.host()->stop(m_execution);
        });
        next();
    }

private:
    void next()
    {
        if (m_next == m_stages.size() || m_cancelled)
            return end();
        const Stage &stage = m_stages.at(m_next);
        if (stage.before)
            stage.before();
        m_clock.start();
        m_execution = m_session.host()->execute(m_session.device(), stage.command, stage.arguments);
        connect(m_execution, &Execution::finished, this, &Demo::stageEnded);
        m_limit.start(stage.listenMs > 0 ? stage.listenMs : c_commandWaitMs);
        if (stage.during)
            stage.during(m_execution);
    }

    void stageEnded()
    {
        m_limit.stop();
        const Stage &stage = m_stages.at(m_next++);
        m_timings.append({stage.label, m_clock.nsecsElapsed() / 1e6, m_execution->isOk()});
        if (!m_execution->isOk())
            m_session.out() << "  FAILED: " << m_execution->errorString() << Qt::endl;
        if (stage.after)
            stage.after(*m_execution);
        m_execution->deleteLater();
        m_execution = nullptr;
        next();
    }

    void end()
    {
        QTextStream &out = m_session.out();
        out << Qt::endl << "Timings (host + plug-in + driver + Modbus TCP round trips):" << Qt::endl;
        bool ok = !m_cancelled;
        for (const Timing &t : qAsConst(m_timings)) {
            out << QStringLiteral("  %1 %2 ms  %3").arg(t.what, -44).arg(t.ms, 8, 'f', 1).arg(t.ok ? QStringLiteral("ok") : QStringLiteral("FAILED"))
                << Qt::endl;
            ok = ok && t.ok;
        }
        CtlOutcome outcome;
        outcome.exitCode = ok ? CtlOutcome::ExitOk : CtlOutcome::ExitFailed;
        m_step.finish(outcome);
    }

    struct Timing
    {
        QString what;
        double ms;
        bool ok;
    };

    CtlStep &m_step;
    CtlSession &m_session;
    const std::vector<Stage> m_stages;
    size_t m_next = 0;
    Execution *m_execution = nullptr;
    QTimer m_limit;
    QElapsedTimer m_clock;
    bool m_cancelled = false;
    QList<Timing> m_timings;
};

void demo(CtlStep &step)
{
    CtlSession &session = step.session();
    if (!step.args().positional().isEmpty())
        return step.finish(CtlOutcome::refused(QStringLiteral("demo takes no argument, got \"%1\"").arg(step.args().positional().first())));
    CtlOutcome failure;
    if (!session.openDevices(&failure))
        return step.finish(failure);
    QTextStream &out = session.out();
    CtlSimulator *sim = session.simulator(session.current());
    out << "E1212 demonstration against " << (sim ? "the embedded simulator at " : "the module at ")
        << session.address(session.current()) << Qt::endl;
    const auto heading = [&out](const char *text) {
        return [&out, text] { out << Qt::endl << text << Qt::endl; };
    };
    const QString channel = QStringLiteral("channel");
    // What the listens saw, kept for their `after`.
    auto seen = std::make_shared<QStringList>();
    auto clock = std::make_shared<QElapsedTimer>();

    std::vector<Stage> stages;
    stages.push_back({QStringLiteral("getInfo"), QStringLiteral("getInfo"), {}, 0, heading("1. Identity (getInfo)"), {},
                      [&out](const Execution &info) {
                          const QVariantMap identity = info.results().value(QStringLiteral("deviceInformation")).toMap();
                          out << "  model " << identity.value(QStringLiteral("modelName")).toString() << ", firmware "
                              << identity.value(QStringLiteral("softwareVersion")).toString() << ", MAC "
                              << identity.value(QStringLiteral("macAddress")).toString() << Qt::endl;
                      }});
    stages.push_back({QStringLiteral("getValues DI0 (8 inputs)"), QStringLiteral("getValues"), {{channel, QStringLiteral("DI0")}}, 0,
                      [&out, sim] {
                          out << Qt::endl << "2. All 16 channels (getValues DI0, getValues DO0)" << Qt::endl;
                          if (sim) {
                              sim->setInput(1, true);
                              sim->setInput(4, true);
                          }
                      },
                      {},
                      [&out](const Execution &inputs) {
                          out << "  DI0-DI7: " << bits(inputs.results().value(QStringLiteral("values"))) << Qt::endl;
                      }});
    stages.push_back({QStringLiteral("getValues DO0 (8 outputs)"), QStringLiteral("getValues"), {{channel, QStringLiteral("DO0")}}, 0, {}, {},
                      [&out](const Execution &outputs) {
                          out << "  DO0-DO7: " << bits(outputs.results().value(QStringLiteral("values"))) << Qt::endl;
                      }});
    stages.push_back({QStringLiteral("setValue DO3 1"), QStringLiteral("setValue"),
                      {{channel, QStringLiteral("DO3")}, {QStringLiteral("value"), 1}}, 0,
                      heading("3. Set DO3 and read it back (setValue, getValue)"), {},
                      [&out](const Execution &set) {
                          out << "  doneOk " << set.results().value(QStringLiteral("doneOk")).toString() << Qt::endl;
                      }});
    stages.push_back({QStringLiteral("getValue DO3"), QStringLiteral("getValue"), {{channel, QStringLiteral("DO3")}}, 0, {}, {},
                      [&out](const Execution &get) {
                          out << "  DO3 reads " << get.results().value(QStringLiteral("value")).toString() << Qt::endl;
                      }});
    stages.push_back({QStringLiteral("setValue DO3 0"), QStringLiteral("setValue"),
                      {{channel, QStringLiteral("DO3")}, {QStringLiteral("value"), 0}}, 0, {}, {}, {}});
    stages.push_back({QStringLiteral("setBlink DO6 100/100"), QStringLiteral("setBlink"),
                      {{channel, QStringLiteral("DO6")}, {QStringLiteral("pulseOnWidth"), 100},
                       {QStringLiteral("pulseOffWidth"), 100}, {QStringLiteral("values"), QVariantList{1}}}, 0,
                      heading("4. Blink DO6 at 100 ms on / 100 ms off, watched for 1 s (setBlink, listenEvents DO6)"), {}, {}});
    stages.push_back({QStringLiteral("listenEvents DO6 (1 s)"), QStringLiteral("listenEvents"), {{channel, QStringLiteral("DO6")}}, 1000, {},
                      [seen, clock](Execution *listen) {
                          clock->start();
                          QObject::connect(listen, &Execution::resultChanged, [seen, clock](const QString &, const QVariant &value) {
                              *seen << QStringLiteral("%1@%2ms").arg(bits(value.toMap().value(QStringLiteral("values")))).arg(clock->elapsed());
                          });
                      },
                      [&out, seen](const Execution &) {
                          out << "  " << seen->size() << " changes seen: " << seen->join(QLatin1Char(' ')) << Qt::endl;
                          seen->clear();
                      }});
    stages.push_back({QStringLiteral("setBlink DO6 stop"), QStringLiteral("setBlink"),
                      {{channel, QStringLiteral("DO6")}, {QStringLiteral("pulseOnWidth"), 100}, {QStringLiteral("pulseOffWidth"), 100},
                       {QStringLiteral("values"), QVariantList{0}}}, 0, {}, {}, {}});
    stages.push_back({QStringLiteral("listenEvents DI2 (1.2 s)"), QStringLiteral("listenEvents"), {{channel, QStringLiteral("DI2")}}, 1200,
                      heading("5. Listen to DI2 while it changes (listenEvents DI2)"),
                      [&out, seen, sim](Execution *listen) {
                          QObject::connect(listen, &Execution::resultChanged, [seen](const QString &, const QVariant &value) {
                              *seen << bits(value.toMap().value(QStringLiteral("values")));
                          });
                          if (!sim) {
                              out << "  (a real module: change DI2 by hand to see reports)" << Qt::endl;
                              return;
                          }
                          for (int i = 1; i <= 3; ++i)
                              QTimer::singleShot(200 * i, sim, [sim, i] { sim->setInput(2, i % 2 == 1); });
                      },
                      [&out, seen](const Execution &) { out << "  reports: " << seen->join(QStringLiteral(", ")) << Qt::endl; }});
    new Demo(step, std::move(stages));
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
