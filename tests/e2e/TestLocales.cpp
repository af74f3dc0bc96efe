// Translations in a real X server: the executable per locale, and every dialog
// per language at the program's scale, fitting the screen, its texts unclipped.
#include "XDoTool.h"

#include "FakeUiStatus.h"
#include "LogFile.h"
#include "ServerLauncher.h"
#include "client/zrui_client.h"
#include "ui/CertListDialog.h"
#include "ui/MessageDialog.h"
#include "ui/PINDialog.h"
#include "ui/WaitingDialog.h"

#include <QApplication>
#include <QDesktopWidget>
#include <QLabel>
#include <QLineEdit>
#include <QPushButton>
#include <QResource>
#include <QScreen>
#include <QTextDocument>
#include <QTextLayout>
#include <QToolButton>
#include <QTranslator>
#include <QtTest>

namespace {

QString plainText(const QString &text)
{
    QTextDocument doc;
    doc.setHtml(text);
    return Qt::mightBeRichText(text) ? doc.toPlainText() : text;
}

// Characters no installed font draws: laid out alone, they give glyph 0.
QString missingGlyphs(const QString &text, const QFont &font)
{
    QString missing;
    for (const uint ucs4 : text.toUcs4()) {
        QTextLayout layout(QString::fromUcs4(&ucs4, 1), font);
        layout.beginLayout();
        layout.createLine();
        layout.endLayout();
        bool drawn = ucs4 <= ' ';
        for (const QGlyphRun &run : layout.glyphRuns())
            drawn = drawn || !run.glyphIndexes().contains(0);
        if (!drawn)
            missing += layout.text();
    }
    return missing;
}

// Text widgets outside the window, smaller than their text, overlapping, or
// with a character no font draws.
QStringList layoutProblems(QWidget *window)
{
    QStringList problems;
    QList<QWidget *> shown;
    for (QWidget *w : window->findChildren<QWidget *>()) {
        auto *label = qobject_cast<QLabel *>(w);
        auto *button = qobject_cast<QAbstractButton *>(w);
        // A line edit sizes its own icon buttons (the show/hide toggle).
        if (!w->isVisibleTo(window) || qobject_cast<QLineEdit *>(w->parentWidget())
            || !(label || button || w->inherits("QLineEdit") || w->inherits("QComboBox")))
            continue;
        const QString text = plainText(label ? label->text() : button ? button->text() : QString());
        const QString name = w->objectName() + " \"" + text + "\"";
        const QRect rect(w->mapTo(window, QPoint(0, 0)), w->size());
        for (QWidget *other : shown) {
            if (!other->isAncestorOf(w)
                && rect.intersects(QRect(other->mapTo(window, {}), other->size())))
                problems << name + " overlaps " + other->objectName();
        }
        shown << w;
        const QSize needed = label && label->wordWrap()
                                     ? QSize(0, label->heightForWidth(w->width()))
                                     : w->sizeHint();
        if (!window->rect().contains(rect)
            || (!text.isEmpty() && (w->width() < needed.width() || w->height() < needed.height())))
            problems << name
                                + QStringLiteral(" at %1,%2 %3x%4")
                                          .arg(rect.x())
                                          .arg(rect.y())
                                          .arg(w->width())
                                          .arg(w->height());
        if (!missingGlyphs(text, w->font()).isEmpty())
            problems << name + " has no glyph for " + missingGlyphs(text, w->font());
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
        QCOMPARE(scale, qEnvironmentVariable("ZRUI_EXPECT_SCALE").toFloat());
        QVERIFY(QResource::registerResource(qEnvironmentVariable("ZRUI_BIN_DIR")
                                            + "/resources.rcc"));
    }
    void cleanup()
    {
        if (translator)
            QCoreApplication::removeTranslator(translator.get());
        translator.reset();
    }

    // The locale picks the translation file, falling back to English; the
    // administrator title differs from its source text in every language.
    void testServerShowsTranslatedPinTitle_data()
    {
        QTest::addColumn<QString>("locale");
        QTest::addColumn<QString>("firstFile");
        QTest::addColumn<QString>("loadedFile");
        QTest::addColumn<QString>("title");
        QTest::newRow("zh_CN") << "zh_CN"
                               << "zh_CN"
                               << "zh_CN"
                               << "验证USBKey管理员密码";
        QTest::newRow("zh_HK") << "zh_HK"
                               << "zh_TW"
                               << "zh_TW"
                               << "驗證USBKey管理員密碼";
        QTest::newRow("zh_TW") << "zh_TW"
                               << "zh_TW"
                               << "zh_TW"
                               << "驗證USBKey管理員密碼";
        QTest::newRow("en_US") << "en_US"
                               << "en"
                               << "en"
                               << "Verify USBKey administrator password";
        QTest::newRow("fr_FR") << "fr_FR"
                               << "fr"
                               << "en"
                               << "Verify USBKey administrator password";
    }
    void testServerShowsTranslatedPinTitle()
    {
        QFETCH(QString, locale);
        QFETCH(QString, firstFile);
        QFETCH(QString, loadedFile);
        QFETCH(QString, title);
        QVERIFY(LogFile::clear());
        ServerLauncher server;
        server.setPlatform(QString()); // the X server of xvfb-run
        server.setEnv("LANG", locale + ".UTF-8");
        server.setEnv("LC_ALL", locale + ".UTF-8");
        QVERIFY2(server.start() && server.waitForListening(), server.output().constData());
        const QString localeLine = QStringLiteral("locale= \"%1\"").arg(locale);
        QVERIFY(LogFile::waitForLine(localeLine));
        const QStringList messages = LogFile::messages();
        QCOMPARE(messages.mid(messages.indexOf(localeLine), 3),
                 QStringList({localeLine, "trans file= \":/uiserver." + firstFile + ".qm\"",
                              "trans file= \":/uiserver." + loadedFile + ".qm\""}));
        zrui_conn *conn = nullptr;
        QCOMPARE(zrui_open(server.appName().toUtf8().constData(), &conn), int(ZRUI_OK));
        auto closer = qScopeGuard([&conn] { zrui_close(conn); });
        zrui_set_timeout(conn, 10000); // a stalled server fails fast
        QCOMPARE(zrui_begin_session(conn, 0), int(ZRUI_OK));
        QCOMPARE(zrui_pin_show(conn, 1), int(ZRUI_OK));
        const qint64 pid = server.process().processId();
        QVERIFY2(!XDoTool::waitForWindow(title, 15000, pid).isEmpty(),
                 qPrintable(XDoTool::titles(pid).join(" / ")));
    }

    void testDialogTextsFit_data()
    {
        QTest::addColumn<QString>("tag");
        QTest::addColumn<QString>("kind");
        QTest::addColumn<int>("type");
        // pin: "keyboard" opens it, or "new|confirm|hint" types a rejected PIN
        // (no confirm: no OK); message: "title|text"; waiting: the info.
        QTest::addColumn<QString>("arg");
        const auto row = [](const QString &t, const char *kind, int type, const QString &arg) {
            QTest::addRow("%s %s%d %s", qPrintable(t), kind, type, qPrintable(arg))
                    << t << kind << type << arg;
        };
        for (const QString t : {"en", "zh_CN", "zh_TW"}) {
            // Verify, change and set dialogs, simple (+0) and full (+10) keyboard.
            for (int type : {0, 2, 5, 10, 12, 15}) {
                row(t, "pin", type, "");
                row(t, "pin", type, "keyboard");
            }
            for (const char *hint :
                 {"banana||Pin:Weak", "banana|banana|IDC_CUSTOM_PIN_ANNOTATION_2",
                  "a1b2c3|a1b2c4|Please confirm that new USBKey password is entered identiacally!",
                  "Ab1|Ab1|The password must be %1-%2 characters"})
                row(t, "pin", 12, hint);
            // The service translates the texts of its own boxes (type 5).
            row(t, "message", 0, "Title_Warning|PIN_Locked");
            row(t, "message", 1, "Title_Warning|SPACE_FULL_Hint");
            row(t, "message", 5, "USBKey password error|There are %1 times remaining");
            row(t, "message", 5, "USBKey password error|Default PIN Is Forbidden");
            row(t, "list", 0, "");
            for (int type : {0, 1, 2, 5, 11})
                row(t, "waiting", type, "0=wait.gif");
            for (int type : {0, 2, 6}) // countdowns of the three limits
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
        QVERIFY(translator->load(":/uiserver." + tag + ".qm")
                && QCoreApplication::installTranslator(translator.get()));
        FakeUiStatus status(6, 16);
        std::unique_ptr<QWidget> dialog;
        QStringList parts = arg.split('|');
        if (kind == "pin") {
            dialog.reset(new PINDialog(PINDialog::KeyBoardMode(type / 10), true, type % 10, &status,
                                       scale));
        } else if (kind == "message") {
            for (QString &text : parts) {
                text = type == 5 ? QCoreApplication::translate("FIFO_Service", qPrintable(text))
                                 : text;
                text.replace("%1", "3");
            }
            dialog.reset(new MessageDialog(parts.at(0), parts.at(1), type, &status, scale));
        } else if (kind == "list") {
            dialog.reset(new CertListDialog(
                    "Signing key 2024\n签名密钥 2025\nA rather long container name 2026", &status,
                    scale));
        } else {
            dialog.reset(new WaitingDialog(arg, type, 0, qEnvironmentVariable("ZRUI_TOKENSIM_DIR"),
                                           scale));
        }
        dialog->show();
        QVERIFY(QTest::qWaitForWindowExposed(dialog.get()));
        if (arg == "keyboard") { // the first visible keyboard button opens the panel
            auto *button = dialog->findChild<QToolButton *>("toolButtonold_softkeyboard");
            (button->isVisible() ? button
                                 : dialog->findChild<QToolButton *>("toolButtonnew_softkeyboard"))
                    ->click();
            QTRY_VERIFY(dialog->findChild<QWidget *>("widget_softkeyboard")->isVisible());
        } else if (kind == "pin" && parts.size() == 3) {
            dialog->findChild<QLineEdit *>("lineEdit_oldPin")->setText("abc123");
            dialog->findChild<QLineEdit *>("lineEdit_newPin")->setText(parts.at(0));
            dialog->findChild<QLineEdit *>("lineEdit_confirmPin")->setText(parts.at(1));
            if (!parts.at(1).isEmpty())
                dialog->findChild<QPushButton *>("pushButton_OK")->click();
            // The translated hint, so a missing translation shows here too.
            const QString hint = QCoreApplication::translate("PINDialog", qPrintable(parts.at(2)));
            QCOMPARE(dialog->findChild<QLabel *>("label_comments")->text(),
                     hint.contains("%2") ? hint.arg(6).arg(16) : hint);
            QVERIFY(tag == "en" || hint != parts.at(2));
        }
        QCoreApplication::sendPostedEvents(nullptr, QEvent::LayoutRequest);
        QCoreApplication::processEvents();
        const QStringList problems = layoutProblems(dialog.get());
        QVERIFY2(problems.isEmpty(), qPrintable(problems.join("\n  ")));
        // Sizes never double-scale: the whole window stays on the screen.
        QVERIFY(dialog->screen()->availableGeometry().contains(dialog->frameGeometry()));
    }
};

QTEST_MAIN(TestLocales)
#include "TestLocales.moc"
