// A second program while the server serves a first one: the library and
// zrui-cli report "busy" within their deadline instead of waiting, and
// zrui-cli takes its global options anywhere on the line.
#include "ServerLauncher.h"
#include "client/zrui_client.h"

#include <QProcess>
#include <QtTest>

#include <memory>

class TestBusyServer : public QObject
{
    Q_OBJECT

private slots:
    void initTestCase();
    void cleanupTestCase() { server.stop(); }
    void testSecondProgram_data();
    void testSecondProgram();
    void testCliGlobalOptions_data();
    void testCliGlobalOptions();

private:
    int runCli(const QStringList &args, QByteArray *out);
    ServerLauncher server;
};

void TestBusyServer::initTestCase()
{
    QVERIFY2(server.start(), qPrintable(server.errorString()));
    QVERIFY2(server.waitForListening(), server.output().constData());
}

int TestBusyServer::runCli(const QStringList &args, QByteArray *out)
{
    QProcess p;
    p.setProcessChannelMode(QProcess::MergedChannels);
    p.start(qEnvironmentVariable("ZRUI_CLI"), args);
    if (!p.waitForFinished(30000)) {
        p.kill();
        p.waitForFinished();
        return -1;
    }
    *out = p.readAll();
    return p.exitCode();
}

void TestBusyServer::testSecondProgram_data()
{
    QTest::addColumn<bool>("viaCli");
    QTest::newRow("library") << false;
    QTest::newRow("zrui-cli") << true;
}

void TestBusyServer::testSecondProgram()
{
    QFETCH(bool, viaCli);
    const QByteArray name = server.appName().toUtf8();
    zrui_conn *first = nullptr;
    QCOMPARE(zrui_open(name.constData(), &first), int(ZRUI_OK));
    // Closed however the test ends, so that a failure does not keep the
    // server taken for the tests after it.
    std::unique_ptr<zrui_conn, void (*)(zrui_conn *)> guard(first, zrui_close);
    QCOMPARE(zrui_begin_session(first, 1), int(ZRUI_OK));

    if (viaCli) {
        QByteArray out;
        const int rc = runCli({QStringLiteral("message"), QStringLiteral("--text"),
                               QStringLiteral("PIN_Locked"), QStringLiteral("--timeout"),
                               QStringLiteral("0.5"), QStringLiteral("--server"), server.appName()},
                              &out);
        QVERIFY2(rc == 11, out.constData());
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

void TestBusyServer::testCliGlobalOptions_data()
{
    QTest::addColumn<QStringList>("args");
    QTest::addColumn<int>("exitCode");
    QTest::addColumn<QByteArray>("output");
    const QString app = server.appName();
    QTest::newRow("--version alone") << QStringList{"--version"} << 0 << QByteArray("zrui-cli 5.");
    QTest::newRow("--version after a command")
            << QStringList{"pin", "verify", "--version"} << 0 << QByteArray("zrui-cli 5.");
    QTest::newRow("globals after the command")
            << QStringList{"message", "--json", "--text", "x", "--server", "zrui-no-such-server"}
            << 6 << QByteArray("\"exit\": 6");
    QTest::newRow("globals between the command's words")
            << QStringList{"session", "--server=" + app, "begin", "--json", "end"} << 0
            << QByteArray("\"request\": \"end\"");
    QTest::newRow("bad global --timeout")
            << QStringList{"--timeout", "x", "message"} << 2 << QByteArray("bad --timeout");
}

void TestBusyServer::testCliGlobalOptions()
{
    QFETCH(QStringList, args);
    QFETCH(int, exitCode);
    QFETCH(QByteArray, output);
    QByteArray out;
    QCOMPARE(runCli(args, &out), exitCode);
    QVERIFY2(out.contains(output), out.constData());
}

QTEST_GUILESS_MAIN(TestBusyServer)
#include "TestBusyServer.moc"
