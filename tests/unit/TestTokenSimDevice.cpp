// The stand-in device and auxiliary libraries: handles, presence read at every call, the
// journal lines, and the shared configuration record with the PIN bounds.

#include "app/TokenLibs.h"

#include <QFile>
#include <QTemporaryDir>
#include <QtTest>

#include <dlfcn.h>

namespace {

constexpr unsigned long kDeviceAbsent = 0x0A000008;

QString tokenDir() { return qEnvironmentVariable("ZRUI_TOKENSIM_DIR"); }

bool writeText(const QString &path, const QByteArray &text)
{
    QFile f(path);
    return f.open(QIODevice::WriteOnly | QIODevice::Truncate) && f.write(text) == text.size();
}

QStringList readLines(const QString &path)
{
    QFile f(path);
    if (!f.open(QIODevice::ReadOnly))
        return {};
    const QByteArray all = f.readAll();
    if (!all.endsWith('\n'))
        return {QStringLiteral("<journal does not end with a line feed>")};
    return QString::fromLatin1(all.left(all.size() - 1)).split('\n');
}

QByteArray config(int present, const QString &journal = QString(), int min = 6, int max = 16,
                  int auxFail = 0)
{
    return QStringLiteral("[pin]\nmin=%1\nmax=%2\n[token]\npresent=%3  ; comment\n"
                          "[aux]\nfail=%4\n[journal]\npath=%5\n")
            .arg(min)
            .arg(max)
            .arg(present)
            .arg(auxFail)
            .arg(journal)
            .toLatin1();
}

// The PIN bounds of the shared record, at the byte offsets the program reads.
QPair<int32_t, int32_t> pinBounds(const void *record)
{
    int32_t min = 0, max = 0;
    memcpy(&min, static_cast<const char *>(record) + 260, 4);
    memcpy(&max, static_cast<const char *>(record) + 264, 4);
    return {min, max};
}

} // namespace

class TestTokenSimDevice : public QObject
{
    Q_OBJECT

private slots:
    void initTestCase();
    void init();
    void cleanupTestCase();
    void testSessionJournal();
    void testPresenceFlip();
    void testJournalFromEnvironment();
    void testDefaultConfigBesideLibrary();
    void testAuxRecord_data();
    void testAuxRecord();

private:
    QTemporaryDir m_tmp;
    void *m_zrk = nullptr;
    void *m_aux = nullptr;
    PFN_ZRK_EstablishContext m_establish = nullptr;
    PFN_ZRK_ReleaseContext m_release = nullptr;
    PFN_ZRK_Connect m_connect = nullptr;
    PFN_ZRK_Disconnect m_disconnect = nullptr;
    PFN_ZRK_IsDevPresent m_present = nullptr;
    PFN_AuxLoadKestrovaIni m_loadIni = nullptr;
    QString m_conf;
    QString m_journal;
};

void TestTokenSimDevice::initTestCase()
{
    QVERIFY(m_tmp.isValid());
    m_zrk = dlopen(QFile::encodeName(tokenDir() + "libzrkapi.so").constData(), RTLD_LAZY);
    QVERIFY2(m_zrk, dlerror());
    m_aux = dlopen(QFile::encodeName(tokenDir() + "libaux.so").constData(), RTLD_LAZY);
    QVERIFY2(m_aux, dlerror());
    m_establish = reinterpret_cast<PFN_ZRK_EstablishContext>(dlsym(m_zrk, "ZRK_EstablishContext"));
    m_release = reinterpret_cast<PFN_ZRK_ReleaseContext>(dlsym(m_zrk, "ZRK_ReleaseContext"));
    m_connect = reinterpret_cast<PFN_ZRK_Connect>(dlsym(m_zrk, "ZRK_Connect"));
    m_disconnect = reinterpret_cast<PFN_ZRK_Disconnect>(dlsym(m_zrk, "ZRK_Disconnect"));
    m_present = reinterpret_cast<PFN_ZRK_IsDevPresent>(dlsym(m_zrk, "ZRK_IsDevPresent"));
    m_loadIni = reinterpret_cast<PFN_AuxLoadKestrovaIni>(dlsym(m_aux, "AuxLoadKestrovaIni"));
    QVERIFY(m_establish && m_release && m_connect && m_disconnect && m_present && m_loadIni);
    m_conf = m_tmp.filePath("tokensim.ini");
    m_journal = m_tmp.filePath("journal.txt");
}

void TestTokenSimDevice::init()
{
    qputenv("ZRTOKENSIM_CONF", QFile::encodeName(m_conf));
    qunsetenv("ZRTOKENSIM_JOURNAL");
    QFile::remove(m_journal);
    QVERIFY(writeText(m_conf, config(1, m_journal)));
}

void TestTokenSimDevice::cleanupTestCase()
{
    if (m_aux)
        dlclose(m_aux);
    if (m_zrk)
        dlclose(m_zrk);
}

// One journal line per call: handles in decimal, the device reference as 16 hex digits.
void TestTokenSimDevice::testSessionJournal()
{
    uint64_t ctx = 0;
    QCOMPARE(m_establish(&ctx), 0UL);
    QVERIFY(ctx != 0);
    uint64_t dev = 0;
    QCOMPARE(m_connect(ctx, 0x00A1B2C3D4E5F607ULL, &dev, 0), 0UL);
    QVERIFY(dev != 0 && dev != ctx);
    QCOMPARE(m_present(dev), 0UL);
    QCOMPARE(m_disconnect(dev), 0UL);
    QCOMPARE(m_release(ctx), 0UL);

    uint64_t ctx2 = 0;
    QCOMPARE(m_establish(&ctx2), 0UL);
    QVERIFY2(ctx2 != ctx && ctx2 != dev, "handles are handed out twice");
    QCOMPARE(m_release(ctx2), 0UL);

    const QString c = QString::number(ctx), d = QString::number(dev), c2 = QString::number(ctx2);
    const QStringList expected = {
            "EstablishContext rc=0 ctx=" + c,
            "Connect ctx=" + c + " ref=0x00a1b2c3d4e5f607 rc=0 dev=" + d,
            "IsDevPresent dev=" + d + " rc=0",
            "Disconnect dev=" + d + " rc=0",
            "ReleaseContext ctx=" + c + " rc=0",
            "EstablishContext rc=0 ctx=" + c2,
            "ReleaseContext ctx=" + c2 + " rc=0",
    };
    QCOMPARE(readLines(m_journal), expected);
}

// Presence is read at every call; a connect while absent fails and leaves the handle 0.
void TestTokenSimDevice::testPresenceFlip()
{
    uint64_t ctx = 0, dev = 0;
    QCOMPARE(m_establish(&ctx), 0UL);
    QCOMPARE(m_connect(ctx, 1, &dev, 0), 0UL);
    QCOMPARE(m_present(dev), 0UL);

    QVERIFY(writeText(m_conf, config(0, m_journal)));
    QCOMPARE(m_present(dev), 1UL);
    uint64_t dev2 = 0xdeadbeef;
    QCOMPARE(m_connect(ctx, 2, &dev2, 0), kDeviceAbsent);
    QCOMPARE(dev2, uint64_t(0));

    QVERIFY(writeText(m_conf, config(1, m_journal)));
    QCOMPARE(m_present(dev), 0UL);
    QCOMPARE(m_disconnect(dev), 0UL);
    QCOMPARE(m_release(ctx), 0UL);

    const QString c = QString::number(ctx), d = QString::number(dev);
    const QStringList lines = readLines(m_journal);
    QCOMPARE(lines.size(), 8);
    QCOMPARE(lines.at(3), "IsDevPresent dev=" + d + " rc=1");
    QCOMPARE(lines.at(4), QStringLiteral("Connect ctx=%1 ref=0x0000000000000002 rc=%2 dev=0")
                                  .arg(c)
                                  .arg(kDeviceAbsent));
    QCOMPARE(lines.at(5), "IsDevPresent dev=" + d + " rc=0");
}

void TestTokenSimDevice::testJournalFromEnvironment()
{
    const QString other = m_tmp.filePath("env-journal.txt");
    qputenv("ZRTOKENSIM_JOURNAL", QFile::encodeName(other));
    uint64_t ctx = 0;
    QCOMPARE(m_establish(&ctx), 0UL);
    QCOMPARE(m_release(ctx), 0UL);
    QCOMPARE(readLines(other),
             QStringList({"EstablishContext rc=0 ctx=" + QString::number(ctx),
                          "ReleaseContext ctx=" + QString::number(ctx) + " rc=0"}));
    QVERIFY(!QFile::exists(m_journal));
}

// Without ZRTOKENSIM_CONF the library reads the default tokensim.ini beside itself.
void TestTokenSimDevice::testDefaultConfigBesideLibrary()
{
    qunsetenv("ZRTOKENSIM_CONF");
    QFile f(tokenDir() + "tokensim.ini");
    QVERIFY(f.open(QIODevice::ReadOnly));
    QCOMPARE(f.readAll(), QByteArray("[pin]\nmin=6\nmax=16\n[token]\npresent=1\n[aux]\nfail=0\n"
                                     "[journal]\npath=\n"));
    void *record = m_loadIni(0);
    QVERIFY(record);
    QCOMPARE(pinBounds(record), qMakePair(6, 16));
}

void TestTokenSimDevice::testAuxRecord_data()
{
    QTest::addColumn<int>("min");
    QTest::addColumn<int>("max");
    QTest::addColumn<int>("fail");
    QTest::newRow("4-12") << 4 << 12 << 0;
    QTest::newRow("8-64") << 8 << 64 << 0;
    QTest::newRow("fail") << 6 << 16 << 1;
}

void TestTokenSimDevice::testAuxRecord()
{
    QFETCH(int, min);
    QFETCH(int, max);
    QFETCH(int, fail);
    QVERIFY(writeText(m_conf, config(1, QString(), min, max, fail)));
    void *record = m_loadIni(0);
    QCOMPARE(record == nullptr, fail == 1);
    if (record) {
        QCOMPARE(pinBounds(record), qMakePair(min, max));
        QCOMPARE(record, m_loadIni(0)); // the library's own record, the same every time
    }
}

QTEST_APPLESS_MAIN(TestTokenSimDevice)
#include "TestTokenSimDevice.moc"
