#include "app/LogSink.h"
#include "LogFile.h"

#include <QDateTime>
#include <QRegularExpression>
#include <QSet>
#include <QTemporaryDir>
#include <QtTest>

#include <fcntl.h>
#include <sys/stat.h>
#include <thread>
#include <unistd.h>

// The log sink on the real file /tmp/uilog.txt (ctest lock "uilog").
class TestLogSink : public QObject
{
    Q_OBJECT
private slots:
    void initTestCase();
    void init() { QVERIFY(LogFile::clear()); }
    void cleanupTestCase() { LogFile::clear(); }
    void testLineFormat_data();
    void testLineFormat();
    void testAppendsRecreatesAndMode();
    void testTwoThreadsWholeLines();
    void testRefusedFileFallsBack_data();
    void testRefusedFileFallsBack();
    void testRotation_data();
    void testRotation();
    void testMuteIsPerThread();
};

static const QRegularExpression
        linePattern(QStringLiteral(R"(^\[(\d{4}-\d{2}-\d{2} \d{2}:\d{2}:\d{2} \d{3})\] (.*)$)"));

static void log(const QString &message, QtMsgType type = QtDebugMsg)
{
    printlogtofile(type, QMessageLogContext("file.cpp", 42, "function", "category"), message);
}

static QByteArray fileBytes(const QString &path = LogFile::path())
{
    QFile file(path);
    return file.open(QIODevice::ReadOnly) ? file.readAll() : QByteArray();
}

void TestLogSink::initTestCase()
{
    QCOMPARE(QString::fromLatin1(ZRUI_LOG_PATH), QStringLiteral("/tmp/uilog.txt"));
    if (!LogFile::clear())
        QSKIP("/tmp/uilog.txt exists and cannot be removed (another user's file)");
}

void TestLogSink::testLineFormat_data()
{
    QTest::addColumn<int>("type");
    QTest::addColumn<QString>("message");
    QTest::newRow("debug, quotes kept") << int(QtDebugMsg) << R"(trans file= ":/uiserver.en.qm")";
    QTest::newRow("warning") << int(QtWarningMsg) << "Integrity Protect Failed!";
    QTest::newRow("fatal, blanks kept") << int(QtFatalMsg) << "  two blanks ";
    QTest::newRow("empty") << int(QtDebugMsg) << "";
    QTest::newRow("UTF-8") << int(QtDebugMsg) << QStringLiteral("请输入PIN码 ü €");
}

void TestLogSink::testLineFormat()
{
    QFETCH(int, type);
    QFETCH(QString, message);
    // Millisecond local-time stamp, between the clock readings around the call.
    const QDateTime before = QDateTime::currentDateTime().addMSecs(-1);
    log(message, QtMsgType(type));
    const QDateTime after = QDateTime::currentDateTime().addMSecs(1);
    const QByteArray bytes = fileBytes();
    QCOMPARE(bytes.count('\n'), 1);
    QVERIFY(bytes.endsWith("] " + message.toUtf8() + "\n"));
    const QRegularExpressionMatch match = linePattern.match(QString::fromUtf8(bytes.chopped(1)));
    QVERIFY2(match.hasMatch(), bytes.constData());
    QCOMPARE(match.captured(2), message);
    const QDateTime stamp = QDateTime::fromString(match.captured(1), "yyyy-MM-dd HH:mm:ss zzz");
    QVERIFY2(stamp >= before && stamp <= after, qPrintable(match.captured(1)));
}

void TestLogSink::testAppendsRecreatesAndMode()
{
    QFile file(LogFile::path());
    QVERIFY(file.open(QIODevice::WriteOnly) && file.write("existing line\n") == 14);
    file.close();
    log("first");
    log("second");
    const QStringList lines = LogFile::lines();
    QCOMPARE(lines.size(), 3);
    QCOMPARE(lines.at(0), QStringLiteral("existing line"));
    QCOMPARE(LogFile::messageOf(lines.at(2)), QStringLiteral("second"));

    // Created 0600 in the open call: with an empty umask a file narrowed later shows wider bits.
    QVERIFY(QFile::remove(LogFile::path()));
    const mode_t savedMask = umask(0);
    log("after deletion");
    umask(savedMask);
    QCOMPARE(LogFile::messages(), QStringList{QStringLiteral("after deletion")});
    struct stat st;
    QCOMPARE(stat(ZRUI_LOG_PATH, &st), 0);
    QCOMPARE(int(st.st_mode & 07777), 0600);
    QCOMPARE(st.st_uid, getuid());
}

void TestLogSink::testTwoThreadsWholeLines()
{
    const int perThread = 400;
    // Long lines make an interleaving within a line likely if the lock failed.
    auto writer = [](char tag) {
        for (int i = 0; i < perThread; ++i)
            log(QStringLiteral("%1-%2-%3").arg(tag).arg(i).arg(QString(300, QLatin1Char(tag))));
    };
    std::thread a(writer, 'A'), b(writer, 'B');
    a.join();
    b.join();
    const QStringList lines = LogFile::lines();
    QCOMPARE(lines.size(), 2 * perThread);
    QSet<QString> seen;
    const QRegularExpression body(QStringLiteral(R"(^(A-\d+-A{300}|B-\d+-B{300})$)"));
    for (const QString &line : lines) {
        const QString m = linePattern.match(line).captured(2);
        QVERIFY2(body.match(m).hasMatch(), qPrintable(line.left(80)));
        seen.insert(m);
    }
    QCOMPARE(seen.size(), 2 * perThread);
}

// What stands under /tmp/uilog.txt before a line is logged; the line goes to
// $XDG_RUNTIME_DIR/uilog.txt (0600) or nowhere, nothing is written through what was planted.
enum Planted { ForeignOwner, Fifo, Directory, HardLink, DanglingLink, Symlink };

static bool plant(Planted what, const QString &scratch)
{
    const QByteArray path = ZRUI_LOG_PATH, own = QFile::encodeName(scratch + "/own.txt");
    QFile ownFile(scratch + "/own.txt");
    const bool owned = ownFile.open(QIODevice::WriteOnly) && ownFile.write("theirs\n") == 7;
    ownFile.close();
    switch (what) {
    case ForeignOwner: {
        const int fd = open(path.constData(), O_WRONLY | O_CREAT | O_EXCL, 0666);
        const bool ok = fd >= 0 && fchmod(fd, 0666) == 0 && write(fd, "theirs\n", 7) == 7
                        && fchown(fd, 65534, 65534) == 0;
        return close(fd) == 0 && ok;
    }
    case Fifo:
        return mkfifo(path.constData(), 0666) == 0;
    case Directory:
        return mkdir(path.constData(), 0700) == 0;
    case HardLink:
        return owned && link(own.constData(), path.constData()) == 0;
    case DanglingLink:
        return symlink(QFile::encodeName(scratch + "/created").constData(), path.constData()) == 0;
    case Symlink:
        return owned && symlink(own.constData(), path.constData()) == 0;
    }
    return false;
}

void TestLogSink::testRefusedFileFallsBack_data()
{
    QTest::addColumn<int>("planted");
    QTest::addColumn<bool>("runtimeDirSet");
    QTest::newRow("other user's 0666 file") << int(ForeignOwner) << true;
    QTest::newRow("fifo") << int(Fifo) << true;
    QTest::newRow("directory") << int(Directory) << true;
    QTest::newRow("second name of another file") << int(HardLink) << true;
    QTest::newRow("dangling symlink") << int(DanglingLink) << true;
    QTest::newRow("symlink to a file") << int(Symlink) << true;
    QTest::newRow("other user's file, no runtime dir") << int(ForeignOwner) << false;
}

void TestLogSink::testRefusedFileFallsBack()
{
    QFETCH(int, planted);
    QFETCH(bool, runtimeDirSet);
    if (planted == ForeignOwner && geteuid() != 0)
        QSKIP("a file of another uid needs root to create");
    QTemporaryDir scratch, runtimeDir;
    QVERIFY(scratch.isValid() && runtimeDir.isValid());
    QVERIFY(plant(Planted(planted), scratch.path()));
    const QByteArray savedRuntimeDir = qgetenv("XDG_RUNTIME_DIR");
    if (runtimeDirSet)
        qputenv("XDG_RUNTIME_DIR", QFile::encodeName(runtimeDir.path()));
    else
        qunsetenv("XDG_RUNTIME_DIR");
    log("refused primary");
    qputenv("XDG_RUNTIME_DIR", savedRuntimeDir);

    QFile fallback(runtimeDir.filePath("uilog.txt"));
    QCOMPARE(fallback.exists(), runtimeDirSet);
    if (runtimeDirSet) {
        const QByteArray bytes = fileBytes(fallback.fileName());
        QVERIFY2(linePattern.match(QString::fromUtf8(bytes.trimmed())).hasMatch(), bytes);
        QVERIFY(bytes.endsWith("] refused primary\n"));
        QCOMPARE(int(fallback.permissions() & 0x0777), 0x0600); // owner read and write only
    }
    QCOMPARE(fileBytes(scratch.filePath("own.txt")), QByteArray("theirs\n"));
    if (planted == ForeignOwner)
        QCOMPARE(fileBytes(), QByteArray("theirs\n"));
    QVERIFY(!QFile::exists(scratch.filePath("created")));
    if (unlink(ZRUI_LOG_PATH) != 0)
        rmdir(ZRUI_LOG_PATH);
}

void TestLogSink::testRotation_data()
{
    QTest::addColumn<qint64>("existingSize");
    QTest::addColumn<bool>("olderRotated");
    QTest::addColumn<bool>("rotates");
    const qint64 limit = 16LL * 1024 * 1024;
    QTest::newRow("one byte below") << limit - 1 << false << false;
    QTest::newRow("at the limit") << limit << false << true;
    QTest::newRow("past it, older .1 replaced") << limit + 4096 << true << true;
}

void TestLogSink::testRotation()
{
    QFETCH(qint64, existingSize);
    QFETCH(bool, olderRotated);
    QFETCH(bool, rotates);
    QFile older(LogFile::path() + ".1");
    older.remove();
    QVERIFY(!olderRotated || (older.open(QIODevice::WriteOnly) && older.write("older\n") == 6));
    older.close();
    QFile file(LogFile::path()); // sparse: the size counts, not the blocks
    QVERIFY(file.open(QIODevice::WriteOnly) && file.write("first\n") == 6);
    QVERIFY(file.resize(existingSize));
    file.close();
    log("next line");
    QCOMPARE(QFileInfo(older.fileName()).size(), rotates ? existingSize : (olderRotated ? 6 : 0));
    QCOMPARE(QFileInfo(file.fileName()).size(), (rotates ? 0 : existingSize) + 36);
    QVERIFY(fileBytes().endsWith("] next line\n"));
    older.remove();
}

void TestLogSink::testMuteIsPerThread()
{
    setThreadLogMuted(true);
    log("muted");
    std::thread other([] { log("other thread"); });
    other.join();
    setThreadLogMuted(false);
    log("after");
    QCOMPARE(LogFile::messages(), (QStringList{"other thread", "after"}));
}

QTEST_APPLESS_MAIN(TestLogSink)
#include "TestLogSink.moc"
