// zrui-cli and the client library against the real server (offscreen): exit
// codes, session scripting, JSON output, global options anywhere on the line,
// and "busy" within the deadline while another program holds the server.
#include "ServerLauncher.h"
#include "client/zrui_client.h"

#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>
#include <QtTest>

#include <memory>

class TestCli : public QObject
{
    Q_OBJECT

private slots:
    void initTestCase()
    {
        QVERIFY2(QFile::exists(qEnvironmentVariable("ZRUI_CLI")), "ZRUI_CLI names zrui-cli");
        QVERIFY2(server.start() && server.waitForListening(), server.output().constData());
    }
    void testRun_data();
    void testRun();
    void testJsonSteps();
    void testSecondProgramBusy_data();
    void testSecondProgramBusy();

private:
    // Exit code (-1: no normal end), stdout and stderr merged into out.
    static int cli(const QStringList &args, QByteArray *out)
    {
        QProcess p;
        p.setProcessChannelMode(QProcess::MergedChannels);
        p.start(qEnvironmentVariable("ZRUI_CLI"), args);
        const bool ended = p.waitForFinished(30000) && p.exitStatus() == QProcess::NormalExit;
        p.kill();
        p.waitForFinished();
        *out = p.readAll();
        return ended ? p.exitCode() : -1;
    }
    ServerLauncher server;
};

void TestCli::testRun_data()
{
    QTest::addColumn<QStringList>("args"); // "--server <app>" first unless the row names one
    QTest::addColumn<int>("exitCode");
    QTest::addColumn<QString>("output"); // must appear in the output
    const QString app = server.appName();
    const auto row = [](const char *name, const QStringList &args, int code, const QString &out) {
        QTest::newRow(name) << args << code << out;
    };
    row("session begin end", {"session", "begin", "end"}, 0, "end -> ZRUI_OK\n");
    // Not allowed as the first request: response 3, the connection gone.
    row("state error", {"session", "end"}, 4, "end -> ZRUI_E_STATE\n");
    row("reserved 12 closes", {"session", "begin", "op=12"}, 8, "op=12 -> ZRUI_E_CLOSED\n");
    row("raw list selection", {"session", "begin", "list-show=1:a\\nb", "list-wait", "op=11"}, 0,
        "op=11 -> ZRUI_OK response 0 datalen 4 data ff ff ff ff\n");
    row("pending pin", {"session", "begin", "pin-show=0", "pin-get", "end"}, 0, "end -> ZRUI_OK\n");
    row("list type 1 answers without a window", {"list", "--type", "1", "A", "B"}, 0,
        "REQ_List_GetSel -> ZRUI_OK index -1\n");
    // Nobody answers offscreen: the deadline ends the wait with its own code.
    row("pin time-out", {"pin", "verify", "--timeout", "0.5"}, 7,
        "REQ_PIN_GetPIN -> ZRUI_E_TIMEOUT");
    row("unattended demo", {"demo", "--unattended"}, 0, "  REQ_Waiting_Finish -> ZRUI_OK\n");
    row("unknown step", {"session", "bogus"}, 2, "zrui-cli: ");
    row("unknown command", {"frobnicate"}, 2, "zrui-cli: ");
    row("retry without count", {"retry"}, 2, "zrui-cli: ");
    row("help of a command", {"session", "--help"}, 0,
        "Usage: zrui-cli [--server NAME] [--json] session");
    row("no server", {"--server", "zrui-no-such-server", "session", "begin"}, 6, "ZRUI_E_NOSERVER");
    row("--version after a command", {"pin", "verify", "--version"}, 0, "zrui-cli 5.");
    row("globals after the command",
        {"message", "--json", "--text", "x", "--server", "zrui-no-such-server"}, 6, "\"exit\": 6");
    row("globals between the command's words",
        {"session", "--server=" + app, "begin", "--json", "end"}, 0, "\"request\": \"end\"");
    row("bad global --timeout", {"--timeout", "x", "message"}, 2, "bad --timeout");
}

void TestCli::testRun()
{
    QFETCH(QStringList, args);
    QFETCH(int, exitCode);
    QFETCH(QString, output);
    if (!args.join(' ').contains("--server"))
        args = QStringList{"--server", server.appName()} + args;
    QByteArray out;
    QCOMPARE(cli(args, &out), exitCode);
    QVERIFY2(out.contains(output.toUtf8()), out.constData());
}

void TestCli::testJsonSteps()
{
    // Type 1 is answered by the GUI thread: wait for the answer, then look once more.
    QByteArray out;
    QCOMPARE(cli({"--server", server.appName(), "--json", "session", "begin", "list-show=1:x",
                  "list-wait", "list-get", "end"},
                 &out),
             0);
    const QJsonObject doc = QJsonDocument::fromJson(out).object();
    const QJsonArray steps = doc.value("steps").toArray();
    QCOMPARE(steps.size(), 5);
    QCOMPARE(steps.at(2).toObject().value("index").toInt(), -1);
    QCOMPARE(steps.at(3).toObject().value("request").toString(), QString("list-get"));
    QCOMPARE(steps.at(3).toObject().value("index").toInt(), -1);
    QCOMPARE(steps.at(3).toObject().value("result").toString(), QString("ZRUI_OK"));
    QCOMPARE(doc.value("exit").toInt(), 0);
}

void TestCli::testSecondProgramBusy_data()
{
    QTest::addColumn<bool>("viaCli");
    QTest::newRow("library") << false;
    QTest::newRow("zrui-cli") << true;
}

void TestCli::testSecondProgramBusy()
{
    QFETCH(bool, viaCli);
    const QByteArray name = server.appName().toUtf8();
    zrui_conn *first = nullptr;
    QCOMPARE(zrui_open(name.constData(), &first), int(ZRUI_OK));
    // Closed however the test ends: a failure must not keep the server taken.
    std::unique_ptr<zrui_conn, void (*)(zrui_conn *)> guard(first, zrui_close);
    QCOMPARE(zrui_begin_session(first, 1), int(ZRUI_OK));
    if (viaCli) {
        QByteArray out;
        QCOMPARE(cli({"message", "--text", "PIN_Locked", "--timeout", "0.5", "--server",
                      server.appName()},
                     &out),
                 11);
        QVERIFY2(out.contains("busy with another program"), out.constData());
    } else {
        zrui_conn *second = nullptr;
        QCOMPARE(zrui_open_timeout(name.constData(), 500, &second), int(ZRUI_OK));
        QCOMPARE(zrui_begin_session(second, 1), int(ZRUI_E_BUSY));
        zrui_close(second);
    }
    // Once the first program is done, the next one is served at once.
    QCOMPARE(zrui_end_session(first), int(ZRUI_OK));
    zrui_close(guard.release());
    zrui_conn *next = nullptr;
    QCOMPARE(zrui_open_timeout(name.constData(), 10000, &next), int(ZRUI_OK));
    QCOMPARE(zrui_begin_session(next, 1), int(ZRUI_OK));
    QCOMPARE(zrui_end_session(next), int(ZRUI_OK));
    zrui_close(next);
}

QTEST_GUILESS_MAIN(TestCli)
#include "TestCli.moc"
