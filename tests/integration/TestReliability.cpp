// The real executable (under Xvfb) against stalled, vanishing and hostile
// clients: none keeps the next client waiting past its deadline, a client
// whose window is up is not cut off, a box whose client left is closed, and a
// socket name squatted by another user is reported and refused.
#include "LogFile.h"
#include "ServerLauncher.h"
#include "XDoTool.h"
#include "client/zrui_client.h"

#include <QtTest>

#include <csignal>
#include <cstring>

#include <poll.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

namespace {

constexpr int kDeadlineMs = 15000; // the 5 s request deadline plus start-up slack
const QString kIdleLine = QStringLiteral("connection idle for 2 s with no window open, closed");

QByteArray packet(quint32 op, const QByteArray &data = QByteArray(), int claimedLen = -1)
{
    const quint32 hdr[2] = {op, quint32(claimedLen < 0 ? data.size() : claimedLen)};
    return QByteArray(reinterpret_cast<const char *>(hdr), 8) + data;
}

QByteArray u32(quint32 v) { return QByteArray(reinterpret_cast<const char *>(&v), 4); }

// A client connection, closed when the test leaves.
struct Conn
{
    explicit Conn(const ServerLauncher &server)
    {
        if (zrui_open(server.appName().toUtf8().constData(), &h) == ZRUI_OK)
            zrui_set_timeout(h, kDeadlineMs);
    }
    ~Conn() { zrui_close(h); }
    bool send(const QByteArray &b)
    {
        return zrui_send_raw(h, b.constData(), size_t(b.size())) == ZRUI_OK;
    }
    short poll(short events = POLLIN)
    {
        pollfd p = {zrui_fd(h), events, 0};
        return ::poll(&p, 1, 0) > 0 ? p.revents : 0;
    }
    bool closedByServer() { return poll(POLLIN | POLLRDHUP) & (POLLRDHUP | POLLHUP); }
    quint32 response() // a data-less response's code, ~0u when none came whole
    {
        quint32 hdr[2] = {~0u, ~0u};
        return zrui_recv_raw(h, hdr, sizeof hdr) == ZRUI_OK && hdr[1] == 0 ? hdr[0] : ~0u;
    }
    // BeginSession from a second client: answered within the deadline.
    bool servedAfterOthers()
    {
        return send(packet(REQ_BeginSession, QByteArray(10, '\0')))
               && QTest::qWaitFor([this] { return poll() != 0; }, kDeadlineMs)
               && response() == UI_OK;
    }
    zrui_conn *h = nullptr;
};

// Asks for the list answer again and again without reading, one request per
// response that arrived, until the server gives up writing and closes.
bool pileUpResponses(Conn &c)
{
    const QByteArray ask = packet(REQ_List_GetSel);
    int queued = 0;
    return QTest::qWaitFor(
                   [&] {
                       int now = 0;
                       if (c.closedByServer() || ioctl(zrui_fd(c.h), FIONREAD, &now) != 0)
                           return true;
                       if (now > queued || queued == 0) {
                           queued = qMax(now, 1);
                           if (::send(zrui_fd(c.h), ask.constData(), size_t(ask.size()),
                                      MSG_NOSIGNAL)
                               != ask.size())
                               return true;
                       }
                       return false;
                   },
                   kDeadlineMs)
           && c.closedByServer();
}

enum Stall {
    SilentConnect,
    HeaderWithoutData,
    IdleSession,
    PinFinished,
    SessionEnded,
    UnreadResponses
};

} // namespace

class TestReliability : public QObject
{
    Q_OBJECT

private slots:
    void init()
    {
        QVERIFY(LogFile::clear());
        server.reset(new ServerLauncher);
        server->useResourceVariant(QStringLiteral("idle2")); // idle time 2 s
        server->setPlatform(QString()); // the X server of xvfb-run
    }
    void testStalledClientIsCutOff_data();
    void testStalledClientIsCutOff();
    void testOpenWindowKeepsConnection_data();
    void testOpenWindowKeepsConnection();
    void testVanishedMessageClient_data();
    void testVanishedMessageClient();
    void testSquatterOfAnotherUser();

private:
    bool start() { return server->start() && server->waitForListening(); }
    std::unique_ptr<ServerLauncher> server;
};

void TestReliability::testStalledClientIsCutOff_data()
{
    QTest::addColumn<int>("stall");
    QTest::addColumn<QString>("reason");
    QTest::newRow("connect, send nothing") << int(SilentConnect) << kIdleLine;
    QTest::newRow("header, data never comes")
            << int(HeaderWithoutData) << "request not complete within 5000 ms, connection closed";
    QTest::newRow("open session, idle") << int(IdleSession) << kIdleLine;
    // Its PIN window gone, a client no longer holds the connection by it.
    QTest::newRow("PIN finished, idle") << int(PinFinished) << kIdleLine;
    QTest::newRow("session ended after a PIN request, idle") << int(SessionEnded) << kIdleLine;
    QTest::newRow("responses never read")
            << int(UnreadResponses) << "client does not take its responses, connection closed";
}

// The stalled client connected first; the second one still gets its answer,
// after the server has ended the stalled one for the reason of its kind.
void TestReliability::testStalledClientIsCutOff()
{
    QFETCH(int, stall);
    QFETCH(QString, reason);
    QVERIFY2(start(), qPrintable(server->errorString() + server->output()));
    Conn stalled(*server);
    QVERIFY(stalled.h);
    if (stall == HeaderWithoutData)
        QVERIFY(stalled.send(packet(REQ_BeginSession, QByteArray(), 10)));
    else if (stall != SilentConnect)
        QCOMPARE(zrui_begin_session(stalled.h, 1), int(ZRUI_OK));
    if (stall == PinFinished || stall == SessionEnded) {
        const quint32 last = stall == PinFinished ? REQ_PIN_Finish : REQ_EndSession;
        for (const QByteArray &p :
             {packet(REQ_PIN_Show, u32(0)), packet(REQ_PIN_GetPIN), packet(last)})
            QVERIFY(stalled.send(p) && stalled.response() != ~0u);
    }
    if (stall == UnreadResponses) {
        QCOMPARE(zrui_list_show(stalled.h, 1, "a"),
                 int(ZRUI_OK)); // type 1: answered without a window
        QVERIFY(pileUpResponses(stalled));
    }
    Conn next(*server);
    QVERIFY(next.servedAfterOthers());
    const QStringList messages = LogFile::messages();
    QCOMPARE(messages.count(reason), 1);
    QVERIFY(messages.indexOf(reason) < messages.lastIndexOf(QStringLiteral("REQ_BeginSession")));
    QVERIFY(stalled.closedByServer());
}

void TestReliability::testOpenWindowKeepsConnection_data()
{
    QTest::addColumn<QByteArray>("show");
    QTest::addColumn<QByteArray>("next");
    QTest::addColumn<quint32>("answer");
    QTest::newRow("waiting window")
            << packet(REQ_Waiting_Show, u32(2) + QByteArray("1=30|0=wait.gif", 16))
            << packet(REQ_Waiting_Finish) << quint32(UI_OK);
    QTest::newRow("unanswered PIN dialog")
            << packet(REQ_PIN_Show, u32(0)) << packet(REQ_PIN_GetPIN) << quint32(UI_NO_RESULT);
    QTest::newRow("unanswered list") << packet(REQ_List_Show, u32(0) + QByteArray("a|b", 4))
                                     << packet(REQ_List_GetSel) << quint32(UI_NO_RESULT);
}

// Silent while its window is up, a client keeps its connection well past the
// idle time and is answered when it speaks again.
void TestReliability::testOpenWindowKeepsConnection()
{
    QFETCH(QByteArray, show);
    QFETCH(QByteArray, next);
    QFETCH(quint32, answer);
    QVERIFY2(start(), qPrintable(server->errorString() + server->output()));
    Conn client(*server);
    QCOMPARE(zrui_begin_session(client.h, 1), int(ZRUI_OK));
    QVERIFY(client.send(show));
    QCOMPARE(client.response(), quint32(UI_OK));
    QElapsedTimer held;
    held.start();
    while (held.elapsed() < 6000) { // three idle times
        QVERIFY2(!client.poll(), "the server ended a connection with a window up");
        QTest::qWait(100);
    }
    QVERIFY(client.send(next));
    QCOMPARE(client.response(), answer);
    QCOMPARE(LogFile::countExact(kIdleLine), 0);
}

void TestReliability::testVanishedMessageClient_data()
{
    QTest::addColumn<QList<QByteArray>>("before"); // each answered with a bare response
    QTest::addColumn<QByteArray>("box");
    QTest::addColumn<QString>("title");
    unsigned char data[COMMPACK_MAX_DATA];
    quint32 len = 0;
    QCOMPARE(zrui_build_message_box(0, "reliability box", "left alone", data, sizeof data, &len),
             int(ZRUI_OK));
    QTest::newRow("message box") << QList<QByteArray>()
                                 << packet(REQ_MessageBox,
                                           QByteArray(reinterpret_cast<char *>(data), int(len)))
                                 << "reliability box";
    QTest::newRow("PIN retry box")
            << QList<QByteArray>({packet(REQ_PIN_Show, u32(0)), packet(REQ_PIN_GetPIN)})
            << packet(REQ_PIN_Retry, u32(3)) << "USBKey password error";
}

// The client leaves while its box waits for the user: the box closes, and the
// next client is served without anyone answering it.
void TestReliability::testVanishedMessageClient()
{
    QFETCH(QList<QByteArray>, before);
    QFETCH(QByteArray, box);
    QFETCH(QString, title);
    if (!XDoTool::available())
        QSKIP("needs xdotool and an X display (run under xvfb-run)");
    QVERIFY2(start(), qPrintable(server->errorString() + server->output()));
    {
        Conn leaving(*server);
        QCOMPARE(zrui_begin_session(leaving.h, 1), int(ZRUI_OK));
        for (const QByteArray &request : before)
            QVERIFY(leaving.send(request) && leaving.response() != ~0u);
        QVERIFY(leaving.send(box));
        QVERIFY(!XDoTool::waitForWindow(title, kDeadlineMs).isEmpty());
    }
    Conn next(*server);
    QVERIFY(next.servedAfterOthers());
    QCOMPARE(
            LogFile::countExact("client gone while waiting for the message answer, message closed"),
            1);
    QVERIFY(XDoTool::waitForNoWindow(title, kDeadlineMs));
    QVERIFY(server->isRunning());
}

// Another user binds our socket name first: the server says who holds it, the
// client library and zrui-cli refuse to talk to the holder.
void TestReliability::testSquatterOfAnotherUser()
{
    if (geteuid() != 0)
        QSKIP("needs root: the squatter runs as uid 65534");
    QVERIFY(server->prepare());
    const QByteArray name = server->socketName().toUtf8();
    // The squatter reports each connection on the pipe: '0' ended without a byte, 'B' bytes came.
    int report[2];
    QCOMPARE(pipe(report), 0);
    const pid_t squatter = fork();
    QVERIFY(squatter >= 0);
    if (squatter == 0) {
        sockaddr_un addr = {};
        addr.sun_family = AF_UNIX;
        memcpy(addr.sun_path + 1, name.constData(), size_t(name.size()));
        const int s = socket(AF_UNIX, SOCK_STREAM, 0);
        if (setgid(65534) != 0 || setuid(65534) != 0
            || bind(s, reinterpret_cast<sockaddr *>(&addr),
                    socklen_t(offsetof(sockaddr_un, sun_path) + 1 + size_t(name.size())))
                       != 0
            || listen(s, 8) != 0 || write(report[1], "r", 1) != 1)
            _exit(1);
        for (char b;;) {
            const int c = accept(s, nullptr, nullptr);
            if (write(report[1], read(c, &b, 1) > 0 ? "B" : "0", 1) != 1)
                _exit(1);
            close(c);
        }
    }
    const auto nextMark = [&report] {
        char c = '?';
        pollfd p = {report[0], POLLIN, 0};
        return poll(&p, 1, kDeadlineMs) > 0 && read(report[0], &c, 1) == 1 ? c : '?';
    };
    const auto cleanup = qScopeGuard([&] {
        kill(squatter, SIGKILL);
        waitpid(squatter, nullptr, 0);
        close(report[0]);
        close(report[1]);
    });
    QCOMPARE(nextMark(), 'r');
    QVERIFY2(server->start() && server->waitForExit(kDeadlineMs), "the server did not end");
    QCOMPARE(server->exitStatus(), QProcess::NormalExit);
    QCOMPARE(server->exitCode(), 0);
    const QString held = QStringLiteral("socket name @%1 is held by uid 65534 (pid %2)")
                                 .arg(QString::fromUtf8(name))
                                 .arg(squatter);
    QVERIFY2(server->output().contains(held.toUtf8()), server->output().constData());
    QVERIFY(LogFile::waitForLine(held));
    QCOMPARE(LogFile::countExact(QStringLiteral("bind() failed")), 1);
    QCOMPARE(nextMark(), '0'); // the server's look at the holder sent nothing
    zrui_conn *h = nullptr;
    QCOMPARE(zrui_open(server->appName().toUtf8().constData(), &h), int(ZRUI_E_PEER));
    QVERIFY(!h);
    QCOMPARE(nextMark(), '0'); // refused before any request went out
    QProcess cli;
    cli.start(qEnvironmentVariable("ZRUI_CLI"), {"--server", server->appName(), "pin", "verify"});
    QVERIFY(cli.waitForFinished(kDeadlineMs));
    QCOMPARE(cli.exitCode(), 10);
    QVERIFY(cli.readAllStandardError().contains("ZRUI_E_PEER"));
    QCOMPARE(nextMark(), '0');
}

QTEST_GUILESS_MAIN(TestReliability)
#include "TestReliability.moc"
