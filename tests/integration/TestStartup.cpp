#include "LogFile.h"
#include "ServerLauncher.h"

#include <QFile>
#include <QFileInfo>
#include <QtTest>

namespace {

// Every text a start-up step gives up with.
const QStringList failTexts{
        QStringLiteral("cannot find ZRUIConf.ini! exited"),
        QStringLiteral("LoadLib_ZRKAPI failed, exit"),
        QStringLiteral("LoadLib_Alg Failed!"),
        QStringLiteral("LoadLib_Aux Failed!"),
        QStringLiteral("AuxLoadKestrovaIni Failed!"),
        QStringLiteral("cannot find resources.rcc! exited"),
        QStringLiteral("Integrity Protect Failed!"),
};

bool flipByte(const QString &path, qint64 offset)
{
    QFile file(path);
    char c = 0;
    return file.open(QIODevice::ReadWrite) && file.seek(offset) && file.getChar(&c)
           && file.seek(offset) && file.putChar(char(c ^ 0x01));
}

QString tokenSimDirNoSlash()
{
    QString dir = qEnvironmentVariable("ZRUI_TOKENSIM_DIR");
    dir.chop(1);
    return dir;
}

// A sandbox with good copies of the resources in the working directory too.
bool prepareWithWorkResources(ServerLauncher &server)
{
    return server.prepare()
           && server.copyFile(server.binDir() + "/resources.rcc", "work/resources.rcc")
           && server.copyFile(server.binDir() + "/integrityprotect.ini",
                              "work/integrityprotect.ini");
}

} // namespace

// Every start-up failure of the real executable: exit status 0, exactly one
// warning line, no later step; a good start reaches listening.
class TestStartup : public QObject
{
    Q_OBJECT
private slots:
    void initTestCase();
    void init();
    void testFailures_data();
    void testFailures();
    void testValidStartListens();
    void testWorkingDirectoryConfigWins();
    void testWorkingDirectoryResourceIsChecked();
};

void TestStartup::initTestCase()
{
    if (!LogFile::clear())
        QSKIP("/tmp/uilog.txt exists and cannot be removed (another user's file)");
}

void TestStartup::init() { QVERIFY(LogFile::clear()); }

// Runs a prepared launcher to its end and checks the one warning line.
static void expectFailExit(ServerLauncher &server, const QString &warning,
                           const QString &absentLine)
{
    QVERIFY2(server.start(), qPrintable(server.errorString()));
    QVERIFY2(server.waitForExit(20000), "the process did not end by itself");
    const QByteArray output = server.output();
    QVERIFY2(server.exitStatus() == QProcess::NormalExit, output.constData());
    QVERIFY2(server.exitCode() == 0, output.constData());

    const QStringList messages = LogFile::messages();
    QCOMPARE(messages.count(warning), 1);
    for (const QString &other : failTexts) {
        if (other != warning)
            QVERIFY2(!messages.contains(other), qPrintable(other));
    }
    // Nothing is logged after the warning: no later step, no window, no socket.
    QCOMPARE(messages.last(), warning);
    if (!absentLine.isEmpty())
        QVERIFY2(!LogFile::contains(absentLine), qPrintable(absentLine));
    QVERIFY(!LogFile::contains(QStringLiteral("genPipeName:")));
    QVERIFY(!ServerLauncher::isListening(server.socketName()));
}

void TestStartup::testFailures_data()
{
    QTest::addColumn<QString>("scenario");
    QTest::addColumn<QString>("warning");
    QTest::addColumn<QString>("absentLine");

    QTest::newRow("no configuration file") << "noconfig"
                                           << "cannot find ZRUIConf.ini! exited"
                                           << "SAFEPATH Settings:";
    QTest::newRow("SAFEPATH without trailing slash") << "noslash"
                                                     << "LoadLib_ZRKAPI failed, exit"
                                                     << "resources.rcc:";
    QTest::newRow("algorithm library lacks its last entry point") << "nolastalg"
                                                                  << "LoadLib_Alg Failed!"
                                                                  << "resources.rcc:";
    QTest::newRow("auxiliary library gives no record") << "auxfail"
                                                       << "AuxLoadKestrovaIni Failed!"
                                                       << "resources.rcc:";
    QTest::newRow("one byte changed in resources.rcc") << "flipped"
                                                       << "Integrity Protect Failed!"
                                                       << "configuration: softkeyboard=";
    QTest::newRow("no resources.rcc anywhere") << "norcc"
                                               << "cannot find resources.rcc! exited"
                                               << "resources.rcc:";
}

void TestStartup::testFailures()
{
    QFETCH(QString, scenario);
    QFETCH(QString, warning);
    QFETCH(QString, absentLine);

    ServerLauncher server;
    if (scenario == "noconfig") {
        server.setConfigPlacement(ServerLauncher::ConfigNowhere);
    } else if (scenario == "noslash") {
        server.setSafePath(tokenSimDirNoSlash());
    } else if (scenario == "nolastalg") {
        server.setSafePath(ServerLauncher::buildDir() + "/tokenlib-variants/no-last-alg/");
    } else if (scenario == "auxfail") {
        server.setTokenSimIni("[token]\npresent=1\n[aux]\nfail=1\n");
    } else if (scenario == "norcc") {
        server.setCopyResources(false);
    }
    QVERIFY2(server.prepare(), qPrintable(server.errorString()));
    if (scenario == "flipped") {
        const QString rcc = server.binDir() + "/resources.rcc";
        QVERIFY(flipByte(rcc, QFileInfo(rcc).size() / 2));
    }
    expectFailExit(server, warning, absentLine);
}

void TestStartup::testValidStartListens()
{
    ServerLauncher server;
    QVERIFY2(server.start(), qPrintable(server.errorString()));
    QVERIFY2(server.waitForListening(20000), qPrintable(server.errorString()));
    QVERIFY(server.isRunning());

    QVERIFY(LogFile::waitForLine(QStringLiteral("genPipeName:")));
    for (const QString &text : failTexts)
        QVERIFY2(!LogFile::messages().contains(text), qPrintable(text));
    const QString binDir = QFileInfo(server.binDir()).canonicalFilePath();
    const QStringList messages = LogFile::messages();
    QVERIFY(messages.contains(QStringLiteral("resourcefile= \"%1/resources.rcc\"").arg(binDir)));
    QVERIFY(messages.contains(QStringLiteral("libraryBaseDir =  \"%1\"")
                                      .arg(qEnvironmentVariable("ZRUI_TOKENSIM_DIR"))));
    QVERIFY(messages.contains(QStringLiteral("resources.rcc: \"%1/\"").arg(binDir)));
    // The tests run with LANG=C.UTF-8: locale "C", whose file falls back to English.
    QVERIFY(messages.contains(QStringLiteral("locale= \"C\"")));
    QCOMPARE(LogFile::countExact(QStringLiteral("trans file= \":/uiserver.C.qm\"")), 1);
    QCOMPARE(LogFile::countExact(QStringLiteral("trans file= \":/uiserver.en.qm\"")), 1);
    server.stop();
    QVERIFY(!server.isRunning());
}

void TestStartup::testWorkingDirectoryConfigWins()
{
    ServerLauncher server;
    QVERIFY2(server.prepare(), qPrintable(server.errorString()));
    // A good configuration beside the executable, a failing one in the
    // working directory: the working directory wins.
    QVERIFY(server.writeFile("work/ZRUIConf.ini",
                             "SAFEPATH=" + tokenSimDirNoSlash().toUtf8() + "\n"));
    expectFailExit(server, QStringLiteral("LoadLib_ZRKAPI failed, exit"), QString());
    const QString workDir = QFileInfo(server.workDir()).canonicalFilePath();
    QVERIFY(LogFile::messages().contains(
            QStringLiteral("SAFEPATH Settings: \"ZRUIConf.ini\" \"%1/ZRUIConf.ini\"")
                    .arg(workDir)));
}

void TestStartup::testWorkingDirectoryResourceIsChecked()
{
    // A changed copy in the working directory fails, a good one passes,
    // whatever the copy beside the executable (the registered one) is.
    {
        ServerLauncher server;
        QVERIFY2(prepareWithWorkResources(server), qPrintable(server.errorString()));
        QVERIFY(flipByte(server.workDir() + "/resources.rcc", 10));
        expectFailExit(server, QStringLiteral("Integrity Protect Failed!"), QString());
        const QString workDir = QFileInfo(server.workDir()).canonicalFilePath();
        QVERIFY(LogFile::messages().contains(
                QStringLiteral("resources.rcc: \"%1/\"").arg(workDir)));
    }
    QVERIFY(LogFile::clear());
    {
        ServerLauncher server;
        QVERIFY2(prepareWithWorkResources(server), qPrintable(server.errorString()));
        const QString besideExe = server.binDir() + "/resources.rcc";
        QVERIFY(flipByte(besideExe, QFileInfo(besideExe).size() - 1));
        QVERIFY2(server.start(), qPrintable(server.errorString()));
        QVERIFY2(server.waitForListening(20000), qPrintable(server.errorString()));
        QVERIFY(!LogFile::messages().contains(QStringLiteral("Integrity Protect Failed!")));
        server.stop();
    }
}

QTEST_GUILESS_MAIN(TestStartup)
#include "TestStartup.moc"
