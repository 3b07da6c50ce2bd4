// SPDX-License-Identifier: MIT
#include "ctlargs.h"

CtlArgs::CtlArgs(const QStringList &words, const QStringList &valueOptions)
{
    for (int i = 0; i < words.size(); ++i) {
        const QString &word = words.at(i);
        if (!word.startsWith(QLatin1String("--")) || word.size() == 2) {
            m_positional << word;
            continue;
        }
        const int equals = word.indexOf(QLatin1Char('='));
        const QString name = equals < 0 ? word : word.left(equals);
        if (!valueOptions.contains(name)) {
            m_error = QStringLiteral("unknown option %1").arg(name);
            return;
        }
        if (equals >= 0) {
            m_options.insert(name, word.mid(equals + 1));
        } else if (i + 1 < words.size()) {
            m_options.insert(name, words.at(++i));
        } else {
            m_error = QStringLiteral("option %1 needs a value").arg(name);
            return;
        }
    }
}

bool CtlArgs::number(const QString &text, quint32 max, const QString &what, quint32 *value, QString *error)
{
    bool ok = false;
    const bool hex = text.startsWith(QLatin1String("0x"), Qt::CaseInsensitive);
    const qulonglong parsed = (hex ? text.mid(2) : text).toULongLong(&ok, hex ? 16 : 10);
    if (!ok || parsed > max) {
        *error = QStringLiteral("%1 \"%2\" is not a whole number from 0 to %3 (decimal or 0x hexadecimal)")
                     .arg(what, text).arg(max);
        return false;
    }
    *value = quint32(parsed);
    return true;
}

bool CtlArgs::hostAndPort(const QString &option, const QString &text, int defaultPort, int minPort,
                          QString *host, quint16 *port, QString *error)
{
    const int colon = text.lastIndexOf(QLatin1Char(':'));
    int parsed = defaultPort;
    bool ok = colon >= 0 || defaultPort >= 0;
    if (colon >= 0)
        parsed = text.mid(colon + 1).toInt(&ok);
    if (!ok || parsed < minPort || parsed > 65535) {
        *error = QStringLiteral("%1 %2: the port must be a number from %3 to 65535").arg(option, text).arg(minPort);
        return false;
    }
    *host = colon >= 0 ? text.left(colon) : text;
    if (host->isEmpty()) {
        *error = QStringLiteral("%1 %2: the host is empty").arg(option, text);
        return false;
    }
    *port = quint16(parsed);
    return true;
}
