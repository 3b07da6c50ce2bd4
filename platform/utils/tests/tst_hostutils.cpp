// SPDX-License-Identifier: MIT
// Version packing. The diagnostic line is checked where the plug-in writes it (its tests check every line exactly).
#include "hostutils.h"

#include <QtTest>

class TstHostUtils : public QObject
{
    Q_OBJECT
private slots:
    void versionFromString_data()
    {
        QTest::addColumn<QString>("text");
        QTest::addColumn<QChar>("separator");
        QTest::addColumn<bool>("ok");
        QTest::addColumn<quint64>("packed");

        QTest::newRow("major.minor") << "1.0" << QChar('.') << true << Q_UINT64_C(0x0001000000000000);
        QTest::newRow("four components") << "2.5.7.9" << QChar('.') << true << Q_UINT64_C(0x0002000500070009);
        QTest::newRow("component limit") << "65535.1" << QChar('.') << true << Q_UINT64_C(0xFFFF000100000000);
        QTest::newRow("empty") << "" << QChar('.') << false << Q_UINT64_C(0);
        QTest::newRow("letters") << "1.a" << QChar('.') << false << Q_UINT64_C(0);
        QTest::newRow("five components") << "1.2.3.4.5" << QChar('.') << false << Q_UINT64_C(0);
        QTest::newRow("component too big") << "65536.0" << QChar('.') << false << Q_UINT64_C(0);
    }

    void versionFromString()
    {
        QFETCH(QString, text);
        QFETCH(QChar, separator);
        QFETCH(bool, ok);
        QFETCH(quint64, packed);

        bool actualOk = !ok;
        QCOMPARE(::versionFromString(text, &actualOk, separator), packed);
        QCOMPARE(actualOk, ok);
        // A null ok pointer is allowed.
        QCOMPARE(::versionFromString(text, nullptr, separator), packed);
    }
};

QTEST_GUILESS_MAIN(TstHostUtils)
#include "tst_hostutils.moc"
