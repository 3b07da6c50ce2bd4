// SPDX-License-Identifier: MIT
// The device commands of the loaded plug-in: the instructions they send for given
// arguments and channel tables, and what they make of the driver's replies.
#include "commandtestbench.h"

#include <QSignalSpy>

#include <algorithm>

using bench::Device;
using bench::record;

namespace {

// DI2, DO3 (active-high), DO4 (active-low), AI0, and the pulse records at 0x10 / 0x100 / 0x200.
QVariantList benchTable()
{
    return {
        record("DI2", {{"register", 2}, {"readRegisterType", "discreteInputs"}, {"size", 6}}),
        record("DO3", {{"register", 3}, {"readRegisterType", "coilsRegister"}, {"writeRegisterType", "coilsRegister"},
                       {"activeLevelHigh", true}, {"size", 5}}),
        record("DO4", {{"register", 4}, {"readRegisterType", "coilsRegister"}, {"writeRegisterType", "coilsRegister"},
                       {"activeLevelHigh", false}}),
        record("AI0", {{"register", 0}, {"readRegisterType", "inputRegisters"}, {"writeRegisterType", "holdingRegisters"}, {"size", 16}}),
        record("DO_PulseStatus", {{"register", 0x10}, {"writeRegisterType", "coilsRegister"}}),
        record("DO_PulseOnWidth", {{"register", 0x100}, {"writeRegisterType", "holdingRegisters"}}),
        record("DO_PulseOffWidth", {{"register", 0x200}, {"writeRegisterType", "holdingRegisters"}}),
    };
}

QVariantMap write(int reg, const QVariant &data, const QString &type)
{
    return {{"register", reg}, {"data", data}, {"registerType", type}};
}

QVariantMap words(std::initializer_list<int> list)
{
    QVariantList values;
    for (int word : list)
        values << word;
    return {{"values", values}};
}

const QString c_coils = QStringLiteral("coilsRegister");
const QString c_holding = QStringLiteral("holdingRegisters");
const QString c_empty = QStringLiteral("ERROR: Reply Values list is empty");
const QString c_notList = QStringLiteral("ERROR: Values list in reply data is not in the correct format");
const QString c_noValues = QStringLiteral("ERROR: Reply data is not in the correct format");
const QVariantMap c_modelReply = words({0x6945, 0x3132, 0x3132, 0x2000, 0, 0, 0, 0, 0, 0});
const QVariantMap c_firmwareReply = words({0x0301, 0x0400, 0x1203, 0x0509});
const QVariantMap c_macReply = words({0x0090, 0xE80A, 0x1BFF});

#define BENCH_VERIFY_ONLY_DIAGNOSTIC(log, file, line, message)                                   \
    do {                                                                                         \
        QString why;                                                                             \
        QVERIFY2(bench::isOnlyDiagnostic((log), QStringLiteral(file), (line), (message), &why), qPrintable(why)); \
    } while (false)

} // namespace

class TstCommands : public QObject
{
    Q_OBJECT
private slots:
    void getValue_instruction_data();
    void getValue_instruction();
    void getValue_reply_data();
    void getValue_reply();

    void setValue_pulse_data();
    void setValue_pulse();
    void setValue_pulseSumNotWrapped();
    void setValue_masked_data();
    void setValue_masked();
    void setValue_replyChecks_data();
    void setValue_replyChecks();
    void factory();

    void pulseCommands_data();
    void pulseCommands();
    void getValues_data();
    void getValues();

    void listenEvents_refused();
    void listenEvents_reply_data();
    void listenEvents_reply();

    void getInfo_anyOrder_data();
    void getInfo_anyOrder();
    void getInfo_decoding_data();
    void getInfo_decoding();
    void getInfo_rejected_data();
    void getInfo_rejected();
};

void TstCommands::getValue_instruction_data()
{
    QTest::addColumn<QString>("readType");
    QTest::addColumn<int>("channelRegister");
    QTest::addColumn<int>("pulseStatusRegister");
    QTest::addColumn<int>("expected");

    QTest::newRow("coil read at pulse status") << c_coils << 3 << 4096 << 4099;
    QTest::newRow("other case gets no offset") << QStringLiteral("coilsregister") << 3 << 4096 << 3;
    QTest::newRow("above 16 bits masked") << QStringLiteral("inputRegisters") << 70000 << 0 << 4464;
    QTest::newRow("coil sum masked") << c_coils << 65535 << 16 << 15;
}

void TstCommands::getValue_instruction()
{
    QFETCH(QString, readType);
    QFETCH(int, channelRegister);
    QFETCH(int, pulseStatusRegister);
    QFETCH(int, expected);

    Device device;
    QVERIFY(device.open(QVariantList{record("X", {{"register", channelRegister}, {"readRegisterType", readType}}),
                                     record("DO_PulseStatus", {{"register", pulseStatusRegister}})}));
    QVERIFY(device.start("getValue", {{"channel", "X"}}));
    QCOMPARE(device.messenger.instructions().size(), 1);
    BENCH_VERIFY_INSTRUCTION(device.instruction(0), "read", true, (QVariantMap{{"register", expected}, {"registerType", readType}}));
}

void TstCommands::getValue_reply_data()
{
    QTest::addColumn<QVariantMap>("reply");
    QTest::addColumn<QVariant>("value");       // invalid: rejected
    QTest::addColumn<QString>("message");

    QTest::newRow("first of three") << QVariantMap{{"values", QVariantList{1, 0, 1}}} << QVariant(1u) << QString();
    QTest::newRow("above 16 bits unmasked") << QVariantMap{{"values", QVariantList{70000}}} << QVariant(70000u) << QString();
    QTest::newRow("not numeric") << QVariantMap{{"values", QVariantList{"on"}}} << QVariant(0u) << QString();
    QTest::newRow("not a list") << QVariantMap{{"values", 5}} << QVariant() << c_notList;
    QTest::newRow("empty list") << QVariantMap{{"values", QVariantList()}} << QVariant() << c_empty;
    QTest::newRow("no values") << QVariantMap{{"value", QVariantList{1}}} << QVariant() << c_noValues;
}

void TstCommands::getValue_reply()
{
    QFETCH(QVariantMap, reply);
    QFETCH(QVariant, value);
    QFETCH(QString, message);

    Device device;
    QVERIFY(device.open(benchTable()));
    DAbstractCommand *command = device.start("getValue", {{"channel", "AI0"}});
    QVERIFY(command);
    QSignalSpy results(command, &DAbstractCommand::sigResultChanged);
    LogCapture log;
    QCOMPARE(device.messenger.reply(0, reply), value.isValid());
    if (value.isValid()) {
        QCOMPARE(results.count(), 1);
        QCOMPARE(results.at(0).at(0).toString(), QStringLiteral("value"));
        BENCH_COMPARE_EXACT(results.at(0).at(1), value);
        QVERIFY(log.criticalTexts().isEmpty());
    } else {
        QCOMPARE(results.count(), 0);
        // All three messages are logged under the one line that declares them.
        BENCH_VERIFY_ONLY_DIAGNOSTIC(log, "d_cmd_getValue", 10, message);
    }
}

void TstCommands::setValue_pulse_data()
{
    QTest::addColumn<QVariantMap>("arguments");
    QTest::addColumn<QVariantList>("writes");

    QTest::newRow("active-high on") << QVariantMap{{"channel", "DO3"}, {"value", 1}}
                                    << QVariantList{write(259, 65535, c_holding), write(515, 1, c_holding), write(19, 1, c_coils)};
    QTest::newRow("active-low on") << QVariantMap{{"channel", "DO4"}, {"value", 1}}
                                   << QVariantList{write(260, 1, c_holding), write(516, 65535, c_holding), write(20, 1, c_coils)};
    QTest::newRow("active-high off") << QVariantMap{{"channel", "DO3"}, {"value", 0}}
                                     << QVariantList{write(259, 1, c_holding), write(515, 1, c_holding), write(19, 0, c_coils)};
    QTest::newRow("65536 counts as 0") << QVariantMap{{"channel", "DO3"}, {"value", 65536}}
                                       << QVariantList{write(259, 1, c_holding), write(515, 1, c_holding), write(19, 0, c_coils)};
    QTest::newRow("unknown channel") << QVariantMap{{"channel", "nope"}, {"value", 1}}
                                     << QVariantList{write(256, 1, c_holding), write(512, 65535, c_holding), write(16, 1, c_coils)};
}

void TstCommands::setValue_pulse()
{
    QFETCH(QVariantMap, arguments);
    QFETCH(QVariantList, writes);

    Device device;
    QVERIFY(device.open(benchTable()));
    DAbstractCommand *command = device.start("setValue", arguments);
    QVERIFY(command);
    QCOMPARE(device.messenger.instructions().size(), 3);
    for (int i = 0; i < 3; ++i)
        BENCH_VERIFY_INSTRUCTION(device.instruction(i), "write", true, writes.at(i).toMap());

    // The width writes are accepted unseen and post nothing; "doneOk" comes from the last.
    QSignalSpy results(command, &DAbstractCommand::sigResultChanged);
    QVERIFY(device.messenger.reply(0, {}));
    QVERIFY(device.messenger.reply(1, {{"values", QVariantList{false}}}));
    QCOMPARE(results.count(), 0);
    QVERIFY(device.messenger.reply(2, {{"values", QVariantList{1}}}));
    QCOMPARE(results.count(), 1);
    QCOMPARE(results.at(0), (QVariantList{"doneOk", true}));
}

void TstCommands::setValue_pulseSumNotWrapped()
{
    Device device;
    QVERIFY(device.open(QVariantList{
        record("DO2", {{"register", 2}, {"activeLevelHigh", true}}),
        record("DO_PulseStatus", {{"register", 65535}}),
        record("DO_PulseOnWidth", {{"register", 65534}}),
        record("DO_PulseOffWidth", {{"register", 0x1FFFF}}),  // kept to 0xFFFF first
    }));
    QVERIFY(device.start("setValue", {{"channel", "DO2"}, {"value", 1}}));
    QCOMPARE(device.messenger.instructions().size(), 3);
    BENCH_COMPARE_EXACT(device.instruction(0).parameters, write(65536, 65535, QString()));
    BENCH_COMPARE_EXACT(device.instruction(1).parameters, write(65537, 1, QString()));
    BENCH_COMPARE_EXACT(device.instruction(2).parameters, write(65537, 1, QString()));
}

void TstCommands::setValue_masked_data()
{
    QTest::addColumn<QString>("channel");
    QTest::addColumn<int>("bitMask");
    QTest::addColumn<int>("current");
    QTest::addColumn<int>("value");
    QTest::addColumn<int>("address");
    QTest::addColumn<QString>("readType");
    QTest::addColumn<QString>("writeType");
    QTest::addColumn<int>("data");

    const QString inputs = QStringLiteral("inputRegisters");
    QTest::newRow("middle nibble") << "AI0" << 0x00F0 << 0x1234 << 0x0056 << 0 << inputs << c_holding << 0x1254;
    QTest::newRow("value above 16 bits") << "AI0" << 0xFFFE << 0xFFFF << 0x12345 << 0 << inputs << c_holding << 0x2345;
    QTest::newRow("mask above 16 bits") << "AI0" << 0x1000F << 0x1230 << 0xFFFF << 0 << inputs << c_holding << 0x123F;
    // No pulse status offset on this read, and no polarity on this path.
    QTest::newRow("coil at its own register") << "DO4" << 1 << 0 << 1 << 4 << c_coils << c_coils << 1;
}

void TstCommands::setValue_masked()
{
    QFETCH(QString, channel);
    QFETCH(int, bitMask);
    QFETCH(int, current);
    QFETCH(int, value);
    QFETCH(int, address);
    QFETCH(QString, readType);
    QFETCH(QString, writeType);
    QFETCH(int, data);

    Device device;
    QVERIFY(device.open(benchTable()));
    DAbstractCommand *command = device.start("setValue", {{"channel", channel}, {"bitMask", bitMask}, {"value", value}});
    QVERIFY(command);
    QCOMPARE(device.messenger.instructions().size(), 1);
    BENCH_VERIFY_INSTRUCTION(device.instruction(0), "read", true, (QVariantMap{{"register", address}, {"registerType", readType}}));

    QSignalSpy results(command, &DAbstractCommand::sigResultChanged);
    QVERIFY(device.messenger.reply(0, {{"values", QVariantList{current, 0x7777}}}));
    QCOMPARE(results.count(), 0);
    QCOMPARE(device.messenger.instructions().size(), 2);
    BENCH_VERIFY_INSTRUCTION(device.instruction(1), "write", true, write(address, data, writeType));
    QVERIFY(device.messenger.reply(1, {{"values", QVariantList{0}}}));
    BENCH_COMPARE_EXACT(command->results(), (QVariantMap{{"doneOk", false}}));
}

void TstCommands::setValue_replyChecks_data()
{
    QTest::addColumn<bool>("masked");
    QTest::addColumn<QVariantMap>("reply");
    QTest::addColumn<int>("line");
    QTest::addColumn<QString>("message");

    QTest::newRow("read: empty") << true << QVariantMap{{"values", QVariantList()}} << 136 << c_empty;
    QTest::newRow("read: not a list") << true << QVariantMap{{"values", 1}} << 139 << c_notList;
    QTest::newRow("read: no values") << true << QVariantMap() << 142 << c_noValues;
    QTest::newRow("write: empty") << false << QVariantMap{{"values", QVariantList()}} << 168 << c_empty;
    QTest::newRow("write: not a list") << false << QVariantMap{{"values", "1"}} << 171 << c_notList;
    QTest::newRow("write: no values") << false << QVariantMap{{"data", QVariantList{1}}} << 174 << c_noValues;
}

void TstCommands::setValue_replyChecks()
{
    QFETCH(bool, masked);
    QFETCH(QVariantMap, reply);
    QFETCH(int, line);
    QFETCH(QString, message);

    Device device;
    QVERIFY(device.open(benchTable()));
    QVariantMap arguments{{"channel", "DO3"}, {"value", 1}};
    if (masked)
        arguments.insert("bitMask", 1);
    DAbstractCommand *command = device.start("setValue", arguments);
    QVERIFY(command);
    const int last = device.messenger.instructions().size() - 1;

    QSignalSpy results(command, &DAbstractCommand::sigResultChanged);
    LogCapture log;
    QVERIFY(!device.messenger.reply(last, reply));
    QCOMPARE(results.count(), 0);
    QCOMPARE(device.messenger.instructions().size(), last + 1);  // no write after a bad read
    BENCH_VERIFY_ONLY_DIAGNOSTIC(log, "d_cmd_setValue", line, message);
}

void TstCommands::factory()
{
    // Each write command makes a fresh copy of itself that sends on its own behalf.
    Device device;
    QVERIFY(device.open(benchTable()));
    for (const char *name : {"setValue", "setValues", "setBlink"}) {
        DAbstractCommand *declared = device.plugin->command(name);
        QSharedPointer<ICommand> fresh = declared->createCommand({{"channel", "DO3"}});
        QVERIFY(fresh && fresh->commandObject() != declared);
        QCOMPARE(fresh->commandName(), QString::fromLatin1(name));
        QCOMPARE(fresh->parameters(), (QVariantMap{{"channel", "DO3"}}));
        device.messenger.clear();
        QVERIFY(fresh->commandExecute());
        QCOMPARE(device.instruction(0).command, fresh->commandObject());
        QPointer<QObject> watch = fresh->commandObject();
        fresh.reset();
        QVERIFY(watch.isNull());
    }
}

void TstCommands::pulseCommands_data()
{
    QTest::addColumn<QString>("name");
    QTest::addColumn<QVariantMap>("arguments");
    QTest::addColumn<QVariantList>("writes");

    // The caller's list, element types included, goes out untouched. Both commands run
    // every row with the same expectations: they send identical sequences.
    const QVariantList list{1, "0", true};
    for (const QString &name : {QStringLiteral("setValues"), QStringLiteral("setBlink")}) {
        const QByteArray tag = name.toLatin1();
        QTest::addRow("%s: active-high widths", tag.constData())
            << name << QVariantMap{{"channel", "DO3"}, {"pulseOnWidth", 500}, {"pulseOffWidth", 250}, {"values", list}}
            << QVariantList{write(259, 500, c_holding), write(515, 250, c_holding), write(19, list, c_coils)};
        QTest::addRow("%s: active-low swaps", tag.constData())
            << name << QVariantMap{{"channel", "DO4"}, {"pulseOnWidth", 500}, {"pulseOffWidth", 250}, {"values", list}}
            << QVariantList{write(260, 250, c_holding), write(516, 500, c_holding), write(20, list, c_coils)};
        QTest::addRow("%s: zero and missing are 1", tag.constData())
            << name << QVariantMap{{"channel", "DO3"}, {"pulseOnWidth", 0}, {"values", list}}
            << QVariantList{write(259, 1, c_holding), write(515, 1, c_holding), write(19, list, c_coils)};
        QTest::addRow("%s: missing list is no data", tag.constData())
            << name << QVariantMap{{"channel", "DO3"}, {"pulseOnWidth", 5}, {"pulseOffWidth", 5}}
            << QVariantList{write(259, 5, c_holding), write(515, 5, c_holding), write(19, QVariant(), c_coils)};
    }
}

void TstCommands::pulseCommands()
{
    QFETCH(QString, name);
    QFETCH(QVariantMap, arguments);
    QFETCH(QVariantList, writes);

    Device device;
    QVERIFY(device.open(benchTable()));
    DAbstractCommand *command = device.start(name, arguments);
    QVERIFY(command);
    QCOMPARE(device.messenger.instructions().size(), writes.size());
    for (int i = 0; i < writes.size(); ++i)
        BENCH_VERIFY_INSTRUCTION(device.instruction(i), "write", false, writes.at(i).toMap());
    QVERIFY(command->results().isEmpty());
}

void TstCommands::getValues_data()
{
    QTest::addColumn<QVariant>("table");
    QTest::addColumn<QString>("channel");
    QTest::addColumn<QVariantMap>("parameters");

    const QVariant table = benchTable();
    QTest::newRow("size of the record") << table << "AI0" << QVariantMap{{"register", 0}, {"dataSize", 16}, {"registerType", "inputRegisters"}};
    QTest::newRow("coil without offset") << table << "DO3" << QVariantMap{{"register", 3}, {"dataSize", 5}, {"registerType", c_coils}};
    QTest::newRow("no size") << table << "DO4" << QVariantMap{{"register", 4}, {"dataSize", 0}, {"registerType", c_coils}};
    QTest::newRow("low 16 bits") << QVariant(QVariantList{record("X", {{"register", 65537}, {"size", 65536}, {"readRegisterType", c_holding}})})
                                 << "X" << QVariantMap{{"register", 1}, {"dataSize", 0}, {"registerType", c_holding}};
}

void TstCommands::getValues()
{
    QFETCH(QVariant, table);
    QFETCH(QString, channel);
    QFETCH(QVariantMap, parameters);

    Device device;
    QVERIFY(device.open(table));
    QVERIFY(device.start("getValues", {{"channel", channel}}));
    QCOMPARE(device.messenger.instructions().size(), 1);
    BENCH_VERIFY_INSTRUCTION(device.instruction(0), "read", false, parameters);
}

void TstCommands::listenEvents_refused()
{
    Device device;
    QVERIFY(device.open(benchTable()));
    LogCapture log;
    QVERIFY(!device.start("listenEvents", {{"channel", QString()}}));
    QVERIFY(device.messenger.instructions().isEmpty());
    BENCH_VERIFY_ONLY_DIAGNOSTIC(log, "d_cmd_listenEvents", -1, QStringLiteral("ERROR: Register number not valid"));
}

void TstCommands::listenEvents_reply_data()
{
    QTest::addColumn<QVariantMap>("reply");
    QTest::addColumn<QVariant>("result");      // invalid: nothing posted, the last result stays
    QTest::addColumn<QStringList>("messages");

    const QString count = QStringLiteral("ERROR: Command returns unwaited number of data : %1 expected 1 , receivedData = QVariant(");
    QTest::newRow("one value") << QVariantMap{{"values", QVariantList{1}}} << QVariant(QVariantMap{{"values", QVariantList{1}}}) << QStringList();
    QTest::newRow("two values") << QVariantMap{{"values", QVariantList{1, 0}}} << QVariant(QVariantMap()) << QStringList{count.arg(2)};
    QTest::newRow("not a list") << QVariantMap{{"values", 1}} << QVariant(QVariantMap())
                                << QStringList{QStringLiteral("ERROR: Reply data format not managed"), count.arg(0)};
    QTest::newRow("no values") << QVariantMap{{"value", QVariantList{1}}} << QVariant()
                               << QStringList{QStringLiteral("ERROR: Invalid reply format")};
}

void TstCommands::listenEvents_reply()
{
    QFETCH(QVariantMap, reply);
    QFETCH(QVariant, result);
    QFETCH(QStringList, messages);

    Device device;
    QVERIFY(device.open(benchTable()));
    DAbstractCommand *command = device.start("listenEvents", {{"channel", "DO3"}});
    QVERIFY(command);
    // A coil is listened to at its own register.
    BENCH_VERIFY_INSTRUCTION(device.instruction(0), "listen", true, (QVariantMap{{"register", 3}, {"registerType", c_coils}, {"dataSize", 1}}));
    QCOMPARE(command->stopCommandName(), QStringLiteral("stopListening"));
    // A good report first, so that a bad one visibly replaces it, or visibly does not.
    const QVariantMap first{{"values", QVariantList{0}}};
    QVERIFY(device.messenger.reply(0, first));

    QSignalSpy results(command, &DAbstractCommand::sigResultChanged);
    LogCapture log;
    QCOMPARE(device.messenger.reply(0, reply), result.isValid());
    QCOMPARE(results.count(), result.isValid() ? 1 : 0);
    if (result.isValid())
        QCOMPARE(results.at(0).at(0).toString(), QStringLiteral("values"));
    BENCH_COMPARE_EXACT(command->results().value("values"), result.isValid() ? result : QVariant(first));

    const QStringList texts = log.criticalTexts();
    QCOMPARE(texts.size(), messages.size());
    for (int i = 0; i < texts.size(); ++i) {
        QVERIFY2(texts.at(i).contains("plugins/p_device_moxa_iologic/source/d_cmd_listenEvents ;\t"), qPrintable(texts.at(i)));
        QVERIFY2(texts.at(i).contains(messages.at(i)), qPrintable(texts.at(i)));
    }
}

void TstCommands::getInfo_anyOrder_data()
{
    QTest::addColumn<QList<int>>("order");
    QList<int> order{0, 1, 2};
    do {
        QTest::addRow("%d%d%d", order.at(0), order.at(1), order.at(2)) << order;
    } while (std::next_permutation(order.begin(), order.end()));
}

void TstCommands::getInfo_anyOrder()
{
    QFETCH(QList<int>, order);

    Device device;
    QVERIFY(device.open(QVariantList()));
    DAbstractCommand *command = device.start("getInfo", {});
    QVERIFY(command);
    QCOMPARE(device.messenger.instructions().size(), 3);
    const int reads[3][2] = {{5000, 10}, {5029, 4}, {5024, 3}};
    for (int i = 0; i < 3; ++i)
        BENCH_VERIFY_INSTRUCTION(device.instruction(i), "read", true,
                                 (QVariantMap{{"register", reads[i][0]}, {"registerType", "inputRegisters"}, {"dataSize", reads[i][1]}}));

    const QList<QVariantMap> replies{c_modelReply, c_firmwareReply, c_macReply};
    QSignalSpy results(command, &DAbstractCommand::sigResultChanged);
    for (int index : order) {
        QCOMPARE(results.count(), 0);
        QVERIFY(device.messenger.reply(index, replies.at(index)));
    }
    QCOMPARE(results.count(), 1);
    QCOMPARE(results.at(0).at(0).toString(), QStringLiteral("deviceInformation"));
    BENCH_COMPARE_EXACT(results.at(0).at(1), (QVariantMap{{"modelName", "iE1212"}, {"softwareVersion", "V3.1.4 Build18030509"},
                                                          {"serialNumber", QString()}, {"macAddress", "00:90:E8:0A:1B:FF"}}));

    // A new execution waits for all three replies again.
    results.clear();
    QVERIFY(command->commandExecute());
    QVERIFY(device.messenger.reply(3 + order.at(0), replies.at(order.at(0))));
    QVERIFY(device.messenger.reply(3 + order.at(1), replies.at(order.at(1))));
    QCOMPARE(results.count(), 0);
}

void TstCommands::getInfo_decoding_data()
{
    QTest::addColumn<QVariantMap>("model");
    QTest::addColumn<QVariantMap>("firmware");
    QTest::addColumn<QVariantMap>("mac");
    QTest::addColumn<QStringList>("expected");   // model name, software version, MAC address

    QTest::newRow("zero high byte ends at once") << words({0x0045, 0x4142}) << c_firmwareReply << c_macReply
                                                 << QStringList{"", "V3.1.4 Build18030509", "00:90:E8:0A:1B:FF"};
    QTest::newRow("zero low byte ends") << words({0x2041, 0x4200, 0x4343}) << c_firmwareReply << c_macReply
                                        << QStringList{"AB", "V3.1.4 Build18030509", "00:90:E8:0A:1B:FF"};
    QTest::newRow("latin-1, extra words ignored") << words({0x45E9, 0x0000, 0x4141}) << words({0x0A0B, 0x0CFF, 0x0001, 0x6302, 0x7777})
                                                  << words({0xABCD, 0xEF01, 0x2345, 0x6789})
                                                  << QStringList{QStringLiteral("E\u00e9"), "V10.11.12 Build00019902", "AB:CD:EF:01:23:45"};
    QTest::newRow("non-numeric words") << QVariantMap{{"values", QVariantList{"x"}}} << QVariantMap{{"values", QVariantList{"a", "b", "c", "d"}}}
                                       << words({0x10000, 0x1FFFF, 0}) << QStringList{"", "V0.0.0 Build00000000", "00:00:FF:FF:00:00"};
}

void TstCommands::getInfo_decoding()
{
    QFETCH(QVariantMap, model);
    QFETCH(QVariantMap, firmware);
    QFETCH(QVariantMap, mac);
    QFETCH(QStringList, expected);

    Device device;
    QVERIFY(device.open(QVariantList()));
    DAbstractCommand *command = device.start("getInfo", {});
    QVERIFY(command);
    QVERIFY(device.messenger.reply(0, model));
    QVERIFY(device.messenger.reply(1, firmware));
    QVERIFY(device.messenger.reply(2, mac));
    const QVariantMap information = command->results().value("deviceInformation").toMap();
    QCOMPARE((QStringList{information.value("modelName").toString(), information.value("softwareVersion").toString(),
                          information.value("macAddress").toString()}), expected);
}

void TstCommands::getInfo_rejected_data()
{
    QTest::addColumn<int>("index");
    QTest::addColumn<QVariantMap>("reply");
    QTest::addColumn<QString>("message");

    QTest::newRow("short firmware") << 1 << words({1, 2, 3}) << "DCmdGetInfo::rplFirmwareInfo : expected 4 words, got 3";
    QTest::newRow("short mac") << 2 << words({1, 2}) << "DCmdGetInfo::rplMacAddress : expected 3 words, got 2";
    QTest::newRow("model not a list") << 0 << QVariantMap{{"values", 0x4142}} << "DCmdGetInfo::rplModelName : reply values are not a list";
    QTest::newRow("mac without values") << 2 << QVariantMap() << "DCmdGetInfo::rplMacAddress : reply does not contain values";
}

void TstCommands::getInfo_rejected()
{
    QFETCH(int, index);
    QFETCH(QVariantMap, reply);
    QFETCH(QString, message);

    Device device;
    QVERIFY(device.open(QVariantList()));
    DAbstractCommand *command = device.start("getInfo", {});
    QVERIFY(command);
    QSignalSpy results(command, &DAbstractCommand::sigResultChanged);
    const QList<QVariantMap> good{c_modelReply, c_firmwareReply, c_macReply};
    for (int i = 0; i < 3; ++i) {
        if (i != index) {
            QVERIFY(device.messenger.reply(i, good.at(i)));
            continue;
        }
        LogCapture log;
        QVERIFY(!device.messenger.reply(i, reply));
        BENCH_VERIFY_ONLY_DIAGNOSTIC(log, "d_cmd_getInfo", -1, message);
    }
    // Without that reply the result is never posted.
    QCOMPARE(results.count(), 0);
    QVERIFY(command->results().isEmpty());
}

QTEST_MAIN(TstCommands)
#include "tst_commands.moc"
