// The message, container list and waiting dialogs: answers by mouse, keys and window close,
// list entries, waiting texts and countdowns, and windows fixed, centred and on top at any scale.
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

const struct
{
    const char *name;
    long type; // message box type, -1: the list
    QString action; // [focus>]button, key sequence or "close"
    int row, expected;
} answers[] = {{"OK", 0, "pushButton_OK", 0, 1},
               {"OK box 1, Escape", 1, "Esc", 0, 1},
               {"OK box 6, Alt+O", 6, "Alt+O", 0, 1},
               {"OK box max, window close", 0xFFFFFFFF, "close", 0, 1},
               {"retry, window close", 5, "close", 0, 0},
               {"retry, Escape", 5, "Esc", 0, 0},
               {"retry, Return", 5, "Return", 0, 1},
               {"retry, Enter on Cancel", 5, "pushButton_Cancel>Enter", 0, 0},
               {"retry, Alt+R on Cancel", 5, "pushButton_Cancel>Alt+R", 0, 1},
               {"list, Escape", -1, "Esc", 1, 0},
               {"list, Return in the list", -1, "comboBox_certlist>Return", 1, 1},
               {"list, Alt+O", -1, "Alt+O", 3, 1}};

const struct
{
    const char *name, *text;
    ulong type;
    QString title; // empty: "Verify user pin" (type 2)
    QString shown; // a number: a countdown from it
    QString movie; // in directory "/opt/x/"; empty: none
} waits[] = {
        {"0", "", 0, "Generate Key Pair", "USBKey is generating key pair, please waiting...", ""},
        {"2, timeout1", "1=11|2=22|4=44|3=sign", 2, "", "11", ""},
        {"5", "", 5, "Trade Confirm",
         "You will do trade signature! Please check the data on the usbkey screen", ""},
        {"6, timeout4", "1=11|2=22|4=44", 6, "You will restore UKey to default status", "44", ""},
        {"max", "1=11", 0xFFFFFFFF, "Unknown Type", "unknown request 4294967295", ""},
        {"negative", "1=-3", 2, "", Prompt, ""},
        {"malformed ignored, good kept", "1=5=6|1=4|7", 2, "", "4", ""},
        {"other keys ignored", "5=9|2=8|4=7|-1=3|1=2", 2, "", "2", ""},
        {"non-numeric key is the picture", "x=foo.gif", 2, "", Prompt, "/opt/x/foo.gif"},
        {"last picture", "0=a.gif|0=b.gif", 2, "", Prompt, "/opt/x/b.gif"}};

template<class T, size_t N>
void rows(const T (&cases)[N])
{
    QTest::addColumn<int>("i");
    for (size_t i = 0; i < N; ++i)
        QTest::newRow(cases[i].name) << int(i);
}
} // namespace

class TestDialogs : public QObject
{
    Q_OBJECT

private slots:
    void testAnswers_data() { rows(answers); }

    // Built at 1.5, the window is the one built at 1.0 grown by the part of the scale the fonts
    // did not apply, fixed, centred and on top. One answer whatever follows (another close), with
    // the row picked by the keyboard; the focus frame shows at once; announced by its title.
    void testAnswers()
    {
        QFETCH(int, i);
        const auto &c = answers[i];
        FakeUiStatus status;
        std::unique_ptr<QWidget> dlg, plain;
        for (float scale : {1.0f, 1.5f}) {
            plain = std::move(dlg);
            if (c.type == -1)
                dlg.reset(new CertListDialog("one\ntwo\nthree\nfour", &status, scale));
            else
                dlg.reset(new MessageDialog("t", "m", ulong(c.type), &status, scale));
        }
        const qreal rest = qMax(1.0, 1.5 / (dlg->logicalDpiX() / 96.0));
        const QSize size(qRound(plain->width() * rest), qRound(plain->height() * rest));
        QVERIFY(dlg->minimumSize() == size && dlg->maximumSize() == size);
        const QRect screen = QApplication::desktop()->rect();
        QCOMPARE(dlg->geometry(),
                 QRect((screen.width() - size.width()) / 2, (screen.height() - size.height()) / 2,
                       size.width(), size.height()));
        QVERIFY(dlg->testAttribute(Qt::WA_ShowModal)
                && dlg->windowFlags() & Qt::WindowStaysOnTopHint);
        dlg->show();
        QApplication::setActiveWindow(dlg.get());
        QVERIFY(QTest::qWaitForWindowActive(dlg.get()));
        QTRY_VERIFY(dlg->testAttribute(Qt::WA_KeyboardFocusChange));
        QAccessibleInterface *window = QAccessible::queryAccessibleInterface(dlg.get());
        QCOMPARE(window->role(), c.type == -1 ? QAccessible::Dialog : QAccessible::AlertMessage);
        QCOMPARE(window->text(QAccessible::Name), dlg->windowTitle());
        for (const char *name : {"pushButton_OK", "pushButton_Retry", "pushButton_Cancel"})
            QVERIFY(c.type == -1
                    || dlg->findChild<QWidget *>(name)->isVisible()
                               == ((c.type == 5) != (name[11] == 'O')));
        if (auto *combo = dlg->findChild<QComboBox *>("comboBox_certlist")) {
            combo->setFocus();
            for (int n = 0; n < c.row; ++n)
                QTest::keyClick(combo, Qt::Key_Down);
        }
        if (c.action.contains('>')) {
            auto *target = dlg->findChild<QWidget *>(c.action.section('>', 0, 0));
            target->setFocus(Qt::TabFocusReason);
            QTRY_COMPARE(QApplication::focusWidget(), target);
        }
        const QString what = c.action.section('>', -1);
        const int key = QKeySequence(what)[0];
        if (what == "close")
            QVERIFY(dlg->windowHandle()->close());
        else if (what.startsWith("pushButton"))
            QTest::mouseClick(dlg->findChild<QPushButton *>(what), Qt::LeftButton);
        else
            QTest::keyClick(QApplication::focusWidget(), Qt::Key(key & ~Qt::KeyboardModifierMask),
                            Qt::KeyboardModifiers(key & Qt::KeyboardModifierMask));
        QTRY_COMPARE(status.msgReports + status.listReports, 1);
        dlg->close();
        QCoreApplication::sendPostedEvents(); // a second answer would be posted: run it
        QCOMPARE(status.msgReports + status.listReports + status.pinReports, 1);
        QCOMPARE(c.type == -1 ? status.listStatusValue() : status.GetMsgStatus(), c.expected);
        QCOMPARE(status.listIndexValue(), c.row);
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
            QCOMPARE(entries.join('|') + QString::number(combo->currentIndex()), shown[n] + '0');
        }
    }

    void testWaitingTexts_data() { rows(waits); }

    // Title, text, countdown (its first tick shown at once) and picture from the request.
    void testWaitingTexts()
    {
        QFETCH(int, i);
        const auto &c = waits[i];
        WaitingDialog dlg(c.text, c.type, 0, "/opt/x/", 1.0f);
        QCOMPARE(dlg.windowTitle(), c.title.isEmpty() ? "Verify user pin" : c.title);
        bool counting = false;
        const int from = c.shown.toInt(&counting);
        QCOMPARE(dlg.isCounting(), counting);
        QCOMPARE(info(&dlg), counting ? tick(from) : c.shown);
        QCOMPARE(dlg.animation() ? dlg.animation()->fileName() : QString(), c.movie);
        QVERIFY(!dlg.animation() || !dlg.animation()->isValid()); // missing: nothing, no error
    }

    // In real seconds: 2 at once, 1 and 0 no sooner than a second apart, then it stops; each
    // tick refits the window without scaling it again.
    void testCountdown()
    {
        QElapsedTimer clock;
        clock.start();
        WaitingDialog dlg("1=2", 2, 0, "", 1.5f);
        QSize size;
        QCOMPARE(info(&dlg), tick(2));
        for (int shown = 1; shown >= 0; --shown) {
            QTRY_COMPARE_WITH_TIMEOUT(info(&dlg), tick(shown), 5000);
            QVERIFY(clock.elapsed() >= 950 * (2 - shown)
                    && (!size.isValid() || dlg.size() == size));
            size = dlg.size();
        }
        QTRY_VERIFY_WITH_TIMEOUT(!dlg.isCounting(), 5000);
        QCOMPARE(info(&dlg), tick(0));
    }
};

QTEST_MAIN(TestDialogs)
#include "TestDialogs.moc"
