// SPDX-License-Identifier: MIT
#include "ctl_watch.h"

#include "ctl_device.h"
#include "ctlargs.h"
#include "ctlsession.h"
#include "ctlstep.h"
#include "execution.h"
#include "host.h"

#include <QDateTime>
#include <QFile>
#include <QJsonDocument>
#include <QTextStream>
#include <QTimer>

#include <unistd.h>

#include <algorithm>
#include <vector>

namespace {

// A listen polls a device this often unless its connection says otherwise (the driver's own default).
constexpr int c_defaultPollMs = 100;
// How records and the table name an output's pulse generator: its channel id and this.
const QLatin1String c_pulseSuffix(".pulse");

// One watched channel: its listen and what it showed last. An output's pulse generator is an
// entry of its own, "DO5.pulse", read from the device's pulse status run instead of a listen.
struct Watched
{
    int device = 0;
    QString id;
    Execution *listen = nullptr;
    int pulseIndex = -1; // a pulse generator: its output's place in the pulse status run
    QVariant value;
    bool seen = false;   // a report has come
    bool outage = false; // the device has not answered since the last report
};

QString csvField(const QString &text)
{
    if (!text.contains(QLatin1Char(',')) && !text.contains(QLatin1Char('"')) && !text.contains(QLatin1Char('\n')))
        return text;
    return QLatin1Char('"') + QString(text).replace(QLatin1Char('"'), QStringLiteral("\"\"")) + QLatin1Char('"');
}

// Runs one listenEvents per channel (the driver polls them together) until Ctrl-C, --for or
// --count, and, for a device with outputs watched, one getValues of its pulse status run per
// poll interval. A report that changes what a channel showed (its first one, and the first
// after an outage, included) is a record: a JSON event or a text line on the output unless the
// table is drawn there, a line in each file, written as it comes.
class Watch : public QObject
{
public:
    struct Limits
    {
        int count = 0; // records; 0: none
        int ms = 0;
    };

    Watch(CtlStep &step, std::vector<Watched> channels, const Limits &limits, bool table, QFile *csv, QFile *jsonl)
        : QObject(&step), m_step(step), m_session(step.session()), m_channels(std::move(channels)), m_limits(limits),
          m_table(table), m_csv(csv), m_jsonl(jsonl)
    {
        if (m_csv) {
            m_csv->setParent(this);
            m_csv->write("time,device,channel,value,code\n");
        }
        if (m_jsonl)
            m_jsonl->setParent(this);
        step.setCancel([this] { conclude(); });
        for (size_t i = 0; i < m_channels.size(); ++i) {
            Watched &channel = m_channels[i];
            if (channel.pulseIndex >= 0) {
                if (!m_pulseReads.contains(channel.device))
                    m_pulseReads.insert(channel.device, nullptr);
                continue;
            }
            channel.listen = m_session.host()->execute(m_session.device(channel.device), QStringLiteral("listenEvents"),
                                                       {{QStringLiteral("channel"), channel.id}});
            connect(channel.listen, &Execution::resultChanged, this, [this, i](const QString &, const QVariant &report) {
                const QVariantList values = report.toMap().value(QStringLiteral("values")).toList();
                onReport(m_channels[i], values.size() == 1 ? values.first() : report);
            });
            connect(channel.listen, &Execution::errorReported, this, [this, i](const DError &error) { onOutage(m_channels[i], error); });
            // A listen ends by itself only when it cannot run: the watch ends with its failure.
            connect(channel.listen, &Execution::finished, this, [this, i] { conclude(m_channels[i].listen->error()); });
        }
        for (auto it = m_pulseReads.cbegin(); it != m_pulseReads.cend(); ++it)
            readPulses(it.key());
        m_redraw.setSingleShot(true);
        connect(&m_redraw, &QTimer::timeout, this, &Watch::draw);
        if (m_table)
            draw();
        if (m_limits.ms > 0) {
            m_deadline.setSingleShot(true);
            connect(&m_deadline, &QTimer::timeout, this, [this] { conclude(); });
            m_deadline.start(m_limits.ms);
        }
    }

    ~Watch() override
    {
        for (Watched &channel : m_channels)
            delete channel.listen; // stops it
        qDeleteAll(m_pulseReads);
    }

private:
    // One read of the device's pulse status run; its end schedules the next one a poll
    // interval later, so a device gets at most one such request per interval.
    void readPulses(int device)
    {
        Execution *read = m_session.host()->execute(m_session.device(device), QStringLiteral("getValues"),
                                                    {{QStringLiteral("channel"), CtlSession::pulseStatusRecord()}});
        m_pulseReads[device] = read;
        connect(read, &Execution::finished, this, [this, device, read] {
            m_pulseReads[device] = nullptr;
            read->deleteLater();
            onPulses(device, read->error(), read->results().value(QStringLiteral("values")).toList());
            // A read that cannot run (refused, nothing sent) never will: the watch ends with it.
            if (CtlOutcome::exitCodeOf(read->errorCode()) == CtlOutcome::ExitUsage)
                conclude(read->error());
            if (m_step.isFinished())
                return;
            const int ms = m_session.config(device).connection.value(QStringLiteral("pollIntervalMs"), c_defaultPollMs).toInt();
            QTimer::singleShot(ms, this, [this, device] {
                if (!m_step.isFinished())
                    readPulses(device);
            });
        });
    }

    void onPulses(int device, DError error, const QVariantList &values)
    {
        for (Watched &channel : m_channels) {
            if (channel.device != device || channel.pulseIndex < 0)
                continue;
            if (!error.isError() && channel.pulseIndex >= values.size())
                error = DError{IMessenger::CeMalformedReply, 0,
                               QStringLiteral("getValues %1 of device \"%2\": %3 values, none for %4")
                                   .arg(CtlSession::pulseStatusRecord(), m_session.config(device).reference).arg(values.size()).arg(channel.id)};
            if (error.isError())
                channel.outage = true; // the listens of the device record the outage
            else
                onReport(channel, values.at(channel.pulseIndex));
        }
    }

    void onReport(Watched &channel, const QVariant &value)
    {
        const bool changed = !channel.seen || channel.outage || channel.value != value;
        channel.value = value;
        channel.seen = true;
        channel.outage = false;
        if (changed)
            record(channel, DError());
    }

    void onOutage(Watched &channel, const DError &error)
    {
        if (channel.outage)
            return;
        channel.outage = true;
        m_lastError = error.text;
        record(channel, error);
        if (!m_table && !m_session.options().json)
            m_session.report(CtlOutcome::failed(error.text));
    }

    void record(const Watched &channel, const DError &error)
    {
        ++m_records;
        const QJsonObject event = m_session.event(QStringLiteral("watch"), channel.device, channel.id, channel.value, error);
        const QString time = event.value(QStringLiteral("time")).toString();
        const QString value = error.isError() ? QString() : CtlSession::toText(channel.value);
        if (m_table) {
            m_redraw.start(0);
        } else if (m_session.options().json) {
            m_session.printJson(event);
        } else if (!error.isError()) {
            m_session.out() << time << "  " << m_session.label(channel.device, channel.id) << " = " << value << Qt::endl;
        }
        if (m_csv)
            m_csv->write(QStringList{time, csvField(m_session.config(channel.device).reference), csvField(channel.id), value,
                                     error.isError() ? DError::codeName(error.code) : QString()}
                             .join(QLatin1Char(','))
                             .toUtf8()
                         + '\n');
        if (m_jsonl)
            m_jsonl->write(QJsonDocument(event).toJson(QJsonDocument::Compact) + '\n');
        if (m_limits.count > 0 && m_records >= m_limits.count)
            conclude();
    }

    // The table: a row per channel id, a column per device, followed by a "pulse" column (the
    // outputs' pulse generators) when outputs of the device are watched; "." before the first
    // report, "?" while the device does not answer. Drawn over itself: the cursor goes back up
    // its lines.
    void draw()
    {
        QStringList ids;
        QList<QPair<int, bool>> columns; // device, its pulse generators
        for (const Watched &channel : m_channels) {
            if (channel.pulseIndex < 0 && !ids.contains(channel.id))
                ids << channel.id;
            if (!columns.contains(qMakePair(channel.device, false)))
                columns << qMakePair(channel.device, false);
            if (channel.pulseIndex >= 0 && !columns.contains(qMakePair(channel.device, true)))
                columns.insert(columns.indexOf(qMakePair(channel.device, false)) + 1, qMakePair(channel.device, true));
        }
        QString header = QStringLiteral("channel");
        int width = header.size();
        for (const QString &id : qAsConst(ids))
            width = qMax(width, id.size());
        QStringList lines;
        header = header.leftJustified(width);
        QVector<int> widths;
        for (const auto &column : qAsConst(columns)) {
            const QString name = column.second ? QStringLiteral("pulse") : m_session.config(column.first).reference.section(QLatin1Char(' '), -1);
            widths << qMax(name.size(), 1);
            header += QStringLiteral("  ") + name;
        }
        lines << header;
        for (const QString &id : qAsConst(ids)) {
            QString line = id.leftJustified(width);
            for (int c = 0; c < columns.size(); ++c) {
                const QString cellId = columns.at(c).second ? id + c_pulseSuffix : id;
                QString cell;
                for (const Watched &channel : m_channels)
                    if (channel.device == columns.at(c).first && channel.id == cellId)
                        cell = channel.outage ? QStringLiteral("?") : channel.seen ? CtlSession::toText(channel.value) : QStringLiteral(".");
                line += QStringLiteral("  ") + cell.leftJustified(widths.at(c));
            }
            lines << line;
        }
        QString status = QStringLiteral("%1  %2 changes").arg(QTime::currentTime().toString(QStringLiteral("hh:mm:ss")))
                             .arg(m_records);
        if (!m_lastError.isEmpty())
            status += QStringLiteral("  last error: ") + m_lastError;
        lines << status;
        QTextStream &out = m_session.out();
        if (m_drawn > 0)
            out << "\x1b[" << m_drawn << 'A';
        for (const QString &line : qAsConst(lines))
            out << '\r' << line << "\x1b[K\n";
        out.flush();
        m_drawn = lines.size();
    }

    // Ends the watch: fine on a stop or a limit, unless a device has never answered or does not
    // answer now, or `error` says why a listen could not run.
    void conclude(const DError &error = DError())
    {
        if (m_step.isFinished())
            return;
        m_deadline.stop();
        if (m_table && m_redraw.isActive()) {
            m_redraw.stop();
            draw();
        }
        for (Watched &channel : m_channels) {
            if (!channel.listen)
                continue;
            disconnect(channel.listen, nullptr, this, nullptr);
            channel.listen->deleteLater(); // stops it
            channel.listen = nullptr;
        }
        for (Execution *read : qAsConst(m_pulseReads))
            if (read) {
                disconnect(read, nullptr, this, nullptr);
                read->deleteLater();
            }
        m_pulseReads.clear();
        CtlOutcome outcome = CtlOutcome::local(QStringLiteral("watch"), {{QStringLiteral("records"), m_records}});
        DError failure = error;
        for (const Watched &channel : m_channels)
            if (!failure.isError() && (channel.outage || !heard(channel.device)))
                failure = DError{IMessenger::CeTimeout, 0,
                                 QStringLiteral("device \"%1\" %2 when the watch ended")
                                     .arg(m_session.config(channel.device).reference,
                                          channel.outage ? QStringLiteral("did not answer") : QStringLiteral("had not answered yet"))};
        if (failure.isError()) {
            outcome.exitCode = error.isError() ? CtlOutcome::exitCodeOf(error.code) : int(CtlOutcome::ExitFailed);
            outcome.error = failure.text;
            outcome.code = DError::codeName(failure.code);
            outcome.message = QStringLiteral("watch failed: %1").arg(failure.text);
        }
        m_step.finish(outcome);
    }

    // True once a channel of `device` has reported.
    bool heard(int device) const
    {
        return std::any_of(m_channels.cbegin(), m_channels.cend(),
                           [device](const Watched &channel) { return channel.device == device && channel.seen; });
    }

    CtlStep &m_step;
    CtlSession &m_session;
    std::vector<Watched> m_channels;
    const Limits m_limits;
    const bool m_table;
    QFile *m_csv;
    QFile *m_jsonl;
    int m_records = 0;
    QString m_lastError;
    // One redraw per pass of the event loop, however many reports came in it.
    QTimer m_redraw;
    int m_drawn = 0;
    QTimer m_deadline;
    // Per device with pulse generators watched: its pulse status read under way, or nullptr.
    QHash<int, Execution *> m_pulseReads;
};

// A file that gets each record as it comes (unbuffered: a record written is the kernel's).
bool openRecordFile(const CtlArgs &args, const QString &option, QFile **file, CtlOutcome *failure)
{
    *file = nullptr;
    if (!args.has(option))
        return true;
    auto opened = new QFile(args.value(option));
    if (!opened->open(QIODevice::WriteOnly | QIODevice::Truncate | QIODevice::Unbuffered)) {
        *failure = CtlOutcome::refused(QStringLiteral("watch --%1 %2: cannot write it (%3)").arg(option, opened->fileName(), opened->errorString()));
        delete opened;
        return false;
    }
    *file = opened;
    return true;
}

void watch(CtlStep &step)
{
    const CtlArgs &args = step.args();
    CtlSession &session = step.session();
    CtlOutcome failure;
    Watch::Limits limits;
    if (!listenLimits(args, &limits.count, &limits.ms, &failure) || !session.openDevices(&failure))
        return step.finish(failure);
    std::vector<Watched> channels;
    const auto add = [&channels, &session](int device, const QString &id) {
        for (const Watched &channel : channels)
            if (channel.device == device && channel.id == id)
                return;
        Watched channel;
        channel.device = device;
        channel.id = id;
        channels.push_back(channel);
        const int index = session.pulseStatusPlace(device, id);
        if (index < 0)
            return;
        channel.id += c_pulseSuffix;
        channel.pulseIndex = index;
        channels.push_back(channel);
    };
    // A word is a channel (CH, NAME:CH) or a device (NAME: all its channels); none: every device.
    QStringList words = args.positional();
    if (words.isEmpty())
        for (int device = 0; device < session.deviceCount(); ++device)
            words << session.config(device).reference;
    for (const QString &word : qAsConst(words)) {
        const int device = word.contains(QLatin1Char(':')) ? -1 : session.findDevice(word);
        if (device >= 0 && !session.channelIds(session.current()).contains(word)) {
            for (const QString &id : session.channelIds(device))
                add(device, id);
            continue;
        }
        CtlChannel channel;
        if (!session.channel(word, CtlSession::AnyChannel, &channel, &failure))
            return step.finish(failure);
        add(channel.device, channel.id);
    }
    QFile *csv = nullptr;
    QFile *jsonl = nullptr;
    if (!openRecordFile(args, QStringLiteral("csv"), &csv, &failure) || !openRecordFile(args, QStringLiteral("jsonl"), &jsonl, &failure)) {
        delete csv;
        return step.finish(failure);
    }
    const bool table = !session.options().json && ::isatty(STDOUT_FILENO);
    new Watch(step, std::move(channels), limits, table, csv, jsonl);
}

} // namespace

CtlGroup watchGroup()
{
    QList<QCommandLineOption> options = listenLimitOptions();
    options[0].setDescription(QStringLiteral("stop after N records"));
    options << QCommandLineOption(QStringLiteral("csv"), QStringLiteral("also write each record to FILE (time,device,channel,value,code)"),
                                  QStringLiteral("FILE"))
            << QCommandLineOption(QStringLiteral("jsonl"), QStringLiteral("also write each record to FILE as a JSON line"), QStringLiteral("FILE"));
    return {QStringLiteral("Watching"),
            {
                {QStringLiteral("watch"), QStringLiteral("[CH|NAME...]"),
                 QStringLiteral("every channel of every device, or of the devices NAME, or the channels CH: a table refreshed in "
                                "place on a terminal, else one record per change (listenEvents per channel), until the limit, "
                                "Ctrl-C or SIGTERM"),
                 &watch, options},
            }};
}
