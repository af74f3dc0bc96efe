#include "ui/PINDialog.h"

#include "FakeUiStatus.h"

#include <QLabel>
#include <QLineEdit>
#include <QtTest>

/**
 * The PIN strength rules (length bound, repetition, straight runs, keyboard
 * walks along the two fixed rows, character classes), the verdict shown while
 * the new PIN is typed, and the per-mode acceptance of IsAllInputValid.
 */
class TestIsValidPIN : public QObject
{
    Q_OBJECT

private slots:
    void testLevel_data();
    void testLevel();
    void testIsAllInputValid_data();
    void testIsAllInputValid();
};

void TestIsValidPIN::testLevel_data()
{
    QTest::addColumn<int>("minLength");
    QTest::addColumn<QString>("pin");
    QTest::addColumn<int>("level");

    struct Row
    {
        int min;
        const char *pin;
        int level;
    };
    static const Row rows[] = {
            {6, "111111", 2},
            {6, "123456", 2},
            {6, "654321", 2},
            {6, "fedcba", 2},
            {6, "abcdef", 2},
            {6, "qwerty", 2},
            {6, "QWERTY", 2},
            {6, "zxcvbn", 2},
            {6, "1234567890-=", 2},
            {6, "90-=\\qwe", 2},
            {6, "op[]asd", 2},
            {6, "kl;'zxc", 2},
            {6, "JKL:\"ZXC", 2},
            {6, "!@#$%^&*()_+|", 2},
            {6, " qwert", 2},
            {6, "\xE4\xB8\xADqwert", 2},
            {6, "qwe\xE4\xB8\xADrt", 4},
            {6, "789:;<", 2},
            {6, "qw ert", 4},
            {6, "qwerty!", 4},
            {6, "m,./!@", 4},
            {6, "zxcvbnm,./", 2},
            {6, "m,./z1", 5},
            {6, "890123", 3},
            {6, "banana", 3},
            {6, "BANANA", 3},
            {6, "#!#!#!", 3},
            {6, "a1b2c3", 4},
            {6, "aB3xY9", 5},
            {6, "aB3#Y9", 5},
            {6, "12345", 0},
            {6, "aB3#Y", 0},
            {6, "", 0},
            {6, "aaaaaaaaaaaaaaaa", 2},
            // With a lower bound of 1 short strings reach the pattern checks.
            {1, "qwe1", 4},
            {1, "qwe", 2},
            {1, "=\\q", 2},
            {1, "[]a", 2},
            {1, "'z", 2},
            {1, "'x", 4},
            {1, "/,", 3},
            {1, "/.", 2},
            {1, "?!", 3},
            {1, "1!", 4},
            {1, "a", 2},
            {1, "zz", 2},
            {1, "ac", 3},
    };
    for (const Row &r : rows)
        QTest::addRow("%d: '%s'", r.min, r.pin) << r.min << QString::fromUtf8(r.pin) << r.level;
}

void TestIsValidPIN::testLevel()
{
    QFETCH(int, minLength);
    QFETCH(QString, pin);
    QFETCH(int, level);
    FakeUiStatus status(minLength, 16);
    PINDialog dlg(PINDialog::FullKeyBoard, false, 2, &status, 1.0f);
    QCOMPARE(dlg.IsValidPIN(pin), level);
    if (pin.isEmpty())
        return; // Setting an empty field changes nothing to show.

    // The verdict shown under the new PIN; the confirm field shows none.
    auto *comments = dlg.findChild<QLabel *>("label_comments");
    dlg.findChild<QLineEdit *>("lineEdit_newPin")->setText(pin);
    const char *verdicts[] = {"Pin:Weak", "Pin:Normal", "Pin:High"};
    QCOMPARE(comments->text(),
             level < 3 ? QString("The password must be %1-16 characters").arg(minLength)
                       : QString(verdicts[level - 3]));
    comments->clear();
    dlg.findChild<QLineEdit *>("lineEdit_confirmPin")->setText(pin);
    QCOMPARE(comments->text(), QString());
    QCOMPARE(status.pinReports.load(), 0);
}

void TestIsValidPIN::testIsAllInputValid_data()
{
    QTest::addColumn<ulong>("type");
    QTest::addColumn<QString>("oldPin");
    QTest::addColumn<QString>("newPin");
    QTest::addColumn<QString>("confirmPin");
    QTest::addColumn<bool>("valid");

    struct Row
    {
        const char *name;
        ulong type;
        const char *oldPin, *newPin, *confirmPin;
        bool valid;
    };
    // Old PINs are checked for length only.
    static const Row rows[] = {
            {"verify repeated", 0, "111111", "", "", true},
            {"verify short", 0, "12345", "", "", false},
            {"so verify", 1, "abcdef", "", "", true},
            {"unblock short", 4, "a", "", "", false},
            {"change ok", 2, "111111", "a1b2c3", "a1b2c3", true},
            {"change weak", 2, "111111", "banana", "banana", false},
            {"so change mismatch", 3, "111111", "a1b2c3", "a1b2c4", false},
            {"so change case", 3, "111111", "a1b2c3", "A1B2C3", false},
            {"change short old", 2, "1111", "a1b2c3", "a1b2c3", false},
            {"set ok", 5, "", "aB3xY9", "aB3xY9", true},
            {"set forbidden", 5, "", "qwerty", "qwerty", false},
            {"unknown type", 6, "a1b2c3", "a1b2c3", "a1b2c3", false},
            {"unknown large type", 0xFFFF, "a1b2c3", "a1b2c3", "a1b2c3", false},
    };
    for (const Row &r : rows)
        QTest::newRow(r.name) << r.type << r.oldPin << r.newPin << r.confirmPin << r.valid;
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
