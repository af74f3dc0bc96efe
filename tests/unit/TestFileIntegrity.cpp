#include "app/FileIntegrity.h"
#include "app/TokenLibs.h"

#include <QDir>
#include <QFile>
#include <QTemporaryDir>
#include <QtTest>

// Hex conversion, file reads and the signature check, with this build's
// signed bin/resources.rcc and the stand-in algorithm library.
class TestFileIntegrity : public QObject
{
    Q_OBJECT
private slots:
    void initTestCase();
    void testStringToBin_data();
    void testStringToBin();
    void testReadFileContent();
    void testVerify_data();
    void testVerify();
    void testExecutablePrefix_data();
    void testExecutablePrefix();
    void testNullArguments();

private:
    QByteArray rcc;
    QByteArray signatureHex;
    QTemporaryDir tmp;
};

namespace {

QByteArray env(const char *name) { return qgetenv(name); }

bool writeFile(const QString &path, const QByteArray &content)
{
    QFile file(path);
    return file.open(QIODevice::WriteOnly) && file.write(content) == content.size();
}

QByteArray iniWith(const QByteArray &key, const QByteArray &value, const QByteArray &eol = "\n")
{
    return "[Kestrova 5.1]" + eol + key + "=" + value + eol;
}

// Writes name and integrityprotect.ini into dir; its path with "/" (empty on failure).
QByteArray signedDir(const QTemporaryDir &dir, const QString &name, const QByteArray &content,
                     const QByteArray &ini)
{
    if (!dir.isValid() || !writeFile(dir.filePath(name), content)
        || !writeFile(dir.filePath("integrityprotect.ini"), ini))
        return QByteArray();
    return QFile::encodeName(dir.path() + "/");
}

} // namespace

void TestFileIntegrity::initTestCase()
{
    QVERIFY(tmp.isValid());
    QByteArray libDir = env("ZRUI_TOKENSIM_DIR");
    QVERIFY2(!libDir.isEmpty(), "ZRUI_TOKENSIM_DIR not set");
    QCOMPARE(LoadLib_Alg(0, libDir.data()), 1);

    const QString binDir = QString::fromLocal8Bit(env("ZRUI_BIN_DIR"));
    QFile rccFile(binDir + "/resources.rcc");
    QVERIFY2(rccFile.open(QIODevice::ReadOnly), qPrintable(rccFile.fileName()));
    rcc = rccFile.readAll();
    QVERIFY(rcc.size() > 0);

    QFile ini(binDir + "/integrityprotect.ini");
    QVERIFY2(ini.open(QIODevice::ReadOnly), qPrintable(ini.fileName()));
    const QList<QByteArray> lines = ini.readAll().split('\n');
    for (const QByteArray &line : lines) {
        if (line.startsWith("resources.rcc_Sign="))
            signatureHex = line.mid(int(strlen("resources.rcc_Sign="))).trimmed();
    }
    QCOMPARE(signatureHex.size(), 512);
}

void TestFileIntegrity::testStringToBin_data()
{
    QTest::addColumn<QByteArray>("hex");
    QTest::addColumn<int>("digits");
    QTest::addColumn<QByteArray>("expected");

    QTest::newRow("upper case") << QByteArray("00FF7A") << 6 << QByteArray::fromHex("00ff7a");
    QTest::newRow("lower case") << QByteArray("abcdef09") << 8 << QByteArray::fromHex("abcdef09");
    QTest::newRow("fewer digits than text") << QByteArray("1234") << 2 << QByteArray::fromHex("12");
    // Odd count: one more character is converted; the terminator (0 - 55)
    // gives low nibble 9.
    QTest::newRow("odd count, terminator") << QByteArray("123") << 3 << QByteArray::fromHex("1239");
    QTest::newRow("odd count, next digit")
            << QByteArray("1234") << 3 << QByteArray::fromHex("1234");
    QTest::newRow("one digit") << QByteArray("F") << 1 << QByteArray::fromHex("f9");
    // Not hex: code - 55, reduced to 8 bits (high) and 4 bits (low).
    QTest::newRow("G Z") << QByteArray("GZ") << 2 << QByteArray::fromHex("03");
    QTest::newRow("hash and minus") << QByteArray("#-") << 2 << QByteArray::fromHex("c6");
}

void TestFileIntegrity::testStringToBin()
{
    QFETCH(QByteArray, hex);
    QFETCH(int, digits);
    QFETCH(QByteArray, expected);

    // Guard bytes show that exactly (digits + 1) / 2 bytes are written.
    unsigned char out[16];
    memset(out, 0xEE, sizeof(out));
    QByteArray text = hex;
    text.append('\0');
    unsigned char *in = reinterpret_cast<unsigned char *>(text.data());
    QCOMPARE(StringToBin(out, in, static_cast<unsigned long>(digits)), out);
    QCOMPARE(QByteArray(reinterpret_cast<char *>(out), expected.size()), expected);
    for (size_t i = size_t(expected.size()); i < sizeof(out); ++i)
        QCOMPARE(int(out[i]), 0xEE);
}

void TestFileIntegrity::testReadFileContent()
{
    QByteArray bytes;
    for (int i = 0; i < 3000; ++i)
        bytes.append(char(i * 7));
    const QString path = tmp.filePath("content.bin");
    QVERIFY(writeFile(path, bytes));
    QByteArray pathBytes = QFile::encodeName(path);

    unsigned char *data = nullptr;
    unsigned long size = 0;
    QCOMPARE(ReadFileContent(pathBytes.data(), &data, &size), 1);
    QVERIFY(data != nullptr);
    QCOMPARE(size, 3000ul);
    QCOMPARE(QByteArray(reinterpret_cast<char *>(data), int(size)), bytes);
    free(data);

    QByteArray missing = QFile::encodeName(tmp.filePath("missing.bin"));
    data = nullptr;
    QCOMPARE(ReadFileContent(missing.data(), &data, &size), 0);
    QVERIFY(data == nullptr);
    QCOMPARE(ReadFileContent(pathBytes.data(), nullptr, &size), 0);
}

void TestFileIntegrity::testVerify_data()
{
    QTest::addColumn<QByteArray>("fileContent");
    QTest::addColumn<QByteArray>("iniContent");
    QTest::addColumn<int>("expected");

    const QByteArray key("resources.rcc_Sign");
    QTest::newRow("as built") << rcc << iniWith(key, signatureHex) << 1;
    QTest::newRow("lower-case hex") << rcc << iniWith(key, signatureHex.toLower()) << 1;
    QTest::newRow("CR LF") << rcc << iniWith(key, signatureHex, "\r\n") << 1;
    QTest::newRow("commented with hash") << rcc << iniWith("#" + key, signatureHex) << 0;
    QTest::newRow("no final line feed")
            << rcc << QByteArray("[Kestrova 5.1]\n" + key + "=" + signatureHex) << 0;
    QTest::newRow("missing key") << rcc << iniWith("other.rcc_Sign", signatureHex) << 0;

    for (int offset : {0, rcc.size() - 1}) {
        QByteArray changed = rcc;
        changed[offset] = char(changed.at(offset) ^ 0x01);
        QTest::addRow("one byte changed at %d", offset)
                << changed << iniWith(key, signatureHex) << 0;
    }

    QByteArray badDigit = signatureHex;
    badDigit[100] = badDigit.at(100) == '0' ? '1' : '0';
    QTest::newRow("one signature digit changed") << rcc << iniWith(key, badDigit) << 0;
    // A missing last digit is filled by the terminator, which converts to 9:
    // only a signature that really ends in 9 survives the loss.
    QTest::newRow("signature one digit short")
            << rcc << iniWith(key, signatureHex.left(511)) << (signatureHex.endsWith('9') ? 1 : 0);

    // The text holds the bytes reversed; the same bytes in verifier order fail.
    QByteArray bytes = QByteArray::fromHex(signatureHex);
    std::reverse(bytes.begin(), bytes.end());
    QTest::newRow("signature not reversed") << rcc << iniWith(key, bytes.toHex().toUpper()) << 0;
}

void TestFileIntegrity::testVerify()
{
    QFETCH(QByteArray, fileContent);
    QFETCH(QByteArray, iniContent);
    QFETCH(int, expected);

    QTemporaryDir dir;
    QByteArray dirBytes = signedDir(dir, "resources.rcc", fileContent, iniContent);
    QVERIFY(!dirBytes.isEmpty());
    char name[] = "resources.rcc";
    char key[] = "resources.rcc_Sign";
    QCOMPARE(FileVerifySignature(dirBytes.data(), name, key), expected);
    QCOMPARE(FileIntegrityProtect(dirBytes.data(), name), expected);
}

void TestFileIntegrity::testExecutablePrefix_data()
{
    QTest::addColumn<QByteArray>("fileName");
    QTest::addColumn<QByteArray>("iniKey");
    QTest::addColumn<int>("expected");

    const struct
    {
        const char *name, *file, *key;
        int expected;
    } rows[] = {{"prefix, exe key", "ZRUIServerAnything", "ZRUIServer.exe_Sign", 1},
                {"prefix, own key ignored", "ZRUIServerAnything", "ZRUIServerAnything_Sign", 0},
                {"other case is no prefix", "zruiserver.bin", "zruiserver.bin_Sign", 1},
                {"plain name", "copy.rcc", "copy.rcc_Sign", 1},
                {"short prefix", "ZRUIServe", "ZRUIServer.exe_Sign", 0}};
    for (const auto &r : rows)
        QTest::newRow(r.name) << QByteArray(r.file) << QByteArray(r.key) << r.expected;
}

void TestFileIntegrity::testExecutablePrefix()
{
    QFETCH(QByteArray, fileName);
    QFETCH(QByteArray, iniKey);
    QFETCH(int, expected);

    QTemporaryDir dir;
    QByteArray dirBytes
            = signedDir(dir, QString::fromLatin1(fileName), rcc, iniWith(iniKey, signatureHex));
    QVERIFY(!dirBytes.isEmpty());
    QCOMPARE(FileIntegrityProtect(dirBytes.data(), fileName.data()), expected);
}

void TestFileIntegrity::testNullArguments()
{
    QTemporaryDir dir;
    QByteArray dirBytes
            = signedDir(dir, "resources.rcc", rcc, iniWith("resources.rcc_Sign", signatureHex));
    QVERIFY(!dirBytes.isEmpty());
    QByteArray noSlash = dirBytes.left(dirBytes.size() - 1);
    char name[] = "resources.rcc";
    char key[] = "resources.rcc_Sign";
    unsigned char out[4];
    unsigned char hex[] = "00";
    QVERIFY(StringToBin(nullptr, hex, 2) == nullptr);
    QVERIFY(StringToBin(out, nullptr, 2) == nullptr);
    QCOMPARE(FileVerifySignature(dirBytes.data(), name, key), 1);
    QCOMPARE(FileIntegrityProtect(dirBytes.data(), nullptr), 0);
    QCOMPARE(FileVerifySignature(nullptr, name, key), 0);
    QCOMPARE(FileVerifySignature(dirBytes.data(), nullptr, key), 0);
    QCOMPARE(FileVerifySignature(dirBytes.data(), name, nullptr), 0);
    // The directory is used as given: without "/" the names are glued.
    QCOMPARE(FileIntegrityProtect(noSlash.data(), name), 0);
}

QTEST_APPLESS_MAIN(TestFileIntegrity)
#include "TestFileIntegrity.moc"
