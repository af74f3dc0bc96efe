#include "app/LogSink.h"
#include "LogFile.h"

#include <QDateTime>
#include <QFile>
#include <QFileInfo>
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
    void cleanupTestCase();
    void testLineFormat_data();
    void testLineFormat();
    void testAppendsAndRecreates();
    void testNewFileMode();
    void testTwoThreadsWholeLines();
    void testSymlinkNotFollowed();
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
    QMessageLogContext context("file.cpp", 42, "function", "category");
    printlogtofile(type, context, message);
}

static QByteArray fileBytes()
{
    QFile file(LogFile::path());
    if (!file.open(QIODevice::ReadOnly))
        return QByteArray();
    return file.readAll();
}

void TestLogSink::initTestCase()
{
    QCOMPARE(QString::fromLatin1(ZRUI_LOG_PATH), QStringLiteral("/tmp/uilog.txt"));
    if (!LogFile::clear())
        QSKIP("/tmp/uilog.txt exists and cannot be removed (another user's file)");
}

void TestLogSink::cleanupTestCase() { LogFile::clear(); }

void TestLogSink::testLineFormat_data()
{
    QTest::addColumn<int>("type");
    QTest::addColumn<QString>("message");

    QTest::newRow("debug") << int(QtDebugMsg) << "hello world";
    QTest::newRow("warning") << int(QtWarningMsg) << "Integrity Protect Failed!";
    QTest::newRow("fatal") << int(QtFatalMsg) << "fatal text";
    QTest::newRow("empty") << int(QtDebugMsg) << "";
    QTest::newRow("quotes kept") << int(QtDebugMsg) << R"(trans file= ":/uiserver.en.qm")";
    QTest::newRow("leading blanks kept") << int(QtDebugMsg) << "  two blanks ";
    QTest::newRow("UTF-8") << int(QtDebugMsg) << QStringLiteral("请输入PIN码 ü €");
}

void TestLogSink::testLineFormat()
{
    QFETCH(int, type);
    QFETCH(QString, message);

    QVERIFY(LogFile::clear());
    // Second resolution on both sides: the stamp is local time, milliseconds.
    const QDateTime before = QDateTime::currentDateTime().addMSecs(-1);
    log(message, QtMsgType(type));
    const QDateTime after = QDateTime::currentDateTime().addMSecs(1);

    const QByteArray bytes = fileBytes();
    QVERIFY(bytes.endsWith('\n'));
    QCOMPARE(bytes.count('\n'), 1);
    QVERIFY(bytes.endsWith("] " + message.toUtf8() + "\n"));
    const QString line = QString::fromUtf8(bytes.left(bytes.size() - 1));
    const QRegularExpressionMatch match = linePattern.match(line);
    QVERIFY2(match.hasMatch(), qPrintable(line));
    QCOMPARE(match.captured(2), message);
    const QDateTime stamp
            = QDateTime::fromString(match.captured(1), QStringLiteral("yyyy-MM-dd HH:mm:ss zzz"));
    QVERIFY(stamp.isValid());
    QVERIFY2(stamp >= before && stamp <= after, qPrintable(match.captured(1)));
}

void TestLogSink::testAppendsAndRecreates()
{
    QVERIFY(LogFile::clear());
    {
        QFile file(LogFile::path());
        QVERIFY(file.open(QIODevice::WriteOnly));
        file.write("existing line\n");
    }
    log("first");
    log("second");
    const QStringList lines = LogFile::lines();
    QCOMPARE(lines.size(), 3);
    QCOMPARE(lines.at(0), QStringLiteral("existing line"));
    QCOMPARE(LogFile::messageOf(lines.at(1)), QStringLiteral("first"));
    QCOMPARE(LogFile::messageOf(lines.at(2)), QStringLiteral("second"));

    QVERIFY(QFile::remove(LogFile::path()));
    log("after deletion");
    QCOMPARE(LogFile::messages(), QStringList{QStringLiteral("after deletion")});
}

void TestLogSink::testNewFileMode()
{
    QVERIFY(LogFile::clear());
    // With an empty umask a file created 0666 and narrowed later would show
    // wider bits; the sink creates it 0600 in the open call itself.
    const mode_t savedMask = umask(0);
    log("mode check");
    umask(savedMask);
    struct stat st;
    QCOMPARE(stat("/tmp/uilog.txt", &st), 0);
    QCOMPARE(int(st.st_mode & 07777), 0600);
    QCOMPARE(st.st_uid, getuid());
}

void TestLogSink::testTwoThreadsWholeLines()
{
    QVERIFY(LogFile::clear());
    const int perThread = 400;
    // Long lines make an interleaving within a line likely if the lock failed.
    auto writer = [perThread](char tag) {
        for (int i = 0; i < perThread; ++i)
            log(QStringLiteral("%1-%2-%3")
                        .arg(QLatin1Char(tag))
                        .arg(i)
                        .arg(QString(300, QLatin1Char(tag))));
    };
    std::thread a(writer, 'A');
    std::thread b(writer, 'B');
    a.join();
    b.join();

    const QStringList lines = LogFile::lines();
    QCOMPARE(lines.size(), 2 * perThread);
    QSet<QString> seen;
    const QRegularExpression body(QStringLiteral(R"(^([AB])-(\d+)-(A{300}|B{300})$)"));
    for (const QString &line : lines) {
        const QRegularExpressionMatch m = body.match(linePattern.match(line).captured(2));
        QVERIFY2(m.hasMatch(), qPrintable(line.left(80)));
        QCOMPARE(m.captured(3).at(0), m.captured(1).at(0));
        seen.insert(m.captured(1) + m.captured(2));
    }
    QCOMPARE(seen.size(), 2 * perThread);
}

void TestLogSink::testSymlinkNotFollowed()
{
    QVERIFY(LogFile::clear());
    QTemporaryDir dir;
    QVERIFY(dir.isValid());
    const QString target = dir.filePath("target.txt");
    {
        QFile file(target);
        QVERIFY(file.open(QIODevice::WriteOnly));
        file.write("untouched\n");
    }
    QVERIFY(QFile::link(target, LogFile::path()));
    log("must not reach the link target");
    QFile file(target);
    QVERIFY(file.open(QIODevice::ReadOnly));
    QCOMPARE(file.readAll(), QByteArray("untouched\n"));
    QVERIFY(QFile::remove(LogFile::path()));
}

// What stands under /tmp/uilog.txt before a line is logged.
enum Planted { ForeignOwner, Fifo, Directory, HardLink, DanglingLink };

static bool plant(Planted what, const QString &scratch)
{
    const QByteArray path = LogFile::path().toLocal8Bit();
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
    case HardLink: {
        QFile own(scratch + "/own.txt");
        return own.open(QIODevice::WriteOnly) && own.write("theirs\n") == 7 && own.flush()
               && link(QFile::encodeName(own.fileName()).constData(), path.constData()) == 0;
    }
    case DanglingLink:
        return symlink(QFile::encodeName(scratch + "/created-through-link").constData(),
                       path.constData())
               == 0;
    }
    return false;
}

// Removes whatever plant() left, also a directory.
static void unplant()
{
    const QByteArray path = LogFile::path().toLocal8Bit();
    if (unlink(path.constData()) != 0)
        rmdir(path.constData());
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
    QTest::newRow("other user's file, no runtime dir") << int(ForeignOwner) << false;
}

void TestLogSink::testRefusedFileFallsBack()
{
    QFETCH(int, planted);
    QFETCH(bool, runtimeDirSet);
    if (planted == ForeignOwner && geteuid() != 0)
        QSKIP("a file of another uid needs root to create");

    QTemporaryDir scratch;
    QTemporaryDir runtimeDir;
    QVERIFY(scratch.isValid() && runtimeDir.isValid());
    QVERIFY(LogFile::clear());
    QVERIFY(plant(Planted(planted), scratch.path()));
    const QByteArray savedRuntimeDir = qgetenv("XDG_RUNTIME_DIR");
    if (runtimeDirSet)
        qputenv("XDG_RUNTIME_DIR", QFile::encodeName(runtimeDir.path()));
    else
        qunsetenv("XDG_RUNTIME_DIR");
    log("refused primary");
    qputenv("XDG_RUNTIME_DIR", savedRuntimeDir);

    const QString fallback = runtimeDir.filePath("uilog.txt");
    QFile file(fallback);
    QCOMPARE(file.exists(), runtimeDirSet);
    if (runtimeDirSet) {
        QVERIFY(file.open(QIODevice::ReadOnly));
        const QByteArray bytes = file.readAll();
        QVERIFY2(linePattern.match(QString::fromUtf8(bytes.trimmed())).hasMatch(), bytes);
        QVERIFY(bytes.endsWith("] refused primary\n"));
        QCOMPARE(int(file.permissions() & 0x0777), 0x0600); // owner read and write only
    }
    // What was planted is unchanged and nothing was created through it.
    if (planted == ForeignOwner || planted == HardLink)
        QCOMPARE(fileBytes(), QByteArray("theirs\n"));
    QVERIFY(!QFile::exists(scratch.filePath("created-through-link")));
    unplant();
}

void TestLogSink::testRotation_data()
{
    QTest::addColumn<qint64>("existingSize");
    QTest::addColumn<bool>("olderRotated");
    QTest::addColumn<bool>("rotates");

    QTest::newRow("one byte below") << ZRUI_LOG_ROTATE_BYTES - 1 << false << false;
    QTest::newRow("at the limit") << ZRUI_LOG_ROTATE_BYTES << false << true;
    QTest::newRow("past it, older .1 replaced") << ZRUI_LOG_ROTATE_BYTES + 4096 << true << true;
}

void TestLogSink::testRotation()
{
    QFETCH(qint64, existingSize);
    QFETCH(bool, olderRotated);
    QFETCH(bool, rotates);
    QCOMPARE(ZRUI_LOG_ROTATE_BYTES, 16LL * 1024 * 1024);

    const QString rotated = LogFile::path() + ".1";
    QVERIFY(LogFile::clear());
    QFile::remove(rotated);
    if (olderRotated) {
        QFile older(rotated);
        QVERIFY(older.open(QIODevice::WriteOnly) && older.write("older\n") == 6);
    }
    {
        // Sparse: the size counts, not the blocks.
        QFile file(LogFile::path());
        QVERIFY(file.open(QIODevice::WriteOnly) && file.write("first\n") == 6);
        QVERIFY(file.resize(existingSize));
    }
    log("next line");

    QCOMPARE(QFileInfo(rotated).size(), rotates ? existingSize : (olderRotated ? 6 : 0));
    // The sparse part holds no line feed: compare sizes and the file's end.
    QCOMPARE(QFileInfo(LogFile::path()).size(), (rotates ? 0 : existingSize) + 36);
    QVERIFY(fileBytes().endsWith("] next line\n"));
    QFile::remove(rotated);
    QVERIFY(LogFile::clear());
}

void TestLogSink::testMuteIsPerThread()
{
    QVERIFY(LogFile::clear());
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
