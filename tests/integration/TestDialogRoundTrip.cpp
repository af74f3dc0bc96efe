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
#include <QLabel>
#include <QLineEdit>
#include <QPointer>
#include <QPushButton>
#include <QResource>
#include <QTranslator>
#include <QtTest>

#include <atomic>
#include <future>
#include <memory>
#include <mutex>
#include <unistd.h>

namespace {

const int kDeadlineMs = 10000;

QByteArray u32(quint32 v) { return QByteArray(reinterpret_cast<const char *>(&v), 4); }

// "rc resp hex" of one request, compared as one text so a failure shows all three.
QByteArray expect(quint32 resp, const char *hex = "")
{
    return QByteArray::number(ZRUI_OK) + ' ' + QByteArray::number(resp) + ' '
           + QByteArray::fromHex(hex).toHex();
}

// One request on a worker thread while the GUI thread runs its event loop; the
// connection's time-out ends it if nobody answers, so a failure never hangs.
std::future<QByteArray> request(zrui_conn *conn, quint32 op, const QByteArray &data)
{
    return std::async(std::launch::async, [=] {
        QByteArray out(COMMPACK_MAX_DATA, '\0');
        uint32_t resp = ~0u, len = 0;
        const int rc = zrui_request(conn, op, data.constData(), uint32_t(data.size()), &resp,
                                    out.data(), uint32_t(out.size()), &len);
        return QByteArray::number(rc) + ' ' + QByteArray::number(resp) + ' '
               + out.left(int(len)).toHex();
    });
}

bool ready(const std::future<QByteArray> &f)
{
    return f.wait_for(std::chrono::seconds(0)) == std::future_status::ready;
}

QByteArray result(std::future<QByteArray> f)
{
    (void)QTest::qWaitFor([&] { return ready(f); }, 2 * kDeadlineMs);
    return f.get();
}

// Everything logged while a test runs, to prove that PIN bytes never show.
std::mutex g_logMutex;
QStringList g_logLines;

void captureMessage(QtMsgType, const QMessageLogContext &, const QString &message)
{
    std::lock_guard<std::mutex> lock(g_logMutex);
    g_logLines << message;
}

template<typename T = QLineEdit>
T *child(QObject *o, const char *name)
{
    return o ? o->findChild<T *>(QLatin1String(name)) : nullptr;
}

QString trIn(const char *context, const char *source)
{
    return QCoreApplication::translate(context, source);
}

int visibleWindows()
{
    int n = 0;
    for (QWidget *w : QApplication::topLevelWidgets())
        n += w->isVisible();
    return n;
}

} // namespace

enum Submit { ClickOk, ReturnInConfirm, ClickCancel, WindowManagerClose };
Q_DECLARE_METATYPE(Submit)

class TestDialogRoundTrip : public QObject
{
    Q_OBJECT

    ServerLauncher sandbox; // its files, not its process
    QString savedCwd;
    QTranslator english, chinese;
    std::unique_ptr<UI_Service> ui;
    std::shared_ptr<std::atomic<bool>> threadDone;
    zrui_conn *conn = nullptr;

    QByteArray call(quint32 op, const QByteArray &data = QByteArray())
    {
        return result(request(conn, op, data));
    }

    bool beginSession()
    {
        return zrui_open(qPrintable(QCoreApplication::applicationName()), &conn) == ZRUI_OK
               && zrui_set_timeout(conn, kDeadlineMs) == ZRUI_OK
               && call(REQ_BeginSession, QByteArray(10, '\0')) == expect(UI_OK);
    }

    PINDialog *showPinDialog(quint32 type)
    {
        const auto shown
                = [this] { return ui->currentPinDialog() && ui->currentPinDialog()->isVisible(); };
        return call(REQ_PIN_Show, u32(type)) == expect(UI_OK) && QTest::qWaitFor(shown, kDeadlineMs)
                       ? ui->currentPinDialog()
                       : nullptr;
    }

    // A request answered by a message box: while it waits, the box shows title,
    // text and OK alone or Retry and Cancel; `button` (empty: the window manager) closes it.
    void answerBox(quint32 op, const QByteArray &data, const QString &title, const QString &text,
                   bool okOnly, const char *button, quint32 resp)
    {
        std::future<QByteArray> pending = request(conn, op, data);
        QTRY_VERIFY_WITH_TIMEOUT(
                ui->currentMessageDialog() && ui->currentMessageDialog()->isVisible(), kDeadlineMs);
        QPointer<MessageDialog> box = ui->currentMessageDialog();
        QVERIFY(!ready(pending));
        QCOMPARE(box->windowTitle(), title);
        QVERIFY(child<QLabel>(box, "label_message"));
        QCOMPARE(child<QLabel>(box, "label_message")->text(), text);
        for (const char *name : {"pushButton_OK", "pushButton_Retry", "pushButton_Cancel"}) {
            QVERIFY2(child<QPushButton>(box, name), name);
            QCOMPARE(child<QPushButton>(box, name)->isVisible(),
                     okOnly == !qstrcmp(name, "pushButton_OK"));
        }
        if (*button)
            QTest::mouseClick(child<QPushButton>(box, button), Qt::LeftButton);
        else
            box->close();
        QCOMPARE(result(std::move(pending)), expect(resp));
        QTRY_VERIFY_WITH_TIMEOUT(box.isNull() && !ui->currentMessageDialog(), kDeadlineMs);
    }

    // Types the fields, clicks OK: true when the dialog accepted (hid).
    static bool typeAndConfirm(PINDialog *d, const QString &oldPin, const QString &newPin,
                               const QString &confirm)
    {
        QTest::keyClicks(child(d, "lineEdit_oldPin"), oldPin);
        QTest::keyClicks(child(d, "lineEdit_newPin"), newPin);
        QTest::keyClicks(child(d, "lineEdit_confirmPin"), confirm);
        QTest::mouseClick(child<QPushButton>(d, "pushButton_OK"), Qt::LeftButton);
        return !d->isVisible();
    }

    static void verifyNotLogged(const QByteArray &pin)
    {
        if (pin.isEmpty())
            return;
        std::lock_guard<std::mutex> lock(g_logMutex);
        for (const QString &line : g_logLines) {
            for (const QByteArray &needle : {pin, pin.toHex(), pin.toHex(' ')})
                QVERIFY2(!line.contains(QString::fromUtf8(needle), Qt::CaseInsensitive),
                         qPrintable(line));
        }
    }

private slots:
    void initTestCase()
    {
        QVERIFY2(sandbox.prepare()
                         && sandbox.writeFile("bin/tokensim.ini",
                                              "[pin]\nmin=6\nmax=16\n[token]\npresent=1\n"),
                 qPrintable(sandbox.errorString()));
        QCoreApplication::setApplicationName(sandbox.appName()); // a socket name of its own
        qputenv("ZRTOKENSIM_CONF", QFile::encodeName(sandbox.binDir() + "/tokensim.ini"));
        QVERIFY(QResource::registerResource(sandbox.binDir() + "/resources.rcc"));
        QVERIFY(english.load(":/uiserver.en.qm", QString(), QString(), QString())
                && !english.isEmpty());
        QVERIFY(chinese.load(":/uiserver.zh_CN.qm", QString(), QString(), QString())
                && !chinese.isEmpty());
        QVERIFY(QCoreApplication::installTranslator(&english));
        savedCwd = QDir::currentPath();
        QVERIFY(QDir::setCurrent(sandbox.binDir()));
        qInstallMessageHandler(captureMessage);
    }

    void cleanupTestCase()
    {
        qInstallMessageHandler(nullptr);
        QDir::setCurrent(savedCwd);
    }

    void init()
    {
        QCoreApplication::sendPostedEvents(); // the quit() posted by the last coordinator's thread
        QCoreApplication::processEvents();
        g_logLines.clear();
        ui.reset(new UI_Service(1.0f, nullptr));
        QVERIFY(ui->service());
        // A release in the service thread's last act, acquired by cleanup() (for TSan).
        threadDone = std::make_shared<std::atomic<bool>>(false);
        connect(
                ui->service()->thread(), &QThread::finished, ui->service(),
                [done = threadDone] { done->store(true, std::memory_order_release); },
                Qt::DirectConnection);
        QCOMPARE(ui->GetPINMinLen(), 6);
        QCOMPARE(ui->GetPINMaxLen(), 16);
        QTRY_VERIFY_WITH_TIMEOUT(ServerLauncher::isListening(QCoreApplication::applicationName()
                                                             + QString::number(getuid())),
                                 kDeadlineMs);
    }

    void cleanup()
    {
        QCoreApplication::processEvents();
        if (ui->GetMsgStatus() == -1) // a failed test may leave a box waiting
            ui->SetMsgStatus(0);
        zrui_close(conn);
        conn = nullptr;
        ui->on_pin_dialog_hide();
        ui->on_waiting_dialog_hide();
        ui->on_message_dialog_hide();
        ui->on_list_dialog_hide();
        const auto stopped = [this] {
            ui->service()->StopPipeListening();
            ui->service()->thread()->quit();
            return threadDone->load(std::memory_order_acquire);
        };
        if (!QTest::qWaitFor(stopped, kDeadlineMs))
            qWarning("service thread still running after %d ms", kDeadlineMs);
        ui.reset();
        QCoreApplication::removeTranslator(&chinese);
    }

    void testPinTypedAndConfirmed_data()
    {
        QTest::addColumn<quint32>("type");
        QTest::addColumn<QString>("title");
        QTest::addColumn<QString>("oldPin");
        QTest::addColumn<QString>("newPin");
        QTest::addColumn<Submit>("submit");
        QTest::addColumn<quint32>("resp");
        QTest::addColumn<QByteArray>("hex");
        QTest::newRow("verify, OK") << 0u << "Verify USBKey password"
                                    << "aaaaaa" << QString() << ClickOk << 0u
                                    << QByteArray("06000000 616161616161 00000000");
        // Typing beyond the maximum of the shared record is cut at 16.
        QTest::newRow("change, cut at the maximum, Return in the confirm field")
                << 2u << "Change USBKey password"
                << "123456"
                << "Abcdefgh12345678XYZ" << ReturnInConfirm << 0u
                << QByteArray("06000000 313233343536 10000000 41626364656667683132333435363738");
        QTest::newRow("set, OK") << 5u << "Set USBKey password" << QString() << "a1b2c3" << ClickOk
                                 << 0u << QByteArray("00000000 06000000 613162326333");
        QTest::newRow("change, Cancel") << 2u << "Change USBKey password"
                                        << "aaaaaa"
                                        << "a1b2c3" << ClickCancel << 1u << QByteArray();
        QTest::newRow("verify, closed by the window manager")
                << 0u << "Verify USBKey password"
                << "aaaaaa" << QString() << WindowManagerClose << 1u << QByteArray();
    }

    void testPinTypedAndConfirmed()
    {
        QFETCH(quint32, type);
        QFETCH(QString, title);
        QFETCH(QString, oldPin);
        QFETCH(QString, newPin);
        QFETCH(Submit, submit);
        QFETCH(quint32, resp);
        QFETCH(QByteArray, hex);
        QVERIFY(beginSession());
        QPointer<PINDialog> dialog = showPinDialog(type);
        QVERIFY(dialog);
        QCOMPARE(dialog->windowTitle(), trIn("PINDialog", qPrintable(title)));
        QLineEdit *edits[] = {child(dialog, "lineEdit_oldPin"), child(dialog, "lineEdit_newPin"),
                              child(dialog, "lineEdit_confirmPin")};
        for (int i = 0; i < 3; ++i)
            QVERIFY(edits[i] && edits[i]->isVisible() == !(i ? newPin : oldPin).isEmpty());
        QCOMPARE(call(REQ_PIN_GetPIN), expect(UI_NO_RESULT));
        QTest::keyClicks(edits[0], oldPin);
        QTest::keyClicks(edits[1], newPin);
        QTest::keyClicks(edits[2], newPin);
        QCOMPARE(call(REQ_PIN_GetPIN), expect(UI_NO_RESULT)); // typed, not confirmed
        if (submit == ClickOk || submit == ClickCancel)
            QTest::mouseClick(child<QPushButton>(dialog, submit == ClickOk ? "pushButton_OK"
                                                                           : "pushButton_Cancel"),
                              Qt::LeftButton);
        else if (submit == ReturnInConfirm)
            QTest::keyClick(edits[2], Qt::Key_Return);
        else
            dialog->close(); // answered from the event loop, once
        // Accepted: hidden, kept until the session lets it go; asked twice, same answer.
        QTRY_VERIFY_WITH_TIMEOUT(resp == UI_OK ? dialog && !dialog->isVisible() : dialog.isNull(),
                                 kDeadlineMs);
        QCOMPARE(call(REQ_PIN_GetPIN), expect(resp, hex));
        QCOMPARE(call(REQ_PIN_GetPIN), expect(resp, hex));
        QCOMPARE(call(REQ_PIN_Finish), expect(UI_OK));
        QTRY_VERIFY_WITH_TIMEOUT(dialog.isNull() && !ui->currentPinDialog(), kDeadlineMs);
        QCOMPARE(call(REQ_EndSession), expect(UI_OK));
        QCOMPARE(visibleWindows(), 0);
        verifyNotLogged(oldPin.toUtf8());
        verifyNotLogged(newPin.left(16).toUtf8());
    }

    void testPinInputRefused_data()
    {
        QTest::addColumn<QStringList>("typed"); // old, new, confirm
        QTest::addColumn<QString>("comment");
        QTest::addColumn<QStringList>("after"); // the fields after the refusal
        QTest::newRow("weak new PIN") << QStringList{"aaaaaa", "banana", "banana"}
                                      << trIn("PINDialog", "IDC_CUSTOM_PIN_ANNOTATION_2")
                                      << QStringList{"aaaaaa", "", ""};
        QTest::newRow("new PIN confirmed differently")
                << QStringList{"aaaaaa", "a1b2c3", "a1b2c4"}
                << trIn("PINDialog",
                        "Please confirm that new USBKey password is entered identiacally!")
                << QStringList{"aaaaaa", "", ""};
        // The old PIN is checked first; the new fields stay as typed.
        QTest::newRow("old PIN too short")
                << QStringList{"aaaaa", "a1b2c3", "a1b2c3"}
                << trIn("PINDialog", "The password must be %1-%2 characters").arg(6).arg(16)
                << QStringList{"", "a1b2c3", "a1b2c3"};
    }

    void testPinInputRefused()
    {
        QFETCH(QStringList, typed);
        QFETCH(QString, comment);
        QFETCH(QStringList, after);
        QVERIFY2(comment != "IDC_CUSTOM_PIN_ANNOTATION_2", "no translation for the key");
        QVERIFY(beginSession());
        QPointer<PINDialog> dialog = showPinDialog(2);
        QVERIFY(dialog);
        // Refused: still on screen, the reason shown, nothing handed over.
        QVERIFY(!typeAndConfirm(dialog, typed[0], typed[1], typed[2]));
        QCOMPARE(child<QLabel>(dialog, "label_comments")->text(), comment);
        QStringList now;
        for (const char *name : {"lineEdit_oldPin", "lineEdit_newPin", "lineEdit_confirmPin"})
            now << child(dialog, name)->text();
        QCOMPARE(now, after);
        QCOMPARE(call(REQ_PIN_GetPIN), expect(UI_NO_RESULT));
        // The same dialog then takes a good entry.
        for (const char *name : {"lineEdit_oldPin", "lineEdit_newPin", "lineEdit_confirmPin"})
            child(dialog, name)->clear();
        QVERIFY(typeAndConfirm(dialog, "aaaaaa", "a1b2c3", "a1b2c3"));
        QCOMPARE(call(REQ_PIN_GetPIN),
                 expect(UI_OK, "06000000 616161616161 06000000 613162326333"));
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
            QVERIFY(QCoreApplication::installTranslator(&chinese));
        const QString text
                = tries == 0xFFFFFFFFu
                          ? trIn("FIFO_Service", "Default PIN Is Forbidden")
                          : trIn("FIFO_Service", "There are %1 times remaining").arg(qint32(tries));
        QVERIFY(beginSession());
        QPointer<PINDialog> first = showPinDialog(2);
        QVERIFY(first);
        QVERIFY(typeAndConfirm(first, "aaaaaa", "a1b2c3", "a1b2c3"));
        QCOMPARE(call(REQ_PIN_GetPIN),
                 expect(UI_OK, "06000000 616161616161 06000000 613162326333"));
        // The token said no: the client blocks until the user answers the box.
        answerBox(REQ_PIN_Retry, u32(tries), trIn("FIFO_Service", "USBKey password error"), text,
                  false, retry ? "pushButton_Retry" : "pushButton_Cancel",
                  retry ? UI_OK : UI_USER_CANCEL);
        if (QTest::currentTestFailed())
            return;
        if (tries == 0) { // after Cancel: GetPIN refused, the connection dropped
            QCOMPARE(call(REQ_PIN_GetPIN), expect(UI_STATE_ERROR));
            QCOMPARE(call(REQ_EndSession).split(' ').value(0), QByteArray::number(ZRUI_E_CLOSED));
            return;
        }
        if (!retry) {
            QCOMPARE(call(REQ_EndSession), expect(UI_OK));
            return;
        }
        // A fresh, empty dialog of the same type replaces the hidden one.
        QTRY_VERIFY_WITH_TIMEOUT(first.isNull() && ui->currentPinDialog()
                                         && ui->currentPinDialog()->isVisible(),
                                 kDeadlineMs);
        QPointer<PINDialog> second = ui->currentPinDialog();
        QCOMPARE(second->windowTitle(), trIn("PINDialog", "Change USBKey password"));
        for (const char *name : {"lineEdit_oldPin", "lineEdit_newPin", "lineEdit_confirmPin"})
            QVERIFY(child(second, name)->isVisible() && child(second, name)->text().isEmpty());
        QCOMPARE(call(REQ_PIN_GetPIN), expect(UI_NO_RESULT));
        QVERIFY(typeAndConfirm(second, "bbbbbb", "c3d4e5", "c3d4e5"));
        QCOMPARE(call(REQ_PIN_GetPIN),
                 expect(UI_OK, "06000000 626262626262 06000000 633364346535"));
        QCOMPARE(call(REQ_PIN_Finish), expect(UI_OK));
        QTRY_VERIFY_WITH_TIMEOUT(second.isNull(), kDeadlineMs);
        verifyNotLogged("a1b2c3");
        verifyNotLogged("c3d4e5");
    }

    void testMessageBox_data()
    {
        QTest::addColumn<quint32>("type");
        QTest::addColumn<QByteArray>("text");
        QTest::addColumn<QString>("shown");
        QTest::addColumn<QString>("button"); // empty: closed by the window manager
        QTest::addColumn<int>("status"); // told to the coordinator; the client sees 0 either way
        QTest::newRow("notice with keys, OK")
                << 0u << QByteArray("PIN_Locked") << trIn("MessageDialog", "PIN_Locked")
                << "pushButton_OK" << 1;
        QTest::newRow("type 5, Cancel") << 5u << QByteArray("go on?") << "go on?"
                                        << "pushButton_Cancel" << 0;
        QTest::newRow("type 5 closed by the window manager")
                << 5u << QByteArray("go on?") << "go on?" << QString() << 0;
    }

    void testMessageBox()
    {
        QFETCH(quint32, type);
        QFETCH(QByteArray, text);
        QFETCH(QString, shown);
        QFETCH(QString, button);
        QFETCH(int, status);
        QByteArray data(COMMPACK_MAX_DATA, '\0');
        uint32_t len = 0;
        QCOMPARE(zrui_build_message_box(type, "Title_Warning", text.constData(),
                                        reinterpret_cast<unsigned char *>(data.data()),
                                        size_t(data.size()), &len),
                 int(ZRUI_OK));
        QVERIFY(beginSession());
        for (int round = 0; round < 2; ++round) { // a second box on the same session
            answerBox(REQ_MessageBox, data.left(int(len)), trIn("MessageDialog", "Title_Warning"),
                      shown, type != 5, qPrintable(button), UI_OK);
            if (QTest::currentTestFailed())
                return;
            QCOMPARE(ui->GetMsgStatus(), status);
        }
        QCOMPARE(call(REQ_EndSession), expect(UI_OK));
        QCOMPARE(visibleWindows(), 0);
    }

    void testListSelection_data()
    {
        QTest::addColumn<quint32>("listType");
        QTest::addColumn<QString>("button");
        QTest::addColumn<quint32>("resp");
        QTest::addColumn<QByteArray>("hex");
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
        QFETCH(QByteArray, hex);
        QVERIFY(beginSession());
        QCOMPARE(call(REQ_List_Show, u32(listType) + "A\nB\nC" + '\0'), expect(UI_OK));
        if (listType == 1) { // answered once the GUI thread has handled the request
            QTRY_VERIFY_WITH_TIMEOUT(call(REQ_List_GetSel) != expect(UI_NO_RESULT), kDeadlineMs);
        } else {
            QTRY_VERIFY_WITH_TIMEOUT(
                    ui->currentListDialog() && ui->currentListDialog()->isVisible(), kDeadlineMs);
            QPointer<CertListDialog> list = ui->currentListDialog();
            auto *combo = child<QComboBox>(list, "comboBox_certlist");
            QVERIFY(combo && child<QPushButton>(list, qPrintable(button)));
            QCOMPARE(combo->count(), 3);
            QCOMPARE(combo->currentIndex(), 0);
            QCOMPARE(call(REQ_List_GetSel), expect(UI_NO_RESULT));
            QTest::keyClick(combo, Qt::Key_Down);
            QTest::keyClick(combo, Qt::Key_Down);
            QTest::mouseClick(child<QPushButton>(list, qPrintable(button)), Qt::LeftButton);
            QVERIFY(list.isNull());
        }
        QVERIFY(!ui->currentListDialog());
        QCOMPARE(visibleWindows(), 0);
        QCOMPARE(call(REQ_List_GetSel), expect(resp, hex));
        QCOMPARE(call(REQ_EndSession), expect(UI_OK));
    }

    void testDisconnectHidesWindows()
    {
        QVERIFY(beginSession());
        QPointer<PINDialog> pin = showPinDialog(0);
        QVERIFY(pin);
        QTest::keyClicks(child(pin, "lineEdit_oldPin"), QStringLiteral("aaaaaa"));
        QCOMPARE(call(REQ_Waiting_Show, u32(2) + "timeout1=30" + '\0'), expect(UI_OK));
        QTRY_VERIFY_WITH_TIMEOUT(
                ui->currentWaitingDialog() && ui->currentWaitingDialog()->isVisible(), kDeadlineMs);
        QPointer<WaitingDialog> waiting = ui->currentWaitingDialog();
        QVERIFY(pin && pin->isVisible());
        zrui_close(conn); // the middleware goes away without finishing anything
        conn = nullptr;
        QTRY_VERIFY_WITH_TIMEOUT(pin.isNull() && waiting.isNull(), kDeadlineMs);
        QVERIFY(!ui->currentPinDialog() && !ui->currentWaitingDialog());
        QCOMPARE(visibleWindows(), 0);
        QVERIFY(beginSession()); // the service takes the next client
    }
};

QTEST_MAIN(TestDialogRoundTrip)
#include "TestDialogRoundTrip.moc"
