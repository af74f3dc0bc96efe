#include "ui/WaitingDialog.h"

#include "DialogChecks.h"

#include <QElapsedTimer>
#include <QFile>
#include <QLabel>
#include <QMovie>
#include <QTemporaryDir>
#include <QtTest>

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

const QString ButtonPrompt = QStringLiteral("Please press OK button on USBKey");

QString tickText(int seconds)
{
    return QStringLiteral("Please press OK button on USBKey in <font color=\"red\">%1</font> "
                          "second(s)")
            .arg(seconds);
}

QLabel *info(QWidget *dlg) { return dlg->findChild<QLabel *>("label_info"); }

} // namespace

class TestWaitingDialog : public QObject
{
    Q_OBJECT

private slots:
    void initTestCase();
    void testTypeTable_data();
    void testTypeTable();
    void testDrivenCountdown();
    void testInformationText_data();
    void testInformationText();
    void testAnimationName();
    void testAnimatedCountdownWindow();
    void testRealCountdown();

private:
    QTemporaryDir pictures;
};

void TestWaitingDialog::initTestCase()
{
    QVERIFY(pictures.isValid());
    QFile gif(pictures.filePath("wait.gif"));
    QVERIFY(gif.open(QIODevice::WriteOnly));
    const qint64 size = sizeof(TinyGif) - 1;
    QCOMPARE(gif.write(TinyGif, size), size);
    gif.close();

    // The test's own picture must be a real animation, or the movie checks prove nothing.
    QMovie check(gif.fileName());
    QVERIFY(check.isValid());
    QCOMPARE(check.frameCount(), 2);
}

void TestWaitingDialog::testTypeTable_data()
{
    QTest::addColumn<qulonglong>("type");
    QTest::addColumn<QString>("title");
    QTest::addColumn<QString>("message");
    QTest::addColumn<int>("countdownFrom"); // with "1=11|2=22|4=44"; 0: none

    const QString keyGen = "USBKey is generating key pair, please waiting...";
    QTest::newRow("0") << qulonglong(0) << "Generate Key Pair" << keyGen << 22;
    QTest::newRow("1") << qulonglong(1) << "Transmit Signature Data"
                       << "USBKey is Transmitting Signature Data, please waiting..." << 22;
    QTest::newRow("2") << qulonglong(2) << "Verify user pin" << ButtonPrompt << 11;
    QTest::newRow("5") << qulonglong(5) << "Trade Confirm"
                       << "You will do trade signature! Please check the data on the usbkey screen"
                       << 22;
    QTest::newRow("6") << qulonglong(6) << "You will restore UKey to default status" << ButtonPrompt
                       << 44;
    QTest::newRow("10") << qulonglong(10) << "You will set the user pin" << ButtonPrompt << 11;
    QTest::newRow("11") << qulonglong(11) << "Unknown Type"
                        << "unknown request 11" << 0;
    QTest::newRow("max") << qulonglong(0xFFFFFFFFul) << "Unknown Type"
                         << "unknown request 4294967295" << 0;
}

void TestWaitingDialog::testTypeTable()
{
    QFETCH(qulonglong, type);
    QFETCH(QString, title);
    QFETCH(QString, message);
    QFETCH(int, countdownFrom);
    const auto code = static_cast<unsigned long>(type);

    // Without limits: the table's message stays.
    {
        WaitingDialog dlg("", code, 0, "", 1.0f);
        QCOMPARE(dlg.windowTitle(), title);
        QCOMPARE(info(&dlg)->text(), message);
        QVERIFY(!dlg.isCounting());
        QCOMPARE(dlg.animation(), nullptr);
    }
    // With all three limits: the type picks one, and the first tick shows it at once.
    WaitingDialog dlg("1=11|2=22|4=44|3=sign", code, 0, "", 1.0f);
    QCOMPARE(dlg.windowTitle(), title);
    if (countdownFrom > 0) {
        QVERIFY(dlg.isCounting());
        QCOMPARE(info(&dlg)->text(), tickText(countdownFrom));
        QCOMPARE(dlg.remainingCountdown(), countdownFrom - 1);
    } else {
        QVERIFY(!dlg.isCounting());
        QCOMPARE(info(&dlg)->text(), message);
    }
}

void TestWaitingDialog::testDrivenCountdown()
{
    // Ticks are driven by hand; no event loop runs, so the real timer cannot interleave.
    WaitingDialog dlg("1=30", 2, 0, "", 1.0f);
    QCOMPARE(dlg.windowTitle(), QStringLiteral("Verify user pin"));
    QCOMPARE(info(&dlg)->text(), tickText(30));
    QVERIFY(dlg.isCounting());

    for (int shown = 29; shown >= 0; --shown) {
        QVERIFY2(dlg.isCounting(), qPrintable(QString("stopped before showing %1").arg(shown)));
        dlg.refreshtimeout();
        QCOMPARE(info(&dlg)->text(), tickText(shown));
    }
    QVERIFY(!dlg.isCounting());
    QCOMPARE(dlg.remainingCountdown(), -1);
}

void TestWaitingDialog::testInformationText_data()
{
    QTest::addColumn<QString>("text");
    QTest::addColumn<int>("countdownFrom"); // type 2 (timeout1); 0: none

    QTest::newRow("negative") << "1=-3" << 0;
    QTest::newRow("no equals sign") << "1" << 0;
    QTest::newRow("two equals signs") << "1=5=6" << 0;
    QTest::newRow("malformed ignored, good kept") << "1=5=6|1=4|7" << 4;
    QTest::newRow("later overwrites") << "1=3|1=9" << 9;
    QTest::newRow("empty items") << "|1=4||" << 4;
    QTest::newRow("trailing garbage") << "1=4s" << 0;
    QTest::newRow("other keys ignored") << "5=9|2=8|4=7|-1=3|1=2" << 2;
    QTest::newRow("non-numeric key is the picture") << "x=5" << 0;
    QTest::newRow("sign info only logged") << "3=1=2|3=pay 10|1=7" << 7;
}

void TestWaitingDialog::testInformationText()
{
    QFETCH(QString, text);
    QFETCH(int, countdownFrom);

    WaitingDialog dlg(text, 2, 0, "", 1.0f);
    QCOMPARE(dlg.isCounting(), countdownFrom > 0);
    QCOMPARE(info(&dlg)->text(), countdownFrom > 0 ? tickText(countdownFrom) : ButtonPrompt);
}

void TestWaitingDialog::testAnimationName()
{
    const struct
    {
        const char *text, *directory, *file; // file "": no movie
    } cases[] = {{"x=foo.gif", "/opt/x/", "/opt/x/foo.gif"},
                 {"0=wait.gif", "/opt/x", "/opt/xwait.gif"}, // joined as they stand
                 {"0=a.gif|0=b.gif", "/p/", "/p/b.gif"},
                 {"0=", "/opt/x/", ""},
                 {"1=3", "/opt/x/", ""}};
    for (const auto &c : cases) {
        WaitingDialog dlg(c.text, 2, 0, c.directory, 1.0f);
        QCOMPARE(dlg.animation() ? dlg.animation()->fileName() : QString(), QString(c.file));
        // A missing file shows nothing and is no error.
        QVERIFY(!dlg.animation() || !dlg.animation()->isValid());
    }
}

// "2=5|0=wait.gif" type 5: a running animation and a countdown from 5, in a scaled fixed
// size that re-layouts (a tick, animation frames) keep, centred again after a tick.
void TestWaitingDialog::testAnimatedCountdownWindow()
{
    const QString dir = pictures.path() + "/";
    WaitingDialog base("2=5|0=wait.gif", 5, 0, dir, 1.0f);
    WaitingDialog scaled("2=5|0=wait.gif", 5, 0, dir, 1.5f);
    QCOMPARE(info(&scaled)->text(), tickText(5));
    // A driven tick (no event loop has run yet) re-sizes and re-centres.
    base.refreshtimeout();
    scaled.refreshtimeout();
    QCOMPARE(info(&scaled)->text(), tickText(4));
    verifyScaledWindow(base, scaled, 1.5, true);
    const QSize fixed = scaled.size();

    QMovie *movie = scaled.animation();
    QVERIFY(movie);
    QCOMPARE(movie->fileName(), dir + "wait.gif");
    QCOMPARE(scaled.findChild<QLabel *>("label_gif")->movie(), movie);
    const int first = movie->currentFrameNumber();
    QTRY_VERIFY_WITH_TIMEOUT(movie->currentFrameNumber() != first, 5000);
    QCOMPARE(movie->state(), QMovie::Running);
    QCOMPARE(scaled.size(), fixed);
}

// Real seconds: shows 2 at once, then 1 and 0 no sooner than a second apart, then stops.
void TestWaitingDialog::testRealCountdown()
{
    QElapsedTimer clock;
    clock.start();
    WaitingDialog dlg("1=2", 2, 0, "", 1.0f);
    QCOMPARE(info(&dlg)->text(), tickText(2));
    for (int shown = 1; shown >= 0; --shown) {
        QTRY_COMPARE_WITH_TIMEOUT(info(&dlg)->text(), tickText(shown), 5000);
        QVERIFY2(clock.elapsed() >= 950 * (2 - shown),
                 qPrintable(QString::number(clock.elapsed())));
    }
    QTRY_VERIFY_WITH_TIMEOUT(!dlg.isCounting(), 5000);
    QCOMPARE(info(&dlg)->text(), tickText(0));
}

QTEST_MAIN(TestWaitingDialog)
#include "TestWaitingDialog.moc"
