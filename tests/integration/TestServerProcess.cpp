// The real executable under Xvfb: start-up, socket activation, secrets, stalled and
// foreign clients, a taken name, zrui-cli; and the installed client kit.
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
#include <sys/syscall.h>
#include <sys/un.h>
#include <thread>

namespace {

constexpr int kDeadlineMs = 15000; // the 5 s request deadline plus start-up slack
const QString kTokenLibs = qEnvironmentVariable("ZRUI_TOKENSIM_DIR"); // ends with "/"
const QString kIdle = "connection idle for 2 s with no window open, closed";
const QString kGone = "client gone while waiting for the message answer, message closed";
const QString kUnread = "client does not take its responses, connection closed";
const char *const kBoxTitle = "USBKey password error"; // the retry box's own title
const QString kKit = ZRUI_KIT_BUILD_DIR "/test-output/client-kit";

QByteArray u32(quint32 v) { return QByteArray(reinterpret_cast<const char *>(&v), 4); }
QByteArray packet(quint32 op, const QByteArray &d = {}) { return u32(op) + u32(d.size()) + d; }
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

} // namespace

class TestServerProcess : public QObject
{
    Q_OBJECT

    bool start() { return server->start() && server->waitForListening(); }
    // A refused start ends with 0 (killed, the code would be the signal's number).
    bool exits()
    {
        return server->start() && server->waitForExit() && !server->process().exitCode();
    }
    std::unique_ptr<ServerLauncher> server;
    ServerLauncher cliServer; // one for all rows of testCli

private slots:
    void init()
    {
        QVERIFY(LogFile::clear());
        server.reset(new ServerLauncher);
        server->useResourceVariant("idle2"); // connections idle for 2 s end
        server->setPlatform(QString()); // the X server of xvfb-run
    }

    void testStart_data()
    {
        QTest::addColumn<QString>("script"); // sh, before the start; %1 bin, %2 working dir
        QTest::addColumn<QString>("warning"); // empty: the start succeeds
        QTest::addColumn<QStringList>("lines"); // +: a log line, -: none holds it, !: on stderr
        const auto row = [](const char *name, const QString &script, const char *warning,
                            const QStringList &lines) {
            QTest::newRow(name) << script << QString(warning) << lines;
        };
        const QString copy = "cp %1/resources.rcc %1/integrityprotect.ini %2 && "; // echo: a byte
        row("valid start", "", "",
            {"+resourcefile= \"%1/resources.rcc\"", "+libraryBaseDir =  \"" + kTokenLibs + "\"",
             "+resources.rcc: \"%1/\"", "+trans file= \":/uiserver.en.qm\""});
        row("no configuration file", "rm %1/ZRUIConf.ini", "cannot find ZRUIConf.ini! exited",
            {"-SAFEPATH Settings:",
             "!no configuration file at %2/ZRUIConf.ini or %1/ZRUIConf.ini"});
        row("SAFEPATH without the libraries", "echo SAFEPATH=/nonexistent/ > %1/ZRUIConf.ini",
            "LoadLib_ZRKAPI failed, exit",
            {"-resources.rcc:", "!cannot load the token library /nonexistent/libzrkapi.so: set "
                                "SAFEPATH in %1/ZRUIConf.ini"});
        row("failing configuration in the working directory wins",
            "echo SAFEPATH=/x > %2/ZRUIConf.ini", "LoadLib_ZRKAPI failed, exit",
            {"+SAFEPATH Settings: \"ZRUIConf.ini\" \"%2/ZRUIConf.ini\""});
        row("algorithm library lacks its last entry point",
            "echo SAFEPATH=" + ServerLauncher::buildDir()
                    + "/tokenlib-variants/no-last-alg/ > %1/ZRUIConf.ini",
            "LoadLib_Alg Failed!", {"-resources.rcc:"});
        row("auxiliary library gives no record",
            "printf '[token]\\npresent=1\\n[aux]\\nfail=1\\n' > %1/tokensim.ini",
            "AuxLoadKestrovaIni Failed!", {"-resources.rcc:"});
        row("a byte added to resources.rcc", "echo >> %1/resources.rcc",
            "Integrity Protect Failed!", {"-configuration: softkeyboard="});
        row("a byte added to the working directory's copy", copy + "echo >> %2/resources.rcc",
            "Integrity Protect Failed!", {"+resources.rcc: \"%2/\""});
        row("good copy in the working directory wins", copy + "echo >> %1/resources.rcc", "",
            {"+resources.rcc: \"%2/\""});
        row("no resources.rcc anywhere", "rm %1/resources.rcc", "cannot find resources.rcc! exited",
            {"-resources.rcc:", "!no resource file at"});
    }

    // Each failure exits 0 after one warning line, the last, and one sentence on stderr.
    void testStart()
    {
        QFETCH(QString, script);
        QFETCH(QString, warning);
        QFETCH(QStringList, lines);
        QVERIFY2(server->prepare(), qPrintable(server->errorString()));
        const QString bin = QFileInfo(server->binDir()).canonicalFilePath(),
                      work = QFileInfo(server->workDir()).canonicalFilePath();
        if (script.contains("tokensim.ini"))
            server->setEnv("ZRTOKENSIM_CONF", bin + "/tokensim.ini");
        const auto expand = [&](QString s) { return s.replace("%1", bin).replace("%2", work); };
        QCOMPARE(QProcess::execute("sh", {"-c", expand(script)}), 0);
        QVERIFY2(warning.isEmpty() ? start() && LogFile::waitForLine("genPipeName:") : exits(),
                 qPrintable(server->errorString()));
        const QStringList messages = LogFile::messages();
        const QRegularExpression failure("(Failed!| exit| exited)$"); // the failures' own lines
        QCOMPARE(messages.filter(failure),
                 warning.isEmpty() ? QStringList() : QStringList{warning});
        QVERIFY(warning.isEmpty() || messages.last() == warning); // no later step
        const QString err = server->output();
        QCOMPARE(err.count("ZRUIServer: "), int(!warning.isEmpty()));
        for (const QString &line : lines) {
            const QString text = expand(line).mid(1);
            QVERIFY2(line[0] == '+'   ? messages.contains(text)
                     : line[0] == '-' ? messages.filter(text).isEmpty()
                                      : err.contains("ZRUIServer: " + text),
                     qPrintable(line + '\n' + err));
        }
    }

    // systemd-socket-activate as the user manager; a socket of another name is not taken.
    // Keep-alive 2 s: held off while a session is open, counted from its end.
    void testSocketActivation()
    {
        server->useResourceVariant("keepalive2");
        QVERIFY2(server->prepare(), qPrintable(server->errorString()));
        for (const QString suffix : {"", "x"}) { // the server's own name, another name
            QVERIFY(LogFile::clear());
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
            QVERIFY(activator.waitForFinished(30000) && !activator.exitCode());
            QVERIFY(clock.elapsed() >= 1900);
            const QStringList messages = LogFile::messages();
            const int stop = messages.indexOf("StopPipeListening");
            QVERIFY(stop >= 0
                    && stop < messages.indexOf("Pipe Listening Exited, Exit Application"));
            QCOMPARE(!messages.filter(" handed over by the service manager").isEmpty(),
                     suffix.isEmpty());
            QCOMPARE(!messages.filter("is not a listening socket on @").isEmpty(),
                     !suffix.isEmpty());
        }
    }

    // The PIN hand-off buffer (8448 bytes: three pages at least) is locked out of swap,
    // root's CAP_FOWNER (bit 3) is given up, and where an ordinary process leaves a core
    // file the server leaves none.
    void testSecretsStayInMemory()
    {
        rlimit saved;
        QCOMPARE(getrlimit(RLIMIT_CORE, &saved), 0);
        const rlimit cores = {saved.rlim_max, saved.rlim_max};
        QCOMPARE(setrlimit(RLIMIT_CORE, &cores), 0); // inherited by the processes started below
        const auto restore = qScopeGuard([&saved] { setrlimit(RLIMIT_CORE, &saved); });
        QVERIFY2(start(), qPrintable(server->errorString()));
        const auto status = [](const QString &pid, const char *field) {
            QFile f("/proc/" + pid + "/status");
            const QByteArray s = f.open(QIODevice::ReadOnly) ? f.readAll() : QByteArray();
            return s.mid(s.indexOf(field) + qstrlen(field)).trimmed().split(' ').value(0);
        };
        const QString pid = QString::number(server->process().processId());
#ifndef ZRUI_SANITIZED // the sanitizer runtimes turn mlock into a no-op
        QVERIFY(status(pid, "\nVmLck:").toInt() >= 12);
#endif
        QVERIFY(!(status("self", "\nCapEff:").toULongLong(nullptr, 16)
                  & status(pid, "\nCapEff:").toULongLong(nullptr, 16) & 8));
        const auto leavesCore = [](QProcess &process, const QString &dir) {
            ::kill(pid_t(process.processId()), SIGABRT);
            process.waitForFinished(10000);
            return !QDir(dir).entryList({"core*"}, QDir::Files).isEmpty();
        };
        QProcess control;
        control.setWorkingDirectory(server->binDir());
        control.start("sleep", {"60"});
        if (!control.waitForStarted() || !leavesCore(control, server->binDir()))
            QSKIP("no core file from an ordinary process here (core size limit or core_pattern)");
        QVERIFY(!leavesCore(server->process(), server->workDir()));
    }

    void testConnectionDeadlines_data()
    {
        QTest::addColumn<QByteArrayList>("steps"); // each answered
        QTest::addColumn<QByteArray>("last"); // unanswered; with a window up: after the idle time
        QTest::addColumn<QString>("line"); // why the server ended the connection; empty: it did not
        const QByteArray pin = packet(REQ_PIN_Show, u32(0)), get = packet(REQ_PIN_GetPIN);
        const QByteArray box = u32(0) + kBoxTitle + '\0' + "left alone" + '\0'; // text after title
        const QByteArray list = packet(REQ_List_GetSel);
        const auto row = [](const char *name, const QByteArrayList &steps, const QByteArray &last,
                            const QString &line) { QTest::newRow(name) << steps << last << line; };
        row("connect, send nothing", {}, {}, kIdle);
        row("header, data never comes", {}, u32(REQ_BeginSession) + u32(10),
            "request not complete within 5000 ms, connection closed");
        row("open session, idle", {kBegin}, {}, kIdle);
        // Its PIN window gone, a client no longer holds the connection by it.
        row("PIN finished, idle", {kBegin, pin, get, packet(REQ_PIN_Finish)}, {}, kIdle);
        row("session ended after a PIN request, idle", {kBegin, pin, get, packet(REQ_EndSession)},
            {}, kIdle);
        row("responses never read", {kBegin, packet(REQ_List_Show, u32(1) + QByteArray("a", 2))},
            list, kUnread);
        row("waiting window up",
            {kBegin, packet(REQ_Waiting_Show, u32(2) + QByteArray("1=30|0=wait.gif", 16))},
            packet(REQ_Waiting_Finish), {});
        row("PIN dialog unanswered, asked once", {kBegin, pin, get}, get, {});
        row("list unanswered, asked once",
            {kBegin, packet(REQ_List_Show, u32(0) + QByteArray("a|b", 4)), list}, list, {});
        row("message box, client leaves", {kBegin}, packet(REQ_MessageBox, box), kGone);
        row("PIN retry box, client leaves", {kBegin, pin, get}, packet(REQ_PIN_Retry, u32(3)),
            kGone);
    }

    // A stalled client connected first is ended for the reason of its kind and the next one
    // served. A silent client with a window up keeps its connection; a gone client's box closes.
    void testConnectionDeadlines()
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
        // Unread: one more request per response that came, until the server gives up.
        const auto sendUntilClosed = [&, queued = 0]() mutable {
            int now = 0;
            if (ioctl(fd, FIONREAD, &now) == 0 && now > queued)
                queued = now, send(client, last);
            return closed(fd);
        };
        QVERIFY(line != kUnread || QTest::qWaitFor(sendUntilClosed, kDeadlineMs));
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

    // The name is taken when the server starts: it says by whom (the uid the name was bound
    // under) and exits 0, having sent the holder nothing.
    void testTakenName()
    {
        for (const uint uid : {uint(getuid()), 65534u}) {
            if (uid != getuid() && geteuid() != 0)
                QSKIP("needs root: the other user is uid 65534");
            QVERIFY(LogFile::clear());
            const QByteArray name = server->socketName().toUtf8();
            sockaddr_un addr = {AF_UNIX, {}};
            memcpy(addr.sun_path + 1, name.constData(), size_t(name.size()));
            const auto len = socklen_t(offsetof(sockaddr_un, sun_path) + 1 + size_t(name.size()));
            const int holder = socket(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK, 0);
            const auto closeHolder = qScopeGuard([holder] { close(holder); });
            bool held = false; // the name bound under uid by a thread that takes it for itself
            std::thread([&] {
                held = syscall(SYS_setresuid, -1, uid, -1) == 0
                       && bind(holder, reinterpret_cast<sockaddr *>(&addr), len) == 0
                       && listen(holder, 8) == 0;
            }).join();
            QVERIFY(held && exits());
            const QString said = QString::asprintf("socket name @%s is held by uid %u (pid %d)",
                                                   name.constData(), uid, getpid());
            QVERIFY(server->output().contains(said.toUtf8()) && LogFile::waitForLine(said));
            QCOMPARE(LogFile::countExact("bind() failed"), 1);
            QCOMPARE(LogFile::countExact("call on_start_pipe_failed(), service will exit"), 1);
            int connections = 0; // the server's, to learn the holder's pid
            for (int c; (c = accept(holder, nullptr, nullptr)) >= 0; close(c), ++connections) {
                char b;
                QCOMPARE(recv(c, &b, 1, MSG_DONTWAIT), ssize_t(0));
            }
            QVERIFY(connections > 0);
        }
    }

    void testCli_data()
    {
        QTest::addColumn<int>("exitCode");
        QTest::addColumn<QString>("output"); // a part of stdout and stderr
        QTest::addColumn<QStringList>("args"); // "--server <app>" first unless the row names one
        // Exit code|output|arguments. PIN_Locked meets another program's open session.
        for (const QString &row : QStringList{
                     "0|end -> ZRUI_OK\n|session begin end", "4|end -> ZRUI_E_STATE\n|session end",
                     "8|op=12 -> ZRUI_E_CLOSED\n|session begin op=12",
                     "0|op=11 -> ZRUI_OK response 0 datalen 4 data ff ff ff ff\n|session begin "
                     "list-show=1:a\\nb list-wait op=11",
                     "0|REQ_List_GetSel -> ZRUI_OK index -1|list --type 1 A B",
                     "7|REQ_PIN_GetPIN -> ZRUI_E_TIMEOUT|pin verify --timeout 0.5",
                     "0|  REQ_Waiting_Finish -> ZRUI_OK\n|demo --unattended",
                     "11|busy with another program|message --text PIN_Locked --timeout 0.5",
                     "2|zrui-cli: |frobnicate",
                     "0|Usage: zrui-cli [--server NAME] [--json] session|session --help",
                     "6|\"exit\": 6|message --json --text x --server zrui-no-such-server",
                     "0|\"index\": -1,\n            \"request\": \"list-wait\"|session --server="
                             + cliServer.appName() + " begin list-show=1:x --json list-wait end"}) {
            const QStringList part = row.split('|');
            QTest::newRow(qPrintable(part[2])) << part[0].toInt() << part[1] << part[2].split(' ');
        }
    }

    void testCli()
    {
        QFETCH(QStringList, args);
        QFETCH(int, exitCode);
        QFETCH(QString, output);
        QVERIFY(cliServer.isRunning() || (cliServer.start() && cliServer.waitForListening()));
        const Conn other = open(args.contains("PIN_Locked") ? cliServer.appName() : QString());
        QVERIFY(!other || ask(other, kBegin) == UI_OK); // another program's session
        QProcess cli;
        cli.setProcessChannelMode(QProcess::MergedChannels);
        if (!args.join(' ').contains("--server"))
            args = QStringList{"--server", cliServer.appName()} + args;
        cli.start(qEnvironmentVariable("ZRUI_CLI"), args);
        const bool ended = cli.waitForFinished(30000) && cli.exitStatus() == QProcess::NormalExit;
        const QByteArray out = cli.readAll();
        QVERIFY2(ended && cli.exitCode() == exitCode && out.contains(output.toUtf8()),
                 out.constData());
    }

    // The kit as a middleware author meets it, installed into a staging directory: each header
    // alone in C and C++, the example built through pkg-config and through find_package; with
    // no server under that name it runs, links and says so (exit 1).
    void testClientKit()
    {
        QVERIFY(QDir(kKit).removeRecursively() && QDir().mkpath(kKit));
        const char *const script
                = R"(cd "$1"; export DESTDIR="$1/stage" PKG_CONFIG_SYSROOT_DIR="$1/stage"
prefix=$1/stage$2; lib=$prefix/$3; export PKG_CONFIG_PATH="$lib/pkgconfig" LD_LIBRARY_PATH="$lib"
for c in client client-dev; do cmake --install "$4" --component $c; done
for h in client protocol; do for cc in "cc -std=c99 -pedantic -x c" "c++ -std=c++17 -x c++"; do
  printf '#include <zrui/%s.h>\nint main(void) { return UI_OK + ZRUI_PIN_VERIFY_USER; }' $h |
    $cc -Wall -Werror -I"$prefix/include" -c - -o /dev/null
done; done
cc -Wall -Werror "$5/verify_pin.c" $(pkg-config --cflags --libs zrui-client) -o verify_pin_pc
cmake -S "$5" -B example -DCMAKE_PREFIX_PATH="$prefix"
cmake --build example
ldd "$lib"/libzrui-client.so | grep -q 'san\.so' && exit # a runtime the example lacks
for e in ./verify_pin_pc example/verify_pin; do
  rc=0; out=$($e zrui-kit-no-such-server 2>&1) || rc=$?
  test $rc = 1
  echo "$out" | grep -F "verify_pin: ZRUI_E_NOSERVER"
done)";
        QProcess sh;
        sh.setProcessChannelMode(QProcess::MergedChannels);
        sh.start("sh", {"-exc", script, "sh", kKit, ZRUI_KIT_PREFIX, ZRUI_KIT_LIBDIR,
                        ZRUI_KIT_BUILD_DIR, ZRUI_KIT_SOURCE_DIR "/examples/verify-pin"});
        QVERIFY(sh.waitForFinished(120000));
        QVERIFY2(sh.exitStatus() == QProcess::NormalExit && sh.exitCode() == 0,
                 sh.readAll().constData());
    }
};

QTEST_GUILESS_MAIN(TestServerProcess)
#include "TestServerProcess.moc"
