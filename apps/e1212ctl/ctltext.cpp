// SPDX-License-Identifier: MIT
#include "ctltext.h"

#include <QRegularExpression>

namespace {

QString cut(const QString &text)
{
    if (text.size() <= CtlText::MaxEcho)
        return text;
    int keep = CtlText::MaxEcho;
    if (text.at(keep - 1).isHighSurrogate())
        --keep;
    return text.left(keep) + QStringLiteral("... (%1 characters)").arg(text.size());
}

} // namespace

QString CtlText::escaped(const QString &text)
{
    QString shown;
    shown.reserve(text.size());
    for (int i = 0; i < text.size(); ++i) {
        const QChar c = text.at(i);
        if (c.isHighSurrogate() && i + 1 < text.size() && text.at(i + 1).isLowSurrogate()) {
            shown += c;
            shown += text.at(++i);
        } else if (c.isPrint() || c == QLatin1Char(' ')) {
            shown += c;
        } else if (c.unicode() < 0x100) {
            shown += QStringLiteral("\\x%1").arg(c.unicode(), 2, 16, QLatin1Char('0'));
        } else {
            shown += QStringLiteral("\\u%1").arg(c.unicode(), 4, 16, QLatin1Char('0'));
        }
    }
    return shown;
}

QString CtlText::echo(const QString &text)
{
    return escaped(cut(text));
}

QString CtlText::line(const QString &message)
{
    // A quoted part, or a run of characters that are neither blanks nor quotes.
    static const QRegularExpression long_(QStringLiteral("\"[^\"]{%1,}\"|[^\\s\"]{%1,}").arg(MaxEcho + 1));
    if (message.size() <= MaxEcho)
        return escaped(message);
    QString shortened;
    int from = 0;
    auto match = long_.globalMatch(message);
    while (match.hasNext()) {
        const QRegularExpressionMatch part = match.next();
        shortened += message.midRef(from, part.capturedStart() - from);
        const QString text = part.captured();
        shortened += text.startsWith(QLatin1Char('"')) ? QLatin1Char('"') + cut(text.mid(1, text.size() - 2)) + QLatin1Char('"')
                                                       : cut(text);
        from = part.capturedEnd();
    }
    shortened += message.midRef(from);
    return escaped(shortened);
}
