// SPDX-License-Identifier: MIT
#include "ctl_panelloader.h"

#include <QCoreApplication>
#include <QLibrary>

#include <cstdio>

namespace {

// The entry point of the panel library.
using PanelMain = int (*)(int *argc, char **argv, const CtlSession::Options *options, const CtlArgs *args);

// Qt's own options, given to the panel's QGuiApplication; declared so the line parses.
QList<QCommandLineOption> qtGuiOptions()
{
    QList<QCommandLineOption> options;
    for (const char *name : {"platform", "platformpluginpath", "platformtheme", "plugin", "qwindowgeometry",
                             "qwindowicon", "qwindowtitle", "display", "geometry", "qmljsdebugger"})
        options << QCommandLineOption(QString::fromLatin1(name), QStringLiteral("Qt's own option -%1").arg(QLatin1String(name)),
                                      QStringLiteral("VALUE"));
    options << QCommandLineOption(QStringLiteral("reverse"), QStringLiteral("Qt's own option -reverse"));
    for (QCommandLineOption &option : options)
        option.setFlags(QCommandLineOption::HiddenFromHelp);
    return options;
}

} // namespace

int ctlRunPanel(int argc, char **argv, const CtlSession::Options &options, const CtlArgs &args)
{
    QString directory;
    {
        QCoreApplication probe(argc, argv);
        directory = QCoreApplication::applicationDirPath();
    }
    QLibrary library(directory + QStringLiteral("/../lib/e1212/e1212ctl_panel"));
    const auto panelMain = reinterpret_cast<PanelMain>(library.resolve("e1212ctlPanelMain"));
    if (!panelMain) {
        const QByteArray line = QStringLiteral("e1212ctl: cannot load the panel: %1\n").arg(library.errorString()).toUtf8();
        fwrite(line.constData(), 1, size_t(line.size()), stderr);
        return CtlSession::ExitFailed;
    }
    return panelMain(&argc, argv, &options, &args);
}

CtlGroup panelGroup()
{
    return {QStringLiteral("Maintenance"),
            {{QStringLiteral("panel"), QString(),
              QStringLiteral("open the maintenance panel: identity, live channels, click an output to toggle it; "
                             "--size opens it at that size; --screenshot saves it once connected and exits; "
                             "Qt's own options (-platform ...) apply"),
              {},
              QList<QCommandLineOption>{{QStringLiteral("poll"), QStringLiteral("read the channels every MS (10 or more)"), QStringLiteral("MS")},
                                        {QStringLiteral("size"), QStringLiteral("window size, 640x400 to 7680x4320 (default 800x480)"),
                                         QStringLiteral("WxH")},
                                        {QStringLiteral("screenshot"), QStringLiteral("save the panel to FILE once connected, then exit"),
                                         QStringLiteral("FILE")}}
                  + qtGuiOptions(),
              CtlCommand::CommandLineOnly}}};
}
