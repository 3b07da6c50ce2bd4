// SPDX-License-Identifier: MIT
// A program run to its end in a test, bounded in time, `input` on its standard input, with
// what it printed.
#pragma once

#include <QProcessEnvironment>
#include <QString>
#include <QStringList>

struct ProcessRun
{
    // -1 when it crashed or did not end within the bound (it is killed then).
    int exitCode = -1;
    QString out;
    QString err;

    static ProcessRun run(const QString &program, const QStringList &arguments, int ms = 30000,
                          const QProcessEnvironment &environment = QProcessEnvironment::systemEnvironment(),
                          const QByteArray &input = {});
};
