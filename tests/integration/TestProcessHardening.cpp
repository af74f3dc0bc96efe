// What the running server does to protect the PINs that pass through it,
// observed from outside on the real executable.
#include "LogFile.h"
#include "ServerLauncher.h"

#include <QDir>
#include <QFile>
#include <QTemporaryDir>
#include <QtTest>

#include <csignal>
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

class TestProcessHardening : public QObject
{
    Q_OBJECT

private slots:
    void testPinBufferLockedInMemory();
    void testLogFileCreatedPrivate();
    void testNoCoreDump();

private:
    static qint64 statusField(qint64 pid, const QByteArray &field);
    static bool leavesCore(QProcess &process, const QString &workDir);
};

qint64 TestProcessHardening::statusField(qint64 pid, const QByteArray &field)
{
    QFile status(QStringLiteral("/proc/%1/status").arg(pid));
    if (!status.open(QIODevice::ReadOnly))
        return -1;
    for (const QByteArray &line : status.readAll().split('\n')) {
        if (line.startsWith(field + ':'))
            return line.mid(field.size() + 1).trimmed().split(' ').value(0).toLongLong();
    }
    return -1;
}

void TestProcessHardening::testPinBufferLockedInMemory()
{
#ifdef ZRUI_SANITIZED
    QSKIP("the sanitizer runtimes turn mlock into a no-op: nothing is ever locked");
#endif
    ServerLauncher server;
    QVERIFY2(server.start(), qPrintable(server.errorString()));
    QVERIFY2(server.waitForListening(), server.output().constData());
    // The 8448-byte hand-off buffer spans at least three pages, all locked
    // so that no PIN is ever written to swap.
    const qint64 locked = statusField(server.process().processId(), "VmLck");
    QVERIFY2(locked >= 12, qPrintable(QStringLiteral("VmLck %1 kB").arg(locked)));
    server.stop();
}

void TestProcessHardening::testLogFileCreatedPrivate()
{
    QVERIFY(!QFile::exists(LogFile::path()) || QFile::remove(LogFile::path()));
    ServerLauncher server;
    QVERIFY2(server.start(), qPrintable(server.errorString()));
    QVERIFY2(server.waitForListening(), server.output().constData());
    QVERIFY(LogFile::waitForLine(QStringLiteral("genPipeName:")));
    struct stat st;
    QCOMPARE(::stat(QFile::encodeName(LogFile::path()).constData(), &st), 0);
    QCOMPARE(st.st_mode & 07777, mode_t(0600));
    QCOMPARE(st.st_uid, ::getuid());
    server.stop();
}

// Aborts the process; true when it left a core file in its working directory.
bool TestProcessHardening::leavesCore(QProcess &process, const QString &workDir)
{
    ::kill(pid_t(process.processId()), SIGABRT);
    process.waitForFinished(10000);
    return !QDir(workDir).entryList({"core*"}, QDir::Files).isEmpty();
}

// The server is not dumpable: aborted where an ordinary process leaves a core file, it
// leaves none (and no other process of this user may read its memory).
void TestProcessHardening::testNoCoreDump()
{
    rlimit saved;
    QCOMPARE(getrlimit(RLIMIT_CORE, &saved), 0);
    rlimit cores = {saved.rlim_max, saved.rlim_max};
    QCOMPARE(setrlimit(RLIMIT_CORE, &cores), 0);
    QTemporaryDir controlDir;
    QProcess control;
    control.setWorkingDirectory(controlDir.path());
    control.start("sleep", {"60"});
    QVERIFY(control.waitForStarted());
    const bool controlDumped = leavesCore(control, controlDir.path());
    ServerLauncher server;
    const bool started = server.start() && server.waitForListening();
    const bool serverDumped = started && leavesCore(server.process(), server.workDir());
    setrlimit(RLIMIT_CORE, &saved);
    if (!controlDumped)
        QSKIP("no core file from an ordinary process here (core size limit or core_pattern)");
    QVERIFY2(started, qPrintable(server.errorString() + server.output()));
    QVERIFY(!serverDumped);
}

QTEST_GUILESS_MAIN(TestProcessHardening)
#include "TestProcessHardening.moc"
