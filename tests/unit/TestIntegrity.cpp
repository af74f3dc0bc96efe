// Start-up pieces in the test process: the token library loaders, the INI reader, the
// signature check through the stand-in algorithm library, and the choice of translation file.
#include "app/FileIntegrity.h"
#include "app/IniReader.h"
#include "app/StartupEnv.h"
#include "app/TokenLibs.h"

#include <QResource>
#include <QTemporaryDir>
#include <QtTest>

#include <dlfcn.h>

extern PFN_ZR_Unused ZRA_GetAsymKeyBits; // the last two of the algorithm library's list
extern PFN_ZR_Unused ZRA_DecodeX509Cert;

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

bool isMapped(const QByteArray &path)
{
    void *h = dlopen(path.constData(), RTLD_LAZY | RTLD_NOLOAD);
    return h && dlclose(h) == 0;
}

} // namespace

class TestIntegrity : public QObject
{
    Q_OBJECT
private slots:
    void initTestCase();
    void testTokenLibs();
    void testIniLookup_data();
    void testIniLookup();
    void testVerify_data();
    void testVerify();
    void testRefusals();
    void testTranslationFile();

private:
    QTemporaryDir tmp;
    const QString binDir = qEnvironmentVariable("ZRUI_BIN_DIR");
    QByteArray libDir = qgetenv("ZRUI_TOKENSIM_DIR"), rcc, signatureHex;
};

void TestIntegrity::initTestCase()
{
    rcc = readAll(binDir + "/resources.rcc");
    QVERIFY(tmp.isValid() && !rcc.isEmpty()
            && QResource::registerResource(binDir + "/resources.rcc"));
    const auto m = QRegularExpression("\nresources.rcc_Sign=(\\w+)\n")
                           .match(QString::fromLatin1(readAll(binDir + "/integrityprotect.ini")));
    signatureHex = m.captured(1).toLatin1();
    QCOMPARE(signatureHex.size(), 512);
}

// Runs first, before anything bound the algorithm library in this process.
void TestIntegrity::testTokenLibs()
{
    QByteArray variant = QFile::encodeName(QFileInfo(binDir).absolutePath()
                                           + "/tokenlib-variants/no-last-alg/");
    QVERIFY(!ZRA_DecodeX509Cert);
    // Binding stops at the missing last name; the names before stay bound, the library open.
    QCOMPARE(LoadLib_Alg(0, variant.data()), 0);
    QVERIFY(ZRA_ReverseData && ZRA_GetAsymKeyBits && !ZRA_DecodeX509Cert);
    QVERIFY(isMapped(variant + "libzralg.so"));
    FreeLib_Alg();
    QVERIFY(!isMapped(variant + "libzralg.so"));
    // The directory is used as given: it needs its "/" and must fit 256 bytes, never cut.
    for (QByteArray dir :
         {libDir.chopped(1), QByteArray("/nonexistent/"), libDir + QByteArray(300, '/'), libDir}) {
        const int expected = dir == libDir;
        QCOMPARE(LoadLib_ZRKAPI(0, dir.data()) + LoadLib_Alg(0, dir.data())
                         + LoadLib_Aux(0, dir.data()),
                 3 * expected);
        if (!expected)
            FreeLib_ZRKAPI(), FreeLib_Alg(), FreeLib_Aux();
    }
    uint64_t ctx = 0;
    QVERIFY(ZRK_EstablishContext(&ctx) == 0 && ctx && ZRK_ReleaseContext(ctx) == 0);
    QVERIFY(ZRA_DecodeX509Cert && AuxLoadKestrovaIni(0));
    FreeLib_Aux();
    QCOMPARE(FreeLib_ZRKAPI(), 0);
    QVERIFY(!isMapped(libDir + "libaux.so") && !isMapped(libDir + "libzrkapi.so"));
    QVERIFY(isMapped(libDir + "libzralg.so")); // kept for the signature checks
}

// Kept on purpose: the signature files are written for exactly this reader's quirks.
void TestIntegrity::testIniLookup_data()
{
    QTest::addColumn<QByteArray>("content"); // null: no file
    QTest::addColumn<QByteArray>("expected"); // of section "S", key "k"
    const QByteArray x1021(1021, 'x');
    QTest::newRow("CR LF") << QByteArray("[S]\r\nk=v\r\n") << QByteArray("v");
    QTest::newRow("no final line feed") << QByteArray("[S]\nk=v") << QByteArray();
    QTest::newRow("hash comment") << QByteArray("[S]\n#k=old\nk=new\n") << QByteArray("new");
    QTest::newRow("slashes comment") << QByteArray("[S]\n//k=old\nk=new\n") << QByteArray("new");
    QTest::newRow("one slash no comment") << QByteArray("[S]\n/k=kept\n") << QByteArray("kept");
    QTest::newRow("key in the value") << QByteArray("[S]\no=has k\n") << QByteArray("has k");
    QTest::newRow("nothing trimmed") << QByteArray("[S]\nk = a=b \n") << QByteArray(" a=b ");
    QTest::newRow("section never left") << QByteArray("[S]\n[T]\nk=T\n") << QByteArray("T");
    QTest::newRow("before the header") << QByteArray("k=1\n[S]\nk=2\n") << QByteArray("2");
    QTest::newRow("header prefix") << QByteArray("[S] x\nk=v\n") << QByteArray("v");
    QTest::newRow("other headers") << QByteArray(" [S]\n[Sx]\nk=v\n") << QByteArray();
    QTest::newRow("longest line") << "[S]\nk=" + x1021 + "\n" << x1021;
    QTest::newRow("line too long") << "[S]\nk=" + x1021 + "x\nk=v\n" << QByteArray("v");
    QTest::newRow("null section") << QByteArray("[(null)]\nk=v\n") << QByteArray();
    QTest::newRow("no file") << QByteArray() << QByteArray();
}

void TestIntegrity::testIniLookup()
{
    QFETCH(QByteArray, content);
    QFETCH(QByteArray, expected);
    QByteArray path = QFile::encodeName(tmp.filePath(QTest::currentDataTag()));
    QVERIFY(content.isNull() || writeAll(path, content));
    char section[] = "S", key[] = "k";
    QCOMPARE(QByteArray(GetIniKeyString(section, key, path.data())), expected);
    QCOMPARE(QByteArray(GetIniKeyString(nullptr, key, path.data())), QByteArray());
}

void TestIntegrity::testVerify_data()
{
    QTest::addColumn<QByteArray>("name");
    QTest::addColumn<QByteArray>("content"); // null: no such file
    QTest::addColumn<QByteArray>("ini");
    QTest::addColumn<int>("expected");
    const QByteArray k("resources.rcc_Sign"), n("resources.rcc"), sig = signatureHex;
    QByteArray changed = rcc, digit = sig, reversed = QByteArray::fromHex(sig);
    changed[rcc.size() / 2] = char(changed.at(rcc.size() / 2) ^ 1);
    digit[100] = digit.at(100) == '0' ? '1' : '0';
    std::reverse(reversed.begin(), reversed.end());
    QTest::newRow("as built") << n << rcc << iniWith(k, sig) << 1;
    QTest::newRow("lower-case hex") << n << rcc << iniWith(k, sig.toLower()) << 1;
    QTest::newRow("CR LF") << n << rcc << iniWith(k, sig, "\r\n") << 1;
    QTest::newRow("commented") << n << rcc << iniWith("#" + k, sig) << 0;
    QTest::newRow("one byte changed") << n << changed << iniWith(k, sig) << 0;
    QTest::newRow("signature digit changed") << n << rcc << iniWith(k, digit) << 0;
    QTest::newRow("not reversed") << n << rcc << iniWith(k, reversed.toHex()) << 0;
    QTest::newRow("no such file") << n << QByteArray() << iniWith(k, sig) << 0;
    const QByteArray exe("ZRUIServerX"), exeKey("ZRUIServer.exe_Sign");
    QTest::newRow("prefix, exe key") << exe << rcc << iniWith(exeKey, sig) << 1;
    QTest::newRow("prefix, own key") << exe << rcc << iniWith(exe + "_Sign", sig) << 0;
}

void TestIntegrity::testVerify()
{
    QFETCH(QByteArray, name);
    QFETCH(QByteArray, content);
    QFETCH(QByteArray, ini);
    QFETCH(int, expected);
    QTemporaryDir dir;
    QVERIFY(writeAll(dir.filePath("integrityprotect.ini"), ini));
    QVERIFY(content.isNull() || writeAll(dir.filePath(QString::fromLatin1(name)), content));
    QByteArray d = QFile::encodeName(dir.path() + "/");
    QCOMPARE(FileIntegrityProtect(d.data(), name.data()), expected);
    d.chop(1); // without "/" the names are glued
    QCOMPARE(FileIntegrityProtect(d.data(), name.data()), 0);
}

// Null arguments are refused (a null directory is not printed as "(null)"), and a path that
// does not fit the 256-byte buffer is refused, never cut to a name that exists.
void TestIntegrity::testRefusals()
{
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
        QByteArray n(len - d.size(), 'n');
        QVERIFY(writeAll(tmp.filePath(n.chopped(1)), rcc) && writeAll(tmp.filePath(n), rcc));
        QVERIFY(writeAll("integrityprotect.ini", iniWith(n + "_Sign", signatureHex)));
        QCOMPARE(FileIntegrityProtect(d.data(), n.data()), int(len == 255));
    }
}

// Only en, zh_CN and zh_TW have a file; a name containing "zh" (case-sensitive) is zh_TW
// unless it is exactly zh_CN; anything else falls back to en.
void TestIntegrity::testTranslationFile()
{
    const char *const rows[][2]
            = {{"zh_CN", "zh_CN"}, {"zh_SG", "zh_TW"}, {"xx_zh", "zh_TW"}, {"zh_cn", "zh_TW"},
               {"ZH_CN", "en"},    {"fr_FR", "en"},    {"C", "en"}};
    for (const auto &r : rows)
        QCOMPARE(chooseTranslationFile(r[0]), QStringLiteral(":/uiserver.%1.qm").arg(r[1]));
}

QTEST_MAIN(TestIntegrity)
#include "TestIntegrity.moc"
