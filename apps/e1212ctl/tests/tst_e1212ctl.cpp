// SPDX-License-Identifier: MIT
// e1212ctl as a user runs it: usage and configuration errors, channel checks, JSON output,
// a listen stopped by SIGTERM.
#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>
#include <QProcess>
#include <QTemporaryDir>
#include <QtTest>

namespace {

const QString c_testConfig = QStringLiteral(E1212_FIXTURE_DIR "/testdevice.json");

struct Run
{
    int exitCode = -1;
    QString out;
    QString err;
};

QProcessEnvironment environment(const QString &script)
{
    QProcessEnvironment env = QProcessEnvironment::systemEnvironment();
    if (!script.isEmpty())
        env.insert(QStringLiteral("E1212_SCRIPTED_DRIVER"), script);
    return env;
}

Run runCtl(const QStringList &arguments, const QString &script = QString())
{
    QProcess process;
    process.setProcessEnvironment(environment(script));
    process.start(QStringLiteral(E1212_BIN_DIR "/e1212ctl"), arguments);
    Run run;
    if (!process.waitForFinished(20000)) {
        process.kill();
        process.waitForFinished(2000);
    } else if (process.exitStatus() == QProcess::NormalExit) {
        run.exitCode = process.exitCode();
    }
    run.out = QString::fromUtf8(process.readAllStandardOutput());
    run.err = QString::fromUtf8(process.readAllStandardError());
    return run;
}

QStringList testDevice(const QStringList &arguments)
{
    return QStringList{QStringLiteral("--plugin-dir"), QStringLiteral(E1212_TEST_PLUGIN_DIR),
                       QStringLiteral("--config"), c_testConfig} + arguments;
}

QJsonObject lastJsonLine(const QString &out, QString *error)
{
    const QStringList lines = out.split(QLatin1Char('\n'), Qt::SkipEmptyParts);
    QJsonObject last;
    for (const QString &line : lines) {
        QJsonParseError parseError;
        const QJsonDocument document = QJsonDocument::fromJson(line.toUtf8(), &parseError);
        if (!document.isObject()) {
            *error = QStringLiteral("not a JSON object: %1 (%2)").arg(line, parseError.errorString());
            return {};
        }
        last = document.object();
    }
    return last;
}

} // namespace

class TstE1212Ctl : public QObject
{
    Q_OBJECT
private slots:
    void help()
    {
        const Run run = runCtl({QStringLiteral("--help")});
        QCOMPARE(run.exitCode, 0);
        for (const char *word : {"set CH VALUE [--mask M]", "listen CH [--count N] [--for SECONDS]", "run NAME",
                                 "--device HOST[:PORT]", "Log file (without --verbose): /"})
            QVERIFY2(run.out.contains(QLatin1String(word)), word);
    }

    void usageErrors_data()
    {
        QTest::addColumn<QStringList>("arguments");
        QTest::addColumn<QString>("message");
        QTest::newRow("nothing") << QStringList() << "e1212ctl: no command given (see e1212ctl --help)";
        QTest::newRow("unknown command") << QStringList{"frobnicate"} << "e1212ctl: unknown command \"frobnicate\"";
        QTest::newRow("unknown option") << QStringList{"--bogus", "info"} << "e1212ctl: unknown option --bogus";
        QTest::newRow("bad time-out") << QStringList{"--timeout", "abc", "info"} << "e1212ctl: --timeout \"abc\" is not a positive number of milliseconds";
        QTest::newRow("value too big") << QStringList{"set", "DO0", "70000"} << "e1212ctl: VALUE \"70000\" is not a whole number from 0 to 65535";
        QTest::newRow("pulse without widths") << QStringList{"pulse", "DO0", "1"} << "e1212ctl: pulse needs --on MS and --off MS";
        QTest::newRow("subcommand option") << QStringList{"get", "DI0", "--mask", "1"} << "e1212ctl: unknown option --mask";
        QTest::newRow("bad port") << QStringList{"--device", "127.0.0.1:99999", "get", "DI0"} << "e1212ctl: --device 127.0.0.1:99999: the port must be a number from 1 to 65535";
    }

    void usageErrors()
    {
        QFETCH(QStringList, arguments);
        QFETCH(QString, message);
        const Run run = runCtl(arguments);
        QCOMPARE(run.exitCode, 2);
        QVERIFY2(run.err.startsWith(message), qPrintable(run.err));
        QCOMPARE(run.err.count(QLatin1Char('\n')), 1);
        QVERIFY(run.out.isEmpty());
    }

    void badConfiguration_data()
    {
        QTest::addColumn<QString>("file");
        QTest::addColumn<QString>("message");
        QTest::newRow("syntax") << "syntax.json" << "syntax.json: line 3, column 36: JSON syntax error: ";
        QTest::newRow("wrong type") << "wrongtype.json" << "wrongtype.json: connection.port: expected a whole number, found a text";
        QTest::newRow("unknown plug-in") << "unknownplugin.json" << "unknownplugin.json: devices[0].plugin: no plug-in with UUID {11111111-2222-3333-4444-555555555555} is loaded";
        QTest::newRow("no devices") << "nodevices.json" << "nodevices.json: devices: the list is empty";
        QTest::newRow("missing file") << "missing.json" << "missing.json: cannot read the configuration: ";
    }

    void badConfiguration()
    {
        QFETCH(QString, file);
        QFETCH(QString, message);
        const QString path = QStringLiteral(E1212_FIXTURE_DIR "/") + file;
        const Run run = runCtl({QStringLiteral("--config"), path, QStringLiteral("info")});
        QCOMPARE(run.exitCode, 2);
        QVERIFY2(run.err.startsWith(QStringLiteral("e1212ctl: %1/%2").arg(QStringLiteral(E1212_FIXTURE_DIR), message)), qPrintable(run.err));
        QCOMPARE(run.err.count(QLatin1Char('\n')), 1);
        QVERIFY(run.out.isEmpty());
    }

    void unknownChannelSendsNothing()
    {
        const Run run = runCtl({QStringLiteral("--verbose"), QStringLiteral("get"), QStringLiteral("DX9")});
        QCOMPARE(run.exitCode, 2);
        QVERIFY2(run.err.contains(QStringLiteral("e1212ctl: unknown channel \"DX9\" for device \"Moxa E1212 io1\" (known: DI0, DI1, DI2, DI3, DI4, DI5, DI6, DI7, DO0, DO1, DO2, DO3, DO4, DO5, DO6, DO7)\n")),
                 qPrintable(run.err));
        QVERIFY2(!run.err.contains(QStringLiteral("instruction ")), qPrintable(run.err));
        QVERIFY(run.out.isEmpty());
    }

    void jsonOutputParses_data()
    {
        QTest::addColumn<QStringList>("arguments");
        QTest::addColumn<QString>("script");
        QTest::addColumn<int>("exitCode");
        QTest::addColumn<QString>("command");
        QTest::addColumn<QString>("error");
        QTest::newRow("identity") << QStringList{"run", "getPluginIdentity"} << QString() << 0 << "getPluginIdentity" << QString();
        QTest::newRow("value") << testDevice({"run", "probe", "channel=DI0"}) << R"([{"instruction": "read", "replies": [{"values": [5]}]}])"
                               << 0 << "probe" << QString();
        QTest::newRow("rejected reply") << testDevice({"run", "probe"}) << R"([{"instruction": "read", "replies": [{"status": 1}]}])"
                                        << 1 << "probe" << "probe: the command rejected the reply to instruction";
        QTest::newRow("driver error") << testDevice({"run", "probe"}) << R"([{"instruction": "read", "replies": [{"error": "no route to 127.0.0.1:1502"}]}])"
                                      << 1 << "probe" << "probe: the driver of \"bench io1\" failed instruction";
        QTest::newRow("time-out") << testDevice({"--timeout", "200", "run", "probe"}) << R"([{"instruction": "read", "replies": []}])"
                                  << 1 << "probe" << "probe: no reply to instruction";
    }

    void jsonOutputParses()
    {
        QFETCH(QStringList, arguments);
        QFETCH(QString, script);
        QFETCH(int, exitCode);
        QFETCH(QString, command);
        QFETCH(QString, error);
        const Run run = runCtl(QStringList{QStringLiteral("--json")} + arguments, script);
        QCOMPARE(run.exitCode, exitCode);
        QString parseError;
        const QJsonObject last = lastJsonLine(run.out, &parseError);
        QVERIFY2(parseError.isEmpty(), qPrintable(parseError));
        QCOMPARE(run.out.count(QLatin1Char('\n')), 1);
        QCOMPARE(last.value(QStringLiteral("command")).toString(), command);
        QCOMPARE(last.value(QStringLiteral("ok")).toBool(), exitCode == 0);
        QVERIFY(last.value(QStringLiteral("results")).isObject());
        QVERIFY2(last.value(QStringLiteral("error")).toString().startsWith(error), qPrintable(run.out));
        if (exitCode == 0) {
            QVERIFY(run.err.isEmpty());
        } else {
            QCOMPARE(run.err.count(QLatin1Char('\n')), 1);
            QVERIFY(run.err.startsWith(QStringLiteral("e1212ctl: %1 failed: %2").arg(command, error)));
        }
        if (command == QLatin1String("probe") && exitCode == 0)
            QCOMPARE(last.value(QStringLiteral("results")).toObject().value(QStringLiteral("value")).toInt(), 5);
    }

    void listenStopsOnSigterm_data()
    {
        QTest::addColumn<QString>("script");
        QTest::addColumn<int>("exitCode");
        QTest::addColumn<QString>("firstEvent");
        QTest::addColumn<QJsonValue>("lastValues");
        QTest::newRow("reports") << R"([{"instruction": "listen", "open": true, "intervalMs": 20, "replies": [{"values": [1]}, {"values": [0]}]}])"
                                 << 0 << "values" << QJsonValue(QJsonArray{0});
        // Stopped while the device does not answer: the listen has failed.
        QTest::newRow("outage") << R"([{"instruction": "listen", "open": true, "intervalMs": 20, "replies": [{"values": [1]}, {"error": "device gone"}]}])"
                                << 1 << "values" << QJsonValue(QJsonArray{1});
    }

    void listenStopsOnSigterm()
    {
        QFETCH(QString, script);
        QFETCH(int, exitCode);
        QFETCH(QString, firstEvent);
        QFETCH(QJsonValue, lastValues);
        QProcess process;
        process.setProcessEnvironment(environment(script));
        process.start(QStringLiteral(E1212_BIN_DIR "/e1212ctl"), testDevice({QStringLiteral("--json"), QStringLiteral("run"),
                                                                               QStringLiteral("watch"), QStringLiteral("channel=DI0")}));
        QVERIFY(process.waitForStarted(5000));
        QByteArray out;
        QTRY_VERIFY_WITH_TIMEOUT((out += process.readAllStandardOutput()).count('\n') >= 2, 10000);
        process.terminate();
        QVERIFY(process.waitForFinished(10000));
        out += process.readAllStandardOutput();
        QCOMPARE(process.exitStatus(), QProcess::NormalExit);
        QCOMPARE(process.exitCode(), exitCode);
        const QList<QByteArray> lines = out.trimmed().split('\n');
        QCOMPARE(lines.size(), 3);
        const QJsonObject first = QJsonDocument::fromJson(lines.at(0)).object();
        QCOMPARE(first.value(QStringLiteral("event")).toString(), firstEvent);
        QCOMPARE(first.value(QStringLiteral("value")).toArray(), QJsonArray{1});
        const QJsonObject last = QJsonDocument::fromJson(lines.at(2)).object();
        QCOMPARE(last.value(QStringLiteral("command")).toString(), QStringLiteral("watch"));
        QCOMPARE(last.value(QStringLiteral("ok")).toBool(), exitCode == 0);
        QCOMPARE(last.value(QStringLiteral("results")).toObject().value(QStringLiteral("values")), lastValues);
        if (exitCode != 0)
            QVERIFY(last.value(QStringLiteral("error")).toString().endsWith(QStringLiteral("(\"listen\"): device gone")));
    }

    void namedCommandsUseTheConfiguredTable()
    {
        const Run run = runCtl(testDevice({QStringLiteral("listen"), QStringLiteral("DI0"), QStringLiteral("--count"), QStringLiteral("2")}),
                               QStringLiteral(R"([{"instruction": "listen", "open": true, "intervalMs": 10, "replies": [{"values": [1]}, {"values": [0]}, {"values": [1]}]}])"));
        // The test device has no listenEvents: the channel passes the check, the command is refused.
        QCOMPARE(run.exitCode, 1);
        QVERIFY2(run.err.startsWith(QStringLiteral("e1212ctl: listenEvents failed: device \"bench io1\" has no command \"listenEvents\"")), qPrintable(run.err));
    }

    void realDeviceOnTheEmbeddedSimulator()
    {
        const Run run = runCtl({QStringLiteral("get"), QStringLiteral("DI0")});
        if (run.err.contains(QStringLiteral("has no command \"getValue\"")))
            QSKIP("the device plug-in of this build declares no getValue");
        QCOMPARE(run.exitCode, 0);
        QCOMPARE(run.out, QStringLiteral("DI0 = 0\n"));

        const Run listen = runCtl({QStringLiteral("listen"), QStringLiteral("DI0"), QStringLiteral("--count"), QStringLiteral("1")});
        QCOMPARE(listen.exitCode, 0);
        QVERIFY2(QRegularExpression(QStringLiteral("^\\d{4}-\\d\\d-\\d\\d \\d\\d:\\d\\d:\\d\\d\\.\\d{3}  DI0 = 0\n$")).match(listen.out).hasMatch(),
                 qPrintable(listen.out));
    }
};

QTEST_GUILESS_MAIN(TstE1212Ctl)
#include "tst_e1212ctl.moc"
