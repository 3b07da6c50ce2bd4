// SPDX-License-Identifier: MIT
// The write-reply handlers of setValues and setBlink, which no instruction is bound to:
// called directly, they apply the reply checks under their own file and lines.
#include "commandtestbench.h"
#include "d_cmd_setValues.h"
#include "d_cmd_setValuesWithPulse.h"

#include <QSignalSpy>

class TstUnboundWriteReplies : public QObject
{
    Q_OBJECT
private slots:
    void checks_data();
    void checks();
};

void TstUnboundWriteReplies::checks_data()
{
    QTest::addColumn<QString>("name");
    QTest::addColumn<QVariantMap>("reply");
    QTest::addColumn<QString>("file");
    QTest::addColumn<int>("line");
    QTest::addColumn<QString>("message");

    const QString empty = QStringLiteral("ERROR: Reply Values list is empty");
    const QString notList = QStringLiteral("ERROR: Values list in reply data is not in the correct format");
    const QString noValues = QStringLiteral("ERROR: Reply data is not in the correct format");
    QTest::newRow("setValues: empty") << "setValues" << QVariantMap{{"values", QVariantList()}} << "d_cmd_setValues" << 110 << empty;
    QTest::newRow("setValues: not a list") << "setValues" << QVariantMap{{"values", true}} << "d_cmd_setValues" << 113 << notList;
    QTest::newRow("setValues: no values") << "setValues" << QVariantMap() << "d_cmd_setValues" << 116 << noValues;
    QTest::newRow("setBlink: empty") << "setBlink" << QVariantMap{{"values", QVariantList()}} << "d_cmd_setValuesWithPulse" << 111 << empty;
    QTest::newRow("setBlink: not a list") << "setBlink" << QVariantMap{{"values", 1}} << "d_cmd_setValuesWithPulse" << 114 << notList;
    QTest::newRow("setBlink: no values") << "setBlink" << QVariantMap{{"error", 1}} << "d_cmd_setValuesWithPulse" << 117 << noValues;
    QTest::newRow("setValues: good reply") << "setValues" << QVariantMap{{"values", QVariantList{1}}} << QString() << 0 << QString();
    QTest::newRow("setBlink: good reply") << "setBlink" << QVariantMap{{"values", QVariantList{1}}} << QString() << 0 << QString();
}

void TstUnboundWriteReplies::checks()
{
    QFETCH(QString, name);
    QFETCH(QVariantMap, reply);
    QFETCH(QString, file);
    QFETCH(int, line);
    QFETCH(QString, message);

    DCmdSetValues setValues(nullptr);
    DCmdSetValuesWithPulse setBlink(nullptr);
    const bool isSetValues = name == setValues.commandName();
    DAbstractCommand *command = isSetValues ? static_cast<DAbstractCommand *>(&setValues) : &setBlink;
    QSignalSpy results(command, &DAbstractCommand::sigResultChanged);
    LogCapture log;
    // No "doneOk" can be posted: neither command declares a result.
    QVERIFY(!(isSetValues ? setValues.rplWriteDone(1, reply) : setBlink.rplWriteDone(1, reply)));
    QCOMPARE(results.count(), 0);
    QString why;
    QVERIFY2(message.isEmpty() ? log.criticalTexts().isEmpty() : bench::isOnlyDiagnostic(log, file, line, message, &why),
             qPrintable(why));
}

QTEST_MAIN(TstUnboundWriteReplies)
#include "tst_unbound_write_replies.moc"
