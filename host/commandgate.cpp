// SPDX-License-Identifier: MIT
#include "commandgate.h"

#include "dabstractcommand.h"
#include "dchanneltable.h"

namespace {

const QString c_channel = QStringLiteral("channel");

DError refuse(const DAbstractCommand &command, const QString &what)
{
    return DError{IMessenger::CeRefused, 0, QStringLiteral("command \"%1\": %2").arg(command.commandName(), what)};
}

QString known(const DChannelTable &table)
{
    const QStringList ids = table.channelIds();
    return ids.isEmpty() ? QStringLiteral("none") : ids.join(QStringLiteral(", "));
}

} // namespace

bool CommandGate::drivesOutputs(const QString &command)
{
    return command == QLatin1String("setValue") || command == QLatin1String("setValues") || command == QLatin1String("setBlink");
}

DError CommandGate::check(const DAbstractCommand &command, const DChannelTable &table, const QVariantMap &arguments)
{
    const QString undeclared = command.undeclaredArgument(arguments);
    if (!undeclared.isEmpty())
        return DError{IMessenger::CeRefused, 0, undeclared};
    const DCommandArguments declared = command.commandArguments();
    bool takesChannel = false;
    for (const DCommandArgument &parameter : declared) {
        if (parameter.kind != DCommandArgument::CeParameter)
            continue;
        takesChannel = takesChannel || parameter.name == c_channel;
        if (!arguments.contains(parameter.name) && !command.declaredDefault(parameter.name).isValid())
            return refuse(command, QStringLiteral("parameter \"%1\" is missing (type \"%2\": %3)")
                                       .arg(parameter.name, parameter.typeCode, parameter.description));
    }
    if (!takesChannel)
        return DError();
    const QString channel = arguments.contains(c_channel) ? arguments.value(c_channel).toString()
                                                          : command.declaredDefault(c_channel).toString();
    const DChannelTable::Record *record = table.record(channel);
    const bool writes = drivesOutputs(command.commandName());
    // Reading a register record (the pulse generator's state) is harmless; writing through one is not.
    if (!record || (writes && !record->isChannel()))
        return refuse(command, QStringLiteral("\"channel\" is \"%1\", which names no channel of the device%2 (channels: %3)")
                                   .arg(channel, record ? QStringLiteral(" (it is a register record)") : QString(), known(table)));
    if (writes && !record->isOutput())
        return refuse(command, QStringLiteral("\"channel\" is \"%1\", a %2 channel: only output channels take writes")
                                   .arg(channel, record->type()));
    return DError();
}
