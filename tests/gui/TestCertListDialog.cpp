#include "CertListDialog.h"

#include "FakeUiStatus.h"

#include <QApplication>
#include <QComboBox>
#include <QDesktopWidget>
#include <QLabel>
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

    QCOMPARE(scaled.findChild<QLabel *>("label")->text(),
             QStringLiteral("Please select the container to be overlapped:"));
    QCOMPARE(scaled.findChild<QLabel *>("label_certlist")->text(),
             QStringLiteral("Container name:"));
    // Minimise + stay-on-top without the customise hint: Qt adds title and system menu only.
    QCOMPARE(scaled.windowFlags(), Qt::Window | Qt::WindowTitleHint | Qt::WindowSystemMenuHint
                                           | Qt::WindowMinimizeButtonHint
                                           | Qt::WindowStaysOnTopHint);
    QVERIFY(scaled.testAttribute(Qt::WA_ShowModal));
    QVERIFY(scaled.windowIcon().isNull());

    const QSize adjusted = base.size();
    // Only the part of the scale the fonts (at the screen's dpi) did not apply.
    const qreal rest = qMax(1.0, 1.5 / (scaled.logicalDpiX() / 96.0));
    const QSize expected(qRound(adjusted.width() * rest), qRound(adjusted.height() * rest));
    QCOMPARE(scaled.size(), expected);
    QCOMPARE(scaled.minimumSize(), expected);
    QCOMPARE(scaled.maximumSize(), expected);
    const QDesktopWidget *desktop = QApplication::desktop();
    QCOMPARE(scaled.pos(), QPoint((desktop->width() - expected.width()) / 2,
                                  (desktop->height() - expected.height()) / 2));
    QVERIFY(showAndWait(&scaled));
    QCoreApplication::processEvents();
    QCOMPARE(scaled.size(), expected);
}

void TestCertListDialog::testWindowManagerClose()
{
    FakeUiStatus status;
    CertListDialog dlg("A\nB\nC", &status, 1.0f);
    QVERIFY(showAndWait(&dlg));
    combo(&dlg)->setCurrentIndex(2);

    QVERIFY(dlg.windowHandle()->close());
    QTRY_COMPARE(status.listReports.load(), 1);
    QCOMPARE(status.listStatusValue(), 0);
    QCOMPARE(status.listIndexValue(), 2);
    QVERIFY(!dlg.isVisible());

    QVERIFY(showAndWait(&dlg));
    dlg.windowHandle()->close();
    QTest::qWait(100);
    QCOMPARE(status.listReports.load(), 1);
}

void TestCertListDialog::testCoordinatorHideReportsNothing()
{
    FakeUiStatus status;
    auto *dlg = new CertListDialog("A", &status, 1.0f);
    QVERIFY(showAndWait(dlg));
    dlg->hide();
    delete dlg;
    QTest::qWait(100);
    QCOMPARE(status.listReports.load(), 0);
    QCOMPARE(status.listStatusValue(), -1);
}

QTEST_MAIN(TestCertListDialog)
#include "TestCertListDialog.moc"
