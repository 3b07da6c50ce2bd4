// SPDX-License-Identifier: MIT
// The maintenance panel in a real QML view, on the real host, the Modbus TCP driver and the
// simulator on loopback; and its back-end on a recording messenger ("recorded..." tests), for
// answers the simulator cannot give on demand (error codes, a refused write, a late read).
#include "dabstractplugin.h"
#include "dabstractpluginbackend.h"
#include "deviceconfig.h"
#include "e1212simulator.h"
#include "host.h"
#include "logcapture.h"
#include "pluginmanager.h"
#include "testmessenger.h"

#include <QPluginLoader>
#include <QQmlComponent>
#include <QQmlContext>
#include <QQmlEngine>
#include <QQuickItem>
#include <QQuickItemGrabResult>
#include <QQuickView>
#include <QtTest>

namespace {
const QUrl c_panelUrl(QStringLiteral("qrc:/{43ae4651-f855-42c1-81e2-c73130e79008}/maintenance_panel.qml"));
constexpr int c_pollMs = 100;
constexpr int c_timeoutMs = 400;
// Enough for a few polls and a time-out, never a hidden sleep: every wait ends on its condition.
constexpr int c_waitMs = 5000;
const QString c_status = QStringLiteral("DO_PulseStatus");
// Values of BeMaintenanceDeviceMoxaIoLogic::EnConnectionState.
enum { Connected = 2, NotAnswering = 3, Error = 4 };

QQuickItem *findItem(QQuickItem *parent, const QString &name)
{
    for (QQuickItem *child : parent->childItems()) {
        if (child->objectName() == name)
            return child;
        if (QQuickItem *found = findItem(child, name))
            return found;
    }
    return nullptr;
}

// Every visible text item under `item`, in scene coordinates.
void visibleTexts(QQuickItem *item, QList<QQuickItem *> *texts)
{
    if (!item->isVisible() || item->opacity() == 0)
        return;
    if (item->metaObject()->indexOfProperty("truncated") >= 0 && !item->property("text").toString().isEmpty())
        texts->append(item);
    for (QQuickItem *child : item->childItems())
        visibleTexts(child, texts);
}
} // namespace

class TstMaintenance : public QObject
{
    Q_OBJECT
private slots:
    void initTestCase();
    void init();
    void cleanup();

    void layoutFits_data();
    void layoutFits();
    void failureShowsThenClears_data();
    void failureShowsThenClears();
    void screenshot();
    void recordedListenRestartsAfterOutage();
    void recordedFailureShows_data();
    void recordedFailureShows();
    void recordedClickPendingUntilSeen_data();
    void recordedClickPendingUntilSeen();

private:
    DAbstractPluginBackend *hooks() const { return qobject_cast<DAbstractPluginBackend *>(m_backend); }
    unsigned long long runId(const QString &command, const QString &channel) const;
    void result(const QString &command, const QString &channel, const QString &name, const QVariant &value,
                bool finish = true);
    QStringList property(const char *name) const { return m_backend->property(name).toStringList(); }
    QQuickItem *tile(const QString &channelId) const;
    QString tileText(const QString &channelId, const QString &part = QStringLiteral("state")) const;
    QString text(const QString &objectName) const;
    int state() const { return m_backend->property("connectionState").toInt(); }
    void click(const QString &channelId);

    E1212Simulator m_simulator;
    quint16 m_port = 0;
    PluginManager m_plugins;
    QScopedPointer<Host> m_host;
    DAbstractPlugin *m_device = nullptr;
    QScopedPointer<QQuickView> m_view;
    QObject *m_backend = nullptr;
    QList<QQmlError> m_qmlWarnings;
    QVariantMap m_parameters;
    TestMessenger m_messenger;
    QQmlEngine m_engine;
    QScopedPointer<DAbstractPlugin> m_recordedDevice;
    QScopedPointer<QObject> m_recordedBackend;
};

void TstMaintenance::initTestCase()
{
    // The offscreen platform has no OpenGL.
    QQuickWindow::setSceneGraphBackend(QSGRendererInterface::Software);
    QString error;
    QVERIFY2(m_simulator.start(QHostAddress::LocalHost, 0, &error), qPrintable(error));
    m_port = m_simulator.port();
    m_plugins.scan({QStringLiteral(E1212_PLUGIN_DIR)});
    QList<DeviceConfig> configs = DeviceConfig::loadFile(QStringLiteral(E1212_SOURCE_DIR "/config/e1212.json"), &error);
    QVERIFY2(configs.size() == 1, qPrintable(error));
    DeviceConfig config = configs.constFirst();
    m_parameters = config.parameters;
    config.connection = {{QStringLiteral("host"), QStringLiteral("127.0.0.1")}, {QStringLiteral("port"), m_port},
                         {QStringLiteral("timeoutMs"), c_timeoutMs}, {QStringLiteral("pollIntervalMs"), c_pollMs}};
    m_host.reset(new Host(&m_plugins));
    // The commands ask for 3000 ms; a dead device must show sooner in a test.
    m_host->setTimeoutOverride(c_timeoutMs);
    QVERIFY2(m_host->addDevice(config, &error), qPrintable(error));
    m_device = m_host->device(config.reference);
    QVERIFY(m_device);
}

void TstMaintenance::init()
{
    if (QByteArray(QTest::currentTestFunction()).startsWith("recorded")) {
        m_messenger.clear();
        auto *root = qobject_cast<IPlugin *>(QPluginLoader(QStringLiteral(E1212_PLUGIN_DIR "/libp_device_moxa_iologic.so")).instance());
        m_recordedDevice.reset(dynamic_cast<DAbstractPlugin *>(root->createInstance(QUuid::createUuid())));
        m_recordedDevice->setProperty(QStringLiteral("reference"), QStringLiteral("Moxa E1212 io1"), false);
        m_recordedDevice->addToParameters(QStringLiteral("parameters"), m_parameters);
        m_recordedDevice->setMessenger(&m_messenger);
        m_recordedDevice->initPluginCommands();
        QQmlComponent component(&m_engine);
        component.setData("import PlgLibDeviceMoxaIoLogic 1.0\nBeMaintenanceDeviceMoxaIoLogic { connectionPath: \"10.0.0.9:502\" }\n", QUrl());
        m_recordedBackend.reset(component.create());
        QVERIFY2(m_recordedBackend, qPrintable(component.errorString()));
        m_backend = m_recordedBackend.data();
        m_backend->setProperty("device", QVariant::fromValue<QObject *>(m_recordedDevice.data()));
        QVERIFY(QMetaObject::invokeMethod(m_backend, "initBackend"));
        return;
    }
    m_simulator.clearExceptions();
    m_simulator.setResponseDelay(0);
    for (int channel = 0; channel < E1212Simulator::ChannelCount; ++channel) {
        m_simulator.setInput(channel, false);
        m_simulator.setPulseStatus(channel, false);
    }
    m_qmlWarnings.clear();
    m_view.reset(new QQuickView);
    connect(m_view->engine(), &QQmlEngine::warnings, this, [this](const QList<QQmlError> &w) { m_qmlWarnings << w; });
    m_view->rootContext()->setContextProperty(QStringLiteral("maintenanceDevice"), m_device);
    m_view->rootContext()->setContextProperty(QStringLiteral("maintenanceConnectionPath"), QStringLiteral("127.0.0.1:%1").arg(m_port));
    m_view->rootContext()->setContextProperty(QStringLiteral("maintenancePollIntervalMs"), c_pollMs);
    m_view->setResizeMode(QQuickView::SizeRootObjectToView);
    m_view->resize(800, 480);
    m_view->setSource(c_panelUrl);
    QVERIFY2(m_view->status() == QQuickView::Ready, qPrintable(m_view->errors().isEmpty() ? QString() : m_view->errors().constFirst().toString()));
    m_view->show();
    QVERIFY(QTest::qWaitForWindowExposed(m_view.data()));
    m_backend = m_view->rootObject()->findChild<QObject *>(QStringLiteral("backend"));
    QVERIFY(m_backend);
    QTRY_COMPARE_WITH_TIMEOUT(state(), int(Connected), c_waitMs);
    QTRY_VERIFY_WITH_TIMEOUT(tileText(QStringLiteral("DO7")) == QLatin1String("OFF") && tileText(QStringLiteral("DI7")) == QLatin1String("OFF"), c_waitMs);
}

void TstMaintenance::cleanup()
{
    m_recordedBackend.reset();
    m_recordedDevice.reset();
    m_view.reset();
    m_backend = nullptr;
    // Runs still in flight end on the event loop; let them go before the next view.
    QCoreApplication::processEvents();
    QString warnings;
    for (const QQmlError &w : qAsConst(m_qmlWarnings))
        warnings += w.toString() + QLatin1Char('\n');
    QVERIFY2(m_qmlWarnings.isEmpty(), qPrintable(warnings));
    if (m_simulator.state() != E1212Simulator::Running)
        QVERIFY(m_simulator.start(QHostAddress::LocalHost, m_port));
}

QQuickItem *TstMaintenance::tile(const QString &channelId) const
{
    // Each group makes a tile for every channel and shows only its own kind.
    const QString group = channelId.startsWith(QLatin1String("DI")) ? QStringLiteral("inputs") : QStringLiteral("outputs");
    return findItem(findItem(m_view->rootObject(), group), QStringLiteral("tile_") + channelId);
}

QString TstMaintenance::tileText(const QString &channelId, const QString &part) const
{
    QQuickItem *t = tile(channelId);
    QQuickItem *item = t ? findItem(t, part) : nullptr;
    return item ? item->property("text").toString() : QStringLiteral("(no %1 in tile %2)").arg(part, channelId);
}

QString TstMaintenance::text(const QString &objectName) const
{
    QQuickItem *item = findItem(m_view->rootObject(), objectName);
    if (item && !item->property("text").isValid())
        item = findItem(item, QStringLiteral("value"));
    return item ? item->property("text").toString() : QStringLiteral("(no item %1)").arg(objectName);
}

void TstMaintenance::click(const QString &channelId)
{
    QQuickItem *t = tile(channelId);
    QVERIFY(t && t->isVisible());
    QTest::mouseClick(m_view.data(), Qt::LeftButton, Qt::NoModifier, t->mapToScene(QPointF(t->width() / 2, t->height() / 2)).toPoint());
}

void TstMaintenance::layoutFits_data()
{
    QTest::addColumn<QSize>("size");
    QTest::newRow("640x400") << QSize(640, 400);
    QTest::newRow("800x480") << QSize(800, 480);
    QTest::newRow("1920x1080") << QSize(1920, 1080);
    QTest::newRow("3840x2160") << QSize(3840, 2160);
}

void TstMaintenance::layoutFits()
{
    QFETCH(QSize, size);
    // The widest texts a tile shows: "blinking" and the age of a stale value.
    m_simulator.setValue(QModbusDataUnit::HoldingRegisters, E1212Simulator::PulseOnWidthBase + 2, 200);
    m_simulator.setPulseStatus(2, true);
    QTRY_COMPARE_WITH_TIMEOUT(tileText(QStringLiteral("DO2")), QStringLiteral("blinking"), c_waitMs);
    m_simulator.stop();
    QTRY_VERIFY_WITH_TIMEOUT(m_backend->property("stale").toBool(), c_waitMs);
    m_view->resize(size);
    QTRY_COMPARE_WITH_TIMEOUT(m_view->rootObject()->size(), QSizeF(size), c_waitMs);
    // Layouts settle in the polish pass before a frame: measure after one.
    QSignalSpy frame(m_view.data(), &QQuickWindow::frameSwapped);
    m_view->update();
    QVERIFY(frame.wait(c_waitMs));

    QList<QQuickItem *> texts;
    visibleTexts(m_view->rootObject(), &texts);
    QVERIFY(texts.size() > 40);
    const QRectF window(QPointF(0, 0), QSizeF(size));
    QList<QRectF> boxes;
    for (QQuickItem *item : qAsConst(texts)) {
        const QString what = item->property("text").toString();
        QVERIFY2(!item->property("truncated").toBool(), qPrintable(QStringLiteral("\"%1\" is elided").arg(what)));
        const QSizeF drawn(item->property("contentWidth").toReal(), item->property("contentHeight").toReal());
        QVERIFY2(drawn.width() <= item->width() + 0.5, qPrintable(QStringLiteral("\"%1\" is cut").arg(what)));
        const QRectF box = item->mapRectToScene(QRectF(QPointF(0, 0), drawn.expandedTo(item->size())));
        QVERIFY2(window.contains(box), qPrintable(QStringLiteral("\"%1\" leaves the window").arg(what)));
        for (int other = 0; other < boxes.size(); ++other)
            QVERIFY2(!boxes.at(other).intersects(box), qPrintable(QStringLiteral("\"%1\" overlaps \"%2\"")
                                                                      .arg(what, texts.at(other)->property("text").toString())));
        boxes << box;
    }
    // Fonts and tiles grow together: a tile stays three to six lines of its state text high.
    QQuickItem *t = tile(QStringLiteral("DO2"));
    const qreal lines = t->height() / findItem(t, QStringLiteral("state"))->property("font").value<QFont>().pixelSize();
    QVERIFY2(lines >= 3 && lines <= 6, qPrintable(QString::number(lines)));
}

void TstMaintenance::failureShowsThenClears_data()
{
    QTest::addColumn<QString>("fault");
    QTest::addColumn<int>("state");
    QTest::addColumn<QString>("text");

    QTest::newRow("stopped") << "stop" << int(NotAnswering) << "No answer from 127.0.0.1:%1 for ";
    QTest::newRow("too slow") << "delay" << int(NotAnswering) << "No answer from 127.0.0.1:%1 for ";
    QTest::newRow("exception") << "exception" << int(Error) << "Module refused: illegal data address at coil 16";
}

void TstMaintenance::failureShowsThenClears()
{
    QFETCH(QString, fault);
    QFETCH(int, state);
    QFETCH(QString, text);

    m_simulator.setInput(1, true);
    QTRY_COMPARE_WITH_TIMEOUT(tileText(QStringLiteral("DI1")), QStringLiteral("ON"), c_waitMs);
    if (fault == QLatin1String("stop"))
        m_simulator.stop();
    else if (fault == QLatin1String("delay"))
        m_simulator.setResponseDelay(2 * c_timeoutMs);
    else
        m_simulator.setException(QModbusDataUnit::Coils, E1212Simulator::PulseStatusBase, QModbusPdu::IllegalDataAddress);
    QTRY_COMPARE_WITH_TIMEOUT(this->state(), state, c_waitMs);
    QVERIFY2(this->text(QStringLiteral("errorText")).startsWith(text.arg(m_port)), qPrintable(this->text(QStringLiteral("errorText"))));
    QVERIFY(!m_backend->property("errorDetails").toString().isEmpty());
    // Values older than the last answer are marked while the module does not answer.
    const bool stale = state == NotAnswering;
    QCOMPARE(tileText(QStringLiteral("DI1"), QStringLiteral("label")).endsWith(QLatin1String(" s old")), stale);
    QCOMPARE(tileText(QStringLiteral("DI1")), QStringLiteral("ON"));

    if (fault == QLatin1String("stop"))
        QVERIFY(m_simulator.start(QHostAddress::LocalHost, m_port));
    m_simulator.setResponseDelay(0);
    m_simulator.clearExceptions();
    m_simulator.setInput(1, false);
    QTRY_COMPARE_WITH_TIMEOUT(this->state(), int(Connected), c_waitMs);
    QTRY_COMPARE_WITH_TIMEOUT(tileText(QStringLiteral("DI1")), QStringLiteral("OFF"), c_waitMs);
    QCOMPARE(tileText(QStringLiteral("DI1"), QStringLiteral("label")), QStringLiteral("Digital input 1"));
    QVERIFY(!findItem(m_view->rootObject(), QStringLiteral("errorText"))->isVisible());
}

void TstMaintenance::screenshot()
{
    // Outputs DO1 and DO4 on, DO6 blinking, inputs DI0 and DI5 on: the pictures in the README.
    click(QStringLiteral("DO1"));
    // "…" until the device shows the new state: the display does not follow the click.
    QCOMPARE(tileText(QStringLiteral("DO1")), QStringLiteral("…"));
    click(QStringLiteral("DO4"));
    m_simulator.setValue(QModbusDataUnit::HoldingRegisters, E1212Simulator::PulseOnWidthBase + 6, 500);
    m_simulator.setPulseStatus(6, true);
    m_simulator.setInput(0, true);
    m_simulator.setInput(5, true);
    for (const QString &id : {QStringLiteral("DO1"), QStringLiteral("DO4"), QStringLiteral("DI0"), QStringLiteral("DI5")})
        QTRY_COMPARE_WITH_TIMEOUT(tileText(id), QStringLiteral("ON"), c_waitMs);
    QTRY_COMPARE_WITH_TIMEOUT(tileText(QStringLiteral("DO6")), QStringLiteral("blinking"), c_waitMs);
    // The header names the module, the configured device and its address.
    QTRY_COMPARE_WITH_TIMEOUT(text(QStringLiteral("modelName")), E1212Simulator::modelName(), c_waitMs);
    QCOMPARE(QStringList({text(QStringLiteral("reference")), text(QStringLiteral("connection")), text(QStringLiteral("firmware")),
                          text(QStringLiteral("mac"))}),
             QStringList({QStringLiteral("Moxa E1212 io1"), QStringLiteral("127.0.0.1:%1").arg(m_port),
                          E1212Simulator::firmwareVersion(), E1212Simulator::macAddress()}));
    QTest::mouseMove(m_view.data(), QPoint(1, 1)); // no hover frame in the picture

    const QString target = qEnvironmentVariable("E1212_PANEL_SCREENSHOT"); // docs/maintenance-panel.png
    for (const QSize &size : {QSize(800, 480), QSize(1920, 1080)}) {
        m_view->resize(size);
        QTRY_COMPARE_WITH_TIMEOUT(m_view->rootObject()->size(), QSizeF(size), c_waitMs);
        // grabWindow() gives nothing with the software scene graph on the offscreen platform.
        const QSharedPointer<QQuickItemGrabResult> grab = m_view->rootObject()->grabToImage();
        QSignalSpy ready(grab.data(), &QQuickItemGrabResult::ready);
        QVERIFY(ready.wait(c_waitMs));
        QCOMPARE(grab->image().size(), size);
        // An "on" output tile is drawn in its own colour, not the background's.
        QQuickItem *on = tile(QStringLiteral("DO1"));
        QVERIFY(grab->image().pixelColor(on->mapToScene(QPointF(on->width() / 2, 6)).toPoint()) != grab->image().pixelColor(2, 2));
        const QString file = size.width() == 800 ? target : QString(target).replace(QStringLiteral(".png"), QStringLiteral("-1920x1080.png"));
        QVERIFY2(target.isEmpty() || grab->image().save(file), qPrintable(file));
    }
    // A click turns an output off again, a blinking one included.
    click(QStringLiteral("DO1"));
    click(QStringLiteral("DO6"));
    QTRY_VERIFY_WITH_TIMEOUT(tileText(QStringLiteral("DO1")) == QLatin1String("OFF") && tileText(QStringLiteral("DO6")) == QLatin1String("OFF"), c_waitMs);
    QVERIFY(!m_simulator.output(1) && !m_simulator.pulseStatus(6));
}

unsigned long long TstMaintenance::runId(const QString &command, const QString &channel) const
{
    unsigned long long id = 0; // the latest run of it
    for (const TestMessenger::Run &run : m_messenger.runs()) {
        if (run.command == command && run.arguments.value(QStringLiteral("channel")).toString() == channel && !run.stopped)
            id = run.id;
    }
    return id;
}

void TstMaintenance::result(const QString &command, const QString &channel, const QString &name,
                                   const QVariant &value, bool finish)
{
    const unsigned long long id = runId(command, channel);
    hooks()->commandResultChanged(id, command, name, value);
    if (finish)
        hooks()->commandFinished(id, command, {{name, value}});
}

void TstMaintenance::recordedListenRestartsAfterOutage()
{
    // A listen that an outage ended starts again once a scheduled read is answered, and only then.
    const int runs = m_messenger.runs().size();
    hooks()->commandFailed(runId(QStringLiteral("listenEvents"), QStringLiteral("DI4")), QStringLiteral("listenEvents"),
                           DError{IMessenger::CeTimeout, 0, QStringLiteral("no reply")});
    QCOMPARE(m_messenger.runs().size(), runs);
    const QVariantList off{0, 0, 0, 0, 0, 0, 0, 0};
    result(QStringLiteral("getValues"), c_status, QStringLiteral("values"), off);
    QCOMPARE(m_messenger.runs().size(), runs + 1);
    QCOMPARE(m_messenger.runs().constLast().arguments, (QVariantMap{{QStringLiteral("channel"), QStringLiteral("DI4")}}));
    QCOMPARE(m_messenger.runs().constLast().repeatMs, 0);
    result(QStringLiteral("getValues"), c_status, QStringLiteral("values"), off);
    QCOMPARE(m_messenger.runs().size(), runs + 1);
}

void TstMaintenance::recordedFailureShows_data()
{
    QTest::addColumn<QString>("channel");
    QTest::addColumn<int>("code");
    QTest::addColumn<int>("exception");
    QTest::addColumn<QString>("text");
    QTest::addColumn<int>("state");

    QTest::newRow("no connection") << QStringLiteral("DI3") << int(IMessenger::CeNoConnection) << 0
                                   << "No answer from 10.0.0.9:502 for 1 s" << int(NotAnswering);
    QTest::newRow("exception on a listen") << QStringLiteral("DI3") << int(IMessenger::CeModbusException) << 4
                                           << "Module refused: server device failure at discrete input 3" << int(Error);
    QTest::newRow("garbled") << QStringLiteral("DO_PulseOnWidth") << int(IMessenger::CeMalformedReply) << 0
                             << "Garbled answer from the module at holding register 256" << int(Error);
}

void TstMaintenance::recordedFailureShows()
{
    QFETCH(QString, channel);
    QFETCH(int, code);
    QFETCH(int, exception);
    QFETCH(QString, text);
    QFETCH(int, state);

    const QString command = channel.startsWith(QLatin1String("DO_")) ? QStringLiteral("getValues") : QStringLiteral("listenEvents");
    result(QStringLiteral("listenEvents"), QStringLiteral("DI0"), QStringLiteral("values"),
           QVariantMap{{QStringLiteral("values"), QVariantList{0}}}, false);
    const DError error{IMessenger::EnErrorCode(code), exception, QStringLiteral("the host's own words")};
    LogCapture log;
    hooks()->commandFailed(runId(command, channel), command, error);
    // Values on screen are stale exactly when the device does not answer.
    QCOMPARE(QVariantList({m_backend->property("errorText"), m_backend->property("errorDetails"), m_backend->property("connectionState"),
                           m_backend->property("stale")}),
             QVariantList({text, error.text, state, state == NotAnswering}));
    // Said once, as the plug-in's diagnostic line.
    hooks()->commandFailed(runId(command, channel), command, error);
    QCOMPARE(log.messages().size(), 1);
    const LogCapture::Message line = log.messages().constFirst();
    QCOMPARE(QVariantList({line.type, line.category}), QVariantList({QtCriticalMsg, QStringLiteral("default")}));
    QVERIFY2(line.text.contains(QStringLiteral("plugins/p_device_moxa_iologic/source/be_maintenance_plugin ;\t"))
                 && line.text.endsWith(text + QStringLiteral(" \"the host's own words\"")), qPrintable(line.text));
}

void TstMaintenance::recordedClickPendingUntilSeen_data()
{
    QTest::addColumn<QString>("seenBy");

    QTest::newRow("second status read after the write") << "reads";
    QTest::newRow("write refused") << "refused";
}

void TstMaintenance::recordedClickPendingUntilSeen()
{
    QFETCH(QString, seenBy);

    const QString id = QStringLiteral("DO3");
    bool accepted = true;
    QMetaObject::invokeMethod(m_backend, "clickedOnChannel", Q_RETURN_ARG(bool, accepted), Q_ARG(QString, id));
    QVERIFY(!accepted); // no value known yet
    result(QStringLiteral("listenEvents"), id, QStringLiteral("values"), QVariantMap{{QStringLiteral("values"), QVariantList{0}}}, false);
    QMetaObject::invokeMethod(m_backend, "clickedOnChannel", Q_RETURN_ARG(bool, accepted), Q_ARG(QString, id));
    QVERIFY(accepted);
    QCOMPARE(m_messenger.runs().constLast().arguments, (QVariantMap{{QStringLiteral("channel"), id}, {QStringLiteral("value"), 1}}));
    QCOMPARE(property("pendingChannels"), QStringList{id});
    QMetaObject::invokeMethod(m_backend, "clickedOnChannel", Q_RETURN_ARG(bool, accepted), Q_ARG(QString, id));
    QVERIFY(!accepted); // already pending

    const QVariantList off{0, 0, 0, 0, 0, 0, 0, 0};
    if (seenBy == QLatin1String("reads")) {
        result(QStringLiteral("setValue"), id, QStringLiteral("doneOk"), true);
        // One read may have been on the wire before the write: it does not end the wait.
        result(QStringLiteral("getValues"), c_status, QStringLiteral("values"), off);
        QCOMPARE(property("pendingChannels"), QStringList{id});
        result(QStringLiteral("getValues"), c_status, QStringLiteral("values"), off);
    } else {
        LogCapture log;
        result(QStringLiteral("setValue"), id, QStringLiteral("doneOk"), false);
        QCOMPARE(m_backend->property("connectionState").toInt(), int(Error));
        QCOMPARE(m_backend->property("errorText").toString(), QStringLiteral("Module did not accept the new value of DO3"));
        // A refused write stays on screen while reads go on.
        result(QStringLiteral("getValues"), c_status, QStringLiteral("values"), off);
        QCOMPARE(m_backend->property("connectionState").toInt(), int(Error));
    }
    QVERIFY(property("pendingChannels").isEmpty());
}

QTEST_MAIN(TstMaintenance)
#include "tst_maintenance.moc"
