// SPDX-License-Identifier: MIT
#include "ctl_generic.h"

#include "ctlargs.h"
#include "ctlcall.h"
#include "ctlsession.h"
#include "ctlstep.h"
#include "dabstractcommand.h"
#include "dabstractplugin.h"
#include "dchanneltable.h"

#include <QJsonArray>
#include <QJsonDocument>
#include <QRegularExpression>
#include <QTextStream>

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

void run(CtlStep &step)
{
    const CtlArgs &args = step.args();
    CtlSession &session = step.session();
    if (args.positional().isEmpty())
        return step.finish(CtlOutcome::refused(QStringLiteral("usage: run [--raw] NAME [KEY=VALUE...]")));
    CtlRequest call;
    call.command = args.positional().first();
    call.raw = args.has(QStringLiteral("raw"));
    for (const QString &word : args.positional().mid(1)) {
        const int equals = word.indexOf(QLatin1Char('='));
        if (equals <= 0)
            return step.finish(CtlOutcome::refused(QStringLiteral("argument \"%1\" is not KEY=VALUE").arg(word)));
        call.arguments.insert(word.left(equals), argumentValue(word.mid(equals + 1)));
    }
    CtlOutcome failure;
    if (!session.openDevices(&failure))
        return step.finish(failure);
    call.device = session.current();
    const DAbstractPlugin *plugin = session.device(call.device);
    if (!plugin->commandNames().contains(call.command))
        return step.finish(CtlOutcome::refused(QStringLiteral("run: device \"%1\" has no command \"%2\" (known: %3)")
                                                   .arg(session.config(call.device).reference, call.command,
                                                        plugin->commandNames().join(QStringLiteral(", ")))));
    CtlChannel channel;
    if (!call.raw && call.arguments.contains(QStringLiteral("channel"))
        && !session.channel(QStringLiteral("%1:%2").arg(session.config(call.device).reference, call.arguments.value(QStringLiteral("channel")).toString()),
                            CtlSession::AnyChannel, &channel, &failure))
        return step.finish(failure);
    call.shape = [](CtlOutcome *outcome) {
        for (auto it = outcome->results.cbegin(); it != outcome->results.cend(); ++it)
            outcome->text += it.key() + QStringLiteral(": ") + CtlSession::toText(it.value()) + QLatin1Char('\n');
    };
    step.run(call);
}

// The outcome of a subcommand that only looks at the session: refused when the line has words
// or the devices cannot be opened, else `make`'s.
void local(CtlStep &step, const QString &usage, const std::function<CtlOutcome(CtlSession &session)> &make)
{
    CtlOutcome failure;
    if (!step.args().positional().isEmpty())
        return step.finish(CtlOutcome::refused(usage));
    if (!step.session().openDevices(&failure))
        return step.finish(failure);
    step.finish(make(step.session()));
}

CtlOutcome devices(CtlSession &session)
{
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
    QString text;
    QTextStream out(&text);
    for (const QVariant &entry : qAsConst(list)) {
        const QVariantMap device = entry.toMap();
        out << device.value(QStringLiteral("reference")).toString() << "  " << device.value(QStringLiteral("address")).toString()
            << (device.value(QStringLiteral("simulator")).toBool() ? " (embedded simulator)" : "") << "  "
            << device.value(QStringLiteral("plugin")).toString() << '\n';
    }
    out.flush();
    return CtlOutcome::local(QStringLiteral("devices"), {{QStringLiteral("devices"), list}}, text);
}

QString defaultText(const QVariant &value)
{
    if (!value.isValid())
        return QString();
    return QStringLiteral(" [default %1]").arg(QString::fromUtf8(QJsonDocument(QJsonArray{QJsonValue::fromVariant(value)})
                                                                      .toJson(QJsonDocument::Compact)).mid(1).chopped(1));
}

CtlOutcome commands(CtlSession &session)
{
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
    QString text;
    QTextStream out(&text);
    for (const QVariant &entry : qAsConst(list)) {
            const QVariantMap command = entry.toMap();
            out << command.value(QStringLiteral("name")).toString() << " - "
                          << command.value(QStringLiteral("description")).toString() << '\n';
            for (const QVariant &argumentEntry : command.value(QStringLiteral("arguments")).toList()) {
                const QVariantMap argument = argumentEntry.toMap();
                out << "    " << argument.value(QStringLiteral("kind")).toString().leftJustified(9) << ' '
                              << argument.value(QStringLiteral("name")).toString() << " ("
                              << argument.value(QStringLiteral("type")).toString() << "): "
                              << argument.value(QStringLiteral("description")).toString()
                              << defaultText(argument.value(QStringLiteral("default"))) << '\n';
            }
            if (!command.value(QStringLiteral("stopCommand")).toString().isEmpty())
                out << "    stop with " << command.value(QStringLiteral("stopCommand")).toString() << '\n';
    }
    out.flush();
    return CtlOutcome::local(QStringLiteral("commands"), {{QStringLiteral("commands"), list}}, text);
}

CtlOutcome channels(CtlSession &session)
{
    const QStringList columns{QStringLiteral("id"), QStringLiteral("type"), QStringLiteral("register"),
                              QStringLiteral("readRegisterType"), QStringLiteral("writeRegisterType"),
                              QStringLiteral("activeLevelHigh"), QStringLiteral("size"), QStringLiteral("name")};
    QVariantList rows;
    for (const DChannelTable::Record &record : session.device()->channelTable().records()) {
        QVariantMap row = session.channelInfo(session.current(), record.id);
        row.insert(QStringLiteral("id"), record.id);
        row.insert(QStringLiteral("name"), record.name);
        rows << row;
    }
    QString text;
    QTextStream out(&text);
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
        out << columns.at(c).leftJustified(c + 1 < columns.size() ? widths[c] + 2 : 0);
    out << '\n';
    for (const QVariant &row : qAsConst(rows)) {
        for (int c = 0; c < columns.size(); ++c)
            out << cell(row.toMap(), columns.at(c)).leftJustified(c + 1 < columns.size() ? widths[c] + 2 : 0);
        out << '\n';
    }
    out.flush();
    return CtlOutcome::local(QStringLiteral("channels"), {{QStringLiteral("channels"), rows}}, text);
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
                {QStringLiteral("commands"), QString(), QStringLiteral("the declared commands, their parameters, results, type codes and defaults"),
                 [](CtlStep &step) { local(step, QStringLiteral("usage: commands"), &commands); }},
                {QStringLiteral("channels"), QString(), QStringLiteral("the channel table of the configured device"),
                 [](CtlStep &step) { local(step, QStringLiteral("usage: channels"), &channels); }},
                {QStringLiteral("devices"), QString(), QStringLiteral("the devices of the configuration: reference, address, plug-in"),
                 [](CtlStep &step) { local(step, QStringLiteral("usage: devices"), &devices); }},
            }};
}
