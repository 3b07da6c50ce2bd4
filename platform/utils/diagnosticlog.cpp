// SPDX-License-Identifier: MIT
#include "diagnosticlog.h"

#include "hostutils.h"

#include <QMessageLogger>
#include <QThread>

QDebug diagnosticLine(const QObject *emitter, const char *file, int line)
{
    QDebug stream = QMessageLogger(nullptr, 0, nullptr, "default").critical();
    stream << "\n" << getDate() << ";\t"
           << "Thread =" << static_cast<QObject *>(QThread::currentThread()) << ";\t"
           << "This =" << emitter << ";\t"
           << file << ";\t"
           << line << ";\t";
    return stream;
}
