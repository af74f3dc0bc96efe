// Keyboard use of the dialogs as a desktop user expects it: Escape, Return,
// accelerators, the focus ring and the Tab order, on real widgets reporting
// to the scripted status handler.
#include "FakeUiStatus.h"
#include "ui/CertListDialog.h"
#include "ui/MessageDialog.h"
#include "ui/PINDialog.h"

#include <QAbstractButton>
#include <QApplication>
#include <QtTest>

#include <memory>

namespace {
enum Kind { OkBox, RetryBox, List, PinVerify };
enum Answer { MsgAnswer, ListAnswer, PinAnswer };

std::unique_ptr<QWidget> makeDialog(int kind, FakeUiStatus *status)
{
    switch (kind) {
    case OkBox:
        return std::make_unique<MessageDialog>("Title", "Text", 0, status, 1.0f);
    case RetryBox:
        return std::make_unique<MessageDialog>("Title", "Text", 5, status, 1.0f);
    case List:
        return std::make_unique<CertListDialog>("first\nsecond", status, 1.0f);
    default:
        return std::make_unique<PINDialog>(PINDialog::SimpleKeyBoard, false, 0, status, 1.0f);
    }
}

// The answer the handler was given, or -9 while none: message, list or PIN status.
int reported(FakeUiStatus &status, int answer)
{
    switch (answer) {
    case MsgAnswer:
        return status.msgReports ? status.GetMsgStatus() : -9;
    case ListAnswer:
        return status.listReports ? status.listStatusValue() : -9;
    default:
        return status.pinReports ? status.pinStatusValue() : -9;
    }
}

bool showActive(QWidget *w)
{
    w->show();
    QApplication::setActiveWindow(w);
    return QTest::qWaitForWindowActive(w);
}
} // namespace

class TestDialogKeys : public QObject
{
    Q_OBJECT

private slots:
    void testKeysAnswer_data();
    void testKeysAnswer();
    void testFocusRingShownAtOnce_data();
    void testFocusRingShownAtOnce();
    void testTabOrder_data();
    void testTabOrder();
};

void TestDialogKeys::testKeysAnswer_data()
{
    QTest::addColumn<int>("kind");
    QTest::addColumn<QString>("focus"); // object name, "" = as the dialog opens
    QTest::addColumn<int>("key");
    QTest::addColumn<int>("modifiers");
    QTest::addColumn<int>("answer");
    QTest::addColumn<int>("expected");
    const int none = Qt::NoModifier;
    const int alt = Qt::AltModifier;
    QTest::newRow("OK box, Escape")
            << int(OkBox) << "" << int(Qt::Key_Escape) << none << int(MsgAnswer) << 1;
    QTest::newRow("OK box, Return")
            << int(OkBox) << "" << int(Qt::Key_Return) << none << int(MsgAnswer) << 1;
    QTest::newRow("OK box, Alt+O")
            << int(OkBox) << "" << int(Qt::Key_O) << alt << int(MsgAnswer) << 1;
    QTest::newRow("retry, Escape")
            << int(RetryBox) << "" << int(Qt::Key_Escape) << none << int(MsgAnswer) << 0;
    QTest::newRow("retry, Return")
            << int(RetryBox) << "" << int(Qt::Key_Return) << none << int(MsgAnswer) << 1;
    QTest::newRow("retry, Return on Cancel") << int(RetryBox) << "pushButton_Cancel"
                                             << int(Qt::Key_Enter) << none << int(MsgAnswer) << 0;
    QTest::newRow("retry, Alt+C") << int(RetryBox) << "" << int(Qt::Key_C) << alt << int(MsgAnswer)
                                  << 0;
    QTest::newRow("retry, Alt+R") << int(RetryBox) << "pushButton_Cancel" << int(Qt::Key_R) << alt
                                  << int(MsgAnswer) << 1;
    QTest::newRow("list, Escape") << int(List) << "" << int(Qt::Key_Escape) << none
                                  << int(ListAnswer) << 0;
    QTest::newRow("list, Return in the list")
            << int(List) << "comboBox_certlist" << int(Qt::Key_Return) << none << int(ListAnswer)
            << 1;
    QTest::newRow("list, Alt+C") << int(List) << "" << int(Qt::Key_C) << alt << int(ListAnswer)
                                 << 0;
    QTest::newRow("list, Alt+O") << int(List) << "" << int(Qt::Key_O) << alt << int(ListAnswer)
                                 << 1;
    QTest::newRow("PIN, Escape") << int(PinVerify) << "" << int(Qt::Key_Escape) << none
                                 << int(PinAnswer) << 0;
    QTest::newRow("PIN, Alt+C") << int(PinVerify) << "" << int(Qt::Key_C) << alt << int(PinAnswer)
                                << 0;
}

void TestDialogKeys::testKeysAnswer()
{
    QFETCH(int, kind);
    QFETCH(QString, focus);
    QFETCH(int, key);
    QFETCH(int, modifiers);
    QFETCH(int, answer);
    QFETCH(int, expected);
    FakeUiStatus status;
    std::unique_ptr<QWidget> dlg = makeDialog(kind, &status);
    QVERIFY(showActive(dlg.get()));
    if (!focus.isEmpty()) {
        auto *target = dlg->findChild<QWidget *>(focus);
        QVERIFY(target);
        target->setFocus(Qt::TabFocusReason);
        QTRY_COMPARE(QApplication::focusWidget(), target);
    }
    QWidget *receiver = QApplication::focusWidget() ? QApplication::focusWidget() : dlg.get();
    QTest::keyClick(receiver, Qt::Key(key), Qt::KeyboardModifiers(modifiers));
    QTRY_COMPARE(reported(status, answer), expected);
    // One answer, and the other kinds of answer untouched.
    QCOMPARE(status.msgReports + status.listReports + status.pinReports, 1);
}

void TestDialogKeys::testFocusRingShownAtOnce_data()
{
    QTest::addColumn<int>("kind");
    QTest::newRow("OK box") << int(OkBox);
    QTest::newRow("retry") << int(RetryBox);
    QTest::newRow("list") << int(List);
    QTest::newRow("PIN") << int(PinVerify);
}

void TestDialogKeys::testFocusRingShownAtOnce()
{
    QFETCH(int, kind);
    FakeUiStatus status;
    std::unique_ptr<QWidget> dlg = makeDialog(kind, &status);
    QVERIFY(!dlg->testAttribute(Qt::WA_KeyboardFocusChange));
    QVERIFY(showActive(dlg.get()));
    // Styles draw the focus frame only while this is set.
    QTRY_VERIFY(dlg->testAttribute(Qt::WA_KeyboardFocusChange));
    QVERIFY(QApplication::focusWidget());
}

void TestDialogKeys::testTabOrder_data()
{
    QTest::addColumn<int>("type");
    QTest::addColumn<QStringList>("order");
    const QStringList tail{"pushButton_OK", "pushButton_Cancel"};
    QTest::newRow("verify") << 0
                            << QStringList{"lineEdit_oldPin", "toolButtonold_softkeyboard"} + tail;
    QTest::newRow("change") << 2
                            << QStringList{"lineEdit_oldPin", "lineEdit_newPin",
                                           "lineEdit_confirmPin", "toolButtonnew_softkeyboard"}
                                       + tail;
    QTest::newRow("unblock") << 4
                             << QStringList{"lineEdit_oldPin", "toolButtonold_softkeyboard"} + tail;
    QTest::newRow("set") << 5
                         << QStringList{"lineEdit_newPin", "lineEdit_confirmPin",
                                        "toolButtonnew_softkeyboard"}
                                    + tail;
}

void TestDialogKeys::testTabOrder()
{
    QFETCH(int, type);
    QFETCH(QStringList, order);
    FakeUiStatus status;
    PINDialog dlg(PINDialog::SimpleKeyBoard, false, ulong(type), &status, 1.0f);
    QVERIFY(showActive(&dlg));
    auto *first = dlg.findChild<QWidget *>(order.first());
    first->setFocus(Qt::OtherFocusReason);
    QTRY_COMPARE(QApplication::focusWidget(), first);
    QStringList seen{QApplication::focusWidget()->objectName()};
    for (int i = 1; i < order.size(); ++i) {
        QTest::keyClick(QApplication::focusWidget(), Qt::Key_Tab);
        seen << QApplication::focusWidget()->objectName();
    }
    QCOMPARE(seen, order);
}

QTEST_MAIN(TestDialogKeys)
#include "TestDialogKeys.moc"
