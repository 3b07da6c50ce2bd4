// SPDX-License-Identifier: MIT
// The gateway library of e1212ctl (lib/e1212/e1212ctl_serve), loaded only by `serve`, so
// that no other subcommand loads libmosquitto and OpenSSL: the gateway's options, checked
// before anything is sent, and its run until Ctrl-C or SIGTERM.
#include "ctlargs.h"
#include "ctlsession.h"
#include "ctlstep.h"
#include "mqttgateway.h"

#include <QFile>
#include <QHostInfo>
#include <QRegularExpression>

namespace {

// A topic level (or levels, for the prefix) we publish under: no wildcards, no empty level.
bool topicName(const QString &option, const QString &text, bool levels, QString *error)
{
    static const QRegularExpression bad(QStringLiteral("[+#\\x00]"));
    const bool ok = !text.isEmpty() && !text.contains(bad) && !text.split(QLatin1Char('/')).contains(QString())
                    && (levels || !text.contains(QLatin1Char('/')));
    if (!ok)
        *error = QStringLiteral("%1 \"%2\": must be a non-empty topic %3 without + or #")
                     .arg(option, text, levels ? QStringLiteral("prefix, no empty level,") : QStringLiteral("level"));
    return ok;
}

bool readOptions(const CtlArgs &args, MqttClient::Options *mqtt, MqttGateway::Options *gateway, QString *error)
{
    if (!args.has(QStringLiteral("mqtt"))) {
        *error = QStringLiteral("serve needs --mqtt mqtt://HOST[:PORT] or mqtts://HOST[:PORT]");
        return false;
    }
    const bool discovery = args.has(QStringLiteral("ha-discovery"));
    if (args.positional().size() > (discovery ? 1 : 0)) {
        *error = QStringLiteral("serve takes no argument besides its options, got \"%1\"").arg(args.positional().last());
        return false;
    }
    if (!MqttClient::parseUrl(args.value(QStringLiteral("mqtt")), mqtt, error))
        return false;
    gateway->prefix = args.has(QStringLiteral("mqtt-prefix")) ? args.value(QStringLiteral("mqtt-prefix")) : QStringLiteral("e1212");
    gateway->id = args.has(QStringLiteral("mqtt-client-id")) ? args.value(QStringLiteral("mqtt-client-id"))
                                                              : QStringLiteral("e1212-") + QHostInfo::localHostName();
    gateway->allowWrites = args.has(QStringLiteral("allow-writes"));
    if (discovery)
        gateway->discoveryPrefix = args.positional().value(0, QStringLiteral("homeassistant"));
    if (!topicName(QStringLiteral("--mqtt-prefix"), gateway->prefix, true, error)
        || !topicName(QStringLiteral("--mqtt-client-id"), gateway->id, false, error)
        || (discovery && !topicName(QStringLiteral("--ha-discovery"), gateway->discoveryPrefix, true, error)))
        return false;
    quint32 keepAlive = 30;
    if (args.has(QStringLiteral("mqtt-keepalive"))
        && !CtlArgs::number(args.value(QStringLiteral("mqtt-keepalive")), 5, 65535, QStringLiteral("--mqtt-keepalive"), &keepAlive, error))
        return false;
    mqtt->keepAliveSeconds = int(keepAlive);
    mqtt->username = args.value(QStringLiteral("mqtt-user"));
    mqtt->caFile = args.value(QStringLiteral("mqtt-ca"));
    mqtt->certFile = args.value(QStringLiteral("mqtt-cert"));
    mqtt->keyFile = args.value(QStringLiteral("mqtt-key"));
    // The password never comes on the command line: a file (its first line), else the environment.
    if (args.has(QStringLiteral("mqtt-password-file"))) {
        QFile file(args.value(QStringLiteral("mqtt-password-file")));
        if (!file.open(QIODevice::ReadOnly)) {
            *error = QStringLiteral("--mqtt-password-file %1: %2").arg(file.fileName(), file.errorString());
            return false;
        }
        mqtt->password = QString::fromUtf8(file.readLine(4096)).remove(QLatin1Char('\n')).remove(QLatin1Char('\r'));
    } else {
        mqtt->password = qEnvironmentVariable("E1212_MQTT_PASSWORD");
    }
    if (!mqtt->password.isEmpty() && mqtt->username.isEmpty()) {
        *error = QStringLiteral("a password needs --mqtt-user");
        return false;
    }
    return true;
}

// Serves until the step is cancelled (Ctrl-C/SIGTERM) or the broker refuses the gateway for good.
void serve(CtlStep &step)
{
    CtlSession &session = step.session();
    const CtlArgs &args = step.args();
    MqttClient::Options mqtt;
    MqttGateway::Options options;
    QString error;
    if (!readOptions(args, &mqtt, &options, &error))
        return step.finish(CtlOutcome::refused(error));
    CtlOutcome failure;
    if (!session.openDevices(&failure))
        return step.finish(failure);
    QList<DAbstractPlugin *> devices;
    for (int i = 0; i < session.deviceCount(); ++i)
        devices << session.device(i);
    // The step owns the gateway: it says "offline" and leaves when the step goes.
    auto *gateway = new MqttGateway(session.host(), devices, mqtt, options, &step);
    QObject::connect(gateway, &MqttGateway::fatalError, &step, [&step](const QString &text) { step.finish(CtlOutcome::failed(text)); });
    if (!gateway->start(&error))
        return step.finish(CtlOutcome::refused(error));
    step.setCancel([&step] { step.finish(CtlOutcome()); });
    session.out() << "serving " << devices.size() << " device(s) on " << args.value(QStringLiteral("mqtt")) << " as "
                  << options.id << " under " << options.prefix << "/ (" << (options.allowWrites ? "writes allowed" : "read-only")
                  << "); Ctrl-C stops" << Qt::endl;
}

} // namespace

extern "C" Q_DECL_EXPORT void e1212ctlServe(CtlStep *step)
{
    serve(*step);
}
