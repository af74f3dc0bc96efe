// In-process: INI reader, signature check, log sink (real /tmp/uilog.txt, lock "uilog"), GIF
// writer.
#include "GifEncoder.h"
#include "LogFile.h"
#include "app/FileIntegrity.h"
#include "app/IniReader.h"
#include "app/LogSink.h"
#include "app/TokenLibs.h"

#include <QImageReader>
#include <QtTest>

#include <fcntl.h>
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

QByteArray iniWith(const QByteArray &key, const QByteArray &value)
{
    return "[Kestrova 5.1]\n" + key + "=" + value + "\n";
}

void log(const QString &message, QtMsgType type = QtDebugMsg)
{
    printlogtofile(type, QMessageLogContext("file.cpp", 42, "function", "category"), message);
}

} // namespace

class TestStartupPieces : public QObject
{
    Q_OBJECT
    QTemporaryDir tmp, runtimeDir;
    QByteArray rcc, signatureHex;

private slots:
    void initTestCase()
    {
        const QString binDir = qEnvironmentVariable("ZRUI_BIN_DIR");
        rcc = readAll(binDir + "/resources.rcc");
        QVERIFY(LogFile::clear() && LoadLib_Alg(0, qgetenv("ZRUI_TOKENSIM_DIR").data()));
        qputenv("XDG_RUNTIME_DIR", QFile::encodeName(runtimeDir.path()));
        // The entry that runs the sink as the server runs it as root: without CAP_FOWNER.
        if (qEnvironmentVariable("ZRUI_TEST_LOG_GUARD") == "kernel")
            QVERIFY(dropFileOwnerOverride() && !hasFileOwnerOverride());
        QByteArray ini = QFile::encodeName(binDir + "/integrityprotect.ini");
        char section[] = "Kestrova 5.1", key[] = "resources.rcc_Sign";
        QCOMPARE((signatureHex = GetIniKeyString(section, key, ini.data())).size(), 512);
    }

    // Kept on purpose: the signature files are written for exactly this reader's quirks.
    void testIniLookup()
    {
        const QByteArray x(1021, 'x');
        QByteArrayList rows
                = {"[S]\r\nk=v\r\n|v",      "[S]\nk=v|",           "[S]\n#k=1\nk=2\n|2",
                   "[S]\n//k=1\nk=2\n|2",   "[S]\n/k=kept\n|kept", "[S]\no=has k\n|has k",
                   "[S]\nk = a=b \n| a=b ", "[S]\n[T]\nk=T\n|T",   "k=1\n[S]\nk=2\n|2",
                   "[S] x\nk=v\n|v",        " [S]\n[Sx]\nk=v\n|",  "[(null)]\nk=v\n|"};
        rows << "[S]\nk=" + x + "\n|" + x << "[S]\nk=" + x + "x\nk=v\n|v";
        QByteArray path = QFile::encodeName(tmp.filePath("ini"));
        char section[] = "S", key[] = "k", none[] = "/nonexistent"; // rows: file | k in [S]
        for (const QByteArray &row : rows) {
            const int bar = row.lastIndexOf('|');
            QVERIFY(writeAll(path, row.left(bar)));
            QCOMPARE(QByteArray(GetIniKeyString(section, key, path.data())), row.mid(bar + 1));
            QCOMPARE(QByteArray(GetIniKeyString(nullptr, key, path.data())), QByteArray());
        }
        QCOMPARE(QByteArray(GetIniKeyString(section, key, none)), QByteArray());
    }

    // Tampered file, bad or unreversed signature, missing file or key: 0; lower-case hex and
    // CR LF verify; a "ZRUIServer..." name is looked up under the executable's key.
    void testVerify()
    {
        const QByteArray k("resources.rcc_Sign"), n("resources.rcc"), sig = signatureHex;
        const QByteArray exe("ZRUIServerX");
        QByteArray changed = rcc, digit = sig, reversed = QByteArray::fromHex(sig);
        changed[rcc.size() / 2] = char(changed.at(rcc.size() / 2) ^ 1);
        digit[100] = digit.at(100) == '0' ? '1' : '0';
        std::reverse(reversed.begin(), reversed.end());
        using Row = std::tuple<QByteArray, QByteArray, QByteArray, int>; // content null: no file
        for (const auto &[name, content, ini, expected] :
             {Row{n, rcc, iniWith(k, sig), 1}, Row{n, rcc, iniWith(k, sig.toLower()), 1},
              Row{n, rcc, iniWith("#" + k, sig), 0}, Row{n, changed, iniWith(k, sig), 0},
              Row{n, rcc, iniWith(k, digit), 0}, Row{n, rcc, iniWith(k, reversed.toHex()), 0},
              Row{n, QByteArray(), iniWith(k, sig), 0},
              Row{exe, rcc, iniWith("ZRUIServer.exe_Sign", sig), 1},
              Row{exe, rcc, iniWith(exe + "_Sign", sig), 0}}) {
            QTemporaryDir dir;
            QVERIFY(writeAll(dir.filePath("integrityprotect.ini"), ini));
            QVERIFY(content.isNull() || writeAll(dir.filePath(name), content));
            QByteArray d = QFile::encodeName(dir.path() + "/"), file = name;
            QCOMPARE(FileIntegrityProtect(d.data(), file.data()), expected);
        }
        // Null arguments (not printed as "(null)") and paths past 255 bytes (never cut) refused.
        QDir::setCurrent(tmp.path());
        char name[] = "resources.rcc", nullDir[] = "(null)", file[] = "(null)resources.rcc";
        QVERIFY(writeAll(file, rcc) && writeAll("(null)integrityprotect.ini", iniWith(k, sig)));
        QVERIFY(FileIntegrityProtect(nullDir, name) == 1 && !FileIntegrityProtect(nullptr, name));
        unsigned char hex[] = "00";
        QVERIFY(!ReadFileContent(file, nullptr, nullptr) && !StringToBin(nullptr, hex, 2));
        QByteArray d = QFile::encodeName(tmp.path() + "/");
        for (int len : {255, 256}) {
            QByteArray longName(len - d.size(), 'n');
            QVERIFY(writeAll(tmp.filePath(longName.chopped(1)), rcc)
                    && writeAll(tmp.filePath(longName), rcc)
                    && writeAll("integrityprotect.ini", iniWith(longName + "_Sign", sig)));
            QCOMPARE(FileIntegrityProtect(d.data(), longName.data()), int(len == 255));
        }
    }

    // "[yyyy-MM-dd HH:mm:ss zzz] text" in local time and UTF-8 for every message type, appended.
    void testLogLines()
    {
        QVERIFY(writeAll(LogFile::path(), "existing line\n"));
        const QStringList texts = {R"(trans file= ":/uiserver.en.qm")", "请输入PIN码 ü €", ""};
        const QDateTime before = QDateTime::currentDateTime().addMSecs(-1);
        for (int i = 0; i < 3; ++i)
            log(texts.at(i), QList<QtMsgType>{QtWarningMsg, QtFatalMsg, QtDebugMsg}.at(i));
        const QDateTime after = QDateTime::currentDateTime().addMSecs(1);
        const QStringList lines = QString::fromUtf8(readAll(LogFile::path())).split('\n');
        QVERIFY(lines.size() == 5 && lines.at(0) == "existing line");
        for (int i = 1; i < 4; ++i) {
            const auto t = QDateTime::fromString(lines[i].mid(1, 23), "yyyy-MM-dd HH:mm:ss zzz");
            QVERIFY(t >= before && t <= after);
            QCOMPARE(lines[i].left(1) + lines[i].mid(24), "[] " + texts.at(i - 1));
        }
        // open(2) alone keeps out of others' files only with links guarded and no CAP_FOWNER.
        const bool linksGuarded = readAll("/proc/sys/fs/protected_hardlinks").startsWith('1');
        if (!linksGuarded && qEnvironmentVariable("ZRUI_TEST_LOG_GUARD") == "kernel")
            QSKIP("this kernel lets users link other users' files");
        QCOMPARE(logGuardedByKernel(), linksGuarded && !hasFileOwnerOverride());
    }

    // Nothing at /tmp/uilog.txt but our own single-named regular file is written, nor anything
    // through it: the line goes to $XDG_RUNTIME_DIR/uilog.txt (0600). $2 ours, $3 no file.
    void testLogRefusedFileFallsBack()
    {
        const QString own = tmp.filePath("own"), created = tmp.filePath("created");
        const QString fallback = runtimeDir.filePath("uilog.txt");
        int reader = -1, got = 0; // the reader stays open to the end of the process
        for (const QString planted :
             {"mkfifo $1", "mkfifo $1 # a reader", "ln $2 $1", "ln -s $2 $1", "ln -s $3 $1",
              "echo theirs >$1 && chmod 666 $1 && chown 65534 $1"}) {
            if (planted.contains("chown") && geteuid() != 0)
                QSKIP("a file of another uid needs root to create");
            // Where the kernel guards the name, a second name of our file is our own doing.
            if (planted.startsWith("ln $2") && logGuardedByKernel())
                continue;
            QVERIFY(QProcess::execute("sh", {"-c", "rm -f $1; echo theirs >$2 && " + planted, "sh",
                                             LogFile::path(), own, created})
                    == 0);
            if (planted.contains("reader"))
                QVERIFY((reader = open(ZRUI_LOG_PATH, O_RDONLY | O_NONBLOCK)) >= 0);
            QFile::remove(fallback);
            log("refused primary");
            QVERIFY(reader < 0 || read(reader, &got, 1) <= 0);
            QVERIFY2(readAll(fallback).endsWith("] refused primary\n") && readAll(own) == "theirs\n"
                             && (QFile::permissions(fallback) & 0x0777) == 0x0600
                             && !QFile::exists(created)
                             && (!planted.contains("chown")
                                 || readAll(LogFile::path()) == "theirs\n"),
                     qPrintable(planted));
            QCOMPARE(unlink(ZRUI_LOG_PATH), 0);
        }
    }

    // From 16 MiB on, the file becomes uilog.txt.1 (replacing an older one): outside growth within
    // ZRUI_LOG_SIZE_CHECK_LINES lines where the kernel guards the file, else at once; ours at once.
    void testLogRotation()
    {
        const qint64 limit = 16LL * 1024 * 1024;
        const int lines = logGuardedByKernel() ? ZRUI_LOG_SIZE_CHECK_LINES : 1; // kernel-guarded
        QFile file(LogFile::path()), older(LogFile::path() + ".1");
        for (qint64 size : lines > 1 ? QList<qint64>{limit + 4096}
                                     : QList<qint64>{limit - 1, limit, limit + 4096}) {
            QVERIFY(writeAll(older.fileName(), "older\n")); // 6 bytes, replaced on rotation
            QVERIFY(writeAll(file.fileName(), "first\n") && file.resize(size)); // sparse
            for (int i = 0; i < lines; ++i)
                log("next line");
            const qint64 kept = QFileInfo(older.fileName()).size();
            QVERIFY(readAll(LogFile::path()).endsWith("] next line\n"));
            QVERIFY(size >= limit ? kept >= size && (kept - size) % 36 == 0 : kept == 6);
            QCOMPARE(kept + file.size(), size + lines * 36 + (size < limit ? 6 : 0));
        }
        const QString block(1 << 20, 'x');
        for (int i = 0; i < 17 && file.size() < limit; ++i)
            log(block);
        log("after"); // the first line after the limit is the new file's first
        QVERIFY(file.size() == 32 && QFileInfo(older.fileName()).size() >= limit);
        older.remove();
    }

    // Decoded to exactly its colours, loop and delay: noise overflows the 4096-entry code table.
    void testGifRoundTrip()
    {
        QVector<QRgb> palette;
        for (int i = 0; i < 256; ++i)
            palette << qRgb(i, (i * 91 + 13) & 0xff, (255 - i * 53) & 0xff);
        GifEncoder gif(200, 200, palette, 3);
        gif.setLoopCount(0);
        palette[3] &= RGB_MASK; // transparent, colour kept
        QImage frame(200, 200, QImage::Format_Indexed8);
        frame.setColorTable(palette);
        QRandomGenerator rng(1);
        std::generate_n(frame.bits(), 200 * 200, [&rng] { return uchar(rng.bounded(256)); });
        QVERIFY(gif.addFrame(frame, 7));
        QByteArray file = gif.finish();
        QBuffer buffer(&file);
        QImageReader reader(&buffer, "gif");
        QVERIFY(reader.imageCount() == 1 && reader.loopCount() == -1); // -1: for ever
        const QImage decoded = reader.read().convertToFormat(QImage::Format_ARGB32);
        QVERIFY(reader.nextImageDelay() == 70
                && decoded == frame.convertToFormat(decoded.format()));
    }
};

QTEST_GUILESS_MAIN(TestStartupPieces)
#include "TestStartupPieces.moc"
