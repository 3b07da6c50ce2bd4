// SPDX-License-Identifier: MIT
#include "ptestdevice.h"

#include "dabstractcommand.h"

namespace {

const char c_uuid[] = "{a3c1f2d4-6b7e-4f80-9c1d-2e3f4a5b6c7d}";
const QString c_driver = QStringLiteral("driver");

class Probe : public DAbstractCommand
{
public:
    explicit Probe(QObject *parent) : DAbstractCommand(QStringLiteral("probe"), {}, parent)
    {
        setDescription(QStringLiteral("Read one value"));
        declareAParameter(QStringLiteral("channel"), QStringLiteral("strg"), QStringLiteral("Channel"), QVariant());
        declareAResult(QStringLiteral("value"), QStringLiteral("ui16"), QStringLiteral("The value"), QVariant());
    }
    bool commandExecute() override
    {
        if (!DAbstractCommand::commandExecute())
            return false;
        addInstruction(c_driver, QStringLiteral("read"),
                       {{QStringLiteral("channel"), getParameterValue(QStringLiteral("channel"))}}, 3000,
                       fastdelegate::MakeDelegate(this, &Probe::rplProbe));
        return true;
    }
    bool rplProbe(unsigned long long, const QMap<QString, QVariant> &reply)
    {
        const QVariantList values = reply.value(QStringLiteral("values")).toList();
        if (values.isEmpty())
            return false;
        return commandUpdateResult(QStringLiteral("value"), values.first().toUInt());
    }
};

class Collect : public DAbstractCommand
{
public:
    explicit Collect(QObject *parent) : DAbstractCommand(QStringLiteral("collect"), {}, parent)
    {
        setDescription(QStringLiteral("Read three values, leaving the reply to the host"));
        declareAParameter(QStringLiteral("channel"), QStringLiteral("strg"), QStringLiteral("Channel"), QVariant());
        declareAResult(QStringLiteral("values"), QStringLiteral("vart"), QStringLiteral("The values"), QVariant());
    }
    bool commandExecute() override
    {
        if (!DAbstractCommand::commandExecute())
            return false;
        addInstruction(c_driver, QStringLiteral("read"),
                       {{QStringLiteral("channel"), getParameterValue(QStringLiteral("channel"))},
                        {QStringLiteral("dataSize"), 3}}, 3000, ReplyCallback());
        return true;
    }
};

class Watch : public DAbstractCommand
{
public:
    explicit Watch(QObject *parent) : DAbstractCommand(QStringLiteral("watch"), QStringLiteral("stopWatch"), {}, parent)
    {
        setDescription(QStringLiteral("Report a channel until stopped"));
        declareAParameter(QStringLiteral("channel"), QStringLiteral("strg"), QStringLiteral("Channel"), QVariant());
        declareAResult(QStringLiteral("values"), QStringLiteral("vart"), QStringLiteral("Each report"), QVariant());
    }
    bool commandExecute() override
    {
        if (!DAbstractCommand::commandExecute())
            return false;
        addInstruction(c_driver, QStringLiteral("listen"),
                       {{QStringLiteral("channel"), getParameterValue(QStringLiteral("channel"))}}, 3000,
                       fastdelegate::MakeDelegate(this, &Watch::rplReport));
        return true;
    }
    bool rplReport(unsigned long long, const QMap<QString, QVariant> &reply)
    {
        return reply.contains(QStringLiteral("values"))
            && commandUpdateResult(QStringLiteral("values"), reply.value(QStringLiteral("values")));
    }
};

class Stamp : public DAbstractCommand
{
public:
    Stamp(const QMap<QString, QVariant> &parameters, QObject *parent)
        : DAbstractCommand(QStringLiteral("stamp"), parameters, parent)
    {
        setDescription(QStringLiteral("Write a tag and report it from the object's own field"));
        declareAParameter(QStringLiteral("tag"), QStringLiteral("strg"), QStringLiteral("Tag"), QString());
        declareAResult(QStringLiteral("tag"), QStringLiteral("strg"), QStringLiteral("The tag this object wrote"), QVariant());
    }
    bool commandExecute() override
    {
        if (!DAbstractCommand::commandExecute())
            return false;
        m_tag = getParameterValue(QStringLiteral("tag")).toString();
        addInstruction(c_driver, QStringLiteral("write"), {{QStringLiteral("tag"), m_tag}}, 3000,
                       fastdelegate::MakeDelegate(this, &Stamp::rplWritten));
        return true;
    }
    QSharedPointer<ICommand> createCommand(const QMap<QString, QVariant> &parameters) const override
    {
        return QSharedPointer<ICommand>(new Stamp(parameters, parent()));
    }
    bool rplWritten(unsigned long long, const QMap<QString, QVariant> &)
    {
        return commandUpdateResult(QStringLiteral("tag"), m_tag);
    }

private:
    QString m_tag;
};

class Route : public DAbstractCommand
{
public:
    explicit Route(QObject *parent) : DAbstractCommand(QStringLiteral("route"), {}, parent)
    {
        setDescription(QStringLiteral("Send to a target no device has"));
    }
    bool commandExecute() override
    {
        if (!DAbstractCommand::commandExecute())
            return false;
        addInstruction(QStringLiteral("plc"), QStringLiteral("read"), {}, 3000, ReplyCallback());
        return true;
    }
};

} // namespace

PTestDevice::PTestDevice(const QUuid &instanceUuid, QObject *parent)
    : DAbstractPlugin(QUuid(c_uuid), QStringLiteral("Test device"), IPlugin::CeDevice, quint64(1) << 48,
                      instanceUuid, parent, true)
{}

void PTestDevice::initPluginCommands()
{
    initAbstractCommands();
    declareInstructionCommand(new Probe(this));
    declareInstructionCommand(new Collect(this));
    declareInstructionCommand(new Watch(this));
    declareInstructionCommand(new Stamp({}, this));
    declareInstructionCommand(new Route(this));
    emit sigCommandsInitDone(objectUuid(), commandNames());
}

IPlugin *PTestDevice::createInstance(const QUuid &instanceUuid) const
{
    return new PTestDevice(instanceUuid, nullptr);
}
