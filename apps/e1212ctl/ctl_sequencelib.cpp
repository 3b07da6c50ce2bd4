// SPDX-License-Identifier: MIT
// The sequence library of e1212ctl (lib/e1212/e1212ctl_sequence), loaded only by `script` and
// `shell`, so that no other subcommand maps GNU readline: a sequence over a file, standard
// input or a prompt.
#include "ctlargs.h"
#include "ctlsequence.h"
#include "ctlstep.h"

#include <QFile>

#include <fcntl.h>
#include <unistd.h>

namespace {

void script(CtlStep &step)
{
    const CtlArgs &args = step.args();
    if (args.positional().size() != 1)
        return step.finish(CtlOutcome::refused(QStringLiteral("usage: script FILE (or - for standard input)")));
    const QString path = args.positional().first();
    const CtlSequence::Mode mode = args.has(QStringLiteral("check")) ? CtlSequence::Check : CtlSequence::Script;
    if (path == QLatin1String("-"))
        return (new CtlSequence(step, STDIN_FILENO, QStringLiteral("-"), mode))->start();
    const int fd = ::open(QFile::encodeName(path).constData(), O_RDONLY);
    if (fd < 0)
        return step.finish(CtlOutcome::refused(QStringLiteral("script %1: cannot read it").arg(path)));
    // The file stays open as long as the step runs.
    QObject::connect(&step, &QObject::destroyed, [fd] { ::close(fd); });
    (new CtlSequence(step, fd, path, mode))->start();
}

void shell(CtlStep &step)
{
    if (!step.args().positional().isEmpty())
        return step.finish(CtlOutcome::refused(QStringLiteral("usage: shell")));
    (new CtlSequence(step, STDIN_FILENO, QStringLiteral("shell"), CtlSequence::Shell))->start();
}

} // namespace

extern "C" Q_DECL_EXPORT void e1212ctlScript(CtlStep *step)
{
    script(*step);
}

extern "C" Q_DECL_EXPORT void e1212ctlShell(CtlStep *step)
{
    shell(*step);
}
