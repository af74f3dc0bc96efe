// Translations in a real X server with real fonts.
//
// 1. The real executable, started under each locale, loads the translation
//    the locale asks for (zh_HK takes the Traditional Chinese file, French
//    falls back to English), logs both "trans file=" lines, and shows its
//    PIN dialogs with the translated titles.
// 2. Every translated text of the three translation files has a glyph in the
//    installed fonts (no boxes for Chinese).
// 3. Each dialog built in this process with each translation installed, at
//    the program's own scale (logical DPI / 96, so 1.5 under an X server
//    started with -dpi 144): no text is cut off, no two text widgets
//    overlap, no widget sticks out of its window.
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

// Visible text of a widget, rich text reduced to its plain characters.
QString plainText(const QString &text)
{
    if (!Qt::mightBeRichText(text))
        return text;
    QTextDocument doc;
    doc.setHtml(text);
    return doc.toPlainText();
}

// Characters of text that no installed font can draw with `font` and its
// fallbacks: laid out alone, they come out as glyph index 0 (.notdef, drawn
// as a box).
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
    bool installLanguage(const QString &tag);
    QStringList layoutProblems(QWidget *window);

    float scale = 1.0f;
    std::unique_ptr<QTranslator> translator;
};

void TestLocales::initTestCase()
{
    if (!XDoTool::available())
        QSKIP("needs xdotool and an X display (run under xvfb-run)");
    // The program's own formula.
    scale = float(QApplication::desktop()->logicalDpiX()) / 96.0f;
    qInfo("logical DPI %d: scale %.2f", QApplication::desktop()->logicalDpiX(), double(scale));
    const QString expected = qEnvironmentVariable("ZRUI_EXPECT_SCALE");
    if (!expected.isEmpty())
        QCOMPARE(scale, expected.toFloat());
    const QString rcc = qEnvironmentVariable("ZRUI_BIN_DIR") + QStringLiteral("/resources.rcc");
    // At the root, as the program registers it (icon and translations).
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
    QTest::addColumn<QString>("verifyTitle");
    QTest::addColumn<QString>("adminTitle");

    const QString en = QStringLiteral(":/uiserver.en.qm");
    const QString cn = QStringLiteral(":/uiserver.zh_CN.qm");
    const QString tw = QStringLiteral(":/uiserver.zh_TW.qm");
    // Type 0's English title is its source text; type 1's English differs
    // from its source, so it proves that the English file is loaded.
    QTest::newRow("zh_CN") << "zh_CN" << cn << cn << QString::fromUtf8("验证USBKey密码")
                           << QString::fromUtf8("验证USBKey管理员密码");
    QTest::newRow("zh_HK") << "zh_HK" << tw << tw << QString::fromUtf8("驗證USBKey密碼")
                           << QString::fromUtf8("驗證USBKey管理員密碼");
    QTest::newRow("zh_TW") << "zh_TW" << tw << tw << QString::fromUtf8("驗證USBKey密碼")
                           << QString::fromUtf8("驗證USBKey管理員密碼");
    QTest::newRow("en_US") << "en_US" << en << en << "Verify USBKey password"
                           << "Verify USBKey administrator password";
    QTest::newRow("fr_FR") << "fr_FR"
                           << ":/uiserver.fr.qm" << en << "Verify USBKey password"
                           << "Verify USBKey administrator password";
}

void TestLocales::testServerShowsTranslatedPinTitles()
{
    QFETCH(QString, locale);
    QFETCH(QString, firstFile);
    QFETCH(QString, loadedFile);
    QFETCH(QString, verifyTitle);
    QFETCH(QString, adminTitle);

    QVERIFY(LogFile::clear());
    ServerLauncher server;
    server.setPlatform(QString()); // the X server of xvfb-run
    server.setEnv(QStringLiteral("LANG"), locale + QStringLiteral(".UTF-8"));
    server.setEnv(QStringLiteral("LC_ALL"), locale + QStringLiteral(".UTF-8"));
    QVERIFY2(server.start(), qPrintable(server.errorString()));
    QVERIFY2(server.waitForListening(), server.output().constData());
    const qint64 pid = server.process().processId();

    // The start-up lines of this process: the locale, then the file asked
    // for and the file loaded.
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
    QCOMPARE(zrui_begin_session(conn, 0), int(ZRUI_OK));
    QCOMPARE(zrui_pin_show(conn, 0), int(ZRUI_OK));
    const QString window = WindowTitles::waitFor(pid, verifyTitle);
    QVERIFY2(!window.isEmpty(), qPrintable(WindowTitles::titles(pid).join(" / ")));
    QCOMPARE(WindowTitles::titles(pid), QStringList{verifyTitle});

    zrui_pin_result pending;
    QCOMPARE(zrui_pin_get(conn, &pending), int(ZRUI_E_NORESULT));
    QCOMPARE(zrui_pin_finish(conn), int(ZRUI_OK));
    QVERIFY(WindowTitles::waitForNone(pid, verifyTitle));
    QCOMPARE(zrui_end_session(conn), int(ZRUI_OK));
    QCOMPARE(zrui_begin_session(conn, 0), int(ZRUI_OK));
    QCOMPARE(zrui_pin_show(conn, 1), int(ZRUI_OK));
    QVERIFY2(!WindowTitles::waitFor(pid, adminTitle).isEmpty(),
             qPrintable(WindowTitles::titles(pid).join(" / ")));
    QCOMPARE(WindowTitles::titles(pid), QStringList{adminTitle});

    closer.dismiss();
    zrui_close(conn);
    // Closing the connection hides the dialog.
    QVERIFY(WindowTitles::waitForNone(pid, adminTitle));
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
        // Not vacuous: the Chinese files are drawn with Han characters (but
        // for the key faces that stay Latin), the English one without.
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

bool TestLocales::installLanguage(const QString &tag)
{
    translator.reset(new QTranslator);
    if (!translator->load(QStringLiteral(":/uiserver.%1.qm").arg(tag), QString(), QString(),
                          QString()))
        return false;
    return QCoreApplication::installTranslator(translator.get());
}

/**
 * What a person would see as wrong in a shown window: a text widget smaller
 * than its text needs, two text widgets on top of each other, a widget
 * outside its window, a character without a glyph.
 */
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
            problems << QStringLiteral("%1 at %2,%3 %4x%5 outside the window %6x%7")
                                .arg(name)
                                .arg(inWindow.x())
                                .arg(inWindow.y())
                                .arg(inWindow.width())
                                .arg(inWindow.height())
                                .arg(window->width())
                                .arg(window->height());
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
            problems << QStringLiteral("%1 is %2x%3, needs %4x%5")
                                .arg(name)
                                .arg(w->width())
                                .arg(w->height())
                                .arg(needed.width())
                                .arg(needed.height());
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
    // Applied after the window is shown, as a person would (opening the
    // on-screen keyboard, typing a PIN the dialog rejects).
    QTest::addColumn<QString>("action");

    for (const char *tag : {"en", "zh_CN", "zh_TW"}) {
        const QString t = QString::fromLatin1(tag);
        for (int kb = 0; kb <= 1; ++kb) {
            for (unsigned long type = 0; type <= 5; ++type) {
                const DialogFactory pin = [kb, type](FakeUiStatus *s, float scale) -> QWidget * {
                    return new PINDialog(PINDialog::KeyBoardMode(kb), true, type, s, scale);
                };
                const QString row
                        = QStringLiteral("%1 pin%2 %3")
                                  .arg(t)
                                  .arg(type)
                                  .arg(kb ? QStringLiteral("full") : QStringLiteral("simple"));
                QTest::newRow(qPrintable(row)) << t << pin << "";
                QTest::newRow(qPrintable(row + " keyboard")) << t << pin << "keyboard";
            }
        }
        const DialogFactory change = [](FakeUiStatus *s, float scale) -> QWidget * {
            return new PINDialog(PINDialog::FullKeyBoard, true, 2, s, scale);
        };
        for (const char *action : {"weak-typing", "too-weak", "mismatch", "too-short"})
            QTest::newRow(qPrintable(t + " change " + action)) << t << change << action;

        const struct
        {
            const char *name;
            const char *title;
            const char *message;
            unsigned long type;
        } boxes[] = {{"locked", "Title_Warning", "PIN_Locked", 0},
                     {"full", "Title_Warning", "SPACE_FULL_Hint", 1},
                     {"retry", "USBKey password error", "There are %1 times remaining", 5},
                     {"default", "USBKey password error", "Default PIN Is Forbidden", 5}};
        for (const auto &box : boxes) {
            const QString title = QString::fromLatin1(box.title);
            const QString message = QString::fromLatin1(box.message);
            const unsigned long type = box.type;
            // The service translates its own texts before it asks for the box.
            const DialogFactory f
                    = [title, message, type](FakeUiStatus *s, float scale) -> QWidget * {
                const bool service = type == 5;
                const QString shownTitle
                        = service ? QCoreApplication::translate("FIFO_Service", qPrintable(title))
                                  : title;
                QString shownText
                        = service ? QCoreApplication::translate("FIFO_Service", qPrintable(message))
                                  : message;
                if (shownText.contains(QLatin1String("%1")))
                    shownText = shownText.arg(3);
                return new MessageDialog(shownTitle, shownText, type, s, scale);
            };
            QTest::newRow(qPrintable(t + " message " + box.name)) << t << f << "";
        }

        const DialogFactory list = [](FakeUiStatus *s, float scale) -> QWidget * {
            return new CertListDialog(QString::fromUtf8("Signing key 2024\n签名密钥 2025\n"
                                                        "A rather long container name 2026"),
                                      s, scale);
        };
        QTest::newRow(qPrintable(t + " list")) << t << list << "";

        const QString pictures = qEnvironmentVariable("ZRUI_TOKENSIM_DIR");
        for (unsigned long type = 0; type <= 11; ++type) {
            const DialogFactory waiting
                    = [type, pictures](FakeUiStatus *, float scale) -> QWidget * {
                return new WaitingDialog(QStringLiteral("0=wait.gif"), type, 0, pictures, scale);
            };
            QTest::newRow(qPrintable(t + " waiting" + QString::number(type))) << t << waiting << "";
        }
        for (unsigned long type : {0ul, 2ul, 6ul}) {
            const DialogFactory countdown
                    = [type, pictures](FakeUiStatus *, float scale) -> QWidget * {
                return new WaitingDialog(QStringLiteral("0=wait.gif|1=30|2=120|4=9"), type, 0,
                                         pictures, scale);
            };
            QTest::newRow(qPrintable(t + " countdown" + QString::number(type)))
                    << t << countdown << "";
        }
    }
}

void TestLocales::testDialogTextsFit()
{
    QFETCH(QString, tag);
    QFETCH(DialogFactory, factory);
    QFETCH(QString, action);

    QVERIFY(installLanguage(tag));
    FakeUiStatus status(6, 16);
    std::unique_ptr<QWidget> dialog(factory(&status, scale));
    dialog->show();
    QVERIFY(QTest::qWaitForWindowExposed(dialog.get()));

    if (action == QLatin1String("keyboard")) {
        // The first visible keyboard button opens the panel.
        QToolButton *button = nullptr;
        for (const char *name : {"toolButtonold_softkeyboard", "toolButtonnew_softkeyboard"}) {
            auto *b = dialog->findChild<QToolButton *>(QLatin1String(name));
            if (!button && b && b->isVisible())
                button = b;
        }
        QVERIFY(button);
        button->click();
        QTRY_VERIFY(
                dialog->findChild<QWidget *>(QStringLiteral("widget_softkeyboard"))->isVisible());
    } else if (!action.isEmpty()) {
        auto *oldPin = dialog->findChild<QLineEdit *>(QStringLiteral("lineEdit_oldPin"));
        auto *newPin = dialog->findChild<QLineEdit *>(QStringLiteral("lineEdit_newPin"));
        auto *confirm = dialog->findChild<QLineEdit *>(QStringLiteral("lineEdit_confirmPin"));
        auto *ok = dialog->findChild<QPushButton *>(QStringLiteral("pushButton_OK"));
        auto *comments = dialog->findChild<QLabel *>(QStringLiteral("label_comments"));
        QVERIFY(oldPin && newPin && confirm && ok && comments);
        const char *expected = nullptr;
        oldPin->setText(QStringLiteral("abc123"));
        if (action == QLatin1String("weak-typing")) {
            newPin->setText(QStringLiteral("banana"));
            expected = "Pin:Weak";
        } else if (action == QLatin1String("too-weak")) {
            newPin->setText(QStringLiteral("banana"));
            confirm->setText(QStringLiteral("banana"));
            ok->click();
            expected = "IDC_CUSTOM_PIN_ANNOTATION_2";
        } else if (action == QLatin1String("mismatch")) {
            newPin->setText(QStringLiteral("a1b2c3"));
            confirm->setText(QStringLiteral("a1b2c4"));
            ok->click();
            expected = "Please confirm that new USBKey password is entered identiacally!";
        } else {
            newPin->setText(QStringLiteral("Ab1"));
            ok->click();
            expected = "The password must be %1-%2 characters";
        }
        // The translated hint, so a missing translation shows here too.
        QString hint = QCoreApplication::translate("PINDialog", expected);
        if (hint.contains(QLatin1String("%2")))
            hint = hint.arg(6).arg(16);
        QCOMPARE(comments->text(), hint);
        if (tag != QLatin1String("en"))
            QVERIFY(hint != QLatin1String(expected));
    }
    // Let the layouts settle after the change.
    QCoreApplication::processEvents();
    QCoreApplication::sendPostedEvents(nullptr, QEvent::LayoutRequest);
    QCoreApplication::processEvents();

    const QStringList problems = layoutProblems(dialog.get());
    if (!problems.isEmpty()) {
        const QString out = qEnvironmentVariable("ZRUI_TEST_OUTPUT");
        QDir().mkpath(out);
        const QString shot = out + QStringLiteral("/TestLocales-")
                             + QString::fromLatin1(QTest::currentDataTag()).replace(' ', '-')
                             + QStringLiteral(".png");
        dialog->grab().save(shot);
        QFAIL(qPrintable(problems.join(QStringLiteral("\n  ")) + QStringLiteral("\n  see ")
                         + shot));
    }
}

QTEST_MAIN(TestLocales)
#include "TestLocales.moc"
