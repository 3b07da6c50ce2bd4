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
    void emptyDelegate();
    void boundCall_data();
    void boundCall();
};

void TstFastDelegate::emptyDelegate()
{
    Callback callback;
    QVERIFY(callback.empty());
    QVERIFY(!callback);
    QCOMPARE(callback.object(), nullptr);
    // An empty delegate may be called and gives the default result.
    QCOMPARE(callback(1, {}), false);
}

void TstFastDelegate::boundCall_data()
{
    QTest::addColumn<QVariantMap>("reply");
    QTest::addColumn<bool>("result");
    QTest::newRow("accepted") << QVariantMap{{QStringLiteral("values"), QVariantList{1}}} << true;
    QTest::newRow("rejected") << QVariantMap{{QStringLiteral("error"), QStringLiteral("timeout")}} << false;
}

void TstFastDelegate::boundCall()
{
    QFETCH(QVariantMap, reply);
    QFETCH(bool, result);
    Derived target;
    Callback callback = fastdelegate::MakeDelegate(&target, &Base::onReply);
    QVERIFY(!callback.empty());
    QCOMPARE(callback.object(), static_cast<const void *>(&target));
    // A copy calls the same object, through the virtual override.
    const Callback copy = callback;
    QCOMPARE(copy(0xFFFFFFFFFFFFull, reply), result);
    QCOMPARE(target.derivedCalls, 1);
    QCOMPARE(target.lastId, 0xFFFFFFFFFFFFull);
    QCOMPARE(target.lastReply, reply);
    callback.clear();
    QVERIFY(callback.empty());

    const Callback bound = fastdelegate::MakeDelegate(static_cast<const Base *>(&target), &Base::constReply);
    QCOMPARE(bound(7, reply), true);
    QCOMPARE(bound(8, reply), false);
}

QTEST_GUILESS_MAIN(TstFastDelegate)
#include "tst_fastdelegate.moc"
