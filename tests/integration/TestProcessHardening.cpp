// What the running server does to protect the PINs that pass through it,
// observed from outside on the real executable.
#include "LogFile.h"
#include "ServerLauncher.h"

#include <QFile>
#include <QtTest>

#include <sys/stat.h>
#include <unistd.h>

class TestProcessHardening : public QObject
{
    Q_OBJECT

private slots:
    void testPinBufferLockedInMemory();
    void testLogFileCreatedPrivate();

private:
    static qint64 statusField(qint64 pid, const QByteArray &field);
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

QTEST_GUILESS_MAIN(TestProcessHardening)
#include "TestProcessHardening.moc"
