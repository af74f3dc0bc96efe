#include "ui/UI_Service.h"
#include "ServerLauncher.h"

#include "ui/CertListDialog.h"
#include "ui/MessageDialog.h"
#include "ui/PINDialog.h"
#include "ui/WaitingDialog.h"
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

/*
 * The coordinator built for real inside the test process: stand-in token
 * libraries, a signed resource file (or one of the signed test variants),
 * the socket service in its thread and the real dialogs.
 */
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
    void testMessageAndListStatus();
    void testSignalsReachSlots();
    void testPinDialogReplacedAndHidden();
    void testKeepAliveTimerStopsListening();

private:
    // Builds a UI_Service in a fresh working directory holding ZRUIConf.ini
    // and the resource files of the variant ("" = the build's bin/).
    std::unique_ptr<UI_Service> make(const QString &variant,
                                     const QByteArray &config = QByteArray());
    QString socketName() const
    {
        return QCoreApplication::applicationName() + QString::number(getuid());
    }
    // Runs the application's event loop until quit() arrives or the deadline
    // passes; true when quit() ended it.
    bool quitArrives(int timeoutMs);

    QString savedCwd;
    QString registeredResource;
    std::unique_ptr<QTemporaryDir> work;
    QByteArray libDir;
    QString binDir;
};

void TestUIService::initTestCase()
{
    // The socket name is the application name plus the user id: make it
    // unique so that parallel runs (other build trees) do not collide.
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
    // A destroyed coordinator's service thread posts a quit() on its way out;
    // consume it here (no loop runs) so it cannot end a later event loop.
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
    QFile conf(work->filePath("ZRUIConf.ini"));
    if (!conf.open(QIODevice::WriteOnly))
        return nullptr;
    conf.write(config.isNull() ? QByteArray("SAFEPATH=" + libDir + "\n") : config);
    conf.close();

    // As main does for the file beside the executable.
    registeredResource = work->filePath("resources.rcc");
    if (!QResource::registerResource(registeredResource, QString()))
        return nullptr;
    QDir::setCurrent(work->path());
    return std::unique_ptr<UI_Service>(new UI_Service(1.0f, nullptr));
}

bool TestUIService::quitArrives(int timeoutMs)
{
    // The application's own loop, as in main: QEventLoop::exec() would
    // return at once after any earlier quit (Qt keeps that state until
    // QCoreApplication::exec() resets it), which could hide a missing quit.
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
        QFile ini(simDir.filePath("tokensim.ini"));
        QVERIFY(ini.open(QIODevice::WriteOnly));
        ini.write(tokensimIni);
        ini.close();
        qputenv("ZRTOKENSIM_CONF", QFile::encodeName(ini.fileName()));
    }

    QTest::ignoreMessage(QtWarningMsg, qPrintable(warning));
    std::unique_ptr<UI_Service> ui = make(QString(), config);
    QVERIFY(ui);
    // Left partly built: nothing after the failing step exists.
    QVERIFY(ui->service() == nullptr);
    QVERIFY(ui->keepAliveTimer() == nullptr);
    QVERIFY(!ServerLauncher::isListening(socketName()));
    // Getters and setters stay harmless.
    QCOMPARE(ui->GetMsgStatus(), -2);
    QString pin = QStringLiteral("untouched");
    QCOMPARE(ui->GetDefaultPIN(pin), -1);
    QCOMPARE(pin, QStringLiteral("untouched"));
    ui->SetListSelectStatus(0, 2);
    int status = 9, index = 9;
    ui->GetListSelectStatus(status, index);
    QCOMPARE(status, 0);
    QCOMPARE(index, 2);
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
    QFile ini(simDir.filePath("tokensim.ini"));
    QVERIFY(ini.open(QIODevice::WriteOnly));
    ini.write("[pin]\nmin=4\nmax=12\n");
    ini.close();
    qputenv("ZRTOKENSIM_CONF", QFile::encodeName(ini.fileName()));

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
}

void TestUIService::testMessageAndListStatus()
{
    std::unique_ptr<UI_Service> ui = make(QString());
    QVERIFY(ui && ui->service());

    QCOMPARE(ui->GetMsgStatus(), -2);
    ui->SetMsgStatus(-1);
    QCOMPARE(ui->GetMsgStatus(), -1);
    ui->SetMsgStatus(1);
    QCOMPARE(ui->GetMsgStatus(), 1);
    ui->SetMsgStatus(0);
    QCOMPARE(ui->GetMsgStatus(), 0);

    int status = 0, index = 0;
    ui->SetListSelectStatus(-1, 0);
    // Type 1: answered at once, without a window.
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

    // Type 0 shows the dialog; a final status closes and deletes it.
    ui->on_list_dialog_show(0, QStringLiteral("first\nsecond"));
    QPointer<CertListDialog> list = ui->currentListDialog();
    QVERIFY(list);
    QVERIFY(list->isVisible());
    ui->SetListSelectStatus(1, 1);
    QVERIFY(list.isNull());
    QVERIFY(ui->currentListDialog() == nullptr);
    ui->GetListSelectStatus(status, index);
    QCOMPARE(status, 1);
    QCOMPARE(index, 1);

    // -1 from the socket thread never touches a dialog.
    ui->on_message_dialog_show(QStringLiteral("t"), QStringLiteral("m"), 0);
    QPointer<MessageDialog> message = ui->currentMessageDialog();
    QVERIFY(message);
    ui->SetMsgStatus(-1);
    QVERIFY(message);
    ui->SetMsgStatus(1);
    QVERIFY(message.isNull());
    QVERIFY(ui->currentMessageDialog() == nullptr);
}

void TestUIService::testSignalsReachSlots()
{
    if (!QFile::exists(ServerLauncher::resourceVariantDir("keepalive2") + "/resources.rcc"))
        QSKIP("test resource variant keepalive2 not built");
    std::unique_ptr<UI_Service> ui = make(QStringLiteral("keepalive2"));
    QVERIFY(ui && ui->service());
    FIFO_Service *service = ui->service();
    // StartPipe() reached CreatePipeAndListen() in the service thread.
    QTRY_VERIFY_WITH_TIMEOUT(ServerLauncher::isListening(socketName()), 10000);

    // Emitted here, in the GUI thread: the automatic connections are direct.
    auto emitSignal = [service](const char *signal, QGenericArgument a = QGenericArgument(),
                                QGenericArgument b = QGenericArgument(),
                                QGenericArgument c = QGenericArgument()) {
        return QMetaObject::invokeMethod(service, signal, Qt::DirectConnection, a, b, c);
    };

    ui->SetListSelectStatus(-1, 0);
    QVERIFY(emitSignal("show_list_dialog", Q_ARG(unsigned long, 1ul), Q_ARG(QString, "x")));
    int status = 0, index = 0;
    ui->GetListSelectStatus(status, index);
    QCOMPARE(status, 1);
    QCOMPARE(index, -1);

    QVERIFY(emitSignal("show_message_dialog", Q_ARG(QString, "title"), Q_ARG(QString, "text"),
                       Q_ARG(unsigned long, 0ul)));
    QVERIFY(ui->currentMessageDialog() != nullptr);
    ui->SetMsgStatus(0);
    QVERIFY(ui->currentMessageDialog() == nullptr);

    QVERIFY(emitSignal("show_waiting_dialog", Q_ARG(QString, "info"), Q_ARG(unsigned long, 0ul)));
    QVERIFY(ui->currentWaitingDialog() != nullptr);
    QVERIFY(emitSignal("hide_waiting_dialog"));
    QVERIFY(ui->currentWaitingDialog() == nullptr);

    QVERIFY(emitSignal("show_pin_dialog", Q_ARG(unsigned long, 0ul)));
    QVERIFY(ui->currentPinDialog() != nullptr);
    QVERIFY(emitSignal("hide_pin_dialog"));
    QVERIFY(ui->currentPinDialog() == nullptr);

    QTimer *timer = ui->keepAliveTimer();
    QVERIFY(timer);
    // Listening has already asked for the timer (no session open).
    QTRY_VERIFY_WITH_TIMEOUT(timer->isActive(), 5000);
    QVERIFY(emitSignal("stopExitTimer"));
    QVERIFY(!timer->isActive());
    QVERIFY(emitSignal("startExitTimer"));
    QVERIFY(timer->isActive());
    QVERIFY(emitSignal("stopExitTimer"));
    QVERIFY(!timer->isActive());

    // start_pipe_failed() quits the application at once.
    QCoreApplication::sendPostedEvents();
    // Nothing asked for a quit yet: the loop must run to its deadline.
    QVERIFY(!quitArrives(300));
    bool emitted = false;
    QTimer::singleShot(0, this, [&]() {
        emitted = true;
        emitSignal("start_pipe_failed");
    });
    QVERIFY(quitArrives(10000));
    QVERIFY(emitted);
}

void TestUIService::testPinDialogReplacedAndHidden()
{
    std::unique_ptr<UI_Service> ui = make(QString());
    QVERIFY(ui && ui->service());

    ui->on_pin_dialog_show(0);
    QPointer<PINDialog> first = ui->currentPinDialog();
    QVERIFY(first);
    QVERIFY(first->isVisible());
    unsigned char *buffer = nullptr;
    unsigned long length = 0;
    QByteArray result = QByteArray::fromHex("06000000313131313131") + QByteArray(4, '\0');
    ui->SetPINStatus(1, reinterpret_cast<unsigned char *>(result.data()), ulong(result.size()));
    // OK hides the dialog but keeps it.
    QVERIFY(first);
    QVERIFY(!first->isVisible());
    QCOMPARE(ui->GetPINStatus(&buffer, &length), 1);
    QCOMPARE(length, 14ul);

    // The next request destroys it first and starts from a wiped buffer.
    ui->on_pin_dialog_show(1);
    QVERIFY(first.isNull());
    QPointer<PINDialog> second = ui->currentPinDialog();
    QVERIFY(second);
    QCOMPARE(ui->GetPINStatus(&buffer, &length), -1);
    QCOMPARE(length, 0ul);
    QCOMPARE(QByteArray(reinterpret_cast<char *>(buffer), 14), QByteArray(14, '\0'));

    // Cancel destroys it.
    ui->SetPINStatus(0, nullptr, 0);
    QVERIFY(second.isNull());
    QVERIFY(ui->currentPinDialog() == nullptr);
    QCOMPARE(ui->GetPINStatus(&buffer, &length), 0);
}

void TestUIService::testKeepAliveTimerStopsListening()
{
    if (!QFile::exists(ServerLauncher::resourceVariantDir("keepalive2") + "/resources.rcc"))
        QSKIP("test resource variant keepalive2 not built");
    std::unique_ptr<UI_Service> ui = make(QStringLiteral("keepalive2"));
    QVERIFY(ui && ui->service());
    QTRY_VERIFY_WITH_TIMEOUT(ServerLauncher::isListening(socketName()), 10000);
    QTimer *timer = ui->keepAliveTimer();
    QVERIFY(timer);
    // Listening started the timer (no session open).
    QTRY_VERIFY_WITH_TIMEOUT(timer->isActive(), 5000);
    // The tick stops listening directly; the accept loop ends within a second.
    QTRY_VERIFY_WITH_TIMEOUT(!ServerLauncher::isListening(socketName()), 10000);
}

QTEST_MAIN(TestUIService)
#include "TestUIService.moc"
