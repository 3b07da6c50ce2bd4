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

    const QString values = QStringLiteral("values");
    const QString empty = QStringLiteral("ERROR: Reply Values list is empty");
    const QString notList = QStringLiteral("ERROR: Values list in reply data is not in the correct format");
    const QString noValues = QStringLiteral("ERROR: Reply data is not in the correct format");
    const QString setValues = QStringLiteral("setValues");
    const QString setBlink = QStringLiteral("setBlink");
    const QString valuesFile = QStringLiteral("d_cmd_setValues");
    const QString blinkFile = QStringLiteral("d_cmd_setValuesWithPulse");

    QTest::newRow("setValues: empty") << setValues << QVariantMap{{values, QVariantList()}} << valuesFile << 110 << empty;
    QTest::newRow("setValues: not a list") << setValues << QVariantMap{{values, true}} << valuesFile << 113 << notList;
    QTest::newRow("setValues: no values") << setValues << QVariantMap() << valuesFile << 116 << noValues;
    QTest::newRow("setBlink: empty") << setBlink << QVariantMap{{values, QVariantList()}} << blinkFile << 111 << empty;
    QTest::newRow("setBlink: not a list") << setBlink << QVariantMap{{values, 1}} << blinkFile << 114 << notList;
    QTest::newRow("setBlink: no values") << setBlink << QVariantMap{{QStringLiteral("error"), 1}} << blinkFile << 117 << noValues;
    QTest::newRow("setValues: good reply") << setValues << QVariantMap{{values, QVariantList{1}}} << QString() << 0 << QString();
    QTest::newRow("setBlink: good reply") << setBlink << QVariantMap{{values, QVariantList{1}}} << QString() << 0 << QString();
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
    DAbstractCommand *command = name == setValues.commandName() ? static_cast<DAbstractCommand *>(&setValues) : &setBlink;
    QCOMPARE(command->commandName(), name);

    QSignalSpy results(command, &DAbstractCommand::sigResultChanged);
    LogCapture log;
    const bool accepted = command == &setValues ? setValues.rplWriteDone(1, reply) : setBlink.rplWriteDone(1, reply);
    // No "doneOk" can be posted: neither command declares a result.
    QVERIFY(!accepted);
    QCOMPARE(results.count(), 0);
    QVERIFY(command->results().isEmpty());
    if (message.isEmpty()) {
        QVERIFY(log.criticalTexts().isEmpty());
        return;
    }
    QString why;
    QVERIFY2(bench::isOnlyDiagnostic(log, file, line, message, &why), qPrintable(why));
    QVERIFY(log.criticalTexts().first().endsWith(message));
}

QTEST_MAIN(TstUnboundWriteReplies)
#include "tst_unbound_write_replies.moc"
