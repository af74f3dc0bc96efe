// The real executable (under Xvfb) against stalled, vanishing and foreign
// clients and against a holder of its socket name.
#include "LogFile.h"
#include "ServerLauncher.h"
#include "XDoTool.h"
#include "client/zrui_client.h"

#include <QtTest>

#include <poll.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <sys/wait.h>

namespace {

constexpr int kDeadlineMs = 15000; // the 5 s request deadline plus start-up slack
const QString kIdle = "connection idle for 2 s with no window open, closed";
const QString kGone = "client gone while waiting for the message answer, message closed";
const QString kUnread = "client does not take its responses, connection closed";
const char *const kBoxTitle = "USBKey password error"; // the retry box's own title

QByteArray u32(quint32 v) { return QByteArray(reinterpret_cast<const char *>(&v), 4); }
QByteArray packet(quint32 op, const QByteArray &data = {}, int claimedLen = -1)
{
    return u32(op) + u32(quint32(claimedLen < 0 ? data.size() : claimedLen)) + data;
}
const QByteArray kBegin = packet(REQ_BeginSession, QByteArray(10, '\0'));

using Conn = std::unique_ptr<zrui_conn, void (*)(zrui_conn *)>;
Conn open(const ServerLauncher &server)
{
    zrui_conn *h = nullptr;
    if (zrui_open(server.appName().toUtf8().constData(), &h) == ZRUI_OK)
        zrui_set_timeout(h, kDeadlineMs);
    return Conn(h, zrui_close);
}
bool send(const Conn &c, const QByteArray &b)
{
    return zrui_send_raw(c.get(), b.constData(), size_t(b.size())) == ZRUI_OK;
}
short events(int fd, short wanted = POLLIN | POLLRDHUP, int timeoutMs = 0)
{
    pollfd p = {fd, wanted, 0};
    return ::poll(&p, 1, timeoutMs) > 0 ? p.revents : 0;
}
bool closed(int fd) { return events(fd) & (POLLRDHUP | POLLHUP); }
quint32 ask(const Conn &c, const QByteArray &request) // a data-less response's code, or ~0u
{
    quint32 hdr[2] = {~0u, ~0u};
    return send(c, request) && zrui_recv_raw(c.get(), hdr, 8) == ZRUI_OK && !hdr[1] ? *hdr : ~0u;
}

// Runs call in a child process as uid: a socket that listens or connects there
// keeps that uid as its credentials. The child's pid, or -1 when call failed.
template<class Fn>
pid_t asUser(uid_t uid, Fn call)
{
    const pid_t pid = fork();
    if (pid == 0)
        _exit((uid == getuid() || (setgid(uid) == 0 && setuid(uid) == 0)) && call() == 0 ? 0 : 1);
    int status = -1;
    return waitpid(pid, &status, 0) == pid && status == 0 ? pid : -1;
}

} // namespace

class TestReliability : public QObject
{
    Q_OBJECT

private slots:
    void init()
    {
        QVERIFY(LogFile::clear());
        server.reset(new ServerLauncher);
        server->useResourceVariant("idle2"); // idle time 2 s
        server->setPlatform(QString()); // the X server of xvfb-run
    }
    void testConnectionDeadlines_data();
    void testConnectionDeadlines();
    void testTakenName_data();
    void testTakenName();

private:
    std::unique_ptr<ServerLauncher> server;
};

void TestReliability::testConnectionDeadlines_data()
{
    QTest::addColumn<QByteArrayList>("steps"); // each answered
    QTest::addColumn<QByteArray>("last"); // sent unanswered; with a window up: after the idle time
    QTest::addColumn<QString>("line"); // why the server ended the connection; empty: it did not
    const QByteArray pin = packet(REQ_PIN_Show, u32(0)), get = packet(REQ_PIN_GetPIN);
    unsigned char box[COMMPACK_MAX_DATA];
    quint32 boxLen = 0;
    zrui_build_message_box(0, kBoxTitle, "left alone", box, sizeof box, &boxLen);
    const auto row = [](const char *name, const QByteArrayList &steps, const QByteArray &last,
                        const QString &line) { QTest::newRow(name) << steps << last << line; };
    row("connect, send nothing", {}, {}, kIdle);
    row("header, data never comes", {}, packet(REQ_BeginSession, {}, 10),
        "request not complete within 5000 ms, connection closed");
    row("open session, idle", {kBegin}, {}, kIdle);
    // Its PIN window gone, a client no longer holds the connection by it.
    row("PIN finished, idle", {kBegin, pin, get, packet(REQ_PIN_Finish)}, {}, kIdle);
    row("session ended after a PIN request, idle", {kBegin, pin, get, packet(REQ_EndSession)}, {},
        kIdle);
    row("responses never read", {kBegin, packet(REQ_List_Show, u32(1) + QByteArray("a", 2))},
        packet(REQ_List_GetSel), kUnread);
    row("waiting window up",
        {kBegin, packet(REQ_Waiting_Show, u32(2) + QByteArray("1=30|0=wait.gif", 16))},
        packet(REQ_Waiting_Finish), {});
    row("PIN dialog unanswered", {kBegin, pin}, get, {});
    row("list unanswered", {kBegin, packet(REQ_List_Show, u32(0) + QByteArray("a|b", 4))},
        packet(REQ_List_GetSel), {});
    row("message box, client leaves", {kBegin},
        packet(REQ_MessageBox, QByteArray(reinterpret_cast<char *>(box), int(boxLen))), kGone);
    row("PIN retry box, client leaves", {kBegin, pin, get}, packet(REQ_PIN_Retry, u32(3)), kGone);
}

// A stalled client connected first: the server ends it for the reason of its
// kind and serves the next one. A silent client with a window up keeps its
// connection; the box of a client that left is closed.
void TestReliability::testConnectionDeadlines()
{
    QFETCH(QByteArrayList, steps);
    QFETCH(QByteArray, last);
    QFETCH(QString, line);
    if (line == kGone && !XDoTool::available())
        QSKIP("needs xdotool and an X display (run under xvfb-run)");
    QVERIFY2(server->start() && server->waitForListening(), qPrintable(server->errorString()));
    Conn client = open(*server);
    for (const QByteArray &p : steps)
        QVERIFY(ask(client, p) != ~0u);
    const int fd = zrui_fd(client.get());
    if (line.isEmpty()) {
        QElapsedTimer held;
        for (held.start(); held.elapsed() < 6000; QTest::qWait(100)) // three idle times
            QVERIFY2(!events(fd), "ended with a window up");
        QVERIFY(ask(client, last) != ~0u);
        QCOMPARE(LogFile::countExact(kIdle), 0);
        return;
    }
    QVERIFY(last.isEmpty() || send(client, last));
    int queued = 0; // unread: one more request per response that came, until the server gives up
    QVERIFY(line != kUnread
            || QTest::qWaitFor(
                    [&] {
                        int now = 0;
                        if (closed(fd) || ioctl(fd, FIONREAD, &now) != 0)
                            return true;
                        if (now > queued)
                            queued = now, send(client, last);
                        return false;
                    },
                    kDeadlineMs));
    if (line == kGone) {
        QVERIFY(!XDoTool::waitForWindow(kBoxTitle, kDeadlineMs).isEmpty());
        client.reset();
    }
    QCOMPARE(ask(open(*server), kBegin), quint32(UI_OK));
    const QStringList messages = LogFile::messages();
    QCOMPARE(messages.count(line), 1);
    QVERIFY(messages.indexOf(line) < messages.lastIndexOf("REQ_BeginSession"));
    QVERIFY(client ? closed(fd) : XDoTool::waitForNoWindow(kBoxTitle, kDeadlineMs));
}

void TestReliability::testTakenName_data()
{
    QTest::addColumn<uint>("uid");
    QTest::newRow("this user") << uint(getuid());
    QTest::newRow("another user") << 65534u;
}

// The name is taken when the server starts: it says by whom and exits 0. A
// holder of another uid gets no byte from zrui-cli, a client of another uid
// none from the server.
void TestReliability::testTakenName()
{
    QFETCH(uint, uid);
    if (uid != getuid() && geteuid() != 0)
        QSKIP("needs root: the other user is uid 65534");
    QVERIFY(server->prepare());
    const QByteArray name = server->socketName().toUtf8();
    sockaddr_un addr = {AF_UNIX, {}};
    memcpy(addr.sun_path + 1, name.constData(), size_t(name.size()));
    const auto sa = reinterpret_cast<sockaddr *>(&addr);
    const auto len = socklen_t(offsetof(sockaddr_un, sun_path) + 1 + size_t(name.size()));
    const int holder = socket(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK, 0);
    const pid_t holderPid = asUser(uid, [&] { return bind(holder, sa, len) || listen(holder, 8); });
    QVERIFY(holderPid > 0);
    const auto noByteCame = [holder] { // over every connection that came and went; one at least
        int count = 0;
        for (int c; (c = accept(holder, nullptr, nullptr)) >= 0; ++count) {
            char b;
            const bool silent = recv(c, &b, 1, MSG_DONTWAIT) == 0;
            close(c);
            if (!silent)
                return false;
        }
        return count > 0;
    };
    QVERIFY2(server->start() && server->waitForExit(kDeadlineMs), "the server did not end");
    QCOMPARE(server->process().exitStatus(), QProcess::NormalExit);
    QCOMPARE(server->process().exitCode(), 0);
    const QString held = QString("socket name @%1 is held by uid %2 (pid %3)")
                                 .arg(QString(name))
                                 .arg(uid)
                                 .arg(holderPid);
    QVERIFY2(server->output().contains(held.toUtf8()), server->output().constData());
    QVERIFY(LogFile::waitForLine(held));
    QCOMPARE(LogFile::countExact("bind() failed"), 1);
    QCOMPARE(LogFile::countExact("call on_start_pipe_failed(), service will exit"), 1);
    QVERIFY(noByteCame());
    if (uid == getuid())
        return (void)close(holder);
    QProcess cli;
    cli.start(qEnvironmentVariable("ZRUI_CLI"), {"--server", server->appName(), "pin", "verify"});
    QVERIFY(cli.waitForFinished(kDeadlineMs));
    QCOMPARE(cli.exitCode(), 10);
    QVERIFY(cli.readAllStandardError().contains("ZRUI_E_PEER"));
    QVERIFY(noByteCame());

    close(holder); // the name free again, the server listens on it
    QVERIFY2(server->start() && server->waitForListening(), qPrintable(server->errorString()));
    const int foreign = socket(AF_UNIX, SOCK_STREAM, 0);
    const pid_t foreignPid = asUser(uid, [&] { return ::connect(foreign, sa, len); });
    QVERIFY(foreignPid > 0);
    ::send(foreign, kBegin.constData(), size_t(kBegin.size()), MSG_NOSIGNAL); // may be closed
    char b;
    QVERIFY(events(foreign, POLLIN, kDeadlineMs) && read(foreign, &b, 1) <= 0); // no byte back
    close(foreign);
    QVERIFY(LogFile::waitForLine(
            QString("rejected peer uid=%1 pid=%2: not this user").arg(uid).arg(foreignPid)));
    QVERIFY(!LogFile::contains("RecvBuff")); // closed before any read
    QCOMPARE(ask(open(*server), kBegin), quint32(UI_OK));
}

QTEST_GUILESS_MAIN(TestReliability)
#include "TestReliability.moc"
