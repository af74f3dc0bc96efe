#include "ui/PINDialog.h"

#include "FakeUiStatus.h"
#include "keyboard/SoftKeyboard.h"

#include <QApplication>
#include <QClipboard>
#include <QDir>
#include <QLabel>
#include <QLineEdit>
#include <QMimeData>
#include <QPushButton>
#include <QToolButton>
#include <QWindow>
#include <QtTest>

#include <functional>
#include <memory>

namespace {

const char *const pinFields[] = {"lineEdit_oldPin", "lineEdit_newPin", "lineEdit_confirmPin"};

QString outputDir()
{
    QString dir = qEnvironmentVariable("ZRUI_TEST_OUTPUT");
    if (dir.isEmpty())
        dir = QDir::currentPath() + "/test-output";
    QDir().mkpath(dir);
    return dir;
}

QLineEdit *edit(QWidget *dlg, const char *name) { return dlg->findChild<QLineEdit *>(name); }
QLabel *label(QWidget *dlg, const char *name) { return dlg->findChild<QLabel *>(name); }
QToolButton *kbButton(QWidget *dlg, bool newRow)
{
    return dlg->findChild<QToolButton *>(newRow ? "toolButtonnew_softkeyboard"
                                                : "toolButtonold_softkeyboard");
}

// What an unguarded line edit holds after the action: the input really arrives.
QString unguardedResult(const std::function<void(QLineEdit *)> &action)
{
    QLineEdit control;
    control.show();
    if (!QTest::qWaitForWindowExposed(&control))
        return "not exposed";
    action(&control);
    return control.text();
}

bool dropText(QWidget *target, const QMimeData &mime)
{
    QDragEnterEvent enter(QPoint(5, 5), Qt::CopyAction, &mime, Qt::LeftButton, Qt::NoModifier);
    QApplication::sendEvent(target, &enter);
    QDropEvent drop(QPointF(5, 5), Qt::CopyAction, &mime, Qt::LeftButton, Qt::NoModifier);
    QApplication::sendEvent(target, &drop);
    return enter.isAccepted();
}

void drainEvents()
{
    QCoreApplication::sendPostedEvents();
    QCoreApplication::processEvents();
}

} // namespace

class TestPINDialog : public QObject
{
    Q_OBJECT

private slots:
    void init();
    void cleanup() { drainEvents(); }

    void testChangeOkSendsUtf8Lengths();
    void testSimpleModeFilter_data();
    void testSimpleModeFilter();
    void testClipboardShortcutsSwallowed();
    void testMiddleClickPasteIgnored();
    void testDropIgnored();
    void testKeyboardPanel_data();
    void testKeyboardPanel();
    void testToggleKeepsWindowY();
    void testRowsAlign_data();
    void testRowsAlign();
    void testKeyboardInputGoesToFocusedField();
    void testWindowManagerCloseAnswersCancelOnce();
    void testScreenshots_data();
    void testScreenshots();

private:
    std::unique_ptr<PINDialog> showDialog(ulong type, int keyboardMode = PINDialog::FullKeyBoard,
                                          FakeUiStatus *status = nullptr);

    FakeUiStatus fake{6, 16};
};

void TestPINDialog::init()
{
    fake.SetPINStatus(-1, nullptr, 0);
    fake.pinReports = 0;
}

std::unique_ptr<PINDialog> TestPINDialog::showDialog(ulong type, int keyboardMode,
                                                     FakeUiStatus *status)
{
    std::unique_ptr<PINDialog> dlg(new PINDialog(PINDialog::KeyBoardMode(keyboardMode), false, type,
                                                 status ? status : &fake, 1.0f));
    dlg->show();
    dlg->activateWindow();
    if (!QTest::qWaitForWindowActive(dlg.get()))
        qWarning("dialog did not become active");
    return dlg;
}

void TestPINDialog::testChangeOkSendsUtf8Lengths()
{
    auto dlg = showDialog(2);
    edit(dlg.get(), "lineEdit_oldPin")->setText(QString::fromUtf8("p\xC3\xA4sswort"));
    edit(dlg.get(), "lineEdit_newPin")->setText("Abc123x");
    edit(dlg.get(), "lineEdit_confirmPin")->setText("Abc123x");
    QTest::mouseClick(dlg->findChild<QPushButton *>("pushButton_OK"), Qt::LeftButton);
    QCOMPARE(fake.pinReports.load(), 1);
    QCOMPARE(fake.lastPinBuffer(), QByteArray::fromHex("09000000") + "p\xC3\xA4sswort"
                                           + QByteArray::fromHex("07000000") + "Abc123x");
}

void TestPINDialog::testSimpleModeFilter_data()
{
    QTest::addColumn<int>("keyboardMode");
    QTest::addColumn<QString>("input");
    QTest::addColumn<QString>("kept");
    QTest::addColumn<QString>("typed");

    struct Row
    {
        const char *name;
        int mode;
        const char *input, *kept, *typed;
    };
    // Pasted text is cut at the first refused character; typed, only refused ones vanish.
    static const Row rows[] = {
            {"simple cuts at #", PINDialog::SimpleKeyBoard, "ab#cd", "ab", "abcd"},
            {"simple cuts non-ASCII", PINDialog::SimpleKeyBoard, "x\xC3\xA4y", "x", "xy"},
            {"simple leading symbol", PINDialog::SimpleKeyBoard, "#ab", "", "ab"},
            {"full keeps", PINDialog::FullKeyBoard, "ab#cd", "ab#cd", "ab#cd"},
    };
    for (const Row &r : rows)
        QTest::newRow(r.name) << r.mode << QString::fromUtf8(r.input) << QString(r.kept)
                              << QString(r.typed);
}

void TestPINDialog::testSimpleModeFilter()
{
    QFETCH(int, keyboardMode);
    QFETCH(QString, input);
    QFETCH(QString, kept);
    QFETCH(QString, typed);
    auto dlg = showDialog(2, keyboardMode);
    for (const char *name : {"lineEdit_newPin", "lineEdit_confirmPin"}) {
        QLineEdit *e = edit(dlg.get(), name);
        e->setText(input);
        QCOMPARE(e->text(), kept);
        e->clear();
        for (const QChar c : input) {
            if (c.unicode() < 128)
                QTest::keyClick(e, c.toLatin1());
            else
                QTest::sendKeyEvent(QTest::Click, e, Qt::Key_unknown, QString(c), Qt::NoModifier);
        }
        QCOMPARE(e->text(), typed);
    }
    edit(dlg.get(), "lineEdit_oldPin")->setText(input);
    QCOMPARE(edit(dlg.get(), "lineEdit_oldPin")->text(), input);
}

void TestPINDialog::testClipboardShortcutsSwallowed()
{
    QClipboard *clipboard = QGuiApplication::clipboard();
    clipboard->setText("zzzzzz");
    QCOMPARE(unguardedResult(
                     [](QLineEdit *e) { QTest::keyClick(e, Qt::Key_V, Qt::ControlModifier); }),
             QString("zzzzzz"));

    auto dlg = showDialog(2);
    for (const char *name : pinFields) {
        QLineEdit *e = edit(dlg.get(), name);
        QCOMPARE(e->echoMode(), QLineEdit::Password);
        QCOMPARE(e->contextMenuPolicy(), Qt::NoContextMenu);
        e->setFocus();
        QTest::keyClicks(e, "abc123");
        QTest::keyClick(e, Qt::Key_V, Qt::ControlModifier);
        QTest::keyClick(e, Qt::Key_Insert, Qt::ShiftModifier);
        QCOMPARE(e->text(), QString("abc123"));

        e->selectAll();
        QTest::keyClick(e, Qt::Key_X, Qt::ControlModifier);
        QCOMPARE(e->text(), QString("abc123"));

        e->setEchoMode(QLineEdit::Normal);
        e->selectAll();
        QTest::keyClick(e, Qt::Key_C, Qt::ControlModifier);
        QTest::keyClick(e, Qt::Key_X, Qt::ControlModifier);
        QCOMPARE(clipboard->text(), QString("zzzzzz"));
        QCOMPARE(e->text(), QString("abc123"));
    }
    QCOMPARE(fake.pinReports.load(), 0);
}

void TestPINDialog::testMiddleClickPasteIgnored()
{
    QClipboard *clipboard = QGuiApplication::clipboard();
    if (!clipboard->supportsSelection())
        QSKIP("no selection clipboard here: the xvfb run of this test covers it");
    clipboard->setText("zzzzzz", QClipboard::Selection);
    QTRY_COMPARE(clipboard->text(QClipboard::Selection), QString("zzzzzz"));
    QCOMPARE(unguardedResult([](QLineEdit *e) { QTest::mouseClick(e, Qt::MiddleButton); }),
             QString("zzzzzz"));

    auto dlg = showDialog(2);
    for (const char *name : pinFields) {
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
    QCOMPARE(unguardedResult([&mime](QLineEdit *e) { dropText(e, mime); }), QString("zzzzzz"));

    auto dlg = showDialog(2);
    for (const char *name : pinFields) {
        QLineEdit *e = edit(dlg.get(), name);
        QVERIFY(!dropText(e, mime));
        QCOMPARE(e->text(), QString());
    }
}

void TestPINDialog::testKeyboardPanel_data()
{
    QTest::addColumn<int>("keyboardMode");
    QTest::addColumn<float>("scale");
    QTest::addColumn<QString>("keyboardClass");

    QTest::newRow("simple 1.5") << int(PINDialog::SimpleKeyBoard) << 1.5f << "SimpleSoftKeyboard";
    QTest::newRow("full 2.0") << int(PINDialog::FullKeyBoard) << 2.0f << "SoftKeyboard";
}

void TestPINDialog::testKeyboardPanel()
{
    QFETCH(int, keyboardMode);
    QFETCH(float, scale);
    QFETCH(QString, keyboardClass);
    // The service asks for a visible keyboard; the panel still starts hidden.
    PINDialog dlg(PINDialog::KeyBoardMode(keyboardMode), true, 2, &fake, scale);
    dlg.show();
    QVERIFY(QTest::qWaitForWindowExposed(&dlg));
    QWidget *panel = dlg.findChild<QWidget *>("widget_softkeyboard");
    QVERIFY(!dlg.isKeyboardVisible());
    QVERIFY(!panel->isVisible());
    QVERIFY(!kbButton(&dlg, false)->isChecked());
    QVERIFY(!kbButton(&dlg, true)->isChecked());
    QVERIFY(dlg.keyboardWidget());
    QCOMPARE(QString(dlg.keyboardWidget()->metaObject()->className()), keyboardClass);
    QCOMPARE(dlg.keyboardWidget()->parentWidget(), panel);

    kbButton(&dlg, true)->setChecked(true);
    QVERIFY(panel->isVisible());
    const QSize expected = QSize(410, 140) * double(scale);
    QCOMPARE(dlg.keyboardWidget()->size(), expected);
    QCOMPARE(panel->size(), expected);
    QVERIFY(dlg.rect().contains(QRect(panel->mapTo(&dlg, QPoint(0, 0)), panel->size())));
}

void TestPINDialog::testToggleKeepsWindowY()
{
    auto dlg = showDialog(2, PINDialog::FullKeyBoard);
    QTest::qWait(0);
    const QRect before = dlg->frameGeometry();
    QVERIFY(before.y() != 0);
    QWidget *panel = dlg->findChild<QWidget *>("widget_softkeyboard");
    QToolButton *button = kbButton(dlg.get(), true);
    const int kept
            = PINDialog::rememberedWindowY() != 0 ? PINDialog::rememberedWindowY() : before.y();

    QTest::mouseClick(button, Qt::LeftButton);
    QVERIFY(button->isChecked());
    QVERIFY(panel->isVisible());
    QCOMPARE(dlg->frameGeometry().y(), kept);
    // The panel (140 high) takes the place of its row's 20-pixel spacers.
    QVERIFY2(dlg->frameGeometry().height() >= before.height() + 140 - 20,
             qPrintable(QString("%1 -> %2").arg(before.height()).arg(dlg->height())));

    QTest::mouseClick(button, Qt::LeftButton);
    QVERIFY(!panel->isVisible());
    QCOMPARE(dlg->frameGeometry().y(), kept);
    QCOMPARE(dlg->frameGeometry().height(), before.height());
}

void TestPINDialog::testRowsAlign_data()
{
    QTest::addColumn<ulong>("type");
    QTest::newRow("change") << 2ul;
    QTest::newRow("set") << 5ul;
}

void TestPINDialog::testRowsAlign()
{
    QFETCH(ulong, type);
    auto dlg = showDialog(type);
    const char *labelNames[] = {"label_oldPin", "label_newPin", "label_confirmPin"};
    QList<QLabel *> labels;
    QList<QLineEdit *> edits;
    for (int i = type == 5 ? 1 : 0; i < 3; ++i) {
        labels << label(dlg.get(), labelNames[i]);
        edits << edit(dlg.get(), pinFields[i]);
    }
    int widest = 0;
    for (QLabel *l : labels)
        widest = qMax(widest, l->sizeHint().width());
    for (int i = 0; i < labels.size(); ++i) {
        QCOMPARE(labels[i]->width(), labels[0]->width());
        QVERIFY2(labels[i]->width() >= widest, "a label is cut off");
        QCOMPARE(edits[i]->width(), edits[0]->width());
        QCOMPARE(edits[i]->mapTo(dlg.get(), QPoint(0, 0)).x(),
                 edits[0]->mapTo(dlg.get(), QPoint(0, 0)).x());
        if (i > 0) // Rows do not overlap each other.
            QVERIFY(edits[i]->mapTo(dlg.get(), QPoint(0, 0)).y()
                    >= edits[i - 1]->mapTo(dlg.get(), QPoint(0, edits[i - 1]->height())).y());
    }
}

void TestPINDialog::testKeyboardInputGoesToFocusedField()
{
    auto dlg = showDialog(2, PINDialog::FullKeyBoard);
    auto *kb = qobject_cast<SoftKeyboard *>(dlg->keyboardWidget());
    QVERIFY(kb);
    kbButton(dlg.get(), true)->setChecked(true);
    QLineEdit *newPin = edit(dlg.get(), "lineEdit_newPin");
    QLineEdit *confirmPin = edit(dlg.get(), "lineEdit_confirmPin");

    newPin->setFocus();
    QTRY_COMPARE(dlg->currentInputLineEdit(), newPin);
    emit kb->input_char('x');
    emit kb->input_char('#');
    QCOMPARE(newPin->text(), QString("x#"));
    emit kb->input_backspace();
    QCOMPARE(newPin->text(), QString("x"));

    // A real press on a key types its face and keeps the focus.
    auto *key = kb->findChild<QLabel *>("label_number_0");
    QVERIFY(key);
    QCOMPARE(key->text().size(), 1);
    QTest::mousePress(key, Qt::LeftButton);
    QTest::mouseRelease(key, Qt::LeftButton);
    QCOMPARE(newPin->text(), "x" + key->text());
    QCOMPARE(dlg->currentInputLineEdit(), newPin);

    confirmPin->setFocus();
    QTRY_COMPARE(dlg->currentInputLineEdit(), confirmPin);
    emit kb->input_char('y');
    QCOMPARE(confirmPin->text(), QString("y"));
    QCOMPARE(newPin->text(), "x" + key->text());
    emit kb->input_backspace();
    emit kb->input_backspace();
    QCOMPARE(confirmPin->text(), QString());
    for (int i = 0; i < 20; ++i)
        emit kb->input_char('k');
    QCOMPARE(confirmPin->text(), QString(16, 'k'));
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
    drainEvents();
    QCOMPARE(fake.pinReports.load(), 1);

    // A close after OK leaves the OK answer alone.
    FakeUiStatus status(6, 16);
    auto confirmed = showDialog(0, PINDialog::FullKeyBoard, &status);
    QTest::keyClicks(edit(confirmed.get(), "lineEdit_oldPin"), "123456");
    QTest::mouseClick(confirmed->findChild<QPushButton *>("pushButton_OK"), Qt::LeftButton);
    QCOMPARE(status.pinStatusValue(), 1);
    confirmed->close();
    drainEvents();
    QCOMPARE(status.pinStatusValue(), 1);
    QCOMPARE(status.pinReports.load(), 1);

    // A coordinator close (hide and delete, even with a close queued) reports nothing.
    FakeUiStatus closed(6, 16);
    showDialog(2, PINDialog::FullKeyBoard, &closed)->hide();
    showDialog(2, PINDialog::FullKeyBoard, &closed)->close();
    drainEvents();
    QCOMPARE(closed.pinReports.load(), 0);
    QCOMPARE(closed.pinStatusValue(), -1);
}

void TestPINDialog::testScreenshots_data()
{
    QTest::addColumn<ulong>("type");
    QTest::addColumn<bool>("withKeyboard");

    for (ulong type = 0; type <= 5; ++type) {
        QTest::addRow("type%lu-hidden", type) << type << false;
        QTest::addRow("type%lu-keyboard", type) << type << true;
    }
}

void TestPINDialog::testScreenshots()
{
    QFETCH(ulong, type);
    QFETCH(bool, withKeyboard);
    const int mode = type % 2 == 0 ? PINDialog::SimpleKeyBoard : PINDialog::FullKeyBoard;
    auto dlg = showDialog(type, mode);

    const bool hasOld = type != 5;
    const bool hasNew = type == 2 || type == 3 || type == 5;
    const char *oldLabels[] = {"Input User Pin:", "Input Admin Pin:", "Old PIN:",
                               "Old PIN:",        "Input Admin Pin:", "Old PIN:"};
    QCOMPARE(edit(dlg.get(), "lineEdit_oldPin")->isVisible(), hasOld);
    QCOMPARE(label(dlg.get(), "label_oldPin")->isVisible(), hasOld);
    QCOMPARE(label(dlg.get(), "label_oldPin")->text(), QString(oldLabels[type]));
    for (const char *name : {"lineEdit_newPin", "lineEdit_confirmPin"})
        QCOMPARE(edit(dlg.get(), name)->isVisible(), hasNew);
    QCOMPARE(label(dlg.get(), "label_newPin")->text(),
             QString(type == 5 ? "USBKey Passwd:" : "New PIN:"));
    QCOMPARE(label(dlg.get(), "label_confirmPin")->text(),
             QString(type == 5 ? "Passwd Confirm:" : "Confirm PIN:"));
    QCOMPARE(kbButton(dlg.get(), false)->isVisible(), !hasNew);
    QCOMPARE(kbButton(dlg.get(), true)->isVisible(), hasNew);

    if (withKeyboard) {
        QTest::mouseClick(kbButton(dlg.get(), hasNew), Qt::LeftButton);
        QVERIFY(dlg->findChild<QWidget *>("widget_softkeyboard")->isVisible());
    }
    QTest::keyClicks(edit(dlg.get(), hasOld ? "lineEdit_oldPin" : "lineEdit_newPin"), "a1b2c3");
    if (hasOld && hasNew)
        QTest::keyClicks(edit(dlg.get(), "lineEdit_newPin"), "aB3xY9");
    QTest::qWait(0);

    // Every visible child lies inside the window and labels show their whole text.
    for (QWidget *w : dlg->findChildren<QWidget *>()) {
        if (!w->isVisible() || w->parentWidget() != dlg.get())
            continue;
        QVERIFY2(dlg->rect().contains(QRect(w->mapTo(dlg.get(), QPoint(0, 0)), w->size())),
                 qPrintable(w->objectName()));
        if (qobject_cast<QLabel *>(w))
            QVERIFY2(w->width() >= w->sizeHint().width(), qPrintable(w->objectName()));
    }

    const QPixmap shot = dlg->grab();
    QVERIFY(!shot.isNull());
    QVERIFY(shot.save(QString("%1/pindialog-%2.png").arg(outputDir(), QTest::currentDataTag())));
}

QTEST_MAIN(TestPINDialog)
#include "TestPINDialog.moc"
