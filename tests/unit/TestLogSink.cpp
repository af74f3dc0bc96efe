// The log sink on the real file /tmp/uilog.txt (ctest lock "uilog").
#include "app/LogSink.h"
#include "LogFile.h"

#include <QDateTime>
#include <QTemporaryDir>
#include <QtTest>

#include <sys/stat.h>
#include <unistd.h>

namespace {

void log(const QString &message, QtMsgType type = QtDebugMsg)
{
    printlogtofile(type, QMessageLogContext("file.cpp", 42, "function", "category"), message);
}

QByteArray bytesOf(const QString &path = LogFile::path())
{
    QFile file(path);
    return file.open(QIODevice::ReadOnly) ? file.readAll() : QByteArray();
}

bool put(const QString &path, const QByteArray &bytes)
{
    QFile file(path);
    return file.open(QIODevice::WriteOnly) && file.write(bytes) == bytes.size();
}

} // namespace

class TestLogSink : public QObject
{
    Q_OBJECT
private slots:
    void init() { QVERIFY(LogFile::clear()); }
    void cleanupTestCase() { LogFile::clear(); }
    void initTestCase() { qputenv("XDG_RUNTIME_DIR", QFile::encodeName(runtimeDir.path())); }
    void testLines();
    void testRefusedFileFallsBack();
    void testRotation();

private:
    QTemporaryDir runtimeDir;
};

// "[yyyy-MM-dd HH:mm:ss zzz] text" in local time and UTF-8 for every message type, appended;
// a deleted file is created again, 0600 in the open call even under an empty umask.
void TestLogSink::testLines()
{
    QVERIFY(put(LogFile::path(), "existing line\n"));
    const QStringList texts = {R"(trans file= ":/uiserver.en.qm")", "请输入PIN码 ü €", ""};
    const QDateTime before = QDateTime::currentDateTime().addMSecs(-1);
    log(texts[0], QtWarningMsg);
    log(texts[1], QtFatalMsg);
    log(texts[2]);
    const QDateTime after = QDateTime::currentDateTime().addMSecs(1);
    const QStringList lines = QString::fromUtf8(bytesOf()).split('\n');
    QCOMPARE(lines.size(), 5);
    QCOMPARE(lines.at(0), QStringLiteral("existing line"));
    for (int i = 0; i < 3; ++i) {
        const QString line = lines.at(i + 1);
        const QDateTime t = QDateTime::fromString(line.mid(1, 23), "yyyy-MM-dd HH:mm:ss zzz");
        QVERIFY2(line.startsWith('[') && line.mid(24, 2) == "] " && t >= before && t <= after,
                 qPrintable(line));
        QCOMPARE(line.mid(26), texts.at(i));
    }
    QVERIFY(QFile::remove(LogFile::path()));
    const mode_t savedMask = umask(0);
    log("after deletion");
    umask(savedMask);
    QCOMPARE(LogFile::messages(), QStringList{"after deletion"});
    struct stat st;
    QVERIFY(stat(ZRUI_LOG_PATH, &st) == 0 && (st.st_mode & 07777) == 0600 && st.st_uid == getuid());
}

// Whatever stands at /tmp/uilog.txt that is not this user's own single-named regular file is
// not written, nor anything through it: the line goes to $XDG_RUNTIME_DIR/uilog.txt (0600).
void TestLogSink::testRefusedFileFallsBack()
{
    QTemporaryDir scratch;
    const QByteArray own = QFile::encodeName(scratch.filePath("own")),
                     created = QFile::encodeName(scratch.filePath("created"));
    const QString fallback = runtimeDir.filePath("uilog.txt");
    for (const QString planted : {"fifo", "hard link", "symlink", "dangling symlink", "foreign"}) {
        if (planted == "foreign" && geteuid() != 0)
            QSKIP("a file of another uid needs root to create");
        QVERIFY(put(own, "theirs\n"));
        QVERIFY(planted == "fifo"        ? mkfifo(ZRUI_LOG_PATH, 0666) == 0
                : planted == "hard link" ? link(own, ZRUI_LOG_PATH) == 0
                : planted == "symlink"   ? symlink(own, ZRUI_LOG_PATH) == 0
                : planted == "dangling symlink"
                        ? symlink(created, ZRUI_LOG_PATH) == 0
                        : put(LogFile::path(), "theirs\n") && chmod(ZRUI_LOG_PATH, 0666) == 0
                                  && chown(ZRUI_LOG_PATH, 65534, 65534) == 0);
        QFile::remove(fallback);
        log("refused primary");
        QVERIFY2(bytesOf(fallback).endsWith("] refused primary\n"), qPrintable(planted));
        QCOMPARE(QFile::permissions(fallback) & 0x0777, QFile::Permissions(0x0600));
        QVERIFY(bytesOf(own) == "theirs\n" && !QFile::exists(created));
        QVERIFY(planted != "foreign" || bytesOf() == "theirs\n");
        QCOMPARE(unlink(ZRUI_LOG_PATH), 0);
    }
}

// From 16 MiB on, the file becomes uilog.txt.1 (replacing an older one) before the next line.
void TestLogSink::testRotation()
{
    const qint64 limit = 16LL * 1024 * 1024;
    QFile file(LogFile::path()), older(LogFile::path() + ".1");
    for (qint64 size : {limit - 1, limit, limit + 4096}) {
        const bool rotates = size >= limit;
        older.remove();
        QVERIFY(size <= limit || put(older.fileName(), "older\n"));
        // Sparse: the size counts, not the blocks.
        QVERIFY(put(file.fileName(), "first\n") && file.resize(size));
        log("next line");
        QCOMPARE(QFileInfo(older.fileName()).size(), rotates ? size : 0);
        QCOMPARE(file.size(), (rotates ? 0 : size) + 36);
        QVERIFY(bytesOf().endsWith("] next line\n"));
    }
    older.remove();
}

QTEST_APPLESS_MAIN(TestLogSink)
#include "TestLogSink.moc"
