#include "ui/UI_Service.h"
#include "ServerLauncher.h"

#include "ui/MessageDialog.h"
#include "ui/PINDialog.h"
#include "service/FIFO_Service.h"

#include <QDir>
#include <QFile>
#include <QPointer>
#include <QProcessEnvironment>
#include <QResource>
#include <QTemporaryDir>
#include <QTimer>
#include <QtTest>

#include <memory>
#include <unistd.h>

static bool writeFile(const QString &path, const QByteArray &bytes)
{
    QFile f(path);
    return f.open(QIODevice::WriteOnly) && f.write(bytes) == bytes.size();
}

// The real coordinator in the test process: stand-in token libraries, signed
// resources (or a signed test variant), the socket service and the dialogs.
class TestUIService : public QObject
{
    Q_OBJECT
private slots:
    void initTestCase();
    void init();
    void cleanup();
    void testFailExit_data();
    void testFailExit();
    void testConfiguration_data();
    void testConfiguration();
    void testPinLengthsFromSharedRecord();
    void testPinHandOff();
    void testListAndMessageStatus();
    void testExitTimerAndPipeFailure();

private:
    // A UI_Service in a fresh directory with ZRUIConf.ini and the variant's resources ("": bin/).
    std::unique_ptr<UI_Service> make(const QString &variant,
                                     const QByteArray &config = QByteArray());
    QString socketName() const
    {
        return QCoreApplication::applicationName() + QString::number(getuid());
    }
    // Runs the application's loop until quit() or the deadline; true when quit() ended it.
    bool quitArrives(int timeoutMs);

    QString savedCwd;
    QString registeredResource;
    std::unique_ptr<QTemporaryDir> work;
    QByteArray libDir;
    QString binDir;
};

void TestUIService::initTestCase()
{
    // The socket name is the application name plus the uid: unique per run.
    QCoreApplication::setApplicationName(
            QStringLiteral("TestUIService%1x").arg(QCoreApplication::applicationPid()));
    savedCwd = QDir::currentPath();
    libDir = QProcessEnvironment::systemEnvironment().value("ZRUI_TOKENSIM_DIR").toLocal8Bit();
    binDir = QProcessEnvironment::systemEnvironment().value("ZRUI_BIN_DIR");
    QVERIFY(!libDir.isEmpty());
    QVERIFY(!binDir.isEmpty());
}

void TestUIService::init()
{
    // Consume the quit() a destroyed coordinator's thread posts, so it ends no later loop.
    QCoreApplication::sendPostedEvents();
    QCoreApplication::processEvents();
}

void TestUIService::cleanup()
{
    QDir::setCurrent(savedCwd);
    if (!registeredResource.isEmpty()) {
        QResource::unregisterResource(registeredResource, QString());
        registeredResource.clear();
    }
    work.reset();
    qunsetenv("ZRTOKENSIM_CONF");
}

std::unique_ptr<UI_Service> TestUIService::make(const QString &variant, const QByteArray &config)
{
    work.reset(new QTemporaryDir());
    if (!work->isValid())
        return nullptr;
    const QString source = variant.isEmpty() ? binDir : ServerLauncher::resourceVariantDir(variant);
    for (const char *name : {"resources.rcc", "integrityprotect.ini"}) {
        if (!QFile::copy(source + "/" + name, work->filePath(name))) {
            qWarning() << "cannot copy" << source << name;
            return nullptr;
        }
    }
    if (!writeFile(work->filePath("ZRUIConf.ini"),
                   config.isNull() ? QByteArray("SAFEPATH=" + libDir + "\n") : config))
        return nullptr;

    // As main does for the file beside the executable.
    registeredResource = work->filePath("resources.rcc");
    if (!QResource::registerResource(registeredResource, QString()))
        return nullptr;
    QDir::setCurrent(work->path());
    return std::unique_ptr<UI_Service>(new UI_Service(1.0f, nullptr));
}

bool TestUIService::quitArrives(int timeoutMs)
{
    // The application's own loop, as in main: QEventLoop::exec() would return at once
    // after any earlier quit, which could hide a missing one.
    bool timedOut = false;
    QTimer fallback;
    fallback.setSingleShot(true);
    connect(&fallback, &QTimer::timeout, this, [&]() {
        timedOut = true;
        QCoreApplication::exit(0);
    });
    fallback.start(timeoutMs);
    QCoreApplication::exec();
    return !timedOut;
}

void TestUIService::testFailExit_data()
{
    QTest::addColumn<QByteArray>("config");
    QTest::addColumn<QByteArray>("tokensimIni");
    QTest::addColumn<QString>("warning");

    QTest::newRow("SAFEPATH without slash")
            << QByteArray("SAFEPATH=" + libDir.left(libDir.size() - 1) + "\n") << QByteArray()
            << "LoadLib_ZRKAPI failed, exit";
    QTest::newRow("default SAFEPATH does not exist here")
            << QByteArray("[other]\nkey=1\n") << QByteArray() << "LoadLib_ZRKAPI failed, exit";
    const QString build = QFileInfo(binDir).absolutePath();
    QTest::newRow("algorithm library without its last entry point")
            << QByteArray("SAFEPATH=" + QFile::encodeName(build)
                          + "/tokenlib-variants/no-last-alg/\n")
            << QByteArray() << "LoadLib_Alg Failed!";
    QTest::newRow("no shared record")
            << QByteArray() << QByteArray("[aux]\nfail=1\n") << "AuxLoadKestrovaIni Failed!";
}

void TestUIService::testFailExit()
{
    QFETCH(QByteArray, config);
    QFETCH(QByteArray, tokensimIni);
    QFETCH(QString, warning);

    QTemporaryDir simDir;
    if (!tokensimIni.isEmpty()) {
        QVERIFY(writeFile(simDir.filePath("tokensim.ini"), tokensimIni));
        qputenv("ZRTOKENSIM_CONF", QFile::encodeName(simDir.filePath("tokensim.ini")));
    }

    QTest::ignoreMessage(QtWarningMsg, qPrintable(warning));
    std::unique_ptr<UI_Service> ui = make(QString(), config);
    QVERIFY(ui);
    // Left partly built: nothing after the failing step exists.
    QVERIFY(ui->service() == nullptr);
    QVERIFY(ui->keepAliveTimer() == nullptr);
    QVERIFY(!ServerLauncher::isListening(socketName()));
    // Setters and hide slots stay harmless on the half-built object.
    ui->SetListSelectStatus(0, 2);
    ui->SetMsgStatus(1);
    ui->on_pin_dialog_hide();
    ui->on_message_dialog_hide();
    ui->on_waiting_dialog_hide();
    // The quit is already scheduled: the next event loop ends at once.
    QVERIFY(quitArrives(10000));
    ui.reset();
}

void TestUIService::testConfiguration_data()
{
    QTest::addColumn<QString>("variant");
    QTest::addColumn<int>("keyboardMode");
    QTest::addColumn<bool>("keyboardVisible");
    QTest::addColumn<int>("keepAliveMs");
    QTest::addColumn<QString>("defaultPin");

    QTest::newRow("simple") << "simple" << int(PINDialog::SimpleKeyBoard) << true << 0 << QString();
    QTest::newRow("fullhide") << "fullhide" << int(PINDialog::FullKeyBoard) << false << 0
                              << QString();
    QTest::newRow("keepalive2") << "keepalive2" << int(PINDialog::FullKeyBoard) << true << 2000
                                << QString();
    QTest::newRow("defaultpin") << "defaultpin" << int(PINDialog::FullKeyBoard) << true << 0
                                << "123456";
    QTest::newRow("FULL, keep-alive 0")
            << "upperfull" << int(PINDialog::FullKeyBoard) << true << 0 << QString();
    QTest::newRow("simple,HIDE, keep-alive 30")
            << "simplehide" << int(PINDialog::SimpleKeyBoard) << false << 30000 << QString();
}

void TestUIService::testConfiguration()
{
    QFETCH(QString, variant);
    QFETCH(int, keyboardMode);
    QFETCH(bool, keyboardVisible);
    QFETCH(int, keepAliveMs);
    QFETCH(QString, defaultPin);

    if (!QFile::exists(ServerLauncher::resourceVariantDir(variant) + "/resources.rcc"))
        QSKIP("test resource variant not built");
    std::unique_ptr<UI_Service> ui = make(variant);
    QVERIFY(ui && ui->service());
    QCOMPARE(int(ui->keyboardMode()), keyboardMode);
    QCOMPARE(ui->isKeyboardVisible(), keyboardVisible);
    if (keepAliveMs == 0) {
        QVERIFY(ui->keepAliveTimer() == nullptr);
    } else {
        QVERIFY(ui->keepAliveTimer() != nullptr);
        QCOMPARE(ui->keepAliveTimer()->interval(), keepAliveMs);
        QVERIFY(!ui->keepAliveTimer()->isSingleShot());
    }
    QString pin = QStringLiteral("untouched");
    if (defaultPin.isEmpty()) {
        QCOMPARE(ui->GetDefaultPIN(pin), -1);
        QCOMPARE(pin, QStringLiteral("untouched"));
    } else {
        QCOMPARE(ui->GetDefaultPIN(pin), 0);
        QCOMPARE(pin, defaultPin);
    }
    QTRY_VERIFY_WITH_TIMEOUT(ServerLauncher::isListening(socketName()), 10000);
    ui.reset();
    QVERIFY(!ServerLauncher::isListening(socketName()));
}

void TestUIService::testPinLengthsFromSharedRecord()
{
    QTemporaryDir simDir;
    QVERIFY(writeFile(simDir.filePath("tokensim.ini"), "[pin]\nmin=4\nmax=12\n"));
    qputenv("ZRTOKENSIM_CONF", QFile::encodeName(simDir.filePath("tokensim.ini")));

    std::unique_ptr<UI_Service> ui = make(QString());
    QVERIFY(ui && ui->service());
    QCOMPARE(ui->GetPINMinLen(), 4);
    QCOMPARE(ui->GetPINMaxLen(), 12);
}

void TestUIService::testPinHandOff()
{
    std::unique_ptr<UI_Service> ui = make(QString());
    QVERIFY(ui && ui->service());

    unsigned char *buffer = nullptr;
    unsigned long length = 99;
    QCOMPARE(ui->GetPINStatus(&buffer, &length), -1);
    QVERIFY(buffer != nullptr);
    QCOMPARE(length, 0ul);
    unsigned char *const internal = buffer;

    // OK: a copy of the bytes, the address of the internal buffer.
    QByteArray result = QByteArray::fromHex("06000000313233343536") + QByteArray(4, '\0');
    ui->SetPINStatus(1, reinterpret_cast<unsigned char *>(result.data()), ulong(result.size()));
    result.fill('\xAA');
    QCOMPARE(ui->GetPINStatus(&buffer, &length), 1);
    QCOMPARE(buffer, internal);
    QCOMPARE(length, 14ul);
    QCOMPARE(QByteArray(reinterpret_cast<char *>(buffer), 14),
             QByteArray::fromHex("0600000031323334353600000000"));

    // A new request wipes the old PIN before anything else happens.
    ui->SetPINStatus(-1, nullptr, 0);
    QCOMPARE(ui->GetPINStatus(&buffer, &length), -1);
    QCOMPARE(length, 0ul);
    QCOMPARE(QByteArray(reinterpret_cast<char *>(internal), 14), QByteArray(14, '\0'));

    // Cancel also wipes.
    QByteArray again("\x02\x00\x00\x00xy", 6);
    ui->SetPINStatus(1, reinterpret_cast<unsigned char *>(again.data()), 6);
    ui->SetPINStatus(0, nullptr, 0);
    QCOMPARE(ui->GetPINStatus(&buffer, &length), 0);
    QCOMPARE(length, 0ul);
    QCOMPARE(QByteArray(reinterpret_cast<char *>(internal), 6), QByteArray(6, '\0'));

    // More than the buffer holds is refused, not copied.
    QByteArray huge(int(UI_Service::PIN_BUFFER_SIZE) + 1, 'z');
    ui->SetPINStatus(1, reinterpret_cast<unsigned char *>(huge.data()), ulong(huge.size()));
    QCOMPARE(ui->GetPINStatus(&buffer, &length), 1);
    QCOMPARE(length, 0ul);

    // A new PIN dialog also starts from a wiped buffer.
    ui->SetPINStatus(1, reinterpret_cast<unsigned char *>(again.data()), 6);
    ui->on_pin_dialog_show(0);
    QVERIFY(ui->currentPinDialog() != nullptr);
    QCOMPARE(ui->GetPINStatus(&buffer, &length), -1);
    QCOMPARE(length, 0ul);
    QCOMPARE(QByteArray(reinterpret_cast<char *>(internal), 6), QByteArray(6, '\0'));
    ui->on_pin_dialog_hide();
}

void TestUIService::testListAndMessageStatus()
{
    std::unique_ptr<UI_Service> ui = make(QString());
    QVERIFY(ui && ui->service());
    int status = 0, index = 0;
    // Type 1: answered at once, without a window.
    ui->SetListSelectStatus(-1, 0);
    ui->on_list_dialog_show(1, QStringLiteral("a\nb"));
    ui->GetListSelectStatus(status, index);
    QCOMPARE(status, 1);
    QCOMPARE(index, -1);
    QVERIFY(ui->currentListDialog() == nullptr);

    // Unknown types change nothing.
    ui->SetListSelectStatus(-1, 0);
    for (ulong type : {2ul, 7ul, 0xFFFFFFFFul}) {
        ui->on_list_dialog_show(type, QStringLiteral("a\nb"));
        ui->GetListSelectStatus(status, index);
        QCOMPARE(status, -1);
        QCOMPARE(index, 0);
        QVERIFY(ui->currentListDialog() == nullptr);
    }

    // -1 from the socket thread never touches a dialog; a final status deletes it.
    ui->on_message_dialog_show(QStringLiteral("t"), QStringLiteral("m"), 0);
    QPointer<MessageDialog> message = ui->currentMessageDialog();
    QVERIFY(message);
    ui->SetMsgStatus(-1);
    QVERIFY(message);
    ui->SetMsgStatus(1);
    QVERIFY(message.isNull());
    QVERIFY(ui->currentMessageDialog() == nullptr);
}

void TestUIService::testExitTimerAndPipeFailure()
{
    if (!QFile::exists(ServerLauncher::resourceVariantDir("keepalive2") + "/resources.rcc"))
        QSKIP("test resource variant keepalive2 not built");
    std::unique_ptr<UI_Service> ui = make(QStringLiteral("keepalive2"));
    QVERIFY(ui && ui->service());
    FIFO_Service *service = ui->service();
    QTRY_VERIFY_WITH_TIMEOUT(ServerLauncher::isListening(socketName()), 10000);
    auto emitSignal = [service](const char *signal) {
        return QMetaObject::invokeMethod(service, signal, Qt::DirectConnection);
    };

    QTimer *timer = ui->keepAliveTimer();
    QVERIFY(timer);
    // Listening with no session open has asked for the timer.
    QTRY_VERIFY_WITH_TIMEOUT(timer->isActive(), 5000);
    QVERIFY(emitSignal("stopExitTimer"));
    QVERIFY(!timer->isActive());
    QVERIFY(emitSignal("startExitTimer"));
    QVERIFY(timer->isActive());
    QVERIFY(emitSignal("stopExitTimer"));
    QVERIFY(!timer->isActive());
    // Left running, the tick stops listening directly; the accept loop ends within a second.
    QVERIFY(emitSignal("startExitTimer"));
    QTRY_VERIFY_WITH_TIMEOUT(!ServerLauncher::isListening(socketName()), 10000);

    // start_pipe_failed() quits the application; nothing else has asked for a quit yet.
    QCoreApplication::sendPostedEvents();
    QVERIFY(!quitArrives(300));
    bool emitted = false;
    QTimer::singleShot(0, this, [&]() {
        emitted = true;
        emitSignal("start_pipe_failed");
    });
    QVERIFY(quitArrives(10000));
    QVERIFY(emitted);
}

QTEST_MAIN(TestUIService)
#include "TestUIService.moc"
