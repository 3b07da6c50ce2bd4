// SPDX-License-Identifier: MIT
// e1212ctl as a user runs it, against simulators served here on loopback: every bad line or
// file is refused with exit 2 before a request reaches the module; a script session; several
// devices; help without a display; the installed copy.
#include "e1212simulator.h"
#include "processrun.h"

#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>
#include <QProcess>
#include <QRegularExpression>
#include <QTemporaryDir>
#include <QtTest>

namespace {

using Run = ProcessRun;

// Runs e1212ctl, `input` on its standard input, while this event loop serves the simulators.
Run runCtl(const QStringList &arguments, const QString &program = QStringLiteral(E1212_BUILD_DIR "/bin/e1212ctl"),
           const QProcessEnvironment &environment = QProcessEnvironment::systemEnvironment(), const QByteArray &input = {})
{
    return ProcessRun::run(program, arguments, 60000, environment, input);
}

QJsonObject builtInDevice()
{
    QFile file(QStringLiteral(E1212_SOURCE_DIR "/config/e1212.json"));
    file.open(QIODevice::ReadOnly);
    return QJsonDocument::fromJson(file.readAll()).object();
}

// The built-in device as `reference`, served by `simulator`.
QJsonObject device(const QString &reference, const E1212Simulator &simulator)
{
    QJsonObject object = builtInDevice();
    QJsonObject parameters = object.value(QStringLiteral("parameters")).toObject();
    const QString table = reference.section(QLatin1Char(' '), -1) + QStringLiteral("_channels");
    parameters.insert(table, parameters.take(QStringLiteral("io1_channels")));
    object.insert(QStringLiteral("parameters"), parameters);
    object.insert(QStringLiteral("reference"), reference);
    object.insert(QStringLiteral("connection"), QJsonObject{{QStringLiteral("host"), QStringLiteral("127.0.0.1")},
                                                            {QStringLiteral("port"), simulator.port()}});
    return object;
}

// ISO 8601 with milliseconds and a zone: "Z" or an offset.
bool hasZone(const QJsonValue &time)
{
    static const QRegularExpression format(QStringLiteral("^\\d{4}-\\d\\d-\\d\\dT\\d\\d:\\d\\d:\\d\\d\\.\\d{3}(Z|[+-]\\d\\d:\\d\\d)$"));
    return format.match(time.toString()).hasMatch();
}

QList<QJsonObject> jsonLines(const QString &text)
{
    QList<QJsonObject> lines;
    for (const QString &line : text.split(QLatin1Char('\n'), Qt::SkipEmptyParts))
        lines << QJsonDocument::fromJson(line.toUtf8()).object();
    return lines;
}

} // namespace

class TstE1212Ctl : public QObject
{
    Q_OBJECT

    QString write(const QString &name, const QByteArray &content)
    {
        QFile file(m_dir.filePath(name));
        file.open(QIODevice::WriteOnly);
        file.write(content);
        return file.fileName();
    }

    QTemporaryDir m_dir;
    E1212Simulator m_io1;
    E1212Simulator m_io2;
    QString m_bench;
    int m_connections = 0;

private slots:
    void initTestCase()
    {
        qRegisterMetaType<QProcess::ExitStatus>();
        QVERIFY(m_dir.isValid());
        QVERIFY(m_io1.start());
        QVERIFY(m_io2.start());
        // Connections opened to io1 over the whole test.
        connect(&m_io1, &E1212Simulator::connectionCountChanged, this, [this](int count) {
            static int last = 0;
            m_connections += count > last ? count - last : 0;
            last = count;
        });
        const QJsonArray devices{device(QStringLiteral("Moxa E1212 io1"), m_io1), device(QStringLiteral("Moxa E1212 io2"), m_io2)};
        m_bench = write(QStringLiteral("bench.json"), QJsonDocument(QJsonObject{{QStringLiteral("devices"), devices}}).toJson());
    }

    // Every row: exit 2, one line on stderr naming the problem, no request at the module.
    void refusedBeforeSending_data()
    {
        QTest::addColumn<QStringList>("arguments");
        QTest::addColumn<QByteArray>("config"); // written and given as --config when not empty
        QTest::addColumn<QString>("message");
        const auto row = [](const char *name, const QStringList &arguments, const QString &message, const QByteArray &config = {}) {
            QTest::newRow(name) << arguments << config << message;
        };
        const QString output = QStringLiteral("only \"digitalOutput\" channels can be driven");
        row("set an input", {"set", "DI0", "1"}, output);
        row("pulse an input", {"pulse", "DI3", "--on", "100", "--off", "100", "1"}, output);
        row("pulse past the outputs", {"pulse", "DO7", "--on", "10", "--off", "10", "1", "1"}, "pulse DO7: 2 values reach past DO7, the last channel");
        row("mask of no bit", {"set", "DO5", "1", "--mask", "0x20"}, "--mask 0x0020 selects no bit of io1:DO5 (one coil: bits 0x1)");
        row("mask 0", {"set", "DO5", "0", "--mask", "0"}, "--mask 0x0000 selects no bit");
        row("pulse status of an input", {"get", "DI0", "--pulse"}, "only outputs have a pulse generator");
        row("pulse past the table", {"pulse", "DO6", "--on", "10", "--off", "10", "1", "0", "1"}, "pulse DO6: 3 values reach past DO7");
        row("watch unknown channel", {"watch", "DI0", "DX1"}, "unknown channel \"DX1\"");
        row("watch unwritable file", {"watch", "--csv", "/nonexistent/w.csv"}, "watch --csv /nonexistent/w.csv: cannot write it");
        row("watch for 0", {"watch", "--for", "0"}, "--for \"0\"");
        row("value 7", {"set", "DO2", "7"}, "VALUE \"7\" is not a whole number from 0 to 1");
        row("value -1", {"set", "DO1", "-1"}, "VALUE \"-1\" is not a whole number from 0 to 1");
        // Only a dash and a digit is a negative number; the characters next to the digits are options.
        row("value -0", {"set", "DO1", "-0"}, "VALUE \"-0\" is not a whole number from 0 to 1");
        row("option -/", {"set", "DO1", "-/"}, "Unknown option '/'");
        row("option -", {"set", "DO1", "-"}, "VALUE \"-\" is not a whole number");
        row("mask -1", {"set", "DO1", "1", "--mask", "-1"}, "--mask \"-1\" is not a whole number from 0 to 65535");
        row("mask too big", {"set", "DO1", "1", "--mask", "0x10000"}, "--mask \"0x10000\" is not a whole number from 0 to 65535");
        row("unknown output", {"set", "DX9", "1"}, "unknown channel \"DX9\" for device \"Moxa E1212 io1\" (known: DI0,");
        row("unknown run", {"get-run", "io3:DI0"}, "channel \"io3:DI0\": no device \"io3\"");
        row("zero width", {"pulse", "DO0", "--on", "0", "--off", "100", "1"}, "--on \"0\" is not a whole number from 1 to 65535");
        row("wide width", {"blink", "DO0", "--on", "100", "--off", "65536", "1"}, "--off \"65536\"");
        row("no widths", {"blink", "DO0", "1"}, "blink needs --on MS and --off MS");
        row("for 1e2", {"listen", "DI0", "--for", "1e2"}, "--for \"1e2\" is not a number of seconds above 0 and up to 604800 (7 days)");
        row("for a week and a second", {"listen", "DI0", "--for", "604801"}, "--for \"604801\"");
        row("count 0", {"listen", "DI0", "--count", "0"}, "--count \"0\"");
        row("run unknown command", {"run", "nope"}, "run: device \"Moxa E1212 io1\" has no command \"nope\"");
        row("run unknown argument", {"run", "getValue", "chanel=DI0"}, "command \"getValue\" has no parameter \"chanel\"");
        row("run raw unknown argument", {"run", "--raw", "getValue", "chanel=DI0"}, "has no parameter \"chanel\"");
        const QString ui16 = QStringLiteral("expected \"ui16\" (a whole number from 0 to 65535");
        row("run value 65549", {"run", "setValue", "channel=DO1", "value=0x1000D"}, "argument \"value\" is 65549, " + ui16);
        row("run value 1.5", {"run", "setValue", "channel=DO1", "value=1.5"}, "argument \"value\" is 1.5, " + ui16);
        row("run unknown channel", {"run", "setValue", "channel=DO9", "value=1"}, "unknown channel \"DO9\"");
        row("run without its channel", {"run", "getValue"}, "\"channel\"");
        row("run not KEY=VALUE", {"run", "getValue", "DI0"}, "argument \"DI0\" is not KEY=VALUE");
        row("unknown command", {"frobnicate"}, "unknown command \"frobnicate\"");
        row("unknown command after --", {"--", "frobnicate"}, "unknown command \"frobnicate\"");
        row("script step on the line", {"use", "io2"}, "unknown command \"use\"");
        row("no command", {}, "no command given");
        row("too many words", {"get", "DI0", "DI1"}, "usage: get CH");
        row("info takes no word", {"info", "DI0"}, "usage: info");
        row("unknown option", {"--bogus", "info"}, "Unknown option 'bogus'");
        row("option of another command", {"get", "DI0", "--mask", "1"}, "Unknown option 'mask'");
        row("device port 9 of a port", {"--device", "127.0.0.1:15020:9", "get", "DI0"}, "--device 127.0.0.1:15020:9: the host is empty or not one name");
        row("device port too big", {"--device", ":99999", "get", "DI0"}, "the port must be a number from 1 to 65535");
        row("time-out 0", {"--timeout", "0", "info"}, "--timeout \"0\"");
        row("unknown reference", {"--ref", "io9", "info"}, "--ref io9: no such device");
        row("help on nothing", {"help", "nope"}, "help: unknown command \"nope\"");
        row("json refusal", {"--json", "set", "DI0", "1"}, output);
        row("missing file", {"--config", "/nonexistent/bench.json", "info"}, "cannot read the configuration");
        row("syntax", {"info"}, "JSON syntax error", "{\n  \"reference\": \n");
        row("no devices", {"info"}, "devices: the list is empty", R"({"devices": []})");
        row("register abc", {"set", "DO1", "1"}, "io1_channels[0].value[1].value: \"register\" must be a whole number 0-65535, found \"abc\"",
            R"({"reference": "Moxa E1212 io1", "parameters": {"io1_channels": [{"id": "DO1", "value": [
                {"id": "type", "value": "digitalOutput"}, {"id": "register", "value": "abc"}]}]}})");
        row("plug-in folder missing", {"--plugin-dir", "/nonexistent/plugins", "info"}, "--plugin-dir /nonexistent/plugins: no such folder");
        const QByteArray twoIo1 = R"({"devices": [{"reference": "Moxa E1212 io1"}, {"reference": "Spare io1"}]})";
        row("ambiguous --ref", {"--ref", "io1", "info"}, "--ref io1: more than one device is called so in " + m_dir.filePath("row.json")
            + " (\"Moxa E1212 io1\", \"Spare io1\")", twoIo1);
        row("ambiguous NAME:CH", {"get", "io1:DI0"}, "channel \"io1:DI0\": \"io1\" names more than one device (\"Moxa E1212 io1\", \"Spare io1\")", twoIo1);
        const QByteArray noPlugin = R"({"reference": "Moxa E1212 io1", "plugin": "{11111111-2222-3333-4444-555555555555}"})";
        row("unknown plug-in", {"info"}, "no plug-in with UUID {11111111-2222-3333-4444-555555555555} is loaded", noPlugin);
        // The panel checks its options before it opens the device (here, one it cannot open).
        row("panel poll 9", {"panel", "-platform", "offscreen", "--poll", "9"}, "--poll: 9 ms is below 10 ms", noPlugin);
        row("panel at its smallest", {"panel", "-platform", "offscreen", "--size", "640x400"}, "no plug-in with UUID", noPlugin);
        row("serve keep-alive 4", {"serve", "--mqtt", "mqtt://127.0.0.1:1", "--mqtt-keepalive", "4"},
            "--mqtt-keepalive \"4\" is not a whole number from 5 to 65535");
    }

    void refusedBeforeSending()
    {
        QFETCH(QStringList, arguments);
        QFETCH(QByteArray, config);
        QFETCH(QString, message);
        const int requests = m_io1.requestCount() + m_io2.requestCount();
        const QString file = config.isEmpty() ? m_bench : write(QStringLiteral("row.json"), config);
        const Run run = runCtl(QStringList{QStringLiteral("--config"), file} + arguments);
        QCOMPARE(run.exitCode, 2);
        QVERIFY2(run.err.startsWith(QStringLiteral("e1212ctl: ")) && run.err.contains(message), qPrintable(run.err));
        QCOMPARE(run.err.count(QLatin1Char('\n')), 1);
        if (arguments.contains(QStringLiteral("--json"))) {
            const QJsonObject line = QJsonDocument::fromJson(run.out.toUtf8()).object();
            QCOMPARE(line.value(QStringLiteral("code")).toString(), QStringLiteral("refused"));
            QCOMPARE(line.value(QStringLiteral("ok")), QJsonValue(false));
            QVERIFY(line.value(QStringLiteral("error")).toString().contains(message));
            QVERIFY(hasZone(line.value(QStringLiteral("time"))));
        } else {
            QCOMPARE(run.out, QString());
        }
        QCOMPARE(m_io1.requestCount() + m_io2.requestCount(), requests);
    }

    // set, expect --within, a background listen, an input changed meanwhile, then a failing
    // expect that names its line and stops the script; one connection for all of it.
    void script()
    {
        const QString file = write(QStringLiteral("sequence.txt"), "listen DI2 &   #line 1\n"
                                                                   "set DO1 1\n"
                                                                   "expect DO1 1 --within 1000\n"
                                                                   "# a comment line\n"
                                                                   "expect DI2 1 --within 5000\n"
                                                                   "wait 1000   # the listen reports it too\n"
                                                                   "expect DI0 1\n"
                                                                   "set DO2 1\n");
        m_io1.setInput(2, false);
        m_io1.setInput(0, false);
        const int connections = m_connections;
        QTimer::singleShot(500, this, [this] { m_io1.setInput(2, true); });
        const Run run = runCtl({QStringLiteral("--config"), m_bench, QStringLiteral("--json"), QStringLiteral("script"), file});
        QCOMPARE(run.exitCode, 1);
        QCOMPARE(run.err, QStringLiteral("e1212ctl: %1:7: expect io1:DI0: read 0, expected 1\n").arg(file));
        QStringList seen;
        for (const QString &text : run.out.split(QLatin1Char('\n'), Qt::SkipEmptyParts)) {
            const QJsonObject line = QJsonDocument::fromJson(text.toUtf8()).object();
            seen << QStringLiteral("%1 %2 %3 %4").arg(line.value(QStringLiteral("line")).toInt())
                        .arg(line.value(QStringLiteral("event")).toString(), line.value(QStringLiteral("channel")).toString(),
                             QString::fromUtf8(QJsonDocument(QJsonArray{line.value(QStringLiteral("value")), line.value(QStringLiteral("ok")),
                                                                        line.value(QStringLiteral("code"))}).toJson(QJsonDocument::Compact)));
        }
        QVERIFY2(seen.contains(QStringLiteral("1 value DI2 [1,true,null]")), qPrintable(seen.join(QLatin1Char('\n'))));
        QVERIFY2(run.out.startsWith(QStringLiteral("{\"background\":true,\"channel\":\"DI2\",\"command\":\"listen\"")), qPrintable(run.out));
        QVERIFY2(run.out.contains(QStringLiteral("\"command\":\"listen\",\"device\":\"Moxa E1212 io1\",\"event\":\"value\"")), qPrintable(run.out));
        QVERIFY2(seen.contains(QStringLiteral("3  DO1 [1,true,null]")), qPrintable(seen.join(QLatin1Char('\n'))));
        QCOMPARE(seen.value(seen.size() - 2), QStringLiteral("7  DI0 [0,false,\"expect_failed\"]"));
        // The summary: six steps (line 4 is a comment), one failed.
        const QJsonObject summary = QJsonDocument::fromJson(run.out.split(QLatin1Char('\n'), Qt::SkipEmptyParts).last().toUtf8()).object();
        QCOMPARE(summary.value(QStringLiteral("steps")).toInt(), 6);
        QCOMPARE(summary.value(QStringLiteral("failed")).toInt(), 1);
        QCOMPARE(summary.value(QStringLiteral("error")).toString(), QStringLiteral("1 of 6 steps failed"));
        QVERIFY(!summary.contains(QStringLiteral("line"))); // the summary is no step of the script
        QVERIFY(m_io1.pulseStatus(1));
        QVERIFY(!m_io1.pulseStatus(2));
        QCOMPARE(m_connections - connections, 1);
    }

    // script --check reads every line and sends nothing: exit 0 and the summary when all is
    // well, else 2 and one FILE:LINE: line per bad step, a bad step early not hiding a later one.
    void checkScript_data()
    {
        QTest::addColumn<QByteArray>("script");
        QTest::addColumn<QStringList>("errors"); // one per line on stderr, after "e1212ctl: FILE:"
        QTest::addColumn<QString>("summary");
        const QByteArray good = "set DO1 1\nexpect DI0 1 --within 100\nlisten DI2 &\nwait 100\n# comment\n\nuse io2\nget io1:DI0\n"
                                "expect DO3 0\nlisten DI0 --count 2\nrun setValue channel=DO1 value=1\nstop\nhelp set\n";
        QTest::newRow("all good") << good << QStringList() << "11 steps checked, 11 passed, 0 failed";
        QTest::newRow("channel") << good + "set DO9 1\n" << QStringList{"14: unknown channel \"DO9\""} << "12 steps checked, 11 passed, 1 failed";
        QTest::newRow("after use") << QByteArray("use io2\nget io2:DI0\nset DO1 7\n") << QStringList{"3: VALUE \"7\""}
                                   << "3 steps checked, 2 passed, 1 failed";
        QTest::newRow("two bad") << QByteArray("bogus\nget DI0\nuse io9\n") << QStringList{"1: \"bogus\" is not a step", "3: no device \"io9\""}
                                 << "3 steps checked, 1 passed, 2 failed";
        QTest::newRow("wait too long") << QByteArray("wait 604800001\n") << QStringList{"1: wait \"604800001\""} << "1 step checked, 0 passed, 1 failed";
        QTest::newRow("within") << QByteArray("expect DI0 1 --within x\n") << QStringList{"1: --within \"x\""} << "1 step checked, 0 passed, 1 failed";
        QTest::newRow("option") << QByteArray("get DI0 --within 5\n") << QStringList{"1: Unknown option 'within'"} << "1 step checked, 0 passed, 1 failed";
        QTest::newRow("background") << QByteArray("get DI0 &\n") << QStringList{"1: only listen runs in the background"} << "1 step checked, 0 passed, 1 failed";
        QTest::newRow("NUL") << QByteArray("get DI0\0junk\n", 13) << QStringList{"1: the line holds a NUL byte (at byte 8)"}
                             << "1 step checked, 0 passed, 1 failed";
    }

    void checkScript()
    {
        QFETCH(QByteArray, script);
        QFETCH(QStringList, errors);
        QFETCH(QString, summary);
        const int requests = m_io1.requestCount() + m_io2.requestCount();
        const int connections = m_connections;
        const QString file = write(QStringLiteral("check.txt"), script);
        const Run run = runCtl({QStringLiteral("--config"), m_bench, QStringLiteral("script"), QStringLiteral("--check"), file});
        QCOMPARE(run.exitCode, errors.isEmpty() ? 0 : 2);
        const QStringList lines = run.err.split(QLatin1Char('\n'), Qt::SkipEmptyParts);
        QCOMPARE(lines.size(), errors.size());
        for (int i = 0; i < errors.size(); ++i)
            QVERIFY2(lines.at(i).startsWith(QStringLiteral("e1212ctl: %1:%2").arg(file, errors.at(i))), qPrintable(lines.at(i)));
        QVERIFY2(QRegularExpression(QStringLiteral("^%1: %2, [0-9.]+ s\n$").arg(QRegularExpression::escape(file), summary)).match(run.out).hasMatch(),
                 qPrintable(run.out));
        QCOMPARE(m_io1.requestCount() + m_io2.requestCount(), requests);
        QCOMPARE(m_connections, connections);
    }

    // Text from a script or the shell is echoed escaped and cut: nothing it holds reaches the
    // terminal as a control sequence, and a huge word is not echoed whole.
    void hostileText_data()
    {
        QTest::addColumn<QString>("command");
        QTest::addColumn<QByteArray>("input");
        QTest::addColumn<QString>("error");
        const QString a200(200, QLatin1Char('A'));
        QTest::newRow("escape") << "script" << QByteArray("\x1b[31mred\n") << "-:1: \"\\x1b[31mred\" is not a step (see help)";
        QTest::newRow("escape at the shell") << "shell" << QByteArray("\x1b[31mred\n") << "shell:1: \"\\x1b[31mred\" is not a step (see help)";
        QTest::newRow("bidi") << "script" << QByteArray("get DI\u202e0\n") << "-:1: unknown channel \"DI\\u202e0\" for device";
        QTest::newRow("bell in a value") << "script" << QByteArray("set DO1 \a1\n") << "-:1: VALUE \"\\x071\" is not";
        QTest::newRow("long word") << "script" << "get " + QByteArray(1000, 'A') + '\n'
                                   << "-:1: unknown channel \"" + a200 + "... (1000 characters)\" for device";
        QTest::newRow("long step") << "script" << "B" + QByteArray(59999, 'A') + '\n'
                                   << "-:1: \"B" + a200.left(199) + "... (60000 characters)\" is not a step";
        QTest::newRow("1 MB line") << "script" << QByteArray(1 << 20, 'A') + "\nget DI0\n" << "-:1: the line is longer than 65536 bytes (1048576 bytes)";
        QTest::newRow("1 MB at the shell") << "shell" << QByteArray(1 << 20, 'x') << "shell:1: the line is longer than 65536 bytes (1048576 bytes)";
        QTest::newRow("NUL") << "script" << QByteArray("get DI0\0 junk\n", 14) << "-:1: the line holds a NUL byte (at byte 8)";
        QTest::newRow("64 MiB on stdin") << "script" << QByteArray((64 << 20) + 1, 'A') << "-:1: script -: larger than 64 MiB\n";
    }

    void hostileText()
    {
        QFETCH(QString, command);
        QFETCH(QByteArray, input);
        QFETCH(QString, error);
        const int requests = m_io1.requestCount();
        QStringList arguments{QStringLiteral("--config"), m_bench, command};
        if (command == QLatin1String("script"))
            arguments << QStringLiteral("-");
        const Run run = runCtl(arguments, QStringLiteral(E1212_BUILD_DIR "/bin/e1212ctl"), QProcessEnvironment::systemEnvironment(), input);
        QCOMPARE(run.exitCode, 2);
        QVERIFY2(run.err.startsWith(QStringLiteral("e1212ctl: ") + error), qPrintable(run.err.left(500)));
        QCOMPARE(run.err.count(QLatin1Char('\n')), 1);
        QVERIFY(run.err.size() < 600);
        QVERIFY(!run.err.contains(QChar(0x1b)) && !run.err.contains(QChar(0x202e)) && !run.err.contains(QChar(7)));
        QCOMPARE(m_io1.requestCount(), requests);
    }

    // A script ends with its summary; --keep-going runs on past a failure and counts it.
    void summary_data()
    {
        QTest::addColumn<QStringList>("options");
        QTest::addColumn<QByteArray>("script");
        QTest::addColumn<int>("exitCode");
        QTest::addColumn<QString>("summary");
        QTest::newRow("passed") << QStringList() << QByteArray("get DI0\n# comment\n\nget DI1") << 0 << "2 steps, 2 passed, 0 failed";
        QTest::newRow("stops") << QStringList() << QByteArray("get DX0\nget DI0\n") << 2 << "1 step, 0 passed, 1 failed";
        QTest::newRow("keep going") << QStringList{"--keep-going"} << QByteArray("get DI0\nget DX0\nget DI1\nwait x\n") << 2
                                    << "4 steps, 2 passed, 2 failed";
        // A line too long is one failed step, the lines after it run: 65536 bytes is the limit.
        QTest::newRow("past a long line") << QStringList{"--keep-going"} << QByteArray(200000, 'A') + "\n" + QByteArray(65529, ' ') + "get DI0\n"
                                          << 2 << "2 steps, 1 passed, 1 failed";
    }

    void summary()
    {
        QFETCH(QStringList, options);
        QFETCH(QByteArray, script);
        QFETCH(int, exitCode);
        QFETCH(QString, summary);
        const QString file = write(QStringLiteral("summary.txt"), script);
        const Run run = runCtl(QStringList{QStringLiteral("--config"), m_bench} + options + QStringList{QStringLiteral("script"), file});
        QCOMPARE(run.exitCode, exitCode);
        const QString last = run.out.split(QLatin1Char('\n'), Qt::SkipEmptyParts).value(run.out.count(QLatin1Char('\n')) - 1);
        QVERIFY2(QRegularExpression(QStringLiteral("^%1: %2, [0-9]+\\.[0-9]{2} s$").arg(QRegularExpression::escape(file), summary)).match(last).hasMatch(),
                 qPrintable(run.out));
    }

    // A script of 64 MiB and one byte is refused unread.
    void scriptTooLarge()
    {
        QFile file(m_dir.filePath(QStringLiteral("huge.txt")));
        QVERIFY(file.open(QIODevice::WriteOnly) && file.resize((64 << 20) + 1));
        file.close();
        const Run run = runCtl({QStringLiteral("script"), file.fileName()});
        QCOMPARE(run.exitCode, 2);
        QCOMPARE(run.err, QStringLiteral("e1212ctl: script %1: larger than 64 MiB\n").arg(file.fileName()));
        QVERIFY(file.remove());
    }

    // A background listen's outage names the line that started it, not the running one's.
    void backgroundListenLine()
    {
        const QString file = write(QStringLiteral("outage.txt"), "get DI0\nlisten DI2 &\nwait 1500\n");
        QTimer::singleShot(300, this, [this] { m_io1.setResponseDelay(5000); });
        const Run run = runCtl({QStringLiteral("--config"), m_bench, QStringLiteral("--timeout"), QStringLiteral("300"), QStringLiteral("script"), file});
        m_io1.setResponseDelay(0);
        QVERIFY2(run.err.startsWith(QStringLiteral("e1212ctl: %1:2: ").arg(file)), qPrintable(run.err));
        QVERIFY2(!run.err.contains(QStringLiteral(":3: ")), qPrintable(run.err));
    }

    // A file of references and addresses: each device gets the module's own table.
    void shortConfiguration()
    {
        const QString file = write(QStringLiteral("short.json"), QStringLiteral(R"({"devices": [
            {"reference": "Moxa E1212 io1", "connection": {"host": "127.0.0.1", "port": %1}},
            {"reference": "Bench B", "connection": {"host": "127.0.0.1", "port": %2}}]})").arg(m_io1.port()).arg(m_io2.port()).toUtf8());
        m_io2.setInput(4, true);
        const Run run = runCtl({QStringLiteral("--config"), file, QStringLiteral("get"), QStringLiteral("B:DI4")});
        QCOMPARE(run.exitCode, 0);
        QCOMPARE(run.out, QStringLiteral("B:DI4 = 1\n"));
        const Run channels = runCtl({QStringLiteral("--config"), file, QStringLiteral("--ref"), QStringLiteral("B"), QStringLiteral("channels")});
        QCOMPARE(channels.out.count(QLatin1Char('\n')), 20);
        m_io2.setInput(4, false);
    }

    // One host serves every device of the file: --ref, NAME:CH and use reach each one. run --raw passes
    // what the type checks refuse (65537 for a ui16), so protocol-level cases still reach the module.
    void severalDevices()
    {
        const QString file = write(QStringLiteral("two.txt"), "set io2:DO3 1\nuse io2\nset DO4 1\nset io1:DO5 1\n"
                                                              "run --raw setValue channel=DO7 value=65537\n");
        QCOMPARE(runCtl({QStringLiteral("--config"), m_bench, QStringLiteral("script"), file}).exitCode, 0);
        QCOMPARE(runCtl({QStringLiteral("--config"), m_bench, QStringLiteral("--ref"), QStringLiteral("Moxa E1212 io2"),
                         QStringLiteral("set"), QStringLiteral("DO6"), QStringLiteral("1")}).exitCode, 0);
        for (int channel = 3; channel <= 7; ++channel) {
            QCOMPARE(m_io2.pulseStatus(channel), channel != 5);
            QCOMPARE(m_io1.pulseStatus(channel), channel == 5);
        }
        const Run devices = runCtl({QStringLiteral("--config"), m_bench, QStringLiteral("devices")});
        QCOMPARE(devices.exitCode, 0);
        QCOMPARE(devices.out, QStringLiteral("Moxa E1212 io1  127.0.0.1:%1  Device Moxa IoLogic E1212\n"
                                             "Moxa E1212 io2  127.0.0.1:%2  Device Moxa IoLogic E1212\n")
                                  .arg(m_io1.port()).arg(m_io2.port()));
    }

    // The host refuses what would drive nothing or the wrong register: exit 2, its one line,
    // nothing on the wire, alone, as a script step and at the shell; --raw still sends it.
    void refusedByTheHost_data()
    {
        QTest::addColumn<QString>("step");
        QTest::addColumn<QString>("message");
        for (const char *mode : {"line", "script", "shell"}) {
            const auto row = [mode](const char *name, const char *step, const char *message) {
                QTest::newRow(qPrintable(QStringLiteral("%1 %2").arg(QLatin1String(mode), QLatin1String(name))))
                    << QStringLiteral("%1 %2").arg(QLatin1String(mode), QLatin1String(step)) << QString::fromLatin1(message);
            };
            row("set an input", "run setValue channel=DI0 value=1", "DI0");
            row("no channel", "run setValue value=1", "\"channel\"");
            row("blink an input", "run setBlink channel=DI3 pulseOnWidth=5 pulseOffWidth=5 values=[1]", "DI3");
            row("pulse record", "run setValue channel=DO_PulseStatus value=1", "DO_PulseStatus");
        }
    }

    void refusedByTheHost()
    {
        QFETCH(QString, step);
        QFETCH(QString, message);
        const QString mode = step.section(QLatin1Char(' '), 0, 0);
        const QStringList words = step.section(QLatin1Char(' '), 1).split(QLatin1Char(' '));
        m_io1.setPulseStatus(5, false);
        const int requests = m_io1.requestCount();
        Run run;
        QString where;
        if (mode == QLatin1String("line")) {
            run = runCtl(QStringList{QStringLiteral("--config"), m_bench} + words);
        } else if (mode == QLatin1String("script")) {
            const QString file = write(QStringLiteral("refused.txt"), words.join(QLatin1Char(' ')).toUtf8() + "\nset DO5 1\n");
            run = runCtl({QStringLiteral("--config"), m_bench, QStringLiteral("script"), file});
            where = file + QStringLiteral(":1: ");
        } else {
            run = runCtl({QStringLiteral("--config"), m_bench, QStringLiteral("shell")}, QStringLiteral(E1212_BUILD_DIR "/bin/e1212ctl"),
                         QProcessEnvironment::systemEnvironment(), words.join(QLatin1Char(' ')).toUtf8() + '\n');
            where = QStringLiteral("shell:1: ");
        }
        QCOMPARE(run.exitCode, 2);
        QVERIFY2(run.err.startsWith(QStringLiteral("e1212ctl: ") + where) && run.err.contains(message), qPrintable(run.err));
        QCOMPARE(run.err.count(QLatin1Char('\n')), 1);
        QCOMPARE(m_io1.requestCount(), requests);
        QVERIFY(!m_io1.pulseStatus(5)); // the script stopped at its failing step

        const Run raw = runCtl(QStringList{QStringLiteral("--config"), m_bench, QStringLiteral("run"), QStringLiteral("--raw")} + words.mid(1));
        QVERIFY2(m_io1.requestCount() > requests, qPrintable(raw.err));
        m_io1.setPulseStatus(0, false);
        m_io1.setPulseStatus(3, false);
    }

    // A listen, an expect or a watch that ends before a device ever answered has failed.
    void listenOnASilentDevice_data()
    {
        QTest::addColumn<QStringList>("arguments");
        QTest::addColumn<QString>("error");
        QTest::newRow("listen") << QStringList{"--timeout", "5000", "listen", "DI0", "--for", "0.5"}
                                << "listenEvents failed: device \"Moxa E1212 io1\" has not answered";
        // A deadline before the first answer waits for that answer, or for the failure.
        QTest::newRow("expect --within") << QStringList{"--timeout", "300", "expect", "DI0", "0", "--within", "50"}
                                         << "expect io1:DI0: listenEvents: ";
        QTest::newRow("watch") << QStringList{"--timeout", "5000", "watch", "io1:DI0", "io2:DI0", "--for", "0.5"}
                               << "watch failed: device \"Moxa E1212 io1\" had not answered yet when the watch ended";
    }

    void listenOnASilentDevice()
    {
        QFETCH(QStringList, arguments);
        QFETCH(QString, error);
        m_io1.setResponseDelay(10000);
        QProcessEnvironment environment = QProcessEnvironment::systemEnvironment();
        environment.insert(QStringLiteral("XDG_STATE_HOME"), m_dir.filePath(QStringLiteral("silent")));
        const Run run = runCtl(QStringList{QStringLiteral("--config"), m_bench} + arguments, QStringLiteral(E1212_BUILD_DIR "/bin/e1212ctl"), environment);
        m_io1.setResponseDelay(0);
        QCOMPARE(run.exitCode, 1);
        QVERIFY2(!run.out.contains(QStringLiteral("io1:")), qPrintable(run.out)); // nothing of the silent device
        QVERIFY2(run.err.startsWith(QStringLiteral("e1212ctl: ") + error), qPrintable(run.err));
        QCOMPARE(run.err.count(QLatin1Char('\n')), 1);
        // The log has the run to its end, though the last line is only an info line.
        QFile log(m_dir.filePath(QStringLiteral("silent/e1212/e1212ctl.log")));
        QVERIFY(log.open(QIODevice::ReadOnly) && log.readAll().endsWith(" e1212.ctl info: exit status 1\n"));
    }

    // The channel table as columns, each as wide as its widest cell and two blanks; the last
    // one unpadded; "-" where a record has no such entry; each channel's state and each
    // output's pulse generator as read.
    void channels()
    {
        // DO5 on as setValue leaves it: the generator's on-phase of 65535 ms.
        const quint16 width = m_io1.value(QModbusDataUnit::HoldingRegisters, E1212Simulator::PulseOnWidthBase + 5);
        m_io1.setValue(QModbusDataUnit::HoldingRegisters, E1212Simulator::PulseOnWidthBase + 5, 65535);
        m_io1.setPulseStatus(5, true);
        const int requests = m_io1.requestCount();
        const Run run = runCtl({QStringLiteral("--config"), m_bench, QStringLiteral("channels")});
        m_io1.setPulseStatus(5, false);
        m_io1.setValue(QModbusDataUnit::HoldingRegisters, E1212Simulator::PulseOnWidthBase + 5, width);
        QCOMPARE(run.exitCode, 0);
        QCOMPARE(m_io1.requestCount() - requests, 3); // one read each: inputs, outputs, pulse generators
        const QStringList lines = QString(QLatin1Char('\n') + run.out).split(QLatin1Char('\n'));
        QCOMPARE(lines.value(1), QStringLiteral("id                type           value  pulse  register  readRegisterType  writeRegisterType  activeLevelHigh  size  name"));
        QCOMPARE(lines.value(2), QStringLiteral("DI0               digitalInput   0      -      0         discreteInputs    -                  -                8     Digital input 0"));
        QCOMPARE(lines.value(14), QStringLiteral("DO4               digitalOutput  0      0      4         coilsRegister     coilsRegister      true             4     Digital output 4"));
        QCOMPARE(lines.value(15), QStringLiteral("DO5               digitalOutput  1      1      5         coilsRegister     coilsRegister      true             3     Digital output 5"));
        QCOMPARE(lines.value(18), QStringLiteral("DO_PulseStatus    -              -      -      16        coilsRegister     coilsRegister      -                8     Pulse status of DO0, coils 16-23"));
        // A record without a size is read on its own, also right past another's run (DI1, DI2).
        m_io2.setInput(1, true);
        m_io2.setInput(3, true);
        const QString file = write(QStringLiteral("nosize.json"), QStringLiteral(R"({"reference": "Bench io1", "connection": {"host": "127.0.0.1", "port": %1},
            "parameters": {"io1_channels": [{"id": "DI1", "value": [{"id": "type", "value": "digitalInput"}, {"id": "register", "value": 1},
            {"id": "readRegisterType", "value": "discreteInputs"}, {"id": "size", "value": 2}]},
            {"id": "DI3", "value": [{"id": "type", "value": "digitalInput"}, {"id": "register", "value": 3},
            {"id": "readRegisterType", "value": "discreteInputs"}]}]}})").arg(m_io2.port()).toUtf8());
        const Run one = runCtl({QStringLiteral("--config"), file, QStringLiteral("channels")});
        m_io2.setInput(1, false);
        m_io2.setInput(3, false);
        QVERIFY2(one.out.contains(QRegularExpression(QStringLiteral("\nDI1 +digitalInput +1 .*\nDI3 +digitalInput +1 "))), qPrintable(one.out));
    }

    // expect --within passes on the report that shows the value, and fails at its deadline
    // with the last value it saw; an output is judged on its coil, which a blinking output toggles.
    void expectWithin()
    {
        m_io1.setInput(3, false);
        m_io1.setInput(4, false);
        QTimer::singleShot(300, this, [this] { m_io1.setInput(3, true); });
        const QString file = write(QStringLiteral("expect.txt"), "expect DI3 1 --within 20000\n"
                                                                 "expect DI3 1 --within 0\n" // no deadline: a read
                                                                 "blink DO6 --on 300 --off 300 1\n"
                                                                 "expect DO6 1 --within 20000\n"
                                                                 "expect DO6 0 --within 20000\n"
                                                                 "get DO6 --pulse\n"
                                                                 "set DO6 0\n"
                                                                 "expect DO6 1 --within 400\n");
        const Run run = runCtl({QStringLiteral("--config"), m_bench, QStringLiteral("script"), file});
        QCOMPARE(run.err, QStringLiteral("e1212ctl: %1:8: expect io1:DO6: read 0, expected 1 (within 400 ms)\n").arg(file));
        QCOMPARE(run.exitCode, 1);
        QVERIFY2(QRegularExpression(QStringLiteral("^io1:DI3 = 1 as expected\nio1:DI3 = 1 as expected\nio1:DO6: blink on 300 ms, off 300 ms, values \\[1\\] done\n"
                                                   "io1:DO6 = 1 as expected\nio1:DO6 = 0 as expected\nio1:DO6 pulse = 1\nio1:DO6 = 0 done\n"
                                                   ".*/expect.txt: 8 steps, 7 passed, 1 failed, [0-9]+\\.[0-9]{2} s\n$"))
                     .match(run.out).hasMatch(), qPrintable(run.out));
    }

    // An output's state is its coil, as mbpoll reads it on the wire; its pulse generator is
    // get --pulse. Each row runs its steps as one script and reads coil CH with mbpoll after.
    void outputMeaning_data()
    {
        QTest::addColumn<QByteArray>("steps");
        QTest::addColumn<QString>("out");
        QTest::addColumn<int>("coil");
        QTest::addColumn<int>("coilValue");
        QTest::newRow("mask: the coil itself") << QByteArray("set DO5 1 --mask 1\nget DO5\nexpect DO5 1\nget DO5 --pulse\n")
                                               << "io1:DO5 = 1 (mask 0x0001) done\nio1:DO5 = 1\nio1:DO5 = 1 as expected\nio1:DO5 pulse = 0\n" << 5 << 1;
        QTest::newRow("mask off") << QByteArray("set DO5 0 --mask 0xFF\nget DO5\n") << "io1:DO5 = 0 (mask 0x00ff) done\nio1:DO5 = 0\n" << 5 << 0;
        QTest::newRow("pulse path on") << QByteArray("set DO4 1\nget DO4\nget DO4 --pulse\n")
                                       << "io1:DO4 = 1 done\nio1:DO4 = 1\nio1:DO4 pulse = 1\n" << 4 << 1;
        QTest::newRow("pulse path off") << QByteArray("set DO4 0\nget DO4\nget DO4 --pulse\n")
                                        << "io1:DO4 = 0 done\nio1:DO4 = 0\nio1:DO4 pulse = 0\n" << 4 << 0;
        // On for 1 ms, then off for a minute: the generator runs, the coil is off.
        QTest::newRow("blinking, off phase") << QByteArray("blink DO3 --on 1 --off 65535 1\nexpect DO3 0 --within 5000\nget DO3\nget DO3 --pulse\n")
                                             << "io1:DO3: blink on 1 ms, off 65535 ms, values [1] done\nio1:DO3 = 0 as expected\n"
                                                "io1:DO3 = 0\nio1:DO3 pulse = 1\n" << 3 << 0;
        QTest::newRow("get-run reads coils") << QByteArray("set DO6 1 --mask 1\nset DO7 0 --mask 1\nget-run DO6\n")
                                             << "io1:DO6 = 1 (mask 0x0001) done\nio1:DO7 = 0 (mask 0x0001) done\nio1:DO6 = 1\nio1:DO7 = 0\n" << 6 << 1;
    }

    void outputMeaning()
    {
        QFETCH(QByteArray, steps);
        QFETCH(QString, out);
        QFETCH(int, coil);
        QFETCH(int, coilValue);
        const QString file = write(QStringLiteral("outputs.txt"), steps);
        const Run run = runCtl({QStringLiteral("--config"), m_bench, QStringLiteral("script"), file});
        QCOMPARE(run.err, QString());
        // What the steps printed, then the script's summary.
        QVERIFY2(run.out.startsWith(out) && run.out.mid(out.size()).count(QLatin1Char('\n')) == 1, qPrintable(run.out));
        QCOMPARE(run.exitCode, 0);
        const Run mbpoll = runCtl({QStringLiteral("-m"), QStringLiteral("tcp"), QStringLiteral("-p"), QString::number(m_io1.port()),
                                   QStringLiteral("-t"), QStringLiteral("0"), QStringLiteral("-0"), QStringLiteral("-r"), QString::number(coil),
                                   QStringLiteral("-c"), QStringLiteral("1"), QStringLiteral("-1"), QStringLiteral("127.0.0.1")},
                                  QStringLiteral("mbpoll"));
        QCOMPARE(mbpoll.exitCode, 0);
        QVERIFY2(mbpoll.out.contains(QStringLiteral("[%1]: \t%2\n").arg(coil).arg(coilValue)), qPrintable(mbpoll.out));
        for (int channel = 0; channel < E1212Simulator::ChannelCount; ++channel)
            m_io1.setPulseStatus(channel, false);
    }

    // Every --json line is one flat object: "command", "ok", "time" with its zone, "device" and
    // "channel" where there is one, the values as members (no "results", no nested "values").
    void jsonShape_data()
    {
        QTest::addColumn<QStringList>("arguments");
        QTest::addColumn<QStringList>("members"); // of the last line: "key" present, or "key=JSON"
        QTest::addColumn<int>("lines");
        const QString io1 = QStringLiteral("device=\"Moxa E1212 io1\"");
        QTest::newRow("get") << QStringList{"get", "DI1"} << QStringList{"command=\"get\"", io1, "channel=\"DI1\"", "value=0"} << 1;
        QTest::newRow("get --pulse") << QStringList{"get", "DO2", "--pulse"} << QStringList{"command=\"get\"", "channel=\"DO2\"", "pulse=0"} << 1;
        QTest::newRow("get of io2") << QStringList{"get", "io2:DI1"} << QStringList{"device=\"Moxa E1212 io2\"", "channel=\"DI1\""} << 1;
        QTest::newRow("get-run") << QStringList{"get-run", "DI6"} << QStringList{"command=\"get-run\"", "channel=\"DI6\"", "channels={\"DI6\":0,\"DI7\":0}"} << 1;
        QTest::newRow("set") << QStringList{"set", "DO1", "0", "--mask", "1"}
                             << QStringList{"command=\"set\"", io1, "channel=\"DO1\"", "value=0", "mask=1", "ok=true"} << 1;
        QTest::newRow("blink") << QStringList{"blink", "DO6", "--on", "5", "--off", "6", "0", "0"}
                               << QStringList{"command=\"blink\"", "channel=\"DO6\"", "on=5", "off=6", "channels={\"DO6\":0,\"DO7\":0}"} << 1;
        QTest::newRow("info") << QStringList{"info"} << QStringList{"command=\"info\"", io1, "modelName=\"E1212\"", "macAddress=\"00:90:E8:12:34:56\""} << 1;
        QTest::newRow("listen") << QStringList{"listen", "DI7", "--count", "1"}
                                << QStringList{"command=\"listen\"", io1, "channel=\"DI7\"", "value=0", "events=1"} << 2;
        QTest::newRow("expect") << QStringList{"expect", "DI7", "1"}
                                << QStringList{"command=\"expect\"", io1, "channel=\"DI7\"", "expected=1", "value=0", "ok=false", "code=\"expect_failed\"", "error"} << 1;
        QTest::newRow("run") << QStringList{"run", "getValues", "channel=DI7"} << QStringList{"command=\"getValues\"", "channel=\"DI7\"", "values=[0]"} << 1;
        QTest::newRow("refused") << QStringList{"set", "DI0", "1"} << QStringList{"command=\"set\"", "ok=false", "code=\"refused\"", "error"} << 1;
        QTest::newRow("watch") << QStringList{"watch", "io2", "--count", "16"} << QStringList{"command=\"watch\"", "records=16", "ok=true"} << 17;
        QTest::newRow("script") << QStringList{"script", write(QStringLiteral("shape.txt"), "get DI0\nget DX0\nget DI1\n")}
                                << QStringList{"command=\"script\"", "code=\"steps_failed\""} << 3;
    }

    void jsonShape()
    {
        QFETCH(QStringList, arguments);
        QFETCH(QStringList, members);
        QFETCH(int, lines);
        const Run run = runCtl(QStringList{QStringLiteral("--config"), m_bench, QStringLiteral("--json")} + arguments);
        const QList<QJsonObject> objects = jsonLines(run.out);
        QCOMPARE(objects.size(), lines);
        for (const QJsonObject &object : objects) {
            QVERIFY2(hasZone(object.value(QStringLiteral("time"))), qPrintable(run.out));
            QVERIFY(object.value(QStringLiteral("ok")).isBool());
            QVERIFY(object.contains(QStringLiteral("command")));
            QVERIFY(!object.contains(QStringLiteral("results")));
            QVERIFY(!object.value(QStringLiteral("values")).isObject());
            // An event names its device and channel; an error and its code come together.
            QCOMPARE(object.contains(QStringLiteral("code")), !object.value(QStringLiteral("ok")).toBool());
            QCOMPARE(object.contains(QStringLiteral("error")), !object.value(QStringLiteral("ok")).toBool());
            if (object.contains(QStringLiteral("event")))
                QVERIFY(object.contains(QStringLiteral("device")) && object.contains(QStringLiteral("channel")));
        }
        for (const QString &member : members) {
            const QString key = member.section(QLatin1Char('='), 0, 0);
            QVERIFY2(objects.last().contains(key), qPrintable(member + QStringLiteral(" in ") + run.out));
            if (member.contains(QLatin1Char('=')))
                QCOMPARE(QString::fromUtf8(QJsonDocument(QJsonArray{objects.last().value(key)}).toJson(QJsonDocument::Compact)),
                         QStringLiteral("[%1]").arg(member.section(QLatin1Char('='), 1)));
        }
    }

    void duplicateAnswers_data()
    {
        QTest::addColumn<QStringList>("arguments");
        QTest::newRow("info") << QStringList{"info"};
        QTest::newRow("get") << QStringList{"get", "DI0"};
        QTest::newRow("get-run") << QStringList{"get-run", "DI0"};
        QTest::newRow("set") << QStringList{"set", "DO1", "1", "--mask", "1"};
        QTest::newRow("pulse") << QStringList{"pulse", "DO2", "--on", "5", "--off", "5", "1"};
        QTest::newRow("blink") << QStringList{"blink", "DO3", "--on", "5", "--off", "5", "1"};
        QTest::newRow("listen") << QStringList{"listen", "DI0", "--count", "1"};
    }

    // A module behind a gateway that sends every answer twice: each command still succeeds
    // (the copy is a late answer, dropped), and a script of them runs over one connection.
    void duplicateAnswers()
    {
        QFETCH(QStringList, arguments);
        E1212Simulator twice;
        twice.setDuplicateAnswers(true);
        QVERIFY(twice.start());
        const Run run = runCtl(QStringList{QStringLiteral("--device"), QStringLiteral("127.0.0.1:%1").arg(twice.port())} + arguments);
        QVERIFY2(run.exitCode == 0, qPrintable(run.err));
        QVERIFY(run.err.isEmpty() && twice.requestCount() > 0);
    }

    // Records while the output is no terminal: one line per change with its zone, the same
    // records in the files, each written before the next change comes; SIGTERM ends it well.
    void watchRecords()
    {
        m_io1.setInput(1, false);
        const QString csv = m_dir.filePath(QStringLiteral("watch.csv"));
        const QString jsonl = m_dir.filePath(QStringLiteral("watch.jsonl"));
        QProcess process;
        QSignalSpy finished(&process, qOverload<int, QProcess::ExitStatus>(&QProcess::finished));
        process.start(QStringLiteral(E1212_BUILD_DIR "/bin/e1212ctl"), {QStringLiteral("--config"), m_bench, QStringLiteral("watch"),
                                                                        QStringLiteral("DI1"), QStringLiteral("io2:DO2"),
                                                                        QStringLiteral("--csv"), csv, QStringLiteral("--jsonl"), jsonl});
        const auto fileLines = [](const QString &path) {
            QFile file(path);
            file.open(QIODevice::ReadOnly);
            return QString::fromUtf8(file.readAll()).split(QLatin1Char('\n'), Qt::SkipEmptyParts);
        };
        QString out;
        QTRY_VERIFY_WITH_TIMEOUT((out += QString::fromUtf8(process.readAllStandardOutput())).count(QLatin1Char('\n')) == 3, 10000);
        QCOMPARE(fileLines(csv).size(), 4);
        m_io1.setInput(1, true);
        QTRY_VERIFY_WITH_TIMEOUT((out += QString::fromUtf8(process.readAllStandardOutput())).count(QLatin1Char('\n')) == 4, 10000);
        QTRY_COMPARE_WITH_TIMEOUT(fileLines(jsonl).size(), 4, 10000);
        const QStringList records = fileLines(csv);
        const QStringList events = fileLines(jsonl);
        QCOMPARE(records.size(), 5);
        // An output's pulse generator is a record of its own, read again each poll.
        QVERIFY2(records.filter(QStringLiteral(",Moxa E1212 io2,DO2.pulse,0,")).size() == 1, qPrintable(records.join('\n')));
        m_io2.setPulseStatus(2, true);
        QString more;
        QTRY_VERIFY_WITH_TIMEOUT((more += QString::fromUtf8(process.readAllStandardOutput())).contains(QStringLiteral("  io2:DO2.pulse = 1\n")), 10000);
        m_io2.setPulseStatus(2, false);
        process.terminate();
        QVERIFY(finished.wait(10000));
        QCOMPARE(process.exitCode(), 0);

        QCOMPARE(records.first(), QStringLiteral("time,device,channel,value,code"));
        const QStringList first = records.filter(QStringLiteral(",Moxa E1212 io1,DI1,0,"));
        QVERIFY2(first.size() == 1, qPrintable(records.join('\n')));
        QVERIFY2(records.last().endsWith(QStringLiteral(",Moxa E1212 io1,DI1,1,")), qPrintable(records.join('\n')));
        const QStringList lines = out.split(QLatin1Char('\n'), Qt::SkipEmptyParts);
        // The same record, with the same time, on standard output and in the file.
        QVERIFY2(lines.contains(first.value(0).section(QLatin1Char(','), 0, 0) + QStringLiteral("  io1:DI1 = 0")), qPrintable(out));
        QCOMPARE(lines.last(), records.last().section(QLatin1Char(','), 0, 0) + QStringLiteral("  io1:DI1 = 1"));
        for (const QString &record : records.mid(1))
            QVERIFY2(hasZone(record.section(QLatin1Char(','), 0, 0)), qPrintable(record));
        const QJsonObject last = QJsonDocument::fromJson(events.last().toUtf8()).object();
        QCOMPARE(last.value(QStringLiteral("channel")).toString(), QStringLiteral("DI1"));
        QCOMPARE(last.value(QStringLiteral("value")), QJsonValue(1));
        QCOMPARE(last.value(QStringLiteral("time")).toString(), records.last().section(QLatin1Char(','), 0, 0));
    }

    // On a terminal (a pseudo-terminal from script(1)) the table is drawn over itself.
    void watchTable()
    {
        const Run run = runCtl({QStringLiteral("-qec"), QStringLiteral(E1212_BUILD_DIR "/bin/e1212ctl --config %1 watch DI4 io2:DI4 DO0 --count 4").arg(m_bench),
                                QStringLiteral("/dev/null")}, QStringLiteral("script"));
        QCOMPARE(run.exitCode, 0);
        QVERIFY2(run.out.startsWith(QStringLiteral("\rchannel  io1  pulse  io2\x1b[K\r\n\rDI4      .           .  \x1b[K\r\n")), qPrintable(run.out));
        QVERIFY2(run.out.contains(QStringLiteral("\x1b[4A\rchannel  io1  pulse  io2\x1b[K\r\n")), qPrintable(run.out));
        QVERIFY2(run.out.contains(QStringLiteral("\rDI4      0           0  \x1b[K\r\n\rDO0      0    0         \x1b[K\r\n")), qPrintable(run.out));
        QVERIFY2(run.out.contains(QStringLiteral("  4 changes\x1b[K\r\n")), qPrintable(run.out));
    }

    // On a terminal a device that does not answer shows "?", and the status line says why.
    void watchTableOutage()
    {
        m_io2.setResponseDelay(10000);
        const Run run = runCtl({QStringLiteral("-qec"), QStringLiteral(E1212_BUILD_DIR "/bin/e1212ctl --config %1 --timeout 100 watch io1:DI0 io2:DI0 --for 1").arg(m_bench),
                                QStringLiteral("/dev/null")}, QStringLiteral("script"));
        m_io2.setResponseDelay(0);
        QCOMPARE(run.exitCode, 1);
        QVERIFY2(run.out.contains(QStringLiteral("?  \x1b[K\r\n")) && run.out.contains(QStringLiteral(" changes  last error: listenEvents: ")), qPrintable(run.out));
    }

    // An outage is a record and a line on stderr; the first answer after it is a record too,
    // though the value has not changed.
    void watchOutage()
    {
        m_io1.setInput(3, false);
        QProcess process;
        QSignalSpy finished(&process, qOverload<int, QProcess::ExitStatus>(&QProcess::finished));
        process.start(QStringLiteral(E1212_BUILD_DIR "/bin/e1212ctl"), {QStringLiteral("--config"), m_bench, QStringLiteral("--timeout"),
                                                                        QStringLiteral("300"), QStringLiteral("watch"), QStringLiteral("DI3"),
                                                                        QStringLiteral("--count"), QStringLiteral("3")});
        QByteArray err;
        connect(&process, &QProcess::readyReadStandardError, this, [&] { err += process.readAllStandardError(); });
        QTRY_VERIFY_WITH_TIMEOUT(process.canReadLine(), 10000);
        m_io1.setResponseDelay(2000);
        QTRY_VERIFY_WITH_TIMEOUT(err.startsWith("e1212ctl: "), 10000);
        m_io1.setResponseDelay(0);
        const bool ended = finished.wait(10000);
        if (!ended)
            process.kill();
        QVERIFY(ended);
        QCOMPARE(process.exitCode(), 0);
        const QString out = QString::fromUtf8(process.readAllStandardOutput());
        QVERIFY2(out.count(QStringLiteral("  io1:DI3 = 0\n")) == 2 && out.count(QLatin1Char('\n')) == 2, qPrintable(out));
        QVERIFY2(err.startsWith("e1212ctl: listenEvents: ") && err.contains("discreteInputs register 3: no answer within 300 ms\n"),
                 qPrintable(err));
    }

    // On a terminal a script shows where it is on stderr, and wipes that before a step prints.
    void scriptProgress()
    {
        const QString file = write(QStringLiteral("progress.txt"), "wait 300\nget DI0\nwait 200\nwait 100\n");
        const Run run = runCtl({QStringLiteral("-qec"), QStringLiteral(E1212_BUILD_DIR "/bin/e1212ctl script %1").arg(file), QStringLiteral("/dev/null")},
                               QStringLiteral("script"));
        QCOMPARE(run.exitCode, 0);
        // Each line's progress is cleared before what follows it: a step's output, the summary.
        QVERIFY2(run.out.contains(QStringLiteral("\r\x1b[K%1: line 2 (48%)\r\x1b[KDI0 = 0\r\n").arg(file)), qPrintable(run.out));
        QVERIFY2(run.out.contains(QStringLiteral("\r\x1b[K%1: line 4 (100%)\r\x1b[K%1: 4 steps").arg(file)), qPrintable(run.out));
    }

    // The demonstration changes DI2 of its simulator while it listens.
    void demo()
    {
        const Run run = runCtl({QStringLiteral("demo")});
        QVERIFY2(run.out.contains(QStringLiteral("\n  reports: 0, 1, 0, 1\n")), qPrintable(run.out));
        // Every stage passes (the main job is this demo).
        QVERIFY2(run.exitCode == 0 && !run.out.contains(QStringLiteral("FAILED")), qPrintable(run.out));
    }

    // The panel without a display: --screenshot saves it once connected and exits.
    void panelScreenshot()
    {
        const QString png = m_dir.filePath(QStringLiteral("panel.png"));
        const Run run = runCtl({QStringLiteral("--config"), m_bench, QStringLiteral("panel"), QStringLiteral("-platform"), QStringLiteral("offscreen"),
                                QStringLiteral("--screenshot"), png});
        QCOMPARE(run.exitCode, 0);
        QFile file(png);
        QVERIFY(file.open(QIODevice::ReadOnly));
        const QByteArray head = file.read(24);
        QCOMPARE(head.left(8), QByteArray("\x89PNG\r\n\x1a\n"));
        QCOMPARE(head.mid(16).toHex(), QByteArray("00000320000001e0")); // 800x480 unless --size says otherwise
    }

    // Every help text and the declared commands word for word as help.txt has them, without a display
    // (E1212_UPDATE_HELP=1 writes the file anew from the commands it lists).
    void helpTexts()
    {
        QFile file(QStringLiteral(E1212_SOURCE_DIR "/apps/e1212ctl/tests/help.txt"));
        QVERIFY(file.open(QIODevice::ReadOnly));
        const QString want = QString::fromUtf8(file.readAll());
        QProcessEnvironment environment = QProcessEnvironment::systemEnvironment();
        environment.remove(QStringLiteral("DISPLAY"));
        environment.remove(QStringLiteral("QT_QPA_PLATFORM"));
        QString got;
        for (const QString &line : want.split(QLatin1Char('\n')).filter(QRegularExpression(QStringLiteral("^\\$ e1212ctl ")))) {
            const Run run = runCtl(line.mid(11).split(QLatin1Char(' ')), QStringLiteral(E1212_BUILD_DIR "/bin/e1212ctl"), environment);
            QCOMPARE(run.exitCode, 0);
            QCOMPARE(run.err, QString());
            got += line + QLatin1Char('\n') + run.out;
        }
        if (qEnvironmentVariableIsSet("E1212_UPDATE_HELP")) {
            file.close();
            QVERIFY(file.open(QIODevice::WriteOnly | QIODevice::Truncate));
            file.write(got.toUtf8());
        }
        const QStringList wanted = want.split(QLatin1Char('\n')), have = got.split(QLatin1Char('\n'));
        for (int i = 0; i < qMax(wanted.size(), have.size()); ++i)
            QCOMPARE(have.value(i), wanted.value(i));
    }

    // The installed tree runs on its own: plug-ins from the prefix, the embedded simulator.
    void installed()
    {
        QProcess install;
        install.start(QStringLiteral(E1212_CMAKE), {QStringLiteral("--install"), QStringLiteral(E1212_BUILD_DIR),
                                                    QStringLiteral("--prefix"), m_dir.filePath(QStringLiteral("prefix"))});
        QVERIFY(install.waitForFinished(60000));
        QCOMPARE(install.exitCode(), 0);
        QVERIFY(QFile::exists(m_dir.filePath(QStringLiteral("prefix/share/e1212/e1212.json"))));
        QVERIFY(QFile::exists(m_dir.filePath(QStringLiteral("prefix/share/man/man1/e1212ctl.1"))));
        QVERIFY(QFile::exists(m_dir.filePath(QStringLiteral("prefix/share/bash-completion/completions/e1212ctl"))));
        // A prefix can be moved: nothing points into the build tree or at the install path.
        QVERIFY(QDir(m_dir.path()).rename(QStringLiteral("prefix"), QStringLiteral("moved")));
        const Run run = runCtl({QStringLiteral("--verbose"), QStringLiteral("info")}, m_dir.filePath(QStringLiteral("moved/bin/e1212ctl")));
        QCOMPARE(run.exitCode, 0);
        QVERIFY2(run.out.contains(QStringLiteral("modelName:       E1212\n")), qPrintable(run.out));
        QVERIFY2(run.err.contains(QStringLiteral("from %1/libp_device_moxa_iologic.so")
                                      .arg(QFileInfo(m_dir.filePath(QStringLiteral("moved/lib/e1212/plugins"))).canonicalFilePath())),
                 qPrintable(run.err));
        QVERIFY(!run.err.contains(QStringLiteral(E1212_BUILD_DIR "/plugins")));
        QVERIFY2(run.err.contains(QStringLiteral(" e1212.ctl info: e1212ctl --verbose info\n")) && run.err.contains(QStringLiteral(" e1212.host debug: running getInfo")),
                 qPrintable(run.err));
    }
};

QTEST_GUILESS_MAIN(TstE1212Ctl)
#include "tst_e1212ctl.moc"
