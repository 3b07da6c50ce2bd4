// SPDX-License-Identifier: MIT
#include "d_cmd_setValuesWithPulse.h"

#include "d_cmd_setValues.h"
#include "d_reply_check.h"

namespace {
const char c_sourceFile[] = "plugins/p_device_moxa_iologic/source/d_cmd_setValuesWithPulse";
// Lines under which the reply messages are logged: list empty, not a list, no "values".
const DReplyCheck c_writeDoneCheck(c_sourceFile, 111, 114, 117);
} // namespace

DCmdSetValuesWithPulse::DCmdSetValuesWithPulse(const QMap<QString, QVariant> &parameters, QObject *parent)
    : DAbstractCommand(QStringLiteral("setBlink"), parameters, parent)
{
    setDescription(QStringLiteral("Return the mesured value on the GPIO pin"));
    for (const DCommandArgument &parameter : DCmdSetValues::pulseParameters())
        declareAParameter(parameter.name, parameter.typeCode, parameter.description, parameter.defaultValue);
}

DCmdSetValuesWithPulse::DCmdSetValuesWithPulse(QObject *parent)
    : DCmdSetValuesWithPulse(QMap<QString, QVariant>(), parent)
{}

QSharedPointer<ICommand> DCmdSetValuesWithPulse::createCommand(const QMap<QString, QVariant> &parameters) const
{
    return QSharedPointer<DCmdSetValuesWithPulse>(new DCmdSetValuesWithPulse(parameters, parent()));
}

bool DCmdSetValuesWithPulse::commandExecute()
{
    if (!DAbstractCommand::commandExecute())
        return false;
    DCmdSetValues::sendPulseWrites(this);
    return true;
}

bool DCmdSetValuesWithPulse::rplWriteDone(unsigned long long, const QMap<QString, QVariant> &reply)
{
    return c_writeDoneCheck.postDoneOk(this, reply);
}
