// SPDX-License-Identifier: MIT
// The maintenance panel of e1212ctl, a library of its own so that only `panel` loads Qt Quick.
#include "ctlargs.h"
#include "ctlsession.h"
#include "dabstractplugin.h"

#include <QAbstractListModel>
#include <QElapsedTimer>
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

// Takes the screenshot once the panel shows a connected device with every channel read and
// that state has been drawn, saves it to `file` and ends the window loop with the status.
// $E1212_PANEL_SCREENSHOT_AFTER_MS holds it back that long after the panel opened, so that
// the timelines have something to show.
class Screenshot : public QObject
{
public:
    Screenshot(QQuickView &view, QObject *backend, const QString &file, CtlSession &session)
        : QObject(&view), m_view(view), m_backend(backend), m_file(file), m_session(session)
    {
        const int afterMs = qMax(0, qEnvironmentVariableIntValue("E1212_PANEL_SCREENSHOT_AFTER_MS"));
        m_opened.start();
        // Checked every 50 ms until ready or the deadline.
        connect(&m_check, &QTimer::timeout, this, [this, afterMs] {
            if (m_opened.elapsed() >= afterMs && ready())
                draw();
        });
        m_deadline.setSingleShot(true);
        connect(&m_deadline, &QTimer::timeout, this, [this] {
            fail(QStringLiteral("no screenshot: the panel did not show a connected device within %1 ms (%2)")
                     .arg(c_screenshotWaitMs)
                     .arg(m_backend->property("errorText").toString()));
        });
        m_check.start(50);
        m_deadline.start(c_screenshotWaitMs + afterMs);
    }

private:
    bool ready() const
    {
        if (m_backend->property("connectionState").toInt() != c_connected || m_backend->property("modelName").toString().isEmpty())
            return false;
        auto *model = m_backend->property("channelsModel").value<QAbstractListModel *>();
        for (int row = 0; model && row < model->rowCount(); ++row) {
            QObject *channel = model->data(model->index(row), Qt::UserRole).value<QObject *>();
            if (!channel || !channel->property("value").isValid())
                return false;
        }
        return model && model->rowCount() > 0;
    }

    // Grab what has been drawn: a frame rendered after the last change, or what is there
    // after c_frameWaitMs.
    void draw()
    {
        m_check.stop();
        m_deadline.stop();
        connect(&m_view, &QQuickWindow::frameSwapped, this, &Screenshot::grab, Qt::QueuedConnection);
        m_deadline.disconnect();
        connect(&m_deadline, &QTimer::timeout, this, &Screenshot::grab);
        m_deadline.start(c_frameWaitMs);
        m_view.update();
    }

    void grab()
    {
        disconnect(&m_view, &QQuickWindow::frameSwapped, this, nullptr);
        m_deadline.disconnect();
        // grabWindow() gives nothing with the software scene graph; an item grab works everywhere.
        m_grab = m_view.rootObject()->grabToImage();
        if (!m_grab)
            return fail(QStringLiteral("no screenshot: the panel cannot be grabbed"));
        connect(m_grab.data(), &QQuickItemGrabResult::ready, this, &Screenshot::save);
        connect(&m_deadline, &QTimer::timeout, this, &Screenshot::save);
        m_deadline.start(c_screenshotWaitMs);
    }

    void save()
    {
        m_deadline.stop();
        if (m_grab->image().isNull() || !m_grab->image().save(m_file))
            return fail(QStringLiteral("cannot write the screenshot to %1").arg(m_file));
        m_session.out() << "panel saved to " << m_file << '\n';
        m_session.out().flush();
        QCoreApplication::exit(CtlSession::ExitOk);
    }

    void fail(const QString &text)
    {
        m_check.stop();
        m_deadline.stop();
        QCoreApplication::exit(m_session.fail(CtlSession::ExitFailed, text));
    }

    QQuickView &m_view;
    QObject *m_backend;
    const QString m_file;
    CtlSession &m_session;
    QTimer m_check;
    QTimer m_deadline;
    QElapsedTimer m_opened;
    QSharedPointer<QQuickItemGrabResult> m_grab;
};

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

    CtlOutcome failure;
    if (!session.openDevices(&failure))
        return session.report(failure);
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

    if (screenshot)
        new Screenshot(view, backend, args.value(QStringLiteral("screenshot")), session);
    // The window loop; it ends when the last window closes, or with the screenshot's status.
    return QGuiApplication::exec();
}

} // namespace

extern "C" Q_DECL_EXPORT int e1212ctlPanelMain(int *argc, char **argv, const CtlSession::Options *options, const CtlArgs *args)
{
    QGuiApplication app(*argc, argv);
    QCoreApplication::setApplicationName(QStringLiteral("e1212ctl"));
    CtlSession session(*options);
    return panel(session, *args);
}
