// The request service over real sockets: the real coordinator in-process, QTest as the user.
#include "ServerLauncher.h"
#include "client/zrui_client.h"
#include "service/FIFO_Service.h"
#include "service/SessionTable.h"
#include "ui/CertListDialog.h"
#include "ui/MessageDialog.h"
#include "ui/PINDialog.h"
#include "ui/UI_Service.h"
#include "ui/WaitingDialog.h"

#include <QtTest>
#include <QtWidgets>

#include <mutex>
#include <queue>
#include <thread>

#include <poll.h>
#include <sys/socket.h>
#include <sys/syscall.h>
#include <unistd.h>

using namespace SessionTable;

namespace {

constexpr int kDeadlineMs = 10000;
constexpr int kRows = int(sizeof Transitions / sizeof Transitions[0]);

QByteArray u32(quint32 v) { return QByteArray(reinterpret_cast<const char *>(&v), 4); }
QByteArray packet(quint32 op, const QByteArray &d = {}) { return u32(op) + u32(d.size()) + d; }
QByteArray reply(quint32 code, const char *dataHex = "")
{
    return packet(code, QByteArray::fromHex(dataHex)).toHex();
}
QByteArray begin(quint64 ref = 0x8877665544332211ULL)
{
    return packet(REQ_BeginSession,
                  QByteArray(2, '\0') + QByteArray::fromRawData(reinterpret_cast<char *>(&ref), 8));
}
QByteArray pinResult(const QByteArray &oldPin, const QByteArray &newPin)
{
    return u32(oldPin.size()) + oldPin + u32(newPin.size()) + newPin;
}

std::mutex logMutex;
QStringList logLines;
void capture(QtMsgType, const QMessageLogContext &, const QString &message)
{
    std::lock_guard<std::mutex> lock(logMutex);
    logLines << message;
}
QStringList logSince(int mark)
{
    std::lock_guard<std::mutex> lock(logMutex);
    return logLines.mid(mark);
}
int logMark() { return logSince(0).size(); }


int visibleWindows()
{
    const QWidgetList all = QApplication::topLevelWidgets();
    return int(std::count_if(all.begin(), all.end(), [](QWidget *w) { return w->isVisible(); }));
}

// Closes a window as the window manager does ("close"), or clicks the named button.
void answer(QWidget *window, const QString &how)
{
    if (how == "close")
        window->close();
    else
        QTest::mouseClick(window->findChild<QPushButton *>(qPrintable(how)), Qt::LeftButton);
}
QString shown(MessageDialog *box) // title|text|buttons
{
    return box->windowTitle() + '|' + box->findChild<QLabel *>("label_message")->text() + '|'
           + (box->findChild<QPushButton *>("pushButton_OK")->isVisible() ? "OK" : "RetryCancel");
}

QStringList entries(CertListDialog *list)
{
    QStringList out;
    auto *combo = list ? list->findChild<QComboBox *>("comboBox_certlist") : nullptr;
    while (combo && out.size() < combo->count())
        out << combo->itemText(out.size());
    return out;
}

// The user's answer that leads to a table row: its own, or a status above 1.
int answerOf(int row)
{
    return row < 0 || Transitions[row].answer == AnyAnswer ? 2 : Transitions[row].answer;
}

// What a header-only request gets when allowed (no window has been answered).
QByteArray expectedReply(quint32 op, int answer)
{
    if (op == REQ_PIN_GetPIN || op == REQ_List_GetSel || (op == REQ_MessageBox && answer > 1))
        return reply(UI_NO_RESULT);
    if (op == REQ_PIN_Retry)
        return reply(answer == 1 ? UI_OK : answer == 0 ? UI_USER_CANCEL : UI_NO_RESULT);
    return reply(UI_OK);
}

// For every row, the shortest walk of rows from a fresh connection that ends with it.
QVector<QVector<int>> routes()
{
    QVector<QVector<int>> route(kRows);
    std::queue<std::pair<OpSet, QVector<int>>> todo;
    todo.push({Start, {}});
    while (!todo.empty()) {
        const auto [state, path] = todo.front();
        todo.pop();
        for (int row = 0; row < kRows; ++row) {
            if (allows(state, Transitions[row].operation) && route[row].isEmpty()) {
                route[row] = path + QVector<int>{row};
                todo.push({Transitions[row].next, route[row]});
            }
        }
    }
    return route;
}

struct PinCase
{
    quint32 type;
    QString oldPin, newPin;
    QByteArray result; // empty: cancelled
    qint64 tries = -1; // then a REQ_PIN_Retry with these tries left,
    QString box = {}, boxText = {}; // answered by this button ("close": the window manager)
    quint32 retryReply = UI_OK;
};
struct BoxCase
{
    quint32 type;
    QByteArray title, text;
    QString shown, answer; // title|text|buttons; a button, "close", or a status
};
struct FrameCase
{
    QByteArray bytes;
    QList<int> cuts;
    QByteArray expected;
    QStringList shown; // the list entries
};
struct DeviceCase
{
    bool present; // at REQ_BeginSession
    QByteArrayList requests, replies;
    int windows; // open before the client leaves
    QString journal;
};

PinCase retry(qint64 tries, const char *box, const char *text, quint32 reply = UI_OK)
{
    return {2, "aaaaaa", "a1b2c3", pinResult("aaaaaa", "a1b2c3"), tries, box, text, reply};
}

} // namespace
Q_DECLARE_METATYPE(PinCase)
Q_DECLARE_METATYPE(BoxCase)
Q_DECLARE_METATYPE(FrameCase)
Q_DECLARE_METATYPE(DeviceCase)

class TestService : public QObject
{
    Q_OBJECT

    ServerLauncher sandbox; // its files, not its process
    QString app;
    std::unique_ptr<UI_Service> ui;
    zrui_conn *conn = nullptr;
    int boxAnswer = -1; // other than -1: every message box is answered with it

    void drop() { zrui_close(std::exchange(conn, nullptr)); }
    QString path(const char *name) const { return sandbox.binDir() + '/' + name; }
    bool setPresent(bool present)
    {
        QSaveFile file(path("tokensim.ini"));
        return file.open(QIODevice::WriteOnly)
               && file.write(QByteArray("[pin]\nmin=6\nmax=16\n[token]\npresent=") + "01"[present])
                          > 0
               && file.commit();
    }
    // The stand-in's journal, handles renamed in order of appearance (h1, h2, ...).
    QStringList journal()
    {
        QFile file(path("journal.txt"));
        QString text
                = file.open(QIODevice::ReadOnly) ? QString::fromUtf8(file.readAll()) : QString();
        static const QRegularExpression handle(QStringLiteral("(?:ctx|dev)=([1-9]\\d*)"));
        QStringList seen;
        for (auto it = handle.globalMatch(text); it.hasNext();)
            seen << it.next().captured(1);
        seen.removeDuplicates();
        for (int i = 0; i < seen.size(); ++i)
            text.replace(QRegularExpression('=' + seen[i] + "\\b"),
                         QStringLiteral("=h%1").arg(i + 1));
        return text.split('\n', Qt::SkipEmptyParts);
    }
    bool put(const QByteArray &bytes)
    {
        return send(zrui_fd(conn), bytes.constData(), size_t(bytes.size()), MSG_NOSIGNAL)
               == bytes.size();
    }
    // The next response as hex, "closed", or "none" at the deadline; with events the GUI runs.
    QByteArray response(bool events = true)
    {
        QByteArray in;
        QDeadlineTimer deadline(kDeadlineMs);
        while (in.size() < 8
               || quint32(in.size()) < 8 + qFromUnaligned<quint32>(in.constData() + 4)) {
            if (deadline.hasExpired())
                return "none";
            if (events) {
                QCoreApplication::processEvents();
                if (boxAnswer != -1 && ui->currentMessageDialog() && ui->GetMsgStatus() == -1)
                    ui->SetMsgStatus(boxAnswer);
            }
            pollfd p = {zrui_fd(conn), POLLIN, 0};
            char buf[COMMPACK_MAX_SIZE];
            const ssize_t n = poll(&p, 1, 10) == 1 ? read(p.fd, buf, sizeof buf) : -2;
            if (n == 0 || (n == -1 && errno == ECONNRESET))
                return in.isEmpty() ? "closed" : in.toHex() + " closed";
            in.append(buf, int(qMax<ssize_t>(n, 0)));
        }
        return in.toHex();
    }
    QByteArray ask(const QByteArray &bytes, bool events = true)
    {
        (void)put(bytes); // a refused send shows as "closed"
        return response(events);
    }
    QByteArray ask(quint32 op, const QByteArray &data = {}) { return ask(packet(op, data)); }

    template<typename T>
    T *waitShown(T *(UI_Service::*current)() const)
    {
        const auto up
                = [&] { return (ui.get()->*current)() && (ui.get()->*current)()->isVisible(); };
        return QTest::qWaitFor(up, kDeadlineMs) ? (ui.get()->*current)() : nullptr;
    }

    PINDialog *showPin(quint32 type)
    {
        // No events yet: answered before this thread even shows the dialog.
        if (ask(packet(REQ_PIN_Show, u32(type)), false) != reply(UI_OK)
            || ask(packet(REQ_PIN_GetPIN), false) != reply(UI_NO_RESULT))
            return nullptr;
        return waitShown(&UI_Service::currentPinDialog);
    }
    static void typePins(PINDialog *d, const QString &oldPin, const QString &newPin)
    {
        QTest::keyClicks(d->findChild<QLineEdit *>("lineEdit_oldPin"), oldPin);
        QTest::keyClicks(d->findChild<QLineEdit *>("lineEdit_newPin"), newPin);
        QTest::keyClicks(d->findChild<QLineEdit *>("lineEdit_confirmPin"), newPin);
    }
private slots:
    void initTestCase()
    {
        qInstallMessageHandler(capture);
        QVERIFY2(sandbox.prepare(), qPrintable(sandbox.errorString()));
        // The longest socket name that fits: application name and uid, 106 bytes.
        const QString uid = QString::number(getuid());
        app = sandbox.appName() + QString(106 - sandbox.appName().size() - uid.size(), 'x');
        QCoreApplication::setApplicationName(app);
        qputenv("ZRTOKENSIM_CONF", QFile::encodeName(path("tokensim.ini")));
        qputenv("ZRTOKENSIM_JOURNAL", QFile::encodeName(path("journal.txt")));
        QVERIFY(setPresent(true) && QDir::setCurrent(sandbox.binDir()));
        QVERIFY(QResource::registerResource(path("resources.rcc")));
        ui.reset(new UI_Service(1.0f));
        QTRY_VERIFY_WITH_TIMEOUT(ServerLauncher::isListening(app + uid), kDeadlineMs);
    }
    void cleanupTestCase() { ui.reset(); } // stops and joins the service thread
    void init() { QVERIFY(setPresent(true) && zrui_open(qPrintable(app), &conn) == ZRUI_OK); }
    void cleanup()
    {
        drop();
        boxAnswer = -1;
        // No window outlives its connection.
        QTRY_COMPARE_WITH_TIMEOUT(visibleWindows(), 0, kDeadlineMs);
    }

    void testSessionTable_data()
    {
        QTest::addColumn<int>("row"); // -1: a fresh connection
        QTest::addColumn<quint32>("probe");
        // Every code, and codes that a set kept in a 32- or 64-bit word would alias.
        QList<quint32> probes{33, 65, 0xFFFFFFFFu};
        for (quint32 op = 0; op <= 15; ++op)
            probes << op;
        for (int row = -1; row < kRows; ++row)
            for (const quint32 probe : probes)
                QTest::addRow("row %d, op %u", row, probe) << row << probe;
    }
    // The dispatcher's own table, walked over the socket row by row, every code tried once.
    void testSessionTable()
    {
        QFETCH(int, row);
        QFETCH(quint32, probe);
        static const QVector<QVector<int>> route = routes();
        QVERIFY(row < 0 || !route[row].isEmpty());
        for (const int r : row < 0 ? QVector<int>() : route[row]) {
            boxAnswer = answerOf(r);
            QCOMPARE(ask(packet(Transitions[r].operation)),
                     expectedReply(Transitions[r].operation, boxAnswer));
        }
        boxAnswer = answerOf(row);
        const QByteArray got = ask(packet(probe));
        if (!allows(row < 0 ? Start : Transitions[row].next, probe)) {
            QCOMPARE(got, reply(UI_STATE_ERROR));
            QCOMPARE(response(), QByteArray("closed"));
        } else if (probe == REQ_Reserved_8 || probe == REQ_Reserved_12) {
            QCOMPARE(got, QByteArray("closed")); // allowed, but no handler and no response
        } else {
            QCOMPARE(got, expectedReply(probe, boxAnswer));
        }
    }

    void testPin_data()
    {
        QTest::addColumn<PinCase>("c");
        QTest::newRow("verify") << PinCase{0, "739251", {}, pinResult("739251", "")};
        // Typed beyond the maximum of the token stack's record: cut at 16.
        QTest::newRow("change, cut at the maximum") << PinCase{
                2, "123456", "Abcdefgh12345678XYZ", pinResult("123456", "Abcdefgh12345678")};
        QTest::newRow("set") << PinCase{5, {}, "a1b2c3", pinResult("", "a1b2c3")};
        QTest::newRow("change, Cancel") << PinCase{2, "739251", "a1b2c3", {}};
        QTest::newRow("3 left, Retry")
                << retry(3, "pushButton_Retry", "There are 3 times remaining");
        QTest::newRow("0 left, closed")
                << retry(0, "close", "There are 0 times remaining", UI_USER_CANCEL);
        QTest::newRow("default PIN forbidden, Cancel") << retry(
                0xFFFFFFFF, "pushButton_Cancel", "Default PIN Is Forbidden", UI_USER_CANCEL);
    }
    void testPin()
    {
        QFETCH(PinCase, c);
        const int mark = logMark();
        QCOMPARE(ask(begin()), reply(UI_OK));
        QPointer<PINDialog> dialog = showPin(c.type);
        QVERIFY(dialog);
        const QString title = dialog->windowTitle();
        const QByteArray expected
                = c.result.isEmpty() ? reply(UI_USER_CANCEL) : packet(UI_OK, c.result).toHex();
        for (int attempt = 0;; ++attempt) {
            typePins(dialog, c.oldPin, c.newPin);
            QCOMPARE(ask(REQ_PIN_GetPIN), reply(UI_NO_RESULT)); // typed, not confirmed
            QTest::mouseClick(dialog->findChild<QPushButton *>(
                                      c.result.isEmpty() ? "pushButton_Cancel" : "pushButton_OK"),
                              Qt::LeftButton);
            for (int round = 0; round < 2; ++round) // the same answer until the next request
                QCOMPARE(ask(REQ_PIN_GetPIN), expected);
            if (c.tries < 0 || attempt)
                break;
            // The token said no: the client waits while the user reads the box.
            QVERIFY(put(packet(REQ_PIN_Retry, u32(quint32(c.tries)))));
            QPointer<MessageDialog> box = waitShown(&UI_Service::currentMessageDialog);
            QVERIFY(box);
            QCOMPARE(shown(box), "USBKey password error|" + c.boxText + "|RetryCancel");
            answer(box, c.box);
            QCOMPARE(response(), reply(c.retryReply));
            if (c.retryReply != UI_OK) { // only the end of the session is left
                QCOMPARE(ask(REQ_PIN_GetPIN), reply(UI_STATE_ERROR));
                return;
            }
            // A fresh, empty dialog of the same kind replaces the hidden one.
            QTRY_VERIFY_WITH_TIMEOUT(dialog.isNull(), kDeadlineMs);
            dialog = waitShown(&UI_Service::currentPinDialog);
            QVERIFY(dialog && dialog->windowTitle() == title);
        }
        QCOMPARE(ask(REQ_PIN_Finish), reply(UI_OK));
        QTRY_VERIFY_WITH_TIMEOUT(dialog.isNull() && !ui->currentPinDialog(), kDeadlineMs);
        QCOMPARE(ask(REQ_EndSession), reply(UI_OK));
        // PIN bytes never reach the log: a response holding them shows its header only.
        const QString redacted = QStringLiteral("SendBuff: Send \"%1\" <%2 bytes redacted>")
                                         .arg(QString(expected.left(16)))
                                         .arg(c.result.size());
        const QString log = logSince(mark).join('\n');
        QCOMPARE(log.contains(redacted), !c.result.isEmpty());
        for (const QString &pin : {c.oldPin, c.newPin.left(16)})
            QVERIFY(pin.isEmpty() || !(log.contains(pin) || log.contains(pin.toUtf8().toHex())));
    }

    void testMessageBox_data()
    {
        QTest::addColumn<BoxCase>("c");
        QTest::newRow("OK") << BoxCase{0, "Warning", "Remove the key", "Warning|Remove the key|OK",
                                       "pushButton_OK"};
        QTest::newRow("Retry/Cancel, Cancel, no title")
                << BoxCase{5, "", "go on?", "|go on?|RetryCancel", "pushButton_Cancel"};
        // The text starts 13 + the title's UTF-16 length into the packet.
        QTest::newRow("Chinese title, closed")
                << BoxCase{0, "中文", "hello", "中文|文|OK", "close"};
        // Neither confirmed nor cancelled: "no result", and the next box replaces it.
        QTest::newRow("other status") << BoxCase{0, "T", "x", "T|x|OK", "2"};
    }
    void testMessageBox()
    {
        QFETCH(BoxCase, c);
        QCOMPARE(ask(begin()), reply(UI_OK));
        const QByteArray request
                = packet(REQ_MessageBox, u32(c.type) + c.title + '\0' + c.text + '\0');
        QVERIFY(put(request));
        QPointer<MessageDialog> box = waitShown(&UI_Service::currentMessageDialog);
        QVERIFY(box);
        QCOMPARE(shown(box), c.shown);
        if (c.answer == "2")
            ui->SetMsgStatus(2);
        else
            answer(box, c.answer);
        // Confirmed or cancelled are not told apart.
        QCOMPARE(response(), reply(c.answer == "2" ? UI_NO_RESULT : UI_OK));
        if (c.answer == "2") { // still up until the next box takes its place
            QVERIFY(box && box->isVisible() && put(request));
            QTRY_VERIFY_WITH_TIMEOUT(box.isNull() && waitShown(&UI_Service::currentMessageDialog),
                                     kDeadlineMs);
            boxAnswer = 1;
            QCOMPARE(response(), reply(UI_OK));
        }
    }

    void testList_data()
    {
        QTest::addColumn<quint32>("param");
        QTest::addColumn<QString>("how"); // a button or "close"
        QTest::addColumn<QByteArray>("expected");
        QTest::newRow("third entry, OK") << 0u << "pushButton_OK" << reply(UI_OK, "02000000");
        QTest::newRow("Cancel") << 0u << "pushButton_Cancel" << reply(UI_USER_CANCEL);
        QTest::newRow("closed") << 0u << "close" << reply(UI_USER_CANCEL);
        QTest::newRow("type 1: no window, row -1") << 1u << QString() << reply(UI_OK, "ffffffff");
        QTest::newRow("type 2: never answered") << 2u << QString() << reply(UI_NO_RESULT);
    }
    void testList()
    {
        QFETCH(quint32, param);
        QFETCH(QString, how);
        QFETCH(QByteArray, expected);
        QCOMPARE(ask(begin()), reply(UI_OK));
        QCOMPARE(ask(REQ_List_Show, u32(param) + "A\nB\nC" + '\0'), reply(UI_OK));
        if (param) {
            QTRY_COMPARE_WITH_TIMEOUT(ask(REQ_List_GetSel), expected, kDeadlineMs);
            QCOMPARE(visibleWindows(), 0);
            return;
        }
        QPointer<CertListDialog> first = waitShown(&UI_Service::currentListDialog);
        QVERIFY(first);
        QCOMPARE(ask(REQ_List_GetSel), reply(UI_NO_RESULT));
        // A new session's list replaces the open one, which goes without an answer.
        QCOMPARE(ask(REQ_EndSession), reply(UI_OK));
        QCOMPARE(ask(begin()), reply(UI_OK));
        QCOMPARE(ask(REQ_List_Show, u32(0) + "D\nE\nF" + '\0'), reply(UI_OK));
        QTRY_VERIFY_WITH_TIMEOUT(first.isNull(), kDeadlineMs);
        QPointer<CertListDialog> list = waitShown(&UI_Service::currentListDialog);
        QCOMPARE(entries(list), QStringList({"D", "E", "F"}));
        QTest::keyClicks(list->findChild<QComboBox *>("comboBox_certlist"), "F"); // by its name
        answer(list, how);
        QTRY_VERIFY_WITH_TIMEOUT(list.isNull(), kDeadlineMs);
        QCOMPARE(ask(REQ_List_GetSel), expected);
        QCOMPARE(ask(REQ_EndSession), reply(UI_OK));
    }

    // A waiting request cannot come while its window is up; the window replaces one all the same.
    void testWaitingReplaced()
    {
        ui->on_waiting_dialog_show(QString(), 2);
        QPointer<WaitingDialog> first = ui->currentWaitingDialog();
        QVERIFY(first);
        ui->on_waiting_dialog_show(QString(), 3);
        QVERIFY(first.isNull() && ui->currentWaitingDialog()->isVisible());
    }

    void testFraming_data()
    {
        QTest::addColumn<FrameCase>("c");
        const QByteArray abc = packet(REQ_List_Show, u32(0) + "A\nB\nC" + '\0');
        QTest::newRow("three writes") << FrameCase{abc, {10, 17}, reply(UI_OK), {"A", "B", "C"}};
        QTest::newRow("first read of 5 bytes") << FrameCase{abc, {5}, "closed", {}};
        QTest::newRow("datalen above the maximum") << FrameCase{
                packet(REQ_List_Show, QByteArray(COMMPACK_MAX_DATA + 1, 'A')), {}, "closed", {}};
        const QByteArray full(COMMPACK_MAX_DATA - 4, 'B');
        QTest::newRow("full packet, no terminator") << FrameCase{
                packet(REQ_List_Show, u32(0) + full), {}, reply(UI_OK), {QString(full)}};
    }
    void testFraming()
    {
        QFETCH(FrameCase, c);
        QCOMPARE(ask(begin()), reply(UI_OK));
        const int mark = logMark();
        int at = 0;
        for (const int cut : c.cuts) { // each part is read before the next is sent
            QVERIFY(put(c.bytes.mid(at, cut - at)));
            QTRY_COMPARE_WITH_TIMEOUT(
                    logSince(mark).filter(QRegularExpression("^RecvBuff: readed")).size(),
                    c.cuts.indexOf(cut) + 1, kDeadlineMs);
            at = cut;
        }
        (void)put(c.bytes.mid(at));
        QCOMPARE(response(), c.expected);
        if (c.shown.isEmpty())
            QCOMPARE(logSince(mark).filter(QRegularExpression("^REQ_")), QStringList());
        else
            QCOMPARE(entries(waitShown(&UI_Service::currentListDialog)), c.shown);
    }

    void testDevice_data()
    {
        QTest::addColumn<DeviceCase>("c");
        const QByteArray ok = reply(UI_OK);
        const QString open = "EstablishContext rc=0 ctx=h1; Connect ctx=h1 ref=0x8877665544332211 ";
        // A second session overwrites the handles: only the last pair is released.
        QTest::newRow("second session") << DeviceCase{
                true,
                {packet(REQ_EndSession), begin(0x0102030405060708ULL), packet(REQ_PIN_Show, u32(2)),
                 packet(REQ_Waiting_Show, u32(2))},
                {ok, ok, ok, ok},
                2,
                open
                        + "rc=0 dev=h2; IsDevPresent dev=h2 rc=0; IsDevPresent dev=h2 rc=0; "
                          "EstablishContext rc=0 ctx=h3; Connect ctx=h3 "
                          "ref=0x0102030405060708 rc=0 dev=h4; IsDevPresent dev=h4 rc=0; "
                          "IsDevPresent dev=h4 rc=0; Disconnect dev=h4 rc=0; "
                          "ReleaseContext ctx=h3 rc=0"};
        // An empty request: the token is pulled out.
        QTest::newRow("token pulled out") << DeviceCase{
                true,
                {{}, packet(REQ_PIN_Show, u32(1)), packet(REQ_PIN_GetPIN)},
                {{}, reply(UI_TOKEN_NOT_PRESENT), "closed"},
                0,
                open
                        + "rc=0 dev=h2; IsDevPresent dev=h2 rc=1; Disconnect dev=h2 rc=0; "
                          "ReleaseContext ctx=h1 rc=0"};
        // No device, so no presence check ends the session.
        QTest::newRow("absent at BeginSession")
                << DeviceCase{false,
                              {packet(REQ_PIN_Show, u32(1)), packet(REQ_PIN_GetPIN)},
                              {ok, reply(UI_NO_RESULT)},
                              1,
                              open + "rc=167772168 dev=0; ReleaseContext ctx=h1 rc=0"};
    }
    void testDevice()
    {
        QFETCH(DeviceCase, c);
        // The last connection's handles are released before the journal starts afresh.
        QTRY_VERIFY_WITH_TIMEOUT(
                journal().join(';').contains(QRegularExpression("ReleaseContext[^;]*$")),
                kDeadlineMs);
        QVERIFY(QFile::remove(path("journal.txt")));
        QVERIFY(setPresent(c.present));
        QCOMPARE(ask(begin()), reply(UI_OK));
        QByteArrayList replies;
        for (const QByteArray &r : c.requests)
            replies << (r.isEmpty() ? QByteArray(setPresent(false) ? "" : "?") : ask(r));
        QCOMPARE(replies, c.replies);
        QTRY_COMPARE_WITH_TIMEOUT(visibleWindows(), c.windows, kDeadlineMs);
        drop(); // the handles go, and so do the windows (see cleanup())
        QTRY_COMPARE_WITH_TIMEOUT(journal().join("; "), c.journal, kDeadlineMs);
    }

    void testNameTooLong()
    {
        const int mark = logMark();
        QCoreApplication::setApplicationName(app + 'x'); // 107 bytes with the uid
        FIFO_Service second(ui.get(), nullptr);
        QSignalSpy failed(&second, &FIFO_Service::start_pipe_failed);
        second.CreatePipeAndListen(); // returns at once: it cannot listen
        QCoreApplication::setApplicationName(app);
        QCOMPARE(failed.count(), 1);
        QCOMPARE(logSince(mark).filter(QRegularExpression("^(makeAddr|bind)")),
                 QStringList({"makeAddr() failed", "bind() failed"}));
    }

    void testForeignPeerClosedBeforeRead()
    {
        if (getuid() != 0)
            QSKIP("needs root to connect as another user");
        const int mark = logMark();
        drop();
        // The raw call, unlike the C library's, changes this one thread's user only.
        std::thread([this] {
            if (syscall(SYS_setresuid, -1, 65534, -1) == 0)
                (void)zrui_open(qPrintable(app), &conn);
        }).join();
        QVERIFY(conn);
        QCOMPARE(ask(begin()), QByteArray("closed"));
        // Turned away before a byte is read: straight back to accept.
        QTRY_VERIFY_WITH_TIMEOUT(logSince(mark).join('\n').contains(
                                         QStringLiteral("rejected peer uid=65534 pid=%1: not this "
                                                        "user\nCreatePipeAndListen: call accept...")
                                                 .arg(getpid())),
                                 kDeadlineMs);
    }
};

QTEST_MAIN(TestService)
#include "TestService.moc"
