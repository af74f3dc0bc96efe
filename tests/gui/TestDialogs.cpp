// The message, container list and waiting dialogs: answers by keys and window close, list
// entries, waiting texts and countdowns, and windows fixed, centred and on top at any scale.
#include "FakeUiStatus.h"
#include "ui/CertListDialog.h"
#include "ui/MessageDialog.h"
#include "ui/WaitingDialog.h"

#include <QtWidgets>
#include <QtTest>

namespace {
const QString tick("Please press OK button on USBKey in <font color=\"red\">%1</font> second(s)");
QString info(QWidget *dlg) { return dlg->findChild<QLabel *>("label_info")->text(); }
} // namespace

class TestDialogs : public QObject
{
    Q_OBJECT

private slots:
    void testAnswers_data()
    {
        QTest::addColumn<qulonglong>("type"); // message box type; ~0: the list
        QTest::addColumn<QString>("action"); // [focus>]keys or "close"
        QTest::addColumn<int>("expected");
        QTest::newRow("OK box 1, Escape") << 1ull << "Esc" << 1;
        QTest::newRow("OK box 6, Alt+O") << 6ull << "Alt+O" << 1;
        QTest::newRow("OK box 6, Cancel hidden") << 6ull << "pushButton_Cancel>Return" << 1;
        QTest::newRow("OK box max, window close") << 0xFFFFFFFFull << "close" << 1;
        QTest::newRow("retry, Escape") << 5ull << "Esc" << 0;
        QTest::newRow("retry, Return") << 5ull << "Return" << 1;
        QTest::newRow("retry, Enter on Cancel") << 5ull << "pushButton_Cancel>Enter" << 0;
        QTest::newRow("retry, Alt+R on Cancel") << 5ull << "pushButton_Cancel>Alt+R" << 1;
        QTest::newRow("list, Escape") << ~0ull << "comboBox_certlist>Down, Esc" << 0;
        QTest::newRow("list, Return in it") << ~0ull << "comboBox_certlist>Down, Return" << 1;
        QTest::newRow("list, Alt+O") << ~0ull << "comboBox_certlist>Down, Down, Down, Alt+O" << 1;
    }

    // Built at 1.5: the 1.0 window grown by the scale the fonts did not apply, fixed, centred, on
    // top. One answer whatever follows; the row picked by keys; the focus frame shows at once.
    void testAnswers()
    {
        QFETCH(qulonglong, type);
        QFETCH(QString, action);
        QFETCH(int, expected);
        FakeUiStatus status;
        const auto make = [&](float scale) -> QWidget * {
            if (type == ~0ull)
                return new CertListDialog("\n one\n\n two \nfour\n", &status, scale);
            return new MessageDialog("t", "m", ulong(type), &status, scale);
        };
        const std::unique_ptr<QWidget> plain(make(1.0f)), dlg(make(1.5f));
        const QSize size = plain->size() * qMax(1.0, 1.5 / (dlg->logicalDpiX() / 96.0));
        QVERIFY(dlg->minimumSize() == size && dlg->maximumSize() == size);
        const QSize margin = QApplication::desktop()->size() - size;
        QCOMPARE(dlg->geometry(), QRect(QPoint(margin.width() / 2, margin.height() / 2), size));
        QVERIFY(dlg->testAttribute(Qt::WA_ShowModal)
                && dlg->windowFlags() & Qt::WindowStaysOnTopHint);
        dlg->show();
        QApplication::setActiveWindow(dlg.get());
        QVERIFY(QTest::qWaitForWindowActive(dlg.get()));
        QTRY_VERIFY(dlg->testAttribute(Qt::WA_KeyboardFocusChange));
        if (auto *combo = dlg->findChild<QComboBox *>("comboBox_certlist")) {
            QCOMPARE(combo->count(), 4); // blank lines and inner blanks kept, the ends trimmed
            for (int i = 0; i < 4; ++i)
                QCOMPARE(combo->itemText(i), QString("one|| two |four").section('|', i, i));
        }
        if (action.contains('>'))
            dlg->findChild<QWidget *>(action.section('>', 0, 0))->setFocus(Qt::TabFocusReason);
        action = action.section('>', -1);
        if (action == "close")
            QVERIFY(dlg->windowHandle()->close());
        else
            QTest::keySequence(QApplication::focusWidget(), QKeySequence(action));
        QTRY_COMPARE(status.msgReports + status.listReports, 1);
        dlg->close();
        QCoreApplication::sendPostedEvents(); // a second answer would be posted: run it
        QCOMPARE(status.msgReports + status.listReports + status.pinReports, 1);
        QCOMPARE(type == ~0ull ? status.listStatusValue() : status.GetMsgStatus(), expected);
        QCOMPARE(status.listIndexValue(), int(action.count("Down")));
    }

    // Title, text, countdown (first tick at once) and picture (none if missing) from the request.
    void testWaitingTexts()
    {
        const QString prompt = "|Please press OK button on USBKey";
        const struct
        {
            const char *text;
            ulong type;
            QString shown; // title|message; a number: a countdown from it
            QString movie = {}; // in directory "/opt/x/"; empty: none
        } rows[] = {{"", 0, "Generate Key Pair|USBKey is generating key pair, please waiting..."},
                    {"1=11|2=22|4=44|3=x", 2, "Verify user pin|11"},
                    {"1=11|2=22|4=44|3=x", 5, "Trade Confirm|22"},
                    {"1=11|2=22|4=44|3=x", 6, "You will restore UKey to default status|44"},
                    {"1=11", 0xFFFFFFFF, "Unknown Type|unknown request 4294967295"},
                    {"1=-3", 4, "Unlock pin" + prompt},
                    {"1=5=6|1=4|7|1=8s", 3, "Change user pin" + prompt},
                    {"5=9|2=8|4=7|-1=3|1=2", 2, "Verify user pin|2"},
                    {"x=a.gif|0=b.gif", 2, "Verify user pin" + prompt, "/opt/x/b.gif"}};
        for (const auto &r : rows) {
            WaitingDialog dlg(r.text, r.type, 0, "/opt/x/", 1.0f);
            bool counting = false;
            const int from = r.shown.section('|', 1).toInt(&counting);
            QCOMPARE(dlg.windowTitle() + '|' + info(&dlg),
                     counting ? r.shown.section('|', 0, 0) + '|' + tick.arg(from) : r.shown);
            QCOMPARE(dlg.isCounting(), counting);
            QCOMPARE(dlg.animation() ? dlg.animation()->fileName() : QString(), r.movie);
            QVERIFY(!dlg.animation() || !dlg.animation()->isValid());
        }
    }

    // In real seconds: 2 at once, 1 and 0 no sooner than a second apart, then it stops; each
    // tick refits the window without scaling it again.
    void testCountdown()
    {
        QElapsedTimer clock;
        clock.start();
        WaitingDialog dlg("1=2", 2, 0, "", 1.5f);
        QSize size;
        for (int shown = 2; shown >= 0; --shown) {
            QTRY_COMPARE_WITH_TIMEOUT(info(&dlg), tick.arg(shown), 5000);
            QVERIFY(clock.elapsed() >= 950 * (2 - shown) && (shown > 0 || dlg.size() == size));
            size = dlg.size();
        }
        QTRY_VERIFY_WITH_TIMEOUT(!dlg.isCounting(), 5000);
        QCOMPARE(info(&dlg), tick.arg(0));
    }
};

QTEST_MAIN(TestDialogs)
#include "TestDialogs.moc"
