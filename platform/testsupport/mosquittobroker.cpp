// SPDX-License-Identifier: MIT
#include "mosquittobroker.h"

#include "processrun.h"

#include <QDir>
#include <QFile>
#include <QSignalSpy>
#include <QTcpServer>

#include <pwd.h>
#include <unistd.h>

MosquittoBroker::MosquittoBroker(const Options &options, QObject *parent)
    : QObject(parent)
    , m_options(options)
{
    qRegisterMetaType<QProcess::ExitStatus>();
    m_process.setProcessChannelMode(QProcess::MergedChannels);
    connect(&m_process, &QProcess::readyRead, this, [this] {
        m_log += m_process.readAll();
        m_ready = m_ready || m_log.contains(" running");
        m_wasReady = m_wasReady || m_ready;
    });
    // The free port found may be taken by someone else before mosquitto binds it: another one
    // then, on the first start only (a restart keeps the port its clients know).
    connect(&m_process, qOverload<int, QProcess::ExitStatus>(&QProcess::finished), this, [this] {
        m_log += m_process.readAll();
        QString error;
        if (!m_wasReady && m_log.contains("Address already in use") && ++m_portTries < 5) {
            m_port = 0;
            start(&error);
        }
    });
}

MosquittoBroker::~MosquittoBroker()
{
    kill();
}

QString MosquittoBroker::url() const
{
    return QStringLiteral("%1://127.0.0.1:%2").arg(m_options.tls ? QStringLiteral("mqtts") : QStringLiteral("mqtt")).arg(m_port);
}

bool MosquittoBroker::run(const QString &program, const QStringList &arguments, QString *error, int ms)
{
    const ProcessRun run = ProcessRun::run(program, arguments, ms);
    if (run.exitCode != 0)
        *error = QStringLiteral("%1 %2 failed: %3%4").arg(program, arguments.join(QLatin1Char(' ')), run.out, run.err);
    return run.exitCode == 0;
}

bool MosquittoBroker::writeFiles(QString *error)
{
    if (!m_dir.isValid()) {
        *error = QStringLiteral("no temporary folder");
        return false;
    }
    // mosquitto started as root drops to its own user, which must read these files.
    QFile::setPermissions(m_dir.path(), QFile::permissions(m_dir.path()) | QFile::ReadOther | QFile::ExeOther);
    // As the user we are: switching users would also drop the parent-death signal.
    const passwd *user = getpwuid(getuid());
    QByteArray config = (user ? "user " + QByteArray(user->pw_name) + '\n' : QByteArray()) + "persistence false\nlog_dest stderr\nlog_type error\nlog_type warning\nlog_type notice\n"
                        "log_type information\nlog_type subscribe\nconnection_messages true\n";
    const auto file = [this](const char *name) { return m_dir.filePath(QLatin1String(name)); };
    if (m_options.user.isEmpty()) {
        config += "allow_anonymous true\n";
    } else {
        if (!run(QStringLiteral("mosquitto_passwd"), {QStringLiteral("-b"), QStringLiteral("-c"), file("passwd"),
                                                      m_options.user, m_options.password}, error))
            return false;
        config += "allow_anonymous false\npassword_file " + file("passwd").toUtf8() + '\n';
    }
    if (m_options.tls) {
        const QString openssl = QStringLiteral("openssl");
        const QString subject = QStringLiteral("/CN=127.0.0.1");
        for (const char *ca : {"ca", "other-ca"}) {
            const QString name = QLatin1String(ca);
            if (!run(openssl, {QStringLiteral("req"), QStringLiteral("-x509"), QStringLiteral("-newkey"), QStringLiteral("rsa:2048"),
                               QStringLiteral("-nodes"), QStringLiteral("-days"), QStringLiteral("2"), QStringLiteral("-subj"),
                               QStringLiteral("/CN=test ") + name, QStringLiteral("-keyout"), m_dir.filePath(name + QStringLiteral(".key")),
                               QStringLiteral("-out"), m_dir.filePath(name + QStringLiteral(".crt"))}, error))
                return false;
        }
        QFile extensions(file("server.ext"));
        extensions.open(QIODevice::WriteOnly);
        extensions.write("subjectAltName=IP:127.0.0.1\n");
        extensions.close();
        // NAME.key and NAME.crt, signed by the CA.
        const auto issue = [&](const QString &name, const QString &subject, const QStringList &extra) {
            const QString base = m_dir.filePath(name);
            return run(openssl, {QStringLiteral("req"), QStringLiteral("-newkey"), QStringLiteral("rsa:2048"), QStringLiteral("-nodes"),
                                 QStringLiteral("-subj"), subject, QStringLiteral("-keyout"), base + QStringLiteral(".key"),
                                 QStringLiteral("-out"), base + QStringLiteral(".csr")}, error)
                   && run(openssl, QStringList{QStringLiteral("x509"), QStringLiteral("-req"), QStringLiteral("-in"), base + QStringLiteral(".csr"),
                                               QStringLiteral("-CA"), file("ca.crt"), QStringLiteral("-CAkey"), file("ca.key"),
                                               QStringLiteral("-CAcreateserial"), QStringLiteral("-days"), QStringLiteral("2"),
                                               QStringLiteral("-out"), base + QStringLiteral(".crt")} + extra, error);
        };
        if (!issue(QStringLiteral("server"), subject, {QStringLiteral("-extfile"), file("server.ext")})
            || !issue(QStringLiteral("client"), QStringLiteral("/CN=test client"), {}))
            return false;
        config += "cafile " + file("ca.crt").toUtf8() + "\ncertfile " + file("server.crt").toUtf8() + "\nkeyfile "
                  + file("server.key").toUtf8() + '\n';
        if (m_options.requireClientCertificate)
            config += "require_certificate true\n";
    }
    m_config = config + m_options.extraConfig;
    for (const QString &name : QDir(m_dir.path()).entryList(QDir::Files))
        QFile::setPermissions(m_dir.filePath(name), QFile::permissions(m_dir.filePath(name)) | QFile::ReadOther);
    m_filesWritten = true;
    return true;
}

bool MosquittoBroker::start(QString *error)
{
    if (!m_filesWritten && !writeFiles(error))
        return false;
    if (m_port == 0) {
        QTcpServer probe;
        if (!probe.listen(QHostAddress::LocalHost, 0)) {
            *error = QStringLiteral("no free loopback port");
            return false;
        }
        m_port = probe.serverPort();
    }
    QFile conf(m_dir.filePath(QStringLiteral("mosquitto.conf")));
    const QByteArray config = "listener " + QByteArray::number(m_port) + " 127.0.0.1\n" + m_config;
    if (!conf.open(QIODevice::WriteOnly) || conf.write(config) != config.size()) {
        *error = QStringLiteral("cannot write %1").arg(conf.fileName());
        return false;
    }
    conf.close();
    conf.setPermissions(conf.permissions() | QFile::ReadOther);
    m_ready = false;
    m_log.clear();
    // It dies with the test, even one killed for its time-out.
    m_process.start(QStringLiteral("setpriv"), {QStringLiteral("--pdeathsig"), QStringLiteral("KILL"), QStringLiteral("--"),
                                                QStringLiteral("/usr/sbin/mosquitto"), QStringLiteral("-c"), conf.fileName()});
    return true;
}

void MosquittoBroker::kill()
{
    if (m_process.state() == QProcess::NotRunning)
        return;
    QSignalSpy finished(&m_process, qOverload<int, QProcess::ExitStatus>(&QProcess::finished));
    m_process.kill();
    finished.wait(10000);
    m_ready = false;
}
