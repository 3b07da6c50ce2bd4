// SPDX-License-Identifier: MIT
// e1212mqttbench: latency from a simulated input change to an MQTT subscriber through the
// gateway (e1212ctl serve as a process, polling every 50 ms), with 1 and 256 modules of 16
// channels; the broker's own publish-to-subscriber latency as the floor; the gateway's CPU
// and RSS. The broker (mosquitto), the simulators and the subscriber run here, one step
// after another on the event loop.
#include "e1212simulator.h"
#include "mosquittobroker.h"
#include "mqttclient.h"

#include <QCoreApplication>
#include <QElapsedTimer>
#include <QFile>
#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>
#include <QProcess>
#include <QTemporaryDir>
#include <QTimer>

#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <functional>
#include <map>
#include <memory>
#include <vector>

namespace {

constexpr int c_changes = 400;
constexpr int c_changeIntervalMs = 20;

double percentile(std::vector<double> values, double p)
{
    if (values.empty())
        return 0;
    std::sort(values.begin(), values.end());
    return values[std::min(values.size() - 1, size_t(p * double(values.size())))];
}

// utime + stime of a process, in seconds.
double cpuSeconds(qint64 pid)
{
    QFile stat(QStringLiteral("/proc/%1/stat").arg(pid));
    if (!stat.open(QIODevice::ReadOnly))
        return 0;
    const QList<QByteArray> fields = stat.readAll().split(')').value(1).trimmed().split(' ');
    return (fields.value(11).toDouble() + fields.value(12).toDouble()) / double(sysconf(_SC_CLK_TCK));
}

// A line of /proc/PID/status in MiB ("VmRSS", "VmHWM").
double statusMiB(qint64 pid, const char *key)
{
    QFile status(QStringLiteral("/proc/%1/status").arg(pid));
    if (!status.open(QIODevice::ReadOnly))
        return 0;
    for (const QByteArray &line : status.readAll().split('\n'))
        if (line.startsWith(key))
            return line.mid(line.indexOf(':') + 1).trimmed().split(' ').value(0).toDouble() / 1024.0;
    return 0;
}

class Bench : public QObject
{
public:
    Bench()
    {
        m_steps = {[this] { startBroker(); }, [this] { floor(); }, [this] { scenario(1); }, [this] { scenario(256); },
                   [] { QCoreApplication::exit(0); }};
        QTimer::singleShot(0, this, [this] { next(); });
    }

private:
    void next()
    {
        const auto step = m_steps.front();
        m_steps.erase(m_steps.begin());
        step();
    }

    // Calls `then` once `ready` holds, checking every 20 ms; gives up after `ms`.
    void when(const std::function<bool()> &ready, int ms, const QString &what, const std::function<void()> &then)
    {
        auto *timer = new QTimer(this);
        auto elapsed = std::make_shared<QElapsedTimer>();
        elapsed->start();
        connect(timer, &QTimer::timeout, this, [=] {
            if (ready()) {
                timer->deleteLater();
                then();
            } else if (elapsed->elapsed() > ms) {
                std::fprintf(stderr, "e1212mqttbench: %s did not happen within %d ms\n", qPrintable(what), ms);
                QCoreApplication::exit(1);
            }
        });
        timer->start(20);
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
        std::printf("%-34s %8s %10s %10s %10s %10s %10s %12s\n", "what", "modules", "changes", "p50 ms", "p99 ms", "CPU %", "RSS MiB",
                    "polls/s/mod");
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
                     m_subscriber.reset();
                     m_publisher.reset();
                     next();
                 });
             });
    }

    // `modules` simulators behind one gateway; input changes spread over every module.
    void scenario(int modules)
    {
        m_simulators.clear();
        QFile file(QStringLiteral(E1212_CONFIG_FILE));
        file.open(QIODevice::ReadOnly);
        const QJsonObject builtIn = QJsonDocument::fromJson(file.readAll()).object();
        const QJsonValue table = builtIn.value(QStringLiteral("parameters")).toObject().value(QStringLiteral("io1_channels"));
        QJsonArray devices;
        for (int i = 0; i < modules; ++i) {
            m_simulators.push_back(std::make_unique<E1212Simulator>());
            QString error;
            m_simulators.back()->start(QHostAddress::LocalHost, 0, &error);
            const QString name = QStringLiteral("m%1").arg(i);
            devices.append(QJsonObject{{QStringLiteral("reference"), QString(QStringLiteral("Bench ") + name)},
                                       {QStringLiteral("parameters"), QJsonObject{{QString(name + QStringLiteral("_channels")), table}}},
                                       {QStringLiteral("connection"), QJsonObject{{QStringLiteral("host"), QStringLiteral("127.0.0.1")},
                                                                                  {QStringLiteral("port"), m_simulators.back()->port()},
                                                                                  {QStringLiteral("pollIntervalMs"), 50}}}});
        }
        QFile config(m_dir.filePath(QStringLiteral("bench.json")));
        config.open(QIODevice::WriteOnly);
        config.write(QJsonDocument(QJsonObject{{QStringLiteral("devices"), devices}}).toJson());
        config.close();

        m_states = 0;
        m_pending.clear();
        m_latencies.clear();
        m_subscriber = client(QStringLiteral("bench-sub"));
        connect(m_subscriber.get(), &MqttClient::messageReceived, this, [this](const MqttClient::Message &message) {
            ++m_states;
            const auto it = m_pending.find(message.topic);
            if (it != m_pending.end() && message.payload.contains(it->second.first)) {
                m_latencies.push_back(double(m_clock.nsecsElapsed() - it->second.second) / 1e6);
                m_pending.erase(it);
            }
        });
        m_subscriber->subscribe(QStringLiteral("e1212/+/+"));
        m_gateway = std::make_unique<QProcess>();
        m_gateway->setProcessChannelMode(QProcess::ForwardedErrorChannel);
        m_gateway->start(QStringLiteral(E1212_CTL), {QStringLiteral("serve"), QStringLiteral("--config"), config.fileName(),
                                                     QStringLiteral("--mqtt"), m_broker.url(), QStringLiteral("--mqtt-client-id"),
                                                     QStringLiteral("bench")});
        // Every state, and each module's availability, once.
        when([this, modules] { return m_states >= modules * 17; }, 60000, QStringLiteral("every module's first states"), [this, modules] {
            const qint64 pid = m_gateway->processId();
            const double cpu0 = cpuSeconds(pid);
            const qint64 requests0 = requestsServed();
            QElapsedTimer window;
            window.start();
            auto *timer = new QTimer(this);
            auto sent = std::make_shared<int>(0);
            connect(timer, &QTimer::timeout, this, [=] {
                const int module = *sent % modules;
                const int channel = (*sent / modules) % E1212Simulator::ChannelCount;
                E1212Simulator &simulator = *m_simulators[size_t(module)];
                const bool on = !simulator.input(channel);
                const QString topic = QStringLiteral("e1212/m%1/DI%2").arg(module).arg(channel);
                m_pending[topic] = {on ? QByteArray("\"value\":1") : QByteArray("\"value\":0"), m_clock.nsecsElapsed()};
                simulator.setInput(channel, on);
                if (++*sent == c_changes)
                    timer->deleteLater();
            });
            timer->start(c_changeIntervalMs);
            when([this] { return int(m_latencies.size()) >= c_changes; }, 120000, QStringLiteral("every change's state"),
                 [this, modules, pid, cpu0, requests0, window] {
                     const double seconds = double(window.elapsed()) / 1000.0;
                     const double cpu = 100.0 * (cpuSeconds(pid) - cpu0) / seconds;
                     // Two requests (inputs, outputs) make one poll of a module.
                     m_pollsPerSecond = double(requestsServed() - requests0) / 2.0 / modules / seconds;
                     printRow("input change to subscriber", modules, m_latencies, cpu, statusMiB(pid, "VmHWM"));
                     m_gateway->terminate();
                     connect(m_gateway.get(), qOverload<int, QProcess::ExitStatus>(&QProcess::finished), this, [this] {
                         m_subscriber.reset();
                         next();
                     });
                 });
        });
    }

    qint64 requestsServed() const
    {
        qint64 total = 0;
        for (const auto &simulator : m_simulators)
            total += simulator->requestCount();
        return total;
    }

    void printRow(const char *what, int modules, const std::vector<double> &latencies, double cpu, double rss)
    {
        const auto figure = [](double value) { return value < 0 ? QByteArray("-") : QByteArray::number(value, 'f', 1); };
        std::printf("%-34s %8s %10zu %10.2f %10.2f %10s %10s %12s\n", what, modules ? QByteArray::number(modules).constData() : "-",
                    latencies.size(), percentile(latencies, 0.5), percentile(latencies, 0.99), figure(cpu).constData(),
                    figure(rss).constData(), modules ? figure(m_pollsPerSecond).constData() : "-");
    }

    std::vector<std::function<void()>> m_steps;
    MosquittoBroker m_broker;
    QTemporaryDir m_dir;
    QElapsedTimer m_clock;
    std::unique_ptr<MqttClient> m_publisher;
    std::unique_ptr<MqttClient> m_subscriber;
    std::unique_ptr<QProcess> m_gateway;
    std::vector<std::unique_ptr<E1212Simulator>> m_simulators;
    // The topic of each change not seen yet: the value text awaited and when the input changed.
    std::map<QString, std::pair<QByteArray, qint64>> m_pending;
    std::vector<double> m_latencies;
    int m_states = 0;
    double m_pollsPerSecond = 0;
};

} // namespace

int main(int argc, char **argv)
{
    QCoreApplication app(argc, argv);
    std::setvbuf(stdout, nullptr, _IOLBF, 0);
    Bench bench;
    return QCoreApplication::exec();
}
