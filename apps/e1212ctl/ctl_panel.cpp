// SPDX-License-Identifier: MIT
// The maintenance panel of e1212ctl, a library of its own so that only `panel` loads Qt Quick.
#include "ctlargs.h"
#include "ctlsession.h"
#include "dabstractplugin.h"

#include <QAbstractListModel>
#include <QEventLoop>
#include <QGuiApplication>
#include <QQmlContext>
#include <QQmlEngine>
#include <QQuickItem>
#include <QQuickItemGrabResult>
#include <QQuickView>
#include <QTimer>

namespace {

const QUrl c_panelUrl(QStringLiteral("qrc:/{43ae4651-f855-42c1-81e2-c73130e79008}/maintenance_panel.qml"));
// Value of BeMaintenanceDeviceMoxaIoLogic::CeCsConnected.
constexpr int c_connected = 2;
constexpr int c_screenshotWaitMs = 10000;
constexpr int c_frameWaitMs = 2000;

// Runs an event loop of its own until `quit` is emitted by `sender` or `ms` pass. Each wait
// has its own loop and deadline, so nothing left from one wait can end another.
template<typename Sender, typename Signal>
void waitFor(const Sender *sender, Signal quit, int ms)
{
    QEventLoop loop;
    QTimer deadline;
    deadline.setSingleShot(true);
    QObject::connect(&deadline, &QTimer::timeout, &loop, &QEventLoop::quit);
    QObject::connect(sender, quit, &loop, &QEventLoop::quit, Qt::QueuedConnection);
    deadline.start(ms);
    loop.exec();
}

// Waits until the panel shows a connected device with every channel read and that state
// has been drawn, then saves the window to `file`. False, with *error set, otherwise.
bool saveScreenshot(QQuickView &view, QObject *backend, const QString &file, QString *error)
{
    const auto ready = [backend] {
        if (backend->property("connectionState").toInt() != c_connected
            || backend->property("modelName").toString().isEmpty())
            return false;
        auto *model = backend->property("channelsModel").value<QAbstractListModel *>();
        for (int row = 0; model && row < model->rowCount(); ++row) {
            QObject *channel = model->data(model->index(row), Qt::UserRole).value<QObject *>();
            if (!channel || !channel->property("value").isValid())
                return false;
        }
        return model && model->rowCount() > 0;
    };
    {
        // Checked every 50 ms by a timer of this wait only: it stops with it.
        QEventLoop loop;
        QTimer check;
        QTimer deadline;
        deadline.setSingleShot(true);
        QObject::connect(&check, &QTimer::timeout, &loop, [&] {
            if (ready())
                loop.quit();
        });
        QObject::connect(&deadline, &QTimer::timeout, &loop, &QEventLoop::quit);
        check.start(50);
        deadline.start(c_screenshotWaitMs);
        if (!ready())
            loop.exec();
    }
    if (!ready()) {
        *error = QStringLiteral("no screenshot: the panel did not show a connected device within %1 ms (%2)")
                     .arg(c_screenshotWaitMs)
                     .arg(backend->property("errorText").toString());
        return false;
    }
    // Grab what has been drawn: wait for a frame rendered after the last change.
    view.update();
    waitFor(&view, &QQuickWindow::frameSwapped, c_frameWaitMs);
    // grabWindow() gives nothing with the software scene graph; an item grab works everywhere.
    const QSharedPointer<QQuickItemGrabResult> grab = view.rootObject()->grabToImage();
    if (!grab) {
        *error = QStringLiteral("no screenshot: the panel cannot be grabbed");
        return false;
    }
    waitFor(grab.data(), &QQuickItemGrabResult::ready, c_screenshotWaitMs);
    if (grab->image().isNull() || !grab->image().save(file)) {
        *error = QStringLiteral("cannot write the screenshot to %1").arg(file);
        return false;
    }
    return true;
}

int panel(CtlSession &session, const CtlArgs &args)
{
    if (!args.positional().isEmpty())
        return session.usageError(QStringLiteral("panel takes no channel: \"%1\"").arg(args.positional().first()));
    quint32 pollMs = 0;
    QString error;
    if (args.has(QStringLiteral("poll"))
        && (!CtlArgs::number(args.value(QStringLiteral("poll")), 0, 3600000, QStringLiteral("--poll"), &pollMs, &error) || pollMs < 10))
        return session.usageError(error.isEmpty() ? QStringLiteral("--poll: %1 ms is below 10 ms").arg(pollMs) : error);
    QSize size(800, 480);
    if (args.has(QStringLiteral("size"))) {
        const QStringList wh = args.value(QStringLiteral("size")).split(QLatin1Char('x'));
        quint32 w = 0;
        quint32 h = 0;
        if (wh.size() != 2 || !CtlArgs::number(wh.at(0), 640, 7680, QStringLiteral("--size width"), &w, &error)
            || !CtlArgs::number(wh.at(1), 400, 4320, QStringLiteral("--size height"), &h, &error))
            return session.usageError(QStringLiteral("--size \"%1\" is not WIDTHxHEIGHT from 640x400 to 7680x4320")
                                          .arg(args.value(QStringLiteral("size"))));
        size = QSize(int(w), int(h));
    }

    int exitCode = 0;
    if (!session.openDevices(&exitCode))
        return exitCode;
    if (pollMs == 0) // the configuration's poll interval, else the panel's default
        pollMs = session.config().connection.value(QStringLiteral("pollIntervalMs"), 500).toUInt();

    // A screenshot renders on the GUI thread: nothing can draw or grab behind its waits.
    const bool screenshot = args.has(QStringLiteral("screenshot"));
    if (screenshot && !qEnvironmentVariableIsSet("QSG_RENDER_LOOP"))
        qputenv("QSG_RENDER_LOOP", "basic");
    // Without a display there is no OpenGL either.
    const QString platform = QGuiApplication::platformName();
    if (platform == QLatin1String("offscreen") || platform == QLatin1String("minimal"))
        QQuickWindow::setSceneGraphBackend(QSGRendererInterface::Software);

    QString path = session.address(session.current());
    if (session.simulator(session.current()))
        path += QStringLiteral(" (simulator)");
    QQuickView view;
    view.setTitle(QStringLiteral("E1212 maintenance — %1").arg(session.config().reference));
    view.rootContext()->setContextProperty(QStringLiteral("maintenanceDevice"), session.device());
    view.rootContext()->setContextProperty(QStringLiteral("maintenanceConnectionPath"), path);
    view.rootContext()->setContextProperty(QStringLiteral("maintenancePollIntervalMs"), int(pollMs));
    view.setResizeMode(QQuickView::SizeRootObjectToView);
    view.setMinimumSize(QSize(640, 400));
    view.resize(size);
    view.setSource(c_panelUrl);
    if (view.status() != QQuickView::Ready) {
        QStringList errors;
        for (const QQmlError &qmlError : view.errors())
            errors << qmlError.toString();
        return session.fail(CtlSession::ExitFailed, QStringLiteral("cannot open the maintenance panel %1: %2")
                                                        .arg(c_panelUrl.toString(), errors.join(QStringLiteral("; "))));
    }
    QObject *backend = view.rootObject()->findChild<QObject *>(QStringLiteral("backend"));
    view.show();

    if (screenshot) {
        if (!saveScreenshot(view, backend, args.value(QStringLiteral("screenshot")), &error))
            return session.fail(CtlSession::ExitFailed, error);
        session.out() << "panel saved to " << args.value(QStringLiteral("screenshot")) << '\n';
        return CtlSession::ExitOk;
    }
    QEventLoop loop;
    QObject::connect(qGuiApp, &QGuiApplication::lastWindowClosed, &loop, &QEventLoop::quit);
    loop.exec();
    return CtlSession::ExitOk;
}

} // namespace

extern "C" Q_DECL_EXPORT int e1212ctlPanelMain(int *argc, char **argv, const CtlSession::Options *options, const CtlArgs *args)
{
    QGuiApplication app(*argc, argv);
    QCoreApplication::setApplicationName(QStringLiteral("e1212ctl"));
    CtlSession session(*options);
    return panel(session, *args);
}
