// A start-up failure still exits 0 after its one log line, and tells the
// person who started the program, on stderr, what to fix and where.
#include "LogFile.h"
#include "ServerLauncher.h"

#include <QtTest>

class TestStartupHints : public QObject
{
    Q_OBJECT

private slots:
    void init() { QVERIFY(LogFile::clear()); }
    void testFailureSaysWhatToFix_data();
    void testFailureSaysWhatToFix();
};

void TestStartupHints::testFailureSaysWhatToFix_data()
{
    QTest::addColumn<int>("fault");
    QTest::addColumn<QString>("logLine");
    QTest::addColumn<QString>("hint"); // %1: the bin directory, %2: the working directory
    QTest::newRow("no configuration")
            << 0 << "cannot find ZRUIConf.ini! exited"
            << "no configuration file at %2/ZRUIConf.ini or %1/ZRUIConf.ini";
    QTest::newRow("SAFEPATH without the libraries")
            << 1 << "LoadLib_ZRKAPI failed, exit"
            << "cannot load the token library /nonexistent/libzrkapi.so: set SAFEPATH in "
               "%1/ZRUIConf.ini";
    QTest::newRow("no resource file") << 2 << "cannot find resources.rcc! exited"
                                      << "no resource file at";
}

void TestStartupHints::testFailureSaysWhatToFix()
{
    QFETCH(int, fault);
    QFETCH(QString, logLine);
    QFETCH(QString, hint);
    ServerLauncher server;
    if (fault == 0)
        server.setConfigPlacement(ServerLauncher::ConfigNowhere);
    if (fault == 1)
        server.setSafePath(QStringLiteral("/nonexistent/"));
    if (fault == 2)
        server.setCopyResources(false);
    QVERIFY2(server.start(), qPrintable(server.errorString()));
    QVERIFY(server.waitForExit());
    QCOMPARE(server.exitCode(), 0);
    QCOMPARE(LogFile::countExact(logLine), 1);

    const QString err = QString::fromUtf8(server.output());
    QVERIFY2(err.contains(QStringLiteral("ZRUIServer: ")
                          + hint.arg(server.binDir(), QDir(server.workDir()).canonicalPath())),
             qPrintable(err));
    QCOMPARE(err.count(QStringLiteral("ZRUIServer: ")), 1); // one sentence
}

QTEST_GUILESS_MAIN(TestStartupHints)
#include "TestStartupHints.moc"
