#include "ui/CertListDialog.h"

#include "DialogChecks.h"
#include "FakeUiStatus.h"

#include <QComboBox>
#include <QPushButton>
#include <QWindow>
#include <QtTest>

namespace {

QComboBox *combo(QWidget *dlg) { return dlg->findChild<QComboBox *>("comboBox_certlist"); }

QStringList comboEntries(QWidget *dlg)
{
    QStringList entries;
    for (int i = 0; i < combo(dlg)->count(); ++i)
        entries << combo(dlg)->itemText(i);
    return entries;
}

bool showAndWait(QWidget *dlg)
{
    dlg->show();
    return QTest::qWaitForWindowExposed(dlg);
}

} // namespace

class TestCertListDialog : public QObject
{
    Q_OBJECT

private slots:
    void testSplitting_data();
    void testSplitting();
    void testButtons_data();
    void testButtons();
    void testWindowSetupAndScale();
    void testWindowManagerClose();
    void testCoordinatorHideReportsNothing();
};

void TestCertListDialog::testSplitting_data()
{
    QTest::addColumn<QString>("list");
    QTest::addColumn<QStringList>("entries");

    QTest::newRow("ends trimmed") << "\nA\nB\n" << QStringList{"A", "B"};
    QTest::newRow("blank line kept") << "A\n\nB" << QStringList{"A", "", "B"};
    QTest::newRow("empty text") << "" << QStringList{""};
    QTest::newRow("entries not trimmed") << "  A \n B  " << QStringList{"A ", " B"};
}

void TestCertListDialog::testSplitting()
{
    QFETCH(QString, list);
    QFETCH(QStringList, entries);

    FakeUiStatus status;
    CertListDialog dlg(list, &status, 1.0f);
    QCOMPARE(comboEntries(&dlg), entries);
    QCOMPARE(combo(&dlg)->currentIndex(), 0);
}

void TestCertListDialog::testButtons_data()
{
    QTest::addColumn<QString>("list");
    QTest::addColumn<QString>("buttonName");
    QTest::addColumn<int>("row");
    QTest::addColumn<int>("expectedStatus");

    const QString four = "one\ntwo\nthree\nfour";
    QTest::newRow("OK first") << four << "pushButton_OK" << 0 << 1;
    QTest::newRow("OK last") << four << "pushButton_OK" << 3 << 1;
    QTest::newRow("Cancel third") << four << "pushButton_Cancel" << 2 << 0;
    QTest::newRow("OK on the empty list") << ""
                                          << "pushButton_OK" << 0 << 1;
}

void TestCertListDialog::testButtons()
{
    QFETCH(QString, list);
    QFETCH(QString, buttonName);
    QFETCH(int, row);
    QFETCH(int, expectedStatus);

    FakeUiStatus status;
    CertListDialog dlg(list, &status, 1.0f);
    QVERIFY(showAndWait(&dlg));
    // Move with the keyboard, as a user would.
    combo(&dlg)->setFocus();
    for (int i = 0; i < row; ++i)
        QTest::keyClick(combo(&dlg), Qt::Key_Down);
    QCOMPARE(combo(&dlg)->currentIndex(), row);

    QTest::mouseClick(dlg.findChild<QPushButton *>(buttonName), Qt::LeftButton);
    QCOMPARE(status.listReports.load(), 1);
    QCOMPARE(status.listStatusValue(), expectedStatus);
    QCOMPARE(status.listIndexValue(), row);
}

void TestCertListDialog::testWindowSetupAndScale()
{
    FakeUiStatus status;
    CertListDialog base("A\nB", &status, 1.0f);
    CertListDialog scaled("A\nB", &status, 1.5f);
    verifyScaledWindow(base, scaled, 1.5, false);
}

void TestCertListDialog::testWindowManagerClose()
{
    FakeUiStatus status;
    CertListDialog dlg("A\nB\nC", &status, 1.0f);
    QVERIFY(showAndWait(&dlg));
    combo(&dlg)->setCurrentIndex(2);

    QVERIFY(dlg.windowHandle()->close());
    dlg.close(); // again before the posted answer ran: still one answer
    QTRY_COMPARE(status.listReports.load(), 1);
    QCOMPARE(status.listStatusValue(), 0);
    QCOMPARE(status.listIndexValue(), 2);
    QVERIFY(!dlg.isVisible());

    QVERIFY(showAndWait(&dlg));
    dlg.windowHandle()->close();
    drainEvents();
    QCOMPARE(status.listReports.load(), 1);
}

void TestCertListDialog::testCoordinatorHideReportsNothing()
{
    FakeUiStatus status;
    auto *dlg = new CertListDialog("A", &status, 1.0f);
    QVERIFY(showAndWait(dlg));
    dlg->hide();
    delete dlg;
    drainEvents();
    QCOMPARE(status.listReports.load(), 0);
    QCOMPARE(status.listStatusValue(), -1);
}

QTEST_MAIN(TestCertListDialog)
#include "TestCertListDialog.moc"
