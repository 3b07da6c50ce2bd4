// SPDX-License-Identifier: MIT
#include "hostutils.h"

#include <QDateTime>
#include <QStringList>

quint64 versionFromString(const QString &text, bool *ok, QChar separator)
{
    if (ok)
        *ok = false;
    const QStringList parts = text.split(separator);
    if (text.isEmpty() || parts.size() > 4)
        return 0;

    quint64 packed = 0;
    int shift = 48;
    for (const QString &part : parts) {
        bool partOk = false;
        const uint component = part.toUInt(&partOk, 10);
        if (!partOk || component > 0xFFFF || part.startsWith(QLatin1Char('+')))
            return 0;
        packed |= quint64(component) << shift;
        shift -= 16;
    }
    if (ok)
        *ok = true;
    return packed;
}

QString getDate()
{
    return QDateTime::currentDateTime().toString(QStringLiteral("yyyy-MM-dd hh:mm:ss.zzz"));
}
