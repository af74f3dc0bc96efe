// The message, container list and waiting dialogs: answers by mouse, keys and window close,
// list entries, waiting texts and countdowns, and windows fixed, centred and on top at any
// scale.
#include "FakeUiStatus.h"
#include "ui/CertListDialog.h"
#include "ui/MessageDialog.h"
#include "ui/WaitingDialog.h"

#include <QtWidgets>
#include <QtTest>

#include <memory>

namespace {
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
        row("OK box 6, Alt+O", 6, "Alt+O", 0, 1);
        row("OK box max, window close", -2, "close", 0, 1);
        row("retry, window close", 5, "close", 0, 0);
        row("retry, Escape", 5, "Esc", 0, 0);
        row("retry, Return", 5, "Return", 0, 1);
        row("retry, Enter on Cancel", 5, "pushButton_Cancel>Enter", 0, 0);
        row("retry, Alt+C", 5, "Alt+C", 0, 0);
        row("retry, Alt+R on Cancel", 5, "pushButton_Cancel>Alt+R", 0, 1);
        row("list, Escape", -1, "Esc", 1, 0);
        row("list, Return in the list", -1, "comboBox_certlist>Return", 1, 1);
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
        std::unique_ptr<QWidget> dlg(
                type == -1 ? static_cast<QWidget *>(
                        new CertListDialog("one\ntwo\nthree\nfour", &status, 1.0f))
                           : new MessageDialog("t", "m", type == -2 ? ~0ul : ulong(type), &status,
                                               1.0f));
        QVERIFY(!dlg->testAttribute(Qt::WA_KeyboardFocusChange));
        dlg->show();
        QApplication::setActiveWindow(dlg.get());
        QVERIFY(QTest::qWaitForWindowActive(dlg.get()));
        QTRY_VERIFY(dlg->testAttribute(Qt::WA_KeyboardFocusChange));
        QAccessibleInterface *window = QAccessible::queryAccessibleInterface(dlg.get());
        QCOMPARE(window->role(), type == -1 ? QAccessible::Dialog : QAccessible::AlertMessage);
        QCOMPARE(window->text(QAccessible::Name), dlg->windowTitle());
        for (const char *name : {"pushButton_OK", "pushButton_Retry", "pushButton_Cancel"})
            QVERIFY(type == -1
                    || dlg->findChild<QWidget *>(name)->isVisible()
                               == ((type == 5) != (name[11] == 'O')));
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

    // Entries one a line, the text's ends trimmed, blank lines and inner spaces kept.
    void testListEntries()
    {
        FakeUiStatus status;
        const QStringList lists{"\nA\nB\n", "A\n\nB", "", "  A \n B  "},
                shown{"A|B", "A||B", "", "A | B"};
        for (int n = 0; n < lists.size(); ++n) {
            CertListDialog dlg(lists[n], &status, 1.0f);
            auto *combo = dlg.findChild<QComboBox *>("comboBox_certlist");
            QStringList entries;
            for (int i = 0; i < combo->count(); ++i)
                entries << combo->itemText(i);
            QCOMPARE(entries.join('|'), shown[n]);
            QVERIFY(combo->currentIndex() == 0 && combo->count() == shown[n].count('|') + 1);
        }
    }

    // Built at 1.5, a dialog is the one built at 1.0 grown once by the part of the scale the
    // fonts (at the screen's dpi) did not already apply, fixed in size, centred, modal, on top
    // and with the logo; showing it changes none of that.
    void testScaledWindows()
    {
        FakeUiStatus status;
        for (int kind = 0; kind < 3; ++kind) {
            std::unique_ptr<QWidget> dlg[2];
            for (int n = 0; n < 2; ++n) {
                const float scale = n ? 1.5f : 1.0f;
                if (kind == 0)
                    dlg[n].reset(
                            new MessageDialog("Title_Warning", "PIN_Locked", 5, &status, scale));
                else if (kind == 1)
                    dlg[n].reset(new CertListDialog("A\nB", &status, scale));
                else
                    dlg[n].reset(new WaitingDialog("2=5", 5, 0, "", scale));
            }
            for (auto &d : dlg) // a driven tick (no event loop has run yet) re-lays it out
                if (auto *waiting = qobject_cast<WaitingDialog *>(d.get()))
                    waiting->refreshtimeout();
            QWidget &scaled = *dlg[1];
            const qreal rest = qMax(1.0, 1.5 / (scaled.logicalDpiX() / 96.0));
            const QSize expected(qRound(dlg[0]->width() * rest), qRound(dlg[0]->height() * rest));
            const QRect screen = QApplication::desktop()->rect();
            for (int shown = 0; shown < 2; ++shown) {
                QVERIFY(scaled.size() == expected && scaled.minimumSize() == expected
                        && scaled.maximumSize() == expected);
                QCOMPARE(scaled.pos(), QPoint((screen.width() - expected.width()) / 2,
                                              (screen.height() - expected.height()) / 2));
                QVERIFY(scaled.testAttribute(Qt::WA_ShowModal));
                QVERIFY(scaled.windowFlags().testFlag(Qt::WindowStaysOnTopHint));
                QVERIFY(kind == 1
                        || scaled.windowIcon().pixmap(4, 4).toImage()
                                   == QIcon(":/images/logo.ico").pixmap(4, 4).toImage());
                scaled.show();
                QVERIFY(QTest::qWaitForWindowExposed(&scaled));
                QCoreApplication::processEvents();
            }
        }
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
        row("1", limits, 1, "Transmit Signature Data", "22", "");
        row("2, timeout1", limits, 2, "", "11", "");
        row("5", "", 5, "Trade Confirm",
            "You will do trade signature! Please check the data on the usbkey screen", "");
        row("6, timeout4", limits, 6, "You will restore UKey to default status", "44", "");
        row("10, timeout1", limits, 10, "You will set the user pin", "11", "");
        row("max", limits, 0xFFFFFFFFul, "Unknown Type", "unknown request 4294967295", "");
        row("negative", "1=-3", 2, "", Prompt, "");
        row("malformed ignored, good kept", "1=5=6|1=4|7", 2, "", "4", "");
        row("later overwrites", "1=3|1=9", 2, "", "9", "");
        row("trailing garbage", "1=4s", 2, "", Prompt, "");
        row("other keys ignored", "5=9|2=8|4=7|-1=3|1=2", 2, "", "2", "");
        row("sign info only logged", "3=1=2|3=pay 10|1=7", 2, "", "7", "");
        row("non-numeric key is the picture", "x=foo.gif", 2, "", Prompt, "/opt/x/foo.gif");
        row("last picture", "0=a.gif|0=b.gif", 2, "", Prompt, "/opt/x/b.gif");
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

    // In real seconds: 2 at once, 1 and 0 no sooner than a second apart, then it stops.
    void testCountdown()
    {
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
        QCOMPARE(dlg.remainingCountdown(), -1);
    }
};

QTEST_MAIN(TestDialogs)
#include "TestDialogs.moc"
