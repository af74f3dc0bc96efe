// What the build ships beside the program: resources.rcc (protected settings, translations,
// icon) and the waiting animation.

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

namespace {

QString binDir() { return qEnvironmentVariable("ZRUI_BIN_DIR"); }

QString sourceDir() { return qEnvironmentVariable("ZRUI_RESOURCES_SOURCE_DIR"); }

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
    void testProtectedSettings();
    void testTranslations();
    void testTranslationSources();
    void testTranslationsMatchProgramTexts();
    void testChineseScripts_data();
    void testChineseScripts();
    void testArtwork();
};

void TestResourceFiles::initTestCase()
{
    QVERIFY(!binDir().isEmpty() && !sourceDir().isEmpty());
    QVERIFY(QResource::registerResource(binDir() + "/resources.rcc", "/bin"));
}

void TestResourceFiles::cleanupTestCase()
{
    QResource::unregisterResource(binDir() + "/resources.rcc", "/bin");
}

// The shipped settings, read as the program does (QSettings, INI). The signed test
// variants are checked by the tests that use them, through what they change.
void TestResourceFiles::testProtectedSettings()
{
    QSettings s(":/bin/protectedconf.ini", QSettings::IniFormat);
    QCOMPARE(s.status(), QSettings::NoError);
    QCOMPARE(s.value("softkeyboard").toStringList(), QStringList{"full"});
    QVERIFY(s.contains("UIServer/defaultpin"));
    QCOMPARE(s.value("UIServer/defaultpin").toString(), QString());
    QCOMPARE(s.value("UIServer/timeoutseconds").toString(), QStringLiteral("0"));
    QVERIFY(!s.contains("UIServer/keepaliveseconds"));
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
    QVERIFY(p.waitForFinished(60000));
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

// The artwork the program shows: an icon and a waiting animation that loops for ever.
void TestResourceFiles::testArtwork()
{
    QImageReader icon(":/bin/images/logo.ico");
    QVERIFY2(icon.canRead() && !icon.read().isNull(), qPrintable(icon.errorString()));
    QImageReader gif(qEnvironmentVariable("ZRUI_TOKENSIM_DIR") + "wait.gif");
    QVERIFY2(gif.canRead(), qPrintable(gif.errorString()));
    QVERIFY(gif.imageCount() > 1);
    QCOMPARE(gif.loopCount(), -1);
}

QTEST_MAIN(TestResourceFiles)
#include "TestResourceFiles.moc"
