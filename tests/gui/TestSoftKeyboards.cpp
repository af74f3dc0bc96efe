#include "keyboard/SimpleSoftKeyboard.h"
#include "keyboard/SoftKeyboard.h"

#include <QLabel>
#include <QSet>
#include <QSignalSpy>
#include <QWindow>
#include <QtTest>

#include <memory>

namespace {

// Index i of a normal group and of its shifted group are the two faces of one key.
struct KeyboardTraits
{
    QStringList normal;
    QStringList shifted;
    QStringList functionKeys;
};

KeyboardTraits traits(bool simple)
{
    const QString digits = "0123456789", letters = "abcdefghijklmnopqrstuvwxyz";
    const QString capitals = letters.toUpper();
    if (simple)
        return {{digits, letters}, {digits, capitals}, {"label_delete", "label_shift"}};
    return {{digits, letters, "`-=[]\\;',./"},
            {")!@#$%^&*(", capitals, "~_+{}|:\"<>?"},
            {"label_delete", "label_shift", "label_space"}};
}

QString keyName(int g, int i)
{
    if (g == 0)
        return QStringLiteral("label_number_%1").arg(i);
    return QString(g == 1 ? "label_char_%1" : "label_note_%1").arg(i, 2, 10, QLatin1Char('0'));
}

QLabel *key(QWidget *kb, const QString &name) { return kb->findChild<QLabel *>(name); }

bool isSimple(QWidget *kb) { return qobject_cast<SimpleSoftKeyboard *>(kb) != nullptr; }

std::unique_ptr<QWidget> make(bool simple, float scale = 1.0f, bool show = false)
{
    std::unique_ptr<QWidget> kb;
    if (simple)
        kb = std::make_unique<SimpleSoftKeyboard>(scale);
    else
        kb = std::make_unique<SoftKeyboard>(scale);
    if (show) {
        kb->show();
        if (!QTest::qWaitForWindowExposed(kb.get()))
            qWarning("keyboard window not exposed");
    }
    return kb;
}

QVector<const int *> orders(QWidget *kb)
{
    if (auto *s = qobject_cast<SimpleSoftKeyboard *>(kb))
        return {s->numberOrderData(), s->charOrderData()};
    auto *f = qobject_cast<SoftKeyboard *>(kb);
    return {f->numberOrderData(), f->charOrderData(), f->noteOrderData()};
}

QByteArray layoutOf(QWidget *kb)
{
    QByteArray bytes;
    const QVector<const int *> o = orders(kb);
    const KeyboardTraits s = traits(isSimple(kb));
    for (int g = 0; g < o.size(); ++g)
        bytes.append(reinterpret_cast<const char *>(o[g]), int(sizeof(int)) * s.normal[g].size());
    return bytes;
}

bool shiftOn(QWidget *kb)
{
    if (auto *s = qobject_cast<SimpleSoftKeyboard *>(kb))
        return s->isShiftOn();
    return qobject_cast<SoftKeyboard *>(kb)->isShiftOn();
}

void shuffle(QWidget *kb) { QVERIFY(QMetaObject::invokeMethod(kb, "randomSoftKeyboard")); }

QList<QLabel *> characterKeys(QWidget *kb)
{
    QList<QLabel *> keys;
    const KeyboardTraits s = traits(isSimple(kb));
    for (int g = 0; g < s.normal.size(); ++g)
        for (int i = 0; i < s.normal[g].size(); ++i)
            keys << key(kb, keyName(g, i));
    return keys;
}

QStringList faces(QWidget *kb)
{
    QStringList texts;
    for (QLabel *label : characterKeys(kb))
        texts << (label ? label->text() : QStringLiteral("<missing>"));
    return texts;
}

// Every order is a permutation and every key shows the face its order entry names.
bool facesMatchOrders(QWidget *kb)
{
    const KeyboardTraits s = traits(isSimple(kb));
    const QStringList &map = shiftOn(kb) ? s.shifted : s.normal;
    const QVector<const int *> o = orders(kb);
    for (int g = 0; g < map.size(); ++g) {
        QVector<int> seen(map[g].size(), 0);
        for (int i = 0; i < map[g].size(); ++i) {
            const int c = o[g][i];
            if (c < 0 || c >= map[g].size() || seen[c]++)
                return false;
            QLabel *label = key(kb, keyName(g, i));
            if (!label || label->text() != QString(map[g].at(c)))
                return false;
        }
    }
    return true;
}

class MouseRecorder : public QObject
{
public:
    QList<QEvent::Type> types;
    bool eventFilter(QObject *, QEvent *event) override
    {
        if (event->type() == QEvent::MouseButtonPress || event->type() == QEvent::MouseButtonRelease
            || event->type() == QEvent::MouseButtonDblClick)
            types << event->type();
        return false;
    }
};

void kinds()
{
    QTest::addColumn<bool>("simple");
    QTest::newRow("SoftKeyboard") << false;
    QTest::newRow("SimpleSoftKeyboard") << true;
}

char arg0(const QSignalSpy &spy, int n) { return spy.at(n).at(0).value<char>(); }

} // namespace

class TestSoftKeyboards : public QObject
{
    Q_OBJECT

private slots:
    void testScaledLayout_data();
    void testScaledLayout();
    void testShuffle_data() { kinds(); }
    void testShuffle();
    void testLeftPress_data() { kinds(); }
    void testLeftPress();
    void testOtherButtonsAndBackground_data() { kinds(); }
    void testOtherButtonsAndBackground();
    void testDoubleClickEmitsOnce_data();
    void testDoubleClickEmitsOnce();
};

// Keys grow with the scale, stay inside the keyboard and never overlap.
void TestSoftKeyboards::testScaledLayout_data()
{
    QTest::addColumn<bool>("simple");
    QTest::addColumn<float>("scale");
    for (bool simple : {false, true})
        for (float scale : {1.0f, 1.5f, 2.0f})
            QTest::addRow("%s %.1f", simple ? "simple" : "full", double(scale)) << simple << scale;
}

void TestSoftKeyboards::testScaledLayout()
{
    QFETCH(bool, simple);
    QFETCH(float, scale);
    auto kb = make(simple, scale);
    QCOMPARE(kb->size(), QSize(410, 140) * qreal(scale));
    QVERIFY(!shiftOn(kb.get()));
    QList<QLabel *> keys = characterKeys(kb.get());
    for (const QString &name : traits(simple).functionKeys)
        keys << key(kb.get(), name);
    QVERIFY(!keys.contains(nullptr));
    QCOMPARE(kb->findChildren<QLabel *>().size(), keys.size());
    QCOMPARE(key(kb.get(), "label_number_0")->height(), qRound(30 * scale));
    for (QLabel *label : keys) {
        QVERIFY2(kb->rect().contains(label->geometry()), qPrintable(label->objectName()));
        for (QLabel *other : keys)
            QVERIFY2(other == label || !other->geometry().intersects(label->geometry()),
                     qPrintable(label->objectName() + "/" + other->objectName()));
    }
}

// Every key shows every character of its group about equally often (bounds > 7 sigma), the
// faces always follow the orders, and two keyboards made back to back never share a layout.
void TestSoftKeyboards::testShuffle()
{
    QFETCH(bool, simple);
    auto kb = make(simple);
    const int rounds = 5200;
    const KeyboardTraits s = traits(simple);
    const int groups = s.normal.size();
    QVector<QVector<QVector<int>>> counts(groups, QVector<QVector<int>>(26, QVector<int>(26, 0)));
    for (int round = 0; round < rounds; ++round) {
        if (round > 0)
            shuffle(kb.get());
        QVERIFY2(facesMatchOrders(kb.get()), qPrintable(QString::number(round)));
        const QVector<const int *> o = orders(kb.get());
        for (int g = 0; g < groups; ++g)
            for (int i = 0; i < s.normal[g].size(); ++i)
                ++counts[g][i][o[g][i]];
    }
    for (int g = 0; g < groups; ++g) {
        const int n = s.normal[g].size();
        const double expected = double(rounds) / n;
        for (int i = 0; i < n; ++i)
            for (int c = 0; c < n; ++c)
                QVERIFY2(counts[g][i][c] > expected * 0.5 && counts[g][i][c] < expected * 1.5,
                         qPrintable(QStringLiteral("%1 showed %2 %3 times")
                                            .arg(keyName(g, i))
                                            .arg(c)
                                            .arg(counts[g][i][c])));
    }
    QSet<QByteArray> layouts;
    for (int pair = 0; pair < 50; ++pair)
        layouts << layoutOf(make(simple).get()) << layoutOf(make(simple).get());
    QCOMPARE(layouts.size(), 100);
}

// Every character key, plain and shifted, emits its face once at press time; shift swaps
// every face for its other one without moving a key, and a reshuffle while shifted deals
// shifted faces; delete and space emit their own signals.
void TestSoftKeyboards::testLeftPress()
{
    QFETCH(bool, simple);
    auto kb = make(simple, 1.0f, true);
    QSignalSpy chars(kb.get(), SIGNAL(input_char(char)));
    QSignalSpy backspaces(kb.get(), SIGNAL(input_backspace()));
    QLabel *shift = key(kb.get(), "label_shift");
    QVERIFY(shift);
    const KeyboardTraits s = traits(simple);
    const QStringList normalFaces = faces(kb.get());
    const QByteArray layout = layoutOf(kb.get());

    for (int state = 0; state < 2; ++state) {
        int n = 0;
        for (QLabel *label : characterKeys(kb.get())) {
            const QString face = label->text();
            const int g = n < 10 ? 0 : n < 36 ? 1 : 2;
            const int index = s.normal[g].indexOf(normalFaces[n++]);
            QCOMPARE(face, QString((state ? s.shifted : s.normal)[g].at(index)));
            chars.clear();
            QTest::mousePress(label, Qt::LeftButton, Qt::NoModifier, label->rect().center());
            QTest::mouseRelease(label, Qt::LeftButton, Qt::NoModifier, label->rect().center());
            QCOMPARE(chars.count(), 1);
            QCOMPARE(arg0(chars, 0), face.at(0).toLatin1());
            QCOMPARE(label->text(), face);
        }
        chars.clear();
        QTest::mouseClick(shift, Qt::LeftButton);
        QCOMPARE(chars.count(), 0);
        QCOMPARE(shiftOn(kb.get()), state == 0);
        QCOMPARE(layoutOf(kb.get()), layout);
    }
    QCOMPARE(faces(kb.get()), normalFaces);
    QTest::mouseClick(shift, Qt::LeftButton);
    shuffle(kb.get());
    QVERIFY(shiftOn(kb.get()) && facesMatchOrders(kb.get()));

    QCOMPARE(backspaces.count(), 0);
    QTest::mouseClick(key(kb.get(), "label_delete"), Qt::LeftButton);
    QCOMPARE(backspaces.count(), 1);
    QCOMPARE(chars.count(), 0);
    if (!simple) {
        QTest::mouseClick(key(kb.get(), "label_space"), Qt::LeftButton);
        QCOMPARE(chars.count(), 1);
        QCOMPARE(arg0(chars, 0), char(32));
        QCOMPARE(backspaces.count(), 1);
    }
}

void TestSoftKeyboards::testOtherButtonsAndBackground()
{
    QFETCH(bool, simple);
    auto kb = make(simple, 1.0f, true);
    const QStringList before = faces(kb.get());
    QSignalSpy chars(kb.get(), SIGNAL(input_char(char)));
    QSignalSpy backspaces(kb.get(), SIGNAL(input_backspace()));

    QList<QLabel *> keys = characterKeys(kb.get());
    for (const QString &name : traits(simple).functionKeys)
        keys << key(kb.get(), name);
    for (QLabel *label : keys) {
        MouseRecorder recorder;
        label->installEventFilter(&recorder);
        for (Qt::MouseButton button : {Qt::RightButton, Qt::MiddleButton}) {
            QTest::mouseClick(label, button);
            QTest::mouseDClick(label, button);
        }
        QCOMPARE(recorder.types.count(QEvent::MouseButtonPress), 2);
    }
    // Left presses on the margins around the keys.
    for (const QPoint &spot : {QPoint(2, 5), QPoint(200, 5), QPoint(407, 70), QPoint(200, 135)}) {
        QCOMPARE(kb->childAt(spot), nullptr);
        QTest::mouseClick(kb.get(), Qt::LeftButton, Qt::NoModifier, spot);
        QTest::mouseClick(kb->windowHandle(), Qt::LeftButton, Qt::NoModifier, spot);
    }
    QCOMPARE(chars.count(), 0);
    QCOMPARE(backspaces.count(), 0);
    QVERIFY(!shiftOn(kb.get()));
    QCOMPARE(faces(kb.get()), before);
}

void TestSoftKeyboards::testDoubleClickEmitsOnce_data()
{
    QTest::addColumn<bool>("simple");
    QTest::addColumn<bool>("throughWindow");
    for (bool simple : {false, true})
        for (bool window : {false, true})
            QTest::addRow("%s, %s", simple ? "simple" : "full", window ? "window" : "widget")
                    << simple << window;
}

void TestSoftKeyboards::testDoubleClickEmitsOnce()
{
    QFETCH(bool, simple);
    QFETCH(bool, throughWindow);
    auto kb = make(simple, 1.0f, true);
    QLabel *label = key(kb.get(), keyName(1, 4));
    const char face = label->text().at(0).toLatin1();
    MouseRecorder recorder;
    label->installEventFilter(&recorder);
    QSignalSpy chars(kb.get(), SIGNAL(input_char(char)));
    const QPoint inWindow = label->mapTo(kb.get(), label->rect().center());

    if (throughWindow) {
        QTest::mouseDClick(kb->windowHandle(), Qt::LeftButton, Qt::NoModifier, inWindow);
        QTRY_VERIFY(recorder.types.contains(QEvent::MouseButtonDblClick));
    } else {
        const QPoint at = label->rect().center();
        QTest::mousePress(label, Qt::LeftButton, Qt::NoModifier, at);
        QTest::mouseRelease(label, Qt::LeftButton, Qt::NoModifier, at);
        QTest::mouseDClick(label, Qt::LeftButton, Qt::NoModifier, at);
        QTest::mouseRelease(label, Qt::LeftButton, Qt::NoModifier, at);
        QCOMPARE(recorder.types,
                 QList<QEvent::Type>({QEvent::MouseButtonPress, QEvent::MouseButtonRelease,
                                      QEvent::MouseButtonDblClick, QEvent::MouseButtonRelease}));
    }
    QCOMPARE(recorder.types.count(QEvent::MouseButtonPress), 1);
    QCOMPARE(chars.count(), 1);
    QCOMPARE(arg0(chars, 0), face);

    if (throughWindow) {
        // Two slow clicks are two characters.
        chars.clear();
        QTest::mouseClick(kb->windowHandle(), Qt::LeftButton, Qt::NoModifier, inWindow);
        QTest::mouseClick(kb->windowHandle(), Qt::LeftButton, Qt::NoModifier, inWindow);
        QTRY_COMPARE(chars.count(), 2);
    }
}

QTEST_MAIN(TestSoftKeyboards)
#include "TestSoftKeyboards.moc"
