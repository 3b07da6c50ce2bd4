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

// Waits until the panel shows a connected device with every channel read, then saves
// the window to `file`. False, with *error set, when that does not happen in time.
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
    QEventLoop loop;
    QTimer poll;
    QObject::connect(&poll, &QTimer::timeout, &loop, [&] {
        if (ready())
            loop.quit();
    });
    QTimer::singleShot(c_screenshotWaitMs, &loop, &QEventLoop::quit);
    poll.start(50);
    loop.exec();
    if (!ready()) {
        *error = QStringLiteral("no screenshot: the panel did not show a connected device within %1 ms (%2)")
                     .arg(c_screenshotWaitMs)
                     .arg(backend->property("errorText").toString());
        return false;
    }
    // grabWindow() gives nothing with the software scene graph; an item grab works everywhere.
    const QSharedPointer<QQuickItemGrabResult> grab = view.rootObject()->grabToImage();
    if (!grab) {
        *error = QStringLiteral("no screenshot: the panel cannot be grabbed");
        return false;
    }
    QObject::connect(grab.data(), &QQuickItemGrabResult::ready, &loop, &QEventLoop::quit);
    QTimer::singleShot(c_screenshotWaitMs, &loop, &QEventLoop::quit);
    loop.exec();
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

    int exitCode = 0;
    if (!session.openDevices(&exitCode))
        return exitCode;
    if (pollMs == 0) // the configuration's poll interval, else the panel's default
        pollMs = session.config().connection.value(QStringLiteral("pollIntervalMs"), 500).toUInt();

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
    view.resize(800, 480);
    view.setMinimumSize(QSize(800, 480));
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

    if (args.has(QStringLiteral("screenshot"))) {
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
