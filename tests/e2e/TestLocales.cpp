// Translations in a real X server: the executable follows the locale, and every
// dialog per language at the program's scale fits the screen, its texts unclipped.
#include "XDoTool.h"

#include "FakeUiStatus.h"
#include "ServerLauncher.h"
#include "client/zrui_client.h"
#include "ui/CertListDialog.h"
#include "ui/MessageDialog.h"
#include "ui/PINDialog.h"
#include "ui/WaitingDialog.h"

#include <QtWidgets>
#include <QtTest>

namespace {
// Shown text widgets outside the window, smaller than their text, overlapping
// each other, or with characters that neither their font nor a fallback draws.
QStringList layoutProblems(QWidget *window)
{
    QStringList problems;
    QList<QRect> taken;
    for (QWidget *w : window->findChildren<QWidget *>()) {
        auto *label = qobject_cast<QLabel *>(w);
        auto *button = qobject_cast<QAbstractButton *>(w);
        // A line edit sizes its own icon buttons (the show/hide toggle).
        if (!w->isVisibleTo(window) || w->parentWidget()->inherits("QLineEdit")
            || !(label || button || w->inherits("QLineEdit") || w->inherits("QComboBox")))
            continue;
        QString text = label ? label->text() : button ? button->text() : QString(), missing;
        text = Qt::mightBeRichText(text) ? QTextDocumentFragment::fromHtml(text).toPlainText()
                                         : text;
        for (const uint c : text.toUcs4())
            missing += c > ' ' && !QFontMetrics(w->font()).inFontUcs4(c) ? QString::fromUcs4(&c, 1)
                                                                         : "";
        const QRect rect(w->mapTo(window, QPoint()), w->size());
        const QSize needed = label && label->wordWrap()
                                     ? QSize(0, label->heightForWidth(w->width()))
                                     : w->sizeHint();
        if (!window->rect().contains(rect) || !missing.isEmpty()
            || std::any_of(taken.cbegin(), taken.cend(),
                           [&](QRect r) { return r.intersects(rect); })
            || (!text.isEmpty() && (w->width() < needed.width() || w->height() < needed.height())))
            problems << w->objectName() + " \"" + text + "\" " + missing;
        taken << rect;
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
        scale = float(QApplication::desktop()->logicalDpiX()) / 96.0f;
        QCOMPARE(scale, qEnvironmentVariable("ZRUI_EXPECT_SCALE").toFloat());
        QVERIFY(QResource::registerResource(qgetenv("ZRUI_BIN_DIR") + "/resources.rcc"));
        QVERIFY(!QFontMetrics(QFont()).inFontUcs4(0x0378)); // unassigned: the glyph check can fail
    }
    void cleanup() { QCoreApplication::removeTranslator(translator.get()); }

    // The real executable follows the locale (Hong Kong: Traditional Chinese).
    void testServerFollowsLocale()
    {
        ServerLauncher server;
        server.setPlatform(QString()); // the X server of xvfb-run
        server.setEnv("LC_ALL", "zh_HK.UTF-8");
        QVERIFY2(server.start() && server.waitForListening(), server.output().constData());
        zrui_conn *conn = nullptr;
        QCOMPARE(zrui_open(server.appName().toUtf8().constData(), &conn), int(ZRUI_OK));
        const std::unique_ptr<zrui_conn, decltype(&zrui_close)> closer(conn, zrui_close);
        QVERIFY(zrui_begin_session(conn, 0) == ZRUI_OK && zrui_pin_show(conn, 1) == ZRUI_OK);
        QVERIFY(!XDoTool::waitForWindow("驗證USBKey管理員密碼", 15000, server.process().processId())
                         .isEmpty());
    }

    // Rows "language kind type"; arg: a hint or "keyboard" (pin), "title|text", the info.
    void testDialogTextsFit_data()
    {
        QTest::addColumn<QString>("arg");
        const auto row = [](const QString &t, const char *kind, int type, const QString &arg) {
            QTest::addRow("%s %s %d %s", qPrintable(t), kind, type, qPrintable(arg)) << arg;
        };
        for (const QString t : {"en", "zh_CN", "zh_TW"}) {
            for (int type : {0, 2, 5, 10, 12, 15}) { // simple (+0) and full (+10) keyboard
                row(t, "pin", type, "");
                row(t, "pin", type, "keyboard");
            }
            for (const char *hint :
                 {"Pin:Weak", "IDC_CUSTOM_PIN_ANNOTATION_2",
                  "Please confirm that new USBKey password is entered identiacally!",
                  "The password must be %1-%2 characters"})
                row(t, "pin", 12, hint);
            // The service translates the texts of its own boxes (type 5).
            for (const char *texts : {"0Title_Warning|PIN_Locked", "1Title_Warning|SPACE_FULL_Hint",
                                      "5USBKey password error|There are %1 times remaining",
                                      "5USBKey password error|Default PIN Is Forbidden"})
                row(t, "message", texts[0] - '0', texts + 1);
            row(t, "list", 0, "");
            for (int type : {0, 1, 2, 5, 11})
                row(t, "waiting", type, "0=wait.gif");
            for (int type : {0, 2, 6}) // countdowns of the three limits
                row(t, "waiting", type, "0=wait.gif|1=30|2=120|4=9");
        }
    }
    void testDialogTextsFit()
    {
        QFETCH(QString, arg);
        const QStringList row = QString(QTest::currentDataTag()).split(' ');
        const QString kind = row.at(1);
        const int type = row.at(2).toInt();
        translator.reset(new QTranslator);
        QVERIFY(translator->load(":/uiserver." + row.at(0) + ".qm")
                && QCoreApplication::installTranslator(translator.get()));
        FakeUiStatus status(6, 16);
        std::unique_ptr<QWidget> dialog;
        QStringList texts = arg.split('|');
        for (QString &text : texts) // as the service passes them
            text = type == 5 ? QCoreApplication::translate("FIFO_Service", qPrintable(text))
                                       .replace("%1", "3")
                             : text;
        if (kind == "pin")
            dialog.reset(new PINDialog(PINDialog::KeyBoardMode(type / 10), true, type % 10, &status,
                                       scale));
        else if (kind == "message")
            dialog.reset(new MessageDialog(texts.at(0), texts.at(1), type, &status, scale));
        else if (kind == "list")
            dialog.reset(new CertListDialog(
                    "Signing key 2024\n签名密钥 2025\nA rather long container name 2026", &status,
                    scale));
        else
            dialog.reset(new WaitingDialog(arg, type, 0, qEnvironmentVariable("ZRUI_TOKENSIM_DIR"),
                                           scale));
        dialog->show();
        QVERIFY(QTest::qWaitForWindowExposed(dialog.get()));
        if (arg == "keyboard") { // the first visible keyboard button opens the panel
            auto *button = dialog->findChild<QToolButton *>("toolButtonold_softkeyboard");
            (button->isVisible() ? button
                                 : dialog->findChild<QToolButton *>("toolButtonnew_softkeyboard"))
                    ->click();
            QTRY_VERIFY(dialog->findChild<QWidget *>("widget_softkeyboard")->isVisible());
        } else if (kind == "pin" && !arg.isEmpty()) { // in the comment line
            const QString hint = QCoreApplication::translate("PINDialog", qPrintable(arg));
            static_cast<PINDialog *>(dialog.get())
                    ->setComment(hint.contains("%2") ? hint.arg(6).arg(16) : hint);
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
