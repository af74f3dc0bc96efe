// The real executable (under Xvfb) against broken, stalled and hostile
// clients: none of them keeps the next client waiting past its deadline, a
// client whose window is up is not cut off, a message box whose client left
// is closed, and a socket name squatted by another user is reported by the
// server and refused by the client library.
#include "LogFile.h"
#include "ServerLauncher.h"
#include "XDoTool.h"
#include "client/zrui_client.h"

#include <QElapsedTimer>
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

// Longest wait for anything the server owes: the 5 s request deadline plus
// start-up and scheduling slack.
constexpr int kDeadlineMs = 15000;
// "UIServer/idleseconds" of the idle2 resource variant.
constexpr int kIdleMs = 2000;

const QString kIdleLine = QStringLiteral("connection idle for 2 s with no window open, closed");
const QString kIncompleteLine
        = QStringLiteral("request not complete within 5000 ms, connection closed");
const QString kGoneLine
        = QStringLiteral("client gone while waiting for the message answer, message closed");

QByteArray packet(quint32 op, const QByteArray &data, quint32 claimedLen)
{
    QByteArray p(8, '\0');
    memcpy(p.data(), &op, 4);
    memcpy(p.data() + 4, &claimedLen, 4);
    return p + data;
}

QByteArray packet(quint32 op, const QByteArray &data = QByteArray())
{
    return packet(op, data, quint32(data.size()));
}

QByteArray u32(quint32 v) { return QByteArray(reinterpret_cast<const char *>(&v), 4); }

// REQ_BeginSession data: two unused bytes, then the device reference 1.
QByteArray beginData() { return QByteArray(2, '\0') + QByteArray("\1\0\0\0\0\0\0\0", 8); }

bool sendAll(zrui_conn *h, const QByteArray &bytes)
{
    return zrui_send_raw(h, bytes.constData(), size_t(bytes.size())) == ZRUI_OK;
}

bool readable(int fd)
{
    pollfd p = {fd, POLLIN, 0};
    return poll(&p, 1, 0) > 0;
}

// The server has closed its end (unread responses may still be queued).
bool closedByServer(int fd)
{
    pollfd p = {fd, POLLIN | POLLRDHUP, 0};
    return poll(&p, 1, 0) > 0 && (p.revents & (POLLRDHUP | POLLHUP)) != 0;
}

// Reads one data-less response; its code, or ~0u when none came whole.
quint32 response(zrui_conn *h)
{
    quint32 hdr[2] = {~0u, ~0u};
    if (zrui_recv_raw(h, hdr, sizeof hdr) != ZRUI_OK || hdr[1] != 0)
        return ~0u;
    return hdr[0];
}

zrui_conn *connectTo(const ServerLauncher &server)
{
    zrui_conn *h = nullptr;
    if (zrui_open(server.appName().toUtf8().constData(), &h) != ZRUI_OK)
        return nullptr;
    zrui_set_timeout(h, kDeadlineMs);
    return h;
}

struct Conn
{
    zrui_conn *h = nullptr;
    ~Conn() { zrui_close(h); }
};

// A forked child process, killed and reaped when the test leaves.
struct Child
{
    pid_t pid = -1;
    ~Child()
    {
        if (pid > 0) {
            kill(pid, SIGKILL);
            waitpid(pid, nullptr, 0);
        }
    }
};

// Asks for the list answer again and again without reading the responses,
// one request per response that arrived, until the server gives up on
// writing and closes. False when that does not happen within the deadline.
bool pileUpResponses(zrui_conn *h)
{
    const int fd = zrui_fd(h);
    const QByteArray ask = packet(REQ_List_GetSel);
    QElapsedTimer t;
    t.start();
    int queued = 0;
    while (t.elapsed() < kDeadlineMs) {
        if (closedByServer(fd))
            return true;
        int now = 0;
        if (ioctl(fd, FIONREAD, &now) != 0)
            return false;
        if (now > queued || queued == 0) {
            queued = qMax(now, 1);
            if (send(fd, ask.constData(), size_t(ask.size()), MSG_NOSIGNAL) != ask.size())
                return closedByServer(fd);
        }
        pollfd p = {fd, POLLRDHUP, 0}; // wakes at once when the server closes
        ::poll(&p, 1, 2);
    }
    return false;
}

enum Stall { SilentConnect, HeaderWithoutData, IdleSession, StoppedProcess, UnreadResponses };

} // namespace

class TestReliability : public QObject
{
    Q_OBJECT

private slots:
    void init() { QVERIFY(LogFile::clear()); }
    void testStalledClientIsCutOff_data();
    void testStalledClientIsCutOff();
    void testOpenWindowKeepsConnection_data();
    void testOpenWindowKeepsConnection();
    void testVanishedMessageClient_data();
    void testVanishedMessageClient();
    void testSquatterOfAnotherUser();

private:
    bool startServer(ServerLauncher &server)
    {
        server.useResourceVariant(QStringLiteral("idle2"));
        server.setPlatform(QString()); // the X server of xvfb-run
        return server.start() && server.waitForListening();
    }
};

void TestReliability::testStalledClientIsCutOff_data()
{
    QTest::addColumn<int>("stall");
    QTest::addColumn<QString>("reason");
    QTest::newRow("connect, send nothing") << int(SilentConnect) << kIdleLine;
    QTest::newRow("header, data never comes") << int(HeaderWithoutData) << kIncompleteLine;
    QTest::newRow("open session, idle") << int(IdleSession) << kIdleLine;
    QTest::newRow("client process stopped") << int(StoppedProcess) << kIdleLine;
    QTest::newRow("responses never read")
            << int(UnreadResponses)
            << QStringLiteral("client does not take its responses, connection closed");
}

// The stalled client is served first (it connected first); the second one
// must still get its answer, after the server has ended the stalled one.
void TestReliability::testStalledClientIsCutOff()
{
    QFETCH(int, stall);
    QFETCH(QString, reason);
    ServerLauncher server;
    QVERIFY2(startServer(server), qPrintable(server.errorString() + server.output()));

    Conn stalled;
    Child child;
    if (stall == StoppedProcess) {
        child.pid = fork();
        QVERIFY(child.pid >= 0);
        if (child.pid == 0) {
            zrui_conn *h = nullptr;
            if (zrui_open(server.appName().toUtf8().constData(), &h) != ZRUI_OK
                || zrui_set_timeout(h, kDeadlineMs) != ZRUI_OK
                || zrui_begin_session(h, 1) != ZRUI_OK)
                _exit(1);
            raise(SIGSTOP);
            _exit(0);
        }
        bool seen = false; // waitpid reports the stop once
        const auto stopped = [&child, &seen]() {
            int status = 0;
            if (!seen && waitpid(child.pid, &status, WUNTRACED | WNOHANG) == child.pid)
                seen = WIFSTOPPED(status);
            return seen;
        };
        QTRY_VERIFY2_WITH_TIMEOUT(stopped(), "the child did not stop in its session", kDeadlineMs);
    } else {
        stalled.h = connectTo(server);
        QVERIFY(stalled.h);
        if (stall == HeaderWithoutData)
            QVERIFY(sendAll(stalled.h, packet(REQ_BeginSession, QByteArray(), 10)));
        else if (stall != SilentConnect)
            QCOMPARE(zrui_begin_session(stalled.h, 1), int(ZRUI_OK));
        if (stall == UnreadResponses) {
            // Type 1 answers at once, without a window.
            QCOMPARE(zrui_list_show(stalled.h, 1, "a"), int(ZRUI_OK));
            QVERIFY(pileUpResponses(stalled.h));
        }
    }

    Conn next;
    next.h = connectTo(server);
    QVERIFY(next.h);
    QElapsedTimer waited;
    waited.start();
    QVERIFY(sendAll(next.h, packet(REQ_BeginSession, beginData())));
    QTRY_VERIFY_WITH_TIMEOUT(readable(zrui_fd(next.h)), kDeadlineMs);
    qInfo("second client served after %lld ms", waited.elapsed());
    QCOMPARE(response(next.h), quint32(UI_OK));

    // It was the stalled connection that ended, for the reason of its kind,
    // before the second client's session began.
    const QStringList messages = LogFile::messages();
    QCOMPARE(messages.count(reason), 1);
    QVERIFY(messages.indexOf(reason) < messages.lastIndexOf(QStringLiteral("REQ_BeginSession")));
    if (stalled.h)
        QVERIFY(closedByServer(zrui_fd(stalled.h)));
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
}

// A client that sends nothing while its window is up keeps its connection
// well past the idle time, and is answered when it speaks again.
void TestReliability::testOpenWindowKeepsConnection()
{
    QFETCH(QByteArray, show);
    QFETCH(QByteArray, next);
    QFETCH(quint32, answer);
    ServerLauncher server;
    QVERIFY2(startServer(server), qPrintable(server.errorString() + server.output()));
    Conn client;
    client.h = connectTo(server);
    QVERIFY(client.h);
    QCOMPARE(zrui_begin_session(client.h, 1), int(ZRUI_OK));
    QVERIFY(sendAll(client.h, show));
    QCOMPARE(response(client.h), quint32(UI_OK));

    QElapsedTimer held;
    held.start();
    while (held.elapsed() < 3 * kIdleMs) {
        QVERIFY2(!readable(zrui_fd(client.h)), "the server ended a connection with a window up");
        QTest::qWait(100);
    }
    QVERIFY(sendAll(client.h, next));
    QCOMPARE(response(client.h), answer);
    QCOMPARE(LogFile::messages().count(kIdleLine), 0);
}

void TestReliability::testVanishedMessageClient_data()
{
    QTest::addColumn<QList<QByteArray>>("before"); // each answered with a bare response
    QTest::addColumn<QByteArray>("box");
    QTest::addColumn<QString>("title");
    const QByteArray title = "reliability box";
    unsigned char data[COMMPACK_MAX_DATA];
    quint32 len = 0;
    QCOMPARE(zrui_build_message_box(0, title.constData(), "left alone", data, sizeof data, &len),
             int(ZRUI_OK));
    QTest::newRow("message box") << QList<QByteArray>()
                                 << packet(REQ_MessageBox,
                                           QByteArray(reinterpret_cast<char *>(data), int(len)))
                                 << QString::fromUtf8(title);
    QTest::newRow("PIN retry box")
            << QList<QByteArray>({packet(REQ_PIN_Show, u32(0)), packet(REQ_PIN_GetPIN)})
            << packet(REQ_PIN_Retry, u32(3)) << QStringLiteral("USBKey password error");
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
    ServerLauncher server;
    QVERIFY2(startServer(server), qPrintable(server.errorString() + server.output()));

    Conn leaving;
    leaving.h = connectTo(server);
    QVERIFY(leaving.h);
    QCOMPARE(zrui_begin_session(leaving.h, 1), int(ZRUI_OK));
    for (const QByteArray &request : before) {
        QVERIFY(sendAll(leaving.h, request));
        QVERIFY(response(leaving.h) != ~0u);
    }
    QVERIFY(sendAll(leaving.h, box));
    QVERIFY(!XDoTool::waitForWindow(title, kDeadlineMs).isEmpty());

    zrui_close(leaving.h);
    leaving.h = nullptr;
    QElapsedTimer sinceLeft;
    sinceLeft.start();
    Conn next;
    next.h = connectTo(server);
    QVERIFY(next.h);
    QVERIFY(sendAll(next.h, packet(REQ_BeginSession, beginData())));
    QTRY_VERIFY_WITH_TIMEOUT(readable(zrui_fd(next.h)), kDeadlineMs);
    qInfo("next client served %lld ms after the message client left", sinceLeft.elapsed());
    QCOMPARE(response(next.h), quint32(UI_OK));
    QCOMPARE(LogFile::messages().count(kGoneLine), 1);
    QVERIFY(XDoTool::waitForNoWindow(title, kDeadlineMs));
    QVERIFY(server.isRunning());
}

// Another user binds our socket name first. The server must say who holds
// it; the client library must refuse to talk to the holder.
void TestReliability::testSquatterOfAnotherUser()
{
    if (geteuid() != 0)
        QSKIP("needs root: the squatter runs as uid 65534");
    ServerLauncher server;
    server.useResourceVariant(QStringLiteral("idle2"));
    QVERIFY(server.prepare());
    const QByteArray name = server.socketName().toUtf8();

    // The squatter reports each connection on the pipe: '0' when it ended
    // without a byte, 'B' when bytes came.
    int report[2];
    QCOMPARE(pipe(report), 0);
    Child squatter;
    squatter.pid = fork();
    QVERIFY(squatter.pid >= 0);
    if (squatter.pid == 0) {
        close(report[0]);
        sockaddr_un addr;
        memset(&addr, 0, sizeof addr);
        addr.sun_family = AF_UNIX;
        memcpy(addr.sun_path + 1, name.constData(), size_t(name.size()));
        const int s = socket(AF_UNIX, SOCK_STREAM, 0);
        if (setgid(65534) != 0 || setuid(65534) != 0
            || bind(s, reinterpret_cast<sockaddr *>(&addr),
                    socklen_t(offsetof(sockaddr_un, sun_path) + 1 + size_t(name.size())))
                       != 0
            || listen(s, 8) != 0)
            _exit(1);
        if (write(report[1], "r", 1) != 1)
            _exit(1);
        for (;;) {
            const int c = accept(s, nullptr, nullptr);
            char b;
            const char mark = read(c, &b, 1) > 0 ? 'B' : '0';
            if (write(report[1], &mark, 1) != 1)
                _exit(1);
            close(c);
        }
    }
    close(report[1]);
    const auto nextMark = [&report]() {
        char c = '?';
        pollfd p = {report[0], POLLIN, 0};
        return poll(&p, 1, kDeadlineMs) > 0 && read(report[0], &c, 1) == 1 ? c : '?';
    };
    QCOMPARE(nextMark(), 'r');

    QVERIFY2(server.start(), qPrintable(server.errorString()));
    QVERIFY2(server.waitForExit(kDeadlineMs), "the server did not end");
    QCOMPARE(server.exitStatus(), QProcess::NormalExit);
    QCOMPARE(server.exitCode(), 0);
    const QString held = QStringLiteral("socket name @%1 is held by uid 65534 (pid %2)")
                                 .arg(QString::fromUtf8(name))
                                 .arg(squatter.pid);
    QVERIFY2(server.output().contains(held.toUtf8()), server.output().constData());
    QVERIFY(LogFile::waitForLine(held));
    QCOMPARE(LogFile::countExact(QStringLiteral("bind() failed")), 1);
    QCOMPARE(nextMark(), '0'); // the server's look at the holder sent nothing

    zrui_conn *h = nullptr;
    QCOMPARE(zrui_open(server.appName().toUtf8().constData(), &h), int(ZRUI_E_PEER));
    QVERIFY(!h);
    QCOMPARE(nextMark(), '0'); // refused before any request went out

    QProcess cli;
    cli.start(qEnvironmentVariable("ZRUI_CLI"), {QStringLiteral("--server"), server.appName(),
                                                 QStringLiteral("pin"), QStringLiteral("verify")});
    QVERIFY(cli.waitForFinished(kDeadlineMs));
    QCOMPARE(cli.exitCode(), 10);
    QVERIFY(cli.readAllStandardError().contains("ZRUI_E_PEER"));
    QCOMPARE(nextMark(), '0');
    close(report[0]);
}

QTEST_GUILESS_MAIN(TestReliability)
#include "TestReliability.moc"
