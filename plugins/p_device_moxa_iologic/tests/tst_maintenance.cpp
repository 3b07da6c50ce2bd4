// SPDX-License-Identifier: MIT
// The maintenance panel in a real QML view, on the real host, the Modbus TCP driver and the
// simulator on loopback; and its back-end on a recording messenger ("recorded"), for answers
// the simulator cannot give on demand (error codes, a refused write, a late read).
#include "dabstractpluginbackend.h"
#include "devicebench.h"
#include "deviceconfig.h"
#include "e1212simulator.h"
#include "host.h"
#include "pluginmanager.h"

#include <QQmlComponent>
#include <QQmlContext>
#include <QQmlEngine>
#include <QQuickItemGrabResult>
#include <QQuickItem>
#include <QQuickView>
#include <QtTest>

using bench::record;

namespace {
const QUrl c_panelUrl(QStringLiteral("qrc:/{43ae4651-f855-42c1-81e2-c73130e79008}/maintenance_panel.qml"));
constexpr int c_pollMs = 100;
constexpr int c_timeoutMs = 400;
// Enough for a few polls and a time-out, never a hidden sleep: every wait ends on its condition.
constexpr int c_waitMs = 5000;
// Values of BeMaintenanceDeviceMoxaIoLogic::EnConnectionState.
enum { Connected = 2, NotAnswering = 3, Error = 4 };

// The items shown under `parent`, depth first.
QList<QQuickItem *> shown(QQuickItem *parent)
{
    QList<QQuickItem *> items;
    for (QQuickItem *child : parent->childItems())
        if (child->isVisible() && child->opacity() > 0)
            items << child << shown(child);
    return items;
}

// The first item named `name` shown under `parent`. Each group makes a tile for every channel
// and shows only its own kind: the tile shown is the one on screen.
QQuickItem *findItem(QQuickItem *parent, const QString &name)
{
    for (QQuickItem *item : shown(parent))
        if (item->objectName() == name)
            return item;
    return nullptr;
}

// Steps of a recorded row. A result of the latest run of `command` on `channel`, the run going on
// (a listen report) or ending with it; a failure of that run; a click and whether it is taken.
QVariant answer(const QString &command, const QString &channel, const QVariant &value) { return QVariantList{"answer", command, channel, value}; }
QVariant fail(const QString &command, const QString &channel, int code, int exception = 0) { return QVariantList{"fail", command, channel, code, exception}; }
QVariant press(const QString &channel, bool taken) { return QVariantList{"click", QString(), channel, taken}; }
QVariant listen(const QString &channel, int value) { return QVariantList{"report", "listenEvents", channel, QVariantMap{{"values", QVariantList{value}}}}; }
// A back-end property's value; the runs started since initBackend ("command channel[ value]");
// the runs stopped; the next diagnostic line, its text and the host's words after it.
QVariant check(const char *property, const QVariant &value) { return QVariantList{"check", property, QString(), value}; }
QVariant started(const QStringList &runs) { return QVariantList{"started", QString(), QString(), runs}; }
QVariant stopped(const QStringList &runs) { return QVariantList{"stopped", QString(), QString(), runs}; }
QVariant set(const char *property, const QVariant &value) { return QVariantList{"set", property, QString(), value}; }
QVariant logged(const QString &text, const QString &details = QStringLiteral("the host's own words")) { return QVariantList{"logged", text, details}; }
// A channel's timeline: its entries as {value, index of the row's step that reported it}, and how
// many historyChanged the back-end emitted (any channel) since the previous such check.
QVariant history(const QString &channel, const QVariantList &entries, int changed) { return QVariantList{"history", QString(), channel, entries, changed}; }
QVariant entry(int value, int step) { return QVariantList{value, step}; }
// trimHistory at the time of the channel's entry `index` plus `afterMs`.
QVariant trim(const QString &channel, int index, int afterMs) { return QVariantList{"trim", QString(), channel, index, afterMs}; }
} // namespace

class TstMaintenance : public QObject
{
    Q_OBJECT
private slots:
    void initTestCase();
    void cleanup();

    void panelAtEverySize_data();
    void panelAtEverySize();
    void recorded_data();
    void recorded();
    void noChannelTable();

private:
    // The text of the item at `path` (each name under the previous one), or an info field's value.
    QString text(const QStringList &path) const
    {
        QQuickItem *item = m_view->rootObject();
        for (const QString &name : path)
            item = item ? findItem(item, name) : nullptr;
        return item ? item->property(item->property("text").isValid() ? "text" : "value").toString() : "(no " + path.join('/') + ')';
    }
    QString tile(const QString &channelId, const QString &part = QStringLiteral("state")) const { return text({"tile_" + channelId, part}); }
    int state() const { return m_backend->property("connectionState").toInt(); }
    // What a channel's timeline draws in the inputs' trace colour: along its high line at all, and
    // at its right edge high or low.
    QString trace(const QString &channelId) const
    {
        QQuickItem *strip = findItem(m_view->rootObject(), "timeline_" + channelId);
        QSharedPointer<QQuickItemGrabResult> grab = strip ? strip->grabToImage() : nullptr;
        QSignalSpy ready(grab.data(), &QQuickItemGrabResult::ready);
        if (!grab || !ready.wait(c_waitMs))
            return QStringLiteral("no picture");
        const QImage image = grab->image();
        // Near the trace colour #7cb8ff within two pixels of the line, however it is smoothed.
        const auto traced = [&image](int x, qreal y) {
            bool near = false;
            for (int row = int(y * image.height()) - 2; row <= int(y * image.height()) + 2 && !near; ++row) {
                const QColor c = image.pixelColor(x, qBound(0, row, image.height() - 1));
                near = c.blue() > 200 && c.red() > 80 && c.red() < 170;
            }
            return near;
        };
        bool high = false;
        for (int x = 0; x < image.width() && !high; ++x)
            high = traced(x, 0.2);
        const int now = image.width() - 2;
        return QStringLiteral("%1 before, %2 now").arg(high ? "high" : "never high", traced(now, 0.8) ? "low" : traced(now, 0.2) ? "high" : "nothing");
    }
    void click(const QString &channelId)
    {
        QQuickItem *t = findItem(m_view->rootObject(), "tile_" + channelId);
        QVERIFY(t);
        QTest::mouseClick(m_view.data(), Qt::LeftButton, Qt::NoModifier, t->mapToScene(QPointF(t->width() / 2, t->height() / 2)).toPoint());
    }

    E1212Simulator m_simulator;
    quint16 m_port = 0;
    PluginManager m_plugins;
    QScopedPointer<Host> m_host;
    DAbstractPlugin *m_device = nullptr;
    QScopedPointer<QQuickView> m_view;
    QObject *m_backend = nullptr;
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
    config.connection = {{"host", "127.0.0.1"}, {"port", m_port}, {"timeoutMs", c_timeoutMs}, {"pollIntervalMs", c_pollMs}};
    m_host.reset(new Host(&m_plugins));
    // The commands ask for 3000 ms; a dead device must show sooner in a test.
    m_host->setTimeoutOverride(c_timeoutMs);
    QVERIFY2(m_host->addDevice(config, &error), qPrintable(error));
    QVERIFY(m_device = m_host->device(config.reference));
}

void TstMaintenance::cleanup()
{
    m_view.reset();
    // Runs still in flight end on the event loop; let them go before the next view.
    QCoreApplication::processEvents();
    if (m_simulator.state() != E1212Simulator::Running)
        QVERIFY(m_simulator.start(QHostAddress::LocalHost, m_port));
}

void TstMaintenance::panelAtEverySize_data()
{
    QTest::addColumn<QString>("fault");
    QTest::addColumn<QSize>("size");
    QTest::addColumn<QString>("error");

    const QString noAnswer = QStringLiteral("No answer from 127.0.0.1:%1 for ");
    QTest::newRow("too slow, 640x400") << "delay" << QSize(640, 400) << noAnswer;
    QTest::newRow("exception, 800x480") << "exception" << QSize(800, 480) << "Module refused: illegal data address at coil 16";
    QTest::newRow("stopped, 1920x1080") << "stop" << QSize(1920, 1080) << noAnswer;
    QTest::newRow("too slow, 3840x2160") << "delay" << QSize(3840, 2160) << noAnswer;
}

void TstMaintenance::panelAtEverySize()
{
    QFETCH(QString, fault);
    QFETCH(QSize, size);
    QFETCH(QString, error);
    m_view.reset(new QQuickView);
    // Any QML warning (a type error, a binding loop) fails the row.
    connect(m_view->engine(), &QQmlEngine::warnings, this, [](const QList<QQmlError> &warnings) { QFAIL(qPrintable(warnings.first().toString())); });
    m_view->rootContext()->setContextProperty(QStringLiteral("maintenanceDevice"), m_device);
    m_view->rootContext()->setContextProperty(QStringLiteral("maintenanceConnectionPath"), QStringLiteral("127.0.0.1:%1").arg(m_port));
    m_view->rootContext()->setContextProperty(QStringLiteral("maintenancePollIntervalMs"), c_pollMs);
    m_view->setResizeMode(QQuickView::SizeRootObjectToView);
    m_view->resize(800, 480);
    m_view->setSource(c_panelUrl);
    QVERIFY(m_view->status() == QQuickView::Ready);
    m_view->show();
    QVERIFY(QTest::qWaitForWindowExposed(m_view.data()));
    QVERIFY(m_backend = m_view->rootObject()->findChild<QObject *>(QStringLiteral("backend")));
    QTRY_COMPARE_WITH_TIMEOUT(state(), int(Connected), c_waitMs);
    QTRY_VERIFY_WITH_TIMEOUT(tile("DO7") == QLatin1String("OFF") && tile("DI7") == QLatin1String("OFF"), c_waitMs);

    // The widest texts a tile shows: "blinking" and the age of a stale value.
    m_simulator.setValue(QModbusDataUnit::HoldingRegisters, E1212Simulator::PulseOnWidthBase + 2, 200);
    m_simulator.setPulseStatus(2, true);
    m_simulator.setInput(1, true);
    click(QStringLiteral("DO1"));
    // "…" until the device shows the new state: the display does not follow the click.
    QCOMPARE(tile("DO1"), QStringLiteral("…"));
    QTRY_COMPARE_WITH_TIMEOUT(QStringList({tile("DO1"), tile("DI1"), tile("DO2")}), QStringList({"ON", "ON", "blinking"}), c_waitMs);
    // The header names the module, the configured device and its address.
    QTRY_COMPARE_WITH_TIMEOUT(QStringList({text({"modelName"}), text({"reference"}), text({"connection"}), text({"firmware"}), text({"mac"})}),
             QStringList({E1212Simulator::modelName(), "Moxa E1212 io1", QStringLiteral("127.0.0.1:%1").arg(m_port),
                          E1212Simulator::firmwareVersion(), m_simulator.macAddress()}), c_waitMs);
    if (fault == QLatin1String("stop"))
        m_simulator.stop();
    else if (fault == QLatin1String("delay"))
        m_simulator.setResponseDelay(2 * c_timeoutMs);
    else
        m_simulator.setException(QModbusDataUnit::Coils, E1212Simulator::PulseStatusBase, QModbusPdu::IllegalDataAddress);
    // Values older than the last answer are marked exactly while the module does not answer.
    const bool stale = fault != QLatin1String("exception");
    QTRY_COMPARE_WITH_TIMEOUT(state(), stale ? int(NotAnswering) : int(Error), c_waitMs);
    QTRY_VERIFY_WITH_TIMEOUT(tile("DI1", "label").endsWith(QLatin1String(" s old")) == stale, c_waitMs);
    QVERIFY2(text({"errorText"}).startsWith(error.arg(m_port)), qPrintable(text({"errorText"})));
    QCOMPARE(tile("DI1"), QStringLiteral("ON"));

    m_view->resize(size);
    QTRY_COMPARE_WITH_TIMEOUT(m_view->rootObject()->size(), QSizeF(size), c_waitMs);
    // Layouts settle in the polish pass before a frame: measure after one.
    QSignalSpy frame(m_view.data(), &QQuickWindow::frameSwapped);
    m_view->update();
    QVERIFY(frame.wait(c_waitMs));
    QList<QRectF> boxes;
    for (QQuickItem *item : shown(m_view->rootObject())) {
        if (item->metaObject()->indexOfProperty("truncated") < 0 || item->property("text").toString().isEmpty())
            continue;
        const QByteArray what = item->property("text").toString().toUtf8();
        const QSizeF drawn(item->property("contentWidth").toReal(), item->property("contentHeight").toReal());
        QVERIFY2(!item->property("truncated").toBool() && drawn.width() <= item->width() + 0.5, QByteArray("cut: ").append(what).constData());
        const QRectF box = item->mapRectToScene(QRectF(QPointF(0, 0), drawn.expandedTo(item->size())));
        QVERIFY2(QRectF(QPointF(0, 0), QSizeF(size)).contains(box), QByteArray("leaves the window: ").append(what).constData());
        for (const QRectF &other : qAsConst(boxes))
            QVERIFY2(!other.intersects(box), QByteArray("overlaps another text: ").append(what).constData());
        boxes << box;
    }
    QVERIFY(boxes.size() > 40);
    // Each channel's timeline sits beside its tile, in its row, as wide as the tile at least.
    for (const QString &id : {QStringLiteral("DI0"), QStringLiteral("DI7"), QStringLiteral("DO0"), QStringLiteral("DO7")}) {
        QQuickItem *strip = findItem(m_view->rootObject(), "timeline_" + id);
        QQuickItem *tileItem = findItem(m_view->rootObject(), "tile_" + id);
        QVERIFY2(strip && tileItem, qPrintable(id));
        const QRectF s = strip->mapRectToScene(QRectF(QPointF(0, 0), strip->size()));
        const QRectF t = tileItem->mapRectToScene(QRectF(QPointF(0, 0), tileItem->size()));
        QVERIFY2(s.left() >= t.right() && s.width() >= t.width() && qAbs(s.center().y() - t.center().y()) < 1
                     && QRectF(QPointF(0, 0), QSizeF(size)).contains(s), qPrintable(id));
    }
    // Fonts and tiles grow together: a tile stays two to six lines of its state text high.
    QQuickItem *t = findItem(m_view->rootObject(), QStringLiteral("tile_DO2"));
    const qreal lines = t->height() / findItem(t, QStringLiteral("state"))->property("font").value<QFont>().pixelSize();
    QVERIFY2(lines >= 2 && lines <= 6, qPrintable(QString::number(lines)));

    if (fault == QLatin1String("stop"))
        QVERIFY(m_simulator.start(QHostAddress::LocalHost, m_port));
    m_simulator.setResponseDelay(0);
    m_simulator.clearExceptions();
    m_simulator.setInput(1, false);
    QTRY_COMPARE_WITH_TIMEOUT(state(), int(Connected), c_waitMs);
    QTRY_COMPARE_WITH_TIMEOUT(tile("DI1"), QStringLiteral("OFF"), c_waitMs);
    QCOMPARE(tile("DI1", "label"), QStringLiteral("Digital input 1"));
    QVERIFY(!findItem(m_view->rootObject(), QStringLiteral("errorText")));
    // A click turns an output off again, a blinking one included.
    click(QStringLiteral("DO1"));
    click(QStringLiteral("DO2"));
    QTRY_VERIFY_WITH_TIMEOUT(tile("DO1") == QLatin1String("OFF") && tile("DO2") == QLatin1String("OFF"), c_waitMs);
    QVERIFY(!m_simulator.output(1) && !m_simulator.pulseStatus(2));
    // DI1's timeline: high while it was on, low at the present (the right edge), in the inputs' colour.
    QTRY_COMPARE_WITH_TIMEOUT(trace(QStringLiteral("DI1")), QStringLiteral("high before, low now"), c_waitMs);
}

void TstMaintenance::recorded_data()
{
    QTest::addColumn<QVariantList>("steps");
    const QString status = QStringLiteral("DO_PulseStatus"), width = QStringLiteral("DO_PulseOnWidth");
    const QVariantList off{0, 0, 0, 0, 0, 0, 0, 0};
    const QString noAnswer = QStringLiteral("No answer from 10.0.0.9:502 for 1 s");
    const QString failure = QStringLiteral("Module refused: server device failure at discrete input 3");
    const QString noDevice = QStringLiteral("No device: the panel was opened without an E1212 plug-in instance");
    const auto refusal = [](const QVariant &failure, const QString &text) {
        return QVariantList{failure, check("errorText", text), check("connectionState", Error), logged(text)};
    };

    QTest::newRow("no answer: stale, said once, listens again at the next answer") << QVariantList{
        listen("DI0", 0), fail("listenEvents", "DI3", IMessenger::CeNoConnection), check("errorText", noAnswer),
        check("connectionState", NotAnswering), check("stale", true), check("staleSeconds", 1), logged(noAnswer),
        fail("getValues", status, IMessenger::CeTimeout), started({}), answer("getValues", status, off), check("stale", false),
        check("connectionState", Connected), check("errorText", QString()), started({"listenEvents DI3"}),
        answer("getValues", status, off), started({"listenEvents DI3"})};
    // An age is whole seconds, rounded: 1.6 s of silence read as 2.
    // A failure before any value is shown marks nothing stale.
    QTest::newRow("age rounded, said once, grows") << QVariantList{
        fail("listenEvents", "DI3", IMessenger::CeTimeout), check("stale", false), check("connectionState", NotAnswering), logged(noAnswer),
        listen("DI0", 0), check("connectionState", Connected), QVariantList{"wait", 1600}, fail("listenEvents", "DO0", IMessenger::CeTimeout),
        check("stale", true), check("staleSeconds", 2), logged("No answer from 10.0.0.9:502 for 2 s"), QVariantList{"wait", 1000},
        fail("getValues", status, IMessenger::CeTimeout), check("staleSeconds", 3), check("errorText", "No answer from 10.0.0.9:502 for 3 s")};
    QTest::newRow("a refusal stays until the same kind of run goes through") << QVariantList{
        listen("DI0", 0), fail("listenEvents", "DI0", IMessenger::CeModbusException, 2),
        logged("Module refused: illegal data address at discrete input 0"), fail("listenEvents", "DI3", IMessenger::CeModbusException, 4),
        check("errorText", failure), check("connectionState", Error), check("stale", false), logged(failure),
        fail("listenEvents", "DI3", IMessenger::CeModbusException, 4), check("errorText", failure), answer("getValues", status, off),
        check("connectionState", Error), listen("DI3", 1), check("connectionState", Connected)};
    QTest::newRow("each refusal said in its own words") << refusal(fail("getInfo", QString(), IMessenger::CeReplyRejected),
                                                                   "Unexpected answer from the module at the identity registers")
        + refusal(fail("getValues", width, IMessenger::CeMalformedReply), "Garbled answer from the module at holding register 256")
        + refusal(fail("listenEvents", "AI0", IMessenger::CeRefused), "The host refused the request for input register 7")
        + refusal(fail("listenEvents", "DI3", IMessenger::CeNoRoute), "No host or driver reaches the module for discrete input 3")
        + refusal(fail("getValues", status, IMessenger::CeBadInstruction), "The driver cannot send the request for coil 16")
        + refusal(fail("listenEvents", "DO0", IMessenger::CeDriverError), "The driver failed at coil 0")
        // A run the host would not even start.
        + refusal(fail("stopListening", QString(), IMessenger::CeRefused), "The host refused the request for stopListening");
    QTest::newRow("a write waits for the second status read after it") << QVariantList{
        listen("DO3", 0), press("DO3", true), started({"setValue DO3 1"}), check("pendingChannels", QStringList{"DO3"}),
        press("DO3", false), listen("DO3", 0), check("pendingChannels", QStringList{"DO3"}), answer("setValue", "DO3", true),
        answer("getValues", status, off), check("pendingChannels", QStringList{"DO3"}), answer("getValues", status, off),
        check("pendingChannels", QStringList())};
    // A status read that ends before the write does confirms nothing; a write that fails is no longer pending.
    QTest::newRow("a write fails") << QVariantList{
        listen("DO3", 0), press("DO3", true), answer("getValues", status, QVariantList{0, 0, 0, 1}), check("pendingChannels", QStringList{"DO3"}),
        fail("setValue", "DO3", IMessenger::CeTimeout), check("pendingChannels", QStringList()), logged(noAnswer), press("DO3", true)};
    QTest::newRow("a write refused") << QVariantList{
        listen("DO3", 0), press("DO3", true), answer("setValue", "DO3", false), check("pendingChannels", QStringList()),
        check("errorDetails", "setValue on DO3: \"doneOk\" is false"), logged("Module did not accept the new value of DO3", "setValue on DO3: \"doneOk\" is false"),
        answer("getValues", status, off), check("connectionState", Error)};
    // Nothing is sent for what cannot switch; an output on, seen by its listen, and a blinking one (on-width 65535
    // is setValue's steady "on") are switched off.
    QTest::newRow("what switches") << QVariantList{
        press("DO3", false), listen("DI0", 1), press("DI0", false), press("nope", false), started({}), listen("DO3", 1), press("DO3", true),
        started({"setValue DO3 0"}), listen("DO3", 0), check("pendingChannels", QStringList()), listen("DO0", 0),
        answer("getValues", status, QVariantList{1, 0, 0, 1}), answer("getValues", width, QVariantList{200, 0, 0, 65535}),
        check("blinkingChannels", QStringList{"DO0"}), press("DO0", true), started({"setValue DO3 0", "setValue DO0 0"})};
    // The identity is read once it answers, and again after it failed once the device answers.
    const QVariantMap info{{"modelName", "E1212"}, {"softwareVersion", "V3.2.1"}, {"macAddress", "00:90:E8:12:34:56"}, {"serialNumber", "42"}};
    QTest::newRow("identity") << QVariantList{
        answer("getInfo", QString(), info), check("modelName", "E1212"), check("version", "V3.2.1"), check("macAddress", "00:90:E8:12:34:56"),
        check("serialNumber", "42"), answer("getValues", status, off), started({})};
    QTest::newRow("identity again after a failure") << QVariantList{
        fail("getInfo", QString(), IMessenger::CeTimeout), logged(noAnswer), answer("getValues", status, off), started({"getInfo"})};
    // A new interval restarts the scheduled reads, not before initBackend after a new device.
    QTest::newRow("poll interval") << QVariantList{
        set("pollIntervalMs", 9), check("pollIntervalMs", 500), started({}), set("pollIntervalMs", 200), check("pollIntervalMs", 200),
        stopped({"getValues DO_PulseStatus every", "getValues DO_PulseOnWidth every"}),
        started({"getValues DO_PulseStatus every", "getValues DO_PulseOnWidth every"}), QVariantList{"detach"}, logged(noDevice, QString()),
        QVariantList{"attach"}, set("pollIntervalMs", 300),
        started({"getValues DO_PulseStatus every", "getValues DO_PulseOnWidth every"})};

    // A report that is not one value changes nothing: the command has said what is wrong with it.
    QTest::newRow("a report not of one value") << QVariantList{
        QVariantList{"report", "listenEvents", "DO3", QVariantMap{{"values", QVariantList{1, 0}}}},
        QVariantList{"report", "listenEvents", "DO3", QVariantMap()}, press("DO3", false), history("DO3", {}, 0),
        listen("DO3", 1), press("DO3", true)};

    // The timeline: every change with the time its report came, a repeated value not recorded.
    QTest::newRow("timeline: changes with their times") << QVariantList{
        check("historySeconds", 60), check("historyLength", 512), listen("DI0", 0), QVariantList{"wait", 20}, listen("DI0", 0),
        listen("DI0", 1), QVariantList{"wait", 20}, listen("DO3", 1), listen("DI0", 0),
        history("DI0", {entry(0, 2), entry(1, 5), entry(0, 8)}, 4), history("DO3", {entry(1, 7)}, 0), history("DI3", {}, 0)};
    // What left the window goes, all but the value the window starts with.
    QTest::newRow("timeline: trimmed after 60 s") << QVariantList{
        listen("DI0", 0), QVariantList{"wait", 5}, listen("DI0", 1), QVariantList{"wait", 5}, listen("DI0", 0), listen("DI3", 1),
        trim("DI0", 1, 60000), history("DI0", {entry(0, 0), entry(1, 2), entry(0, 4)}, 2 + 2),
        trim("DI0", 1, 60001), history("DI0", {entry(1, 2), entry(0, 4)}, 1), history("DI3", {entry(1, 5)}, 0),
        trim("DI0", 1, 60001), history("DI0", {entry(0, 4)}, 1), history("DI3", {entry(1, 5)}, 0),
        trim("DI0", 0, 3600000), history("DI0", {entry(0, 4)}, 0)};
    // At most historyLength changes a channel: the oldest go.
    QVariantList capped, kept;
    for (int i = 0; i < 520; ++i) {
        capped << listen("DI0", i % 2);
        if (i >= 8)
            kept << entry(i % 2, i);
    }
    QTest::newRow("timeline: at most 512 changes") << (capped << history("DI0", kept, 520));

    QTest::newRow("no device: what runs stops, writes and identity end by themselves") << QVariantList{
        listen("DO3", 0), press("DO3", true), QVariantList{"detach"}, check("pendingChannels", QStringList()),
        stopped({"listenEvents DI0", "listenEvents DI3", "listenEvents DO0", "listenEvents DO3", "listenEvents AI0",
                 "getValues DO_PulseStatus every", "getValues DO_PulseOnWidth every"}),
        check("errorText", noDevice), check("connectionState", Error), logged(noDevice, QString())};
}

void TstMaintenance::recorded()
{
    QFETCH(QVariantList, steps);
    // Inputs, outputs at pulse offsets 0 and 3, an analog input, the pulse records.
    const auto channel = [](const char *id, const char *type, int reg, const char *space) {
        return record(id, {{"type", type}, {"register", reg}, {"readRegisterType", space}});
    };
    bench::Device device(QVariantList{channel("DI0", "digitalInput", 0, "discreteInputs"), channel("DI3", "digitalInput", 3, "discreteInputs"),
                                      channel("DO0", "digitalOutput", 0, "coilsRegister"), channel("DO3", "digitalOutput", 3, "coilsRegister"),
                                      channel("AI0", "analogInput", 7, "inputRegisters"),
                                      record("DO_PulseStatus", {{"register", 16}, {"readRegisterType", "coilsRegister"}}),
                                      record("DO_PulseOnWidth", {{"register", 256}, {"readRegisterType", "holdingRegisters"}})});
    QQmlEngine engine;
    QQmlComponent component(&engine);
    // Both QML types come with the plug-in.
    component.setData("import PlgLibDeviceMoxaIoLogic 1.0\nBeMaintenanceDeviceMoxaIoLogic { connectionPath: \"10.0.0.9:502\"; property var channel: DMoxaChannel {} }\n", QUrl());
    QScopedPointer<QObject> backend(component.create());
    QVERIFY2(backend && backend->property("channel").value<QObject *>()->inherits("DMoxaChannel"), qPrintable(component.errorString()));
    backend->setProperty("device", QVariant::fromValue<QObject *>(device.plugin.get()));
    QVERIFY(QMetaObject::invokeMethod(backend.data(), "initBackend"));
    auto *hooks = qobject_cast<DAbstractPluginBackend *>(backend.data());
    const QList<TestMessenger::Run> &runs = device.messenger.runs();
    const int initRuns = runs.size();
    LogCapture log;
    int lines = 0;
    QSignalSpy historyChanged(backend.data(), SIGNAL(historyChanged(QString)));
    // When each step began and ended, ms since the epoch.
    QVector<qint64> began, ended;
    for (const QVariant &s : qAsConst(steps)) {
        const QVariantList step = s.toList();
        began << QDateTime::currentMSecsSinceEpoch();
        const QString command = step.value(1).toString();
        const auto is = [&step](const char *kind) { return step.at(0).toString() == QLatin1String(kind); };
        unsigned long long id = 0; // the latest run of `command` on the step's channel
        for (const TestMessenger::Run &run : runs)
            id = run.command == command && run.arguments.value("channel").toString() == step.value(2).toString() ? run.id : id;
        bool taken = !step.value(3).toBool();
        if (is("report") || is("answer")) {
            const QString name = command == QLatin1String("setValue") ? QStringLiteral("doneOk")
                                 : command == QLatin1String("getInfo") ? QStringLiteral("deviceInformation") : QStringLiteral("values");
            hooks->commandResultChanged(id, command, name, step.at(3));
            if (is("answer"))
                hooks->commandFinished(id, command, {{name, step.at(3)}});
        } else if (is("fail")) {
            hooks->commandFailed(id, command, DError{IMessenger::EnErrorCode(step.at(3).toInt()), step.at(4).toInt(), "the host's own words"});
        } else if (is("click")) {
            QMetaObject::invokeMethod(backend.data(), "clickedOnChannel", Q_RETURN_ARG(bool, taken), Q_ARG(QString, step.at(2).toString()));
            QCOMPARE(taken, step.at(3).toBool());
        } else if (is("detach")) { // without its plug-in the back-end cannot start again
            backend->setProperty("device", QVariant::fromValue<QObject *>(nullptr));
            QVERIFY(QMetaObject::invokeMethod(backend.data(), "initBackend", Q_RETURN_ARG(bool, taken)) && !taken);
        } else if (is("attach")) {
            backend->setProperty("device", QVariant::fromValue<QObject *>(device.plugin.get()));
        } else if (is("set")) {
            QVERIFY(backend->setProperty(qPrintable(command), step.at(3)));
        } else if (is("wait")) {
            QTest::qWait(command.toInt());
        } else if (is("history") || is("trim")) {
            QVariantList entries;
            QVERIFY(QMetaObject::invokeMethod(backend.data(), "history", Q_RETURN_ARG(QVariantList, entries), Q_ARG(QString, step.at(2).toString())));
            const qint64 at = entries.value(step.at(3).toInt()).toMap().value("time").toLongLong() + step.at(4).toInt();
            if (is("trim"))
                QVERIFY(QMetaObject::invokeMethod(backend.data(), "trimHistory", Q_ARG(qint64, at)));
            QStringList actual, expected;
            for (const QVariant &e : qAsConst(entries))
                actual << QStringLiteral("%1 at %2").arg(e.toMap().value("value").toString(), e.toMap().value("time").toString());
            // An entry's time is within the step that reported it.
            for (const QVariant &e : step.at(3).toList()) {
                const int at = e.toList().at(1).toInt();
                const QString when = QString::number(actual.size() > expected.size()
                                                         ? qBound(began.at(at), actual.at(expected.size()).section(' ', 2).toLongLong(), ended.at(at))
                                                         : began.at(at));
                expected << QStringLiteral("%1 at %2").arg(e.toList().at(0).toString(), when);
            }
            if (is("history")) {
                QCOMPARE(actual, expected);
                QCOMPARE(historyChanged.size(), step.at(4).toInt());
                historyChanged.clear();
            }
        } else if (is("started") || is("stopped")) {
            QStringList described;
            for (const TestMessenger::Run &run : runs.mid(is("started") ? initRuns : 0))
                if (run.stopped || is("started"))
                    described << QStringLiteral("%1 %2 %3%4").arg(run.command, run.arguments.value("channel").toString(),
                                                                   run.arguments.value("value").toString(), run.repeatMs ? " every" : "").simplified();
            QCOMPARE(described, step.at(3).toStringList());
        } else if (is("logged")) {
            QVERIFY2(lines++ < log.messages().size(), qPrintable(command));
            QString tail;
            QDebug(&tail) << qUtf8Printable(command) << step.at(2).toString();
            tail.chop(1);
            BENCH_LOGGED(log.messages().at(lines - 1), backend.data(), "be_maintenance_plugin", -1, tail);
        } else {
            QVariant actual = backend->property(qPrintable(command));
            QVERIFY(actual.convert(step.at(3).userType()));
            QCOMPARE(actual, step.at(3));
        }
        ended << QDateTime::currentMSecsSinceEpoch();
    }
    QCOMPARE(log.messages().size(), lines);
}

// Without a channel table nothing starts and the panel says why.
void TstMaintenance::noChannelTable()
{
    bench::Device device;
    QQmlEngine engine;
    QQmlComponent component(&engine);
    component.setData("import PlgLibDeviceMoxaIoLogic 1.0\nBeMaintenanceDeviceMoxaIoLogic {}\n", QUrl());
    QScopedPointer<QObject> backend(component.create());
    QVERIFY2(backend, qPrintable(component.errorString()));
    backend->setProperty("device", QVariant::fromValue<QObject *>(device.plugin.get()));
    LogCapture log;
    bool ok = true;
    QVERIFY(QMetaObject::invokeMethod(backend.data(), "initBackend", Q_RETURN_ARG(bool, ok)));
    QVERIFY(!ok);
    QCOMPARE(backend->property("errorText").toString(), QStringLiteral("No channels: the device \"bench io1\" has no channel table (plug-in parameter \"channels\")"));
    QCOMPARE(backend->property("connectionState").toInt(), int(Error));
    QCOMPARE(device.messenger.runs().size(), 0);
}

QTEST_MAIN(TstMaintenance)
#include "tst_maintenance.moc"
