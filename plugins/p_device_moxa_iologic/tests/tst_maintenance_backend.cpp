// SPDX-License-Identifier: MIT
// The maintenance back-end on a recording messenger: what it makes of answers the simulator
// cannot produce on demand (error codes, a refused write, a late read, a listen that ended).
#include "dabstractplugin.h"
#include "dabstractpluginbackend.h"
#include "logcapture.h"
#include "testmessenger.h"

#include <QJsonDocument>
#include <QPluginLoader>
#include <QQmlComponent>
#include <QQmlEngine>
#include <QtTest>

namespace {
const QString c_pluginPath = QStringLiteral(E1212_PLUGIN_DIR "/libp_device_moxa_iologic.so");
// Values of BeMaintenanceDeviceMoxaIoLogic::EnConnectionState.
enum { Connected = 2, NotAnswering = 3, Error = 4 };
const QString c_status = QStringLiteral("DO_PulseStatus");
const QString c_onWidth = QStringLiteral("DO_PulseOnWidth");
} // namespace

class TstMaintenanceBackend : public QObject
{
    Q_OBJECT
private slots:
    void initTestCase();
    void init();
    void cleanup() { m_backend.reset(); m_device.reset(); }

    void listenRestartsAfterOutage();
    void failureShows_data();
    void failureShows();
    void clickPendingUntilSeen_data();
    void clickPendingUntilSeen();

private:
    DAbstractPluginBackend *hooks() const { return qobject_cast<DAbstractPluginBackend *>(m_backend.data()); }
    unsigned long long runId(const QString &command, const QString &channel) const;
    void result(const QString &command, const QString &channel, const QString &name, const QVariant &value,
                bool finish = true);
    QStringList property(const char *name) const { return m_backend->property(name).toStringList(); }

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
}

void TstMaintenanceBackend::init()
{
    m_messenger.clear();
    auto *root = qobject_cast<IPlugin *>(m_loader.instance());
    m_device.reset(dynamic_cast<DAbstractPlugin *>(root->createInstance(QUuid::createUuid())));
    m_device->setProperty(QStringLiteral("reference"), QStringLiteral("Moxa E1212 io1"), false);
    m_device->addToParameters(QStringLiteral("parameters"), m_parameters);
    m_device->setMessenger(&m_messenger);
    m_device->initPluginCommands();
    QQmlComponent component(&m_engine);
    component.setData("import PlgLibDeviceMoxaIoLogic 1.0\nBeMaintenanceDeviceMoxaIoLogic { connectionPath: \"10.0.0.9:502\" }\n", QUrl());
    m_backend.reset(component.create());
    QVERIFY2(m_backend, qPrintable(component.errorString()));
    m_backend->setProperty("device", QVariant::fromValue<QObject *>(m_device.data()));
    bool ok = false;
    QMetaObject::invokeMethod(m_backend.data(), "initBackend", Q_RETURN_ARG(bool, ok));
    QVERIFY(ok);
}

unsigned long long TstMaintenanceBackend::runId(const QString &command, const QString &channel) const
{
    unsigned long long id = 0; // the latest run of it
    for (const TestMessenger::Run &run : m_messenger.runs()) {
        if (run.command == command && run.arguments.value(QStringLiteral("channel")).toString() == channel && !run.stopped)
            id = run.id;
    }
    return id;
}

void TstMaintenanceBackend::result(const QString &command, const QString &channel, const QString &name,
                                   const QVariant &value, bool finish)
{
    const unsigned long long id = runId(command, channel);
    hooks()->commandResultChanged(id, command, name, value);
    if (finish)
        hooks()->commandFinished(id, command, {{name, value}});
}

void TstMaintenanceBackend::listenRestartsAfterOutage()
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

void TstMaintenanceBackend::failureShows_data()
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
    QTest::newRow("garbled") << c_onWidth << int(IMessenger::CeMalformedReply) << 0
                             << "Garbled answer from the module at holding register 256" << int(Error);
}

void TstMaintenanceBackend::failureShows()
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

void TstMaintenanceBackend::clickPendingUntilSeen_data()
{
    QTest::addColumn<QString>("seenBy");

    QTest::newRow("second status read after the write") << "reads";
    QTest::newRow("write refused") << "refused";
}

void TstMaintenanceBackend::clickPendingUntilSeen()
{
    QFETCH(QString, seenBy);

    const QString id = QStringLiteral("DO3");
    bool accepted = true;
    QMetaObject::invokeMethod(m_backend.data(), "clickedOnChannel", Q_RETURN_ARG(bool, accepted), Q_ARG(QString, id));
    QVERIFY(!accepted); // no value known yet
    result(QStringLiteral("listenEvents"), id, QStringLiteral("values"), QVariantMap{{QStringLiteral("values"), QVariantList{0}}}, false);
    QMetaObject::invokeMethod(m_backend.data(), "clickedOnChannel", Q_RETURN_ARG(bool, accepted), Q_ARG(QString, id));
    QVERIFY(accepted);
    QCOMPARE(m_messenger.runs().constLast().arguments, (QVariantMap{{QStringLiteral("channel"), id}, {QStringLiteral("value"), 1}}));
    QCOMPARE(property("pendingChannels"), QStringList{id});
    QMetaObject::invokeMethod(m_backend.data(), "clickedOnChannel", Q_RETURN_ARG(bool, accepted), Q_ARG(QString, id));
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

QTEST_MAIN(TstMaintenanceBackend)
#include "tst_maintenance_backend.moc"
