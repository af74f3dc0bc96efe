#include "ui/UI_Service.h"
#include "ServerLauncher.h"

#include "ui/PINDialog.h"

#include <QResource>
#include <QTemporaryDir>
#include <QTimer>
#include <QtTest>

#include <memory>
#include <unistd.h>

// The real coordinator in the test process: stand-in token libraries, signed resources (or a
// signed test variant), the socket service and the dialogs.
class TestUIService : public QObject
{
    Q_OBJECT
private slots:
    void initTestCase();
    void cleanup();
    void testConfiguration_data();
    void testConfiguration();
    void testPinHandOff();

private:
    // A UI_Service in a fresh working directory with ZRUIConf.ini and the variant's resources.
    std::unique_ptr<UI_Service> make(const QString &variant = QString());
    QString socketName() const
    {
        return QCoreApplication::applicationName() + QString::number(getuid());
    }

    QString savedCwd, registeredResource;
    std::unique_ptr<QTemporaryDir> work;
};

void TestUIService::initTestCase()
{
    // The socket name is the application name plus the uid: unique per run.
    QCoreApplication::setApplicationName(
            QStringLiteral("TestUIService%1x").arg(QCoreApplication::applicationPid()));
    savedCwd = QDir::currentPath();
}

void TestUIService::cleanup()
{
    QDir::setCurrent(savedCwd);
    QResource::unregisterResource(registeredResource, QString());
    work.reset();
    qunsetenv("ZRTOKENSIM_CONF");
    // Consume the quit() a destroyed coordinator's thread posts, so it ends no later loop.
    QCoreApplication::sendPostedEvents();
    QCoreApplication::processEvents();
}

std::unique_ptr<UI_Service> TestUIService::make(const QString &variant)
{
    work.reset(new QTemporaryDir());
    const QString source = variant.isEmpty() ? qEnvironmentVariable("ZRUI_BIN_DIR")
                                             : ServerLauncher::resourceVariantDir(variant);
    for (const char *name : {"resources.rcc", "integrityprotect.ini"})
        if (!QFile::copy(source + "/" + name, work->filePath(name)))
            return nullptr;
    QFile conf(work->filePath("ZRUIConf.ini"));
    if (!conf.open(QIODevice::WriteOnly)
        || conf.write("SAFEPATH=" + qgetenv("ZRUI_TOKENSIM_DIR") + "\n") <= 0)
        return nullptr;
    conf.close();
    // As main does for the file beside the executable.
    registeredResource = work->filePath("resources.rcc");
    if (!QResource::registerResource(registeredResource, QString()))
        return nullptr;
    QDir::setCurrent(work->path());
    return std::unique_ptr<UI_Service>(new UI_Service(1.0f, nullptr));
}

void TestUIService::testConfiguration_data()
{
    QTest::addColumn<QString>("variant");
    QTest::addColumn<int>("keyboardMode");
    QTest::addColumn<bool>("keyboardVisible");
    QTest::addColumn<int>("keepAliveMs");
    QTest::addColumn<QString>("defaultPin");
    const int full = PINDialog::FullKeyBoard, simple = PINDialog::SimpleKeyBoard;
    QTest::newRow("as shipped") << "" << full << true << 0 << QString();
    QTest::newRow("simple") << "simple" << simple << true << 0 << QString();
    QTest::newRow("fullhide") << "fullhide" << full << false << 0 << QString();
    QTest::newRow("keepalive2") << "keepalive2" << full << true << 2000 << QString();
    QTest::newRow("defaultpin") << "defaultpin" << full << true << 0 << "123456";
    QTest::newRow("FULL, keep-alive 0") << "upperfull" << full << true << 0 << QString();
    QTest::newRow("simple,HIDE, keep-alive 30")
            << "simplehide" << simple << false << 30000 << QString();
}

void TestUIService::testConfiguration()
{
    QFETCH(QString, variant);
    QFETCH(int, keyboardMode);
    QFETCH(bool, keyboardVisible);
    QFETCH(int, keepAliveMs);
    QFETCH(QString, defaultPin);
    // The PIN bounds come from the auxiliary library's shared record.
    QTemporaryDir simDir;
    QFile sim(simDir.filePath("tokensim.ini"));
    QVERIFY(sim.open(QIODevice::WriteOnly) && sim.write("[pin]\nmin=4\nmax=12\n") > 0);
    sim.close();
    qputenv("ZRTOKENSIM_CONF", QFile::encodeName(sim.fileName()));

    std::unique_ptr<UI_Service> ui = make(variant);
    QVERIFY(ui && ui->service());
    QCOMPARE(int(ui->keyboardMode()), keyboardMode);
    QCOMPARE(ui->isKeyboardVisible(), keyboardVisible);
    QCOMPARE(ui->GetPINMinLen(), 4);
    QCOMPARE(ui->GetPINMaxLen(), 12);
    QTimer *timer = ui->keepAliveTimer();
    QCOMPARE(timer ? timer->interval() : 0, keepAliveMs);
    QVERIFY(!timer || !timer->isSingleShot());
    QString pin = QStringLiteral("untouched");
    QCOMPARE(ui->GetDefaultPIN(pin), defaultPin.isEmpty() ? -1 : 0);
    QCOMPARE(pin, defaultPin.isEmpty() ? QStringLiteral("untouched") : defaultPin);
    QTRY_VERIFY_WITH_TIMEOUT(ServerLauncher::isListening(socketName()), 10000);
    ui.reset();
    QVERIFY(!ServerLauncher::isListening(socketName()));
}

// The PIN result buffer: a copy of the bytes at a fixed address, wiped by a new request, a
// cancel or a new PIN dialog; more than it holds is refused.
void TestUIService::testPinHandOff()
{
    std::unique_ptr<UI_Service> ui = make();
    QVERIFY(ui && ui->service());
    unsigned char *internal = nullptr;
    unsigned long length = 99;
    QCOMPARE(ui->GetPINStatus(&internal, &length), -1);
    QVERIFY(internal && length == 0);
    auto set = [&](int status, QByteArray bytes) {
        ui->SetPINStatus(status, reinterpret_cast<unsigned char *>(bytes.data()),
                         ulong(bytes.size()));
        bytes.fill('\xAA'); // the caller's buffer is reused at once
    };
    auto holds = [&](int status, unsigned long len, const QByteArray &held) {
        unsigned char *buffer = nullptr;
        unsigned long got = 99;
        return ui->GetPINStatus(&buffer, &got) == status && buffer == internal && got == len
               && QByteArray(reinterpret_cast<char *>(internal), held.size()) == held;
    };
    const QByteArray pin = QByteArray::fromHex("0600000031323334353600000000"), zero(14, '\0');
    set(1, pin);
    QVERIFY(holds(1, 14, pin));
    set(-1, QByteArray());
    QVERIFY(holds(-1, 0, zero));
    set(1, pin);
    set(0, QByteArray());
    QVERIFY(holds(0, 0, zero));
    set(1, QByteArray(int(UI_Service::PIN_BUFFER_SIZE) + 1, 'z'));
    QVERIFY(holds(1, 0, QByteArray()));
    set(1, pin);
    ui->on_pin_dialog_show(0);
    QVERIFY(ui->currentPinDialog());
    QVERIFY(holds(-1, 0, zero));
    ui->on_pin_dialog_hide();
}

QTEST_MAIN(TestUIService)
#include "TestUIService.moc"
