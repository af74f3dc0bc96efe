// Both on-screen keyboards in a window as the PIN dialog hosts them: layout and shuffle,
// real mouse events on the keys, the physical keyboard, and what assistive tools are told.
#include "keyboard/SimpleSoftKeyboard.h"
#include "keyboard/SoftKeyboard.h"

#include <QAccessible>
#include <QLabel>
#include <QLineEdit>
#include <QPushButton>
#include <QSet>
#include <QShortcut>
#include <QSignalSpy>
#include <QVBoxLayout>
#include <QWindow>
#include <QtTest>

namespace {
const QString digits = "0123456789", letters = "abcdefghijklmnopqrstuvwxyz";

QString keyName(int g, int i)
{
    return g == 0 ? QString("label_number_%1").arg(i)
                  : QString(g == 1 ? "label_char_%1" : "label_note_%1").arg(i, 2, 10, QChar('0'));
}

// A window as the PIN dialog has it: a field, the keyboard, a button, and a window-wide
// Return shortcut standing for the dialog's default button.
struct Host
{
    QWidget window;
    QLineEdit *before = new QLineEdit(&window);
    SimpleSoftKeyboard *simple;
    SoftKeyboard *full;
    QWidget *kb = simple ? static_cast<QWidget *>(simple) : full;
    QPushButton *after = new QPushButton("OK", &window);
    QShortcut *returnShortcut = new QShortcut(Qt::Key_Return, &window);
    QSignalSpy chars{kb, SIGNAL(input_char(char))}, backspaces{kb, SIGNAL(input_backspace())};
    // Index i of a plain group and of its shifted group are the two faces of one key.
    const QStringList plain
            = simple ? QStringList{digits, letters} : QStringList{digits, letters, "`-=[]\\;',./"};
    const QStringList shifted
            = simple ? QStringList{digits, letters.toUpper()}
                     : QStringList{")!@#$%^&*(", letters.toUpper(), "~_+{}|:\"<>?"};

    explicit Host(bool isSimple, float scale = 1.0f)
        : simple(isSimple ? new SimpleSoftKeyboard(scale, &window) : nullptr)
        , full(isSimple ? nullptr : new SoftKeyboard(scale, &window))
    {
        auto *layout = new QVBoxLayout(&window);
        for (QWidget *w : {static_cast<QWidget *>(before), kb, static_cast<QWidget *>(after)})
            layout->addWidget(w);
        kb->setMinimumSize(kb->size());
        window.show();
        window.activateWindow();
        if (!QTest::qWaitForWindowActive(&window))
            qWarning("host window not active");
        before->setFocus();
    }
    QLabel *key(const QString &name) const { return kb->findChild<QLabel *>(name); }
    QWidget *focus() const { return QApplication::focusWidget(); }
    bool shiftOn() const { return simple ? simple->isShiftOn() : full->isShiftOn(); }
    int order(int g, int i) const
    {
        return (g == 0   ? simple ? simple->numberOrderData() : full->numberOrderData()
                  : g == 1 ? simple ? simple->charOrderData() : full->charOrderData()
                           : full->noteOrderData())[i];
    }
    QList<int> layout() const
    {
        QList<int> all;
        for (int g = 0; g < plain.size(); ++g)
            for (int i = 0; i < plain[g].size(); ++i)
                all << order(g, i);
        return all;
    }
    QList<QLabel *> characterKeys() const
    {
        QList<QLabel *> keys;
        for (int g = 0; g < plain.size(); ++g)
            for (int i = 0; i < plain[g].size(); ++i)
                keys << key(keyName(g, i));
        return keys;
    }
    // Every order is a permutation and every key shows the face its order entry names.
    bool facesMatchOrders() const
    {
        const QStringList &map = shiftOn() ? shifted : plain;
        for (int g = 0; g < map.size(); ++g) {
            QVector<int> seen(map[g].size(), 0);
            for (int i = 0; i < map[g].size(); ++i) {
                const int c = order(g, i);
                if (c < 0 || c >= map[g].size() || seen[c]++
                    || key(keyName(g, i))->text() != map[g][c])
                    return false;
            }
        }
        return true;
    }
    void shuffle() { QMetaObject::invokeMethod(kb, "randomSoftKeyboard"); }
    QString typed() const
    {
        QString text;
        for (const QList<QVariant> &signal : chars)
            text += QChar::fromLatin1(signal.at(0).value<char>());
        return text;
    }
};

struct MouseRecorder : QObject
{
    QList<QEvent::Type> types;
    bool eventFilter(QObject *, QEvent *event) override
    {
        if (event->type() >= QEvent::MouseButtonPress
            && event->type() <= QEvent::MouseButtonDblClick)
            types << event->type();
        return false;
    }
};

// Every text of an accessible tree a screen reader could read out; counts the buttons.
void collectTexts(QAccessibleInterface *iface, QString &texts, int &buttons)
{
    for (auto t : {QAccessible::Name, QAccessible::Description, QAccessible::Value,
                   QAccessible::Help, QAccessible::Accelerator})
        texts += iface->text(t) + '\n';
    if (auto *text = iface->textInterface())
        texts += text->text(0, text->characterCount()) + '\n';
    buttons += iface->role() == QAccessible::Button;
    for (int i = 0; i < iface->childCount(); ++i)
        collectTexts(iface->child(i), texts, buttons);
}

void kinds()
{
    QTest::addColumn<bool>("simple");
    QTest::newRow("full") << false;
    QTest::newRow("simple") << true;
}
} // namespace

class TestSoftKeyboards : public QObject
{
    Q_OBJECT

private slots:
    void testLayout_data()
    {
        QTest::addColumn<bool>("simple");
        QTest::addColumn<double>("scale");
        for (double scale : {1.0, 1.5, 2.0})
            for (bool simple : {false, true})
                QTest::addRow("%s %.1f", simple ? "simple" : "full", scale) << simple << scale;
    }

    // The scale is the logical dpi over 96, by which point-sized fonts have grown too: the
    // keys stay inside the keyboard apart, and each face, plain, shifted and framed, fits.
    void testLayout()
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
        QVERIFY(!host.shiftOn() && host.facesMatchOrders());
        QList<QLabel *> keys = host.characterKeys();
        keys << host.key("label_delete") << host.key("label_shift");
        if (!simple)
            keys << host.key("label_space");
        QVERIFY(!keys.contains(nullptr));
        QCOMPARE(host.kb->findChildren<QLabel *>().size(), keys.size());
        for (int shifted = 0; shifted < 2; ++shifted) {
            for (QLabel *key : keys) {
                QVERIFY(host.kb->rect().contains(key->geometry()));
                for (QLabel *other : keys)
                    QVERIFY(other == key || !other->geometry().intersects(key->geometry()));
                key->setFocus();
                QTRY_COMPARE(host.focus(), key);
                const QSize face = key->fontMetrics().size(0, key->text());
                QVERIFY(face.height() >= QFontInfo(font).pixelSize());
                QVERIFY2(face.width() <= key->contentsRect().width()
                                 && face.height() <= key->contentsRect().height(),
                         qPrintable(key->objectName() + ' ' + key->text()));
            }
            QTest::mouseClick(host.key("label_shift"), Qt::LeftButton);
        }
    }

    void testShuffle_data() { kinds(); }

    // Every key shows every character of its group about equally often (bounds > 7 sigma),
    // the faces follow the orders, and keyboards made back to back never share a layout.
    void testShuffle()
    {
        QFETCH(bool, simple);
        Host host(simple);
        const int rounds = 5200;
        QMap<QString, int> counts;
        for (int round = 0; round < rounds; ++round) {
            if (round > 0)
                host.shuffle();
            QVERIFY2(host.facesMatchOrders(), qPrintable(QString::number(round)));
            for (int g = 0; g < host.plain.size(); ++g)
                for (int i = 0; i < host.plain[g].size(); ++i)
                    ++counts[keyName(g, i) + " showed " + host.plain[g][host.order(g, i)]];
        }
        int pairs = 0;
        for (const QString &g : host.plain)
            pairs += g.size() * g.size();
        QCOMPARE(counts.size(), pairs);
        for (auto it = counts.cbegin(); it != counts.cend(); ++it) {
            const double expected = double(rounds)
                                    / host.plain[it.key().contains("number") ? 0
                                                 : it.key().contains("char") ? 1
                                                                             : 2]
                                              .size();
            QVERIFY2(qAbs(it.value() - expected) < expected * 0.5,
                     qPrintable(it.key() + QString(" %1 times").arg(it.value())));
        }
        QSet<QList<int>> layouts;
        for (int n = 0; n < 40; ++n)
            layouts << Host(simple).layout();
        QCOMPARE(layouts.size(), 40);
    }

    void testMouse_data() { kinds(); }

    // A left press on a character key emits its face once, at press time, plain and shifted;
    // shift swaps every face for its other one without moving a key, and a reshuffle while
    // shifted deals shifted faces. Other buttons, the margins and double clicks add nothing.
    void testMouse()
    {
        QFETCH(bool, simple);
        Host host(simple);
        QLabel *shift = host.key("label_shift");
        const QList<int> layout = host.layout();
        for (int state = 0; state < 2; ++state) {
            host.chars.clear();
            QString expected;
            for (QLabel *label : host.characterKeys()) {
                MouseRecorder recorder;
                label->installEventFilter(&recorder);
                for (Qt::MouseButton button : {Qt::RightButton, Qt::MiddleButton}) {
                    QTest::mouseClick(label, button);
                    QTest::mouseDClick(label, button);
                }
                QTest::mousePress(label, Qt::LeftButton, {}, label->rect().center());
                QCOMPARE(host.chars.size(), expected.size() + 1);
                QTest::mouseRelease(label, Qt::LeftButton, {}, label->rect().center());
                expected += label->text();
                QCOMPARE(recorder.types.count(QEvent::MouseButtonPress), 3);
            }
            QCOMPARE(host.typed(), expected);
            for (int g = 0, n = 0; g < host.plain.size(); ++g)
                for (int i = 0; i < host.plain[g].size(); ++i)
                    QCOMPARE(expected[n++],
                             (state ? host.shifted : host.plain)[g][host.order(g, i)]);
            QTest::mouseClick(shift, Qt::LeftButton);
            QCOMPARE(host.shiftOn(), state == 0);
            QCOMPARE(host.layout(), layout);
        }
        QTest::mouseClick(shift, Qt::LeftButton);
        host.shuffle();
        QVERIFY(host.shiftOn() && host.facesMatchOrders());
        QTest::mouseClick(shift, Qt::LeftButton);
        host.chars.clear();
        for (const QPoint &spot :
             {QPoint(2, 5), QPoint(200, 5), QPoint(407, 70), QPoint(200, 135)}) {
            QCOMPARE(host.kb->childAt(spot), nullptr); // a margin around the keys
            QTest::mouseClick(host.kb, Qt::LeftButton, {}, spot);
            QTest::mouseClick(host.window.windowHandle(), Qt::LeftButton, {},
                              host.kb->mapTo(&host.window, spot));
        }
        QTest::mouseClick(host.key("label_delete"), Qt::LeftButton);
        QCOMPARE(host.backspaces.size(), 1);
        if (!simple)
            QTest::mouseClick(host.key("label_space"), Qt::LeftButton);
        QCOMPARE(host.typed(), QString(simple ? "" : " "));

        // A double click is one character, on the widget and through the window; two
        // separate clicks are two.
        host.chars.clear();
        QLabel *label = host.key(keyName(1, 4));
        const QPoint at = label->rect().center(), inWindow = label->mapTo(&host.window, at);
        MouseRecorder recorder;
        label->installEventFilter(&recorder);
        QTest::mousePress(label, Qt::LeftButton, {}, at);
        QTest::mouseRelease(label, Qt::LeftButton, {}, at);
        QTest::mouseDClick(label, Qt::LeftButton, {}, at);
        QTest::mouseDClick(host.window.windowHandle(), Qt::LeftButton, {}, inWindow);
        QTRY_COMPARE(recorder.types.count(QEvent::MouseButtonDblClick), 2);
        QCOMPARE(host.typed(), label->text() + label->text());
        QTest::mouseClick(host.window.windowHandle(), Qt::LeftButton, {}, inWindow);
        QTest::mouseClick(host.window.windowHandle(), Qt::LeftButton, {}, inWindow);
        QTRY_COMPARE(host.typed(), QString(4, label->text()[0]));
    }

    void testTabAndArrows_data()
    {
        QTest::addColumn<bool>("simple");
        QTest::addColumn<QString>("from");
        QTest::addColumn<int>("arrow");
        QTest::addColumn<QString>("to");
        auto row = [](const char *name, bool simple, const char *from, int arrow, const char *to) {
            QTest::newRow(name) << simple << QString(from) << arrow << QString(to);
        };
        row("full right to delete", false, "label_number_9", Qt::Key_Right, "label_delete");
        row("full down", false, "label_number_0", Qt::Key_Down, "label_char_00");
        row("full down far", false, "label_char_12", Qt::Key_Down, "label_char_25");
        row("full up", false, "label_note_03", Qt::Key_Up, "label_char_16");
        row("full left edge", false, "label_number_0", Qt::Key_Left, "label_number_0");
        row("full top edge", false, "label_number_4", Qt::Key_Up, "label_number_4");
        row("full to space", false, "label_note_10", Qt::Key_Right, "label_space");
        row("simple left", true, "label_shift", Qt::Key_Left, "label_delete");
        row("simple to delete", true, "label_char_25", Qt::Key_Right, "label_delete");
        row("simple down", true, "label_number_3", Qt::Key_Down, "label_char_03");
        row("simple up", true, "label_char_20", Qt::Key_Up, "label_char_10");
        row("simple bottom edge", true, "label_char_22", Qt::Key_Down, "label_char_22");
    }

    // Tab enters the keyboard on a key and leaves it with the next Tab; Backtab comes back to
    // the key used last, arrows move from there, and only the focused key is framed.
    void testTabAndArrows()
    {
        QFETCH(bool, simple);
        QFETCH(QString, from);
        QFETCH(int, arrow);
        QFETCH(QString, to);
        Host host(simple);
        QTest::keyClick(host.before, Qt::Key_Tab);
        QTRY_COMPARE(host.focus(), host.key("label_number_0"));
        QTest::keyClick(host.focus(), Qt::Key_Tab);
        QTRY_COMPARE(host.focus(), host.after);
        host.key(from)->setFocus();
        QTest::keyClick(host.focus(), Qt::Key_Backtab, Qt::ShiftModifier);
        QTRY_COMPARE(host.focus(), host.before);
        QTest::keyClick(host.focus(), Qt::Key_Tab);
        QTRY_COMPARE(host.focus(), host.key(from));
        QTest::keyClick(host.focus(), Qt::Key(arrow));
        QTRY_COMPARE(host.focus()->objectName(), to);
        QLabel *focused = host.key(to);
        QVERIFY(focused->frameShape() == QFrame::Box && focused->lineWidth() >= 2);
        const QImage framed = focused->grab().toImage();
        host.before->setFocus();
        QTRY_COMPARE(focused->frameShape(), QFrame::NoFrame);
        QVERIFY(focused->grab().toImage() != framed);
    }

    void testPressFromKeyboard_data()
    {
        QTest::addColumn<bool>("simple");
        QTest::addColumn<QString>("name");
        QTest::addColumn<int>("qtKey");
        QTest::addColumn<QString>("typed"); // "face", "\b" for backspace, "" for none
        auto row
                = [](const char *name, bool simple, const char *key, int qtKey, const char *typed) {
                      QTest::newRow(name) << simple << QString(key) << qtKey << QString(typed);
                  };
        row("full letter space", false, "label_char_07", Qt::Key_Space, "face");
        row("full note return", false, "label_note_05", Qt::Key_Return, "face");
        row("full space key", false, "label_space", Qt::Key_Space, " ");
        row("full delete", false, "label_delete", Qt::Key_Enter, "\b");
        row("full shift", false, "label_shift", Qt::Key_Space, "");
        row("full repeat ignored", false, "label_char_01", -Qt::Key_Space, "");
        row("simple digit", true, "label_number_6", Qt::Key_Space, "face");
        row("simple delete", true, "label_delete", Qt::Key_Return, "\b");
        row("simple letter z", true, "label_char_25", Qt::Key_Return, "face");
    }

    // Space or Return on a focused key presses it (a held key repeats nothing), never reaches
    // the window's default button, and keeps the focus.
    void testPressFromKeyboard()
    {
        QFETCH(bool, simple);
        QFETCH(QString, name);
        QFETCH(int, qtKey);
        QFETCH(QString, typed);
        Host host(simple);
        QLabel *key = host.key(name);
        typed.replace("face", key->text());
        QSignalSpy returns(host.returnShortcut, &QShortcut::activated);
        const QString otherFace = host.key("label_char_00")->text();
        key->setFocus();
        QTRY_COMPARE(host.focus(), key);
        QKeyEvent press(QEvent::KeyPress, qAbs(qtKey), Qt::NoModifier, QString(), qtKey < 0);
        QApplication::sendEvent(key, &press);
        if (qtKey > 0)
            QTest::keyRelease(key, Qt::Key(qtKey));
        QCOMPARE(returns.size(), 0);
        QCOMPARE(host.backspaces.size(), typed == "\b" ? 1 : 0);
        QCOMPARE(host.typed(), typed == "\b" ? "" : typed);
        if (name == "label_shift")
            QCOMPARE(host.key("label_char_00")->text(), otherFace.toUpper());
        QCOMPARE(host.focus(), key);
    }

    void testAccessibleKeys_data()
    {
        QTest::addColumn<bool>("simple");
        QTest::addColumn<QString>("name");
        QTest::addColumn<QString>("accessibleName"); // empty: the key's face
        for (bool simple : {false, true}) {
            const char *kind = simple ? "simple" : "full";
            QTest::addRow("%s digit", kind) << simple << "label_number_2" << QString();
            QTest::addRow("%s letter", kind) << simple << "label_char_19" << QString();
            QTest::addRow("%s delete", kind) << simple << "label_delete"
                                             << "Backspace";
            QTest::addRow("%s shift", kind) << simple << "label_shift"
                                            << "Shift";
        }
        QTest::newRow("full note") << false << "label_note_10" << QString();
        QTest::newRow("full space") << false << "label_space"
                                    << "Space";
    }

    // Keys are buttons named by their face or function and pressed like a click; the board's
    // tree never exposes what was typed.
    void testAccessibleKeys()
    {
        QFETCH(bool, simple);
        QFETCH(QString, name);
        QFETCH(QString, accessibleName);
        Host host(simple);
        QLabel *key = host.key(name);
        QAccessibleInterface *board = QAccessible::queryAccessibleInterface(host.kb);
        QCOMPARE(board->text(QAccessible::Name), QString("On-screen keyboard"));
        QVERIFY(board->role() == QAccessible::Grouping && !board->valueInterface());
        QAccessibleInterface *iface = QAccessible::queryAccessibleInterface(key);
        QVERIFY(iface->role() == QAccessible::Button && iface->state().focusable);
        QCOMPARE(iface->text(QAccessible::Name),
                 accessibleName.isEmpty() ? key->text() : accessibleName);
        QAccessibleActionInterface *actions = iface->actionInterface();
        QVERIFY(actions
                && actions->actionNames().contains(QAccessibleActionInterface::pressAction()));
        const QString face = key->text();
        actions->doAction(QAccessibleActionInterface::pressAction());
        const bool shift = name == "label_shift";
        QCOMPARE(host.chars.size() + host.backspaces.size(), shift ? 0 : 1);
        QCOMPARE(iface->state().checkable, shift); // shift tells whether it is on
        QCOMPARE(iface->state().checked, shift);
        if (accessibleName.isEmpty()) {
            QCOMPARE(host.typed(), face);
            host.shuffle(); // the name follows the face
            QCOMPARE(iface->text(QAccessible::Name), key->text());
        }

        const QString pin = "7q1Z9";
        host.chars.clear();
        for (QChar c : pin) {
            if (c.isUpper() != host.shiftOn())
                QTest::mouseClick(host.key("label_shift"), Qt::LeftButton);
            for (QLabel *label : host.kb->findChildren<QLabel *>())
                if (label->text() == QString(c))
                    QTest::keyClick(label, Qt::Key_Space);
        }
        QCOMPARE(host.typed(), pin);
        QString texts;
        int buttons = 0;
        collectTexts(board, texts, buttons);
        QCOMPARE(buttons, simple ? 38 : 50); // every key was read
        for (int n = 2; n <= pin.size(); ++n)
            for (int at = 0; at + n <= pin.size(); ++at)
                QVERIFY2(!texts.contains(pin.mid(at, n)), qPrintable(pin.mid(at, n)));
    }
};

QTEST_MAIN(TestSoftKeyboards)
#include "TestSoftKeyboards.moc"
