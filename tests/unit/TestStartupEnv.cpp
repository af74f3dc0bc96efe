#include "app/StartupEnv.h"

#include <QDir>
#include <QFile>
#include <QProcessEnvironment>
#include <QResource>
#include <QTemporaryDir>
#include <QtTest>

namespace {
QStringList captured;

void captureHandler(QtMsgType, const QMessageLogContext &, const QString &message)
{
    captured << message;
}
} // namespace

/*
 * Locale to translation file, and where the configuration and resource
 * files are looked up (working directory first).
 */
class TestStartupEnv : public QObject
{
    Q_OBJECT
private slots:
    void initTestCase();
    void cleanupTestCase();
    void testTranslationTag_data();
    void testTranslationTag();
    void testTranslationFile_data();
    void testTranslationFile();
    void testLocateFiles();

private:
    QString resourceFile;
};

void TestStartupEnv::initTestCase()
{
    resourceFile
            = QProcessEnvironment::systemEnvironment().value("ZRUI_BIN_DIR") + "/resources.rcc";
    QVERIFY2(QResource::registerResource(resourceFile, QString()), qPrintable(resourceFile));
}

void TestStartupEnv::cleanupTestCase() { QResource::unregisterResource(resourceFile, QString()); }

void TestStartupEnv::testTranslationTag_data()
{
    QTest::addColumn<QString>("locale");
    QTest::addColumn<QString>("tag");

    QTest::newRow("zh_CN") << "zh_CN"
                           << "zh_CN";
    QTest::newRow("zh_HK") << "zh_HK"
                           << "zh_TW";
    QTest::newRow("zh_TW") << "zh_TW"
                           << "zh_TW";
    QTest::newRow("zh_SG") << "zh_SG"
                           << "zh_TW";
    QTest::newRow("zh alone") << "zh"
                              << "zh_TW";
    QTest::newRow("zh anywhere") << "xx_zh"
                                 << "zh_TW";
    QTest::newRow("upper-case ZH is no zh") << "ZH_CN"
                                            << "ZH";
    QTest::newRow("zh_cn differs from zh_CN") << "zh_cn"
                                              << "zh_TW";
    QTest::newRow("fr_FR") << "fr_FR"
                           << "fr";
    QTest::newRow("en_US") << "en_US"
                           << "en";
    QTest::newRow("de_DE") << "de_DE"
                           << "de";
    QTest::newRow("C") << "C"
                       << "C";
    QTest::newRow("empty first part") << "_US"
                                      << "";
    QTest::newRow("double underscore") << "en__US"
                                       << "en";
}

void TestStartupEnv::testTranslationTag()
{
    QFETCH(QString, locale);
    QFETCH(QString, tag);
    QCOMPARE(translationTagForLocale(locale), tag);
}

void TestStartupEnv::testTranslationFile_data()
{
    QTest::addColumn<QString>("locale");
    QTest::addColumn<QString>("firstLine");
    QTest::addColumn<QString>("file");

    QTest::newRow("zh_CN") << "zh_CN"
                           << R"(trans file= ":/uiserver.zh_CN.qm")"
                           << ":/uiserver.zh_CN.qm";
    QTest::newRow("zh_HK") << "zh_HK"
                           << R"(trans file= ":/uiserver.zh_TW.qm")"
                           << ":/uiserver.zh_TW.qm";
    QTest::newRow("zh_TW") << "zh_TW"
                           << R"(trans file= ":/uiserver.zh_TW.qm")"
                           << ":/uiserver.zh_TW.qm";
    QTest::newRow("zh_SG") << "zh_SG"
                           << R"(trans file= ":/uiserver.zh_TW.qm")"
                           << ":/uiserver.zh_TW.qm";
    QTest::newRow("fr_FR") << "fr_FR"
                           << R"(trans file= ":/uiserver.fr.qm")"
                           << ":/uiserver.en.qm";
    QTest::newRow("en_US") << "en_US"
                           << R"(trans file= ":/uiserver.en.qm")"
                           << ":/uiserver.en.qm";
    QTest::newRow("C") << "C"
                       << R"(trans file= ":/uiserver.C.qm")"
                       << ":/uiserver.en.qm";
}

void TestStartupEnv::testTranslationFile()
{
    QFETCH(QString, locale);
    QFETCH(QString, firstLine);
    QFETCH(QString, file);

    captured.clear();
    QtMessageHandler previous = qInstallMessageHandler(captureHandler);
    const QString chosen = chooseTranslationFile(locale);
    qInstallMessageHandler(previous);

    QCOMPARE(chosen, file);
    QVERIFY2(QFile::exists(chosen), qPrintable(chosen));
    const QStringList expected{firstLine, QStringLiteral("trans file= \"%1\"").arg(file)};
    QCOMPARE(captured, expected);
}

void TestStartupEnv::testLocateFiles()
{
    // Beside the test executable is the build's bin/ directory, which holds
    // the development ZRUIConf.ini and resources.rcc.
    const QString besideConf = QCoreApplication::applicationDirPath() + "/ZRUIConf.ini";
    const QString besideRcc = QCoreApplication::applicationDirPath() + "/resources.rcc";
    QVERIFY2(QFile::exists(besideConf), qPrintable(besideConf));
    QVERIFY2(QFile::exists(besideRcc), qPrintable(besideRcc));

    const QString savedCwd = QDir::currentPath();
    QTemporaryDir work;
    QVERIFY(work.isValid());
    QVERIFY(QDir::setCurrent(work.path()));

    QCOMPARE(locateConfigFile(), besideConf);
    QCOMPARE(locateResourceFile(), besideRcc);

    QFile conf(work.filePath("ZRUIConf.ini"));
    QVERIFY(conf.open(QIODevice::WriteOnly));
    conf.close();
    QCOMPARE(locateConfigFile(), QStringLiteral("ZRUIConf.ini"));
    QCOMPARE(locateResourceFile(), besideRcc);

    QFile rcc(work.filePath("resources.rcc"));
    QVERIFY(rcc.open(QIODevice::WriteOnly));
    rcc.close();
    QCOMPARE(locateResourceFile(), QStringLiteral("resources.rcc"));

    QVERIFY(QDir::setCurrent(savedCwd));
}

QTEST_GUILESS_MAIN(TestStartupEnv)
#include "TestStartupEnv.moc"
