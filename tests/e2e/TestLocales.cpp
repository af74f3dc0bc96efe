// Translations in a real X server with real fonts: the real executable per
// locale (translation file chosen, PIN dialog titles), a glyph for every
// translated text, and every dialog per language at the program's scale
// (logical DPI / 96) without clipped, overlapping or protruding widgets.
#include "WindowTitles.h"
#include "XDoTool.h"

#include "CertListDialog.h"
#include "FakeUiStatus.h"
#include "LogFile.h"
#include "MessageDialog.h"
#include "PINDialog.h"
#include "ServerLauncher.h"
#include "WaitingDialog.h"
#include "client/zrui_client.h"

#include <QAbstractButton>
#include <QApplication>
#include <QComboBox>
#include <QDesktopWidget>
#include <QFile>
#include <QFontDatabase>
#include <QGlyphRun>
#include <QLabel>
#include <QLineEdit>
#include <QPushButton>
#include <QResource>
#include <QTextDocument>
#include <QTextLayout>
#include <QToolButton>
#include <QTranslator>
#include <QXmlStreamReader>
#include <QtTest>

#include <functional>
#include <memory>

namespace {

QString plainText(const QString &text)
{
    if (!Qt::mightBeRichText(text))
        return text;
    QTextDocument doc;
    doc.setHtml(text);
    return doc.toPlainText();
}

// Characters no installed font draws: laid out alone, they give glyph 0.
QString missingGlyphs(const QString &text, const QFont &font)
{
    QString missing;
    for (const uint ucs4 : text.toUcs4()) {
        const QString one = QString::fromUcs4(&ucs4, 1);
        if (one.trimmed().isEmpty() || missing.contains(one))
            continue;
        QTextLayout layout(one, font);
        layout.beginLayout();
        layout.createLine();
        layout.endLayout();
        bool drawn = false;
        for (const QGlyphRun &run : layout.glyphRuns()) {
            for (const quint32 glyph : run.glyphIndexes())
                drawn = drawn || glyph != 0;
        }
        if (!drawn)
            missing += one;
    }
    return missing;
}

// "context|source" -> translation, from a .ts file.
QMap<QString, QString> tsTranslations(const QString &path)
{
    QMap<QString, QString> out;
    QFile f(path);
    if (!f.open(QIODevice::ReadOnly))
        return out;
    QXmlStreamReader xml(&f);
    QString context, source;
    while (!xml.atEnd()) {
        xml.readNext();
        if (!xml.isStartElement())
            continue;
        if (xml.name() == QLatin1String("name"))
            context = xml.readElementText();
        else if (xml.name() == QLatin1String("source"))
            source = xml.readElementText();
        else if (xml.name() == QLatin1String("translation"))
            out.insert(context + QLatin1Char('|') + source, xml.readElementText());
    }
    return out;
}

QString str(const QSize &s) { return QStringLiteral("%1x%2").arg(s.width()).arg(s.height()); }

using DialogFactory = std::function<QWidget *(FakeUiStatus *, float)>;

} // namespace

Q_DECLARE_METATYPE(DialogFactory)

class TestLocales : public QObject
{
    Q_OBJECT

private slots:
    void initTestCase();
    void cleanup();

    void testServerShowsTranslatedPinTitles_data();
    void testServerShowsTranslatedPinTitles();
    void testEveryTranslationHasGlyphs_data();
    void testEveryTranslationHasGlyphs();
    void testDialogTextsFit_data();
    void testDialogTextsFit();

private:
    QStringList layoutProblems(QWidget *window);

    float scale = 1.0f;
    std::unique_ptr<QTranslator> translator;
};

void TestLocales::initTestCase()
{
    if (!XDoTool::available())
        QSKIP("needs xdotool and an X display (run under xvfb-run)");
    scale = float(QApplication::desktop()->logicalDpiX()) / 96.0f;
    qInfo("logical DPI %d: scale %.2f", QApplication::desktop()->logicalDpiX(), double(scale));
    const QString expected = qEnvironmentVariable("ZRUI_EXPECT_SCALE");
    if (!expected.isEmpty())
        QCOMPARE(scale, expected.toFloat());
    const QString rcc = qEnvironmentVariable("ZRUI_BIN_DIR") + QStringLiteral("/resources.rcc");
    QVERIFY2(QResource::registerResource(rcc), qPrintable(rcc));
}

void TestLocales::cleanup()
{
    if (translator)
        QCoreApplication::removeTranslator(translator.get());
    translator.reset();
}

void TestLocales::testServerShowsTranslatedPinTitles_data()
{
    QTest::addColumn<QString>("locale");
    QTest::addColumn<QString>("firstFile");
    QTest::addColumn<QString>("loadedFile");
    // PIN dialog types 0 and 1; type 1's English differs from its source text.
    QTest::addColumn<QStringList>("titles");

    const QString en = QStringLiteral(":/uiserver.en.qm");
    const QString cn = QStringLiteral(":/uiserver.zh_CN.qm");
    const QString tw = QStringLiteral(":/uiserver.zh_TW.qm");
    const QStringList cnTitles{QString::fromUtf8("验证USBKey密码"),
                               QString::fromUtf8("验证USBKey管理员密码")};
    const QStringList twTitles{QString::fromUtf8("驗證USBKey密碼"),
                               QString::fromUtf8("驗證USBKey管理員密碼")};
    const QStringList enTitles{"Verify USBKey password", "Verify USBKey administrator password"};
    QTest::newRow("zh_CN") << "zh_CN" << cn << cn << cnTitles;
    QTest::newRow("zh_HK") << "zh_HK" << tw << tw << twTitles;
    QTest::newRow("zh_TW") << "zh_TW" << tw << tw << twTitles;
    QTest::newRow("en_US") << "en_US" << en << en << enTitles;
    QTest::newRow("fr_FR") << "fr_FR"
                           << ":/uiserver.fr.qm" << en << enTitles;
}

void TestLocales::testServerShowsTranslatedPinTitles()
{
    QFETCH(QString, locale);
    QFETCH(QString, firstFile);
    QFETCH(QString, loadedFile);
    QFETCH(QStringList, titles);

    QVERIFY(LogFile::clear());
    ServerLauncher server;
    server.setPlatform(QString()); // the X server of xvfb-run
    server.setEnv(QStringLiteral("LANG"), locale + QStringLiteral(".UTF-8"));
    server.setEnv(QStringLiteral("LC_ALL"), locale + QStringLiteral(".UTF-8"));
    QVERIFY2(server.start(), qPrintable(server.errorString()));
    QVERIFY2(server.waitForListening(), server.output().constData());
    const qint64 pid = server.process().processId();

    // The locale, then the file asked for and the file loaded.
    const QString localeLine = QStringLiteral("locale= \"%1\"").arg(locale);
    QVERIFY(LogFile::waitForLine(localeLine));
    const QStringList messages = LogFile::messages();
    const int at = messages.indexOf(localeLine);
    QVERIFY(at >= 0);
    QCOMPARE(messages.mid(at + 1, 2),
             QStringList({QStringLiteral("trans file= \"%1\"").arg(firstFile),
                          QStringLiteral("trans file= \"%1\"").arg(loadedFile)}));
    QCOMPARE(LogFile::countExact(localeLine), 1);

    zrui_conn *conn = nullptr;
    QCOMPARE(zrui_open(server.appName().toUtf8().constData(), &conn), int(ZRUI_OK));
    auto closer = qScopeGuard([&conn] { zrui_close(conn); });
    for (uint32_t type = 0; type <= 1; ++type) {
        const QString &title = titles.at(int(type));
        QCOMPARE(zrui_begin_session(conn, 0), int(ZRUI_OK));
        QCOMPARE(zrui_pin_show(conn, type), int(ZRUI_OK));
        QVERIFY2(!WindowTitles::waitFor(pid, title).isEmpty(),
                 qPrintable(WindowTitles::titles(pid).join(" / ")));
        QCOMPARE(WindowTitles::titles(pid), QStringList{title});
        zrui_pin_result pending;
        QCOMPARE(zrui_pin_get(conn, &pending), int(ZRUI_E_NORESULT));
        QCOMPARE(zrui_pin_finish(conn), int(ZRUI_OK));
        QVERIFY(WindowTitles::waitForNone(pid, title));
        QCOMPARE(zrui_end_session(conn), int(ZRUI_OK));
    }
    server.stop();
}

void TestLocales::testEveryTranslationHasGlyphs_data()
{
    QTest::addColumn<QString>("tag");
    QTest::addColumn<bool>("chinese");
    QTest::newRow("en") << "en" << false;
    QTest::newRow("zh_CN") << "zh_CN" << true;
    QTest::newRow("zh_TW") << "zh_TW" << true;
}

void TestLocales::testEveryTranslationHasGlyphs()
{
    QFETCH(QString, tag);
    QFETCH(bool, chinese);
    const QString path = qEnvironmentVariable("ZRUI_TRANSLATIONS_DIR")
                         + QStringLiteral("/uiserver.%1.ts").arg(tag);
    const QMap<QString, QString> translations = tsTranslations(path);
    QVERIFY2(translations.size() >= 60, qPrintable(path));
    for (auto it = translations.cbegin(); it != translations.cend(); ++it) {
        const QString text = plainText(it.value());
        const QString missing = missingGlyphs(text, QApplication::font());
        QVERIFY2(missing.isEmpty(), qPrintable(it.key() + ": no glyph for " + missing));
        // Not vacuous: Chinese texts are Han (but for Latin key faces), English not.
        bool han = false;
        for (const QChar c : text)
            han = han || c.script() == QChar::Script_Han;
        const QString context = it.key().section(QLatin1Char('|'), 0, 0);
        const QString source = it.key().section(QLatin1Char('|'), 1);
        const bool latinKeyFace = context.endsWith(QLatin1String("SoftKeyboard"))
                                  && QStringList({"shift", "<-", "0", "a", "."}).contains(source);
        QVERIFY2(han == (chinese && !latinKeyFace), qPrintable(it.key() + ": " + text));
    }
    if (chinese) {
        const auto system = tag == QLatin1String("zh_CN") ? QFontDatabase::SimplifiedChinese
                                                          : QFontDatabase::TraditionalChinese;
        QVERIFY2(!QFontDatabase().families(system).isEmpty(), "no Chinese font installed");
    }
}

// A text widget smaller than its text, two text widgets overlapping, a
// widget outside its window, a character without a glyph.
QStringList TestLocales::layoutProblems(QWidget *window)
{
    QStringList problems;
    QList<QWidget *> shown;
    for (QWidget *w : window->findChildren<QWidget *>()) {
        if (!w->isVisibleTo(window))
            continue;
        QString text;
        if (auto *label = qobject_cast<QLabel *>(w))
            text = label->text();
        else if (auto *button = qobject_cast<QAbstractButton *>(w))
            text = button->text();
        else if (!qobject_cast<QLineEdit *>(w) && !qobject_cast<QComboBox *>(w))
            continue;
        shown << w;
        const QString name = w->objectName() + QStringLiteral(" \"") + text + QLatin1Char('"');
        const QRect inWindow(w->mapTo(window, QPoint(0, 0)), w->size());
        if (!window->rect().contains(inWindow))
            problems << QString::asprintf("%s at %d,%d %s outside the window %s", qPrintable(name),
                                          inWindow.x(), inWindow.y(), qPrintable(str(w->size())),
                                          qPrintable(str(window->size())));
        if (text.isEmpty())
            continue;
        const QString missing = missingGlyphs(plainText(text), w->font());
        if (!missing.isEmpty())
            problems << name + QStringLiteral(": no glyph for ") + missing;
        QSize needed;
        auto *label = qobject_cast<QLabel *>(w);
        if (label && label->wordWrap())
            needed = QSize(0, label->heightForWidth(label->width()));
        else
            needed = w->sizeHint();
        if (w->width() < needed.width() || w->height() < needed.height())
            problems << name + " is " + str(w->size()) + ", needs " + str(needed);
    }
    for (int i = 0; i < shown.size(); ++i) {
        for (int j = i + 1; j < shown.size(); ++j) {
            QWidget *a = shown.at(i);
            QWidget *b = shown.at(j);
            if (a->isAncestorOf(b) || b->isAncestorOf(a))
                continue;
            const QRect ra(a->mapTo(window, QPoint(0, 0)), a->size());
            const QRect rb(b->mapTo(window, QPoint(0, 0)), b->size());
            if (ra.intersects(rb))
                problems << QStringLiteral("%1 overlaps %2").arg(a->objectName(), b->objectName());
        }
    }
    return problems;
}

void TestLocales::testDialogTextsFit_data()
{
    QTest::addColumn<QString>("tag");
    QTest::addColumn<DialogFactory>("factory");
    // Applied once shown, as a person would: open the keyboard, or type a
    // rejected PIN ("new PIN|confirm|hint source", confirm empty: no OK).
    QTest::addColumn<QString>("action");

    const QString pictures = qEnvironmentVariable("ZRUI_TOKENSIM_DIR");
    for (const QString t : {"en", "zh_CN", "zh_TW"}) {
        for (int kb = 0; kb <= 1; ++kb) {
            for (unsigned long type = 0; type <= 5; ++type) {
                const DialogFactory pin = [kb, type](FakeUiStatus *s, float scale) -> QWidget * {
                    return new PINDialog(PINDialog::KeyBoardMode(kb), true, type, s, scale);
                };
                const QString row = t + QStringLiteral(" pin%1 kb%2").arg(type).arg(kb);
                QTest::newRow(qPrintable(row)) << t << pin << "";
                QTest::newRow(qPrintable(row + " keyboard")) << t << pin << "keyboard";
            }
        }
        const DialogFactory change = [](FakeUiStatus *s, float scale) -> QWidget * {
            return new PINDialog(PINDialog::FullKeyBoard, true, 2, s, scale);
        };
        for (const char *action :
             {"banana||Pin:Weak", "banana|banana|IDC_CUSTOM_PIN_ANNOTATION_2",
              "a1b2c3|a1b2c4|Please confirm that new USBKey password is entered identiacally!",
              "Ab1|Ab1|The password must be %1-%2 characters"})
            QTest::newRow(qPrintable(t + " change " + action)) << t << change << action;

        // The service translates its own texts (type 5) before it asks for the box.
        for (const auto &box :
             {qMakePair(0ul, QStringLiteral("Title_Warning|PIN_Locked")),
              qMakePair(1ul, QStringLiteral("Title_Warning|SPACE_FULL_Hint")),
              qMakePair(5ul, QStringLiteral("USBKey password error|There are %1 times remaining")),
              qMakePair(5ul, QStringLiteral("USBKey password error|Default PIN Is Forbidden"))}) {
            const QStringList texts = box.second.split('|');
            const unsigned long type = box.first;
            const DialogFactory f = [texts, type](FakeUiStatus *s, float scale) -> QWidget * {
                QStringList shown = texts;
                for (QString &text : shown) {
                    if (type == 5)
                        text = QCoreApplication::translate("FIFO_Service", qPrintable(text));
                    text.replace(QLatin1String("%1"), QLatin1String("3"));
                }
                return new MessageDialog(shown.at(0), shown.at(1), type, s, scale);
            };
            QTest::newRow(qPrintable(t + " message " + box.second)) << t << f << "";
        }
        const DialogFactory list = [](FakeUiStatus *s, float scale) -> QWidget * {
            return new CertListDialog(QString::fromUtf8("Signing key 2024\n签名密钥 2025\n"
                                                        "A rather long container name 2026"),
                                      s, scale);
        };
        QTest::newRow(qPrintable(t + " list")) << t << list << "";
        // Every waiting type's message, and countdowns of the three limits.
        for (unsigned long type = 0; type <= 14; ++type) {
            const QString info = type < 12 ? "0=wait.gif" : "0=wait.gif|1=30|2=120|4=9";
            const unsigned long shownType
                    = type < 12 ? type : QList<unsigned long>{0, 2, 6}[type - 12];
            const DialogFactory waiting
                    = [shownType, info, pictures](FakeUiStatus *, float scale) -> QWidget * {
                return new WaitingDialog(info, shownType, 0, pictures, scale);
            };
            QTest::newRow(qPrintable(t + " waiting" + QString::number(type))) << t << waiting << "";
        }
    }
}

void TestLocales::testDialogTextsFit()
{
    QFETCH(QString, tag);
    QFETCH(DialogFactory, factory);
    QFETCH(QString, action);

    translator.reset(new QTranslator);
    QVERIFY(translator->load(QStringLiteral(":/uiserver.%1.qm").arg(tag), QString(), QString(),
                             QString()));
    QVERIFY(QCoreApplication::installTranslator(translator.get()));
    FakeUiStatus status(6, 16);
    std::unique_ptr<QWidget> dialog(factory(&status, scale));
    dialog->show();
    QVERIFY(QTest::qWaitForWindowExposed(dialog.get()));

    if (action == QLatin1String("keyboard")) {
        // The first visible keyboard button opens the panel.
        auto *button = dialog->findChild<QToolButton *>("toolButtonold_softkeyboard");
        if (!button || !button->isVisible())
            button = dialog->findChild<QToolButton *>("toolButtonnew_softkeyboard");
        QVERIFY(button && button->isVisible());
        button->click();
        QTRY_VERIFY(
                dialog->findChild<QWidget *>(QStringLiteral("widget_softkeyboard"))->isVisible());
    } else if (!action.isEmpty()) {
        const QStringList parts = action.split('|');
        auto *newPin = dialog->findChild<QLineEdit *>(QStringLiteral("lineEdit_newPin"));
        auto *confirm = dialog->findChild<QLineEdit *>(QStringLiteral("lineEdit_confirmPin"));
        auto *comments = dialog->findChild<QLabel *>(QStringLiteral("label_comments"));
        auto *oldPin = dialog->findChild<QLineEdit *>(QStringLiteral("lineEdit_oldPin"));
        QVERIFY(oldPin && newPin && confirm && comments);
        oldPin->setText(QStringLiteral("abc123"));
        newPin->setText(parts.at(0));
        if (!parts.at(1).isEmpty()) {
            confirm->setText(parts.at(1));
            dialog->findChild<QPushButton *>(QStringLiteral("pushButton_OK"))->click();
        }
        // The translated hint, so a missing translation shows here too.
        QString hint = QCoreApplication::translate("PINDialog", qPrintable(parts.at(2)));
        if (hint.contains(QLatin1String("%2")))
            hint = hint.arg(6).arg(16);
        QCOMPARE(comments->text(), hint);
        if (tag != QLatin1String("en"))
            QVERIFY(hint != parts.at(2));
    }
    QCoreApplication::processEvents();
    QCoreApplication::sendPostedEvents(nullptr, QEvent::LayoutRequest);
    QCoreApplication::processEvents();

    const QStringList problems = layoutProblems(dialog.get());
    if (!problems.isEmpty()) {
        const QString shot = qEnvironmentVariable("ZRUI_TEST_OUTPUT") + "/TestLocales-"
                             + QString::fromLatin1(QTest::currentDataTag()).replace(' ', '-')
                             + ".png";
        QDir().mkpath(QFileInfo(shot).path());
        dialog->grab().save(shot);
        QFAIL(qPrintable(problems.join("\n  ") + "\n  see " + shot));
    }
}

QTEST_MAIN(TestLocales)
#include "TestLocales.moc"
