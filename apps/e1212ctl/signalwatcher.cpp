// SPDX-License-Identifier: MIT
#include "signalwatcher.h"

#include <QSocketNotifier>

#include <csignal>
#include <sys/socket.h>
#include <unistd.h>

namespace {

int s_pipe[2] = {-1, -1};

// Only async-signal-safe work here: one byte into the socket pair.
void onSignal(int number)
{
    const char byte = char(number);
    [[maybe_unused]] const ssize_t written = ::write(s_pipe[1], &byte, 1);
}

} // namespace

SignalWatcher::SignalWatcher(QObject *parent)
    : QObject(parent)
{
    if (::socketpair(AF_UNIX, SOCK_STREAM, 0, s_pipe) != 0)
        return;
    m_notifier = new QSocketNotifier(s_pipe[0], QSocketNotifier::Read, this);
    connect(m_notifier, &QSocketNotifier::activated, this, [this] {
        char byte = 0;
        if (::read(s_pipe[0], &byte, 1) == 1)
            emit interrupted(int(byte));
    });
    struct sigaction action = {};
    action.sa_handler = onSignal;
    sigemptyset(&action.sa_mask);
    action.sa_flags = SA_RESTART;
    sigaction(SIGINT, &action, nullptr);
    sigaction(SIGTERM, &action, nullptr);
}

SignalWatcher::~SignalWatcher()
{
    signal(SIGINT, SIG_DFL);
    signal(SIGTERM, SIG_DFL);
    delete m_notifier;
    for (int &fd : s_pipe) {
        if (fd >= 0)
            ::close(fd);
        fd = -1;
    }
}
