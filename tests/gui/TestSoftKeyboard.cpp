#include "SoftKeyboard.h"

#include <QDir>
#include <QImage>
#include <QLabel>
#include <QMetaMethod>
#include <QMouseEvent>
#include <QPixmap>
#include <QSet>
#include <QSignalSpy>
#include <QWindow>
#include <QtTest>

#include <memory>

namespace {

// The faces of one physical key of a US layout: index i of a normal string
// and index i of its shifted string belong together.
const QString digits = QStringLiteral("0123456789");
const QString digitsShifted = QStringLiteral(")!@#$%^&*(");
const QString letters = QStringLiteral("abcdefghijklmnopqrstuvwxyz");
const QString lettersShifted = QStringLiteral("ABCDEFGHIJKLMNOPQRSTUVWXYZ");
const QString notes = QStringLiteral("`-=[]\\;',./");
const QString notesShifted = QStringLiteral("~_+{}|:\"<>?");

const char *const expectedStyleSheet
        = "QLabel\n{\n\tmargin: 1px;\n\tbackground-color: rgb(153, 247, "
          "255);\n    alignment: center;\n}\nQLabel:hover\n{\n\tmargin: "
          "1px;\n\tbackground-color: rgb(121, 141, 255);\n    alignment: "
          "center;\n}";

QString numberName(int k) { return QStringLiteral("label_number_%1").arg(k); }
QString charName(int i) { return QStringLiteral("label_char_%1").arg(i, 2, 10, QLatin1Char('0')); }
QString noteName(int k) { return QStringLiteral("label_note_%1").arg(k, 2, 10, QLatin1Char('0')); }

// The 47 character keys by group and index.
QStringList characterKeyNames()
{
    QStringList names;
    for (int k = 0; k < 10; ++k)
        names << numberName(k);
    for (int i = 0; i < 26; ++i)
        names << charName(i);
    for (int k = 0; k < 11; ++k)
        names << noteName(k);
    return names;
}

// Unscaled geometry of every key as the layout prescribes it.
QHash<QString, QRect> baseGeometry()
{
    QHash<QString, QRect> g;
    for (int k = 0; k < 10; ++k)
        g.insert(numberName(k), QRect(10 + 30 * k, 10, 30, 30));
    for (int i = 0; i < 26; ++i)
        g.insert(charName(i), QRect(10 + 30 * (i % 13), i < 13 ? 40 : 70, 30, 30));
    for (int k = 0; k < 11; ++k)
        g.insert(noteName(k), QRect(10 + 30 * k, 100, 30, 30));
    g.insert(QStringLiteral("label_delete"), QRect(310, 10, 30, 30));
    g.insert(QStringLiteral("label_shift"), QRect(340, 10, 60, 30));
    g.insert(QStringLiteral("label_space"), QRect(340, 100, 60, 30));
    return g;
}

QLabel *key(QWidget *keyboard, const QString &name) { return keyboard->findChild<QLabel *>(name); }

// Which group a key belongs to and the index of its face in that group.
int faceIndex(const QString &name, const QString &face, bool shifted)
{
    if (name.startsWith(QLatin1String("label_number_")))
        return (shifted ? digitsShifted : digits).indexOf(face);
    if (name.startsWith(QLatin1String("label_char_")))
        return (shifted ? lettersShifted : letters).indexOf(face);
    return (shifted ? notesShifted : notes).indexOf(face);
}

QStringList faces(QWidget *keyboard)
{
    QStringList texts;
    for (const QString &name : characterKeyNames())
        texts << key(keyboard, name)->text();
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

QByteArray layoutOf(const SoftKeyboard &kb)
{
    QByteArray bytes;
    for (int k = 0; k < 10; ++k)
        bytes.append(char(kb.numberOrderData()[k]));
    for (int i = 0; i < 26; ++i)
        bytes.append(char(kb.charOrderData()[i]));
    for (int k = 0; k < 11; ++k)
        bytes.append(char(kb.noteOrderData()[k]));
    return bytes;
}

// Records the mouse events a key receives, to prove the events under test
// really were delivered (and of which kind).
class MouseRecorder : public QObject
{
public:
    QList<QEvent::Type> types;
    QList<Qt::MouseButton> buttons;
    bool eventFilter(QObject *, QEvent *event) override
    {
        switch (event->type()) {
        case QEvent::MouseButtonPress:
        case QEvent::MouseButtonRelease:
        case QEvent::MouseButtonDblClick:
            types << event->type();
            buttons << static_cast<QMouseEvent *>(event)->button();
            break;
        default:
            break;
        }
        return false;
    }
};

// Bounding box of the dark (text) pixels inside a key, margins excluded.
QRect inkBox(const QImage &image, const QRect &keyRect)
{
    QRect box;
    for (int y = keyRect.top() + 2; y < keyRect.bottom() - 1; ++y) {
        for (int x = keyRect.left() + 2; x < keyRect.right() - 1; ++x) {
            if (qGray(image.pixel(x, y)) < 128)
                box |= QRect(x, y, 1, 1);
        }
    }
    return box;
}

QString outputDir()
{
    QString dir = qEnvironmentVariable("ZRUI_TEST_OUTPUT");
    if (dir.isEmpty())
        dir = QDir::tempPath();
    QDir().mkpath(dir);
    return dir;
}

} // namespace

class TestSoftKeyboard : public QObject
{
    Q_OBJECT

private slots:
    void testForm();
    void testMetaObject_data();
    void testMetaObject();
    void testGeometry_data();
    void testGeometry();
    void testResizeCompounds();
    void testOrdersArePermutations();
    void testShuffleCoverage();
    void testBackToBackLayoutsDiffer();
    void testLeftPressEmitsFace_data();
    void testLeftPressEmitsFace();
    void testFilterNeverConsumes();
    void testOtherButtonsEmitNothing_data();
    void testOtherButtonsEmitNothing();
    void testDoubleClickEmitsOnce_data();
    void testDoubleClickEmitsOnce();
    void testBackgroundPressEmitsNothing();
    void testFunctionKeys();
    void testShiftFaces();
    void testScreenshots();

private:
    std::unique_ptr<SoftKeyboard> shownKeyboard(float scale = 1.0f);
};

std::unique_ptr<SoftKeyboard> TestSoftKeyboard::shownKeyboard(float scale)
{
    auto kb = std::make_unique<SoftKeyboard>(scale);
    kb->show();
    if (!QTest::qWaitForWindowExposed(kb.get()))
        qWarning("keyboard window not exposed");
    return kb;
}

void TestSoftKeyboard::testForm()
{
    QWidget owner;
    auto *kb = new SoftKeyboard(1.0f, &owner);
    QCOMPARE(kb->parentWidget(), &owner);
    QVERIFY(!kb->isWindow());
    QCOMPARE(kb->windowType(), Qt::Widget);
    QCOMPARE(kb->windowFlags(), QWidget(&owner).windowFlags());
    QCOMPARE(kb->objectName(), QStringLiteral("SoftKeyboard"));
    QCOMPARE(kb->windowTitle(), QStringLiteral("Form"));
    QCOMPARE(kb->styleSheet(), QString::fromLatin1(expectedStyleSheet));
    QVERIFY(!kb->layout());
    QVERIFY(!kb->isShiftOn());

    // The form declares (and so creates) its keys in this order.
    QStringList declared;
    for (int k = 1; k <= 9; ++k)
        declared << numberName(k);
    declared << numberName(0);
    for (int i = 0; i < 26; ++i)
        declared << charName(i);
    declared << noteName(1) << QStringLiteral("label_delete");
    for (int k = 2; k <= 10; ++k)
        declared << noteName(k);
    declared << noteName(0) << QStringLiteral("label_shift") << QStringLiteral("label_space");

    QStringList created;
    for (QLabel *label : kb->findChildren<QLabel *>(QString(), Qt::FindDirectChildrenOnly))
        created << label->objectName();
    QCOMPARE(created, declared);
    QCOMPARE(kb->findChildren<QLabel *>().size(), 50);

    for (const QString &name : declared) {
        QLabel *label = key(kb, name);
        QCOMPARE(label->alignment(), Qt::Alignment(Qt::AlignCenter));
        QCOMPARE(label->parentWidget(), kb);
    }
    QCOMPARE(key(kb, QStringLiteral("label_shift"))->text(), QStringLiteral("shift"));
    QCOMPARE(key(kb, QStringLiteral("label_space"))->text(), QStringLiteral("space"));
    QCOMPARE(key(kb, QStringLiteral("label_delete"))->text(), QStringLiteral("<-"));
    // The constructor's shuffle has replaced every placeholder face.
    for (const QString &name : characterKeyNames())
        QVERIFY2(faceIndex(name, key(kb, name)->text(), false) >= 0, qPrintable(name));
}

void TestSoftKeyboard::testMetaObject_data()
{
    QTest::addColumn<int>("index");
    QTest::addColumn<QByteArray>("signature");
    QTest::addColumn<int>("methodType");
    QTest::addColumn<QByteArray>("returnType");
    QTest::addColumn<QByteArray>("parameterNames");

    QTest::newRow("0") << 0 << QByteArray("input_char(char)") << int(QMetaMethod::Signal)
                       << QByteArray("void") << QByteArray("character");
    QTest::newRow("1") << 1 << QByteArray("input_backspace()") << int(QMetaMethod::Signal)
                       << QByteArray("void") << QByteArray();
    QTest::newRow("2") << 2 << QByteArray("eventFilter(QObject*,QEvent*)") << int(QMetaMethod::Slot)
                       << QByteArray("bool") << QByteArray("watched,event");
    QTest::newRow("3") << 3 << QByteArray("randomSoftKeyboard()") << int(QMetaMethod::Slot)
                       << QByteArray("void") << QByteArray();
    QTest::newRow("4") << 4 << QByteArray("refreshSoftKeyboard()") << int(QMetaMethod::Slot)
                       << QByteArray("void") << QByteArray();
}

void TestSoftKeyboard::testMetaObject()
{
    QFETCH(int, index);
    QFETCH(QByteArray, signature);
    QFETCH(int, methodType);
    QFETCH(QByteArray, returnType);
    QFETCH(QByteArray, parameterNames);

    const QMetaObject &mo = SoftKeyboard::staticMetaObject;
    QCOMPARE(mo.methodCount() - mo.methodOffset(), 5);
    const QMetaMethod method = mo.method(mo.methodOffset() + index);
    QCOMPARE(method.methodSignature(), signature);
    QCOMPARE(int(method.methodType()), methodType);
    QCOMPARE(method.access(), QMetaMethod::Public);
    QCOMPARE(QByteArray(method.typeName()), returnType);
    QCOMPARE(method.parameterNames().join(','), parameterNames);
    // A plain member: were it a slot, connectSlotsByName would look for a "key" object.
    QCOMPARE(mo.indexOfMethod("on_key_pressed(QObject*)"), -1);
}

void TestSoftKeyboard::testGeometry_data()
{
    QTest::addColumn<float>("scale");
    QTest::addColumn<QSize>("keyboardSize");
    QTest::addColumn<QSize>("keySize");
    QTest::addColumn<QSize>("wideKeySize");
    QTest::addColumn<QPoint>("lastDigitPos");
    QTest::addColumn<QPoint>("spacePos");

    QTest::newRow("1.0") << 1.0f << QSize(410, 140) << QSize(30, 30) << QSize(60, 30)
                         << QPoint(280, 10) << QPoint(340, 100);
    QTest::newRow("1.5") << 1.5f << QSize(615, 210) << QSize(45, 45) << QSize(90, 45)
                         << QPoint(420, 15) << QPoint(510, 150);
    QTest::newRow("2.0") << 2.0f << QSize(820, 280) << QSize(60, 60) << QSize(120, 60)
                         << QPoint(560, 20) << QPoint(680, 200);
}

void TestSoftKeyboard::testGeometry()
{
    QFETCH(float, scale);
    QFETCH(QSize, keyboardSize);
    QFETCH(QSize, keySize);
    QFETCH(QSize, wideKeySize);
    QFETCH(QPoint, lastDigitPos);
    QFETCH(QPoint, spacePos);

    SoftKeyboard kb(scale);
    QCOMPARE(kb.size(), keyboardSize);
    const QHash<QString, QRect> base = baseGeometry();
    QCOMPARE(base.size(), 50);
    for (auto it = base.cbegin(); it != base.cend(); ++it) {
        QLabel *label = key(&kb, it.key());
        QVERIFY2(label, qPrintable(it.key()));
        const bool wide = it.key() == QLatin1String("label_shift")
                          || it.key() == QLatin1String("label_space");
        QCOMPARE(label->size(), wide ? wideKeySize : keySize);
        QCOMPARE(label->pos(), QPoint(qRound(it.value().x() * double(scale)),
                                      qRound(it.value().y() * double(scale))));
        QVERIFY2(kb.rect().contains(label->geometry()), qPrintable(it.key()));
    }
    // Spot checks in literal pixels.
    QCOMPARE(key(&kb, numberName(9))->pos(), lastDigitPos);
    QCOMPARE(key(&kb, QStringLiteral("label_space"))->pos(), spacePos);
    // Fonts are not scaled.
    SoftKeyboard plain(1.0f);
    QCOMPARE(key(&kb, charName(0))->font(), key(&plain, charName(0))->font());
}

void TestSoftKeyboard::testResizeCompounds()
{
    SoftKeyboard kb(1.5f);
    kb.ResizeWithScale(2.0f);
    QCOMPARE(kb.size(), QSize(1230, 420));
    QCOMPARE(key(&kb, numberName(9))->geometry(), QRect(840, 30, 90, 90));
    QCOMPARE(key(&kb, QStringLiteral("label_shift"))->geometry(), QRect(1020, 30, 180, 90));

    // Half pixels round to the nearest whole pixel (size and position alike).
    SoftKeyboard odd(1.25f);
    QCOMPARE(odd.size(), QSize(513, 175));
    QCOMPARE(key(&odd, numberName(0))->geometry(), QRect(13, 13, 38, 38));
    QCOMPARE(key(&odd, numberName(1))->geometry(), QRect(50, 13, 38, 38));
    QCOMPARE(key(&odd, QStringLiteral("label_space"))->geometry(), QRect(425, 125, 75, 38));
}

void TestSoftKeyboard::testOrdersArePermutations()
{
    SoftKeyboard kb(1.0f);
    const QStringList names = characterKeyNames();
    for (int round = 0; round < 300; ++round) {
        if (round > 0)
            kb.randomSoftKeyboard();
        QVERIFY(isPermutation(kb.numberOrderData(), 10));
        QVERIFY(isPermutation(kb.charOrderData(), 26));
        QVERIFY(isPermutation(kb.noteOrderData(), 11));
        // Each key shows the character its order entry names...
        for (int k = 0; k < 10; ++k)
            QCOMPARE(key(&kb, numberName(k))->text(), QString(digits.at(kb.numberOrderData()[k])));
        for (int i = 0; i < 26; ++i)
            QCOMPARE(key(&kb, charName(i))->text(), QString(letters.at(kb.charOrderData()[i])));
        for (int k = 0; k < 11; ++k)
            QCOMPARE(key(&kb, noteName(k))->text(), QString(notes.at(kb.noteOrderData()[k])));
        // ...so every character is on exactly one key.
        const QStringList shown = faces(&kb);
        QCOMPARE(QSet<QString>(shown.cbegin(), shown.cend()).size(), 47);
        QCOMPARE(shown.join(QString()).size(), 47);
    }
}

void TestSoftKeyboard::testShuffleCoverage()
{
    // Over many shuffles every key shows every character of its group, and no
    // key/character pair is grossly over- or under-represented (the expected
    // count per pair is rounds / group size; the bounds are > 7 sigma wide).
    const int rounds = 5200;
    SoftKeyboard kb(1.0f);
    const QStringList names = characterKeyNames();
    QVector<QVector<int>> counts(names.size());
    for (int n = 0; n < names.size(); ++n)
        counts[n].fill(0, 26);
    for (int round = 0; round < rounds; ++round) {
        kb.randomSoftKeyboard();
        for (int n = 0; n < names.size(); ++n) {
            const int index = faceIndex(names[n], key(&kb, names[n])->text(), false);
            QVERIFY(index >= 0);
            ++counts[n][index];
        }
    }
    for (int n = 0; n < names.size(); ++n) {
        const int groupSize = n < 10 ? 10 : n < 36 ? 26 : 11;
        const double expected = double(rounds) / groupSize;
        for (int c = 0; c < groupSize; ++c) {
            const int seen = counts[n][c];
            QVERIFY2(seen > expected * 0.5 && seen < expected * 1.5,
                     qPrintable(QStringLiteral("%1 showed character %2 %3 times, expected ~%4")
                                        .arg(names[n])
                                        .arg(c)
                                        .arg(seen)
                                        .arg(expected)));
        }
    }
}

void TestSoftKeyboard::testBackToBackLayoutsDiffer()
{
    // A generator seeded from the clock would give every pair built within
    // one second the same layout.
    int same = 0;
    QSet<QByteArray> layouts;
    for (int pair = 0; pair < 50; ++pair) {
        SoftKeyboard first(1.0f);
        SoftKeyboard second(1.0f);
        if (layoutOf(first) == layoutOf(second))
            ++same;
        layouts << layoutOf(first) << layoutOf(second);
    }
    QCOMPARE(same, 0);
    QCOMPARE(layouts.size(), 100);
}

void TestSoftKeyboard::testLeftPressEmitsFace_data()
{
    QTest::addColumn<QString>("name");
    QTest::addColumn<bool>("shifted");
    for (const QString &name : characterKeyNames()) {
        QTest::newRow(qPrintable(name)) << name << false;
        QTest::newRow(qPrintable(name + QStringLiteral(" shifted"))) << name << true;
    }
}

void TestSoftKeyboard::testLeftPressEmitsFace()
{
    QFETCH(QString, name);
    QFETCH(bool, shifted);

    auto kb = shownKeyboard();
    if (shifted) {
        QTest::mouseClick(key(kb.get(), QStringLiteral("label_shift")), Qt::LeftButton);
        QVERIFY(kb->isShiftOn());
    }
    QLabel *label = key(kb.get(), name);
    QVERIFY(label);
    const QString face = label->text();
    QCOMPARE(face.size(), 1);
    QVERIFY(faceIndex(name, face, shifted) >= 0);

    QSignalSpy chars(kb.get(), &SoftKeyboard::input_char);
    QSignalSpy backspaces(kb.get(), &SoftKeyboard::input_backspace);
    QTest::mousePress(label, Qt::LeftButton, Qt::NoModifier, label->rect().center());
    // Emitted at press time, once, with exactly the face's byte.
    QCOMPARE(chars.count(), 1);
    QCOMPARE(chars.at(0).at(0).value<char>(), face.at(0).toLatin1());
    QTest::mouseRelease(label, Qt::LeftButton, Qt::NoModifier, label->rect().center());
    QCOMPARE(chars.count(), 1);
    QCOMPARE(backspaces.count(), 0);
    // Typing does not end the shift state nor reshuffle.
    QCOMPARE(kb->isShiftOn(), shifted);
    QCOMPARE(label->text(), face);
}

void TestSoftKeyboard::testFilterNeverConsumes()
{
    SoftKeyboard kb(1.0f);
    QLabel *label = key(&kb, numberName(3));
    QSignalSpy chars(&kb, &SoftKeyboard::input_char);
    QMouseEvent press(QEvent::MouseButtonPress, QPointF(5, 5), Qt::LeftButton, Qt::LeftButton,
                      Qt::NoModifier);
    QMouseEvent release(QEvent::MouseButtonRelease, QPointF(5, 5), Qt::LeftButton, Qt::NoButton,
                        Qt::NoModifier);
    QMouseEvent right(QEvent::MouseButtonPress, QPointF(5, 5), Qt::RightButton, Qt::RightButton,
                      Qt::NoModifier);
    QCOMPARE(kb.eventFilter(label, &press), false);
    QCOMPARE(chars.count(), 1);
    QCOMPARE(kb.eventFilter(label, &release), false);
    QCOMPARE(kb.eventFilter(label, &right), false);
    // A press reported for the keyboard itself is not a key.
    QCOMPARE(kb.eventFilter(&kb, &press), false);
    QCOMPARE(chars.count(), 1);
}

void TestSoftKeyboard::testOtherButtonsEmitNothing_data()
{
    QTest::addColumn<int>("buttonValue");
    QTest::addColumn<QString>("name");
    QTest::newRow("right digit") << int(Qt::RightButton) << numberName(5);
    QTest::newRow("middle letter") << int(Qt::MiddleButton) << charName(7);
    QTest::newRow("right delete") << int(Qt::RightButton) << QStringLiteral("label_delete");
    QTest::newRow("middle space") << int(Qt::MiddleButton) << QStringLiteral("label_space");
    QTest::newRow("right shift") << int(Qt::RightButton) << QStringLiteral("label_shift");
}

void TestSoftKeyboard::testOtherButtonsEmitNothing()
{
    QFETCH(int, buttonValue);
    const auto button = Qt::MouseButton(buttonValue);
    QFETCH(QString, name);

    auto kb = shownKeyboard();
    QLabel *label = key(kb.get(), name);
    MouseRecorder recorder;
    label->installEventFilter(&recorder);
    const QStringList before = faces(kb.get());
    QSignalSpy chars(kb.get(), &SoftKeyboard::input_char);
    QSignalSpy backspaces(kb.get(), &SoftKeyboard::input_backspace);

    QTest::mouseClick(label, button);
    QTest::mouseDClick(label, button);
    QVERIFY(recorder.types.contains(QEvent::MouseButtonPress));
    QVERIFY(!recorder.buttons.contains(Qt::LeftButton));
    QCOMPARE(chars.count(), 0);
    QCOMPARE(backspaces.count(), 0);
    QVERIFY(!kb->isShiftOn());
    QCOMPARE(faces(kb.get()), before);
}

void TestSoftKeyboard::testDoubleClickEmitsOnce_data()
{
    QTest::addColumn<bool>("throughWindow");
    QTest::newRow("widget events") << false;
    QTest::newRow("window system events") << true;
}

void TestSoftKeyboard::testDoubleClickEmitsOnce()
{
    QFETCH(bool, throughWindow);

    auto kb = shownKeyboard();
    QLabel *label = key(kb.get(), charName(4));
    const char face = label->text().at(0).toLatin1();
    MouseRecorder recorder;
    label->installEventFilter(&recorder);
    QSignalSpy chars(kb.get(), &SoftKeyboard::input_char);

    if (throughWindow) {
        // Two presses through the window system, as a real double click: the
        // second press reaches the widget as MouseButtonDblClick.
        QWindow *window = kb->windowHandle();
        QVERIFY(window);
        const QPoint at = label->mapTo(kb.get(), label->rect().center());
        QTest::mouseDClick(window, Qt::LeftButton, Qt::NoModifier, at);
        QTRY_VERIFY(recorder.types.contains(QEvent::MouseButtonDblClick));
    } else {
        // What the toolkit delivers for two quick clicks.
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
    QCOMPARE(chars.at(0).at(0).value<char>(), face);

    if (throughWindow) {
        // Two slow clicks are two characters.
        chars.clear();
        const QPoint at = label->mapTo(kb.get(), label->rect().center());
        QTest::mouseClick(kb->windowHandle(), Qt::LeftButton, Qt::NoModifier, at);
        QTest::mouseClick(kb->windowHandle(), Qt::LeftButton, Qt::NoModifier, at);
        QTRY_COMPARE(chars.count(), 2);
    }
}

void TestSoftKeyboard::testBackgroundPressEmitsNothing()
{
    auto kb = shownKeyboard();
    QSignalSpy chars(kb.get(), &SoftKeyboard::input_char);
    QSignalSpy backspaces(kb.get(), &SoftKeyboard::input_backspace);
    const QList<QPoint> spots = {QPoint(5, 5), QPoint(405, 70), QPoint(200, 135)};
    for (const QPoint &spot : spots) {
        QCOMPARE(kb->childAt(spot), nullptr);
        QTest::mouseClick(kb.get(), Qt::LeftButton, Qt::NoModifier, spot);
        QTest::mouseClick(kb->windowHandle(), Qt::LeftButton, Qt::NoModifier, spot);
    }
    QCOMPARE(chars.count(), 0);
    QCOMPARE(backspaces.count(), 0);
}

void TestSoftKeyboard::testFunctionKeys()
{
    auto kb = shownKeyboard();
    QSignalSpy chars(kb.get(), &SoftKeyboard::input_char);
    QSignalSpy backspaces(kb.get(), &SoftKeyboard::input_backspace);

    QTest::mouseClick(key(kb.get(), QStringLiteral("label_space")), Qt::LeftButton);
    QCOMPARE(chars.count(), 1);
    QCOMPARE(chars.at(0).at(0).value<char>(), char(32));
    QCOMPARE(backspaces.count(), 0);

    QTest::mouseClick(key(kb.get(), QStringLiteral("label_delete")), Qt::LeftButton);
    QCOMPARE(backspaces.count(), 1);
    QCOMPARE(backspaces.at(0).size(), 0);
    QCOMPARE(chars.count(), 1);

    // Shift emits nothing and its own face never changes.
    QTest::mouseClick(key(kb.get(), QStringLiteral("label_shift")), Qt::LeftButton);
    QCOMPARE(chars.count(), 1);
    QCOMPARE(backspaces.count(), 1);
    QCOMPARE(key(kb.get(), QStringLiteral("label_shift"))->text(), QStringLiteral("shift"));

    // Space stays a space in the shifted state.
    QTest::mouseClick(key(kb.get(), QStringLiteral("label_space")), Qt::LeftButton);
    QCOMPARE(chars.count(), 2);
    QCOMPARE(chars.at(1).at(0).value<char>(), char(32));
}

void TestSoftKeyboard::testShiftFaces()
{
    auto kb = shownKeyboard();
    QLabel *shift = key(kb.get(), QStringLiteral("label_shift"));
    const QStringList names = characterKeyNames();
    const QStringList normalFaces = faces(kb.get());
    const QByteArray layout = layoutOf(*kb);

    QTest::mouseClick(shift, Qt::LeftButton);
    QVERIFY(kb->isShiftOn());
    QCOMPARE(layoutOf(*kb), layout);
    const QStringList shiftedFaces = faces(kb.get());
    for (int n = 0; n < names.size(); ++n) {
        const int index = faceIndex(names[n], normalFaces[n], false);
        QVERIFY(index >= 0);
        QCOMPARE(faceIndex(names[n], shiftedFaces[n], true), index);
    }

    // The pairs themselves, key by key: digit d shows ")!@#$%^&*("[d] and the
    // backslash key shows the vertical bar.
    const QString normalAll = QStringLiteral("0123456789`-=[]\\;',./qz");
    const QString shiftedAll = QStringLiteral(")!@#$%^&*(~_+{}|:\"<>?QZ");
    for (int c = 0; c < normalAll.size(); ++c) {
        const int n = normalFaces.indexOf(QString(normalAll.at(c)));
        QVERIFY2(n >= 0, qPrintable(QString(normalAll.at(c))));
        QCOMPARE(shiftedFaces[n], QString(shiftedAll.at(c)));
    }

    // A shifted key types its shifted face: the key that showed 1 sends '!'.
    QSignalSpy chars(kb.get(), &SoftKeyboard::input_char);
    QTest::mouseClick(key(kb.get(), names[normalFaces.indexOf(QStringLiteral("1"))]),
                      Qt::LeftButton);
    QTest::mouseClick(key(kb.get(), names[normalFaces.indexOf(QStringLiteral("\\"))]),
                      Qt::LeftButton);
    QCOMPARE(chars.count(), 2);
    QCOMPARE(chars.at(0).at(0).value<char>(), '!');
    QCOMPARE(chars.at(1).at(0).value<char>(), '|');
    QVERIFY(kb->isShiftOn());

    // The second toggle restores the very same faces.
    QTest::mouseClick(shift, Qt::LeftButton);
    QVERIFY(!kb->isShiftOn());
    QCOMPARE(faces(kb.get()), normalFaces);
    QCOMPARE(layoutOf(*kb), layout);
    QCOMPARE(chars.count(), 2);

    // A reshuffle while shifted deals shifted faces.
    QTest::mouseClick(shift, Qt::LeftButton);
    kb->randomSoftKeyboard();
    for (int n = 0; n < names.size(); ++n)
        QVERIFY(faceIndex(names[n], key(kb.get(), names[n])->text(), true) >= 0);
}

void TestSoftKeyboard::testScreenshots()
{
    auto kb = shownKeyboard();
    const QStringList names = characterKeyNames();
    for (int state = 0; state < 2; ++state) {
        if (state == 1)
            QTest::mouseClick(key(kb.get(), QStringLiteral("label_shift")), Qt::LeftButton);
        const QImage image = kb->grab().toImage().convertToFormat(QImage::Format_RGB32);
        QCOMPARE(image.size(), QSize(410, 140));
        const QString file = QDir(outputDir())
                                     .filePath(state ? QStringLiteral("SoftKeyboard_shift.png")
                                                     : QStringLiteral("SoftKeyboard_normal.png"));
        QVERIFY(image.save(file));

        // Key background inside the 1-pixel margin, window colour on the margin.
        QLabel *first = key(kb.get(), numberName(0));
        const QPoint inside = first->geometry().topLeft() + QPoint(2, 2);
        QCOMPARE(QColor(image.pixel(inside)), QColor(153, 247, 255));
        QVERIFY(QColor(image.pixel(first->geometry().topLeft())) != QColor(153, 247, 255));

        // Every face is drawn, and centred on its key.
        for (const QString &name : names) {
            const QRect keyRect = key(kb.get(), name)->geometry();
            const QRect ink = inkBox(image, keyRect);
            QVERIFY2(!ink.isEmpty(), qPrintable(name));
            const double dx
                    = (ink.left() + ink.right()) / 2.0 - (keyRect.left() + keyRect.right()) / 2.0;
            QVERIFY2(qAbs(dx) <= 2.5, qPrintable(QStringLiteral("%1 off by %2").arg(name).arg(dx)));
            if (name.startsWith(QLatin1String("label_number_")) && state == 0) {
                const double dy = (ink.top() + ink.bottom()) / 2.0
                                  - (keyRect.top() + keyRect.bottom()) / 2.0;
                QVERIFY2(qAbs(dy) <= 3.0,
                         qPrintable(QStringLiteral("%1 off by %2").arg(name).arg(dy)));
                QVERIFY(ink.height() >= 6);
            }
        }
    }
}

QTEST_MAIN(TestSoftKeyboard)
#include "TestSoftKeyboard.moc"
