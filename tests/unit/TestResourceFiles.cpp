// What the build ships beside the program: resources.rcc (protected settings, translations,
// icon), its signature checked with the compiled-in public key, the signed test variants
// and the waiting animation.

#include "app/TokenLibs.h"
#include "ZruiPublicKey.h"

#include <QFile>
#include <QImageReader>
#include <QProcess>
#include <QRegularExpression>
#include <QResource>
#include <QTemporaryDir>
#include <QSettings>
#include <QTranslator>
#include <QXmlStreamReader>
#include <QtTest>

#include <dlfcn.h>

namespace {

QString binDir() { return qEnvironmentVariable("ZRUI_BIN_DIR"); }

QString variantsDir() { return qEnvironmentVariable("ZRUI_TEST_RESOURCES_DIR"); }

QString sourceDir() { return qEnvironmentVariable("ZRUI_RESOURCES_SOURCE_DIR"); }

QByteArray readAll(const QString &path)
{
    QFile f(path);
    return f.open(QIODevice::ReadOnly) ? f.readAll() : QByteArray();
}

// "context | source | translation [unfinished]" per message of a .ts file.
QStringList tsMessages(const QString &path)
{
    QStringList out;
    QFile f(path);
    if (!f.open(QIODevice::ReadOnly))
        return {"<cannot open " + path + ">"};
    QXmlStreamReader xml(&f);
    QString context, source;
    while (!xml.atEnd()) {
        xml.readNext();
        if (!xml.isStartElement())
            continue;
        if (xml.name() == QLatin1String("name")) {
            context = xml.readElementText();
        } else if (xml.name() == QLatin1String("source")) {
            source = xml.readElementText();
        } else if (xml.name() == QLatin1String("translation")) {
            const bool unfinished = xml.attributes().value("type") == QLatin1String("unfinished");
            out << context + " | " + source + " | " + xml.readElementText()
                            + (unfinished ? " [unfinished]" : "");
        }
    }
    return out;
}

QSet<QString> placeholders(const QString &text)
{
    QSet<QString> found;
    QRegularExpressionMatchIterator it = QRegularExpression("%\\d").globalMatch(text);
    while (it.hasNext())
        found.insert(it.next().captured());
    return found;
}

} // namespace

class TestResourceFiles : public QObject
{
    Q_OBJECT

private slots:
    void initTestCase();
    void cleanupTestCase();
    void testProtectedSettings_data();
    void testProtectedSettings();
    void testSignatures_data();
    void testSignatures();
    void testTranslations();
    void testTranslationSources();
    void testTranslationsMatchProgramTexts();
    void testChineseScripts_data();
    void testChineseScripts();
    void testIcon();
    void testWaitAnimation();

private:
    void *m_alg = nullptr;
    PFN_ZRA_ReverseData m_reverse = nullptr;
    PFN_ZRA_RSA_Verify_ZRKey m_verify = nullptr;
};

void TestResourceFiles::initTestCase()
{
    QVERIFY(!binDir().isEmpty() && !variantsDir().isEmpty() && !sourceDir().isEmpty());
    // Each file under a root of its own, to compare them side by side.
    QVERIFY(QResource::registerResource(binDir() + "/resources.rcc", "/bin"));
    for (const char *v : {"keepalive2", "simple", "fullhide", "defaultpin"}) {
        const QString path = variantsDir() + "/" + v + "/resources.rcc";
        QVERIFY2(QResource::registerResource(path, QStringLiteral("/") + v), qPrintable(path));
    }
    const QString alg = qEnvironmentVariable("ZRUI_TOKENSIM_DIR") + "libzralg.so";
    m_alg = dlopen(QFile::encodeName(alg).constData(), ZRUI_ALG_DLOPEN_MODE);
    QVERIFY2(m_alg, dlerror());
    m_reverse = reinterpret_cast<PFN_ZRA_ReverseData>(dlsym(m_alg, "ZRA_ReverseData"));
    m_verify = reinterpret_cast<PFN_ZRA_RSA_Verify_ZRKey>(dlsym(m_alg, "ZRA_RSA_Verify_ZRKey"));
    QVERIFY(m_reverse && m_verify);
}

void TestResourceFiles::cleanupTestCase()
{
    QResource::unregisterResource(binDir() + "/resources.rcc", "/bin");
    if (m_alg)
        dlclose(m_alg);
}

void TestResourceFiles::testProtectedSettings_data()
{
    QTest::addColumn<QString>("root");
    QTest::addColumn<QString>("source");
    QTest::addColumn<QStringList>("softkeyboard");
    QTest::addColumn<QString>("defaultpin");
    QTest::addColumn<QVariant>("keepalive");
    const QVariant absent;
    QTest::newRow("shipped") << "bin"
                             << "protectedconf.ini" << QStringList{"full"} << "" << absent;
    QTest::newRow("keepalive2") << "keepalive2"
                                << "test-variants/keepalive2.ini" << QStringList{"full"} << ""
                                << QVariant(2);
    QTest::newRow("simple") << "simple"
                            << "test-variants/simple.ini" << QStringList{"simple"} << "" << absent;
    QTest::newRow("fullhide") << "fullhide"
                              << "test-variants/fullhide.ini" << QStringList{"full", "hide"} << ""
                              << absent;
    QTest::newRow("defaultpin") << "defaultpin"
                                << "test-variants/defaultpin.ini" << QStringList{"full"} << "123456"
                                << absent;
}

// Read as the program does: QSettings (INI) with contains() before keepaliveseconds.
void TestResourceFiles::testProtectedSettings()
{
    QFETCH(QString, root);
    QFETCH(QString, source);
    QFETCH(QStringList, softkeyboard);
    QFETCH(QString, defaultpin);
    QFETCH(QVariant, keepalive);

    const QString path = ":/" + root + "/protectedconf.ini";
    QVERIFY(QFile::exists(path));
    QCOMPARE(readAll(path), readAll(sourceDir() + "/" + source));

    QSettings s(path, QSettings::IniFormat);
    QCOMPARE(s.status(), QSettings::NoError);
    QCOMPARE(s.value("softkeyboard").toStringList(), softkeyboard);
    QVERIFY(s.contains("UIServer/defaultpin"));
    QCOMPARE(s.value("UIServer/defaultpin").toString(), defaultpin);
    QCOMPARE(s.value("UIServer/timeoutseconds").toString(), QStringLiteral("0"));
    QCOMPARE(s.contains("UIServer/keepaliveseconds"), keepalive.isValid());
    if (keepalive.isValid())
        QCOMPARE(s.value("UIServer/keepaliveseconds").toInt(), keepalive.toInt());
    QCOMPARE(s.allKeys().size(), keepalive.isValid() ? 4 : 3);
}

void TestResourceFiles::testSignatures_data()
{
    QTest::addColumn<QString>("dir");
    QTest::newRow("shipped") << binDir();
    for (const char *v : {"keepalive2", "simple", "fullhide", "defaultpin"})
        QTest::newRow(v) << variantsDir() + "/" + v;
}

// The same steps as the program's check, with the key text compiled into it.
void TestResourceFiles::testSignatures()
{
    QFETCH(QString, dir);
    const QByteArray ini = readAll(dir + "/integrityprotect.ini");
    const QRegularExpression form(
            "^\\[Kestrova 5\\.1\\]\\nresources\\.rcc_Sign=([0-9A-F]{512})\\n$");
    const QRegularExpressionMatch m = form.match(QString::fromLatin1(ini));
    QVERIFY2(m.hasMatch(), ini.constData());

    QByteArray sig = QByteArray::fromHex(m.captured(1).toLatin1());
    QByteArray blob = QByteArray::fromHex(ZRUI_PUBLIC_KEY_HEX);
    QCOMPARE(blob.size(), 263);
    QByteArray data = readAll(dir + "/resources.rcc");
    QVERIFY(data.size() > 1000);
    auto *s = reinterpret_cast<unsigned char *>(sig.data());
    m_reverse(s, 256, s, 256);
    QCOMPARE(m_verify(reinterpret_cast<unsigned char *>(blob.data()), 263, 4,
                      reinterpret_cast<unsigned char *>(data.data()),
                      static_cast<unsigned long>(data.size()), 1, s, 256),
             1UL);
    // A signature of one resource file does not pass for another.
    if (dir != binDir()) {
        QByteArray shipped = readAll(binDir() + "/resources.rcc");
        QCOMPARE(m_verify(reinterpret_cast<unsigned char *>(blob.data()), 263, 4,
                          reinterpret_cast<unsigned char *>(shipped.data()),
                          static_cast<unsigned long>(shipped.size()), 1, s, 256),
                 0UL);
    }
}

// Loaded as the program loads them: file name only, the rest empty.
void TestResourceFiles::testTranslations()
{
    const struct
    {
        const char *tag, *context, *source, *expected;
    } cases[] = {
            {"en", "PINDialog", "IDC_CUSTOM_PIN_ANNOTATION",
             "Please enter a PIN of %1-%2 characters."},
            {"zh_CN", "PINDialog", "IDC_CUSTOM_PIN_ANNOTATION", "请输入%1-%2位的PIN码。"},
            {"zh_TW", "PINDialog", "IDC_CUSTOM_PIN_ANNOTATION", "請輸入%1-%2位的PIN碼。"},
            {"zh_CN", "MessageDialog", "PIN_Locked", "PIN码已锁定，请联系管理员解锁。"},
            {"en", "FIFO_Service", "There are %1 times remaining", "Attempts remaining: %1."},
            {"zh_TW", "WaitingDialog",
             "Please press OK button on USBKey in <font color=\"red\">%1</font> second(s)",
             "請在<font color=\"red\">%1</font>秒內按USBKey上的確認鍵"},
            // Same source text, different contexts: the context must be kept apart.
            {"zh_CN", "CertListDialog", "Form", "选择容器"},
            {"zh_CN", "PINDialog", "Form", "USBKey PIN码"},
    };
    for (const auto &c : cases) {
        QTranslator translator;
        QVERIFY(translator.load(QStringLiteral(":/bin/uiserver.") + c.tag + ".qm", QString(),
                                QString(), QString()));
        QCOMPARE(translator.translate(c.context, c.source), QString::fromUtf8(c.expected));
    }
}

// The translation sources: the same messages in all three languages, every one finished,
// and no placeholder lost or invented (the PIN-bound keys need both %1 and %2).
void TestResourceFiles::testTranslationSources()
{
    QMap<QString, QStringList> keysPerLanguage;
    for (const QString lang : {"en", "zh_CN", "zh_TW"}) {
        for (const QString &m :
             tsMessages(sourceDir() + "/translations/uiserver." + lang + ".ts")) {
            const QString source = m.section(" | ", 1, 1), translation = m.section(" | ", 2);
            QVERIFY2(!translation.isEmpty() && !translation.endsWith(" [unfinished]"),
                     qPrintable(lang + ": " + m));
            QSet<QString> wanted = placeholders(source);
            if (source == "IDC_CUSTOM_PIN_ANNOTATION" || source == "comment_passwdinfo_verify")
                wanted = {"%1", "%2"};
            QVERIFY2(placeholders(translation) == wanted, qPrintable(lang + ": " + m));
            keysPerLanguage[lang] << m.section(" | ", 0, 1);
        }
    }
    QVERIFY(keysPerLanguage.value("en").size() >= 12);
    QCOMPARE(keysPerLanguage.value("zh_CN"), keysPerLanguage.value("en"));
    QCOMPARE(keysPerLanguage.value("zh_TW"), keysPerLanguage.value("en"));
}

// lupdate over the program's sources (on copies of the .ts files) must find every text
// the translation files translate and no text they lack: no drift on either side.
void TestResourceFiles::testTranslationsMatchProgramTexts()
{
    const QString lupdate = qEnvironmentVariable("ZRUI_LUPDATE");
    QVERIFY2(QFile::exists(lupdate), "ZRUI_LUPDATE does not name lupdate");
    QTemporaryDir tmp;
    QVERIFY(tmp.isValid());
    QStringList args = {"app", "service", "ui", "keyboard", "resources", "-ts"};
    for (const QString lang : {"en", "zh_CN", "zh_TW"}) {
        const QString name = "uiserver." + lang + ".ts";
        QVERIFY(QFile::copy(sourceDir() + "/translations/" + name, tmp.filePath(name)));
        args << tmp.filePath(name);
    }
    args << "-no-obsolete"
         << "-locations"
         << "none"
         << "-no-ui-lines";
    QProcess p;
    p.setWorkingDirectory(sourceDir() + "/..");
    p.start(lupdate, args);
    QVERIFY(p.waitForFinished(120000));
    QCOMPARE(p.exitCode(), 0);
    for (const QString lang : {"en", "zh_CN", "zh_TW"}) {
        const QString name = "uiserver." + lang + ".ts";
        const QStringList before = tsMessages(sourceDir() + "/translations/" + name);
        const QStringList after = tsMessages(tmp.filePath(name));
        QStringList lost, gained;
        for (const QString &m : before)
            if (!after.contains(m))
                lost << m;
        for (const QString &m : after)
            if (!before.contains(m))
                gained << m;
        QVERIFY2(lost.isEmpty() && gained.isEmpty(),
                 qPrintable(name + "\nno longer in the program:\n  " + lost.join("\n  ")
                            + "\nnot translated:\n  " + gained.join("\n  ")));
    }
}

// Characters written differently in the two Chinese scripts: a Simplified text in the
// Traditional file, or the other way round, shows here.
void TestResourceFiles::testChineseScripts_data()
{
    const QString simplified = QString::fromUtf8(
            "两为会传储内写号员复对将尝态户择数旧显满盖盘码确种称签组续联认许设证试误请软输还进连"
            "选钥锁错键长间须验状资萤预变产");
    const QString traditional = QString::fromUtf8(
            "兩為會傳儲內寫號員複復對將嘗態戶擇數舊顯滿蓋盤碼確種稱簽組續聯認許設證試誤請軟輸還進"
            "連選鑰鎖錯鍵長間須驗狀資螢預變產");
    QTest::addColumn<QString>("tag");
    QTest::addColumn<QString>("own");
    QTest::addColumn<QString>("foreign");
    QTest::newRow("zh_CN") << "zh_CN" << simplified << traditional;
    QTest::newRow("zh_TW") << "zh_TW" << traditional << simplified;
}

void TestResourceFiles::testChineseScripts()
{
    QFETCH(QString, tag);
    QFETCH(QString, own);
    QFETCH(QString, foreign);
    int ownCount = 0;
    for (const QString &m : tsMessages(sourceDir() + "/translations/uiserver." + tag + ".ts")) {
        const QString translation = m.section(" | ", 2);
        for (const QChar c : translation) {
            QVERIFY2(!foreign.contains(c), qPrintable(tag + ": " + c + " in " + m));
            ownCount += own.contains(c);
        }
    }
    QVERIFY2(ownCount >= 100, qPrintable(QString::number(ownCount)));
}

void TestResourceFiles::testIcon()
{
    QImageReader reader(":/bin/images/logo.ico");
    QVERIFY2(reader.canRead(), qPrintable(reader.errorString()));
    const QList<int> sizes = {16, 24, 32, 48, 64, 128};
    QCOMPARE(reader.imageCount(), sizes.size());
    for (int i = 0; i < sizes.size(); ++i) {
        QVERIFY(reader.jumpToImage(i));
        const QImage img = reader.read().convertToFormat(QImage::Format_ARGB32);
        QCOMPARE(img.size(), QSize(sizes.at(i), sizes.at(i)));
        QCOMPARE(qAlpha(img.pixel(0, 0)), 0);
    }
}

// The waiting animation in SAFEPATH: 64 x 64, twelve distinct frames, looping forever.
void TestResourceFiles::testWaitAnimation()
{
    QImageReader reader(qEnvironmentVariable("ZRUI_TOKENSIM_DIR") + "wait.gif");
    QVERIFY2(reader.canRead(), qPrintable(reader.errorString()));
    QCOMPARE(QByteArray(reader.format()), QByteArray("gif"));
    QCOMPARE(reader.size(), QSize(64, 64));
    QCOMPARE(reader.imageCount(), 12);
    QCOMPARE(reader.loopCount(), -1);
    QList<QImage> frames;
    for (int i = 0; i < 12; ++i) {
        const QImage img = reader.read().convertToFormat(QImage::Format_ARGB32);
        QVERIFY2(!img.isNull(), qPrintable(reader.errorString()));
        QCOMPARE(reader.nextImageDelay(), 80);
        for (const QImage &earlier : frames)
            QVERIFY(img != earlier);
        frames.append(img);
    }
}

QTEST_MAIN(TestResourceFiles)
#include "TestResourceFiles.moc"
