// Dialog round trips through the real coordinator: UI_Service built in this
// process (stand-in token libraries, the signed resource file, the socket
// service in its own thread), a client speaking the protocol through the
// client library from a worker thread, and QTest acting as the user on the
// real dialogs shown offscreen.
#include "ServerLauncher.h"
#include "client/zrui_client.h"
#include "service/FIFO_Service.h"
#include "service/Protocol.h"
#include "ui/CertListDialog.h"
#include "ui/MessageDialog.h"
#include "ui/PINDialog.h"
#include "ui/UI_Service.h"
#include "ui/WaitingDialog.h"

#include <QComboBox>
#include <QDir>
#include <QFile>
#include <QLabel>
#include <QLineEdit>
#include <QPointer>
#include <QProcessEnvironment>
#include <QPushButton>
#include <QResource>
#include <QTemporaryDir>
#include <QThread>
#include <QTranslator>
#include <QtTest>

#include <atomic>
#include <memory>
#include <mutex>
#include <sys/socket.h>
#include <thread>
#include <unistd.h>

namespace {

// Every wait for the other thread or for a window ends here at the latest.
const int DEADLINE_MS = 10000;

QByteArray u32(quint32 v) { return QByteArray(reinterpret_cast<const char *>(&v), 4); }

QByteArray withText(quint32 v, const char *text) { return u32(v) + QByteArray(text) + '\0'; }

// One response as the client saw it.
struct Reply
{
    int rc = ZRUI_E_IO; // transport result of zrui_request
    quint32 resp = 0xFFFFFFFFu; // response code
    QByteArray data;
};

/*
 * One request on a worker thread, so that the GUI thread keeps running its
 * event loop (the dialogs and the queued show/hide signals live there) while
 * the client waits, possibly for a long time (REQ_PIN_Retry, REQ_MessageBox).
 * If the answer never comes, take() shuts the socket down, which ends the
 * blocked read: a failing test never hangs.
 */
class PendingRequest
{
public:
    PendingRequest(zrui_conn *conn, quint32 op, const QByteArray &data)
        : fd(zrui_fd(conn))
    {
        worker = std::thread([this, conn, op, data]() {
            QByteArray out(COMMPACK_MAX_DATA, '\0');
            uint32_t resp = 0xFFFFFFFFu;
            uint32_t outLen = 0;
            reply.rc = zrui_request(conn, op, data.isEmpty() ? nullptr : data.constData(),
                                    uint32_t(data.size()), &resp, out.data(), uint32_t(out.size()),
                                    &outLen);
            reply.resp = resp;
            reply.data = out.left(int(outLen));
            finished.store(true, std::memory_order_release);
        });
    }
    ~PendingRequest() { take(); }
    PendingRequest(const PendingRequest &) = delete;
    PendingRequest &operator=(const PendingRequest &) = delete;

    bool isFinished() const { return finished.load(std::memory_order_acquire); }

    // Waits for the response with the event loop running.
    bool waitFinished(int timeoutMs = DEADLINE_MS)
    {
        return QTest::qWaitFor([this]() { return isFinished(); }, timeoutMs);
    }

    Reply take()
    {
        if (worker.joinable()) {
            if (!isFinished() && fd >= 0)
                ::shutdown(fd, SHUT_RDWR);
            worker.join();
        }
        return reply;
    }

private:
    int fd;
    Reply reply;
    std::atomic<bool> finished{false};
    std::thread worker;
};

// Everything logged while a test runs, to prove that PIN bytes never show.
std::mutex g_logMutex;
QStringList g_logLines;
QtMessageHandler g_previousHandler = nullptr;

void captureMessage(QtMsgType type, const QMessageLogContext &context, const QString &message)
{
    {
        std::lock_guard<std::mutex> lock(g_logMutex);
        g_logLines << message;
    }
    // The service traces every step; keep the test output readable.
    if (type != QtDebugMsg || qEnvironmentVariableIsSet("ZRUI_RT_VERBOSE"))
        g_previousHandler(type, context, message);
}

QStringList capturedLog()
{
    std::lock_guard<std::mutex> lock(g_logMutex);
    return g_logLines;
}

// Empty when none of the PIN's forms appears in the log, else the line.
QString logLineHolding(const QByteArray &pin)
{
    if (pin.isEmpty())
        return QString();
    const QString needles[] = {QString::fromUtf8(pin), QString::fromLatin1(pin.toHex()),
                               QString::fromLatin1(pin.toHex(' '))};
    for (const QString &line : capturedLog()) {
        for (const QString &needle : needles) {
            if (line.contains(needle, Qt::CaseInsensitive))
                return line;
        }
    }
    return QString();
}

QString trPin(const char *source) { return QCoreApplication::translate("PINDialog", source); }

QString lengthText(int minLen, int maxLen)
{
    return trPin("The password must be %1-%2 characters").arg(minLen).arg(maxLen);
}

// Visible top-level windows of this process.
int visibleWindowCount()
{
    int count = 0;
    for (QWidget *w : QApplication::topLevelWidgets()) {
        if (w->isVisible())
            ++count;
    }
    return count;
}

} // namespace

// The response code and data bytes of a finished request, compared exactly.
#define COMPARE_REPLY(reply, expectedResp, expectedHex) \
    do { \
        const Reply r_ = (reply); \
        QCOMPARE(r_.rc, int(ZRUI_OK)); \
        QCOMPARE(r_.resp, quint32(expectedResp)); \
        QCOMPARE(r_.data.toHex(' '), QByteArray::fromHex(expectedHex).toHex(' ')); \
    } while (0)

class TestDialogRoundTrip : public QObject
{
    Q_OBJECT

private slots:
    void initTestCase();
    void init();
    void cleanup();
    void cleanupTestCase();

    void testPinTypedAndConfirmed_data();
    void testPinTypedAndConfirmed();
    void testPinInputRefused_data();
    void testPinInputRefused();
    void testPinCancelled_data();
    void testPinCancelled();
    void testRetryAfterWrongPin_data();
    void testRetryAfterWrongPin();
    void testMessageBox_data();
    void testMessageBox();
    void testListSelection_data();
    void testListSelection();
    void testListTypeOneWithoutWindow();
    void testDisconnectHidesWindows_data();
    void testDisconnectHidesWindows();

private:
    // Runs one request on a worker thread while the event loop runs here.
    Reply call(quint32 op, const QByteArray &data = QByteArray());
    // Repeats a polling request while it answers UI_NO_RESULT.
    Reply pollWhileNoResult(quint32 op);
    bool connectClient();
    // Connects and opens a session (REQ_BeginSession answered 0).
    bool beginSession();
    // REQ_PIN_Show answered 0 and the dialog on screen; null otherwise.
    PINDialog *showPinDialog(quint32 type);
    void useTranslator(const QString &tag);
    // Types into the visible PIN fields of a change dialog and presses OK;
    // false when a field is missing or the dialog did not accept.
    static bool typeAndConfirm(PINDialog *dialog, const char *oldPin, const char *newPin);

    std::unique_ptr<QTemporaryDir> sandbox;
    QString savedCwd;
    QString resourceFile;
    QByteArray appName;
    QTranslator english;
    QTranslator chinese;
    bool chineseInstalled = false;
    std::unique_ptr<UI_Service> ui;
    std::shared_ptr<std::atomic<bool>> serviceThreadDone;
    zrui_conn *conn = nullptr;

    static constexpr int PIN_MIN = 6;
    static constexpr int PIN_MAX = 16;
};

void TestDialogRoundTrip::initTestCase()
{
    // The socket name is the application name plus the user id: unique per
    // test binary run, so parallel runs in other build trees do not collide.
    QCoreApplication::setApplicationName(
            QStringLiteral("TestDialogRoundTrip%1x").arg(QCoreApplication::applicationPid()));
    appName = QCoreApplication::applicationName().toUtf8();

    const QProcessEnvironment env = QProcessEnvironment::systemEnvironment();
    const QString binDir = env.value("ZRUI_BIN_DIR");
    const QByteArray libDir = env.value("ZRUI_TOKENSIM_DIR").toLocal8Bit();
    QVERIFY(!binDir.isEmpty());
    QVERIFY(libDir.endsWith('/'));

    // Working directory as the coordinator expects it: ZRUIConf.ini and the
    // signed resource file; the stand-in token stack with fixed PIN bounds.
    sandbox.reset(new QTemporaryDir());
    QVERIFY(sandbox->isValid());
    for (const char *name : {"resources.rcc", "integrityprotect.ini"})
        QVERIFY2(QFile::copy(binDir + "/" + name, sandbox->filePath(name)), name);
    QFile conf(sandbox->filePath("ZRUIConf.ini"));
    QVERIFY(conf.open(QIODevice::WriteOnly));
    conf.write("SAFEPATH=" + libDir + "\n");
    conf.close();
    QFile sim(sandbox->filePath("tokensim.ini"));
    QVERIFY(sim.open(QIODevice::WriteOnly));
    sim.write("[pin]\nmin=6\nmax=16\n[token]\npresent=1\n");
    sim.close();
    qputenv("ZRTOKENSIM_CONF", QFile::encodeName(sim.fileName()));

    // As main does: the resource file under ":/", then the translator.
    resourceFile = sandbox->filePath("resources.rcc");
    QVERIFY(QResource::registerResource(resourceFile, QString()));
    QVERIFY(english.load(":/uiserver.en.qm", QString(), QString(), QString()));
    QVERIFY(chinese.load(":/uiserver.zh_CN.qm", QString(), QString(), QString()));
    QVERIFY(!english.isEmpty());
    QVERIFY(!chinese.isEmpty());
    QVERIFY(QCoreApplication::installTranslator(&english));

    savedCwd = QDir::currentPath();
    QVERIFY(QDir::setCurrent(sandbox->path()));
    g_previousHandler = qInstallMessageHandler(captureMessage);
}

void TestDialogRoundTrip::cleanupTestCase()
{
    qInstallMessageHandler(g_previousHandler);
    {
        // Emptied under the lock: the service threads' last appends are
        // seen before the list goes with the static data.
        std::lock_guard<std::mutex> lock(g_logMutex);
        g_logLines.clear();
    }
    QDir::setCurrent(savedCwd);
    QCoreApplication::removeTranslator(&english);
    QResource::unregisterResource(resourceFile, QString());
    qunsetenv("ZRTOKENSIM_CONF");
}

void TestDialogRoundTrip::init()
{
    // A destroyed coordinator's service thread posts a quit() on its way
    // out; consume it here.
    QCoreApplication::sendPostedEvents();
    QCoreApplication::processEvents();
    {
        std::lock_guard<std::mutex> lock(g_logMutex);
        g_logLines.clear();
    }
    ui.reset(new UI_Service(1.0f, nullptr));
    QVERIFY(ui->service() != nullptr);
    // Runs in the service thread as its last act: a release that the
    // teardown acquires (QThread::wait() synchronises inside QtCore, where
    // ThreadSanitizer cannot see it).
    serviceThreadDone = std::make_shared<std::atomic<bool>>(false);
    std::shared_ptr<std::atomic<bool>> done = serviceThreadDone;
    connect(
            ui->service()->thread(), &QThread::finished, ui->service(),
            [done]() { done->store(true, std::memory_order_release); }, Qt::DirectConnection);
    QCOMPARE(ui->GetPINMinLen(), PIN_MIN);
    QCOMPARE(ui->GetPINMaxLen(), PIN_MAX);
    const QString socket = QString::fromUtf8(appName) + QString::number(getuid());
    QTRY_VERIFY_WITH_TIMEOUT(ServerLauncher::isListening(socket), DEADLINE_MS);
}

void TestDialogRoundTrip::cleanup()
{
    // A failed test may leave the service thread waiting for a message
    // answer: give it one, or the coordinator's destructor would wait for
    // that thread forever.
    QCoreApplication::processEvents();
    if (ui && ui->GetMsgStatus() == -1)
        ui->SetMsgStatus(0);
    if (conn) {
        zrui_close(conn);
        conn = nullptr;
    }
    if (ui) {
        ui->on_pin_dialog_hide();
        ui->on_waiting_dialog_hide();
        ui->on_message_dialog_hide();
        ui->on_list_dialog_hide();
        // What the destructor does first, done here so that the end of the
        // service thread is seen through the flag before anything is freed.
        if (FIFO_Service *service = ui->service()) {
            QThread *thread = service->thread();
            QElapsedTimer clock;
            clock.start();
            while (!serviceThreadDone->load(std::memory_order_acquire)
                   && clock.elapsed() < DEADLINE_MS) {
                service->StopPipeListening();
                thread->quit();
                QTest::qWait(20);
            }
            if (!serviceThreadDone->load(std::memory_order_acquire))
                qWarning("service thread still running after %d ms", DEADLINE_MS);
        }
        ui.reset();
    }
    if (chineseInstalled) {
        QCoreApplication::removeTranslator(&chinese);
        chineseInstalled = false;
    }
}

Reply TestDialogRoundTrip::call(quint32 op, const QByteArray &data)
{
    if (!conn)
        return Reply();
    PendingRequest request(conn, op, data);
    request.waitFinished();
    return request.take();
}

Reply TestDialogRoundTrip::pollWhileNoResult(quint32 op)
{
    Reply reply;
    QElapsedTimer clock;
    clock.start();
    do {
        reply = call(op);
        if (reply.rc != ZRUI_OK || reply.resp != UI_NO_RESULT)
            break;
        QTest::qWait(20);
    } while (clock.elapsed() < DEADLINE_MS);
    return reply;
}

bool TestDialogRoundTrip::connectClient()
{
    const int rc = zrui_open(appName.constData(), &conn);
    if (rc != ZRUI_OK) {
        qWarning("zrui_open: %s", zrui_strerror(rc));
        conn = nullptr;
        return false;
    }
    return true;
}

bool TestDialogRoundTrip::beginSession()
{
    if (!connectClient())
        return false;
    const Reply reply = call(REQ_BeginSession, QByteArray(2, '\0') + QByteArray(8, '\0'));
    return reply.rc == ZRUI_OK && reply.resp == UI_OK && reply.data.isEmpty();
}

PINDialog *TestDialogRoundTrip::showPinDialog(quint32 type)
{
    const Reply reply = call(REQ_PIN_Show, u32(type));
    if (reply.rc != ZRUI_OK || reply.resp != UI_OK || !reply.data.isEmpty()) {
        qWarning("REQ_PIN_Show: rc %d resp %u", reply.rc, reply.resp);
        return nullptr;
    }
    // The response goes out before the GUI thread has shown the dialog.
    if (!QTest::qWaitFor(
                [this]() { return ui->currentPinDialog() && ui->currentPinDialog()->isVisible(); },
                DEADLINE_MS))
        return nullptr;
    return ui->currentPinDialog();
}

void TestDialogRoundTrip::useTranslator(const QString &tag)
{
    if (tag == QLatin1String("zh_CN") && !chineseInstalled) {
        QCoreApplication::installTranslator(&chinese);
        chineseInstalled = true;
    }
}

bool TestDialogRoundTrip::typeAndConfirm(PINDialog *dialog, const char *oldPin, const char *newPin)
{
    auto *oldEdit = dialog->findChild<QLineEdit *>("lineEdit_oldPin");
    auto *newEdit = dialog->findChild<QLineEdit *>("lineEdit_newPin");
    auto *confirmEdit = dialog->findChild<QLineEdit *>("lineEdit_confirmPin");
    auto *ok = dialog->findChild<QPushButton *>("pushButton_OK");
    if (!oldEdit || !newEdit || !confirmEdit || !ok)
        return false;
    QTest::keyClicks(oldEdit, QString::fromLatin1(oldPin));
    QTest::keyClicks(newEdit, QString::fromLatin1(newPin));
    QTest::keyClicks(confirmEdit, QString::fromLatin1(newPin));
    QTest::mouseClick(ok, Qt::LeftButton);
    // Accepted: the coordinator hides the dialog (and keeps it).
    return !dialog->isVisible();
}

// ---------------------------------------------------------------------------

enum Submit { ClickOk, ReturnInOld, ReturnInConfirm };
Q_DECLARE_METATYPE(Submit)

void TestDialogRoundTrip::testPinTypedAndConfirmed_data()
{
    QTest::addColumn<quint32>("type");
    QTest::addColumn<QString>("title");
    QTest::addColumn<QByteArray>("oldPin");
    QTest::addColumn<QByteArray>("newPin");
    QTest::addColumn<QByteArray>("confirmPin");
    QTest::addColumn<Submit>("submit");
    QTest::addColumn<QByteArray>("expectedHex");

    QTest::newRow("verify user PIN, OK button")
            << 0u << "Verify USBKey password" << QByteArray("aaaaaa") << QByteArray()
            << QByteArray() << ClickOk << QByteArray("06000000 616161616161 00000000");
    // The old PIN is checked for its length only: a descending run passes.
    QTest::newRow("verify so PIN, Return in the PIN field")
            << 1u << "Verify USBKey so password" << QByteArray("87654321") << QByteArray()
            << QByteArray() << ReturnInOld << QByteArray("08000000 3837363534333231 00000000");
    QTest::newRow("unblock") << 4u << "Unblock USBKey password" << QByteArray("Adm1nPin")
                             << QByteArray() << QByteArray() << ClickOk
                             << QByteArray("08000000 41646d316e50696e 00000000");
    QTest::newRow("change, Return in the confirm field")
            << 2u << "Change USBKey password" << QByteArray("aaaaaa") << QByteArray("aB3xY9")
            << QByteArray("aB3xY9") << ReturnInConfirm
            << QByteArray("06000000 616161616161 06000000 614233785939");
    // Typing beyond the maximum from the shared record is cut at 16.
    QTest::newRow("change so PIN, cut at the maximum length")
            << 3u << "Change USBKey so password" << QByteArray("123456")
            << QByteArray("Abcdefgh12345678XYZ") << QByteArray("Abcdefgh12345678XYZ") << ClickOk
            << QByteArray("06000000 313233343536 10000000 41626364656667683132333435363738");
    QTest::newRow("set PIN, OK button")
            << 5u << "Set USBKey password" << QByteArray() << QByteArray("a1b2c3")
            << QByteArray("a1b2c3") << ClickOk << QByteArray("00000000 06000000 613162326333");
}

void TestDialogRoundTrip::testPinTypedAndConfirmed()
{
    QFETCH(quint32, type);
    QFETCH(QString, title);
    QFETCH(QByteArray, oldPin);
    QFETCH(QByteArray, newPin);
    QFETCH(QByteArray, confirmPin);
    QFETCH(Submit, submit);
    QFETCH(QByteArray, expectedHex);

    QVERIFY(beginSession());
    QPointer<PINDialog> dialog = showPinDialog(type);
    QVERIFY(dialog);
    QCOMPARE(dialog->windowTitle(), trPin(title.toUtf8().constData()));
    auto *oldEdit = dialog->findChild<QLineEdit *>("lineEdit_oldPin");
    auto *newEdit = dialog->findChild<QLineEdit *>("lineEdit_newPin");
    auto *confirmEdit = dialog->findChild<QLineEdit *>("lineEdit_confirmPin");
    auto *ok = dialog->findChild<QPushButton *>("pushButton_OK");
    QVERIFY(oldEdit && newEdit && confirmEdit && ok);
    QCOMPARE(oldEdit->isVisible(), !oldPin.isEmpty());
    QCOMPARE(newEdit->isVisible(), !newPin.isEmpty());
    QCOMPARE(confirmEdit->isVisible(), !confirmPin.isEmpty());

    // Nothing entered yet.
    COMPARE_REPLY(call(REQ_PIN_GetPIN), UI_NO_RESULT, "");

    if (!oldPin.isEmpty())
        QTest::keyClicks(oldEdit, QString::fromUtf8(oldPin));
    if (!newPin.isEmpty())
        QTest::keyClicks(newEdit, QString::fromUtf8(newPin));
    if (!confirmPin.isEmpty())
        QTest::keyClicks(confirmEdit, QString::fromUtf8(confirmPin));
    // Typed, but not confirmed.
    COMPARE_REPLY(call(REQ_PIN_GetPIN), UI_NO_RESULT, "");
    QVERIFY(dialog->isVisible());

    switch (submit) {
    case ClickOk:
        QTest::mouseClick(ok, Qt::LeftButton);
        break;
    case ReturnInOld:
        QTest::keyClick(oldEdit, Qt::Key_Return);
        break;
    case ReturnInConfirm:
        QTest::keyClick(confirmEdit, Qt::Key_Return);
        break;
    }
    // Accepted: hidden, kept until the session lets it go.
    QVERIFY(dialog);
    QVERIFY(!dialog->isVisible());
    COMPARE_REPLY(call(REQ_PIN_GetPIN), UI_OK, expectedHex);
    // Asked again, the same result.
    COMPARE_REPLY(call(REQ_PIN_GetPIN), UI_OK, expectedHex);

    COMPARE_REPLY(call(REQ_PIN_Finish), UI_OK, "");
    QTRY_VERIFY_WITH_TIMEOUT(dialog.isNull(), DEADLINE_MS);
    QVERIFY(ui->currentPinDialog() == nullptr);
    COMPARE_REPLY(call(REQ_EndSession), UI_OK, "");

    for (const QByteArray &pin : {oldPin, newPin.left(PIN_MAX)}) {
        const QString line = logLineHolding(pin);
        QVERIFY2(line.isEmpty(), qPrintable("PIN in the log: " + line));
    }
}

// ---------------------------------------------------------------------------

void TestDialogRoundTrip::testPinInputRefused_data()
{
    QTest::addColumn<quint32>("type");
    QTest::addColumn<QByteArray>("oldPin");
    QTest::addColumn<QByteArray>("newPin");
    QTest::addColumn<QByteArray>("confirmPin");
    // Translation source of the comment, or "length" for the length text.
    QTest::addColumn<QByteArray>("comment");
    // Field contents after the refusal.
    QTest::addColumn<QString>("oldAfter");
    QTest::addColumn<QString>("newAfter");
    QTest::addColumn<QString>("confirmAfter");
    QTest::addColumn<QByteArray>("expectedHex");

    const QByteArray weak("IDC_CUSTOM_PIN_ANNOTATION_2");
    const QByteArray mismatch("Please confirm that new USBKey password is entered identiacally!");
    const QByteArray change("06000000 616161616161 06000000 613162326333");

    QTest::newRow("weak new PIN") << 2u << QByteArray("aaaaaa") << QByteArray("banana")
                                  << QByteArray("banana") << weak << "aaaaaa"
                                  << ""
                                  << "" << change;
    QTest::newRow("forbidden new PIN (ascending run)")
            << 2u << QByteArray("aaaaaa") << QByteArray("123456") << QByteArray("123456") << weak
            << "aaaaaa"
            << ""
            << "" << change;
    QTest::newRow("new PIN confirmed differently")
            << 2u << QByteArray("aaaaaa") << QByteArray("a1b2c3") << QByteArray("a1b2c4")
            << mismatch << "aaaaaa"
            << ""
            << "" << change;
    QTest::newRow("new PIN too short") << 2u << QByteArray("aaaaaa") << QByteArray("a1b2c")
                                       << QByteArray("a1b2c") << QByteArray("length") << "aaaaaa"
                                       << ""
                                       << "" << change;
    // The old PIN is checked first; the new fields stay as typed.
    QTest::newRow("old PIN too short") << 2u << QByteArray("aaaaa") << QByteArray("a1b2c3")
                                       << QByteArray("a1b2c3") << QByteArray("length") << ""
                                       << "a1b2c3"
                                       << "a1b2c3" << change;
    QTest::newRow("set PIN weak") << 5u << QByteArray() << QByteArray("banana")
                                  << QByteArray("banana") << weak << ""
                                  << ""
                                  << "" << QByteArray("00000000 06000000 613162326333");
}

void TestDialogRoundTrip::testPinInputRefused()
{
    QFETCH(quint32, type);
    QFETCH(QByteArray, oldPin);
    QFETCH(QByteArray, newPin);
    QFETCH(QByteArray, confirmPin);
    QFETCH(QByteArray, comment);
    QFETCH(QString, oldAfter);
    QFETCH(QString, newAfter);
    QFETCH(QString, confirmAfter);
    QFETCH(QByteArray, expectedHex);

    const QString expectedComment
            = comment == "length" ? lengthText(PIN_MIN, PIN_MAX) : trPin(comment.constData());
    if (comment == "IDC_CUSTOM_PIN_ANNOTATION_2")
        QVERIFY2(expectedComment != QLatin1String(comment), "no translation for the key");

    QVERIFY(beginSession());
    QPointer<PINDialog> dialog = showPinDialog(type);
    QVERIFY(dialog);
    auto *oldEdit = dialog->findChild<QLineEdit *>("lineEdit_oldPin");
    auto *newEdit = dialog->findChild<QLineEdit *>("lineEdit_newPin");
    auto *confirmEdit = dialog->findChild<QLineEdit *>("lineEdit_confirmPin");
    auto *comments = dialog->findChild<QLabel *>("label_comments");
    auto *ok = dialog->findChild<QPushButton *>("pushButton_OK");
    QVERIFY(oldEdit && newEdit && confirmEdit && comments && ok);

    if (!oldPin.isEmpty())
        QTest::keyClicks(oldEdit, QString::fromUtf8(oldPin));
    QTest::keyClicks(newEdit, QString::fromUtf8(newPin));
    QTest::keyClicks(confirmEdit, QString::fromUtf8(confirmPin));
    QTest::mouseClick(ok, Qt::LeftButton);

    // Refused: still on screen, the reason shown, nothing handed over.
    QVERIFY(dialog);
    QVERIFY(dialog->isVisible());
    QCOMPARE(comments->text(), expectedComment);
    QCOMPARE(oldEdit->text(), oldAfter);
    QCOMPARE(newEdit->text(), newAfter);
    QCOMPARE(confirmEdit->text(), confirmAfter);
    COMPARE_REPLY(call(REQ_PIN_GetPIN), UI_NO_RESULT, "");

    // The same dialog then takes a good entry.
    if (oldEdit->isVisible() && oldEdit->text().isEmpty())
        QTest::keyClicks(oldEdit, QStringLiteral("aaaaaa"));
    if (newEdit->text().isEmpty()) {
        QTest::keyClicks(newEdit, QStringLiteral("a1b2c3"));
        QTest::keyClicks(confirmEdit, QStringLiteral("a1b2c3"));
    }
    QTest::mouseClick(ok, Qt::LeftButton);
    QVERIFY(dialog);
    QVERIFY(!dialog->isVisible());
    COMPARE_REPLY(call(REQ_PIN_GetPIN), UI_OK, expectedHex);
    COMPARE_REPLY(call(REQ_PIN_Finish), UI_OK, "");
    COMPARE_REPLY(call(REQ_EndSession), UI_OK, "");
}

// ---------------------------------------------------------------------------

void TestDialogRoundTrip::testPinCancelled_data()
{
    QTest::addColumn<quint32>("type");
    QTest::addColumn<bool>("windowManagerClose");

    QTest::newRow("verify, Cancel button") << 0u << false;
    QTest::newRow("change, Cancel button") << 2u << false;
    QTest::newRow("verify, closed by the window manager") << 0u << true;
    QTest::newRow("set, closed by the window manager") << 5u << true;
}

void TestDialogRoundTrip::testPinCancelled()
{
    QFETCH(quint32, type);
    QFETCH(bool, windowManagerClose);

    QVERIFY(beginSession());
    QPointer<PINDialog> dialog = showPinDialog(type);
    QVERIFY(dialog);
    auto *cancel = dialog->findChild<QPushButton *>("pushButton_Cancel");
    auto *newEdit = dialog->findChild<QLineEdit *>("lineEdit_newPin");
    QVERIFY(cancel && newEdit);
    if (newEdit->isVisible())
        QTest::keyClicks(newEdit, QStringLiteral("a1b2c3"));

    if (windowManagerClose) {
        dialog->close();
        // The answer comes from the event loop, once.
        QTRY_VERIFY_WITH_TIMEOUT(dialog.isNull(), DEADLINE_MS);
    } else {
        QTest::mouseClick(cancel, Qt::LeftButton);
        QVERIFY(dialog.isNull());
    }
    QVERIFY(ui->currentPinDialog() == nullptr);
    COMPARE_REPLY(call(REQ_PIN_GetPIN), UI_USER_CANCEL, "");
    COMPARE_REPLY(call(REQ_PIN_GetPIN), UI_USER_CANCEL, "");
    COMPARE_REPLY(call(REQ_PIN_Finish), UI_OK, "");
    COMPARE_REPLY(call(REQ_EndSession), UI_OK, "");
    QCOMPARE(visibleWindowCount(), 0);
}

// ---------------------------------------------------------------------------

enum RetryAnswer { AnswerRetry, AnswerCancel, AnswerClose };
Q_DECLARE_METATYPE(RetryAnswer)

void TestDialogRoundTrip::testRetryAfterWrongPin_data()
{
    QTest::addColumn<quint32>("tries");
    QTest::addColumn<QString>("language");
    QTest::addColumn<RetryAnswer>("answer");
    // After a cancelled retry: the next request and its response.
    QTest::addColumn<quint32>("nextOp");
    QTest::addColumn<quint32>("nextResp");

    QTest::newRow("3 tries left, Retry, en") << 3u << "en" << AnswerRetry << 0u << 0u;
    QTest::newRow("0 tries left, Retry, zh_CN") << 0u << "zh_CN" << AnswerRetry << 0u << 0u;
    QTest::newRow("default PIN forbidden, Retry, en")
            << 0xFFFFFFFFu << "en" << AnswerRetry << 0u << 0u;
    QTest::newRow("3 tries left, Cancel, then EndSession")
            << 3u << "en" << AnswerCancel << quint32(REQ_EndSession) << quint32(UI_OK);
    QTest::newRow("0 tries left, Cancel, then GetPIN refused")
            << 0u << "en" << AnswerCancel << quint32(REQ_PIN_GetPIN) << quint32(UI_STATE_ERROR);
    QTest::newRow("default PIN forbidden, Cancel, then PIN_Show refused, zh_CN")
            << 0xFFFFFFFFu << "zh_CN" << AnswerCancel << quint32(REQ_PIN_Show)
            << quint32(UI_STATE_ERROR);
    QTest::newRow("3 tries left, closed by the window manager, then Retry refused")
            << 3u << "en" << AnswerClose << quint32(REQ_PIN_Retry) << quint32(UI_STATE_ERROR);
}

void TestDialogRoundTrip::testRetryAfterWrongPin()
{
    QFETCH(quint32, tries);
    QFETCH(QString, language);
    QFETCH(RetryAnswer, answer);
    QFETCH(quint32, nextOp);
    QFETCH(quint32, nextResp);

    useTranslator(language);
    const QString expectedTitle
            = QCoreApplication::translate("FIFO_Service", "USBKey password error");
    const QString expectedText
            = tries == 0xFFFFFFFFu
                      ? QCoreApplication::translate("FIFO_Service", "Default PIN Is Forbidden")
                      : QCoreApplication::translate("FIFO_Service", "There are %1 times remaining")
                                .arg(qint32(tries));

    QVERIFY(beginSession());
    QPointer<PINDialog> first = showPinDialog(2);
    QVERIFY(first);
    const QString pinTitle = first->windowTitle();
    QVERIFY(typeAndConfirm(first, "aaaaaa", "a1b2c3"));
    COMPARE_REPLY(call(REQ_PIN_GetPIN), UI_OK, "06000000 616161616161 06000000 613162326333");

    // The token said no: the client blocks until the user answers the box.
    PendingRequest retry(conn, REQ_PIN_Retry, u32(tries));
    QTRY_VERIFY_WITH_TIMEOUT(ui->currentMessageDialog() && ui->currentMessageDialog()->isVisible(),
                             DEADLINE_MS);
    QPointer<MessageDialog> box = ui->currentMessageDialog();
    QVERIFY(!retry.isFinished());
    QCOMPARE(box->windowTitle(), expectedTitle);
    auto *label = box->findChild<QLabel *>("label_message");
    auto *retryButton = box->findChild<QPushButton *>("pushButton_Retry");
    auto *cancelButton = box->findChild<QPushButton *>("pushButton_Cancel");
    auto *okButton = box->findChild<QPushButton *>("pushButton_OK");
    QVERIFY(label && retryButton && cancelButton && okButton);
    QCOMPARE(label->text(), expectedText);
    QVERIFY(retryButton->isVisible());
    QVERIFY(cancelButton->isVisible());
    QVERIFY(!okButton->isVisible());

    switch (answer) {
    case AnswerRetry:
        QTest::mouseClick(retryButton, Qt::LeftButton);
        break;
    case AnswerCancel:
        QTest::mouseClick(cancelButton, Qt::LeftButton);
        break;
    case AnswerClose:
        box->close();
        break;
    }
    QVERIFY(retry.waitFinished());
    COMPARE_REPLY(retry.take(), answer == AnswerRetry ? UI_OK : UI_USER_CANCEL, "");
    QTRY_VERIFY_WITH_TIMEOUT(box.isNull(), DEADLINE_MS);
    QVERIFY(ui->currentMessageDialog() == nullptr);

    if (answer != AnswerRetry) {
        COMPARE_REPLY(call(nextOp, nextOp == REQ_PIN_Show || nextOp == REQ_PIN_Retry
                                           ? u32(0)
                                           : QByteArray()),
                      nextResp, "");
        if (nextResp == UI_STATE_ERROR) {
            // The service has dropped the connection.
            QCOMPARE(call(REQ_EndSession).rc, int(ZRUI_E_CLOSED));
        } else {
            COMPARE_REPLY(call(REQ_BeginSession, QByteArray(10, '\0')), UI_OK, "");
            COMPARE_REPLY(call(REQ_EndSession), UI_OK, "");
        }
        return;
    }

    // A fresh, empty dialog of the same type replaces the hidden one.
    QTRY_VERIFY_WITH_TIMEOUT(first.isNull() && ui->currentPinDialog()
                                     && ui->currentPinDialog()->isVisible(),
                             DEADLINE_MS);
    QPointer<PINDialog> second = ui->currentPinDialog();
    QCOMPARE(second->windowTitle(), pinTitle);
    for (const char *name : {"lineEdit_oldPin", "lineEdit_newPin", "lineEdit_confirmPin"}) {
        auto *edit = second->findChild<QLineEdit *>(name);
        QVERIFY2(edit && edit->isVisible(), name);
        QVERIFY2(edit->text().isEmpty(), name);
    }
    COMPARE_REPLY(call(REQ_PIN_GetPIN), UI_NO_RESULT, "");

    QVERIFY(typeAndConfirm(second, "bbbbbb", "c3d4e5"));
    COMPARE_REPLY(call(REQ_PIN_GetPIN), UI_OK, "06000000 626262626262 06000000 633364346535");
    COMPARE_REPLY(call(REQ_PIN_Finish), UI_OK, "");
    QTRY_VERIFY_WITH_TIMEOUT(second.isNull(), DEADLINE_MS);
    COMPARE_REPLY(call(REQ_EndSession), UI_OK, "");
    for (const QByteArray &pin : {QByteArray("a1b2c3"), QByteArray("c3d4e5")}) {
        const QString line = logLineHolding(pin);
        QVERIFY2(line.isEmpty(), qPrintable("PIN in the log: " + line));
    }
}

// ---------------------------------------------------------------------------

enum BoxAnswer { BoxOk, BoxRetry, BoxCancel, BoxClose };
Q_DECLARE_METATYPE(BoxAnswer)

void TestDialogRoundTrip::testMessageBox_data()
{
    QTest::addColumn<quint32>("type");
    QTest::addColumn<QByteArray>("title");
    QTest::addColumn<QByteArray>("text");
    QTest::addColumn<QString>("shownTitle");
    QTest::addColumn<QString>("shownText");
    QTest::addColumn<BoxAnswer>("answer");
    // What the box told the coordinator (the client sees 0 either way).
    QTest::addColumn<int>("status");

    const auto tr = [](const char *source) {
        return QCoreApplication::translate("MessageDialog", source);
    };
    QTest::newRow("notice with keys, OK")
            << 0u << QByteArray("Title_Warning") << QByteArray("PIN_Locked") << tr("Title_Warning")
            << tr("PIN_Locked") << BoxOk << 1;
    QTest::newRow("notice closed by the window manager")
            << 1u << QByteArray("T1") << QByteArray("hello world") << "T1"
            << "hello world" << BoxClose << 1;
    QTest::newRow("type 5, Retry") << 5u << QByteArray("Ask") << QByteArray("SPACE_FULL_Hint")
                                   << "Ask" << tr("SPACE_FULL_Hint") << BoxRetry << 1;
    QTest::newRow("type 5, Cancel") << 5u << QByteArray("Ask") << QByteArray("go on?") << "Ask"
                                    << "go on?" << BoxCancel << 0;
    QTest::newRow("type 5 closed by the window manager")
            << 5u << QByteArray("Ask") << QByteArray("go on?") << "Ask"
            << "go on?" << BoxClose << 0;
}

void TestDialogRoundTrip::testMessageBox()
{
    QFETCH(quint32, type);
    QFETCH(QByteArray, title);
    QFETCH(QByteArray, text);
    QFETCH(QString, shownTitle);
    QFETCH(QString, shownText);
    QFETCH(BoxAnswer, answer);
    QFETCH(int, status);

    QByteArray data(COMMPACK_MAX_DATA, '\0');
    uint32_t len = 0;
    QCOMPARE(zrui_build_message_box(type, title.constData(), text.constData(),
                                    reinterpret_cast<unsigned char *>(data.data()),
                                    size_t(data.size()), &len),
             int(ZRUI_OK));
    data.truncate(int(len));

    QVERIFY(beginSession());
    for (int round = 0; round < 2; ++round) {
        // A second box on the same session is allowed after the first.
        PendingRequest request(conn, REQ_MessageBox, data);
        QTRY_VERIFY_WITH_TIMEOUT(
                ui->currentMessageDialog() && ui->currentMessageDialog()->isVisible(), DEADLINE_MS);
        QPointer<MessageDialog> box = ui->currentMessageDialog();
        QVERIFY(!request.isFinished());
        QCOMPARE(box->windowTitle(), shownTitle);
        auto *label = box->findChild<QLabel *>("label_message");
        auto *ok = box->findChild<QPushButton *>("pushButton_OK");
        auto *retry = box->findChild<QPushButton *>("pushButton_Retry");
        auto *cancel = box->findChild<QPushButton *>("pushButton_Cancel");
        QVERIFY(label && ok && retry && cancel);
        QCOMPARE(label->text(), shownText);
        QCOMPARE(ok->isVisible(), type != 5);
        QCOMPARE(retry->isVisible(), type == 5);
        QCOMPARE(cancel->isVisible(), type == 5);

        switch (answer) {
        case BoxOk:
            QTest::mouseClick(ok, Qt::LeftButton);
            break;
        case BoxRetry:
            QTest::mouseClick(retry, Qt::LeftButton);
            break;
        case BoxCancel:
            QTest::mouseClick(cancel, Qt::LeftButton);
            break;
        case BoxClose:
            box->close();
            break;
        }
        QVERIFY(request.waitFinished());
        COMPARE_REPLY(request.take(), UI_OK, "");
        QCOMPARE(ui->GetMsgStatus(), status);
        QTRY_VERIFY_WITH_TIMEOUT(box.isNull(), DEADLINE_MS);
        QVERIFY(ui->currentMessageDialog() == nullptr);
    }
    COMPARE_REPLY(call(REQ_EndSession), UI_OK, "");
    QCOMPARE(visibleWindowCount(), 0);
}

// ---------------------------------------------------------------------------

enum ListAnswer { ListOk, ListCancel, ListClose };
Q_DECLARE_METATYPE(ListAnswer)

void TestDialogRoundTrip::testListSelection_data()
{
    QTest::addColumn<ListAnswer>("answer");
    QTest::addColumn<quint32>("resp");
    QTest::addColumn<QByteArray>("expectedHex");

    QTest::newRow("third entry, OK") << ListOk << quint32(UI_OK) << QByteArray("02000000");
    QTest::newRow("Cancel") << ListCancel << quint32(UI_USER_CANCEL) << QByteArray();
    QTest::newRow("closed by the window manager")
            << ListClose << quint32(UI_USER_CANCEL) << QByteArray();
}

void TestDialogRoundTrip::testListSelection()
{
    QFETCH(ListAnswer, answer);
    QFETCH(quint32, resp);
    QFETCH(QByteArray, expectedHex);

    QVERIFY(beginSession());
    COMPARE_REPLY(call(REQ_List_Show, withText(0, "A\nB\nC")), UI_OK, "");
    QTRY_VERIFY_WITH_TIMEOUT(ui->currentListDialog() && ui->currentListDialog()->isVisible(),
                             DEADLINE_MS);
    QPointer<CertListDialog> list = ui->currentListDialog();
    auto *combo = list->findChild<QComboBox *>("comboBox_certlist");
    QVERIFY(combo);
    QCOMPARE(combo->count(), 3);
    QCOMPARE(combo->itemText(0), QStringLiteral("A"));
    QCOMPARE(combo->itemText(1), QStringLiteral("B"));
    QCOMPARE(combo->itemText(2), QStringLiteral("C"));
    QCOMPARE(combo->currentIndex(), 0);
    COMPARE_REPLY(call(REQ_List_GetSel), UI_NO_RESULT, "");

    QTest::keyClick(combo, Qt::Key_Down);
    QTest::keyClick(combo, Qt::Key_Down);
    QCOMPARE(combo->currentText(), QStringLiteral("C"));
    switch (answer) {
    case ListOk:
        QTest::mouseClick(list->findChild<QPushButton *>("pushButton_OK"), Qt::LeftButton);
        QVERIFY(list.isNull());
        break;
    case ListCancel:
        QTest::mouseClick(list->findChild<QPushButton *>("pushButton_Cancel"), Qt::LeftButton);
        QVERIFY(list.isNull());
        break;
    case ListClose:
        list->close();
        QTRY_VERIFY_WITH_TIMEOUT(list.isNull(), DEADLINE_MS);
        break;
    }
    QVERIFY(ui->currentListDialog() == nullptr);
    COMPARE_REPLY(call(REQ_List_GetSel), resp, expectedHex);
    COMPARE_REPLY(call(REQ_EndSession), UI_OK, "");
    QCOMPARE(visibleWindowCount(), 0);
}

void TestDialogRoundTrip::testListTypeOneWithoutWindow()
{
    QVERIFY(beginSession());
    COMPARE_REPLY(call(REQ_List_Show, withText(1, "A\nB\nC")), UI_OK, "");
    // Pending until the GUI thread has handled the request, then answered.
    COMPARE_REPLY(pollWhileNoResult(REQ_List_GetSel), UI_OK, "ffffffff");
    QVERIFY(ui->currentListDialog() == nullptr);
    QCOMPARE(visibleWindowCount(), 0);
    COMPARE_REPLY(call(REQ_List_GetSel), UI_OK, "ffffffff");
    COMPARE_REPLY(call(REQ_EndSession), UI_OK, "");
}

// ---------------------------------------------------------------------------

void TestDialogRoundTrip::testDisconnectHidesWindows_data()
{
    QTest::addColumn<bool>("withWaiting");
    QTest::addColumn<bool>("pinConfirmed");

    QTest::newRow("PIN typed, not confirmed") << false << false;
    QTest::newRow("PIN dialog and waiting dialog") << true << false;
    QTest::newRow("PIN confirmed (hidden), waiting dialog") << true << true;
}

void TestDialogRoundTrip::testDisconnectHidesWindows()
{
    QFETCH(bool, withWaiting);
    QFETCH(bool, pinConfirmed);

    QVERIFY(beginSession());
    QPointer<PINDialog> pin = showPinDialog(0);
    QVERIFY(pin);
    auto *oldEdit = pin->findChild<QLineEdit *>("lineEdit_oldPin");
    auto *ok = pin->findChild<QPushButton *>("pushButton_OK");
    QVERIFY(oldEdit && ok);
    QTest::keyClicks(oldEdit, QStringLiteral("aaaaaa"));
    if (pinConfirmed) {
        QTest::mouseClick(ok, Qt::LeftButton);
        COMPARE_REPLY(call(REQ_PIN_GetPIN), UI_OK, "06000000 616161616161 00000000");
    } else {
        COMPARE_REPLY(call(REQ_PIN_GetPIN), UI_NO_RESULT, "");
    }
    QPointer<WaitingDialog> waiting;
    if (withWaiting) {
        COMPARE_REPLY(call(REQ_Waiting_Show, withText(2, "timeout1=30")), UI_OK, "");
        QTRY_VERIFY_WITH_TIMEOUT(
                ui->currentWaitingDialog() && ui->currentWaitingDialog()->isVisible(), DEADLINE_MS);
        waiting = ui->currentWaitingDialog();
    }
    QVERIFY(pin);
    QCOMPARE(pin->isVisible(), !pinConfirmed);

    // The middleware goes away without finishing anything.
    zrui_close(conn);
    conn = nullptr;
    QTRY_VERIFY_WITH_TIMEOUT(pin.isNull(), DEADLINE_MS);
    QTRY_VERIFY_WITH_TIMEOUT(waiting.isNull(), DEADLINE_MS);
    QVERIFY(ui->currentPinDialog() == nullptr);
    QVERIFY(ui->currentWaitingDialog() == nullptr);
    QCOMPARE(visibleWindowCount(), 0);

    // The service takes the next client.
    QVERIFY(beginSession());
    COMPARE_REPLY(call(REQ_EndSession), UI_OK, "");
}

QTEST_MAIN(TestDialogRoundTrip)
#include "TestDialogRoundTrip.moc"
