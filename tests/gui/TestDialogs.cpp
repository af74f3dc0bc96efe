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
QString tick(int seconds)
{
    return QString("Please press OK button on USBKey in <font color=\"red\">%1</font> second(s)")
            .arg(seconds);
}
QString info(QWidget *dlg) { return dlg->findChild<QLabel *>("label_info")->text(); }
} // namespace

class TestDialogs : public QObject
{
    Q_OBJECT

private slots:
    void testAnswers_data()
    {
        QTest::addColumn<qulonglong>("type"); // message box type; ~0: the list
        QTest::addColumn<QString>("action"); // [focus>]button, key sequence or "close"
        QTest::addColumn<int>("row");
        QTest::addColumn<int>("expected");
        QTest::newRow("OK") << 0ull << "pushButton_OK" << 0 << 1;
        QTest::newRow("OK box 1, Escape") << 1ull << "Esc" << 0 << 1;
        QTest::newRow("OK box 6, Alt+O") << 6ull << "Alt+O" << 0 << 1;
        QTest::newRow("OK box max, window close") << 0xFFFFFFFFull << "close" << 0 << 1;
        QTest::newRow("retry, window close") << 5ull << "close" << 0 << 0;
        QTest::newRow("retry, Escape") << 5ull << "Esc" << 0 << 0;
        QTest::newRow("retry, Return") << 5ull << "Return" << 0 << 1;
        QTest::newRow("retry, Enter on Cancel") << 5ull << "pushButton_Cancel>Enter" << 0 << 0;
        QTest::newRow("retry, Alt+R on Cancel") << 5ull << "pushButton_Cancel>Alt+R" << 0 << 1;
        QTest::newRow("list, Escape") << ~0ull << "Esc" << 1 << 0;
        QTest::newRow("list, Return in it") << ~0ull << "comboBox_certlist>Return" << 1 << 1;
        QTest::newRow("list, Alt+O") << ~0ull << "Alt+O" << 3 << 1;
    }

    // Built at 1.5, the window is the one built at 1.0 grown by the part of the scale the fonts
    // did not apply, fixed, centred and on top. One answer whatever follows (another close), with
    // the row picked by the keyboard; the focus frame shows at once. The list keeps blank lines
    // and inner blanks, the text's ends trimmed.
    void testAnswers()
    {
        QFETCH(qulonglong, type);
        QFETCH(QString, action);
        QFETCH(int, row);
        QFETCH(int, expected);
        FakeUiStatus status;
        std::unique_ptr<QWidget> dlg, plain;
        for (float scale : {1.0f, 1.5f}) {
            plain = std::move(dlg);
            if (type == ~0ull)
                dlg.reset(new CertListDialog("\n one\n\n two \nfour\n", &status, scale));
            else
                dlg.reset(new MessageDialog("t", "m", ulong(type), &status, scale));
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
        for (const char *name : {"pushButton_OK", "pushButton_Retry", "pushButton_Cancel"})
            QVERIFY(type == ~0ull
                    || dlg->findChild<QWidget *>(name)->isVisible()
                               == ((type == 5) != (name[11] == 'O')));
        if (auto *combo = dlg->findChild<QComboBox *>("comboBox_certlist")) {
            QStringList entries;
            for (int i = 0; i < combo->count(); ++i)
                entries << combo->itemText(i);
            QCOMPARE(entries.join('|'), QString("one|| two |four"));
            combo->setFocus();
            for (int n = 0; n < row; ++n)
                QTest::keyClick(combo, Qt::Key_Down);
        }
        if (action.contains('>'))
            dlg->findChild<QWidget *>(action.section('>', 0, 0))->setFocus(Qt::TabFocusReason);
        action = action.section('>', -1);
        if (action == "close")
            QVERIFY(dlg->windowHandle()->close());
        else if (action.startsWith("pushButton"))
            QTest::mouseClick(dlg->findChild<QPushButton *>(action), Qt::LeftButton);
        else
            QTest::keySequence(QApplication::focusWidget(), QKeySequence(action));
        QTRY_COMPARE(status.msgReports + status.listReports, 1);
        dlg->close();
        QCoreApplication::sendPostedEvents(); // a second answer would be posted: run it
        QCOMPARE(status.msgReports + status.listReports + status.pinReports, 1);
        QCOMPARE(type == ~0ull ? status.listStatusValue() : status.GetMsgStatus(), expected);
        QCOMPARE(status.listIndexValue(), row);
    }

    void testWaitingTexts_data()
    {
        QTest::addColumn<QString>("text");
        QTest::addColumn<qulonglong>("type");
        QTest::addColumn<QString>("shown"); // title|message; a number: a countdown from it
        QTest::addColumn<QString>("movie"); // in directory "/opt/x/"; empty: none
        auto row = [](const char *text, qulonglong type, const QString &shown,
                      const char *movie = "") {
            QTest::addRow("%llu: %s", type, text)
                    << QString(text) << type << shown << QString(movie);
        };
        const QString prompt = "|Please press OK button on USBKey";
        row("", 0, "Generate Key Pair|USBKey is generating key pair, please waiting...");
        row("1=11|2=22|4=44|3=x", 2, "Verify user pin|11");
        row("1=11|2=22|4=44|3=x", 5, "Trade Confirm|22");
        row("1=11|2=22|4=44|3=x", 6, "You will restore UKey to default status|44");
        row("1=11", 0xFFFFFFFF, "Unknown Type|unknown request 4294967295");
        row("1=-3", 4, "Unlock pin" + prompt);
        row("1=5=6|1=4|7|1=8s", 3, "Change user pin" + prompt);
        row("5=9|2=8|4=7|-1=3|1=2", 2, "Verify user pin|2");
        row("x=a.gif|0=b.gif", 2, "Verify user pin" + prompt, "/opt/x/b.gif");
    }

    // Title, text, countdown (its first tick shown at once) and picture from the request; a
    // missing picture shows nothing and no error.
    void testWaitingTexts()
    {
        QFETCH(QString, text);
        QFETCH(qulonglong, type);
        QFETCH(QString, shown);
        QFETCH(QString, movie);
        WaitingDialog dlg(text, ulong(type), 0, "/opt/x/", 1.0f);
        bool counting = false;
        const int from = shown.section('|', 1).toInt(&counting);
        QCOMPARE(dlg.windowTitle() + '|' + info(&dlg),
                 counting ? shown.section('|', 0, 0) + '|' + tick(from) : shown);
        QCOMPARE(dlg.isCounting(), counting);
        QCOMPARE(dlg.animation() ? dlg.animation()->fileName() : QString(), movie);
        QVERIFY(!dlg.animation() || !dlg.animation()->isValid());
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
            QTRY_COMPARE_WITH_TIMEOUT(info(&dlg), tick(shown), 5000);
            QVERIFY(clock.elapsed() >= 950 * (2 - shown) && (shown > 0 || dlg.size() == size));
            size = dlg.size();
        }
        QTRY_VERIFY_WITH_TIMEOUT(!dlg.isCounting(), 5000);
        QCOMPARE(info(&dlg), tick(0));
    }
};

QTEST_MAIN(TestDialogs)
#include "TestDialogs.moc"
