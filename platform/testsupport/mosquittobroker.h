// SPDX-License-Identifier: MIT
// A real mosquitto for tests: its own configuration in a temporary folder, a free loopback
// port, optionally a password file and a TLS listener with a CA and certificates made by
// openssl. Stopped (and its files removed) when destroyed.
#pragma once

#include <QObject>
#include <QProcess>
#include <QTemporaryDir>

class MosquittoBroker : public QObject
{
    Q_OBJECT
public:
    struct Options
    {
        // User and password the broker accepts; empty: anonymous clients are allowed.
        QString user;
        QString password;
        // A TLS listener with a server certificate for 127.0.0.1 signed by caFile().
        bool tls = false;
        // With tls: clients must show a certificate signed by caFile() (clientCertFile()).
        bool requireClientCertificate = false;
        // More configuration lines, as mosquitto.conf takes them.
        QByteArray extraConfig;
    };

    MosquittoBroker() : MosquittoBroker(Options()) {}
    explicit MosquittoBroker(const Options &options, QObject *parent = nullptr);
    ~MosquittoBroker() override;

    // Writes the files (certificates and password file made by running openssl and
    // mosquitto_passwd to their end) and starts mosquitto; false with *error. The broker
    // accepts connections once isReady().
    bool start(QString *error);
    // Kills the broker (no goodbye to its clients), keeps the port for start() again.
    void kill();
    bool isReady() const { return m_ready; }
    bool isRunning() const { return m_process.state() != QProcess::NotRunning; }
    quint16 port() const { return m_port; }
    QString url() const;
    QString caFile() const { return m_dir.filePath(QStringLiteral("ca.crt")); }
    // A client certificate and its key, signed by caFile().
    QString clientCertFile() const { return m_dir.filePath(QStringLiteral("client.crt")); }
    QString clientKeyFile() const { return m_dir.filePath(QStringLiteral("client.key")); }
    // A CA that signed nothing of this broker's.
    QString otherCaFile() const { return m_dir.filePath(QStringLiteral("other-ca.crt")); }
    QString dir() const { return m_dir.path(); }
    // What mosquitto wrote so far.
    QString log() const { return QString::fromUtf8(m_log); }

    // Runs a program to its end (tests only; bounded by `ms`); false with *error.
    static bool run(const QString &program, const QStringList &arguments, QString *error, int ms = 30000);

private:
    bool writeFiles(QString *error);

    Options m_options;
    QTemporaryDir m_dir;
    QProcess m_process;
    QByteArray m_log;
    quint16 m_port = 0;
    bool m_ready = false;
    bool m_filesWritten = false;
    bool m_wasReady = false;
    int m_portTries = 0;
    // The configuration but its listener line.
    QByteArray m_config;
};
