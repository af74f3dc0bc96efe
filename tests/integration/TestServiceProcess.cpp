// The request service inside the real executable (ServerLauncher sandbox,
// stand-in token stack): one instance per user name, the keep-alive exit of
// an idle process and a session that keeps it alive.
#include "LogFile.h"
#include "ServerLauncher.h"
#include "client/zrui_client.h"

#include <QElapsedTimer>
#include <QProcess>
#include <QtTest>

namespace {

// A client of the server with a session begun; nullptr on failure.
zrui_conn *beginSession(const ServerLauncher &server)
{
    zrui_conn *h = nullptr;
    if (zrui_open(server.appName().toUtf8().constData(), &h) != ZRUI_OK)
        return nullptr;
    if (zrui_set_timeout(h, 10000) != ZRUI_OK || zrui_begin_session(h, 1) != ZRUI_OK) {
        zrui_close(h);
        return nullptr;
    }
    return h;
}

} // namespace

class TestServiceProcess : public QObject
{
    Q_OBJECT

private slots:
    void init() { QVERIFY(LogFile::clear()); }
    void testSecondInstanceExitsQuietly();
    void testIdleProcessExitsAfterKeepAlive();
    void testOpenSessionKeepsProcessAlive();
};

void TestServiceProcess::testSecondInstanceExitsQuietly()
{
    ServerLauncher first;
    QVERIFY2(first.start(), qPrintable(first.errorString()));
    QVERIFY(first.waitForListening());

    // Same executable name, same user: the same socket name.
    QProcess second;
    second.setProgram(first.executablePath());
    second.setWorkingDirectory(first.workDir());
    const QProcessEnvironment env = first.process().processEnvironment();
    if (!env.isEmpty())
        second.setProcessEnvironment(env);
    second.setProcessChannelMode(QProcess::MergedChannels);
    second.start();
    QVERIFY(second.waitForStarted(10000));
    QVERIFY2(second.waitForFinished(15000), "second instance did not exit");
    QCOMPARE(second.exitStatus(), QProcess::NormalExit);
    QCOMPARE(second.exitCode(), 0);
    const QString exitLine = QStringLiteral("call on_start_pipe_failed(), service will exit");
    QVERIFY(LogFile::waitForLine(exitLine));
    QCOMPARE(LogFile::countExact(QStringLiteral("bind() failed")), 1);
    QCOMPARE(LogFile::countExact(exitLine), 1);

    // The first one serves on.
    QVERIFY(first.isRunning());
    QVERIFY(ServerLauncher::isListening(first.socketName()));
    zrui_conn *h = beginSession(first);
    QVERIFY(h);
    QCOMPARE(zrui_end_session(h), int(ZRUI_OK));
    zrui_close(h);
    first.stop();
}

void TestServiceProcess::testIdleProcessExitsAfterKeepAlive()
{
    ServerLauncher server;
    server.useResourceVariant(QStringLiteral("keepalive2"));
    QElapsedTimer sinceStart;
    sinceStart.start();
    QVERIFY2(server.start(), qPrintable(server.errorString()));
    QVERIFY(server.waitForListening());
    QVERIFY2(server.waitForExit(10000), "idle process did not exit");
    // The 2 s timer starts before the socket listens; the loop notices the
    // stop within its 1 s accept time-out.
    QVERIFY2(sinceStart.elapsed() >= 1900, qPrintable(QString::number(sinceStart.elapsed())));
    QCOMPARE(server.exitStatus(), QProcess::NormalExit);
    QCOMPARE(server.exitCode(), 0);
    const QString exited = QStringLiteral("Pipe Listening Exited, Exit Application");
    QVERIFY(LogFile::waitForLine(exited));
    const QStringList messages = LogFile::messages();
    const int stop = messages.indexOf(QStringLiteral("StopPipeListening"));
    QVERIFY(stop >= 0 && stop < messages.indexOf(exited));
}

void TestServiceProcess::testOpenSessionKeepsProcessAlive()
{
    ServerLauncher server;
    server.useResourceVariant(QStringLiteral("keepalive2"));
    QVERIFY2(server.start(), qPrintable(server.errorString()));
    QVERIFY(server.waitForListening());
    zrui_conn *h = beginSession(server);
    QVERIFY(h);

    // Over twice the keep-alive time with the session open. Had the timer
    // fired meanwhile, the accept loop would already be told to stop and the
    // process would end as soon as the connection closes (checked below).
    QElapsedTimer held;
    held.start();
    while (held.elapsed() < 4500) {
        QVERIFY(server.isRunning());
        QTest::qWait(100);
    }
    QCOMPARE(zrui_end_session(h), int(ZRUI_OK));
    QElapsedTimer sinceEnd;
    sinceEnd.start();
    zrui_close(h);
    QVERIFY2(server.waitForExit(10000), "process did not exit after the session");
    QVERIFY2(sinceEnd.elapsed() >= 1900, qPrintable(QString::number(sinceEnd.elapsed())));
    QCOMPARE(server.exitCode(), 0);
}

QTEST_GUILESS_MAIN(TestServiceProcess)
#include "TestServiceProcess.moc"
