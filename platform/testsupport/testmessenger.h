// SPDX-License-Identifier: MIT
// An in-memory IMessenger for tests: records every instruction as sent and lets the
// test feed replies into the bound callbacks.
#pragma once

#include "imessenger.h"

#include <QList>

class TestMessenger : public IMessenger
{
public:
    struct Instruction
    {
        unsigned long long id = 0;
        DAbstractCommand *command = nullptr;
        QString target;
        QString name;
        QMap<QString, QVariant> parameters;
        int timeoutMs = 0;
        bool hasCallback = false;
        ReplyCallback callback;
    };

    struct Run
    {
        unsigned long long id = 0;
        QString command;
        QMap<QString, QVariant> arguments;
        // 0 for runCommand, else runCommandEvery's period.
        int repeatMs = 0;
        bool stopped = false;
    };

    unsigned long long sendInstruction(DAbstractCommand *command, const QString &target,
                                       const QString &instruction, const QMap<QString, QVariant> &parameters,
                                       int timeoutMs, const ReplyCallback &callback) override;
    unsigned long long runCommand(DAbstractPluginBackend *backend, const QString &command,
                                  const QMap<QString, QVariant> &arguments) override;
    unsigned long long runCommandEvery(DAbstractPluginBackend *backend, const QString &command,
                                       const QMap<QString, QVariant> &arguments, int repeatMs) override;
    bool stopCommand(unsigned long long runId) override;

    const QList<Instruction> &instructions() const { return m_instructions; }
    const QList<Run> &runs() const { return m_runs; }

    // Calls the callback of instruction `index` with `reply`; returns what it returned,
    // false when the instruction has no callback.
    bool reply(int index, const QMap<QString, QVariant> &reply);

private:
    unsigned long long m_nextId = 1;
    QList<Instruction> m_instructions;
    QList<Run> m_runs;
};
