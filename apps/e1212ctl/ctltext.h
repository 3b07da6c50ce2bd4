// SPDX-License-Identifier: MIT
// Text that came from outside (a script line, an argument, a reply) made safe to print on a
// terminal: control and other unprintable characters escaped, long runs cut.
#pragma once

#include <QString>

class CtlText
{
public:
    // Longest echoed run kept whole.
    static constexpr int MaxEcho = 200;

    // Unprintable characters as \xNN (below 0x100) or \uNNNN; everything else as it is.
    static QString escaped(const QString &text);
    // `text` as an echo: its first MaxEcho characters and "... (N characters)" when longer,
    // then escaped.
    static QString echo(const QString &text);
    // A message ready for one line: every quoted part ("...") and every other run without
    // blanks longer than MaxEcho cut as echo() cuts it, then the whole escaped.
    static QString line(const QString &message);
};
