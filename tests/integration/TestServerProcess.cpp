// The real executable as a process (under Xvfb): start-up and its failures,
// socket activation and idle exit, secrets kept in memory, stalled, vanishing
// and foreign clients, a taken socket name, zrui-cli against it; and the
// installed client kit. CTest runs the slots as TestStartup, TestReliability,
// TestCli and TestClientKit.
#include "LogFile.h"
#include "ServerLauncher.h"
#include "XDoTool.h"
#include "client/zrui_client.h"

#include <QtTest>

#include <csignal>
#include <poll.h>
#include <sys/ioctl.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <sys/wait.h>

namespace {

constexpr int kDeadlineMs = 15000; // the 5 s request deadline plus start-up slack
const QStringList kFailures = QString("cannot find ZRUIConf.ini! exited;LoadLib_ZRKAPI failed, "
                                      "exit;LoadLib_Alg Failed!;LoadLib_Aux Failed!;"
                                      "AuxLoadKestrovaIni Failed!;cannot find resources.rcc! "
                                      "exited;Integrity Protect Failed!")
                                      .split(';');
const QString kTokenLibs = qEnvironmentVariable("ZRUI_TOKENSIM_DIR"); // ends with "/"
enum Setup {
    AuxFails = 1,
    WorkConfig = 2,
    CopyToWork = 4,
    SpoilBin = 8,
    SpoilWork = 16,
    NoRcc = 32
};
const QString kIdle = "connection idle for 2 s with no window open, closed";
const QString kGone = "client gone while waiting for the message answer, message closed";
const QString kUnread = "client does not take its responses, connection closed";
const char *const kBoxTitle = "USBKey password error"; // the retry box's own title
const QString kKit = ZRUI_KIT_BUILD_DIR "/test-output/client-kit", kStage = kKit + "/stage";
const QString kPrefix = kStage + ZRUI_KIT_PREFIX, kLibDir = kPrefix + "/" ZRUI_KIT_LIBDIR;

QByteArray u32(quint32 v) { return QByteArray(reinterpret_cast<const char *>(&v), 4); }
QByteArray packet(quint32 op, const QByteArray &data = {}, int claimedLen = -1)
{
    return u32(op) + u32(quint32(claimedLen < 0 ? data.size() : claimedLen)) + data;
}
const QByteArray kBegin = packet(REQ_BeginSession, QByteArray(10, '\0'));

using Conn = std::unique_ptr<zrui_conn, void (*)(zrui_conn *)>;
Conn open(const QString &app)
{
    zrui_conn *h = nullptr;
    if (zrui_open(app.toUtf8().constData(), &h) == ZRUI_OK)
        zrui_set_timeout(h, kDeadlineMs);
    return Conn(h, zrui_close);
}
bool send(const Conn &c, const QByteArray &b)
{
    return zrui_send_raw(c.get(), b.constData(), size_t(b.size())) == ZRUI_OK;
}
quint32 ask(const Conn &c, const QByteArray &request) // a data-less response's code, or ~0u
{
    quint32 hdr[2] = {~0u, ~0u};
    return send(c, request) && zrui_recv_raw(c.get(), hdr, 8) == ZRUI_OK && !hdr[1] ? *hdr : ~0u;
}
short events(int fd, int timeoutMs = 0) // data or an end to read
{
    pollfd p = {fd, POLLIN | POLLRDHUP, 0};
    return ::poll(&p, 1, timeoutMs) > 0 ? p.revents : 0;
}
bool closed(int fd) { return events(fd) & (POLLRDHUP | POLLHUP); }

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

class TestServerProcess : public QObject
{
    Q_OBJECT

private slots:
    void init()
    {
        QVERIFY(LogFile::clear());
        server.reset(new ServerLauncher);
        server->useResourceVariant("idle2"); // connections idle for 2 s end
        server->setPlatform(QString()); // the X server of xvfb-run
    }
    void testStart_data();
    void testStart();
    void testSocketActivation_data();
    void testSocketActivation();
    void testSecretsStayInMemory();
    void testConnectionDeadlines_data();
    void testConnectionDeadlines();
    void testTakenName_data();
    void testTakenName();
    void testCli_data();
    void testCli();
    void testClientKit_data();
    void testClientKit();

private:
    bool start() { return server->start() && server->waitForListening(); }
    std::unique_ptr<ServerLauncher> server;
    ServerLauncher cliServer; // one for all rows of testCli
};

void TestServerProcess::testStart_data()
{
    QTest::addColumn<QString>("safePath"); // null: no ZRUIConf.ini
    QTest::addColumn<int>("setup");
    QTest::addColumn<QString>("warning"); // empty: the start succeeds
    // "+" a log line, "-" no log line holds it, "!" said on stderr; %1 bin, %2 working dir
    QTest::addColumn<QStringList>("lines");
    const auto row = [](const char *name, const QString &safePath, int setup, const char *warning,
                        const QStringList &lines) {
        QTest::newRow(name) << safePath << setup << QString(warning) << lines;
    };
    row("valid start", kTokenLibs, 0, "",
        {"+resourcefile= \"%1/resources.rcc\"", "+libraryBaseDir =  \"" + kTokenLibs + "\"",
         "+resources.rcc: \"%1/\"", "+trans file= \":/uiserver.en.qm\""});
    row("no configuration file", {}, 0, "cannot find ZRUIConf.ini! exited",
        {"-SAFEPATH Settings:", "!no configuration file at %2/ZRUIConf.ini or %1/ZRUIConf.ini"});
    row("SAFEPATH without the libraries", "/nonexistent/", 0, "LoadLib_ZRKAPI failed, exit",
        {"-resources.rcc:", "!cannot load the token library /nonexistent/libzrkapi.so: set "
                            "SAFEPATH in %1/ZRUIConf.ini"});
    row("failing configuration in the working directory wins", kTokenLibs, WorkConfig,
        "LoadLib_ZRKAPI failed, exit",
        {"+SAFEPATH Settings: \"ZRUIConf.ini\" \"%2/ZRUIConf.ini\""});
    row("algorithm library lacks its last entry point",
        ServerLauncher::buildDir() + "/tokenlib-variants/no-last-alg/", 0, "LoadLib_Alg Failed!",
        {"-resources.rcc:"});
    row("auxiliary library gives no record", kTokenLibs, AuxFails, "AuxLoadKestrovaIni Failed!",
        {"-resources.rcc:"});
    row("a byte added to resources.rcc", kTokenLibs, SpoilBin, "Integrity Protect Failed!",
        {"-configuration: softkeyboard="});
    row("a byte added to the working directory's copy", kTokenLibs, CopyToWork | SpoilWork,
        "Integrity Protect Failed!", {"+resources.rcc: \"%2/\""});
    row("good copy in the working directory wins", kTokenLibs, CopyToWork | SpoilBin, "",
        {"+resources.rcc: \"%2/\""});
    row("no resources.rcc anywhere", kTokenLibs, NoRcc, "cannot find resources.rcc! exited",
        {"-resources.rcc:", "!no resource file at"});
}

// Each failure exits 0 after one warning line, the last, and one sentence on stderr.
void TestServerProcess::testStart()
{
    QFETCH(QString, safePath);
    QFETCH(int, setup);
    QFETCH(QString, warning);
    QFETCH(QStringList, lines);
    server->setSafePath(safePath);
    QVERIFY2(server->prepare(), qPrintable(server->errorString()));
    const QString bin = QFileInfo(server->binDir()).canonicalFilePath();
    const QString work = QFileInfo(server->workDir()).canonicalFilePath();
    if (setup & AuxFails) {
        QVERIFY(server->writeFile("bin/tokensim.ini", "[token]\npresent=1\n[aux]\nfail=1\n"));
        server->setEnv("ZRTOKENSIM_CONF", bin + "/tokensim.ini");
    }
    QVERIFY(!(setup & WorkConfig) || server->writeFile("work/ZRUIConf.ini", "SAFEPATH=/x\n"));
    for (const QString file : {"/resources.rcc", "/integrityprotect.ini"})
        QVERIFY(!(setup & CopyToWork) || QFile::copy(bin + file, work + file));
    for (const QString &dir : {bin, work}) { // one byte more than was signed
        QFile rcc(dir + "/resources.rcc");
        QVERIFY(!(setup & (dir == bin ? SpoilBin : SpoilWork))
                || (rcc.open(QIODevice::Append) && rcc.putChar('\0')));
    }
    QVERIFY(!(setup & NoRcc) || QFile::remove(bin + "/resources.rcc"));
    if (warning.isEmpty()) {
        QVERIFY2(start() && LogFile::waitForLine("genPipeName:"),
                 qPrintable(server->errorString()));
    } else {
        QVERIFY2(server->start() && server->waitForExit(20000), "the process did not end");
        QCOMPARE(server->process().exitStatus(), QProcess::NormalExit);
        QCOMPARE(server->process().exitCode(), 0);
        QVERIFY(!ServerLauncher::isListening(server->socketName()));
    }
    const QStringList messages = LogFile::messages();
    for (const QString &failure : kFailures)
        QCOMPARE(messages.count(failure), int(failure == warning));
    QVERIFY(warning.isEmpty() || messages.last() == warning); // no later step
    const QString err = server->output();
    QCOMPARE(err.count("ZRUIServer: "), int(!warning.isEmpty()));
    for (QString line : lines) {
        const QString text = line.replace("%1", bin).replace("%2", work).mid(1);
        QVERIFY2(line[0] == '+'   ? messages.contains(text)
                 : line[0] == '-' ? messages.filter(text).isEmpty()
                                  : err.contains("ZRUIServer: " + text),
                 qPrintable(line + '\n' + err));
    }
}

void TestServerProcess::testSocketActivation_data()
{
    QTest::addColumn<QString>("suffix");
    QTest::newRow("the server's own name") << QString();
    QTest::newRow("another name: not taken for its own") << "x";
}

// systemd-socket-activate stands in for the user manager. Keep-alive of 2 s:
// held off while a session is open, counted from its end; only a passed socket
// with the receive time-out lets the accept loop notice.
void TestServerProcess::testSocketActivation()
{
    QFETCH(QString, suffix);
    server->useResourceVariant("keepalive2");
    QVERIFY2(server->prepare(), qPrintable(server->errorString()));
    const QString app = server->appName() + suffix, name = app + QString::number(getuid());
    QProcess activator; // it hands the program only the variables it is told to
    QStringList args{"-l", '@' + name, server->executablePath()};
    for (const QString &variable : QProcess::systemEnvironment())
        args.prepend("--setenv=" + variable);
    activator.setWorkingDirectory(server->workDir());
    activator.start("systemd-socket-activate", args);
    QTRY_VERIFY_WITH_TIMEOUT(ServerLauncher::isListening(name), 10000);
    QVERIFY(!LogFile::contains("genPipeName:")); // started on demand
    Conn client = open(app);
    QElapsedTimer clock;
    if (suffix.isEmpty()) {
        QCOMPARE(ask(client, kBegin), quint32(UI_OK));
        for (clock.start(); clock.elapsed() < 4500; QTest::qWait(100))
            QCOMPARE(activator.state(), QProcess::Running); // the server runs in its place
        QCOMPARE(ask(client, packet(REQ_EndSession)), quint32(UI_OK));
    } else {
        QTRY_VERIFY_WITH_TIMEOUT(ServerLauncher::isListening(server->socketName()), 15000);
        QCOMPARE(ask(open(server->appName()), kBegin), quint32(UI_OK));
    }
    clock.start();
    client.reset();
    QVERIFY(activator.waitForFinished(30000));
    QVERIFY(clock.elapsed() >= 1900);
    QCOMPARE(activator.exitCode(), 0);
    const QStringList messages = LogFile::messages();
    const int stop = messages.indexOf("StopPipeListening");
    QVERIFY(stop >= 0 && stop < messages.indexOf("Pipe Listening Exited, Exit Application"));
    QCOMPARE(!messages.filter(" handed over by the service manager").isEmpty(), suffix.isEmpty());
    QCOMPARE(!messages.filter("is not a listening socket on @").isEmpty(), !suffix.isEmpty());
    QCOMPARE(messages.count("bind() failed"), 0);
}

// The PIN hand-off buffer (8448 bytes: three pages at least) is locked out of
// swap, root's CAP_FOWNER is given up, and where an ordinary process leaves a
// core file the server leaves none.
void TestServerProcess::testSecretsStayInMemory()
{
    rlimit saved;
    QCOMPARE(getrlimit(RLIMIT_CORE, &saved), 0);
    const rlimit cores = {saved.rlim_max, saved.rlim_max};
    QCOMPARE(setrlimit(RLIMIT_CORE, &cores), 0); // inherited by the processes started below
    const auto restore = qScopeGuard([&saved] { setrlimit(RLIMIT_CORE, &saved); });
    QVERIFY2(start(), qPrintable(server->errorString()));
    QFile status(QString("/proc/%1/status").arg(server->process().processId()));
    QVERIFY(status.open(QIODevice::ReadOnly));
    const QByteArray all = status.readAll();
#ifndef ZRUI_SANITIZED // the sanitizer runtimes turn mlock into a no-op
    QVERIFY2(all.mid(all.indexOf("\nVmLck:") + 8).trimmed().split(' ').value(0).toInt() >= 12, all);
#endif
    // Not the owner of every file even as root (CAP_FOWNER, bit 3), where its caller was.
    const auto fowner = [](const QByteArray &s) {
        return s.mid(s.indexOf("\nCapEff:") + 9).trimmed().left(16).toULongLong(nullptr, 16) & 8;
    };
    QFile own("/proc/self/status");
    QVERIFY(own.open(QIODevice::ReadOnly));
    QVERIFY2(!fowner(own.readAll()) || !fowner(all), all);
    const auto leavesCore = [](QProcess &process, const QString &dir) {
        ::kill(pid_t(process.processId()), SIGABRT);
        process.waitForFinished(10000);
        return !QDir(dir).entryList({"core*"}, QDir::Files).isEmpty();
    };
    QTemporaryDir controlDir;
    QProcess control;
    control.setWorkingDirectory(controlDir.path());
    control.start("sleep", {"60"});
    if (!control.waitForStarted() || !leavesCore(control, controlDir.path()))
        QSKIP("no core file from an ordinary process here (core size limit or core_pattern)");
    QVERIFY(!leavesCore(server->process(), server->workDir()));
}

void TestServerProcess::testConnectionDeadlines_data()
{
    QTest::addColumn<QByteArrayList>("steps"); // each answered
    QTest::addColumn<QByteArray>("last"); // sent unanswered; with a window up: after the idle time
    QTest::addColumn<QString>("line"); // why the server ended the connection; empty: it did not
    const QByteArray pin = packet(REQ_PIN_Show, u32(0)), get = packet(REQ_PIN_GetPIN);
    const QByteArray box = u32(0) + kBoxTitle + '\0' + "left alone" + '\0'; // text after title
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
    row("PIN dialog unanswered, asked once", {kBegin, pin, get}, get, {});
    row("list unanswered, asked once",
        {kBegin, packet(REQ_List_Show, u32(0) + QByteArray("a|b", 4)), packet(REQ_List_GetSel)},
        packet(REQ_List_GetSel), {});
    row("message box, client leaves", {kBegin}, packet(REQ_MessageBox, box), kGone);
    row("PIN retry box, client leaves", {kBegin, pin, get}, packet(REQ_PIN_Retry, u32(3)), kGone);
}

// A stalled client connected first: the server ends it for the reason of its
// kind and serves the next one. A silent client with a window up keeps its
// connection; the box of a client that left is closed.
void TestServerProcess::testConnectionDeadlines()
{
    QFETCH(QByteArrayList, steps);
    QFETCH(QByteArray, last);
    QFETCH(QString, line);
    if (line == kGone && !XDoTool::available())
        QSKIP("needs xdotool and an X display (run under xvfb-run)");
    QVERIFY2(start(), qPrintable(server->errorString()));
    Conn client = open(server->appName());
    for (const QByteArray &p : steps)
        QVERIFY(ask(client, p) != ~0u);
    const int fd = zrui_fd(client.get());
    if (line.isEmpty()) {
        QElapsedTimer held;
        for (held.start(); held.elapsed() < 6000; QTest::qWait(100)) // three idle times
            QVERIFY2(!events(fd), "ended with a window up");
        // Answered, and still served after the answer (a wait that ends in a
        // time-out leaves EAGAIN in errno, which must not pass for a stalled send).
        QVERIFY(ask(client, last) != ~0u && ask(client, last) != ~0u);
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
    QCOMPARE(ask(open(server->appName()), kBegin), quint32(UI_OK));
    const QStringList messages = LogFile::messages();
    QCOMPARE(messages.count(line), 1);
    QVERIFY(messages.indexOf(line) < messages.lastIndexOf("REQ_BeginSession"));
    QVERIFY(client ? closed(fd) : XDoTool::waitForNoWindow(kBoxTitle, kDeadlineMs));
    int unread = -1; // an idle client is let go without a word
    QVERIFY(line != kIdle || (ioctl(fd, FIONREAD, &unread) == 0 && unread == 0));
}

void TestServerProcess::testTakenName_data()
{
    QTest::addColumn<uint>("uid");
    QTest::newRow("this user") << uint(getuid());
    QTest::newRow("another user") << 65534u;
}

// The name is taken when the server starts: it says by whom and exits 0. A
// holder of another uid gets no byte from zrui-cli, a client of another uid
// none from the server.
void TestServerProcess::testTakenName()
{
    QFETCH(uint, uid);
    if (uid != getuid() && geteuid() != 0)
        QSKIP("needs root: the other user is uid 65534");
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
    QVERIFY2(start(), qPrintable(server->errorString()));
    const int foreign = socket(AF_UNIX, SOCK_STREAM, 0);
    const pid_t foreignPid = asUser(uid, [&] { return ::connect(foreign, sa, len); });
    QVERIFY(foreignPid > 0);
    ::send(foreign, kBegin.constData(), size_t(kBegin.size()), MSG_NOSIGNAL); // may be closed
    char b;
    QVERIFY(events(foreign, kDeadlineMs) && read(foreign, &b, 1) <= 0); // no byte back
    close(foreign);
    QVERIFY(LogFile::waitForLine(
            QString("rejected peer uid=%1 pid=%2: not this user").arg(uid).arg(foreignPid)));
    QVERIFY(!LogFile::contains("RecvBuff")); // closed before any read
    QCOMPARE(ask(open(server->appName()), kBegin), quint32(UI_OK));
}

void TestServerProcess::testCli_data()
{
    QTest::addColumn<int>("exitCode");
    QTest::addColumn<QString>("output"); // a part of stdout and stderr
    QTest::addColumn<QStringList>("args"); // "--server <app>" first unless the row names one
    const auto row = [](const char *name, int code, const QString &out, const QString &args) {
        QTest::newRow(name) << code << out << args.split(' ');
    };
    row("session begin end", 0, "end -> ZRUI_OK\n", "session begin end");
    // Not allowed as the first request: response 3, the connection gone.
    row("state error", 4, "end -> ZRUI_E_STATE\n", "session end");
    row("reserved 12 closes", 8, "op=12 -> ZRUI_E_CLOSED\n", "session begin op=12");
    // Type 1 is answered by the GUI thread: wait for it, then ask raw.
    row("raw list selection", 0, "op=11 -> ZRUI_OK response 0 datalen 4 data ff ff ff ff\n",
        "session begin list-show=1:a\\nb list-wait op=11");
    row("list type 1", 0, "REQ_List_GetSel -> ZRUI_OK index -1", "list --type 1 A B");
    // Nobody answers offscreen: the deadline ends the wait with its own code.
    row("pin time-out", 7, "REQ_PIN_GetPIN -> ZRUI_E_TIMEOUT", "pin verify --timeout 0.5");
    row("unattended demo", 0, "  REQ_Waiting_Finish -> ZRUI_OK\n", "demo --unattended");
    // Another program holds a session meanwhile.
    row("busy", 11, "busy with another program", "message --text PIN_Locked --timeout 0.5");
    row("unknown command", 2, "zrui-cli: ", "frobnicate");
    row("help of a command", 0, "Usage: zrui-cli [--server NAME] [--json] session",
        "session --help");
    row("globals after the command, no server", 6, "\"exit\": 6",
        "message --json --text x --server zrui-no-such-server");
    row("globals between the command's words", 0,
        "\"index\": -1,\n            \"request\": \"list-wait\"",
        "session --server=" + cliServer.appName() + " begin list-show=1:x --json list-wait end");
}

void TestServerProcess::testCli()
{
    QFETCH(QStringList, args);
    QFETCH(int, exitCode);
    QFETCH(QString, output);
    QVERIFY(cliServer.isRunning() || (cliServer.start() && cliServer.waitForListening()));
    Conn other(nullptr, zrui_close);
    if (QTest::currentDataTag() == QLatin1String("busy"))
        QCOMPARE(ask(other = open(cliServer.appName()), kBegin), quint32(UI_OK));
    QProcess cli;
    cli.setProcessChannelMode(QProcess::MergedChannels);
    if (!args.join(' ').contains("--server"))
        args = QStringList{"--server", cliServer.appName()} + args;
    cli.start(qEnvironmentVariable("ZRUI_CLI"), args);
    const bool ended = cli.waitForFinished(30000) && cli.exitStatus() == QProcess::NormalExit;
    const QByteArray out = cli.readAll();
    QVERIFY2(ended && cli.exitCode() == exitCode, out.constData());
    QVERIFY2(out.contains(output.toUtf8()), out.constData());
}

void TestServerProcess::testClientKit_data()
{
    QTest::addColumn<QStringList>("command");
    QTest::addColumn<int>("exitCode");
    const auto row = [](const QString &name, const QStringList &command, int code = 0) {
        QTest::newRow(qPrintable(name)) << command << code;
    };
    QVERIFY(QDir(kKit).removeRecursively() && QDir().mkpath(kKit));
    for (const QString component : {"client", "client-dev"})
        row("install " + component,
            {"cmake", "--install", ZRUI_KIT_BUILD_DIR, "--component", component});
    for (const QString header : {"client", "protocol"}) {
        for (const QString cc : {"cc -std=c99 -pedantic -x c", "c++ -std=c++17 -x c++"})
            row(header + ".h alone: " + cc,
                {"sh", "-c", "echo \"$0\" | " + cc + " -Wall -Werror -I\"$1\" -c - -o /dev/null",
                 "#include <zrui/" + header
                         + ".h>\nint main(void) { return UI_OK + ZRUI_PIN_VERIFY_USER; }",
                 kPrefix + "/include"});
    }
    const QString example = ZRUI_KIT_SOURCE_DIR "/examples/verify-pin";
    row("build through pkg-config",
        {"sh", "-c", "cc -Wall -Werror \"$0\" $(pkg-config --cflags --libs zrui-client) -o \"$1\"",
         example + "/verify_pin.c", kKit + "/verify_pin_pc"});
    row("configure through find_package",
        {"cmake", "-S", example, "-B", kKit + "/example", "-DCMAKE_PREFIX_PATH=" + kPrefix});
    row("build through find_package", {"cmake", "--build", kKit + "/example"});
    // No server under that name: the example runs, links and says so (exit 1).
    for (const QString exe : {"/verify_pin_pc", "/example/verify_pin"})
        row("run " + exe, {kKit + exe, "zrui-kit-no-such-server"}, 1);
}

// The kit as a middleware author meets it, installed into a staging directory;
// each row builds on the ones before.
void TestServerProcess::testClientKit()
{
    QFETCH(QStringList, command);
    QFETCH(int, exitCode);
#ifdef ZRUI_SANITIZED
    if (exitCode == 1) // the staged library needs the sanitizer runtime the example lacks
        QSKIP("the example is not built with the sanitizer runtime its library needs");
#endif
    QProcessEnvironment env = QProcessEnvironment::systemEnvironment();
    env.insert("DESTDIR", kStage);
    env.insert("PKG_CONFIG_SYSROOT_DIR", kStage); // the staged .pc names the final prefix
    env.insert("PKG_CONFIG_PATH", kLibDir + "/pkgconfig");
    env.insert("LD_LIBRARY_PATH", kLibDir);
    QProcess p;
    p.setProcessEnvironment(env);
    p.setProcessChannelMode(QProcess::MergedChannels);
    p.start(command.takeFirst(), command);
    QVERIFY(p.waitForFinished(120000));
    const QByteArray out = p.readAll();
    QVERIFY2(p.exitStatus() == QProcess::NormalExit && p.exitCode() == exitCode, out.constData());
    QVERIFY2(exitCode == 0 || out.contains("verify_pin: ZRUI_E_NOSERVER"), out.constData());
}

QTEST_GUILESS_MAIN(TestServerProcess)
#include "TestServerProcess.moc"
