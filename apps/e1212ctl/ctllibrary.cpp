// SPDX-License-Identifier: MIT
#include "ctllibrary.h"

#include <QCoreApplication>
#include <QHash>
#include <QLibrary>

QFunctionPointer ctlLibraryEntry(const QString &name, const char *symbol, QString *error)
{
    static QHash<QString, QLibrary *> libraries;
    QLibrary *&library = libraries[name];
    if (!library)
        library = new QLibrary(QCoreApplication::applicationDirPath() + QStringLiteral("/../lib/e1212/e1212ctl_") + name);
    const QFunctionPointer entry = library->resolve(symbol);
    if (!entry)
        *error = QStringLiteral("cannot load the %1 library: %2").arg(name, library->errorString());
    return entry;
}
