// SPDX-License-Identifier: MIT
// Channel objects built from channel records, their setters, meta-objects read at run time,
// and the list model as QML sees it.
#include "d_moxa_channel.h"
#include "olm_d_moxa_channel.h"

#include <QMetaMethod>
#include <QQmlEngine>
#include <QSignalSpy>
#include <QtTest>

namespace {
QVariantMap entry(const QString &id, const QVariant &value) { return {{"id", id}, {"value", value}}; }
QVariantMap record(const QVariant &entries) { return {{"id", "DI0"}, {"name", "Input 0"}, {"value", entries}}; }

// "kind access name(parameters)" of each method the class itself declares, then "type name flags notify" of its properties.
QStringList ownInterface(const QMetaObject &meta)
{
    QStringList items;
    for (int i = meta.methodOffset(); i < meta.methodCount(); ++i) {
        const QMetaMethod method = meta.method(i);
        items << QStringLiteral("%1 %2 %3").arg(method.methodType()).arg(method.access()).arg(QLatin1String(method.methodSignature()));
    }
    for (int i = meta.propertyOffset(); i < meta.propertyCount(); ++i) {
        const QMetaProperty property = meta.property(i);
        items << QStringLiteral("%1 %2 r%3w%4f%5c%6 %7")
                     .arg(QLatin1String(property.typeName()), QLatin1String(property.name()))
                     .arg(property.isReadable()).arg(property.isWritable()).arg(property.isFinal()).arg(property.isConstant())
                     .arg(QLatin1String(property.notifySignal().methodSignature()));
    }
    return items;
}

} // namespace

class TstChannels : public QObject
{
    Q_OBJECT
private slots:
    void metaObjects();
    void create_data();
    void create();
    void setters_data();
    void setters();
    void model();
};

void TstChannels::metaObjects()
{
    const QString s = QStringLiteral("1 2 "), m = QStringLiteral("0 2 "), f = QStringLiteral(" r1w0f1c0 ");
    QCOMPARE(ownInterface(DMoxaChannel::staticMetaObject),
             (QStringList{s + "idChanged()", s + "nameChanged()", s + "labelChanged()", s + "valueChanged()", s + "typeChanged()",
                          s + "sigSwitchChannelValue(QString)", m + "isSwitchable()", "QString id" + f + "idChanged()",
                          "QString name" + f + "nameChanged()", "QString label" + f + "labelChanged()",
                          "QVariant value" + f + "valueChanged()", "EnChannelType type" + f + "typeChanged()"}));
    QCOMPARE(DMoxaChannel::staticMetaObject.superClass()->className(), "DObject");
    const QMetaEnum types = QMetaEnum::fromType<DMoxaChannel::EnChannelType>();
    QByteArray keys;
    for (int i = 0; i < types.keyCount(); ++i)
        keys += types.key(i) + QByteArray::number(types.value(i)) + ' ';
    QCOMPARE(keys, QByteArray("CeCtUnknown0 CeCtAnaIn1 CeCtAnaOut2 CeCtBinIn3 CeCtBinOut4 _CeCtNbr5 "));

    // The model's own meta-object sits right on QAbstractListModel's.
    QCOMPARE(OLM_DMoxaChannel::staticMetaObject.superClass(), &QAbstractListModel::staticMetaObject);
    QCOMPARE(ownInterface(OLM_DMoxaChannel::staticMetaObject),
             (QStringList{"1 2 changed()", "0 2 header(int)", "0 1 item(int)", "int length r1w0f0c0 changed()",
                          "int isEmpty r1w0f0c0 changed()"}));
}

void TstChannels::create_data()
{
    QTest::addColumn<QVariantMap>("record");
    QTest::addColumn<int>("type");   // -1: no channel
    QTest::addColumn<QVariantMap>("properties");

    QTest::newRow("empty record") << QVariantMap() << -1 << QVariantMap();
    for (const char *name : {"analogInput", "analogOutput", "digitalInput", "digitalOutput"}) {
        const int type = 1 + int(QStringList{"analogInput", "analogOutput", "digitalInput", "digitalOutput"}.indexOf(name));
        QTest::newRow(name) << record(QVariantList{entry("type", name), entry("mode", 2)}) << type
                            << QVariantMap{{"type", name}, {"mode", 2}};
    }
    QTest::newRow("case-sensitive name") << record(QVariantList{entry("type", "DigitalOutput")}) << 0 << QVariantMap{{"type", "DigitalOutput"}};
    QTest::newRow("case-sensitive key") << record(QVariantList{entry("Type", "digitalOutput")}) << 0 << QVariantMap{{"Type", "digitalOutput"}};
    QTest::newRow("last duplicate wins") << record(QVariantList{entry("type", "digitalOutput"), 5, entry("type", "digitalInput")})
                                         << 3 << QVariantMap{{"type", "digitalInput"}};
    QTest::newRow("value not a list") << record(QVariantMap{{"type", "digitalInput"}}) << 0 << QVariantMap();
}

void TstChannels::create()
{
    QFETCH(QVariantMap, record);
    QFETCH(int, type);
    QFETCH(QVariantMap, properties);

    const QSharedPointer<DMoxaChannel> channel = DMoxaChannel::create(record);
    QCOMPARE(channel.isNull(), type < 0);
    if (!channel)
        return;
    QCOMPARE((QStringList{channel->id(), channel->name(), channel->objectName()}), (QStringList{"DI0", "Input 0", "DMoxaChannel"}));
    QCOMPARE(int(channel->type()), type);
    QCOMPARE(channel->properties(), properties);
    QCOMPARE(channel->isSwitchable(), type == DMoxaChannel::CeCtBinOut);
    QVERIFY(channel->label().isEmpty() && !channel->value().isValid() && !channel->parent());
}

void TstChannels::setters_data()
{
    QTest::addColumn<int>("type");
    QTest::addColumn<QVariant>("value");
    QTest::addColumn<bool>("suits");

    QTest::newRow("analog int") << int(DMoxaChannel::CeCtAnaIn) << QVariant(5) << true;
    QTest::newRow("analog text stored anyway") << int(DMoxaChannel::CeCtAnaOut) << QVariant("abc") << false;
    QTest::newRow("binary uint") << int(DMoxaChannel::CeCtBinIn) << QVariant(1u) << true;
    QTest::newRow("binary map") << int(DMoxaChannel::CeCtBinOut) << QVariant(QVariantMap()) << false;
    QTest::newRow("unknown type") << int(DMoxaChannel::CeCtUnknown) << QVariant(1) << false;
}

void TstChannels::setters()
{
    QFETCH(int, type);
    QFETCH(QVariant, value);
    QFETCH(bool, suits);

    DMoxaChannel channel;
    QList<QSharedPointer<QSignalSpy>> spies;
    for (const char *signal : {SIGNAL(idChanged()), SIGNAL(nameChanged()), SIGNAL(labelChanged()), SIGNAL(typeChanged()),
                               SIGNAL(valueChanged()), SIGNAL(sigSwitchChannelValue(QString))})
        spies << QSharedPointer<QSignalSpy>::create(&channel, signal);
    // Each setter signals a change, once; setValue stores the value whether it suits the type or not.
    for (int i = 0; i < 2; ++i) {
        channel.setId("i");
        channel.setName("n");
        channel.setLabel("l");
        channel.setType(DMoxaChannel::EnChannelType(type));
        QCOMPARE(channel.setValue(value), suits);
        QList<int> counts;
        for (const auto &spy : qAsConst(spies))
            counts << spy->count();
        QCOMPARE(counts, (QList<int>{1, 1, 1, type == DMoxaChannel::CeCtUnknown ? 0 : 1, 1, 0}));
    }
    QCOMPARE((QVariantList{channel.id(), channel.name(), channel.label(), channel.value()}), (QVariantList{"i", "n", "l", value}));
}

void TstChannels::model()
{
    struct Model : OLM_DMoxaChannel { using OLM_DMoxaChannel::beginResetModel, OLM_DMoxaChannel::endResetModel; } model;
    QSignalSpy changed(&model, &OLM_DMoxaChannel::changed);
    QJSEngine engine;
    QQmlEngine::setObjectOwnership(&model, QQmlEngine::CppOwnership);
    engine.globalObject().setProperty("model", engine.newQObject(&model));
    // As QML sees it: length, isEmpty, item(0)'s id, then item(-1), item(1) and header(0), all undefined.
    const QString seen = QStringLiteral("[model.length, model.isEmpty, model.item(0) && model.item(0).id, model.item(-1), model.item(1), model.header(0)].join()");
    model.append(QSharedPointer<DMoxaChannel>());
    QCOMPARE(engine.evaluate(seen).toString() + QString::number(changed.count()), QStringLiteral("0,1,,,,0"));
    const QSharedPointer<DMoxaChannel> channel = DMoxaChannel::create({{"id", "DO0"}});
    model.append(channel);
    QCOMPARE(engine.evaluate(seen).toString() + QString::number(changed.count()), QStringLiteral("1,0,DO0,,,1"));
    const QVariant data = model.data(model.index(0), Qt::UserRole);
    QCOMPARE(data.userType(), int(QMetaType::QObjectStar));
    QCOMPARE(data.value<QObject *>(), channel.data());
    QVERIFY(!model.data(model.index(0), Qt::DisplayRole).isValid() && !model.data(model.index(1), Qt::UserRole).isValid());
    QCOMPARE((QByteArrayList{model.roleNames().value(Qt::UserRole), model.roleNames().value(Qt::DisplayRole)}), (QByteArrayList{"modelData", "display"}));
    // What QML is handed stays C++'s to delete.
    engine.collectGarbage();
    QCoreApplication::sendPostedEvents(nullptr, QEvent::DeferredDelete);
    QCOMPARE(QQmlEngine::objectOwnership(channel.data()), QQmlEngine::CppOwnership);
    // A reset refreshes length and isEmpty too.
    model.beginResetModel();
    model.endResetModel();
    QCOMPARE(changed.count(), 2);
}

QTEST_MAIN(TstChannels)
#include "tst_channels.moc"
