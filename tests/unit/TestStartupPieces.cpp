// Start-up pieces in the test process: the INI reader, the signature check through the
// stand-in algorithm library, the log sink on the real /tmp/uilog.txt (ctest lock "uilog"),
// and the GIF writer that draws the waiting animation.
#include "GifEncoder.h"
#include "LogFile.h"
#include "app/FileIntegrity.h"
#include "app/IniReader.h"
#include "app/LogSink.h"
#include "app/TokenLibs.h"

#include <QBuffer>
#include <QDateTime>
#include <QImageReader>
#include <QRandomGenerator>
#include <QTemporaryDir>
#include <QtTest>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

namespace {

QByteArray readAll(const QString &path)
{
    QFile f(path);
    return f.open(QIODevice::ReadOnly) ? f.readAll() : QByteArray();
}

bool writeAll(const QString &path, const QByteArray &data)
{
    QFile f(path);
    return f.open(QIODevice::WriteOnly | QIODevice::Truncate) && f.write(data) == data.size();
}

QByteArray iniWith(const QByteArray &key, const QByteArray &value, const QByteArray &eol = "\n")
{
    return "[Kestrova 5.1]" + eol + key + "=" + value + eol;
}

void log(const QString &message, QtMsgType type = QtDebugMsg)
{
    printlogtofile(type, QMessageLogContext("file.cpp", 42, "function", "category"), message);
}

} // namespace

class TestStartupPieces : public QObject
{
    Q_OBJECT
private slots:
    void initTestCase();
    void cleanupTestCase() { LogFile::clear(); }
    void testIniLookup();
    void testVerify();
    void testLogLines();
    void testLogRefusedFileFallsBack();
    void testLogRotation();
    void testGifRoundTrip();

private:
    QTemporaryDir tmp, runtimeDir;
    const QString binDir = qEnvironmentVariable("ZRUI_BIN_DIR");
    QByteArray libDir = qgetenv("ZRUI_TOKENSIM_DIR"), rcc, signatureHex;
};

void TestStartupPieces::initTestCase()
{
    rcc = readAll(binDir + "/resources.rcc");
    QVERIFY(tmp.isValid() && !rcc.isEmpty() && LogFile::clear() && LoadLib_Alg(0, libDir.data()));
    qputenv("XDG_RUNTIME_DIR", QFile::encodeName(runtimeDir.path()));
    // The entry that runs the sink as the server runs it as root: without CAP_FOWNER.
    if (qEnvironmentVariable("ZRUI_TEST_LOG_GUARD") == "kernel")
        QVERIFY(dropFileOwnerOverride() && !hasFileOwnerOverride());
    const QString ini = QString::fromLatin1(readAll(binDir + "/integrityprotect.ini"));
    signatureHex = ini.section("\nresources.rcc_Sign=", 1).section('\n', 0, 0).toLatin1();
    QCOMPARE(signatureHex.size(), 512);
}

// Kept on purpose: the signature files are written for exactly this reader's quirks.
void TestStartupPieces::testIniLookup()
{
    const QByteArray x(1021, 'x');
    // The file (none when null) and the value of k in [S].
    const QList<QPair<QByteArray, QByteArray>> rows = {{"[S]\r\nk=v\r\n", "v"},
                                                       {"[S]\nk=v", ""},
                                                       {"[S]\n#k=1\nk=2\n", "2"},
                                                       {"[S]\n//k=1\nk=2\n", "2"},
                                                       {"[S]\n/k=kept\n", "kept"},
                                                       {"[S]\no=has k\n", "has k"},
                                                       {"[S]\nk = a=b \n", " a=b "},
                                                       {"[S]\n[T]\nk=T\n", "T"},
                                                       {"k=1\n[S]\nk=2\n", "2"},
                                                       {"[S] x\nk=v\n", "v"},
                                                       {" [S]\n[Sx]\nk=v\n", ""},
                                                       {"[(null)]\nk=v\n", ""},
                                                       {QByteArray(), ""},
                                                       {"[S]\nk=" + x + "\n", x},
                                                       {"[S]\nk=" + x + "x\nk=v\n", "v"}};
    for (const auto &row : rows) {
        QByteArray path = QFile::encodeName(tmp.filePath("ini"));
        QVERIFY(QFile::remove(path) || !QFile::exists(path));
        QVERIFY(row.first.isNull() || writeAll(path, row.first));
        char section[] = "S", key[] = "k";
        QCOMPARE(QByteArray(GetIniKeyString(section, key, path.data())), row.second);
        QCOMPARE(QByteArray(GetIniKeyString(nullptr, key, path.data())), QByteArray());
    }
}

// Tampered file, bad or unreversed signature, missing file or key: 0. Lower-case hex and
// CR LF verify; a "ZRUIServer..." name is looked up under the executable's key.
void TestStartupPieces::testVerify()
{
    const QByteArray k("resources.rcc_Sign"), n("resources.rcc"), sig = signatureHex;
    const QByteArray exe("ZRUIServerX"), exeKey("ZRUIServer.exe_Sign");
    QByteArray changed = rcc, digit = sig, reversed = QByteArray::fromHex(sig);
    changed[rcc.size() / 2] = char(changed.at(rcc.size() / 2) ^ 1);
    digit[100] = digit.at(100) == '0' ? '1' : '0';
    std::reverse(reversed.begin(), reversed.end());
    using Row = std::tuple<QByteArray, QByteArray, QByteArray, int>; // content null: no file
    for (const auto &[name, content, ini, expected] :
         {Row{n, rcc, iniWith(k, sig), 1}, Row{n, rcc, iniWith(k, sig.toLower()), 1},
          Row{n, rcc, iniWith(k, sig, "\r\n"), 1}, Row{n, rcc, iniWith("#" + k, sig), 0},
          Row{n, changed, iniWith(k, sig), 0}, Row{n, rcc, iniWith(k, digit), 0},
          Row{n, rcc, iniWith(k, reversed.toHex()), 0}, Row{n, QByteArray(), iniWith(k, sig), 0},
          Row{exe, rcc, iniWith(exeKey, sig), 1}, Row{exe, rcc, iniWith(exe + "_Sign", sig), 0}}) {
        QTemporaryDir dir;
        QVERIFY(writeAll(dir.filePath("integrityprotect.ini"), ini));
        QVERIFY(content.isNull() || writeAll(dir.filePath(name), content));
        QByteArray d = QFile::encodeName(dir.path() + "/"), file = name;
        QCOMPARE(FileIntegrityProtect(d.data(), file.data()), expected);
        d.chop(1); // without "/" the names are glued
        QCOMPARE(FileIntegrityProtect(d.data(), file.data()), 0);
    }
    // Null arguments are refused (a null directory is not printed as "(null)"), and a path
    // that does not fit the 256-byte buffer is refused, never cut to a name that exists.
    QDir::setCurrent(tmp.path());
    char name[] = "resources.rcc", nullDir[] = "(null)", file[] = "(null)resources.rcc";
    QVERIFY(writeAll("(null)resources.rcc", rcc));
    QVERIFY(writeAll("(null)integrityprotect.ini", iniWith("resources.rcc_Sign", signatureHex)));
    QCOMPARE(FileIntegrityProtect(nullDir, name), 1);
    QCOMPARE(FileIntegrityProtect(nullptr, name), 0);
    unsigned char hex[] = "00";
    QVERIFY(!ReadFileContent(file, nullptr, nullptr) && !StringToBin(nullptr, hex, 2));
    QByteArray d = QFile::encodeName(tmp.path() + "/");
    for (int len : {255, 256}) {
        QByteArray longName(len - d.size(), 'n');
        QVERIFY(writeAll(tmp.filePath(longName.chopped(1)), rcc)
                && writeAll(tmp.filePath(longName), rcc));
        QVERIFY(writeAll("integrityprotect.ini", iniWith(longName + "_Sign", signatureHex)));
        QCOMPARE(FileIntegrityProtect(d.data(), longName.data()), int(len == 255));
    }
}

// "[yyyy-MM-dd HH:mm:ss zzz] text" in local time and UTF-8 for every message type, appended.
void TestStartupPieces::testLogLines()
{
    QVERIFY(writeAll(LogFile::path(), "existing line\n"));
    const QStringList texts = {R"(trans file= ":/uiserver.en.qm")", "请输入PIN码 ü €", ""};
    const QDateTime before = QDateTime::currentDateTime().addMSecs(-1);
    for (int i = 0; i < 3; ++i)
        log(texts.at(i), QList<QtMsgType>{QtWarningMsg, QtFatalMsg, QtDebugMsg}.at(i));
    const QDateTime after = QDateTime::currentDateTime().addMSecs(1);
    const QStringList lines = QString::fromUtf8(readAll(LogFile::path())).split('\n');
    QVERIFY(lines.size() == 5 && lines.at(0) == "existing line");
    for (int i = 0; i < 3; ++i) {
        const QString line = lines.at(i + 1);
        const QDateTime t = QDateTime::fromString(line.mid(1, 23), "yyyy-MM-dd HH:mm:ss zzz");
        QVERIFY(t >= before && t <= after);
        QCOMPARE(line.left(1) + line.mid(24), "[] " + texts.at(i));
    }
    // Open, write and close alone keep lines out of other users' files only where the kernel
    // refuses links to them and the process cannot pass for every file's owner.
    const bool linksGuarded = readAll("/proc/sys/fs/protected_hardlinks").startsWith('1');
    if (!linksGuarded && qEnvironmentVariable("ZRUI_TEST_LOG_GUARD") == "kernel")
        QSKIP("this kernel lets users link other users' files");
    QCOMPARE(logGuardedByKernel(), linksGuarded && !hasFileOwnerOverride());
}

// Whatever stands at /tmp/uilog.txt that is not this user's own single-named regular file is
// not written, nor anything through it: the line goes to $XDG_RUNTIME_DIR/uilog.txt (0600).
void TestStartupPieces::testLogRefusedFileFallsBack()
{
    QVERIFY(LogFile::clear());
    QTemporaryDir scratch;
    const QByteArray own = QFile::encodeName(scratch.filePath("own")),
                     created = QFile::encodeName(scratch.filePath("created"));
    const QString fallback = runtimeDir.filePath("uilog.txt");
    int reader = -1;
    const auto closeReader = qScopeGuard([&reader] { reader < 0 || close(reader); });
    for (const QString planted :
         {"fifo", "fifo with a reader", "hard link", "symlink", "dangling symlink", "foreign"}) {
        if (planted == "foreign" && geteuid() != 0)
            QSKIP("a file of another uid needs root to create");
        // Where the kernel guards the name, a second name of our file can only be our own doing.
        if (planted == "hard link" && logGuardedByKernel())
            continue;
        QVERIFY(writeAll(own, "theirs\n"));
        QVERIFY(planted.startsWith("fifo") ? mkfifo(ZRUI_LOG_PATH, 0666) == 0
                : planted == "hard link"   ? link(own, ZRUI_LOG_PATH) == 0
                : planted == "symlink"     ? symlink(own, ZRUI_LOG_PATH) == 0
                : planted == "dangling symlink"
                        ? symlink(created, ZRUI_LOG_PATH) == 0
                        : writeAll(LogFile::path(), "theirs\n") && chmod(ZRUI_LOG_PATH, 0666) == 0
                                  && chown(ZRUI_LOG_PATH, 65534, 65534) == 0);
        if (planted == "fifo with a reader")
            QVERIFY((reader = open(ZRUI_LOG_PATH, O_RDONLY | O_NONBLOCK)) >= 0);
        QFile::remove(fallback);
        log("refused primary");
        char got = 0;
        QVERIFY(reader < 0 || read(reader, &got, 1) <= 0);
        QVERIFY2(readAll(fallback).endsWith("] refused primary\n"), qPrintable(planted));
        QCOMPARE(QFile::permissions(fallback) & 0x0777, QFile::Permissions(0x0600));
        QVERIFY(readAll(own) == "theirs\n" && !QFile::exists(created));
        QVERIFY(planted != "foreign" || readAll(LogFile::path()) == "theirs\n");
        QCOMPARE(unlink(ZRUI_LOG_PATH), 0);
    }
}

// From 16 MiB on, the file becomes uilog.txt.1 (replacing an older one). Growth from outside
// counts before the next line where every line's file is looked at, within
// ZRUI_LOG_SIZE_CHECK_LINES lines where the kernel guards it; our own lines at once.
void TestStartupPieces::testLogRotation()
{
    const qint64 limit = 16LL * 1024 * 1024;
    const bool kernel = logGuardedByKernel();
    const int lines = kernel ? ZRUI_LOG_SIZE_CHECK_LINES : 1;
    QFile file(LogFile::path()), older(LogFile::path() + ".1");
    for (qint64 size :
         kernel ? QList<qint64>{limit + 4096} : QList<qint64>{limit - 1, limit, limit + 4096}) {
        const bool rotates = size >= limit;
        older.remove();
        QVERIFY(size <= limit || writeAll(older.fileName(), "older\n"));
        // Sparse: the size counts, not the blocks.
        QVERIFY(writeAll(file.fileName(), "first\n") && file.resize(size));
        for (int i = 0; i < lines; ++i)
            log("next line");
        const qint64 kept = QFileInfo(older.fileName()).size();
        QVERIFY(readAll(LogFile::path()).endsWith("] next line\n"));
        QVERIFY2(rotates ? kept >= size && (kept - size) % 36 == 0 : kept == 0,
                 qPrintable(QString::number(kept)));
        QCOMPARE(kept + file.size(), size + lines * 36);
    }
    // Our own lines: the first line after the limit is the new file's first.
    const QString block(1 << 20, 'x');
    for (int i = 0; i < 17 && file.size() < limit; ++i)
        log(block);
    QVERIFY(file.size() >= limit);
    log("after");
    QCOMPARE(file.size(), 32);
    QVERIFY(QFileInfo(older.fileName()).size() >= limit
            && readAll(LogFile::path()).endsWith("] after\n"));
    older.remove();
}

// The GIF reader decodes a frame back to exactly its colours (the transparent one as
// transparent), with loop and delay: noise in 256 colours overflows the 4096-entry table many
// times (code width and clear codes must line up).
void TestStartupPieces::testGifRoundTrip()
{
    const int size = 200;
    QVector<QRgb> palette;
    for (int i = 0; i < 256; ++i)
        palette << qRgb(i, (i * 91 + 13) & 0xff, (255 - i * 53) & 0xff);
    GifEncoder gif(size, size, palette, 3);
    gif.setLoopCount(0);
    palette[3] &= RGB_MASK; // transparent, colour kept
    QImage frame(size, size, QImage::Format_Indexed8);
    QRandomGenerator rng(1);
    frame.setColorTable(palette);
    for (int i = 0; i < size * size; ++i)
        frame.scanLine(i / size)[i % size] = uchar(rng.bounded(256));
    QVERIFY(gif.addFrame(frame, 7));
    QByteArray file = gif.finish();
    QBuffer buffer(&file);
    QImageReader reader(&buffer, "gif");
    QVERIFY(reader.imageCount() == 1 && reader.loopCount() == -1); // -1: for ever
    const QImage decoded = reader.read().convertToFormat(QImage::Format_ARGB32);
    QCOMPARE(reader.nextImageDelay(), 70);
    QVERIFY(decoded == frame.convertToFormat(QImage::Format_ARGB32));
}

QTEST_GUILESS_MAIN(TestStartupPieces)
#include "TestStartupPieces.moc"
