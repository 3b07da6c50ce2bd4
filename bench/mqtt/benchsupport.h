// SPDX-License-Identifier: MIT
// What the MQTT benchmarks share: what they read of a process and of the machine, from
// /proc, and the gateway's configuration.
#pragma once

#include <QByteArray>
#include <QString>
#include <QtGlobal>

#include <functional>
#include <vector>

class QObject;

// utime + stime of a process, in seconds.
double cpuSeconds(qint64 pid);
// A line of /proc/PID/status in MiB ("VmRSS", "VmHWM"); 0 when unreadable.
double statusMiB(qint64 pid, const char *key);
// The content of /proc/loadavg, newline included.
QByteArray loadAverage();
// CLOCK_MONOTONIC in ns, the same clock in every process.
qint64 monotonicNs();
// A configuration of one device per port, m0, m1, ... ("Bench m0"), each with the module's
// own 16 channels, on 127.0.0.1, polled every `pollIntervalMs`.
QByteArray gatewayConfig(const std::vector<quint16> &ports, int pollIntervalMs);
// Calls `then` once `ready` holds, checking every `everyMs` while `context` lives; after `ms`
// without it, says on stderr that `what` did not happen and ends the event loop with 1.
void whenReady(QObject *context, const std::function<bool()> &ready, int everyMs, int ms, const QString &what,
               const std::function<void()> &then);
