// SPDX-License-Identifier: MIT
// e1212bench: the whole stack (Host, device plug-in, Modbus TCP driver) against a bare
// QModbusTcpClient read loop, both on one loopback simulator served by a child process, so
// that the CPU and memory figures are the client's alone.
#include "ctllog.h"
#include "deviceconfig.h"
#include "e1212simulator.h"
#include "host.h"
#include "pluginmanager.h"

#include <QCoreApplication>
#include <QElapsedTimer>
#include <QEventLoop>
#include <QModbusTcpClient>
#include <QVariant>

#include <sched.h>
#include <sys/prctl.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <csignal>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <functional>
#include <memory>
#include <vector>

namespace {

struct Figures
{
    double medianUs = 0;
    double requestsPerSecond = 0;
    double cpuUsPerRequest = 0;
    double rssMiB = 0;
    int failures = 0;
};

// CPU time of the calling (client) thread; the server's thread is not counted.
double threadCpuUs()
{
    rusage usage{};
    getrusage(RUSAGE_THREAD, &usage);
    return (usage.ru_utime.tv_sec + usage.ru_stime.tv_sec) * 1e6 + usage.ru_utime.tv_usec + usage.ru_stime.tv_usec;
}

double rssMiB()
{
    long pages = 0;
    if (FILE *statm = std::fopen("/proc/self/statm", "r")) {
        long size = 0;
        if (std::fscanf(statm, "%ld %ld", &size, &pages) != 2)
            pages = 0;
        std::fclose(statm);
    }
    return double(pages) * double(sysconf(_SC_PAGESIZE)) / (1024.0 * 1024.0);
}

// Sends one request for client `index` and calls `done(ok)` once it is answered.
using Issue = std::function<void(int index, std::function<void(bool)> done)>;

// `clients` loops, each sending its next request as soon as the last one is answered,
// until `total` requests were answered.
Figures runLoops(int clients, int total, const Issue &issue)
{
    Figures figures;
    std::vector<qint64> latencies;
    latencies.reserve(size_t(total));
    std::vector<QElapsedTimer> sent(static_cast<size_t>(clients));
    QEventLoop loop;
    int issued = 0;
    QElapsedTimer wall;
    const double cpuBefore = threadCpuUs();
    wall.start();
    std::function<void(int)> next = [&](int index) {
        if (issued >= total)
            return;
        ++issued;
        sent[size_t(index)].start();
        issue(index, [&, index](bool ok) {
            latencies.push_back(sent[size_t(index)].nsecsElapsed());
            figures.failures += ok ? 0 : 1;
            if (int(latencies.size()) == total)
                loop.quit();
            else
                next(index);
        });
    };
    for (int index = 0; index < clients; ++index)
        next(index);
    loop.exec();
    const double seconds = double(wall.nsecsElapsed()) / 1e9;
    figures.cpuUsPerRequest = (threadCpuUs() - cpuBefore) / total;
    std::nth_element(latencies.begin(), latencies.begin() + total / 2, latencies.end());
    figures.medianUs = double(latencies[size_t(total / 2)]) / 1000.0;
    figures.requestsPerSecond = total / seconds;
    figures.rssMiB = rssMiB();
    return figures;
}

class FullStack
{
public:
    FullStack(PluginManager *plugins, const DeviceConfig &base, quint16 port, int devices)
        : m_host(plugins)
    {
        for (int i = 0; i < devices; ++i) {
            DeviceConfig config = base;
            // The last word picks the channel table: keep it.
            config.reference = QStringLiteral("bench%1 io1").arg(i);
            config.connection = {{QStringLiteral("host"), QStringLiteral("127.0.0.1")}, {QStringLiteral("port"), int(port)},
                                 {QStringLiteral("timeoutMs"), 3000}};
            QString error;
            if (!m_host.addDevice(config, &error))
                qFatal("%s", qPrintable(error));
            m_devices << m_host.device(config.reference);
        }
    }
    Issue issue(const QString &command)
    {
        return [this, command](int index, std::function<void(bool)> done) {
            Execution *execution = m_host.execute(m_devices.at(index), command, {{QStringLiteral("channel"), QStringLiteral("DI0")}});
            QObject::connect(execution, &Execution::finished, execution, [execution, done] {
                execution->deleteLater();
                done(execution->isOk());
            });
        };
    }

private:
    Host m_host;
    QList<DAbstractPlugin *> m_devices;
};

class BareQt
{
public:
    BareQt(quint16 port, int clients)
    {
        for (int i = 0; i < clients; ++i) {
            auto client = std::make_unique<QModbusTcpClient>();
            client->setConnectionParameter(QModbusDevice::NetworkAddressParameter, QStringLiteral("127.0.0.1"));
            client->setConnectionParameter(QModbusDevice::NetworkPortParameter, int(port));
            client->setTimeout(3000);
            client->setNumberOfRetries(0);
            QEventLoop loop;
            QObject::connect(client.get(), &QModbusDevice::stateChanged, &loop, [&loop](QModbusDevice::State state) {
                if (state == QModbusDevice::ConnectedState || state == QModbusDevice::UnconnectedState)
                    loop.quit();
            });
            if (client->connectDevice() && client->state() != QModbusDevice::ConnectedState)
                loop.exec();
            m_clients.push_back(std::move(client));
        }
    }
    Issue issue(int bits)
    {
        return [this, bits](int index, std::function<void(bool)> done) {
            QModbusReply *reply = m_clients[size_t(index)]->sendReadRequest(QModbusDataUnit(QModbusDataUnit::DiscreteInputs, 0, quint16(bits)), 1);
            if (!reply) {
                done(false);
                return;
            }
            // The next request goes out on a later turn: QModbusTcpClient must not be called
            // from inside its own reply handling (the host's execute() posts as well).
            QObject::connect(reply, &QModbusReply::finished, reply, [reply, done] {
                reply->deleteLater();
                const bool ok = reply->error() == QModbusDevice::NoError;
                QMetaObject::invokeMethod(QCoreApplication::instance(), [done, ok] { done(ok); }, Qt::QueuedConnection);
            });
        };
    }

private:
    std::vector<std::unique_ptr<QModbusTcpClient>> m_clients;
};

constexpr int c_rounds = 11;

// Runs the two clients in turn over c_rounds rounds of total / c_rounds requests, so that a
// drift of the machine (frequency, other load) weighs on both alike; each figure is the median
// over the rounds, and *ratio the median of the rounds' first/second median latencies.
std::pair<Figures, Figures> alternate(int clients, int total, const Issue &first, const Issue &second, double *ratio = nullptr)
{
    std::vector<Figures> runs[2];
    std::vector<double> ratios;
    for (int round = 0; round < c_rounds; ++round) {
        runs[0].push_back(runLoops(clients, total / c_rounds, first));
        runs[1].push_back(runLoops(clients, total / c_rounds, second));
        ratios.push_back(runs[0].back().medianUs / runs[1].back().medianUs);
    }
    std::nth_element(ratios.begin(), ratios.begin() + c_rounds / 2, ratios.end());
    if (ratio)
        *ratio = ratios[c_rounds / 2];
    Figures result[2];
    for (int i = 0; i < 2; ++i) {
        result[i].rssMiB = runs[i].back().rssMiB;
        for (const Figures &run : runs[i])
            result[i].failures += run.failures;
        for (double Figures::*field : {&Figures::medianUs, &Figures::requestsPerSecond, &Figures::cpuUsPerRequest}) {
            std::nth_element(runs[i].begin(), runs[i].begin() + c_rounds / 2, runs[i].end(),
                             [field](const Figures &a, const Figures &b) { return a.*field < b.*field; });
            result[i].*field = runs[i][c_rounds / 2].*field;
        }
    }
    return {result[0], result[1]};
}

// An RSS of 0 is not measured (shown as "-").
void printRow(const char *what, int devices, const Figures &figures)
{
    const QByteArray rss = figures.rssMiB > 0 ? QByteArray::number(figures.rssMiB, 'f', 1) : QByteArray("-");
    std::printf("%-22s %8d %12.0f %14.1f %10.1f %10s %8d\n", what, devices, figures.requestsPerSecond,
                figures.cpuUsPerRequest, figures.medianUs, rss.constData(), figures.failures);
}

// Serves the simulator on a free loopback port in a child process and returns the port
// (0 on failure); the child ends with the parent.
quint16 serveSimulator(int argc, char **argv, pid_t *child)
{
    int fds[2];
    if (pipe(fds) != 0)
        return 0;
    *child = fork();
    if (*child == 0) {
        prctl(PR_SET_PDEATHSIG, SIGTERM);
        close(fds[0]);
        QCoreApplication app(argc, argv);
        E1212Simulator simulator;
        QString error;
        quint16 port = simulator.start(QHostAddress::LocalHost, 0, &error) ? simulator.port() : 0;
        if (write(fds[1], &port, sizeof port) != sizeof port || !port)
            _exit(1);
        close(fds[1]);
        _exit(app.exec());
    }
    close(fds[1]);
    quint16 port = 0;
    if (*child < 0 || read(fds[0], &port, sizeof port) != sizeof port)
        port = 0;
    close(fds[0]);
    return port;
}

#ifdef E1212_FASTSERVER
// Runs the libmodbus server on a free loopback port in a child process and returns the port
// it prints (0 on failure); the child ends with the parent.
quint16 serveFastServer(pid_t *child)
{
    int fds[2];
    if (pipe(fds) != 0)
        return 0;
    *child = fork();
    if (*child == 0) {
        prctl(PR_SET_PDEATHSIG, SIGTERM);
        dup2(fds[1], STDOUT_FILENO);
        close(fds[0]);
        close(fds[1]);
        execl(E1212_FASTSERVER, E1212_FASTSERVER, "0", static_cast<char *>(nullptr));
        _exit(127);
    }
    close(fds[1]);
    QByteArray line;
    char c = 0;
    while (*child > 0 && line.size() < 64 && read(fds[0], &c, 1) == 1 && c != '\n')
        line += c;
    close(fds[0]);
    const QByteArray prefix = "listening on 127.0.0.1:";
    return line.startsWith(prefix) ? quint16(line.mid(prefix.size()).toUInt()) : 0;
}
#endif

// The last CPU of `all`, and the others.
std::pair<cpu_set_t, cpu_set_t> splitLastCpu(const cpu_set_t &all)
{
    cpu_set_t last;
    cpu_set_t others = all;
    CPU_ZERO(&last);
    for (int cpu = CPU_SETSIZE - 1; cpu >= 0 && !CPU_COUNT(&last); --cpu) {
        if (CPU_ISSET(cpu, &all)) {
            CPU_SET(cpu, &last);
            CPU_CLR(cpu, &others);
        }
    }
    return {last, others};
}

} // namespace

int main(int argc, char **argv)
{
    // --fast-server: the libmodbus server instead of the simulator, pinned to a CPU of its
    // own in the multi-device part.
    bool fast = false;
    for (int i = 1; i < argc; ++i)
        fast = fast || std::strcmp(argv[i], "--fast-server") == 0;
    pid_t server = 0;
#ifdef E1212_FASTSERVER
    const quint16 port = fast ? serveFastServer(&server) : serveSimulator(argc, argv, &server);
#else
    if (fast) {
        std::fprintf(stderr, "e1212bench: built without libmodbus, no --fast-server\n");
        return 2;
    }
    const quint16 port = serveSimulator(argc, argv, &server);
#endif
    if (!port) {
        std::fprintf(stderr, "e1212bench: cannot start the %s\n", fast ? "fast server" : "simulator");
        return 1;
    }
    QCoreApplication app(argc, argv);
    std::setvbuf(stdout, nullptr, _IOLBF, 0);
    // Logging as e1212ctl ships it (not --verbose); --verbose turns our debug lines on.
    // --sequential runs only the one-device comparison.
    installCtlMessageHandler(app.arguments().contains(QStringLiteral("--verbose")));
    const int sequential = qMax(100, qEnvironmentVariableIntValue("E1212_BENCH_REQUESTS") ? qEnvironmentVariableIntValue("E1212_BENCH_REQUESTS") : 5000);
    QString error;

    PluginManager plugins;
    plugins.scan(PluginManager::searchPath());
    const QList<DeviceConfig> configs = DeviceConfig::loadFile(QStringLiteral(E1212_CONFIG_FILE), &error);
    if (configs.isEmpty())
        qFatal("%s", qPrintable(error));

    std::printf("e1212bench: %d sequential requests per command; loopback %s in a child process\n", sequential,
                fast ? "libmodbus server" : "simulator");
    std::printf("%-22s %8s %12s %14s %10s %10s %8s\n", "client", "devices", "requests/s", "CPU us/request", "median us", "RSS MiB", "failed");
    if (!app.arguments().contains(QStringLiteral("--profile"))) {
        // One request at a time, client and server on one CPU: each request costs what both
        // sides execute, not how fast a sleeping CPU wakes up (--spread lets them apart).
        cpu_set_t all;
        sched_getaffinity(0, sizeof all, &all);
        const bool pin = !app.arguments().contains(QStringLiteral("--spread"));
        if (pin) {
            const cpu_set_t one = splitLastCpu(all).first;
            sched_setaffinity(0, sizeof one, &one);
            sched_setaffinity(server, sizeof one, &one);
        }
        FullStack full(&plugins, configs.first(), port, 1);
        BareQt bare(port, 1);
        // Connections up and caches warm before anything is counted.
        runLoops(1, 200, full.issue(QStringLiteral("getValue")));
        runLoops(1, 200, bare.issue(1));
        double oneRatio = 0;
        double eightRatio = 0;
        const auto [fullOne, bareOne] = alternate(1, sequential, full.issue(QStringLiteral("getValue")), bare.issue(1), &oneRatio);
        const auto [fullEight, bareEight] = alternate(1, sequential, full.issue(QStringLiteral("getValues")), bare.issue(8), &eightRatio);
        printRow("getValue full stack", 1, fullOne);
        printRow("read 1 bit bare Qt", 1, bareOne);
        printRow("getValues full stack", 1, fullEight);
        printRow("read 8 bits bare Qt", 1, bareEight);
        std::printf("ratio full/bare of median latencies (median over %d alternating rounds%s): getValue %.2f, getValues %.2f\n\n",
                    c_rounds, pin ? ", client and server on one CPU" : "", oneRatio, eightRatio);
        sched_setaffinity(0, sizeof all, &all);
        sched_setaffinity(server, sizeof all, &all);
    }
    // --profile full|bare: only that client, its loops over the first --devices count (default
    // 1) on all CPUs, for a profiler:
    // valgrind --tool=callgrind --collect-atstart=no --toggle-collect='*runLoops*' ...
    const int profileAt = app.arguments().indexOf(QStringLiteral("--profile"));
    if (profileAt > 0 && profileAt + 1 < app.arguments().size()) {
        const bool bareOnly = app.arguments().at(profileAt + 1) == QLatin1String("bare");
        const int devicesAt = app.arguments().indexOf(QStringLiteral("--devices"));
        const int devices = devicesAt > 0 && devicesAt + 1 < app.arguments().size()
            ? qMax(1, app.arguments().at(devicesAt + 1).section(QLatin1Char(','), 0, 0).toInt())
            : 1;
        std::unique_ptr<FullStack> full;
        std::unique_ptr<BareQt> bare;
        if (bareOnly)
            bare = std::make_unique<BareQt>(port, devices);
        else
            full = std::make_unique<FullStack>(&plugins, configs.first(), port, devices);
        const Issue issue = bareOnly ? bare->issue(1) : full->issue(QStringLiteral("getValue"));
        runLoops(devices, devices * 2, issue);
        printRow(bareOnly ? "read 1 bit bare Qt" : "getValue full stack", devices, runLoops(devices, qMax(sequential, devices * 20), issue));
        kill(server, SIGTERM);
        waitpid(server, nullptr, 0);
        return 0;
    }
    double fullCpuOne = 0;
    double bareCpuOne = 0;
    QList<int> deviceCounts = app.arguments().contains(QStringLiteral("--sequential")) ? QList<int>() : QList<int>{1, 16, 64, 256};
    // --devices N,N...: only these counts.
    const int devicesAt = app.arguments().indexOf(QStringLiteral("--devices"));
    if (devicesAt > 0 && devicesAt + 1 < app.arguments().size()) {
        deviceCounts.clear();
        for (const QString &count : app.arguments().at(devicesAt + 1).split(QLatin1Char(',')))
            deviceCounts << qMax(1, count.toInt());
    }
    cpu_set_t all;
    sched_getaffinity(0, sizeof all, &all);
    const auto [serverCpu, clientCpus] = splitLastCpu(all);
    if (fast && CPU_COUNT(&clientCpus) > 0) {
        sched_setaffinity(server, sizeof serverCpu, &serverCpu);
        sched_setaffinity(0, sizeof clientCpus, &clientCpus);
        int cpu = CPU_SETSIZE - 1;
        while (cpu > 0 && !CPU_ISSET(cpu, &serverCpu))
            --cpu;
        std::printf("server on CPU %d, client on the %d others\n\n", cpu, CPU_COUNT(&clientCpus));
    }
    for (int devices : deviceCounts) {
        FullStack full(&plugins, configs.first(), port, devices);
        runLoops(devices, devices * 2, full.issue(QStringLiteral("getValue")));
        // The host's memory, before the bare clients are made.
        const double rss = rssMiB();
        BareQt bare(port, devices);
        runLoops(devices, devices * 2, bare.issue(1));
        auto [fullFigures, bareFigures] = alternate(devices, qMax(sequential, devices * 20), full.issue(QStringLiteral("getValue")), bare.issue(1));
        fullFigures.rssMiB = rss;
        bareFigures.rssMiB = 0;
        if (devices == 1) {
            fullCpuOne = fullFigures.cpuUsPerRequest;
            bareCpuOne = bareFigures.cpuUsPerRequest;
        }
        printRow("getValue full stack", devices, fullFigures);
        printRow("read 1 bit bare Qt", devices, bareFigures);
        std::printf("%d devices: throughput full/bare %.2f", devices, fullFigures.requestsPerSecond / bareFigures.requestsPerSecond);
        if (fullCpuOne > 0)
            std::printf("; CPU/request vs 1 device: full %.2f, bare %.2f", fullFigures.cpuUsPerRequest / fullCpuOne,
                        bareFigures.cpuUsPerRequest / bareCpuOne);
        std::printf("\n\n");
    }

    kill(server, SIGTERM);
    waitpid(server, nullptr, 0);
    return 0;
}
