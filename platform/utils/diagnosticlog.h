// SPDX-License-Identifier: MIT
// The one diagnostic line every plug-in source writes its errors with.
#pragma once

#include <QDebug>

class QObject;

// Opens a critical message in category "default" with an empty context, already holding
//   "\n" <date> ";\t" "Thread =" <current thread> ";\t" "This =" <emitter> ";\t" <file> ";\t" <line> ";\t"
// with QDebug's spacing and quoting; stream the message text and its values after it.
// The line is written when the returned stream goes out of scope.
QDebug diagnosticLine(const QObject *emitter, const char *file, int line);
