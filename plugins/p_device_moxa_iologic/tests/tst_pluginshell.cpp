// SPDX-License-Identifier: MIT
// The device plug-in as a host loads it: metadata, root instance, identity, virtual tables,
// channel table selection, the declared commands, and what each command sends for given
// arguments and channel table and makes of the driver's replies (QML types and panel: tst_maintenance).
#include "devicebench.h"
#include "hostutils.h"

#include <QCborMap>
#include <QCborValue>
#include <QFile>
#include <QSignalSpy>

using bench::record;

namespace {

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

const QString c_coils = QStringLiteral("coilsRegister");
const QString c_holding = QStringLiteral("holdingRegisters");
const QString c_inputs = QStringLiteral("inputRegisters");

// AI0 above 16 bits, DO3 active-high, DO4 active-low read as "coilsregister" (not the coil
// space), pulse on-width record above 16 bits, off-width record at the top of the range.
QVariantList channels()
{
    return {
        record("AI0", {{"register", 70001}, {"readRegisterType", c_inputs}, {"writeRegisterType", c_holding}, {"size", 65552}}),
        record("DO3", {{"register", 3}, {"readRegisterType", c_coils}, {"writeRegisterType", c_coils},
                       {"activeLevelHigh", true}, {"size", 5}}),
        record("DO4", {{"register", 4}, {"readRegisterType", "coilsregister"}, {"activeLevelHigh", false}}),
        record("DO_PulseStatus", {{"register", 0x10}, {"writeRegisterType", c_coils}}),
        record("DO_PulseOnWidth", {{"register", 0x10100}, {"writeRegisterType", c_holding}}),
        record("DO_PulseOffWidth", {{"register", 0xFFFF}, {"writeRegisterType", c_holding}}), };
}

// One driver instruction as the test compares it: name, whether a callback is bound, parameters.
QVariant sent(const QString &name, bool bound, const QVariantMap &parameters) { return QVariantMap{{"name", name}, {"bound", bound}, {"parameters", parameters}}; }
QVariant read(int reg, const QString &type, bool bound = true, int size = -1)
{
    QVariantMap parameters{{"register", reg}, {"registerType", type}};
    if (size >= 0)
        parameters.insert("dataSize", size);
    return sent("read", bound, parameters);
}
QVariant write(int reg, const QVariant &data, const QString &type, bool bound = true) { return sent("write", bound, {{"register", reg}, {"data", data}, {"registerType", type}}); }
// One step after the execution: the reply to instruction `index` and what its callback returns.
QVariant reply(int index, const QVariantMap &reply, bool accepted) { return QVariantList{index, reply, accepted}; }
QVariantMap values(const QVariant &list) { return {{"values", list}}; }
QVariant log(int line, const QString &tail) { return QVariantList{line, tail}; }

const QVariantMap c_model = values(QVariantList{0x6945, 0x3132, 0x3132, 0x2000, 0, 0, 0, 0, 0, 0});
const QVariantMap c_firmware = values(QVariantList{0x0301, 0x0400, 0x1203, 0x0509});
const QVariantMap c_mac = values(QVariantList{0x0090, 0xE80A, 0x1BFF});
const QString c_empty = QStringLiteral("ERROR: Reply Values list is empty");
const QString c_notList = QStringLiteral("ERROR: Values list in reply data is not in the correct format");
const QString c_noValues = QStringLiteral("ERROR: Reply data is not in the correct format");
const QVariantMap c_refused{{"channel", "DO3"}, {"bogus", 1}};

QVariantMap information(const QString &model, const QString &version, const QString &mac)
{
    return {{"deviceInformation", QVariantMap{{"modelName", model}, {"softwareVersion", version},
                                              {"serialNumber", QStringLiteral("")}, {"macAddress", mac}}}};
}

void addRow(const QByteArray &tag, const QString &command, const QVariantMap &arguments, const QVariantList &steps,
            const QVariantList &sent, const QVariantMap &results = {}, const QVariantList &log = {})
{
    QTest::newRow((command + ": " + tag).toLatin1().constData()) << command << arguments << steps << sent << results << log;
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
    void commands_data();
    void commands();
};

void TstPluginShell::metadata()
{
    QFile library(QString::fromLatin1(bench::c_pluginPath));
    const QByteArray bytes = library.open(QIODevice::ReadOnly) ? library.readAll() : QByteArray();
    const int at = bytes.indexOf("QTMETADATA !");
    // Format 0, Qt 5.15, no architecture or debug requirements, then an indefinite-length map.
    QCOMPARE(bytes.mid(at + 12, 5), QByteArray("\x00\x05\x0F\x00\xBF", 5));
    QCOMPARE(QCborValue::fromCbor(bytes.mid(at + 16)).toMap(),
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
    QCOMPARE(instance->pluginUuid(), QUuid("{43ae4651-f855-42c1-81e2-c73130e79008}"));
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
}

void TstPluginShell::channelTable_data()
{
    QTest::addColumn<QVariant>("reference");   // invalid: not set
    QTest::addColumn<QVariant>("parameters");  // invalid: not set
    QTest::addColumn<QVariant>("channels");    // invalid: nothing published

    const QVariantList io1{record("DI0", {})}, dev{record("DI1", {})}, bare{record("DI2", {})};
    const QVariant all = QVariantMap{{"io1_channels", io1}, {"dev_channels", dev}, {"_channels", bare}, {"io2_channels", QVariantList()},
                                     {"io3_channels", 7}};
    QTest::newRow("last word") << QVariant("dev io1") << all << QVariant(io1);
    QTest::newRow("one word") << QVariant("dev") << all << QVariant(dev);
    QTest::newRow("trailing space") << QVariant("dev io1 ") << all << QVariant(bare);
    QTest::newRow("empty list") << QVariant("a io2") << all << QVariant(QVariantList());
    QTest::newRow("not a list") << QVariant("a io3") << all << QVariant(7);
    QTest::newRow("missing table") << QVariant("dev io9") << all << QVariant();
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
    if (logged)
        BENCH_LOGGED(log.messages().at(0), plugin.get(), "p_device_moxa_iologic", 77,
                     QStringLiteral("PDeviceMoxaIoLogic: no channel table for reference \"%1\"").arg(reference.toString()));
    // The commands come whatever became of the table, after the framework's own.
    QCOMPARE(QList<QVariantList>(done), (QList<QVariantList>{{QVariant::fromValue(uuid), QStringList{"getPluginIdentity", "getInfo", "getValue",
                                                               "getValues", "setValue", "setValues", "setBlink", "listenEvents"}}}));
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
            declared << QStringLiteral("%1 %2 %3 %4 = %5").arg(argument.kind).arg(argument.name, argument.typeCode, argument.description,
                                                                        bench::describe(argument.defaultValue));
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

void TstPluginShell::commands_data()
{
    QTest::addColumn<QString>("command");
    QTest::addColumn<QVariantMap>("arguments");
    // Replies {instruction, reply, accepted} (instruction -1: to the command's own write-reply handler, which no
    // instruction reaches), or {"arguments", map, again}: new arguments, and whether to execute again.
    QTest::addColumn<QVariantList>("steps");
    QTest::addColumn<QVariantList>("sent");     // every instruction, in order; none: the execution is refused
    QTest::addColumn<QVariantMap>("results");
    QTest::addColumn<QVariantList>("log");      // {line (-1: any), text after the line number}

    const QVariantList reads{read(5000, c_inputs, true, 10), read(5029, c_inputs, true, 4), read(5024, c_inputs, true, 3)};
    // A command the framework refuses (an undeclared argument) sends nothing.
    for (const char *command : {"getInfo", "getValue", "getValues", "setValue", "setValues", "setBlink", "listenEvents"})
        addRow("refused", command, c_refused, {}, {});
    addRow("again waits for all three", "getInfo", {},
           {reply(0, c_model, true), reply(1, c_firmware, true), reply(2, c_mac, true), QVariantList{"arguments", QVariantMap(), true},
            reply(3, c_model, true), reply(4, c_firmware, true)}, reads + reads);
    addRow("bytes decoded, replies in any order", "getInfo", {},
           {reply(2, values(QVariantList{0xABCD, 0xEF89, 0x2345}), true), reply(0, values(QVariantList{0x4142, 0x43E9, 0x2000, 0x4400}), true),
            reply(1, values(QVariantList{0x0A0B, 0x0CFF, 0x1121, 0x6342, 7}), true)},
           reads, information(QStringLiteral("ABC\u00e9"), "V10.11.12 Build17339966", "AB:CD:EF:89:23:45"));
    addRow("empty name, unread numbers", "getInfo", {},
           {reply(0, values(QVariantList{0x0045, 0x4142}), true), reply(1, values(QVariantList{"a", 1, 2, 3}), true),
            reply(2, values(QVariantList{0, 0, 1}), true)}, reads, information("", "V0.0.0 Build00020003", "00:00:00:00:00:01"));
    // Broken replies (MAC short, model not a list, firmware without values, then short) leave no result.
    addRow("broken replies", "getInfo", {}, {reply(2, values(QVariantList{1, 2}), false), reply(0, values(0x4142), false), reply(1, {}, false),
                                             reply(1, values(QVariantList{1, 2, 3}), false), reply(0, c_model, true), reply(2, c_mac, true)}, reads, {},
           {log(-1, "DCmdGetInfo::rplMacAddress : expected 3 words, got 2"), log(-1, "DCmdGetInfo::rplModelName : reply values are not a list"),
            log(-1, "DCmdGetInfo::rplFirmwareInfo : reply does not contain values"), log(-1, "DCmdGetInfo::rplFirmwareInfo : expected 4 words, got 3")});
    addRow("coil read at pulse status", "getValue", {{"channel", "DO3"}}, {reply(0, values(QVariantList{1, 0, 1}), true)},
           {read(19, c_coils)}, {{"value", 1u}});
    addRow("other case, no offset", "getValue", {{"channel", "DO4"}}, {reply(0, values(QVariantList{"12"}), true)},
           {read(4, "coilsregister")}, {{"value", 12u}});
    addRow("low 16 bits, value unmasked", "getValue", {{"channel", "AI0"}}, {reply(0, values(QVariantList{70000}), true)},
           {read(4465, c_inputs)}, {{"value", 70000u}});
    addRow("unknown channel", "getValue", {{"channel", "nope"}}, {}, {read(0, QString())});
    addRow("values not a list", "getValue", {{"channel", "AI0"}}, {reply(0, values(5), false)}, {read(4465, c_inputs)}, {}, {log(10, c_notList)});
    addRow("run of the record's size", "getValues", {{"channel", "AI0"}}, {}, {read(4465, c_inputs, false, 16)});
    addRow("coil without offset", "getValues", {{"channel", "DO3"}}, {}, {read(3, c_coils, false, 5)});
    addRow("unknown channel", "getValues", {{"channel", "nope"}}, {}, {read(0, QString(), false, 0)});
    const QVariantList on{write(259, 65535, c_holding), write(65538, 1, c_holding), write(19, 1, c_coils)};
    const QVariantMap masked{{"channel", "AI0"}, {"bitMask", 0x100F0}, {"value", 0x0056}};
    addRow("pulse: active-high, 2 stays 2", "setValue", {{"channel", "DO3"}, {"value", 2}},
           {reply(0, {}, true), reply(1, {}, true), reply(2, values(QVariantList{2}), true)},
           {write(259, 65535, c_holding), write(65538, 1, c_holding), write(19, 2, c_coils)}, {{"doneOk", true}});
    addRow("pulse: active-low", "setValue", {{"channel", "DO4"}, {"value", 1}}, {},
           {write(260, 1, c_holding), write(65539, 65535, c_holding), write(20, 1, c_coils)});
    addRow("pulse: 65536 is 0", "setValue", {{"channel", "DO3"}, {"value", 65536}}, {reply(2, values(QVariantList{0}), true)},
           {write(259, 1, c_holding), write(65538, 1, c_holding), write(19, 0, c_coils)}, {{"doneOk", false}});
    addRow("pulse: explicit mask 65535", "setValue", {{"channel", "DO3"}, {"value", 1}, {"bitMask", 65535}}, {}, on);
    addRow("pulse: last reply empty, not a list, without values", "setValue", {{"channel", "DO3"}, {"value", 1}},
           {reply(2, values(QVariantList()), false), reply(2, values("1"), false), reply(2, {}, false)}, on, {},
           {log(168, c_empty), log(171, c_notList), log(174, c_noValues)});
    addRow("masked: mask and register low 16 bits", "setValue", masked,
           {reply(0, values(QVariantList{0x1234, 7}), true), reply(1, values(QVariantList{1}), true)},
           {read(4465, c_inputs), write(4465, 0x1254, c_holding)}, {{"doneOk", true}});
    addRow("masked: value fetched at the reply", "setValue", masked,
           {QVariantList{"arguments", QVariantMap{{"channel", "DO3"}, {"value", 0x12345}, {"bitMask", 0}}, false},
            reply(0, values(QVariantList{0x1FFFF}), true)}, {read(4465, c_inputs), write(4465, 0xFF4F, c_holding)});
    addRow("masked: read empty, not a list, without values", "setValue", masked,
           {reply(0, values(QVariantList()), false), reply(0, values(QStringList{"1"}), false), reply(0, {}, false)},
           {read(4465, c_inputs)}, {}, {log(136, c_empty), log(139, c_notList), log(142, c_noValues)});
    for (const char *command : {"setValues", "setBlink"}) {
        const int line = QByteArray(command) == "setValues" ? 110 : 111;
        addRow("unbound reply handler", command, c_refused,
               {reply(-1, values(QVariantList()), false), reply(-1, values(true), false), reply(-1, {}, false),
                reply(-1, values(QVariantList{1}), false)},
               {}, {}, {log(line, c_empty), log(line + 3, c_notList), log(line + 6, c_noValues)});
        // The caller's "values" goes out untouched, whatever it is; no reply is asked for.
        addRow("widths, list", command,
               {{"channel", "DO3"}, {"pulseOnWidth", 501}, {"pulseOffWidth", 70000}, {"values", QVariantList{1, "0"}}}, {},
               {write(259, 501, c_holding, false), write(65538, 4464, c_holding, false), write(19, QVariantList{1, "0"}, c_coils, false)});
        addRow("active-low swaps, 0 is 1", command,
               {{"channel", "DO4"}, {"pulseOnWidth", 65536}, {"pulseOffWidth", 250}, {"values", QStringList{"1"}}}, {},
               {write(260, 250, c_holding, false), write(65539, 1, c_holding, false), write(20, QStringList{"1"}, c_coils, false)});
        addRow("no widths, values a number", command, {{"channel", "DO3"}, {"values", 5}}, {},
               {write(259, 1, c_holding, false), write(65538, 1, c_holding, false), write(19, 5, c_coils, false)});
    }
    const QVariant listenAI0 = sent("listen", true, {{"register", 4465}, {"registerType", c_inputs}, {"dataSize", 1}});
    const QString count = QStringLiteral("ERROR: Command returns unwaited number of data : %1 expected 1 , receivedData = %2");
    addRow("empty channel", "listenEvents", {{"channel", ""}}, {}, {}, {}, {log(-1, "ERROR: Register number not valid")});
    addRow("coil without offset", "listenEvents", {{"channel", "DO3"}}, {},
           {sent("listen", true, {{"register", 3}, {"registerType", c_coils}, {"dataSize", 1}})});
    addRow("unknown channel", "listenEvents", {{"channel", "nope"}}, {},
           {sent("listen", true, {{"register", 0}, {"registerType", QString()}, {"dataSize", 1}})});
    addRow("one value", "listenEvents", {{"channel", "AI0"}}, {reply(0, values(QVariantList{1}), true)}, {listenAI0},
           {{"values", QVariantMap{{"values", QVariantList{1}}}}});
    addRow("two values", "listenEvents", {{"channel", "AI0"}}, {reply(0, values(QVariantList{1, 0}), true)}, {listenAI0},
           {{"values", QVariantMap()}}, {log(-1, count.arg(2).arg("QVariant(QVariantList, (QVariant(int, 1), QVariant(int, 0)))"))});
    addRow("not a list", "listenEvents", {{"channel", "AI0"}}, {reply(0, values(1), true)}, {listenAI0}, {{"values", QVariantMap()}},
           {log(-1, "ERROR: Reply data format not managed"), log(-1, count.arg(0).arg("QVariant(int, 1)"))});
    addRow("no values", "listenEvents", {{"channel", "AI0"}}, {reply(0, {}, false)}, {listenAI0}, {}, {log(-1, "ERROR: Invalid reply format")});
}

void TstPluginShell::commands()
{
    QFETCH(QString, command);
    QFETCH(QVariantMap, arguments);
    QFETCH(QVariantList, steps);
    QFETCH(QVariantList, sent);
    QFETCH(QVariantMap, results);
    QFETCH(QVariantList, log);

    bench::Device device(channels());
    DAbstractCommand *declared = device.plugin->command(command);
    declared->setParameters(arguments);
    LogCapture capture;
    QCOMPARE(declared->commandExecute(), !sent.isEmpty());
    for (const QVariant &step : qAsConst(steps)) {
        const QVariantList s = step.toList();
        if (s.at(0) == QStringLiteral("arguments")) {
            declared->setParameters(s.at(1).toMap());
            QVERIFY(!s.at(2).toBool() || declared->commandExecute());
        } else if (s.at(0).toInt() >= 0) {
            QCOMPARE(device.messenger.reply(s.at(0).toInt(), s.at(1).toMap()), s.at(2).toBool());
        } else {
            const QByteArray type = command == QLatin1String("setBlink") ? "DCmdSetValuesWithPulse" : "DCmdSetValues";
            const QByteArray symbol = "_ZN" + QByteArray::number(type.size()) + type + "12rplWriteDoneEyRK4QMapI7QString8QVariantE";
            const auto handler = reinterpret_cast<bool (*)(DAbstractCommand *, unsigned long long, const QVariantMap &)>(
                QLibrary(QString::fromLatin1(bench::c_pluginPath)).resolve(symbol.constData()));
            QCOMPARE(handler(declared, 1, s.at(1).toMap()), s.at(2).toBool());
        }
    }

    QVariantList actual;
    for (const TestMessenger::Instruction &instruction : device.messenger.instructions()) {
        QVERIFY(instruction.command == declared && instruction.target == QLatin1String("driver") && instruction.timeoutMs == 3000);
        actual << ::sent(instruction.name.toLatin1().constData(), instruction.hasCallback, instruction.parameters);
    }
    BENCH_COMPARE(actual, sent);
    BENCH_COMPARE(declared->results(), results);
    QCOMPARE(capture.messages().size(), log.size());
    const QString file = command == QLatin1String("setBlink") ? QStringLiteral("d_cmd_setValuesWithPulse") : "d_cmd_" + command;
    for (int i = 0; i < log.size(); ++i)
        BENCH_LOGGED(capture.messages().at(i), declared, file, log.at(i).toList().at(0).toInt(), log.at(i).toList().at(1).toString());
}

QTEST_MAIN(TstPluginShell)
#include "tst_pluginshell.moc"
