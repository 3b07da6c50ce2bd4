// SPDX-License-Identifier: MIT
#pragma once

#include <QList>
#include <QString>
#include <QVariant>

// One declared parameter or result of a command, as the command declared it.
struct DCommandArgument
{
    enum EnKind { CeParameter, CeResult };

    EnKind kind = CeParameter;
    QString name;
    // Four-letter type tag: "strg", "ui16", "bool", "vart", "varL", "int"...
    QString typeCode;
    QString description;
    QVariant defaultValue;
};

using DCommandArguments = QList<DCommandArgument>;
