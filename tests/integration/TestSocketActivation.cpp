// The real executable started by socket activation
// (systemd-socket-activate stands in for the user manager): it serves on
// the listening socket handed to it, and a socket of another name is not
// taken for its own.
#include "LogFile.h"
#include "ServerLauncher.h"
#include "client/zrui_client.h"

#include <QProcess>
#include <QtTest>

#include <unistd.h>

class TestSocketActivation : public QObject
{
    Q_OBJECT

private slots:
    void init() { QVERIFY(LogFile::clear()); }
    void testHandOver_data();
    void testHandOver();
};

void TestSocketActivation::testHandOver_data()
{
    QTest::addColumn<QString>("activatedSuffix");
    QTest::addColumn<bool>("takesPassedSocket");
    QTest::newRow("the server's own name") << QString() << true;
    QTest::newRow("another name") << QStringLiteral("x") << false;
}

void TestSocketActivation::testHandOver()
{
    QFETCH(QString, activatedSuffix);
    QFETCH(bool, takesPassedSocket);

    ServerLauncher server;
    // Idle exit after 2 s: only a passed socket with the 1 s receive
    // time-out lets the accept loop notice it.
    server.useResourceVariant(QStringLiteral("keepalive2"));
    QVERIFY2(server.prepare(), qPrintable(server.errorString()));
    const QString activatedApp = server.appName() + activatedSuffix;
    const QString activatedName = activatedApp + QString::number(getuid());

    QProcess activator;
    activator.setWorkingDirectory(server.workDir());
    activator.setProcessChannelMode(QProcess::MergedChannels);
    QStringList args;
    // It hands the started program only the variables named with -E (the
    // sanitizer settings too, or their suppressions are lost).
    for (const char *name : {"QT_QPA_PLATFORM", "LC_ALL", "ASAN_OPTIONS", "LSAN_OPTIONS",
                             "UBSAN_OPTIONS", "TSAN_OPTIONS"})
        if (qEnvironmentVariableIsSet(name))
            args << QStringLiteral("-E") << QString::fromLatin1(name);
    args << QStringLiteral("-l") << QLatin1Char('@') + activatedName << server.executablePath();
    activator.start(QStringLiteral("systemd-socket-activate"), args);
    QVERIFY(activator.waitForStarted(10000));
    QTRY_VERIFY_WITH_TIMEOUT(ServerLauncher::isListening(activatedName), 10000);
    // Not started yet (other tests' servers may log their own names meanwhile).
    QVERIFY(!LogFile::contains(QStringLiteral("genPipeName: \"") + server.appName()));

    // The first connection starts the server.
    zrui_conn *h = nullptr;
    QCOMPARE(zrui_open(activatedApp.toUtf8().constData(), &h), int(ZRUI_OK));
    if (!takesPassedSocket) {
        zrui_close(h);
        QTRY_VERIFY_WITH_TIMEOUT(ServerLauncher::isListening(server.socketName()), 15000);
        QCOMPARE(zrui_open(server.appName().toUtf8().constData(), &h), int(ZRUI_OK));
    }
    QCOMPARE(zrui_set_timeout(h, 10000), int(ZRUI_OK));
    QCOMPARE(zrui_begin_session(h, 1), int(ZRUI_OK));
    QCOMPARE(zrui_end_session(h), int(ZRUI_OK));
    zrui_close(h);

    QVERIFY2(activator.waitForFinished(30000), activator.readAll().constData());
    QCOMPARE(activator.exitCode(), 0);
    QVERIFY(LogFile::contains(QStringLiteral("Pipe Listening Exited, Exit Application")));
    QCOMPARE(LogFile::contains(QStringLiteral(" handed over by the service manager")),
             takesPassedSocket);
    QCOMPARE(LogFile::contains(QStringLiteral("is not a listening socket on @")),
             !takesPassedSocket);
    QCOMPARE(LogFile::countExact(QStringLiteral("bind() failed")), 0);
}

QTEST_GUILESS_MAIN(TestSocketActivation)
#include "TestSocketActivation.moc"
