// The request service over real sockets (see ServiceHarness): framing, the
// handlers' replies and signals, device calls, PIN redaction and peer uids.
#include "LogFile.h"
#include "ServiceHarness.h"
#include "service/FIFO_Service.h"
#include "service/Protocol.h"

#include <QRegularExpression>
#include <QTemporaryDir>
#include <QtTest>

#include <poll.h>
#include <csignal>
#include <sys/socket.h>
#include <sys/syscall.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

namespace {

QByteArray u32(quint32 v) { return QByteArray(reinterpret_cast<const char *>(&v), 4); }
QByteArray cstr(const QByteArray &s) { return s + '\0'; }
QString S(const char *s) { return QString::fromUtf8(s); }
const QByteArray kBegin = QByteArray(2, '\0') + QByteArray::fromHex("1122334455667788");

// Log lines after mark that start with prefix.
QStringList linesFrom(int mark, const QString &prefix)
{
    return ServiceHarness::logSince(mark).filter(
            QRegularExpression('^' + QRegularExpression::escape(prefix)));
}

// Journal lines from the last Connect on; its context and device handles.
QStringList journalFromLastConnect(QString *ctx, QString *dev)
{
    const QStringList journal = ServiceHarness::journalLines();
    static const QRegularExpression connect(
            S("^Connect ctx=(\\d+) ref=0x[0-9a-f]{16} rc=0 dev=([1-9]\\d*)$"));
    for (int i = journal.size() - 1; i >= 0; --i) {
        const QRegularExpressionMatch m = connect.match(journal.at(i));
        if (m.hasMatch()) {
            *ctx = m.captured(1);
            *dev = m.captured(2);
            return journal.mid(i);
        }
    }
    return QStringList();
}

// After the last Connect: the presence check (rc given; empty: none), then the release.
bool releasedAs(const char *presence)
{
    QString ctx, dev;
    const QStringList tail = journalFromLastConnect(&ctx, &dev).mid(1);
    QStringList want;
    if (*presence)
        want << S("IsDevPresent dev=%1 rc=%2").arg(dev, S(presence));
    return tail
           == (want << S("Disconnect dev=%1 rc=0").arg(dev)
                    << S("ReleaseContext ctx=%1 rc=0").arg(ctx));
}

QString lastOf(const QStringList &l) { return l.value(l.size() - 1); }

const QStringList kHides{S("hide_pin_dialog()"), S("hide_waiting_dialog()"),
                         S("hide_list_dialog()"), S("hide_message_dialog()")};

} // namespace

class TestService : public QObject
{
    Q_OBJECT

private slots:
    void initTestCase()
    {
        // Lines also go to the shared log file (ctest lock "uilog").
        QVERIFY(tempDir.isValid() && LogFile::clear());
        QVERIFY(harness.setUp(tempDir.path(), S("svc"), true));
    }
    void init()
    {
        harness.autoMsgAnswer = ServiceHarness::NoAutoAnswer;
        QVERIFY(ServiceHarness::setTokenPresent(true));
    }
    void cleanupTestCase() { QVERIFY(harness.stop()); }

    void testRequestSplitOverThreeWrites();
    void testRequestDropped_data();
    void testRequestDropped();
    void testFullPacketWithoutTerminator();
    void testDeviceReference();
    void testTokenPulledOut();
    void testBeginSessionTokenAbsent();
    void testDisconnectMidSession();
    void testMessageBoxLayout_data();
    void testMessageBoxLayout();
    void testSecondService_data();
    void testSecondService();
    void testPinResultRedactedInLog();
    void testForeignPeerClosedBeforeRead();

private:
    bool begin(TestClient &c)
    {
        return c.open(harness.appName()) == ZRUI_OK && c.ask(REQ_BeginSession, kBegin) == UI_OK;
    }

    QTemporaryDir tempDir;
    ServiceHarness harness;
};

void TestService::testRequestSplitOverThreeWrites()
{
    TestClient client;
    QVERIFY(begin(client));
    const int ev = harness.eventCount();
    const int mark = ServiceHarness::logMark();
    const QByteArray text = "Please press the button on the key|30";
    const QByteArray pkt = TestClient::packet(REQ_Waiting_Show, u32(4) + cstr(text));
    QVERIFY(client.sendRaw(pkt.left(10)));
    QVERIFY(ServiceHarness::waitForLog(S("RecvPack: RecvBuff rcount= 10"), mark));
    QVERIFY(client.sendRaw(pkt.mid(10, 7)));
    QVERIFY(ServiceHarness::waitForLog(S("RecvPack: RecvBuff rcount= 17"), mark));
    QVERIFY(client.sendRaw(pkt.mid(17)));
    quint32 resp = 0xdead;
    QByteArray data;
    QVERIFY(client.readResponse(&resp, &data));
    QCOMPARE(resp, quint32(UI_OK));
    QCOMPARE(data.size(), 0);
    QStringList recv = linesFrom(mark, S("RecvPack:"));
    recv.removeAll(S("RecvPack: RecvBuff......")); // opens every wait, either side of the mark
    QCOMPARE(recv,
             QStringList({S("RecvPack: RecvBuff recvLen= 10 , sizeof(COMMPACK)= 8 , "
                            "((PCOMMPACK)pReqData)->datalen= %1")
                                  .arg(pkt.size() - 8),
                          S("RecvPack: RecvBuff rcount= 10"), S("RecvPack: RecvBuff recvLen= 7"),
                          S("RecvPack: RecvBuff rcount= 17"),
                          S("RecvPack: RecvBuff recvLen= %1").arg(pkt.size() - 17),
                          S("RecvPack: RecvBuff final rcount= %1").arg(pkt.size())}));
    QTRY_COMPARE(harness.events(ev), QStringList(S("show_waiting_dialog(%1|4)").arg(S(text))));
}

void TestService::testRequestDropped_data()
{
    QTest::addColumn<QByteArray>("bytes");
    QTest::addColumn<QString>("lastRecvLen");
    QTest::addColumn<QString>("lastRcount"); // empty: the read loop never ran
    QTest::newRow("first read of 5 bytes")
            << TestClient::packet(REQ_BeginSession, kBegin).left(5)
            << S("RecvPack: RecvBuff recvLen= 5 , sizeof(COMMPACK)= 8 , "
                 "((PCOMMPACK)pReqData)->datalen= 10")
            << QString();
    QTest::newRow("datalen above maximum")
            << TestClient::packet(REQ_Waiting_Show, QByteArray(COMMPACK_MAX_DATA + 1, 'A'))
            << S("RecvPack: RecvBuff recvLen= 0")
            << S("RecvPack: RecvBuff rcount= %1").arg(COMMPACK_MAX_SIZE);
}

void TestService::testRequestDropped()
{
    QFETCH(QByteArray, bytes);
    QFETCH(QString, lastRecvLen);
    QFETCH(QString, lastRcount);
    TestClient client;
    QVERIFY(begin(client));
    const int mark = ServiceHarness::logMark();
    QVERIFY(client.sendRaw(bytes));
    QVERIFY(ServiceHarness::waitForLog(S("RecvPack() failed"), mark));
    QByteArray extra;
    QVERIFY(client.waitClosed(5000, &extra));
    QCOMPARE(extra.toHex(), QByteArray()); // no response
    QCOMPARE(lastOf(linesFrom(mark, S("RecvPack: RecvBuff recvLen="))), lastRecvLen);
    QCOMPARE(lastOf(linesFrom(mark, S("RecvPack: RecvBuff rcount="))), lastRcount);
    QCOMPARE(linesFrom(mark, S("REQ_")) + linesFrom(mark, S("SendBuff: Send ")), QStringList());
}

void TestService::testFullPacketWithoutTerminator()
{
    TestClient client;
    QVERIFY(begin(client));
    const int ev = harness.eventCount();
    const QByteArray text(COMMPACK_MAX_DATA - 4, 'B');
    QCOMPARE(client.ask(REQ_Waiting_Show, u32(2) + text), quint32(UI_OK));
    QTRY_COMPARE(harness.events(ev), QStringList(S("show_waiting_dialog(%1|2)").arg(S(text))));
}

// A second BeginSession overwrites the handles: only the last pair is released.
void TestService::testDeviceReference()
{
    TestClient client;
    QVERIFY(begin(client));
    QString ctx1, dev1, ctx2, dev2;
    QVERIFY(journalFromLastConnect(&ctx1, &dev1).value(0).contains(S(" ref=0x8877665544332211 ")));
    QCOMPARE(zrui_end_session(client.handle()), ZRUI_OK);
    QCOMPARE(zrui_begin_session(client.handle(), 0x0102030405060708ULL), ZRUI_OK);
    QVERIFY(journalFromLastConnect(&ctx2, &dev2).value(0).contains(S(" ref=0x0102030405060708 ")));
    QVERIFY(dev2 != dev1);
    client.close();
    QTRY_VERIFY(releasedAs(""));
    const QStringList all = ServiceHarness::journalLines();
    QVERIFY(!all.contains(S("Disconnect dev=%1 rc=0").arg(dev1)));
    QVERIFY(!all.contains(S("ReleaseContext ctx=%1 rc=0").arg(ctx1)));
    QVERIFY(all.contains(S("Disconnect dev=%1 rc=0").arg(dev2)));
}

void TestService::testTokenPulledOut()
{
    TestClient client;
    QVERIFY(begin(client));
    const int ev = harness.eventCount();
    QVERIFY(ServiceHarness::setTokenPresent(false));
    QByteArray out;
    QCOMPARE(client.ask(REQ_PIN_Show, u32(1), &out), quint32(UI_TOKEN_NOT_PRESENT));
    QCOMPARE(out.size(), 0);
    QVERIFY(client.waitClosed());
    QTRY_VERIFY(releasedAs("1"));
    QTRY_COMPARE(harness.events(ev), kHides);
    QTRY_VERIFY(harness.events(ev, true).contains(S("startExitTimer()")));
}

// Absent at BeginSession: the session starts without a device, so no presence check ends it.
void TestService::testBeginSessionTokenAbsent()
{
    QVERIFY(ServiceHarness::setTokenPresent(false));
    TestClient client;
    QVERIFY(begin(client));
    const QStringList journal = ServiceHarness::journalLines();
    QVERIFY2(QRegularExpression(S("^Connect .* rc=[1-9]\\d* dev=0$"))
                     .match(journal.last())
                     .hasMatch(),
             qPrintable(journal.last()));
    QCOMPARE(client.ask(REQ_PIN_Show, u32(1)), quint32(UI_OK));
    QCOMPARE(client.ask(REQ_PIN_GetPIN), quint32(UI_NO_RESULT));
    QCOMPARE(ServiceHarness::journalLines(), journal);
}

void TestService::testDisconnectMidSession()
{
    {
        TestClient client;
        QVERIFY(begin(client));
        QCOMPARE(client.ask(REQ_PIN_Show, u32(2)), quint32(UI_OK));
        const int ev = harness.eventCount();
        const int mark = ServiceHarness::logMark();
        client.close();
        QTRY_COMPARE(harness.events(ev), QStringList(S("pipe_comm_failed()")) + kHides);
        QTRY_VERIFY(harness.events(ev, true).contains(S("startExitTimer()")));
        QVERIFY(ServiceHarness::waitForLog(S("RecvPack() failed"), mark));
        QTRY_VERIFY(releasedAs("0"));
    }
    // The next connection starts from scratch: a PIN request is a state error.
    TestClient next;
    QCOMPARE(next.open(harness.appName()), ZRUI_OK);
    const int mark = ServiceHarness::logMark();
    QCOMPARE(next.ask(REQ_PIN_Show, u32(1)), quint32(UI_STATE_ERROR));
    QVERIFY(next.waitClosed());
    QCOMPARE(ServiceHarness::countLog(S("StateMachine Err, operation  3"), mark, true), 1);
}

void TestService::testMessageBoxLayout_data()
{
    QTest::addColumn<QByteArray>("title");
    QTest::addColumn<QByteArray>("text");
    QTest::addColumn<QString>("shown"); // title|text as the dialog gets them
    QTest::newRow("ascii") << QByteArray("Warning") << QByteArray("Remove the key")
                           << S("Warning|Remove the key");
    QTest::newRow("empty title") << QByteArray() << QByteArray("only text") << S("|only text");
    // Non-ASCII titles: the text is read 13 + UTF-16 length into the packet.
    QTest::newRow("chinese title") << QByteArray("中文") << QByteArray("hello") << S("中文|文");
    QTest::newRow("emoji title") << QByteArray("\xF0\x9F\x98\x80") << QByteArray("hi")
                                 << S("\xF0\x9F\x98\x80|\xEF\xBF\xBD");
}

void TestService::testMessageBoxLayout()
{
    QFETCH(QByteArray, title);
    QFETCH(QByteArray, text);
    QFETCH(QString, shown);
    harness.autoMsgAnswer = 1;
    TestClient client;
    QVERIFY(begin(client));
    const int ev = harness.eventCount();
    QCOMPARE(client.ask(REQ_MessageBox, u32(0x01020304) + cstr(title) + cstr(text)),
             quint32(UI_OK));
    QTRY_COMPARE(harness.events(ev), QStringList(S("show_message_dialog(%1|16909060)").arg(shown)));
}

void TestService::testSecondService_data()
{
    QTest::addColumn<int>("nameLength"); // of name + uid
    QTest::newRow("106 bytes") << 106;
    QTest::newRow("107 bytes") << 107;
}

void TestService::testSecondService()
{
    QFETCH(int, nameLength);
    const bool listens = nameLength == 106;
    const QString uid = QString::number(getuid());
    const QString prefix = ServiceHarness::uniqueAppName(S("long"));
    const QString app = prefix + QString(nameLength - uid.size() - prefix.size(), 'x');
    const int mark = ServiceHarness::logMark();
    ServiceHarness other;
    QVERIFY(other.start(app, !listens));
    QCOMPARE(ServiceHarness::countLog(S("genPipeName: \"%1%2\"").arg(app, uid), mark, true), 1);
    if (listens) {
        TestClient client;
        QCOMPARE(client.open(app), ZRUI_OK);
        QCOMPARE(client.ask(REQ_BeginSession, kBegin), quint32(UI_OK));
    } else {
        const QStringList lines = ServiceHarness::logSince(mark);
        QCOMPARE(lines.count(S("bind() failed")), 1);
        QCOMPARE(lines.value(lines.indexOf(S("bind() failed")) - 1), S("makeAddr() failed"));
        QTRY_COMPARE(other.events(0, true),
                     QStringList({S("startExitTimer()"), S("start_pipe_failed()")}));
    }
    QVERIFY(other.stop());
    TestClient client; // the first service serves on
    QVERIFY(begin(client));
}

void TestService::testPinResultRedactedInLog()
{
    QVERIFY(LogFile::clear());
    TestClient client;
    QVERIFY(begin(client));
    QCOMPARE(zrui_pin_show(client.handle(), 1), ZRUI_OK);
    const QByteArray oldPin = "739251", newPin = "84625193";
    QByteArray result = u32(quint32(oldPin.size())) + oldPin + u32(quint32(newPin.size())) + newPin;
    harness.fake.SetPINStatus(1, reinterpret_cast<unsigned char *>(result.data()),
                              ulong(result.size()));
    // Twice: the wipe after the first write must not touch the UI's copy.
    for (int round = 0; round < 2; ++round) {
        QByteArray out;
        QCOMPARE(client.ask(REQ_PIN_GetPIN, {}, &out), quint32(UI_OK));
        QCOMPARE(out.toHex(), result.toHex());
    }
    QCOMPARE(zrui_pin_finish(client.handle()), ZRUI_OK);
    QCOMPARE(zrui_end_session(client.handle()), ZRUI_OK);
    client.close();
    const QString redacted = S("SendBuff: Send \"0000000016000000\" <22 bytes redacted>");
    QVERIFY(LogFile::waitForCount(S("SendBuff: Sended writelen= 30"), 2));
    QCOMPARE(LogFile::countExact(redacted), 2);
    // Neither the file nor the captured lines hold the PINs, in hex or clear.
    for (const QString &line : LogFile::messages() + ServiceHarness::logSince(0)) {
        for (const QByteArray &secret : {oldPin.toHex(), newPin.toHex(), oldPin, newPin})
            QVERIFY2(!line.contains(QString::fromLatin1(secret)), qPrintable(line));
    }
    // Responses without a PIN keep their full dump.
    QVERIFY(LogFile::countExact(S("SendBuff: Send \"0000000000000000\"")) >= 4);
}

void TestService::testForeignPeerClosedBeforeRead()
{
    if (getuid() != 0)
        QSKIP("needs root: the foreign client drops to uid 65534 with setresuid");
    const QByteArray name = harness.socketName().toUtf8();
    sockaddr_un addr = {};
    addr.sun_family = AF_UNIX;
    memcpy(addr.sun_path + 1, name.constData(), size_t(name.size()));
    const socklen_t addrLen = socklen_t(offsetof(sockaddr_un, sun_path) + 1 + size_t(name.size()));
    const QByteArray request = TestClient::packet(REQ_BeginSession, kBegin);
    // Earlier connections over: the loop waits in accept again.
    const QString callAccept = S("CreatePipeAndListen: call accept...");
    QTRY_COMPARE(ServiceHarness::countLog(S("Clean env, handle :")),
                 ServiceHarness::countLog(S("accepted: client_addr=")));
    QTRY_COMPARE(
            ServiceHarness::logSince(0)
                    .filter(QRegularExpression(
                            "^(Clean env, handle :|CreatePipeAndListen: call accept\\.\\.\\.$)"))
                    .last(),
            callAccept);
    const int ev = harness.eventCount();
    const int journalSize = ServiceHarness::journalLines().size();
    const int mark = ServiceHarness::logMark();

    const pid_t child = fork();
    QVERIFY(child >= 0);
    if (child == 0) { // async-signal-safe calls only: the parent has threads
        const long nobody = 65534;
        if (syscall(SYS_setresgid, nobody, nobody, nobody) != 0
            || syscall(SYS_setresuid, nobody, nobody, nobody) != 0)
            _exit(10);
        const int fd = socket(AF_UNIX, SOCK_STREAM, 0);
        if (::connect(fd, reinterpret_cast<const sockaddr *>(&addr), addrLen) != 0)
            _exit(12);
        // Closed already: a refused send is as good as EOF.
        if (send(fd, request.constData(), size_t(request.size()), MSG_NOSIGNAL) != request.size())
            _exit(errno == EPIPE || errno == ECONNRESET ? 0 : 16);
        pollfd p = {fd, POLLIN, 0};
        char buf[64];
        const ssize_t n = poll(&p, 1, 10000) == 1 ? read(fd, buf, sizeof buf) : 1;
        _exit(n == 0 || (n < 0 && errno == ECONNRESET) ? 0 : 13);
    }
    int status = 0;
    bool reaped = false; // waitpid reports the end once
    const bool ended = QTest::qWaitFor(
            [&] { return reaped = reaped || waitpid(child, &status, WNOHANG) == child; }, 15000);
    if (!ended)
        kill(child, SIGKILL);
    QVERIFY(ended);
    QVERIFY(WIFEXITED(status));
    QCOMPARE(WEXITSTATUS(status), 0); // closed by the server, not a byte sent back

    const QString rejected = S("rejected peer uid=65534 pid=%1: not this user").arg(child);
    QVERIFY(ServiceHarness::waitForLog(rejected, mark));
    const int at = ServiceHarness::logSince(mark).indexOf(rejected);
    QVERIFY(ServiceHarness::waitForLog(callAccept, mark + at));
    const QStringList lines = ServiceHarness::logSince(mark);
    QVERIFY(lines.value(at - 1).startsWith(S("accepted: client_addr=")));
    QCOMPARE(lines.value(at + 1), callAccept);
    QCOMPARE(lines.filter(QRegularExpression("^Recv")), QStringList());
    // No trace in the session (no device call, no signal); this user is served on.
    QCOMPARE(ServiceHarness::journalLines().size(), journalSize);
    QCOMPARE(harness.events(ev), QStringList());
    TestClient client;
    QVERIFY(begin(client));
}

QTEST_GUILESS_MAIN(TestService)
#include "TestService.moc"
