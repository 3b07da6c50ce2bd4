// SPDX-License-Identifier: MIT
#include "processrun.h"

#include <QProcess>
#include <QSignalSpy>

ProcessRun ProcessRun::run(const QString &program, const QStringList &arguments, int ms, const QProcessEnvironment &environment,
                           const QByteArray &input)
{
    qRegisterMetaType<QProcess::ExitStatus>();
    QProcess process;
    process.setProcessEnvironment(environment);
    QSignalSpy finished(&process, qOverload<int, QProcess::ExitStatus>(&QProcess::finished));
    process.start(program, arguments);
    process.write(input);
    process.closeWriteChannel();
    ProcessRun run;
    if ((process.state() == QProcess::NotRunning || finished.wait(ms)) && process.exitStatus() == QProcess::NormalExit)
        run.exitCode = process.exitCode();
    else
        process.kill();
    run.out = QString::fromUtf8(process.readAllStandardOutput());
    run.err = QString::fromUtf8(process.readAllStandardError());
    return run;
}
