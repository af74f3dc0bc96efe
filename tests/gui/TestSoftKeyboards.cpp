#include "keyboard/SimpleSoftKeyboard.h"
#include "keyboard/SoftKeyboard.h"

#include <QDir>
#include <QImage>
#include <QLabel>
#include <QMetaMethod>
#include <QPixmap>
#include <QSet>
#include <QSignalSpy>
#include <QWindow>
#include <QtTest>

#include <memory>

namespace {

const QString digits = QStringLiteral("0123456789");
const QString letters = QStringLiteral("abcdefghijklmnopqrstuvwxyz");
const QString capitals = QStringLiteral("ABCDEFGHIJKLMNOPQRSTUVWXYZ");
const QString notes = QStringLiteral("`-=[]\\;',./");

const char *const expectedStyleSheet
        = "QLabel\n{\n\tmargin: 1px;\n\tbackground-color: rgb(153, 247, "
          "255);\n    alignment: center;\n}\nQLabel:hover\n{\n\tmargin: "
          "1px;\n\tbackground-color: rgb(121, 141, 255);\n    alignment: "
          "center;\n}";

// Index i of a normal group string and of its shifted string are the two faces of one key.
struct KeyboardTraits
{
    QStringList normal;
    QStringList shifted;
    QStringList functionKeys;
};

KeyboardTraits traits(bool simple)
{
    if (simple)
        return {{digits, letters}, {digits, capitals}, {"label_delete", "label_shift"}};
    return {{digits, letters, notes},
            {QStringLiteral(")!@#$%^&*("), capitals, QStringLiteral("~_+{}|:\"<>?")},
            {"label_delete", "label_shift", "label_space"}};
}

QString keyName(int g, int i)
{
    if (g == 0)
        return QStringLiteral("label_number_%1").arg(i);
    return QString::fromLatin1(g == 1 ? "label_char_%1" : "label_note_%1")
            .arg(i, 2, 10, QLatin1Char('0'));
}

QLabel *key(QWidget *kb, const QString &name) { return kb->findChild<QLabel *>(name); }

bool isSimple(QWidget *kb) { return qobject_cast<SimpleSoftKeyboard *>(kb) != nullptr; }

std::unique_ptr<QWidget> make(bool simple, float scale = 1.0f)
{
    if (simple)
        return std::make_unique<SimpleSoftKeyboard>(scale);
    return std::make_unique<SoftKeyboard>(scale);
}

std::unique_ptr<QWidget> shown(bool simple)
{
    auto kb = make(simple);
    kb->show();
    if (!QTest::qWaitForWindowExposed(kb.get()))
        qWarning("keyboard window not exposed");
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
        texts << label->text();
    return texts;
}

bool isPermutation(const int *order, int n)
{
    QVector<int> seen(n, 0);
    for (int i = 0; i < n; ++i) {
        if (order[i] < 0 || order[i] >= n || seen[order[i]]++)
            return false;
    }
    return true;
}

// Every order is a permutation and every key shows the face its order entry names.
bool facesMatchOrders(QWidget *kb)
{
    const KeyboardTraits s = traits(isSimple(kb));
    const QStringList &map = shiftOn(kb) ? s.shifted : s.normal;
    const QVector<const int *> o = orders(kb);
    for (int g = 0; g < map.size(); ++g) {
        if (!isPermutation(o[g], map[g].size()))
            return false;
        for (int i = 0; i < map[g].size(); ++i) {
            if (key(kb, keyName(g, i))->text() != QString(map[g].at(o[g][i])))
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
    void testFormAndMetaObject_data() { kinds(); }
    void testFormAndMetaObject();
    void testGeometry_data();
    void testGeometry();
    void testShuffle_data() { kinds(); }
    void testShuffle();
    void testBackToBackLayoutsDiffer_data() { kinds(); }
    void testBackToBackLayoutsDiffer();
    void testLeftPress_data() { kinds(); }
    void testLeftPress();
    void testOtherButtonsAndBackground_data() { kinds(); }
    void testOtherButtonsAndBackground();
    void testDoubleClickEmitsOnce_data();
    void testDoubleClickEmitsOnce();
    void testShiftFaces_data() { kinds(); }
    void testShiftFaces();
    void testScreenshots_data() { kinds(); }
    void testScreenshots();
};

void TestSoftKeyboards::testFormAndMetaObject()
{
    QFETCH(bool, simple);
    auto kb = make(simple);
    const KeyboardTraits s = traits(simple);
    QCOMPARE(kb->objectName(), QString(simple ? "SimpleSoftKeyboard" : "SoftKeyboard"));
    QCOMPARE(kb->styleSheet(), QString::fromLatin1(expectedStyleSheet));
    QVERIFY(!shiftOn(kb.get()));

    QStringList expected = s.functionKeys;
    for (int g = 0; g < s.normal.size(); ++g)
        for (int i = 0; i < s.normal[g].size(); ++i)
            expected << keyName(g, i);
    QStringList found;
    for (QLabel *label : kb->findChildren<QLabel *>())
        found << label->objectName();
    expected.sort();
    found.sort();
    QCOMPARE(found, expected);
    QCOMPARE(key(kb.get(), "label_shift")->text(), QStringLiteral("shift"));
    QCOMPARE(key(kb.get(), "label_delete")->text(), QStringLiteral("<-"));
    if (!simple)
        QCOMPARE(key(kb.get(), "label_space")->text(), QStringLiteral("space"));

    const struct
    {
        const char *signature;
        QMetaMethod::MethodType type;
        const char *parameters;
    } methods[] = {{"input_char(char)", QMetaMethod::Signal, "character"},
                   {"input_backspace()", QMetaMethod::Signal, ""},
                   {"eventFilter(QObject*,QEvent*)", QMetaMethod::Slot, "watched,event"},
                   {"randomSoftKeyboard()", QMetaMethod::Slot, ""},
                   {"refreshSoftKeyboard()", QMetaMethod::Slot, ""}};
    const QMetaObject *mo = kb->metaObject();
    QCOMPARE(mo->superClass(), &QWidget::staticMetaObject);
    QCOMPARE(mo->methodCount() - mo->methodOffset(), 5);
    for (int i = 0; i < 5; ++i) {
        const QMetaMethod method = mo->method(mo->methodOffset() + i);
        QCOMPARE(method.methodSignature(), QByteArray(methods[i].signature));
        QCOMPARE(method.methodType(), methods[i].type);
        QCOMPARE(method.access(), QMetaMethod::Public);
        QCOMPARE(method.parameterNames().join(','), QByteArray(methods[i].parameters));
    }
    // A plain member: were it a slot, connectSlotsByName would look for a "key" object.
    QCOMPARE(mo->indexOfMethod("on_key_pressed(QObject*)"), -1);
}

void TestSoftKeyboards::testGeometry_data()
{
    QTest::addColumn<bool>("simple");
    QTest::addColumn<float>("scale");
    QTest::addColumn<QSize>("keyboardSize");
    QTest::addColumn<QSize>("keySize");
    QTest::addColumn<QSize>("wideKeySize");
    QTest::addColumn<QString>("probe");
    QTest::addColumn<QPoint>("probePos");

    QTest::newRow("full 1.0") << false << 1.0f << QSize(410, 140) << QSize(30, 30) << QSize(60, 30)
                              << "label_number_9" << QPoint(280, 10);
    QTest::newRow("full 1.5") << false << 1.5f << QSize(615, 210) << QSize(45, 45) << QSize(90, 45)
                              << "label_space" << QPoint(510, 150);
    QTest::newRow("full 2.0") << false << 2.0f << QSize(820, 280) << QSize(60, 60) << QSize(120, 60)
                              << "label_space" << QPoint(680, 200);
    QTest::newRow("simple 1.0") << true << 1.0f << QSize(410, 140) << QSize(40, 30) << QSize(80, 30)
                                << "label_shift" << QPoint(325, 100);
    QTest::newRow("simple 1.5") << true << 1.5f << QSize(615, 210) << QSize(60, 45)
                                << QSize(120, 45) << "label_char_25" << QPoint(308, 150);
    QTest::newRow("simple 2.0") << true << 2.0f << QSize(820, 280) << QSize(80, 60)
                                << QSize(160, 60) << "label_shift" << QPoint(650, 200);
}

void TestSoftKeyboards::testGeometry()
{
    QFETCH(bool, simple);
    QFETCH(float, scale);
    QFETCH(QSize, keyboardSize);
    QFETCH(QSize, keySize);
    QFETCH(QSize, wideKeySize);
    QFETCH(QString, probe);
    QFETCH(QPoint, probePos);

    auto kb = make(simple, scale);
    QCOMPARE(kb->size(), keyboardSize);
    QCOMPARE(key(kb.get(), probe)->pos(), probePos);
    QCOMPARE(key(kb.get(), "label_shift")->size(), wideKeySize);
    const QList<QLabel *> keys = kb->findChildren<QLabel *>();
    for (QLabel *label : keys) {
        if (label->objectName().startsWith("label_number")
            || label->objectName().startsWith("label_char"))
            QCOMPARE(label->size(), keySize);
        QVERIFY2(kb->rect().contains(label->geometry()), qPrintable(label->objectName()));
        for (QLabel *other : keys)
            QVERIFY2(other == label || !other->geometry().intersects(label->geometry()),
                     qPrintable(label->objectName() + "/" + other->objectName()));
    }
}

void TestSoftKeyboards::testShuffle()
{
    // Every key shows every character of its group about equally often (bounds > 7 sigma).
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
}

void TestSoftKeyboards::testBackToBackLayoutsDiffer()
{
    QFETCH(bool, simple);
    int same = 0;
    QSet<QByteArray> layouts;
    for (int pair = 0; pair < 50; ++pair) {
        auto first = make(simple);
        auto second = make(simple);
        same += layoutOf(first.get()) == layoutOf(second.get());
        layouts << layoutOf(first.get()) << layoutOf(second.get());
    }
    QCOMPARE(same, 0);
    QCOMPARE(layouts.size(), 100);
}

void TestSoftKeyboards::testLeftPress()
{
    QFETCH(bool, simple);
    auto kb = shown(simple);
    QSignalSpy chars(kb.get(), SIGNAL(input_char(char)));
    QSignalSpy backspaces(kb.get(), SIGNAL(input_backspace()));
    QLabel *shift = key(kb.get(), "label_shift");

    // Every character key, plain and shifted, emits its face once at press time.
    for (int state = 0; state < 2; ++state) {
        for (QLabel *label : characterKeys(kb.get())) {
            const QString face = label->text();
            chars.clear();
            QTest::mousePress(label, Qt::LeftButton, Qt::NoModifier, label->rect().center());
            QCOMPARE(chars.count(), 1);
            QCOMPARE(arg0(chars, 0), face.at(0).toLatin1());
            QTest::mouseRelease(label, Qt::LeftButton, Qt::NoModifier, label->rect().center());
            QCOMPARE(chars.count(), 1);
            QCOMPARE(label->text(), face);
            QCOMPARE(shiftOn(kb.get()), state == 1);
        }
        // Shift itself emits nothing and keeps its face.
        chars.clear();
        QTest::mouseClick(shift, Qt::LeftButton);
        QCOMPARE(chars.count(), 0);
        QCOMPARE(shift->text(), QStringLiteral("shift"));
        QCOMPARE(shiftOn(kb.get()), state == 0);
    }
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
    auto kb = shown(simple);
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
    auto kb = shown(simple);
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

void TestSoftKeyboards::testShiftFaces()
{
    QFETCH(bool, simple);
    auto kb = shown(simple);
    const KeyboardTraits s = traits(simple);
    QLabel *shift = key(kb.get(), "label_shift");
    const QStringList normalFaces = faces(kb.get());
    const QByteArray layout = layoutOf(kb.get());

    QTest::mouseClick(shift, Qt::LeftButton);
    QVERIFY(shiftOn(kb.get()));
    QCOMPARE(layoutOf(kb.get()), layout);
    const QStringList shiftedFaces = faces(kb.get());
    int n = 0;
    for (int g = 0; g < s.normal.size(); ++g) {
        for (int i = 0; i < s.normal[g].size(); ++i, ++n) {
            const int index = s.normal[g].indexOf(normalFaces[n]);
            QVERIFY(index >= 0);
            QCOMPARE(shiftedFaces[n], QString(s.shifted[g].at(index)));
        }
    }
    if (!simple)
        QCOMPARE(shiftedFaces[normalFaces.indexOf("\\")], QStringLiteral("|"));

    QTest::mouseClick(shift, Qt::LeftButton);
    QVERIFY(!shiftOn(kb.get()));
    QCOMPARE(faces(kb.get()), normalFaces);
    QCOMPARE(layoutOf(kb.get()), layout);

    // A reshuffle while shifted deals shifted faces.
    QTest::mouseClick(shift, Qt::LeftButton);
    shuffle(kb.get());
    QVERIFY(shiftOn(kb.get()));
    QVERIFY(facesMatchOrders(kb.get()));
}

void TestSoftKeyboards::testScreenshots()
{
    QFETCH(bool, simple);
    auto kb = shown(simple);
    QString dir = qEnvironmentVariable("ZRUI_TEST_OUTPUT");
    if (dir.isEmpty())
        dir = QDir::tempPath();
    QVERIFY(QDir().mkpath(dir));
    for (const char *state : {"normal", "shift"}) {
        if (qstrcmp(state, "shift") == 0)
            QTest::mouseClick(key(kb.get(), "label_shift"), Qt::LeftButton);
        const QImage image = kb->grab().toImage().convertToFormat(QImage::Format_RGB32);
        QVERIFY(!image.isNull());
        QCOMPARE(image.size(), QSize(410, 140));
        const QString file = QDir(dir).filePath(
                QStringLiteral("%1_%2.png").arg(kb->metaObject()->className(), state));
        QVERIFY(image.save(file));
        // Key background inside the 1-pixel margin; every face drawn near the centre.
        const QRect first = characterKeys(kb.get()).first()->geometry();
        QCOMPARE(QColor(image.pixel(first.topLeft() + QPoint(2, 2))), QColor(153, 247, 255));
        for (QLabel *label : characterKeys(kb.get())) {
            const QRect r = label->geometry();
            QRect ink;
            for (int y = r.top() + 2; y < r.bottom() - 1; ++y)
                for (int x = r.left() + 2; x < r.right() - 1; ++x)
                    if (qGray(image.pixel(x, y)) < 128)
                        ink |= QRect(x, y, 1, 1);
            QVERIFY2(!ink.isEmpty(), qPrintable(label->objectName()));
            QVERIFY2(qAbs(ink.center().x() - r.center().x()) <= 3, qPrintable(label->objectName()));
        }
    }
}

QTEST_MAIN(TestSoftKeyboards)
#include "TestSoftKeyboards.moc"
