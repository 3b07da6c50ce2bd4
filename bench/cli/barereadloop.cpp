// SPDX-License-Identifier: MIT
// The baseline of a script step: N sequential reads of discrete inputs 0-7 with a bare
// QModbusTcpClient against HOST:PORT, each sent when the one before has answered.
// Usage: bench_barereadloop HOST PORT N; exit 1 when a read fails.
#include <QCoreApplication>
#include <QModbusDataUnit>
#include <QModbusReply>
#include <QModbusTcpClient>
#include <QVariant>

#include <cstdio>

int main(int argc, char *argv[])
{
    QCoreApplication app(argc, argv);
    const QStringList args = app.arguments();
    if (args.size() != 4) {
        fprintf(stderr, "usage: bench_barereadloop HOST PORT N\n");
        return 2;
    }
    const int total = args.at(3).toInt();
    int done = 0;
    QModbusTcpClient client;
    client.setConnectionParameter(QModbusDevice::NetworkAddressParameter, args.at(1));
    client.setConnectionParameter(QModbusDevice::NetworkPortParameter, args.at(2).toInt());
    client.setTimeout(3000);
    client.setNumberOfRetries(0);
    std::function<void()> next = [&] {
        if (done == total)
            return QCoreApplication::exit(0);
        QModbusReply *reply = client.sendReadRequest(QModbusDataUnit(QModbusDataUnit::DiscreteInputs, 0, 8), 1);
        if (!reply)
            return QCoreApplication::exit(1);
        QObject::connect(reply, &QModbusReply::finished, &app, [&, reply] {
            reply->deleteLater();
            if (reply->error() != QModbusDevice::NoError)
                return QCoreApplication::exit(1);
            ++done;
            next();
        });
    };
    QObject::connect(&client, &QModbusDevice::stateChanged, &app, [&](QModbusDevice::State state) {
        if (state == QModbusDevice::ConnectedState)
            next();
        else if (state == QModbusDevice::UnconnectedState)
            QCoreApplication::exit(1);
    });
    if (!client.connectDevice())
        return 1;
    return QCoreApplication::exec();
}
