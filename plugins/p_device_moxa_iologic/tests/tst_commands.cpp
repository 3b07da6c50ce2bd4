// SPDX-License-Identifier: MIT
// The device commands of the loaded plug-in: the instructions they send for given
// arguments and channel tables, and what they make of the driver's replies.
#include "commandtestbench.h"

#include <QSignalSpy>

#include <algorithm>

using bench::Device;
using bench::record;

namespace {


QVariantMap args(std::initializer_list<std::pair<QString, QVariant>> list) { return QVariantMap(list); }

// DI2, DO3 (active-high), DO4 (active-low), AI0, and the pulse records at 0x10 / 0x100 / 0x200.
QVariantList benchTable()
{
    return {
        record(QStringLiteral("DI2"), {{QStringLiteral("register"), 2}, {QStringLiteral("readRegisterType"), QStringLiteral("discreteInputs")},
                                       {QStringLiteral("size"), 6}}),
        record(QStringLiteral("DO3"), {{QStringLiteral("register"), 3}, {QStringLiteral("readRegisterType"), QStringLiteral("coilsRegister")},
                                       {QStringLiteral("writeRegisterType"), QStringLiteral("coilsRegister")},
                                       {QStringLiteral("activeLevelHigh"), true}, {QStringLiteral("size"), 5}}),
        record(QStringLiteral("DO4"), {{QStringLiteral("register"), 4}, {QStringLiteral("readRegisterType"), QStringLiteral("coilsRegister")},
                                       {QStringLiteral("writeRegisterType"), QStringLiteral("coilsRegister")},
                                       {QStringLiteral("activeLevelHigh"), false}}),
        record(QStringLiteral("AI0"), {{QStringLiteral("register"), 0}, {QStringLiteral("readRegisterType"), QStringLiteral("inputRegisters")},
                                       {QStringLiteral("writeRegisterType"), QStringLiteral("holdingRegisters")},
                                       {QStringLiteral("size"), 16}}),
        record(QStringLiteral("DO_PulseStatus"), {{QStringLiteral("register"), 0x10}, {QStringLiteral("writeRegisterType"), QStringLiteral("coilsRegister")}}),
        record(QStringLiteral("DO_PulseOnWidth"), {{QStringLiteral("register"), 0x100}, {QStringLiteral("writeRegisterType"), QStringLiteral("holdingRegisters")}}),
        record(QStringLiteral("DO_PulseOffWidth"), {{QStringLiteral("register"), 0x200}, {QStringLiteral("writeRegisterType"), QStringLiteral("holdingRegisters")}}),
    };
}

QVariantMap write(int reg, const QVariant &data, const QString &type)
{
    return {{QStringLiteral("register"), reg}, {QStringLiteral("data"), data}, {QStringLiteral("registerType"), type}};
}

const QString c_coils = QStringLiteral("coilsRegister");
const QString c_holding = QStringLiteral("holdingRegisters");
const QString c_empty = QStringLiteral("ERROR: Reply Values list is empty");
const QString c_notList = QStringLiteral("ERROR: Values list in reply data is not in the correct format");
const QString c_noValues = QStringLiteral("ERROR: Reply data is not in the correct format");

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
    void factory_data();
    void factory();

    void pulseCommands_data();
    void pulseCommands();

    void getValues_data();
    void getValues();

    void listenEvents_emptyChannel();
    void listenEvents_instruction();
    void listenEvents_reply_data();
    void listenEvents_reply();
    void listenEvents_noValuesKeepsResult();

    void getInfo_anyOrder_data();
    void getInfo_anyOrder();
    void getInfo_decoding_data();
    void getInfo_decoding();
    void getInfo_rejected_data();
    void getInfo_rejected();
};

// ---- getValue --------------------------------------------------------------------

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
    QVERIFY(device.open(QVariantList{
        record(QStringLiteral("X"), {{QStringLiteral("register"), channelRegister}, {QStringLiteral("readRegisterType"), readType}}),
        record(QStringLiteral("DO_PulseStatus"), {{QStringLiteral("register"), pulseStatusRegister}}),
    }));
    QVERIFY(device.start(QStringLiteral("getValue"), args({{QStringLiteral("channel"), QStringLiteral("X")}})));
    QCOMPARE(device.messenger.instructions().size(), 1);
    BENCH_VERIFY_INSTRUCTION(device.instruction(0), QStringLiteral("read"), true,
                             (QVariantMap{{QStringLiteral("register"), expected}, {QStringLiteral("registerType"), readType}}));
}

void TstCommands::getValue_reply_data()
{
    QTest::addColumn<QVariantMap>("reply");
    QTest::addColumn<QVariant>("value");       // invalid: rejected
    QTest::addColumn<QString>("message");

    const QString values = QStringLiteral("values");
    QTest::newRow("first of three") << QVariantMap{{values, QVariantList{1, 0, 1}}} << QVariant(1u) << QString();
    QTest::newRow("numeric text") << QVariantMap{{values, QVariantList{QStringLiteral("12")}}} << QVariant(12u) << QString();
    QTest::newRow("full register") << QVariantMap{{values, QVariantList{65535}}} << QVariant(65535u) << QString();
    QTest::newRow("above 16 bits unmasked") << QVariantMap{{values, QVariantList{70000}}} << QVariant(70000u) << QString();
    QTest::newRow("not numeric") << QVariantMap{{values, QVariantList{QStringLiteral("on")}}} << QVariant(0u) << QString();
    QTest::newRow("single number") << QVariantMap{{values, 5}} << QVariant() << c_notList;
    QTest::newRow("string list") << QVariantMap{{values, QStringList{QStringLiteral("1")}}} << QVariant() << c_notList;
    QTest::newRow("empty list") << QVariantMap{{values, QVariantList()}} << QVariant() << c_empty;
    QTest::newRow("no values") << QVariantMap{{QStringLiteral("value"), QVariantList{1}}} << QVariant() << c_noValues;
}

void TstCommands::getValue_reply()
{
    QFETCH(QVariantMap, reply);
    QFETCH(QVariant, value);
    QFETCH(QString, message);

    Device device;
    QVERIFY(device.open(benchTable()));
    DAbstractCommand *command = device.start(QStringLiteral("getValue"), args({{QStringLiteral("channel"), QStringLiteral("AI0")}}));
    QVERIFY(command);
    QSignalSpy results(command, &DAbstractCommand::sigResultChanged);
    LogCapture log;
    const bool accepted = device.messenger.reply(0, reply);

    QCOMPARE(accepted, value.isValid());
    if (value.isValid()) {
        QCOMPARE(results.count(), 1);
        QCOMPARE(results.at(0).at(0).toString(), QStringLiteral("value"));
        BENCH_COMPARE_EXACT(results.at(0).at(1), value);
        BENCH_COMPARE_EXACT(command->results(), (QVariantMap{{QStringLiteral("value"), value}}));
        QVERIFY(log.criticalTexts().isEmpty());
    } else {
        QCOMPARE(results.count(), 0);
        QVERIFY(command->results().isEmpty());
        QString why;
        QVERIFY2(bench::isOnlyDiagnostic(log, QStringLiteral("d_cmd_getValue"), -1, message, &why), qPrintable(why));
        QVERIFY(log.criticalTexts().first().endsWith(message));
    }
}

// ---- setValue --------------------------------------------------------------------

void TstCommands::setValue_pulse_data()
{
    QTest::addColumn<QVariantMap>("arguments");
    QTest::addColumn<QVariantList>("writes");

    const QString channel = QStringLiteral("channel");
    const QString value = QStringLiteral("value");
    QTest::newRow("active-high on") << args({{channel, QStringLiteral("DO3")}, {value, 1}})
                                    << QVariantList{write(259, 65535, c_holding), write(515, 1, c_holding), write(19, 1, c_coils)};
    QTest::newRow("active-low on") << args({{channel, QStringLiteral("DO4")}, {value, 1}})
                                   << QVariantList{write(260, 1, c_holding), write(516, 65535, c_holding), write(20, 1, c_coils)};
    QTest::newRow("active-high off") << args({{channel, QStringLiteral("DO3")}, {value, 0}})
                                     << QVariantList{write(259, 1, c_holding), write(515, 1, c_holding), write(19, 0, c_coils)};
    QTest::newRow("value kept as is") << args({{channel, QStringLiteral("DO3")}, {value, 2}})
                                      << QVariantList{write(259, 65535, c_holding), write(515, 1, c_holding), write(19, 2, c_coils)};
    QTest::newRow("65536 counts as 0") << args({{channel, QStringLiteral("DO3")}, {value, 65536}})
                                       << QVariantList{write(259, 1, c_holding), write(515, 1, c_holding), write(19, 0, c_coils)};
    QTest::newRow("explicit mask 65535") << args({{channel, QStringLiteral("DO4")}, {value, 3}, {QStringLiteral("bitMask"), 65535}})
                                         << QVariantList{write(260, 1, c_holding), write(516, 65535, c_holding), write(20, 3, c_coils)};
    QTest::newRow("input takes the pulse path") << args({{channel, QStringLiteral("DI2")}, {value, 1}})
                                                << QVariantList{write(258, 1, c_holding), write(514, 65535, c_holding), write(18, 1, c_coils)};
    QTest::newRow("value missing") << args({{channel, QStringLiteral("DO3")}})
                                   << QVariantList{write(259, 1, c_holding), write(515, 1, c_holding), write(19, 0, c_coils)};
    QTest::newRow("unknown channel") << args({{channel, QStringLiteral("nope")}, {value, 1}})
                                     << QVariantList{write(256, 1, c_holding), write(512, 65535, c_holding), write(16, 1, c_coils)};
}

void TstCommands::setValue_pulse()
{
    QFETCH(QVariantMap, arguments);
    QFETCH(QVariantList, writes);

    Device device;
    QVERIFY(device.open(benchTable()));
    DAbstractCommand *command = device.start(QStringLiteral("setValue"), arguments);
    QVERIFY(command);
    QCOMPARE(device.messenger.instructions().size(), 3);
    for (int i = 0; i < 3; ++i)
        BENCH_VERIFY_INSTRUCTION(device.instruction(i), QStringLiteral("write"), true, writes.at(i).toMap());

    // The width writes are accepted unseen and post nothing; "doneOk" comes from the last.
    QSignalSpy results(command, &DAbstractCommand::sigResultChanged);
    QVERIFY(device.messenger.reply(0, {}));
    QVERIFY(device.messenger.reply(1, {{QStringLiteral("values"), QVariantList{false}}}));
    QCOMPARE(results.count(), 0);
    QVERIFY(device.messenger.reply(2, {{QStringLiteral("values"), QVariantList{1}}}));
    QCOMPARE(results.count(), 1);
    QCOMPARE(results.at(0).at(0).toString(), QStringLiteral("doneOk"));
    BENCH_COMPARE_EXACT(results.at(0).at(1), QVariant(true));
}

void TstCommands::setValue_pulseSumNotWrapped()
{
    Device device;
    QVERIFY(device.open(QVariantList{
        record(QStringLiteral("DO2"), {{QStringLiteral("register"), 2}, {QStringLiteral("activeLevelHigh"), true}}),
        record(QStringLiteral("DO_PulseStatus"), {{QStringLiteral("register"), 65535}}),
        record(QStringLiteral("DO_PulseOnWidth"), {{QStringLiteral("register"), 65534}}),
        record(QStringLiteral("DO_PulseOffWidth"), {{QStringLiteral("register"), 0x1FFFF}}),  // kept to 0xFFFF first
    }));
    QVERIFY(device.start(QStringLiteral("setValue"), args({{QStringLiteral("channel"), QStringLiteral("DO2")}, {QStringLiteral("value"), 1}})));
    QCOMPARE(device.messenger.instructions().size(), 3);
    BENCH_COMPARE_EXACT(device.instruction(0).parameters, write(65536, 65535, QString()));
    BENCH_COMPARE_EXACT(device.instruction(1).parameters, write(65537, 1, QString()));
    BENCH_COMPARE_EXACT(device.instruction(2).parameters, write(65537, 1, QString()));
}

void TstCommands::setValue_masked_data()
{
    QTest::addColumn<QString>("channel");
    QTest::addColumn<QVariant>("bitMask");
    QTest::addColumn<int>("current");
    QTest::addColumn<QVariant>("value");
    QTest::addColumn<int>("address");
    QTest::addColumn<QString>("readType");
    QTest::addColumn<QString>("writeType");
    QTest::addColumn<int>("data");

    const QString ai = QStringLiteral("AI0");
    const QString inputs = QStringLiteral("inputRegisters");
    QTest::newRow("middle nibble") << ai << QVariant(0x00F0) << 0x1234 << QVariant(0x0056) << 0 << inputs << c_holding << 0x1254;
    QTest::newRow("value above 16 bits") << ai << QVariant(0xFFFE) << 0xFFFF << QVariant(0x12345) << 0 << inputs << c_holding << 0x2345;
    QTest::newRow("mask 0 writes back") << ai << QVariant(0) << 0xABCD << QVariant(0x5432) << 0 << inputs << c_holding << 0xABCD;
    QTest::newRow("mask above 16 bits") << ai << QVariant(0x1000F) << 0x1230 << QVariant(0xFFFF) << 0 << inputs << c_holding << 0x123F;
    // No pulse status offset on this read, and no polarity on this path.
    QTest::newRow("coil at its own register") << QStringLiteral("DO4") << QVariant(1) << 0 << QVariant(1) << 4 << c_coils << c_coils << 1;
}

void TstCommands::setValue_masked()
{
    QFETCH(QString, channel);
    QFETCH(QVariant, bitMask);
    QFETCH(int, current);
    QFETCH(QVariant, value);
    QFETCH(int, address);
    QFETCH(QString, readType);
    QFETCH(QString, writeType);
    QFETCH(int, data);

    Device device;
    QVERIFY(device.open(benchTable()));
    DAbstractCommand *command = device.start(QStringLiteral("setValue"),
        args({{QStringLiteral("channel"), channel}, {QStringLiteral("bitMask"), bitMask}, {QStringLiteral("value"), value}}));
    QVERIFY(command);
    QCOMPARE(device.messenger.instructions().size(), 1);
    BENCH_VERIFY_INSTRUCTION(device.instruction(0), QStringLiteral("read"), true,
                             (QVariantMap{{QStringLiteral("register"), address}, {QStringLiteral("registerType"), readType}}));

    QSignalSpy results(command, &DAbstractCommand::sigResultChanged);
    QVERIFY(device.messenger.reply(0, {{QStringLiteral("values"), QVariantList{current, 0x7777}}}));
    QCOMPARE(results.count(), 0);
    QCOMPARE(device.messenger.instructions().size(), 2);
    BENCH_VERIFY_INSTRUCTION(device.instruction(1), QStringLiteral("write"), true, write(address, data, writeType));

    QVERIFY(device.messenger.reply(1, {{QStringLiteral("values"), QVariantList{0}}}));
    QCOMPARE(results.count(), 1);
    BENCH_COMPARE_EXACT(command->results(), (QVariantMap{{QStringLiteral("doneOk"), false}}));
}

void TstCommands::setValue_replyChecks_data()
{
    QTest::addColumn<bool>("masked");
    QTest::addColumn<QVariantMap>("reply");
    QTest::addColumn<int>("line");
    QTest::addColumn<QString>("message");

    const QString values = QStringLiteral("values");
    QTest::newRow("read: empty") << true << QVariantMap{{values, QVariantList()}} << 136 << c_empty;
    QTest::newRow("read: not a list") << true << QVariantMap{{values, 1}} << 139 << c_notList;
    QTest::newRow("read: no values") << true << QVariantMap() << 142 << c_noValues;
    QTest::newRow("write: empty") << false << QVariantMap{{values, QVariantList()}} << 168 << c_empty;
    QTest::newRow("write: not a list") << false << QVariantMap{{values, QStringLiteral("1")}} << 171 << c_notList;
    QTest::newRow("write: no values") << false << QVariantMap{{QStringLiteral("data"), QVariantList{1}}} << 174 << c_noValues;
}

void TstCommands::setValue_replyChecks()
{
    QFETCH(bool, masked);
    QFETCH(QVariantMap, reply);
    QFETCH(int, line);
    QFETCH(QString, message);

    Device device;
    QVERIFY(device.open(benchTable()));
    QVariantMap arguments{{QStringLiteral("channel"), QStringLiteral("DO3")}, {QStringLiteral("value"), 1}};
    if (masked)
        arguments.insert(QStringLiteral("bitMask"), 1);
    DAbstractCommand *command = device.start(QStringLiteral("setValue"), arguments);
    QVERIFY(command);
    const int last = device.messenger.instructions().size() - 1;

    QSignalSpy results(command, &DAbstractCommand::sigResultChanged);
    LogCapture log;
    QVERIFY(!device.messenger.reply(last, reply));
    QCOMPARE(results.count(), 0);
    QCOMPARE(device.messenger.instructions().size(), last + 1);  // no write after a bad read
    QString why;
    QVERIFY2(bench::isOnlyDiagnostic(log, QStringLiteral("d_cmd_setValue"), line, message, &why), qPrintable(why));
    QVERIFY(log.criticalTexts().first().endsWith(message));
}

void TstCommands::factory_data()
{
    QTest::addColumn<QString>("name");

    QTest::newRow("setValue") << QStringLiteral("setValue");
    QTest::newRow("setValues") << QStringLiteral("setValues");
    QTest::newRow("setBlink") << QStringLiteral("setBlink");
}

void TstCommands::factory()
{
    QFETCH(QString, name);

    Device device;
    QVERIFY(device.open(benchTable()));
    DAbstractCommand *declared = device.plugin->command(name);
    const QVariantMap arguments{{QStringLiteral("channel"), QStringLiteral("DO3")}};
    QSharedPointer<ICommand> fresh = declared->createCommand(arguments);
    QVERIFY(fresh);
    QVERIFY(fresh->commandObject() != declared);
    QCOMPARE(fresh->commandObject()->parent(), device.plugin.get());
    QCOMPARE(fresh->commandName(), name);
    QCOMPARE(fresh->parameters(), arguments);
    QVERIFY(declared->parameters().isEmpty());
    QCOMPARE(fresh->commandArguments().size(), declared->commandArguments().size());

    // The fresh command sends on its own behalf through the plug-in's messenger.
    QVERIFY(fresh->commandExecute());
    QCOMPARE(device.messenger.instructions().size(), 3);
    QCOMPARE(device.instruction(0).command, fresh->commandObject());
    QPointer<QObject> watch = fresh->commandObject();
    fresh.reset();
    QVERIFY(watch.isNull());
}

// ---- setValues / setBlink ------------------------------------------------------------

void TstCommands::pulseCommands_data()
{
    QTest::addColumn<QString>("name");
    QTest::addColumn<QVariantMap>("arguments");
    QTest::addColumn<QVariantList>("writes");

    const QString channel = QStringLiteral("channel");
    const QString on = QStringLiteral("pulseOnWidth");
    const QString off = QStringLiteral("pulseOffWidth");
    const QString values = QStringLiteral("values");
    // The caller's list, element types included, goes out untouched. Both commands run
    // every row with the same expectations: they send identical sequences.
    const QVariantList list{1, QStringLiteral("0"), true};
    for (const QString &name : {QStringLiteral("setValues"), QStringLiteral("setBlink")}) {
        const QByteArray tag = name.toLatin1();
        QTest::addRow("%s: active-high widths", tag.constData()) << name << args({{channel, QStringLiteral("DO3")}, {on, 500}, {off, 250}, {values, list}})
            << QVariantList{write(259, 500, c_holding), write(515, 250, c_holding), write(19, list, c_coils)};
        QTest::addRow("%s: active-low swaps", tag.constData()) << name << args({{channel, QStringLiteral("DO4")}, {on, 500}, {off, 250}, {values, list}})
            << QVariantList{write(260, 250, c_holding), write(516, 500, c_holding), write(20, list, c_coils)};
        QTest::addRow("%s: zero and missing are 1", tag.constData()) << name << args({{channel, QStringLiteral("DO3")}, {on, 0}, {values, list}})
            << QVariantList{write(259, 1, c_holding), write(515, 1, c_holding), write(19, list, c_coils)};
        QTest::addRow("%s: text widths", tag.constData()) << name << args({{channel, QStringLiteral("DO3")}, {on, QStringLiteral("40")}, {off, QStringLiteral("x")}, {values, list}})
            << QVariantList{write(259, 40, c_holding), write(515, 1, c_holding), write(19, list, c_coils)};
        QTest::addRow("%s: width low 16 bits", tag.constData()) << name << args({{channel, QStringLiteral("DO3")}, {on, 70000}, {off, 65536}, {values, list}})
            << QVariantList{write(259, 4464, c_holding), write(515, 1, c_holding), write(19, list, c_coils)};
        QTest::addRow("%s: single value passed as is", tag.constData()) << name << args({{channel, QStringLiteral("DI2")}, {on, 7}, {off, 9}, {values, 1}})
            << QVariantList{write(258, 9, c_holding), write(514, 7, c_holding), write(18, 1, c_coils)};
        QTest::addRow("%s: missing list is no data", tag.constData()) << name << args({{channel, QStringLiteral("DO3")}, {on, 5}, {off, 5}})
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
        BENCH_VERIFY_INSTRUCTION(device.instruction(i), QStringLiteral("write"), false, writes.at(i).toMap());
    QVERIFY(command->results().isEmpty());
}

// ---- getValues -------------------------------------------------------------------------

void TstCommands::getValues_data()
{
    QTest::addColumn<QVariant>("table");
    QTest::addColumn<QString>("channel");
    QTest::addColumn<QVariantMap>("parameters");

    const QString reg = QStringLiteral("register");
    const QString size = QStringLiteral("dataSize");
    const QString type = QStringLiteral("registerType");
    QTest::newRow("size of the record") << QVariant(benchTable()) << QStringLiteral("AI0")
                                        << QVariantMap{{reg, 0}, {size, 16}, {type, QStringLiteral("inputRegisters")}};
    QTest::newRow("coil without offset") << QVariant(benchTable()) << QStringLiteral("DO3")
                                         << QVariantMap{{reg, 3}, {size, 5}, {type, c_coils}};
    QTest::newRow("no size") << QVariant(benchTable()) << QStringLiteral("DO4")
                             << QVariantMap{{reg, 4}, {size, 0}, {type, c_coils}};
    QTest::newRow("unknown channel") << QVariant(benchTable()) << QStringLiteral("nope")
                                     << QVariantMap{{reg, 0}, {size, 0}, {type, QString()}};
    QTest::newRow("low 16 bits") << QVariant(QVariantList{record(QStringLiteral("X"), {{QStringLiteral("register"), 65537}, {QStringLiteral("size"), 65536},
                                                                                        {QStringLiteral("readRegisterType"), c_holding}})})
                                 << QStringLiteral("X") << QVariantMap{{reg, 1}, {size, 0}, {type, c_holding}};
}

void TstCommands::getValues()
{
    QFETCH(QVariant, table);
    QFETCH(QString, channel);
    QFETCH(QVariantMap, parameters);

    Device device;
    QVERIFY(device.open(table));
    QVERIFY(device.start(QStringLiteral("getValues"), args({{QStringLiteral("channel"), channel}})));
    QCOMPARE(device.messenger.instructions().size(), 1);
    BENCH_VERIFY_INSTRUCTION(device.instruction(0), QStringLiteral("read"), false, parameters);
}

// ---- listenEvents ------------------------------------------------------------------------

void TstCommands::listenEvents_emptyChannel()
{
    Device device;
    QVERIFY(device.open(benchTable()));
    LogCapture log;
    QVERIFY(!device.start(QStringLiteral("listenEvents"), args({{QStringLiteral("channel"), QString()}})));
    QVERIFY(device.messenger.instructions().isEmpty());
    QString why;
    QVERIFY2(bench::isOnlyDiagnostic(log, QStringLiteral("d_cmd_listenEvents"), -1, QStringLiteral("ERROR: Register number not valid"), &why),
             qPrintable(why));
}

void TstCommands::listenEvents_instruction()
{
    Device device;
    QVERIFY(device.open(benchTable()));
    DAbstractCommand *command = device.start(QStringLiteral("listenEvents"), args({{QStringLiteral("channel"), QStringLiteral("DO3")}}));
    QVERIFY(command);
    QCOMPARE(command->stopCommandName(), QStringLiteral("stopListening"));
    QCOMPARE(device.messenger.instructions().size(), 1);
    // A coil is listened to at its own register.
    BENCH_VERIFY_INSTRUCTION(device.instruction(0), QStringLiteral("listen"), true,
                             (QVariantMap{{QStringLiteral("register"), 3}, {QStringLiteral("registerType"), c_coils}, {QStringLiteral("dataSize"), 1}}));
}

void TstCommands::listenEvents_reply_data()
{
    QTest::addColumn<QVariant>("values");
    QTest::addColumn<QVariant>("result");
    QTest::addColumn<QStringList>("messages");

    const QString count = QStringLiteral("ERROR: Command returns unwaited number of data : %1 expected 1 , receivedData = QVariant(");
    QTest::newRow("one value") << QVariant(QVariantList{1}) << QVariant(QVariantMap{{QStringLiteral("values"), QVariantList{1}}}) << QStringList();
    QTest::newRow("two values") << QVariant(QVariantList{1, 0}) << QVariant(QVariantMap()) << QStringList{count.arg(2)};
    QTest::newRow("no value") << QVariant(QVariantList()) << QVariant(QVariantMap()) << QStringList{count.arg(0)};
    QTest::newRow("not a list") << QVariant(1) << QVariant(QVariantMap())
                                << QStringList{QStringLiteral("ERROR: Reply data format not managed"), count.arg(0)};
}

void TstCommands::listenEvents_reply()
{
    QFETCH(QVariant, values);
    QFETCH(QVariant, result);
    QFETCH(QStringList, messages);

    Device device;
    QVERIFY(device.open(benchTable()));
    DAbstractCommand *command = device.start(QStringLiteral("listenEvents"), args({{QStringLiteral("channel"), QStringLiteral("DI2")}}));
    QVERIFY(command);
    // A good report first, so that a bad one visibly replaces it.
    QVERIFY(device.messenger.reply(0, {{QStringLiteral("values"), QVariantList{0}}}));

    QSignalSpy results(command, &DAbstractCommand::sigResultChanged);
    LogCapture log;
    QVERIFY(device.messenger.reply(0, {{QStringLiteral("values"), values}}));
    QCOMPARE(results.count(), 1);
    QCOMPARE(results.at(0).at(0).toString(), QStringLiteral("values"));
    BENCH_COMPARE_EXACT(results.at(0).at(1), result);
    BENCH_COMPARE_EXACT(command->results().value(QStringLiteral("values")), result);

    const QStringList texts = log.criticalTexts();
    QCOMPARE(texts.size(), messages.size());
    for (int i = 0; i < texts.size(); ++i) {
        QVERIFY2(texts.at(i).contains(QStringLiteral("plugins/p_device_moxa_iologic/source/d_cmd_listenEvents ;\t")), qPrintable(texts.at(i)));
        QVERIFY2(texts.at(i).contains(messages.at(i)), qPrintable(texts.at(i)));
    }
}

void TstCommands::listenEvents_noValuesKeepsResult()
{
    Device device;
    QVERIFY(device.open(benchTable()));
    DAbstractCommand *command = device.start(QStringLiteral("listenEvents"), args({{QStringLiteral("channel"), QStringLiteral("DI2")}}));
    QVERIFY(command);
    QVERIFY(device.messenger.reply(0, {{QStringLiteral("values"), QVariantList{1}}}));

    QSignalSpy results(command, &DAbstractCommand::sigResultChanged);
    LogCapture log;
    QVERIFY(!device.messenger.reply(0, {{QStringLiteral("value"), QVariantList{0}}}));
    QCOMPARE(results.count(), 0);
    BENCH_COMPARE_EXACT(command->results(), (QVariantMap{{QStringLiteral("values"), QVariantMap{{QStringLiteral("values"), QVariantList{1}}}}}));
    QString why;
    QVERIFY2(bench::isOnlyDiagnostic(log, QStringLiteral("d_cmd_listenEvents"), -1, QStringLiteral("ERROR: Invalid reply format"), &why),
             qPrintable(why));
}

// ---- getInfo ---------------------------------------------------------------------------

namespace {
QVariantMap words(std::initializer_list<int> list)
{
    QVariantList values;
    for (int word : list)
        values << word;
    return {{QStringLiteral("values"), values}};
}
const QVariantMap c_modelReply = words({0x6945, 0x3132, 0x3132, 0x2000, 0, 0, 0, 0, 0, 0});
const QVariantMap c_firmwareReply = words({0x0301, 0x0400, 0x1203, 0x0509});
const QVariantMap c_macReply = words({0x0090, 0xE80A, 0x1BFF});
} // namespace

void TstCommands::getInfo_anyOrder_data()
{
    QTest::addColumn<QList<int>>("order");
    QList<int> order{0, 1, 2};
    do {
        QTest::newRow(qPrintable(QStringLiteral("%1%2%3").arg(order.at(0)).arg(order.at(1)).arg(order.at(2)))) << order;
    } while (std::next_permutation(order.begin(), order.end()));
}

void TstCommands::getInfo_anyOrder()
{
    QFETCH(QList<int>, order);

    Device device;
    QVERIFY(device.open(QVariantList()));
    DAbstractCommand *command = device.start(QStringLiteral("getInfo"), {});
    QVERIFY(command);
    const QList<QVariantMap> expectedReads{
        {{QStringLiteral("register"), 5000}, {QStringLiteral("registerType"), QStringLiteral("inputRegisters")}, {QStringLiteral("dataSize"), 10}},
        {{QStringLiteral("register"), 5029}, {QStringLiteral("registerType"), QStringLiteral("inputRegisters")}, {QStringLiteral("dataSize"), 4}},
        {{QStringLiteral("register"), 5024}, {QStringLiteral("registerType"), QStringLiteral("inputRegisters")}, {QStringLiteral("dataSize"), 3}},
    };
    QCOMPARE(device.messenger.instructions().size(), 3);
    for (int i = 0; i < 3; ++i)
        BENCH_VERIFY_INSTRUCTION(device.instruction(i), QStringLiteral("read"), true, expectedReads.at(i));

    const QList<QVariantMap> replies{c_modelReply, c_firmwareReply, c_macReply};
    QSignalSpy results(command, &DAbstractCommand::sigResultChanged);
    for (int index : order) {
        QCOMPARE(results.count(), 0);
        QVERIFY(device.messenger.reply(index, replies.at(index)));
    }
    QCOMPARE(results.count(), 1);
    QCOMPARE(results.at(0).at(0).toString(), QStringLiteral("deviceInformation"));
    BENCH_COMPARE_EXACT(results.at(0).at(1), (QVariantMap{
        {QStringLiteral("modelName"), QStringLiteral("iE1212")},
        {QStringLiteral("softwareVersion"), QStringLiteral("V3.1.4 Build18030509")},
        {QStringLiteral("serialNumber"), QString()},
        {QStringLiteral("macAddress"), QStringLiteral("00:90:E8:0A:1B:FF")},
    }));

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
    QTest::addColumn<QString>("modelName");
    QTest::addColumn<QString>("softwareVersion");
    QTest::addColumn<QString>("macAddress");

    QTest::newRow("module") << c_modelReply << c_firmwareReply << c_macReply
                            << QStringLiteral("iE1212") << QStringLiteral("V3.1.4 Build18030509") << QStringLiteral("00:90:E8:0A:1B:FF");
    QTest::newRow("zero high byte ends at once") << words({0x0045, 0x4142}) << c_firmwareReply << c_macReply
                                                 << QString() << QStringLiteral("V3.1.4 Build18030509") << QStringLiteral("00:90:E8:0A:1B:FF");
    QTest::newRow("zero low byte ends") << words({0x2041, 0x4200, 0x4343}) << c_firmwareReply << c_macReply
                                        << QStringLiteral("AB") << QStringLiteral("V3.1.4 Build18030509") << QStringLiteral("00:90:E8:0A:1B:FF");
    QTest::newRow("latin-1, extra words ignored") << words({0x45E9, 0x0000, 0x4141}) << words({0x0A0B, 0x0CFF, 0x0001, 0x6302, 0x7777})
                                                  << words({0xABCD, 0xEF01, 0x2345, 0x6789})
                                                  << QStringLiteral("E\u00e9") << QStringLiteral("V10.11.12 Build00019902") << QStringLiteral("AB:CD:EF:01:23:45");
    QTest::newRow("non-numeric words") << QVariantMap{{QStringLiteral("values"), QVariantList{QStringLiteral("x")}}}
                                       << QVariantMap{{QStringLiteral("values"), QVariantList{QStringLiteral("a"), QStringLiteral("b"), QStringLiteral("c"), QStringLiteral("d")}}}
                                       << words({0x10000, 0x1FFFF, 0})
                                       << QString() << QStringLiteral("V0.0.0 Build00000000") << QStringLiteral("00:00:FF:FF:00:00");
}

void TstCommands::getInfo_decoding()
{
    QFETCH(QVariantMap, model);
    QFETCH(QVariantMap, firmware);
    QFETCH(QVariantMap, mac);
    QFETCH(QString, modelName);
    QFETCH(QString, softwareVersion);
    QFETCH(QString, macAddress);

    Device device;
    QVERIFY(device.open(QVariantList()));
    DAbstractCommand *command = device.start(QStringLiteral("getInfo"), {});
    QVERIFY(command);
    QVERIFY(device.messenger.reply(0, model));
    QVERIFY(device.messenger.reply(1, firmware));
    QVERIFY(device.messenger.reply(2, mac));
    const QVariantMap information = command->results().value(QStringLiteral("deviceInformation")).toMap();
    QCOMPARE(information.value(QStringLiteral("modelName")).toString(), modelName);
    QCOMPARE(information.value(QStringLiteral("softwareVersion")).toString(), softwareVersion);
    QCOMPARE(information.value(QStringLiteral("macAddress")).toString(), macAddress);
    BENCH_COMPARE_EXACT(information.value(QStringLiteral("serialNumber")), QString());
}

void TstCommands::getInfo_rejected_data()
{
    QTest::addColumn<int>("index");
    QTest::addColumn<QVariantMap>("reply");
    QTest::addColumn<QString>("message");

    const QString values = QStringLiteral("values");
    QTest::newRow("short firmware") << 1 << words({1, 2, 3}) << QStringLiteral("DCmdGetInfo::rplFirmwareInfo : expected 4 words, got 3");
    QTest::newRow("short mac") << 2 << words({1, 2}) << QStringLiteral("DCmdGetInfo::rplMacAddress : expected 3 words, got 2");
    QTest::newRow("model not a list") << 0 << QVariantMap{{values, 0x4142}} << QStringLiteral("DCmdGetInfo::rplModelName : reply values are not a list");
    QTest::newRow("firmware not a list") << 1 << QVariantMap{{values, QStringLiteral("V1")}} << QStringLiteral("DCmdGetInfo::rplFirmwareInfo : reply values are not a list");
    QTest::newRow("mac without values") << 2 << QVariantMap() << QStringLiteral("DCmdGetInfo::rplMacAddress : reply does not contain values");
    QTest::newRow("model without values") << 0 << QVariantMap{{QStringLiteral("value"), QVariantList{}}}
                                          << QStringLiteral("DCmdGetInfo::rplModelName : reply does not contain values");
}

void TstCommands::getInfo_rejected()
{
    QFETCH(int, index);
    QFETCH(QVariantMap, reply);
    QFETCH(QString, message);

    Device device;
    QVERIFY(device.open(QVariantList()));
    DAbstractCommand *command = device.start(QStringLiteral("getInfo"), {});
    QVERIFY(command);
    QSignalSpy results(command, &DAbstractCommand::sigResultChanged);
    const QList<QVariantMap> good{c_modelReply, c_firmwareReply, c_macReply};
    for (int i = 0; i < 3; ++i) {
        if (i == index) {
            LogCapture log;
            QVERIFY(!device.messenger.reply(i, reply));
            QString why;
            QVERIFY2(bench::isOnlyDiagnostic(log, QStringLiteral("d_cmd_getInfo"), -1, message, &why), qPrintable(why));
            QVERIFY2(log.criticalTexts().first().endsWith(message), qPrintable(log.criticalTexts().first()));
        } else {
            QVERIFY(device.messenger.reply(i, good.at(i)));
        }
    }
    // Without that reply the result is never posted.
    QCOMPARE(results.count(), 0);
    QVERIFY(command->results().isEmpty());
}

QTEST_MAIN(TstCommands)
#include "tst_commands.moc"
