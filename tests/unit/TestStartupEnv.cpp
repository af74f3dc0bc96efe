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

// Locale to translation file; configuration and resource lookup order.
class TestStartupEnv : public QObject
{
    Q_OBJECT
private slots:
    void initTestCase();
    void cleanupTestCase();
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

void TestStartupEnv::testTranslationFile_data()
{
    QTest::addColumn<QString>("locale");
    QTest::addColumn<QString>("tag");
    QTest::addColumn<QString>("fileTag");
    // Only en, zh_CN and zh_TW have a file; every other tag falls back to en.
    const char *const rows[][3] = {
            {"zh_CN", "zh_CN", "zh_CN"}, {"zh_HK", "zh_TW", "zh_TW"}, {"zh_TW", "zh_TW", "zh_TW"},
            {"zh_SG", "zh_TW", "zh_TW"}, {"zh", "zh_TW", "zh_TW"},    {"xx_zh", "zh_TW", "zh_TW"},
            {"ZH_CN", "ZH", "en"},       {"zh_cn", "zh_TW", "zh_TW"}, {"fr_FR", "fr", "en"},
            {"de_DE", "de", "en"},       {"en_US", "en", "en"},       {"C", "C", "en"},
            {"_US", "", "en"},           {"en__US", "en", "en"}};
    for (const auto &r : rows)
        QTest::newRow(r[0]) << QString::fromLatin1(r[0]) << QString::fromLatin1(r[1])
                            << QString::fromLatin1(r[2]);
}

void TestStartupEnv::testTranslationFile()
{
    QFETCH(QString, locale);
    QFETCH(QString, tag);
    QFETCH(QString, fileTag);
    QCOMPARE(translationTagForLocale(locale), tag);
    const QString file = QStringLiteral(":/uiserver.%1.qm").arg(fileTag);

    captured.clear();
    QtMessageHandler previous = qInstallMessageHandler(captureHandler);
    const QString chosen = chooseTranslationFile(locale);
    qInstallMessageHandler(previous);

    QCOMPARE(chosen, file);
    QVERIFY2(QFile::exists(chosen), qPrintable(chosen));
    const QStringList expected{QStringLiteral("trans file= \":/uiserver.%1.qm\"").arg(tag),
                               QStringLiteral("trans file= \"%1\"").arg(file)};
    QCOMPARE(captured, expected);
}

void TestStartupEnv::testLocateFiles()
{
    // The test executable lives in bin/, beside ZRUIConf.ini and resources.rcc.
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
