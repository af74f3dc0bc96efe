// What zrui-sign writes into integrityprotect.ini verifies through the stand-in algorithm
// library as the program's integrity check calls it, and nothing else does. OpenSSL checks
// the exact bytes independently (PKCS#1 v1.5 signatures are deterministic).

#include "app/TokenLibs.h"

#include <QFile>
#include <QProcess>
#include <QRandomGenerator>
#include <QTemporaryDir>
#include <QtTest>

#include <openssl/evp.h>
#include <openssl/pem.h>
#include <openssl/rsa.h>

#include <dlfcn.h>
#include <sys/stat.h>

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

EVP_PKEY *readKey(const QString &keyPath)
{
    const QByteArray pem = readAll(keyPath);
    BIO *bio = BIO_new_mem_buf(pem.constData(), pem.size());
    EVP_PKEY *key = PEM_read_bio_PrivateKey(bio, nullptr, nullptr, nullptr);
    BIO_free(bio);
    return key;
}

// Independent reference: RSA-SHA256 PKCS#1 v1.5 signature by OpenSSL.
QByteArray referenceSignature(const QString &keyPath, const QByteArray &data)
{
    EVP_PKEY *key = readKey(keyPath);
    QByteArray sig(512, '\0');
    size_t len = size_t(sig.size());
    EVP_MD_CTX *md = EVP_MD_CTX_new();
    EVP_PKEY_CTX *pctx = nullptr;
    const bool ok = key && EVP_DigestSignInit(md, &pctx, EVP_sha256(), nullptr, key) == 1
                    && EVP_PKEY_CTX_set_rsa_padding(pctx, RSA_PKCS1_PADDING) == 1
                    && EVP_DigestSign(md, reinterpret_cast<unsigned char *>(sig.data()), &len,
                                      reinterpret_cast<const unsigned char *>(data.constData()),
                                      size_t(data.size()))
                               == 1;
    EVP_MD_CTX_free(md);
    EVP_PKEY_free(key);
    return ok ? sig.left(int(len)) : QByteArray();
}

QByteArray reversed(QByteArray b)
{
    std::reverse(b.begin(), b.end());
    return b;
}

} // namespace

class TestSignatureRoundTrip : public QObject
{
    Q_OBJECT

private slots:
    void initTestCase();
    void testGenkeyRefusesToOverwrite();
    void testSignatureFileBytes();
    void testSignKeyNames();
    void testVerify();
    void testUsageErrors_data();
    void testUsageErrors();

private:
    int sign(const QStringList &args, QByteArray *out = nullptr, QByteArray *err = nullptr);
    QByteArray signatureText(const QString &iniPath, const QByteArray &key);

    QString m_tool;
    QTemporaryDir m_tmp;
    QString m_key;
    QByteArray m_blob;
    QByteArray m_data;
    void *m_alg = nullptr;
    PFN_ZRA_ReverseData m_reverse = nullptr;
    PFN_ZRA_RSA_Verify_ZRKey m_verify = nullptr;
};

int TestSignatureRoundTrip::sign(const QStringList &args, QByteArray *out, QByteArray *err)
{
    QProcess p;
    p.start(m_tool, args);
    if (!p.waitForFinished(60000))
        return -1;
    if (out)
        *out = p.readAllStandardOutput();
    if (err)
        *err = p.readAllStandardError();
    return p.exitStatus() == QProcess::NormalExit ? p.exitCode() : -1;
}

QByteArray TestSignatureRoundTrip::signatureText(const QString &iniPath, const QByteArray &key)
{
    for (const QByteArray &line : readAll(iniPath).split('\n')) {
        if (line.startsWith(key + '='))
            return line.mid(key.size() + 1);
    }
    return QByteArray();
}

void TestSignatureRoundTrip::initTestCase()
{
    m_tool = qEnvironmentVariable("ZRUI_SIGN_TOOL");
    QVERIFY2(QFile::exists(m_tool), "ZRUI_SIGN_TOOL does not name the built zrui-sign");
    QVERIFY(m_tmp.isValid());
    m_key = m_tmp.filePath("key.pem");
    QCOMPARE(sign({"genkey", m_key}), 0);
    struct stat st;
    QCOMPARE(stat(QFile::encodeName(m_key).constData(), &st), 0);
    QCOMPARE(st.st_mode & 0777, mode_t(0600));

    QByteArray hex;
    QCOMPARE(sign({"pubhex", m_key}, &hex), 0);
    m_blob = QByteArray::fromHex(hex.trimmed());

    // Data with NUL, CR LF and high bytes: the file is signed as binary.
    m_data = QByteArray("resource\0data\r\n\xff\xfe", 17);
    for (int i = 0; i < 3000; ++i)
        m_data.append(char(QRandomGenerator::global()->bounded(256)));
    QVERIFY(writeAll(m_tmp.filePath("resources.rcc"), m_data));

    const QString alg = qEnvironmentVariable("ZRUI_TOKENSIM_DIR") + "libzralg.so";
    // Opened as the program opens it: lazy, deep binding outside sanitizer builds.
    m_alg = dlopen(QFile::encodeName(alg).constData(), ZRUI_ALG_DLOPEN_MODE);
    QVERIFY2(m_alg, dlerror());
    m_reverse = reinterpret_cast<PFN_ZRA_ReverseData>(dlsym(m_alg, "ZRA_ReverseData"));
    m_verify = reinterpret_cast<PFN_ZRA_RSA_Verify_ZRKey>(dlsym(m_alg, "ZRA_RSA_Verify_ZRKey"));
    QVERIFY(m_reverse && m_verify);
}

void TestSignatureRoundTrip::testGenkeyRefusesToOverwrite()
{
    const QByteArray before = readAll(m_key);
    QByteArray err;
    QCOMPARE(sign({"genkey", m_key}, nullptr, &err), 1);
    QVERIFY2(err.contains("never overwritten"), err.constData());
    QCOMPARE(readAll(m_key), before);
}

// The whole file, byte for byte: the reversed signature in upper-case hex, LF line ends.
void TestSignatureRoundTrip::testSignatureFileBytes()
{
    const QString ini = m_tmp.filePath("integrityprotect.ini");
    QFile::remove(ini);
    QCOMPARE(sign({"sign", m_key, m_tmp.path(), "resources.rcc"}), 0);
    const QByteArray ref = referenceSignature(m_key, m_data);
    QCOMPARE(ref.size(), 256);
    QCOMPARE(readAll(ini),
             "[Kestrova 5.1]\nresources.rcc_Sign=" + reversed(ref).toHex().toUpper() + "\n");
}

// "ZRUIServer..." signs under "ZRUIServer.exe_Sign"; more files add lines, re-signing
// replaces a line in place.
void TestSignatureRoundTrip::testSignKeyNames()
{
    QTemporaryDir dir;
    QVERIFY(dir.isValid());
    const QByteArray a = "first file", b = "second file", c = "changed first file";
    QVERIFY(writeAll(dir.filePath("ZRUIServer-any"), a));
    QVERIFY(writeAll(dir.filePath("other.bin"), b));
    const QString ini = dir.filePath("integrityprotect.ini");
    QVERIFY(writeAll(ini, "[Kestrova 5.1]\r\nkept_Sign=00\r\n[Other]\r\nx=1\r\n"));

    QCOMPARE(sign({"sign", m_key, dir.path(), "ZRUIServer-any"}), 0);
    QCOMPARE(sign({"sign", m_key, dir.path() + "/", "other.bin"}), 0);
    QVERIFY(writeAll(dir.filePath("ZRUIServer-any"), c));
    QCOMPARE(sign({"sign", m_key, dir.path(), "ZRUIServer-any"}), 0);

    const QByteArray sigC = reversed(referenceSignature(m_key, c)).toHex().toUpper();
    const QByteArray sigB = reversed(referenceSignature(m_key, b)).toHex().toUpper();
    QCOMPARE(readAll(ini), "[Kestrova 5.1]\nkept_Sign=00\nZRUIServer.exe_Sign=" + sigC
                                   + "\nother.bin_Sign=" + sigB + "\n[Other]\nx=1\n");
}

// As the program checks: hex from the file, reversed in place, then
// ZRA_RSA_Verify_ZRKey(blob, 263, 4, data, size, 1, signature, 256). One change per row.
void TestSignatureRoundTrip::testVerify()
{
    const QString ini = m_tmp.filePath("integrityprotect.ini");
    if (!QFile::exists(ini))
        QCOMPARE(sign({"sign", m_key, m_tmp.path(), "resources.rcc"}), 0);
    QCOMPARE(m_data.size(), 3017);
    const struct
    {
        const char *what;
        int dataByte, sigByte, keyByte, hashAlg, flag, keyLen;
        bool reverse;
        unsigned long expected;
    } cases[] = {
            {"valid", -1, -1, -1, 4, 1, 263, true, 1},
            {"data first byte", 0, -1, -1, 4, 1, 263, true, 0},
            {"signature first byte", -1, 0, -1, 4, 1, 263, true, 0},
            {"modulus byte", -1, -1, 100, 4, 1, 263, true, 0},
            {"not reversed", -1, -1, -1, 4, 1, 263, false, 0},
            {"hashAlg 3", -1, -1, -1, 3, 1, 263, true, 0},
            {"flag 0", -1, -1, -1, 4, 0, 263, true, 0},
    };
    for (const auto &c : cases) {
        QByteArray sig = QByteArray::fromHex(signatureText(ini, "resources.rcc_Sign"));
        QCOMPARE(sig.size(), 256);
        QByteArray data = m_data, blob = m_blob;
        if (c.dataByte >= 0)
            data[c.dataByte] = char(data.at(c.dataByte) ^ 0x01);
        if (c.keyByte >= 0)
            blob[c.keyByte] = char(blob.at(c.keyByte) ^ 0x01);
        auto *s = reinterpret_cast<unsigned char *>(sig.data());
        if (c.reverse)
            QCOMPARE(m_reverse(s, 256, s, 256), 0UL);
        if (c.sigByte >= 0)
            sig[c.sigByte] = char(sig.at(c.sigByte) ^ 0x80);
        const unsigned long rc
                = m_verify(reinterpret_cast<unsigned char *>(blob.data()), ulong(c.keyLen),
                           ulong(c.hashAlg), reinterpret_cast<unsigned char *>(data.data()),
                           ulong(data.size()), ulong(c.flag), s, 256);
        QVERIFY2(rc == c.expected, c.what);
    }
}

void TestSignatureRoundTrip::testUsageErrors_data()
{
    QTest::addColumn<QStringList>("args");
    QTest::addColumn<int>("exitCode");
    QTest::newRow("no command") << QStringList() << 2;
    QTest::newRow("unknown command") << QStringList({"verify", "x"}) << 2;
    QTest::newRow("sign missing file") << QStringList({"sign", "KEY", "DIR", "missing.rcc"}) << 1;
    QTest::newRow("sign path in name") << QStringList({"sign", "KEY", "DIR", "a/b"}) << 1;
    QTest::newRow("pubhex not a key") << QStringList({"pubhex", "DATA"}) << 1;
}

void TestSignatureRoundTrip::testUsageErrors()
{
    QFETCH(QStringList, args);
    QFETCH(int, exitCode);
    args.replaceInStrings("KEY", m_key);
    args.replaceInStrings("DIR", m_tmp.path());
    args.replaceInStrings("DATA", m_tmp.filePath("resources.rcc"));
    const QByteArray ini = readAll(m_tmp.filePath("integrityprotect.ini"));
    QCOMPARE(sign(args), exitCode);
    QCOMPARE(readAll(m_tmp.filePath("integrityprotect.ini")), ini);
}

QTEST_GUILESS_MAIN(TestSignatureRoundTrip)
#include "TestSignatureRoundTrip.moc"
