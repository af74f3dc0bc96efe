// Translations in a real X server: the executable per locale, glyphs, and every dialog
// per language at the program's scale without clipped or overlapping widgets.
#include "WindowTitles.h"
#include "XDoTool.h"

#include "ui/CertListDialog.h"
#include "FakeUiStatus.h"
#include "LogFile.h"
#include "ui/MessageDialog.h"
#include "ui/PINDialog.h"
#include "ServerLauncher.h"
#include "ui/WaitingDialog.h"
#include "client/zrui_client.h"

#include <QApplication>
#include <QComboBox>
#include <QDesktopWidget>
#include <QFile>
#include <QFontDatabase>
#include <QLabel>
#include <QLineEdit>
#include <QPushButton>
#include <QResource>
#include <QScreen>
#include <QTextDocument>
#include <QTextLayout>
#include <QToolButton>
#include <QTranslator>
#include <QXmlStreamReader>
#include <QtTest>

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

QString str(const QSize &s) { return QStringLiteral("%1x%2").arg(s.width()).arg(s.height()); }

// A text widget smaller than its text, two text widgets overlapping, a
// widget outside its window, a character without a glyph.
QStringList layoutProblems(QWidget *window)
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
            problems << name + " outside the window " + str(window->size());
        if (text.isEmpty())
            continue;
        const QString missing = missingGlyphs(plainText(text), w->font());
        if (!missing.isEmpty())
            problems << name + QStringLiteral(": no glyph for ") + missing;
        auto *label = qobject_cast<QLabel *>(w);
        const QSize needed = label && label->wordWrap()
                                     ? QSize(0, label->heightForWidth(label->width()))
                                     : w->sizeHint();
        if (w->width() < needed.width() || w->height() < needed.height())
            problems << name + " is " + str(w->size()) + ", needs " + str(needed);
    }
    for (int i = 0; i < shown.size(); ++i) {
        for (int j = i + 1; j < shown.size(); ++j) {
            QWidget *a = shown.at(i);
            QWidget *b = shown.at(j);
            if (!a->isAncestorOf(b) && !b->isAncestorOf(a)
                && QRect(a->mapTo(window, QPoint(0, 0)), a->size())
                           .intersects(QRect(b->mapTo(window, QPoint(0, 0)), b->size())))
                problems << QStringLiteral("%1 overlaps %2").arg(a->objectName(), b->objectName());
        }
    }
    return problems;
}

} // namespace

class TestLocales : public QObject
{
    Q_OBJECT
    float scale = 1.0f;
    std::unique_ptr<QTranslator> translator;

private slots:
    void initTestCase()
    {
        if (!XDoTool::available())
            QSKIP("needs xdotool and an X display (run under xvfb-run)");
        scale = float(QApplication::desktop()->logicalDpiX()) / 96.0f;
        const QString expected = qEnvironmentVariable("ZRUI_EXPECT_SCALE");
        if (!expected.isEmpty())
            QCOMPARE(scale, expected.toFloat());
        const QString rcc = qEnvironmentVariable("ZRUI_BIN_DIR") + QStringLiteral("/resources.rcc");
        QVERIFY2(QResource::registerResource(rcc), qPrintable(rcc));
    }

    void cleanup()
    {
        if (translator)
            QCoreApplication::removeTranslator(translator.get());
        translator.reset();
    }

    void testServerShowsTranslatedPinTitles_data()
    {
        QTest::addColumn<QString>("locale");
        QTest::addColumn<QString>("firstFile");
        QTest::addColumn<QString>("loadedFile");
        // PIN dialog types 0 and 1; type 1's English differs from its source text.
        QTest::addColumn<QStringList>("titles");

        const QStringList cn{QString::fromUtf8("验证USBKey密码"),
                             QString::fromUtf8("验证USBKey管理员密码")};
        const QStringList tw{QString::fromUtf8("驗證USBKey密碼"),
                             QString::fromUtf8("驗證USBKey管理員密碼")};
        const QStringList en{"Verify USBKey password", "Verify USBKey administrator password"};
        QTest::newRow("zh_CN") << "zh_CN"
                               << "zh_CN"
                               << "zh_CN" << cn;
        QTest::newRow("zh_HK") << "zh_HK"
                               << "zh_TW"
                               << "zh_TW" << tw;
        QTest::newRow("zh_TW") << "zh_TW"
                               << "zh_TW"
                               << "zh_TW" << tw;
        QTest::newRow("en_US") << "en_US"
                               << "en"
                               << "en" << en;
        QTest::newRow("fr_FR") << "fr_FR"
                               << "fr"
                               << "en" << en;
    }

    void testServerShowsTranslatedPinTitles()
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
        QCOMPARE(messages.mid(messages.indexOf(localeLine) + 1, 2),
                 QStringList({"trans file= \":/uiserver." + firstFile + ".qm\"",
                              "trans file= \":/uiserver." + loadedFile + ".qm\""}));
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

    void testEveryTranslationHasGlyphs_data()
    {
        QTest::addColumn<QString>("tag");
        for (const char *tag : {"en", "zh_CN", "zh_TW"})
            QTest::newRow(tag) << QString(tag);
    }

    void testEveryTranslationHasGlyphs()
    {
        QFETCH(QString, tag);
        const bool chinese = tag != QLatin1String("en");
        QFile ts(qEnvironmentVariable("ZRUI_TRANSLATIONS_DIR") + "/uiserver." + tag + ".ts");
        QVERIFY2(ts.open(QIODevice::ReadOnly), qPrintable(ts.fileName()));
        QXmlStreamReader xml(&ts);
        QString context, source;
        int count = 0;
        while (!xml.atEnd()) {
            if (xml.readNext() != QXmlStreamReader::StartElement)
                continue;
            if (xml.name() == QLatin1String("name"))
                context = xml.readElementText();
            else if (xml.name() == QLatin1String("source"))
                source = xml.readElementText();
            if (xml.name() != QLatin1String("translation"))
                continue;
            const QString key = context + QLatin1Char('|') + source;
            const QString text = plainText(xml.readElementText());
            ++count;
            const QString missing = missingGlyphs(text, QApplication::font());
            QVERIFY2(missing.isEmpty(), qPrintable(key + ": no glyph for " + missing));
            // Not vacuous: Chinese texts are Han (but for Latin key faces), English not.
            bool han = false;
            for (const QChar c : text)
                han = han || c.script() == QChar::Script_Han;
            const bool latinKeyFace
                    = context.endsWith(QLatin1String("SoftKeyboard"))
                      && QStringList({"shift", "<-", "0", "a", "."}).contains(source);
            QVERIFY2(han == (chinese && !latinKeyFace), qPrintable(key + ": " + text));
        }
        QVERIFY2(count >= 60, qPrintable(ts.fileName()));
        if (chinese) {
            const auto system = tag == QLatin1String("zh_CN") ? QFontDatabase::SimplifiedChinese
                                                              : QFontDatabase::TraditionalChinese;
            QVERIFY2(!QFontDatabase().families(system).isEmpty(), "no Chinese font installed");
        }
    }

    void testDialogTextsFit_data()
    {
        QTest::addColumn<QString>("tag");
        QTest::addColumn<QString>("kind"); // pin, message, list or waiting
        QTest::addColumn<int>("type");
        // pin: "keyboard" opens it, "new PIN|confirm|hint source" types a rejected PIN
        // (confirm empty: no OK); message: "title|text"; waiting: the info.
        QTest::addColumn<QString>("arg");
        const auto row = [](const QString &t, const char *kind, int type, const QString &arg) {
            QTest::addRow("%s %s%d %s", qPrintable(t), kind, type, qPrintable(arg))
                    << t << kind << type << arg;
        };
        for (const QString t : {"en", "zh_CN", "zh_TW"}) {
            // Verify-like, change-like and set dialogs, simple (+0) and full (+10) keyboard.
            for (int type : {0, 2, 5, 10, 12, 15}) {
                row(t, "pin", type, "");
                row(t, "pin", type, "keyboard");
            }
            for (const char *action :
                 {"banana||Pin:Weak", "banana|banana|IDC_CUSTOM_PIN_ANNOTATION_2",
                  "a1b2c3|a1b2c4|Please confirm that new USBKey password is entered identiacally!",
                  "Ab1|Ab1|The password must be %1-%2 characters"})
                row(t, "pin", 12, action);
            // The service translates its own texts (type 5) before it asks for the box.
            row(t, "message", 0, "Title_Warning|PIN_Locked");
            row(t, "message", 1, "Title_Warning|SPACE_FULL_Hint");
            row(t, "message", 5, "USBKey password error|There are %1 times remaining");
            row(t, "message", 5, "USBKey password error|Default PIN Is Forbidden");
            row(t, "list", 0, "");
            // Each distinct waiting message, and countdowns of the three limits.
            for (int type : {0, 1, 2, 5, 11})
                row(t, "waiting", type, "0=wait.gif");
            for (int type : {0, 2, 6})
                row(t, "waiting", type, "0=wait.gif|1=30|2=120|4=9");
        }
    }

    void testDialogTextsFit()
    {
        QFETCH(QString, tag);
        QFETCH(QString, kind);
        QFETCH(int, type);
        QFETCH(QString, arg);

        translator.reset(new QTranslator);
        QVERIFY(translator->load(":/uiserver." + tag + ".qm", QString(), QString(), QString()));
        QVERIFY(QCoreApplication::installTranslator(translator.get()));
        FakeUiStatus status(6, 16);
        std::unique_ptr<QWidget> dialog;
        if (kind == QLatin1String("pin")) {
            const auto keyboard = PINDialog::KeyBoardMode(type / 10);
            dialog.reset(new PINDialog(keyboard, true, type % 10, &status, scale));
        } else if (kind == QLatin1String("message")) {
            QStringList texts = arg.split('|');
            for (QString &text : texts) {
                if (type == 5)
                    text = QCoreApplication::translate("FIFO_Service", qPrintable(text));
                text.replace(QLatin1String("%1"), QLatin1String("3"));
            }
            dialog.reset(new MessageDialog(texts.at(0), texts.at(1), type, &status, scale));
        } else if (kind == QLatin1String("list")) {
            dialog.reset(new CertListDialog(
                    QString::fromUtf8(
                            "Signing key 2024\n签名密钥 2025\nA rather long container name 2026"),
                    &status, scale));
        } else {
            dialog.reset(new WaitingDialog(arg, type, 0, qEnvironmentVariable("ZRUI_TOKENSIM_DIR"),
                                           scale));
        }
        dialog->show();
        QVERIFY(QTest::qWaitForWindowExposed(dialog.get()));
        if (kind == QLatin1String("pin") && arg == QLatin1String("keyboard")) {
            // The first visible keyboard button opens the panel.
            auto *button = dialog->findChild<QToolButton *>("toolButtonold_softkeyboard");
            if (!button || !button->isVisible())
                button = dialog->findChild<QToolButton *>("toolButtonnew_softkeyboard");
            QVERIFY(button && button->isVisible());
            button->click();
            QTRY_VERIFY(dialog->findChild<QWidget *>("widget_softkeyboard")->isVisible());
        } else if (kind == QLatin1String("pin") && !arg.isEmpty()) {
            const QStringList parts = arg.split('|');
            auto *oldPin = dialog->findChild<QLineEdit *>("lineEdit_oldPin");
            auto *newPin = dialog->findChild<QLineEdit *>("lineEdit_newPin");
            auto *confirm = dialog->findChild<QLineEdit *>("lineEdit_confirmPin");
            auto *comments = dialog->findChild<QLabel *>("label_comments");
            QVERIFY(oldPin && newPin && confirm && comments);
            oldPin->setText(QStringLiteral("abc123"));
            newPin->setText(parts.at(0));
            if (!parts.at(1).isEmpty()) {
                confirm->setText(parts.at(1));
                dialog->findChild<QPushButton *>("pushButton_OK")->click();
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
        QVERIFY2(problems.isEmpty(), qPrintable(problems.join("\n  ")));
        // Sizes never double-scale: the whole window stays on the screen.
        const QRect screen = dialog->screen()->availableGeometry();
        QVERIFY2(screen.contains(dialog->frameGeometry()),
                 qPrintable(str(dialog->frameGeometry().size()) + " at "
                            + str(QSize(dialog->x(), dialog->y())) + " on " + str(screen.size())));
    }
};

QTEST_MAIN(TestLocales)
#include "TestLocales.moc"
