// SPDX-License-Identifier: MIT
// e1212ctl's channel subcommands. Each checks what it means before anything is sent: the
// channel exists (outputs for set, pulse and blink), values are 0 or 1, widths 1-65535 ms.
#include "ctl_device.h"

#include "ctlargs.h"
#include "ctlsession.h"

namespace {

constexpr quint32 c_maxCount = 1000000000;
constexpr quint32 c_maxListenSeconds = 7 * 24 * 3600;

// Refuses a line whose number of positional words is outside min-max (max -1: no limit).
bool positionalCount(CtlSession &session, const CtlArgs &args, int min, int max, const QString &usage, int *exitCode)
{
    const int count = args.positional().size();
    if (count >= min && (max < 0 || count <= max))
        return true;
    *exitCode = session.usageError(QStringLiteral("usage: %1 %2").arg(args.name(), usage));
    return false;
}

// Checks each (text, min, max, what) and fills `values`; false after printing a refusal.
bool numbers(CtlSession &session, const QList<std::tuple<QString, quint32, quint32, QString>> &checks,
             QList<quint32> *values, int *exitCode)
{
    for (const auto &check : checks) {
        quint32 value = 0;
        QString error;
        if (!CtlArgs::number(std::get<0>(check), std::get<1>(check), std::get<2>(check), std::get<3>(check), &value, &error)) {
            *exitCode = session.usageError(error);
            return false;
        }
        *values << value;
    }
    return true;
}

int info(CtlSession &session, const CtlArgs &args)
{
    int exitCode = 0;
    if (!positionalCount(session, args, 0, 0, QString(), &exitCode) || !session.openDevices(&exitCode))
        return exitCode;
    const int device = session.current();
    return session.runAndReport(device, QStringLiteral("getInfo"), {}, [&session, device](const QVariantMap &results) {
        const QVariantMap information = results.value(QStringLiteral("deviceInformation")).toMap();
        QList<QPair<QString, QString>> lines{{QStringLiteral("device"), session.config(device).reference},
                                             {QStringLiteral("address"), session.address(device)}};
        QStringList keys{QStringLiteral("modelName"), QStringLiteral("softwareVersion"),
                         QStringLiteral("serialNumber"), QStringLiteral("macAddress")};
        for (const QString &key : information.keys())
            if (!keys.contains(key))
                keys << key;
        for (const QString &key : qAsConst(keys))
            if (information.contains(key))
                lines << qMakePair(key, CtlSession::toText(information.value(key)));
        int width = 0;
        for (const auto &line : qAsConst(lines))
            width = qMax(width, line.first.size() + 1);
        for (const auto &line : qAsConst(lines))
            session.out() << QString(line.first + QLatin1Char(':')).leftJustified(width) << ' ' << line.second << '\n';
    });
}

int get(CtlSession &session, const CtlArgs &args)
{
    int exitCode = 0;
    CtlChannel channel;
    if (!positionalCount(session, args, 1, 1, QStringLiteral("CH"), &exitCode)
        || !session.channel(args.positional().first(), CtlSession::AnyChannel, &channel, &exitCode))
        return exitCode;
    return session.runAndReport(channel.device, QStringLiteral("getValue"), {{QStringLiteral("channel"), channel.id}},
                                [&session, channel](const QVariantMap &results) {
                                    session.out() << channel.id << " = "
                                                  << CtlSession::toText(results.value(QStringLiteral("value"))) << '\n';
                                });
}

int getRun(CtlSession &session, const CtlArgs &args)
{
    int exitCode = 0;
    CtlChannel channel;
    if (!positionalCount(session, args, 1, 1, QStringLiteral("CH"), &exitCode)
        || !session.channel(args.positional().first(), CtlSession::AnyChannel, &channel, &exitCode))
        return exitCode;
    // The values belong to the channel and the ones after it in the table.
    const QStringList ids = session.channelIds(channel.device);
    const int first = ids.indexOf(channel.id);
    const auto name = [&](int i) {
        return first + i < ids.size() ? ids.at(first + i) : QStringLiteral("%1+%2").arg(channel.id).arg(i);
    };
    return session.runAndReport(
        channel.device, QStringLiteral("getValues"), {{QStringLiteral("channel"), channel.id}},
        [&](const QVariantMap &results) {
            const QVariantList values = results.value(QStringLiteral("values")).toList();
            for (int i = 0; i < values.size(); ++i)
                session.out() << name(i) << " = " << CtlSession::toText(values.at(i)) << '\n';
        },
        {}, false, [&](QVariantMap results) {
            QVariantMap channels;
            const QVariantList values = results.value(QStringLiteral("values")).toList();
            for (int i = 0; i < values.size(); ++i)
                channels.insert(name(i), values.at(i));
            results.insert(QStringLiteral("channels"), channels);
            return results;
        });
}

int set(CtlSession &session, const CtlArgs &args)
{
    int exitCode = 0;
    CtlChannel channel;
    QList<quint32> numbers;
    const bool masked = args.has(QStringLiteral("mask"));
    if (!positionalCount(session, args, 2, 2, QStringLiteral("CH VALUE"), &exitCode)
        || !::numbers(session, {{args.positional().at(1), 0, 1, QStringLiteral("VALUE")}}, &numbers, &exitCode)
        || (masked && !::numbers(session, {{args.value(QStringLiteral("mask")), 0, 0xFFFF, QStringLiteral("--mask")}}, &numbers, &exitCode))
        || !session.channel(args.positional().first(), CtlSession::OutputChannel, &channel, &exitCode))
        return exitCode;
    const quint32 value = numbers.at(0);
    QVariantMap arguments{{QStringLiteral("channel"), channel.id}, {QStringLiteral("value"), value}};
    if (masked)
        arguments.insert(QStringLiteral("bitMask"), numbers.at(1));
    bool confirmed = true;
    exitCode = session.runAndReport(channel.device, QStringLiteral("setValue"), arguments, [&](const QVariantMap &results) {
        confirmed = results.value(QStringLiteral("doneOk"), true).toBool();
        if (!confirmed)
            return;
        session.out() << channel.id << " = " << value;
        if (masked)
            session.out() << " (mask 0x" << QString::number(numbers.at(1), 16).rightJustified(4, QLatin1Char('0')) << ')';
        session.out() << " done\n";
    });
    if (exitCode == CtlSession::ExitOk && !confirmed)
        return session.fail(CtlSession::ExitFailed,
                            QStringLiteral("setValue %1: the device did not confirm the write (doneOk false)").arg(channel.id));
    return exitCode;
}

// pulse and blink: the same arguments for setValues and setBlink.
int pulseOrBlink(CtlSession &session, const CtlArgs &args, const QString &command)
{
    int exitCode = 0;
    CtlChannel channel;
    if (!positionalCount(session, args, 2, 9, QStringLiteral("CH --on MS --off MS V..."), &exitCode))
        return exitCode;
    if (!args.has(QStringLiteral("on")) || !args.has(QStringLiteral("off")))
        return session.usageError(QStringLiteral("%1 needs --on MS and --off MS").arg(args.name()));
    QList<std::tuple<QString, quint32, quint32, QString>> checks{
        {args.value(QStringLiteral("on")), 1, 0xFFFF, QStringLiteral("--on")},
        {args.value(QStringLiteral("off")), 1, 0xFFFF, QStringLiteral("--off")}};
    for (const QString &text : args.positional().mid(1))
        checks.append({text, 0, 1, QStringLiteral("value")});
    QList<quint32> numbers;
    if (!::numbers(session, checks, &numbers, &exitCode)
        || !session.channel(args.positional().first(), CtlSession::OutputChannel, &channel, &exitCode))
        return exitCode;
    // Each value drives the next output from CH on: all of them must be outputs.
    const QStringList ids = session.channelIds(channel.device);
    const int first = ids.indexOf(channel.id);
    for (int i = 1; i < numbers.size() - 2; ++i) {
        CtlChannel next;
        if (!session.channel(QStringLiteral("%1:%2").arg(session.config(channel.device).reference, ids.value(first + i, QStringLiteral("(past the table)"))),
                             CtlSession::OutputChannel, &next, &exitCode))
            return exitCode;
    }
    QVariantList values;
    for (quint32 value : numbers.mid(2))
        values << int(value);
    const QVariantMap arguments{{QStringLiteral("channel"), channel.id}, {QStringLiteral("pulseOnWidth"), int(numbers.at(0))},
                                {QStringLiteral("pulseOffWidth"), int(numbers.at(1))}, {QStringLiteral("values"), values}};
    return session.runAndReport(channel.device, command, arguments, [&](const QVariantMap &) {
        session.out() << channel.id << ": " << args.name() << " on " << numbers.at(0) << " ms, off " << numbers.at(1)
                      << " ms, values " << CtlSession::toText(values) << " done\n";
    });
}

int listen(CtlSession &session, const CtlArgs &args)
{
    int exitCode = 0;
    CtlChannel channel;
    QList<quint32> numbers;
    CtlListenLimits limits;
    if (!positionalCount(session, args, 1, 1, QStringLiteral("CH"), &exitCode)
        || (args.has(QStringLiteral("count"))
            && !::numbers(session, {{args.value(QStringLiteral("count")), 1, c_maxCount, QStringLiteral("--count")}}, &numbers, &exitCode)))
        return exitCode;
    limits.count = int(numbers.value(0));
    if (args.has(QStringLiteral("for"))) {
        // Seconds, a fraction allowed: digits, at most one point, nothing else.
        const QString text = args.value(QStringLiteral("for"));
        bool ok = !text.isEmpty() && text.count(QLatin1Char('.')) <= 1 && !text.startsWith(QLatin1Char('.'))
                  && std::all_of(text.cbegin(), text.cend(), [](QChar c) { return c.isDigit() || c == QLatin1Char('.'); });
        const double seconds = ok ? text.toDouble(&ok) : 0;
        if (!ok || seconds <= 0 || seconds > c_maxListenSeconds)
            return session.usageError(QStringLiteral("--for \"%1\" is not a number of seconds above 0 and up to %2 (7 days)")
                                          .arg(text).arg(c_maxListenSeconds));
        limits.ms = qMax(1, int(seconds * 1000));
    }
    if (!session.channel(args.positional().first(), CtlSession::AnyChannel, &channel, &exitCode))
        return exitCode;
    if (args.background()) {
        session.startBackground(channel.device, channel.id);
        return session.reportLocal(QStringLiteral("listenEvents"), {{QStringLiteral("channel"), channel.id}, {QStringLiteral("background"), true}},
                                   [](const QVariantMap &) {});
    }
    return session.runAndReport(channel.device, QStringLiteral("listenEvents"), {{QStringLiteral("channel"), channel.id}}, {},
                                limits);
}

QCommandLineOption valueOption(const QString &name, const QString &description, const QString &value)
{
    return QCommandLineOption(name, description, value);
}

} // namespace

CtlGroup deviceGroup()
{
    using namespace std::placeholders;
    const QList<QCommandLineOption> widths{
        valueOption(QStringLiteral("on"), QStringLiteral("on-width, 1-65535 ms"), QStringLiteral("MS")),
        valueOption(QStringLiteral("off"), QStringLiteral("off-width, 1-65535 ms"), QStringLiteral("MS"))};
    return {QStringLiteral("Channel commands (CH must be in the device's table; VALUE 0 or 1, decimal or 0x hex)"),
            {
                {QStringLiteral("info"), QString(), QStringLiteral("model name, firmware and MAC address (getInfo)"), &info},
                {QStringLiteral("get"), QStringLiteral("CH"), QStringLiteral("read one channel (getValue; an output reads its pulse status)"), &get},
                {QStringLiteral("get-run"), QStringLiteral("CH"), QStringLiteral("read CH and the channels after it in its group (getValues)"), &getRun},
                {QStringLiteral("set"), QStringLiteral("CH VALUE"), QStringLiteral("set a digital output to 0 or 1 (setValue)"), &set,
                 {valueOption(QStringLiteral("mask"), QStringLiteral("write only the bits of M (0-0xFFFF) of the register"), QStringLiteral("M"))}},
                {QStringLiteral("pulse"), QStringLiteral("CH --on MS --off MS V..."), QStringLiteral("pulse outputs from CH on with the given widths (setValues)"),
                 std::bind(&pulseOrBlink, _1, _2, QStringLiteral("setValues")), widths},
                {QStringLiteral("blink"), QStringLiteral("CH --on MS --off MS V..."), QStringLiteral("blink outputs from CH on with the given widths (setBlink)"),
                 std::bind(&pulseOrBlink, _1, _2, QStringLiteral("setBlink")), widths},
                {QStringLiteral("listen"), QStringLiteral("CH [&]"),
                 QStringLiteral("print each change of a channel until the limit, Ctrl-C or SIGTERM (listenEvents); "
                                "in a script, a last word & runs it in the background until stop"),
                 &listen,
                 {valueOption(QStringLiteral("count"), QStringLiteral("stop after N events"), QStringLiteral("N")),
                  valueOption(QStringLiteral("for"), QStringLiteral("stop after SECONDS (up to 7 days)"), QStringLiteral("SECONDS"))}},
            }};
}
