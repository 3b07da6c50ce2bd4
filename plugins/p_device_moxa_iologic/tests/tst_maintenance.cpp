// SPDX-License-Identifier: MIT
// The maintenance panel in a real QML view, on the real host, the Modbus TCP driver and
// the simulator on loopback.
#include "deviceconfig.h"
#include "e1212simulator.h"
#include "host.h"
#include "pluginmanager.h"

#include <QProcess>
#include <QQmlContext>
#include <QQmlEngine>
#include <QQuickItem>
#include <QQuickItemGrabResult>
#include <QQuickView>
#include <QtTest>

namespace {
const QUrl c_panelUrl(QStringLiteral("qrc:/{43ae4651-f855-42c1-81e2-c73130e79008}/maintenance_panel.qml"));
const QString c_reference = QStringLiteral("Moxa E1212 io1");
constexpr int c_pollMs = 100;
constexpr int c_timeoutMs = 400;
// Enough for a few polls and a time-out, never a hidden sleep: every wait ends on its condition.
constexpr int c_waitMs = 5000;

// Values of BeMaintenanceDeviceMoxaIoLogic::EnConnectionState and DMoxaChannel::EnChannelType.
enum { Connected = 2, NotAnswering = 3 };
enum { BinIn = 3, BinOut = 4 };

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
} // namespace

class TstMaintenance : public QObject
{
    Q_OBJECT
private slots:
    void initTestCase();
    void init();
    void cleanup();

    void qmllintPasses();
    void modelFillsFromTable_data();
    void modelFillsFromTable();
    void headerFillsFromGetInfo();
    void clickTogglesOutput();
    void clickOnInputDoesNothing();
    void inputShowsWithinPoll();
    void stoppedDeviceShowsNotAnsweringThenRecovers();
    void screenshot();

private:
    QQuickItem *tile(const QString &channelId) const;
    QString tileState(const QString &channelId) const;
    QString text(const QString &objectName) const;
    QVariant channelValue(const QString &channelId) const;
    void click(const QString &channelId);

    E1212Simulator m_simulator;
    quint16 m_port = 0;
    PluginManager m_plugins;
    QScopedPointer<Host> m_host;
    DAbstractPlugin *m_device = nullptr;
    QScopedPointer<QQuickView> m_view;
    QObject *m_backend = nullptr;
    QList<QQmlError> m_qmlWarnings;
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
    config.connection = {{QStringLiteral("host"), QStringLiteral("127.0.0.1")},
                         {QStringLiteral("port"), m_port},
                         {QStringLiteral("timeoutMs"), c_timeoutMs}};
    m_host.reset(new Host(&m_plugins));
    // The commands ask for 3000 ms; a dead device must show sooner in a test.
    m_host->setTimeoutOverride(c_timeoutMs);
    QVERIFY2(m_host->addDevice(config, &error), qPrintable(error));
    m_device = m_host->device(c_reference);
    QVERIFY(m_device);
}

void TstMaintenance::init()
{
    for (int channel = 0; channel < E1212Simulator::ChannelCount; ++channel) {
        m_simulator.setInput(channel, false);
        m_simulator.setPulseStatus(channel, false);
    }
    m_qmlWarnings.clear();
    m_view.reset(new QQuickView);
    connect(m_view->engine(), &QQmlEngine::warnings, this, [this](const QList<QQmlError> &w) { m_qmlWarnings << w; });
    m_view->rootContext()->setContextProperty(QStringLiteral("maintenanceDevice"), m_device);
    m_view->rootContext()->setContextProperty(QStringLiteral("maintenanceConnectionPath"),
                                              QStringLiteral("127.0.0.1:%1").arg(m_port));
    m_view->rootContext()->setContextProperty(QStringLiteral("maintenancePollIntervalMs"), c_pollMs);
    m_view->setResizeMode(QQuickView::SizeRootObjectToView);
    m_view->resize(800, 480);
    m_view->setSource(c_panelUrl);
    QVERIFY2(m_view->status() == QQuickView::Ready, qPrintable(m_view->errors().isEmpty() ? QString() : m_view->errors().constFirst().toString()));
    m_view->show();
    QVERIFY(QTest::qWaitForWindowExposed(m_view.data()));
    m_backend = m_view->rootObject()->findChild<QObject *>(QStringLiteral("backend"));
    QVERIFY(m_backend);
    QTRY_COMPARE_WITH_TIMEOUT(m_backend->property("connectionState").toInt(), int(Connected), c_waitMs);
    // Every channel has a value once the first polls are in.
    QTRY_VERIFY_WITH_TIMEOUT(channelValue(QStringLiteral("DO7")).isValid() && channelValue(QStringLiteral("DI7")).isValid(), c_waitMs);
}

void TstMaintenance::cleanup()
{
    m_view.reset();
    m_backend = nullptr;
    // Runs still in flight end on the event loop; let them go before the next view.
    QCoreApplication::processEvents();
    QString warnings;
    for (const QQmlError &w : qAsConst(m_qmlWarnings))
        warnings += w.toString() + QLatin1Char('\n');
    QVERIFY2(m_qmlWarnings.isEmpty(), qPrintable(warnings));
}

QQuickItem *TstMaintenance::tile(const QString &channelId) const
{
    // Each group makes a tile for every channel and shows only its own kind.
    const QString group = channelId.startsWith(QLatin1String("DI")) ? QStringLiteral("inputs") : QStringLiteral("outputs");
    return findItem(findItem(m_view->rootObject(), group), QStringLiteral("tile_") + channelId);
}

QString TstMaintenance::tileState(const QString &channelId) const
{
    QQuickItem *t = tile(channelId);
    QQuickItem *state = t ? findItem(t, QStringLiteral("state")) : nullptr;
    return state ? state->property("text").toString() : QStringLiteral("(no tile %1)").arg(channelId);
}

QString TstMaintenance::text(const QString &objectName) const
{
    QQuickItem *item = findItem(m_view->rootObject(), objectName);
    if (item && !item->property("text").isValid())
        item = findItem(item, QStringLiteral("value"));
    return item ? item->property("text").toString() : QStringLiteral("(no item %1)").arg(objectName);
}

QVariant TstMaintenance::channelValue(const QString &channelId) const
{
    QQuickItem *t = tile(channelId);
    return t ? t->property("modelData").value<QObject *>()->property("value") : QVariant();
}

void TstMaintenance::click(const QString &channelId)
{
    QQuickItem *t = tile(channelId);
    QVERIFY(t);
    QVERIFY(t->isVisible());
    const QPointF centre = t->mapToScene(QPointF(t->width() / 2, t->height() / 2));
    QTest::mouseClick(m_view.data(), Qt::LeftButton, Qt::NoModifier, centre.toPoint());
}

void TstMaintenance::qmllintPasses()
{
    const QString qmllint = QStringLiteral("/usr/lib/qt5/bin/qmllint");
    QVERIFY2(QFileInfo::exists(qmllint), "qmllint is missing: install qtdeclarative5-dev-tools (scripts/setup.sh)");
    QProcess lint;
    lint.start(qmllint, {QStringLiteral(E1212_SOURCE_DIR "/plugins/p_device_moxa_iologic/resources/maintenance_panel.qml")});
    QVERIFY(lint.waitForFinished(30000));
    QVERIFY2(lint.exitStatus() == QProcess::NormalExit && lint.exitCode() == 0,
             qPrintable(QString::fromLocal8Bit(lint.readAllStandardOutput() + lint.readAllStandardError())));
}

void TstMaintenance::modelFillsFromTable_data()
{
    QTest::addColumn<int>("row");
    QTest::addColumn<QString>("id");
    QTest::addColumn<QString>("label");
    QTest::addColumn<int>("type");
    QTest::addColumn<bool>("inInputs");

    QTest::newRow("first input") << 0 << "DI0" << "Digital input 0" << int(BinIn) << true;
    QTest::newRow("last output") << 15 << "DO7" << "Digital output 7" << int(BinOut) << false;
}

void TstMaintenance::modelFillsFromTable()
{
    QFETCH(int, row);
    QFETCH(QString, id);
    QFETCH(QString, label);
    QFETCH(int, type);
    QFETCH(bool, inInputs);

    auto *model = m_backend->property("channelsModel").value<QAbstractListModel *>();
    QVERIFY(model);
    // 16 channels; the three pulse register records are not channels.
    QCOMPARE(model->property("length").toInt(), 16);
    QObject *channel = model->data(model->index(row), Qt::UserRole).value<QObject *>();
    QVERIFY(channel);
    QCOMPARE(channel->property("id").toString(), id);
    QCOMPARE(channel->property("label").toString(), label);
    QCOMPARE(channel->property("type").toInt(), type);

    // The tile sits in its own group, and once only.
    QQuickItem *t = tile(id);
    QVERIFY(t);
    QVERIFY(t->isVisible());
    QQuickItem *other = findItem(m_view->rootObject(), inInputs ? QStringLiteral("outputs") : QStringLiteral("inputs"));
    QVERIFY(!findItem(other, QStringLiteral("tile_") + id)->isVisible());
}

void TstMaintenance::headerFillsFromGetInfo()
{
    // init() loaded the panel and saw it connect; cleanup() fails on any QML warning.
    QCOMPARE(text(QStringLiteral("connectionState")), QStringLiteral("Connected"));
    QVERIFY(!findItem(m_view->rootObject(), QStringLiteral("errorText"))->isVisible());
    QTRY_COMPARE_WITH_TIMEOUT(text(QStringLiteral("modelName")), E1212Simulator::modelName(), c_waitMs);
    QCOMPARE(text(QStringLiteral("firmware")), E1212Simulator::firmwareVersion());
    QCOMPARE(text(QStringLiteral("mac")), E1212Simulator::macAddress());
    QCOMPARE(text(QStringLiteral("connection")), QStringLiteral("127.0.0.1:%1").arg(m_port));
    QCOMPARE(m_backend->property("serialNumber").toString(), QString());
}

void TstMaintenance::clickTogglesOutput()
{
    const int channel = 5;
    const QString id = QStringLiteral("DO5");
    QCOMPARE(tileState(id), QStringLiteral("OFF"));
    QSignalSpy outputs(&m_simulator, &E1212Simulator::outputChanged);
    QSignalSpy pending(m_backend, SIGNAL(pendingChannelsChanged()));

    click(id);
    // Pending until the device's read-back arrives; the display does not follow the click.
    QCOMPARE(m_backend->property("pendingChannels").toStringList(), QStringList{id});
    QCOMPARE(channelValue(id), QVariant(false));
    QCOMPARE(tileState(id), QStringLiteral("…"));
    QTRY_VERIFY_WITH_TIMEOUT(m_simulator.output(channel), c_waitMs);
    QCOMPARE(outputs.count(), 1);
    QCOMPARE(outputs.constFirst(), (QVariantList{channel, true}));
    QTRY_COMPARE_WITH_TIMEOUT(tileState(id), QStringLiteral("ON"), c_waitMs);
    QCOMPARE(channelValue(id), QVariant(true));
    QVERIFY(m_backend->property("pendingChannels").toStringList().isEmpty());
    QCOMPARE(pending.count(), 2);

    // A second click turns it off again; no other output moved.
    click(id);
    QTRY_COMPARE_WITH_TIMEOUT(tileState(id), QStringLiteral("OFF"), c_waitMs);
    QVERIFY(!m_simulator.output(channel));
    QCOMPARE(outputs.count(), 2);
    QCOMPARE(outputs.at(1), (QVariantList{channel, false}));
}

void TstMaintenance::clickOnInputDoesNothing()
{
    QSignalSpy pending(m_backend, SIGNAL(pendingChannelsChanged()));
    const int requests = m_simulator.requestCount();
    click(QStringLiteral("DI2"));
    bool accepted = true;
    QVERIFY(QMetaObject::invokeMethod(m_backend, "clickedOnChannel", Q_RETURN_ARG(bool, accepted),
                                      Q_ARG(QString, QStringLiteral("DI2"))));
    QVERIFY(!accepted);
    QCOMPARE(pending.count(), 0);
    // Only polls reach the device: wait for two more reads and check no write came.
    QTRY_VERIFY_WITH_TIMEOUT(m_simulator.requestCount() >= requests + 4, c_waitMs);
    QVERIFY(!m_simulator.input(2));
    QCOMPARE(tileState(QStringLiteral("DI2")), QStringLiteral("OFF"));
    QCOMPARE(pending.count(), 0);
}

void TstMaintenance::inputShowsWithinPoll()
{
    const int channel = 3;
    const QString id = QStringLiteral("DI3");
    QCOMPARE(tileState(id), QStringLiteral("OFF"));
    m_simulator.setInput(channel, true);
    QTRY_COMPARE_WITH_TIMEOUT(tileState(id), QStringLiteral("ON"), c_waitMs);
    for (int other = 0; other < E1212Simulator::ChannelCount; ++other) {
        if (other != channel)
            QCOMPARE(tileState(QStringLiteral("DI%1").arg(other)), QStringLiteral("OFF"));
    }
    m_simulator.setInput(channel, false);
    QTRY_COMPARE_WITH_TIMEOUT(tileState(id), QStringLiteral("OFF"), c_waitMs);
}

void TstMaintenance::stoppedDeviceShowsNotAnsweringThenRecovers()
{
    m_simulator.stop();
    QTRY_COMPARE_WITH_TIMEOUT(m_backend->property("connectionState").toInt(), int(NotAnswering), c_waitMs);
    QCOMPARE(text(QStringLiteral("connectionState")), QStringLiteral("Not answering"));
    QQuickItem *error = findItem(m_view->rootObject(), QStringLiteral("errorText"));
    QVERIFY(error->isVisible());
    QVERIFY2(error->property("text").toString().contains(QStringLiteral("getValues")), qPrintable(error->property("text").toString()));

    QString startError;
    QVERIFY2(m_simulator.start(QHostAddress::LocalHost, m_port, &startError), qPrintable(startError));
    m_simulator.setInput(4, true);
    QTRY_COMPARE_WITH_TIMEOUT(m_backend->property("connectionState").toInt(), int(Connected), c_waitMs);
    QTRY_COMPARE_WITH_TIMEOUT(tileState(QStringLiteral("DI4")), QStringLiteral("ON"), c_waitMs);
    QCOMPARE(text(QStringLiteral("connectionState")), QStringLiteral("Connected"));
    QVERIFY(!error->isVisible());
}

void TstMaintenance::screenshot()
{
    // Outputs DO1 and DO4 on, inputs DI0 and DI5 on: the picture in the README.
    click(QStringLiteral("DO1"));
    click(QStringLiteral("DO4"));
    m_simulator.setInput(0, true);
    m_simulator.setInput(5, true);
    for (const QString &id : {QStringLiteral("DO1"), QStringLiteral("DO4"), QStringLiteral("DI0"), QStringLiteral("DI5")})
        QTRY_COMPARE_WITH_TIMEOUT(tileState(id), QStringLiteral("ON"), c_waitMs);
    QTRY_COMPARE_WITH_TIMEOUT(text(QStringLiteral("modelName")), E1212Simulator::modelName(), c_waitMs);

    QTest::mouseMove(m_view.data(), QPoint(1, 1)); // no hover frame in the picture
    // grabWindow() gives nothing with the software scene graph on the offscreen platform.
    const QSharedPointer<QQuickItemGrabResult> grab = m_view->rootObject()->grabToImage();
    QVERIFY(grab);
    QSignalSpy ready(grab.data(), &QQuickItemGrabResult::ready);
    QVERIFY(ready.wait(c_waitMs));
    const QImage image = grab->image();
    QCOMPARE(image.size(), QSize(800, 480));
    // An "on" output tile is drawn in its own colour, not the background's.
    QQuickItem *on = tile(QStringLiteral("DO1"));
    const QPointF onTile = on->mapToScene(QPointF(on->width() / 2, 6));
    QVERIFY(image.pixelColor(onTile.toPoint()) != image.pixelColor(2, 2));
    const QString target = qEnvironmentVariable("E1212_PANEL_SCREENSHOT");
    if (!target.isEmpty())
        QVERIFY2(image.save(target), qPrintable(target));
}

QTEST_MAIN(TstMaintenance)
#include "tst_maintenance.moc"
