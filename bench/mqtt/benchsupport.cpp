// SPDX-License-Identifier: MIT
// What the MQTT benchmarks share.
#include "benchsupport.h"

#include <QCoreApplication>
#include <QElapsedTimer>
#include <QFile>
#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>
#include <QList>
#include <QString>
#include <QTimer>

#include <cstdio>
#include <memory>

#include <time.h>
#include <unistd.h>

double cpuSeconds(qint64 pid)
{
    QFile stat(QStringLiteral("/proc/%1/stat").arg(pid));
    if (!stat.open(QIODevice::ReadOnly))
        return 0;
    const QList<QByteArray> fields = stat.readAll().split(')').value(1).trimmed().split(' ');
    return (fields.value(11).toDouble() + fields.value(12).toDouble()) / double(sysconf(_SC_CLK_TCK));
}

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

QByteArray loadAverage()
{
    QFile file(QStringLiteral("/proc/loadavg"));
    return file.open(QIODevice::ReadOnly) ? file.readAll() : QByteArray("?\n");
}

qint64 monotonicNs()
{
    timespec now{};
    clock_gettime(CLOCK_MONOTONIC, &now);
    return qint64(now.tv_sec) * 1000000000 + now.tv_nsec;
}

QByteArray gatewayConfig(const std::vector<quint16> &ports, int pollIntervalMs)
{
    QFile file(QStringLiteral(E1212_CONFIG_FILE));
    file.open(QIODevice::ReadOnly);
    const QJsonObject builtIn = QJsonDocument::fromJson(file.readAll()).object();
    const QJsonValue table = builtIn.value(QStringLiteral("parameters")).toObject().value(QStringLiteral("io1_channels"));
    QJsonArray devices;
    for (size_t i = 0; i < ports.size(); ++i) {
        const QString name = QStringLiteral("m%1").arg(i);
        devices.append(QJsonObject{{QStringLiteral("reference"), QString(QStringLiteral("Bench ") + name)},
                                   {QStringLiteral("parameters"), QJsonObject{{QString(name + QStringLiteral("_channels")), table}}},
                                   {QStringLiteral("connection"), QJsonObject{{QStringLiteral("host"), QStringLiteral("127.0.0.1")},
                                                                              {QStringLiteral("port"), ports[i]},
                                                                              {QStringLiteral("pollIntervalMs"), pollIntervalMs}}}});
    }
    return QJsonDocument(QJsonObject{{QStringLiteral("devices"), devices}}).toJson();
}

void whenReady(QObject *context, const std::function<bool()> &ready, int everyMs, int ms, const QString &what,
               const std::function<void()> &then)
{
    auto *timer = new QTimer(context);
    auto elapsed = std::make_shared<QElapsedTimer>();
    elapsed->start();
    QObject::connect(timer, &QTimer::timeout, context, [=] {
        if (ready()) {
            timer->deleteLater();
            then();
        } else if (elapsed->elapsed() > ms) {
            std::fprintf(stderr, "%s: %s did not happen within %d ms\n", qPrintable(QCoreApplication::applicationName()),
                         qPrintable(what), ms);
            QCoreApplication::exit(1);
        }
    });
    timer->start(everyMs);
}
