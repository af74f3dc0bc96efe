// The request service over real sockets: the real coordinator in this process
// (socket service in its thread, dialogs offscreen), raw clients, QTest as the user.
#include "ServerLauncher.h"
#include "client/zrui_client.h"
#include "service/FIFO_Service.h"
#include "service/Protocol.h"
#include "service/SessionTable.h"
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
#include <QSaveFile>
#include <QtEndian>
#include <QtTest>

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
constexpr int kNoAnswer = -100;
constexpr int kRows = int(sizeof Transitions / sizeof Transitions[0]);

QByteArray u32(quint32 v) { return QByteArray(reinterpret_cast<const char *>(&v), 4); }
QByteArray packet(quint32 op, const QByteArray &data = {})
{
    return u32(op) + u32(data.size()) + data;
}
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
int accepted = 0, ended = 0; // connections
void capture(QtMsgType, const QMessageLogContext &, const QString &message)
{
    std::lock_guard<std::mutex> lock(logMutex);
    logLines << message;
    accepted += message.startsWith(QLatin1String("accepted: "));
    ended += message.startsWith(QLatin1String("Clean env"))
             || message.startsWith(QLatin1String("rejected peer"));
}
bool allServed()
{
    std::lock_guard<std::mutex> lock(logMutex);
    return accepted == ended;
}
QStringList logSince(int mark)
{
    std::lock_guard<std::mutex> lock(logMutex);
    return logLines.mid(mark);
}
int logMark() { return logSince(0).size(); }

template<typename T = QLineEdit>
T *child(QObject *o, const char *name)
{
    return o ? o->findChild<T *>(QLatin1String(name)) : nullptr;
}

int visibleWindows()
{
    int n = 0;
    for (QWidget *w : QApplication::topLevelWidgets())
        n += w->isVisible();
    return n;
}

QStringList entries(CertListDialog *list)
{
    QStringList out;
    auto *combo = child<QComboBox>(list, "comboBox_certlist");
    for (int i = 0; combo && i < combo->count(); ++i)
        out << combo->itemText(i);
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
    QSet<OpSet> seen{Start};
    std::queue<std::pair<OpSet, QVector<int>>> todo;
    todo.push({Start, {}});
    while (!todo.empty()) {
        const auto [state, path] = todo.front();
        todo.pop();
        for (int row = 0; row < kRows; ++row) {
            if (!allows(state, Transitions[row].operation) || !route[row].isEmpty())
                continue;
            route[row] = path + QVector<int>{row};
            if (!seen.contains(Transitions[row].next)) {
                seen.insert(Transitions[row].next);
                todo.push({Transitions[row].next, route[row]});
            }
        }
    }
    return route;
}

} // namespace

class TestService : public QObject
{
    Q_OBJECT

    ServerLauncher sandbox; // its files, not its process
    QString app;
    std::unique_ptr<UI_Service> ui;
    zrui_conn *conn = nullptr;
    int boxAnswer = kNoAnswer; // set: every message box is answered with it

    bool open()
    {
        zrui_close(conn);
        return zrui_open(qPrintable(app), &conn) == ZRUI_OK;
    }
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
        QStringList lines
                = file.open(QIODevice::ReadOnly)
                          ? QString::fromUtf8(file.readAll()).split('\n', Qt::SkipEmptyParts)
                          : QStringList();
        QHash<QString, QString> names;
        static const QRegularExpression handle(QStringLiteral("\\b(ctx|dev)=([1-9]\\d*)"));
        for (QString &line : lines) {
            QString out;
            int at = 0;
            for (auto it = handle.globalMatch(line); it.hasNext();) {
                const QRegularExpressionMatch m = it.next();
                QString &name = names[m.captured(2)];
                if (name.isEmpty())
                    name = QStringLiteral("h%1").arg(names.size());
                out += line.mid(at, m.capturedStart() - at) + m.captured(1) + '=' + name;
                at = m.capturedEnd();
            }
            line = out + line.mid(at);
        }
        return lines;
    }
    bool put(const QByteArray &bytes)
    {
        return send(zrui_fd(conn), bytes.constData(), size_t(bytes.size()), MSG_NOSIGNAL)
               == bytes.size();
    }
    // The next response as hex, "closed" when the server hung up first, "none" at the
    // deadline. With events the GUI loop runs meanwhile (and boxAnswer answers boxes).
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
                if (boxAnswer != kNoAnswer && ui->currentMessageDialog()
                    && ui->GetMsgStatus() == -1)
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

    PINDialog *showPin(quint32 type)
    {
        if (ask(REQ_PIN_Show, u32(type)) != reply(UI_OK)
            // At once, before this thread shows the dialog: nothing typed yet.
            || ask(packet(REQ_PIN_GetPIN), false) != reply(UI_NO_RESULT))
            return nullptr;
        const auto up
                = [this] { return ui->currentPinDialog() && ui->currentPinDialog()->isVisible(); };
        return QTest::qWaitFor(up, kDeadlineMs) ? ui->currentPinDialog() : nullptr;
    }
    static void typePins(PINDialog *d, const QString &oldPin, const QString &newPin)
    {
        for (const auto &[name, text] : {std::pair{"lineEdit_oldPin", oldPin},
                                         {"lineEdit_newPin", newPin},
                                         {"lineEdit_confirmPin", newPin}}) {
            if (!text.isEmpty())
                QTest::keyClicks(child(d, name), text);
        }
    }
    template<typename T>
    T *waitShown(T *(UI_Service::*current)() const)
    {
        const auto up
                = [&] { return (ui.get()->*current)() && (ui.get()->*current)()->isVisible(); };
        return QTest::qWaitFor(up, kDeadlineMs) ? (ui.get()->*current)() : nullptr;
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
        QVERIFY(ui->service());
        QTRY_VERIFY_WITH_TIMEOUT(ServerLauncher::isListening(app + uid), kDeadlineMs);
    }
    void cleanupTestCase()
    {
        zrui_close(conn);
        ui.reset(); // stops and joins the service thread
    }
    void init() { QVERIFY(setPresent(true) && open()); }
    void cleanup()
    {
        zrui_close(conn);
        conn = nullptr;
        boxAnswer = kNoAnswer;
        // No window outlives its connection.
        QTRY_VERIFY_WITH_TIMEOUT(allServed() && visibleWindows() == 0, kDeadlineMs);
    }

    void testSessionTable_data()
    {
        QTest::addColumn<int>("row"); // -1: a fresh connection
        QTest::addColumn<quint32>("probe");
        // Every code, and codes that a set kept in a 32- or 64-bit word would alias.
        QList<quint32> probes{33, 65, 0xFFFFFFFFu};
        for (quint32 op = 0; op <= 15; ++op)
            probes << op;
        for (int row = -1; row < kRows; ++row) {
            for (const quint32 probe : probes) {
                const QByteArray state = row < 0 ? QByteArray("start")
                                                 : QByteArray::number(Transitions[row].operation)
                                                           + " answered "
                                                           + QByteArray::number(answerOf(row));
                QTest::addRow("%s, then op %u", state.constData(), probe) << row << probe;
            }
        }
    }
    // The table the dispatcher reads, walked over the socket: each row reached by its
    // shortest route, then every code tried once.
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

    void testPinRoundTrip_data()
    {
        QTest::addColumn<quint32>("type");
        QTest::addColumn<QString>("oldPin");
        QTest::addColumn<QString>("newPin");
        QTest::addColumn<bool>("ok");
        QTest::addColumn<QByteArray>("result");
        QTest::newRow("verify") << 0u << "739251" << QString() << true << pinResult("739251", "");
        // Typed beyond the maximum of the token stack's record: cut at 16.
        QTest::newRow("change, cut at the maximum")
                << 2u << "123456"
                << "Abcdefgh12345678XYZ" << true << pinResult("123456", "Abcdefgh12345678");
        QTest::newRow("set") << 5u << QString() << "a1b2c3" << true << pinResult("", "a1b2c3");
        QTest::newRow("change, Cancel") << 2u << "739251"
                                        << "a1b2c3" << false << QByteArray();
    }
    void testPinRoundTrip()
    {
        QFETCH(quint32, type);
        QFETCH(QString, oldPin);
        QFETCH(QString, newPin);
        QFETCH(bool, ok);
        QFETCH(QByteArray, result);
        const int mark = logMark();
        QCOMPARE(ask(begin()), reply(UI_OK));
        QPointer<PINDialog> dialog = showPin(type);
        QVERIFY(dialog);
        typePins(dialog, oldPin, newPin);
        QCOMPARE(ask(REQ_PIN_GetPIN), reply(UI_NO_RESULT)); // typed, not confirmed
        QTest::mouseClick(child<QPushButton>(dialog, ok ? "pushButton_OK" : "pushButton_Cancel"),
                          Qt::LeftButton);
        const QByteArray expected = ok ? packet(UI_OK, result).toHex() : reply(UI_USER_CANCEL);
        for (int round = 0; round < 2; ++round) // the same answer until the next request
            QCOMPARE(ask(REQ_PIN_GetPIN), expected);
        QCOMPARE(ask(REQ_PIN_Finish), reply(UI_OK));
        QTRY_VERIFY_WITH_TIMEOUT(dialog.isNull() && !ui->currentPinDialog(), kDeadlineMs);
        QCOMPARE(ask(REQ_EndSession), reply(UI_OK));
        // PIN bytes never reach the log: a response holding them shows its header only.
        const QStringList lines = logSince(mark);
        const QString redacted = QStringLiteral("SendBuff: Send \"%1\" <%2 bytes redacted>")
                                         .arg(QString(expected.left(16)))
                                         .arg(result.size());
        QCOMPARE(lines.count(redacted), ok ? 2 : 0);
        for (const QString &pin : {oldPin, newPin.left(16)}) {
            for (const QString &line : lines) {
                QVERIFY2(pin.isEmpty() || !line.contains(pin), qPrintable(line));
                QVERIFY2(pin.isEmpty() || !line.contains(pin.toUtf8().toHex()), qPrintable(line));
            }
        }
    }

    void testRetry_data()
    {
        QTest::addColumn<quint32>("tries");
        QTest::addColumn<QString>("text");
        QTest::addColumn<QString>("button"); // empty: closed by the window manager
        QTest::addColumn<QByteArray>("expected");
        QTest::newRow("3 left, Retry") << 3u << "There are 3 times remaining"
                                       << "pushButton_Retry" << reply(UI_OK);
        QTest::newRow("0 left, closed")
                << 0u << "There are 0 times remaining" << QString() << reply(UI_USER_CANCEL);
        QTest::newRow("default PIN forbidden, Cancel")
                << 0xFFFFFFFFu << "Default PIN Is Forbidden"
                << "pushButton_Cancel" << reply(UI_USER_CANCEL);
    }
    void testRetry()
    {
        QFETCH(quint32, tries);
        QFETCH(QString, text);
        QFETCH(QString, button);
        QFETCH(QByteArray, expected);
        QCOMPARE(ask(begin()), reply(UI_OK));
        QPointer<PINDialog> first = showPin(3);
        QVERIFY(first);
        const QString title = first->windowTitle();
        typePins(first, "aaaaaa", "a1b2c3");
        QTest::mouseClick(child<QPushButton>(first, "pushButton_OK"), Qt::LeftButton);
        QCOMPARE(ask(REQ_PIN_GetPIN), packet(UI_OK, pinResult("aaaaaa", "a1b2c3")).toHex());
        // The token said no: the client waits while the user reads the box.
        QVERIFY(put(packet(REQ_PIN_Retry, u32(tries))));
        QPointer<MessageDialog> box = waitShown(&UI_Service::currentMessageDialog);
        QVERIFY(box);
        QCOMPARE(box->windowTitle() + '|' + child<QLabel>(box, "label_message")->text(),
                 "USBKey password error|" + text);
        QVERIFY(!child<QPushButton>(box, "pushButton_OK")->isVisible());
        if (button.isEmpty())
            box->close();
        else
            QTest::mouseClick(child<QPushButton>(box, qPrintable(button)), Qt::LeftButton);
        QCOMPARE(response(), expected);
        if (expected != reply(UI_OK)) { // cancelled: only the end of the session is allowed
            QCOMPARE(ask(REQ_PIN_GetPIN), reply(UI_STATE_ERROR));
            return;
        }
        // A fresh, empty dialog of the same kind replaces the hidden one.
        QTRY_VERIFY_WITH_TIMEOUT(first.isNull(), kDeadlineMs);
        QPointer<PINDialog> second = waitShown(&UI_Service::currentPinDialog);
        QVERIFY(second);
        QCOMPARE(second->windowTitle(), title);
        QCOMPARE(ask(REQ_PIN_GetPIN), reply(UI_NO_RESULT));
        typePins(second, "bbbbbb", "c3d4e5");
        QTest::mouseClick(child<QPushButton>(second, "pushButton_OK"), Qt::LeftButton);
        QCOMPARE(ask(REQ_PIN_GetPIN), packet(UI_OK, pinResult("bbbbbb", "c3d4e5")).toHex());
    }

    void testMessageBox_data()
    {
        QTest::addColumn<quint32>("type");
        QTest::addColumn<QByteArray>("title");
        QTest::addColumn<QByteArray>("text");
        QTest::addColumn<QString>("shown"); // title|text|buttons
        QTest::addColumn<QString>("answer"); // a button, "close", or a status
        QTest::newRow("OK") << 0u << QByteArray("Warning") << QByteArray("Remove the key")
                            << "Warning|Remove the key|pushButton_OK"
                            << "pushButton_OK";
        QTest::newRow("Retry/Cancel, Cancel, no title")
                << 5u << QByteArray() << QByteArray("go on?")
                << "|go on?|pushButton_Retry pushButton_Cancel"
                << "pushButton_Cancel";
        // The text starts 13 + the title's UTF-16 length into the packet.
        QTest::newRow("Chinese title, closed")
                << 0u << QByteArray("中文") << QByteArray("hello") << "中文|文|pushButton_OK"
                << "close";
        QTest::newRow("emoji title") << 5u << QByteArray("\xF0\x9F\x98\x80") << QByteArray("hi")
                                     << "\xF0\x9F\x98\x80|\xEF\xBF\xBD|pushButton_Retry "
                                        "pushButton_Cancel"
                                     << "pushButton_Retry";
        // Neither confirmed nor cancelled: "no result", and the next box replaces it.
        QTest::newRow("other status")
                << 0u << QByteArray("T") << QByteArray("x") << "T|x|pushButton_OK"
                << "2";
    }
    void testMessageBox()
    {
        QFETCH(quint32, type);
        QFETCH(QByteArray, title);
        QFETCH(QByteArray, text);
        QFETCH(QString, shown);
        QFETCH(QString, answer);
        QCOMPARE(ask(begin()), reply(UI_OK));
        const QByteArray request = packet(REQ_MessageBox, u32(type) + title + '\0' + text + '\0');
        QVERIFY(put(request));
        QPointer<MessageDialog> box = waitShown(&UI_Service::currentMessageDialog);
        QVERIFY(box);
        QStringList buttons;
        for (const QPushButton *b : box->findChildren<QPushButton *>())
            buttons << (b->isVisible() ? b->objectName() : QString());
        buttons.removeAll(QString());
        QCOMPARE(box->windowTitle() + '|' + child<QLabel>(box, "label_message")->text() + '|'
                         + buttons.join(' '),
                 shown);
        if (answer == "close")
            box->close();
        else if (answer == "2")
            ui->SetMsgStatus(2);
        else
            QTest::mouseClick(child<QPushButton>(box, qPrintable(answer)), Qt::LeftButton);
        // Confirmed or cancelled are not told apart.
        QCOMPARE(response(), reply(answer == "2" ? UI_NO_RESULT : UI_OK));
        if (answer == "2") { // still up until the next box takes its place
            QVERIFY(box && box->isVisible() && put(request));
            QTRY_VERIFY_WITH_TIMEOUT(box.isNull() && waitShown(&UI_Service::currentMessageDialog),
                                     kDeadlineMs);
            QTest::mouseClick(child<QPushButton>(ui->currentMessageDialog(), "pushButton_OK"),
                              Qt::LeftButton);
            QCOMPARE(response(), reply(UI_OK));
        }
    }

    void testList_data()
    {
        QTest::addColumn<quint32>("param");
        QTest::addColumn<QString>("answer"); // a button, "close", "replace" or empty (no window)
        QTest::addColumn<QByteArray>("expected");
        QTest::newRow("third entry, OK") << 0u << "pushButton_OK" << reply(UI_OK, "02000000");
        QTest::newRow("Cancel") << 0u << "pushButton_Cancel" << reply(UI_USER_CANCEL);
        QTest::newRow("closed") << 0u << "close" << reply(UI_USER_CANCEL);
        QTest::newRow("replaced by the next list") << 0u << "replace" << reply(UI_OK, "02000000");
        QTest::newRow("type 1: no window, row -1") << 1u << QString() << reply(UI_OK, "ffffffff");
        QTest::newRow("type 2: never answered") << 2u << QString() << reply(UI_NO_RESULT);
    }
    void testList()
    {
        QFETCH(quint32, param);
        QFETCH(QString, answer);
        QFETCH(QByteArray, expected);
        QCOMPARE(ask(begin()), reply(UI_OK));
        QCOMPARE(ask(REQ_List_Show, u32(param) + "A\nB\nC" + '\0'), reply(UI_OK));
        if (param) {
            QTRY_COMPARE_WITH_TIMEOUT(ask(REQ_List_GetSel), expected, kDeadlineMs);
            QCOMPARE(visibleWindows(), 0);
            return;
        }
        QPointer<CertListDialog> list = waitShown(&UI_Service::currentListDialog);
        QVERIFY(list);
        QCOMPARE(entries(list), QStringList({"A", "B", "C"}));
        QCOMPARE(ask(REQ_List_GetSel), reply(UI_NO_RESULT));
        if (answer == "replace") {
            QCOMPARE(ask(REQ_EndSession), reply(UI_OK));
            QCOMPARE(ask(begin()), reply(UI_OK));
            QCOMPARE(ask(REQ_List_Show, u32(0) + "D\nE\nF" + '\0'), reply(UI_OK));
            QTRY_VERIFY_WITH_TIMEOUT(list.isNull(), kDeadlineMs); // went without an answer
            list = waitShown(&UI_Service::currentListDialog);
            QVERIFY(list);
            QCOMPARE(entries(list), QStringList({"D", "E", "F"}));
            answer = "pushButton_OK";
        }
        auto *combo = child<QComboBox>(list, "comboBox_certlist");
        QTest::keyClick(combo, Qt::Key_Down);
        QTest::keyClick(combo, Qt::Key_Down);
        if (answer == "close")
            list->close();
        else
            QTest::mouseClick(child<QPushButton>(list, qPrintable(answer)), Qt::LeftButton);
        QTRY_VERIFY_WITH_TIMEOUT(list.isNull(), kDeadlineMs);
        QCOMPARE(ask(REQ_List_GetSel), expected);
        QCOMPARE(ask(REQ_EndSession), reply(UI_OK));
    }

    // A waiting request cannot come while its window is up; the window replaces one all the same.
    void testWaitingReplaced()
    {
        ui->on_waiting_dialog_show(QString(), 2);
        QPointer<WaitingDialog> first = ui->currentWaitingDialog();
        ui->on_waiting_dialog_show(QString(), 3);
        QVERIFY(first.isNull() && ui->currentWaitingDialog()->isVisible());
        QCOMPARE(visibleWindows(), 1);
        ui->on_waiting_dialog_hide();
    }

    void testFraming_data()
    {
        QTest::addColumn<QByteArray>("bytes");
        QTest::addColumn<QList<int>>("cuts"); // each part is read before the next is sent
        QTest::addColumn<QByteArray>("expected");
        QTest::addColumn<QStringList>("shown"); // the list entries
        const QByteArray abc = packet(REQ_List_Show, u32(0) + "A\nB\nC" + '\0');
        QTest::newRow("three writes")
                << abc << QList<int>{10, 17} << reply(UI_OK) << QStringList{"A", "B", "C"};
        QTest::newRow("first read of 5 bytes")
                << abc << QList<int>{5} << QByteArray("closed") << QStringList();
        QTest::newRow("datalen above the maximum")
                << packet(REQ_List_Show, QByteArray(COMMPACK_MAX_DATA + 1, 'A')) << QList<int>()
                << QByteArray("closed") << QStringList();
        const QByteArray full(COMMPACK_MAX_DATA - 4, 'B');
        QTest::newRow("full packet, no terminator")
                << packet(REQ_List_Show, u32(0) + full) << QList<int>() << reply(UI_OK)
                << QStringList{QString(full)};
    }
    void testFraming()
    {
        QFETCH(QByteArray, bytes);
        QFETCH(QList<int>, cuts);
        QFETCH(QByteArray, expected);
        QFETCH(QStringList, shown);
        QCOMPARE(ask(begin()), reply(UI_OK));
        const int mark = logMark();
        const auto bytesRead = [mark] {
            int n = 0;
            static const QRegularExpression read(
                    QStringLiteral("^RecvBuff: readed readlen= (\\d+)"));
            for (const QString &line : logSince(mark))
                n += read.match(line).captured(1).toInt();
            return n;
        };
        int at = 0;
        for (const int cut : cuts) {
            QVERIFY(put(bytes.mid(at, cut - at)));
            QTRY_COMPARE_WITH_TIMEOUT(bytesRead(), cut, kDeadlineMs);
            at = cut;
        }
        (void)put(bytes.mid(at));
        QCOMPARE(response(), expected);
        if (shown.isEmpty()) {
            QCOMPARE(logSince(mark).filter(QRegularExpression("^REQ_")), QStringList());
        } else {
            QPointer<CertListDialog> list = waitShown(&UI_Service::currentListDialog);
            QCOMPARE(entries(list), shown);
        }
    }

    void testDevice_data()
    {
        QTest::addColumn<bool>("present"); // at REQ_BeginSession
        QTest::addColumn<QByteArrayList>(
                "steps"); // request, response; an empty request: pulled out
        QTest::addColumn<int>("windows"); // open before the client leaves
        QTest::addColumn<QStringList>("expectedJournal");
        const QString connect1 = "Connect ctx=h1 ref=0x8877665544332211 rc=0 dev=h2";
        // A second session overwrites the handles: only the last pair is released.
        QTest::newRow("second session")
                << true << QByteArrayList{packet(REQ_EndSession),           reply(UI_OK),
                                          begin(0x0102030405060708ULL),     reply(UI_OK),
                                          packet(REQ_PIN_Show, u32(2)),     reply(UI_OK),
                                          packet(REQ_Waiting_Show, u32(2)), reply(UI_OK)}
                << 2 << QStringList{"EstablishContext rc=0 ctx=h1",
                                    connect1,
                                    "IsDevPresent dev=h2 rc=0",
                                    "IsDevPresent dev=h2 rc=0",
                                    "EstablishContext rc=0 ctx=h3",
                                    "Connect ctx=h3 ref=0x0102030405060708 rc=0 dev=h4",
                                    "IsDevPresent dev=h4 rc=0",
                                    "IsDevPresent dev=h4 rc=0",
                                    "Disconnect dev=h4 rc=0",
                                    "ReleaseContext ctx=h3 rc=0"};
        QTest::newRow("token pulled out")
                << true << QByteArrayList{QByteArray(),
                                          QByteArray(),
                                          packet(REQ_PIN_Show, u32(1)),
                                          reply(UI_TOKEN_NOT_PRESENT),
                                          QByteArray(),
                                          QByteArray("closed")}
                << 0
                << QStringList{"EstablishContext rc=0 ctx=h1", connect1, "IsDevPresent dev=h2 rc=1",
                               "Disconnect dev=h2 rc=0", "ReleaseContext ctx=h1 rc=0"};
        // No device, so no presence check ends the session.
        QTest::newRow("absent at BeginSession")
                << false
                << QByteArrayList{packet(REQ_PIN_Show, u32(1)), reply(UI_OK),
                                  packet(REQ_PIN_GetPIN), reply(UI_NO_RESULT)}
                << 1
                << QStringList{"EstablishContext rc=0 ctx=h1",
                               "Connect ctx=h1 ref=0x8877665544332211 rc=167772168 dev=0",
                               "ReleaseContext ctx=h1 rc=0"};
    }
    void testDevice()
    {
        QFETCH(bool, present);
        QFETCH(QByteArrayList, steps);
        QFETCH(int, windows);
        QFETCH(QStringList, expectedJournal);
        QVERIFY(QFile::remove(path("journal.txt")) || !QFile::exists(path("journal.txt")));
        QVERIFY(setPresent(present));
        QCOMPARE(ask(begin()), reply(UI_OK));
        for (int i = 0; i < steps.size(); i += 2) {
            if (steps[i].isEmpty() && steps[i + 1].isEmpty())
                QVERIFY(setPresent(false));
            else
                QCOMPARE(steps[i].isEmpty() ? response() : ask(steps[i]), steps[i + 1]);
        }
        QTRY_COMPARE_WITH_TIMEOUT(visibleWindows(), windows, kDeadlineMs);
        zrui_close(conn);
        conn = nullptr;
        QTRY_COMPARE_WITH_TIMEOUT(journal(), expectedJournal, kDeadlineMs);
        QTRY_COMPARE_WITH_TIMEOUT(visibleWindows(), 0, kDeadlineMs);
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
        zrui_close(conn);
        conn = nullptr;
        // The raw call, unlike the C library's, changes this one thread's user only.
        std::thread([this] {
            if (syscall(SYS_setresuid, -1, 65534, -1) == 0)
                (void)zrui_open(qPrintable(app), &conn);
        }).join();
        QVERIFY(conn);
        QCOMPARE(ask(begin()), QByteArray("closed"));
        // Turned away before a byte is read: straight back to accept.
        const auto next = [&] {
            const QStringList lines = logSince(mark);
            const int at = lines.indexOf(
                    QStringLiteral("rejected peer uid=65534 pid=%1: not this user").arg(getpid()));
            return at < 0 ? QString() : lines.value(at + 1);
        };
        QTRY_COMPARE_WITH_TIMEOUT(next(), QStringLiteral("CreatePipeAndListen: call accept..."),
                                  kDeadlineMs);
        QVERIFY(open());
        QCOMPARE(ask(begin()), reply(UI_OK));
    }
};

QTEST_MAIN(TestService)
#include "TestService.moc"
