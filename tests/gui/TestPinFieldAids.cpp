// Aids around the PIN fields: the on-screen keyboard reached by Tab types into
// the field last used, the Tab order with an opened keyboard, the show/hide
// toggle, the Caps Lock hint and the activation policy per platform.
#include "ui/PINDialog.h"
#include "ui/PinFieldReveal.h"

#include "FakeUiStatus.h"
#include "ui/WindowActivation.h"

#include <QAbstractEventDispatcher>
#include <QAccessible>
#include <QAction>
#include <QAbstractButton>
#include <QApplication>
#include <QLabel>
#include <QLineEdit>
#include <QToolButton>
#include <QtTest>

#ifdef ZRUI_HAVE_XKB
#include <X11/XKBlib.h>
#include <X11/Xlib.h>
#endif

#include <memory>

namespace {
struct Shown
{
    FakeUiStatus status;
    std::unique_ptr<PINDialog> dialog;
    Shown(int type, PINDialog::KeyBoardMode kb)
        : dialog(std::make_unique<PINDialog>(kb, false, type, &status, 1.0f))
    {
        dialog->show();
        QApplication::setActiveWindow(dialog.get());
        if (!QTest::qWaitForWindowActive(dialog.get()))
            qWarning("PIN dialog not active");
    }
    template<typename T>
    T *child(const char *name) const
    {
        return dialog->findChild<T *>(QLatin1String(name));
    }
    QLineEdit *edit(const char *name) const { return child<QLineEdit>(name); }
};

QString focusName()
{
    // A keyboard hands its focus on to one of its keys: count that as the board.
    for (QWidget *w = QApplication::focusWidget(); w; w = w->parentWidget())
        if (w->inherits("SoftKeyboard") || w->inherits("SimpleSoftKeyboard") || !w->parentWidget()
            || qobject_cast<QLineEdit *>(w) || qobject_cast<QAbstractButton *>(w))
            return w->objectName();
    return QStringLiteral("<none>");
}

#ifdef ZRUI_HAVE_XKB
bool setCapsLock(bool on)
{
    static Display *display = XOpenDisplay(nullptr);
    if (!display)
        return false;
    XkbLockModifiers(display, XkbUseCoreKbd, LockMask, on ? LockMask : 0);
    XSync(display, False);
    return true;
}
#endif
} // namespace

class TestPinFieldAids : public QObject
{
    Q_OBJECT
private slots:
    void testTabOrderAndKeyboardTyping_data();
    void testTabOrderAndKeyboardTyping();
    void testShowToggle();
    void testCapsLockHint();
    void testActivationRequestedOnce();
    void testActivationRetries_data();
    void testActivationRetries();
};

void TestPinFieldAids::testTabOrderAndKeyboardTyping_data()
{
    QTest::addColumn<int>("type");
    QTest::addColumn<int>("keyboard");
    QTest::addColumn<QString>("button");
    QTest::addColumn<QStringList>("order");
    const QString board[] = {QStringLiteral("SimpleSoftKeyboard"), QStringLiteral("SoftKeyboard")};
    for (int kb : {0, 1}) {
        QTest::addRow("verify-%d", kb)
                << 0 << kb << "toolButtonold_softkeyboard"
                << QStringList{"lineEdit_oldPin", "toolButtonold_softkeyboard", board[kb],
                               "pushButton_OK", "pushButton_Cancel"};
        QTest::addRow("change-%d", kb) << 2 << kb << "toolButtonnew_softkeyboard"
                                       << QStringList{"lineEdit_oldPin",
                                                      "lineEdit_newPin",
                                                      "lineEdit_confirmPin",
                                                      "toolButtonnew_softkeyboard",
                                                      board[kb],
                                                      "pushButton_OK",
                                                      "pushButton_Cancel"};
        QTest::addRow("set-%d", kb)
                << 5 << kb << "toolButtonnew_softkeyboard"
                << QStringList{
                           "lineEdit_newPin", "lineEdit_confirmPin", "toolButtonnew_softkeyboard",
                           board[kb],         "pushButton_OK",       "pushButton_Cancel"};
    }
}

// Tab walks fields, the keyboard button, the opened keyboard right after it,
// OK and Cancel; Space on the keyboard types into the field last used.
void TestPinFieldAids::testTabOrderAndKeyboardTyping()
{
    QFETCH(int, type);
    QFETCH(int, keyboard);
    QFETCH(QString, button);
    QFETCH(QStringList, order);
    Shown s(type, PINDialog::KeyBoardMode(keyboard));
    s.dialog->findChild<QToolButton *>(button)->setChecked(true);
    QLineEdit *first = s.edit(qPrintable(order.first()));
    first->setFocus(Qt::TabFocusReason);
    QTRY_COMPARE(focusName(), order.first());
    QStringList seen{focusName()};
    for (int i = 1; i < order.size(); ++i) {
        QTest::keyClick(QApplication::focusWidget(), Qt::Key_Tab);
        seen << focusName();
    }
    QCOMPARE(seen, order);

    // The field before the button, then the board: keys type into that field.
    QLineEdit *last = s.edit(qPrintable(order.at(order.indexOf(button) - 1)));
    last->setFocus(Qt::TabFocusReason);
    QWidget *board = s.dialog->findChild<QWidget *>(order.at(order.indexOf(button) + 1));
    board->setFocus(Qt::TabFocusReason);
    QTRY_VERIFY(board->hasFocus() || board->isAncestorOf(QApplication::focusWidget()));
    QTest::keyClick(QApplication::focusWidget(), Qt::Key_Space);
    QTRY_COMPARE(last->text().size(), 1);
    for (QLineEdit *edit : s.dialog->findChildren<QLineEdit *>())
        QCOMPARE(edit->text().size(), edit == last ? 1 : 0);
}

// Hidden by default; shown in clear yet never selectable; hidden again with the dialog.
void TestPinFieldAids::testShowToggle()
{
    Shown s(2, PINDialog::FullKeyBoard);
    for (const char *name : {"lineEdit_oldPin", "lineEdit_newPin", "lineEdit_confirmPin"}) {
        QLineEdit *edit = s.edit(name);
        auto *toggle = s.dialog->findChild<QAction *>(QLatin1String(name) + "_show");
        QVERIFY(toggle);
        QCOMPARE(edit->echoMode(), QLineEdit::Password);
        QCOMPARE(toggle->text(), QStringLiteral("Show PIN"));
        edit->setText(QStringLiteral("a1b2c3"));
        toggle->trigger();
        QVERIFY(edit->findChild<PinFieldReveal *>()->isShown());
        QCOMPARE(toggle->text(), QStringLiteral("Hide PIN"));
        edit->setSelection(0, 4);
        QVERIFY(!edit->hasSelectedText());
        // Shown on screen, still a masked password field for assistive tools.
        QAccessibleInterface *iface = QAccessible::queryAccessibleInterface(edit);
        QVERIFY(iface && iface->state().passwordEdit && !iface->textInterface());
        QCOMPARE(iface->text(QAccessible::Value), QStringLiteral("******"));
        edit->setFocus();
        QTest::keyClick(edit, Qt::Key_Home);
        QTest::keyClick(edit, Qt::Key_End, Qt::ShiftModifier);
        QVERIFY(!edit->hasSelectedText());
    }
    s.dialog->hide();
    for (const char *name : {"lineEdit_oldPin", "lineEdit_newPin", "lineEdit_confirmPin"}) {
        QCOMPARE(s.edit(name)->echoMode(), QLineEdit::Password);
        QVERIFY(!s.dialog->findChild<QAction *>(QLatin1String(name) + "_show")->isChecked());
    }
}

// On X11 the hint follows Caps Lock while a PIN field has the focus; on a
// platform that cannot tell, it never shows.
void TestPinFieldAids::testCapsLockHint()
{
    const bool x11 = QGuiApplication::platformName() == QLatin1String("xcb");
#ifdef ZRUI_HAVE_XKB
    if (x11)
        QVERIFY(setCapsLock(true));
#endif
    Shown s(0, PINDialog::SimpleKeyBoard);
    auto *hint = s.child<QLabel>("label_capsLock");
    QVERIFY(hint);
    s.edit("lineEdit_oldPin")->setFocus();
    QTRY_VERIFY(s.edit("lineEdit_oldPin")->hasFocus());
    if (!x11) {
        QCoreApplication::processEvents();
        QVERIFY(!hint->isVisible());
        return;
    }
#ifdef ZRUI_HAVE_XKB
    QTRY_VERIFY(hint->isVisible());
    QCOMPARE(hint->text(), QStringLiteral("Caps Lock is on"));
    s.child<QWidget>("pushButton_OK")->setFocus();
    QTRY_VERIFY(!hint->isVisible());
    QVERIFY(setCapsLock(false));
    s.edit("lineEdit_oldPin")->setFocus();
    QTRY_VERIFY(s.edit("lineEdit_oldPin")->hasFocus());
    QCoreApplication::processEvents();
    QVERIFY(!hint->isVisible());
#else
    QFAIL("built without the X keyboard extension");
#endif
}

// Qt parents the timer of a delayed single shot to the event dispatcher.
static int pendingSingleShots()
{
    int n = 0;
    for (QObject *o : QAbstractEventDispatcher::instance()->children())
        n += o->inherits("QSingleShotTimer");
    return n;
}

// An inactive dialog asks for activation and, only where the platform can
// grant it, asks again half a second later.
void TestPinFieldAids::testActivationRequestedOnce()
{
    FakeUiStatus status;
    PINDialog dialog(PINDialog::SimpleKeyBoard, false, 0, &status, 1.0f);
    QVERIFY(!dialog.isActiveWindow());
    const int before = pendingSingleShots();
    dialog.SetWindowAcitive();
    QCOMPARE(pendingSingleShots() - before, WindowActivation::retriesActivation() ? 1 : 0);
    QCOMPARE(WindowActivation::retriesActivation(),
             !QGuiApplication::platformName().startsWith(QLatin1String("wayland")));
}

void TestPinFieldAids::testActivationRetries_data()
{
    QTest::addColumn<QString>("platform");
    QTest::addColumn<bool>("retries");
    QTest::newRow("xcb") << "xcb" << true;
    QTest::newRow("offscreen") << "offscreen" << true;
    QTest::newRow("wayland") << "wayland" << false;
    QTest::newRow("wayland-egl") << "wayland-egl" << false;
    QTest::newRow("wayland-xcomposite-glx") << "wayland-xcomposite-glx" << false;
}

void TestPinFieldAids::testActivationRetries()
{
    QFETCH(QString, platform);
    QFETCH(bool, retries);
    QCOMPARE(WindowActivation::retriesActivation(platform), retries);
}

QTEST_MAIN(TestPinFieldAids)
#include "TestPinFieldAids.moc"
