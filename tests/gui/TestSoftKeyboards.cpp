// Both on-screen keyboards in a window as the PIN dialog hosts them: shuffle, mouse and key
// presses, and what assistive tools are told.
#include "keyboard/SimpleSoftKeyboard.h"
#include "keyboard/SoftKeyboard.h"

#include <QtWidgets>
#include <QtTest>

#include <algorithm>

namespace {
QString sorted(QString s)
{
    std::sort(s.begin(), s.end());
    return s;
}

// A field, the keyboard, a button and a window-wide Return shortcut (the default button).
struct Host
{
    QWidget window;
    QLineEdit *before = new QLineEdit(&window);
    QWidget *kb;
    QPushButton *after = new QPushButton("OK", &window);
    QShortcut *returnShortcut = new QShortcut(Qt::Key_Return, &window);
    QSignalSpy chars{kb, SIGNAL(input_char(char))}, backspaces{kb, SIGNAL(input_backspace())};
    // Index i of a plain group and of its shifted group are the two faces of one key.
    QStringList plain{"0123456789", "abcdefghijklmnopqrstuvwxyz", "`-=[]\\;',./"};
    QStringList shifted{")!@#$%^&*(", "ABCDEFGHIJKLMNOPQRSTUVWXYZ", "~_+{}|:\"<>?"};
    QList<QPair<QLabel *, int>> keys; // each character key with its group

    explicit Host(bool simple)
        : kb(simple ? static_cast<QWidget *>(new SimpleSoftKeyboard(1.0f, &window))
                    : new SoftKeyboard(1.0f, &window))
    {
        if (simple) {
            plain.removeLast();
            shifted = QStringList{plain[0], plain[1].toUpper()};
        }
        const char *names[] = {"label_number_%1", "label_char_%1", "label_note_%1"};
        for (int g = 0; g < plain.size(); ++g)
            for (int i = 0; i < plain[g].size(); ++i)
                keys << qMakePair(key(QString(names[g]).arg(i, g ? 2 : 1, 10, QChar('0'))), g);
        auto *layout = new QVBoxLayout(&window);
        for (QWidget *w : {static_cast<QWidget *>(before), kb, static_cast<QWidget *>(after)})
            layout->addWidget(w);
        window.show();
        QApplication::setActiveWindow(&window);
        if (!QTest::qWaitForWindowActive(&window))
            qWarning("host window not active");
        before->setFocus();
    }
    QLabel *key(const QString &name) const { return kb->findChild<QLabel *>(name); }
    QString faces() const
    {
        QString all;
        for (const auto &k : keys)
            all += k.first->text();
        return all;
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
} // namespace

class TestSoftKeyboards : public QObject
{
    Q_OBJECT

private slots:
    void testShuffle_data()
    {
        QTest::addColumn<bool>("simple");
        QTest::newRow("full") << false;
        QTest::newRow("simple") << true;
    }

    // Every key shows every character of its group about equally often (bounds > 7 sigma), and
    // keyboards made back to back never share a layout.
    void testShuffle()
    {
        QFETCH(bool, simple);
        Host host(simple);
        const int rounds = 5200;
        QHash<QPair<int, QChar>, int> counts;
        for (int round = 0; round < rounds; ++round) {
            host.shuffle();
            for (int k = 0; k < host.keys.size(); ++k)
                ++counts[qMakePair(k, host.keys[k].first->text()[0])];
        }
        int pairs = 0;
        for (const QString &group : host.plain)
            pairs += group.size() * group.size();
        QCOMPARE(counts.size(), pairs);
        for (auto it = counts.cbegin(); it != counts.cend(); ++it) {
            const double expected
                    = double(rounds) / host.plain[host.keys[it.key().first].second].size();
            QVERIFY(qAbs(it.value() - expected) < expected / 2);
        }
        QSet<QString> layouts;
        for (int n = 0; n < 40; ++n)
            layouts << Host(simple).faces();
        QCOMPARE(layouts.size(), 40);
    }

    void testMouse_data() { testShuffle_data(); }

    // A left press types the key's face once, plain and shifted; shift swaps every face for its
    // other one in place, and a reshuffle while shifted deals shifted faces; other buttons type
    // nothing; delete is a backspace; a double click is one character.
    void testMouse()
    {
        QFETCH(bool, simple);
        Host host(simple);
        const QString all[] = {host.plain.join(""), host.shifted.join("")};
        for (int shifted = 0; shifted < 2; ++shifted) {
            const QString faces = host.faces();
            QCOMPARE(sorted(faces), sorted(all[shifted]));
            host.chars.clear();
            for (const auto &k : host.keys) {
                QTest::mouseClick(k.first, Qt::RightButton);
                QTest::mouseClick(k.first, Qt::MiddleButton);
                QTest::mousePress(k.first, Qt::LeftButton);
                QVERIFY(faces.startsWith(host.typed()) && host.typed().endsWith(k.first->text()));
                QTest::mouseRelease(k.first, Qt::LeftButton);
            }
            QCOMPARE(host.typed(), faces);
            QTest::mouseClick(host.key("label_shift"), Qt::LeftButton);
            for (int k = 0; k < faces.size(); ++k)
                QCOMPARE(host.faces()[k], all[!shifted][all[shifted].indexOf(faces[k])]);
            host.shuffle();
        }
        host.chars.clear();
        QTest::mouseClick(host.key("label_delete"), Qt::LeftButton);
        QCOMPARE(host.backspaces.size(), 1);
        QLabel *label = host.keys[12].first;
        QTest::mouseClick(label, Qt::LeftButton);
        QTest::mouseDClick(label, Qt::LeftButton);
        QCOMPARE(host.typed(), label->text());
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
            QTest::addRow("%s %s %d", simple ? "simple" : "full", from, key)
                    << simple << QString(from) << key << QString(to) << QString(typed)
                    << QString(name);
        };
        row(false, "label_number_9", Qt::Key_Right, "label_delete", "", "");
        row(false, "label_note_03", Qt::Key_Up, "label_char_16", "", "");
        row(true, "label_number_3", Qt::Key_Down, "label_char_03", "", "");
        row(false, "label_note_05", Qt::Key_Return, "label_note_05", "face", "");
        row(false, "label_space", Qt::Key_Space, "label_space", " ", "Space");
        row(false, "label_shift", Qt::Key_Space, "label_shift", "", "Shift");
        row(false, "label_char_01", -Qt::Key_Space, "label_char_01", "", "");
        row(true, "label_delete", Qt::Key_Return, "label_delete", "\b", "Backspace");
    }

    // Keys are buttons named by their face (which follows a shuffle) or function. Tab enters the
    // keyboard and leaves it; arrows move between keys; Space or Return presses the focused key
    // (a held key repeats nothing), never the window's default button; only it is framed.
    void testKeyAccess()
    {
        QFETCH(bool, simple);
        QFETCH(QString, from);
        QFETCH(int, key);
        QFETCH(QString, to);
        QFETCH(QString, typed);
        QFETCH(QString, name);
        Host host(simple);
        host.shuffle();
        QAccessibleInterface *iface = QAccessible::queryAccessibleInterface(host.key(from));
        QVERIFY(iface->role() == QAccessible::Button && iface->state().focusable);
        QCOMPARE(iface->text(QAccessible::Name), name.isEmpty() ? host.key(from)->text() : name);
        QTest::keyClick(host.before, Qt::Key_Tab);
        QTRY_COMPARE(QApplication::focusWidget(), host.key("label_number_0"));
        QTest::keyClick(QApplication::focusWidget(), Qt::Key_Tab);
        QTRY_COMPARE(QApplication::focusWidget(), host.after);
        host.key(from)->setFocus();
        QTRY_COMPARE(QApplication::focusWidget(), host.key(from));
        const QString before = host.faces();
        typed.replace("face", host.key(from)->text());
        QSignalSpy returns(host.returnShortcut, &QShortcut::activated);
        QKeyEvent press(QEvent::KeyPress, qAbs(key), Qt::NoModifier, QString(), key < 0);
        QApplication::sendEvent(QApplication::focusWidget(), &press);
        QTest::keyRelease(QApplication::focusWidget(), Qt::Key(qAbs(key)));
        QTRY_COMPARE(QApplication::focusWidget()->objectName(), to);
        QCOMPARE(returns.size(), 0);
        QCOMPARE(host.backspaces.size(), int(typed == "\b"));
        QCOMPARE(host.typed(), typed == "\b" ? "" : typed);
        QCOMPARE(host.faces() == before, from != "label_shift");
        QLabel *focused = host.key(to);
        QVERIFY(focused->frameShape() == QFrame::Box && focused->lineWidth() >= 2);
        host.before->setFocus();
        QTRY_COMPARE(focused->frameShape(), QFrame::NoFrame);
    }
};

QTEST_MAIN(TestSoftKeyboards)
#include "TestSoftKeyboards.moc"
