// The three loaders against the stand-in token stack. A loader binds every name of its list
// or fails, so a load that succeeds shows the stand-in exports each name the program binds.
#include "app/TokenLibs.h"

#include <QtTest>

#include <dlfcn.h>

// Bound but never called: declared with the generic type the loaders give them, so the test
// can see how far binding got.
extern PFN_ZR_Unused ZRA_GetAsymKeyBits;
extern PFN_ZR_Unused ZRA_DecodeX509Cert;
extern PFN_ZR_Unused ZRK_SetPINCache;
extern PFN_ZR_Unused AuxExpMatch;

namespace {

bool isMapped(const QByteArray &path)
{
    void *h = dlopen(path.constData(), RTLD_LAZY | RTLD_NOLOAD);
    return h && dlclose(h) == 0;
}

} // namespace

class TestTokenLibs : public QObject
{
    Q_OBJECT
private slots:
    void initTestCase();
    void testVariantMissingLastAlgEntryPoint();
    void testPathRules();
    void testLoadAndUnload();

private:
    QByteArray libDir = qgetenv("ZRUI_TOKENSIM_DIR");
    QByteArray variantDir
            = QFile::encodeName(QFileInfo(qEnvironmentVariable("ZRUI_BIN_DIR")).absolutePath()
                                + "/tokenlib-variants/no-last-alg/");
};

void TestTokenLibs::initTestCase()
{
    QVERIFY2(libDir.endsWith('/'), "ZRUI_TOKENSIM_DIR must end with /");
    QVERIFY2(QFile::exists(variantDir + "libzralg.so"), variantDir);
}

void TestTokenLibs::testVariantMissingLastAlgEntryPoint()
{
    // Runs first: no algorithm library bound yet in this process.
    QVERIFY(ZRA_DecodeX509Cert == nullptr);
    QCOMPARE(LoadLib_Alg(0, variantDir.data()), 0);
    // Binding stopped at the last name; everything before it stays bound, the library open.
    QVERIFY(ZRA_ReverseData && ZRA_GetAsymKeyBits && !ZRA_DecodeX509Cert);
    QVERIFY(isMapped(variantDir + "libzralg.so"));
    FreeLib_Alg();
    QVERIFY(!isMapped(variantDir + "libzralg.so"));
    // The device and auxiliary copies beside it are complete.
    QCOMPARE(LoadLib_ZRKAPI(0, variantDir.data()), 1);
    QCOMPARE(LoadLib_Aux(0, variantDir.data()), 1);
    QCOMPARE(FreeLib_ZRKAPI(), 0);
    FreeLib_Aux();
}

// The directory needs its final "/", and a path that does not fit the 256-byte buffer is
// refused, not cut.
void TestTokenLibs::testPathRules()
{
    for (QByteArray dir : {libDir.chopped(1), QByteArray("/nonexistent-zrui-dir/"),
                           libDir + QByteArray(300, '/'), libDir}) {
        const int expected = dir == libDir;
        QCOMPARE(LoadLib_ZRKAPI(0, QByteArray(dir).data()), expected);
        QCOMPARE(LoadLib_Alg(0, QByteArray(dir).data()), expected);
        QCOMPARE(LoadLib_Aux(0, QByteArray(dir).data()), expected);
        FreeLib_ZRKAPI();
        FreeLib_Alg();
        FreeLib_Aux();
    }
}

void TestTokenLibs::testLoadAndUnload()
{
    QCOMPARE(LoadLib_ZRKAPI(0, libDir.data()), 1);
    QCOMPARE(LoadLib_Alg(0, libDir.data()), 1);
    QCOMPARE(LoadLib_Aux(0, libDir.data()), 1);
    // First and last of every list are bound, and the typed pointers reach the right functions.
    QVERIFY(ZRK_EstablishContext && ZRK_SetPINCache && ZRA_ReverseData && ZRA_DecodeX509Cert);
    QVERIFY(AuxLoadKestrovaIni && AuxExpMatch);
    uint64_t ctx = 0;
    QCOMPARE(ZRK_EstablishContext(&ctx), 0ul);
    QVERIFY(ctx != 0);
    QCOMPARE(ZRK_ReleaseContext(ctx), 0ul);
    unsigned char data[5] = {1, 2, 3, 4, 5};
    ZRA_ReverseData(data, 5, data, 5);
    QCOMPARE(QByteArray(reinterpret_cast<char *>(data), 5), QByteArray::fromHex("0504030201"));
    // The shared record holds the PIN bounds at the offsets the program reads.
    const char *record = static_cast<char *>(AuxLoadKestrovaIni(0));
    QVERIFY(record && record == AuxLoadKestrovaIni(0));
    QCOMPARE(*reinterpret_cast<const int *>(record + ZRCONFIG_PIN_MIN_OFFSET), 6);
    QCOMPARE(*reinterpret_cast<const int *>(record + ZRCONFIG_PIN_MAX_OFFSET), 16);

    QVERIFY(isMapped(libDir + "libaux.so") && isMapped(libDir + "libzrkapi.so"));
    FreeLib_Aux();
    QVERIFY(!isMapped(libDir + "libaux.so"));
    FreeLib_Aux(); // harmless twice
    QCOMPARE(FreeLib_ZRKAPI(), 0);
    QVERIFY(!isMapped(libDir + "libzrkapi.so"));
    QCOMPARE(FreeLib_ZRKAPI(), 0);
    FreeLib_Alg();
}

QTEST_GUILESS_MAIN(TestTokenLibs)
#include "TestTokenLibs.moc"
