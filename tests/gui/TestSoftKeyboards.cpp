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
    bool facesMatchOrders() const
    {
        QSet<int> seen;
        for (const auto &k : keys())
            if (k.first->text() != face(k.second) || seen.contains(k.second))
                return false;
            else
                seen << k.second;
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
        const QList<QLabel *> keys = host.kb->findChildren<QLabel *>();
        QCOMPARE(keys.size(), host.keys().size() + (simple ? 2 : 3)); // delete, shift, space
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
    // shifted deals shifted faces. Other buttons, the margins and double clicks add nothing.
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
        QTest::mousePress(label, Qt::LeftButton, {}, at);
        QTest::mouseRelease(label, Qt::LeftButton, {}, at);
        QTest::mouseDClick(label, Qt::LeftButton, {}, at);
        QTest::mouseDClick(host.window.windowHandle(), Qt::LeftButton, {}, inWindow);
        QTest::mouseClick(host.window.windowHandle(), Qt::LeftButton, {}, inWindow);
        QTest::mouseClick(host.window.windowHandle(), Qt::LeftButton, {}, inWindow);
        QTRY_COMPARE(host.typed(), QString(4, label->text()[0]));
    }

    void testPhysicalKeys_data()
    {
        QTest::addColumn<bool>("simple");
        QTest::addColumn<QString>("from");
        QTest::addColumn<int>("key"); // negative: an auto-repeat of it
        QTest::addColumn<QString>("to");
        QTest::addColumn<QString>("typed"); // "face": the key's face, "\b": a backspace
        auto row = [](bool simple, const char *from, int key, const char *to, const char *typed) {
            QTest::addRow("%s %s %s", simple ? "simple" : "full", from,
                          qPrintable(QKeySequence(qAbs(key)).toString()))
                    << simple << QString(from) << key << QString(to) << QString(typed);
        };
        row(false, "label_number_9", Qt::Key_Right, "label_delete", "");
        row(false, "label_char_12", Qt::Key_Down, "label_char_25", "");
        row(false, "label_note_03", Qt::Key_Up, "label_char_16", "");
        row(false, "label_number_0", Qt::Key_Left, "label_number_0", "");
        row(false, "label_number_4", Qt::Key_Up, "label_number_4", "");
        row(false, "label_note_10", Qt::Key_Right, "label_space", "");
        row(true, "label_shift", Qt::Key_Left, "label_delete", "");
        row(true, "label_number_3", Qt::Key_Down, "label_char_03", "");
        row(true, "label_char_20", Qt::Key_Up, "label_char_10", "");
        row(true, "label_char_22", Qt::Key_Down, "label_char_22", "");
        row(false, "label_char_07", Qt::Key_Space, "label_char_07", "face");
        row(false, "label_note_05", Qt::Key_Return, "label_note_05", "face");
        row(false, "label_space", Qt::Key_Space, "label_space", " ");
        row(false, "label_delete", Qt::Key_Enter, "label_delete", "\b");
        row(false, "label_shift", Qt::Key_Space, "label_shift", "");
        row(false, "label_char_01", -Qt::Key_Space, "label_char_01", "");
        row(true, "label_number_6", Qt::Key_Space, "label_number_6", "face");
        row(true, "label_delete", Qt::Key_Return, "label_delete", "\b");
    }

    // Tab enters the keyboard on a key and leaves it; Backtab comes back to the key used last.
    // Arrows move from there; Space or Return presses the key (a held key repeats nothing)
    // and never reaches the window's default button; only the focused key is framed.
    void testPhysicalKeys()
    {
        QFETCH(bool, simple);
        QFETCH(QString, from);
        QFETCH(int, key);
        QFETCH(QString, to);
        QFETCH(QString, typed);
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
        QCOMPARE(host.key("label_char_00")->text() == otherFace,
                 from != "label_shift" || to != from);

        QLabel *focused = host.key(to);
        QVERIFY(focused->frameShape() == QFrame::Box && focused->lineWidth() >= 2);
        const QImage framed = focused->grab().toImage();
        host.before->setFocus();
        QTRY_COMPARE(focused->frameShape(), QFrame::NoFrame);
        QVERIFY(focused->grab().toImage() != framed);
    }

    void testAccessibleKeys_data()
    {
        QTest::addColumn<bool>("simple");
        QTest::addColumn<QString>("name");
        QTest::addColumn<QString>("accessibleName"); // empty: the key's face
        for (bool simple : {false, true}) {
            const char *kind = simple ? "simple" : "full";
            QTest::addRow("%s letter", kind) << simple << "label_char_19" << QString();
            QTest::addRow("%s delete", kind) << simple << "label_delete"
                                             << "Backspace";
            QTest::addRow("%s shift", kind) << simple << "label_shift"
                                            << "Shift";
        }
        QTest::newRow("full digit") << false << "label_number_2" << QString();
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
        QVERIFY(iface->state().checkable == shift && iface->state().checked == shift);
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
        std::function<void(QAccessibleInterface *)> collect = [&](QAccessibleInterface *i) {
            for (auto t : {QAccessible::Name, QAccessible::Description, QAccessible::Value,
                           QAccessible::Help, QAccessible::Accelerator})
                texts += i->text(t) + '\n';
            for (int n = 0; n < i->childCount(); ++n)
                collect(i->child(n));
        };
        collect(board);
        QCOMPARE(texts.count('\n'), 5 * (simple ? 39 : 51)); // the board and every key were read
        for (int n = 2; n <= pin.size(); ++n)
            for (int at = 0; at + n <= pin.size(); ++at)
                QVERIFY2(!texts.contains(pin.mid(at, n)), qPrintable(pin.mid(at, n)));
    }
};

QTEST_MAIN(TestSoftKeyboards)
#include "TestSoftKeyboards.moc"
