// SPDX-License-Identifier: MIT
#include "ptestdevice.h"

#include "dabstractcommand.h"

namespace {

const char c_uuid[] = "{a3c1f2d4-6b7e-4f80-9c1d-2e3f4a5b6c7d}";

// The test device's commands (see ptestdevice.h), one class for all.
class TestCommand : public DAbstractCommand
{
public:
    enum Kind { Probe, Collect, Watch, Stamp, Route };

    TestCommand(Kind kind, const QMap<QString, QVariant> &parameters, QObject *parent)
        : DAbstractCommand(QString::fromLatin1(c_names[kind]), kind == Watch ? QStringLiteral("stopWatch") : QString(), parameters, parent)
        , m_kind(kind)
        , m_argument(kind == Stamp ? QStringLiteral("tag") : QStringLiteral("channel"))
    {
        setDescription(QStringLiteral("Test command %1").arg(commandName()));
        if (kind == Route)
            return;
        declareAParameter(m_argument, QStringLiteral("strg"), m_argument, kind == Stamp ? QVariant(QString()) : QVariant());
        const QString result = kind == Probe ? QStringLiteral("value") : kind == Stamp ? QStringLiteral("tag") : QStringLiteral("values");
        const QString type = kind == Probe ? QStringLiteral("ui16") : kind == Stamp ? QStringLiteral("strg") : QStringLiteral("vart");
        declareAResult(result, type, result, QVariant());
    }
    bool commandExecute() override
    {
        if (!DAbstractCommand::commandExecute())
            return false;
        m_value = getParameterValue(m_argument);
        QVariantMap parameters{{m_argument, m_value}};
        if (m_kind == Collect)
            parameters.insert(QStringLiteral("dataSize"), 3);
        if (m_kind == Route)
            parameters.clear();
        const bool callback = m_kind == Probe || m_kind == Watch || m_kind == Stamp;
        addInstruction(m_kind == Route ? QStringLiteral("plc") : QStringLiteral("driver"), QString::fromLatin1(c_instructions[m_kind]),
                       parameters, 3000, callback ? ReplyCallback(this, &TestCommand::rplReply) : ReplyCallback());
        return true;
    }
    QSharedPointer<ICommand> createCommand(const QMap<QString, QVariant> &parameters) const override
    {
        return m_kind == Stamp ? QSharedPointer<ICommand>(new TestCommand(Stamp, parameters, parent())) : nullptr;
    }
    bool rplReply(unsigned long long, const QMap<QString, QVariant> &reply)
    {
        const QVariant values = reply.value(QStringLiteral("values"));
        if (m_kind == Probe)
            return !values.toList().isEmpty() && commandUpdateResult(QStringLiteral("value"), values.toList().first().toUInt());
        if (m_kind == Watch)
            return reply.contains(QStringLiteral("values")) && commandUpdateResult(QStringLiteral("values"), values);
        return commandUpdateResult(QStringLiteral("tag"), m_value);
    }

private:
    static constexpr const char *c_names[] = {"probe", "collect", "watch", "stamp", "route"};
    static constexpr const char *c_instructions[] = {"read", "read", "listen", "write", "read"};
    const Kind m_kind;
    const QString m_argument;
    QVariant m_value;
};

} // namespace

PTestDevice::PTestDevice(const QUuid &instanceUuid, QObject *parent)
    : DAbstractPlugin(QUuid(c_uuid), QStringLiteral("Test device"), IPlugin::CeDevice, quint64(1) << 48,
                      instanceUuid, parent, true)
{}

void PTestDevice::initPluginCommands()
{
    initAbstractCommands();
    for (TestCommand::Kind kind : {TestCommand::Probe, TestCommand::Collect, TestCommand::Watch, TestCommand::Stamp, TestCommand::Route})
        declareInstructionCommand(new TestCommand(kind, {}, this));
    emit sigCommandsInitDone(objectUuid(), commandNames());
}

IPlugin *PTestDevice::createInstance(const QUuid &instanceUuid) const
{
    return new PTestDevice(instanceUuid, nullptr);
}
