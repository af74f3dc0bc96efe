#include "ui/MessageDialog.h"

#include "DialogChecks.h"
#include "FakeUiStatus.h"

#include <QIcon>
#include <QLabel>
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

QPushButton *button(QWidget *dlg, const char *name)
{
    return dlg->findChild<QPushButton *>(QString::fromLatin1(name));
}

bool showAndWait(QWidget *dlg)
{
    dlg->show();
    return QTest::qWaitForWindowExposed(dlg);
}

} // namespace

class TestMessageDialog : public QObject
{
    Q_OBJECT

private slots:
    void testTextLookup();
    void testButtonsByType_data();
    void testButtonsByType();
    void testButtonReports_data();
    void testButtonReports();
    void testWindowSetupAndScale();
    void testWindowManagerClose_data();
    void testWindowManagerClose();
    void testDeletedByOwnerReportsNothing();
};

// Keys go through tr(), free text is shown as given.
void TestMessageDialog::testTextLookup()
{
    const struct
    {
        const char *title, *message, *shownTitle, *shownMessage;
    } cases[] = {{"Title_Warning", "PIN_Locked", "T<Title_Warning>", "T<PIN_Locked>"},
                 {"Verify PIN", "PIN is wrong, 3 attempts left", "Verify PIN",
                  "PIN is wrong, 3 attempts left"},
                 {"title_warning", "pin_locked", "title_warning", "pin_locked"}}; // case-sensitive
    MarkingTranslator translator;
    QVERIFY(QCoreApplication::installTranslator(&translator));
    FakeUiStatus status;
    for (const auto &c : cases) {
        MessageDialog dlg(c.title, c.message, 0, &status, 1.0f);
        QCOMPARE(dlg.windowTitle(), QString(c.shownTitle));
        QCOMPARE(dlg.findChild<QLabel *>("label_message")->text(), QString(c.shownMessage));
        // Translated, with its accelerator.
        QCOMPARE(button(&dlg, "pushButton_Retry")->text(), QStringLiteral("&T<Retry>"));
    }
    QCoreApplication::removeTranslator(&translator);
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
    QVERIFY(showAndWait(&dlg));
    QCOMPARE(button(&dlg, "pushButton_OK")->isVisible(), !retryCancel);
    QCOMPARE(button(&dlg, "pushButton_Retry")->isVisible(), retryCancel);
    QCOMPARE(button(&dlg, "pushButton_Cancel")->isVisible(), retryCancel);
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
    MessageDialog dlg("t", "m", static_cast<unsigned long>(type), &status, 1.0f);
    QVERIFY(showAndWait(&dlg));
    QTest::mouseClick(button(&dlg, buttonName.toLatin1().constData()), Qt::LeftButton);
    QCOMPARE(status.msgReports.load(), 1);
    QCOMPARE(status.GetMsgStatus(), expected);
}

void TestMessageDialog::testWindowSetupAndScale()
{
    FakeUiStatus status;
    MessageDialog base("Title_Warning", "PIN_Locked", 5, &status, 1.0f);
    MessageDialog scaled("Title_Warning", "PIN_Locked", 5, &status, 1.5f);
    QVERIFY(!QIcon(":/images/logo.ico").isNull());
    QCOMPARE(base.maximumSize(), base.size());
    verifyScaledWindow(base, scaled, 1.5, true);
}

void TestMessageDialog::testWindowManagerClose_data()
{
    QTest::addColumn<qulonglong>("type");
    QTest::addColumn<int>("expected");

    QTest::newRow("retry box answers Cancel") << qulonglong(5) << 0;
    QTest::newRow("OK box answers OK") << qulonglong(0) << 1;
}

void TestMessageDialog::testWindowManagerClose()
{
    QFETCH(qulonglong, type);
    QFETCH(int, expected);

    FakeUiStatus status;
    MessageDialog dlg("t", "m", static_cast<unsigned long>(type), &status, 1.0f);
    QVERIFY(showAndWait(&dlg));
    // Through the platform window, as the window manager's close button does.
    QVERIFY(dlg.windowHandle()->close());
    dlg.close(); // again before the posted answer ran: still one answer
    QTRY_COMPARE(status.msgReports.load(), 1);
    QCOMPARE(status.GetMsgStatus(), expected);
    QVERIFY(!dlg.isVisible());

    // Answered already: a second close (WM or own) adds no report.
    QVERIFY(showAndWait(&dlg));
    dlg.windowHandle()->close();
    dlg.close();
    drainEvents();
    QCOMPARE(status.msgReports.load(), 1);
}

void TestMessageDialog::testDeletedByOwnerReportsNothing()
{
    FakeUiStatus status;
    auto *dlg = new MessageDialog("t", "m", 5, &status, 1.0f);
    QVERIFY(showAndWait(dlg));
    dlg->hide();
    delete dlg;

    // Closed by the window manager, then deleted before the posted answer ran.
    dlg = new MessageDialog("t", "m", 5, &status, 1.0f);
    QVERIFY(showAndWait(dlg));
    dlg->windowHandle()->close();
    delete dlg;
    drainEvents();
    QCOMPARE(status.msgReports.load(), 0);
    QCOMPARE(status.GetMsgStatus(), -2);
}

QTEST_MAIN(TestMessageDialog)
#include "TestMessageDialog.moc"
