#include "CertListDialog.h"

#include "FakeUiStatus.h"

#include <QApplication>
#include <QComboBox>
#include <QDesktopWidget>
#include <QDir>
#include <QLabel>
#include <QPointer>
#include <QPushButton>
#include <QWindow>
#include <QtTest>

namespace {

// Answers like the real coordinator: a final status hides and deletes the
// window inside the setter call.
class DeletingStatus : public FakeUiStatus
{
public:
    QPointer<CertListDialog> dialog;
    void SetListSelectStatus(int status, int index) override
    {
        FakeUiStatus::SetListSelectStatus(status, index);
        if ((status == 0 || status == 1) && dialog) {
            dialog->hide();
            delete dialog.data();
        }
    }
};

QStringList comboEntries(QWidget *dlg)
{
    auto *combo = dlg->findChild<QComboBox *>("comboBox_certlist");
    QStringList entries;
    for (int i = 0; i < combo->count(); ++i)
        entries << combo->itemText(i);
    return entries;
}

QString outputDir()
{
    QString dir = qEnvironmentVariable("ZRUI_TEST_OUTPUT");
    if (dir.isEmpty())
        dir = QDir::currentPath() + "/test-output";
    QDir().mkpath(dir);
    return dir;
}

} // namespace

class TestCertListDialog : public QObject
{
    Q_OBJECT

private slots:
    void testSplitting_data();
    void testSplitting();
    void testLogLine();
    void testButtons_data();
    void testButtons();
    void testEmptyListOk();
    void testReportWithDeletingCoordinator();
    void testFormTexts();
    void testWindowSetupAndScale();
    void testWindowManagerClose();
    void testCoordinatorHideReportsNothing();
    void testScreenshot();
};

void TestCertListDialog::testSplitting_data()
{
    QTest::addColumn<QString>("list");
    QTest::addColumn<QStringList>("entries");

    QTest::newRow("ends trimmed") << "\nA\nB\n" << QStringList{"A", "B"};
    QTest::newRow("blank line kept") << "A\n\nB" << QStringList{"A", "", "B"};
    QTest::newRow("empty text") << "" << QStringList{""};
    QTest::newRow("only white space") << " \n\t " << QStringList{""};
    QTest::newRow("entries not trimmed") << "  A \n B  " << QStringList{"A ", " B"};
    QTest::newRow("carriage return stays") << "A\r\nB\r\n" << QStringList{"A\r", "B"};
    QTest::newRow("single") << "RSA-container" << QStringList{"RSA-container"};
    QTest::newRow("three, two blank") << "x\n\n\ny" << QStringList{"x", "", "", "y"};
}

void TestCertListDialog::testSplitting()
{
    QFETCH(QString, list);
    QFETCH(QStringList, entries);

    FakeUiStatus status;
    CertListDialog dlg(list, &status, 1.0f);
    QCOMPARE(comboEntries(&dlg), entries);
    QCOMPARE(dlg.findChild<QComboBox *>("comboBox_certlist")->currentIndex(), 0);
}

void TestCertListDialog::testLogLine()
{
    FakeUiStatus status;
    QTest::ignoreMessage(QtDebugMsg, "CertListDialog: (\"A\", \"\", \"B\")");
    CertListDialog dlg("\nA\n\nB\n", &status, 1.0f);
    QCOMPARE(comboEntries(&dlg).size(), 3);
}

void TestCertListDialog::testButtons_data()
{
    QTest::addColumn<QString>("buttonName");
    QTest::addColumn<int>("row");
    QTest::addColumn<int>("expectedStatus");

    QTest::newRow("OK first") << "pushButton_OK" << 0 << 1;
    QTest::newRow("OK third") << "pushButton_OK" << 2 << 1;
    QTest::newRow("OK last") << "pushButton_OK" << 3 << 1;
    QTest::newRow("Cancel third") << "pushButton_Cancel" << 2 << 0;
    QTest::newRow("Cancel first") << "pushButton_Cancel" << 0 << 0;
}

void TestCertListDialog::testButtons()
{
    QFETCH(QString, buttonName);
    QFETCH(int, row);
    QFETCH(int, expectedStatus);

    FakeUiStatus status;
    QSignalSpy spy(&status, &FakeUiStatus::listStatusSet);
    CertListDialog dlg("one\ntwo\nthree\nfour", &status, 1.0f);
    dlg.show();
    QVERIFY(QTest::qWaitForWindowExposed(&dlg));

    // Move with the keyboard, as a user would.
    auto *combo = dlg.findChild<QComboBox *>("comboBox_certlist");
    combo->setFocus();
    for (int i = 0; i < row; ++i)
        QTest::keyClick(combo, Qt::Key_Down);
    QCOMPARE(combo->currentIndex(), row);

    QTest::mouseClick(dlg.findChild<QPushButton *>(buttonName), Qt::LeftButton);
    QCOMPARE(spy.count(), 1);
    QCOMPARE(spy.at(0).at(0).toInt(), expectedStatus);
    QCOMPARE(spy.at(0).at(1).toInt(), row);

    // Answered already: a later window-manager close adds nothing.
    dlg.windowHandle()->close();
    QTest::qWait(50);
    QCOMPARE(status.listReports.load(), 1);
}

void TestCertListDialog::testEmptyListOk()
{
    FakeUiStatus status;
    CertListDialog dlg("", &status, 1.0f);
    dlg.show();
    QVERIFY(QTest::qWaitForWindowExposed(&dlg));
    QTest::mouseClick(dlg.findChild<QPushButton *>("pushButton_OK"), Qt::LeftButton);
    QCOMPARE(status.listReports.load(), 1);
    QCOMPARE(status.listStatusValue(), 1);
    QCOMPARE(status.listIndexValue(), 0);
}

void TestCertListDialog::testReportWithDeletingCoordinator()
{
    DeletingStatus status;
    auto *dlg = new CertListDialog("A\nB", &status, 1.0f);
    status.dialog = dlg;
    dlg->show();
    QVERIFY(QTest::qWaitForWindowExposed(dlg));
    dlg->findChild<QComboBox *>("comboBox_certlist")->setCurrentIndex(1);

    QTest::mouseClick(dlg->findChild<QPushButton *>("pushButton_OK"), Qt::LeftButton);
    QVERIFY(status.dialog.isNull());
    QCOMPARE(status.listStatusValue(), 1);
    QCOMPARE(status.listIndexValue(), 1);
}

void TestCertListDialog::testFormTexts()
{
    FakeUiStatus status;
    CertListDialog dlg("A", &status, 1.0f);
    auto *label = dlg.findChild<QLabel *>("label");
    QCOMPARE(label->text(), QStringLiteral("Please select the container to be overlapped:"));
    QCOMPARE(label->alignment(), Qt::AlignCenter);
    auto *nameLabel = dlg.findChild<QLabel *>("label_certlist");
    QCOMPARE(nameLabel->text(), QStringLiteral("Container name:"));
    QCOMPARE(nameLabel->minimumSize(), QSize(120, 30));
    QCOMPARE(dlg.findChild<QComboBox *>("comboBox_certlist")->minimumHeight(), 30);
    QCOMPARE(dlg.findChild<QPushButton *>("pushButton_OK")->text(), QStringLiteral("OK"));
    QCOMPARE(dlg.findChild<QPushButton *>("pushButton_Cancel")->text(), QStringLiteral("Cancel"));
    QVERIFY(dlg.findChild<QPushButton *>("pushButton_OK")->minimumHeight() >= 30);
    QVERIFY(dlg.findChild<QPushButton *>("pushButton_Cancel")->minimumHeight() >= 30);
}

void TestCertListDialog::testWindowSetupAndScale()
{
    FakeUiStatus status;
    CertListDialog base("A\nB", &status, 1.0f);
    CertListDialog scaled("A\nB", &status, 1.5f);

    // Set as minimise + stay-on-top only, without the customise hint: Qt then
    // adds the title and system-menu hints, and nothing else (no close or
    // maximise button hint, no dialog or tool type).
    QCOMPARE(scaled.windowFlags(), Qt::Window | Qt::WindowTitleHint | Qt::WindowSystemMenuHint
                                           | Qt::WindowMinimizeButtonHint
                                           | Qt::WindowStaysOnTopHint);
    QVERIFY(scaled.testAttribute(Qt::WA_ShowModal));
    // No icon of its own (the application has none in this test either).
    QVERIFY(scaled.windowIcon().isNull());

    const QSize adjusted = base.size();
    const QSize expected(qRound(adjusted.width() * 1.5), qRound(adjusted.height() * 1.5));
    QCOMPARE(scaled.size(), expected);
    QCOMPARE(scaled.minimumSize(), expected);
    QCOMPARE(scaled.maximumSize(), expected);
    const QDesktopWidget *desktop = QApplication::desktop();
    QCOMPARE(scaled.pos(), QPoint((desktop->width() - expected.width()) / 2,
                                  (desktop->height() - expected.height()) / 2));

    scaled.show();
    QVERIFY(QTest::qWaitForWindowExposed(&scaled));
    QCoreApplication::processEvents();
    QCOMPARE(scaled.size(), expected);
}

void TestCertListDialog::testWindowManagerClose()
{
    FakeUiStatus status;
    CertListDialog dlg("A\nB\nC", &status, 1.0f);
    dlg.show();
    QVERIFY(QTest::qWaitForWindowExposed(&dlg));
    dlg.findChild<QComboBox *>("comboBox_certlist")->setCurrentIndex(2);

    QVERIFY(dlg.windowHandle()->close());
    QTRY_COMPARE(status.listReports.load(), 1);
    QCOMPARE(status.listStatusValue(), 0);
    QCOMPARE(status.listIndexValue(), 2);
    QVERIFY(!dlg.isVisible());

    dlg.show();
    QVERIFY(QTest::qWaitForWindowExposed(&dlg));
    dlg.windowHandle()->close();
    QTest::qWait(100);
    QCOMPARE(status.listReports.load(), 1);

    // With the real coordinator's habit of deleting inside the setter.
    DeletingStatus deleting;
    auto *second = new CertListDialog("A\nB", &deleting, 1.0f);
    deleting.dialog = second;
    second->show();
    QVERIFY(QTest::qWaitForWindowExposed(second));
    second->windowHandle()->close();
    QTRY_VERIFY(deleting.dialog.isNull());
    QCOMPARE(deleting.listReports.load(), 1);
    QCOMPARE(deleting.listStatusValue(), 0);
    QCOMPARE(deleting.listIndexValue(), 0);
}

void TestCertListDialog::testCoordinatorHideReportsNothing()
{
    FakeUiStatus status;
    auto *dlg = new CertListDialog("A", &status, 1.0f);
    dlg->show();
    QVERIFY(QTest::qWaitForWindowExposed(dlg));
    dlg->hide();
    delete dlg;
    QTest::qWait(100);
    QCOMPARE(status.listReports.load(), 0);
    QCOMPARE(status.listStatusValue(), -1);
}

void TestCertListDialog::testScreenshot()
{
    FakeUiStatus status;
    CertListDialog dlg("ContainerRSA\nContainerSM2\n\nSign-2024", &status, 1.0f);
    dlg.show();
    QVERIFY(QTest::qWaitForWindowExposed(&dlg));
    const QPixmap pixmap = dlg.grab();
    QCOMPARE(pixmap.size(), dlg.size());
    QVERIFY(pixmap.save(outputDir() + "/certlist.png"));
}

QTEST_MAIN(TestCertListDialog)
#include "TestCertListDialog.moc"
