// SPDX-License-Identifier: MIT
// The words after a subcommand's name: positional words and its own "--name value" options.
#pragma once

#include <QMap>
#include <QStringList>

class CtlArgs
{
public:
    // Takes each of `valueOptions` ("--mask") with the word after it (or "--mask=M"); any
    // other word starting with "--" is an error. error() is empty when all went well.
    CtlArgs(const QStringList &words, const QStringList &valueOptions);

    QString error() const { return m_error; }
    const QStringList &positional() const { return m_positional; }
    bool has(const QString &option) const { return m_options.contains(option); }
    QString value(const QString &option) const { return m_options.value(option); }

    // A whole number, decimal or 0x hexadecimal, from 0 to `max`. False, with *error
    // naming `what` and the text, otherwise.
    static bool number(const QString &text, quint32 max, const QString &what, quint32 *value, QString *error);

    // Splits "HOST[:PORT]" given to `option`. Without a port, `defaultPort`, or an error
    // when `defaultPort` is negative. False, with *error naming the option and the text,
    // on an empty host or a port outside minPort-65535.
    static bool hostAndPort(const QString &option, const QString &text, int defaultPort, int minPort,
                            QString *host, quint16 *port, QString *error);

private:
    QStringList m_positional;
    QMap<QString, QString> m_options;
    QString m_error;
};
