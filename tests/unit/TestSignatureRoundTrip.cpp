// The signing tool and the stand-in algorithm library agree: what zrui-sign
// writes into integrityprotect.ini verifies through ZRA_ReverseData and
// ZRA_RSA_Verify_ZRKey exactly as the program's integrity check calls them,
// and nothing else does. OpenSSL is used here independently of both to
// check the exact bytes (PKCS#1 v1.5 signatures are deterministic).

#include "app/TokenLibs.h"

#include <QDir>
#include <QFile>
#include <QProcess>
#include <QRandomGenerator>
#include <QRegularExpression>
#include <QTemporaryDir>
#include <QtTest>

#include <openssl/bn.h>
#include <openssl/core_names.h>
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

// Independent reference: RSA-SHA256 PKCS#1 v1.5 signature by OpenSSL.
QByteArray referenceSignature(const QString &keyPath, const QByteArray &data)
{
    const QByteArray pem = readAll(keyPath);
    BIO *bio = BIO_new_mem_buf(pem.constData(), pem.size());
    EVP_PKEY *key = PEM_read_bio_PrivateKey(bio, nullptr, nullptr, nullptr);
    BIO_free(bio);
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

// Modulus of the key, big-endian, 256 bytes.
QByteArray modulusOf(const QString &keyPath)
{
    const QByteArray pem = readAll(keyPath);
    BIO *bio = BIO_new_mem_buf(pem.constData(), pem.size());
    EVP_PKEY *key = PEM_read_bio_PrivateKey(bio, nullptr, nullptr, nullptr);
    BIO_free(bio);
    BIGNUM *n = nullptr;
    QByteArray out(256, '\0');
    const bool ok
            = key && EVP_PKEY_get_bn_param(key, OSSL_PKEY_PARAM_RSA_N, &n) == 1
              && BN_bn2binpad(n, reinterpret_cast<unsigned char *>(out.data()), out.size()) == 256;
    BN_free(n);
    EVP_PKEY_free(key);
    return ok ? out : QByteArray();
}

bool writePublicKey(const QString &privPath, const QString &pubPath)
{
    const QByteArray pem = readAll(privPath);
    BIO *bio = BIO_new_mem_buf(pem.constData(), pem.size());
    EVP_PKEY *key = PEM_read_bio_PrivateKey(bio, nullptr, nullptr, nullptr);
    BIO_free(bio);
    BIO *out = BIO_new(BIO_s_mem());
    bool ok = key && PEM_write_bio_PUBKEY(out, key) == 1;
    char *data = nullptr;
    const long len = BIO_get_mem_data(out, &data);
    ok = ok && writeAll(pubPath, QByteArray(data, int(len)));
    BIO_free(out);
    EVP_PKEY_free(key);
    return ok;
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
    void testPubhex();
    void testSignatureFileBytes();
    void testSignKeyNames();
    void testVerify_data();
    void testVerify();
    void testReverseData_data();
    void testReverseData();
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
    // The program opens the algorithm library with mode 9 (lazy, deep binding).
    m_alg = dlopen(QFile::encodeName(alg).constData(), RTLD_LAZY | RTLD_DEEPBIND);
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

// 526 upper-case digits: bit length 2048 little-endian, modulus big-endian,
// exponent 65537 in three bytes; the same from the public key file.
void TestSignatureRoundTrip::testPubhex()
{
    QByteArray hex;
    QCOMPARE(sign({"pubhex", m_key}, &hex), 0);
    QVERIFY(hex.endsWith('\n'));
    hex.chop(1);
    QVERIFY2(QRegularExpression("^[0-9A-F]{526}$").match(QString::fromLatin1(hex)).hasMatch(),
             hex.constData());
    QCOMPARE(m_blob.size(), 263);
    QCOMPARE(m_blob.left(4), QByteArray("\x00\x08\x00\x00", 4));
    QCOMPARE(m_blob.mid(4, 256), modulusOf(m_key));
    QCOMPARE(m_blob.mid(260), QByteArray("\x01\x00\x01", 3));

    const QString pub = m_tmp.filePath("pub.pem");
    QVERIFY(writePublicKey(m_key, pub));
    QByteArray fromPub;
    QCOMPARE(sign({"pubhex", pub}, &fromPub), 0);
    QCOMPARE(fromPub, hex + '\n');
}

// The whole file, byte for byte: section line, key line with the reversed
// signature in upper-case hex, LF line ends, final LF.
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

// "ZRUIServer..." files sign under "ZRUIServer.exe_Sign"; signing more files
// adds their lines to the section, signing again replaces a line in place.
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

void TestSignatureRoundTrip::testVerify_data()
{
    QTest::addColumn<int>("dataByte");
    QTest::addColumn<int>("sigByte");
    QTest::addColumn<int>("keyByte");
    QTest::addColumn<int>("hashAlg");
    QTest::addColumn<int>("flag");
    QTest::addColumn<int>("keyLen");
    QTest::addColumn<bool>("reverse");
    QTest::addColumn<unsigned long>("expected");
    QTest::newRow("valid") << -1 << -1 << -1 << 4 << 1 << 263 << true << 1UL;
    QTest::newRow("data first byte") << 0 << -1 << -1 << 4 << 1 << 263 << true << 0UL;
    QTest::newRow("data middle byte") << 1500 << -1 << -1 << 4 << 1 << 263 << true << 0UL;
    QTest::newRow("data last byte") << 3016 << -1 << -1 << 4 << 1 << 263 << true << 0UL;
    QTest::newRow("signature first byte") << -1 << 0 << -1 << 4 << 1 << 263 << true << 0UL;
    QTest::newRow("signature last byte") << -1 << 255 << -1 << 4 << 1 << 263 << true << 0UL;
    QTest::newRow("modulus byte") << -1 << -1 << 100 << 4 << 1 << 263 << true << 0UL;
    QTest::newRow("exponent byte") << -1 << -1 << 262 << 4 << 1 << 263 << true << 0UL;
    QTest::newRow("not reversed") << -1 << -1 << -1 << 4 << 1 << 263 << false << 0UL;
    QTest::newRow("hashAlg 0") << -1 << -1 << -1 << 0 << 1 << 263 << true << 0UL;
    QTest::newRow("hashAlg 3") << -1 << -1 << -1 << 3 << 1 << 263 << true << 0UL;
    QTest::newRow("hashAlg 5") << -1 << -1 << -1 << 5 << 1 << 263 << true << 0UL;
    QTest::newRow("flag 0") << -1 << -1 << -1 << 4 << 0 << 263 << true << 0UL;
    QTest::newRow("flag 2") << -1 << -1 << -1 << 4 << 2 << 263 << true << 0UL;
    QTest::newRow("key length 262") << -1 << -1 << -1 << 4 << 1 << 262 << true << 0UL;
}

// As the program checks: signature text from the file, hex to bytes,
// ZRA_ReverseData in place, then ZRA_RSA_Verify_ZRKey(blob, 263, 4, data,
// size, 1, signature, 256).
void TestSignatureRoundTrip::testVerify()
{
    QFETCH(int, dataByte);
    QFETCH(int, sigByte);
    QFETCH(int, keyByte);
    QFETCH(int, hashAlg);
    QFETCH(int, flag);
    QFETCH(int, keyLen);
    QFETCH(bool, reverse);
    QFETCH(unsigned long, expected);

    const QString ini = m_tmp.filePath("integrityprotect.ini");
    if (!QFile::exists(ini))
        QCOMPARE(sign({"sign", m_key, m_tmp.path(), "resources.rcc"}), 0);
    QByteArray sig = QByteArray::fromHex(signatureText(ini, "resources.rcc_Sign"));
    QCOMPARE(sig.size(), 256);
    QByteArray data = m_data;
    QByteArray blob = m_blob;
    QCOMPARE(data.size(), 3017);
    if (dataByte >= 0)
        data[dataByte] = char(data.at(dataByte) ^ 0x01);
    if (keyByte >= 0)
        blob[keyByte] = char(blob.at(keyByte) ^ 0x01);
    auto *s = reinterpret_cast<unsigned char *>(sig.data());
    if (reverse)
        QCOMPARE(m_reverse(s, 256, s, 256), 0UL);
    if (sigByte >= 0)
        sig[sigByte] = char(sig.at(sigByte) ^ 0x80);
    const unsigned long rc = m_verify(
            reinterpret_cast<unsigned char *>(blob.data()), static_cast<unsigned long>(keyLen),
            static_cast<unsigned long>(hashAlg), reinterpret_cast<unsigned char *>(data.data()),
            static_cast<unsigned long>(data.size()), static_cast<unsigned long>(flag), s, 256);
    QCOMPARE(rc, expected);
}

void TestSignatureRoundTrip::testReverseData_data()
{
    QTest::addColumn<QByteArray>("input");
    QTest::newRow("empty") << QByteArray();
    QTest::newRow("one") << QByteArray("a");
    QTest::newRow("odd") << QByteArray("abcde");
    QTest::newRow("even") << QByteArray("\x00\x01\x02\x03\xfe\xff", 6);
}

void TestSignatureRoundTrip::testReverseData()
{
    QFETCH(QByteArray, input);
    const QByteArray expected = reversed(input);
    const auto n = static_cast<unsigned long>(input.size());

    QByteArray inPlace = input + "#";
    auto *p = reinterpret_cast<unsigned char *>(inPlace.data());
    QCOMPARE(m_reverse(p, n, p, n), 0UL);
    QCOMPARE(inPlace, expected + "#");

    QByteArray out(input.size() + 1, '#');
    QByteArray in = input;
    QCOMPARE(m_reverse(reinterpret_cast<unsigned char *>(in.data()), n,
                       reinterpret_cast<unsigned char *>(out.data()), n + 1),
             0UL);
    QCOMPARE(out, expected + "#");
    QCOMPARE(in, input);

    if (n > 0) {
        QCOMPARE(m_reverse(reinterpret_cast<unsigned char *>(in.data()), n,
                           reinterpret_cast<unsigned char *>(out.data()), n - 1),
                 0x0A000006UL);
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
