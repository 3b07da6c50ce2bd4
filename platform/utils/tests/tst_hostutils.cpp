// SPDX-License-Identifier: MIT
// Version packing and the exact form of the diagnostic line, date stamp included.
#include "diagnosticlog.h"
#include "dobject.h"
#include "hostutils.h"
#include "logcapture.h"

#include <QRegularExpression>
#include <QThread>
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
        QTest::newRow("signed") << "+1.0" << QChar('.') << false << Q_UINT64_C(0);
        QTest::newRow("wrong separator") << "1.2" << QChar('-') << false << Q_UINT64_C(0);
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

    void diagnosticLineForm()
    {
        DObject emitter(QStringLiteral("emitter"));
        LogCapture capture;
        diagnosticLine(&emitter, "plugins/p_device_moxa_iologic/source/d_cmd_getValue", 136)
            << "ERROR: Reply Values list is empty" << QStringLiteral("quoted") << 42;

        QCOMPARE(capture.messages().size(), 1);
        const LogCapture::Message &message = capture.messages().first();
        QCOMPARE(message.type, QtCriticalMsg);
        QCOMPARE(message.category, QStringLiteral("default"));

        QString thread;
        QDebug(&thread) << static_cast<QObject *>(QThread::currentThread());
        QString self;
        QDebug(&self) << static_cast<QObject *>(&emitter);

        // Date, then the fixed items with QDebug's spaces; QString items quoted.
        const QRegularExpression form(QStringLiteral(
            "^\n \"(\\d{4}-\\d\\d-\\d\\d \\d\\d:\\d\\d:\\d\\d\\.\\d{3})\" ;\t Thread = (.*) ;\t This = (.*) ;\t "
            "plugins/p_device_moxa_iologic/source/d_cmd_getValue ;\t 136 ;\t "
            "ERROR: Reply Values list is empty \"quoted\" 42$"));
        const QRegularExpressionMatch match = form.match(message.text);
        QVERIFY2(match.hasMatch(), qPrintable(message.text));
        QCOMPARE(match.captured(2) + QLatin1Char(' '), thread);
        QCOMPARE(match.captured(3) + QLatin1Char(' '), self);
        QVERIFY(match.captured(3).contains(QLatin1String("emitter")));
    }
};

QTEST_GUILESS_MAIN(TstHostUtils)
#include "tst_hostutils.moc"
