// SPDX-License-Identifier: MIT
// The words of one subcommand line, parsed with that subcommand's options, and the number
// and address checks every subcommand shares.
#pragma once

#include <QCommandLineOption>
#include <QMap>
#include <QStringList>

class CtlArgs
{
public:
    // Parses `words` (the subcommand's name first) against `options`. Single-dash words are
    // long options ("-platform"), so Qt's own options can be declared like ours. A last word
    // "&" is taken off and sets background(). False, with *error naming the word, on an
    // unknown option or a missing value.
    static bool parse(const QStringList &words, const QList<QCommandLineOption> &options, CtlArgs *args,
                      QString *error);

    QString name() const { return m_name; }
    // The words after the subcommand's name that are not options.
    const QStringList &positional() const { return m_positional; }
    bool has(const QString &option) const { return m_values.contains(option); }
    // The last value given to `option` (a later one overrides).
    QString value(const QString &option) const { return m_values.value(option).value(m_values.value(option).size() - 1); }
    QStringList values(const QString &option) const { return m_values.value(option); }
    bool background() const { return m_background; }

    // A whole number, decimal or 0x hexadecimal (nothing else), from `min` to `max`. False,
    // with *error naming `what`, the text and the range, otherwise.
    static bool number(const QString &text, quint32 min, quint32 max, const QString &what, quint32 *value,
                       QString *error);

    // Splits "HOST[:PORT]" given to `option`. Without a port, `defaultPort`, or an error
    // when `defaultPort` is negative. False, with *error naming the option and the text,
    // on an empty host or a port outside minPort-65535.
    static bool hostAndPort(const QString &option, const QString &text, int defaultPort, int minPort,
                            QString *host, quint16 *port, QString *error);

private:
    QString m_name;
    QStringList m_positional;
    QMap<QString, QStringList> m_values;
    bool m_background = false;
};
