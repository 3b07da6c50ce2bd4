// SPDX-License-Identifier: MIT
#include "dabstractcommand.h"

#include "dabstractplugin.h"
#include "imessenger.h"

#include <QJsonArray>
#include <QJsonDocument>
#include <QRegularExpression>

#include <cmath>
#include <limits>

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
    m_error = undeclaredArgument(m_parameters);
    if (!m_error.isEmpty())
        return false;
    if (m_checkArguments && !checkArguments())
        return false;
    m_error.clear();
    m_results.clear();
    return true;
}

namespace {

// A whole number from `min` to `max`, given as a number, or as decimal or 0x hex text with an
// optional minus sign.
bool wholeNumber(const QVariant &value, qint64 min, qint64 max, qint64 *number)
{
    switch (value.userType()) {
    case QMetaType::Double:
    case QMetaType::Float: {
        // Not a number and the infinities fail the range test too.
        const double real = value.toDouble();
        if (!(real >= double(min) && real <= double(max)) || std::floor(real) != real)
            return false;
        *number = qint64(real);
        return true;
    }
    case QMetaType::ULongLong:
    case QMetaType::ULong:
        if (value.toULongLong() > quint64(max))
            return false;
        *number = qint64(value.toULongLong());
        return true;
    case QMetaType::Int:
    case QMetaType::UInt:
    case QMetaType::LongLong:
    case QMetaType::Long:
    case QMetaType::Short:
    case QMetaType::UShort:
        *number = value.toLongLong();
        return *number >= min && *number <= max;
    case QMetaType::QString: {
        static const QRegularExpression c_form(QStringLiteral("^(-?)(?:0[xX]([0-9a-fA-F]+)|([0-9]+))$"));
        const QRegularExpressionMatch match = c_form.match(value.toString());
        if (!match.hasMatch())
            return false;
        const bool hex = match.capturedLength(2) > 0;
        const bool negative = match.capturedLength(1) > 0;
        bool ok = false;
        const quint64 magnitude = match.captured(hex ? 2 : 3).toULongLong(&ok, hex ? 16 : 10);
        if (!ok || magnitude > (negative ? quint64(-min) : quint64(max)))
            return false;
        *number = negative ? -qint64(magnitude) : qint64(magnitude);
        return true;
    }
    default:
        return false;
    }
}

// Whether `value` is a value of `typeCode`; numbers and booleans given as text are converted.
bool fitArgument(const QString &typeCode, QVariant *value)
{
    const int type = value->userType();
    qint64 number = 0;
    if (typeCode == QLatin1String("strg"))
        return type == QMetaType::QString;
    if (typeCode == QLatin1String("ui16") || typeCode == QLatin1String("int")) {
        const bool ui16 = typeCode == QLatin1String("ui16");
        if (!wholeNumber(*value, ui16 ? 0 : std::numeric_limits<int>::min(), ui16 ? 65535 : std::numeric_limits<int>::max(), &number))
            return false;
        *value = int(number);
        return true;
    }
    if (typeCode == QLatin1String("bool")) {
        if (type == QMetaType::Bool)
            return true;
        const QString text = type == QMetaType::QString ? value->toString() : QString();
        const bool yes = text == QLatin1String("true") || text == QLatin1String("1");
        if (!yes && text != QLatin1String("false") && text != QLatin1String("0"))
            return false;
        *value = yes;
        return true;
    }
    if (typeCode == QLatin1String("varL"))
        return type == QMetaType::QVariantList || type == QMetaType::QStringList;
    return true;
}

QString typeCodeMeaning(const QString &typeCode)
{
    if (typeCode == QLatin1String("strg"))
        return QStringLiteral("a text");
    if (typeCode == QLatin1String("ui16"))
        return QStringLiteral("a whole number from 0 to 65535, decimal or 0x hex");
    if (typeCode == QLatin1String("int"))
        return QStringLiteral("a whole number from -2147483648 to 2147483647, decimal or 0x hex");
    if (typeCode == QLatin1String("bool"))
        return QStringLiteral("true, false, \"true\", \"false\", \"1\" or \"0\"");
    return QStringLiteral("a list");
}

// The value as the caller would write it: JSON, texts quoted.
QString describeValue(const QVariant &value)
{
    const double real = value.toDouble();
    if ((value.userType() == QMetaType::Double || value.userType() == QMetaType::Float) && !std::isfinite(real))
        return QString::number(real);
    const QByteArray json = QJsonDocument(QJsonArray{QJsonValue::fromVariant(value)}).toJson(QJsonDocument::Compact);
    return QString::fromUtf8(json.mid(1, json.size() - 2));
}

} // namespace

bool DAbstractCommand::checkArguments()
{
    QMap<QString, QVariant> checked = m_parameters;
    for (auto it = checked.begin(); it != checked.end(); ++it) {
        for (const DCommandArgument &argument : qAsConst(m_arguments)) {
            if (argument.kind != DCommandArgument::CeParameter || argument.name != it.key())
                continue;
            if (!fitArgument(argument.typeCode, &it.value())) {
                m_error = QStringLiteral("command \"%1\": argument \"%2\" is %3, expected \"%4\" (%5)")
                              .arg(m_name, it.key(), describeValue(it.value()), argument.typeCode,
                                   typeCodeMeaning(argument.typeCode));
                return false;
            }
            break;
        }
    }
    m_parameters = checked;
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
    const QVariant declared = declaredDefault(name);
    return declared.isValid() ? declared : defaultValue;
}

QString DAbstractCommand::undeclaredArgument(const QMap<QString, QVariant> &arguments) const
{
    for (auto it = arguments.constBegin(); it != arguments.constEnd(); ++it) {
        if (isDeclared(DCommandArgument::CeParameter, it.key()))
            continue;
        QStringList declared;
        for (const DCommandArgument &argument : m_arguments)
            if (argument.kind == DCommandArgument::CeParameter)
                declared << argument.name;
        return QStringLiteral("command \"%1\" has no parameter \"%2\" (it takes: %3)")
            .arg(m_name, it.key(), declared.isEmpty() ? QStringLiteral("none") : declared.join(QStringLiteral(", ")));
    }
    return QString();
}

QVariant DAbstractCommand::declaredDefault(const QString &name) const
{
    for (const DCommandArgument &argument : m_arguments)
        if (argument.kind == DCommandArgument::CeParameter && argument.name == name)
            return fitsTypeCode(argument.typeCode, argument.defaultValue) ? argument.defaultValue : QVariant();
    return QVariant();
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
