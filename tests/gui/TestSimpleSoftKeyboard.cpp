#include "SimpleSoftKeyboard.h"

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

const QString digits = QStringLiteral("0123456789");
const QString letters = QStringLiteral("abcdefghijklmnopqrstuvwxyz");
const QString capitals = QStringLiteral("ABCDEFGHIJKLMNOPQRSTUVWXYZ");

const char *const expectedStyleSheet
        = "QLabel\n{\n\tmargin: 1px;\n\tbackground-color: rgb(153, 247, "
          "255);\n    alignment: center;\n}\nQLabel:hover\n{\n\tmargin: "
          "1px;\n\tbackground-color: rgb(121, 141, 255);\n    alignment: "
          "center;\n}";

QString numberName(int k) { return QStringLiteral("label_number_%1").arg(k); }
QString charName(int i) { return QStringLiteral("label_char_%1").arg(i, 2, 10, QLatin1Char('0')); }

// The 36 character keys: digits by index, then letters by index.
QStringList characterKeyNames()
{
    QStringList names;
    for (int k = 0; k < 10; ++k)
        names << numberName(k);
    for (int i = 0; i < 26; ++i)
        names << charName(i);
    return names;
}

// Unscaled geometry of every key as the layout prescribes it.
QHash<QString, QRect> baseGeometry()
{
    QHash<QString, QRect> g;
    for (int k = 0; k < 10; ++k)
        g.insert(numberName(k), QRect(5 + 40 * k, 10, 40, 30));
    for (int i = 0; i < 26; ++i)
        g.insert(charName(i), QRect(5 + 40 * (i % 10), 40 + 30 * (i / 10), 40, 30));
    g.insert(QStringLiteral("label_delete"), QRect(245, 100, 80, 30));
    g.insert(QStringLiteral("label_shift"), QRect(325, 100, 80, 30));
    return g;
}

QLabel *key(QWidget *keyboard, const QString &name) { return keyboard->findChild<QLabel *>(name); }

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

QByteArray layoutOf(const SimpleSoftKeyboard &kb)
{
    QByteArray bytes;
    for (int k = 0; k < 10; ++k)
        bytes.append(char(kb.numberOrderData()[k]));
    for (int i = 0; i < 26; ++i)
        bytes.append(char(kb.charOrderData()[i]));
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

class TestSimpleSoftKeyboard : public QObject
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
    void testShiftChangesOnlyLetters();
    void testScreenshots();

private:
    std::unique_ptr<SimpleSoftKeyboard> shownKeyboard(float scale = 1.0f);
};

std::unique_ptr<SimpleSoftKeyboard> TestSimpleSoftKeyboard::shownKeyboard(float scale)
{
    auto kb = std::make_unique<SimpleSoftKeyboard>(scale);
    kb->show();
    if (!QTest::qWaitForWindowExposed(kb.get()))
        qWarning("keyboard window not exposed");
    return kb;
}

void TestSimpleSoftKeyboard::testForm()
{
    QWidget owner;
    auto *kb = new SimpleSoftKeyboard(1.0f, &owner);
    QCOMPARE(kb->parentWidget(), &owner);
    QVERIFY(!kb->isWindow());
    QCOMPARE(kb->windowType(), Qt::Widget);
    QCOMPARE(kb->windowFlags(), QWidget(&owner).windowFlags());
    QCOMPARE(kb->objectName(), QStringLiteral("SimpleSoftKeyboard"));
    QCOMPARE(kb->windowTitle(), QStringLiteral("Form"));
    QCOMPARE(kb->styleSheet(), QString::fromLatin1(expectedStyleSheet));
    QVERIFY(!kb->layout());
    QVERIFY(!kb->isShiftOn());

    const QList<QLabel *> labels = kb->findChildren<QLabel *>();
    QCOMPARE(labels.size(), 38);
    QStringList expected = characterKeyNames();
    expected << QStringLiteral("label_delete") << QStringLiteral("label_shift");
    QStringList found;
    for (QLabel *label : labels) {
        found << label->objectName();
        QCOMPARE(label->alignment(), Qt::Alignment(Qt::AlignCenter));
        QCOMPARE(label->parentWidget(), kb);
    }
    found.sort();
    expected.sort();
    QCOMPARE(found, expected);
    // No space key and no punctuation on this keyboard.
    QVERIFY(!key(kb, QStringLiteral("label_space")));
    QVERIFY(!key(kb, QStringLiteral("label_note_00")));
    QCOMPARE(key(kb, QStringLiteral("label_shift"))->text(), QStringLiteral("shift"));
    QCOMPARE(key(kb, QStringLiteral("label_delete"))->text(), QStringLiteral("<-"));
    // The constructor's shuffle has replaced every placeholder face.
    QStringList shown = faces(kb);
    shown.sort();
    QCOMPARE(shown.join(QString()), digits + letters);
}

void TestSimpleSoftKeyboard::testMetaObject_data()
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

void TestSimpleSoftKeyboard::testMetaObject()
{
    QFETCH(int, index);
    QFETCH(QByteArray, signature);
    QFETCH(int, methodType);
    QFETCH(QByteArray, returnType);
    QFETCH(QByteArray, parameterNames);

    const QMetaObject &mo = SimpleSoftKeyboard::staticMetaObject;
    QCOMPARE(mo.superClass(), &QWidget::staticMetaObject);
    QCOMPARE(mo.methodCount() - mo.methodOffset(), 5);
    const QMetaMethod method = mo.method(mo.methodOffset() + index);
    QCOMPARE(method.methodSignature(), signature);
    QCOMPARE(int(method.methodType()), methodType);
    QCOMPARE(method.access(), QMetaMethod::Public);
    QCOMPARE(QByteArray(method.typeName()), returnType);
    QCOMPARE(method.parameterNames().join(','), parameterNames);
    QCOMPARE(mo.indexOfMethod("on_key_pressed(QObject*)"), -1);
}

void TestSimpleSoftKeyboard::testGeometry_data()
{
    QTest::addColumn<float>("scale");
    QTest::addColumn<QSize>("keyboardSize");
    QTest::addColumn<QSize>("keySize");
    QTest::addColumn<QSize>("wideKeySize");
    QTest::addColumn<QPoint>("firstDigitPos");
    QTest::addColumn<QPoint>("lastLetterPos");
    QTest::addColumn<QPoint>("shiftPos");

    QTest::newRow("1.0") << 1.0f << QSize(410, 140) << QSize(40, 30) << QSize(80, 30)
                         << QPoint(5, 10) << QPoint(205, 100) << QPoint(325, 100);
    QTest::newRow("1.5") << 1.5f << QSize(615, 210) << QSize(60, 45) << QSize(120, 45)
                         << QPoint(8, 15) << QPoint(308, 150) << QPoint(488, 150);
    QTest::newRow("2.0") << 2.0f << QSize(820, 280) << QSize(80, 60) << QSize(160, 60)
                         << QPoint(10, 20) << QPoint(410, 200) << QPoint(650, 200);
}

void TestSimpleSoftKeyboard::testGeometry()
{
    QFETCH(float, scale);
    QFETCH(QSize, keyboardSize);
    QFETCH(QSize, keySize);
    QFETCH(QSize, wideKeySize);
    QFETCH(QPoint, firstDigitPos);
    QFETCH(QPoint, lastLetterPos);
    QFETCH(QPoint, shiftPos);

    SimpleSoftKeyboard kb(scale);
    QCOMPARE(kb.size(), keyboardSize);
    const QHash<QString, QRect> base = baseGeometry();
    QCOMPARE(base.size(), 38);
    for (auto it = base.cbegin(); it != base.cend(); ++it) {
        QLabel *label = key(&kb, it.key());
        QVERIFY2(label, qPrintable(it.key()));
        const bool wide = it.key() == QLatin1String("label_shift")
                          || it.key() == QLatin1String("label_delete");
        QCOMPARE(label->size(), wide ? wideKeySize : keySize);
        QCOMPARE(label->pos(), QPoint(qRound(it.value().x() * double(scale)),
                                      qRound(it.value().y() * double(scale))));
        QVERIFY2(kb.rect().contains(label->geometry()), qPrintable(it.key()));
    }
    // Spot checks in literal pixels (at 1.5 the odd base positions round up).
    QCOMPARE(key(&kb, numberName(0))->pos(), firstDigitPos);
    QCOMPARE(key(&kb, charName(25))->pos(), lastLetterPos);
    QCOMPARE(key(&kb, QStringLiteral("label_shift"))->pos(), shiftPos);
    SimpleSoftKeyboard plain(1.0f);
    QCOMPARE(key(&kb, charName(0))->font(), key(&plain, charName(0))->font());
}

void TestSimpleSoftKeyboard::testResizeCompounds()
{
    SimpleSoftKeyboard kb(2.0f);
    kb.ResizeWithScale(1.5f);
    QCOMPARE(kb.size(), QSize(1230, 420));
    QCOMPARE(key(&kb, numberName(9))->geometry(), QRect(1095, 30, 120, 90));
    QCOMPARE(key(&kb, QStringLiteral("label_shift"))->geometry(), QRect(975, 300, 240, 90));

    // Half pixels round to the nearest whole pixel (size and position alike).
    SimpleSoftKeyboard odd(1.25f);
    QCOMPARE(odd.size(), QSize(513, 175));
    QCOMPARE(key(&odd, numberName(0))->geometry(), QRect(6, 13, 50, 38));
    QCOMPARE(key(&odd, charName(10))->geometry(), QRect(6, 88, 50, 38));
}

void TestSimpleSoftKeyboard::testOrdersArePermutations()
{
    SimpleSoftKeyboard kb(1.0f);
    for (int round = 0; round < 300; ++round) {
        if (round > 0)
            kb.randomSoftKeyboard();
        QVERIFY(isPermutation(kb.numberOrderData(), 10));
        QVERIFY(isPermutation(kb.charOrderData(), 26));
        for (int k = 0; k < 10; ++k)
            QCOMPARE(key(&kb, numberName(k))->text(), QString(digits.at(kb.numberOrderData()[k])));
        for (int i = 0; i < 26; ++i)
            QCOMPARE(key(&kb, charName(i))->text(), QString(letters.at(kb.charOrderData()[i])));
        const QStringList shown = faces(&kb);
        QCOMPARE(QSet<QString>(shown.cbegin(), shown.cend()).size(), 36);
        QCOMPARE(shown.join(QString()).size(), 36);
    }
}

void TestSimpleSoftKeyboard::testShuffleCoverage()
{
    // Over many shuffles every key shows every character of its group, and no
    // key/character pair is grossly over- or under-represented (bounds > 7 sigma).
    const int rounds = 5200;
    SimpleSoftKeyboard kb(1.0f);
    const QStringList names = characterKeyNames();
    QVector<QVector<int>> counts(names.size());
    for (int n = 0; n < names.size(); ++n)
        counts[n].fill(0, 26);
    for (int round = 0; round < rounds; ++round) {
        kb.randomSoftKeyboard();
        for (int n = 0; n < names.size(); ++n) {
            const QString face = key(&kb, names[n])->text();
            const int index = n < 10 ? digits.indexOf(face) : letters.indexOf(face);
            QVERIFY(index >= 0);
            ++counts[n][index];
        }
    }
    for (int n = 0; n < names.size(); ++n) {
        const int groupSize = n < 10 ? 10 : 26;
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

void TestSimpleSoftKeyboard::testBackToBackLayoutsDiffer()
{
    int same = 0;
    QSet<QByteArray> layouts;
    for (int pair = 0; pair < 50; ++pair) {
        SimpleSoftKeyboard first(1.0f);
        SimpleSoftKeyboard second(1.0f);
        if (layoutOf(first) == layoutOf(second))
            ++same;
        layouts << layoutOf(first) << layoutOf(second);
    }
    QCOMPARE(same, 0);
    QCOMPARE(layouts.size(), 100);
}

void TestSimpleSoftKeyboard::testLeftPressEmitsFace_data()
{
    QTest::addColumn<QString>("name");
    QTest::addColumn<bool>("shifted");
    for (const QString &name : characterKeyNames()) {
        QTest::newRow(qPrintable(name)) << name << false;
        QTest::newRow(qPrintable(name + QStringLiteral(" shifted"))) << name << true;
    }
}

void TestSimpleSoftKeyboard::testLeftPressEmitsFace()
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
    const QString group = name.startsWith(QLatin1String("label_number_")) ? digits
                          : shifted                                       ? capitals
                                                                          : letters;
    QVERIFY(group.contains(face));

    QSignalSpy chars(kb.get(), &SimpleSoftKeyboard::input_char);
    QSignalSpy backspaces(kb.get(), &SimpleSoftKeyboard::input_backspace);
    QTest::mousePress(label, Qt::LeftButton, Qt::NoModifier, label->rect().center());
    QCOMPARE(chars.count(), 1);
    QCOMPARE(chars.at(0).at(0).value<char>(), face.at(0).toLatin1());
    QTest::mouseRelease(label, Qt::LeftButton, Qt::NoModifier, label->rect().center());
    QCOMPARE(chars.count(), 1);
    QCOMPARE(backspaces.count(), 0);
    QCOMPARE(kb->isShiftOn(), shifted);
    QCOMPARE(label->text(), face);
}

void TestSimpleSoftKeyboard::testFilterNeverConsumes()
{
    SimpleSoftKeyboard kb(1.0f);
    QLabel *label = key(&kb, charName(12));
    QSignalSpy chars(&kb, &SimpleSoftKeyboard::input_char);
    QMouseEvent press(QEvent::MouseButtonPress, QPointF(5, 5), Qt::LeftButton, Qt::LeftButton,
                      Qt::NoModifier);
    QMouseEvent dblClick(QEvent::MouseButtonDblClick, QPointF(5, 5), Qt::LeftButton, Qt::LeftButton,
                         Qt::NoModifier);
    QCOMPARE(kb.eventFilter(label, &press), false);
    QCOMPARE(chars.count(), 1);
    QCOMPARE(kb.eventFilter(label, &dblClick), false);
    QCOMPARE(kb.eventFilter(&kb, &press), false);
    QCOMPARE(chars.count(), 1);
}

void TestSimpleSoftKeyboard::testOtherButtonsEmitNothing_data()
{
    QTest::addColumn<int>("buttonValue");
    QTest::addColumn<QString>("name");
    QTest::newRow("right digit") << int(Qt::RightButton) << numberName(2);
    QTest::newRow("middle letter") << int(Qt::MiddleButton) << charName(21);
    QTest::newRow("middle delete") << int(Qt::MiddleButton) << QStringLiteral("label_delete");
    QTest::newRow("right shift") << int(Qt::RightButton) << QStringLiteral("label_shift");
}

void TestSimpleSoftKeyboard::testOtherButtonsEmitNothing()
{
    QFETCH(int, buttonValue);
    const auto button = Qt::MouseButton(buttonValue);
    QFETCH(QString, name);

    auto kb = shownKeyboard();
    QLabel *label = key(kb.get(), name);
    MouseRecorder recorder;
    label->installEventFilter(&recorder);
    const QStringList before = faces(kb.get());
    QSignalSpy chars(kb.get(), &SimpleSoftKeyboard::input_char);
    QSignalSpy backspaces(kb.get(), &SimpleSoftKeyboard::input_backspace);

    QTest::mouseClick(label, button);
    QTest::mouseDClick(label, button);
    QVERIFY(recorder.types.contains(QEvent::MouseButtonPress));
    QVERIFY(!recorder.buttons.contains(Qt::LeftButton));
    QCOMPARE(chars.count(), 0);
    QCOMPARE(backspaces.count(), 0);
    QVERIFY(!kb->isShiftOn());
    QCOMPARE(faces(kb.get()), before);
}

void TestSimpleSoftKeyboard::testDoubleClickEmitsOnce_data()
{
    QTest::addColumn<bool>("throughWindow");
    QTest::newRow("widget events") << false;
    QTest::newRow("window system events") << true;
}

void TestSimpleSoftKeyboard::testDoubleClickEmitsOnce()
{
    QFETCH(bool, throughWindow);

    auto kb = shownKeyboard();
    QLabel *label = key(kb.get(), numberName(6));
    const char face = label->text().at(0).toLatin1();
    MouseRecorder recorder;
    label->installEventFilter(&recorder);
    QSignalSpy chars(kb.get(), &SimpleSoftKeyboard::input_char);

    if (throughWindow) {
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
        chars.clear();
        const QPoint at = label->mapTo(kb.get(), label->rect().center());
        QTest::mouseClick(kb->windowHandle(), Qt::LeftButton, Qt::NoModifier, at);
        QTest::mouseClick(kb->windowHandle(), Qt::LeftButton, Qt::NoModifier, at);
        QTRY_COMPARE(chars.count(), 2);
    }
}

void TestSimpleSoftKeyboard::testBackgroundPressEmitsNothing()
{
    auto kb = shownKeyboard();
    QSignalSpy chars(kb.get(), &SimpleSoftKeyboard::input_char);
    QSignalSpy backspaces(kb.get(), &SimpleSoftKeyboard::input_backspace);
    // Top, left, right and bottom margins.
    const QList<QPoint> spots = {QPoint(200, 5), QPoint(2, 70), QPoint(407, 50), QPoint(100, 135)};
    for (const QPoint &spot : spots) {
        QCOMPARE(kb->childAt(spot), nullptr);
        QTest::mouseClick(kb.get(), Qt::LeftButton, Qt::NoModifier, spot);
        QTest::mouseClick(kb->windowHandle(), Qt::LeftButton, Qt::NoModifier, spot);
    }
    QCOMPARE(chars.count(), 0);
    QCOMPARE(backspaces.count(), 0);
}

void TestSimpleSoftKeyboard::testFunctionKeys()
{
    auto kb = shownKeyboard();
    QSignalSpy chars(kb.get(), &SimpleSoftKeyboard::input_char);
    QSignalSpy backspaces(kb.get(), &SimpleSoftKeyboard::input_backspace);

    QTest::mouseClick(key(kb.get(), QStringLiteral("label_delete")), Qt::LeftButton);
    QCOMPARE(backspaces.count(), 1);
    QCOMPARE(chars.count(), 0);

    QTest::mouseClick(key(kb.get(), QStringLiteral("label_shift")), Qt::LeftButton);
    QCOMPARE(chars.count(), 0);
    QCOMPARE(backspaces.count(), 1);
    QVERIFY(kb->isShiftOn());
    QCOMPARE(key(kb.get(), QStringLiteral("label_shift"))->text(), QStringLiteral("shift"));

    QTest::mouseClick(key(kb.get(), QStringLiteral("label_delete")), Qt::LeftButton);
    QCOMPARE(backspaces.count(), 2);
    QCOMPARE(chars.count(), 0);
}

void TestSimpleSoftKeyboard::testShiftChangesOnlyLetters()
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
        if (n < 10) {
            QCOMPARE(shiftedFaces[n], normalFaces[n]);
        } else {
            const int index = letters.indexOf(normalFaces[n]);
            QVERIFY(index >= 0);
            QCOMPARE(shiftedFaces[n], QString(capitals.at(index)));
        }
    }

    // Shifted keys type what they show; digits stay digits.
    QSignalSpy chars(kb.get(), &SimpleSoftKeyboard::input_char);
    QTest::mouseClick(key(kb.get(), names[normalFaces.indexOf(QStringLiteral("q"))]),
                      Qt::LeftButton);
    QTest::mouseClick(key(kb.get(), names[normalFaces.indexOf(QStringLiteral("1"))]),
                      Qt::LeftButton);
    QCOMPARE(chars.count(), 2);
    QCOMPARE(chars.at(0).at(0).value<char>(), 'Q');
    QCOMPARE(chars.at(1).at(0).value<char>(), '1');
    QVERIFY(kb->isShiftOn());

    QTest::mouseClick(shift, Qt::LeftButton);
    QVERIFY(!kb->isShiftOn());
    QCOMPARE(faces(kb.get()), normalFaces);
    QCOMPARE(layoutOf(*kb), layout);
}

void TestSimpleSoftKeyboard::testScreenshots()
{
    auto kb = shownKeyboard();
    const QStringList names = characterKeyNames();
    for (int state = 0; state < 2; ++state) {
        if (state == 1)
            QTest::mouseClick(key(kb.get(), QStringLiteral("label_shift")), Qt::LeftButton);
        const QImage image = kb->grab().toImage().convertToFormat(QImage::Format_RGB32);
        QCOMPARE(image.size(), QSize(410, 140));
        const QString file
                = QDir(outputDir())
                          .filePath(state ? QStringLiteral("SimpleSoftKeyboard_shift.png")
                                          : QStringLiteral("SimpleSoftKeyboard_normal.png"));
        QVERIFY(image.save(file));

        QLabel *first = key(kb.get(), numberName(0));
        const QPoint inside = first->geometry().topLeft() + QPoint(2, 2);
        QCOMPARE(QColor(image.pixel(inside)), QColor(153, 247, 255));
        QVERIFY(QColor(image.pixel(first->geometry().topLeft())) != QColor(153, 247, 255));

        for (const QString &name : names) {
            const QRect keyRect = key(kb.get(), name)->geometry();
            const QRect ink = inkBox(image, keyRect);
            QVERIFY2(!ink.isEmpty(), qPrintable(name));
            const double dx
                    = (ink.left() + ink.right()) / 2.0 - (keyRect.left() + keyRect.right()) / 2.0;
            QVERIFY2(qAbs(dx) <= 2.5, qPrintable(QStringLiteral("%1 off by %2").arg(name).arg(dx)));
            if (name.startsWith(QLatin1String("label_number_"))) {
                const double dy = (ink.top() + ink.bottom()) / 2.0
                                  - (keyRect.top() + keyRect.bottom()) / 2.0;
                QVERIFY2(qAbs(dy) <= 3.0,
                         qPrintable(QStringLiteral("%1 off by %2").arg(name).arg(dy)));
                QVERIFY(ink.height() >= 6);
            }
        }
    }
}

QTEST_MAIN(TestSimpleSoftKeyboard)
#include "TestSimpleSoftKeyboard.moc"
