// SPDX-License-Identifier: MIT
// The maintenance back-end's answers to what the simulator cannot produce: refusals,
// rejected replies, malformed results, a device the host cannot reach at all.
#include "dabstractplugin.h"
#include "dabstractpluginbackend.h"
#include "testmessenger.h"

#include <QJsonDocument>
#include <QPluginLoader>
#include <QQmlComponent>
#include <QQmlEngine>
#include <QtTest>

namespace {
const QString c_pluginPath = QStringLiteral(E1212_PLUGIN_DIR "/libp_device_moxa_iologic.so");
// Values of BeMaintenanceDeviceMoxaIoLogic::EnConnectionState.
enum { Idle = 0, Connecting = 1, Connected = 2, NotAnswering = 3, Error = 4 };
} // namespace

class TstMaintenanceBackend : public QObject
{
    Q_OBJECT
private slots:
    void initTestCase();
    void init();
    void cleanup();

    void noDevice();
    void noChannelTable();
    void oneReadPerBlockNeverQueued();
    void failureShows_data();
    void failureShows();
    void refusedWriteEndsPending();
    void malformedReadIsIgnored();
    void headerNotifiesRealChangesOnly();

private:
    DAbstractPlugin *newDevice(const QString &reference);
    bool init(DAbstractPlugin *device);
    DAbstractPluginBackend *hooks() const { return qobject_cast<DAbstractPluginBackend *>(m_backend.data()); }
    unsigned long long runId(const QString &command, const QString &channel = QString()) const;
    QObject *channel(int row) const;

    QPluginLoader m_loader{c_pluginPath};
    QVariantMap m_parameters;
    TestMessenger m_messenger;
    QQmlEngine m_engine;
    QScopedPointer<DAbstractPlugin> m_device;
    QScopedPointer<QObject> m_backend;
};

void TstMaintenanceBackend::initTestCase()
{
    QVERIFY2(m_loader.load(), qPrintable(m_loader.errorString()));
    QVERIFY(m_loader.instance()); // registers the QML types
    QFile file(QStringLiteral(E1212_SOURCE_DIR "/config/e1212.json"));
    QVERIFY2(file.open(QIODevice::ReadOnly), qPrintable(file.errorString()));
    m_parameters = QJsonDocument::fromJson(file.readAll()).toVariant().toMap().value(QStringLiteral("parameters")).toMap();
    QVERIFY(!m_parameters.isEmpty());
}

void TstMaintenanceBackend::init()
{
    m_messenger.clear();
    QQmlComponent component(&m_engine);
    component.setData("import PlgLibDeviceMoxaIoLogic 1.0\nBeMaintenanceDeviceMoxaIoLogic {}\n", QUrl());
    m_backend.reset(component.create());
    QVERIFY2(m_backend, qPrintable(component.errorString()));
}

void TstMaintenanceBackend::cleanup()
{
    m_backend.reset();
    m_device.reset();
}

DAbstractPlugin *TstMaintenanceBackend::newDevice(const QString &reference)
{
    auto *root = qobject_cast<IPlugin *>(m_loader.instance());
    m_device.reset(dynamic_cast<DAbstractPlugin *>(root->createInstance(QUuid::createUuid())));
    m_device->setProperty(QStringLiteral("reference"), reference, false);
    m_device->addToParameters(QStringLiteral("parameters"), m_parameters);
    m_device->setMessenger(&m_messenger);
    m_device->initPluginCommands();
    return m_device.data();
}

bool TstMaintenanceBackend::init(DAbstractPlugin *device)
{
    m_backend->setProperty("device", QVariant::fromValue<QObject *>(device));
    bool ok = false;
    QMetaObject::invokeMethod(m_backend.data(), "initBackend", Q_RETURN_ARG(bool, ok));
    return ok;
}

unsigned long long TstMaintenanceBackend::runId(const QString &command, const QString &channel) const
{
    for (const TestMessenger::Run &run : m_messenger.runs()) {
        if (run.command == command && (channel.isEmpty() || run.arguments.value(QStringLiteral("channel")) == channel))
            return run.id;
    }
    return 0;
}

QObject *TstMaintenanceBackend::channel(int row) const
{
    auto *model = m_backend->property("channelsModel").value<QAbstractListModel *>();
    return model->data(model->index(row), Qt::UserRole).value<QObject *>();
}

void TstMaintenanceBackend::noDevice()
{
    QTest::ignoreMessage(QtWarningMsg, QRegularExpression(QStringLiteral("^No device")));
    QVERIFY(!init(nullptr));
    QCOMPARE(m_backend->property("connectionState").toInt(), int(Error));
    QVERIFY(m_backend->property("errorText").toString().startsWith(QLatin1String("No device")));
    QVERIFY(m_messenger.runs().isEmpty());
}

void TstMaintenanceBackend::noChannelTable()
{
    QTest::ignoreMessage(QtCriticalMsg, QRegularExpression(QStringLiteral("no channel table")));
    QTest::ignoreMessage(QtWarningMsg, QRegularExpression(QStringLiteral("No channels")));
    QVERIFY(!init(newDevice(QStringLiteral("Moxa E1212 io9"))));
    QCOMPARE(m_backend->property("connectionState").toInt(), int(Error));
    const QString error = m_backend->property("errorText").toString();
    QCOMPARE(error, QStringLiteral("No channels: the device \"Moxa E1212 io9\" has no channel table (plug-in parameter \"channels\")"));
    QVERIFY(m_messenger.runs().isEmpty());
}

void TstMaintenanceBackend::oneReadPerBlockNeverQueued()
{
    QVERIFY(init(newDevice(QStringLiteral("Moxa E1212 io1"))));
    QCOMPARE(m_backend->property("connectionState").toInt(), int(Connecting));
    QCOMPARE(m_backend->property("connectionPath").toString(), QStringLiteral("Moxa E1212 io1"));
    QStringList runs;
    for (const TestMessenger::Run &run : m_messenger.runs())
        runs << run.command + QLatin1Char(' ') + run.arguments.value(QStringLiteral("channel")).toString();
    QCOMPARE(runs, (QStringList{QStringLiteral("getInfo "), QStringLiteral("getValues DI0"), QStringLiteral("getValues DO0")}));

    // While both reads are out, a poll asks nothing more of a slow device.
    QMetaObject::invokeMethod(m_backend.data(), "updateChannelsValue");
    QMetaObject::invokeMethod(m_backend.data(), "getDeviceInfo");
    QCOMPARE(m_messenger.runs().size(), 3);

    // The DI block's read ends: the next poll reads that block only.
    hooks()->commandResultChanged(runId(QStringLiteral("getValues"), QStringLiteral("DI0")), QStringLiteral("getValues"),
                                  QStringLiteral("values"), QVariantList{1, 0, 0, 0, 0, 0, 0, 1});
    hooks()->commandFinished(runId(QStringLiteral("getValues"), QStringLiteral("DI0")), QStringLiteral("getValues"), {});
    QCOMPARE(channel(0)->property("value"), QVariant(true));
    QCOMPARE(channel(1)->property("value"), QVariant(false));
    QCOMPARE(channel(7)->property("value"), QVariant(true));
    QVERIFY(!channel(8)->property("value").isValid());
    QMetaObject::invokeMethod(m_backend.data(), "updateChannelsValue");
    QCOMPARE(m_messenger.runs().size(), 4);
    QCOMPARE(m_messenger.runs().constLast().arguments.value(QStringLiteral("channel")).toString(), QStringLiteral("DI0"));
}

void TstMaintenanceBackend::failureShows_data()
{
    QTest::addColumn<int>("code");
    QTest::addColumn<QString>("error");
    QTest::addColumn<int>("state");

    QTest::newRow("time-out") << int(IMessenger::CeTimeout) << "no reply within 3000 ms" << int(NotAnswering);
    QTest::newRow("no connection") << int(IMessenger::CeNoConnection) << "cannot connect to 10.0.0.9:502" << int(NotAnswering);
    QTest::newRow("device exception") << int(IMessenger::CeModbusException) << "Modbus exception 2 (illegal data address)" << int(Error);
    QTest::newRow("rejected reply") << int(IMessenger::CeReplyRejected) << "the command rejected the reply" << int(Error);
}

void TstMaintenanceBackend::failureShows()
{
    QFETCH(int, code);
    QFETCH(QString, error);
    QFETCH(int, state);

    QVERIFY(init(newDevice(QStringLiteral("Moxa E1212 io1"))));
    QSignalSpy stateChanged(m_backend.data(), SIGNAL(connectionStateChanged()));
    const unsigned long long outputs = runId(QStringLiteral("getValues"), QStringLiteral("DO0"));
    QTest::ignoreMessage(QtWarningMsg, qPrintable(QStringLiteral("\"getValues\" on DO0: ") + error));
    hooks()->commandFailed(outputs, QStringLiteral("getValues"), DError{IMessenger::EnErrorCode(code), 0, error});
    QCOMPARE(m_backend->property("connectionState").toInt(), state);
    QCOMPARE(m_backend->property("errorText").toString(), QStringLiteral("\"getValues\" on DO0: ") + error);
    QCOMPARE(stateChanged.count(), 1);

    // The next poll reads that block again; its answer clears the error.
    QMetaObject::invokeMethod(m_backend.data(), "updateChannelsValue");
    const unsigned long long again = m_messenger.runs().constLast().id;
    QVERIFY(again != outputs);
    hooks()->commandResultChanged(again, QStringLiteral("getValues"), QStringLiteral("values"), QVariantList{0, 1, 0, 0, 0, 0, 0, 0});
    QCOMPARE(m_backend->property("connectionState").toInt(), int(Connected));
    QCOMPARE(m_backend->property("errorText").toString(), QString());
    QCOMPARE(channel(9)->property("value"), QVariant(true));
    QCOMPARE(stateChanged.count(), 2);
}

void TstMaintenanceBackend::refusedWriteEndsPending()
{
    QVERIFY(init(newDevice(QStringLiteral("Moxa E1212 io1"))));
    const unsigned long long outputs = runId(QStringLiteral("getValues"), QStringLiteral("DO0"));
    hooks()->commandResultChanged(outputs, QStringLiteral("getValues"), QStringLiteral("values"), QVariantList{0, 0, 0, 0, 0, 0, 0, 0});
    hooks()->commandFinished(outputs, QStringLiteral("getValues"), {});

    bool accepted = false;
    QMetaObject::invokeMethod(m_backend.data(), "clickedOnChannel", Q_RETURN_ARG(bool, accepted), Q_ARG(QString, QStringLiteral("DO3")));
    QVERIFY(accepted);
    const TestMessenger::Run write = m_messenger.runs().constLast();
    QCOMPARE(write.command, QStringLiteral("setValue"));
    QCOMPARE(write.arguments, (QVariantMap{{QStringLiteral("channel"), QStringLiteral("DO3")}, {QStringLiteral("value"), 1}}));
    QCOMPARE(m_backend->property("pendingChannels").toStringList(), QStringList{QStringLiteral("DO3")});
    // A second click while the first is pending sends nothing.
    QMetaObject::invokeMethod(m_backend.data(), "clickedOnChannel", Q_RETURN_ARG(bool, accepted), Q_ARG(QString, QStringLiteral("DO3")));
    QVERIFY(!accepted);
    QCOMPARE(m_messenger.runs().constLast().id, write.id);

    QTest::ignoreMessage(QtWarningMsg, "\"setValue\" on DO3: the device did not accept the new value");
    hooks()->commandResultChanged(write.id, QStringLiteral("setValue"), QStringLiteral("doneOk"), false);
    hooks()->commandFinished(write.id, QStringLiteral("setValue"), {{QStringLiteral("doneOk"), false}});
    QVERIFY(m_backend->property("pendingChannels").toStringList().isEmpty());
    QCOMPARE(m_backend->property("connectionState").toInt(), int(Error));
    QCOMPARE(channel(11)->property("value"), QVariant(false));
}

void TstMaintenanceBackend::malformedReadIsIgnored()
{
    QVERIFY(init(newDevice(QStringLiteral("Moxa E1212 io1"))));
    const unsigned long long inputs = runId(QStringLiteral("getValues"), QStringLiteral("DI0"));
    QTest::ignoreMessage(QtWarningMsg, QRegularExpression(QStringLiteral("ignored a malformed read of \"DI0\"")));
    hooks()->commandResultChanged(inputs, QStringLiteral("getValues"), QStringLiteral("values"), QStringLiteral("garbage"));
    QVERIFY(!channel(0)->property("value").isValid());
    QCOMPARE(m_backend->property("connectionState").toInt(), int(Connecting));
}

void TstMaintenanceBackend::headerNotifiesRealChangesOnly()
{
    QVERIFY(init(newDevice(QStringLiteral("Moxa E1212 io1"))));
    QSignalSpy model(m_backend.data(), SIGNAL(modelNameChanged()));
    QSignalSpy version(m_backend.data(), SIGNAL(versionChanged()));
    QSignalSpy serial(m_backend.data(), SIGNAL(serialNumberChanged()));
    const QVariantMap info{{QStringLiteral("modelName"), QStringLiteral("E1212")},
                           {QStringLiteral("softwareVersion"), QStringLiteral("V3.1.4 Build18030509")},
                           {QStringLiteral("serialNumber"), QString()},
                           {QStringLiteral("macAddress"), QStringLiteral("00:90:E8:0A:1B:FF")}};
    const unsigned long long id = runId(QStringLiteral("getInfo"));
    hooks()->commandResultChanged(id, QStringLiteral("getInfo"), QStringLiteral("deviceInformation"), info);
    hooks()->commandResultChanged(id, QStringLiteral("getInfo"), QStringLiteral("deviceInformation"), info);
    QCOMPARE(model.count(), 1);
    QCOMPARE(version.count(), 1);
    QCOMPARE(serial.count(), 0); // empty before, empty now
    QCOMPARE(m_backend->property("macAddress").toString(), QStringLiteral("00:90:E8:0A:1B:FF"));
    QCOMPARE(m_backend->property("connectionState").toInt(), int(Connected));
}

QTEST_MAIN(TstMaintenanceBackend)
#include "tst_maintenance_backend.moc"
