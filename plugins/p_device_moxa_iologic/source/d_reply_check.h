// SPDX-License-Identifier: MIT
// The checks every command makes on a driver reply before it reads the reply's values.
#pragma once

#include <QMap>
#include <QString>
#include <QVariant>

class DAbstractCommand;
class QObject;

// A reply is accepted when it has a "values" entry of list type holding at least one
// element. Each refusal is one diagnostic line, written under the caller's source file
// and the caller's line number for that message.
class DReplyCheck
{
public:
    DReplyCheck(const char *file, int emptyListLine, int notListLine, int noValuesLine);

    // Stores the first element of the reply's "values" in `first` and returns true;
    // false, after logging why, when the reply is refused (`first` is then untouched).
    bool firstValue(const QObject *emitter, const QMap<QString, QVariant> &reply, QVariant *first) const;

    // Reply of a command's last write: on an accepted reply posts {"doneOk": first value
    // as bool} on `command` and returns what commandSetReply() returned; false on refusal.
    bool postDoneOk(DAbstractCommand *command, const QMap<QString, QVariant> &reply) const;

private:
    const char *m_file;
    int m_emptyListLine;
    int m_notListLine;
    int m_noValuesLine;
};
