// SPDX-License-Identifier: MIT
// Base of every command a plug-in declares.
#pragma once

#include "icommand.h"
#include "imessenger.h"

#include <QMetaType>
#include <QObject>
#include <QSharedPointer>

class DAbstractPlugin;

class DAbstractCommand : public QObject, public ICommand
{
    Q_OBJECT
    Q_INTERFACES(ICommand)
public:
    using ReplyCallback = IMessenger::ReplyCallback;

    DAbstractCommand(const QString &name, const QMap<QString, QVariant> &parameters, QObject *parent);
    DAbstractCommand(const QString &name, const QString &stopName,
                     const QMap<QString, QVariant> &parameters, QObject *parent);
    ~DAbstractCommand() override;

    QString commandName() const override;
    QString stopCommandName() const override;
    QString commandDescription() const override;
    DCommandArguments commandArguments() const override;
    void setParameters(const QMap<QString, QVariant> &parameters) override;
    QMap<QString, QVariant> parameters() const override;

    // Decides whether the command may run now: it needs a plug-in with a host messenger,
    // and every argument must be a declared parameter. With argument checks on, every
    // argument must also be a value of its declared type code, and numbers given as text
    // are converted before the command reads them (see setArgumentChecks). On refusal
    // returns false and keeps the reason in errorString(). On success clears the previous results.
    bool commandExecute() override;

    // Type-code checks of the arguments, for the executions that follow: "strg" a text;
    // "ui16" a whole number 0-65535 and "int" one in int range, each given as a number or
    // as decimal or 0x hex text (then converted to an int); "bool" a boolean or the text
    // "true", "false", "1" or "0" (then converted); "varL" a list; "vart" and unknown codes
    // anything. Off by default, so that a bare command takes its arguments as given; the
    // host turns them on for each execution unless asked for raw arguments.
    void setArgumentChecks(bool on) { m_checkArguments = on; }
    bool argumentChecks() const { return m_checkArguments; }

    QMap<QString, QVariant> results() const override;
    QString errorString() const override;
    QObject *commandObject() override { return this; }

    // The plug-in that owns the command (its QObject parent), or nullptr.
    DAbstractPlugin *plugin() const;

    // Queues an instruction through the plug-in's messenger. Returns the host's id,
    // 0 when there is no messenger.
    virtual unsigned long long addInstruction(const QString &target, const QString &instruction,
                                              const QMap<QString, QVariant> &parameters,
                                              int timeoutMs, ReplyCallback callback);
    // Command factory: a fresh command for one execution with these arguments. Commands
    // that keep per-execution state override it; the default returns null (no factory),
    // and the host then runs executions one at a time on the declared object.
    virtual QSharedPointer<ICommand> createCommand(const QMap<QString, QVariant> &parameters) const;

    // The caller's argument; when the caller gave none, the declared default when it is a
    // value of the declared type (65535 for a "ui16", not "" for a "varL"); otherwise `defaultValue`.
    QVariant getParameterValue(const QString &name, const QVariant &defaultValue = QVariant()) const;
    // Empty when every argument is a declared parameter; otherwise one line naming the first
    // that is not and the parameters the command takes.
    QString undeclaredArgument(const QMap<QString, QVariant> &arguments) const;
    // The declared default of parameter `name` when it is a value of the declared type;
    // an invalid QVariant when there is none (the caller must then give the argument).
    QVariant declaredDefault(const QString &name) const;

    // Looks in the plug-in's "channels" parameter (its index) for the first record whose "id" is `channel`,
    // then in its "value" list for the first entry whose "id" is `key`, and returns that entry's
    // "value" converted to `type`. Returns `defaultValue` when the table, the record or the
    // entry is missing, or when the value does not convert.
    QVariant getInfoFromChannel(const QString &channel, const QString &key, QMetaType::Type type,
                                const QVariant &defaultValue = QVariant()) const;

    // Whether `name` is one of the command's declared results.
    bool declaresResult(const QString &name) const;

    // Posts one declared result. False (and errorString() set) for an undeclared name.
    bool commandUpdateResult(const QString &name, const QVariant &value);
    // Posts several results at once; false when any name is undeclared (the others are kept).
    bool commandSetReply(const QMap<QString, QVariant> &reply);
    // Ends the execution from the command's side.
    void finishTheCommand(bool ok = true, const QString &error = QString());

signals:
    void sigResultChanged(const QString &name, const QVariant &value);
    void sigFinished(bool ok, const QString &error);

protected:
    void setDescription(const QString &description);
    void declareAParameter(const QString &name, const QString &typeCode,
                           const QString &description, const QVariant &defaultValue);
    void declareAResult(const QString &name, const QString &typeCode,
                        const QString &description, const QVariant &defaultValue);

    void setErrorString(const QString &error);

private:
    bool isDeclared(DCommandArgument::EnKind kind, const QString &name) const;
    bool checkArguments();

    const QString m_name;
    const QString m_stopName;
    QString m_description;
    DCommandArguments m_arguments;
    QMap<QString, QVariant> m_parameters;
    QMap<QString, QVariant> m_results;
    QString m_error;
    bool m_checkArguments = false;
};
