// What assistive technologies are told about the dialogs (through Qt's
// accessibility interfaces, the layer AT-SPI reads): roles, names, password
// fields, announced errors, and never the typed PIN.
#include "FakeUiStatus.h"
#include "ui/CertListDialog.h"
#include "ui/MessageDialog.h"
#include "ui/PINDialog.h"
#include "ui/WaitingDialog.h"

#include <QAccessible>
#include <QLabel>
#include <QLineEdit>
#include <QPushButton>
#include <QtTest>

#include <memory>

namespace {
// Every text of the interface and its descendants, one per line.
QStringList allTexts(QAccessibleInterface *iface)
{
    QStringList texts;
    if (!iface)
        return texts;
    for (QAccessible::Text t :
         {QAccessible::Name, QAccessible::Description, QAccessible::Value, QAccessible::Help})
        texts << iface->text(t);
    if (QAccessibleTextInterface *text = iface->textInterface())
        texts << text->text(0, text->characterCount());
    for (int i = 0; i < iface->childCount(); ++i)
        texts << allTexts(iface->child(i));
    return texts;
}
} // namespace

class TestDialogAccessibility : public QObject
{
    Q_OBJECT

private slots:
    void testWindowRoleAndName_data();
    void testWindowRoleAndName();
    void testPinFields_data();
    void testPinFields();
};

void TestDialogAccessibility::testWindowRoleAndName_data()
{
    QTest::addColumn<int>("kind");
    QTest::addColumn<int>("role");
    QTest::newRow("message") << 0 << int(QAccessible::AlertMessage);
    QTest::newRow("list") << 1 << int(QAccessible::Dialog);
    QTest::newRow("waiting") << 2 << int(QAccessible::Dialog);
    QTest::newRow("PIN") << 3 << int(QAccessible::Dialog);
}

void TestDialogAccessibility::testWindowRoleAndName()
{
    QFETCH(int, kind);
    QFETCH(int, role);
    FakeUiStatus status;
    std::unique_ptr<QWidget> dlg;
    if (kind == 0)
        dlg.reset(new MessageDialog("Title_Warning", "PIN_Locked", 0, &status, 1.0f));
    else if (kind == 1)
        dlg.reset(new CertListDialog("first\nsecond", &status, 1.0f));
    else if (kind == 2)
        dlg.reset(new WaitingDialog("1=30", 2, 0, QString(), 1.0f));
    else
        dlg.reset(new PINDialog(PINDialog::SimpleKeyBoard, false, 0, &status, 1.0f));
    QAccessibleInterface *iface = QAccessible::queryAccessibleInterface(dlg.get());
    QVERIFY(iface);
    QCOMPARE(int(iface->role()), role);
    QVERIFY(!dlg->windowTitle().isEmpty());
    QCOMPARE(iface->text(QAccessible::Name), dlg->windowTitle());
}

void TestDialogAccessibility::testPinFields_data()
{
    QTest::addColumn<int>("type");
    QTest::addColumn<QStringList>("fields");
    QTest::newRow("verify") << 0 << QStringList{"lineEdit_oldPin"};
    QTest::newRow("change") << 2
                            << QStringList{"lineEdit_oldPin", "lineEdit_newPin",
                                           "lineEdit_confirmPin"};
    QTest::newRow("set") << 5 << QStringList{"lineEdit_newPin", "lineEdit_confirmPin"};
}

void TestDialogAccessibility::testPinFields()
{
    QFETCH(int, type);
    QFETCH(QStringList, fields);
    FakeUiStatus status;
    PINDialog dlg(PINDialog::SimpleKeyBoard, false, ulong(type), &status, 1.0f);
    dlg.show();
    QVERIFY(QTest::qWaitForWindowExposed(&dlg));
    const QString pin = QStringLiteral("Zq8Wm3");
    for (const QString &name : fields) {
        auto *edit = dlg.findChild<QLineEdit *>(name);
        QAccessibleInterface *iface = QAccessible::queryAccessibleInterface(edit);
        QVERIFY(iface);
        QCOMPARE(iface->role(), QAccessible::EditableText);
        QVERIFY(iface->state().passwordEdit);
        // Named by the label in front of it.
        const QString label = iface->text(QAccessible::Name);
        QVERIFY2(!label.isEmpty(), qPrintable(name));
        QString labelName = name;
        labelName.replace("lineEdit_", "label_");
        QCOMPARE(label, dlg.findChild<QLabel *>(labelName)->text());
        edit->setFocus();
        QTest::keyClicks(edit, pin);
        QCOMPARE(edit->text(), pin);
    }
    // A refused PIN: the reason is announced as the fields' description.
    dlg.findChild<QLineEdit *>(fields.last())->setText("x");
    dlg.findChild<QPushButton *>("pushButton_OK")->click();
    const QString comment = dlg.findChild<QLabel *>("label_comments")->text();
    QVERIFY(!comment.isEmpty());
    QAccessibleInterface *field
            = QAccessible::queryAccessibleInterface(dlg.findChild<QLineEdit *>(fields.first()));
    QCOMPARE(field->text(QAccessible::Description), comment);

    // Type the PIN again everywhere; no accessible text may carry it.
    for (const QString &name : fields)
        dlg.findChild<QLineEdit *>(name)->setText(pin);
    const QString everything = allTexts(QAccessible::queryAccessibleInterface(&dlg)).join('\n');
    QVERIFY(!everything.isEmpty());
    QVERIFY2(!everything.contains(pin), qPrintable(everything));
    QVERIFY(!everything.contains(pin.left(3)));
}

QTEST_MAIN(TestDialogAccessibility)
#include "TestDialogAccessibility.moc"
