// SPDX-License-Identifier: MIT
// Channel objects built from channel records, their value checks, and the list model
// as QML sees it.
#include "d_moxa_channel.h"
#include "olm_d_moxa_channel.h"

#include <QPointer>
#include <QQmlComponent>
#include <QQmlEngine>
#include <QSignalSpy>
#include <QtTest>

namespace {
QVariantMap entry(const QString &id, const QVariant &value)
{
    return {{QStringLiteral("id"), id}, {QStringLiteral("value"), value}};
}

QVariantMap record(const QString &id, const QVariant &entries)
{
    return {{QStringLiteral("id"), id}, {QStringLiteral("name"), QString(id + QStringLiteral(" name"))}, {QStringLiteral("value"), entries}};
}
} // namespace

class TstChannels : public QObject
{
    Q_OBJECT
private slots:
    void create_data();
    void create();
    void setValue_data();
    void setValue();
    void settersEmitOnRealChangeOnly();
    void emptyModel();
    void appendAndRead();
    void resetRefreshesLength();
    void qmlReadsModelData();
    void itemSurvivesGarbageCollection();
};

void TstChannels::create_data()
{
    using Type = DMoxaChannel::EnChannelType;
    QTest::addColumn<QVariantMap>("input");
    QTest::addColumn<bool>("isNull");
    QTest::addColumn<QString>("id");
    QTest::addColumn<QString>("name");
    QTest::addColumn<int>("type");
    QTest::addColumn<QVariantMap>("properties");

    QTest::newRow("empty record") << QVariantMap() << true << QString() << QString() << int(Type::CeCtUnknown) << QVariantMap();
    QTest::newRow("id only") << QVariantMap{{QStringLiteral("id"), QStringLiteral("x")}} << false << "x" << "" << int(Type::CeCtUnknown) << QVariantMap();
    QTest::newRow("digital input with extra entry")
        << record(QStringLiteral("DI0"), QVariantList{entry(QStringLiteral("type"), QStringLiteral("digitalInput")), entry(QStringLiteral("mode"), 2)})
        << false << "DI0" << "DI0 name" << int(Type::CeCtBinIn)
        << QVariantMap{{QStringLiteral("type"), QStringLiteral("digitalInput")}, {QStringLiteral("mode"), 2}};
    QTest::newRow("digital output")
        << record(QStringLiteral("DO1"), QVariantList{entry(QStringLiteral("type"), QStringLiteral("digitalOutput"))})
        << false << "DO1" << "DO1 name" << int(Type::CeCtBinOut) << QVariantMap{{QStringLiteral("type"), QStringLiteral("digitalOutput")}};
    QTest::newRow("analog kinds")
        << record(QStringLiteral("AI"), QVariantList{entry(QStringLiteral("type"), QStringLiteral("analogOutput"))})
        << false << "AI" << "AI name" << int(Type::CeCtAnaOut) << QVariantMap{{QStringLiteral("type"), QStringLiteral("analogOutput")}};
    QTest::newRow("type name is case-sensitive")
        << record(QStringLiteral("DO2"), QVariantList{entry(QStringLiteral("type"), QStringLiteral("DigitalOutput"))})
        << false << "DO2" << "DO2 name" << int(Type::CeCtUnknown) << QVariantMap{{QStringLiteral("type"), QStringLiteral("DigitalOutput")}};
    QTest::newRow("entry id is case-sensitive")
        << record(QStringLiteral("DO2"), QVariantList{entry(QStringLiteral("Type"), QStringLiteral("digitalOutput"))})
        << false << "DO2" << "DO2 name" << int(Type::CeCtUnknown) << QVariantMap{{QStringLiteral("Type"), QStringLiteral("digitalOutput")}};
    QTest::newRow("last duplicate wins")
        << record(QStringLiteral("D"), QVariantList{entry(QStringLiteral("type"), QStringLiteral("digitalOutput")),
                                                     entry(QStringLiteral("size"), 1), entry(QStringLiteral("size"), 8),
                                                     entry(QStringLiteral("type"), QStringLiteral("digitalInput"))})
        << false << "D" << "D name" << int(Type::CeCtBinIn)
        << QVariantMap{{QStringLiteral("type"), QStringLiteral("digitalInput")}, {QStringLiteral("size"), 8}};
    QTest::newRow("non-map elements skipped")
        << record(QStringLiteral("S"), QVariantList{QStringLiteral("type"), 5, entry(QStringLiteral("register"), 3)})
        << false << "S" << "S name" << int(Type::CeCtUnknown) << QVariantMap{{QStringLiteral("register"), 3}};
    QTest::newRow("value not a list")
        << record(QStringLiteral("M"), QVariantMap{{QStringLiteral("type"), QStringLiteral("digitalInput")}})
        << false << "M" << "M name" << int(Type::CeCtUnknown) << QVariantMap();
    QTest::newRow("pulse record without type")
        << record(QStringLiteral("DO_PulseStatus"), QVariantList{entry(QStringLiteral("register"), 16)})
        << false << "DO_PulseStatus" << "DO_PulseStatus name" << int(Type::CeCtUnknown) << QVariantMap{{QStringLiteral("register"), 16}};
}

void TstChannels::create()
{
    QFETCH(QVariantMap, input);
    QFETCH(bool, isNull);
    QFETCH(QString, id);
    QFETCH(QString, name);
    QFETCH(int, type);
    QFETCH(QVariantMap, properties);

    const QSharedPointer<DMoxaChannel> channel = DMoxaChannel::create(input);
    QCOMPARE(channel.isNull(), isNull);
    if (isNull)
        return;
    QCOMPARE(channel->id(), id);
    QCOMPARE(channel->name(), name);
    QCOMPARE(int(channel->type()), type);
    QCOMPARE(channel->properties(), properties);
    QCOMPARE(channel->isSwitchable(), type == DMoxaChannel::CeCtBinOut);
    // Label and value wait for the back-end and the first reading.
    QVERIFY(channel->label().isEmpty());
    QVERIFY(!channel->value().isValid());
    QVERIFY(!channel->parent());
    // The shared pointer tracks the QObject: a weak pointer follows it.
    QWeakPointer<QObject> weak = channel.toWeakRef();
    QVERIFY(!weak.isNull());
}

void TstChannels::setValue_data()
{
    QTest::addColumn<int>("type");
    QTest::addColumn<QVariant>("initial");
    QTest::addColumn<QVariant>("value");
    QTest::addColumn<bool>("suits");
    QTest::addColumn<int>("emitted");

    QTest::newRow("analog int") << int(DMoxaChannel::CeCtAnaIn) << QVariant() << QVariant(5) << true << 1;
    QTest::newRow("analog text stored anyway") << int(DMoxaChannel::CeCtAnaOut) << QVariant() << QVariant(QStringLiteral("abc")) << false << 1;
    QTest::newRow("analog equal value") << int(DMoxaChannel::CeCtAnaIn) << QVariant(5) << QVariant(5) << true << 0;
    QTest::newRow("binary bool") << int(DMoxaChannel::CeCtBinIn) << QVariant() << QVariant(true) << true << 1;
    QTest::newRow("binary uint") << int(DMoxaChannel::CeCtBinOut) << QVariant(false) << QVariant(1u) << true << 1;
    QTest::newRow("binary map") << int(DMoxaChannel::CeCtBinOut) << QVariant() << QVariant(QVariantMap()) << false << 1;
    QTest::newRow("unknown type never suits") << int(DMoxaChannel::CeCtUnknown) << QVariant() << QVariant(1) << false << 1;
    QTest::newRow("count is not a type") << int(DMoxaChannel::_CeCtNbr) << QVariant() << QVariant(1) << false << 1;
    QTest::newRow("equal value, unsuitable stored") << int(DMoxaChannel::CeCtAnaIn) << QVariant(QStringLiteral("abc"))
                                                    << QVariant(QStringLiteral("abc")) << false << 0;
}

void TstChannels::setValue()
{
    QFETCH(int, type);
    QFETCH(QVariant, initial);
    QFETCH(QVariant, value);
    QFETCH(bool, suits);
    QFETCH(int, emitted);

    DMoxaChannel channel;
    channel.setType(DMoxaChannel::EnChannelType(type));
    channel.setValue(initial);
    QSignalSpy spy(&channel, &DMoxaChannel::valueChanged);
    QCOMPARE(channel.setValue(value), suits);
    QCOMPARE(spy.count(), emitted);
    QCOMPARE(channel.value(), value);
}

void TstChannels::settersEmitOnRealChangeOnly()
{
    DMoxaChannel channel;
    QSignalSpy ids(&channel, &DMoxaChannel::idChanged);
    QSignalSpy names(&channel, &DMoxaChannel::nameChanged);
    QSignalSpy labels(&channel, &DMoxaChannel::labelChanged);
    QSignalSpy types(&channel, &DMoxaChannel::typeChanged);
    QSignalSpy switches(&channel, &DMoxaChannel::sigSwitchChannelValue);

    channel.setId(QStringLiteral("DI0"));
    channel.setId(QStringLiteral("DI0"));
    channel.setName(QString());
    channel.setLabel(QStringLiteral("Input 0"));
    channel.setLabel(QStringLiteral("Input 0"));
    channel.setType(DMoxaChannel::CeCtUnknown);
    channel.setType(DMoxaChannel::CeCtBinIn);
    channel.setType(DMoxaChannel::CeCtBinIn);

    QCOMPARE(ids.count(), 1);
    QCOMPARE(names.count(), 0);
    QCOMPARE(labels.count(), 1);
    QCOMPARE(types.count(), 1);
    QCOMPARE(switches.count(), 0);
}

void TstChannels::emptyModel()
{
    OLM_DMoxaChannel model;
    QCOMPARE(model.property("length").toInt(), 0);
    QCOMPARE(model.property("isEmpty").userType(), int(QMetaType::Int));
    QCOMPARE(model.property("isEmpty").toInt(), 1);
    QVERIFY(!model.data(model.index(0), Qt::UserRole).isValid());
    QVariant item;
    QVERIFY(QMetaObject::invokeMethod(&model, "item", Q_RETURN_ARG(QVariant, item), Q_ARG(int, 0)));
    QVERIFY(!item.isValid());
    QVERIFY(!model.header(0).isValid());
}

void TstChannels::appendAndRead()
{
    OLM_DMoxaChannel model;
    QSignalSpy changed(&model, &OLM_DMoxaChannel::changed);
    QSignalSpy inserted(&model, &QAbstractItemModel::rowsInserted);

    model.append(QSharedPointer<DMoxaChannel>());
    QCOMPARE(model.rowCount(), 0);
    QCOMPARE(changed.count(), 0);

    const QSharedPointer<DMoxaChannel> channel = DMoxaChannel::create({{QStringLiteral("id"), QStringLiteral("DO0")}});
    model.append(channel);
    QCOMPARE(model.rowCount(), 1);
    QCOMPARE(model.property("isEmpty").toInt(), 0);
    QCOMPARE(model.property("length").toInt(), 1);
    QCOMPARE(changed.count(), 1);
    QCOMPARE(inserted.count(), 1);
    QCOMPARE(inserted.at(0).at(1).toInt(), 0);
    QCOMPARE(inserted.at(0).at(2).toInt(), 0);

    const QVariant data = model.data(model.index(0), Qt::UserRole);
    QCOMPARE(data.userType(), int(QMetaType::QObjectStar));
    QCOMPARE(data.value<QObject *>(), channel.data());
    QVERIFY(!model.data(model.index(0), Qt::DisplayRole).isValid());
    QCOMPARE(model.roleNames().value(Qt::UserRole), QByteArrayLiteral("modelData"));
    QCOMPARE(model.roleNames().value(Qt::DisplayRole), QByteArrayLiteral("display"));

    const QList<int> rows{-1, 1};
    for (int row : rows) {
        QVariant outside;
        QVERIFY(QMetaObject::invokeMethod(&model, "item", Q_RETURN_ARG(QVariant, outside), Q_ARG(int, row)));
        QVERIFY2(!outside.isValid(), qPrintable(QString::number(row)));
    }
    QVariant item;
    QVERIFY(QMetaObject::invokeMethod(&model, "item", Q_RETURN_ARG(QVariant, item), Q_ARG(int, 0)));
    QCOMPARE(item.userType(), qMetaTypeId<DMoxaChannel *>());
    QCOMPARE(item.value<DMoxaChannel *>(), channel.data());
    QVERIFY(!model.header(0).isValid());
}

void TstChannels::resetRefreshesLength()
{
    OLM_DMoxaChannel model;
    QSignalSpy changed(&model, &OLM_DMoxaChannel::changed);
    QMetaObject::invokeMethod(&model, [&model] {
        struct Reset : OLM_DMoxaChannel { using QAbstractItemModel::beginResetModel; using QAbstractItemModel::endResetModel; };
        static_cast<Reset &>(model).beginResetModel();
        static_cast<Reset &>(model).endResetModel();
    });
    QCOMPARE(changed.count(), 1);
}

void TstChannels::qmlReadsModelData()
{
    OLM_DMoxaChannel model;
    const QStringList ids{QStringLiteral("DI0"), QStringLiteral("DO0")};
    for (const QString &id : ids)
        model.append(DMoxaChannel::create(record(id, QVariantList{entry(QStringLiteral("type"), id.startsWith(QLatin1String("DO"))
                                                                                                         ? QStringLiteral("digitalOutput")
                                                                                                         : QStringLiteral("digitalInput"))})));

    QQmlEngine engine;
    QQmlComponent component(&engine);
    component.setData("import QtQml 2.15\nimport QtQml.Models 2.15\n"
                      "QtObject {\n"
                      "  property var channels\n"
                      "  property int length: channels ? channels.length : -1\n"
                      "  property int isEmpty: channels ? channels.isEmpty : -1\n"
                      "  property var seen: []\n"
                      "  property Instantiator list: Instantiator {\n"
                      "    model: channels\n"
                      "    delegate: QtObject { property string text: modelData.id + ':' + modelData.isSwitchable() }\n"
                      "    onObjectAdded: seen = seen.concat([object.text])\n"
                      "  }\n"
                      "}\n",
                      QUrl());
    QScopedPointer<QObject> root(component.create());
    QVERIFY2(root, qPrintable(component.errorString()));
    root->setProperty("channels", QVariant::fromValue(static_cast<QObject *>(&model)));

    QCOMPARE(root->property("length").toInt(), 2);
    QCOMPARE(root->property("isEmpty").toInt(), 0);
    QCOMPARE(root->property("seen").toStringList(), (QStringList{QStringLiteral("DI0:false"), QStringLiteral("DO0:true")}));

    model.append(DMoxaChannel::create({{QStringLiteral("id"), QStringLiteral("DO1")}}));
    QCOMPARE(root->property("length").toInt(), 3);
    QCOMPARE(root->property("seen").toStringList().last(), QStringLiteral("DO1:false"));
}

void TstChannels::itemSurvivesGarbageCollection()
{
    OLM_DMoxaChannel model;
    model.append(DMoxaChannel::create({{QStringLiteral("id"), QStringLiteral("DO7")}}));
    QPointer<DMoxaChannel> channel = model.at(0).data();

    QQmlEngine engine;
    QQmlComponent component(&engine);
    component.setData("import QtQml 2.15\n"
                      "QtObject {\n"
                      "  property var channels\n"
                      "  function touch() { var c = channels.item(0); var id = c.id; c = null; return id }\n"
                      "}\n",
                      QUrl());
    QScopedPointer<QObject> root(component.create());
    QVERIFY2(root, qPrintable(component.errorString()));
    root->setProperty("channels", QVariant::fromValue(static_cast<QObject *>(&model)));

    QVariant id;
    QVERIFY(QMetaObject::invokeMethod(root.data(), "touch", Q_RETURN_ARG(QVariant, id)));
    QCOMPARE(id.toString(), QStringLiteral("DO7"));
    QCOMPARE(QQmlEngine::objectOwnership(channel.data()), QQmlEngine::CppOwnership);

    root->setProperty("channels", QVariant());
    engine.collectGarbage();
    QCoreApplication::sendPostedEvents(nullptr, QEvent::DeferredDelete);
    QVERIFY(!channel.isNull());
    QCOMPARE(model.at(0).data(), channel.data());
}

QTEST_MAIN(TstChannels)
#include "tst_channels.moc"
