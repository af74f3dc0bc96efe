#include "PINDialog.h"

#include "FakeUiStatus.h"
#include "SimpleSoftKeyboard.h"
#include "SoftKeyboard.h"

#include <QApplication>
#include <QClipboard>
#include <QDir>
#include <QLabel>
#include <QLineEdit>
#include <QMimeData>
#include <QPointer>
#include <QPushButton>
#include <QScreen>
#include <QToolButton>
#include <QTranslator>
#include <QWindow>
#include <QtTest>

#include <memory>

namespace {

// Debug lines of the code under test, collected in-process.
QStringList g_messages;
QtMessageHandler g_previousHandler = nullptr;

void collectMessages(QtMsgType type, const QMessageLogContext &context, const QString &message)
{
    g_messages.append(message);
    // QtTest's own failure output must still reach the console.
    if (type != QtDebugMsg && g_previousHandler)
        g_previousHandler(type, context, message);
}

int countMessages(const QString &text)
{
    return int(std::count(g_messages.cbegin(), g_messages.cend(), text));
}

// Answers like the real coordinator: Cancel hides and deletes the dialog
// inside the setter call, OK only hides it.
class CoordinatorLikeStatus : public FakeUiStatus
{
public:
    QPointer<PINDialog> dialog;
    void SetPINStatus(int status, unsigned char *buf, unsigned long len) override
    {
        FakeUiStatus::SetPINStatus(status, buf, len);
        if (status == 0 && dialog) {
            dialog->hide();
            delete dialog.data();
        } else if (status == 1 && dialog) {
            dialog->hide();
        }
    }
};

// Gives the annotation keys texts with placeholders, so the %1/%2 filling and
// the translation context can be seen.
class AnnotationTranslator : public QTranslator
{
public:
    bool isEmpty() const override { return false; }
    QString translate(const char *context, const char *sourceText, const char * = nullptr,
                      int = -1) const override
    {
        if (qstrcmp(context, "PINDialog") != 0)
            return QString();
        const QByteArray key(sourceText);
        if (key == "IDC_CUSTOM_PIN_ANNOTATION")
            return QStringLiteral("PIN of %1 to %2 characters");
        if (key == "comment_passwdinfo_verify")
            return QStringLiteral("Enter your PIN (%1-%2)");
        if (key == "IDC_CUSTOM_PIN_ANNOTATION_2")
            return QStringLiteral("Too weak");
        return QString();
    }
};

QByteArray le32(quint32 v)
{
    QByteArray out(4, '\0');
    for (int i = 0; i < 4; ++i)
        out[i] = char((v >> (8 * i)) & 0xFF);
    return out;
}

QByteArray pinBuffer(const QByteArray &oldPin, const QByteArray &newPin)
{
    return le32(quint32(oldPin.size())) + oldPin + le32(quint32(newPin.size())) + newPin;
}

QString outputDir()
{
    QString dir = qEnvironmentVariable("ZRUI_TEST_OUTPUT");
    if (dir.isEmpty())
        dir = QDir::currentPath() + "/test-output";
    QDir().mkpath(dir);
    return dir;
}

PINDialog::KeyBoardMode kbMode(int m) { return static_cast<PINDialog::KeyBoardMode>(m); }

} // namespace

/**
 * The PIN dialog as the user meets it: rows and titles per type, what OK hands
 * to the service byte for byte, the messages of a rejected OK, the input
 * filters and the closed doors (clipboard, selection, drops), the keyboard
 * panel, row alignment and the window-manager close.
 */
class TestPINDialog : public QObject
{
    Q_OBJECT

private slots:
    void initTestCase();
    void cleanupTestCase();
    void init();
    void cleanup();

    void testTypeTable_data();
    void testTypeTable();
    void testAnnotationTexts_data();
    void testAnnotationTexts();
    void testReTranslateUI_data();
    void testReTranslateUI();
    void testWindowSetup();
    void testConstructionLogLine();

    void testStrengthLabel_data();
    void testStrengthLabel();
    void testVerifyOkSendsBytes();
    void testVerifyOkByReturnInOldField();
    void testSetOkSendsFourteenBytes();
    void testChangeOkSendsUtf8Lengths();
    void testUnblockSendsAdminPinOnly();
    void testChangeRejectsNewPin_data();
    void testChangeRejectsNewPin();
    void testOldPinTooShort();
    void testReturnInConfirmActsAsOk();
    void testCancelReportsZero();
    void testCancelWithCoordinatorDeletesDialog();

    void testSimpleModeFilter_data();
    void testSimpleModeFilter();
    void testClipboardShortcutsSwallowed();
    void testMiddleClickPasteIgnored();
    void testDropIgnored();

    void testKeyboardPanelStartsHidden_data();
    void testKeyboardPanelStartsHidden();
    void testScaledKeyboardFitsPanel_data();
    void testScaledKeyboardFitsPanel();
    void testToggleKeepsWindowY();
    void testChangeDialogRowsAlign();
    void testSetDialogRowsAlign();
    void testKeyboardInputGoesToFocusedField();
    void testFocusInLogged();
    void testSetWindowAcitiveStopsWhenActive();
    void testSetWindowAcitiveRetriesWhileInactive();

    void testWindowManagerCloseAnswersCancelOnce();
    void testWindowManagerCloseWithCoordinator();
    void testCloseAfterOkKeepsOk();
    void testCoordinatorDeleteReportsNothing();

    void testScreenshots_data();
    void testScreenshots();

private:
    std::unique_ptr<PINDialog> showDialog(ulong type, int keyboardMode = PINDialog::FullKeyBoard,
                                          FakeUiStatus *status = nullptr);
    static QLineEdit *edit(QWidget *dlg, const char *name);
    static QLabel *label(QWidget *dlg, const char *name);
    static QString comments(QWidget *dlg);

    FakeUiStatus fake{6, 16};
};

void TestPINDialog::initTestCase() { g_previousHandler = qInstallMessageHandler(collectMessages); }

void TestPINDialog::cleanupTestCase() { qInstallMessageHandler(g_previousHandler); }

void TestPINDialog::init()
{
    fake.SetPINStatus(-1, nullptr, 0);
    fake.pinReports = 0;
    g_messages.clear();
}

void TestPINDialog::cleanup()
{
    // Let queued calls of deleted dialogs drain before the next case.
    QCoreApplication::sendPostedEvents();
    QCoreApplication::processEvents();
}

std::unique_ptr<PINDialog> TestPINDialog::showDialog(ulong type, int keyboardMode,
                                                     FakeUiStatus *status)
{
    std::unique_ptr<PINDialog> dlg(
            new PINDialog(kbMode(keyboardMode), false, type, status ? status : &fake, 1.0f));
    dlg->show();
    dlg->activateWindow();
    if (!QTest::qWaitForWindowActive(dlg.get()))
        qWarning("dialog did not become active");
    return dlg;
}

QLineEdit *TestPINDialog::edit(QWidget *dlg, const char *name)
{
    return dlg->findChild<QLineEdit *>(QString::fromLatin1(name));
}

QLabel *TestPINDialog::label(QWidget *dlg, const char *name)
{
    return dlg->findChild<QLabel *>(QString::fromLatin1(name));
}

QString TestPINDialog::comments(QWidget *dlg) { return label(dlg, "label_comments")->text(); }

void TestPINDialog::testTypeTable_data()
{
    QTest::addColumn<ulong>("type");
    QTest::addColumn<QString>("title");
    QTest::addColumn<uint>("mode");
    QTest::addColumn<bool>("oldRow");
    QTest::addColumn<bool>("newRow");
    QTest::addColumn<bool>("oldButton");
    QTest::addColumn<bool>("newButton");
    QTest::addColumn<QString>("oldLabel");
    QTest::addColumn<QString>("newLabel");
    QTest::addColumn<QString>("confirmLabel");

    QTest::newRow("0 verify") << 0ul << "Verify USBKey password" << 0u << true << false << true
                              << false << "Input User Pin:"
                              << "New PIN:"
                              << "Confirm PIN:";
    QTest::newRow("1 so verify") << 1ul << "Verify USBKey so password" << 1u << true << false
                                 << true << false << "Input Admin Pin:"
                                 << "New PIN:"
                                 << "Confirm PIN:";
    QTest::newRow("2 change") << 2ul << "Change USBKey password" << 2u << true << true << false
                              << true << "Old PIN:"
                              << "New PIN:"
                              << "Confirm PIN:";
    QTest::newRow("3 so change") << 3ul << "Change USBKey so password" << 3u << true << true
                                 << false << true << "Old PIN:"
                                 << "New PIN:"
                                 << "Confirm PIN:";
    QTest::newRow("4 unblock") << 4ul << "Unblock USBKey password" << 4u << true << false << true
                               << false << "Input Admin Pin:"
                               << "New PIN:"
                               << "Confirm PIN:";
    QTest::newRow("5 set") << 5ul << "Set USBKey password" << 6u << false << true << false << true
                           << "Old PIN:"
                           << "USBKey Passwd:"
                           << "Passwd Confirm:";
}

void TestPINDialog::testTypeTable()
{
    QFETCH(ulong, type);
    QFETCH(QString, title);
    QFETCH(uint, mode);
    QFETCH(bool, oldRow);
    QFETCH(bool, newRow);
    QFETCH(bool, oldButton);
    QFETCH(bool, newButton);
    QFETCH(QString, oldLabel);
    QFETCH(QString, newLabel);
    QFETCH(QString, confirmLabel);

    auto dlg = showDialog(type);
    QCOMPARE(dlg->windowTitle(), title);
    QCOMPARE(dlg->dialogMode(), mode);
    QCOMPARE(label(dlg.get(), "label_oldPin")->isVisible(), oldRow);
    QCOMPARE(edit(dlg.get(), "lineEdit_oldPin")->isVisible(), oldRow);
    QCOMPARE(label(dlg.get(), "label_newPin")->isVisible(), newRow);
    QCOMPARE(edit(dlg.get(), "lineEdit_newPin")->isVisible(), newRow);
    QCOMPARE(label(dlg.get(), "label_confirmPin")->isVisible(), newRow);
    QCOMPARE(edit(dlg.get(), "lineEdit_confirmPin")->isVisible(), newRow);
    QCOMPARE(dlg->findChild<QToolButton *>("toolButtonold_softkeyboard")->isVisible(), oldButton);
    QCOMPARE(dlg->findChild<QToolButton *>("toolButtonnew_softkeyboard")->isVisible(), newButton);
    QVERIFY(!dlg->findChild<QToolButton *>("toolButton_hide2")->isVisible());
    QCOMPARE(label(dlg.get(), "label_oldPin")->text(), oldLabel);
    QCOMPARE(label(dlg.get(), "label_newPin")->text(), newLabel);
    QCOMPARE(label(dlg.get(), "label_confirmPin")->text(), confirmLabel);
    QCOMPARE(comments(dlg.get()), QString());
    QVERIFY(dlg->testAttribute(Qt::WA_ShowModal));
}

void TestPINDialog::testAnnotationTexts_data()
{
    QTest::addColumn<ulong>("type");
    QTest::addColumn<QString>("annotation");

    QTest::newRow("0") << 0ul << "Enter your PIN (4-12)";
    for (ulong t = 1; t <= 5; ++t)
        QTest::newRow(qPrintable(QString::number(t))) << t << "PIN of 4 to 12 characters";
}

void TestPINDialog::testAnnotationTexts()
{
    QFETCH(ulong, type);
    QFETCH(QString, annotation);
    AnnotationTranslator translator;
    QCoreApplication::installTranslator(&translator);
    FakeUiStatus status(4, 12);
    PINDialog dlg(PINDialog::FullKeyBoard, false, type, &status, 1.0f);
    QCOMPARE(label(&dlg, "label_fixcomment")->text(), annotation);
    QCOMPARE(label(&dlg, "label_fixcomment")->styleSheet(), QString("margin-left:10px;"));
    QCoreApplication::removeTranslator(&translator);
}

void TestPINDialog::testReTranslateUI_data()
{
    QTest::addColumn<ulong>("type");
    QTest::addColumn<QString>("oldLabel");
    QTest::addColumn<QString>("newLabel");
    QTest::addColumn<QString>("confirmLabel");

    // Narrower than the constructor: mode 1 falls back to "Old PIN:", the set
    // dialog to the form's labels.
    QTest::newRow("0") << 0ul << "Input User Pin:"
                       << "New PIN:"
                       << "Confirm PIN:";
    QTest::newRow("1") << 1ul << "Old PIN:"
                       << "New PIN:"
                       << "Confirm PIN:";
    QTest::newRow("2") << 2ul << "Old PIN:"
                       << "New PIN:"
                       << "Confirm PIN:";
    QTest::newRow("4") << 4ul << "Input Admin Pin:"
                       << "New PIN:"
                       << "Confirm PIN:";
    QTest::newRow("5") << 5ul << "Old PIN:"
                       << "New PIN:"
                       << "Confirm PIN:";
}

void TestPINDialog::testReTranslateUI()
{
    QFETCH(ulong, type);
    QFETCH(QString, oldLabel);
    QFETCH(QString, newLabel);
    QFETCH(QString, confirmLabel);
    AnnotationTranslator translator;
    QCoreApplication::installTranslator(&translator);
    FakeUiStatus status(4, 12);
    PINDialog dlg(PINDialog::FullKeyBoard, false, type, &status, 1.0f);
    label(&dlg, "label_comments")->setText("stale");
    status.pinMin = 5;
    dlg.ReTranslateUI();
    QCOMPARE(dlg.windowTitle(), QString("Form"));
    QCOMPARE(label(&dlg, "label_oldPin")->text(), oldLabel);
    QCOMPARE(label(&dlg, "label_newPin")->text(), newLabel);
    QCOMPARE(label(&dlg, "label_confirmPin")->text(), confirmLabel);
    QCOMPARE(label(&dlg, "label_comments")->text(), QString());
    // Every mode, the verify dialog too, gets the general annotation with the current bounds.
    QCOMPARE(label(&dlg, "label_fixcomment")->text(), QString("PIN of 5 to 12 characters"));
    QCoreApplication::removeTranslator(&translator);
}

void TestPINDialog::testWindowSetup()
{
    FakeUiStatus status(6, 12);
    PINDialog dlg(PINDialog::SimpleKeyBoard, true, 2, &status, 1.0f);
    const Qt::WindowFlags flags = dlg.windowFlags();
    QVERIFY(flags.testFlag(Qt::CustomizeWindowHint));
    QVERIFY(flags.testFlag(Qt::WindowTitleHint));
    QVERIFY(flags.testFlag(Qt::WindowStaysOnTopHint));
    QVERIFY(!flags.testFlag(Qt::WindowCloseButtonHint));
    QVERIFY(dlg.testAttribute(Qt::WA_ShowModal));
    QVERIFY(dlg.isWindow());

    for (const char *name : {"lineEdit_oldPin", "lineEdit_newPin", "lineEdit_confirmPin"}) {
        QLineEdit *e = edit(&dlg, name);
        QCOMPARE(e->maxLength(), 12);
        QCOMPARE(e->echoMode(), QLineEdit::Password);
        QCOMPARE(e->contextMenuPolicy(), Qt::NoContextMenu);
        QVERIFY(!e->acceptDrops());
    }
    QLabel *comment = label(&dlg, "label_comments");
    QCOMPARE(comment->styleSheet(), QString("QLabel\n{\n   margin-left:10px;\n\tcolor:red;\n}"));
    QCOMPARE(comment->minimumSize(), QSize(412, 40));
    QCOMPARE(dlg.findChild<QPushButton *>("pushButton_OK")->text(), QString("OK"));
    QCOMPARE(dlg.findChild<QPushButton *>("pushButton_Cancel")->text(), QString("Cancel"));
    QCOMPARE(dlg.findChild<QToolButton *>("toolButtonold_softkeyboard")->text(),
             QString("softkeyboard"));
    QVERIFY(dlg.findChild<QToolButton *>("toolButtonold_softkeyboard")->isCheckable());
    QVERIFY(dlg.findChild<QToolButton *>("toolButtonnew_softkeyboard")->isCheckable());

    // Centred on the desktop, integer division.
    const QSize desktop = QGuiApplication::primaryScreen()->virtualSize();
    QCOMPARE(dlg.pos(),
             QPoint((desktop.width() - dlg.width()) / 2, (desktop.height() - dlg.height()) / 2));
}

void TestPINDialog::testConstructionLogLine()
{
    {
        PINDialog dlg(PINDialog::FullKeyBoard, true, 3, &fake, 1.0f);
    }
    QVERIFY(!g_messages.isEmpty());
    QCOMPARE(g_messages.first(),
             QString("Create PINDialog: keyboardmode= 1 , keyboardvisible= true , type= 3"));
    g_messages.clear();
    {
        PINDialog dlg(PINDialog::SimpleKeyBoard, false, 0, &fake, 1.0f);
    }
    QCOMPARE(g_messages.first(),
             QString("Create PINDialog: keyboardmode= 0 , keyboardvisible= false , type= 0"));
    // The layout pass traces each of its steps once, in order.
    const QStringList steps = {"RefreshLayout: before adjust: QRect(",
                               "RefreshLayout: after adjust first time: QSize(",
                               "RefreshLayout: ui->label_oldPin->width()= ",
                               "RefreshLayout: pinlabelmaxlen= ",
                               "RefreshLayout: after adjust second time: QSize(",
                               "RefreshLayout: after adjust: QRect(",
                               "RefreshLayout: finally: QRect("};
    int at = 0;
    for (const QString &step : steps) {
        while (at < g_messages.size() && !g_messages.at(at).startsWith(step))
            ++at;
        QVERIFY2(at < g_messages.size(), qPrintable(step));
    }
    QVERIFY(!g_messages
                     .filter(QRegularExpression("^RefreshLayout: after adjust: QRect\\(.*\\) "
                                                ", keepWindowY= -?\\d+$"))
                     .isEmpty());
}

void TestPINDialog::testStrengthLabel_data()
{
    QTest::addColumn<QString>("pin");
    QTest::addColumn<QString>("text");

    const QString length = "The password must be 6-16 characters";
    QTest::newRow("111111") << "111111" << length;
    QTest::newRow("123456") << "123456" << length;
    QTest::newRow("654321") << "654321" << length;
    QTest::newRow("qwerty") << "qwerty" << length;
    QTest::newRow("QWERTY") << "QWERTY" << length;
    QTest::newRow("zxcvbn") << "zxcvbn" << length;
    QTest::newRow("1234567890-=") << "1234567890-=" << length;
    QTest::newRow("12345") << "12345" << length;
    QTest::newRow("banana") << "banana"
                            << "Pin:Weak";
    QTest::newRow("890123") << "890123"
                            << "Pin:Weak";
    QTest::newRow("a1b2c3") << "a1b2c3"
                            << "Pin:Normal";
    QTest::newRow("qw ert") << "qw ert"
                            << "Pin:Normal";
    QTest::newRow("aB3xY9") << "aB3xY9"
                            << "Pin:High";
}

void TestPINDialog::testStrengthLabel()
{
    QFETCH(QString, pin);
    QFETCH(QString, text);
    auto dlg = showDialog(2);
    QTest::keyClicks(edit(dlg.get(), "lineEdit_newPin"), pin);
    QCOMPARE(edit(dlg.get(), "lineEdit_newPin")->text(), pin);
    QCOMPARE(comments(dlg.get()), text);

    // Emptying the field leaves the last verdict standing.
    edit(dlg.get(), "lineEdit_newPin")->clear();
    QCOMPARE(comments(dlg.get()), text);
    // The confirm field never shows a verdict.
    label(dlg.get(), "label_comments")->clear();
    QTest::keyClicks(edit(dlg.get(), "lineEdit_confirmPin"), pin);
    QCOMPARE(comments(dlg.get()), QString());
    QCOMPARE(fake.pinReports.load(), 0);
}

void TestPINDialog::testVerifyOkSendsBytes()
{
    auto dlg = showDialog(0);
    g_messages.clear();
    QTest::keyClicks(edit(dlg.get(), "lineEdit_oldPin"), "aaaaaa");
    QTest::mouseClick(dlg->findChild<QPushButton *>("pushButton_OK"), Qt::LeftButton);
    QCOMPARE(fake.pinStatusValue(), 1);
    QCOMPARE(fake.pinReports.load(), 1);
    QCOMPARE(fake.lastPinBuffer(), QByteArray::fromHex("06000000616161616161"
                                                       "00000000"));
    QVERIFY(g_messages.contains("on_pushButton_OK_clicked()"));
    // The dialog neither clears nor closes itself: the service hides it.
    QCOMPARE(edit(dlg.get(), "lineEdit_oldPin")->text(), QString("aaaaaa"));
    QVERIFY(dlg->isVisible());
    // No PIN byte in any log line.
    for (const QString &m : qAsConst(g_messages))
        QVERIFY2(!m.contains("aaaaaa"), qPrintable(m));
}

void TestPINDialog::testVerifyOkByReturnInOldField()
{
    auto dlg = showDialog(1);
    QTest::keyClicks(edit(dlg.get(), "lineEdit_oldPin"), "12345678");
    QTest::keyClick(edit(dlg.get(), "lineEdit_oldPin"), Qt::Key_Return);
    QCOMPARE(fake.pinReports.load(), 1);
    QCOMPARE(fake.lastPinBuffer(), pinBuffer("12345678", ""));
}

void TestPINDialog::testSetOkSendsFourteenBytes()
{
    auto dlg = showDialog(5);
    QTest::keyClicks(edit(dlg.get(), "lineEdit_newPin"), "a1b2c3");
    QTest::keyClicks(edit(dlg.get(), "lineEdit_confirmPin"), "a1b2c3");
    QTest::mouseClick(dlg->findChild<QPushButton *>("pushButton_OK"), Qt::LeftButton);
    QCOMPARE(fake.pinStatusValue(), 1);
    const QByteArray expected = QByteArray::fromHex("00000000"
                                                    "06000000")
                                + "a1b2c3";
    QCOMPARE(expected.size(), 14);
    QCOMPARE(fake.lastPinBuffer(), expected);
}

void TestPINDialog::testChangeOkSendsUtf8Lengths()
{
    auto dlg = showDialog(2);
    // Lengths are UTF-8 byte counts, not character counts.
    const QString oldPin = QString::fromUtf8("p\xC3\xA4sswort");
    edit(dlg.get(), "lineEdit_oldPin")->setText(oldPin);
    edit(dlg.get(), "lineEdit_newPin")->setText("Abc123x");
    edit(dlg.get(), "lineEdit_confirmPin")->setText("Abc123x");
    QTest::mouseClick(dlg->findChild<QPushButton *>("pushButton_OK"), Qt::LeftButton);
    QCOMPARE(fake.pinReports.load(), 1);
    QCOMPARE(fake.lastPinBuffer(), QByteArray::fromHex("09000000") + "p\xC3\xA4sswort"
                                           + QByteArray::fromHex("07000000") + "Abc123x");
}

void TestPINDialog::testUnblockSendsAdminPinOnly()
{
    auto dlg = showDialog(4);
    // Only the administrator PIN: (L1, old, 0).
    QTest::keyClicks(edit(dlg.get(), "lineEdit_oldPin"), "admin0");
    QTest::mouseClick(dlg->findChild<QPushButton *>("pushButton_OK"), Qt::LeftButton);
    QCOMPARE(fake.lastPinBuffer(), pinBuffer("admin0", ""));
}

void TestPINDialog::testChangeRejectsNewPin_data()
{
    QTest::addColumn<QString>("newPin");
    QTest::addColumn<QString>("confirmPin");
    QTest::addColumn<QString>("text");

    const QString weak = "IDC_CUSTOM_PIN_ANNOTATION_2";
    QTest::newRow("weak banana") << "banana"
                                 << "banana" << weak;
    QTest::newRow("forbidden 111111") << "111111"
                                      << "111111" << weak;
    QTest::newRow("forbidden walk") << "qwerty"
                                    << "qwerty" << weak;
    QTest::newRow("mismatch") << "a1b2c3"
                              << "a1b2c4"
                              << "Please confirm that new USBKey password is entered identiacally!";
    QTest::newRow("case mismatch")
            << "aB3xY9"
            << "ab3xy9"
            << "Please confirm that new USBKey password is entered identiacally!";
    QTest::newRow("short") << "a1b"
                           << "a1b"
                           << "The password must be 6-16 characters";
    QTest::newRow("empty") << ""
                           << ""
                           << "The password must be 6-16 characters";
}

void TestPINDialog::testChangeRejectsNewPin()
{
    QFETCH(QString, newPin);
    QFETCH(QString, confirmPin);
    QFETCH(QString, text);
    auto dlg = showDialog(2);
    QTest::keyClicks(edit(dlg.get(), "lineEdit_oldPin"), "111111");
    QTest::keyClicks(edit(dlg.get(), "lineEdit_newPin"), newPin);
    QTest::keyClicks(edit(dlg.get(), "lineEdit_confirmPin"), confirmPin);
    QTest::mouseClick(dlg->findChild<QPushButton *>("pushButton_OK"), Qt::LeftButton);

    QCOMPARE(comments(dlg.get()), text);
    QCOMPARE(edit(dlg.get(), "lineEdit_newPin")->text(), QString());
    QCOMPARE(edit(dlg.get(), "lineEdit_confirmPin")->text(), QString());
    // A repeated old PIN is accepted and kept.
    QCOMPARE(edit(dlg.get(), "lineEdit_oldPin")->text(), QString("111111"));
    QTRY_VERIFY(edit(dlg.get(), "lineEdit_newPin")->hasFocus());
    QCOMPARE(fake.pinReports.load(), 0);
    QCOMPARE(fake.pinStatusValue(), -1);
}

void TestPINDialog::testOldPinTooShort()
{
    auto dlg = showDialog(2);
    QTest::keyClicks(edit(dlg.get(), "lineEdit_oldPin"), "12345");
    QTest::keyClicks(edit(dlg.get(), "lineEdit_newPin"), "a1b2c3");
    QTest::keyClicks(edit(dlg.get(), "lineEdit_confirmPin"), "a1b2c3");
    edit(dlg.get(), "lineEdit_confirmPin")->setFocus();
    QTest::mouseClick(dlg->findChild<QPushButton *>("pushButton_OK"), Qt::LeftButton);
    QCOMPARE(comments(dlg.get()), QString("The password must be 6-16 characters"));
    QCOMPARE(edit(dlg.get(), "lineEdit_oldPin")->text(), QString());
    // Only the old field is cleared.
    QCOMPARE(edit(dlg.get(), "lineEdit_newPin")->text(), QString("a1b2c3"));
    QTRY_VERIFY(edit(dlg.get(), "lineEdit_oldPin")->hasFocus());
    QCOMPARE(fake.pinReports.load(), 0);
}

void TestPINDialog::testReturnInConfirmActsAsOk()
{
    auto dlg = showDialog(3);
    QTest::keyClicks(edit(dlg.get(), "lineEdit_oldPin"), "oldpin");
    QTest::keyClicks(edit(dlg.get(), "lineEdit_newPin"), "n3wPin");
    QTest::keyClicks(edit(dlg.get(), "lineEdit_confirmPin"), "n3wPin");
    QTest::keyClick(edit(dlg.get(), "lineEdit_confirmPin"), Qt::Key_Return);
    QCOMPARE(fake.pinReports.load(), 1);
    QCOMPARE(fake.lastPinBuffer(), pinBuffer("oldpin", "n3wPin"));
    // Enter on the keypad too.
    QTest::keyClick(edit(dlg.get(), "lineEdit_confirmPin"), Qt::Key_Enter);
    QCOMPARE(fake.pinReports.load(), 2);
}

void TestPINDialog::testCancelReportsZero()
{
    auto dlg = showDialog(2);
    QTest::keyClicks(edit(dlg.get(), "lineEdit_oldPin"), "secret1");
    QTest::mouseClick(dlg->findChild<QPushButton *>("pushButton_Cancel"), Qt::LeftButton);
    QCOMPARE(fake.pinStatusValue(), 0);
    QCOMPARE(fake.pinReports.load(), 1);
    QCOMPARE(fake.lastPinBuffer(), QByteArray());
}

void TestPINDialog::testCancelWithCoordinatorDeletesDialog()
{
    CoordinatorLikeStatus status;
    status.dialog = new PINDialog(PINDialog::SimpleKeyBoard, false, 0, &status, 1.0f);
    status.dialog->show();
    QVERIFY(QTest::qWaitForWindowExposed(status.dialog.data()));
    QTest::mouseClick(status.dialog->findChild<QPushButton *>("pushButton_Cancel"), Qt::LeftButton);
    QVERIFY(status.dialog.isNull());
    QCOMPARE(status.pinStatusValue(), 0);
    QCOMPARE(status.pinReports.load(), 1);
}

void TestPINDialog::testSimpleModeFilter_data()
{
    QTest::addColumn<int>("keyboardMode");
    QTest::addColumn<QString>("input");
    QTest::addColumn<QString>("kept");
    QTest::addColumn<QString>("typed");

    const int simple = PINDialog::SimpleKeyBoard;
    QTest::newRow("simple cuts at #") << simple << "ab#cd"
                                      << "ab"
                                      << "abcd";
    QTest::newRow("simple cuts at blank") << simple << "a1 b2"
                                          << "a1"
                                          << "a1b2";
    QTest::newRow("simple cuts non-ASCII") << simple << QString::fromUtf8("x\xC3\xA4y") << "x"
                                           << "xy";
    QTest::newRow("simple keeps alnum") << simple << "aZ09"
                                        << "aZ09"
                                        << "aZ09";
    QTest::newRow("simple leading symbol") << simple << "#ab"
                                           << ""
                                           << "ab";
    QTest::newRow("full keeps") << int(PINDialog::FullKeyBoard) << "ab#cd"
                                << "ab#cd"
                                << "ab#cd";
}

void TestPINDialog::testSimpleModeFilter()
{
    QFETCH(int, keyboardMode);
    QFETCH(QString, input);
    QFETCH(QString, kept);
    QFETCH(QString, typed);
    auto dlg = showDialog(2, keyboardMode);
    for (const char *name : {"lineEdit_newPin", "lineEdit_confirmPin"}) {
        // Arriving in one step...
        edit(dlg.get(), name)->setText(input);
        QCOMPARE(edit(dlg.get(), name)->text(), kept);
        edit(dlg.get(), name)->clear();
        // ...and typed key by key: a refused character vanishes at once and
        // the next allowed one is taken again.
        for (const QChar c : input) {
            if (c.unicode() < 128)
                QTest::keyClick(edit(dlg.get(), name), c.toLatin1());
            else
                QTest::sendKeyEvent(QTest::Click, edit(dlg.get(), name), Qt::Key_unknown,
                                    QString(c), Qt::NoModifier);
        }
        QCOMPARE(edit(dlg.get(), name)->text(), typed);
        edit(dlg.get(), name)->clear();
    }
    // The old field has no filter.
    edit(dlg.get(), "lineEdit_oldPin")->setText(input);
    QCOMPARE(edit(dlg.get(), "lineEdit_oldPin")->text(), input);
}

void TestPINDialog::testClipboardShortcutsSwallowed()
{
    QClipboard *clipboard = QGuiApplication::clipboard();
    clipboard->setText("zzzzzz");
    {
        // The environment does paste into an unguarded field.
        QLineEdit control;
        control.show();
        QVERIFY(QTest::qWaitForWindowExposed(&control));
        QTest::keyClick(&control, Qt::Key_V, Qt::ControlModifier);
        QCOMPARE(control.text(), QString("zzzzzz"));
    }

    auto dlg = showDialog(2);
    for (const char *name : {"lineEdit_oldPin", "lineEdit_newPin", "lineEdit_confirmPin"}) {
        QLineEdit *e = edit(dlg.get(), name);
        e->setFocus();
        QTest::keyClicks(e, "abc123");
        QTest::keyClick(e, Qt::Key_V, Qt::ControlModifier);
        QTest::keyClick(e, Qt::Key_Insert, Qt::ShiftModifier);
        QCOMPARE(e->text(), QString("abc123"));

        // Cut would delete the selection even where a password cannot be copied.
        e->selectAll();
        QTest::keyClick(e, Qt::Key_X, Qt::ControlModifier);
        QCOMPARE(e->text(), QString("abc123"));

        // With the echo shown, copy would work without the guard.
        e->setEchoMode(QLineEdit::Normal);
        e->selectAll();
        QTest::keyClick(e, Qt::Key_C, Qt::ControlModifier);
        QTest::keyClick(e, Qt::Key_X, Qt::ControlModifier);
        QCOMPARE(clipboard->text(), QString("zzzzzz"));
        QCOMPARE(e->text(), QString("abc123"));
        e->setEchoMode(QLineEdit::Password);
        e->clear();
    }
    QCOMPARE(fake.pinReports.load(), 0);
}

void TestPINDialog::testMiddleClickPasteIgnored()
{
    QClipboard *clipboard = QGuiApplication::clipboard();
    if (!clipboard->supportsSelection())
        QSKIP("this platform has no selection clipboard (middle-click paste needs X11: "
              "the xvfb run of this test covers it)");
    clipboard->setText("zzzzzz", QClipboard::Selection);
    QTRY_COMPARE(clipboard->text(QClipboard::Selection), QString("zzzzzz"));
    {
        QLineEdit control;
        control.show();
        QVERIFY(QTest::qWaitForWindowExposed(&control));
        QTest::mouseClick(&control, Qt::MiddleButton);
        QCOMPARE(control.text(), QString("zzzzzz"));
    }

    auto dlg = showDialog(2);
    for (const char *name : {"lineEdit_oldPin", "lineEdit_newPin", "lineEdit_confirmPin"}) {
        QLineEdit *e = edit(dlg.get(), name);
        QTest::mouseClick(e, Qt::MiddleButton);
        QTest::mouseDClick(e, Qt::MiddleButton);
        QCOMPARE(e->text(), QString());
    }
}

void TestPINDialog::testDropIgnored()
{
    QMimeData mime;
    mime.setText("zzzzzz");
    {
        // An unguarded field takes a dropped text.
        QLineEdit control;
        control.show();
        QVERIFY(QTest::qWaitForWindowExposed(&control));
        // A drop reaches the widget that accepted the drag's entry.
        QDragEnterEvent enter(QPoint(5, 5), Qt::CopyAction, &mime, Qt::LeftButton, Qt::NoModifier);
        QApplication::sendEvent(&control, &enter);
        QVERIFY(enter.isAccepted());
        QDropEvent drop(QPointF(5, 5), Qt::CopyAction, &mime, Qt::LeftButton, Qt::NoModifier);
        QApplication::sendEvent(&control, &drop);
        QCOMPARE(control.text(), QString("zzzzzz"));
    }

    auto dlg = showDialog(2);
    for (const char *name : {"lineEdit_oldPin", "lineEdit_newPin", "lineEdit_confirmPin"}) {
        QLineEdit *e = edit(dlg.get(), name);
        QDragEnterEvent enter(QPoint(5, 5), Qt::CopyAction, &mime, Qt::LeftButton, Qt::NoModifier);
        QApplication::sendEvent(e, &enter);
        QVERIFY(!enter.isAccepted());
        QDropEvent drop(QPointF(5, 5), Qt::CopyAction, &mime, Qt::LeftButton, Qt::NoModifier);
        QApplication::sendEvent(e, &drop);
        QCOMPARE(e->text(), QString());
        QVERIFY(!e->acceptDrops());
    }
}

void TestPINDialog::testKeyboardPanelStartsHidden_data()
{
    QTest::addColumn<int>("keyboardMode");
    QTest::addColumn<QString>("keyboardClass");

    QTest::newRow("simple") << int(PINDialog::SimpleKeyBoard) << "SimpleSoftKeyboard";
    QTest::newRow("full") << int(PINDialog::FullKeyBoard) << "SoftKeyboard";
}

void TestPINDialog::testKeyboardPanelStartsHidden()
{
    QFETCH(int, keyboardMode);
    QFETCH(QString, keyboardClass);
    // The service asks for a visible keyboard; the panel still starts hidden.
    PINDialog dlg(kbMode(keyboardMode), true, 2, &fake, 1.0f);
    dlg.show();
    QVERIFY(QTest::qWaitForWindowExposed(&dlg));
    QVERIFY(!dlg.isKeyboardVisible());
    QWidget *panel = dlg.findChild<QWidget *>("widget_softkeyboard");
    QVERIFY(!panel->isVisible());
    QVERIFY(!dlg.findChild<QToolButton *>("toolButtonold_softkeyboard")->isChecked());
    QVERIFY(!dlg.findChild<QToolButton *>("toolButtonnew_softkeyboard")->isChecked());
    QVERIFY(dlg.keyboardWidget());
    QCOMPARE(QString(dlg.keyboardWidget()->metaObject()->className()), keyboardClass);
    QCOMPARE(dlg.keyboardWidget()->parentWidget(), panel);
    QCOMPARE(panel->size(), QSize(410, 140));
}

void TestPINDialog::testScaledKeyboardFitsPanel_data()
{
    QTest::addColumn<int>("keyboardMode");
    QTest::addColumn<float>("scale");

    QTest::newRow("simple 1.5") << int(PINDialog::SimpleKeyBoard) << 1.5f;
    QTest::newRow("full 1.5") << int(PINDialog::FullKeyBoard) << 1.5f;
    QTest::newRow("full 2.0") << int(PINDialog::FullKeyBoard) << 2.0f;
}

void TestPINDialog::testScaledKeyboardFitsPanel()
{
    QFETCH(int, keyboardMode);
    QFETCH(float, scale);
    PINDialog dlg(kbMode(keyboardMode), false, 2, &fake, scale);
    dlg.show();
    QVERIFY(QTest::qWaitForWindowExposed(&dlg));
    dlg.findChild<QToolButton *>("toolButtonnew_softkeyboard")->setChecked(true);
    QWidget *panel = dlg.findChild<QWidget *>("widget_softkeyboard");
    const QSize expected = QSize(410, 140) * double(scale);
    QCOMPARE(dlg.keyboardWidget()->size(), expected);
    // The panel holds the whole scaled keyboard, inside the window.
    QCOMPARE(panel->size(), expected);
    QVERIFY(dlg.rect().contains(QRect(panel->mapTo(&dlg, QPoint(0, 0)), panel->size())));
    const QString name = QString("%1/pindialog-type2-%2-scale%3.png")
                                 .arg(outputDir())
                                 .arg(keyboardMode == 0 ? "simple" : "full")
                                 .arg(double(scale));
    QVERIFY(dlg.grab().save(name));
}

void TestPINDialog::testToggleKeepsWindowY()
{
    auto dlg = showDialog(2, PINDialog::FullKeyBoard);
    QTest::qWait(0);
    const QRect before = dlg->frameGeometry();
    QVERIFY(before.y() != 0);
    QWidget *panel = dlg->findChild<QWidget *>("widget_softkeyboard");
    auto *button = dlg->findChild<QToolButton *>("toolButtonnew_softkeyboard");
    const int rememberedBefore = PINDialog::rememberedWindowY();

    g_messages.clear();
    QTest::mouseClick(button, Qt::LeftButton);
    QVERIFY(button->isChecked());
    QVERIFY(panel->isVisible());
    QVERIFY(g_messages.contains("on_toolButtonnew_softkeyboard_toggled: checked= true"));
    // The first y seen on screen is remembered for good.
    const int kept = rememberedBefore != 0 ? rememberedBefore : before.y();
    QCOMPARE(PINDialog::rememberedWindowY(), kept);
    QCOMPARE(dlg->frameGeometry().y(), kept);
    // The panel (140 high) takes the place of its row's 20-pixel spacers.
    QCOMPARE(panel->size(), QSize(410, 140));
    QVERIFY2(dlg->frameGeometry().height() >= before.height() + 140 - 20,
             qPrintable(
                     QString("%1 -> %2").arg(before.height()).arg(dlg->frameGeometry().height())));

    QTest::mouseClick(button, Qt::LeftButton);
    QVERIFY(!panel->isVisible());
    QCOMPARE(dlg->frameGeometry().y(), kept);
    QCOMPARE(dlg->frameGeometry().height(), before.height());

    auto *oldButton = dlg->findChild<QToolButton *>("toolButtonold_softkeyboard");
    // The hidden old-row button toggles the panel just the same.
    oldButton->setChecked(true);
    QVERIFY(panel->isVisible());
    QVERIFY(g_messages.contains("on_toolButtonold_softkeyboard_toggled: checked= true"));
    QCOMPARE(dlg->frameGeometry().y(), kept);
    // Neither button touches the other's state or the visibility flag.
    QVERIFY(!button->isChecked());
    QVERIFY(!dlg->isKeyboardVisible());
    oldButton->setChecked(false);
    QVERIFY(!panel->isVisible());
    QCOMPARE(dlg->frameGeometry().y(), kept);
    QCOMPARE(dlg->frameGeometry().height(), before.height());
}

void TestPINDialog::testChangeDialogRowsAlign()
{
    auto dlg = showDialog(2);
    QLabel *labels[] = {label(dlg.get(), "label_oldPin"), label(dlg.get(), "label_newPin"),
                        label(dlg.get(), "label_confirmPin")};
    QLineEdit *edits[] = {edit(dlg.get(), "lineEdit_oldPin"), edit(dlg.get(), "lineEdit_newPin"),
                          edit(dlg.get(), "lineEdit_confirmPin")};
    int widest = 0;
    for (QLabel *l : labels)
        widest = qMax(widest, l->sizeHint().width());
    for (int i = 0; i < 3; ++i) {
        QCOMPARE(labels[i]->width(), labels[0]->width());
        QVERIFY2(labels[i]->width() >= widest, "a label is cut off");
        QCOMPARE(edits[i]->width(), edits[0]->width());
        QCOMPARE(edits[i]->mapTo(dlg.get(), QPoint(0, 0)).x(),
                 edits[0]->mapTo(dlg.get(), QPoint(0, 0)).x());
        QVERIFY(edits[i]->width() <= 200);
        // Rows do not overlap each other.
        if (i > 0)
            QVERIFY(edits[i]->mapTo(dlg.get(), QPoint(0, 0)).y()
                    >= edits[i - 1]->mapTo(dlg.get(), QPoint(0, edits[i - 1]->height())).y());
    }
    QVERIFY(g_messages.filter("RefreshLayout: pinlabelmaxlen=").size() >= 3);
}

void TestPINDialog::testSetDialogRowsAlign()
{
    auto dlg = showDialog(5);
    QLabel *newLabel = label(dlg.get(), "label_newPin");
    QLabel *confirmLabel = label(dlg.get(), "label_confirmPin");
    QCOMPARE(newLabel->width(), confirmLabel->width());
    QVERIFY(newLabel->width() >= confirmLabel->sizeHint().width());
    QVERIFY(newLabel->width() >= newLabel->sizeHint().width());
    QCOMPARE(edit(dlg.get(), "lineEdit_newPin")->mapTo(dlg.get(), QPoint(0, 0)).x(),
             edit(dlg.get(), "lineEdit_confirmPin")->mapTo(dlg.get(), QPoint(0, 0)).x());
    // The hidden old row is never measured in the set dialog: the first
    // running maximum follows the new row's measurement.
    const int first = g_messages.indexOf(QRegularExpression("^RefreshLayout: pinlabelmaxlen=.*"));
    QVERIFY(first > 0);
    QVERIFY2(g_messages.at(first - 1).startsWith("RefreshLayout: ui->label_newPin->width()="),
             qPrintable(g_messages.at(first - 1)));
}

void TestPINDialog::testKeyboardInputGoesToFocusedField()
{
    auto dlg = showDialog(2, PINDialog::FullKeyBoard);
    auto *kb = qobject_cast<SoftKeyboard *>(dlg->keyboardWidget());
    QVERIFY(kb);
    dlg->findChild<QToolButton *>("toolButtonnew_softkeyboard")->setChecked(true);
    QLineEdit *newPin = edit(dlg.get(), "lineEdit_newPin");
    QLineEdit *confirmPin = edit(dlg.get(), "lineEdit_confirmPin");

    newPin->setFocus();
    QTRY_COMPARE(dlg->currentInputLineEdit(), newPin);

    emit kb->input_char('x');
    emit kb->input_char('#');
    QCOMPARE(newPin->text(), QString("x#"));
    emit kb->input_backspace();
    QCOMPARE(newPin->text(), QString("x"));

    // A real left press on a digit key types what the key shows.
    auto *key = kb->findChild<QLabel *>("label_number_0");
    QVERIFY(key);
    const QString face = key->text();
    QCOMPARE(face.size(), 1);
    QTest::mousePress(key, Qt::LeftButton);
    QTest::mouseRelease(key, Qt::LeftButton);
    QCOMPARE(newPin->text(), "x" + face);
    // Clicking a key does not steal the focus from the PIN field.
    QCOMPARE(dlg->currentInputLineEdit(), newPin);

    confirmPin->setFocus();
    QTRY_COMPARE(dlg->currentInputLineEdit(), confirmPin);
    emit kb->input_char('y');
    QCOMPARE(confirmPin->text(), QString("y"));
    QCOMPARE(newPin->text(), "x" + face);
    emit kb->input_backspace();
    emit kb->input_backspace();
    QCOMPARE(confirmPin->text(), QString());

    // The maximum length cuts on-screen input too.
    for (int i = 0; i < 20; ++i)
        emit kb->input_char('k');
    QCOMPARE(confirmPin->text(), QString(16, 'k'));
}

void TestPINDialog::testFocusInLogged()
{
    auto dlg = showDialog(2);
    g_messages.clear();
    edit(dlg.get(), "lineEdit_confirmPin")->setFocus();
    QTRY_VERIFY(!g_messages.filter("QEvent::FocusIn, obj=").isEmpty());
    const QString line = g_messages.filter("QEvent::FocusIn, obj=").constFirst();
    QVERIFY2(line.startsWith("QEvent::FocusIn, obj= QLineEdit(0x"), qPrintable(line));
    QVERIFY2(line.contains("name = \"lineEdit_confirmPin\""), qPrintable(line));
}

void TestPINDialog::testSetWindowAcitiveStopsWhenActive()
{
    g_messages.clear();
    auto dlg = showDialog(0);
    QTRY_COMPARE_WITH_TIMEOUT(countMessages("SetWindowAcitive: is focus on? true"), 1, 5000);
    // The chain has ended: give a would-be second shot three times its delay.
    QElapsedTimer elapsed;
    elapsed.start();
    while (elapsed.elapsed() < 1500)
        QTest::qWait(50);
    QCOMPARE(countMessages("SetWindowAcitive: is focus on? true"), 1);
    QCOMPARE(countMessages("SetWindowAcitive: set dialog focus"), 0);
}

void TestPINDialog::testSetWindowAcitiveRetriesWhileInactive()
{
    // Never shown, so never active: it keeps asking every half second.
    PINDialog dlg(PINDialog::FullKeyBoard, false, 0, &fake, 1.0f);
    QTRY_VERIFY_WITH_TIMEOUT(countMessages("SetWindowAcitive: set dialog focus") >= 2, 5000);
    QVERIFY(countMessages("SetWindowAcitive: is focus on? false") >= 2);
}

void TestPINDialog::testWindowManagerCloseAnswersCancelOnce()
{
    auto dlg = showDialog(2);
    QTest::keyClicks(edit(dlg.get(), "lineEdit_oldPin"), "secret1");
    QVERIFY(dlg->windowHandle());
    dlg->windowHandle()->close();
    dlg->windowHandle()->close();
    dlg->close();
    QTRY_COMPARE(fake.pinReports.load(), 1);
    QCOMPARE(fake.pinStatusValue(), 0);
    QCOMPARE(fake.lastPinBuffer(), QByteArray());
    // No second answer follows.
    QCoreApplication::processEvents();
    QTest::qWait(50);
    QCOMPARE(fake.pinReports.load(), 1);
}

void TestPINDialog::testWindowManagerCloseWithCoordinator()
{
    CoordinatorLikeStatus status;
    status.dialog = new PINDialog(PINDialog::FullKeyBoard, false, 5, &status, 1.0f);
    status.dialog->show();
    QVERIFY(QTest::qWaitForWindowExposed(status.dialog.data()));
    status.dialog->windowHandle()->close();
    // The coordinator deletes the dialog inside the Cancel report.
    QTRY_VERIFY(status.dialog.isNull());
    QCOMPARE(status.pinReports.load(), 1);
    QCOMPARE(status.pinStatusValue(), 0);
}

void TestPINDialog::testCloseAfterOkKeepsOk()
{
    auto dlg = showDialog(0);
    QTest::keyClicks(edit(dlg.get(), "lineEdit_oldPin"), "123456");
    QTest::mouseClick(dlg->findChild<QPushButton *>("pushButton_OK"), Qt::LeftButton);
    QCOMPARE(fake.pinStatusValue(), 1);
    dlg->close();
    QTest::qWait(50);
    QCoreApplication::processEvents();
    QCOMPARE(fake.pinStatusValue(), 1);
    QCOMPARE(fake.pinReports.load(), 1);
}

void TestPINDialog::testCoordinatorDeleteReportsNothing()
{
    {
        // Hide and delete, as the service's hide slot does.
        auto dlg = showDialog(2);
        dlg->hide();
    }
    // A close whose answer is still queued when the dialog goes.
    {
        auto dlg = showDialog(2);
        dlg->close();
    }
    QCoreApplication::sendPostedEvents();
    QCoreApplication::processEvents();
    QTest::qWait(50);
    QCOMPARE(fake.pinReports.load(), 0);
    QCOMPARE(fake.pinStatusValue(), -1);
}

void TestPINDialog::testScreenshots_data()
{
    QTest::addColumn<ulong>("type");
    QTest::addColumn<int>("keyboardMode");
    QTest::addColumn<bool>("withKeyboard");

    for (ulong type = 0; type <= 5; ++type) {
        const int mode = type % 2 == 0 ? PINDialog::SimpleKeyBoard : PINDialog::FullKeyBoard;
        const QString base = QString("type%1-%2").arg(type).arg(mode == 0 ? "simple" : "full");
        QTest::newRow(qPrintable(base + "-hidden")) << type << mode << false;
        QTest::newRow(qPrintable(base + "-keyboard")) << type << mode << true;
    }
}

void TestPINDialog::testScreenshots()
{
    QFETCH(ulong, type);
    QFETCH(int, keyboardMode);
    QFETCH(bool, withKeyboard);
    auto dlg = showDialog(type, keyboardMode);
    if (withKeyboard) {
        auto *button = dlg->findChild<QToolButton *>(type == 5 || type == 2 || type == 3
                                                             ? "toolButtonnew_softkeyboard"
                                                             : "toolButtonold_softkeyboard");
        QTest::mouseClick(button, Qt::LeftButton);
        QVERIFY(dlg->findChild<QWidget *>("widget_softkeyboard")->isVisible());
    }
    // Something typed, and a hint, so the screenshot shows every part.
    QLineEdit *first = edit(dlg.get(), type == 5 ? "lineEdit_newPin" : "lineEdit_oldPin");
    QTest::keyClicks(first, "a1b2c3");
    if (type == 2 || type == 3)
        QTest::keyClicks(edit(dlg.get(), "lineEdit_newPin"), "aB3xY9");
    QTest::qWait(0);

    // Every visible child lies inside the window.
    const QRect inside = dlg->rect();
    for (QWidget *w : dlg->findChildren<QWidget *>()) {
        if (!w->isVisible() || w->parentWidget() != dlg.get())
            continue;
        const QRect r(w->mapTo(dlg.get(), QPoint(0, 0)), w->size());
        QVERIFY2(inside.contains(r), qPrintable(w->objectName()));
    }
    // Visible labels show their whole text.
    for (QLabel *l : dlg->findChildren<QLabel *>()) {
        if (l->isVisible() && l->parentWidget() == dlg.get())
            QVERIFY2(l->width() >= l->sizeHint().width(), qPrintable(l->objectName()));
    }

    const QString name = QString("%1/pindialog-type%2-%3-%4.png")
                                 .arg(outputDir())
                                 .arg(type)
                                 .arg(keyboardMode == 0 ? "simple" : "full")
                                 .arg(withKeyboard ? "keyboard" : "hidden");
    const QPixmap shot = dlg->grab();
    QVERIFY(!shot.isNull());
    QVERIFY(shot.save(name));
}

QTEST_MAIN(TestPINDialog)
#include "TestPINDialog.moc"
