// SPDX-License-Identifier: MIT
#include "dabstractcommand.h"

#include "dabstractplugin.h"
#include "imessenger.h"

DAbstractCommand::DAbstractCommand(const QString &name, const QMap<QString, QVariant> &parameters, QObject *parent)
    : DAbstractCommand(name, QString(), parameters, parent)
{}

DAbstractCommand::DAbstractCommand(const QString &name, const QString &stopName,
                                   const QMap<QString, QVariant> &parameters, QObject *parent)
    : QObject(parent)
    , m_name(name)
    , m_stopName(stopName)
    , m_parameters(parameters)
{
    setObjectName(name);
}

DAbstractCommand::~DAbstractCommand() = default;

QString DAbstractCommand::commandName() const { return m_name; }
QString DAbstractCommand::stopCommandName() const { return m_stopName; }
QString DAbstractCommand::commandDescription() const { return m_description; }
DCommandArguments DAbstractCommand::commandArguments() const { return m_arguments; }
void DAbstractCommand::setParameters(const QMap<QString, QVariant> &parameters) { m_parameters = parameters; }
QMap<QString, QVariant> DAbstractCommand::parameters() const { return m_parameters; }
QMap<QString, QVariant> DAbstractCommand::results() const { return m_results; }
QString DAbstractCommand::errorString() const { return m_error; }
void DAbstractCommand::setErrorString(const QString &error) { m_error = error; }

DAbstractPlugin *DAbstractCommand::plugin() const
{
    return qobject_cast<DAbstractPlugin *>(parent());
}

bool DAbstractCommand::commandExecute()
{
    const DAbstractPlugin *owner = plugin();
    if (!owner || !owner->messenger()) {
        m_error = QStringLiteral("command \"%1\" cannot run: it is not attached to a host (no plug-in messenger)").arg(m_name);
        return false;
    }
    for (auto it = m_parameters.constBegin(); it != m_parameters.constEnd(); ++it) {
        if (!isDeclared(DCommandArgument::CeParameter, it.key())) {
            QStringList declared;
            for (const DCommandArgument &argument : qAsConst(m_arguments))
                if (argument.kind == DCommandArgument::CeParameter)
                    declared << argument.name;
            m_error = QStringLiteral("command \"%1\" has no parameter \"%2\" (it takes: %3)")
                          .arg(m_name, it.key(), declared.isEmpty() ? QStringLiteral("none") : declared.join(QStringLiteral(", ")));
            return false;
        }
    }
    m_error.clear();
    m_results.clear();
    return true;
}

void DAbstractCommand::setDescription(const QString &description) { m_description = description; }

void DAbstractCommand::declareAParameter(const QString &name, const QString &typeCode,
                                         const QString &description, const QVariant &defaultValue)
{
    m_arguments << DCommandArgument{DCommandArgument::CeParameter, name, typeCode, description, defaultValue};
}

void DAbstractCommand::declareAResult(const QString &name, const QString &typeCode,
                                      const QString &description, const QVariant &defaultValue)
{
    m_arguments << DCommandArgument{DCommandArgument::CeResult, name, typeCode, description, defaultValue};
}

bool DAbstractCommand::isDeclared(DCommandArgument::EnKind kind, const QString &name) const
{
    for (const DCommandArgument &argument : m_arguments)
        if (argument.kind == kind && argument.name == name)
            return true;
    return false;
}

bool DAbstractCommand::declaresResult(const QString &name) const
{
    return isDeclared(DCommandArgument::CeResult, name);
}

namespace {
// Whether a declared default is a value of its declared type. A default of another type
// (an empty text declared for a number or a list) only fills the declaration.
bool fitsTypeCode(const QString &typeCode, const QVariant &value)
{
    switch (value.userType()) {
    case QMetaType::QString:
        return typeCode == QLatin1String("strg") || typeCode == QLatin1String("vart");
    case QMetaType::Bool:
        return typeCode == QLatin1String("bool") || typeCode == QLatin1String("vart");
    case QMetaType::Int:
    case QMetaType::UInt:
    case QMetaType::LongLong:
    case QMetaType::ULongLong:
        return typeCode == QLatin1String("ui16") || typeCode == QLatin1String("int") || typeCode == QLatin1String("vart");
    case QMetaType::QVariantList:
        return typeCode == QLatin1String("varL") || typeCode == QLatin1String("vart");
    default:
        return value.isValid() && typeCode == QLatin1String("vart");
    }
}
} // namespace

QVariant DAbstractCommand::getParameterValue(const QString &name, const QVariant &defaultValue) const
{
    const auto given = m_parameters.constFind(name);
    if (given != m_parameters.constEnd())
        return given.value();
    for (const DCommandArgument &argument : m_arguments)
        if (argument.kind == DCommandArgument::CeParameter && argument.name == name
            && fitsTypeCode(argument.typeCode, argument.defaultValue))
            return argument.defaultValue;
    return defaultValue;
}

QVariant DAbstractCommand::getInfoFromChannel(const QString &channel, const QString &key, QMetaType::Type type,
                                              const QVariant &defaultValue) const
{
    const DAbstractPlugin *owner = plugin();
    if (!owner)
        return defaultValue;
    QVariant value = owner->channelInfo(channel, key);
    if (!value.isValid() || !value.convert(type))
        return defaultValue;
    return value;
}

unsigned long long DAbstractCommand::addInstruction(const QString &target, const QString &instruction,
                                                    const QMap<QString, QVariant> &parameters,
                                                    int timeoutMs, ReplyCallback callback)
{
    const DAbstractPlugin *owner = plugin();
    IMessenger *messenger = owner ? owner->messenger() : nullptr;
    if (!messenger)
        return 0;
    return messenger->sendInstruction(this, target, instruction, parameters, timeoutMs, callback);
}

QSharedPointer<ICommand> DAbstractCommand::createCommand(const QMap<QString, QVariant> &) const
{
    return {};
}

bool DAbstractCommand::commandUpdateResult(const QString &name, const QVariant &value)
{
    if (!declaresResult(name)) {
        m_error = QStringLiteral("command \"%1\" has no result \"%2\"").arg(m_name, name);
        return false;
    }
    m_results.insert(name, value);
    emit sigResultChanged(name, value);
    return true;
}

bool DAbstractCommand::commandSetReply(const QMap<QString, QVariant> &reply)
{
    bool allDeclared = true;
    for (auto it = reply.constBegin(); it != reply.constEnd(); ++it)
        allDeclared = commandUpdateResult(it.key(), it.value()) && allDeclared;
    return allDeclared;
}

void DAbstractCommand::finishTheCommand(bool ok, const QString &error)
{
    if (!ok)
        m_error = error;
    emit sigFinished(ok, error);
}
