#include "MessageDialog.h"

#include "FakeUiStatus.h"

#include <QApplication>
#include <QDesktopWidget>
#include <QDir>
#include <QIcon>
#include <QLabel>
#include <QPointer>
#include <QPushButton>
#include <QTranslator>
#include <QWindow>
#include <QtTest>

namespace {

// Marks every text of the message dialog's context, so a test sees which
// texts went through tr() and which were shown as given.
class MarkingTranslator : public QTranslator
{
public:
    bool isEmpty() const override { return false; }
    QString translate(const char *context, const char *sourceText, const char * = nullptr,
                      int = -1) const override
    {
        if (qstrcmp(context, "MessageDialog") == 0)
            return QStringLiteral("T<") + QString::fromUtf8(sourceText) + QStringLiteral(">");
        return QString();
    }
};

// Answers like the real coordinator: a final status hides and deletes the box
// inside the setter call.
class DeletingStatus : public FakeUiStatus
{
public:
    QPointer<MessageDialog> dialog;
    void SetMsgStatus(int status) override
    {
        FakeUiStatus::SetMsgStatus(status);
        if ((status == 0 || status == 1) && dialog) {
            dialog->hide();
            delete dialog.data();
        }
    }
};

QPushButton *button(QWidget *dlg, const char *name)
{
    return dlg->findChild<QPushButton *>(QString::fromLatin1(name));
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

class TestMessageDialog : public QObject
{
    Q_OBJECT

private slots:
    void testTextLookup_data();
    void testTextLookup();
    void testButtonsByType_data();
    void testButtonsByType();
    void testButtonReports_data();
    void testButtonReports();
    void testReportWithDeletingCoordinator();
    void testScaleFixesSize();
    void testWindowSetup();
    void testWindowManagerClose_data();
    void testWindowManagerClose();
    void testCoordinatorHideReportsNothing();
    void testCloseThenDeleteDropsAnswer();
    void testScreenshots();
};

void TestMessageDialog::testTextLookup_data()
{
    QTest::addColumn<QString>("title");
    QTest::addColumn<QString>("message");
    QTest::addColumn<QString>("shownTitle");
    QTest::addColumn<QString>("shownMessage");

    QTest::newRow("locked") << "Title_Warning"
                            << "PIN_Locked"
                            << "T<Title_Warning>"
                            << "T<PIN_Locked>";
    QTest::newRow("space full") << "Title_Warning"
                                << "SPACE_FULL_Hint"
                                << "T<Title_Warning>"
                                << "T<SPACE_FULL_Hint>";
    QTest::newRow("free text") << "Verify PIN"
                               << "PIN is wrong, 3 attempts left"
                               << "Verify PIN"
                               << "PIN is wrong, 3 attempts left";
    QTest::newRow("key is case-sensitive") << "title_warning"
                                           << "pin_locked"
                                           << "title_warning"
                                           << "pin_locked";
    QTest::newRow("empty") << ""
                           << ""
                           << ""
                           << "";
}

void TestMessageDialog::testTextLookup()
{
    QFETCH(QString, title);
    QFETCH(QString, message);
    QFETCH(QString, shownTitle);
    QFETCH(QString, shownMessage);

    MarkingTranslator translator;
    QVERIFY(QCoreApplication::installTranslator(&translator));
    FakeUiStatus status;

    const QString logLine = QStringLiteral("MessageDialog: key= \"%1\" , value= \"%2\"")
                                    .arg(message, shownMessage);
    QTest::ignoreMessage(QtDebugMsg, logLine.toUtf8().constData());
    MessageDialog dlg(title, message, 0, &status, 1.0f);
    QCoreApplication::removeTranslator(&translator);

    QCOMPARE(dlg.windowTitle(), shownTitle);
    QCOMPARE(dlg.findChild<QLabel *>("label_message")->text(), shownMessage);
    // The form's own texts go through the same context.
    QCOMPARE(button(&dlg, "pushButton_OK")->text(), QStringLiteral("T<OK>"));
    QCOMPARE(button(&dlg, "pushButton_Retry")->text(), QStringLiteral("T<Retry>"));
    QCOMPARE(button(&dlg, "pushButton_Cancel")->text(), QStringLiteral("T<Cancel>"));
    QCOMPARE(status.msgReports.load(), 0);
}

void TestMessageDialog::testButtonsByType_data()
{
    QTest::addColumn<qulonglong>("type");
    QTest::addColumn<bool>("retryCancel");

    QTest::newRow("0") << qulonglong(0) << false;
    QTest::newRow("1") << qulonglong(1) << false;
    QTest::newRow("4") << qulonglong(4) << false;
    QTest::newRow("5") << qulonglong(5) << true;
    QTest::newRow("6") << qulonglong(6) << false;
    QTest::newRow("max") << qulonglong(0xFFFFFFFFul) << false;
}

void TestMessageDialog::testButtonsByType()
{
    QFETCH(qulonglong, type);
    QFETCH(bool, retryCancel);

    FakeUiStatus status;
    MessageDialog dlg("Title_Warning", "text", static_cast<unsigned long>(type), &status, 1.0f);
    dlg.show();
    QVERIFY(QTest::qWaitForWindowExposed(&dlg));

    QCOMPARE(button(&dlg, "pushButton_OK")->isVisible(), !retryCancel);
    QCOMPARE(button(&dlg, "pushButton_Retry")->isVisible(), retryCancel);
    QCOMPARE(button(&dlg, "pushButton_Cancel")->isVisible(), retryCancel);
    QCOMPARE(button(&dlg, "pushButton_Retry")->text(), QStringLiteral("Retry"));
    QCOMPARE(button(&dlg, "pushButton_OK")->text(), QStringLiteral("OK"));
    QCOMPARE(button(&dlg, "pushButton_Cancel")->text(), QStringLiteral("Cancel"));
}

void TestMessageDialog::testButtonReports_data()
{
    QTest::addColumn<qulonglong>("type");
    QTest::addColumn<QString>("buttonName");
    QTest::addColumn<int>("expected");

    QTest::newRow("OK") << qulonglong(0) << "pushButton_OK" << 1;
    QTest::newRow("Retry") << qulonglong(5) << "pushButton_Retry" << 1;
    QTest::newRow("Cancel") << qulonglong(5) << "pushButton_Cancel" << 0;
}

void TestMessageDialog::testButtonReports()
{
    QFETCH(qulonglong, type);
    QFETCH(QString, buttonName);
    QFETCH(int, expected);

    FakeUiStatus status;
    QSignalSpy spy(&status, &FakeUiStatus::msgStatusSet);
    MessageDialog dlg("t", "m", static_cast<unsigned long>(type), &status, 1.0f);
    dlg.show();
    QVERIFY(QTest::qWaitForWindowExposed(&dlg));

    QTest::mouseClick(button(&dlg, buttonName.toLatin1().constData()), Qt::LeftButton);
    QCOMPARE(spy.count(), 1);
    QCOMPARE(spy.at(0).at(0).toInt(), expected);
    QCOMPARE(status.GetMsgStatus(), expected);

    // Answered already: a later window-manager close adds nothing.
    dlg.windowHandle()->close();
    QTest::qWait(50);
    QCOMPARE(status.msgReports.load(), 1);
}

void TestMessageDialog::testReportWithDeletingCoordinator()
{
    DeletingStatus status;
    auto *dlg = new MessageDialog("t", "m", 5, &status, 1.0f);
    status.dialog = dlg;
    dlg->show();
    QVERIFY(QTest::qWaitForWindowExposed(dlg));

    QTest::mouseClick(button(dlg, "pushButton_Cancel"), Qt::LeftButton);
    QVERIFY(status.dialog.isNull());
    QCOMPARE(status.GetMsgStatus(), 0);
    QCOMPARE(status.msgReports.load(), 1);
}

void TestMessageDialog::testScaleFixesSize()
{
    FakeUiStatus status;
    MessageDialog base("Title_Warning", "PIN_Locked", 5, &status, 1.0f);
    MessageDialog scaled("Title_Warning", "PIN_Locked", 5, &status, 1.5f);

    const QSize adjusted = base.size();
    QVERIFY(adjusted.width() > 0 && adjusted.height() >= 60);
    const QSize expected(qRound(adjusted.width() * 1.5), qRound(adjusted.height() * 1.5));
    QCOMPARE(scaled.size(), expected);
    QCOMPARE(scaled.minimumSize(), expected);
    QCOMPARE(scaled.maximumSize(), expected);
    QCOMPARE(base.minimumSize(), adjusted);
    QCOMPARE(base.maximumSize(), adjusted);

    const QDesktopWidget *desktop = QApplication::desktop();
    QCOMPARE(scaled.pos(), QPoint((desktop->width() - expected.width()) / 2,
                                  (desktop->height() - expected.height()) / 2));

    // Showing and laying out again keeps the fixed, scaled size.
    scaled.show();
    QVERIFY(QTest::qWaitForWindowExposed(&scaled));
    QCoreApplication::processEvents();
    QCOMPARE(scaled.size(), expected);
}

void TestMessageDialog::testWindowSetup()
{
    FakeUiStatus status;
    MessageDialog dlg("t", "m", 0, &status, 1.0f);
    // Set as minimise + stay-on-top only, without the customise hint: Qt then
    // adds the title and system-menu hints, and nothing else (no close or
    // maximise button hint, no dialog or tool type).
    QCOMPARE(dlg.windowFlags(), Qt::Window | Qt::WindowTitleHint | Qt::WindowSystemMenuHint
                                        | Qt::WindowMinimizeButtonHint | Qt::WindowStaysOnTopHint);
    QVERIFY(dlg.testAttribute(Qt::WA_ShowModal));
    QVERIFY(dlg.isWindow());

    const QImage expected = QIcon(":/images/logo.ico").pixmap(4, 4).toImage();
    QVERIFY(!expected.isNull());
    QCOMPARE(dlg.windowIcon().pixmap(4, 4).toImage(), expected);
}

void TestMessageDialog::testWindowManagerClose_data()
{
    QTest::addColumn<qulonglong>("type");
    QTest::addColumn<int>("expected");

    QTest::newRow("retry box answers Cancel") << qulonglong(5) << 0;
    QTest::newRow("OK box answers OK") << qulonglong(0) << 1;
    QTest::newRow("OK box type 6") << qulonglong(6) << 1;
}

void TestMessageDialog::testWindowManagerClose()
{
    QFETCH(qulonglong, type);
    QFETCH(int, expected);

    FakeUiStatus status;
    MessageDialog dlg("t", "m", static_cast<unsigned long>(type), &status, 1.0f);
    dlg.show();
    QVERIFY(QTest::qWaitForWindowExposed(&dlg));

    // Goes through the platform window, as the window manager's close button does.
    QVERIFY(dlg.windowHandle()->close());
    QTRY_COMPARE(status.msgReports.load(), 1);
    QCOMPARE(status.GetMsgStatus(), expected);
    QVERIFY(!dlg.isVisible());

    dlg.show();
    QVERIFY(QTest::qWaitForWindowExposed(&dlg));
    dlg.windowHandle()->close();
    dlg.close();
    QTest::qWait(100);
    QCOMPARE(status.msgReports.load(), 1);
}

void TestMessageDialog::testCoordinatorHideReportsNothing()
{
    FakeUiStatus status;
    auto *dlg = new MessageDialog("t", "m", 5, &status, 1.0f);
    dlg->show();
    QVERIFY(QTest::qWaitForWindowExposed(dlg));
    dlg->hide();
    delete dlg;
    QTest::qWait(100);
    QCOMPARE(status.msgReports.load(), 0);
    QCOMPARE(status.GetMsgStatus(), -2);
}

void TestMessageDialog::testCloseThenDeleteDropsAnswer()
{
    // Closed through the window manager and deleted by its owner before the
    // posted answer ran: the answer must not reach a deleted box.
    DeletingStatus status;
    auto *dlg = new MessageDialog("t", "m", 5, &status, 1.0f);
    status.dialog = dlg;
    dlg->show();
    QVERIFY(QTest::qWaitForWindowExposed(dlg));
    dlg->windowHandle()->close();
    delete dlg;
    QTest::qWait(100);
    QCOMPARE(status.msgReports.load(), 0);

    // And the normal road: the coordinator deletes the box inside the answer.
    auto *second = new MessageDialog("t", "m", 0, &status, 1.0f);
    status.dialog = second;
    second->show();
    QVERIFY(QTest::qWaitForWindowExposed(second));
    second->windowHandle()->close();
    QTRY_VERIFY(status.dialog.isNull());
    QCOMPARE(status.msgReports.load(), 1);
    QCOMPARE(status.GetMsgStatus(), 1);
}

void TestMessageDialog::testScreenshots()
{
    FakeUiStatus status;
    const QString dir = outputDir();
    struct Shot
    {
        const char *file;
        const char *title;
        const char *message;
        unsigned long type;
        float scale;
    };
    const Shot shots[] = {
            {"message_retry_cancel.png", "Verify PIN", "PIN is wrong, 3 attempts left", 5, 1.0f},
            {"message_ok.png", "Title_Warning", "PIN_Locked", 0, 1.0f},
            {"message_retry_cancel_scale1.5.png", "Verify PIN", "PIN is wrong, 3 attempts left", 5,
             1.5f},
    };
    for (const Shot &shot : shots) {
        MessageDialog dlg(shot.title, shot.message, shot.type, &status, shot.scale);
        dlg.show();
        QVERIFY(QTest::qWaitForWindowExposed(&dlg));
        const QPixmap pixmap = dlg.grab();
        QCOMPARE(pixmap.size(), dlg.size());
        QVERIFY(pixmap.save(dir + "/" + shot.file));
    }
}

QTEST_MAIN(TestMessageDialog)
#include "TestMessageDialog.moc"
