// The stand-in auxiliary library's shared configuration record: the PIN bounds at the byte
// offsets the program reads, from ZRTOKENSIM_CONF or else the tokensim.ini beside it. The
// device library's journal and presence are exercised through the service tests.

#include "app/TokenLibs.h"

#include <QFile>
#include <QTemporaryDir>
#include <QtTest>

#include <dlfcn.h>

class TestTokenSimDevice : public QObject
{
    Q_OBJECT

private slots:
    void testAuxRecord_data();
    void testAuxRecord();
};

void TestTokenSimDevice::testAuxRecord_data()
{
    QTest::addColumn<QByteArray>("config"); // empty: no ZRTOKENSIM_CONF
    QTest::addColumn<int>("min"); // 0: no record
    QTest::addColumn<int>("max");
    QTest::newRow("default beside the library") << QByteArray() << 6 << 16;
    QTest::newRow("4-12") << QByteArray("[pin]\nmin=4\nmax=12\n[aux]\nfail=0\n") << 4 << 12;
    QTest::newRow("8-64, comment") << QByteArray("[pin]\nmin=8  ; c\nmax=64\n") << 8 << 64;
    QTest::newRow("not a number keeps the default")
            << QByteArray("[pin]\nmin=8x\nmax=64\n") << 6 << 64;
    QTest::newRow("fail") << QByteArray("[aux]\nfail=1\n") << 0 << 0;
}

void TestTokenSimDevice::testAuxRecord()
{
    QFETCH(QByteArray, config);
    QFETCH(int, min);
    QFETCH(int, max);
    QTemporaryDir tmp;
    QFile conf(tmp.filePath("tokensim.ini"));
    QVERIFY(conf.open(QIODevice::WriteOnly) && conf.write(config) == config.size());
    conf.close();
    if (config.isEmpty())
        qunsetenv("ZRTOKENSIM_CONF");
    else
        qputenv("ZRTOKENSIM_CONF", QFile::encodeName(conf.fileName()));

    const QString lib = qEnvironmentVariable("ZRUI_TOKENSIM_DIR") + "libaux.so";
    void *aux = dlopen(QFile::encodeName(lib).constData(), RTLD_LAZY);
    QVERIFY2(aux, dlerror());
    auto load = reinterpret_cast<PFN_AuxLoadKestrovaIni>(dlsym(aux, "AuxLoadKestrovaIni"));
    void *record = load ? load(0) : nullptr;
    int32_t bounds[2] = {0, 0};
    if (record) {
        memcpy(&bounds[0], static_cast<char *>(record) + ZRCONFIG_PIN_MIN_OFFSET, 4);
        memcpy(&bounds[1], static_cast<char *>(record) + ZRCONFIG_PIN_MAX_OFFSET, 4);
    }
    const bool same = record == load(0); // the library's own record, the same every time
    dlclose(aux);
    QVERIFY(load && same);
    QCOMPARE(bounds[0], min);
    QCOMPARE(bounds[1], max);
}

QTEST_APPLESS_MAIN(TestTokenSimDevice)
#include "TestTokenSimDevice.moc"
