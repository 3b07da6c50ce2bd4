// SPDX-License-Identifier: MIT
// What the device plug-in's tests share: an instance of the loaded plug-in on a recording
// messenger, channel records, type-exact comparison and the diagnostic line check.
#pragma once

#include "dabstractcommand.h"
#include "dabstractplugin.h"
#include "logcapture.h"
#include "testmessenger.h"

#include <QDateTime>
#include <QPluginLoader>
#include <QRegularExpression>
#include <QTest>
#include <QThread>

#include <memory>

namespace bench {

inline const char c_pluginPath[] = E1212_PLUGIN_DIR "/libp_device_moxa_iologic.so";

// One channel-table record: {"id", "name", "value": [{"id": key, "value": v}...]}.
inline QVariant record(const QString &id, const QVariantMap &entries)
{
    QVariantList values;
    for (auto it = entries.constBegin(); it != entries.constEnd(); ++it)
        values << QVariantMap{{QStringLiteral("id"), it.key()}, {QStringLiteral("value"), it.value()}};
    return QVariantMap{{QStringLiteral("id"), id}, {QStringLiteral("name"), id}, {QStringLiteral("value"), values}};
}

inline DAbstractPlugin *rootPlugin() { return qobject_cast<DAbstractPlugin *>(QPluginLoader(QString::fromLatin1(c_pluginPath)).instance()); }

// A fresh instance with reference "bench io1", `channels` published as its table (none when
// invalid), attached to the messenger, its commands declared.
struct Device
{
    std::unique_ptr<DAbstractPlugin> plugin;
    TestMessenger messenger;

    explicit Device(const QVariant &channels = QVariant())
        : plugin(static_cast<DAbstractPlugin *>(rootPlugin()->createInstance(QUuid::createUuid())))
    {
        plugin->setProperty(QStringLiteral("reference"), QStringLiteral("bench io1"), false);
        if (channels.isValid())
            plugin->addToParameters(QStringLiteral("parameters"), QVariantMap{{QStringLiteral("io1_channels"), channels}});
        plugin->setMessenger(&messenger);
        plugin->initPluginCommands();
    }
};

// A value as text with its type at every level of nested lists and maps, a null text told from an empty one.
inline QString describe(const QVariant &value)
{
    QString text;
    if (value.userType() == QMetaType::QVariantList || value.userType() == QMetaType::QVariantMap) {
        const QVariantMap map = value.toMap(); // empty for a list, as the list is for a map
        for (const QVariant &item : value.toList())
            text += describe(item) + QLatin1Char(',');
        for (auto it = map.constBegin(); it != map.constEnd(); ++it)
            text += it.key() + QStringLiteral(": ") + describe(it.value()) + QLatin1Char(',');
        return QStringLiteral("%1(%2)").arg(QLatin1String(value.typeName()), text);
    }
    QDebug(&text) << value;
    return value.userType() == QMetaType::QString && value.toString().isNull() ? text + QStringLiteral("null") : text;
}

#define BENCH_COMPARE(actual, expected) QCOMPARE(bench::describe(QVariant(actual)), bench::describe(QVariant(expected)))

// `message` as {text, "type category file:line function", date valid}, then the same for the diagnostic
// line `emitter` writes from the plug-in source `file` at `line` (any line when negative) with `tail`
// after its items: critical, in category "default", without context.
inline QPair<QStringList, QStringList> logged(const LogCapture::Message &message, const QObject *emitter, const QString &file,
                                              int line, const QString &tail)
{
    const QByteArray path = "plugins/p_device_moxa_iologic/source/" + file.toLatin1();
    const QString date = QRegularExpression(QStringLiteral("^\n \"([^\"]*)\"")).match(message.text).captured(1);
    if (line < 0)
        line = message.text.section(QString::fromLatin1(path) + QStringLiteral(" ;\t "), 1).section(QLatin1Char(' '), 0, 0).toInt();
    QString expected;
    QDebug(&expected) << "\n" << date << ";\t" << "Thread =" << static_cast<QObject *>(QThread::currentThread()) << ";\t"
                      << "This =" << emitter << ";\t" << path.constData() << ";\t" << line << ";\t";
    const QString context = QStringLiteral("%1 %2 %3:%4 %5").arg(message.type).arg(message.category, QLatin1String(message.file))
                                .arg(message.line).arg(QLatin1String(message.function));
    const bool dated = QDateTime::fromString(date, QStringLiteral("yyyy-MM-dd hh:mm:ss.zzz")).isValid();
    return {{message.text, context, QString::number(dated)}, {expected + tail, QStringLiteral("2 default :0 "), QStringLiteral("1")}};
}

#define BENCH_LOGGED(...)                                    \
    do {                                                     \
        const auto compared = bench::logged(__VA_ARGS__);    \
        QCOMPARE(compared.first, compared.second);           \
    } while (false)

} // namespace bench
