// SPDX-License-Identifier: MIT
#include "ctlargs.h"

#include <QCommandLineParser>
#include <QRegularExpression>

bool CtlArgs::parse(const QStringList &words, const QList<QCommandLineOption> &options, CtlArgs *args, QString *error)
{
    QStringList line = words;
    args->m_background = !line.isEmpty() && line.last() == QLatin1String("&");
    if (args->m_background)
        line.removeLast();
    // A negative number ("-1") is a value, never an option: it is hidden from the parser and
    // given back as it was, so that its own check can name it. (A plain test: every command
    // line goes through here, and a regular expression would cost a one-shot its JIT.)
    const auto negative = [](const QString &word) {
        return word.size() > 1 && word.at(0) == QLatin1Char('-') && word.at(1) >= QLatin1Char('0')
            && word.at(1) <= QLatin1Char('9');
    };
    const QChar hidden(0xE000);
    for (QString &word : line)
        if (negative(word))
            word.prepend(hidden);
    const auto unhide = [hidden](QString text) { return text.startsWith(hidden) ? text.mid(1) : text; };
    QCommandLineParser parser;
    parser.setSingleDashWordOptionMode(QCommandLineParser::ParseAsLongOptions);
    parser.addOptions(options);
    if (!parser.parse(QStringList{QStringLiteral("e1212ctl")} + line)) {
        *error = parser.errorText();
        return false;
    }
    QStringList positional;
    for (const QString &word : parser.positionalArguments())
        positional << unhide(word);
    args->m_name = positional.isEmpty() ? QString() : positional.takeFirst();
    args->m_positional = positional;
    for (const QString &name : parser.optionNames()) {
        for (const QCommandLineOption &option : options) {
            if (!option.names().contains(name))
                continue;
            const QString key = option.names().last();
            QStringList values;
            for (const QString &value : parser.values(key))
                values << unhide(value);
            args->m_values[key] = option.valueName().isEmpty() ? QStringList{QString()} : values;
        }
    }
    return true;
}

bool CtlArgs::number(const QString &text, quint32 min, quint32 max, const QString &what, quint32 *value, QString *error)
{
    static const QRegularExpression format(QStringLiteral("^(0[xX][0-9A-Fa-f]{1,8}|[0-9]{1,10})$"));
    bool ok = format.match(text).hasMatch();
    const bool hex = text.startsWith(QLatin1String("0x"), Qt::CaseInsensitive);
    const qulonglong parsed = ok ? (hex ? text.mid(2) : text).toULongLong(&ok, hex ? 16 : 10) : 0;
    if (!ok || parsed < min || parsed > max) {
        *error = QStringLiteral("%1 \"%2\" is not a whole number from %3 to %4 (decimal or 0x hexadecimal)")
                     .arg(what, text)
                     .arg(min)
                     .arg(max);
        return false;
    }
    *value = quint32(parsed);
    return true;
}

bool CtlArgs::hostAndPort(const QString &option, const QString &text, int defaultPort, int minPort,
                          QString *host, quint16 *port, QString *error)
{
    const int colon = text.lastIndexOf(QLatin1Char(':'));
    quint32 parsed = quint32(qMax(defaultPort, 0));
    bool ok = colon >= 0 || defaultPort >= 0;
    QString portError;
    if (colon >= 0)
        ok = number(text.mid(colon + 1), quint32(minPort), 65535, QStringLiteral("port"), &parsed, &portError);
    if (!ok) {
        *error = QStringLiteral("%1 %2: the port must be a number from %3 to 65535").arg(option, text).arg(minPort);
        return false;
    }
    *host = colon >= 0 ? text.left(colon) : text;
    if (host->isEmpty() || host->contains(QLatin1Char(':'))) {
        *error = QStringLiteral("%1 %2: the host is empty or not one name").arg(option, text);
        return false;
    }
    *port = quint16(parsed);
    return true;
}
