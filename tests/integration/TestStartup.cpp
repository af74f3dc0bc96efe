// Start-up of the real executable with the stand-in token stack: every
// failure exits 0 after exactly one warning line and no later step, and tells
// the person who started it on stderr what to fix; a good start listens.
#include "LogFile.h"
#include "ServerLauncher.h"

#include <QFile>
#include <QFileInfo>
#include <QtTest>

namespace {

const QStringList failTexts{"cannot find ZRUIConf.ini! exited",
                            "LoadLib_ZRKAPI failed, exit",
                            "LoadLib_Alg Failed!",
                            "LoadLib_Aux Failed!",
                            "AuxLoadKestrovaIni Failed!",
                            "cannot find resources.rcc! exited",
                            "Integrity Protect Failed!"};

bool flipByte(const QString &path, qint64 offset) // offset < 0: from the end
{
    QFile file(path);
    char c = 0;
    offset = offset < 0 ? file.size() + offset : offset;
    return file.open(QIODevice::ReadWrite) && file.seek(offset) && file.getChar(&c)
           && file.seek(offset) && file.putChar(char(c ^ 0x01));
}

QString canonical(const QString &dir) { return QFileInfo(dir).canonicalFilePath(); }

QString fill(QString text, const ServerLauncher &s) // %1 bin, %2 working directory
{
    return text.replace("%1", s.binDir()).replace("%2", canonical(s.workDir()));
}

} // namespace

class TestStartup : public QObject
{
    Q_OBJECT
private slots:
    void init() { QVERIFY(LogFile::clear()); }
    void testFailures_data();
    void testFailures();
    void testValidStartListens();
    void testWorkingDirectoryResourceWins();
};

void TestStartup::testFailures_data()
{
    QTest::addColumn<QString>("scenario");
    QTest::addColumn<QString>("warning");
    QTest::addColumn<QString>("line"); // absent, or with "+" present; %1 bin, %2 working dir
    QTest::addColumn<QString>("hint"); // on stderr after "ZRUIServer: "; %1 bin, %2 working dir
    QTest::newRow("no configuration file")
            << "noconfig"
            << "cannot find ZRUIConf.ini! exited"
            << "SAFEPATH Settings:"
            << "no configuration file at %2/ZRUIConf.ini or %1/ZRUIConf.ini";
    QTest::newRow("SAFEPATH without the libraries")
            << "nolibs"
            << "LoadLib_ZRKAPI failed, exit"
            << "resources.rcc:"
            << "cannot load the token library /nonexistent/libzrkapi.so: set SAFEPATH in "
               "%1/ZRUIConf.ini";
    QTest::newRow("SAFEPATH without trailing slash") << "noslash"
                                                     << "LoadLib_ZRKAPI failed, exit"
                                                     << "resources.rcc:" << QString();
    // The working directory's configuration wins over the one beside the executable.
    QTest::newRow("failing configuration in the working directory")
            << "workconfig"
            << "LoadLib_ZRKAPI failed, exit"
            << "+SAFEPATH Settings: \"ZRUIConf.ini\" \"%2/ZRUIConf.ini\"" << QString();
    QTest::newRow("algorithm library lacks its last entry point") << "nolastalg"
                                                                  << "LoadLib_Alg Failed!"
                                                                  << "resources.rcc:" << QString();
    QTest::newRow("auxiliary library gives no record") << "auxfail"
                                                       << "AuxLoadKestrovaIni Failed!"
                                                       << "resources.rcc:" << QString();
    QTest::newRow("one byte changed in resources.rcc")
            << "flipped"
            << "Integrity Protect Failed!"
            << "configuration: softkeyboard=" << QString();
    // A changed copy in the working directory is checked, not the registered one.
    QTest::newRow("one byte changed in the working directory's resources.rcc")
            << "flippedwork"
            << "Integrity Protect Failed!"
            << "+resources.rcc: \"%2/\"" << QString();
    QTest::newRow("no resources.rcc anywhere") << "norcc"
                                               << "cannot find resources.rcc! exited"
                                               << "resources.rcc:"
                                               << "no resource file at";
}

void TestStartup::testFailures()
{
    QFETCH(QString, scenario);
    QFETCH(QString, warning);
    QFETCH(QString, line);
    QFETCH(QString, hint);
    QString noSlash = qEnvironmentVariable("ZRUI_TOKENSIM_DIR");
    noSlash.chop(1);
    ServerLauncher server;
    if (scenario == "noconfig")
        server.setSafePath(QString());
    else if (scenario == "nolibs")
        server.setSafePath(QStringLiteral("/nonexistent/"));
    else if (scenario == "noslash")
        server.setSafePath(noSlash);
    else if (scenario == "nolastalg")
        server.setSafePath(ServerLauncher::buildDir() + "/tokenlib-variants/no-last-alg/");
    else if (scenario == "auxfail")
        server.setTokenSimIni("[token]\npresent=1\n[aux]\nfail=1\n");
    server.setCopyResources(scenario != "norcc");
    QVERIFY2(server.prepare(), qPrintable(server.errorString()));
    const QString rcc = server.binDir() + "/resources.rcc";
    if (scenario == "flipped")
        QVERIFY(flipByte(rcc, QFileInfo(rcc).size() / 2));
    if (scenario == "workconfig")
        QVERIFY(server.writeFile("work/ZRUIConf.ini", "SAFEPATH=" + noSlash.toUtf8() + "\n"));
    if (scenario == "flippedwork") {
        QVERIFY(server.copyFile(rcc, "work/resources.rcc"));
        QVERIFY(server.copyFile(server.binDir() + "/integrityprotect.ini",
                                "work/integrityprotect.ini"));
        QVERIFY(flipByte(server.workDir() + "/resources.rcc", 10));
    }

    QVERIFY2(server.start(), qPrintable(server.errorString()));
    QVERIFY2(server.waitForExit(20000), "the process did not end by itself");
    const QString err = QString::fromUtf8(server.output());
    QVERIFY2(server.exitStatus() == QProcess::NormalExit && server.exitCode() == 0,
             qPrintable(err));
    const QStringList messages = LogFile::messages();
    QCOMPARE(messages.count(warning), 1);
    for (const QString &other : failTexts)
        QVERIFY2(other == warning || !messages.contains(other), qPrintable(other));
    // Nothing after the warning: no later step, no window, no socket.
    QCOMPARE(messages.last(), warning);
    QVERIFY(!ServerLauncher::isListening(server.socketName()));
    if (line.startsWith('+'))
        QVERIFY2(messages.contains(fill(line.mid(1), server)), qPrintable(line));
    else
        QVERIFY2(messages.filter(line).isEmpty() && messages.filter("genPipeName:").isEmpty(),
                 qPrintable(line));
    if (!hint.isEmpty()) {
        QVERIFY2(err.contains("ZRUIServer: " + fill(hint, server)), qPrintable(err));
        QCOMPARE(err.count(QStringLiteral("ZRUIServer: ")), 1); // one sentence
    }
}

void TestStartup::testValidStartListens()
{
    ServerLauncher server;
    QVERIFY2(server.start() && server.waitForListening(20000), qPrintable(server.errorString()));
    QVERIFY(LogFile::waitForLine(QStringLiteral("genPipeName:")));
    const QStringList messages = LogFile::messages();
    for (const QString &text : failTexts)
        QVERIFY2(!messages.contains(text), qPrintable(text));
    const QString bin = canonical(server.binDir());
    QVERIFY(messages.contains(QStringLiteral("resourcefile= \"%1/resources.rcc\"").arg(bin)));
    QVERIFY(messages.contains(QStringLiteral("libraryBaseDir =  \"%1\"")
                                      .arg(qEnvironmentVariable("ZRUI_TOKENSIM_DIR"))));
    QVERIFY(messages.contains(QStringLiteral("resources.rcc: \"%1/\"").arg(bin)));
    // LANG=C.UTF-8: locale "C", whose file falls back to English.
    QVERIFY(messages.contains(QStringLiteral("locale= \"C\"")));
    QCOMPARE(messages.count(QStringLiteral("trans file= \":/uiserver.C.qm\"")), 1);
    QCOMPARE(messages.count(QStringLiteral("trans file= \":/uiserver.en.qm\"")), 1);
}

// A good copy in the working directory passes, whatever the one beside the executable is.
void TestStartup::testWorkingDirectoryResourceWins()
{
    ServerLauncher server;
    QVERIFY2(server.prepare(), qPrintable(server.errorString()));
    for (const QString file : {"/resources.rcc", "/integrityprotect.ini"})
        QVERIFY(server.copyFile(server.binDir() + file, "work" + file));
    QVERIFY(flipByte(server.binDir() + "/resources.rcc", -1));
    QVERIFY2(server.start() && server.waitForListening(20000), qPrintable(server.errorString()));
    QVERIFY(!LogFile::contains(QStringLiteral("Integrity Protect Failed!")));
}

QTEST_GUILESS_MAIN(TestStartup)
#include "TestStartup.moc"
