// The real executable as a process: one instance per user name, the idle
// exit, socket activation, and what protects the PINs (locked memory, a
// private log file, no core dump).
#include "LogFile.h"
#include "ServerLauncher.h"
#include "client/zrui_client.h"

#include <QElapsedTimer>
#include <QtTest>

#include <csignal>
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

namespace {

// A session begun and ended on appName: the server serves.
bool serves(const QString &appName)
{
    zrui_conn *h = nullptr;
    const bool ok = zrui_open(appName.toUtf8().constData(), &h) == ZRUI_OK
                    && zrui_set_timeout(h, 10000) == ZRUI_OK && zrui_begin_session(h, 1) == ZRUI_OK
                    && zrui_end_session(h) == ZRUI_OK;
    zrui_close(h);
    return ok;
}

const QString kExited = QStringLiteral("Pipe Listening Exited, Exit Application");

} // namespace

class TestServerProcess : public QObject
{
    Q_OBJECT

private slots:
    void init() { QVERIFY(LogFile::clear()); }
    void testSecondInstanceExitsQuietly();
    void testIdleExitWaitsForSession();
    void testSocketActivation_data();
    void testSocketActivation();
    void testSecretsProtected();
    void testNoCoreDump();
};

void TestServerProcess::testSecondInstanceExitsQuietly()
{
    ServerLauncher first;
    QVERIFY2(first.start() && first.waitForListening(), qPrintable(first.errorString()));
    // Same executable, same user: the same socket name.
    QProcess second;
    second.setWorkingDirectory(first.workDir());
    second.setProcessEnvironment(first.process().processEnvironment());
    second.start(first.executablePath(), QStringList());
    QVERIFY2(second.waitForFinished(15000), "second instance did not exit");
    QCOMPARE(second.exitStatus(), QProcess::NormalExit);
    QCOMPARE(second.exitCode(), 0);
    const QString exitLine = QStringLiteral("call on_start_pipe_failed(), service will exit");
    QVERIFY(LogFile::waitForLine(exitLine));
    QCOMPARE(LogFile::countExact(QStringLiteral("bind() failed")), 1);
    QCOMPARE(LogFile::countExact(exitLine), 1);
    QVERIFY(first.isRunning());
    QVERIFY(serves(first.appName()));
}

// Keep-alive of 2 s: held off while a session is open, counted from its end.
void TestServerProcess::testIdleExitWaitsForSession()
{
    ServerLauncher server;
    server.useResourceVariant(QStringLiteral("keepalive2"));
    QVERIFY2(server.start() && server.waitForListening(), qPrintable(server.errorString()));
    zrui_conn *h = nullptr;
    QCOMPARE(zrui_open(server.appName().toUtf8().constData(), &h), int(ZRUI_OK));
    QCOMPARE(zrui_begin_session(h, 1), int(ZRUI_OK));
    // Had the timer fired meanwhile, the process would end as soon as the connection closes.
    QElapsedTimer clock;
    clock.start();
    while (clock.elapsed() < 4500) {
        QVERIFY(server.isRunning());
        QTest::qWait(100);
    }
    QCOMPARE(zrui_end_session(h), int(ZRUI_OK));
    clock.restart();
    zrui_close(h);
    QVERIFY2(server.waitForExit(10000), "process did not exit after the session");
    QVERIFY2(clock.elapsed() >= 1900, qPrintable(QString::number(clock.elapsed())));
    QCOMPARE(server.exitCode(), 0);
    const QStringList messages = LogFile::messages();
    const int stop = messages.indexOf(QStringLiteral("StopPipeListening"));
    QVERIFY(stop >= 0 && stop < messages.indexOf(kExited));
}

void TestServerProcess::testSocketActivation_data()
{
    QTest::addColumn<QString>("activatedSuffix");
    QTest::newRow("the server's own name") << QString();
    QTest::newRow("another name") << QStringLiteral("x");
}

// systemd-socket-activate stands in for the user manager; a socket of another
// name is not taken for the server's own.
void TestServerProcess::testSocketActivation()
{
    QFETCH(QString, activatedSuffix);
    const bool takesPassedSocket = activatedSuffix.isEmpty();
    ServerLauncher server;
    // Idle exit after 2 s: only a passed socket with the 1 s receive time-out lets the loop notice.
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
            args << "-E" << name;
    args << "-l" << '@' + activatedName << server.executablePath();
    activator.start(QStringLiteral("systemd-socket-activate"), args);
    QVERIFY(activator.waitForStarted(10000));
    QTRY_VERIFY_WITH_TIMEOUT(ServerLauncher::isListening(activatedName), 10000);
    QVERIFY(!LogFile::contains("genPipeName: \"" + server.appName())); // started on demand

    zrui_conn *h = nullptr;
    QCOMPARE(zrui_open(activatedApp.toUtf8().constData(), &h), int(ZRUI_OK));
    if (takesPassedSocket) {
        QCOMPARE(zrui_set_timeout(h, 10000), int(ZRUI_OK));
        QCOMPARE(zrui_begin_session(h, 1), int(ZRUI_OK));
        QCOMPARE(zrui_end_session(h), int(ZRUI_OK));
    } else {
        QTRY_VERIFY_WITH_TIMEOUT(ServerLauncher::isListening(server.socketName()), 15000);
        QVERIFY(serves(server.appName()));
    }
    zrui_close(h);
    QVERIFY2(activator.waitForFinished(30000), activator.readAll().constData());
    QCOMPARE(activator.exitCode(), 0);
    QVERIFY(LogFile::contains(kExited));
    QCOMPARE(LogFile::contains(QStringLiteral(" handed over by the service manager")),
             takesPassedSocket);
    QCOMPARE(LogFile::contains(QStringLiteral("is not a listening socket on @")),
             !takesPassedSocket);
    QCOMPARE(LogFile::countExact(QStringLiteral("bind() failed")), 0);
}

// The 8448-byte hand-off buffer (three pages at least) is locked out of swap;
// the log file is created private to this user.
void TestServerProcess::testSecretsProtected()
{
    ServerLauncher server;
    QVERIFY2(server.start() && server.waitForListening(), qPrintable(server.errorString()));
#ifndef ZRUI_SANITIZED // the sanitizer runtimes turn mlock into a no-op
    QFile status(QStringLiteral("/proc/%1/status").arg(server.process().processId()));
    QVERIFY(status.open(QIODevice::ReadOnly));
    const QByteArray all = status.readAll();
    const QByteArray vmLck = all.mid(all.indexOf("\nVmLck:") + 8).split('\n').value(0).trimmed();
    QVERIFY2(vmLck.split(' ').value(0).toInt() >= 12, vmLck.constData());
#endif
    QVERIFY(LogFile::waitForLine(QStringLiteral("genPipeName:")));
    struct stat st;
    QCOMPARE(::stat(QFile::encodeName(LogFile::path()).constData(), &st), 0);
    QCOMPARE(st.st_mode & 07777, mode_t(0600));
    QCOMPARE(st.st_uid, ::getuid());
}

// Not dumpable: aborted where an ordinary process leaves a core file, it leaves none.
void TestServerProcess::testNoCoreDump()
{
    rlimit saved;
    QCOMPARE(getrlimit(RLIMIT_CORE, &saved), 0);
    rlimit cores = {saved.rlim_max, saved.rlim_max};
    QCOMPARE(setrlimit(RLIMIT_CORE, &cores), 0);
    const auto leavesCore = [](QProcess &process, const QString &dir) {
        ::kill(pid_t(process.processId()), SIGABRT);
        process.waitForFinished(10000);
        return !QDir(dir).entryList({"core*"}, QDir::Files).isEmpty();
    };
    QTemporaryDir controlDir;
    QProcess control;
    control.setWorkingDirectory(controlDir.path());
    control.start("sleep", {"60"});
    const bool controlDumped = control.waitForStarted() && leavesCore(control, controlDir.path());
    ServerLauncher server;
    const bool started = server.start() && server.waitForListening();
    const bool serverDumped = started && leavesCore(server.process(), server.workDir());
    setrlimit(RLIMIT_CORE, &saved);
    if (!controlDumped)
        QSKIP("no core file from an ordinary process here (core size limit or core_pattern)");
    QVERIFY2(started, qPrintable(server.errorString() + server.output()));
    QVERIFY(!serverDumped);
}

QTEST_GUILESS_MAIN(TestServerProcess)
#include "TestServerProcess.moc"
