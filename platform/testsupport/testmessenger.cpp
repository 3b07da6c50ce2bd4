// SPDX-License-Identifier: MIT
#include "testmessenger.h"

#include "dabstractpluginbackend.h"

unsigned long long TestMessenger::sendInstruction(DAbstractCommand *command, const QString &target,
                                                  const QString &instruction,
                                                  const QMap<QString, QVariant> &parameters,
                                                  int timeoutMs, const ReplyCallback &callback)
{
    Instruction recorded;
    recorded.id = m_nextId++;
    recorded.command = command;
    recorded.target = target;
    recorded.name = instruction;
    recorded.parameters = parameters;
    recorded.timeoutMs = timeoutMs;
    recorded.hasCallback = !callback.empty();
    recorded.callback = callback;
    m_instructions << recorded;
    return recorded.id;
}

unsigned long long TestMessenger::runCommand(DAbstractPluginBackend *backend, const QString &command,
                                             const QMap<QString, QVariant> &arguments)
{
    return runCommandEvery(backend, command, arguments, 0);
}

unsigned long long TestMessenger::runCommandEvery(DAbstractPluginBackend *backend, const QString &command,
                                                  const QMap<QString, QVariant> &arguments, int repeatMs)
{
    Run run;
    run.repeatMs = repeatMs;
    run.id = m_nextId++;
    run.backend = backend;
    run.command = command;
    run.arguments = arguments;
    m_runs << run;
    return run.id;
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

void TestMessenger::clear()
{
    m_instructions.clear();
    m_runs.clear();
}

bool TestMessenger::reply(int index, const QMap<QString, QVariant> &reply)
{
    if (index < 0 || index >= m_instructions.size() || !m_instructions.at(index).hasCallback)
        return false;
    const Instruction &instruction = m_instructions.at(index);
    return instruction.callback(instruction.id, reply);
}
