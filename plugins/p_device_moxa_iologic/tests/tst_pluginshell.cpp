// SPDX-License-Identifier: MIT
// The device plug-in as a host loads it: metadata, root instance, identity, virtual tables,
// channel table selection and the declared commands (QML types and panel: tst_maintenance).
#include "devicebench.h"
#include "hostutils.h"

#include <QCborMap>
#include <QCborStreamReader>
#include <QCborValue>
#include <QFile>
#include <QSignalSpy>

namespace {
const QUuid c_pluginUuid(QStringLiteral("{43ae4651-f855-42c1-81e2-c73130e79008}"));

// A plug-in of the same framework that overrides only what it must, so that every entry it
// inherits in its virtual tables is DAbstractPlugin's (or QObject's).
class Probe : public DAbstractPlugin
{
public:
    Probe() : DAbstractPlugin(QUuid(), QString(), IPlugin::CeDevice, 0, QUuid(), nullptr, false) {}
    IPlugin *createInstance(const QUuid &) const override { return nullptr; }
};

using Table = const void *const *;
Table table(const void *object) { return *static_cast<const Table *>(object); }

// Indices where the tables of `a` and `b` differ among the first `size` entries.
QList<int> differences(const void *a, const void *b, int size)
{
    QList<int> indices;
    for (int i = 0; i < size; ++i)
        if (table(a)[i] != table(b)[i])
            indices << i;
    return indices;
}

// One declared argument as "kind name type description = default".
QString describe(const DCommandArgument &argument)
{
    return QStringLiteral("%1 %2 %3 %4 = %5").arg(argument.kind).arg(argument.name, argument.typeCode, argument.description,
                                                                    bench::describe(argument.defaultValue));
}
} // namespace

class TstPluginShell : public QObject
{
    Q_OBJECT
private slots:
    void metadata();
    void rootInstanceAndIdentity();
    void virtualTables();
    void channelTable_data();
    void channelTable();
    void declarations();
};

void TstPluginShell::metadata()
{
    QFile library(QString::fromLatin1(bench::c_pluginPath));
    QVERIFY(library.open(QIODevice::ReadOnly));
    const QByteArray bytes = library.readAll();
    const int at = bytes.indexOf("QTMETADATA !");
    QVERIFY(at >= 0);
    // Format 0, Qt 5.15, no architecture or debug requirements, then an indefinite-length map.
    QCOMPARE(bytes.mid(at + 12, 5), QByteArray("\x00\x05\x0F\x00\xBF", 5));
    QCborStreamReader reader(bytes.mid(at + 16));
    QCOMPARE(QCborValue::fromCbor(reader).toMap(),
             (QCborMap{{2, "org.e1212bench.host.plugin.PDeviceMoxaIoLogic"}, {3, "PDeviceMoxaIoLogic"}}));
}

void TstPluginShell::rootInstanceAndIdentity()
{
    DAbstractPlugin *root = bench::rootPlugin();
    QVERIFY(root && root->objectUuid().isNull());
    QCOMPARE(root->metaObject()->className(), "PDeviceMoxaIoLogic");
    QCOMPARE(root->metaObject()->superClass(), &DAbstractPlugin::staticMetaObject);
    QCOMPARE(root->metaObject()->methodCount() + root->metaObject()->propertyCount(),
             DAbstractPlugin::staticMetaObject.methodCount() + DAbstractPlugin::staticMetaObject.propertyCount());

    const QUuid uuid = QUuid::createUuid();
    const QScopedPointer<IPlugin> instance(root->createInstance(uuid));
    auto *plugin = dynamic_cast<DAbstractPlugin *>(instance.data());
    QVERIFY(!plugin->parent() && !plugin->isHidden());
    QCOMPARE(instance->objectUuid(), uuid);
    QCOMPARE(instance->pluginUuid(), c_pluginUuid);
    QCOMPARE(instance->pluginName(), QStringLiteral("Device Moxa IoLogic E1212"));
    QCOMPARE(instance->pluginVersion(), versionFromString(QStringLiteral("1.0"), nullptr, QLatin1Char('.')));
    QCOMPARE(quint32(instance->pluginType()), 0x44657669u);
    QCOMPARE(instance->pluginSubTypeName(), "");
    BENCH_COMPARE(instance->getProperty(QStringLiteral("typeName"), QVariant()), QStringLiteral(""));
    QVERIFY(plugin->commandNames().isEmpty() && !plugin->getFromParameters(QStringLiteral("channels")).isValid());
}

void TstPluginShell::virtualTables()
{
    const Probe probe;
    const QScopedPointer<IPlugin> instance(bench::rootPlugin()->createInstance(QUuid()));
    auto *plugin = dynamic_cast<DAbstractPlugin *>(instance.data());
    // Primary table: QObject's 12 entries (own moc trio and destructors), DAbstractPlugin's 20
    // inherited, the three overrides, then the IPlugin table's offset (same) and type (own).
    QCOMPARE(differences(plugin, &probe, 37), (QList<int>{0, 1, 2, 3, 4, 32, 33, 34, 36}));
    QCOMPARE(table(plugin)[35], reinterpret_cast<const void *>(-16));
    // IPlugin's table: destructors, createInstance and pluginSubTypeName are the plug-in's.
    QCOMPARE(differences(instance.data(), static_cast<const IPlugin *>(&probe), 23), (QList<int>{0, 1, 16, 17}));

    // The three overrides, called through the slots that hold them.
    QCOMPARE(reinterpret_cast<const char *(*)(const void *)>(table(plugin)[34])(plugin), plugin->pluginSubTypeName());
    QCOMPARE(reinterpret_cast<const char *(*)(const void *)>(table(instance.data())[17])(instance.data()), plugin->pluginSubTypeName());
    const QUuid uuid = QUuid::createUuid();
    const QScopedPointer<IPlugin> made(reinterpret_cast<IPlugin *(*)(const void *, const QUuid &)>(table(plugin)[33])(plugin, uuid));
    QCOMPARE(made->objectUuid(), uuid);
    reinterpret_cast<void (*)(void *)>(table(plugin)[32])(dynamic_cast<DAbstractPlugin *>(made.data()));
    QVERIFY(dynamic_cast<DAbstractPlugin *>(made.data())->command(QStringLiteral("getInfo")));
}

void TstPluginShell::channelTable_data()
{
    QTest::addColumn<QVariant>("reference");   // invalid: not set
    QTest::addColumn<QVariant>("parameters");  // invalid: not set
    QTest::addColumn<QVariant>("channels");    // invalid: nothing published

    const QVariantList io1{bench::record("DI0", {})}, dev{bench::record("DI1", {})}, bare{bench::record("DI2", {})};
    const QVariant all = QVariantMap{{"io1_channels", io1}, {"dev_channels", dev}, {"_channels", bare}, {"io2_channels", QVariantList()},
                                     {"io3_channels", 7}};
    QTest::newRow("last word") << QVariant("dev io1") << all << QVariant(io1);
    QTest::newRow("one word") << QVariant("dev") << all << QVariant(dev);
    QTest::newRow("trailing space") << QVariant("dev io1 ") << all << QVariant(bare);
    QTest::newRow("empty list") << QVariant("a io2") << all << QVariant(QVariantList());
    QTest::newRow("not a list") << QVariant("a io3") << all << QVariant(7);
    QTest::newRow("missing table") << QVariant("dev io9") << all << QVariant();
    QTest::newRow("no parameters") << QVariant("dev io1") << QVariant() << QVariant();
    QTest::newRow("no reference") << QVariant() << all << QVariant();
}

void TstPluginShell::channelTable()
{
    QFETCH(QVariant, reference);
    QFETCH(QVariant, parameters);
    QFETCH(QVariant, channels);

    const QUuid uuid = QUuid::createUuid();
    std::unique_ptr<DAbstractPlugin> plugin(static_cast<DAbstractPlugin *>(bench::rootPlugin()->createInstance(uuid)));
    if (reference.isValid())
        plugin->setProperty(QStringLiteral("reference"), reference, false);
    if (parameters.isValid())
        plugin->addToParameters(QStringLiteral("parameters"), parameters);
    QSignalSpy done(plugin.get(), &DAbstractPlugin::sigCommandsInitDone);
    LogCapture log;
    plugin->initPluginCommands();

    BENCH_COMPARE(plugin->getFromParameters(QStringLiteral("channels")), channels);
    const bool logged = reference.isValid() && !channels.isValid();
    QCOMPARE(log.messages().size(), int(logged));
    if (logged) {
        const QString why = bench::diagnosticMismatch(log.messages().at(0), plugin.get(), "p_device_moxa_iologic", 77,
                                                      QStringLiteral("PDeviceMoxaIoLogic: no channel table for reference \"%1\"")
                                                          .arg(reference.toString()));
        QVERIFY2(why.isEmpty(), qPrintable(why));
    }
    // The commands come whatever became of the table, after the framework's own.
    QCOMPARE(done.count(), 1);
    QCOMPARE(done.at(0).at(0).value<QUuid>(), uuid);
    QCOMPARE(done.at(0).at(1).toStringList(), (QStringList{"getPluginIdentity", "getInfo", "getValue", "getValues", "setValue",
                                                            "setValues", "setBlink", "listenEvents"}));
    QCOMPARE(plugin->command(QStringLiteral("stopListening")), plugin->command(QStringLiteral("listenEvents")));
    for (const QString &name : plugin->commandNames())
        QCOMPARE(plugin->command(name)->parent(), plugin.get());
}

void TstPluginShell::declarations()
{
    const bench::Device device;
    QStringList declared;
    for (const QString &name : device.plugin->commandNames().mid(1)) {
        declared << name + ": " + device.plugin->getFunctionDescription(name);
        for (const DCommandArgument &argument : device.plugin->getCommandParameters(name))
            declared << describe(argument);
    }
    const QString gpio = QStringLiteral(" = QVariant(QString, \"\") ");
    const QString pulse[] = {"0 channel strg Channel name" + gpio, "0 pulseOnWidth int On pulse width (ms)" + gpio,
                             "0 pulseOffWidth int Off pulse width (ms)" + gpio, "0 values varL Values to set on the channel" + gpio};
    const QString interger = QStringLiteral("Return 0 or 1 for digital IO and a 16 bits unsigned interger for analog IO = QVariant(Invalid) ");
    QCOMPARE(declared, (QStringList{
        "getInfo: Get the connected device information", "1 deviceInformation vart Return device information = QVariant(Invalid) ",
        "getValue: Return the mesured value on the GPIO pin", "0 channel strg Channel name = QVariant(Invalid) ", "1 value ui16 " + interger,
        "getValues: Return the mesured value on GPIO pins", "0 channel strg Channel of the first gpio = QVariant(Invalid) ",
        "1 values vart Return a list of GPIO values = QVariant(Invalid) ",
        "setValue: Set the value of a GPIO pin", "0 channel strg Channel name" + gpio, "0 value ui16 Value to set on the GPIO" + gpio,
        "0 bitMask ui16 Value to set on the GPIO = QVariant(int, 65535) ", "1 doneOk bool Job done = QVariant(bool, false) ",
        "setValues: Return the mesured value on the GPIO pin", pulse[0], pulse[1], pulse[2], pulse[3],
        "setBlink: Return the mesured value on the GPIO pin", pulse[0], pulse[1], pulse[2], pulse[3],
        "listenEvents: Return the mesured value on the GPIO pin", "0 channel strg Channel name = QVariant(Invalid) ", "1 values vart " + interger}));
}

QTEST_MAIN(TstPluginShell)
#include "tst_pluginshell.moc"
