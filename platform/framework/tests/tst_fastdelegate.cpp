// SPDX-License-Identifier: MIT
// Binding, emptiness and calls of the reply delegate.
#include "fastdelegate.h"

#include <QMap>
#include <QVariant>
#include <QtTest>

using Callback = fastdelegate::FastDelegate2<unsigned long long, const QMap<QString, QVariant> &, bool>;

namespace {
struct Base
{
    virtual ~Base() = default;
    virtual bool onReply(unsigned long long id, const QMap<QString, QVariant> &reply)
    {
        lastId = id;
        lastReply = reply;
        return reply.contains(QStringLiteral("values"));
    }
    bool constReply(unsigned long long id, const QMap<QString, QVariant> &) const { return id == 7; }
    unsigned long long lastId = 0;
    QMap<QString, QVariant> lastReply;
};

struct Derived : Base
{
    bool onReply(unsigned long long id, const QMap<QString, QVariant> &reply) override
    {
        ++derivedCalls;
        return Base::onReply(id, reply);
    }
    int derivedCalls = 0;
};
} // namespace

class TstFastDelegate : public QObject
{
    Q_OBJECT
private slots:
    void emptyByDefault();
    void boundCallForwardsArgumentsAndResult_data();
    void boundCallForwardsArgumentsAndResult();
    void virtualDispatchAndCopies();
    void constMember();
};

void TstFastDelegate::emptyByDefault()
{
    Callback callback;
    QVERIFY(callback.empty());
    QVERIFY(!callback);
    QCOMPARE(callback.object(), nullptr);
    // An empty delegate may be called and gives the default result.
    QCOMPARE(callback(1, {}), false);
}

void TstFastDelegate::boundCallForwardsArgumentsAndResult_data()
{
    QTest::addColumn<QVariantMap>("reply");
    QTest::addColumn<bool>("result");
    QTest::newRow("accepted") << QVariantMap{{QStringLiteral("values"), QVariantList{1}}} << true;
    QTest::newRow("rejected") << QVariantMap{{QStringLiteral("error"), QStringLiteral("timeout")}} << false;
}

void TstFastDelegate::boundCallForwardsArgumentsAndResult()
{
    QFETCH(QVariantMap, reply);
    QFETCH(bool, result);
    Base target;
    Callback callback = fastdelegate::MakeDelegate(&target, &Base::onReply);
    QVERIFY(!callback.empty());
    QVERIFY(static_cast<bool>(callback));
    QCOMPARE(callback.object(), static_cast<const void *>(&target));
    QCOMPARE(callback(0xFFFFFFFFFFFFull, reply), result);
    QCOMPARE(target.lastId, 0xFFFFFFFFFFFFull);
    QCOMPARE(target.lastReply, reply);

    callback.clear();
    QVERIFY(callback.empty());
}

void TstFastDelegate::virtualDispatchAndCopies()
{
    Derived target;
    const Callback original = fastdelegate::MakeDelegate(&target, &Base::onReply);
    const Callback copy = original;
    copy(3, {});
    original(4, {});
    QCOMPARE(target.derivedCalls, 2);
    QCOMPARE(target.lastId, 4ull);
}

void TstFastDelegate::constMember()
{
    const Base target;
    const Callback callback = fastdelegate::MakeDelegate(&target, &Base::constReply);
    QVERIFY(callback(7, {}));
    QVERIFY(!callback(8, {}));
}

QTEST_GUILESS_MAIN(TstFastDelegate)
#include "tst_fastdelegate.moc"
