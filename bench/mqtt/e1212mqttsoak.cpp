// SPDX-License-Identifier: MIT
// e1212mqttsoak: the gateway (e1212ctl serve, polling every 50 ms) for a long run against
// modules that misbehave, and a broker that restarts.
//
//   e1212mqttsoak [--seconds S] [--modules N]      defaults: 600 s, 16 modules
//
// Each module is an `e1212ctl simulate --fault random` (random silences, connection resets
// and garbage). A change-maker toggles random inputs through the simulators' standard input,
// a channel only once its last change was seen; the broker (a real mosquitto) is killed and
// restarted at a third and two thirds of the run, changes paused meanwhile. A subscriber
// checks every state:
//   - each device's `seq` goes up by one, message after message (a jump is allowed only
//     across a broker restart, when the gateway keeps the latest payload of each topic);
//   - an input's value is the one the change-maker last set or the one before (anything
//     else is misattributed); every change is seen in the end;
//   - no output changes but by a command: every 5 s DO0 of a random module is toggled
//     through its command topic; DO0 shows only values commanded (both the old and the new
//     one while a write is in doubt), the other outputs stay 0, on the broker and in the
//     simulators' own lines.
// The gateway's RSS is sampled every 10 s; a line per minute, a summary at the end. The
// exit status is 0 when no check failed.
#include "benchsupport.h"
#include "mosquittobroker.h"
#include "mqttclient.h"

#include <QCoreApplication>
#include <QElapsedTimer>
#include <QFile>
#include <QJsonDocument>
#include <QJsonObject>
#include <QProcess>
#include <QRandomGenerator>
#include <QRegularExpression>
#include <QTemporaryDir>
#include <QTimer>

#include <algorithm>
#include <cstdio>
#include <functional>
#include <map>
#include <memory>
#include <vector>

namespace {

constexpr int c_channels = 8;
constexpr int c_changeIntervalMs = 100; // on average
constexpr int c_commandIntervalMs = 5000;
constexpr qint64 c_offPhaseMs = 200; // a 1 ms off-phase, seen through a poll or two

double percentile(std::vector<double> values, double p)
{
    if (values.empty())
        return 0;
    std::sort(values.begin(), values.end());
    return values[std::min(values.size() - 1, size_t(p * double(values.size())))];
}

class Soak : public QObject
{
public:
    Soak(int seconds, int modules)
        : m_seconds(seconds)
        , m_modules(modules)
    {
        QTimer::singleShot(0, this, [this] { startBroker(); });
    }

private:
    struct Input
    {
        bool confirmed = false; // the value last seen by the subscriber, and set
        bool pending = false;   // a change made and not seen yet
        bool value = false;
        qint64 madeNs = 0;
    };
    struct Module
    {
        std::unique_ptr<QProcess> process;
        QByteArray buffer;
        quint16 port = 0;
        Input inputs[c_channels];
        qint64 lastSeq = -1;
        bool online = false;
        // DO0, the one output commanded: the values it may show (bit v for v), the last seen
        // and the one last commanded.
        int outputAllowed = 1;
        int outputSeen = 0;
        int outputCommanded = 0;
        // Since when DO0 reads 0 while only 1 is allowed, per view (0: the simulator's lines,
        // 1: the broker); 0 when not.
        qint64 offPhaseSinceMs[2] = {0, 0};
        int offlineEvents = 0;
    };

    void when(const std::function<bool()> &ready, int ms, const QString &what, const std::function<void()> &then)
    {
        whenReady(this, ready, 50, ms, what, then);
    }

    void startBroker()
    {
        std::printf("load average at start: %s", loadAverage().constData());
        QString error;
        if (!m_broker.start(&error)) {
            std::fprintf(stderr, "e1212mqttsoak: %s\n", qPrintable(error));
            QCoreApplication::exit(1);
            return;
        }
        when([this] { return m_broker.isReady(); }, 10000, QStringLiteral("the broker's start"), [this] { startModules(); });
    }

    void startModules()
    {
        m_moduleList.resize(size_t(m_modules));
        for (int i = 0; i < m_modules; ++i) {
            Module &module = m_moduleList[size_t(i)];
            module.process = std::make_unique<QProcess>();
            module.process->setStandardErrorFile(QProcess::nullDevice());
            connect(module.process.get(), &QProcess::readyReadStandardOutput, this, [this, i] { onSimulatorOutput(i); });
            module.process->start(QStringLiteral(E1212_CTL), {QStringLiteral("--verbose"), QStringLiteral("simulate"),
                                                               QStringLiteral("--listen"), QStringLiteral("127.0.0.1:0"),
                                                               QStringLiteral("--fault"), QStringLiteral("random")});
        }
        when([this] { return std::all_of(m_moduleList.begin(), m_moduleList.end(), [](const Module &m) { return m.port != 0; }); },
             30000, QStringLiteral("the simulators' start"), [this] { startGateway(); });
    }

    void startGateway()
    {
        std::vector<quint16> ports;
        for (const Module &module : m_moduleList)
            ports.push_back(module.port);
        QFile config(m_dir.filePath(QStringLiteral("soak.json")));
        config.open(QIODevice::WriteOnly);
        config.write(gatewayConfig(ports, 50));
        config.close();

        MqttClient::Options options;
        QString error;
        MqttClient::parseUrl(m_broker.url(), &options, &error);
        options.clientId = QStringLiteral("soak-sub");
        m_subscriber = std::make_unique<MqttClient>(options);
        connect(m_subscriber.get(), &MqttClient::messageReceived, this, &Soak::onMessage);
        m_subscriber->subscribe(QStringLiteral("e1212/#"));
        m_subscriber->start(&error);
        options.clientId = QStringLiteral("soak-pub");
        m_publisher = std::make_unique<MqttClient>(options);
        m_publisher->start(&error);

        m_gateway = std::make_unique<QProcess>();
        m_gateway->setProcessChannelMode(QProcess::ForwardedErrorChannel);
        // Writes allowed: an output may change, but only by a command.
        m_gateway->start(QStringLiteral(E1212_CTL), {QStringLiteral("serve"), QStringLiteral("--config"), config.fileName(),
                                                     QStringLiteral("--mqtt"), m_broker.url(), QStringLiteral("--mqtt-client-id"),
                                                     QStringLiteral("soak"), QStringLiteral("--allow-writes")});
        when([this] { return m_gatewayOnline; }, 30000, QStringLiteral("the gateway's start"), [this] { run(); });
    }

    void run()
    {
        m_clock.start();
        m_cpu0 = cpuSeconds(m_gateway->processId());
        std::printf("%6s %8s %8s %8s %8s %8s %8s %8s %8s %8s %10s\n", "minute", "RSS MiB", "changes", "seen", "pending",
                    "misattr", "seqgaps", "outputs", "faults", "offline", "load");
        // Random gaps, so that the changes do not lock on to the gateway's polls.
        auto *changes = new QTimer(this);
        changes->setSingleShot(true);
        changes->setTimerType(Qt::PreciseTimer);
        connect(changes, &QTimer::timeout, this, [this, changes] {
            makeChange();
            changes->start(QRandomGenerator::global()->bounded(c_changeIntervalMs / 2, c_changeIntervalMs * 3 / 2));
        });
        changes->start(c_changeIntervalMs);
        auto *sampler = new QTimer(this);
        connect(sampler, &QTimer::timeout, this, &Soak::sample);
        sampler->start(10000);
        auto *commands = new QTimer(this);
        connect(commands, &QTimer::timeout, this, &Soak::command);
        commands->start(c_commandIntervalMs);
        for (int third = 1; third <= 2; ++third)
            QTimer::singleShot(m_seconds * 1000 * third / 3, this, [this] { restartBroker(); });
        QTimer::singleShot(m_seconds * 1000, this, [this, changes, sampler, commands] {
            changes->stop();
            sampler->stop();
            commands->stop();
            // Every change still pending must come through once its module answers.
            when([this] { return pendingCount() == 0; }, 30000, QStringLiteral("every change's state"), [this] { finish(); });
            QTimer::singleShot(30000, this, [this] {
                if (pendingCount() != 0)
                    finish();
            });
        });
    }

    void makeChange()
    {
        if (m_paused)
            return;
        QRandomGenerator &random = *QRandomGenerator::global();
        for (int tries = 0; tries < 16; ++tries) {
            const int m = random.bounded(m_modules);
            const int channel = random.bounded(c_channels);
            Input &input = m_moduleList[size_t(m)].inputs[channel];
            if (input.pending)
                continue;
            input.pending = true;
            input.value = !input.confirmed;
            input.madeNs = monotonicNs();
            ++m_changesMade;
            m_moduleList[size_t(m)].process->write(QByteArray("DI") + QByteArray::number(channel) + (input.value ? "=1\n" : "=0\n"));
            return;
        }
    }

    // DO0 of module m reads `value` in `view` (0: the simulator, 1: the broker). An output set
    // on runs the module's pulse generator with a 65535 ms on-phase and a 1 ms off-phase: an
    // off that turns on again within a poll or two is that off-phase, not a change.
    void checkOutput(int m, int view, int value, const QString &where)
    {
        Module &module = m_moduleList[size_t(m)];
        qint64 &since = module.offPhaseSinceMs[view];
        if (module.outputAllowed & (1 << value)) {
            if (since && value == 1 && m_clock.elapsed() - since <= c_offPhaseMs)
                ++m_offPhases;
            else if (since && value == 1)
                fail(QStringLiteral("m%1 DO0 (%2) was off for %3 ms without a command").arg(m).arg(where).arg(m_clock.elapsed() - since),
                     &m_outputChanges);
            since = 0;
        } else if (value == 0 && module.outputAllowed == 2 && !since) {
            since = m_clock.elapsed();
        } else {
            fail(QStringLiteral("m%1 DO0 (%2) is %3 without a command").arg(m).arg(where).arg(value), &m_outputChanges);
        }
    }

    // An off-phase that did not end in time is a change.
    void checkOffPhases()
    {
        for (size_t m = 0; m < m_moduleList.size(); ++m) {
            for (qint64 &since : m_moduleList[m].offPhaseSinceMs) {
                if (since && m_clock.elapsed() - since > c_offPhaseMs) {
                    fail(QStringLiteral("m%1 DO0 off for more than %2 ms without a command").arg(m).arg(c_offPhaseMs), &m_outputChanges);
                    since = 0;
                }
            }
        }
    }

    // Toggles DO0 of a random module through its command topic.
    void command()
    {
        if (m_paused)
            return;
        const int m = QRandomGenerator::global()->bounded(m_modules);
        Module &module = m_moduleList[size_t(m)];
        module.outputCommanded = 1 - module.outputSeen;
        module.outputAllowed |= 1 << module.outputCommanded;
        ++m_commandsSent;
        m_publisher->publish(QStringLiteral("e1212/m%1/DO0/set").arg(m), QByteArray::number(module.outputCommanded));
    }

    void restartBroker()
    {
        if (m_finished)
            return;
        m_paused = true;
        m_outage = true;
        ++m_brokerRestarts;
        m_gatewayOnline = false;
        m_broker.kill();
        std::printf("broker killed at %.0f s\n", double(m_clock.elapsed()) / 1000.0);
        QTimer::singleShot(3000, this, [this] {
            QString error;
            if (!m_broker.start(&error)) {
                std::fprintf(stderr, "e1212mqttsoak: %s\n", qPrintable(error));
                QCoreApplication::exit(1);
                return;
            }
            // The gateway's status, published after it has sent every retained topic again.
            when([this] { return m_broker.isReady() && m_subscriber->isConnected() && m_gatewayOnline; }, 30000,
                 QStringLiteral("the gateway's return"), [this] {
                     std::printf("broker back at %.0f s\n", double(m_clock.elapsed()) / 1000.0);
                     QTimer::singleShot(2000, this, [this] {
                         m_outage = false;
                         m_paused = false;
                     });
                 });
        });
    }

    void onSimulatorOutput(int m)
    {
        Module &module = m_moduleList[size_t(m)];
        module.buffer += module.process->readAllStandardOutput();
        static const QRegularExpression listening(QStringLiteral("listening on 127\\.0\\.0\\.1:(\\d+)"));
        for (int end = module.buffer.indexOf('\n'); end >= 0; end = module.buffer.indexOf('\n')) {
            const QString line = QString::fromUtf8(module.buffer.left(end));
            module.buffer.remove(0, end + 1);
            const QRegularExpressionMatch match = listening.match(line);
            if (match.hasMatch())
                module.port = quint16(match.captured(1).toUInt());
            else if (line.contains(QLatin1String(" fault ")) && !line.endsWith(QLatin1String(" end")))
                ++m_faults[line.section(QLatin1Char(' '), 2, 2)];
            else if (line.startsWith(QLatin1String("DO0 ")))
                checkOutput(m, 0, line.endsWith(QLatin1String(" on")) ? 1 : 0, line);
            else if (line.startsWith(QLatin1String("DO")))
                fail(QStringLiteral("module m%1: output changed without a command: %2").arg(m).arg(line), &m_outputChanges);
        }
    }

    void onMessage(const MqttClient::Message &message)
    {
        const QStringList levels = message.topic.split(QLatin1Char('/'));
        if (levels.size() == 4 && levels.at(1) == QLatin1String("gateway") && levels.at(3) == QLatin1String("status")) {
            m_gatewayOnline = message.payload == "online";
            return;
        }
        if (levels.size() != 3 || !levels.at(1).startsWith(QLatin1Char('m')))
            return;
        const int m = levels.at(1).mid(1).toInt();
        if (m < 0 || m >= m_modules)
            return;
        Module &module = m_moduleList[size_t(m)];
        const QString &leaf = levels.at(2);
        if (leaf == QLatin1String("result")) {
            const QJsonObject result = QJsonDocument::fromJson(message.payload).object();
            if (result.value(QStringLiteral("topic")).toString() != QStringLiteral("e1212/m%1/DO0/set").arg(m))
                return;
            // A failed write may still have reached the module: then both values stay possible.
            if (result.value(QStringLiteral("ok")).toBool()) {
                ++m_commandsDone;
                module.outputAllowed = m_outage ? module.outputAllowed : 1 << module.outputCommanded;
            } else {
                ++m_commandsFailed;
            }
            return;
        }
        if (leaf == QLatin1String("availability")) {
            const bool online = message.payload == "online";
            module.offlineEvents += module.online && !online ? 1 : 0;
            module.online = online;
            return;
        }
        const bool input = leaf.startsWith(QLatin1String("DI"));
        if (!input && !leaf.startsWith(QLatin1String("DO")))
            return;
        const QJsonObject state = QJsonDocument::fromJson(message.payload).object();
        const qint64 seq = qint64(state.value(QStringLiteral("seq")).toDouble(-1));
        const int value = state.value(QStringLiteral("value")).toInt(-1);
        if (seq > module.lastSeq + 1 && module.lastSeq >= 0) {
            if (m_outage)
                ++m_resyncs;
            else
                fail(QStringLiteral("m%1: seq %2 after %3 (%4)").arg(m).arg(seq).arg(module.lastSeq).arg(message.topic), &m_seqGaps);
        }
        module.lastSeq = std::max(module.lastSeq, seq);
        if (!input) {
            if (leaf == QLatin1String("DO0") && (value == 0 || value == 1)) {
                checkOutput(m, 1, value, message.topic);
                module.outputSeen = value;
            } else if (value != 0) {
                fail(QStringLiteral("%1 is %2 though no command set it so").arg(message.topic).arg(value), &m_outputChanges);
            }
            return;
        }
        Input &in = module.inputs[leaf.mid(2).toInt() % c_channels];
        if (in.pending && value == int(in.value)) {
            in.pending = false;
            in.confirmed = in.value;
            ++m_changesSeen;
            m_latencies.push_back(double(monotonicNs() - in.madeNs) / 1e6);
        } else if (value != int(in.confirmed)) {
            fail(QStringLiteral("%1 is %2, never set so").arg(message.topic).arg(value), &m_misattributed);
        }
    }

    void fail(const QString &what, int *counter)
    {
        ++*counter;
        if (*counter <= 5)
            std::printf("FAIL %s\n", qPrintable(what));
    }

    int pendingCount() const
    {
        int pending = 0;
        for (const Module &module : m_moduleList)
            for (const Input &input : module.inputs)
                pending += input.pending ? 1 : 0;
        return pending;
    }

    int faultCount() const
    {
        int total = 0;
        for (const auto &[kind, count] : m_faults)
            total += count;
        return total;
    }

    int offlineCount() const
    {
        int total = 0;
        for (const Module &module : m_moduleList)
            total += module.offlineEvents;
        return total;
    }

    void sample()
    {
        checkOffPhases();
        m_rss.push_back(statusMiB(m_gateway->processId(), "VmRSS"));
        if (m_rss.size() % 6 != 0)
            return;
        std::printf("%6zu %8.1f %8d %8d %8d %8d %8d %8d %8d %8d %10s\n", m_rss.size() / 6, m_rss.back(), m_changesMade,
                    m_changesSeen, pendingCount(), m_misattributed, m_seqGaps, m_outputChanges, faultCount(), offlineCount(),
                    loadAverage().split(' ').value(0).constData());
    }

    // The mean RSS over one minute of samples (0-based).
    double minuteRss(size_t minute) const
    {
        double sum = 0;
        size_t count = 0;
        for (size_t i = minute * 6; i < std::min(m_rss.size(), minute * 6 + 6); ++i, ++count)
            sum += m_rss[i];
        return count ? sum / double(count) : 0;
    }

    void finish()
    {
        if (m_finished)
            return;
        m_finished = true;
        sample(); // the last minute's last sample; ends the off-phases
        const double seconds = double(m_clock.elapsed()) / 1000.0;
        const double cpu = 100.0 * (cpuSeconds(m_gateway->processId()) - m_cpu0) / seconds;
        const int lost = pendingCount();
        const size_t minutes = m_rss.size() / 6;
        const double second = minuteRss(1);
        const double last = minutes ? minuteRss(minutes - 1) : 0;
        const double growth = second > 0 ? 100.0 * (last - second) / second : 0;
        QByteArray faults;
        for (const auto &[kind, count] : m_faults)
            faults += ' ' + kind.toUtf8() + ' ' + QByteArray::number(count);
        std::printf("\nsoak: %.0f s, %d modules, broker restarted %d times, load average %s", seconds, m_modules, m_brokerRestarts,
                    loadAverage().constData());
        std::printf("faults injected:%s; modules offline %d times\n", faults.constData(), offlineCount());
        std::printf("input changes made %d, seen %d, lost %d, misattributed %d; change to subscriber p50 %.1f ms, p99 %.1f ms, "
                    "max %.1f ms\n",
                    m_changesMade, m_changesSeen, lost, m_misattributed, percentile(m_latencies, 0.5), percentile(m_latencies, 0.99),
                    percentile(m_latencies, 1.0));
        std::printf("seq gaps %d (jumps across broker restarts %d); DO0 commands sent %d, done %d, failed %d; on-outputs' 1 ms "
                    "off-phases %d; outputs changed without a command %d\n",
                    m_seqGaps, m_resyncs, m_commandsSent, m_commandsDone, m_commandsFailed, m_offPhases, m_outputChanges);
        std::printf("gateway RSS minute 2 %.1f MiB, last minute %.1f MiB (%+.1f %%), peak %.1f MiB; CPU %.1f %%\n", second, last,
                    growth, statusMiB(m_gateway->processId(), "VmHWM"), cpu);
        const bool ok = lost == 0 && m_misattributed == 0 && m_seqGaps == 0 && m_outputChanges == 0;
        m_gateway->terminate();
        for (const Module &module : m_moduleList)
            module.process->terminate();
        when([this] {
            return m_gateway->state() == QProcess::NotRunning
                && std::all_of(m_moduleList.begin(), m_moduleList.end(),
                               [](const Module &m) { return m.process->state() == QProcess::NotRunning; });
        }, 10000, QStringLiteral("the processes' end"), [ok] { QCoreApplication::exit(ok ? 0 : 1); });
    }

    const int m_seconds;
    const int m_modules;
    MosquittoBroker m_broker;
    QTemporaryDir m_dir;
    QElapsedTimer m_clock;
    std::unique_ptr<MqttClient> m_subscriber;
    std::unique_ptr<MqttClient> m_publisher;
    std::unique_ptr<QProcess> m_gateway;
    std::vector<Module> m_moduleList;
    std::map<QString, int> m_faults;
    std::vector<double> m_rss;
    std::vector<double> m_latencies;
    double m_cpu0 = 0;
    bool m_gatewayOnline = false;
    bool m_paused = false;
    bool m_outage = false;
    bool m_finished = false;
    int m_brokerRestarts = 0;
    int m_changesMade = 0;
    int m_changesSeen = 0;
    int m_misattributed = 0;
    int m_seqGaps = 0;
    int m_resyncs = 0;
    int m_outputChanges = 0;
    int m_commandsSent = 0;
    int m_commandsDone = 0;
    int m_commandsFailed = 0;
    int m_offPhases = 0;
};

} // namespace

int main(int argc, char **argv)
{
    QCoreApplication app(argc, argv);
    std::setvbuf(stdout, nullptr, _IOLBF, 0);
    int seconds = 600;
    int modules = 16;
    const QStringList args = app.arguments();
    for (int i = 1; i < args.size(); i += 2) {
        const int value = args.value(i + 1).toInt();
        if (args.at(i) == QLatin1String("--seconds") && value >= 30) {
            seconds = value;
        } else if (args.at(i) == QLatin1String("--modules") && value > 0) {
            modules = value;
        } else {
            std::fprintf(stderr, "usage: e1212mqttsoak [--seconds S (30 or more)] [--modules N]\n");
            return 2;
        }
    }
    Soak soak(seconds, modules);
    return QCoreApplication::exec();
}
