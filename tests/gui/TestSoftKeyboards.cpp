// Both on-screen keyboards: the shuffle's spread, and what a press of each key types.
#include "keyboard/SimpleSoftKeyboard.h"
#include "keyboard/SoftKeyboard.h"

#include <QtWidgets>
#include <QtTest>

#include <algorithm>

class TestSoftKeyboards : public QObject
{
    Q_OBJECT

    // Index i of a plain group and of its shifted group are the two faces of one key.
    QStringList plain, shifted;
    QList<QPair<QLabel *, int>> keys; // each character key with its group
    std::unique_ptr<QWidget> kb;

    void make(bool simple)
    {
        kb.reset(simple ? static_cast<QWidget *>(new SimpleSoftKeyboard(1.0f))
                        : new SoftKeyboard(1.0f));
        plain = QStringList{"0123456789", "abcdefghijklmnopqrstuvwxyz", "`-=[]\\;',./"}.mid(
                0, 3 - simple);
        shifted = QStringList{simple ? plain[0] : ")!@#$%^&*(", plain[1].toUpper(), "~_+{}|:\"<>?"}
                          .mid(0, plain.size());
        const char *names[] = {"label_number_%1", "label_char_%1", "label_note_%1"};
        keys.clear();
        for (int g = 0; g < plain.size(); ++g)
            for (int i = 0; i < plain[g].size(); ++i)
                keys << qMakePair(kb->findChild<QLabel *>(
                                          QString(names[g]).arg(i, g ? 2 : 1, 10, QChar('0'))),
                                  g);
        kb->show();
    }
    QString faces() const
    {
        QString all;
        for (const auto &k : keys)
            all += k.first->text();
        return all;
    }

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
        QSet<QString> layouts;
        for (int n = 0; n < 40; ++n) {
            make(simple);
            layouts << faces();
        }
        QCOMPARE(layouts.size(), 40);
        const int rounds = 5200;
        QHash<QPair<int, QChar>, int> counts;
        for (int round = 0; round < rounds; ++round) {
            QMetaObject::invokeMethod(kb.get(), "randomSoftKeyboard");
            for (int k = 0; k < keys.size(); ++k)
                ++counts[qMakePair(k, keys[k].first->text()[0])];
        }
        int pairs = 0;
        for (const QString &group : plain)
            pairs += group.size() * group.size();
        QCOMPARE(counts.size(), pairs);
        for (auto it = counts.cbegin(); it != counts.cend(); ++it) {
            const double expected = double(rounds) / plain[keys[it.key().first].second].size();
            QVERIFY(qAbs(it.value() - expected) < expected / 2);
        }
    }

    void testPresses_data() { testShuffle_data(); }

    // A left press types the key's face once (a double click adds nothing), plain and shifted;
    // shift swaps every face for its other one in place, a reshuffle while shifted deals shifted
    // faces; other buttons type nothing; delete is a backspace.
    void testPresses()
    {
        QFETCH(bool, simple);
        make(simple);
        QSignalSpy chars(kb.get(), SIGNAL(input_char(char))),
                backspaces(kb.get(), SIGNAL(input_backspace()));
        const QString all[] = {plain.join(""), shifted.join("")};
        for (int shift = 0; shift < 2; ++shift) {
            const QString shown = faces();
            QString typed = shown, group = all[shift];
            std::sort(typed.begin(), typed.end());
            std::sort(group.begin(), group.end());
            QCOMPARE(typed, group);
            typed.clear();
            chars.clear();
            for (const auto &k : keys) {
                QTest::mouseClick(k.first, Qt::RightButton);
                QTest::mouseClick(k.first, Qt::MiddleButton);
                QTest::mouseClick(k.first, Qt::LeftButton);
                QTest::mouseDClick(k.first, Qt::LeftButton);
            }
            for (const QList<QVariant> &signal : chars)
                typed += QChar::fromLatin1(signal.at(0).value<char>());
            QCOMPARE(typed, shown);
            QTest::mouseClick(kb->findChild<QLabel *>("label_shift"), Qt::LeftButton);
            for (int k = 0; k < shown.size(); ++k)
                QCOMPARE(faces()[k], all[!shift][all[shift].indexOf(shown[k])]);
            QMetaObject::invokeMethod(kb.get(), "randomSoftKeyboard");
        }
        QTest::mouseClick(kb->findChild<QLabel *>("label_delete"), Qt::LeftButton);
        QCOMPARE(backspaces.size(), 1);
    }
};

QTEST_MAIN(TestSoftKeyboards)
#include "TestSoftKeyboards.moc"
