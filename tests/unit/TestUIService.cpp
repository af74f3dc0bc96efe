// The real coordinator in the test process: stand-in token libraries, signed resources (or a
// signed test variant), the socket service and the dialogs, its slots called as the service's
// signals and the dialogs' buttons would.
#include "ui/UI_Service.h"
#include "ServerLauncher.h"

#include "ui/MessageDialog.h"
#include "ui/PINDialog.h"

#include <QLabel>
#include <QPushButton>
#include <QResource>
#include <QTemporaryDir>
#include <QTranslator>
#include <QtTest>

#include <memory>
#include <unistd.h>

class TestUIService : public QObject
{
    Q_OBJECT
private slots:
    void testConfiguration();
    void testHandOff();

private:
    // A UI_Service in a fresh working directory with ZRUIConf.ini and the variant's resources.
    std::unique_ptr<UI_Service> make(const QString &variant = QString());

    QString savedCwd = QDir::currentPath(), registeredResource;
    std::unique_ptr<QTemporaryDir> work;
};

std::unique_ptr<UI_Service> TestUIService::make(const QString &variant)
{
    QDir::setCurrent(savedCwd); // the previous coordinator's files go
    QResource::unregisterResource(registeredResource);
    // The socket name is the application name plus the uid: unique per run.
    QCoreApplication::setApplicationName(QStringLiteral("TestUIService%1x").arg(getpid()));
    work.reset(new QTemporaryDir());
    const QString from = variant.isEmpty() ? qEnvironmentVariable("ZRUI_BIN_DIR")
                                           : ServerLauncher::resourceVariantDir(variant);
    QFile conf(work->filePath("ZRUIConf.ini"));
    registeredResource = work->filePath("resources.rcc"); // as main registers its own
    if (!QFile::copy(from + "/resources.rcc", registeredResource)
        || !QFile::copy(from + "/integrityprotect.ini", work->filePath("integrityprotect.ini"))
        || !conf.open(QIODevice::WriteOnly)
        || conf.write("SAFEPATH=" + qgetenv("ZRUI_TOKENSIM_DIR") + "\n") <= 0
        || !QResource::registerResource(registeredResource))
        return nullptr;
    conf.close();
    QDir::setCurrent(work->path());
    return std::unique_ptr<UI_Service>(new UI_Service(1.0f, nullptr));
}

// Keyboard word in any case, "hide" as second word, keep-alive seconds (below 1: no timer),
// default PIN; the PIN bounds come from the auxiliary library's shared record (6 to 16).
void TestUIService::testConfiguration()
{
    for (const auto &[variant, full, visible, keepAliveMs, defaultPin] : // keep-alive 0: no timer
         {std::make_tuple("", true, true, 0, ""), std::make_tuple("upperfull", true, true, 0, ""),
          std::make_tuple("simplehide", false, false, 30000, ""),
          std::make_tuple("simple", false, true, 0, ""),
          std::make_tuple("fullhide", true, false, 1000, ""),
          std::make_tuple("defaultpin", true, true, 0, "123456")}) {
        std::unique_ptr<UI_Service> ui = make(variant);
        QVERIFY(ui && ui->service() && ui->GetPINMinLen() == 6 && ui->GetPINMaxLen() == 16);
        QCOMPARE(ui->keyboardMode() == PINDialog::FullKeyBoard, full);
        QCOMPARE(ui->isKeyboardVisible(), visible);
        QTimer *timer = ui->keepAliveTimer();
        QCOMPARE(timer && !timer->isSingleShot() ? timer->interval() : 0, keepAliveMs);
        QString pin = "untouched";
        QCOMPARE(ui->GetDefaultPIN(pin), *defaultPin ? 0 : -1);
        QCOMPARE(pin, QString(*defaultPin ? defaultPin : "untouched"));
    }
}

// The PIN result is a copy at a fixed address; OK hides the dialog but keeps it, a cancel
// destroys it; a pending request, a cancel or a new PIN dialog wipes the copy; too much is
// refused. A list of type 1 is chosen at once, other types change nothing; only an answer
// (0 or 1) closes a message or list box.
void TestUIService::testHandOff()
{
    std::unique_ptr<UI_Service> ui = make();
    QVERIFY(ui && ui->service());
    QCOMPARE(ui->GetMsgStatus(), -2);
    unsigned char *internal = nullptr;
    ulong length = 0;
    ui->GetPINStatus(&internal, &length);
    auto set = [&](int status, QByteArray bytes) {
        ui->SetPINStatus(status, reinterpret_cast<unsigned char *>(bytes.data()),
                         ulong(bytes.size()));
        bytes.fill('\xAA'); // the caller's buffer is reused at once
    };
    auto holds = [&](int status, const QByteArray &held) {
        unsigned char *buffer = nullptr;
        ulong len = 99;
        return ui->GetPINStatus(&buffer, &len) == status && buffer == internal
               && len == ulong(held.size())
               && QByteArray(reinterpret_cast<char *>(internal), 14) == held.leftJustified(14, 0);
    };
    const QByteArray pin = QByteArray::fromHex("0600000031323334353600000000");
    ui->on_pin_dialog_show(0);
    QPointer<PINDialog> first = ui->currentPinDialog();
    set(1, pin);
    QVERIFY(holds(1, pin) && first && !first->isVisible());
    set(-1, QByteArray());
    QVERIFY(holds(-1, "") && first);
    set(1, pin);
    ui->on_pin_dialog_show(0);
    QVERIFY(holds(-1, "") && !first && ui->currentPinDialog());
    set(1, pin);
    set(0, QByteArray());
    QVERIFY(holds(0, "") && !ui->currentPinDialog());
    set(1, QByteArray(int(UI_Service::PIN_BUFFER_SIZE) + 1, 'z'));
    QVERIFY(holds(1, ""));

    int status = 0, index = 0;
    for (int type : {1, 2}) {
        ui->SetListSelectStatus(-1, 0);
        ui->on_list_dialog_show(ulong(type), "c1");
        ui->GetListSelectStatus(status, index);
        QVERIFY(status == (type == 1 ? 1 : -1) && index == -(type & 1) && !ui->currentListDialog());
    }
    for (int answer : {-1, 2, 0, 1}) {
        ui->on_message_dialog_show("title", "text", 0);
        ui->on_list_dialog_show(0, "c1");
        ui->SetMsgStatus(answer);
        ui->SetListSelectStatus(answer, 0);
        QCOMPARE(!ui->currentMessageDialog() + !ui->currentListDialog(),
                 answer < 0 || answer > 1 ? 0 : 2);
    }

    // The PIN dialog that comes back after an accepted retry says why, once.
    const QString reason = QStringLiteral("Attempts remaining: 2.");
    auto comments
            = [&] { return ui->currentPinDialog()->findChild<QLabel *>("label_comments")->text(); };
    for (const auto &[locale, type, button, hint] : // locale "": untranslated
         {std::make_tuple("", 5, "pushButton_Retry", "Wrong PIN. " + reason),
          std::make_tuple("zh_CN", 5, "pushButton_Retry", "PIN码错误。" + reason),
          std::make_tuple("", 5, "pushButton_Cancel", QString()),
          std::make_tuple("", 0, "pushButton_OK", QString())}) {
        QTranslator translator;
        QVERIFY(!*locale || translator.load(QStringLiteral(":/uiserver.%1.qm").arg(locale)));
        QCoreApplication::installTranslator(&translator);
        ui->on_pin_dialog_show(0);
        ui->on_message_dialog_show("USBKey password error", reason, ulong(type));
        ui->currentMessageDialog()->findChild<QPushButton *>(button)->click();
        QVERIFY(!ui->currentMessageDialog());
        ui->on_pin_dialog_show(0);
        QCOMPARE(comments(), hint);
        ui->on_pin_dialog_show(0);
        QVERIFY(comments().isEmpty());
        QCoreApplication::removeTranslator(&translator);
    }
}

QTEST_MAIN(TestUIService)
#include "TestUIService.moc"
