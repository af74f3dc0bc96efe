// zrui-cli against the real server (offscreen): exit codes and output, global
// options anywhere on the line, "busy" while another program holds the server.
#include "ServerLauncher.h"
#include "client/zrui_client.h"

#include <QtTest>

class TestCli : public QObject
{
    Q_OBJECT

private slots:
    void initTestCase()
    {
        QVERIFY2(server.start() && server.waitForListening(), qPrintable(server.errorString()));
    }
    void testRun_data();
    void testRun();

private:
    ServerLauncher server;
};

void TestCli::testRun_data()
{
    QTest::addColumn<QStringList>("args"); // "--server <app>" first unless the row names one
    QTest::addColumn<int>("exitCode");
    QTest::addColumn<QString>("output"); // a part of stdout and stderr
    QTest::addColumn<bool>("busy"); // another program holds a session meanwhile
    const auto row = [](const char *name, const QStringList &args, int code, const QString &out,
                        bool busy = false) { QTest::newRow(name) << args << code << out << busy; };
    const QString app = server.appName(), none = "zrui-no-such-server";
    row("session begin end", {"session", "begin", "end"}, 0, "end -> ZRUI_OK\n");
    // Not allowed as the first request: response 3, the connection gone.
    row("state error", {"session", "end"}, 4, "end -> ZRUI_E_STATE\n");
    row("reserved 12 closes", {"session", "begin", "op=12"}, 8, "op=12 -> ZRUI_E_CLOSED\n");
    // Type 1 is answered by the GUI thread: wait for it, then ask raw.
    row("raw list selection", {"session", "begin", "list-show=1:a\\nb", "list-wait", "op=11"}, 0,
        "op=11 -> ZRUI_OK response 0 datalen 4 data ff ff ff ff\n");
    row("list type 1", {"list", "--type", "1", "A", "B"}, 0, "REQ_List_GetSel -> ZRUI_OK index -1");
    // Nobody answers offscreen: the deadline ends the wait with its own code.
    row("pin time-out", {"pin", "verify", "--timeout", "0.5"}, 7,
        "REQ_PIN_GetPIN -> ZRUI_E_TIMEOUT");
    row("unattended demo", {"demo", "--unattended"}, 0, "  REQ_Waiting_Finish -> ZRUI_OK\n");
    row("busy", {"message", "--text", "PIN_Locked", "--timeout", "0.5"}, 11,
        "busy with another program", true);
    row("unknown step", {"session", "bogus"}, 2, "zrui-cli: ");
    row("unknown command", {"frobnicate"}, 2, "zrui-cli: ");
    row("retry without count", {"retry"}, 2, "zrui-cli: ");
    row("bad global --timeout", {"--timeout", "x", "message"}, 2, "bad --timeout");
    row("help of a command", {"session", "--help"}, 0,
        "Usage: zrui-cli [--server NAME] [--json] session");
    row("--version after a command", {"pin", "verify", "--version"}, 0, "zrui-cli 5.");
    row("globals after the command, no server",
        {"message", "--json", "--text", "x", "--server", none}, 6, "\"exit\": 6");
    row("globals between the command's words",
        {"session", "--server=" + app, "begin", "list-show=1:x", "--json", "list-wait", "end"}, 0,
        "\"index\": -1,\n            \"request\": \"list-wait\"");
}

void TestCli::testRun()
{
    QFETCH(QStringList, args);
    QFETCH(int, exitCode);
    QFETCH(QString, output);
    QFETCH(bool, busy);
    zrui_conn *other = nullptr;
    if (busy) {
        QCOMPARE(zrui_open(qPrintable(server.appName()), &other), int(ZRUI_OK));
        QCOMPARE(zrui_begin_session(other, 1), int(ZRUI_OK));
    }
    QProcess cli;
    cli.setProcessChannelMode(QProcess::MergedChannels);
    if (!args.join(' ').contains("--server"))
        args = QStringList{"--server", server.appName()} + args;
    cli.start(qEnvironmentVariable("ZRUI_CLI"), args);
    const bool ended = cli.waitForFinished(30000) && cli.exitStatus() == QProcess::NormalExit;
    zrui_close(other); // the rows after this one are served again
    const QByteArray out = cli.readAll();
    QVERIFY2(ended && cli.exitCode() == exitCode, out.constData());
    QVERIFY2(out.contains(output.toUtf8()), out.constData());
}

QTEST_GUILESS_MAIN(TestCli)
#include "TestCli.moc"
