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
#include <QSet>
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

// The channel table as text: a column per entry, each as wide as its widest cell; "-" where a
// record has no such entry, "?" where a channel's state (or an output's pulse generator) was
// not read because the device did not answer.
QString channelText(const QVariantList &rows)
{
    const QStringList columns{QStringLiteral("id"), QStringLiteral("type"), QStringLiteral("value"), QStringLiteral("pulse"),
                              QStringLiteral("register"), QStringLiteral("readRegisterType"), QStringLiteral("writeRegisterType"),
                              QStringLiteral("activeLevelHigh"), QStringLiteral("size"), QStringLiteral("name")};
    auto cell = [](const QVariantMap &row, const QString &column) {
        if (row.contains(column))
            return CtlSession::toText(row.value(column));
        const bool channel = row.contains(QStringLiteral("type"));
        const bool output = DChannelTable::isOutputType(row.value(QStringLiteral("type")).toString());
        const bool unread = (column == QLatin1String("value") && channel) || (column == QLatin1String("pulse") && output);
        return unread ? QStringLiteral("?") : QStringLiteral("-");
    };
    QString text;
    QTextStream out(&text);
    QVector<int> widths(columns.size());
    for (int c = 0; c < columns.size(); ++c) {
        widths[c] = columns.at(c).size();
        for (const QVariant &row : rows)
            widths[c] = qMax(widths[c], cell(row.toMap(), columns.at(c)).size());
    }
    for (int c = 0; c < columns.size(); ++c)
        out << columns.at(c).leftJustified(c + 1 < columns.size() ? widths[c] + 2 : 0);
    out << '\n';
    for (const QVariant &row : rows) {
        for (int c = 0; c < columns.size(); ++c)
            out << cell(row.toMap(), columns.at(c)).leftJustified(c + 1 < columns.size() ? widths[c] + 2 : 0);
        out << '\n';
    }
    out.flush();
    return text;
}

// channels: the table of the current device, each channel with its state ("value": an input,
// an output's coil) and each output with its pulse generator ("pulse", 1 while it runs), as
// the device answers. One getValues per run of channels (a record's "size") and one of the
// pulse status run, in turn; a channel no run covers is read on its own. The first failure
// ends it: the table is still shown, the unread states "?".
class ChannelStates : public QObject
{
public:
    explicit ChannelStates(CtlStep &step)
        : QObject(&step), m_step(step), m_session(step.session()), m_device(m_session.current())
    {
        const DChannelTable &table = m_session.device()->channelTable();
        for (const DChannelTable::Record &record : table.records()) {
            QVariantMap row = m_session.channelInfo(m_device, record.id);
            row.insert(QStringLiteral("id"), record.id);
            row.insert(QStringLiteral("name"), record.name);
            m_rows << row;
        }
        const QStringList ids = table.channelIds();
        QSet<QString> read;
        for (const QString &id : ids) {
            if (read.contains(id))
                continue;
            const QVariantMap info = m_session.channelInfo(m_device, id);
            if (!info.contains(QStringLiteral("size"))) {
                read << id;
                planOne(CtlCall::stateRead(m_session, m_device, id), id, QStringLiteral("value"));
                continue;
            }
            const QString space = info.value(QStringLiteral("readRegisterType")).toString();
            const int first = info.value(QStringLiteral("register")).toInt();
            QHash<QString, int> run; // channel -> its place in the run
            for (const QString &other : ids) {
                const QVariantMap entries = m_session.channelInfo(m_device, other);
                const int place = entries.value(QStringLiteral("register")).toInt() - first;
                if (entries.value(QStringLiteral("readRegisterType")).toString() == space && place >= 0
                    && place < info.value(QStringLiteral("size")).toInt() && !read.contains(other)) {
                    run.insert(other, place);
                    read << other;
                }
            }
            planRun(id, run, QStringLiteral("value"));
        }
        QHash<QString, int> run;
        for (const QString &id : ids) {
            if (!m_session.isOutput(m_device, id))
                continue;
            const int place = m_session.pulseStatusPlace(m_device, id);
            if (place >= 0)
                run.insert(id, place);
            else
                planOne(plainRequest(QStringLiteral("getValue"), id), id, QStringLiteral("pulse"));
        }
        if (!run.isEmpty())
            planRun(CtlSession::pulseStatusRecord(), run, QStringLiteral("pulse"));
        step.setCancel([this] {
            if (m_call)
                m_call->stop();
        });
        if (!m_step.isFinished())
            next(CtlOutcome());
    }

private:
    struct Read
    {
        CtlRequest request;
        std::function<void(const QVariantMap &results)> apply;
    };

    CtlRequest plainRequest(const QString &command, const QString &channel) const
    {
        CtlRequest request;
        request.device = m_device;
        request.command = command;
        request.arguments.insert(QStringLiteral("channel"), channel);
        return request;
    }

    void planOne(const CtlRequest &request, const QString &id, const QString &key)
    {
        m_reads.push_back({request, [this, id, key](const QVariantMap &results) {
                               set(id, key, results.value(QStringLiteral("value")));
                           }});
    }

    void planRun(const QString &first, const QHash<QString, int> &run, const QString &key)
    {
        m_reads.push_back({plainRequest(QStringLiteral("getValues"), first), [this, run, key](const QVariantMap &results) {
                               const QVariantList values = results.value(QStringLiteral("values")).toList();
                               for (auto it = run.cbegin(); it != run.cend(); ++it)
                                   if (it.value() < values.size())
                                       set(it.key(), key, values.at(it.value()));
                           }});
    }

    void set(const QString &id, const QString &key, const QVariant &value)
    {
        for (QVariant &row : m_rows)
            if (row.toMap().value(QStringLiteral("id")) == id) {
                QVariantMap map = row.toMap();
                map.insert(key, value);
                row = map;
            }
    }

    // Applies what ended (the first call: nothing) and starts the next read, or ends the step.
    void next(const CtlOutcome &ended)
    {
        if (m_call) {
            m_call->deleteLater();
            m_call = nullptr;
            if (!ended.isOk())
                return finish(ended);
            m_reads.at(m_done++).apply(ended.results);
        }
        if (m_done == int(m_reads.size()))
            return finish(CtlOutcome());
        m_call = new CtlCall(m_session, m_reads.at(m_done).request, false, [this](const CtlOutcome &outcome) { next(outcome); }, this);
    }

    void finish(const CtlOutcome &failure)
    {
        CtlOutcome outcome = failure;
        outcome.command = QStringLiteral("channels");
        outcome.device.clear();
        outcome.channel.clear();
        outcome.results = {{QStringLiteral("channels"), m_rows}};
        outcome.text = channelText(m_rows);
        m_step.finish(outcome);
    }

    CtlStep &m_step;
    CtlSession &m_session;
    const int m_device;
    QVariantList m_rows;
    std::vector<Read> m_reads;
    int m_done = 0;
    CtlCall *m_call = nullptr;
};

void channels(CtlStep &step)
{
    CtlOutcome failure;
    if (!step.args().positional().isEmpty())
        return step.finish(CtlOutcome::refused(QStringLiteral("usage: channels")));
    if (!step.session().openDevices(&failure))
        return step.finish(failure);
    new ChannelStates(step);
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
                {QStringLiteral("channels"), QString(),
                 QStringLiteral("the channel table of the configured device, with each channel's state and each output's "
                                "pulse generator as the device answers (getValues)"),
                 &channels},
                {QStringLiteral("devices"), QString(), QStringLiteral("the devices of the configuration: reference, address, plug-in"),
                 [](CtlStep &step) { local(step, QStringLiteral("usage: devices"), &devices); }},
            }};
}
