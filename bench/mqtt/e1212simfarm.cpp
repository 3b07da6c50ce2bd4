// SPDX-License-Identifier: MIT
// e1212simfarm: many simulated modules in one process, for e1212mqttbench, so that the
// modules are served outside the process that measures.
//
//   e1212simfarm COUNT
//
// Serves COUNT simulators on free loopback ports and prints "ports P1 P2 ...". Then reads
// lines on standard input:
//   set M CH V   sets input DI<CH> of module M (0-based) to V; answers "changed M CH V NS",
//                NS the CLOCK_MONOTONIC time in ns taken as soon as the input holds V
//   count        answers "count N", the requests served by all modules since start
#include "e1212simulator.h"
#include "benchsupport.h"

#include <QCoreApplication>
#include <QLoggingCategory>
#include <QSocketNotifier>

#include <unistd.h>

#include <cstdio>
#include <memory>
#include <vector>

int main(int argc, char **argv)
{
    qputenv("QT_NO_GLIB", "1"); // Qt's own event dispatcher, cheaper with many sockets
    QCoreApplication app(argc, argv);
    QLoggingCategory::setFilterRules(QStringLiteral("e1212.sim.info=false"));
    const int count = argc == 2 ? QByteArray(argv[1]).toInt() : 0;
    if (count < 1) {
        std::fprintf(stderr, "usage: e1212simfarm COUNT\n");
        return 2;
    }
    std::vector<std::unique_ptr<E1212Simulator>> simulators;
    QByteArray ports("ports");
    for (int i = 0; i < count; ++i) {
        simulators.push_back(std::make_unique<E1212Simulator>());
        QString error;
        if (!simulators.back()->start(QHostAddress::LocalHost, 0, &error)) {
            std::fprintf(stderr, "e1212simfarm: %s\n", qPrintable(error));
            return 1;
        }
        ports += ' ' + QByteArray::number(simulators.back()->port());
    }
    std::printf("%s\n", ports.constData());
    std::fflush(stdout);

    QByteArray pending;
    QSocketNotifier input(STDIN_FILENO, QSocketNotifier::Read);
    QObject::connect(&input, &QSocketNotifier::activated, &app, [&] {
        char buffer[4096];
        const ssize_t got = ::read(STDIN_FILENO, buffer, sizeof buffer);
        if (got <= 0) {
            QCoreApplication::quit(); // the bench is gone
            return;
        }
        pending.append(buffer, int(got));
        for (int end = pending.indexOf('\n'); end >= 0; end = pending.indexOf('\n')) {
            const QList<QByteArray> words = pending.left(end).split(' ');
            pending.remove(0, end + 1);
            if (words.value(0) == "set" && words.size() == 4) {
                const int module = words.at(1).toInt();
                if (module < 0 || module >= count)
                    continue;
                simulators[size_t(module)]->setInput(words.at(2).toInt(), words.at(3) == "1");
                const qint64 at = monotonicNs();
                std::printf("changed %d %s %s %lld\n", module, words.at(2).constData(), words.at(3).constData(),
                            static_cast<long long>(at));
            } else if (words.value(0) == "count") {
                long long total = 0;
                for (const auto &simulator : simulators)
                    total += simulator->requestCount();
                std::printf("count %lld\n", total);
            }
        }
        std::fflush(stdout);
    });
    return QCoreApplication::exec();
}
