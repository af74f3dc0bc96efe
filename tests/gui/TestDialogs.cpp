// The message, container list and waiting dialogs: answers by mouse, keys and window close,
// list entries, waiting texts and countdowns, and windows fixed, centred and on top at any
// scale.
#include "FakeUiStatus.h"
#include "ui/CertListDialog.h"
#include "ui/MessageDialog.h"
#include "ui/WaitingDialog.h"

#include <QAccessible>
#include <QApplication>
#include <QComboBox>
#include <QDesktopWidget>
#include <QElapsedTimer>
#include <QLabel>
#include <QMovie>
#include <QPushButton>
#include <QTemporaryDir>
#include <QWindow>
#include <QtTest>

#include <memory>

namespace {
// An 8 x 8 animated GIF: two frames of 100 ms each, looping for ever.
const char TinyGif[]
        = "\x47\x49\x46\x38\x39\x61\x08\x00\x08\x00\xf1\x00\x00\xff\x00\x00\x00\x00\xff\xff\xff\xff"
          "\x00\x00\x00\x21\xff\x0b\x4e\x45\x54\x53\x43\x41\x50\x45\x32\x2e\x30\x03\x01\x00\x00\x00"
          "\x21\xf9\x04\x00\x0a\x00\x00\x00\x2c\x00\x00\x00\x00\x08\x00\x08\x00\x00\x02\x31\x04\x43"
          "\x30\x04\x43\x30\x0c\xc1\x10\x0c\xc1\x10\x04\x43\x30\x04\x43\x30\x0c\xc1\x10\x0c\xc1\x10"
          "\x04\x43\x30\x04\x43\x30\x0c\xc1\x10\x0c\xc1\x10\x04\x43\x30\x04\x43\x30\x0c\xc1\x10\x0c"
          "\xc1\x10\x2c\x00\x21\xf9\x04\x00\x0a\x00\x00\x00\x2c\x00\x00\x00\x00\x08\x00\x08\x00\x00"
          "\x02\x31\x0c\xc1\x10\x0c\xc1\x10\x04\x43\x30\x04\x43\x30\x0c\xc1\x10\x0c\xc1\x10\x04\x43"
          "\x30\x04\x43\x30\x0c\xc1\x10\x0c\xc1\x10\x04\x43\x30\x04\x43\x30\x0c\xc1\x10\x0c\xc1\x10"
          "\x04\x43\x30\x04\x43\x30\x2c\x00\x3b";
const QString Prompt = "Please press OK button on USBKey";

QString tick(int seconds)
{
    return Prompt + QString(" in <font color=\"red\">%1</font> second(s)").arg(seconds);
}
QString info(QWidget *dlg) { return dlg->findChild<QLabel *>("label_info")->text(); }

// Runs what is already posted (deferred answers, deletions): "nothing happens" is then final.
void drainEvents()
{
    QCoreApplication::sendPostedEvents();
    QCoreApplication::processEvents();
    QCoreApplication::sendPostedEvents(nullptr, QEvent::DeferredDelete);
}

// Built at 1.5, a dialog is the one built at 1.0 grown once by the part of the scale the fonts
// (at the screen's dpi) did not already apply, fixed in size, centred, modal, on top and with
// the logo; showing it changes none of that.
void verifyScaled(QWidget &base, QWidget &scaled, bool logo = true)
{
    const qreal rest = qMax(1.0, 1.5 / (scaled.logicalDpiX() / 96.0));
    const QSize expected(qRound(base.width() * rest), qRound(base.height() * rest));
    for (int shown = 0; shown < 2; ++shown) {
        QVERIFY(scaled.size() == expected && scaled.minimumSize() == expected
                && scaled.maximumSize() == expected);
        const QRect screen = QApplication::desktop()->rect();
        QCOMPARE(scaled.pos(), QPoint((screen.width() - expected.width()) / 2,
                                      (screen.height() - expected.height()) / 2));
        QVERIFY(scaled.testAttribute(Qt::WA_ShowModal));
        QVERIFY(scaled.windowFlags().testFlag(Qt::WindowStaysOnTopHint));
        if (logo)
            QCOMPARE(scaled.windowIcon().pixmap(4, 4).toImage(),
                     QIcon(":/images/logo.ico").pixmap(4, 4).toImage());
        scaled.show();
        QVERIFY(QTest::qWaitForWindowExposed(&scaled));
        QCoreApplication::processEvents();
    }
}
} // namespace

class TestDialogs : public QObject
{
    Q_OBJECT

private slots:
    void testAnswers_data()
    {
        QTest::addColumn<int>("type"); // message box type, -1: the list
        QTest::addColumn<QString>("action"); // [focus>]button, key sequence or "close"
        QTest::addColumn<int>("row");
        QTest::addColumn<int>("expected");
        auto row = [](const char *name, int type, const char *action, int row, int expected) {
            QTest::newRow(name) << type << QString(action) << row << expected;
        };
        row("OK", 0, "pushButton_OK", 0, 1);
        row("OK box 1, Escape", 1, "Esc", 0, 1);
        row("OK box 4, Return", 4, "Return", 0, 1);
        row("OK box 6, Alt+O", 6, "Alt+O", 0, 1);
        row("OK box max, window close", -2, "close", 0, 1);
        row("Retry", 5, "pushButton_Retry", 0, 1);
        row("Cancel", 5, "pushButton_Cancel", 0, 0);
        row("retry, window close", 5, "close", 0, 0);
        row("retry, Escape", 5, "Esc", 0, 0);
        row("retry, Return", 5, "Return", 0, 1);
        row("retry, Enter on Cancel", 5, "pushButton_Cancel>Enter", 0, 0);
        row("retry, Alt+C", 5, "Alt+C", 0, 0);
        row("retry, Alt+R on Cancel", 5, "pushButton_Cancel>Alt+R", 0, 1);
        row("list, OK first", -1, "pushButton_OK", 0, 1);
        row("list, OK last", -1, "pushButton_OK", 3, 1);
        row("list, Cancel third", -1, "pushButton_Cancel", 2, 0);
        row("list, window close", -1, "close", 2, 0);
        row("list, Escape", -1, "Esc", 1, 0);
        row("list, Return in the list", -1, "comboBox_certlist>Return", 1, 1);
        row("list, Alt+C", -1, "Alt+C", 0, 0);
        row("list, Alt+O", -1, "Alt+O", 3, 1);
    }

    // One answer whatever follows (another close), with the row picked by the keyboard; the
    // focus frame shows from the start, and the window is announced by its title.
    void testAnswers()
    {
        QFETCH(int, type);
        QFETCH(QString, action);
        QFETCH(int, row);
        QFETCH(int, expected);
        FakeUiStatus status;
        const ulong boxType = type == -2 ? 0xFFFFFFFFul : ulong(type);
        std::unique_ptr<QWidget> dlg;
        if (type == -1)
            dlg.reset(new CertListDialog("one\ntwo\nthree\nfour", &status, 1.0f));
        else
            dlg.reset(new MessageDialog("t", "m", boxType, &status, 1.0f));
        QVERIFY(!dlg->testAttribute(Qt::WA_KeyboardFocusChange));
        dlg->show();
        QApplication::setActiveWindow(dlg.get());
        QVERIFY(QTest::qWaitForWindowActive(dlg.get()));
        QTRY_VERIFY(dlg->testAttribute(Qt::WA_KeyboardFocusChange));
        QAccessibleInterface *window = QAccessible::queryAccessibleInterface(dlg.get());
        QCOMPARE(window->role(), type == -1 ? QAccessible::Dialog : QAccessible::AlertMessage);
        QCOMPARE(window->text(QAccessible::Name), dlg->windowTitle());
        for (const char *name : {"pushButton_OK", "pushButton_Retry", "pushButton_Cancel"}) {
            auto *button = dlg->findChild<QPushButton *>(name);
            QVERIFY(type == -1 || button->isVisible() == ((type == 5) != (name[11] == 'O')));
        }
        if (auto *combo = dlg->findChild<QComboBox *>("comboBox_certlist")) {
            combo->setFocus();
            for (int i = 0; i < row; ++i)
                QTest::keyClick(combo, Qt::Key_Down);
            QCOMPARE(combo->currentIndex(), row);
        }
        if (action.contains('>')) {
            auto *target = dlg->findChild<QWidget *>(action.section('>', 0, 0));
            target->setFocus(Qt::TabFocusReason);
            QTRY_COMPARE(QApplication::focusWidget(), target);
        }
        const QString what = action.section('>', -1);
        if (what == "close") {
            QVERIFY(dlg->windowHandle()->close());
        } else if (what.startsWith("pushButton")) {
            QTest::mouseClick(dlg->findChild<QPushButton *>(what), Qt::LeftButton);
        } else {
            const int key = QKeySequence(what)[0];
            QTest::keyClick(QApplication::focusWidget(), Qt::Key(key & ~Qt::KeyboardModifierMask),
                            Qt::KeyboardModifiers(key & Qt::KeyboardModifierMask));
        }
        QTRY_COMPARE(status.msgReports + status.listReports, 1);
        dlg->close();
        drainEvents();
        QCOMPARE(status.msgReports + status.listReports + status.pinReports, 1);
        QCOMPARE(type == -1 ? status.listStatusValue() : status.GetMsgStatus(), expected);
        if (type == -1)
            QCOMPARE(status.listIndexValue(), row);
    }

    // Hidden and deleted by their owner (even with a window close queued), dialogs report nothing.
    void testOwnerCloseReportsNothing()
    {
        FakeUiStatus status;
        for (int n = 0; n < 3; ++n) {
            std::unique_ptr<QWidget> dlg;
            if (n < 2)
                dlg.reset(new MessageDialog("t", "m", 5, &status, 1.0f));
            else
                dlg.reset(new CertListDialog("A", &status, 1.0f));
            dlg->show();
            QVERIFY(QTest::qWaitForWindowExposed(dlg.get()));
            n == 1 ? void(dlg->windowHandle()->close()) : dlg->hide();
        }
        drainEvents();
        QCOMPARE(status.msgReports + status.listReports, 0);
    }

    void testListEntries()
    {
        FakeUiStatus status;
        const QList<QPair<QString, QStringList>> cases{{"\nA\nB\n", {"A", "B"}}, // ends trimmed
                                                       {"A\n\nB", {"A", "", "B"}},
                                                       {"", {""}},
                                                       {"  A \n B  ", {"A ", " B"}}};
        for (const auto &c : cases) {
            CertListDialog dlg(c.first, &status, 1.0f);
            auto *combo = dlg.findChild<QComboBox *>("comboBox_certlist");
            QStringList entries;
            for (int i = 0; i < combo->count(); ++i)
                entries << combo->itemText(i);
            QCOMPARE(entries, c.second);
            QCOMPARE(combo->currentIndex(), 0);
        }
    }

    // A running animation and a countdown re-laid out every tick keep the scaled fixed size.
    void testScaledWindows()
    {
        FakeUiStatus status;
        MessageDialog box("Title_Warning", "PIN_Locked", 5, &status, 1.0f);
        MessageDialog scaledBox("Title_Warning", "PIN_Locked", 5, &status, 1.5f);
        verifyScaled(box, scaledBox);
        CertListDialog list("A\nB", &status, 1.0f), scaledList("A\nB", &status, 1.5f);
        verifyScaled(list, scaledList, false);

        QTemporaryDir dir;
        QFile gif(dir.filePath("wait.gif"));
        QVERIFY(gif.open(QIODevice::WriteOnly) && gif.write(TinyGif, sizeof(TinyGif) - 1) > 0);
        gif.close();
        QCOMPARE(QMovie(gif.fileName()).frameCount(), 2); // else the movie checks prove nothing
        WaitingDialog base("2=5|0=wait.gif", 5, 0, dir.path() + "/", 1.0f);
        WaitingDialog scaled("2=5|0=wait.gif", 5, 0, dir.path() + "/", 1.5f);
        base.refreshtimeout(); // a driven tick (no event loop has run yet) re-sizes and re-centres
        scaled.refreshtimeout();
        QCOMPARE(info(&scaled), tick(4));
        verifyScaled(base, scaled);
        const QSize fixed = scaled.size();
        QMovie *movie = scaled.animation();
        QCOMPARE(movie->fileName(), gif.fileName());
        QCOMPARE(scaled.findChild<QLabel *>("label_gif")->movie(), movie);
        const int first = movie->currentFrameNumber();
        QTRY_VERIFY_WITH_TIMEOUT(movie->currentFrameNumber() != first, 5000);
        QCOMPARE(movie->state(), QMovie::Running);
        QCOMPARE(scaled.size(), fixed);
    }

    void testWaitingTexts_data()
    {
        QTest::addColumn<QString>("text");
        QTest::addColumn<qulonglong>("type");
        QTest::addColumn<QString>("title"); // empty: "Verify user pin" (type 2)
        QTest::addColumn<QString>("shown"); // a number: a countdown from it
        QTest::addColumn<QString>("movie"); // in directory "/opt/x/"; empty: none
        auto row = [](const char *name, const char *text, qulonglong type, const char *title,
                      const QString &shown, const char *movie) {
            QTest::newRow(name) << QString(text) << type << QString(title) << shown
                                << QString(movie);
        };
        const char *keyGen = "USBKey is generating key pair, please waiting...";
        const char *limits = "1=11|2=22|4=44|3=sign";
        row("0", "", 0, "Generate Key Pair", keyGen, "");
        row("0, timeout2", limits, 0, "Generate Key Pair", "22", "");
        row("1", limits, 1, "Transmit Signature Data", "22", "");
        row("1 without limits", "", 1, "Transmit Signature Data",
            "USBKey is Transmitting Signature Data, please waiting...", "");
        row("2, timeout1", limits, 2, "", "11", "");
        row("5", "", 5, "Trade Confirm",
            "You will do trade signature! Please check the data on the usbkey screen", "");
        row("5, timeout2", limits, 5, "Trade Confirm", "22", "");
        row("6, timeout4", limits, 6, "You will restore UKey to default status", "44", "");
        row("6 without limits", "", 6, "You will restore UKey to default status", Prompt, "");
        row("10, timeout1", limits, 10, "You will set the user pin", "11", "");
        row("11", limits, 11, "Unknown Type", "unknown request 11", "");
        row("max", limits, 0xFFFFFFFFul, "Unknown Type", "unknown request 4294967295", "");
        row("negative", "1=-3", 2, "", Prompt, "");
        row("no equals sign", "1", 2, "", Prompt, "");
        row("two equals signs", "1=5=6", 2, "", Prompt, "");
        row("malformed ignored, good kept", "1=5=6|1=4|7", 2, "", "4", "");
        row("later overwrites", "1=3|1=9", 2, "", "9", "");
        row("empty items", "|1=4||", 2, "", "4", "");
        row("trailing garbage", "1=4s", 2, "", Prompt, "");
        row("other keys ignored", "5=9|2=8|4=7|-1=3|1=2", 2, "", "2", "");
        row("sign info only logged", "3=1=2|3=pay 10|1=7", 2, "", "7", "");
        row("non-numeric key is the picture", "x=foo.gif", 2, "", Prompt, "/opt/x/foo.gif");
        row("last picture", "0=a.gif|0=b.gif", 2, "", Prompt, "/opt/x/b.gif");
        row("empty picture", "0=", 2, "", Prompt, "");
    }

    // Title, text, countdown (its first tick shown at once) and picture from the request.
    void testWaitingTexts()
    {
        QFETCH(QString, text);
        QFETCH(qulonglong, type);
        QFETCH(QString, title);
        QFETCH(QString, shown);
        QFETCH(QString, movie);
        WaitingDialog dlg(text, ulong(type), 0, "/opt/x/", 1.0f);
        QCOMPARE(dlg.windowTitle(), title.isEmpty() ? "Verify user pin" : title);
        bool counting = false;
        const int from = shown.toInt(&counting);
        QCOMPARE(dlg.isCounting(), counting);
        QCOMPARE(info(&dlg), counting ? tick(from) : shown);
        if (counting)
            QCOMPARE(dlg.remainingCountdown(), from - 1);
        QCOMPARE(dlg.animation() ? dlg.animation()->fileName() : QString(), movie);
        QVERIFY(!dlg.animation() || !dlg.animation()->isValid()); // missing: nothing, no error
    }

    // Driven by hand to the end, then in real seconds: 2 at once, 1 and 0 no sooner than a
    // second apart, then it stops.
    void testCountdown()
    {
        WaitingDialog driven("1=30", 2, 0, "", 1.0f);
        for (int shown = 29; shown >= 0; --shown) {
            QVERIFY2(driven.isCounting(), qPrintable(QString::number(shown)));
            driven.refreshtimeout();
            QCOMPARE(info(&driven), tick(shown));
        }
        QVERIFY(!driven.isCounting());
        QCOMPARE(driven.remainingCountdown(), -1);

        QElapsedTimer clock;
        clock.start();
        WaitingDialog dlg("1=2", 2, 0, "", 1.0f);
        QCOMPARE(info(&dlg), tick(2));
        for (int shown = 1; shown >= 0; --shown) {
            QTRY_COMPARE_WITH_TIMEOUT(info(&dlg), tick(shown), 5000);
            QVERIFY2(clock.elapsed() >= 950 * (2 - shown),
                     qPrintable(QString::number(clock.elapsed())));
        }
        QTRY_VERIFY_WITH_TIMEOUT(!dlg.isCounting(), 5000);
        QCOMPARE(info(&dlg), tick(0));
    }
};

QTEST_MAIN(TestDialogs)
#include "TestDialogs.moc"
