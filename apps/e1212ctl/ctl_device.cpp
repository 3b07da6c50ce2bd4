// SPDX-License-Identifier: MIT
#include "ctl_device.h"

#include "ctlargs.h"
#include "ctlsession.h"

#include <QDateTime>

namespace {

// Parses the words, opens the device and checks the channel named by the first positional
// word. Returns false with *exitCode set when the subcommand must stop.
bool prepare(CtlSession &session, const CtlArgs &args, int positionalMin, int positionalMax,
             const QString &usage, int *exitCode)
{
    if (!args.error().isEmpty()) {
        *exitCode = session.usageError(args.error() + QStringLiteral("; usage: ") + usage);
        return false;
    }
    const int count = args.positional().size();
    if (count < positionalMin || (positionalMax >= 0 && count > positionalMax)) {
        *exitCode = session.usageError(QStringLiteral("usage: e1212ctl %1").arg(usage));
        return false;
    }
    return session.openDevice(exitCode) && (positionalMin == 0 || session.checkChannel(args.positional().first(), exitCode));
}

int info(CtlSession &session, const QStringList &words)
{
    const CtlArgs args(words, {});
    int exitCode = 0;
    if (!prepare(session, args, 0, 0, QStringLiteral("info"), &exitCode))
        return exitCode;
    return session.runAndReport(QStringLiteral("getInfo"), {}, [&session](const QVariantMap &results) {
        const QVariantMap information = results.value(QStringLiteral("deviceInformation")).toMap();
        QList<QPair<QString, QString>> lines{{QStringLiteral("device"), session.config().reference},
                                             {QStringLiteral("address"), session.address()}};
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

int get(CtlSession &session, const QStringList &words)
{
    const CtlArgs args(words, {});
    int exitCode = 0;
    if (!prepare(session, args, 1, 1, QStringLiteral("get CH"), &exitCode))
        return exitCode;
    const QString channel = args.positional().first();
    return session.runAndReport(QStringLiteral("getValue"), {{QStringLiteral("channel"), channel}},
                                [&session, channel](const QVariantMap &results) {
                                    session.out() << channel << " = " << CtlSession::toText(results.value(QStringLiteral("value"))) << '\n';
                                });
}

int getRun(CtlSession &session, const QStringList &words)
{
    const CtlArgs args(words, {});
    int exitCode = 0;
    if (!prepare(session, args, 1, 1, QStringLiteral("get-run CH"), &exitCode))
        return exitCode;
    const QString channel = args.positional().first();
    return session.runAndReport(QStringLiteral("getValues"), {{QStringLiteral("channel"), channel}},
                                [&session, channel](const QVariantMap &results) {
                                    // The values belong to the channel and the ones after it in the table.
                                    const QStringList ids = session.channelIds();
                                    const int first = ids.indexOf(channel);
                                    const QVariantList values = results.value(QStringLiteral("values")).toList();
                                    for (int i = 0; i < values.size(); ++i) {
                                        const QString name = first + i < ids.size() ? ids.at(first + i)
                                                                                    : QStringLiteral("%1+%2").arg(channel).arg(i);
                                        session.out() << name << " = " << CtlSession::toText(values.at(i)) << '\n';
                                    }
                                });
}

int set(CtlSession &session, const QStringList &words)
{
    const QString usage = QStringLiteral("set CH VALUE [--mask M]");
    const CtlArgs args(words, {QStringLiteral("--mask")});
    QString error;
    quint32 value = 0;
    quint32 mask = 0xFFFF;
    if (args.error().isEmpty() && args.positional().size() == 2
        && (!CtlArgs::number(args.positional().at(1), 0xFFFF, QStringLiteral("VALUE"), &value, &error)
            || (args.has(QStringLiteral("--mask")) && !CtlArgs::number(args.value(QStringLiteral("--mask")), 0xFFFF, QStringLiteral("--mask"), &mask, &error))))
        return session.usageError(error);
    int exitCode = 0;
    if (!prepare(session, args, 2, 2, usage, &exitCode))
        return exitCode;
    const QString channel = args.positional().first();
    QVariantMap arguments{{QStringLiteral("channel"), channel}, {QStringLiteral("value"), value}};
    if (args.has(QStringLiteral("--mask")))
        arguments.insert(QStringLiteral("bitMask"), mask);
    bool confirmed = true;
    exitCode = session.runAndReport(QStringLiteral("setValue"), arguments, [&](const QVariantMap &results) {
        confirmed = results.value(QStringLiteral("doneOk"), true).toBool();
        if (!confirmed)
            return;
        session.out() << channel << " = " << value;
        if (args.has(QStringLiteral("--mask")))
            session.out() << " (mask 0x" << QString::number(mask, 16).rightJustified(4, QLatin1Char('0')) << ')';
        session.out() << " done\n";
    });
    if (exitCode == CtlSession::ExitOk && !confirmed)
        return session.fail(CtlSession::ExitFailed, QStringLiteral("setValue %1: the device did not confirm the write (doneOk false)").arg(channel));
    return exitCode;
}

// pulse and blink: the same arguments for setValues and setBlink.
int pulseOrBlink(CtlSession &session, const QStringList &words, const QString &name, const QString &command)
{
    const QString usage = name + QStringLiteral(" CH --on MS --off MS V...");
    const CtlArgs args(words, {QStringLiteral("--on"), QStringLiteral("--off")});
    QString error;
    quint32 on = 0;
    quint32 off = 0;
    QVariantList values;
    if (args.error().isEmpty() && args.positional().size() >= 2) {
        if (!args.has(QStringLiteral("--on")) || !args.has(QStringLiteral("--off")))
            return session.usageError(QStringLiteral("%1 needs --on MS and --off MS; usage: e1212ctl %2").arg(name, usage));
        if (!CtlArgs::number(args.value(QStringLiteral("--on")), 0xFFFF, QStringLiteral("--on"), &on, &error)
            || !CtlArgs::number(args.value(QStringLiteral("--off")), 0xFFFF, QStringLiteral("--off"), &off, &error))
            return session.usageError(error);
        for (const QString &text : args.positional().mid(1)) {
            quint32 value = 0;
            if (!CtlArgs::number(text, 0xFFFF, QStringLiteral("value"), &value, &error))
                return session.usageError(error);
            values << int(value);
        }
    }
    int exitCode = 0;
    if (!prepare(session, args, 2, -1, usage, &exitCode))
        return exitCode;
    const QString channel = args.positional().first();
    const QVariantMap arguments{{QStringLiteral("channel"), channel}, {QStringLiteral("pulseOnWidth"), int(on)},
                                {QStringLiteral("pulseOffWidth"), int(off)}, {QStringLiteral("values"), values}};
    return session.runAndReport(command, arguments, [&](const QVariantMap &) {
        session.out() << channel << ": " << name << " on " << on << " ms, off " << off << " ms, values "
                      << CtlSession::toText(values) << " done\n";
    });
}

int listen(CtlSession &session, const QStringList &words)
{
    const QString usage = QStringLiteral("listen CH [--count N] [--for SECONDS]");
    const CtlArgs args(words, {QStringLiteral("--count"), QStringLiteral("--for")});
    CtlListenLimits limits;
    if (args.error().isEmpty()) {
        QString error;
        quint32 count = 0;
        if (args.has(QStringLiteral("--count"))) {
            if (!CtlArgs::number(args.value(QStringLiteral("--count")), 1000000000, QStringLiteral("--count"), &count, &error))
                return session.usageError(error);
            if (count == 0)
                return session.usageError(QStringLiteral("--count must be at least 1"));
        }
        limits.count = int(count);
        if (args.has(QStringLiteral("--for"))) {
            bool ok = false;
            limits.seconds = args.value(QStringLiteral("--for")).toDouble(&ok);
            if (!ok || limits.seconds <= 0)
                return session.usageError(QStringLiteral("--for \"%1\" is not a positive number of seconds").arg(args.value(QStringLiteral("--for"))));
        }
    }
    int exitCode = 0;
    if (!prepare(session, args, 1, 1, usage, &exitCode))
        return exitCode;
    const QString channel = args.positional().first();
    return session.runAndReport(
        QStringLiteral("listenEvents"), {{QStringLiteral("channel"), channel}}, {},
        [&session, channel](const QString &, const QVariant &value) {
            const QVariantList values = value.toMap().value(QStringLiteral("values")).toList();
            session.out() << QDateTime::currentDateTime().toString(QStringLiteral("yyyy-MM-dd hh:mm:ss.zzz")) << "  " << channel
                          << " = " << (values.size() == 1 ? CtlSession::toText(values.first()) : CtlSession::toText(value))
                          << Qt::endl;
        },
        limits);
}

} // namespace

CtlGroup deviceGroup()
{
    using namespace std::placeholders;
    return {QStringLiteral("Channel commands (the channel must be in the configuration's table)"),
            {
                {QStringLiteral("info"), QString(), QStringLiteral("model name, firmware and MAC address (getInfo)"), &info},
                {QStringLiteral("get"), QStringLiteral("CH"), QStringLiteral("read one channel (getValue; an output reads its pulse status)"), &get},
                {QStringLiteral("get-run"), QStringLiteral("CH"), QStringLiteral("read CH and the channels after it in its group (getValues)"), &getRun},
                {QStringLiteral("set"), QStringLiteral("CH VALUE [--mask M]"), QStringLiteral("set a channel (setValue); decimal or 0x hex"), &set},
                {QStringLiteral("pulse"), QStringLiteral("CH --on MS --off MS V..."),
                 QStringLiteral("pulse outputs from CH on with the given widths (setValues)"),
                 std::bind(&pulseOrBlink, _1, _2, QStringLiteral("pulse"), QStringLiteral("setValues"))},
                {QStringLiteral("blink"), QStringLiteral("CH --on MS --off MS V..."),
                 QStringLiteral("blink outputs from CH on with the given widths (setBlink)"),
                 std::bind(&pulseOrBlink, _1, _2, QStringLiteral("blink"), QStringLiteral("setBlink"))},
                {QStringLiteral("listen"), QStringLiteral("CH [--count N] [--for SECONDS]"),
                 QStringLiteral("print each change of a channel until the limit, Ctrl-C or SIGTERM (listenEvents)"), &listen},
            }};
}
