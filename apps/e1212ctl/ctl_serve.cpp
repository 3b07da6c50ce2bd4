// SPDX-License-Identifier: MIT
// e1212ctl serve: its options for help and the line's parsing; the gateway itself lives in
// the gateway library, loaded when serve runs.
#include "ctl_serve.h"

#include "ctllibrary.h"
#include "ctlstep.h"

namespace {

// The work is the gateway library's, loaded now.
void serve(CtlStep &step)
{
    ctlRunFromLibrary(step, QStringLiteral("serve"), "e1212ctlServe");
}

} // namespace

CtlGroup serveGroup()
{
    const auto option = [](const QString &name, const QString &description, const QString &value = QString()) {
        return QCommandLineOption(name, description, value);
    };
    return {QStringLiteral("Gateway"),
            {
                {QStringLiteral("serve"), QStringLiteral("--mqtt URL"),
                 QStringLiteral("serve every device of the configuration on an MQTT broker until Ctrl-C or SIGTERM: "
                                "states, availability, commands, Home Assistant discovery"),
                 &serve,
                 {option(QStringLiteral("mqtt"), QStringLiteral("the broker: mqtt://HOST[:PORT] (1883) or mqtts://HOST[:PORT] (8883)"), QStringLiteral("URL")),
                  option(QStringLiteral("mqtt-prefix"), QStringLiteral("first topic level(s); default e1212"), QStringLiteral("P")),
                  option(QStringLiteral("mqtt-client-id"), QStringLiteral("client id, also the gateway's name in topics; default e1212-HOSTNAME"), QStringLiteral("ID")),
                  option(QStringLiteral("mqtt-user"), QStringLiteral("user name at the broker"), QStringLiteral("U")),
                  option(QStringLiteral("mqtt-password-file"), QStringLiteral("file whose first line is the password (else $E1212_MQTT_PASSWORD)"), QStringLiteral("F")),
                  option(QStringLiteral("mqtt-ca"), QStringLiteral("CA certificate to trust (mqtts; default the system's)"), QStringLiteral("F")),
                  option(QStringLiteral("mqtt-cert"), QStringLiteral("client certificate (mqtts)"), QStringLiteral("F")),
                  option(QStringLiteral("mqtt-key"), QStringLiteral("client key (mqtts)"), QStringLiteral("F")),
                  option(QStringLiteral("mqtt-keepalive"), QStringLiteral("keep-alive, 5-65535 s; default 30"), QStringLiteral("S")),
                  option(QStringLiteral("allow-writes"), QStringLiteral("run writes (set, pulse, blink, writing commands); without it they are refused (read_only)")),
                  option(QStringLiteral("ha-discovery"), QStringLiteral("publish Home Assistant discovery under PREFIX (a word after the option; default homeassistant)"))},
                 CtlCommand::CommandLineOnly},
            }};
}
