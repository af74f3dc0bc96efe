// The PIN dialog as its user meets it: what each type shows, how input is filtered and
// guarded, the keyboard panel, the answers it reports, and what assistive tools are told.
#include "ui/PINDialog.h"

#include "FakeUiStatus.h"

#include <QtWidgets>
#include <QtTest>

#include <cmath>
#include <memory>

namespace {
const char *const fieldNames[] = {"lineEdit_oldPin", "lineEdit_newPin", "lineEdit_confirmPin"};

template<class T = QWidget>
T *child(QWidget *w, const QString &name)
{
    return w->findChild<T *>(name);
}
QLineEdit *edit(QWidget *w, const char *name) { return child<QLineEdit>(w, name); }
QToolButton *kbButton(QWidget *w, bool newRow)
{
    return child<QToolButton>(w,
                              newRow ? "toolButtonnew_softkeyboard" : "toolButtonold_softkeyboard");
}

void drainEvents()
{
    QCoreApplication::sendPostedEvents();
    QCoreApplication::processEvents();
    QCoreApplication::sendPostedEvents(nullptr, QEvent::DeferredDelete);
}

double luminance(const QColor &c)
{
    auto ch = [](double v) {
        return v <= 0.03928 ? v / 12.92 : std::pow((v + 0.055) / 1.055, 2.4);
    };
    return 0.2126 * ch(c.redF()) + 0.7152 * ch(c.greenF()) + 0.0722 * ch(c.blueF());
}
} // namespace

class TestPINDialog : public QObject
{
    Q_OBJECT

    FakeUiStatus fake{6, 16};
    const QFont appFont = QApplication::font();

    std::unique_ptr<PINDialog> show(ulong type, int mode = PINDialog::FullKeyBoard,
                                    FakeUiStatus *status = nullptr, float scale = 1.0f)
    {
        std::unique_ptr<PINDialog> dlg(new PINDialog(PINDialog::KeyBoardMode(mode), true, type,
                                                     status ? status : &fake, scale));
        dlg->show();
        dlg->activateWindow();
        if (!QTest::qWaitForWindowActive(dlg.get()))
            qWarning("dialog did not become active");
        return dlg;
    }

private slots:
    void init()
    {
        fake.SetPINStatus(-1, nullptr, 0);
        fake.pinReports = 0;
    }
    void cleanup()
    {
        QApplication::setFont(appFont);
        drainEvents();
    }

    void testOkSendsUtf8LengthsOnce()
    {
        auto dlg = show(2);
        edit(dlg.get(), "lineEdit_oldPin")->setText(QString::fromUtf8("p\xC3\xA4sswort"));
        edit(dlg.get(), "lineEdit_newPin")->setText("Abc123x");
        edit(dlg.get(), "lineEdit_confirmPin")->setText("Abc123x");
        QTest::mouseClick(child<QPushButton>(dlg.get(), "pushButton_OK"), Qt::LeftButton);
        QCOMPARE(fake.pinStatusValue(), 1);
        QCOMPARE(fake.lastPinBuffer(), QByteArray::fromHex("09000000") + "p\xC3\xA4sswort"
                                               + QByteArray::fromHex("07000000") + "Abc123x");
        dlg->close(); // a close after OK leaves the answer alone
        drainEvents();
        QCOMPARE(fake.pinStatusValue(), 1);
        QCOMPARE(fake.pinReports.load(), 1);
        // The coordinator's close (hide and delete, even with a close queued) reports nothing.
        FakeUiStatus closed(6, 16);
        show(2, PINDialog::FullKeyBoard, &closed)->hide();
        show(2, PINDialog::FullKeyBoard, &closed)->close();
        drainEvents();
        QCOMPARE(closed.pinReports.load(), 0);
    }

    void testTypes_data()
    {
        QTest::addColumn<ulong>("type");
        QTest::addColumn<QString>("oldLabel");
        const char *old[] = {"Input User Pin:", "Input Admin Pin:", "Old PIN:",
                             "Old PIN:",        "Input Admin Pin:", ""};
        for (ulong type = 0; type <= 5; ++type)
            QTest::addRow("type%lu", type) << type << QString(old[type]);
    }

    // Per type: fields and labels, tab order, focus ring, accessible names, fit, refusals.
    void testTypes()
    {
        QFETCH(ulong, type);
        QFETCH(QString, oldLabel);
        const bool hasOld = type != 5, hasNew = type == 2 || type == 3 || type == 5;
        auto dlg = show(type, type % 2 ? PINDialog::FullKeyBoard : PINDialog::SimpleKeyBoard);
        QTRY_VERIFY(dlg->testAttribute(Qt::WA_KeyboardFocusChange)); // the focus frame shows
        const QStringList labels{oldLabel, type == 5 ? "USBKey Passwd:" : "New PIN:",
                                 type == 5 ? "Passwd Confirm:" : "Confirm PIN:"};
        QList<QLineEdit *> fields;
        QStringList order;
        for (int i = 0; i < 3; ++i) {
            QLineEdit *e = edit(dlg.get(), fieldNames[i]);
            auto *l = child<QLabel>(dlg.get(), QString(fieldNames[i]).replace("lineEdit", "label"));
            QCOMPARE(e->isVisible(), i == 0 ? hasOld : hasNew);
            QCOMPARE(l->isVisible(), e->isVisible());
            QAccessibleInterface *iface = QAccessible::queryAccessibleInterface(e);
            if (e->isVisible()) { // a password field named by its label
                QCOMPARE(l->text(), labels[i]);
                QVERIFY(iface->role() == QAccessible::EditableText && iface->state().passwordEdit);
                QCOMPARE(iface->text(QAccessible::Name), l->text());
                fields << e;
                order << e->objectName();
            }
        }
        dlg->ReTranslateUI(); // as on a language switch (kept narrower: type 1 shows "Old PIN:")
        QVERIFY(!hasOld
                || child<QLabel>(dlg.get(), "label_oldPin")->text()
                           == (type == 1 ? "Old PIN:" : oldLabel));
        QCOMPARE(kbButton(dlg.get(), false)->isVisible(), !hasNew);
        QCOMPARE(kbButton(dlg.get(), true)->isVisible(), hasNew);
        order << kbButton(dlg.get(), hasNew)->objectName() << "pushButton_OK"
              << "pushButton_Cancel";
        fields[0]->setFocus(Qt::OtherFocusReason);
        QTRY_COMPARE(QApplication::focusWidget(), fields[0]);
        QStringList seen{order[0]};
        while (seen.size() < order.size()) {
            QTest::keyClick(QApplication::focusWidget(), Qt::Key_Tab);
            seen << QApplication::focusWidget()->objectName();
        }
        QCOMPARE(seen, order);
        // Every child lies inside the window and shows its whole text, keyboard shown or not.
        for (bool keyboard : {false, true}) {
            if (keyboard)
                QTest::mouseClick(kbButton(dlg.get(), hasNew), Qt::LeftButton);
            QCOMPARE(child(dlg.get(), "widget_softkeyboard")->isVisible(), keyboard);
            for (QWidget *w : dlg->findChildren<QWidget *>()) {
                const QRect r(w->mapTo(dlg.get(), QPoint()), w->size());
                // A text field only has to keep its minimum (its hint grows with its actions).
                const QSize need
                        = qobject_cast<QLineEdit *>(w) ? w->minimumSizeHint() : w->sizeHint();
                QVERIFY2(!w->isVisible() || w->parentWidget() != dlg.get()
                                 || (dlg->rect().contains(r) && w->width() >= need.width()),
                         qPrintable(w->objectName()));
            }
        }
        // A refused PIN: the reason is announced as the fields' description.
        fields.last()->setText("x");
        QTest::mouseClick(child<QPushButton>(dlg.get(), "pushButton_OK"), Qt::LeftButton);
        const QString comment = child<QLabel>(dlg.get(), "label_comments")->text();
        QVERIFY(!comment.isEmpty());
        QCOMPARE(QAccessible::queryAccessibleInterface(fields[0])->text(QAccessible::Description),
                 comment);
        QCOMPARE(fake.pinReports.load(), 0);
    }

    void testSimpleModeFilter_data()
    {
        QTest::addColumn<int>("keyboardMode");
        QTest::addColumn<QString>("input");
        QTest::addColumn<QString>("pasted");
        QTest::addColumn<QString>("typed");
        // Pasted text is cut at the first refused character; typed, only refused ones vanish.
        auto row = [](const char *name, int mode, const char *in, QString pasted, QString typed) {
            QTest::newRow(name) << mode << QString::fromUtf8(in) << pasted << typed;
        };
        row("simple cuts at #", PINDialog::SimpleKeyBoard, "ab#cd", "ab", "abcd");
        row("simple cuts non-ASCII", PINDialog::SimpleKeyBoard, "x\xC3\xA4y", "x", "xy");
        row("simple leading symbol", PINDialog::SimpleKeyBoard, "#ab", "", "ab");
        row("full keeps", PINDialog::FullKeyBoard, "ab#cd", "ab#cd", "ab#cd");
    }

    void testSimpleModeFilter()
    {
        QFETCH(int, keyboardMode);
        QFETCH(QString, input);
        QFETCH(QString, pasted);
        QFETCH(QString, typed);
        auto dlg = show(2, keyboardMode);
        for (const char *name : {"lineEdit_newPin", "lineEdit_confirmPin"}) {
            QLineEdit *e = edit(dlg.get(), name);
            e->setText(input);
            QCOMPARE(e->text(), pasted);
            e->clear();
            for (const QChar c : input)
                QTest::sendKeyEvent(QTest::Click, e, Qt::Key_unknown, QString(c), Qt::NoModifier);
            QCOMPARE(e->text(), typed);
        }
        edit(dlg.get(), "lineEdit_oldPin")->setText(input); // the current PIN is never filtered
        QCOMPARE(edit(dlg.get(), "lineEdit_oldPin")->text(), input);
    }

    void testPasteGuards_data()
    {
        QTest::addColumn<int>("how");
        int n = 0;
        for (const char *how : {"Ctrl+V", "Shift+Insert", "middle click", "drop", "Ctrl+C, Ctrl+X"})
            QTest::newRow(how) << n++;
    }

    // Nothing gets in or out through the clipboard or drag and drop, while a plain line edit
    // shows that each way works here.
    void testPasteGuards()
    {
        QFETCH(int, how);
        QClipboard *clipboard = QGuiApplication::clipboard();
        const QClipboard::Mode mode = how == 2 ? QClipboard::Selection : QClipboard::Clipboard;
        if (how == 2 && !clipboard->supportsSelection())
            QSKIP("no selection clipboard here: the xvfb run of this test covers it");
        const QString before = how == 4 ? "abc123" : "";
        QMimeData mime;
        mime.setText("zzzzzz");
        auto act = [&](QLineEdit *e) { // what is left: the field's text and the clipboard's
            e->setText(before);
            e->setEchoMode(QLineEdit::Normal); // the guard must not rest on the mask
            e->setFocus();
            e->selectAll();
            if (how < 2) {
                QTest::keyClick(e, how ? Qt::Key_Insert : Qt::Key_V,
                                how ? Qt::ShiftModifier : Qt::ControlModifier);
            } else if (how == 2) {
                QTest::mouseClick(e, Qt::MiddleButton);
                QTest::mouseDClick(e, Qt::MiddleButton);
            } else if (how == 3) {
                QDragEnterEvent enter(QPoint(5, 5), Qt::CopyAction, &mime, Qt::LeftButton, {});
                QApplication::sendEvent(e, &enter);
                QDropEvent drop(QPointF(5, 5), Qt::CopyAction, &mime, Qt::LeftButton, {});
                QApplication::sendEvent(e, &drop);
            } else {
                QTest::keyClick(e, Qt::Key_C, Qt::ControlModifier);
                QTest::keyClick(e, Qt::Key_X, Qt::ControlModifier);
            }
            return e->text() + '|' + clipboard->text(mode);
        };
        QLineEdit control;
        control.show();
        QVERIFY(QTest::qWaitForWindowExposed(&control));
        auto dlg = show(2);
        for (QLineEdit *e : {&control, edit(dlg.get(), fieldNames[0]),
                             edit(dlg.get(), fieldNames[1]), edit(dlg.get(), fieldNames[2])}) {
            clipboard->setText("zzzzzz", mode);
            QTRY_COMPARE(clipboard->text(mode), QString("zzzzzz"));
            QCOMPARE(act(e) == before + "|zzzzzz", e != &control);
            QCOMPARE(e->contextMenuPolicy() == Qt::NoContextMenu, e != &control);
        }
        QCOMPARE(fake.pinReports.load(), 0);
    }

    void testKeyboardPanel_data()
    {
        QTest::addColumn<int>("keyboardMode");
        QTest::addColumn<float>("scale");
        QTest::newRow("simple 1.0") << int(PINDialog::SimpleKeyBoard) << 1.0f;
        QTest::newRow("full 2.0") << int(PINDialog::FullKeyBoard) << 2.0f;
    }

    // Asked for visible, the panel still starts hidden; its button shows it at the keyboard's
    // scaled size inside the window, which grows and shrinks back. Keys type into the focused
    // field, up to the longest PIN, and a press keeps the focus.
    void testKeyboardPanel()
    {
        QFETCH(int, keyboardMode);
        QFETCH(float, scale);
        QFont font = appFont; // fonts grow with the dpi the scale comes from
        font.setPointSizeF(appFont.pointSizeF() * scale);
        QApplication::setFont(font);
        auto dlg = show(2, keyboardMode, nullptr, scale);
        QWidget *panel = child(dlg.get(), "widget_softkeyboard"), *kb = dlg->keyboardWidget();
        QVERIFY(!dlg->isKeyboardVisible() && !panel->isVisible());
        QVERIFY(!kbButton(dlg.get(), false)->isChecked()
                && !kbButton(dlg.get(), true)->isChecked());
        QCOMPARE(kb->parentWidget(), panel);
        const QRect before = dlg->frameGeometry();
        const int y = PINDialog::rememberedWindowY() ? PINDialog::rememberedWindowY() : before.y();
        QTest::mouseClick(kbButton(dlg.get(), true), Qt::LeftButton);
        QVERIFY(panel->isVisible());
        QCOMPARE(kb->size(), QSize(410, 140) * double(scale));
        QCOMPARE(panel->size(), kb->size());
        QVERIFY(dlg->rect().contains(QRect(panel->mapTo(dlg.get(), QPoint()), panel->size())));
        QVERIFY(dlg->frameGeometry().height() > before.height() + panel->height() / 2);
        QVERIFY(scale > 1 || dlg->frameGeometry().y() == y); // it fits where it is: it stays
        for (QLabel *key : kb->findChildren<QLabel *>()) { // each face fits its key, framed too
            key->setFocus();
            const QSize face = key->fontMetrics().size(0, key->text());
            QVERIFY(face.height() >= QFontInfo(font).pixelSize()
                    && kb->rect().contains(key->geometry()));
            QVERIFY2(face.width() <= key->contentsRect().width()
                             && face.height() <= key->contentsRect().height(),
                     qPrintable(key->objectName()));
        }

        QTest::mouseClick(kbButton(dlg.get(), true), Qt::LeftButton);
        QVERIFY(!panel->isVisible());
        QCOMPARE(dlg->frameGeometry().height(), before.height());
        QVERIFY(scale > 1 || dlg->frameGeometry().y() == y);
        kbButton(dlg.get(), true)->setChecked(true);
        QLineEdit *newPin = edit(dlg.get(), "lineEdit_newPin");
        QLineEdit *confirmPin = edit(dlg.get(), "lineEdit_confirmPin");
        newPin->setFocus();
        QTRY_COMPARE(dlg->currentInputLineEdit(), newPin);
        QMetaObject::invokeMethod(kb, "input_char", Q_ARG(char, 'z'));
        QMetaObject::invokeMethod(kb, "input_backspace");
        auto *key = child<QLabel>(kb, "label_number_0");
        QTest::mousePress(key, Qt::LeftButton);
        QTest::mouseRelease(key, Qt::LeftButton);
        QCOMPARE(newPin->text(), key->text());
        QCOMPARE(dlg->currentInputLineEdit(), newPin);
        confirmPin->setFocus();
        QTRY_COMPARE(dlg->currentInputLineEdit(), confirmPin);
        for (int i = 0; i < 20; ++i)
            QMetaObject::invokeMethod(kb, "input_char", Q_ARG(char, 'k'));
        QMetaObject::invokeMethod(kb, "input_backspace");
        QCOMPARE(confirmPin->text(), QString(15, 'k'));
        QCOMPARE(newPin->text(), key->text());
    }

    void testCancelAnswersOnce_data()
    {
        QTest::addColumn<int>("key"); // 0: the window manager's close, 1: the Cancel button
        QTest::addColumn<int>("modifiers");
        QTest::newRow("window close") << 0 << 0;
        QTest::newRow("Cancel") << 1 << 0;
        QTest::newRow("Escape") << int(Qt::Key_Escape) << 0;
        QTest::newRow("Alt+C") << int(Qt::Key_C) << int(Qt::AltModifier);
    }

    // Every way to give up answers Cancel without the typed PIN, once, however often closed.
    void testCancelAnswersOnce()
    {
        QFETCH(int, key);
        QFETCH(int, modifiers);
        auto dlg = show(2);
        QTest::keyClicks(edit(dlg.get(), "lineEdit_oldPin"), "secret1");
        if (key == 0) {
            dlg->windowHandle()->close();
            dlg->windowHandle()->close();
        } else if (key == 1) {
            QTest::mouseClick(child<QPushButton>(dlg.get(), "pushButton_Cancel"), Qt::LeftButton);
        } else {
            QTest::keyClick(QApplication::focusWidget(), Qt::Key(key),
                            Qt::KeyboardModifiers(modifiers));
        }
        dlg->close();
        QTRY_COMPARE(fake.pinReports.load(), 1);
        QCOMPARE(fake.pinStatusValue(), 0);
        QCOMPARE(fake.lastPinBuffer(), QByteArray());
        drainEvents();
        QCOMPARE(fake.pinReports.load(), 1);
    }

    // The comment line keeps a 4.5:1 contrast on a light and a dark palette, and good news is
    // not drawn in the error colour; each strength has its own comment.
    void testCommentReadable()
    {
        const QPalette light = QApplication::palette();
        for (const QPalette &palette : {light, QPalette(QColor(0x35, 0x35, 0x35))}) {
            QApplication::setPalette(palette);
            QSet<QString> texts; // one comment per strength
            for (const char *pin : {"Ab1xY9z!", "abcxyz17", "qazplm", "ab"}) {
                PINDialog dlg(PINDialog::SimpleKeyBoard, false, 2, &fake, 1.0f);
                edit(&dlg, "lineEdit_newPin")->setText(pin);
                auto *comments = child<QLabel>(&dlg, "label_comments");
                const QColor text = comments->palette().color(comments->foregroundRole());
                const double a = luminance(text),
                             b = luminance(dlg.palette().color(QPalette::Window));
                QVERIFY2((qMax(a, b) + 0.05) / (qMin(a, b) + 0.05) >= 4.5, pin);
                const bool good = QByteArray(pin).size() > 6; // the two strong enough ones
                QCOMPARE(text.hslHue() == 0 && text.hslSaturation() > 128, !good);
                texts << comments->text();
            }
            QVERIFY2(texts.size() == 4 && !texts.contains(QString()),
                     qPrintable(texts.values().join(" / ")));
        }
        QApplication::setPalette(light);
    }
};

QTEST_MAIN(TestPINDialog)
#include "TestPINDialog.moc"
