// SPDX-License-Identifier: MIT
// e1212ctl shell at a terminal, as a technician types at it: a pseudo-terminal that is the
// shell's controlling terminal, so Ctrl-C is the terminal's own SIGINT. Line editing, history
// (kept across sessions), completion, Ctrl-C for the running step and at the prompt, Ctrl-D.
#include "e1212simulator.h"

#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>
#include <QTemporaryDir>
#include <QtTest>

#include <csignal>
#include <fcntl.h>
#include <functional>
#include <pty.h>
#include <sys/wait.h>
#include <unistd.h>

namespace {

// e1212ctl on a pseudo-terminal of its own.
class Terminal
{
public:
    Terminal(const QStringList &arguments, const QString &stateDir)
    {
        QList<QByteArray> words{QByteArrayLiteral(E1212_BUILD_DIR "/bin/e1212ctl")};
        for (const QString &argument : arguments)
            words << argument.toUtf8();
        std::vector<char *> argv;
        for (QByteArray &word : words)
            argv.push_back(word.data());
        argv.push_back(nullptr);
        const QByteArray state = "XDG_STATE_HOME=" + stateDir.toUtf8();
        m_pid = forkpty(&m_master, nullptr, nullptr, nullptr);
        if (m_pid == 0) {
            putenv(const_cast<char *>("TERM=xterm"));
            putenv(const_cast<char *>("INPUTRC=/dev/null"));
            putenv(const_cast<char *>(state.constData()));
            execv(argv[0], argv.data());
            _exit(127);
        }
        fcntl(m_master, F_SETFL, O_NONBLOCK);
    }

    ~Terminal()
    {
        if (m_pid > 0 && m_status < 0) {
            kill(m_pid, SIGKILL);
            waitpid(m_pid, nullptr, 0);
        }
        if (m_master >= 0)
            close(m_master);
    }

    void type(const QByteArray &keys) { QCOMPARE(write(m_master, keys.constData(), size_t(keys.size())), ssize_t(keys.size())); }

    // Everything the terminal showed so far.
    QByteArray screen()
    {
        char buffer[4096];
        ssize_t got;
        while ((got = read(m_master, buffer, sizeof buffer)) > 0)
            m_screen.append(buffer, int(got));
        return m_screen;
    }
    void signal(int number) { ::kill(m_pid, number); }
    // Waits up to 10 s for what it showed since the last mark() to end with `tail` (or to
    // hold `part`), then marks; false if it never did.
    bool waitEnd(const QByteArray &tail) { return waitFor([&] { return fresh().endsWith(tail); }); }
    bool waitFresh(const QByteArray &part) { return waitFor([&] { return fresh().contains(part); }); }
    bool waitFor(const std::function<bool()> &shown)
    {
        const bool seen = QTest::qWaitFor(shown, 10000);
        mark();
        return seen;
    }
    // What it showed since the last mark().
    QByteArray fresh() { return screen().mid(m_seen); }
    void mark() { m_seen = screen().size(); }
    // The exit status once e1212ctl has ended; -1 while it runs.
    int status()
    {
        int status = 0;
        if (m_status < 0 && waitpid(m_pid, &status, WNOHANG) == m_pid)
            m_status = WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
        screen();
        return m_status;
    }

private:
    pid_t m_pid = -1;
    int m_master = -1;
    int m_status = -1;
    QByteArray m_screen;
    int m_seen = 0;
};

QJsonObject device(const QString &reference, const E1212Simulator &simulator)
{
    return {{QStringLiteral("reference"), reference},
            {QStringLiteral("connection"), QJsonObject{{QStringLiteral("host"), QStringLiteral("127.0.0.1")},
                                                       {QStringLiteral("port"), simulator.port()}}}};
}

} // namespace

class TstShell : public QObject
{
    Q_OBJECT

    QTemporaryDir m_dir;
    E1212Simulator m_io1;
    E1212Simulator m_io2;
    QStringList m_arguments;

private slots:
    void initTestCase()
    {
        QVERIFY(m_dir.isValid());
        QVERIFY(m_io1.start());
        QVERIFY(m_io2.start());
        // References and addresses only: both devices get the module's own table.
        QFile file(m_dir.filePath(QStringLiteral("bench.json")));
        QVERIFY(file.open(QIODevice::WriteOnly));
        file.write(QJsonDocument(QJsonObject{{QStringLiteral("devices"), QJsonArray{device(QStringLiteral("Moxa E1212 io1"), m_io1),
                                                                                     device(QStringLiteral("Moxa E1212 io2"), m_io2)}}})
                       .toJson());
        file.close();
        m_arguments = QStringList{QStringLiteral("--config"), file.fileName(), QStringLiteral("shell")};
    }

    // Editing keys change the line before it runs; Up recalls it; Tab completes step names,
    // device names and channels; the prompt names the current device.
    void editingHistoryCompletion()
    {
        m_io1.setInput(1, true);
        m_io2.setInput(4, true);
        Terminal terminal(m_arguments, m_dir.filePath(QStringLiteral("editing")));
        QVERIFY(terminal.waitEnd("io1> "));
        terminal.type("et DI1\x01g\r"); // Ctrl-A: to the start of the line
        QVERIFY(terminal.waitFresh("io1:DI1 = 1\r\n"));
        terminal.type("get DI7\x7f\x7f\x7f" "DI9\x17" "DI1\r"); // Backspace, Ctrl-W
        QVERIFY(terminal.waitFresh("io1:DI1 = 1\r\n"));
        m_io1.setInput(1, false);
        terminal.type("\x1b[A\r"); // Up: the last line again
        QVERIFY(terminal.waitFresh("io1:DI1 = 0\r\n"));
        terminal.type("us\t i\t2\r");
        QVERIFY(terminal.waitEnd("io2> "));
        terminal.type("get io1:DI\t\t");
        QTRY_VERIFY_WITH_TIMEOUT(terminal.screen().contains("io1:DI7"), 10000);
        terminal.type("\x15get-r\t DI\t\t4\r"); // Ctrl-U clears the line
        QVERIFY(terminal.waitFor([&] { return terminal.fresh().contains("io2:DI4 = 1\r\nio2:DI5 = 0\r\nio2:DI6 = 0\r\nio2:DI7 = 0\r\n") && terminal.fresh().endsWith("io2> "); }));
        terminal.type("\x04"); // Ctrl-D, once the prompt is back: keys typed during a step are the terminal's
        QTRY_COMPARE_WITH_TIMEOUT(terminal.status(), 0, 10000);
        // The terminal's own prompt comes on the next line, no blank line before it.
        QVERIFY2(terminal.screen().endsWith("\r\n") && !terminal.screen().endsWith("\n\r\n"), terminal.screen().right(20).toHex().constData());

        // The history outlives the session: each line once, as it ran.
        QFile history(m_dir.filePath(QStringLiteral("editing/e1212/e1212ctl.history")));
        QVERIFY(history.open(QIODevice::ReadOnly));
        QCOMPARE(history.readAll(), QByteArray("get DI1\nget DI1\nget DI1\nuse  io2\nget-run  DI4\n"));
        Terminal again(m_arguments, m_dir.filePath(QStringLiteral("editing")));
        QVERIFY(again.waitEnd("io1> "));
        again.type("\x1b[A\x1b[A\r");
        QVERIFY(again.waitEnd("io2> "));
        again.type("quit\r");
        QTRY_COMPARE_WITH_TIMEOUT(again.status(), 0, 10000);
    }

    // Ctrl-C stops the running step (a wait, an expect, a foreground listen) and the prompt
    // comes back, background listens still running; at the prompt it drops the line typed;
    // twice at an empty prompt it ends the shell.
    void controlC_data()
    {
        QTest::addColumn<QByteArray>("step");
        QTest::addColumn<QByteArray>("shown"); // what the step shows before Ctrl-C
        QTest::addColumn<int>("status");       // the shell's: an expect stopped has not passed
        QTest::newRow("wait") << QByteArray("wait 600000") << QByteArray() << 0;
        QTest::newRow("expect") << QByteArray("expect DI5 1 --within 600000") << QByteArray() << 1;
        QTest::newRow("listen") << QByteArray("listen DI5") << QByteArray("  io1:DI5 = 0\r\n") << 0;
    }

    void controlC()
    {
        QFETCH(QByteArray, step);
        QFETCH(QByteArray, shown);
        QFETCH(int, status);
        m_io1.setInput(2, false);
        m_io1.setInput(5, false);
        Terminal terminal(m_arguments, m_dir.filePath(QStringLiteral("interrupt")));
        QVERIFY(terminal.waitEnd("io1> "));
        terminal.type("listen DI2 &\r");
        QVERIFY(terminal.waitFresh("  io1:DI2 = 0\r\n"));
        terminal.type(step + '\r');
        // Readline ends the line ("\r\n") and starts the step in one go.
        QVERIFY(terminal.waitFor([&] { return terminal.fresh().contains(step + "\r\n") && terminal.fresh().endsWith(shown); }));
        terminal.type("\x03");
        QVERIFY(terminal.waitEnd("io1> "));
        QCOMPARE(terminal.status(), -1);
        // The background listen has outlived the Ctrl-C.
        m_io1.setInput(2, true);
        QVERIFY(terminal.waitFresh("  io1:DI2 = 1\r\n"));
        // At the prompt: a typed line is dropped, not run; the shell goes on.
        // (Ctrl-C is the terminal's signal, at once: the keys before it must have been read.)
        terminal.type("set DO3 1 DO4\x17"); // Ctrl-W
        QTRY_VERIFY_WITH_TIMEOUT(terminal.fresh().endsWith("set DO3 1 DO4\b\b\b\x1b[K"), 10000);
        terminal.type("\x03");
        QVERIFY(terminal.waitEnd("^C\r\nio1> "));
        terminal.type("\x1f"); // Ctrl-_ (undo): nothing is left to undo, the bell says so
        QVERIFY(terminal.waitEnd("\x07"));
        terminal.type("\x03");
        QVERIFY(terminal.waitEnd("^C\r\nio1> "));
        QCOMPARE(terminal.status(), -1);
        terminal.type("\x03");
        QTRY_COMPARE_WITH_TIMEOUT(terminal.status(), status, 10000);
        QVERIFY(!m_io1.pulseStatus(3));
    }

    // help and help STEP are steps; a step that is not one says so on the line.
    void help()
    {
        Terminal terminal(m_arguments, m_dir.filePath(QStringLiteral("help")));
        QVERIFY(terminal.waitEnd("io1> "));
        const auto answers = [&terminal](const QByteArray &part) {
            return terminal.waitFor([&] { return terminal.fresh().contains(part) && terminal.fresh().endsWith("io1> "); });
        };
        terminal.type("help\r");
        QVERIFY(answers("  quit, exit"));
        QVERIFY(terminal.screen().contains("  expect CH VALUE [--within MS]"));
        QVERIFY(!terminal.screen().contains("  shell"));
        terminal.type("help set\r");
        QVERIFY(answers("--mask M"));
        terminal.type("help shell\r");
        QVERIFY(answers("e1212ctl: shell:3: help: \"shell\" is not a step"));
        terminal.signal(SIGTERM); // ends the shell, unlike Ctrl-C
        QTRY_COMPARE_WITH_TIMEOUT(terminal.status(), 2, 10000);
    }
};

QTEST_GUILESS_MAIN(TstShell)
#include "tst_shell.moc"
