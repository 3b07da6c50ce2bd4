// SPDX-License-Identifier: MIT
#include "ctl_generic.h"

#include "ctlargs.h"
#include "ctlsession.h"
#include "dabstractcommand.h"
#include "dabstractplugin.h"

#include <QJsonArray>
#include <QJsonDocument>
#include <QRegularExpression>

namespace {

// A KEY=VALUE value: JSON where it parses (numbers, true, [1,0], {"a":1}, "text"), the
// words themselves otherwise. Whole numbers become ints.
QVariant argumentValue(const QString &text)
{
    static const QRegularExpression hex(QStringLiteral("^0[xX][0-9A-Fa-f]{1,8}$"));
    if (hex.match(text).hasMatch())
        return text.mid(2).toLongLong(nullptr, 16);
    QJsonParseError error;
    const QJsonDocument document = QJsonDocument::fromJson(QStringLiteral("[%1]").arg(text).toUtf8(), &error);
    if (error.error != QJsonParseError::NoError || document.array().size() != 1)
        return text;
    const QVariant value = document.array().first().toVariant();
    if (value.userType() == QMetaType::Double) {
        const double number = value.toDouble();
        if (number == double(int(number)) && number >= -2147483648.0 && number <= 2147483647.0)
            return int(number);
    }
    return value;
}

int run(CtlSession &session, const CtlArgs &args)
{
    if (args.positional().isEmpty())
        return session.usageError(QStringLiteral("usage: run [--raw] NAME [KEY=VALUE...]"));
    const QString name = args.positional().first();
    const bool raw = args.has(QStringLiteral("raw"));
    QVariantMap arguments;
    for (const QString &word : args.positional().mid(1)) {
        const int equals = word.indexOf(QLatin1Char('='));
        if (equals <= 0)
            return session.usageError(QStringLiteral("argument \"%1\" is not KEY=VALUE").arg(word));
        arguments.insert(word.left(equals), argumentValue(word.mid(equals + 1)));
    }
    int exitCode = 0;
    if (!session.openDevices(&exitCode))
        return exitCode;
    const int device = session.current();
    const DAbstractPlugin *plugin = session.device(device);
    if (!plugin->commandNames().contains(name))
        return session.usageError(QStringLiteral("run: device \"%1\" has no command \"%2\" (known: %3)")
                                      .arg(session.config(device).reference, name, plugin->commandNames().join(QStringLiteral(", "))));
    if (!raw) {
        CtlChannel channel;
        if (arguments.contains(QStringLiteral("channel"))
            && !session.channel(QStringLiteral("%1:%2").arg(session.config(device).reference, arguments.value(QStringLiteral("channel")).toString()),
                                CtlSession::AnyChannel, &channel, &exitCode))
            return exitCode;
    }
    return session.runAndReport(
        device, name, arguments,
        [&session](const QVariantMap &results) {
            for (auto it = results.cbegin(); it != results.cend(); ++it)
                session.out() << it.key() << ": " << CtlSession::toText(it.value()) << '\n';
        },
        {}, raw);
}

int devices(CtlSession &session, const CtlArgs &args)
{
    int exitCode = 0;
    if (!args.positional().isEmpty())
        return session.usageError(QStringLiteral("usage: devices"));
    if (!session.openDevices(&exitCode))
        return exitCode;
    QVariantList list;
    for (int i = 0; i < session.deviceCount(); ++i) {
        const DeviceConfig &config = session.config(i);
        const DAbstractPlugin *plugin = session.device(i);
        list << QVariantMap{{QStringLiteral("reference"), config.reference},
                            {QStringLiteral("address"), session.address(i)},
                            {QStringLiteral("simulator"), session.simulator(i) != nullptr},
                            {QStringLiteral("plugin"), plugin ? plugin->pluginName() : QString()},
                            {QStringLiteral("pluginUuid"), config.pluginUuid.toString()}};
    }
    return session.reportLocal(QStringLiteral("devices"), {{QStringLiteral("devices"), list}}, [&](const QVariantMap &) {
        for (const QVariant &entry : qAsConst(list)) {
            const QVariantMap device = entry.toMap();
            session.out() << device.value(QStringLiteral("reference")).toString() << "  "
                          << device.value(QStringLiteral("address")).toString()
                          << (device.value(QStringLiteral("simulator")).toBool() ? " (embedded simulator)" : "") << "  "
                          << device.value(QStringLiteral("plugin")).toString() << '\n';
        }
    });
}

QString defaultText(const QVariant &value)
{
    if (!value.isValid())
        return QString();
    return QStringLiteral(" [default %1]").arg(QString::fromUtf8(QJsonDocument(QJsonArray{QJsonValue::fromVariant(value)})
                                                                      .toJson(QJsonDocument::Compact)).mid(1).chopped(1));
}

int commands(CtlSession &session, const CtlArgs &args)
{
    if (!args.positional().isEmpty())
        return session.usageError(QStringLiteral("usage: commands"));
    int exitCode = 0;
    if (!session.openDevices(&exitCode))
        return exitCode;
    const DAbstractPlugin *device = session.device();
    QVariantList list;
    for (const QString &name : device->commandNames()) {
        QVariantList arguments;
        const DCommandArguments declared = device->getCommandParameters(name);
        for (const DCommandArgument &argument : declared)
            arguments << QVariantMap{{QStringLiteral("kind"), argument.kind == DCommandArgument::CeParameter ? QStringLiteral("parameter") : QStringLiteral("result")},
                                     {QStringLiteral("name"), argument.name}, {QStringLiteral("type"), argument.typeCode},
                                     {QStringLiteral("description"), argument.description}, {QStringLiteral("default"), argument.defaultValue}};
        const DAbstractCommand *command = device->command(name);
        list << QVariantMap{{QStringLiteral("name"), name}, {QStringLiteral("description"), device->getFunctionDescription(name)},
                            {QStringLiteral("stopCommand"), command ? command->stopCommandName() : QString()},
                            {QStringLiteral("arguments"), arguments}};
    }
    return session.reportLocal(QStringLiteral("commands"), {{QStringLiteral("commands"), list}}, [&session, list](const QVariantMap &) {
        for (const QVariant &entry : list) {
            const QVariantMap command = entry.toMap();
            session.out() << command.value(QStringLiteral("name")).toString() << " - "
                          << command.value(QStringLiteral("description")).toString() << '\n';
            for (const QVariant &argumentEntry : command.value(QStringLiteral("arguments")).toList()) {
                const QVariantMap argument = argumentEntry.toMap();
                session.out() << "    " << argument.value(QStringLiteral("kind")).toString().leftJustified(9) << ' '
                              << argument.value(QStringLiteral("name")).toString() << " ("
                              << argument.value(QStringLiteral("type")).toString() << "): "
                              << argument.value(QStringLiteral("description")).toString()
                              << defaultText(argument.value(QStringLiteral("default"))) << '\n';
            }
            if (!command.value(QStringLiteral("stopCommand")).toString().isEmpty())
                session.out() << "    stop with " << command.value(QStringLiteral("stopCommand")).toString() << '\n';
        }
    });
}

int channels(CtlSession &session, const CtlArgs &args)
{
    if (!args.positional().isEmpty())
        return session.usageError(QStringLiteral("usage: channels"));
    int exitCode = 0;
    if (!session.openDevices(&exitCode))
        return exitCode;
    const QStringList columns{QStringLiteral("id"), QStringLiteral("type"), QStringLiteral("register"),
                              QStringLiteral("readRegisterType"), QStringLiteral("writeRegisterType"),
                              QStringLiteral("activeLevelHigh"), QStringLiteral("size"), QStringLiteral("name")};
    QVariantList rows;
    const QVariantList table = session.config().channelTable();
    for (const QVariant &record : table) {
        const QString id = record.toMap().value(QStringLiteral("id")).toString();
        QVariantMap row = session.channelInfo(session.current(), id);
        row.insert(QStringLiteral("id"), id);
        row.insert(QStringLiteral("name"), record.toMap().value(QStringLiteral("name")));
        rows << row;
    }
    return session.reportLocal(QStringLiteral("channels"), {{QStringLiteral("channels"), rows}}, [&](const QVariantMap &) {
        QVector<int> widths(columns.size());
        auto cell = [](const QVariantMap &row, const QString &column) {
            return row.contains(column) ? CtlSession::toText(row.value(column)) : QStringLiteral("-");
        };
        for (int c = 0; c < columns.size(); ++c) {
            widths[c] = columns.at(c).size();
            for (const QVariant &row : qAsConst(rows))
                widths[c] = qMax(widths[c], cell(row.toMap(), columns.at(c)).size());
        }
        for (int c = 0; c < columns.size(); ++c)
            session.out() << columns.at(c).leftJustified(c + 1 < columns.size() ? widths[c] + 2 : 0);
        session.out() << '\n';
        for (const QVariant &row : qAsConst(rows)) {
            for (int c = 0; c < columns.size(); ++c)
                session.out() << cell(row.toMap(), columns.at(c)).leftJustified(c + 1 < columns.size() ? widths[c] + 2 : 0);
            session.out() << '\n';
        }
    });
}

} // namespace

CtlGroup genericGroup()
{
    return {QStringLiteral("Any command, and what the device declares"),
            {
                {QStringLiteral("run"), QStringLiteral("NAME [KEY=VALUE...]"),
                 QStringLiteral("run any declared command; values are JSON where they parse, text otherwise; "
                                "arguments are checked against their declared types unless --raw"),
                 &run,
                 {{QStringLiteral("raw"), QStringLiteral("pass the arguments to the command unchecked (protocol-level work)")}}},
                {QStringLiteral("commands"), QString(), QStringLiteral("the declared commands, their parameters, results, type codes and defaults"), &commands},
                {QStringLiteral("channels"), QString(), QStringLiteral("the channel table of the configured device"), &channels},
                {QStringLiteral("devices"), QString(), QStringLiteral("the devices of the configuration: reference, address, plug-in"), &devices},
            }};
}
