// SPDX-License-Identifier: MIT
// initPluginCommands of the loaded plug-in: which channel table it publishes for a
// reference, and the commands it declares, read back as a host reads them.
#include "commandtestbench.h"

#include <QSignalSpy>

namespace {

const QStringList c_commandOrder{
    QStringLiteral("getPluginIdentity"), QStringLiteral("getInfo"), QStringLiteral("getValue"), QStringLiteral("getValues"),
    QStringLiteral("setValue"), QStringLiteral("setValues"), QStringLiteral("setBlink"), QStringLiteral("listenEvents"),
};

// One declared argument as "kind name type description = default(type)".
QString describe(const DCommandArgument &argument)
{
    return QStringLiteral("%1 %2 %3 \"%4\" = %5")
        .arg(argument.kind == DCommandArgument::CeParameter ? QStringLiteral("param") : QStringLiteral("result"),
             argument.name, argument.typeCode, argument.description, bench::describe(argument.defaultValue));
}

} // namespace

class TstPluginCommands : public QObject
{
    Q_OBJECT
private slots:
    void reference_data();
    void reference();
    void commandOrder();
    void declarations_data();
    void declarations();
};

void TstPluginCommands::reference_data()
{
    QTest::addColumn<QVariant>("reference");   // invalid: not set
    QTest::addColumn<QVariant>("parameters");  // invalid: not set
    QTest::addColumn<QVariant>("channels");    // invalid: nothing published
    QTest::addColumn<bool>("logged");

    const QVariantList io1{bench::record("DI0", {{"register", 0}})};
    const QVariantList dev{bench::record("DI1", {{"register", 1}})};
    const QVariantList bare{bench::record("DI2", {{"register", 2}})};
    const QVariant all = QVariantMap{{"io1_channels", io1}, {"dev_channels", dev}, {"_channels", bare}};

    QTest::newRow("last word") << QVariant("dev io1") << all << QVariant(io1) << false;
    QTest::newRow("three words") << QVariant("Moxa E1212 dev") << all << QVariant(dev) << false;
    QTest::newRow("trailing space") << QVariant("dev io1 ") << all << QVariant(bare) << false;
    QTest::newRow("missing table") << QVariant("dev io9") << all << QVariant() << true;
    QTest::newRow("no parameters") << QVariant("dev io1") << QVariant() << QVariant() << true;
    QTest::newRow("no reference") << QVariant() << all << QVariant() << false;
}

void TstPluginCommands::reference()
{
    QFETCH(QVariant, reference);
    QFETCH(QVariant, parameters);
    QFETCH(QVariant, channels);
    QFETCH(bool, logged);

    DAbstractPlugin *root = bench::rootPlugin();
    QVERIFY(root);
    const QUuid uuid = QUuid::createUuid();
    std::unique_ptr<DAbstractPlugin> plugin(static_cast<DAbstractPlugin *>(root->createInstance(uuid)));
    if (reference.isValid())
        plugin->setProperty(QStringLiteral("reference"), reference, false);
    if (parameters.isValid())
        plugin->addToParameters(QStringLiteral("parameters"), parameters);

    QSignalSpy done(plugin.get(), &DAbstractPlugin::sigCommandsInitDone);
    LogCapture log;
    plugin->initPluginCommands();

    BENCH_COMPARE_EXACT(plugin->getFromParameters(QStringLiteral("channels")), channels);
    if (logged) {
        QString why;
        const QString message = QStringLiteral("PDeviceMoxaIoLogic: no channel table for reference \"%1\"").arg(reference.toString());
        QVERIFY2(bench::isOnlyDiagnostic(log, QStringLiteral("p_device_moxa_iologic"), 77, message, &why), qPrintable(why));
    } else {
        QVERIFY2(log.criticalTexts().isEmpty(), qPrintable(log.criticalTexts().join(QLatin1Char('|'))));
    }
    // The commands come whatever became of the table.
    QCOMPARE(done.count(), 1);
    QCOMPARE(done.at(0).at(0).value<QUuid>(), uuid);
    QCOMPARE(done.at(0).at(1).toStringList(), c_commandOrder);
}

void TstPluginCommands::commandOrder()
{
    bench::Device device;
    QVERIFY(device.open(QVariantList()));
    QCOMPARE(device.plugin->getFunctions(true), QStringList(c_commandOrder) << QStringLiteral("stopListening"));
    QCOMPARE(device.plugin->command(QStringLiteral("stopListening"))->commandName(), QStringLiteral("listenEvents"));
}

void TstPluginCommands::declarations_data()
{
    QTest::addColumn<QString>("name");
    QTest::addColumn<QString>("description");
    QTest::addColumn<QStringList>("arguments");

    const auto param = [](const char *name, const char *type, const char *text, const QVariant &value) {
        return describe(DCommandArgument{DCommandArgument::CeParameter, QLatin1String(name), QLatin1String(type), QLatin1String(text), value});
    };
    const auto result = [](const char *name, const char *type, const char *text, const QVariant &value) {
        return describe(DCommandArgument{DCommandArgument::CeResult, QLatin1String(name), QLatin1String(type), QLatin1String(text), value});
    };
    const QString mesured = QStringLiteral("Return the mesured value on the GPIO pin");
    const char interger[] = "Return 0 or 1 for digital IO and a 16 bits unsigned interger for analog IO";
    const QVariant emptyText{QStringLiteral("")};
    const QStringList pulseParameters{
        param("channel", "strg", "Channel name", emptyText),
        param("pulseOnWidth", "int", "On pulse width (ms)", emptyText),
        param("pulseOffWidth", "int", "Off pulse width (ms)", emptyText),
        param("values", "varL", "Values to set on the channel", emptyText),
    };

    QTest::newRow("getInfo") << QStringLiteral("getInfo") << QStringLiteral("Get the connected device information")
                             << QStringList{result("deviceInformation", "vart", "Return device information", QVariant())};
    QTest::newRow("getValue") << QStringLiteral("getValue") << mesured
                              << QStringList{param("channel", "strg", "Channel name", QVariant()), result("value", "ui16", interger, QVariant())};
    QTest::newRow("getValues") << QStringLiteral("getValues") << QStringLiteral("Return the mesured value on GPIO pins")
                               << QStringList{param("channel", "strg", "Channel of the first gpio", QVariant()),
                                              result("values", "vart", "Return a list of GPIO values", QVariant())};
    QTest::newRow("setValue") << QStringLiteral("setValue") << QStringLiteral("Set the value of a GPIO pin")
                              << QStringList{param("channel", "strg", "Channel name", emptyText),
                                             param("value", "ui16", "Value to set on the GPIO", emptyText),
                                             param("bitMask", "ui16", "Value to set on the GPIO", QVariant(65535)),
                                             result("doneOk", "bool", "Job done", QVariant(false))};
    QTest::newRow("setValues") << QStringLiteral("setValues") << mesured << pulseParameters;
    QTest::newRow("setBlink") << QStringLiteral("setBlink") << mesured << pulseParameters;
    QTest::newRow("listenEvents") << QStringLiteral("listenEvents") << mesured
                                  << QStringList{param("channel", "strg", "Channel name", QVariant()), result("values", "vart", interger, QVariant())};
}

void TstPluginCommands::declarations()
{
    QFETCH(QString, name);
    QFETCH(QString, description);
    QFETCH(QStringList, arguments);

    bench::Device device;
    QVERIFY(device.open(QVariantList()));
    QCOMPARE(device.plugin->getFunctionDescription(name), description);
    QStringList declared;
    for (const DCommandArgument &argument : device.plugin->getCommandParameters(name))
        declared << describe(argument);
    QCOMPARE(declared, arguments);
}

QTEST_MAIN(TstPluginCommands)
#include "tst_plugin_commands.moc"
