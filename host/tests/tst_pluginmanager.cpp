// SPDX-License-Identifier: MIT
// The plug-in manager on real plug-in files: what it loads and what it refuses, and why.
#include "dabstractplugin.h"
#include "logcapture.h"
#include "pluginmanager.h"

#include <QDir>
#include <QFile>
#include <QTemporaryDir>
#include <QtTest>

namespace {
const QUuid c_testDevice("{a3c1f2d4-6b7e-4f80-9c1d-2e3f4a5b6c7d}");
const QUuid c_scriptedDriver("{5c0a7e2e-4d1b-4b8e-9a43-1f2e3d4c5b6a}");
const QUuid c_e1212("{43ae4651-f855-42c1-81e2-c73130e79008}");

QString testPlugin(const char *name)
{
    return QDir(QStringLiteral(E1212_TEST_PLUGIN_DIR)).filePath(QStringLiteral("lib%1.so").arg(QLatin1String(name)));
}
QString refusedPlugin(const char *name)
{
    return QDir(QStringLiteral(E1212_REFUSED_PLUGIN_DIR)).filePath(QStringLiteral("lib%1.so").arg(QLatin1String(name)));
}
} // namespace

class TstPluginManager : public QObject
{
    Q_OBJECT
private slots:
    void scanLoadsDevicesAndDrivers()
    {
        PluginManager manager;
        LogCapture log;
        const int loaded = manager.scan({QStringLiteral(E1212_PLUGIN_DIR), QStringLiteral(E1212_TEST_PLUGIN_DIR),
                                         QStringLiteral("/nonexistent/e1212")});
        QCOMPARE(loaded, manager.plugins().size());
        QVERIFY(loaded >= 3);
        QVERIFY(manager.refusals().isEmpty());
        DAbstractPlugin *device = manager.plugin(c_e1212);
        QVERIFY(device);
        QCOMPARE(device->pluginName(), QStringLiteral("Device Moxa IoLogic E1212"));
        QVERIFY(manager.plugin(c_testDevice));
        QVERIFY(manager.drivers().contains(manager.plugin(c_scriptedDriver)));
        QVERIFY(!manager.drivers().contains(device));
        QCOMPARE(manager.fileOf(c_testDevice), QFileInfo(testPlugin("testdevice")).canonicalFilePath());
        QCOMPARE(manager.scannedDirs().size(), 2);
        // A second scan of the same folders loads nothing new and refuses nothing.
        QCOMPARE(manager.scan({QStringLiteral(E1212_TEST_PLUGIN_DIR)}), 0);
        QVERIFY(manager.refusals().isEmpty());
    }

    void refusals_data()
    {
        QTest::addColumn<QString>("file");
        QTest::addColumn<QString>("reason");
        QTest::newRow("not a plug-in") << QString() << QStringLiteral("not a Qt plug-in (no plug-in metadata)");
        QTest::newRow("foreign id") << refusedPlugin("foreignplugin")
                                    << QStringLiteral("foreign interface id \"com.example.otherapp.ForeignPlugin\" (expected org.e1212bench.host.plugin.<ClassName>)");
        QTest::newRow("duplicate UUID") << refusedPlugin("testdevice_copy")
                                        << QStringLiteral("its UUID {a3c1f2d4-6b7e-4f80-9c1d-2e3f4a5b6c7d} is already loaded from ")
                                               + QFileInfo(testPlugin("testdevice")).canonicalFilePath();
    }

    void refusals()
    {
        QFETCH(QString, file);
        QFETCH(QString, reason);
        QTemporaryDir dir;
        if (file.isEmpty()) {
            file = dir.filePath(QStringLiteral("libgarbage.so"));
            QFile garbage(file);
            QVERIFY(garbage.open(QIODevice::WriteOnly));
            garbage.write("this is not a shared library\n");
        }
        PluginManager manager;
        QString error;
        QVERIFY2(manager.load(testPlugin("testdevice"), &error), qPrintable(error));
        const int loaded = manager.plugins().size();

        LogCapture log;
        QVERIFY(!manager.load(file, &error));
        const QString path = QFileInfo(file).exists() ? QFileInfo(file).canonicalFilePath() : file;
        QCOMPARE(error, QStringLiteral("plug-in %1 refused: %2").arg(path, reason));
        QCOMPARE(manager.refusals(), QStringList{error});
        QCOMPARE(log.messages().size(), 1);
        QCOMPARE(log.messages().first().type, QtWarningMsg);
        QCOMPARE(log.messages().first().category, QStringLiteral("e1212.host"));
        QCOMPARE(log.messages().first().text, error);
        QCOMPARE(manager.plugins().size(), loaded);
        QCOMPARE(manager.plugin(c_testDevice)->pluginName(), QStringLiteral("Test device"));
    }

    void scanReportsEachRefusedFile()
    {
        PluginManager manager;
        LogCapture log;
        manager.scan({QStringLiteral(E1212_TEST_PLUGIN_DIR), QStringLiteral(E1212_REFUSED_PLUGIN_DIR)});
        QCOMPARE(manager.refusals().size(), 2);
        QVERIFY(manager.refusals().at(0).contains(QStringLiteral("libforeignplugin.so refused: foreign interface id")));
        QVERIFY(manager.refusals().at(1).contains(QStringLiteral("libtestdevice_copy.so refused: its UUID")));
        QVERIFY(manager.plugin(c_testDevice));
    }
};

QTEST_GUILESS_MAIN(TstPluginManager)
#include "tst_pluginmanager.moc"
