// zrui-cli against the real server (offscreen): exit codes, the session
// scripting, JSON output and the unattended demo.
#include "ServerLauncher.h"

#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>
#include <QProcess>
#include <QtTest>

class TestCli : public QObject
{
    Q_OBJECT

private slots:
    void initTestCase();
    void cleanupTestCase();

    void testExitCodes_data();
    void testExitCodes();
    void testJsonSteps();
    void testListTypeOneAnswersWithoutWindow();
    void testPinTimeout();
    void testUnattendedDemo();
    void testHelpPerCommand_data();
    void testHelpPerCommand();
    void testNoServer();

private:
    struct Run
    {
        int exitCode = -1;
        QString out;
        QString err;
    };
    Run cli(const QStringList &args, int timeoutMs = 30000);

    ServerLauncher server;
    QString cliPath;
};

void TestCli::initTestCase()
{
    cliPath = qEnvironmentVariable("ZRUI_CLI");
    QVERIFY2(QFile::exists(cliPath), "ZRUI_CLI must name the built zrui-cli");
    QVERIFY2(server.start(), qPrintable(server.errorString()));
    QVERIFY2(server.waitForListening(), server.output().constData());
}

void TestCli::cleanupTestCase() { server.stop(); }

TestCli::Run TestCli::cli(const QStringList &args, int timeoutMs)
{
    QProcess p;
    p.start(cliPath, QStringList{QStringLiteral("--server"), server.appName()} + args);
    Run r;
    if (!p.waitForFinished(timeoutMs)) {
        p.kill();
        p.waitForFinished();
        return r;
    }
    r.exitCode = p.exitStatus() == QProcess::NormalExit ? p.exitCode() : -2;
    r.out = QString::fromUtf8(p.readAllStandardOutput());
    r.err = QString::fromUtf8(p.readAllStandardError());
    return r;
}

void TestCli::testExitCodes_data()
{
    QTest::addColumn<QStringList>("args");
    QTest::addColumn<int>("exitCode");
    QTest::addColumn<QString>("lastLine");

    QTest::newRow("session begin end")
            << QStringList{"session", "begin", "end"} << 0 << "end -> ZRUI_OK";
    // Not allowed as the first request: response 3 and the connection is gone.
    QTest::newRow("state error") << QStringList{"session", "end"} << 4 << "end -> ZRUI_E_STATE";
    QTest::newRow("reserved 12 closes")
            << QStringList{"session", "begin", "op=12"} << 8 << "op=12 -> ZRUI_E_CLOSED";
    QTest::newRow("raw list selection")
            << QStringList{"session", "begin", "list-show=1:a\\nb", "list-wait", "op=11"} << 0
            << "op=11 -> ZRUI_OK response 0 datalen 4 data ff ff ff ff";
    QTest::newRow("pending pin") << QStringList{"session", "begin", "pin-show=0", "pin-get", "end"}
                                 << 0 << "end -> ZRUI_OK";
    QTest::newRow("unknown step") << QStringList{"session", "bogus"} << 2 << "";
    QTest::newRow("unknown command") << QStringList{"frobnicate"} << 2 << "";
    QTest::newRow("retry without count") << QStringList{"retry"} << 2 << "";
}

void TestCli::testExitCodes()
{
    QFETCH(QStringList, args);
    QFETCH(int, exitCode);
    QFETCH(QString, lastLine);
    const Run r = cli(args);
    QCOMPARE(r.exitCode, exitCode);
    if (!lastLine.isEmpty())
        QCOMPARE(r.out.trimmed().split('\n').last(), lastLine);
    else
        QVERIFY2(r.err.startsWith("zrui-cli: "), qPrintable(r.err));
}

void TestCli::testJsonSteps()
{
    // The type 1 answer is set by the GUI thread, so the first look may still
    // be "no result": wait for it, then look once more.
    const Run r
            = cli({"--json", "session", "begin", "list-show=1:x", "list-wait", "list-get", "end"});
    QCOMPARE(r.exitCode, 0);
    const QJsonObject doc = QJsonDocument::fromJson(r.out.toUtf8()).object();
    const QJsonArray steps = doc.value("steps").toArray();
    QCOMPARE(steps.size(), 5);
    QCOMPARE(steps.at(2).toObject().value("index").toInt(), -1);
    QCOMPARE(steps.at(3).toObject().value("request").toString(), QString("list-get"));
    QCOMPARE(steps.at(3).toObject().value("index").toInt(), -1);
    QCOMPARE(steps.at(3).toObject().value("result").toString(), QString("ZRUI_OK"));
    QCOMPARE(doc.value("exit").toInt(), 0);
}

void TestCli::testListTypeOneAnswersWithoutWindow()
{
    const Run r = cli({"list", "--type", "1", "A", "B"});
    QCOMPARE(r.exitCode, 0);
    QVERIFY2(r.out.contains("REQ_List_GetSel -> ZRUI_OK index -1\n"), qPrintable(r.out));
}

void TestCli::testPinTimeout()
{
    // Nobody answers offscreen: the deadline ends the wait with its own code.
    const Run r = cli({"pin", "verify", "--timeout", "0.5"});
    QCOMPARE(r.exitCode, 7);
    QVERIFY2(r.out.contains("REQ_PIN_GetPIN -> ZRUI_E_TIMEOUT"), qPrintable(r.out));
}

void TestCli::testUnattendedDemo()
{
    const Run r = cli({"demo", "--unattended"});
    QCOMPARE(r.exitCode, 0);
    QVERIFY2(r.out.contains("  REQ_List_GetSel -> ZRUI_OK index -1\n"), qPrintable(r.out));
    QVERIFY(r.out.contains("  REQ_Waiting_Show type=2 info=\"1=3\" -> ZRUI_OK\n"));
    QVERIFY(r.out.contains("  REQ_Waiting_Finish -> ZRUI_OK\n"));
    QVERIFY(r.out.endsWith("Demo finished.\n"));
}

void TestCli::testHelpPerCommand_data()
{
    QTest::addColumn<QString>("command");
    QTest::addColumn<QString>("mentions");
    QTest::newRow("pin") << "pin"
                         << "verify-admin";
    QTest::newRow("retry") << "retry"
                           << "--default-forbidden";
    QTest::newRow("message") << "message"
                             << "--title";
    QTest::newRow("list") << "list"
                          << "ENTRY...";
    QTest::newRow("wait") << "wait"
                          << "--seconds";
    QTest::newRow("session") << "session"
                             << "pin-wait[=SECONDS]";
    QTest::newRow("demo") << "demo"
                          << "--unattended";
}

void TestCli::testHelpPerCommand()
{
    QFETCH(QString, command);
    QFETCH(QString, mentions);
    const Run r = cli({command, "--help"});
    QCOMPARE(r.exitCode, 0);
    QVERIFY2(r.out.startsWith("Usage: zrui-cli [--server NAME] [--json] " + command),
             qPrintable(r.out));
    QVERIFY2(r.out.contains(mentions), qPrintable(r.out));
}

void TestCli::testNoServer()
{
    QProcess p;
    p.start(cliPath, {"--server", "NoSuchServerForTestCli", "session", "begin"});
    QVERIFY(p.waitForFinished(10000));
    QCOMPARE(p.exitCode(), 6);
    QVERIFY(p.readAllStandardOutput().contains("ZRUI_E_NOSERVER"));
}

QTEST_GUILESS_MAIN(TestCli)
#include "TestCli.moc"
