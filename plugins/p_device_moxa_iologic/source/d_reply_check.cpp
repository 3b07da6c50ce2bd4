// SPDX-License-Identifier: MIT
#include "d_reply_check.h"

#include "dabstractcommand.h"
#include "diagnosticlog.h"

DReplyCheck::DReplyCheck(const char *file, int emptyListLine, int notListLine, int noValuesLine)
    : m_file(file)
    , m_emptyListLine(emptyListLine)
    , m_notListLine(notListLine)
    , m_noValuesLine(noValuesLine)
{}

bool DReplyCheck::firstValue(const QObject *emitter, const QMap<QString, QVariant> &reply, QVariant *first) const
{
    const auto values = reply.constFind(QStringLiteral("values"));
    if (values == reply.constEnd()) {
        diagnosticLine(emitter, m_file, m_noValuesLine) << "ERROR: Reply data is not in the correct format";
        return false;
    }
    // Only a true list passes: a single number or a string is refused, not converted.
    if (values->type() != QVariant::List) {
        diagnosticLine(emitter, m_file, m_notListLine) << "ERROR: Values list in reply data is not in the correct format";
        return false;
    }
    const QVariantList list = values->toList();
    if (list.isEmpty()) {
        diagnosticLine(emitter, m_file, m_emptyListLine) << "ERROR: Reply Values list is empty";
        return false;
    }
    *first = list.first();
    return true;
}

bool DReplyCheck::postDoneOk(DAbstractCommand *command, const QMap<QString, QVariant> &reply) const
{
    QVariant first;
    if (!firstValue(command, reply, &first))
        return false;
    return command->commandSetReply({{QStringLiteral("doneOk"), first.toBool()}});
}
