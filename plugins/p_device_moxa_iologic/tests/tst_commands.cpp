// SPDX-License-Identifier: MIT
// The device commands of the loaded plug-in: what they send for given arguments and channel
// table, and what they make of the driver's replies.
#include "devicebench.h"

using bench::record;

namespace {

const QString c_coils = QStringLiteral("coilsRegister");
const QString c_holding = QStringLiteral("holdingRegisters");
const QString c_inputs = QStringLiteral("inputRegisters");

// AI0 above 16 bits, DO3 active-high, DO4 active-low read as "coilsregister" (not the coil
// space), pulse on-width record above 16 bits, off-width record at the top of the range.
QVariantList table()
{
    return {
        record("AI0", {{"register", 70001}, {"readRegisterType", c_inputs}, {"writeRegisterType", c_holding}, {"size", 65552}}),
        record("DO3", {{"register", 3}, {"readRegisterType", c_coils}, {"writeRegisterType", c_coils},
                       {"activeLevelHigh", true}, {"size", 5}}),
        record("DO4", {{"register", 4}, {"readRegisterType", "coilsregister"}, {"activeLevelHigh", false}}),
        record("DO_PulseStatus", {{"register", 0x10}, {"writeRegisterType", c_coils}}),
        record("DO_PulseOnWidth", {{"register", 0x10100}, {"writeRegisterType", c_holding}}),
        record("DO_PulseOffWidth", {{"register", 0xFFFF}, {"writeRegisterType", c_holding}}),
    };
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

void addRow(const QByteArray &tag, const QString &command, const QVariantMap &arguments, bool executes, const QVariantList &steps,
            const QVariantList &sent, const QVariantMap &results = {}, const QVariantList &log = {})
{
    QTest::newRow((command + ": " + tag).toLatin1().constData()) << command << arguments << executes << steps << sent << results << log;
}

} // namespace

class TstCommands : public QObject
{
    Q_OBJECT
private slots:
    void commands_data();
    void commands();
};

void TstCommands::commands_data()
{
    QTest::addColumn<QString>("command");
    QTest::addColumn<QVariantMap>("arguments");
    QTest::addColumn<bool>("executes");
    // Replies {instruction, reply, accepted} (instruction -1: to the command's own write-reply handler, which no
    // instruction reaches), or {"arguments", map}: new arguments (none: execute again).
    QTest::addColumn<QVariantList>("steps");
    QTest::addColumn<QVariantList>("sent");     // every instruction, in order
    QTest::addColumn<QVariantMap>("results");
    QTest::addColumn<QVariantList>("log");      // {line (-1: any), text after the line number}

    const QVariantList reads{read(5000, c_inputs, true, 10), read(5029, c_inputs, true, 4), read(5024, c_inputs, true, 3)};
    const QString v314 = QStringLiteral("V3.1.4 Build18030509");
    // A command the framework refuses (an undeclared argument) sends nothing.
    for (const char *command : {"getInfo", "getValue", "getValues", "setValue", "setValues", "setBlink", "listenEvents"})
        addRow("refused", command, c_refused, false, {}, {});
    addRow("in any order", "getInfo", {}, true, {reply(2, c_mac, true), reply(0, c_model, true), reply(1, c_firmware, true)},
           reads, information("iE1212", v314, "00:90:E8:0A:1B:FF"));
    addRow("again waits for all three", "getInfo", {}, true,
           {reply(0, c_model, true), reply(1, c_firmware, true), reply(2, c_mac, true), QVariantList{"arguments", QVariantMap()},
            reply(3, c_model, true), reply(4, c_firmware, true)}, reads + reads);
    addRow("bytes decoded", "getInfo", {}, true,
           {reply(0, values(QVariantList{0x4142, 0x43E9, 0x2000, 0x4400}), true),
            reply(1, values(QVariantList{0x0A0B, 0x0CFF, 0x1121, 0x6342, 7}), true),
            reply(2, values(QVariantList{0xABCD, 0xEF89, 0x2345}), true)},
           reads, information(QStringLiteral("ABC\u00e9"), "V10.11.12 Build17339966", "AB:CD:EF:89:23:45"));
    addRow("empty name, unread numbers", "getInfo", {}, true,
           {reply(0, values(QVariantList{0x0045, 0x4142}), true), reply(1, values(QVariantList{"a", 1, 2, 3}), true),
            reply(2, values(QVariantList{0, 0, 1}), true)},
           reads, information("", "V0.0.0 Build00020003", "00:00:00:00:00:01"));
    addRow("short firmware", "getInfo", {}, true, {reply(0, c_model, true), reply(1, values(QVariantList{1, 2, 3}), false),
                                                   reply(2, c_mac, true)},
           reads, {}, {log(-1, "DCmdGetInfo::rplFirmwareInfo : expected 4 words, got 3")});
    addRow("short MAC, model not a list, firmware without values", "getInfo", {}, true,
           {reply(2, values(QVariantList{1, 2}), false), reply(0, values(0x4142), false), reply(1, {}, false)}, reads, {},
           {log(-1, "DCmdGetInfo::rplMacAddress : expected 3 words, got 2"), log(-1, "DCmdGetInfo::rplModelName : reply values are not a list"),
            log(-1, "DCmdGetInfo::rplFirmwareInfo : reply does not contain values")});
    addRow("coil read at pulse status", "getValue", {{"channel", "DO3"}}, true, {reply(0, values(QVariantList{1, 0, 1}), true)},
           {read(19, c_coils)}, {{"value", 1u}});
    addRow("other case, no offset", "getValue", {{"channel", "DO4"}}, true, {reply(0, values(QVariantList{"12"}), true)},
           {read(4, "coilsregister")}, {{"value", 12u}});
    addRow("low 16 bits, value unmasked", "getValue", {{"channel", "AI0"}}, true, {reply(0, values(QVariantList{70000}), true)},
           {read(4465, c_inputs)}, {{"value", 70000u}});
    addRow("unknown channel", "getValue", {{"channel", "nope"}}, true, {}, {read(0, QString())});
    addRow("values not a list", "getValue", {{"channel", "AI0"}}, true, {reply(0, values(5), false)},
           {read(4465, c_inputs)}, {}, {log(10, c_notList)});
    addRow("run of the record's size", "getValues", {{"channel", "AI0"}}, true, {}, {read(4465, c_inputs, false, 16)});
    addRow("coil without offset", "getValues", {{"channel", "DO3"}}, true, {}, {read(3, c_coils, false, 5)});
    addRow("unknown channel", "getValues", {{"channel", "nope"}}, true, {}, {read(0, QString(), false, 0)});
    const QVariantList on{write(259, 65535, c_holding), write(65538, 1, c_holding), write(19, 1, c_coils)};
    const QVariantMap masked{{"channel", "AI0"}, {"bitMask", 0x100F0}, {"value", 0x0056}};
    addRow("pulse: active-high, 2 stays 2", "setValue", {{"channel", "DO3"}, {"value", 2}}, true,
           {reply(0, {}, true), reply(1, {}, true), reply(2, values(QVariantList{2}), true)},
           {write(259, 65535, c_holding), write(65538, 1, c_holding), write(19, 2, c_coils)}, {{"doneOk", true}});
    addRow("pulse: active-low", "setValue", {{"channel", "DO4"}, {"value", 1}}, true, {},
           {write(260, 1, c_holding), write(65539, 65535, c_holding), write(20, 1, c_coils)});
    addRow("pulse: 65536 is 0", "setValue", {{"channel", "DO3"}, {"value", 65536}}, true, {reply(2, values(QVariantList{0}), true)},
           {write(259, 1, c_holding), write(65538, 1, c_holding), write(19, 0, c_coils)}, {{"doneOk", false}});
    addRow("pulse: explicit mask 65535", "setValue", {{"channel", "DO3"}, {"value", 1}, {"bitMask", 65535}}, true, {}, on);
    addRow("pulse: last reply empty, not a list, without values", "setValue", {{"channel", "DO3"}, {"value", 1}}, true,
           {reply(2, values(QVariantList()), false), reply(2, values("1"), false), reply(2, {}, false)}, on, {},
           {log(168, c_empty), log(171, c_notList), log(174, c_noValues)});
    addRow("masked: mask and register low 16 bits", "setValue", masked, true,
           {reply(0, values(QVariantList{0x1234, 7}), true), reply(1, values(QVariantList{1}), true)},
           {read(4465, c_inputs), write(4465, 0x1254, c_holding)}, {{"doneOk", true}});
    addRow("masked: value fetched at the reply", "setValue", masked, true,
           {QVariantList{"arguments", QVariantMap{{"channel", "DO3"}, {"value", 0x12345}, {"bitMask", 0}}},
            reply(0, values(QVariantList{0x1FFFF}), true)},
           {read(4465, c_inputs), write(4465, 0xFF4F, c_holding)});
    addRow("masked: read empty, not a list, without values", "setValue", masked, true,
           {reply(0, values(QVariantList()), false), reply(0, values(QStringList{"1"}), false), reply(0, {}, false)},
           {read(4465, c_inputs)}, {}, {log(136, c_empty), log(139, c_notList), log(142, c_noValues)});
    for (const char *command : {"setValues", "setBlink"}) {
        const int line = QByteArray(command) == "setValues" ? 110 : 111;
        addRow("unbound reply handler", command, c_refused, false,
               {reply(-1, values(QVariantList()), false), reply(-1, values(true), false), reply(-1, {}, false),
                reply(-1, values(QVariantList{1}), false)},
               {}, {}, {log(line, c_empty), log(line + 3, c_notList), log(line + 6, c_noValues)});
        // The caller's "values" goes out untouched, whatever it is; no reply is asked for.
        addRow("widths, list", command,
               {{"channel", "DO3"}, {"pulseOnWidth", 501}, {"pulseOffWidth", 70000}, {"values", QVariantList{1, "0"}}}, true, {},
               {write(259, 501, c_holding, false), write(65538, 4464, c_holding, false), write(19, QVariantList{1, "0"}, c_coils, false)});
        addRow("active-low swaps, 0 is 1", command,
               {{"channel", "DO4"}, {"pulseOnWidth", 65536}, {"pulseOffWidth", 250}, {"values", QStringList{"1"}}}, true, {},
               {write(260, 250, c_holding, false), write(65539, 1, c_holding, false), write(20, QStringList{"1"}, c_coils, false)});
        addRow("no widths, values a number", command, {{"channel", "DO3"}, {"values", 5}}, true, {},
               {write(259, 1, c_holding, false), write(65538, 1, c_holding, false), write(19, 5, c_coils, false)});
    }
    const QVariant listenAI0 = sent("listen", true, {{"register", 4465}, {"registerType", c_inputs}, {"dataSize", 1}});
    const QString count = QStringLiteral("ERROR: Command returns unwaited number of data : %1 expected 1 , receivedData = %2");
    addRow("empty channel", "listenEvents", {{"channel", ""}}, false, {}, {}, {}, {log(-1, "ERROR: Register number not valid")});
    addRow("coil without offset", "listenEvents", {{"channel", "DO3"}}, true, {},
           {sent("listen", true, {{"register", 3}, {"registerType", c_coils}, {"dataSize", 1}})});
    addRow("unknown channel", "listenEvents", {{"channel", "nope"}}, true, {},
           {sent("listen", true, {{"register", 0}, {"registerType", QString()}, {"dataSize", 1}})});
    addRow("one value", "listenEvents", {{"channel", "AI0"}}, true, {reply(0, values(QVariantList{1}), true)}, {listenAI0},
           {{"values", QVariantMap{{"values", QVariantList{1}}}}});
    addRow("two values", "listenEvents", {{"channel", "AI0"}}, true, {reply(0, values(QVariantList{1, 0}), true)}, {listenAI0},
           {{"values", QVariantMap()}},
           {log(-1, count.arg(2).arg("QVariant(QVariantList, (QVariant(int, 1), QVariant(int, 0)))"))});
    addRow("not a list", "listenEvents", {{"channel", "AI0"}}, true, {reply(0, values(1), true)}, {listenAI0},
           {{"values", QVariantMap()}},
           {log(-1, "ERROR: Reply data format not managed"), log(-1, count.arg(0).arg("QVariant(int, 1)"))});
    addRow("no values", "listenEvents", {{"channel", "AI0"}}, true, {reply(0, {}, false)}, {listenAI0}, {},
           {log(-1, "ERROR: Invalid reply format")});
}

void TstCommands::commands()
{
    QFETCH(QString, command);
    QFETCH(QVariantMap, arguments);
    QFETCH(bool, executes);
    QFETCH(QVariantList, steps);
    QFETCH(QVariantList, sent);
    QFETCH(QVariantMap, results);
    QFETCH(QVariantList, log);

    bench::Device device(table());
    DAbstractCommand *declared = device.plugin->command(command);
    declared->setParameters(arguments);
    LogCapture capture;
    QCOMPARE(declared->commandExecute(), executes);
    for (const QVariant &step : qAsConst(steps)) {
        const QVariantList s = step.toList();
        if (s.at(0) == QStringLiteral("arguments")) {
            if (!s.at(1).toMap().isEmpty())
                declared->setParameters(s.at(1).toMap());
            else
                QVERIFY(declared->commandExecute());
            continue;
        }
        if (s.at(0).toInt() >= 0) {
            QCOMPARE(device.messenger.reply(s.at(0).toInt(), s.at(1).toMap()), s.at(2).toBool());
            continue;
        }
        const QByteArray type = command == QLatin1String("setBlink") ? "DCmdSetValuesWithPulse" : "DCmdSetValues";
        const QByteArray symbol = "_ZN" + QByteArray::number(type.size()) + type + "12rplWriteDoneEyRK4QMapI7QString8QVariantE";
        const auto handler = reinterpret_cast<bool (*)(DAbstractCommand *, unsigned long long, const QVariantMap &)>(
            QLibrary(QString::fromLatin1(bench::c_pluginPath)).resolve(symbol.constData()));
        QCOMPARE(handler(declared, 1, s.at(1).toMap()), s.at(2).toBool());
    }

    QVariantList actual;
    for (const TestMessenger::Instruction &instruction : device.messenger.instructions()) {
        QCOMPARE(instruction.command, declared);
        QCOMPARE(instruction.target, QStringLiteral("driver"));
        QCOMPARE(instruction.timeoutMs, 3000);
        actual << ::sent(instruction.name.toLatin1().constData(), instruction.hasCallback, instruction.parameters);
    }
    BENCH_COMPARE(actual, sent);
    BENCH_COMPARE(declared->results(), results);
    QCOMPARE(capture.messages().size(), log.size());
    const QString file = command == QLatin1String("setBlink") ? QStringLiteral("d_cmd_setValuesWithPulse") : "d_cmd_" + command;
    for (int i = 0; i < log.size(); ++i) {
        const QString why = bench::diagnosticMismatch(capture.messages().at(i), declared, file, log.at(i).toList().at(0).toInt(),
                                                      log.at(i).toList().at(1).toString());
        QVERIFY2(why.isEmpty(), qPrintable(why));
    }
}

QTEST_MAIN(TstCommands)
#include "tst_commands.moc"
