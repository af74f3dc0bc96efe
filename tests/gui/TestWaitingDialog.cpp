#include "WaitingDialog.h"

#include <QAbstractEventDispatcher>
#include <QApplication>
#include <QDesktopWidget>
#include <QDir>
#include <QElapsedTimer>
#include <QFile>
#include <QIcon>
#include <QLabel>
#include <QMovie>
#include <QTemporaryDir>
#include <QTextDocument>
#include <QTimer>
#include <QTranslator>
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

QString outputDir()
{
    QString dir = qEnvironmentVariable("ZRUI_TEST_OUTPUT");
    if (dir.isEmpty())
        dir = QDir::currentPath() + "/test-output";
    QDir().mkpath(dir);
    return dir;
}

// Marks every text of the waiting dialog's context.
class MarkingTranslator : public QTranslator
{
public:
    bool isEmpty() const override { return false; }
    QString translate(const char *context, const char *sourceText, const char * = nullptr,
                      int = -1) const override
    {
        if (qstrcmp(context, "WaitingDialog") == 0)
            return QStringLiteral("T<") + QString::fromUtf8(sourceText) + QStringLiteral(">");
        return QString();
    }
};

} // namespace

class TestWaitingDialog : public QObject
{
    Q_OBJECT

private slots:
    void initTestCase();
    void testTypeTable_data();
    void testTypeTable();
    void testDrivenCountdown();
    void testSameTextOtherType();
    void testInformationText_data();
    void testInformationText();
    void testTimeoutArgumentUnused_data();
    void testTimeoutArgumentUnused();
    void testLogLines();
    void testTranslatedTexts();
    void testAnimation();
    void testAnimationName_data();
    void testAnimationName();
    void testWindowSetupAndScale_data();
    void testWindowSetupAndScale();
    void testRealCountdownIsPrecise();
    void testScreenshots();

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
    QTest::newRow("3") << qulonglong(3) << "Change user pin" << ButtonPrompt << 11;
    QTest::newRow("4") << qulonglong(4) << "Unlock pin" << ButtonPrompt << 11;
    QTest::newRow("5") << qulonglong(5) << "Trade Confirm"
                       << "You will do trade signature! Please check the data on the usbkey screen"
                       << 22;
    QTest::newRow("6") << qulonglong(6) << "You will restore UKey to default status" << ButtonPrompt
                       << 44;
    QTest::newRow("7") << qulonglong(7) << "Generate Key Pair" << keyGen << 22;
    QTest::newRow("8") << qulonglong(8) << "Verify admin pin" << ButtonPrompt << 11;
    QTest::newRow("9") << qulonglong(9) << "Change admin pin" << ButtonPrompt << 11;
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
    // The tick is the class's one and only own meta-method (index 0): no signals.
    const QMetaObject &meta = WaitingDialog::staticMetaObject;
    QCOMPARE(meta.methodCount() - meta.methodOffset(), 1);
    QCOMPARE(meta.method(meta.methodOffset()).methodSignature(), QByteArray("refreshtimeout()"));
    QCOMPARE(meta.method(meta.methodOffset()).methodType(), QMetaMethod::Slot);

    // Ticks are driven by hand; no event loop runs, so the real timer cannot interleave.
    WaitingDialog dlg("1=30", 2, 0, "", 1.0f);
    QCOMPARE(dlg.windowTitle(), QStringLiteral("Verify user pin"));
    QCOMPARE(info(&dlg)->text(), tickText(30));
    QVERIFY(Qt::mightBeRichText(info(&dlg)->text()));
    QVERIFY(dlg.isCounting());

    for (int shown = 29; shown >= 0; --shown) {
        QVERIFY2(dlg.isCounting(), qPrintable(QString("stopped before showing %1").arg(shown)));
        dlg.refreshtimeout();
        QCOMPARE(info(&dlg)->text(), tickText(shown));
    }
    QVERIFY(!dlg.isCounting());
    QCOMPARE(dlg.remainingCountdown(), -1);
    // The window stays up showing 0.
    QCOMPARE(info(&dlg)->text(), tickText(0));
}

void TestWaitingDialog::testSameTextOtherType()
{
    WaitingDialog dlg("1=30", 0, 0, "", 1.0f);
    QVERIFY(!dlg.isCounting());
    QCOMPARE(dlg.windowTitle(), QStringLiteral("Generate Key Pair"));
    QCOMPARE(info(&dlg)->text(),
             QStringLiteral("USBKey is generating key pair, please waiting..."));
}

void TestWaitingDialog::testInformationText_data()
{
    QTest::addColumn<QString>("text");
    QTest::addColumn<int>("countdownFrom"); // type 2 (timeout1); 0: none

    QTest::newRow("negative") << "1=-3" << 0;
    QTest::newRow("zero") << "1=0" << 0;
    QTest::newRow("no equals sign") << "1" << 0;
    QTest::newRow("two equals signs") << "1=5=6" << 0;
    QTest::newRow("malformed ignored, good kept") << "1=5=6|1=4|7" << 4;
    QTest::newRow("later overwrites") << "1=3|1=9" << 9;
    QTest::newRow("later non-number overwrites with 0") << "1=9|1=abc" << 0;
    QTest::newRow("empty items") << "|1=4||" << 4;
    QTest::newRow("leading zero key") << "01=6" << 6;
    QTest::newRow("hex is not a number") << "1=0x10" << 0;
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

void TestWaitingDialog::testTimeoutArgumentUnused_data()
{
    QTest::addColumn<int>("timeout");
    QTest::newRow("0") << 0;
    QTest::newRow("-1") << -1;
    QTest::newRow("5") << 5;
    QTest::newRow("100000") << 100000;
}

void TestWaitingDialog::testTimeoutArgumentUnused()
{
    QFETCH(int, timeout);
    WaitingDialog counting("1=12", 3, timeout, "", 1.0f);
    QCOMPARE(info(&counting)->text(), tickText(12));
    QCOMPARE(counting.remainingCountdown(), 11);

    WaitingDialog idle("", 3, timeout, "", 1.0f);
    QVERIFY(!idle.isCounting());
    QCOMPARE(info(&idle)->text(), ButtonPrompt);
}

void TestWaitingDialog::testLogLines()
{
    const QString dir = pictures.path() + "/";
    QTest::ignoreMessage(QtDebugMsg, "WaitingDialog() called");
    QTest::ignoreMessage(
            QtDebugMsg,
            "WaitingDialog:pPath= \"wait.gif\" ,dialogtype= 5 ,timeout1= 1 ,timeout2= 2 "
            ",timeout4= 4 , signinfo= \"pay 10\"");
    QTest::ignoreMessage(QtDebugMsg, QString("\"%1wait.gif\"").arg(dir).toUtf8().constData());
    QTest::ignoreMessage(QtDebugMsg, "QImageReader:size= QSize(8, 8)");
    QTest::ignoreMessage(QtDebugMsg, "label_gif:size= QSize(8, 8)");
    QTest::ignoreMessage(QtDebugMsg, "2 seconds");
    QTest::ignoreMessage(QtDebugMsg,
                         QRegularExpression("^dialog base size QSize\\(\\d+, \\d+\\)$"));
    QTest::ignoreMessage(QtDebugMsg,
                         QRegularExpression("^dialog adjust size QSize\\(\\d+, \\d+\\)$"));
    WaitingDialog dlg("1=1|2=2|3=pay 10|4=4|0=wait.gif", 5, 0, dir, 1.0f);

    QTest::ignoreMessage(QtDebugMsg, "1 seconds");
    dlg.refreshtimeout();
    QTest::ignoreMessage(QtDebugMsg, "0 seconds");
    dlg.refreshtimeout();
    QVERIFY(!dlg.isCounting());
}

void TestWaitingDialog::testTranslatedTexts()
{
    MarkingTranslator translator;
    QVERIFY(QCoreApplication::installTranslator(&translator));
    WaitingDialog counting("1=30", 9, 0, "", 1.0f);
    WaitingDialog unknown("", 12, 0, "", 1.0f);
    WaitingDialog idle("", 1, 0, "", 1.0f);
    QCoreApplication::removeTranslator(&translator);

    QCOMPARE(counting.windowTitle(), QStringLiteral("T<Change admin pin>"));
    QCOMPARE(info(&counting)->text(), "T<" + tickText(30) + ">");
    QCOMPARE(unknown.windowTitle(), QStringLiteral("T<Unknown Type>"));
    QCOMPARE(info(&unknown)->text(), QStringLiteral("T<unknown request 12>"));
    QCOMPARE(info(&idle)->text(),
             QStringLiteral("T<USBKey is Transmitting Signature Data, please waiting...>"));
}

void TestWaitingDialog::testAnimation()
{
    const QString dir = pictures.path() + "/";
    WaitingDialog dlg("2=5|0=wait.gif", 5, 0, dir, 1.0f);
    dlg.show();
    QVERIFY(QTest::qWaitForWindowExposed(&dlg));

    QMovie *movie = dlg.animation();
    QVERIFY(movie);
    QCOMPARE(movie->fileName(), dir + "wait.gif");
    auto *gif = dlg.findChild<QLabel *>("label_gif");
    QCOMPARE(gif->movie(), movie);
    QCOMPARE(gif->minimumSize(), QSize(8, 8));
    QCOMPARE(movie->state(), QMovie::Running);
    // It really animates: the frame number moves on.
    const int first = movie->currentFrameNumber();
    QTRY_VERIFY_WITH_TIMEOUT(movie->currentFrameNumber() != first, 2000);
    QCOMPARE(movie->state(), QMovie::Running);

    QCOMPARE(dlg.windowTitle(), QStringLiteral("Trade Confirm"));
    QVERIFY(dlg.isCounting());
    // Shows 5 at once; the real timer may have ticked since, never more than once per second.
    QVERIFY(info(&dlg)->text() == tickText(5) || info(&dlg)->text() == tickText(4));
}

void TestWaitingDialog::testAnimationName_data()
{
    QTest::addColumn<QString>("text");
    QTest::addColumn<QString>("directory");
    QTest::addColumn<QString>("expectedFile"); // empty: no movie

    QTest::newRow("non-numeric key") << "x=foo.gif"
                                     << "/opt/x/"
                                     << "/opt/x/foo.gif";
    QTest::newRow("key 0") << "0=wait.gif"
                           << "/opt/x/"
                           << "/opt/x/wait.gif";
    QTest::newRow("joined as they stand") << "0=wait.gif"
                                          << "/opt/x"
                                          << "/opt/xwait.gif";
    QTest::newRow("later wins") << "0=a.gif|0=b.gif"
                                << "/p/"
                                << "/p/b.gif";
    QTest::newRow("empty name") << "0="
                                << "/opt/x/"
                                << "";
    QTest::newRow("no name") << "1=3"
                             << "/opt/x/"
                             << "";
}

void TestWaitingDialog::testAnimationName()
{
    QFETCH(QString, text);
    QFETCH(QString, directory);
    QFETCH(QString, expectedFile);

    WaitingDialog dlg(text, 2, 0, directory, 1.0f);
    if (expectedFile.isEmpty()) {
        QCOMPARE(dlg.animation(), nullptr);
    } else {
        QVERIFY(dlg.animation());
        QCOMPARE(dlg.animation()->fileName(), expectedFile);
        // A missing file shows nothing and is no error.
        QVERIFY(!dlg.animation()->isValid());
    }
}

void TestWaitingDialog::testWindowSetupAndScale_data()
{
    QTest::addColumn<QString>("text");
    QTest::addColumn<qulonglong>("type");
    QTest::newRow("plain") << "" << qulonglong(0);
    QTest::newRow("counting") << "1=30" << qulonglong(2);
    QTest::newRow("animated") << "0=wait.gif" << qulonglong(1);
    QTest::newRow("animated, counting") << "2=30|0=wait.gif" << qulonglong(5);
}

void TestWaitingDialog::testWindowSetupAndScale()
{
    QFETCH(QString, text);
    QFETCH(qulonglong, type);
    const auto code = static_cast<unsigned long>(type);

    const QString dir = pictures.path() + "/";
    WaitingDialog base(text, code, 0, dir, 1.0f);
    WaitingDialog scaled(text, code, 0, dir, 1.5f);

    // Set as minimise + stay-on-top only, without the customise hint: Qt then
    // adds the title and system-menu hints, and nothing else (no close or
    // maximise button hint, no dialog or tool type).
    QCOMPARE(scaled.windowFlags(), Qt::Window | Qt::WindowTitleHint | Qt::WindowSystemMenuHint
                                           | Qt::WindowMinimizeButtonHint
                                           | Qt::WindowStaysOnTopHint);
    QVERIFY(scaled.testAttribute(Qt::WA_ShowModal));
    const QImage icon = QIcon(":/images/logo.ico").pixmap(4, 4).toImage();
    QVERIFY(!icon.isNull());
    QCOMPARE(scaled.windowIcon().pixmap(4, 4).toImage(), icon);

    const QSize adjusted = base.size();
    QVERIFY(adjusted.height() >= 40 + 2 * 11);
    const QSize expected(qRound(adjusted.width() * 1.5), qRound(adjusted.height() * 1.5));
    QCOMPARE(scaled.size(), expected);
    QCOMPARE(scaled.minimumSize(), expected);
    QCOMPARE(scaled.maximumSize(), expected);
    const QDesktopWidget *desktop = QApplication::desktop();
    QCOMPARE(scaled.pos(), QPoint((desktop->width() - expected.width()) / 2,
                                  (desktop->height() - expected.height()) / 2));

    // Laying out again (show, animation frames, a tick) keeps the scaled size.
    scaled.show();
    QVERIFY(QTest::qWaitForWindowExposed(&scaled));
    QCoreApplication::processEvents();
    QCOMPARE(scaled.size(), expected);
    if (QMovie *movie = scaled.animation()) {
        const int frame = movie->currentFrameNumber();
        QTRY_VERIFY(movie->currentFrameNumber() != frame);
        QCOMPARE(scaled.size(), expected);
    }
    if (scaled.isCounting()) {
        base.refreshtimeout();
        scaled.refreshtimeout();
        QCoreApplication::processEvents();
        const QSize after(qRound(base.width() * 1.5), qRound(base.height() * 1.5));
        QCOMPARE(scaled.size(), after);
        QCOMPARE(scaled.pos(), QPoint((desktop->width() - after.width()) / 2,
                                      (desktop->height() - after.height()) / 2));
    }
}

void TestWaitingDialog::testRealCountdownIsPrecise()
{
    // Three real seconds: shows 3 at once, then 2, 1, 0 a second apart, then stops.
    QElapsedTimer clock;
    clock.start();
    WaitingDialog dlg("1=3", 2, 0, "", 1.0f);
    QVERIFY(dlg.isCounting());

    QList<qint64> ticks;
    QString lastText = info(&dlg)->text();
    // Wakes the loop now and then, so a broken timer ends in a failure, not a hang.
    QTimer watchdog;
    watchdog.start(250);
    while (dlg.isCounting() && clock.elapsed() < 6000) {
        QAbstractEventDispatcher::instance()->processEvents(QEventLoop::WaitForMoreEvents);
        if (info(&dlg)->text() != lastText) {
            lastText = info(&dlg)->text();
            ticks << clock.elapsed();
        }
    }
    const qint64 total = clock.elapsed();
    QVERIFY2(!dlg.isCounting(), "the countdown did not stop within 6 s");
    QCOMPARE(info(&dlg)->text(), tickText(0));
    QCOMPARE(ticks.size(), 3);
    qInfo() << "ticks at" << ticks << "ms, stopped at" << total << "ms";
    QVERIFY2(total >= 2900 && total <= 3100, qPrintable(QString("stopped after %1 ms").arg(total)));
    for (int i = 0; i < ticks.size(); ++i)
        QVERIFY2(qAbs(ticks.at(i) - 1000 * (i + 1)) <= 100,
                 qPrintable(QString("tick %1 at %2 ms").arg(i + 1).arg(ticks.at(i))));
}

void TestWaitingDialog::testScreenshots()
{
    const QString dir = outputDir();
    const QString pictureDir = pictures.path() + "/";
    for (unsigned long type = 0; type <= 11; ++type) {
        // Every second type counts down, so both faces of the window are seen.
        const QString text = type % 2 ? QString("1=30|2=60|4=120|0=wait.gif") : QString();
        WaitingDialog dlg(text, type, 0, pictureDir, 1.0f);
        dlg.show();
        QVERIFY(QTest::qWaitForWindowExposed(&dlg));
        const QPixmap pixmap = dlg.grab();
        QCOMPARE(pixmap.size(), dlg.size());
        QVERIFY(pixmap.save(QString("%1/waiting_type%2.png").arg(dir).arg(type)));
    }
}

QTEST_MAIN(TestWaitingDialog)
#include "TestWaitingDialog.moc"
