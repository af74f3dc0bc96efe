#include "app/LogSink.h"
#include "LogFile.h"

#include <QDateTime>
#include <QRegularExpression>
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
    void testLineFormat();
    void testAppendsRecreatesAndMode();
    void testTwoThreadsWholeLines();
    void testRefusedFileFallsBack_data();
    void testRefusedFileFallsBack();
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

// One line per message: a local-time stamp with milliseconds, the text unchanged, whatever
// the message type.
void TestLogSink::testLineFormat()
{
    const QList<QPair<QtMsgType, QString>> cases
            = {{QtDebugMsg, R"(trans file= ":/uiserver.en.qm")"},
               {QtWarningMsg, "Integrity Protect Failed!"},
               {QtFatalMsg, "  two blanks "},
               {QtDebugMsg, ""},
               {QtDebugMsg, QStringLiteral("请输入PIN码 ü €")}};
    for (const auto &c : cases) {
        QVERIFY(LogFile::clear());
        const QDateTime before = QDateTime::currentDateTime().addMSecs(-1);
        log(c.second, c.first);
        const QDateTime after = QDateTime::currentDateTime().addMSecs(1);
        const QByteArray bytes = fileBytes();
        QCOMPARE(bytes.count('\n'), 1);
        const QRegularExpressionMatch m = linePattern.match(QString::fromUtf8(bytes.chopped(1)));
        QVERIFY2(m.hasMatch(), bytes.constData());
        QCOMPARE(m.captured(2), c.second);
        const QDateTime stamp = QDateTime::fromString(m.captured(1), "yyyy-MM-dd HH:mm:ss zzz");
        QVERIFY2(stamp >= before && stamp <= after, qPrintable(m.captured(1)));
    }
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
    // Long lines make an interleaving within a line likely if the lock failed.
    auto text = [](char tag, int i) {
        return QStringLiteral("%1-%2-").arg(tag).arg(i) + QString(300, QLatin1Char(tag));
    };
    auto writer = [&](char tag) {
        for (int i = 0; i < 400; ++i)
            log(text(tag, i));
    };
    std::thread a(writer, 'A'), b(writer, 'B');
    a.join();
    b.join();
    QStringList expected, got = LogFile::messages();
    for (int i = 0; i < 400; ++i)
        expected << text('A', i) << text('B', i);
    expected.sort();
    got.sort();
    QCOMPARE(got, expected);
}

// Whatever stands under /tmp/uilog.txt that is not this user's own single-named regular file
// is not written, nor anything through it: the line goes to $XDG_RUNTIME_DIR/uilog.txt (0600).
void TestLogSink::testRefusedFileFallsBack_data()
{
    QTest::addColumn<QString>("planted");
    QTest::addColumn<bool>("runtimeDirSet");
    for (const char *what : {"fifo", "directory", "hard link", "symlink", "dangling symlink"})
        QTest::newRow(what) << what << true;
    QTest::newRow("other user's 0666 file") << "foreign" << true;
    QTest::newRow("other user's file, no runtime dir") << "foreign" << false;
}

void TestLogSink::testRefusedFileFallsBack()
{
    QFETCH(QString, planted);
    QFETCH(bool, runtimeDirSet);
    if (planted == "foreign" && geteuid() != 0)
        QSKIP("a file of another uid needs root to create");
    QTemporaryDir scratch, runtimeDir;
    QFile own(scratch.filePath("own.txt"));
    QVERIFY(own.open(QIODevice::WriteOnly) && own.write("theirs\n") == 7);
    own.close();
    const QByteArray ownPath = QFile::encodeName(own.fileName());
    const QByteArray dangling = QFile::encodeName(scratch.filePath("created"));
    int fd = -1;
    const bool ok = planted == "fifo"        ? mkfifo(ZRUI_LOG_PATH, 0666) == 0
                    : planted == "directory" ? mkdir(ZRUI_LOG_PATH, 0700) == 0
                    : planted == "hard link" ? link(ownPath, ZRUI_LOG_PATH) == 0
                    : planted == "symlink"   ? symlink(ownPath, ZRUI_LOG_PATH) == 0
                    : planted == "dangling symlink"
                            ? symlink(dangling, ZRUI_LOG_PATH) == 0
                            : (fd = open(ZRUI_LOG_PATH, O_WRONLY | O_CREAT | O_EXCL, 0666)) >= 0
                                      && fchmod(fd, 0666) == 0 && write(fd, "theirs\n", 7) == 7
                                      && fchown(fd, 65534, 65534) == 0;
    if (fd >= 0)
        close(fd);
    QVERIFY(ok);
    const QByteArray savedRuntimeDir = qgetenv("XDG_RUNTIME_DIR");
    if (runtimeDirSet)
        qputenv("XDG_RUNTIME_DIR", QFile::encodeName(runtimeDir.path()));
    else
        qunsetenv("XDG_RUNTIME_DIR");
    log("refused primary");
    qputenv("XDG_RUNTIME_DIR", savedRuntimeDir);

    QFile fallback(runtimeDir.filePath("uilog.txt"));
    QCOMPARE(fallback.exists(), runtimeDirSet);
    const QByteArray bytes = fileBytes(fallback.fileName());
    QVERIFY(!runtimeDirSet || bytes.endsWith("] refused primary\n"));
    QVERIFY(!runtimeDirSet || (fallback.permissions() & 0x0777) == 0x0600);
    QCOMPARE(fileBytes(own.fileName()), QByteArray("theirs\n"));
    QVERIFY(planted != "foreign" || fileBytes() == "theirs\n");
    QVERIFY(!QFile::exists(scratch.filePath("created")));
    if (unlink(ZRUI_LOG_PATH) != 0)
        rmdir(ZRUI_LOG_PATH);
}

// From 16 MiB on, the file becomes uilog.txt.1 (replacing an older one) before the next line.
void TestLogSink::testRotation()
{
    const qint64 limit = 16LL * 1024 * 1024;
    QFile file(LogFile::path()), older(LogFile::path() + ".1");
    for (qint64 size : {limit - 1, limit, limit + 4096}) {
        const bool rotates = size >= limit, olderRotated = size > limit;
        older.remove();
        QVERIFY(!olderRotated || (older.open(QIODevice::WriteOnly) && older.write("older\n") == 6));
        older.close();
        // Sparse: the size counts, not the blocks.
        QVERIFY(file.open(QIODevice::WriteOnly) && file.write("first\n") == 6 && file.resize(size));
        file.close();
        log("next line");
        QCOMPARE(QFileInfo(older.fileName()).size(), rotates ? size : 0);
        QCOMPARE(QFileInfo(file.fileName()).size(), (rotates ? 0 : size) + 36);
        QVERIFY(fileBytes().endsWith("] next line\n"));
    }
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
