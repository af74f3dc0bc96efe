// Dialog round trips: the real UI_Service in this process (socket service in
// its thread), a client on a worker thread, QTest as the user on the dialogs.
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
#include <QPushButton>
#include <QResource>
#include <QTemporaryDir>
#include <QThread>
#include <QTranslator>
#include <QtTest>

#include <algorithm>
#include <atomic>
#include <memory>
#include <mutex>
#include <sys/socket.h>
#include <thread>
#include <unistd.h>

namespace {

const int DEADLINE_MS = 10000;

QByteArray u32(quint32 v) { return QByteArray(reinterpret_cast<const char *>(&v), 4); }

QByteArray withText(quint32 v, const char *text) { return u32(v) + QByteArray(text) + '\0'; }

struct Reply
{
    int rc = ZRUI_E_IO; // transport result of zrui_request
    quint32 resp = 0xFFFFFFFFu; // response code
    QByteArray data;
};

// One request on a worker thread while the GUI thread runs its event loop; if
// the answer never comes, take() shuts the socket down: a failure never hangs.
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

    bool isFinished() const { return finished.load(std::memory_order_acquire); }

    bool waitFinished()
    {
        return QTest::qWaitFor([this]() { return isFinished(); }, DEADLINE_MS);
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
    if (type != QtDebugMsg || qEnvironmentVariableIsSet("ZRUI_RT_VERBOSE"))
        g_previousHandler(type, context, message);
}

// No form of the PIN in any logged line.
void verifyNotLogged(const QByteArray &pin)
{
    if (pin.isEmpty())
        return;
    std::lock_guard<std::mutex> lock(g_logMutex);
    for (const QString &line : g_logLines) {
        for (const QByteArray &needle : {pin, pin.toHex(), pin.toHex(' ')})
            QVERIFY2(!line.contains(QString::fromUtf8(needle), Qt::CaseInsensitive),
                     qPrintable("PIN in the log: " + line));
    }
}

QString trPin(const char *source) { return QCoreApplication::translate("PINDialog", source); }

int visibleWindowCount()
{
    const QWidgetList all = QApplication::topLevelWidgets();
    return int(std::count_if(all.cbegin(), all.cend(), [](QWidget *w) { return w->isVisible(); }));
}

struct PinFields
{
    explicit PinFields(QWidget *d)
        : oldPin(d->findChild<QLineEdit *>("lineEdit_oldPin"))
        , newPin(d->findChild<QLineEdit *>("lineEdit_newPin"))
        , confirm(d->findChild<QLineEdit *>("lineEdit_confirmPin"))
        , comments(d->findChild<QLabel *>("label_comments"))
        , ok(d->findChild<QPushButton *>("pushButton_OK"))
        , cancel(d->findChild<QPushButton *>("pushButton_Cancel"))
    { }
    bool complete() const { return oldPin && newPin && confirm && comments && ok && cancel; }
    QLineEdit *oldPin, *newPin, *confirm;
    QLabel *comments;
    QPushButton *ok, *cancel;
};

} // namespace

#define COMPARE_REPLY(reply, expectedResp, expectedHex) \
    do { \
        const Reply r_ = (reply); \
        QCOMPARE(r_.rc, int(ZRUI_OK)); \
        QCOMPARE(r_.resp, quint32(expectedResp)); \
        QCOMPARE(r_.data.toHex(' '), QByteArray::fromHex(expectedHex).toHex(' ')); \
    } while (0)

enum Submit { ClickOk, ReturnInConfirm, ClickCancel, WindowManagerClose };
Q_DECLARE_METATYPE(Submit)

class TestDialogRoundTrip : public QObject
{
    Q_OBJECT

    std::unique_ptr<QTemporaryDir> sandbox;
    QString savedCwd;
    QByteArray appName;
    QTranslator english;
    QTranslator chinese;
    bool chineseInstalled = false;
    std::unique_ptr<UI_Service> ui;
    std::shared_ptr<std::atomic<bool>> serviceThreadDone;
    zrui_conn *conn = nullptr;

    static constexpr int PIN_MIN = 6;
    static constexpr int PIN_MAX = 16;

    Reply call(quint32 op, const QByteArray &data = QByteArray())
    {
        if (!conn)
            return Reply();
        PendingRequest request(conn, op, data);
        request.waitFinished();
        return request.take();
    }

    bool beginSession()
    {
        if (zrui_open(appName.constData(), &conn) != ZRUI_OK) {
            conn = nullptr;
            return false;
        }
        const Reply reply = call(REQ_BeginSession, QByteArray(2, '\0') + QByteArray(8, '\0'));
        return reply.rc == ZRUI_OK && reply.resp == UI_OK && reply.data.isEmpty();
    }

    PINDialog *showPinDialog(quint32 type)
    {
        const Reply reply = call(REQ_PIN_Show, u32(type));
        const auto shown = [this]() {
            return ui->currentPinDialog() && ui->currentPinDialog()->isVisible();
        };
        const bool ok = reply.rc == ZRUI_OK && reply.resp == UI_OK && reply.data.isEmpty();
        return ok && QTest::qWaitFor(shown, DEADLINE_MS) ? ui->currentPinDialog() : nullptr;
    }

    // Sends a request answered by a message box: while the request waits, the box shows title,
    // text and OK alone or Retry and Cancel; `button` (empty: the window manager) closes it.
    void answerBox(quint32 op, const QByteArray &data, const QString &title, const QString &text,
                   bool okOnly, const QString &button, quint32 resp)
    {
        PendingRequest request(conn, op, data);
        QTRY_VERIFY_WITH_TIMEOUT(
                ui->currentMessageDialog() && ui->currentMessageDialog()->isVisible(), DEADLINE_MS);
        QPointer<MessageDialog> box = ui->currentMessageDialog();
        QVERIFY(!request.isFinished());
        QCOMPARE(box->windowTitle(), title);
        auto *label = box->findChild<QLabel *>("label_message");
        QVERIFY(label);
        QCOMPARE(label->text(), text);
        for (const char *name : {"pushButton_OK", "pushButton_Retry", "pushButton_Cancel"}) {
            auto *b = box->findChild<QPushButton *>(name);
            QVERIFY2(b, name);
            QCOMPARE(b->isVisible(), okOnly == (qstrcmp(name, "pushButton_OK") == 0));
        }
        if (!button.isEmpty())
            QTest::mouseClick(box->findChild<QPushButton *>(button), Qt::LeftButton);
        else
            box->close();
        QVERIFY(request.waitFinished());
        COMPARE_REPLY(request.take(), resp, "");
        QTRY_VERIFY_WITH_TIMEOUT(box.isNull(), DEADLINE_MS);
        QVERIFY(ui->currentMessageDialog() == nullptr);
    }

    // Types the three fields, clicks OK: true when the dialog accepted (hid).
    static bool typeAndConfirm(PINDialog *dialog, const QByteArray &oldPin,
                               const QByteArray &newPin, const QByteArray &confirm)
    {
        const PinFields f(dialog);
        if (!f.complete())
            return false;
        QTest::keyClicks(f.oldPin, QString::fromUtf8(oldPin));
        QTest::keyClicks(f.newPin, QString::fromUtf8(newPin));
        QTest::keyClicks(f.confirm, QString::fromUtf8(confirm));
        QTest::mouseClick(f.ok, Qt::LeftButton);
        return !dialog->isVisible();
    }

private slots:
    void initTestCase()
    {
        // Socket name = application name + uid: unique per run.
        QCoreApplication::setApplicationName(
                QStringLiteral("TestDialogRoundTrip%1x").arg(QCoreApplication::applicationPid()));
        appName = QCoreApplication::applicationName().toUtf8();

        const QString binDir = qEnvironmentVariable("ZRUI_BIN_DIR");
        const QByteArray libDir = qgetenv("ZRUI_TOKENSIM_DIR");
        QVERIFY(!binDir.isEmpty());
        QVERIFY(libDir.endsWith('/'));

        sandbox.reset(new QTemporaryDir());
        QVERIFY(sandbox->isValid());
        for (const char *name : {"resources.rcc", "integrityprotect.ini"})
            QVERIFY2(QFile::copy(binDir + "/" + name, sandbox->filePath(name)), name);
        for (const auto &file :
             {qMakePair(QString("ZRUIConf.ini"), "SAFEPATH=" + libDir + "\n"),
              qMakePair(QString("tokensim.ini"), QByteArray("[pin]\nmin=6\nmax=16\n"
                                                            "[token]\npresent=1\n"))}) {
            QFile f(sandbox->filePath(file.first));
            QVERIFY(f.open(QIODevice::WriteOnly) && f.write(file.second) == file.second.size());
        }
        qputenv("ZRTOKENSIM_CONF", QFile::encodeName(sandbox->filePath("tokensim.ini")));

        QVERIFY(QResource::registerResource(sandbox->filePath("resources.rcc"), QString()));
        QVERIFY(english.load(":/uiserver.en.qm", QString(), QString(), QString())
                && !english.isEmpty());
        QVERIFY(chinese.load(":/uiserver.zh_CN.qm", QString(), QString(), QString())
                && !chinese.isEmpty());
        QVERIFY(QCoreApplication::installTranslator(&english));

        savedCwd = QDir::currentPath();
        QVERIFY(QDir::setCurrent(sandbox->path()));
        g_previousHandler = qInstallMessageHandler(captureMessage);
    }

    void cleanupTestCase()
    {
        qInstallMessageHandler(g_previousHandler);
        QDir::setCurrent(savedCwd);
    }

    void init()
    {
        // Consume the quit() posted by the previous coordinator's thread.
        QCoreApplication::sendPostedEvents();
        QCoreApplication::processEvents();
        {
            std::lock_guard<std::mutex> lock(g_logMutex);
            g_logLines.clear();
        }
        ui.reset(new UI_Service(1.0f, nullptr));
        QVERIFY(ui->service() != nullptr);
        // A release in the service thread's last act, acquired by cleanup() (for TSan).
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

    void cleanup()
    {
        // A failed test may leave the service thread waiting for a box answer.
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

    void testPinTypedAndConfirmed_data()
    {
        QTest::addColumn<quint32>("type");
        QTest::addColumn<QString>("title");
        QTest::addColumn<QByteArray>("oldPin");
        QTest::addColumn<QByteArray>("newPin");
        QTest::addColumn<Submit>("submit");
        QTest::addColumn<quint32>("resp");
        QTest::addColumn<QByteArray>("expectedHex");

        QTest::newRow("verify, OK")
                << 0u << "Verify USBKey password" << QByteArray("aaaaaa") << QByteArray() << ClickOk
                << 0u << QByteArray("06000000 616161616161 00000000");
        // Typing beyond the maximum from the shared record is cut at 16.
        QTest::newRow("change, cut at the maximum, Return in the confirm field")
                << 2u << "Change USBKey password" << QByteArray("123456")
                << QByteArray("Abcdefgh12345678XYZ") << ReturnInConfirm << 0u
                << QByteArray("06000000 313233343536 10000000 41626364656667683132333435363738");
        QTest::newRow("set, OK") << 5u << "Set USBKey password" << QByteArray()
                                 << QByteArray("a1b2c3") << ClickOk << 0u
                                 << QByteArray("00000000 06000000 613162326333");
        QTest::newRow("change, Cancel")
                << 2u << "Change USBKey password" << QByteArray("aaaaaa") << QByteArray("a1b2c3")
                << ClickCancel << 1u << QByteArray();
        QTest::newRow("verify, closed by the window manager")
                << 0u << "Verify USBKey password" << QByteArray("aaaaaa") << QByteArray()
                << WindowManagerClose << 1u << QByteArray();
    }

    void testPinTypedAndConfirmed()
    {
        QFETCH(quint32, type);
        QFETCH(QString, title);
        QFETCH(QByteArray, oldPin);
        QFETCH(QByteArray, newPin);
        QFETCH(Submit, submit);
        QFETCH(quint32, resp);
        QFETCH(QByteArray, expectedHex);

        QVERIFY(beginSession());
        QPointer<PINDialog> dialog = showPinDialog(type);
        QVERIFY(dialog);
        QCOMPARE(dialog->windowTitle(), trPin(title.toUtf8().constData()));
        const PinFields f(dialog);
        QVERIFY(f.complete());
        QCOMPARE(f.oldPin->isVisible(), !oldPin.isEmpty());
        QCOMPARE(f.newPin->isVisible(), !newPin.isEmpty());
        QCOMPARE(f.confirm->isVisible(), !newPin.isEmpty());
        COMPARE_REPLY(call(REQ_PIN_GetPIN), UI_NO_RESULT, "");

        QTest::keyClicks(f.oldPin, QString::fromUtf8(oldPin)); // nothing when empty
        QTest::keyClicks(f.newPin, QString::fromUtf8(newPin));
        QTest::keyClicks(f.confirm, QString::fromUtf8(newPin));
        // Typed, but not confirmed.
        COMPARE_REPLY(call(REQ_PIN_GetPIN), UI_NO_RESULT, "");
        QVERIFY(dialog->isVisible());
        switch (submit) {
        case ClickOk:
            QTest::mouseClick(f.ok, Qt::LeftButton);
            break;
        case ReturnInConfirm:
            QTest::keyClick(f.confirm, Qt::Key_Return);
            break;
        case ClickCancel:
            QTest::mouseClick(f.cancel, Qt::LeftButton);
            QVERIFY(dialog.isNull());
            break;
        case WindowManagerClose:
            dialog->close(); // answered from the event loop, once
            QTRY_VERIFY_WITH_TIMEOUT(dialog.isNull(), DEADLINE_MS);
            break;
        }
        // Accepted: hidden, kept until the session lets it go; asked twice, same answer.
        if (resp == UI_OK)
            QVERIFY(dialog && !dialog->isVisible());
        COMPARE_REPLY(call(REQ_PIN_GetPIN), resp, expectedHex);
        COMPARE_REPLY(call(REQ_PIN_GetPIN), resp, expectedHex);
        COMPARE_REPLY(call(REQ_PIN_Finish), UI_OK, "");
        QTRY_VERIFY_WITH_TIMEOUT(dialog.isNull(), DEADLINE_MS);
        QVERIFY(ui->currentPinDialog() == nullptr);
        COMPARE_REPLY(call(REQ_EndSession), UI_OK, "");
        QCOMPARE(visibleWindowCount(), 0);
        verifyNotLogged(oldPin);
        verifyNotLogged(newPin.left(PIN_MAX));
    }

    void testPinInputRefused_data()
    {
        QTest::addColumn<QByteArray>("oldPin");
        QTest::addColumn<QByteArray>("newPin");
        QTest::addColumn<QByteArray>("confirmPin");
        QTest::addColumn<QString>("comment");
        // Field contents after the refusal: old, new, confirm.
        QTest::addColumn<QStringList>("after");

        QTest::newRow("weak new PIN")
                << QByteArray("aaaaaa") << QByteArray("banana") << QByteArray("banana")
                << trPin("IDC_CUSTOM_PIN_ANNOTATION_2") << QStringList{"aaaaaa", "", ""};
        QTest::newRow("new PIN confirmed differently")
                << QByteArray("aaaaaa") << QByteArray("a1b2c3") << QByteArray("a1b2c4")
                << trPin("Please confirm that new USBKey password is entered identiacally!")
                << QStringList{"aaaaaa", "", ""};
        // The old PIN is checked first; the new fields stay as typed.
        QTest::newRow("old PIN too short")
                << QByteArray("aaaaa") << QByteArray("a1b2c3") << QByteArray("a1b2c3")
                << trPin("The password must be %1-%2 characters").arg(PIN_MIN).arg(PIN_MAX)
                << QStringList{"", "a1b2c3", "a1b2c3"};
    }

    void testPinInputRefused()
    {
        QFETCH(QByteArray, oldPin);
        QFETCH(QByteArray, newPin);
        QFETCH(QByteArray, confirmPin);
        QFETCH(QString, comment);
        QFETCH(QStringList, after);

        QVERIFY2(comment != QLatin1String("IDC_CUSTOM_PIN_ANNOTATION_2"),
                 "no translation for the key");
        QVERIFY(beginSession());
        QPointer<PINDialog> dialog = showPinDialog(2);
        QVERIFY(dialog);
        QVERIFY(!typeAndConfirm(dialog, oldPin, newPin, confirmPin));
        const PinFields f(dialog);

        // Refused: still on screen, the reason shown, nothing handed over.
        QVERIFY(dialog && dialog->isVisible());
        QCOMPARE(f.comments->text(), comment);
        QCOMPARE(QStringList({f.oldPin->text(), f.newPin->text(), f.confirm->text()}), after);
        COMPARE_REPLY(call(REQ_PIN_GetPIN), UI_NO_RESULT, "");

        // The same dialog then takes a good entry.
        for (QLineEdit *edit : {f.oldPin, f.newPin, f.confirm})
            edit->clear();
        QVERIFY(typeAndConfirm(dialog, "aaaaaa", "a1b2c3", "a1b2c3"));
        COMPARE_REPLY(call(REQ_PIN_GetPIN), UI_OK, "06000000 616161616161 06000000 613162326333");
        COMPARE_REPLY(call(REQ_PIN_Finish), UI_OK, "");
        COMPARE_REPLY(call(REQ_EndSession), UI_OK, "");
    }

    void testRetryAfterWrongPin_data()
    {
        QTest::addColumn<quint32>("tries");
        QTest::newRow("3 tries left, Retry") << 3u;
        QTest::newRow("0 tries left, Cancel, then GetPIN refused") << 0u;
        QTest::newRow("default PIN forbidden, Cancel, then EndSession, zh_CN") << 0xFFFFFFFFu;
    }

    void testRetryAfterWrongPin()
    {
        QFETCH(quint32, tries);
        const bool retry = tries == 3;
        if (tries == 0xFFFFFFFFu)
            chineseInstalled = QCoreApplication::installTranslator(&chinese);
        const auto trService
                = [](const char *s) { return QCoreApplication::translate("FIFO_Service", s); };
        const QString expectedText
                = tries == 0xFFFFFFFFu
                          ? trService("Default PIN Is Forbidden")
                          : trService("There are %1 times remaining").arg(qint32(tries));

        QVERIFY(beginSession());
        QPointer<PINDialog> first = showPinDialog(2);
        QVERIFY(first);
        const QString pinTitle = first->windowTitle();
        QVERIFY(typeAndConfirm(first, "aaaaaa", "a1b2c3", "a1b2c3"));
        COMPARE_REPLY(call(REQ_PIN_GetPIN), UI_OK, "06000000 616161616161 06000000 613162326333");

        // The token said no: the client blocks until the user answers the box.
        answerBox(REQ_PIN_Retry, u32(tries), trService("USBKey password error"), expectedText,
                  false, retry ? "pushButton_Retry" : "pushButton_Cancel",
                  retry ? UI_OK : UI_USER_CANCEL);
        if (QTest::currentTestFailed())
            return;

        if (tries == 0) { // after Cancel: GetPIN refused, the connection dropped
            COMPARE_REPLY(call(REQ_PIN_GetPIN), UI_STATE_ERROR, "");
            QCOMPARE(call(REQ_EndSession).rc, int(ZRUI_E_CLOSED));
            return;
        }
        if (!retry) { // after Cancel: EndSession taken
            COMPARE_REPLY(call(REQ_EndSession), UI_OK, "");
            return;
        }
        // A fresh, empty dialog of the same type replaces the hidden one.
        QTRY_VERIFY_WITH_TIMEOUT(first.isNull() && ui->currentPinDialog()
                                         && ui->currentPinDialog()->isVisible(),
                                 DEADLINE_MS);
        QPointer<PINDialog> second = ui->currentPinDialog();
        QCOMPARE(second->windowTitle(), pinTitle);
        const PinFields f(second);
        QVERIFY(f.complete());
        for (QLineEdit *edit : {f.oldPin, f.newPin, f.confirm})
            QVERIFY(edit->isVisible() && edit->text().isEmpty());
        COMPARE_REPLY(call(REQ_PIN_GetPIN), UI_NO_RESULT, "");

        QVERIFY(typeAndConfirm(second, "bbbbbb", "c3d4e5", "c3d4e5"));
        COMPARE_REPLY(call(REQ_PIN_GetPIN), UI_OK, "06000000 626262626262 06000000 633364346535");
        COMPARE_REPLY(call(REQ_PIN_Finish), UI_OK, "");
        QTRY_VERIFY_WITH_TIMEOUT(second.isNull(), DEADLINE_MS);
        COMPARE_REPLY(call(REQ_EndSession), UI_OK, "");
        verifyNotLogged(QByteArray("a1b2c3"));
        verifyNotLogged(QByteArray("c3d4e5"));
    }

    void testMessageBox_data()
    {
        QTest::addColumn<quint32>("type");
        QTest::addColumn<QByteArray>("text");
        QTest::addColumn<QString>("shownText");
        QTest::addColumn<QString>("button"); // empty: closed by the window manager
        // What the box told the coordinator (the client sees 0 either way).
        QTest::addColumn<int>("status");

        const auto tr
                = [](const char *s) { return QCoreApplication::translate("MessageDialog", s); };
        QTest::newRow("notice with keys, OK")
                << 0u << QByteArray("PIN_Locked") << tr("PIN_Locked") << "pushButton_OK" << 1;
        QTest::newRow("type 5, Cancel") << 5u << QByteArray("go on?") << "go on?"
                                        << "pushButton_Cancel" << 0;
        QTest::newRow("type 5 closed by the window manager")
                << 5u << QByteArray("go on?") << "go on?" << QString() << 0;
    }

    void testMessageBox()
    {
        QFETCH(quint32, type);
        QFETCH(QByteArray, text);
        const auto tr
                = [](const char *s) { return QCoreApplication::translate("MessageDialog", s); };
        QFETCH(QString, shownText);
        QFETCH(QString, button);
        QFETCH(int, status);

        QByteArray data(COMMPACK_MAX_DATA, '\0');
        uint32_t len = 0;
        QCOMPARE(zrui_build_message_box(type, "Title_Warning", text.constData(),
                                        reinterpret_cast<unsigned char *>(data.data()),
                                        size_t(data.size()), &len),
                 int(ZRUI_OK));
        data.truncate(int(len));

        QVERIFY(beginSession());
        for (int round = 0; round < 2; ++round) { // a second box on the same session
            answerBox(REQ_MessageBox, data, tr("Title_Warning"), shownText, type != 5, button,
                      UI_OK);
            if (QTest::currentTestFailed())
                return;
            QCOMPARE(ui->GetMsgStatus(), status);
        }
        COMPARE_REPLY(call(REQ_EndSession), UI_OK, "");
        QCOMPARE(visibleWindowCount(), 0);
    }

    void testListSelection_data()
    {
        QTest::addColumn<quint32>("listType");
        QTest::addColumn<QString>("button");
        QTest::addColumn<quint32>("resp");
        QTest::addColumn<QByteArray>("expectedHex");
        QTest::newRow("third entry, OK")
                << 0u << "pushButton_OK" << quint32(UI_OK) << QByteArray("02000000");
        QTest::newRow("Cancel") << 0u << "pushButton_Cancel" << quint32(UI_USER_CANCEL)
                                << QByteArray();
        QTest::newRow("type 1, no window") << 1u << "" << quint32(UI_OK) << QByteArray("ffffffff");
    }

    void testListSelection()
    {
        QFETCH(quint32, listType);
        QFETCH(QString, button);
        QFETCH(quint32, resp);
        QFETCH(QByteArray, expectedHex);

        QVERIFY(beginSession());
        COMPARE_REPLY(call(REQ_List_Show, withText(listType, "A\nB\nC")), UI_OK, "");
        if (listType == 1) {
            // Pending until the GUI thread has handled the request, then answered.
            QTRY_VERIFY_WITH_TIMEOUT(call(REQ_List_GetSel).resp != UI_NO_RESULT, DEADLINE_MS);
        } else {
            QTRY_VERIFY_WITH_TIMEOUT(
                    ui->currentListDialog() && ui->currentListDialog()->isVisible(), DEADLINE_MS);
            QPointer<CertListDialog> list = ui->currentListDialog();
            auto *combo = list->findChild<QComboBox *>("comboBox_certlist");
            auto *push = list->findChild<QPushButton *>(button);
            QVERIFY(combo && push);
            QCOMPARE(combo->count(), 3);
            QCOMPARE(combo->currentIndex(), 0);
            COMPARE_REPLY(call(REQ_List_GetSel), UI_NO_RESULT, "");
            QTest::keyClick(combo, Qt::Key_Down);
            QTest::keyClick(combo, Qt::Key_Down);
            QCOMPARE(combo->currentText(), QStringLiteral("C"));
            QTest::mouseClick(push, Qt::LeftButton);
            QVERIFY(list.isNull());
        }
        QVERIFY(ui->currentListDialog() == nullptr);
        QCOMPARE(visibleWindowCount(), 0);
        COMPARE_REPLY(call(REQ_List_GetSel), resp, expectedHex);
        COMPARE_REPLY(call(REQ_EndSession), UI_OK, "");
    }

    void testDisconnectHidesWindows()
    {
        QVERIFY(beginSession());
        QPointer<PINDialog> pin = showPinDialog(0);
        QVERIFY(pin);
        const PinFields f(pin);
        QVERIFY(f.complete());
        QTest::keyClicks(f.oldPin, QStringLiteral("aaaaaa"));
        COMPARE_REPLY(call(REQ_Waiting_Show, withText(2, "timeout1=30")), UI_OK, "");
        QTRY_VERIFY_WITH_TIMEOUT(
                ui->currentWaitingDialog() && ui->currentWaitingDialog()->isVisible(), DEADLINE_MS);
        QPointer<WaitingDialog> waiting = ui->currentWaitingDialog();
        QVERIFY(pin && pin->isVisible());

        // The middleware goes away without finishing anything.
        zrui_close(conn);
        conn = nullptr;
        QTRY_VERIFY_WITH_TIMEOUT(pin.isNull() && waiting.isNull(), DEADLINE_MS);
        QVERIFY(ui->currentPinDialog() == nullptr);
        QVERIFY(ui->currentWaitingDialog() == nullptr);
        QCOMPARE(visibleWindowCount(), 0);
        // The service takes the next client.
        QVERIFY(beginSession());
        COMPARE_REPLY(call(REQ_EndSession), UI_OK, "");
    }
};

QTEST_MAIN(TestDialogRoundTrip)
#include "TestDialogRoundTrip.moc"
