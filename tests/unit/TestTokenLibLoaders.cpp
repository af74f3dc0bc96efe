#include "app/TokenLibs.h"

#include <QFileInfo>
#include <QProcessEnvironment>
#include <QtTest>

#include <dlfcn.h>

// Two entry points that are bound but never called: declared here with the
// generic type the loaders give them, so the test can see how far binding got.
extern PFN_ZR_Unused ZRA_GetAsymKeyBits;
extern PFN_ZR_Unused ZRA_DecodeX509Cert;
extern PFN_ZR_Unused ZRK_SetPINCache;
extern PFN_ZR_Unused AuxExpMatch;

// The three loaders against the stand-in token stack.
class TestTokenLibLoaders : public QObject
{
    Q_OBJECT
private slots:
    void initTestCase();
    void testVariantMissingLastAlgEntryPoint();
    void testPathRules_data();
    void testPathRules();
    void testLoadAndUnload();

private:
    QByteArray libDir;
    QByteArray variantDir;
};

static bool isMapped(const QByteArray &path)
{
    void *h = dlopen(path.constData(), RTLD_LAZY | RTLD_NOLOAD);
    if (!h)
        return false;
    dlclose(h);
    return true;
}

void TestTokenLibLoaders::initTestCase()
{
    libDir = QProcessEnvironment::systemEnvironment().value("ZRUI_TOKENSIM_DIR").toLocal8Bit();
    QVERIFY2(libDir.endsWith('/'), "ZRUI_TOKENSIM_DIR must end with /");
    const QString build = QFileInfo(QProcessEnvironment::systemEnvironment().value("ZRUI_BIN_DIR"))
                                  .absolutePath();
    variantDir = QFile::encodeName(build + "/tokenlib-variants/no-last-alg/");
    QVERIFY2(QFileInfo::exists(QString::fromLocal8Bit(variantDir + "libzralg.so")), variantDir);
}

void TestTokenLibLoaders::testVariantMissingLastAlgEntryPoint()
{
    // Runs first: no algorithm library bound yet in this process.
    QVERIFY(ZRA_DecodeX509Cert == nullptr);
    QCOMPARE(LoadLib_Alg(0, variantDir.data()), 0);
    // Binding stopped at the last name; everything before it stays bound.
    QVERIFY(ZRA_ReverseData && ZRA_GetAsymKeyBits);
    QVERIFY(ZRA_DecodeX509Cert == nullptr);
    // The library stays open after a failed binding.
    QVERIFY(isMapped(variantDir + "libzralg.so"));
    FreeLib_Alg();
    QVERIFY(!isMapped(variantDir + "libzralg.so"));
    // The device and auxiliary copies beside it are complete.
    QCOMPARE(LoadLib_ZRKAPI(0, variantDir.data()), 1);
    QCOMPARE(LoadLib_Aux(0, variantDir.data()), 1);
    QCOMPARE(FreeLib_ZRKAPI(), 0);
    FreeLib_Aux();
}

void TestTokenLibLoaders::testPathRules_data()
{
    QTest::addColumn<QByteArray>("dir");
    QTest::addColumn<int>("expected");

    QTest::newRow("with slash") << libDir << 1;
    QTest::newRow("without slash") << libDir.left(libDir.size() - 1) << 0;
    QTest::newRow("missing directory") << QByteArray("/nonexistent-zrui-dir/") << 0;
    // 256-byte path buffer: a path that does not fit is refused, not cut.
    QTest::newRow("too long") << QByteArray(libDir + QByteArray(300, '/')) << 0;
}

void TestTokenLibLoaders::testPathRules()
{
    QFETCH(QByteArray, dir);
    QFETCH(int, expected);

    QByteArray d1 = dir, d2 = dir, d3 = dir;
    QCOMPARE(LoadLib_ZRKAPI(0, d1.data()), expected);
    QCOMPARE(LoadLib_Alg(0, d2.data()), expected);
    QCOMPARE(LoadLib_Aux(0, d3.data()), expected);
    FreeLib_ZRKAPI();
    FreeLib_Alg();
    FreeLib_Aux();
}

void TestTokenLibLoaders::testLoadAndUnload()
{
    QCOMPARE(LoadLib_ZRKAPI(0, libDir.data()), 1);
    QCOMPARE(LoadLib_Alg(0, libDir.data()), 1);
    QCOMPARE(LoadLib_Aux(0, libDir.data()), 1);

    // First and last of every list are bound.
    QVERIFY(ZRK_EstablishContext && ZRK_SetPINCache && ZRA_ReverseData && ZRA_DecodeX509Cert);
    QVERIFY(AuxLoadKestrovaIni && AuxExpMatch);

    // The typed pointers reach the right functions.
    uint64_t ctx = 0;
    QCOMPARE(ZRK_EstablishContext(&ctx), 0ul);
    QVERIFY(ctx != 0);
    QCOMPARE(ZRK_ReleaseContext(ctx), 0ul);

    unsigned char data[5] = {1, 2, 3, 4, 5};
    ZRA_ReverseData(data, 5, data, 5);
    QCOMPARE(QByteArray(reinterpret_cast<char *>(data), 5), QByteArray::fromHex("0504030201"));

    void *record = AuxLoadKestrovaIni(0);
    QVERIFY(record != nullptr);
    int minLen = 0, maxLen = 0;
    memcpy(&minLen, static_cast<char *>(record) + ZRCONFIG_PIN_MIN_OFFSET, sizeof(int));
    memcpy(&maxLen, static_cast<char *>(record) + ZRCONFIG_PIN_MAX_OFFSET, sizeof(int));
    QCOMPARE(minLen, 6);
    QCOMPARE(maxLen, 16);

    QVERIFY(isMapped(libDir + "libaux.so"));
    QVERIFY(isMapped(libDir + "libzrkapi.so"));
    FreeLib_Aux();
    QVERIFY(!isMapped(libDir + "libaux.so"));
    FreeLib_Aux(); // harmless twice
    QCOMPARE(FreeLib_ZRKAPI(), 0);
    QVERIFY(!isMapped(libDir + "libzrkapi.so"));
    QCOMPARE(FreeLib_ZRKAPI(), 0);
    FreeLib_Alg();
}

QTEST_APPLESS_MAIN(TestTokenLibLoaders)
#include "TestTokenLibLoaders.moc"
