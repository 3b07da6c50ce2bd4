// SPDX-License-Identifier: MIT
// e1212ctl's channel subcommands. Each checks what it means before anything is sent: the
// channel exists (outputs for set, pulse and blink), values are 0 or 1, widths 1-65535 ms.
#include "ctl_device.h"

#include "ctlargs.h"
#include "ctlcall.h"
#include "ctlsession.h"
#include "ctlstep.h"
#include "dchanneltable.h"

#include <QTextStream>

namespace {

constexpr quint32 c_maxCount = 1000000000;
constexpr quint32 c_maxListenSeconds = 7 * 24 * 3600;

// Refuses a line whose number of positional words is outside min-max.
bool positionalCount(const CtlArgs &args, int min, int max, const QString &usage, CtlOutcome *failure)
{
    const int count = args.positional().size();
    if (count >= min && count <= max)
        return true;
    *failure = CtlOutcome::refused(QStringLiteral("usage: %1 %2").arg(args.name(), usage));
    return false;
}

// Checks each (text, min, max, what) and fills `values`; false, with the refusal, otherwise.
bool numbers(const QList<std::tuple<QString, quint32, quint32, QString>> &checks, QList<quint32> *values,
             CtlOutcome *failure)
{
    for (const auto &check : checks) {
        quint32 value = 0;
        QString error;
        if (!CtlArgs::number(std::get<0>(check), std::get<1>(check), std::get<2>(check), std::get<3>(check), &value, &error)) {
            *failure = CtlOutcome::refused(error);
            return false;
        }
        *values << value;
    }
    return true;
}

CtlRequest request(int device, const QString &command, const QVariantMap &arguments)
{
    CtlRequest request;
    request.device = device;
    request.command = command;
    request.arguments = arguments;
    return request;
}

// Runs the request as the step's command: its result and event lines say "get", "listen", ...
void run(CtlStep &step, CtlRequest call)
{
    call.name = step.args().name();
    step.run(call);
}

void info(CtlStep &step)
{
    CtlSession &session = step.session();
    CtlOutcome failure;
    if (!positionalCount(step.args(), 0, 0, QString(), &failure) || !session.openDevices(&failure))
        return step.finish(failure);
    const int device = session.current();
    CtlRequest call = request(device, QStringLiteral("getInfo"), {});
    call.shape = [&session, device](CtlOutcome *outcome) {
        const QVariantMap information = outcome->results.value(QStringLiteral("deviceInformation")).toMap();
        outcome->results = information;
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
        QTextStream text(&outcome->text);
        for (const auto &line : qAsConst(lines))
            text << QString(line.first + QLatin1Char(':')).leftJustified(width) << ' ' << line.second << '\n';
    };
    run(step, call);
}

// get CH: the channel's state, an output's coil as the wire shows it; get CH --pulse: an
// output's pulse generator (its pulse status, 1 while it runs).
void get(CtlStep &step)
{
    CtlSession &session = step.session();
    CtlOutcome failure;
    CtlChannel channel;
    if (!positionalCount(step.args(), 1, 1, QStringLiteral("CH"), &failure)
        || !session.channel(step.args().positional().first(), CtlSession::AnyChannel, &channel, &failure))
        return step.finish(failure);
    const bool pulse = step.args().has(QStringLiteral("pulse"));
    if (pulse && !session.isOutput(channel.device, channel.id))
        return step.finish(CtlOutcome::refused(QStringLiteral("get --pulse: channel \"%1\" of device \"%2\" is no \"digitalOutput\"; "
                                                              "only outputs have a pulse generator")
                                                   .arg(channel.id, session.config(channel.device).reference)));
    CtlRequest call = pulse ? request(channel.device, QStringLiteral("getValue"), {{QStringLiteral("channel"), channel.id}})
                            : CtlCall::stateRead(session, channel.device, channel.id);
    const auto read = call.shape;
    call.shape = [read, pulse, label = session.label(channel.device, channel.id)](CtlOutcome *outcome) {
        if (read)
            read(outcome);
        if (!outcome->isOk())
            return;
        const QVariant value = outcome->results.value(QStringLiteral("value"));
        if (pulse)
            outcome->results = {{QStringLiteral("pulse"), value}};
        outcome->text = label + (pulse ? QStringLiteral(" pulse = ") : QStringLiteral(" = ")) + CtlSession::toText(value) + QLatin1Char('\n');
    };
    run(step, call);
}

void getRun(CtlStep &step)
{
    CtlSession &session = step.session();
    CtlOutcome failure;
    CtlChannel channel;
    if (!positionalCount(step.args(), 1, 1, QStringLiteral("CH"), &failure)
        || !session.channel(step.args().positional().first(), CtlSession::AnyChannel, &channel, &failure))
        return step.finish(failure);
    CtlRequest call = request(channel.device, QStringLiteral("getValues"), {{QStringLiteral("channel"), channel.id}});
    // The values belong to the channel and the ones after it in the table.
    call.shape = [&session, device = channel.device, id = channel.id](CtlOutcome *outcome) {
        const QStringList ids = session.channelIds(device);
        const int first = ids.indexOf(id);
        QVariantMap channels;
        const QVariantList values = outcome->results.value(QStringLiteral("values")).toList();
        for (int i = 0; i < values.size(); ++i) {
            const QString name = first + i < ids.size() ? ids.at(first + i) : QStringLiteral("%1+%2").arg(id).arg(i);
            channels.insert(name, values.at(i));
            outcome->text += session.label(device, name) + QStringLiteral(" = ") + CtlSession::toText(values.at(i)) + QLatin1Char('\n');
        }
        outcome->results = {{QStringLiteral("channels"), channels}};
    };
    run(step, call);
}

// set CH VALUE: setValue. Without a mask the plug-in drives the output through its pulse
// generator (on-width 65535 ms, off-width 1 ms, status VALUE); with one it reads the
// channel's register and writes it back with the mask's bits set from VALUE.
void set(CtlStep &step)
{
    const CtlArgs &args = step.args();
    CtlSession &session = step.session();
    CtlOutcome failure;
    CtlChannel channel;
    QList<quint32> numbers;
    const bool masked = args.has(QStringLiteral("mask"));
    if (!positionalCount(args, 2, 2, QStringLiteral("CH VALUE"), &failure)
        || !::numbers({{args.positional().at(1), 0, 1, QStringLiteral("VALUE")}}, &numbers, &failure)
        || (masked && !::numbers({{args.value(QStringLiteral("mask")), 0, 0xFFFF, QStringLiteral("--mask")}}, &numbers, &failure))
        || !session.channel(args.positional().first(), CtlSession::OutputChannel, &channel, &failure))
        return step.finish(failure);
    const quint32 value = numbers.at(0);
    const QString label = session.label(channel.device, channel.id);
    QVariantMap arguments{{QStringLiteral("channel"), channel.id}, {QStringLiteral("value"), value}};
    QVariantMap results{{QStringLiteral("value"), value}};
    QString done = QStringLiteral("%1 = %2").arg(label).arg(value);
    if (masked) {
        const quint32 mask = numbers.at(1);
        // A bit space holds one bit per channel; a word register sixteen.
        const QString space = session.channelInfo(channel.device, channel.id).value(QStringLiteral("readRegisterType")).toString();
        const bool bit = DChannelTable::isBitSpace(DChannelTable::spaceFromName(space));
        const quint32 bits = bit ? 0x1 : 0xFFFF;
        if ((mask & bits) == 0)
            return step.finish(CtlOutcome::refused(QStringLiteral("--mask 0x%1 selects no bit of %2 (%3: bits 0x%4)")
                                                       .arg(mask, 4, 16, QLatin1Char('0'))
                                                       .arg(label, bit ? QStringLiteral("one coil") : QStringLiteral("a 16-bit register"))
                                                       .arg(bits, 0, 16)));
        arguments.insert(QStringLiteral("bitMask"), mask);
        results.insert(QStringLiteral("mask"), mask);
        done += QStringLiteral(" (mask 0x%1)").arg(mask, 4, 16, QLatin1Char('0'));
    }
    CtlRequest call = request(channel.device, QStringLiteral("setValue"), arguments);
    call.shape = [done, results, id = channel.id](CtlOutcome *outcome) {
        if (outcome->results.value(QStringLiteral("doneOk"), true).toBool()) {
            outcome->results = results;
            outcome->text = done + QStringLiteral(" done\n");
            return;
        }
        outcome->exitCode = CtlOutcome::ExitFailed;
        outcome->error = outcome->message = QStringLiteral("setValue %1: the device did not confirm the write (doneOk false)").arg(id);
        outcome->code = DError::codeName(IMessenger::CeReplyRejected);
    };
    run(step, call);
}

// pulse and blink: the same arguments for setValues and setBlink.
void pulseOrBlink(CtlStep &step, const QString &command)
{
    const CtlArgs &args = step.args();
    CtlSession &session = step.session();
    CtlOutcome failure;
    CtlChannel channel;
    if (!positionalCount(args, 2, 9, QStringLiteral("CH --on MS --off MS V..."), &failure))
        return step.finish(failure);
    if (!args.has(QStringLiteral("on")) || !args.has(QStringLiteral("off")))
        return step.finish(CtlOutcome::refused(QStringLiteral("%1 needs --on MS and --off MS").arg(args.name())));
    QList<std::tuple<QString, quint32, quint32, QString>> checks{
        {args.value(QStringLiteral("on")), 1, 0xFFFF, QStringLiteral("--on")},
        {args.value(QStringLiteral("off")), 1, 0xFFFF, QStringLiteral("--off")}};
    for (const QString &text : args.positional().mid(1))
        checks.append({text, 0, 1, QStringLiteral("value")});
    QList<quint32> numbers;
    if (!::numbers(checks, &numbers, &failure)
        || !session.channel(args.positional().first(), CtlSession::OutputChannel, &channel, &failure))
        return step.finish(failure);
    // Each value drives the next output from CH on: all of them must be outputs of the table.
    const QStringList ids = session.channelIds(channel.device);
    const int first = ids.indexOf(channel.id);
    const int count = numbers.size() - 2;
    if (first + count > ids.size())
        return step.finish(CtlOutcome::refused(QStringLiteral("%1 %2: %3 values reach past %4, the last channel of device \"%5\"")
                                                   .arg(args.name(), channel.id).arg(count)
                                                   .arg(ids.last(), session.config(channel.device).reference)));
    QVariantList values;
    QVariantMap channels;
    for (int i = 0; i < count; ++i) {
        CtlChannel next;
        if (!session.channel(QStringLiteral("%1:%2").arg(session.config(channel.device).reference, ids.at(first + i)),
                             CtlSession::OutputChannel, &next, &failure))
            return step.finish(failure);
        values << int(numbers.at(i + 2));
        channels.insert(next.id, values.last());
    }
    CtlRequest call = request(channel.device, command,
                              {{QStringLiteral("channel"), channel.id}, {QStringLiteral("pulseOnWidth"), int(numbers.at(0))},
                               {QStringLiteral("pulseOffWidth"), int(numbers.at(1))}, {QStringLiteral("values"), values}});
    const QVariantMap results{{QStringLiteral("on"), int(numbers.at(0))}, {QStringLiteral("off"), int(numbers.at(1))},
                              {QStringLiteral("channels"), channels}};
    const QString done = QStringLiteral("%1: %2 on %3 ms, off %4 ms, values %5 done\n")
                             .arg(session.label(channel.device, channel.id), args.name())
                             .arg(numbers.at(0)).arg(numbers.at(1)).arg(CtlSession::toText(values));
    call.shape = [done, results](CtlOutcome *outcome) {
        outcome->results = results;
        outcome->text = done;
    };
    run(step, call);
}

void listen(CtlStep &step)
{
    const CtlArgs &args = step.args();
    CtlSession &session = step.session();
    CtlOutcome failure;
    CtlChannel channel;
    CtlRequest call;
    call.command = QStringLiteral("listenEvents");
    if (!positionalCount(args, 1, 1, QStringLiteral("CH"), &failure) || !listenLimits(args, &call.count, &call.ms, &failure))
        return step.finish(failure);
    if (!session.channel(args.positional().first(), CtlSession::AnyChannel, &channel, &failure))
        return step.finish(failure);
    if (args.background()) {
        session.startBackground(channel.device, channel.id);
        CtlOutcome started = CtlOutcome::local(args.name(), {{QStringLiteral("background"), true}});
        started.device = session.config(channel.device).reference;
        started.channel = channel.id;
        return step.finish(started);
    }
    call.device = channel.device;
    call.arguments.insert(QStringLiteral("channel"), channel.id);
    run(step, call);
}

QCommandLineOption valueOption(const QString &name, const QString &description, const QString &value)
{
    return QCommandLineOption(name, description, value);
}

} // namespace

bool listenLimits(const CtlArgs &args, int *count, int *ms, CtlOutcome *failure)
{
    QList<quint32> numbers;
    if (args.has(QStringLiteral("count"))
        && !::numbers({{args.value(QStringLiteral("count")), 1, c_maxCount, QStringLiteral("--count")}}, &numbers, failure))
        return false;
    *count = int(numbers.value(0));
    *ms = 0;
    if (!args.has(QStringLiteral("for")))
        return true;
    // Seconds, a fraction allowed: digits, at most one point, nothing else.
    const QString text = args.value(QStringLiteral("for"));
    bool ok = !text.isEmpty() && text.count(QLatin1Char('.')) <= 1 && !text.startsWith(QLatin1Char('.'))
              && std::all_of(text.cbegin(), text.cend(), [](QChar c) { return c.isDigit() || c == QLatin1Char('.'); });
    const double seconds = ok ? text.toDouble(&ok) : 0;
    if (!ok || seconds <= 0 || seconds > c_maxListenSeconds) {
        *failure = CtlOutcome::refused(QStringLiteral("--for \"%1\" is not a number of seconds above 0 and up to %2 (7 days)")
                                           .arg(text).arg(c_maxListenSeconds));
        return false;
    }
    *ms = qMax(1, int(seconds * 1000));
    return true;
}

QList<QCommandLineOption> listenLimitOptions()
{
    return {valueOption(QStringLiteral("count"), QStringLiteral("stop after N events"), QStringLiteral("N")),
            valueOption(QStringLiteral("for"), QStringLiteral("stop after SECONDS (up to 7 days)"), QStringLiteral("SECONDS"))};
}

CtlGroup deviceGroup()
{
    using namespace std::placeholders;
    const QList<QCommandLineOption> widths{
        valueOption(QStringLiteral("on"), QStringLiteral("on-width, 1-65535 ms"), QStringLiteral("MS")),
        valueOption(QStringLiteral("off"), QStringLiteral("off-width, 1-65535 ms"), QStringLiteral("MS"))};
    return {QStringLiteral("Channel commands (CH must be in the device's table; VALUE 0 or 1, decimal or 0x hex)"),
            {
                {QStringLiteral("info"), QString(), QStringLiteral("model name, firmware and MAC address (getInfo)"), &info},
                {QStringLiteral("get"), QStringLiteral("CH"),
                 QStringLiteral("read one channel: an input, or an output's coil as on the wire (getValue; getValues for an output)"), &get,
                 {QCommandLineOption(QStringLiteral("pulse"), QStringLiteral("an output's pulse generator instead: 1 while it runs (getValue)"))}},
                {QStringLiteral("get-run"), QStringLiteral("CH"), QStringLiteral("read CH and the channels after it in its group (getValues)"), &getRun},
                {QStringLiteral("set"), QStringLiteral("CH VALUE"), QStringLiteral("set a digital output to 0 or 1 (setValue; through its pulse generator unless --mask)"), &set,
                 {valueOption(QStringLiteral("mask"), QStringLiteral("write the channel's register directly, only the bits of M "
                                                                         "(0-0xFFFF; 1 for a coil; 0xFFFF means no mask)"), QStringLiteral("M"))}},
                {QStringLiteral("pulse"), QStringLiteral("CH --on MS --off MS V..."), QStringLiteral("pulse outputs from CH on with the given widths (setValues)"),
                 std::bind(&pulseOrBlink, _1, QStringLiteral("setValues")), widths},
                {QStringLiteral("blink"), QStringLiteral("CH --on MS --off MS V..."), QStringLiteral("blink outputs from CH on with the given widths (setBlink)"),
                 std::bind(&pulseOrBlink, _1, QStringLiteral("setBlink")), widths},
                {QStringLiteral("listen"), QStringLiteral("CH [&]"),
                 QStringLiteral("print each change of a channel until the limit, Ctrl-C or SIGTERM (listenEvents); "
                                "in a script, a last word & runs it in the background until stop"),
                 &listen, listenLimitOptions()},
            }};
}
