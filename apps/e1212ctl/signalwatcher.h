// SPDX-License-Identifier: MIT
// Turns SIGINT and SIGTERM into a Qt signal on the event loop.
#pragma once

#include <QObject>

class QSocketNotifier;

class SignalWatcher : public QObject
{
    Q_OBJECT
public:
    // Only one watcher may exist at a time; it restores the default handlers when destroyed.
    explicit SignalWatcher(QObject *parent = nullptr);
    ~SignalWatcher() override;

signals:
    void interrupted(int signalNumber);

private:
    QSocketNotifier *m_notifier = nullptr;
};
