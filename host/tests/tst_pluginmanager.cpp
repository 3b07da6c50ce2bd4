// SPDX-License-Identifier: MIT
// The plug-in manager on real plug-in files: what it loads and what it refuses, and why.
#include "dabstractplugin.h"
#include "deviceconfig.h"
#include "logcapture.h"
#include "pluginmanager.h"

#include <QTemporaryDir>
#include <QtTest>

namespace {
const QUuid c_scriptedDriver("{5c0a7e2e-4d1b-4b8e-9a43-1f2e3d4c5b6a}");
const QString c_driverFile = QFileInfo(QStringLiteral(E1212_TEST_PLUGIN_DIR "/libscripteddriver.so")).canonicalFilePath();
} // namespace

class TstPluginManager : public QObject
{
    Q_OBJECT
private slots:
    void scan()
    {
        PluginManager manager;
        QCOMPARE(manager.scan({QStringLiteral(E1212_PLUGIN_DIR), QStringLiteral(E1212_TEST_PLUGIN_DIR), QStringLiteral("/nonexistent")}), 3);
        QCOMPARE(manager.scannedDirs().size(), 2);
        DAbstractPlugin *device = manager.plugin(DeviceConfig::defaultPluginUuid());
        QVERIFY(device && !manager.drivers().contains(device));
        QCOMPARE(manager.drivers().size(), 2);
        QVERIFY(manager.drivers().contains(manager.plugin(c_scriptedDriver)));
        QCOMPARE(manager.fileOf(c_scriptedDriver), c_driverFile);
        QCOMPARE(manager.scan({QStringLiteral(E1212_TEST_PLUGIN_DIR)}), 0);
        QVERIFY(manager.refusals().isEmpty());
    }

    void refusals_data()
    {
        QTest::addColumn<QString>("file");
        QTest::addColumn<QString>("reason");
        QTest::newRow("no file") << QStringLiteral("/nonexistent/libnothing.so") << QStringLiteral("no such file");
        QTest::newRow("not a plug-in") << QStringLiteral("libgarbage.so") << QStringLiteral("not a Qt plug-in (no plug-in metadata)");
        QTest::newRow("foreign id") << QStringLiteral(E1212_REFUSED_PLUGIN_DIR "/libforeignplugin.so")
                                    << QStringLiteral("foreign interface id \"com.example.otherapp.ForeignPlugin\" (expected org.e1212bench.host.plugin.<ClassName>)");
        QTest::newRow("duplicate UUID") << QStringLiteral("libcopy.so")
                                        << QStringLiteral("its UUID {5c0a7e2e-4d1b-4b8e-9a43-1f2e3d4c5b6a} is already loaded from ") + c_driverFile;
    }

    // A refused file is reported once (returned, kept, logged) and changes nothing loaded.
    void refusals()
    {
        QFETCH(QString, file);
        QFETCH(QString, reason);
        QTemporaryDir dir;
        QFile garbage(dir.filePath(file));
        if (file == QLatin1String("libgarbage.so"))
            QVERIFY(garbage.open(QIODevice::WriteOnly) && garbage.write("not a library") && garbage.flush());
        if (file == QLatin1String("libcopy.so"))
            QVERIFY(QFile::copy(c_driverFile, garbage.fileName()));
        if (garbage.exists())
            file = garbage.fileName();
        PluginManager manager;
        QString error;
        QVERIFY(manager.load(c_driverFile, &error));
        LogCapture log;
        QVERIFY(!manager.load(file, &error));
        const QString path = QFileInfo::exists(file) ? QFileInfo(file).canonicalFilePath() : file;
        QCOMPARE(error, QStringLiteral("plug-in %1 refused: %2").arg(path, reason));
        QCOMPARE(manager.refusals(), QStringList{error});
        QCOMPARE(log.messages().size(), 1);
        QCOMPARE(log.messages().first().category + log.messages().first().text, QStringLiteral("e1212.host") + error);
        QCOMPARE(manager.plugins().size(), 1);
        QCOMPARE(manager.fileOf(c_scriptedDriver), c_driverFile);
    }
};

QTEST_GUILESS_MAIN(TstPluginManager)
#include "tst_pluginmanager.moc"
