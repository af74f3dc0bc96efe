// The PIN dialog that comes back after an accepted retry says why, through
// the real coordinator (its slots called as the service's signals would).
#include "ui/MessageDialog.h"
#include "ui/PINDialog.h"
#include "ui/UI_Service.h"

#include <QDir>
#include <QFile>
#include <QLabel>
#include <QPushButton>
#include <QResource>
#include <QTemporaryDir>
#include <QTranslator>
#include <QtTest>

#include <memory>

class TestRetryHint : public QObject
{
    Q_OBJECT

private slots:
    void initTestCase();
    void cleanupTestCase();
    void testHintAfterRetry_data();
    void testHintAfterRetry();

private:
    QTemporaryDir work;
    QString savedCwd;
    std::unique_ptr<UI_Service> service;
};

void TestRetryHint::initTestCase()
{
    // A unique socket name, and the files a coordinator needs beside it.
    QCoreApplication::setApplicationName(
            QStringLiteral("TestRetryHint%1x").arg(QCoreApplication::applicationPid()));
    const QString binDir = qEnvironmentVariable("ZRUI_BIN_DIR");
    const QByteArray libDir = qgetenv("ZRUI_TOKENSIM_DIR");
    QVERIFY(work.isValid() && !binDir.isEmpty() && !libDir.isEmpty());
    for (const char *name : {"resources.rcc", "integrityprotect.ini"})
        QVERIFY(QFile::copy(binDir + "/" + name, work.filePath(name)));
    QFile conf(work.filePath("ZRUIConf.ini"));
    QVERIFY(conf.open(QIODevice::WriteOnly) && conf.write("SAFEPATH=" + libDir + "\n") > 0);
    conf.close();
    QVERIFY(QResource::registerResource(work.filePath("resources.rcc"), QString()));
    savedCwd = QDir::currentPath();
    QDir::setCurrent(work.path());
    service.reset(new UI_Service(1.0f, nullptr));
    QVERIFY(service->service());
}

void TestRetryHint::cleanupTestCase()
{
    service.reset();
    QDir::setCurrent(savedCwd);
}

void TestRetryHint::testHintAfterRetry_data()
{
    QTest::addColumn<QString>("locale"); // "" = untranslated
    QTest::addColumn<int>("messageType");
    QTest::addColumn<QString>("button");
    QTest::addColumn<QString>("hint"); // "" = no hint, the comment stays empty
    const QString reason = QStringLiteral("Attempts remaining: 2.");
    QTest::newRow("retry accepted") << "" << 5 << "pushButton_Retry"
                                    << "Wrong PIN. " + reason;
    QTest::newRow("retry accepted, zh_CN")
            << "zh_CN" << 5 << "pushButton_Retry" << QString::fromUtf8("PIN码错误。") + reason;
    QTest::newRow("retry accepted, zh_TW")
            << "zh_TW" << 5 << "pushButton_Retry" << QString::fromUtf8("PIN碼錯誤。") + reason;
    QTest::newRow("retry cancelled") << "" << 5 << "pushButton_Cancel"
                                     << "";
    QTest::newRow("plain message") << "" << 0 << "pushButton_OK"
                                   << "";
}

void TestRetryHint::testHintAfterRetry()
{
    QFETCH(QString, locale);
    QFETCH(int, messageType);
    QFETCH(QString, button);
    QFETCH(QString, hint);
    QTranslator translator;
    if (!locale.isEmpty()) {
        QVERIFY(translator.load(":/uiserver." + locale + ".qm", QString(), QString(), QString()));
        QVERIFY(QCoreApplication::installTranslator(&translator));
    }
    service->on_pin_dialog_show(0);
    auto *comments = service->currentPinDialog()->findChild<QLabel *>("label_comments");
    QVERIFY(comments && comments->text().isEmpty());

    service->on_message_dialog_show("USBKey password error", "Attempts remaining: 2.",
                                    ulong(messageType));
    service->currentMessageDialog()->findChild<QPushButton *>(button)->click();
    QVERIFY(!service->currentMessageDialog());

    service->on_pin_dialog_show(0);
    comments = service->currentPinDialog()->findChild<QLabel *>("label_comments");
    QCOMPARE(comments->text(), hint);
    // Said once: the dialog after that one starts plain again.
    service->on_pin_dialog_show(0);
    QVERIFY(service->currentPinDialog()->findChild<QLabel *>("label_comments")->text().isEmpty());
    service->on_pin_dialog_hide();
    QCoreApplication::removeTranslator(&translator);
}

QTEST_MAIN(TestRetryHint)
#include "TestRetryHint.moc"
