// The PIN dialog as its user meets it: strength rules, each type's rows and answers, input
// filters and guards, the keyboard panel, the field aids, the ways to give up, the comment.
#include "ui/PINDialog.h"
#include "ui/PinFieldReveal.h"

#include "FakeUiStatus.h"

#include <QtWidgets>
#include <QtTest>

#ifdef ZRUI_HAVE_XKB
#include <X11/XKBlib.h>
#include <X11/Xlib.h>
#endif


namespace {
const char *const fields[] = {"lineEdit_oldPin", "lineEdit_newPin", "lineEdit_confirmPin"};

// The hand-off buffer's lengths: little-endian, as this host holds them.
QByteArray le(quint32 n) { return QByteArray(reinterpret_cast<char *>(&n), 4); }

void setCapsLock(bool on) // where the X keyboard extension can set it
{
#ifdef ZRUI_HAVE_XKB
    static Display *x = QGuiApplication::platformName() == "xcb" ? XOpenDisplay(nullptr) : nullptr;
    if (x && XkbLockModifiers(x, XkbUseCoreKbd, LockMask, on ? LockMask : 0))
        XSync(x, False);
#endif
}

double luminance(const QColor &c)
{
    auto f = [](double v) { return v <= 0.03928 ? v / 12.92 : std::pow((v + 0.055) / 1.055, 2.4); };
    return 0.2126 * f(c.redF()) + 0.7152 * f(c.greenF()) + 0.0722 * f(c.blueF());
}

const QByteArray Len = "The password must be 6-300 characters",
                 Weak = "IDC_CUSTOM_PIN_ANNOTATION_2",
                 Differ = "Please confirm that new USBKey password is entered identiacally!";
const struct
{
    const char *name;
    ulong type;
    QString pins; // old|new|confirm; empty: the row is hidden
    int refused; // the field cleared and focused; -1: accepted; -2: given up as the name says
    QByteArray result; // the hand-off bytes, or the comment shown
} okCases[] = {
        {"verify repeated", 0, "aaaaaa||", -1, le(6) + "aaaaaa" + le(0)},
        {"so verify, UTF-8", 1, "p\u00e4sswort||", -1, le(9) + "p\xC3\xA4sswort" + le(0)},
        {"unblock, long", 4, QString(300, 'a') + "||", -1, le(300) + QByteArray(300, 'a') + le(0)},
        {"set", 5, "|a1b2c3|a1b2c3", -1, le(0) + le(6) + "a1b2c3"},
        {"change, cut at #", 2, "1#1111|ab1234#|ab1234#", -1, le(6) + "1#1111" + le(6) + "ab1234"},
        {"verify short", 0, "12345||", 0, Len},
        {"so change, short old", 3, "1111|a1b2c3|a1b2c3", 0, Len},
        {"change, short new", 2, "111111|a1b2|a1b2", 1, Len},
        {"change, weak", 2, "111111|banana|banana", 1, Weak},
        {"so change, forbidden", 3, "111111|qwerty|qwerty", 1, Weak},
        {"change, confirmed otherwise", 2, "111111|a1b2c3|a1b2c4", 1, Differ},
        {"set, case differs", 5, "|aB3xY9|Ab3xY9", 1, Differ},
        {"close", 2, "secret1|abc123|abc123", -2, ""},
        {"Cancel", 2, "secret1|abc123|abc123", -2, ""},
        {"Esc", 2, "secret1|abc123|abc123", -2, ""},
        {"Alt+C", 2, "secret1|abc123|abc123", -2, ""}};
const QString titles[]
        = {"Verify USBKey password",    "Verify USBKey so password", "Change USBKey password",
           "Change USBKey so password", "Unblock USBKey password",   "Set USBKey password"};
} // namespace

class TestPINDialog : public QObject
{
    Q_OBJECT

    std::unique_ptr<FakeUiStatus> fake;
    std::unique_ptr<PINDialog> dlg;

    QLineEdit *edit(int i) const { return dlg->findChild<QLineEdit *>(fields[i]); }
    QWidget *child(const QString &name) const { return dlg->findChild<QWidget *>(name); }
    void show(ulong type, int keyboard = PINDialog::FullKeyBoard)
    {
        dlg.reset(new PINDialog(PINDialog::KeyBoardMode(keyboard), true, type, fake.get(), 1.0f));
        dlg->show();
        QApplication::setActiveWindow(dlg.get());
        QVERIFY(QTest::qWaitForWindowActive(dlg.get()));
    }
    static QWidget *focus() { return QApplication::focusWidget(); }

private slots:
    void init() { dlg.reset(), fake.reset(new FakeUiStatus(6, 300)); }

    // The strength, and the verdict shown while the new PIN (not the confirmation) is typed:
    // 0 too short; 2 forbidden (repetition, straight run by code, walk along either fixed
    // keyboard row, across its joins); 3-5 weak, normal, high by character classes. The verdict
    // keeps a 4.5:1 contrast on a light and on a dark blue palette, red unless normal or high.
    void testLevel()
    {
        const QPalette light = QApplication::palette(), dark(QColor(0x20, 0x20, 0x60));
        int n = 0;
        fake->pinMax = 16;
        const std::initializer_list<std::tuple<int, int, QStringList>> groups
                = {{6, 0, {"12345", "aB3#Y"}},
                   {6, 2, {"111111", "123456", "654321", "qwerty", "QWERTY", "1234567890-="}},
                   {6, 2, {"kl;'zxc", "JKL:\"ZXC", "!@#$%^&*()_+|", " qwert", "中qwert", "789:;<"}},
                   {6, 3, {"890123", "banana", "#!#!#!", "aaaaab"}},
                   {6, 4, {"qwe中rt", "qw ert", "a1b2c3", "11111a"}},
                   {6, 5, {"m,./z1", "aB3xY9"}},
                   {1, 2, {"qwe", "=\\q", "[]a", "/.", "a"}},
                   {1, 3, {"/,"}},
                   {1, 4, {"qwe1"}}};
        for (const auto &[min, level, pins] : groups) {
            fake->pinMin = min;
            const QString verdict
                    = level < 3 ? QString("The password must be %1-16 characters").arg(min)
                                : QString("Pin:Weak Pin:Normal Pin:High").split(' ')[level - 3];
            for (const QString &pin : pins) {
                QApplication::setPalette(++n % 2 ? light : dark);
                PINDialog dlg(PINDialog::FullKeyBoard, false, 2, fake.get(), 1.0f);
                auto *comments = dlg.findChild<QLabel *>("label_comments");
                dlg.findChild<QLineEdit *>(fields[2])->setText(pin);
                QVERIFY(comments->text().isEmpty());
                dlg.findChild<QLineEdit *>(fields[1])->setText(pin);
                QCOMPARE(pin + QString::number(dlg.IsValidPIN(pin)) + comments->text(),
                         pin + QString::number(level) + verdict);
                dlg.ensurePolished();
                const QColor text = comments->palette().color(comments->foregroundRole());
                const double a = luminance(text), b = luminance(dlg.palette().window().color());
                QVERIFY2((qMax(a, b) + 0.05) / (qMin(a, b) + 0.05) >= 4.5, qPrintable(pin));
                QCOMPARE(text.hslHue() == 0 && text.hslSaturation() > 128, level < 4);
            }
        }
        QApplication::setPalette(light);
    }

    void testOk_data()
    {
        QTest::addColumn<int>("i");
        for (int i = 0; i < int(std::size(okCases)); ++i)
            QTest::newRow(okCases[i].name) << i;
    }

    // Each type shows its title and rows, and the focus frame at once. With the simple keyboard
    // (even types) new PINs are cut at the first character other than a letter or digit. OK (the
    // button, or Return in the last field) hands over the length-prefixed PINs once, or refuses
    // with a reason (also the fields' accessible description) and clears what it refused. Every way
    // to give up answers Cancel without the typed PIN, once, however often the window is closed.
    void testOk()
    {
        QFETCH(int, i);
        const auto &c = okCases[i];
        const QStringList pins = c.pins.split('|');
        show(c.type, c.type % 2);
        QCOMPARE(dlg->windowTitle(), titles[c.type]);
        for (int f = 0; f < 3; ++f) {
            QCOMPARE(child(QString(fields[f]).replace("lineEdit", "label"))->isVisible(),
                     !pins[f].isEmpty());
            QCOMPARE(edit(f)->isVisible(), !pins[f].isEmpty());
            edit(f)->setText(pins[f]);
        }
        // No empty band between the annotation and the first shown field.
        QWidget *first = edit(pins[0].isEmpty()), *note = child("label_fixcomment");
        QVERIFY(first->mapTo(dlg.get(), QPoint()).y() - note->mapTo(dlg.get(), QPoint()).y()
                < note->height() + first->height());
        QTRY_VERIFY(dlg->testAttribute(Qt::WA_KeyboardFocusChange));
        QCOMPARE(dlg->IsAllInputValid(), c.refused < 0);
        QLineEdit *last = edit(pins[2].isEmpty() ? 0 : 2);
        last->setFocus();
        const QString how = c.refused == -2 ? c.name : c.type % 2 ? "Return" : "OK";
        if (how == "OK" || how == "Cancel")
            QTest::mouseClick(child("pushButton_" + how), Qt::LeftButton);
        else if (how != "close")
            QTest::keySequence(last, QKeySequence(how));
        for (int n = 0; c.refused < 0 && n < 2; ++n) // later closes answer nothing
            dlg->windowHandle()->close();
        QCoreApplication::sendPostedEvents(); // runs queued answers: "nothing" is final
        QCOMPARE(fake->pinReports.load(), c.refused >= 0 ? 0 : 1);
        QCOMPARE(fake->lastPinBuffer(), c.refused == -1 ? c.result : QByteArray());
        QCOMPARE(fake->pinStatusValue(), c.refused >= 0 ? -1 : c.refused + 2);
        if (c.refused < 0)
            return;
        QCOMPARE(dlg->findChild<QLabel *>("label_comments")->text(), QString(c.result));
        QCOMPARE(QAccessible::queryAccessibleInterface(edit(1))->text(QAccessible::Description),
                 QString(c.result));
        QTRY_VERIFY(edit(c.refused)->hasFocus());
        for (int f = 0; f < 3; ++f)
            QCOMPARE(edit(f)->text().isEmpty(), (f == 0) == (c.refused == 0) || pins[f].isEmpty());
    }

    // Asked for visible, the panel still starts hidden; its button shows it in the grown window.
    // Tab walks the fields, the button, the keyboard, OK and Cancel; in the keyboard arrows move
    // between keys, Space and Return press one (never OK); keys type into the field last used;
    // the window shrinks back.
    void testKeyboardPanel()
    {
        for (int type : {0, 2, 5}) { // the keyboard: simple for even types, full for odd
            show(type, type % 2);
            QWidget *panel = child("widget_softkeyboard"), *kb = dlg->keyboardWidget();
            auto *button = dlg->findChild<QToolButton *>(type ? "toolButtonnew_softkeyboard"
                                                              : "toolButtonold_softkeyboard");
            QVERIFY(!panel->isVisible() && !button->isChecked() && kb->parentWidget() == panel);
            QLineEdit *last = edit(type ? 2 : 0);
            const QList<QWidget *> order
                    = QList<QWidget *>{edit(0), edit(1), last}.mid(type == 5, type ? 3 : 1)
                      << button << kb << child("pushButton_OK") << child("pushButton_Cancel");
            const QRect before = dlg->frameGeometry();
            QTest::mouseClick(button, Qt::LeftButton);
            QVERIFY(panel->isVisible() && dlg->height() > before.height() + panel->height() / 2);
            order[0]->setFocus(Qt::TabFocusReason);
            for (QWidget *w : order) {
                QTRY_VERIFY(w == focus() || w->isAncestorOf(focus()));
                QTest::keyClick(focus(), Qt::Key_Tab);
            }
            last->setFocus(Qt::TabFocusReason);
            kb->setFocus(Qt::TabFocusReason);
            QTRY_VERIFY(kb->isAncestorOf(focus()));
            QWidget *first = focus();
            QTest::keyClick(first, Qt::Key_Right);
            QVERIFY(focus() != first && kb->isAncestorOf(focus()));
            for (Qt::Key k : {Qt::Key_Space, Qt::Key_Return})
                QTest::keyClick(focus(), k);
            QCoreApplication::sendPostedEvents();
            QCOMPARE(last->text().size() * 10 + fake->pinReports.load(), 20);
            // Each key types its face by the left button alone, plain, then shifted (shift swaps
            // every face in place); the backspace key takes one back; a shuffle deals them anew.
            const auto keys
                    = kb->findChildren<QLabel *>(QRegularExpression("_(number|char|note)_"));
            const QString az = "abcdefghijklmnopqrstuvwxyz",
                          all[] = {"0123456789" + az + (type % 2 ? "`-=[]\\;',./" : ""),
                                   (type % 2 ? ")!@#$%^&*(" : "0123456789") + az.toUpper()
                                           + (type % 2 ? "~_+{}|:\"<>?" : "")};
            const auto sorted = [](QString s) { return std::sort(s.begin(), s.end()), s; };
            const auto faces = [&keys] {
                return std::accumulate(keys.begin(), keys.end(), QString(),
                                       [](const QString &s, QLabel *k) { return s + k->text(); });
            };
            for (int shift = 0; shift < 2; ++shift) {
                const QString shown = faces();
                QCOMPARE(sorted(shown), sorted(all[shift]));
                last->clear();
                for (auto b : {Qt::RightButton, Qt::MiddleButton, Qt::LeftButton})
                    for (QLabel *k : keys) // a double click's second press types nothing
                        QTest::mouseClick(k, b), QTest::mouseDClick(k, b);
                QMetaObject::invokeMethod(kb, "input_backspace");
                QCOMPARE(last->text(), shown.chopped(1));
                QTest::mouseClick(kb->findChild<QLabel *>("label_shift"), Qt::LeftButton);
                for (int k = 0; k < shown.size(); ++k)
                    QCOMPARE(faces()[k], all[!shift][all[shift].indexOf(shown[k])]);
                const QString dealt = faces();
                QMetaObject::invokeMethod(kb, "randomSoftKeyboard");
                QVERIFY(faces() != dealt && sorted(faces()) == sorted(dealt));
            }
            QCOMPARE(edit(0)->text() + edit(1)->text() + edit(2)->text(), last->text());
            QTest::mouseClick(button, Qt::LeftButton);
            QVERIFY(!panel->isVisible() && dlg->frameGeometry().size() == before.size());
        }
    }

    // Show toggle: shown in clear, never selectable, masked for assistive tools and again once
    // hidden. The Caps Lock hint shows on X11 while a PIN field has the focus, elsewhere never. A
    // long comment grows the window, kept on the screen. Nothing gets in or out by clipboard,
    // selection or drag and drop (a plain line edit shows each way works); a left click places
    // the cursor. Activation is asked for again later, except under Wayland, which refuses it.
    void testFieldAids()
    {
        const bool x11 = QGuiApplication::platformName() == QLatin1String("xcb"),
                   wayland = QGuiApplication::platformName().startsWith("wayland");
        QClipboard *clipboard = QGuiApplication::clipboard();
        QMimeData mime;
        mime.setText("zzzzzz");
        QDropEvent drop(QPointF(5, 5), Qt::CopyAction, &mime, Qt::LeftButton, {});
        QDragEnterEvent enter(QPoint(5, 5), Qt::CopyAction, &mime, Qt::LeftButton, {});
        QLineEdit control;
        control.show();
        QVERIFY(QTest::qWaitForWindowExposed(&control));
        setCapsLock(true);
        show(2);
        for (int f = 0; f < 3; ++f) {
            QLineEdit *e = edit(f);
            auto *toggle = dlg->findChild<QAction *>(QString(fields[f]) + "_show");
            QVERIFY(e->echoMode() == QLineEdit::Password && toggle->text() == "Show PIN");
            e->setText("a1b2c3");
            toggle->trigger();
            QVERIFY(e->findChild<PinFieldReveal *>()->isShown() && toggle->text() == "Hide PIN");
            e->setFocus();
            e->setSelection(0, 4);
            QTest::keyClick(e, Qt::Key_Home, Qt::ShiftModifier);
            QVERIFY(!e->hasSelectedText());
            QAccessibleInterface *iface = QAccessible::queryAccessibleInterface(e);
            QVERIFY(iface->state().passwordEdit && !iface->textInterface());
            QCOMPARE(iface->text(QAccessible::Value), QStringLiteral("******"));
        }
        QWidget *hint = child("label_capsLock");
        for (bool on : {true, false}) {
            edit(0)->setFocus();
            QTRY_VERIFY(edit(0)->hasFocus());
            QCoreApplication::processEvents();
            QTRY_COMPARE(hint->isVisible(), x11 && on);
            child("pushButton_OK")->setFocus();
            QTRY_VERIFY(!hint->isVisible());
            setCapsLock(false);
        }
        const QRect area = dlg->screen()->availableGeometry();
        dlg->move(area.left() + 10, area.bottom() + 1 - dlg->frameGeometry().height());
        dlg->setComment(QString("a long reason ").repeated(15));
        QWidget *comments = child("label_comments");
        QVERIFY(comments->height() >= comments->heightForWidth(comments->width()));
        QVERIFY(area.contains(dlg->frameGeometry()) && dlg->x() == area.left() + 10);
        // Wayland's clipboard serves focused windows only: the other runs cover it.
        for (const QString &how :
             wayland ? QStringList()
                     : QStringList{"Ctrl+V", "Shift+Ins", "middle", "drop", "Ctrl+C, Ctrl+X"}) {
            const auto mode = how == "middle" ? QClipboard::Selection : QClipboard::Clipboard;
            if (mode == QClipboard::Selection && !clipboard->supportsSelection())
                continue; // none offscreen: the run of this test on an X server covers it
            const QString before = how.contains(',') ? "abc123" : "";
            for (QLineEdit *e : {&control, edit(0), edit(1), edit(2)}) {
                clipboard->setText("zzzzzz", mode);
                QTRY_COMPARE(clipboard->text(mode), QString("zzzzzz"));
                e->setText(before);
                e->setEchoMode(QLineEdit::Normal); // the guard must not rest on the mask
                e->setFocus();
                e->selectAll();
                if (how == "middle") {
                    QTest::mouseClick(e, Qt::MiddleButton);
                    QTest::mouseDClick(e, Qt::MiddleButton);
                } else if (how == "drop") {
                    QApplication::sendEvent(e, &enter);
                    QApplication::sendEvent(e, &drop);
                } else {
                    QTest::keySequence(e, QKeySequence(how));
                }
                const bool kept = e->text() + '|' + clipboard->text(mode) == before + "|zzzzzz";
                QVERIFY2(kept == (e != &control), qPrintable(how));
                QCOMPARE(e->contextMenuPolicy() == Qt::NoContextMenu, e != &control);
            }
        }
        QTest::mouseClick(edit(1), Qt::LeftButton, {}, QPoint(1, edit(1)->height() / 2));
        QCOMPARE(edit(1)->cursorPosition(), 0);
        dlg->hide();
        for (int f = 0; f < 3; ++f)
            QVERIFY(!edit(f)->findChild<PinFieldReveal *>()->isShown());
        const int timers = QAbstractEventDispatcher::instance()->children().size();
        dlg->SetWindowAcitive(); // a delayed single shot's timer is a child of the dispatcher
        QCOMPARE(QAbstractEventDispatcher::instance()->children().size() - timers, wayland ? 0 : 1);
        QCOMPARE(fake->pinReports.load(), 0);
    }
};

QTEST_MAIN(TestPINDialog)
#include "TestPINDialog.moc"
