#include "PINDialog.h"

#include "FakeUiStatus.h"

#include <QLineEdit>
#include <QStringList>
#include <QtTest>

namespace {

// Debug lines of the code under test, collected in-process (the fixed log
// file is not involved).
QStringList g_messages;

void collectMessages(QtMsgType, const QMessageLogContext &, const QString &message)
{
    g_messages.append(message);
}

} // namespace

/**
 * The PIN strength rules: length bound, forbidden patterns (repetition,
 * straight runs, keyboard walks along the two fixed rows) and character
 * classes, and the per-mode acceptance of IsAllInputValid.
 */
class TestIsValidPIN : public QObject
{
    Q_OBJECT

private slots:
    void initTestCase();
    void cleanupTestCase();
    void testLevel_data();
    void testLevel();
    void testLevelLogLine();
    void testShortBoundsWalks_data();
    void testShortBoundsWalks();
    void testIsAllInputValid_data();
    void testIsAllInputValid();

private:
    QtMessageHandler previousHandler = nullptr;
};

void TestIsValidPIN::initTestCase() { previousHandler = qInstallMessageHandler(collectMessages); }

void TestIsValidPIN::cleanupTestCase() { qInstallMessageHandler(previousHandler); }

void TestIsValidPIN::testLevel_data()
{
    QTest::addColumn<QString>("pin");
    QTest::addColumn<int>("level");

    // Bounds 6 to 16.
    QTest::newRow("repeated digit") << "111111" << 2;
    QTest::newRow("ascending digits") << "123456" << 2;
    QTest::newRow("descending digits") << "654321" << 2;
    QTest::newRow("descending letters") << "fedcba" << 2;
    QTest::newRow("ascending letters") << "abcdef" << 2;
    QTest::newRow("walk qwerty") << "qwerty" << 2;
    QTest::newRow("walk QWERTY") << "QWERTY" << 2;
    QTest::newRow("walk zxcvbn") << "zxcvbn" << 2;
    QTest::newRow("walk digits and symbols") << "1234567890-=" << 2;
    QTest::newRow("walk 7890-=") << "7890-=" << 2;
    QTest::newRow("walk across =\\q join") << "90-=\\qwe" << 2;
    QTest::newRow("walk across []a join") << "op[]asd" << 2;
    QTest::newRow("walk across 'z join") << "kl;'zxc" << 2;
    QTest::newRow("shifted walk across :\"Z join") << "JKL:\"ZXC" << 2;
    QTest::newRow("shifted walk symbols") << "!@#$%^&*()_+|" << 2;
    QTest::newRow("leading blank keeps walk") << " qwert" << 2;
    QTest::newRow("leading non-Latin-1 keeps walk") << QString::fromUtf8("\u4e2dqwert") << 2;
    QTest::newRow("non-Latin-1 after row char ends walk") << QString::fromUtf8("qwe\u4e2drt") << 4;
    QTest::newRow("run by code 789:;<") << "789:;<" << 2;
    QTest::newRow("blank inside breaks walk") << "qw ert" << 4;
    QTest::newRow("leaving the row ends walk") << "qwerty!" << 4;
    QTest::newRow("no jump from slash to shifted row") << "m,./!@" << 4;
    QTest::newRow("walk up to slash") << "zxcvbnm,./" << 2;
    QTest::newRow("after slash ends walk") << "m,./z1" << 5;
    QTest::newRow("wraps 890123 not a run") << "890123" << 3;
    QTest::newRow("banana") << "banana" << 3;
    QTest::newRow("upper only") << "BANANA" << 3;
    QTest::newRow("symbols only") << "#!#!#!" << 3;
    QTest::newRow("two classes") << "a1b2c3" << 4;
    QTest::newRow("three classes") << "aB3xY9" << 5;
    QTest::newRow("four classes") << "aB3#Y9" << 5;
    QTest::newRow("five chars") << "12345" << 0;
    QTest::newRow("five strong chars") << "aB3#Y" << 0;
    QTest::newRow("empty") << "" << 0;
    QTest::newRow("repeated long") << "aaaaaaaaaaaaaaaa" << 2;
    // The upper bound is not tested here: the line edits enforce it.
    QTest::newRow("longer than max") << "a1b2c3d4e5f6g7h8i9" << 4;
}

void TestIsValidPIN::testLevel()
{
    QFETCH(QString, pin);
    QFETCH(int, level);
    FakeUiStatus status(6, 16);
    PINDialog dlg(PINDialog::FullKeyBoard, false, 0, &status, 1.0f);
    QCOMPARE(dlg.IsValidPIN(pin), level);
}

void TestIsValidPIN::testLevelLogLine()
{
    FakeUiStatus status(6, 16);
    PINDialog dlg(PINDialog::FullKeyBoard, false, 0, &status, 1.0f);
    g_messages.clear();
    QCOMPARE(dlg.IsValidPIN("a1b2c3"), 4);
    QCOMPARE(dlg.IsValidPIN("12345"), 0);
    // The level and nothing of the PIN itself.
    QCOMPARE(g_messages, QStringList({"return level= 4", "return level= 0"}));
}

void TestIsValidPIN::testShortBoundsWalks_data()
{
    QTest::addColumn<QString>("pin");
    QTest::addColumn<int>("level");

    // Bounds 1 to 16, so short strings reach the pattern checks.
    QTest::newRow("qwe1 is no walk") << "qwe1" << 4;
    QTest::newRow("qwe") << "qwe" << 2;
    QTest::newRow("=\\q continues") << "=\\q" << 2;
    QTest::newRow("[]a continues") << "[]a" << 2;
    QTest::newRow("'z continues") << "'z" << 2;
    QTest::newRow("'x does not") << "'x" << 4;
    QTest::newRow("slash then comma") << "/," << 3;
    QTest::newRow("slash then dot is a run") << "/." << 2;
    QTest::newRow("question then bang") << "?!" << 3;
    QTest::newRow("digit to its shift") << "1!" << 4;
    QTest::newRow("single character") << "a" << 2;
    QTest::newRow("two equal") << "zz" << 2;
    QTest::newRow("pair ascending") << "ac" << 3;
}

void TestIsValidPIN::testShortBoundsWalks()
{
    QFETCH(QString, pin);
    QFETCH(int, level);
    FakeUiStatus status(1, 16);
    PINDialog dlg(PINDialog::FullKeyBoard, false, 0, &status, 1.0f);
    QCOMPARE(dlg.IsValidPIN(pin), level);
}

void TestIsValidPIN::testIsAllInputValid_data()
{
    QTest::addColumn<ulong>("type");
    QTest::addColumn<QString>("oldPin");
    QTest::addColumn<QString>("newPin");
    QTest::addColumn<QString>("confirmPin");
    QTest::addColumn<bool>("valid");

    // Old PINs are checked for length only.
    QTest::newRow("verify repeated") << 0ul << "111111"
                                     << ""
                                     << "" << true;
    QTest::newRow("verify short") << 0ul << "12345"
                                  << ""
                                  << "" << false;
    QTest::newRow("so verify") << 1ul << "abcdef"
                               << ""
                               << "" << true;
    QTest::newRow("unblock short") << 4ul << "a"
                                   << ""
                                   << "" << false;
    QTest::newRow("change ok") << 2ul << "111111"
                               << "a1b2c3"
                               << "a1b2c3" << true;
    QTest::newRow("change weak") << 2ul << "111111"
                                 << "banana"
                                 << "banana" << false;
    QTest::newRow("change mismatch") << 3ul << "111111"
                                     << "a1b2c3"
                                     << "a1b2c4" << false;
    QTest::newRow("change case") << 3ul << "111111"
                                 << "a1b2c3"
                                 << "A1B2C3" << false;
    QTest::newRow("change short old") << 2ul << "1111"
                                      << "a1b2c3"
                                      << "a1b2c3" << false;
    QTest::newRow("set ok") << 5ul << ""
                            << "aB3xY9"
                            << "aB3xY9" << true;
    QTest::newRow("set forbidden") << 5ul << ""
                                   << "qwerty"
                                   << "qwerty" << false;
    QTest::newRow("unknown type") << 6ul << "a1b2c3"
                                  << "a1b2c3"
                                  << "a1b2c3" << false;
    QTest::newRow("unknown large type") << 0xFFFFul << "a1b2c3"
                                        << "a1b2c3"
                                        << "a1b2c3" << false;
}

void TestIsValidPIN::testIsAllInputValid()
{
    QFETCH(ulong, type);
    QFETCH(QString, oldPin);
    QFETCH(QString, newPin);
    QFETCH(QString, confirmPin);
    QFETCH(bool, valid);
    FakeUiStatus status(6, 16);
    PINDialog dlg(PINDialog::FullKeyBoard, false, type, &status, 1.0f);
    dlg.findChild<QLineEdit *>("lineEdit_oldPin")->setText(oldPin);
    dlg.findChild<QLineEdit *>("lineEdit_newPin")->setText(newPin);
    dlg.findChild<QLineEdit *>("lineEdit_confirmPin")->setText(confirmPin);
    QCOMPARE(dlg.IsAllInputValid(), valid);
    QCOMPARE(status.pinReports.load(), 0);
}

QTEST_MAIN(TestIsValidPIN)
#include "TestIsValidPIN.moc"
