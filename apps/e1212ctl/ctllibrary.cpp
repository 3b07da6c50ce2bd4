// SPDX-License-Identifier: MIT
#include "ctllibrary.h"

#include "ctlstep.h"

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

void ctlRunFromLibrary(CtlStep &step, const QString &name, const char *symbol)
{
    QString error;
    const auto run = reinterpret_cast<void (*)(CtlStep *)>(ctlLibraryEntry(name, symbol, &error));
    if (!run)
        return step.finish(CtlOutcome::failed(error));
    run(&step);
}
