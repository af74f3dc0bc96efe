// Both on-screen keyboards in a window as the PIN dialog hosts them: layout and shuffle,
// real mouse events on the keys, the physical keyboard, and what assistive tools are told.
#include "keyboard/SimpleSoftKeyboard.h"
#include "keyboard/SoftKeyboard.h"

#include <QtWidgets>
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
    // Every key of the character groups with its order entry; faces must follow the orders.
    QList<QPair<QLabel *, int>> keys() const
    {
        QList<QPair<QLabel *, int>> all;
        for (int g = 0; g < plain.size(); ++g)
            for (int i = 0; i < plain[g].size(); ++i)
                all << qMakePair(key(keyName(g, i)), order(g, i) + 100 * g);
        return all;
    }
    QString face(int entry) const
    {
        return (shiftOn() ? shifted : plain)[entry / 100][entry % 100];
    }
    bool facesMatchOrders() const // and no order entry twice
    {
        QSet<int> seen;
        for (const auto &k : keys())
            if (k.first->text() == face(k.second))
                seen << k.second;
        return seen.size() == keys().size();
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
    void testShuffle_data() { kinds(); }

    // Every key shows every character of its group about equally often (bounds > 7 sigma),
    // the faces follow the orders, and keyboards made back to back never share a layout.
    void testShuffle()
    {
        QFETCH(bool, simple);
        Host host(simple);
        const int rounds = 5200;
        QHash<QPair<QLabel *, int>, int> counts;
        for (int round = 0; round < rounds; ++round) {
            if (round > 0)
                host.shuffle();
            QVERIFY2(host.facesMatchOrders(), qPrintable(QString::number(round)));
            for (const auto &k : host.keys())
                ++counts[k];
        }
        int pairs = 0;
        for (const QString &group : host.plain)
            pairs += group.size() * group.size();
        QCOMPARE(counts.size(), pairs);
        for (auto it = counts.cbegin(); it != counts.cend(); ++it) {
            const double expected = double(rounds) / host.plain[it.key().second / 100].size();
            QVERIFY2(qAbs(it.value() - expected) < expected / 2,
                     qPrintable(it.key().first->objectName() + QString(" %1").arg(it.value())));
        }
        QSet<QString> layouts;
        for (int n = 0; n < 40; ++n) {
            QString layout;
            for (const auto &k : Host(simple).keys())
                layout += QString::number(k.second) + ' ';
            layouts << layout;
        }
        QCOMPARE(layouts.size(), 40);
    }

    void testMouse_data() { kinds(); }

    // A left press on a character key emits its face once, at press time, plain and shifted;
    // shift swaps every face for its other one without moving a key, and a reshuffle while
    // shifted deals shifted faces. Other buttons and double clicks add nothing.
    void testMouse()
    {
        QFETCH(bool, simple);
        Host host(simple);
        QLabel *shift = host.key("label_shift");
        const auto keys = host.keys();
        for (int state = 0; state < 2; ++state) {
            host.chars.clear();
            QString expected;
            for (const auto &k : keys) {
                for (Qt::MouseButton button : {Qt::RightButton, Qt::MiddleButton}) {
                    QTest::mouseClick(k.first, button);
                    QTest::mouseDClick(k.first, button);
                }
                QTest::mousePress(k.first, Qt::LeftButton, {}, k.first->rect().center());
                expected += host.face(k.second);
                QCOMPARE(host.typed(), expected);
                QTest::mouseRelease(k.first, Qt::LeftButton, {}, k.first->rect().center());
            }
            QTest::mouseClick(shift, Qt::LeftButton);
            QCOMPARE(host.shiftOn(), state == 0);
            QCOMPARE(host.keys(), keys);
        }
        QTest::mouseClick(shift, Qt::LeftButton);
        host.shuffle();
        QVERIFY(host.shiftOn() && host.facesMatchOrders() && host.keys() != keys);
        QTest::mouseClick(shift, Qt::LeftButton);
        host.chars.clear();
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
        QTest::mousePress(label, Qt::LeftButton, {}, at);
        QTest::mouseRelease(label, Qt::LeftButton, {}, at);
        QTest::mouseDClick(label, Qt::LeftButton, {}, at);
        QTest::mouseDClick(host.window.windowHandle(), Qt::LeftButton, {}, inWindow);
        QTest::mouseClick(host.window.windowHandle(), Qt::LeftButton, {}, inWindow);
        QTest::mouseClick(host.window.windowHandle(), Qt::LeftButton, {}, inWindow);
        QTRY_COMPARE(host.typed(), QString(4, label->text()[0]));
    }

    void testKeyAccess_data()
    {
        QTest::addColumn<bool>("simple");
        QTest::addColumn<QString>("from");
        QTest::addColumn<int>("key"); // negative: an auto-repeat of it
        QTest::addColumn<QString>("to");
        QTest::addColumn<QString>("typed"); // "face": the key's face, "\b": a backspace
        QTest::addColumn<QString>("name"); // accessible; empty: the key's face
        auto row = [](bool simple, const char *from, int key, const char *to, const char *typed,
                      const char *name) {
            QTest::addRow("%s %s %s", simple ? "simple" : "full", from,
                          qPrintable(QKeySequence(qAbs(key)).toString()))
                    << simple << QString(from) << key << QString(to) << QString(typed)
                    << QString(name);
        };
        row(false, "label_number_9", Qt::Key_Right, "label_delete", "", "");
        row(false, "label_note_03", Qt::Key_Up, "label_char_16", "", "");
        row(false, "label_note_10", Qt::Key_Right, "label_space", "", "");
        row(true, "label_shift", Qt::Key_Left, "label_delete", "", "Shift");
        row(true, "label_number_3", Qt::Key_Down, "label_char_03", "", "");
        row(true, "label_char_22", Qt::Key_Down, "label_char_22", "", "");
        row(false, "label_note_05", Qt::Key_Return, "label_note_05", "face", "");
        row(false, "label_space", Qt::Key_Space, "label_space", " ", "Space");
        row(false, "label_delete", Qt::Key_Enter, "label_delete", "\b", "Backspace");
        row(false, "label_shift", Qt::Key_Space, "label_shift", "", "Shift");
        row(false, "label_char_01", -Qt::Key_Space, "label_char_01", "", "");
        row(true, "label_number_6", Qt::Key_Space, "label_number_6", "face", "");
        row(true, "label_delete", Qt::Key_Return, "label_delete", "\b", "Backspace");
    }

    // Keys are buttons named by their face (which follows a shuffle) or function, pressed by
    // their press action like a click. Tab enters the keyboard on a key and leaves it; arrows
    // move between keys; Space or Return presses the key
    // (a held key repeats nothing) and never reaches the window's default button; only the
    // focused key is framed. The board's own texts never carry what was typed.
    void testKeyAccess()
    {
        QFETCH(bool, simple);
        QFETCH(QString, from);
        QFETCH(int, key);
        QFETCH(QString, to);
        QFETCH(QString, typed);
        QFETCH(QString, name);
        Host host(simple);
        QAccessibleInterface *board = QAccessible::queryAccessibleInterface(host.kb);
        auto boardTexts = [board] {
            return board->text(QAccessible::Name) + board->text(QAccessible::Description)
                   + board->text(QAccessible::Value) + board->text(QAccessible::Help);
        };
        const QString untyped = boardTexts();
        QCOMPARE(board->text(QAccessible::Name), QString("On-screen keyboard"));
        QVERIFY(board->role() == QAccessible::Grouping && !board->valueInterface());
        QAccessibleInterface *iface = QAccessible::queryAccessibleInterface(host.key(from));
        QVERIFY(iface->role() == QAccessible::Button && iface->state().focusable);
        QCOMPARE(iface->text(QAccessible::Name), name.isEmpty() ? host.key(from)->text() : name);
        const bool shift = from == "label_shift";
        for (int n = 0; n < 2; ++n) { // pressed and, for shift, released again
            iface->actionInterface()->doAction(QAccessibleActionInterface::pressAction());
            QVERIFY(iface->state().checkable == shift && iface->state().checked == (shift && !n));
        }
        QCOMPARE(host.chars.size() + host.backspaces.size(), shift ? 0 : 2);
        if (name.isEmpty()) {
            QCOMPARE(host.typed(), host.key(from)->text().repeated(2));
            host.shuffle();
            QCOMPARE(iface->text(QAccessible::Name), host.key(from)->text());
        }
        QCOMPARE(boardTexts(), untyped);
        host.chars.clear();
        host.backspaces.clear();

        QTest::keyClick(host.before, Qt::Key_Tab);
        QTRY_COMPARE(host.focus(), host.key("label_number_0"));
        QTest::keyClick(host.focus(), Qt::Key_Tab);
        QTRY_COMPARE(host.focus(), host.after);
        host.key(from)->setFocus();
        QTRY_COMPARE(host.focus(), host.key(from));
        typed.replace("face", host.key(from)->text());
        const QString otherFace = host.key("label_char_00")->text();
        QSignalSpy returns(host.returnShortcut, &QShortcut::activated);
        QKeyEvent press(QEvent::KeyPress, qAbs(key), Qt::NoModifier, QString(), key < 0);
        QApplication::sendEvent(host.focus(), &press);
        QTest::keyRelease(host.focus(), Qt::Key(qAbs(key)));
        QTRY_COMPARE(host.focus()->objectName(), to);
        QCOMPARE(returns.size(), 0);
        QCOMPARE(host.backspaces.size(), typed == "\b" ? 1 : 0);
        QCOMPARE(host.typed(), typed == "\b" ? "" : typed);
        QCOMPARE(host.key("label_char_00")->text() == otherFace, !shift || to != from);
        QLabel *focused = host.key(to);
        QVERIFY(focused->frameShape() == QFrame::Box && focused->lineWidth() >= 2);
        const QImage framed = focused->grab().toImage();
        host.before->setFocus();
        QTRY_COMPARE(focused->frameShape(), QFrame::NoFrame);
        QVERIFY(focused->grab().toImage() != framed);
    }
};

QTEST_MAIN(TestSoftKeyboards)
#include "TestSoftKeyboards.moc"
