// SPDX-License-Identifier: MIT
#include "testmessenger.h"

unsigned long long TestMessenger::sendInstruction(DAbstractCommand *command, const QString &target,
                                                  const QString &instruction,
                                                  const QMap<QString, QVariant> &parameters,
                                                  int timeoutMs, const ReplyCallback &callback)
{
    m_instructions << Instruction{m_nextId++, command, target, instruction, parameters, timeoutMs, !callback.empty(), callback};
    return m_instructions.last().id;
}

unsigned long long TestMessenger::runCommand(DAbstractPluginBackend *backend, const QString &command,
                                             const QMap<QString, QVariant> &arguments)
{
    return runCommandEvery(backend, command, arguments, 0);
}

unsigned long long TestMessenger::runCommandEvery(DAbstractPluginBackend *, const QString &command,
                                                  const QMap<QString, QVariant> &arguments, int repeatMs)
{
    m_runs << Run{m_nextId++, command, arguments, repeatMs};
    return m_runs.last().id;
}

bool TestMessenger::stopCommand(unsigned long long runId)
{
    for (Run &run : m_runs) {
        if (run.id == runId && !run.stopped) {
            run.stopped = true;
            return true;
        }
    }
    return false;
}

bool TestMessenger::reply(int index, const QMap<QString, QVariant> &reply)
{
    if (index < 0 || index >= m_instructions.size() || !m_instructions.at(index).hasCallback)
        return false;
    const Instruction &instruction = m_instructions.at(index);
    return instruction.callback(instruction.id, reply);
}
