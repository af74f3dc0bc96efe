#include "keyboard/SimpleSoftKeyboard.h"
#include "keyboard/SoftKeyboard.h"

#include <QAccessible>
#include <QLabel>
#include <QLineEdit>
#include <QPushButton>
#include <QShortcut>
#include <QSignalSpy>
#include <QVBoxLayout>
#include <QtTest>

#include <memory>

namespace {

// A window as the PIN dialog has it: a field, the keyboard, a button, and a
// window-wide Return shortcut standing for the dialog's default button.
struct Host
{
    QWidget window;
    QLineEdit *before = new QLineEdit(&window);
    QWidget *kb;
    QPushButton *after = new QPushButton(QStringLiteral("OK"), &window);
    QShortcut *returnShortcut = new QShortcut(Qt::Key_Return, &window);

    explicit Host(bool simple, float scale = 1.0f)
        : kb(simple ? static_cast<QWidget *>(new SimpleSoftKeyboard(scale, &window))
                    : static_cast<QWidget *>(new SoftKeyboard(scale, &window)))
    {
        auto *layout = new QVBoxLayout(&window);
        layout->addWidget(before);
        layout->addWidget(kb);
        layout->addWidget(after);
        kb->setMinimumSize(kb->size());
        window.show();
        window.activateWindow();
        if (!QTest::qWaitForWindowActive(&window))
            qWarning("host window not active");
        before->setFocus();
    }
    QLabel *key(const QString &name) const { return kb->findChild<QLabel *>(name); }
    QLabel *keyShowing(QChar face) const
    {
        for (QLabel *label : kb->findChildren<QLabel *>())
            if (label->text() == QString(face))
                return label;
        return nullptr;
    }
    QWidget *focus() const { return QApplication::focusWidget(); }
};

// Every text of an accessible tree that a screen reader could read out.
void collectTexts(QAccessibleInterface *iface, QStringList &texts, int &buttons)
{
    for (QAccessible::Text t : {QAccessible::Name, QAccessible::Description, QAccessible::Value,
                                QAccessible::Help, QAccessible::Accelerator})
        texts << iface->text(t);
    if (auto *value = iface->valueInterface())
        texts << value->currentValue().toString();
    if (auto *text = iface->textInterface())
        texts << text->text(0, text->characterCount());
    if (iface->role() == QAccessible::Button)
        ++buttons;
    for (int i = 0; i < iface->childCount(); ++i)
        collectTexts(iface->child(i), texts, buttons);
}

} // namespace

class TestKeyboardAccess : public QObject
{
    Q_OBJECT
private slots:
    void testTabAndArrows_data();
    void testTabAndArrows();
    void testPressFromKeyboard_data();
    void testPressFromKeyboard();
    void testAccessibleKeys_data();
    void testAccessibleKeys();
    void testTypedTextNeverExposed_data();
    void testTypedTextNeverExposed();
    void testFacesFit_data();
    void testFacesFit();
};

void TestKeyboardAccess::testTabAndArrows_data()
{
    QTest::addColumn<bool>("simple");
    QTest::addColumn<QString>("from");
    QTest::addColumn<int>("arrow");
    QTest::addColumn<QString>("to");
    QTest::newRow("full right") << false << "label_number_0" << int(Qt::Key_Right)
                                << "label_number_1";
    QTest::newRow("full right to delete")
            << false << "label_number_9" << int(Qt::Key_Right) << "label_delete";
    QTest::newRow("full down") << false << "label_number_0" << int(Qt::Key_Down) << "label_char_00";
    QTest::newRow("full down far")
            << false << "label_char_12" << int(Qt::Key_Down) << "label_char_25";
    QTest::newRow("full up") << false << "label_note_03" << int(Qt::Key_Up) << "label_char_16";
    QTest::newRow("full left edge")
            << false << "label_number_0" << int(Qt::Key_Left) << "label_number_0";
    QTest::newRow("full top edge")
            << false << "label_number_4" << int(Qt::Key_Up) << "label_number_4";
    QTest::newRow("full to space")
            << false << "label_note_10" << int(Qt::Key_Right) << "label_space";
    QTest::newRow("simple left") << true << "label_shift" << int(Qt::Key_Left) << "label_delete";
    QTest::newRow("simple to delete")
            << true << "label_char_25" << int(Qt::Key_Right) << "label_delete";
    QTest::newRow("simple down") << true << "label_number_3" << int(Qt::Key_Down)
                                 << "label_char_03";
    QTest::newRow("simple up") << true << "label_char_20" << int(Qt::Key_Up) << "label_char_10";
    QTest::newRow("simple bottom edge")
            << true << "label_char_22" << int(Qt::Key_Down) << "label_char_22";
}

void TestKeyboardAccess::testTabAndArrows()
{
    QFETCH(bool, simple);
    QFETCH(QString, from);
    QFETCH(int, arrow);
    QFETCH(QString, to);
    Host host(simple);
    QCOMPARE(host.focus(), host.before);

    // Tab enters the keyboard on a key, not on the board; the next Tab leaves it.
    QTest::keyClick(host.focus(), Qt::Key_Tab);
    QTRY_COMPARE(host.focus(), host.key("label_number_0"));
    QTest::keyClick(host.focus(), Qt::Key_Tab);
    QTRY_COMPARE(host.focus(), host.after);

    // Backtab comes back to the key used last, and an arrow moves from there.
    host.key(from)->setFocus();
    QTest::keyClick(host.focus(), Qt::Key_Backtab, Qt::ShiftModifier);
    QTRY_COMPARE(host.focus(), host.before);
    QTest::keyClick(host.focus(), Qt::Key_Tab);
    QTRY_COMPARE(host.focus(), host.key(from));
    QTest::keyClick(host.focus(), Qt::Key(arrow));
    QTRY_COMPARE(host.focus()->objectName(), to);

    // The focused key is framed, visibly, and only while it has the focus.
    QLabel *focused = host.key(to);
    QCOMPARE(focused->frameShape(), QFrame::Box);
    QVERIFY(focused->lineWidth() >= 2);
    const QImage framed = focused->grab().toImage();
    host.before->setFocus();
    QTRY_COMPARE(focused->frameShape(), QFrame::NoFrame);
    QVERIFY(focused->grab().toImage() != framed);
}

void TestKeyboardAccess::testPressFromKeyboard_data()
{
    QTest::addColumn<bool>("simple");
    QTest::addColumn<QString>("name");
    QTest::addColumn<int>("qtKey");
    QTest::addColumn<bool>("autoRepeat");
    QTest::addColumn<QString>("typed"); // "face", "\b" for backspace, "" for none
    QTest::newRow("full letter space")
            << false << "label_char_07" << int(Qt::Key_Space) << false << "face";
    QTest::newRow("full note return")
            << false << "label_note_05" << int(Qt::Key_Return) << false << "face";
    QTest::newRow("full space key") << false << "label_space" << int(Qt::Key_Space) << false << " ";
    QTest::newRow("full delete") << false << "label_delete" << int(Qt::Key_Enter) << false << "\b";
    QTest::newRow("full shift") << false << "label_shift" << int(Qt::Key_Space) << false << "";
    QTest::newRow("full repeat ignored")
            << false << "label_char_01" << int(Qt::Key_Space) << true << "";
    QTest::newRow("simple digit") << true << "label_number_6" << int(Qt::Key_Space) << false
                                  << "face";
    QTest::newRow("simple delete")
            << true << "label_delete" << int(Qt::Key_Return) << false << "\b";
    QTest::newRow("simple letter z")
            << true << "label_char_25" << int(Qt::Key_Return) << false << "face";
}

void TestKeyboardAccess::testPressFromKeyboard()
{
    QFETCH(bool, simple);
    QFETCH(QString, name);
    QFETCH(int, qtKey);
    QFETCH(bool, autoRepeat);
    QFETCH(QString, typed);
    Host host(simple);
    QLabel *key = host.key(name);
    QVERIFY(key);
    const QString face = key->text();
    if (typed == QLatin1String("face"))
        typed = face;
    QSignalSpy chars(host.kb, SIGNAL(input_char(char)));
    QSignalSpy backspaces(host.kb, SIGNAL(input_backspace()));
    QSignalSpy returns(host.returnShortcut, &QShortcut::activated);
    const QString otherFace = host.key("label_char_00")->text();

    key->setFocus();
    QTRY_COMPARE(host.focus(), key);
    if (autoRepeat) { // a held key: only the repeats arrive
        QKeyEvent repeat(QEvent::KeyPress, qtKey, Qt::NoModifier, QString(), true);
        QApplication::sendEvent(key, &repeat);
    } else {
        QTest::keyClick(key, Qt::Key(qtKey));
    }

    QCOMPARE(returns.count(), 0); // Return on a key never reaches the window
    QCOMPARE(backspaces.count(), typed == QLatin1String("\b") ? 1 : 0);
    if (typed.isEmpty() || typed == QLatin1String("\b")) {
        QCOMPARE(chars.count(), 0);
    } else {
        QCOMPARE(chars.count(), 1);
        QCOMPARE(QChar::fromLatin1(chars.at(0).at(0).value<char>()), typed.at(0));
    }
    if (name == QLatin1String("label_shift"))
        QCOMPARE(host.key("label_char_00")->text(), otherFace.toUpper());
    QCOMPARE(host.focus(), key); // pressing keeps the place
}

void TestKeyboardAccess::testAccessibleKeys_data()
{
    QTest::addColumn<bool>("simple");
    QTest::addColumn<QString>("name");
    QTest::addColumn<QString>("accessibleName"); // empty: the key's face
    QTest::newRow("full digit") << false << "label_number_2"
                                << "";
    QTest::newRow("full letter") << false << "label_char_19"
                                 << "";
    QTest::newRow("full note") << false << "label_note_10"
                               << "";
    QTest::newRow("full delete") << false << "label_delete"
                                 << "Backspace";
    QTest::newRow("full shift") << false << "label_shift"
                                << "Shift";
    QTest::newRow("full space") << false << "label_space"
                                << "Space";
    QTest::newRow("simple letter") << true << "label_char_04"
                                   << "";
    QTest::newRow("simple delete") << true << "label_delete"
                                   << "Backspace";
    QTest::newRow("simple shift") << true << "label_shift"
                                  << "Shift";
}

void TestKeyboardAccess::testAccessibleKeys()
{
    QFETCH(bool, simple);
    QFETCH(QString, name);
    QFETCH(QString, accessibleName);
    Host host(simple);
    QLabel *key = host.key(name);
    QVERIFY(key);
    QAccessibleInterface *board = QAccessible::queryAccessibleInterface(host.kb);
    QVERIFY(board);
    QCOMPARE(board->text(QAccessible::Name), QStringLiteral("On-screen keyboard"));
    QCOMPARE(board->role(), QAccessible::Grouping);

    QAccessibleInterface *iface = QAccessible::queryAccessibleInterface(key);
    QVERIFY(iface);
    QCOMPARE(iface->role(), QAccessible::Button);
    QVERIFY(iface->state().focusable);
    QCOMPARE(iface->text(QAccessible::Name),
             accessibleName.isEmpty() ? key->text() : accessibleName);
    QVERIFY(!iface->text(QAccessible::Name).isEmpty());

    // The press action acts like a click; a character key's name follows its face.
    QSignalSpy chars(host.kb, SIGNAL(input_char(char)));
    QSignalSpy backspaces(host.kb, SIGNAL(input_backspace()));
    QAccessibleActionInterface *actions = iface->actionInterface();
    QVERIFY(actions && actions->actionNames().contains(QAccessibleActionInterface::pressAction()));
    actions->doAction(QAccessibleActionInterface::pressAction());
    const bool shift = name == QLatin1String("label_shift");
    QCOMPARE(chars.count() + backspaces.count(), shift ? 0 : 1);
    QCOMPARE(iface->state().checkable, shift); // shift tells whether it is on
    QCOMPARE(iface->state().checked, shift);
    if (accessibleName.isEmpty()) {
        QCOMPARE(QString(QChar::fromLatin1(chars.at(0).at(0).value<char>())),
                 iface->text(QAccessible::Name));
        QVERIFY(QMetaObject::invokeMethod(host.kb, "randomSoftKeyboard"));
        QCOMPARE(iface->text(QAccessible::Name), key->text());
    }
}

void TestKeyboardAccess::testTypedTextNeverExposed_data()
{
    QTest::addColumn<bool>("simple");
    QTest::newRow("full") << false;
    QTest::newRow("simple") << true;
}

void TestKeyboardAccess::testTypedTextNeverExposed()
{
    QFETCH(bool, simple);
    Host host(simple);
    QSignalSpy chars(host.kb, SIGNAL(input_char(char)));
    const QString pin = QStringLiteral("7q1Z9");
    QByteArray typed;
    for (QChar c : pin) {
        if (c.isUpper())
            QTest::mouseClick(host.key("label_shift"), Qt::LeftButton);
        QLabel *key = host.keyShowing(c);
        QVERIFY2(key, qPrintable(QString(c)));
        key->setFocus();
        QTest::keyClick(key, Qt::Key_Space);
        if (c.isUpper())
            QTest::mouseClick(host.key("label_shift"), Qt::LeftButton);
    }
    for (const QList<QVariant> &signal : chars)
        typed.append(signal.at(0).value<char>());
    QCOMPARE(QString::fromLatin1(typed), pin);

    QStringList texts;
    int buttons = 0;
    collectTexts(QAccessible::queryAccessibleInterface(host.kb), texts, buttons);
    QCOMPARE(buttons, simple ? 38 : 50); // every key was read
    QVERIFY(QAccessible::queryAccessibleInterface(host.kb)->valueInterface() == nullptr);
    for (int n = 2; n <= pin.size(); ++n)
        for (int at = 0; at + n <= pin.size(); ++at)
            for (const QString &text : texts)
                QVERIFY2(!text.contains(pin.mid(at, n)), qPrintable(text));
}

void TestKeyboardAccess::testFacesFit_data()
{
    QTest::addColumn<bool>("simple");
    QTest::addColumn<double>("scale");
    for (double scale : {1.0, 1.5, 2.0}) {
        QTest::addRow("full %.1f", scale) << false << scale;
        QTest::addRow("simple %.1f", scale) << true << scale;
    }
}

// The scale is the logical dpi over 96, by which point-sized fonts have grown
// too: at every scale each face, plain, shifted and framed, fits its key.
void TestKeyboardAccess::testFacesFit()
{
    QFETCH(bool, simple);
    QFETCH(double, scale);
    const QFont original = QApplication::font();
    QFont font = original;
    font.setPointSizeF(original.pointSizeF() * scale);
    QApplication::setFont(font);
    Host host(simple, float(scale));
    QApplication::setFont(original);
    QCOMPARE(host.kb->size(), QSize(410, 140) * scale);
    const QList<QLabel *> keys = host.kb->findChildren<QLabel *>();
    int checked = 0;
    for (int shifted = 0; shifted < 2; ++shifted) {
        for (QLabel *key : keys) {
            key->setFocus();
            QTRY_COMPARE(host.focus(), key);
            const QSize face = key->fontMetrics().size(0, key->text());
            QVERIFY(face.height() >= QFontInfo(font).pixelSize());
            QVERIFY2(face.width() <= key->contentsRect().width()
                             && face.height() <= key->contentsRect().height(),
                     qPrintable(key->objectName() + QLatin1Char(' ') + key->text()));
            ++checked;
        }
        QTest::mouseClick(host.key("label_shift"), Qt::LeftButton);
    }
    QCOMPARE(checked, 2 * (simple ? 38 : 50));
}

QTEST_MAIN(TestKeyboardAccess)
#include "TestKeyboardAccess.moc"
