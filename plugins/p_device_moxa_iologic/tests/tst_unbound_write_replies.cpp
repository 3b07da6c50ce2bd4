// SPDX-License-Identifier: MIT
// The write-reply handlers of setValues and setBlink, which no instruction is bound to:
// called directly, they check the reply under their own file and lines and post nothing.
#include "d_cmd_setValues.h"
#include "d_cmd_setValuesWithPulse.h"
#include "devicebench.h"

class TstUnboundWriteReplies : public QObject
{
    Q_OBJECT
private slots:
    void checks_data();
    void checks();
};

void TstUnboundWriteReplies::checks_data()
{
    QTest::addColumn<QVariantMap>("reply");
    QTest::addColumn<QList<int>>("lines");   // setValues', setBlink's; none for a good reply
    QTest::addColumn<QString>("message");

    QTest::newRow("empty") << QVariantMap{{"values", QVariantList()}} << QList<int>{110, 111} << "ERROR: Reply Values list is empty";
    QTest::newRow("not a list") << QVariantMap{{"values", QStringList{"1"}}} << QList<int>{113, 114}
                                << "ERROR: Values list in reply data is not in the correct format";
    QTest::newRow("no values") << QVariantMap() << QList<int>{116, 117} << "ERROR: Reply data is not in the correct format";
    QTest::newRow("good reply") << QVariantMap{{"values", QVariantList{1}}} << QList<int>() << QString();
}

void TstUnboundWriteReplies::checks()
{
    QFETCH(QVariantMap, reply);
    QFETCH(QList<int>, lines);
    QFETCH(QString, message);

    DCmdSetValues setValues(nullptr);
    DCmdSetValuesWithPulse setBlink(nullptr);
    LogCapture log;
    // Neither declares "doneOk", so even a good reply posts nothing.
    QVERIFY(!setValues.rplWriteDone(1, reply));
    QVERIFY(!setBlink.rplWriteDone(1, reply));
    QVERIFY(setValues.results().isEmpty() && setBlink.results().isEmpty());
    QCOMPARE(log.messages().size(), lines.size());
    if (!lines.isEmpty()) {
        QString why = bench::diagnosticMismatch(log.messages().at(0), &setValues, "d_cmd_setValues", lines.at(0), message);
        why += bench::diagnosticMismatch(log.messages().at(1), &setBlink, "d_cmd_setValuesWithPulse", lines.at(1), message);
        QVERIFY2(why.isEmpty(), qPrintable(why));
    }
}

QTEST_MAIN(TstUnboundWriteReplies)
#include "tst_unbound_write_replies.moc"
