// Aids around the PIN fields: the Tab order with an opened keyboard that types into the field
// last used, the show/hide toggle, the Caps Lock hint and the activation policy per platform.
#include "ui/PINDialog.h"

#include "FakeUiStatus.h"
#include "ui/WindowActivation.h"

#include <QtWidgets>
#include <QtTest>

#ifdef ZRUI_HAVE_XKB
#include <X11/XKBlib.h>
#include <X11/Xlib.h>
#endif

#include <memory>

namespace {
const char *const fields[] = {"lineEdit_oldPin", "lineEdit_newPin", "lineEdit_confirmPin"};

std::unique_ptr<PINDialog> shown(FakeUiStatus *status, int type, int keyboard = 0)
{
    auto dialog = std::make_unique<PINDialog>(PINDialog::KeyBoardMode(keyboard), false, type,
                                              status, 1.0f);
    dialog->show();
    QApplication::setActiveWindow(dialog.get());
    if (!QTest::qWaitForWindowActive(dialog.get()))
        qWarning("PIN dialog not active");
    return dialog;
}

QString focusName() // a keyboard hands its focus on to one of its keys: that counts as the board
{
    for (QWidget *w = QApplication::focusWidget(); w; w = w->parentWidget())
        if (w->inherits("SoftKeyboard") || w->inherits("SimpleSoftKeyboard") || !w->parentWidget()
            || qobject_cast<QLineEdit *>(w) || qobject_cast<QAbstractButton *>(w))
            return w->objectName();
    return QStringLiteral("<none>");
}

void setCapsLock(bool on)
{
#ifdef ZRUI_HAVE_XKB
    static Display *display = XOpenDisplay(nullptr);
    QVERIFY(display);
    XkbLockModifiers(display, XkbUseCoreKbd, LockMask, on ? LockMask : 0);
    XSync(display, False);
#else
    QFAIL(on ? "built without the X keyboard extension" : "");
#endif
}
} // namespace

class TestPinFieldAids : public QObject
{
    Q_OBJECT
private slots:
    void testTabOrderAndKeyboardTyping_data()
    {
        QTest::addColumn<int>("type"); // the keyboard: simple for even types, full for odd
        QTest::newRow("verify") << 0;
        QTest::newRow("change") << 2;
        QTest::newRow("set") << 5;
    }

    // Tab walks the fields, the keyboard button, the opened keyboard, OK and Cancel; Space on
    // the keyboard types into the field last used and no other.
    void testTabOrderAndKeyboardTyping()
    {
        QFETCH(int, type);
        FakeUiStatus status;
        auto dialog = shown(&status, type, type % 2);
        QStringList names{type == 5 ? "" : "lineEdit_oldPin"};
        if (type)
            names << "lineEdit_newPin"
                  << "lineEdit_confirmPin";
        names << (type ? "toolButtonnew_softkeyboard" : "toolButtonold_softkeyboard")
              << (type % 2 ? "SoftKeyboard" : "SimpleSoftKeyboard") << "pushButton_OK"
              << "pushButton_Cancel";
        names.removeAll("");
        const int button = names.size() - 4;
        dialog->findChild<QToolButton *>(names[button])->setChecked(true);
        dialog->findChild<QWidget *>(names[0])->setFocus(Qt::TabFocusReason);
        QTRY_COMPARE(focusName(), names[0]);
        QStringList seen{focusName()};
        while (seen.size() < names.size()) {
            QTest::keyClick(QApplication::focusWidget(), Qt::Key_Tab);
            seen << focusName();
        }
        QCOMPARE(seen, names);
        auto *last = dialog->findChild<QLineEdit *>(names[button - 1]);
        last->setFocus(Qt::TabFocusReason);
        QWidget *board = dialog->findChild<QWidget *>(names[button + 1]);
        board->setFocus(Qt::TabFocusReason);
        QTRY_VERIFY(board->isAncestorOf(QApplication::focusWidget()) || board->hasFocus());
        QTest::keyClick(QApplication::focusWidget(), Qt::Key_Space);
        QTRY_COMPARE(last->text().size(), 1);
        for (const char *name : fields)
            QCOMPARE(dialog->findChild<QLineEdit *>(name)->text().size(),
                     int(last->objectName() == name));
    }

    // Masked by default; shown in clear yet never selectable and still masked for assistive
    // tools; masked again when the dialog is hidden.
    void testShowToggle()
    {
        FakeUiStatus status;
        auto dialog = shown(&status, 2);
        for (const char *name : fields) {
            auto *edit = dialog->findChild<QLineEdit *>(name);
            auto *toggle = dialog->findChild<QAction *>(QLatin1String(name) + "_show");
            QVERIFY(edit->echoMode() == QLineEdit::Password && toggle->text() == "Show PIN");
            edit->setText(QStringLiteral("a1b2c3"));
            toggle->trigger();
            QVERIFY(edit->echoMode() == QLineEdit::Normal && toggle->text() == "Hide PIN");
            edit->setFocus();
            edit->setSelection(0, 4);
            QTest::keyClick(edit, Qt::Key_Home, Qt::ShiftModifier);
            QVERIFY(!edit->hasSelectedText());
            QAccessibleInterface *iface = QAccessible::queryAccessibleInterface(edit);
            QVERIFY(iface->state().passwordEdit && !iface->textInterface());
            QCOMPARE(iface->text(QAccessible::Value), QStringLiteral("******"));
        }
        dialog->hide();
        for (const char *name : fields)
            QCOMPARE(dialog->findChild<QLineEdit *>(name)->echoMode(), QLineEdit::Password);
    }

    // On X11 the hint follows Caps Lock while a PIN field has the focus; where the platform
    // cannot tell, it never shows.
    void testCapsLockHint()
    {
        const bool x11 = QGuiApplication::platformName() == QLatin1String("xcb");
        if (x11)
            setCapsLock(true);
        FakeUiStatus status;
        auto dialog = shown(&status, 0);
        auto *hint = dialog->findChild<QLabel *>("label_capsLock");
        auto *field = dialog->findChild<QLineEdit *>(fields[0]);
        for (bool on : {true, false}) {
            field->setFocus();
            QTRY_VERIFY(field->hasFocus());
            QCoreApplication::processEvents();
            QTRY_COMPARE(hint->isVisible(), x11 && on);
            QVERIFY(!x11 || hint->text() == "Caps Lock is on");
            dialog->findChild<QWidget *>("pushButton_OK")->setFocus();
            QTRY_VERIFY(!hint->isVisible());
            if (x11)
                setCapsLock(false);
        }
    }

    // An inactive dialog asks for activation and, only where the platform can grant it (not
    // under Wayland), asks again half a second later.
    void testActivationRequestedOnce()
    {
        auto singleShots = [] { // Qt parents a delayed single shot's timer to the dispatcher
            int n = 0;
            for (QObject *o : QAbstractEventDispatcher::instance()->children())
                n += o->inherits("QSingleShotTimer");
            return n;
        };
        FakeUiStatus status;
        PINDialog dialog(PINDialog::SimpleKeyBoard, false, 0, &status, 1.0f);
        QVERIFY(!dialog.isActiveWindow());
        const int before = singleShots();
        dialog.SetWindowAcitive();
        QCOMPARE(singleShots() - before,
                 QGuiApplication::platformName().startsWith("wayland") ? 0 : 1);
        QVERIFY(!WindowActivation::retriesActivation("wayland-egl")
                && WindowActivation::retriesActivation("xcb"));
    }
};

QTEST_MAIN(TestPinFieldAids)
#include "TestPinFieldAids.moc"
