// The real executable as a process: each start-up failure exits 0 after one
// warning line and no later step; a good start listens, on a socket of its
// own or one handed over by the service manager; the PINs stay in memory.
#include "LogFile.h"
#include "ServerLauncher.h"
#include "client/zrui_client.h"

#include <QtTest>

#include <csignal>
#include <sys/resource.h>

namespace {

const QStringList kFailures{"cannot find ZRUIConf.ini! exited",
                            "LoadLib_ZRKAPI failed, exit",
                            "LoadLib_Alg Failed!",
                            "LoadLib_Aux Failed!",
                            "AuxLoadKestrovaIni Failed!",
                            "cannot find resources.rcc! exited",
                            "Integrity Protect Failed!"};
const QString kTokenLibs = qEnvironmentVariable("ZRUI_TOKENSIM_DIR"); // ends with "/"
enum Setup { AuxFails = 1, WorkConfig = 2, CopyToWork = 4, FlipBin = 8, FlipWork = 16, NoRcc = 32 };

bool flipLastByte(const QString &path)
{
    QFile file(path);
    char c = 0;
    return file.open(QIODevice::ReadWrite) && file.seek(file.size() - 1) && file.getChar(&c)
           && file.seek(file.size() - 1) && file.putChar(char(c ^ 0x01));
}

} // namespace

class TestStartup : public QObject
{
    Q_OBJECT

private slots:
    void init() { QVERIFY(LogFile::clear()); }
    void testStart_data();
    void testStart();
    void testSocketActivation_data();
    void testSocketActivation();
    void testSecretsStayInMemory();
};

void TestStartup::testStart_data()
{
    QTest::addColumn<QString>("safePath"); // null: no ZRUIConf.ini
    QTest::addColumn<int>("setup");
    QTest::addColumn<QString>("warning"); // empty: the start succeeds
    QTest::addColumn<QStringList>("lines"); // "+" logged, "-" no line holds it; %1 bin, %2 work
    QTest::addColumn<QString>("hint"); // on stderr after "ZRUIServer: "
    const QString noSlash = kTokenLibs.chopped(1);
    const auto row = [](const char *name, const QString &safePath, int setup, const char *warning,
                        const QStringList &lines, const QString &hint = {}) {
        QTest::newRow(name) << safePath << setup << QString(warning) << lines << hint;
    };
    row("valid start", kTokenLibs, 0, "",
        {"+resourcefile= \"%1/resources.rcc\"", "+libraryBaseDir =  \"" + kTokenLibs + "\"",
         "+resources.rcc: \"%1/\"", "+locale= \"C\"", "+trans file= \":/uiserver.C.qm\"",
         "+trans file= \":/uiserver.en.qm\""}); // no file for "C": English
    row("no configuration file", {}, 0, "cannot find ZRUIConf.ini! exited", {"-SAFEPATH Settings:"},
        "no configuration file at %2/ZRUIConf.ini or %1/ZRUIConf.ini");
    row("SAFEPATH without the libraries", "/nonexistent/", 0, "LoadLib_ZRKAPI failed, exit",
        {"-resources.rcc:"},
        "cannot load the token library /nonexistent/libzrkapi.so: set SAFEPATH in "
        "%1/ZRUIConf.ini");
    row("SAFEPATH without trailing slash", noSlash, 0, "LoadLib_ZRKAPI failed, exit",
        {"-resources.rcc:"});
    row("failing configuration in the working directory wins", kTokenLibs, WorkConfig,
        "LoadLib_ZRKAPI failed, exit",
        {"+SAFEPATH Settings: \"ZRUIConf.ini\" \"%2/ZRUIConf.ini\""});
    row("algorithm library lacks its last entry point",
        ServerLauncher::buildDir() + "/tokenlib-variants/no-last-alg/", 0, "LoadLib_Alg Failed!",
        {"-resources.rcc:"});
    row("auxiliary library gives no record", kTokenLibs, AuxFails, "AuxLoadKestrovaIni Failed!",
        {"-resources.rcc:"});
    row("one byte changed in resources.rcc", kTokenLibs, FlipBin, "Integrity Protect Failed!",
        {"-configuration: softkeyboard="});
    row("one byte changed in the working directory's copy", kTokenLibs, CopyToWork | FlipWork,
        "Integrity Protect Failed!", {"+resources.rcc: \"%2/\""});
    row("good copy in the working directory wins", kTokenLibs, CopyToWork | FlipBin, "",
        {"+resources.rcc: \"%2/\""});
    row("no resources.rcc anywhere", kTokenLibs, NoRcc, "cannot find resources.rcc! exited",
        {"-resources.rcc:"}, "no resource file at");
}

void TestStartup::testStart()
{
    QFETCH(QString, safePath);
    QFETCH(int, setup);
    QFETCH(QString, warning);
    QFETCH(QStringList, lines);
    QFETCH(QString, hint);
    ServerLauncher server;
    server.setSafePath(safePath);
    QVERIFY2(server.prepare(), qPrintable(server.errorString()));
    const QString bin = QFileInfo(server.binDir()).canonicalFilePath();
    const QString work = QFileInfo(server.workDir()).canonicalFilePath();
    if (setup & AuxFails) {
        QVERIFY(server.writeFile("bin/tokensim.ini", "[token]\npresent=1\n[aux]\nfail=1\n"));
        server.setEnv("ZRTOKENSIM_CONF", bin + "/tokensim.ini");
    }
    QVERIFY(!(setup & WorkConfig) || server.writeFile("work/ZRUIConf.ini", "SAFEPATH=/x\n"));
    for (const QString file : {"/resources.rcc", "/integrityprotect.ini"})
        QVERIFY(!(setup & CopyToWork) || QFile::copy(bin + file, work + file));
    QVERIFY(!(setup & FlipBin) || flipLastByte(bin + "/resources.rcc"));
    QVERIFY(!(setup & FlipWork) || flipLastByte(work + "/resources.rcc"));
    QVERIFY(!(setup & NoRcc) || QFile::remove(bin + "/resources.rcc"));

    QVERIFY2(server.start(), qPrintable(server.errorString()));
    if (warning.isEmpty()) {
        QVERIFY2(server.waitForListening(20000), qPrintable(server.errorString()));
        QVERIFY(LogFile::waitForLine("genPipeName:"));
    } else {
        QVERIFY2(server.waitForExit(20000), "the process did not end by itself");
        QCOMPARE(server.process().exitStatus(), QProcess::NormalExit);
        QCOMPARE(server.process().exitCode(), 0);
        QVERIFY(!ServerLauncher::isListening(server.socketName()));
    }
    const QStringList messages = LogFile::messages();
    for (const QString &failure : kFailures)
        QCOMPARE(messages.count(failure), int(failure == warning));
    QVERIFY(warning.isEmpty() || messages.last() == warning); // no later step
    for (QString line : lines) {
        line.replace("%1", bin).replace("%2", work);
        QVERIFY2(line.startsWith('+') ? messages.contains(line.mid(1))
                                      : messages.filter(line.mid(1)).isEmpty(),
                 qPrintable(line));
    }
    const QString err = server.output();
    hint.replace("%1", bin).replace("%2", work);
    QVERIFY2(hint.isEmpty() || err.contains("ZRUIServer: " + hint), qPrintable(err));
    QCOMPARE(err.count("ZRUIServer: "), int(!warning.isEmpty())); // one sentence per failure
}

void TestStartup::testSocketActivation_data()
{
    QTest::addColumn<QString>("suffix");
    QTest::newRow("the server's own name") << QString();
    QTest::newRow("another name: not taken for its own") << "x";
}

// systemd-socket-activate stands in for the user manager. Keep-alive of 2 s:
// held off while a session is open, counted from its end; only a passed socket
// with the receive time-out lets the accept loop notice.
void TestStartup::testSocketActivation()
{
    QFETCH(QString, suffix);
    ServerLauncher server;
    server.useResourceVariant("keepalive2");
    QVERIFY2(server.prepare(), qPrintable(server.errorString()));
    const QString app = server.appName() + suffix, name = app + QString::number(getuid());
    QProcess activator; // it hands the program only the variables named with -E
    QStringList args{"-l", '@' + name, server.executablePath()};
    for (const QString var : {"QT_QPA_PLATFORM", "LC_ALL", "ASAN_OPTIONS", "LSAN_OPTIONS",
                              "UBSAN_OPTIONS", "TSAN_OPTIONS"})
        args = qEnvironmentVariableIsSet(qPrintable(var)) ? QStringList{"-E", var} + args : args;
    activator.setWorkingDirectory(server.workDir());
    activator.start("systemd-socket-activate", args);
    QTRY_VERIFY_WITH_TIMEOUT(ServerLauncher::isListening(name), 10000);
    QVERIFY(!LogFile::contains("genPipeName:")); // started on demand
    zrui_conn *h = nullptr, *own = nullptr;
    QCOMPARE(zrui_open(qPrintable(app), &h), int(ZRUI_OK));
    QElapsedTimer clock;
    if (suffix.isEmpty()) {
        QCOMPARE(zrui_begin_session(h, 1), int(ZRUI_OK));
        for (clock.start(); clock.elapsed() < 4500; QTest::qWait(100))
            QCOMPARE(activator.state(), QProcess::Running); // the program runs in its place
        QCOMPARE(zrui_end_session(h), int(ZRUI_OK));
    } else {
        QTRY_VERIFY_WITH_TIMEOUT(ServerLauncher::isListening(server.socketName()), 15000);
        QCOMPARE(zrui_open(qPrintable(server.appName()), &own), int(ZRUI_OK));
        QVERIFY(zrui_begin_session(own, 1) == ZRUI_OK && zrui_end_session(own) == ZRUI_OK);
        zrui_close(own);
    }
    clock.start();
    zrui_close(h);
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
// swap, and where an ordinary process leaves a core file the server leaves none.
void TestStartup::testSecretsStayInMemory()
{
    rlimit saved;
    QCOMPARE(getrlimit(RLIMIT_CORE, &saved), 0);
    const rlimit cores = {saved.rlim_max, saved.rlim_max};
    QCOMPARE(setrlimit(RLIMIT_CORE, &cores), 0); // inherited by the processes started below
    const auto restore = qScopeGuard([&saved] { setrlimit(RLIMIT_CORE, &saved); });
    ServerLauncher server;
    QVERIFY2(server.start() && server.waitForListening(), qPrintable(server.errorString()));
#ifndef ZRUI_SANITIZED // the sanitizer runtimes turn mlock into a no-op
    QFile status(QString("/proc/%1/status").arg(server.process().processId()));
    QVERIFY(status.open(QIODevice::ReadOnly));
    const QByteArray all = status.readAll();
    QVERIFY2(all.mid(all.indexOf("\nVmLck:") + 8).trimmed().split(' ').value(0).toInt() >= 12, all);
#endif
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
    QVERIFY(!leavesCore(server.process(), server.workDir()));
}

QTEST_GUILESS_MAIN(TestStartup)
#include "TestStartup.moc"
