// The request service inside the real executable (ServerLauncher sandbox,
// stand-in token stack): one instance per user name, the keep-alive exit of
// an idle process, a session that keeps it alive, and a request answered by
// the real coordinator.
#include "LogFile.h"
#include "ServerLauncher.h"
#include "client/zrui_client.h"

#include <QElapsedTimer>
#include <QProcess>
#include <QtTest>

class TestServiceProcess : public QObject
{
    Q_OBJECT

private slots:
    void init();
    void testSecondInstanceExitsQuietly();
    void testIdleProcessExitsAfterKeepAlive();
    void testOpenSessionKeepsProcessAlive();
    void testCoordinatorAnswersListTypeOne();
};

void TestServiceProcess::init() { QVERIFY(LogFile::clear()); }

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
    QVERIFY(LogFile::waitForLine(QStringLiteral("call on_start_pipe_failed(), service will exit")));
    QCOMPARE(LogFile::countExact(QStringLiteral("bind() failed")), 1);
    QCOMPARE(LogFile::countExact(QStringLiteral("call on_start_pipe_failed(), service will exit")),
             1);

    // The first one serves on.
    QVERIFY(first.isRunning());
    QVERIFY(ServerLauncher::isListening(first.socketName()));
    zrui_conn *h = nullptr;
    QCOMPARE(zrui_open(first.appName().toUtf8().constData(), &h), int(ZRUI_OK));
    QCOMPARE(zrui_set_timeout(h, 10000), int(ZRUI_OK));
    QCOMPARE(zrui_begin_session(h, 1), int(ZRUI_OK));
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
    QVERIFY(LogFile::waitForLine(QStringLiteral("Pipe Listening Exited, Exit Application")));
    const QStringList messages = LogFile::messages();
    const int stop = messages.indexOf(QStringLiteral("StopPipeListening"));
    QVERIFY(stop >= 0);
    QVERIFY(stop < messages.indexOf(QStringLiteral("Pipe Listening Exited, Exit Application")));
}

void TestServiceProcess::testOpenSessionKeepsProcessAlive()
{
    ServerLauncher server;
    server.useResourceVariant(QStringLiteral("keepalive2"));
    QVERIFY2(server.start(), qPrintable(server.errorString()));
    QVERIFY(server.waitForListening());
    zrui_conn *h = nullptr;
    QCOMPARE(zrui_open(server.appName().toUtf8().constData(), &h), int(ZRUI_OK));
    QCOMPARE(zrui_set_timeout(h, 10000), int(ZRUI_OK));
    QCOMPARE(zrui_begin_session(h, 1), int(ZRUI_OK));

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

void TestServiceProcess::testCoordinatorAnswersListTypeOne()
{
    // List type 1 is answered by the coordinator without a window: index -1.
    ServerLauncher server;
    QVERIFY2(server.start(), qPrintable(server.errorString()));
    QVERIFY(server.waitForListening());
    zrui_conn *h = nullptr;
    QCOMPARE(zrui_open(server.appName().toUtf8().constData(), &h), int(ZRUI_OK));
    QCOMPARE(zrui_set_timeout(h, 10000), int(ZRUI_OK));
    QCOMPARE(zrui_begin_session(h, 1), int(ZRUI_OK));
    QCOMPARE(zrui_list_show(h, 1, "c1|c2"), int(ZRUI_OK));
    int32_t index = 99;
    QCOMPARE(zrui_list_wait(h, 10000, 20, &index), int(ZRUI_OK));
    QCOMPARE(index, -1);
    QCOMPARE(zrui_end_session(h), int(ZRUI_OK));
    zrui_close(h);
    QVERIFY(LogFile::waitForLine(QStringLiteral("SendBuff: Send \"0000000004000000ffffffff\"")));
    server.stop();
}

QTEST_GUILESS_MAIN(TestServiceProcess)
#include "TestServiceProcess.moc"
