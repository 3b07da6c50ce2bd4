// SPDX-License-Identifier: MIT
// A device instance of the loaded E1212 plug-in, configured with a channel table and
// attached to a recording messenger, and the checks the command tests share.
#pragma once

#include "dabstractcommand.h"
#include "dabstractplugin.h"
#include "logcapture.h"
#include "testmessenger.h"

#include <QPluginLoader>
#include <QRegularExpression>
#include <QTest>

#include <algorithm>
#include <memory>

namespace bench {

inline const char c_pluginPath[] = E1212_PLUGIN_DIR "/libp_device_moxa_iologic.so";
inline const char c_sourceDir[] = "plugins/p_device_moxa_iologic/source/";

// One channel-table record: {"id", "name", "value": [{"id": key, "value": v}...]}.
inline QVariant record(const QString &id, const QVariantMap &entries)
{
    QVariantList values;
    for (auto it = entries.constBegin(); it != entries.constEnd(); ++it)
        values << QVariantMap{{QStringLiteral("id"), it.key()}, {QStringLiteral("value"), it.value()}};
    return QVariantMap{{QStringLiteral("id"), id}, {QStringLiteral("name"), id}, {QStringLiteral("value"), values}};
}

// The root plug-in object, or nullptr after a failed QVERIFY.
inline DAbstractPlugin *rootPlugin()
{
    QPluginLoader loader(QString::fromLatin1(c_pluginPath));
    QObject *instance = loader.instance();
    if (!instance)
        qWarning("cannot load %s: %s", c_pluginPath, qPrintable(loader.errorString()));
    return qobject_cast<DAbstractPlugin *>(instance);
}

// A fresh instance per test; when `channels` is valid it is published under reference
// "bench io1" before the commands are declared.
struct Device
{
    std::unique_ptr<DAbstractPlugin> plugin;
    TestMessenger messenger;

    bool open(const QVariant &channels)
    {
        DAbstractPlugin *root = rootPlugin();
        if (!root)
            return false;
        plugin.reset(static_cast<DAbstractPlugin *>(root->createInstance(QUuid::createUuid())));
        plugin->setProperty(QStringLiteral("reference"), QStringLiteral("bench io1"), false);
        if (channels.isValid())
            plugin->addToParameters(QStringLiteral("parameters"), QVariantMap{{QStringLiteral("io1_channels"), channels}});
        plugin->setMessenger(&messenger);
        plugin->initPluginCommands();
        return true;
    }

    // The declared command `name`, executed with `arguments`; nullptr when it refused to run.
    DAbstractCommand *start(const QString &name, const QVariantMap &arguments)
    {
        DAbstractCommand *command = plugin->command(name);
        command->setParameters(arguments);
        return command->commandExecute() ? command : nullptr;
    }

    TestMessenger::Instruction instruction(int index) const { return messenger.instructions().value(index); }
};

// Same value, and the same type at every level of nested lists and maps.
inline bool sameVariant(const QVariant &actual, const QVariant &expected)
{
    if (actual.userType() != expected.userType() || actual != expected)
        return false;
    if (expected.userType() == QMetaType::QVariantList) {
        const QVariantList a = actual.toList(), e = expected.toList();
        return std::equal(a.begin(), a.end(), e.begin(), sameVariant);
    }
    if (expected.userType() == QMetaType::QVariantMap) {
        const QVariantMap a = actual.toMap(), e = expected.toMap();
        return std::equal(a.begin(), a.end(), e.begin(), sameVariant);
    }
    return true;
}

inline QString describe(const QVariant &value)
{
    QString text;
    QDebug(&text) << value;
    return text;
}

#define BENCH_COMPARE_EXACT(actual, expected)                                                             \
    QVERIFY2(bench::sameVariant(QVariant(actual), QVariant(expected)),                                     \
             qPrintable(QStringLiteral("got %1, expected %2")                                             \
                            .arg(bench::describe(QVariant(actual)), bench::describe(QVariant(expected)))))

// Empty when `sent` is the driver instruction `name` with time-out 3000, a reply
// callback bound or not as `bound`, and exactly `parameters`; otherwise what was sent.
inline QString instructionMismatch(const TestMessenger::Instruction &sent, const QString &name, bool bound,
                                   const QVariantMap &parameters)
{
    if (sent.target == QLatin1String("driver") && sent.name == name && sent.timeoutMs == 3000 && sent.hasCallback == bound
        && sameVariant(sent.parameters, parameters))
        return QString();
    return QStringLiteral("sent %1 %2 to %3, time-out %4, callback %5; expected %6 %7 (callback %8)")
        .arg(sent.name, describe(sent.parameters), sent.target).arg(sent.timeoutMs).arg(sent.hasCallback)
        .arg(name, describe(parameters)).arg(bound);
}

#define BENCH_VERIFY_INSTRUCTION(sent, name, bound, parameters)                                   \
    do {                                                                                           \
        const QString mismatch = bench::instructionMismatch((sent), (name), (bound), (parameters)); \
        QVERIFY2(mismatch.isEmpty(), qPrintable(mismatch));                                        \
    } while (false)

// True when `texts` holds exactly one critical line and it is the diagnostic line of
// `file` (under the source dir) at `line` (any line when negative) whose message is
// exactly `message`.
inline bool isOnlyDiagnostic(const LogCapture &log, const QString &file, int line, const QString &message, QString *why)
{
    const QStringList texts = log.criticalTexts();
    if (texts.size() != 1) {
        *why = QStringLiteral("expected one critical line, got %1: %2").arg(texts.size()).arg(texts.join(QLatin1Char('|')));
        return false;
    }
    const QString lineText = line < 0 ? QStringLiteral("\\d+") : QString::number(line);
    const QRegularExpression pattern(QStringLiteral("^\n .*;\t Thread = .*;\t This = .*;\t ")
                                     + QRegularExpression::escape(QLatin1String(c_sourceDir) + file)
                                     + QStringLiteral(" ;\t ") + lineText + QStringLiteral(" ;\t ")
                                     + QRegularExpression::escape(message) + QStringLiteral("$"),
                                     QRegularExpression::DotMatchesEverythingOption);
    if (!pattern.match(texts.first()).hasMatch()) {
        *why = QStringLiteral("line %1 does not match %2").arg(describe(texts.first()), pattern.pattern());
        return false;
    }
    if (log.messages().constLast().category != QLatin1String("default")) {
        *why = QStringLiteral("category is %1").arg(log.messages().constLast().category);
        return false;
    }
    return true;
}

} // namespace bench
