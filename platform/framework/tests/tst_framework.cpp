// SPDX-License-Identifier: MIT
// The plug-in and command bases: channel lookups, argument checks and defaults, results,
// declared commands, the identity command, error values, configuration paths and properties.
#include "dabstractcommand.h"
#include "dabstractplugin.h"
#include "dabstractpluginbackend.h"
#include "derror.h"
#include "testmessenger.h"

#include <QSignalSpy>
#include <QtTest>

namespace {

class TestPlugin : public DAbstractPlugin
{
public:
    explicit TestPlugin(const QUuid &instance = QUuid::createUuid())
        : DAbstractPlugin(QUuid(QStringLiteral("{0b1d2c3e-0000-4000-8000-000000000001}")), QStringLiteral("Test plug-in"),
                          IPlugin::CeDevice, 0x0002000300000000ull, instance, nullptr, false)
    {
        initAbstractCommands();
    }
    IPlugin *createInstance(const QUuid &instance) const override { return new TestPlugin(instance); }
};

class TestCommand : public DAbstractCommand
{
public:
    explicit TestCommand(QObject *parent, const QString &name = QStringLiteral("probe"), const QString &stop = QString())
        : DAbstractCommand(name, stop, {}, parent)
    {
        setDescription(QStringLiteral("Probe"));
        declareAParameter(QStringLiteral("channel"), QStringLiteral("strg"), QStringLiteral("Channel name"), QStringLiteral("DO0"));
        declareAParameter(QStringLiteral("bitMask"), QStringLiteral("ui16"), QStringLiteral("Mask"), QVariant(int(65535)));
        declareAParameter(QStringLiteral("values"), QStringLiteral("varL"), QStringLiteral("Values"), QVariant(QStringLiteral("")));
        declareAParameter(QStringLiteral("width"), QStringLiteral("int"), QStringLiteral("Width"), QVariant());
        declareAParameter(QStringLiteral("on"), QStringLiteral("bool"), QStringLiteral("On"), QVariant());
        declareAParameter(QStringLiteral("any"), QStringLiteral("vart"), QStringLiteral("Anything"), QVariant());
        declareAResult(QStringLiteral("value"), QStringLiteral("ui16"), QStringLiteral("Value"), QVariant());
    }
    using DAbstractCommand::getInfoFromChannel;
    using DAbstractCommand::getParameterValue;
};

QVariantMap entry(const QString &id, const QVariant &value)
{
    return {{QStringLiteral("id"), id}, {QStringLiteral("value"), value}};
}

QVariantList channelTable()
{
    return {QVariantMap{{"id", "DO3"}, {"name", "Output 3"}, {"value", QVariantList{entry("register", 3), entry("registerText", "12"),
                entry("readRegisterType", "coilsRegister"), QStringLiteral("not a map"), entry("badNumber", "twelve")}}},
            QVariantMap{{"id", "DO3"}, {"value", QVariantList{entry("register", 99)}}}};
}

// The probe command on a test plug-in, attached to a recording messenger unless told otherwise.
struct Bench
{
    TestMessenger messenger;
    TestPlugin plugin;
    TestCommand command{&plugin};
    explicit Bench(bool attached = true) { plugin.setMessenger(attached ? &messenger : nullptr); }
};

class TestBackend : public DAbstractPluginBackend
{
public:
    void commandFailed(unsigned long long runId, const QString &command, const DError &error) override
    {
        failures << QStringLiteral("%1 %2 %3 %4 %5").arg(runId).arg(command).arg(int(error.code)).arg(error.exceptionCode).arg(error.text);
    }
    QStringList failures;
};

} // namespace

class TstFramework : public QObject
{
    Q_OBJECT
private slots:
    void getInfoFromChannel_data()
    {
        QTest::addColumn<bool>("withTable");
        QTest::addColumn<QString>("channel");
        QTest::addColumn<QString>("key");
        QTest::addColumn<int>("type");
        QTest::addColumn<QVariant>("defaultValue");
        QTest::addColumn<QVariant>("expected");

        const QVariant invalid;
        QTest::newRow("text converts to uint") << true << "DO3" << "registerText" << int(QMetaType::UInt) << invalid << QVariant(12u);
        QTest::newRow("string") << true << "DO3" << "readRegisterType" << int(QMetaType::QString) << invalid << QVariant(QStringLiteral("coilsRegister"));
        QTest::newRow("first record wins") << true << "DO3" << "register" << int(QMetaType::Int) << invalid << QVariant(3);
        QTest::newRow("missing record") << true << "DO9" << "register" << int(QMetaType::UInt) << invalid << invalid;
        QTest::newRow("missing entry, default") << true << "DO3" << "size" << int(QMetaType::UInt) << QVariant(7u) << QVariant(7u);
        QTest::newRow("does not convert, default") << true << "DO3" << "badNumber" << int(QMetaType::UInt) << QVariant(false) << QVariant(false);
        QTest::newRow("no table") << false << "DO3" << "register" << int(QMetaType::UInt) << QVariant(5u) << QVariant(5u);
    }

    void getInfoFromChannel()
    {
        QFETCH(bool, withTable);
        QFETCH(QString, channel);
        QFETCH(QString, key);
        QFETCH(int, type);
        QFETCH(QVariant, defaultValue);
        QFETCH(QVariant, expected);

        Bench bench;
        if (withTable)
            bench.plugin.addToParameters(QStringLiteral("channels"), channelTable());
        const QVariant actual = bench.command.getInfoFromChannel(channel, key, QMetaType::Type(type), defaultValue);
        QCOMPARE(actual.userType(), expected.userType());
        QCOMPARE(actual, expected);
    }

    void parameterValues_data()
    {
        QTest::addColumn<QString>("name");
        QTest::addColumn<QVariant>("fallback");
        QTest::addColumn<QVariant>("expected");

        QTest::newRow("declared default") << "bitMask" << QVariant() << QVariant(int(65535));
        QTest::newRow("declared text default") << "channel" << QVariant() << QVariant(QStringLiteral("DO0"));
        QTest::newRow("invalid declared default -> fallback") << "width" << QVariant(QStringLiteral("x")) << QVariant(QStringLiteral("x"));
        QTest::newRow("invalid vart default -> fallback") << "any" << QVariant(2) << QVariant(2);
        QTest::newRow("default of another type -> fallback") << "values" << QVariant() << QVariant();
        QTest::newRow("undeclared -> fallback") << "other" << QVariant(2) << QVariant(2);
    }

    void parameterValues()
    {
        QFETCH(QString, name);
        QFETCH(QVariant, fallback);
        QFETCH(QVariant, expected);
        QCOMPARE(Bench().command.getParameterValue(name, fallback), expected);
    }

    // Unchecked (the default), a command refuses only an undeclared argument and reads the others as given.
    void executeRefusals_data()
    {
        QTest::addColumn<bool>("withMessenger");
        QTest::addColumn<QVariantMap>("arguments");
        QTest::addColumn<QString>("error");

        const QVariantMap wrongType{{QStringLiteral("channel"), QStringLiteral("DO3")}, {QStringLiteral("bitMask"), QStringLiteral("abc")}};
        QTest::newRow("no messenger") << false << QVariantMap{} << "command \"probe\" cannot run: it is not attached to a host (no plug-in messenger)";
        QTest::newRow("unknown parameter") << true << QVariantMap{{QStringLiteral("chanel"), QStringLiteral("DO3")}}
                                           << "command \"probe\" has no parameter \"chanel\" (it takes: channel, bitMask, values, width, on, any)";
        QTest::newRow("wrong type") << true << wrongType << QString();
    }

    void executeRefusals()
    {
        QFETCH(bool, withMessenger);
        QFETCH(QVariantMap, arguments);
        QFETCH(QString, error);
        Bench bench(withMessenger);
        bench.command.setParameters(arguments);
        QCOMPARE(bench.command.commandExecute(), error.isEmpty());
        QCOMPARE(bench.command.errorString(), error);
        if (error.isEmpty())
            QCOMPARE(bench.command.getParameterValue(QStringLiteral("bitMask")), arguments.value(QStringLiteral("bitMask")));
    }

    void typeCodes_data()
    {
        QTest::addColumn<QString>("name");
        QTest::addColumn<QVariant>("value");
        // What the command reads once checked; invalid when the argument is refused.
        QTest::addColumn<QVariant>("converted");
        // How the refusal shows the value.
        QTest::addColumn<QString>("shown");

        const QVariant refused;
        QTest::newRow("strg text") << "channel" << QVariant(QStringLiteral("DO3")) << QVariant(QStringLiteral("DO3")) << "";
        QTest::newRow("strg number") << "channel" << QVariant(3) << refused << "3";
        QTest::newRow("ui16 zero") << "bitMask" << QVariant(0u) << QVariant(0) << "";
        QTest::newRow("ui16 above") << "bitMask" << QVariant(65536) << refused << "65536";
        QTest::newRow("ui16 negative") << "bitMask" << QVariant(-1) << refused << "-1";
        QTest::newRow("ui16 whole double") << "bitMask" << QVariant(2.0) << QVariant(2) << "";
        QTest::newRow("ui16 fraction") << "bitMask" << QVariant(1.5) << refused << "1.5";
        QTest::newRow("ui16 top double") << "bitMask" << QVariant(65535.0) << QVariant(65535) << "";
        QTest::newRow("ui16 double above") << "bitMask" << QVariant(65536.0) << refused << "65536";
        QTest::newRow("ui16 unsigned 64 bits") << "bitMask" << QVariant(qulonglong(65535)) << QVariant(65535) << "";
        QTest::newRow("ui16 unsigned above") << "bitMask" << QVariant(qulonglong(65536)) << refused << "65536";
        QTest::newRow("ui16 list") << "bitMask" << QVariant(QVariantList{1}) << refused << "[1]";
        QTest::newRow("ui16 hex digits") << "bitMask" << QVariant(QStringLiteral("0xaBcD")) << QVariant(0xABCD) << "";
        QTest::newRow("ui16 text above") << "bitMask" << QVariant(QStringLiteral("65536")) << refused << "\"65536\"";
        QTest::newRow("int text above") << "width" << QVariant(QStringLiteral("2147483648")) << refused << "\"2147483648\"";
        QTest::newRow("int text below") << "width" << QVariant(QStringLiteral("-0x80000001")) << refused << "\"-0x80000001\"";
        QTest::newRow("ui16 decimal text") << "bitMask" << QVariant(QStringLiteral("0255")) << QVariant(255) << "";
        QTest::newRow("ui16 hex text") << "bitMask" << QVariant(QStringLiteral("0XfFfF")) << QVariant(65535) << "";
        QTest::newRow("ui16 word") << "bitMask" << QVariant(QStringLiteral("abc")) << refused << "\"abc\"";
        QTest::newRow("int lowest text") << "width" << QVariant(QStringLiteral("-2147483648")) << QVariant(std::numeric_limits<int>::min()) << "";
        QTest::newRow("int above") << "width" << QVariant(qint64(2147483648LL)) << refused << "2147483648";
        QTest::newRow("int below") << "width" << QVariant(qint64(-2147483649LL)) << refused << "-2147483649";
        QTest::newRow("int not a number") << "width" << QVariant(qQNaN()) << refused << "nan";
        QTest::newRow("bool") << "on" << QVariant(true) << QVariant(true) << "";
        QTest::newRow("bool text") << "on" << QVariant(QStringLiteral("false")) << QVariant(false) << "";
        QTest::newRow("bool other text") << "on" << QVariant(QStringLiteral("yes")) << refused << "\"yes\"";
        QTest::newRow("bool number") << "on" << QVariant(0) << refused << "0";
        QTest::newRow("varL list") << "values" << QVariant(QVariantList{1, QStringLiteral("x")}) << QVariant(QVariantList{1, QStringLiteral("x")}) << "";
        QTest::newRow("varL text") << "values" << QVariant(QStringLiteral("1,0")) << refused << "\"1,0\"";
        QTest::newRow("vart anything") << "any" << QVariant(QStringLiteral("0x10")) << QVariant(QStringLiteral("0x10")) << "";
    }

    void typeCodes()
    {
        QFETCH(QString, name);
        QFETCH(QVariant, value);
        QFETCH(QVariant, converted);
        QFETCH(QString, shown);

        Bench bench;
        TestCommand &command = bench.command;
        command.setArgumentChecks(true);
        command.setParameters({{name, value}});
        QCOMPARE(command.commandExecute(), converted.isValid());
        if (converted.isValid()) {
            const QVariant actual = command.getParameterValue(name);
            QCOMPARE(actual.userType(), converted.userType());
            QCOMPARE(actual, converted);
            return;
        }
        // What each type code accepts, as the refusal tells the caller.
        static const QMap<QString, QString> expected{
            {QStringLiteral("channel"), QStringLiteral("\"strg\" (a text)")},
            {QStringLiteral("bitMask"), QStringLiteral("\"ui16\" (a whole number from 0 to 65535, decimal or 0x hex)")},
            {QStringLiteral("width"), QStringLiteral("\"int\" (a whole number from -2147483648 to 2147483647, decimal or 0x hex)")},
            {QStringLiteral("on"), QStringLiteral("\"bool\" (true, false, \"true\", \"false\", \"1\" or \"0\")")},
            {QStringLiteral("values"), QStringLiteral("\"varL\" (a list)")},
        };
        QCOMPARE(command.errorString(), QStringLiteral("command \"probe\": argument \"%1\" is %2, expected %3").arg(name, shown, expected.value(name)));
    }

    void declaredCommands()
    {
        TestPlugin plugin;
        QVERIFY(plugin.declareInstructionCommand(new TestCommand(nullptr, QStringLiteral("listen"), QStringLiteral("stopListening"))));
        QVERIFY(plugin.declareInstructionCommand(new TestCommand(nullptr, QStringLiteral("get"))));
        QPointer<TestCommand> duplicate = new TestCommand(nullptr, QStringLiteral("stopListening"));
        QTest::ignoreMessage(QtWarningMsg, QRegularExpression(QStringLiteral("command \"stopListening\" is declared already")));
        QVERIFY(!plugin.declareInstructionCommand(duplicate));
        QVERIFY(duplicate.isNull());
        QTest::ignoreMessage(QtWarningMsg, QRegularExpression(QStringLiteral("command \"set\" is declared already")));
        QVERIFY(!plugin.declareInstructionCommand(new TestCommand(nullptr, QStringLiteral("set"), QStringLiteral("get"))));
        QVERIFY(!plugin.declareInstructionCommand(nullptr));
        QCOMPARE(plugin.commandNames(), (QStringList{QStringLiteral("getPluginIdentity"), QStringLiteral("listen"), QStringLiteral("get")}));
        QCOMPARE(plugin.getFunctionDescription(QStringLiteral("get")), QStringLiteral("Probe"));
        // Parameters first, then results, each in declaration order.
        QStringList arguments;
        for (const QString &name : {QStringLiteral("get"), QStringLiteral("getPluginIdentity")})
            for (const DCommandArgument &argument : plugin.getCommandParameters(name))
                arguments << argument.name + QLatin1Char(' ') + argument.typeCode;
        QCOMPARE(arguments.join(QStringLiteral(", ")), QStringLiteral("channel strg, bitMask ui16, values varL, width int, on bool, any vart, value ui16, identity vart"));
        QCOMPARE(plugin.getFunctionDescription(QStringLiteral("stopListening")), QString());
    }

    void errorNames()
    {
        QStringList codes;
        for (int code = IMessenger::CeNoError; code <= IMessenger::_CeNbr; ++code)
            codes << DError::codeName(IMessenger::EnErrorCode(code));
        QCOMPARE(codes.join(QLatin1Char(' ')), QStringLiteral("ok timeout reply_rejected driver_error no_route refused stopped "
                                                              "no_connection modbus_exception malformed_reply bad_instruction unknown"));
        QStringList exceptions;
        for (int exception = 1; exception <= 12; ++exception)
            exceptions << DError::exceptionName(exception);
        QCOMPARE(exceptions.join(QLatin1Char('|')), QStringLiteral("illegal function|illegal data address|illegal data value|"
            "server device failure|acknowledge|server device busy|exception 7|memory parity error|exception 9|"
            "gateway path unavailable|gateway target device failed to respond|exception 12"));
    }


    void backendReachesHost()
    {
        TestBackend backend;
        QCOMPARE(backend.runCommand(QStringLiteral("getValue"), {}), 0ull);
        TestPlugin plugin;
        backend.setPlugin(&plugin);
        QCOMPARE(backend.runCommand(QStringLiteral("getValue"), {}), 0ull);
        QVERIFY(!backend.stopCommand(1));
        const QString failure = QStringLiteral("0 getValue %1 0 cannot run \"getValue\": the back-end is not attached to a plug-in with a host")
                                    .arg(int(IMessenger::CeNoRoute));
        QCOMPARE(backend.failures, (QStringList{failure, failure}));

        TestMessenger messenger;
        plugin.setMessenger(&messenger);
        QCOMPARE(backend.runCommand(QStringLiteral("getValue"), {}), 1ull);
        QVERIFY(backend.stopCommand(1));
        QCOMPARE(backend.failures.size(), 2);
    }

    void configurationPaths()
    {
        TestPlugin plugin;
        bool ok = true;
        QCOMPARE(plugin.getInMainConfig(QStringLiteral("a/b"), QJsonValue(1), &ok), QJsonValue(1));
        QVERIFY(!ok);
        QVERIFY(!plugin.setInMainConfig(QStringLiteral("a/b"), 2));

        plugin.setMainConfig(QSharedPointer<QJsonObject>::create(QJsonObject{{QStringLiteral("a"), QJsonObject{{QStringLiteral("b"), 2}}},
                                                                              {QStringLiteral("leaf"), 3}}));
        QCOMPARE(plugin.getInMainConfig(QStringLiteral("a/b"), QJsonValue(), &ok), QJsonValue(2));
        QVERIFY(ok);
        QVERIFY(!plugin.setInMainConfig(QStringLiteral("leaf/x"), 1));
        QVERIFY(plugin.setInPluginConfig(QStringLiteral("timeouts/read"), 500));
        QCOMPARE(plugin.getInPluginConfig(QStringLiteral("timeouts/read"), QJsonValue(), &ok), QJsonValue(500));
        QVERIFY(ok);
        // The plug-in's section lives in the shared main configuration.
        QCOMPARE(plugin.getMainConfig()->value(QStringLiteral("plugins")).toObject()
                     .value(plugin.pluginUuid().toString()).toObject().value(QStringLiteral("timeouts")).toObject()
                     .value(QStringLiteral("read")), QJsonValue(500));
        QCOMPARE(plugin.getInMainConfig(QStringLiteral("a/b"), QJsonValue(), &ok), QJsonValue(2));
    }

    void propertiesNotifyOnRealChange()
    {
        TestPlugin plugin;
        QSignalSpy spy(&plugin, &DAbstractPlugin::sigPropertyChanged);
        bool ok = true;
        QVERIFY(!plugin.getProperty(QStringLiteral("reference"), &ok).isValid());
        QVERIFY(!ok);

        plugin.setProperty(QStringLiteral("reference"), QStringLiteral("dev io1"), true);
        plugin.setProperty(QStringLiteral("reference"), QStringLiteral("dev io1"), true);
        plugin.setProperty(QStringLiteral("silent"), 1, false);
        QCOMPARE(spy.count(), 1);
        QCOMPARE(spy.at(0).at(0).toString(), QStringLiteral("reference"));
        QCOMPARE(plugin.getProperty(QStringLiteral("reference"), &ok).toString(), QStringLiteral("dev io1"));
        QVERIFY(ok);
        QCOMPARE(plugin.getProperty(QStringLiteral("silent"), QVariant()), QVariant(1));
        QCOMPARE(plugin.getName(), QStringLiteral("dev io1"));
    }
};

QTEST_GUILESS_MAIN(TstFramework)
#include "tst_framework.moc"
