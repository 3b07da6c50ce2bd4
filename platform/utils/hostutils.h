// SPDX-License-Identifier: MIT
// Small helpers of the host utility library.
#pragma once

#include <QChar>
#include <QString>

// Packs a dotted version "major[.minor[.patch[.build]]]" into 64 bits, 16 bits per
// component, major in the top 16 bits; missing components count as 0, so "1.0" and
// "1.0.0" give the same number. Returns 0 and sets *ok to false (when ok is not null)
// on empty text, more than four components, a non-decimal component or one above 65535.
quint64 versionFromString(const QString &text, bool *ok = nullptr, QChar separator = QLatin1Char('.'));

// The local date and time as "yyyy-MM-dd hh:mm:ss.zzz", the stamp that starts a diagnostic line.
QString getDate();
