// The signed-file chain: the INI reader, the signature check through the stand-in algorithm
// library, what zrui-sign writes (checked against OpenSSL), and the shipped translations.
#include "app/FileIntegrity.h"
#include "app/IniReader.h"
#include "app/StartupEnv.h"
#include "app/TokenLibs.h"

#include <QImageReader>
#include <QProcess>
#include <QRegularExpression>
#include <QResource>
#include <QTemporaryDir>
#include <QtTest>

#include <openssl/evp.h>
#include <openssl/pem.h>
#include <openssl/rsa.h>

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

QByteArray iniWith(const QByteArray &key, const QByteArray &value, const QByteArray &eol = "\n")
{
    return "[Kestrova 5.1]" + eol + key + "=" + value + eol;
}

// RSA-SHA256 PKCS#1 v1.5 by OpenSSL, bytes reversed, upper-case hex: the signature text.
QByteArray referenceText(const QString &keyPath, const QByteArray &data)
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
    sig.truncate(ok ? int(len) : 0);
    std::reverse(sig.begin(), sig.end());
    return sig.toHex().toUpper();
}

// "context | source | translation [unfinished]" per message of a .ts file, entities kept.
QStringList tsMessages(const QString &path)
{
    QStringList out;
    QString context, source;
    auto it = QRegularExpression("<name>(.*?)</name>|<source>(.*?)</source>"
                                 "|<translation([^>]*?)(?:/>|>(.*?)</translation>)",
                                 QRegularExpression::DotMatchesEverythingOption)
                      .globalMatch(QString::fromUtf8(readAll(path)));
    while (it.hasNext()) {
        const QRegularExpressionMatch m = it.next();
        if (m.capturedStart(1) >= 0)
            context = m.captured(1);
        else if (m.capturedStart(2) >= 0)
            source = m.captured(2);
        else
            out << context + " | " + source + " | " + m.captured(4)
                            + (m.captured(3).contains("unfinished") ? " [unfinished]" : "");
    }
    return out;
}

QStringList placeholders(const QString &text)
{
    QStringList found;
    auto it = QRegularExpression("%\\d").globalMatch(text);
    while (it.hasNext())
        found << it.next().captured();
    found.sort();
    found.removeDuplicates();
    return found;
}

QStringList captured;

} // namespace

class TestIntegrity : public QObject
{
    Q_OBJECT
private slots:
    void initTestCase();
    void testIniLookup_data();
    void testIniLookup();
    void testVerify_data();
    void testVerify();
    void testPathLimit();
    void testSigningTool();
    void testTranslationFile();
    void testTranslations();

private:
    int sign(const QStringList &args, QByteArray *err = nullptr);

    QTemporaryDir tmp;
    QString binDir, srcDir, key;
    QByteArray rcc, signatureHex;
};

int TestIntegrity::sign(const QStringList &args, QByteArray *err)
{
    QProcess p;
    p.start(qEnvironmentVariable("ZRUI_SIGN_TOOL"), args);
    if (!p.waitForFinished(60000) || p.exitStatus() != QProcess::NormalExit)
        return -1;
    if (err)
        *err = p.readAllStandardError();
    return p.exitCode();
}

void TestIntegrity::initTestCase()
{
    QVERIFY(tmp.isValid());
    binDir = qEnvironmentVariable("ZRUI_BIN_DIR");
    srcDir = qEnvironmentVariable("ZRUI_RESOURCES_SOURCE_DIR");
    QByteArray libDir = qgetenv("ZRUI_TOKENSIM_DIR");
    QCOMPARE(LoadLib_Alg(0, libDir.data()), 1);
    rcc = readAll(binDir + "/resources.rcc");
    QVERIFY(!rcc.isEmpty());
    QVERIFY(QResource::registerResource(binDir + "/resources.rcc"));
    const auto m = QRegularExpression("\nresources.rcc_Sign=(\\w+)\n")
                           .match(QString::fromLatin1(readAll(binDir + "/integrityprotect.ini")));
    signatureHex = m.captured(1).toLatin1();
    QCOMPARE(signatureHex.size(), 512);
    key = tmp.filePath("key.pem");
    QCOMPARE(sign({"genkey", key}), 0);
    struct stat st;
    QCOMPARE(stat(QFile::encodeName(key).constData(), &st), 0);
    QCOMPARE(st.st_mode & 0777, mode_t(0600));
}

// Kept on purpose: the signature files are written for exactly this reader's quirks.
void TestIntegrity::testIniLookup_data()
{
    QTest::addColumn<QByteArray>("content"); // null: no file
    QTest::addColumn<QByteArray>("expected"); // of section "S", key "k"
    const QByteArray x1021(1021, 'x');
    const struct
    {
        const char *name;
        QByteArray content, expected;
    } rows[] = {
            {"CR inside the value stays", "[S]\nk=A\rB\n", "A\rB"},
            {"missing final line feed", "[S]\nk=AB12", ""},
            {"first match wins, unterminated last", "[S]\nk=1\nk=2", "1"},
            {"hash comment", "[S]\n#k=old\nk=new\n", "new"},
            {"double slash comment", "[S]\n//k=old\nk=new\n", "new"},
            {"single slash is no comment", "[S]\n/k=kept\n", "kept"},
            {"key inside a longer name", "[S]\nmy_k_long=v1\n", "v1"},
            {"key found inside the value", "[S]\nother=has k inside\n", "has k inside"},
            {"line without equals skipped", "[S]\nk\nk=v\n", "v"},
            {"nothing trimmed, first equals", "[S]\nk = a=b \n", " a=b "},
            {"empty value", "[S]\nk=\nk=later\n", ""},
            {"section never left", "[S]\na=1\n[T]\nk=from T\n", "from T"},
            {"lines before the header", "k=early\n[S]\nk=late\n", "late"},
            {"header in column 1 only", " [S]\nk=v\n", ""},
            {"header over its own length", "[S] trailing\nk=v\n", "v"},
            {"longer header name", "[Sx]\nk=v\n", ""},
            {"longest line that fits", "[S]\nk=" + x1021 + "\n", x1021},
            {"longest line, CR LF", "[S]\r\nk=" + x1021.left(1020) + "\r\n", x1021.left(1020)},
            {"one byte too long", "[S]\nk=" + x1021 + "x\nk=short\n", "short"},
            {"null section never matches", "[(null)]\nk=v\n", ""},
            {"no file", QByteArray(), ""},
    };
    for (const auto &r : rows)
        QTest::newRow(r.name) << r.content << r.expected;
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
    QTest::addColumn<QByteArray>("content");
    QTest::addColumn<QByteArray>("ini");
    QTest::addColumn<int>("expected");
    const QByteArray k("resources.rcc_Sign"), n("resources.rcc"), sig = signatureHex;
    QTest::newRow("as built") << n << rcc << iniWith(k, sig) << 1;
    QTest::newRow("lower-case hex") << n << rcc << iniWith(k, sig.toLower()) << 1;
    QTest::newRow("CR LF") << n << rcc << iniWith(k, sig, "\r\n") << 1;
    QTest::newRow("commented") << n << rcc << iniWith("#" + k, sig) << 0;
    QTest::newRow("no final line feed") << n << rcc << iniWith(k, sig).trimmed() << 0;
    QTest::newRow("other key") << n << rcc << iniWith("other.rcc_Sign", sig) << 0;
    QTest::newRow("no such file") << QByteArray("missing") << QByteArray()
                                  << iniWith("missing_Sign", sig) << 0;
    for (int at : {0, rcc.size() - 1}) {
        QByteArray changed = rcc;
        changed[at] = char(changed.at(at) ^ 0x01);
        QTest::addRow("byte %d changed", at) << n << changed << iniWith(k, sig) << 0;
    }
    QByteArray digit = sig;
    digit[100] = digit.at(100) == '0' ? '1' : '0';
    QTest::newRow("signature digit changed") << n << rcc << iniWith(k, digit) << 0;
    // The terminator fills a missing last digit as 9.
    QTest::newRow("one digit short")
            << n << rcc << iniWith(k, sig.left(511)) << int(sig.endsWith('9'));
    QByteArray bytes = QByteArray::fromHex(sig);
    std::reverse(bytes.begin(), bytes.end());
    QTest::newRow("not reversed") << n << rcc << iniWith(k, bytes.toHex().toUpper()) << 0;
    // A name starting "ZRUIServer" is looked up under the executable's key.
    QTest::newRow("prefix, exe key")
            << QByteArray("ZRUIServerX") << rcc << iniWith("ZRUIServer.exe_Sign", sig) << 1;
    QTest::newRow("prefix, own key")
            << QByteArray("ZRUIServerX") << rcc << iniWith("ZRUIServerX_Sign", sig) << 0;
    QTest::newRow("other case, own key")
            << QByteArray("zruiserver") << rcc << iniWith("zruiserver_Sign", sig) << 1;
    QTest::newRow("short prefix") << QByteArray("ZRUIServe") << rcc
                                  << iniWith("ZRUIServer.exe_Sign", sig) << 0;
    QTest::newRow("name too long") << QByteArray(251, 'n') << rcc << iniWith(k, sig) << 0;
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
    // The directory is used as given: without "/" the names are glued.
    d.chop(1);
    QCOMPARE(FileIntegrityProtect(d.data(), name.data()), 0);
    char k[] = "k";
    QVERIFY(!FileIntegrityProtect(d.data(), nullptr) && !FileVerifySignature(nullptr, k, k)
            && !FileVerifySignature(d.data(), nullptr, k)
            && !FileVerifySignature(d.data(), k, nullptr));
    QByteArray f = QFile::encodeName(dir.filePath("integrityprotect.ini"));
    unsigned char *data = nullptr;
    unsigned long size = 0;
    QVERIFY(!ReadFileContent(nullptr, &data, &size) && !ReadFileContent(f.data(), nullptr, &size));
    auto *u = reinterpret_cast<unsigned char *>(f.data());
    QVERIFY(!StringToBin(nullptr, u, 2) && !StringToBin(u, nullptr, 2));
}

// A path that does not fit the 256-byte buffer is refused, never cut to a file that exists.
void TestIntegrity::testPathLimit()
{
    QByteArray d = QFile::encodeName(tmp.path() + "/");
    for (int len : {255, 256}) {
        QByteArray name(len - d.size(), 'n');
        QVERIFY(writeAll(tmp.filePath(name.chopped(1)), rcc) && writeAll(tmp.filePath(name), rcc));
        QVERIFY(writeAll(tmp.filePath("integrityprotect.ini"),
                         iniWith(name + "_Sign", signatureHex)));
        QCOMPARE(FileIntegrityProtect(d.data(), name.data()), int(len == 255));
    }
}

// The whole file byte for byte, checked against OpenSSL: "ZRUIServer..." signs under the
// executable's key, re-signing replaces a line in place, other lines and sections are kept.
void TestIntegrity::testSigningTool()
{
    QByteArray err;
    const QByteArray keyBefore = readAll(key);
    QCOMPARE(sign({"genkey", key}, &err), 1);
    QVERIFY2(err.contains("never overwritten"), err.constData());
    QCOMPARE(readAll(key), keyBefore);

    QTemporaryDir dir;
    const QString ini = dir.filePath("integrityprotect.ini");
    QVERIFY(writeAll(dir.filePath("ZRUIServer-any"), "first") && writeAll(dir.filePath("b"), rcc));
    QVERIFY(writeAll(ini, "[Kestrova 5.1]\r\nkept_Sign=00\r\n[Other]\r\nx=1\r\n"));
    QCOMPARE(sign({"sign", key, dir.path(), "ZRUIServer-any"}), 0);
    QCOMPARE(sign({"sign", key, dir.path() + "/", "b"}), 0);
    QVERIFY(writeAll(dir.filePath("ZRUIServer-any"), QByteArray("\0\r\n\xff", 4)));
    QCOMPARE(sign({"sign", key, dir.path(), "ZRUIServer-any"}), 0);
    const QByteArray expected = "[Kestrova 5.1]\nkept_Sign=00\nZRUIServer.exe_Sign="
                                + referenceText(key, QByteArray("\0\r\n\xff", 4))
                                + "\nb_Sign=" + referenceText(key, rcc) + "\n[Other]\nx=1\n";
    QCOMPARE(readAll(ini), expected);
    // Refusals change nothing: exit 2 for usage, 1 for a failed command.
    for (const auto &r : QList<QPair<QStringList, int>>{{{"verify", "x"}, 2},
                                                        {{"sign", key, dir.path(), "a/b"}, 1},
                                                        {{"pubhex", ini}, 1}}) {
        QCOMPARE(sign(r.first), r.second);
        QCOMPARE(readAll(ini), expected);
    }
}

// Only en, zh_CN and zh_TW have a file; any other tag falls back to en. Both choices logged.
void TestIntegrity::testTranslationFile()
{
    const char *const rows[][3] = {{"zh_CN", "zh_CN", "zh_CN"}, {"zh_HK", "zh_TW", "zh_TW"},
                                   {"zh_SG", "zh_TW", "zh_TW"}, {"zh", "zh_TW", "zh_TW"},
                                   {"xx_zh", "zh_TW", "zh_TW"}, {"zh_cn", "zh_TW", "zh_TW"},
                                   {"ZH_CN", "ZH", "en"},       {"fr_FR", "fr", "en"},
                                   {"en_US", "en", "en"},       {"C", "C", "en"},
                                   {"_US", "", "en"},           {"en__US", "en", "en"}};
    for (const auto &r : rows) {
        QCOMPARE(translationTagForLocale(r[0]), QString(r[1]));
        captured.clear();
        QtMessageHandler previous = qInstallMessageHandler(
                [](QtMsgType, const QMessageLogContext &, const QString &m) { captured << m; });
        const QString chosen = chooseTranslationFile(r[0]);
        qInstallMessageHandler(previous);
        QCOMPARE(chosen, QStringLiteral(":/uiserver.%1.qm").arg(r[2]));
        QVERIFY(QFile::exists(chosen));
        QCOMPARE(captured,
                 QStringList({QStringLiteral("trans file= \":/uiserver.%1.qm\"").arg(r[1]),
                              "trans file= \"" + chosen + "\""}));
    }
}

// lupdate over the program's sources (on copies) finds exactly the translated texts; every
// message is finished in all three languages with no placeholder lost or invented (the PIN
// bounds need %1 and %2), each Chinese file in its own script. The animation loops for ever.
void TestIntegrity::testTranslations()
{
    const QStringList langs = {"en", "zh_CN", "zh_TW"};
    QStringList args = {"app", "service", "ui", "keyboard", "resources", "-ts"};
    for (const QString &lang : langs) {
        const QString name = "uiserver." + lang + ".ts";
        QFile::remove(tmp.filePath(name));
        QVERIFY(QFile::copy(srcDir + "/translations/" + name, tmp.filePath(name)));
        args << tmp.filePath(name);
    }
    QProcess p;
    p.setWorkingDirectory(srcDir + "/..");
    p.start(qEnvironmentVariable("ZRUI_LUPDATE"), args << "-no-obsolete"
                                                       << "-locations"
                                                       << "none"
                                                       << "-no-ui-lines");
    QVERIFY(p.waitForFinished(60000));
    QCOMPARE(p.exitCode(), 0);

    const QString simplified = QString::fromUtf8(
            "两为会传储内写号员复对将尝态户择数旧显满盖盘码确种称签组续联认许设证试误请软输还进连"
            "选钥锁错键长间须验状资萤预变产");
    const QString traditional = QString::fromUtf8(
            "兩為會傳儲內寫號員複復對將嘗態戶擇數舊顯滿蓋盤碼確種稱簽組續聯認許設證試誤請軟輸還進"
            "連選鑰鎖錯鍵長間須驗狀資螢預變產");
    QMap<QString, QStringList> keys;
    for (const QString &lang : langs) {
        QStringList found = tsMessages(tmp.filePath("uiserver." + lang + ".ts"));
        QStringList kept = tsMessages(srcDir + "/translations/uiserver." + lang + ".ts");
        const QString own = lang == "zh_CN" ? simplified : traditional;
        const QString foreign = lang == "zh_CN" ? traditional : simplified;
        int ownCount = 0;
        for (const QString &m : kept) {
            const QString source = m.section(" | ", 1, 1), translation = m.section(" | ", 2);
            QVERIFY2(!translation.isEmpty() && !translation.endsWith(" [unfinished]"),
                     qPrintable(lang + ": " + m));
            const bool bounds = source == "IDC_CUSTOM_PIN_ANNOTATION"
                                || source == "comment_passwdinfo_verify";
            QCOMPARE(placeholders(translation),
                     bounds ? QStringList({"%1", "%2"}) : placeholders(source));
            keys[lang] << m.section(" | ", 0, 1);
            for (const QChar c : translation) {
                QVERIFY2(lang == "en" || !foreign.contains(c), qPrintable(lang + ": " + m));
                ownCount += own.contains(c);
            }
        }
        QVERIFY2(lang == "en" || ownCount >= 100, qPrintable(lang));
        found.sort();
        kept.sort();
        QCOMPARE(found, kept);
    }
    QVERIFY(keys.value("en").size() >= 12);
    QCOMPARE(keys.value("zh_CN"), keys.value("en"));
    QCOMPARE(keys.value("zh_TW"), keys.value("en"));
    QVERIFY(!QImageReader(":/images/logo.ico").read().isNull());
    QImageReader gif(qEnvironmentVariable("ZRUI_TOKENSIM_DIR") + "wait.gif");
    QVERIFY(gif.imageCount() > 1);
    QCOMPARE(gif.loopCount(), -1);
}

QTEST_MAIN(TestIntegrity)
#include "TestIntegrity.moc"
