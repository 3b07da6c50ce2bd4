// SPDX-License-Identifier: MIT
// e1212mqttbench: latency from a simulated input change to an MQTT subscriber through the
// gateway (e1212ctl serve as a process, polling every 50 ms), with 1 and 256 modules of 16
// channels; the broker's own publish-to-subscriber latency as the floor; the gateway's CPU
// and RSS, read from /proc of the gateway process. The simulated modules run in e1212simfarm
// processes (--farms N of them, default 4), which stamp each input change with the time
// it took effect; the broker (mosquitto), the change-maker and the subscriber run here.
// Every figure is also given as the median over --rounds N rounds.
//
//   e1212mqttbench [--rounds N] [--farms N] [--modules 1,256] [--gateway-wrapper 'CMD ARGS']
//
// --gateway-wrapper runs the gateway under CMD (e.g. 'valgrind --tool=callgrind').
#include "benchsupport.h"
#include "mosquittobroker.h"
#include "mqttclient.h"

#include <QCoreApplication>
#include <QElapsedTimer>
#include <QFile>
#include <QProcess>
#include <QRandomGenerator>
#include <QTemporaryDir>
#include <QTimer>

#include <algorithm>
#include <cstdio>
#include <functional>
#include <map>
#include <memory>
#include <vector>

namespace {

constexpr int c_changes = 400;
constexpr int c_inputs = 8; // DI0-DI7 of a module
constexpr int c_changeIntervalMs = 20; // on average

double percentile(std::vector<double> values, double p)
{
    if (values.empty())
        return 0;
    std::sort(values.begin(), values.end());
    return values[std::min(values.size() - 1, size_t(p * double(values.size())))];
}

class Bench : public QObject
{
public:
    Bench(int rounds, int farms, const QStringList &gatewayWrapper, const QList<int> &moduleCounts)
        : m_farmCount(farms)
        , m_gatewayWrapper(gatewayWrapper)
    {
        m_steps = {[this] { startBroker(); }};
        for (int round = 0; round < rounds; ++round) {
            m_steps.push_back([this] { floor(); });
            for (int modules : moduleCounts)
                m_steps.push_back([this, modules] { scenario(modules); });
        }
        m_steps.push_back([this] { summary(); });
        m_steps.push_back([] { QCoreApplication::exit(0); });
        QTimer::singleShot(0, this, [this] { next(); });
    }

private:
    void next()
    {
        const auto step = m_steps.front();
        m_steps.erase(m_steps.begin());
        step();
    }

    void when(const std::function<bool()> &ready, int ms, const QString &what, const std::function<void()> &then)
    {
        whenReady(this, ready, 20, ms, what, then);
    }

    std::unique_ptr<MqttClient> client(const QString &id)
    {
        MqttClient::Options options;
        QString error;
        MqttClient::parseUrl(m_broker.url(), &options, &error);
        options.clientId = id;
        auto mqtt = std::make_unique<MqttClient>(options);
        mqtt->start(&error);
        return mqtt;
    }

    void startBroker()
    {
        QString error;
        if (!m_broker.start(&error)) {
            std::fprintf(stderr, "e1212mqttbench: %s\n", qPrintable(error));
            QCoreApplication::exit(1);
            return;
        }
        std::printf("%-34s %8s %10s %10s %10s %10s %10s %12s %12s\n", "what", "modules", "changes", "p50 ms", "p99 ms", "CPU %", "RSS MiB",
                    "polls/s/mod", "sims' CPU %");
        when([this] { return m_broker.isReady(); }, 10000, QStringLiteral("the broker's start"), [this] { next(); });
    }

    // The broker alone: a publisher to a subscriber, one message every interval.
    void floor()
    {
        m_publisher = client(QStringLiteral("bench-pub"));
        m_subscriber = client(QStringLiteral("bench-sub"));
        m_latencies.clear();
        m_clock.start();
        connect(m_subscriber.get(), &MqttClient::messageReceived, this, [this](const MqttClient::Message &message) {
            m_latencies.push_back(double(m_clock.nsecsElapsed() - message.payload.toLongLong()) / 1e6);
        });
        m_subscriber->subscribe(QStringLiteral("bench/floor"));
        // The subscription is in place once a retained marker comes back.
        m_publisher->setRetained(QStringLiteral("bench/floor"), QByteArray::number(m_clock.nsecsElapsed()));
        when([this] { return m_subscriber->isConnected() && m_publisher->isConnected() && !m_latencies.empty(); }, 10000,
             QStringLiteral("the floor's subscription"), [this] {
                 m_latencies.clear();
                 auto *timer = new QTimer(this);
                 auto sent = std::make_shared<int>(0);
                 connect(timer, &QTimer::timeout, this, [=] {
                     m_publisher->publish(QStringLiteral("bench/floor"), QByteArray::number(m_clock.nsecsElapsed()));
                     if (++*sent == c_changes)
                         timer->deleteLater();
                 });
                 timer->start(c_changeIntervalMs);
                 when([this] { return int(m_latencies.size()) >= c_changes; }, 60000, QStringLiteral("the floor's messages"), [this] {
                     printRow("broker floor (publish to subscriber)", 0, m_latencies, -1, -1);
                     m_rounds[0].push_back({percentile(m_latencies, 0.5), percentile(m_latencies, 0.99), -1, -1, -1, -1});
                     m_subscriber.reset();
                     m_publisher.reset();
                     next();
                 });
             });
    }

    // `modules` simulated modules, served by e1212simfarm processes, behind one gateway;
    // input changes spread over every module.
    void scenario(int modules)
    {
        m_farms.clear();
        m_farmPorts.clear();
        const int farms = std::min(modules, m_farmCount);
        for (int f = 0; f < farms; ++f) {
            const int first = modules * f / farms;
            const int count = modules * (f + 1) / farms - first;
            auto farm = std::make_unique<Farm>();
            farm->first = first;
            farm->process.setProcessChannelMode(QProcess::ForwardedErrorChannel);
            Farm *raw = farm.get();
            connect(&farm->process, &QProcess::readyReadStandardOutput, this, [this, raw] { onFarmOutput(*raw); });
            farm->process.start(QStringLiteral(E1212_SIMFARM), {QString::number(count)});
            m_farms.push_back(std::move(farm));
        }
        when([this, modules] { return int(m_farmPorts.size()) == modules; }, 30000, QStringLiteral("the simulators' start"),
             [this, modules] { startGateway(modules); });
    }

    void startGateway(int modules)
    {
        QFile config(m_dir.filePath(QStringLiteral("bench.json")));
        config.open(QIODevice::WriteOnly);
        config.write(gatewayConfig(m_farmPorts, 50));
        config.close();

        m_states = 0;
        m_inputs.clear(); // the farms start with every input off
        m_pending.clear();
        m_latencies.clear();
        m_subscriber = client(QStringLiteral("bench-sub"));
        connect(m_subscriber.get(), &MqttClient::messageReceived, this, [this](const MqttClient::Message &message) {
            m_states += message.retained ? 0 : 1; // not what an earlier round left
            const auto it = m_pending.find(message.topic);
            if (it != m_pending.end() && !it->second.receivedNs && message.payload.contains(it->second.awaited)) {
                it->second.receivedNs = monotonicNs();
                settle(it);
            }
        });
        m_subscriber->subscribe(QStringLiteral("e1212/+/+"));
        m_gateway = std::make_unique<QProcess>();
        m_gateway->setProcessChannelMode(QProcess::ForwardedErrorChannel);
        QStringList arguments{QStringLiteral("serve"), QStringLiteral("--config"), config.fileName(), QStringLiteral("--mqtt"),
                              m_broker.url(), QStringLiteral("--mqtt-client-id"), QStringLiteral("bench")};
        if (!m_gatewayWrapper.isEmpty()) {
            arguments.prepend(QStringLiteral(E1212_CTL));
            m_gateway->start(m_gatewayWrapper.first(), m_gatewayWrapper.mid(1) + arguments);
        } else {
            m_gateway->start(QStringLiteral(E1212_CTL), arguments);
        }
        // Every state, and each module's availability, once.
        when([this, modules] { return m_states >= modules * 17; }, 120000, QStringLiteral("every module's first states"),
             [this, modules] { measure(modules); });
    }

    void measure(int modules)
    {
        const qint64 pid = m_gateway->processId();
        const double cpu0 = cpuSeconds(pid);
        const double farmsCpu0 = farmsCpuSeconds();
        askCounts();
        auto window = std::make_shared<QElapsedTimer>();
        window->start();
        // Random gaps (on average the interval), so that the changes do not lock on to the polls.
        auto *timer = new QTimer(this);
        timer->setTimerType(Qt::PreciseTimer);
        timer->setSingleShot(true);
        auto sent = std::make_shared<int>(0);
        connect(timer, &QTimer::timeout, this, [=] {
            const int module = *sent % modules;
            const int channel = (*sent / modules) % c_inputs;
            const QString topic = QStringLiteral("e1212/m%1/DI%2").arg(module).arg(channel);
            const bool on = !m_inputs[topic];
            m_inputs[topic] = on;
            m_pending[topic] = {on ? QByteArray("\"value\":1") : QByteArray("\"value\":0"), 0, 0};
            Farm &farm = farmOf(module);
            farm.process.write(QByteArray("set ") + QByteArray::number(module - farm.first) + ' ' + QByteArray::number(channel)
                               + (on ? " 1\n" : " 0\n"));
            if (++*sent == c_changes)
                timer->deleteLater();
            else
                timer->start(QRandomGenerator::global()->bounded(c_changeIntervalMs / 2, c_changeIntervalMs * 3 / 2));
        });
        timer->start(c_changeIntervalMs);
        when([this] { return int(m_latencies.size()) >= c_changes && m_countReplies == int(m_farms.size()); }, 120000,
             QStringLiteral("every change's state"), [this, modules, pid, cpu0, farmsCpu0, window] {
                 const double seconds = double(window->elapsed()) / 1000.0;
                 const double cpu = 100.0 * (cpuSeconds(pid) - cpu0) / seconds;
                 m_farmsCpu = 100.0 * (farmsCpuSeconds() - farmsCpu0) / seconds;
                 const qint64 requests0 = m_requests;
                 askCounts();
                 when([this] { return m_countReplies == int(m_farms.size()); }, 10000, QStringLiteral("the request counts"),
                      [this, modules, pid, cpu, requests0, window] {
                          // Two requests (inputs, outputs) make one poll of a module.
                          const double seconds = double(window->elapsed()) / 1000.0;
                          m_pollsPerSecond = double(m_requests - requests0) / 2.0 / modules / seconds;
                          const double rss = statusMiB(pid, "VmHWM");
                          printRow("input change to subscriber", modules, m_latencies, cpu, rss);
                          m_rounds[modules].push_back({percentile(m_latencies, 0.5), percentile(m_latencies, 0.99), cpu, rss,
                                                       m_pollsPerSecond, m_farmsCpu});
                          m_gateway->terminate();
                          // The farms quit at the end of their input.
                          for (const auto &farm : m_farms)
                              farm->process.closeWriteChannel();
                          when([this] {
                              return m_gateway->state() == QProcess::NotRunning
                                  && std::all_of(m_farms.begin(), m_farms.end(),
                                                 [](const auto &farm) { return farm->process.state() == QProcess::NotRunning; });
                          }, 10000, QStringLiteral("the gateway's and simulators' end"), [this] {
                              m_subscriber.reset();
                              m_farms.clear();
                              next();
                          });
                      });
             });
    }

    struct Farm
    {
        QProcess process;
        int first = 0; // the bench's number of its first module
        QByteArray buffer;
        std::vector<quint16> ports;
    };

    void collectPorts()
    {
        std::vector<quint16> all;
        for (const auto &farm : m_farms) {
            if (farm->ports.empty())
                return;
            all.insert(all.end(), farm->ports.begin(), farm->ports.end());
        }
        m_farmPorts = all;
    }

    // A change is settled once both its time (from the simulator) and its arrival are known.
    struct Pending
    {
        QByteArray awaited;
        qint64 changedNs;
        qint64 receivedNs;
    };

    void settle(std::map<QString, Pending>::iterator it)
    {
        if (!it->second.changedNs || !it->second.receivedNs)
            return;
        m_latencies.push_back(double(it->second.receivedNs - it->second.changedNs) / 1e6);
        m_pending.erase(it);
    }

    Farm &farmOf(int module)
    {
        for (size_t f = m_farms.size(); f-- > 0;)
            if (m_farms[f]->first <= module)
                return *m_farms[f];
        return *m_farms.front();
    }

    double farmsCpuSeconds() const
    {
        double total = 0;
        for (const auto &farm : m_farms)
            total += cpuSeconds(farm->process.processId());
        return total;
    }

    void askCounts()
    {
        m_requests = 0;
        m_countReplies = 0;
        for (const auto &farm : m_farms)
            farm->process.write("count\n");
    }

    void onFarmOutput(Farm &farm)
    {
        farm.buffer += farm.process.readAllStandardOutput();
        for (int end = farm.buffer.indexOf('\n'); end >= 0; end = farm.buffer.indexOf('\n')) {
            const QList<QByteArray> words = farm.buffer.left(end).split(' ');
            farm.buffer.remove(0, end + 1);
            if (words.value(0) == "ports") {
                // Farms start one after another in module order: ports arrive in farm order.
                std::vector<quint16> ports;
                for (int i = 1; i < words.size(); ++i)
                    ports.push_back(quint16(words.at(i).toUInt()));
                farm.ports = ports;
                collectPorts();
            } else if (words.value(0) == "changed" && words.size() == 5) {
                const QString topic = QStringLiteral("e1212/m%1/DI%2").arg(farm.first + words.at(1).toInt()).arg(QString::fromLatin1(words.at(2)));
                const auto it = m_pending.find(topic);
                if (it != m_pending.end() && !it->second.changedNs) {
                    it->second.changedNs = words.at(4).toLongLong();
                    settle(it);
                }
            } else if (words.value(0) == "count") {
                m_requests += words.value(1).toLongLong();
                ++m_countReplies;
            }
        }
    }
    // The median of each figure over the rounds, and its range.
    void summary()
    {
        std::printf("\nmedians over the rounds [min-max]; load average %s", loadAverage().constData());
        for (const auto &[modules, rounds] : m_rounds) {
            const auto column = [&rounds](double Round::*field) -> QByteArray {
                std::vector<double> values;
                for (const Round &round : rounds)
                    values.push_back(round.*field);
                std::sort(values.begin(), values.end());
                if (values.front() < 0)
                    return QByteArray("-");
                return QByteArray::number(values[values.size() / 2], 'f', 1) + " [" + QByteArray::number(values.front(), 'f', 1)
                    + "-" + QByteArray::number(values.back(), 'f', 1) + "]";
            };
            std::printf("%-6s p50 %-18s p99 %-18s CPU %% %-18s RSS MiB %-18s polls/s/module %-18s simulators' CPU %% %s\n",
                        modules ? QByteArray::number(modules).constData() : "floor", column(&Round::p50).constData(),
                        column(&Round::p99).constData(), column(&Round::cpu).constData(), column(&Round::rss).constData(),
                        column(&Round::polls).constData(), column(&Round::farmsCpu).constData());
        }
        next();
    }

    void printRow(const char *what, int modules, const std::vector<double> &latencies, double cpu, double rss)
    {
        const auto figure = [](double value) { return value < 0 ? QByteArray("-") : QByteArray::number(value, 'f', 1); };
        std::printf("%-34s %8s %10zu %10.2f %10.2f %10s %10s %12s %12s\n", what, modules ? QByteArray::number(modules).constData() : "-",
                    latencies.size(), percentile(latencies, 0.5), percentile(latencies, 0.99), figure(cpu).constData(),
                    figure(rss).constData(), modules ? figure(m_pollsPerSecond).constData() : "-",
                    modules ? figure(m_farmsCpu).constData() : "-");
    }

    std::vector<std::function<void()>> m_steps;
    MosquittoBroker m_broker;
    QTemporaryDir m_dir;
    QElapsedTimer m_clock;
    std::unique_ptr<MqttClient> m_publisher;
    std::unique_ptr<MqttClient> m_subscriber;
    std::unique_ptr<QProcess> m_gateway;
    std::vector<std::unique_ptr<Farm>> m_farms;
    std::vector<quint16> m_farmPorts;
    // The topic of each change not settled yet.
    std::map<QString, Pending> m_pending;
    // Each input's value as the bench last set it.
    std::map<QString, bool> m_inputs;
    qint64 m_requests = 0;
    int m_countReplies = 0;
    int m_farmCount = 4;
    QStringList m_gatewayWrapper;
    struct Round
    {
        double p50, p99, cpu, rss, polls, farmsCpu;
    };
    std::map<int, std::vector<Round>> m_rounds;
    std::vector<double> m_latencies;
    int m_states = 0;
    double m_pollsPerSecond = 0;
    double m_farmsCpu = 0;
};

} // namespace

int main(int argc, char **argv)
{
    QCoreApplication app(argc, argv);
    std::setvbuf(stdout, nullptr, _IOLBF, 0);
    int rounds = 1;
    int farms = 4;
    QList<int> moduleCounts{1, 256};
    QStringList wrapper;
    const QStringList args = app.arguments();
    for (int i = 1; i < args.size(); ++i) {
        const QString value = args.value(i + 1);
        if (args.at(i) == QLatin1String("--rounds") && value.toInt() > 0) {
            rounds = value.toInt();
        } else if (args.at(i) == QLatin1String("--farms") && value.toInt() > 0) {
            farms = value.toInt();
        } else if (args.at(i) == QLatin1String("--modules") && !value.isEmpty()) {
            moduleCounts.clear();
            for (const QString &count : value.split(QLatin1Char(',')))
                moduleCounts << std::max(1, count.toInt());
        } else if (args.at(i) == QLatin1String("--gateway-wrapper") && !value.isEmpty()) {
            wrapper = value.split(QLatin1Char(' '), Qt::SkipEmptyParts);
        } else {
            std::fprintf(stderr, "usage: e1212mqttbench [--rounds N] [--farms N] [--modules 1,256] [--gateway-wrapper 'CMD ARGS']\n");
            return 2;
        }
        ++i;
    }
    std::printf("load average at start: %s", loadAverage().constData());
    Bench bench(rounds, farms, wrapper, moduleCounts);
    return QCoreApplication::exec();
}
