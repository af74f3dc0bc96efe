// Security properties of the request service: PIN bytes never reach the log
// file, and a peer running under another user id is turned away before a
// single byte of it is read.
#include "LogFile.h"
#include "ServiceHarness.h"
#include "SignalRecorder.h"
#include "service/Protocol.h"

#include <QDeadlineTimer>
#include <QTemporaryDir>
#include <QtTest>

#include <cerrno>
#include <cstring>

#include <poll.h>
#include <sys/socket.h>
#include <sys/syscall.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

namespace {

QByteArray u32(quint32 v) { return QByteArray(reinterpret_cast<const char *>(&v), 4); }

// Child side of the foreign-peer test; only async-signal-safe calls, since
// the parent has threads. Exit codes: 0 closed without any byte, 10/11
// cannot drop privileges, 12 cannot connect, 13 got bytes, 14 no close in
// time, 15 other read error, 16 other send error.
[[noreturn]] void foreignPeer(const sockaddr_un &addr, socklen_t addrLen, const char *request,
                              size_t requestLen)
{
    const long nobody = 65534;
    if (syscall(SYS_setresgid, nobody, nobody, nobody) != 0)
        _exit(10);
    if (syscall(SYS_setresuid, nobody, nobody, nobody) != 0)
        _exit(11);
    const int fd = socket(AF_UNIX, SOCK_STREAM, 0);
    if (fd < 0 || connect(fd, reinterpret_cast<const sockaddr *>(&addr), addrLen) != 0)
        _exit(12);
    // The server may have closed already: a refused send is as good as EOF.
    if (send(fd, request, requestLen, MSG_NOSIGNAL) != ssize_t(requestLen))
        _exit(errno == EPIPE || errno == ECONNRESET ? 0 : 16);
    pollfd p = {fd, POLLIN, 0};
    if (poll(&p, 1, 10000) != 1)
        _exit(14);
    char buf[64];
    const ssize_t n = read(fd, buf, sizeof buf);
    if (n == 0 || (n < 0 && errno == ECONNRESET))
        _exit(0);
    _exit(n > 0 ? 13 : 15);
}

} // namespace

class TestServiceSecurity : public QObject
{
    Q_OBJECT

private slots:
    void initTestCase();
    void cleanupTestCase() { QVERIFY(harness.stop()); }
    void testPinResultRedactedInLog();
    void testForeignPeerClosedBeforeRead();

private:
    QTemporaryDir tempDir;
    ServiceHarness harness;
};

void TestServiceSecurity::initTestCase()
{
    // Lines also go to the shared log file: the test takes the "uilog" lock.
    QVERIFY(tempDir.isValid());
    QVERIFY(LogFile::clear());
    QVERIFY(harness.setUp(tempDir.path(), QStringLiteral("sec"), true));
}

void TestServiceSecurity::testPinResultRedactedInLog()
{
    TestClient client;
    QCOMPARE(client.open(harness.appName()), ZRUI_OK);
    QCOMPARE(zrui_begin_session(client.handle(), 7), ZRUI_OK);
    QCOMPARE(zrui_pin_show(client.handle(), 1), ZRUI_OK);

    const QByteArray oldPin = "739251";
    const QByteArray newPin = "84625193";
    QByteArray result = u32(quint32(oldPin.size())) + oldPin + u32(quint32(newPin.size())) + newPin;
    harness.fake.SetPINStatus(1, reinterpret_cast<unsigned char *>(result.data()),
                              ulong(result.size()));

    // Twice: the wipe after the first write must not touch the UI's copy.
    for (int round = 0; round < 2; ++round) {
        quint32 resp = 0xdead;
        QByteArray out;
        QCOMPARE(client.request(REQ_PIN_GetPIN, QByteArray(), &resp, &out), ZRUI_OK);
        QCOMPARE(resp, quint32(UI_OK));
        QCOMPARE(out.toHex(), result.toHex());
    }
    QCOMPARE(zrui_pin_finish(client.handle()), ZRUI_OK);
    QCOMPARE(zrui_end_session(client.handle()), ZRUI_OK);
    client.close();

    // UI_OK, 22 bytes.
    const QString redacted
            = QStringLiteral("SendBuff: Send \"0000000016000000\" <22 bytes redacted>");
    QVERIFY(LogFile::waitForCount(QStringLiteral("SendBuff: Sended writelen= 30"), 2));
    QCOMPARE(LogFile::countExact(redacted), 2);
    QCOMPARE(ServiceHarness::countLog(redacted, 0, true), 2);

    // Neither the file nor the captured lines hold the PINs, in hex or clear.
    const QStringList fileLines = LogFile::messages();
    QVERIFY(!fileLines.isEmpty());
    for (const QByteArray &secret : {oldPin.toHex(), newPin.toHex(), oldPin, newPin}) {
        for (const QString &line : fileLines + ServiceHarness::logSince(0))
            QVERIFY2(!line.contains(QString::fromLatin1(secret)), qPrintable(line));
    }
    // Responses without a PIN keep their full dump.
    QVERIFY(LogFile::countExact(QStringLiteral("SendBuff: Send \"0000000000000000\"")) >= 4);
}

void TestServiceSecurity::testForeignPeerClosedBeforeRead()
{
    if (getuid() != 0)
        QSKIP("needs root: the foreign client drops to uid 65534 with setresuid");

    const QByteArray name = harness.socketName().toUtf8();
    sockaddr_un addr;
    memset(&addr, 0, sizeof addr);
    addr.sun_family = AF_UNIX;
    memcpy(addr.sun_path + 1, name.constData(), size_t(name.size()));
    const socklen_t addrLen = socklen_t(offsetof(sockaddr_un, sun_path) + 1 + size_t(name.size()));
    const QByteArray request = TestClient::packet(REQ_BeginSession, QByteArray(10, '\x11'));

    // Let any earlier connection end completely: its signals are recorded
    // before the loop waits in accept again.
    const QString cleanEnv = QStringLiteral("Clean env, handle :");
    const QString callAccept = QStringLiteral("CreatePipeAndListen: call accept...");
    QTRY_COMPARE(ServiceHarness::countLog(cleanEnv),
                 ServiceHarness::countLog(QStringLiteral("accepted: client_addr=")));
    int lastClean = -1;
    const QStringList before = ServiceHarness::logSince(0);
    for (int i = 0; i < before.size(); ++i)
        lastClean = before.at(i).contains(cleanEnv) ? i : lastClean;
    if (lastClean >= 0)
        QVERIFY(ServiceHarness::waitForLog(callAccept, lastClean, 1, 5000, true));
    const int recMark = harness.recorder->size();
    const int journalSize = ServiceHarness::journalLines().size();
    const int mark = ServiceHarness::logMark();

    const pid_t child = fork();
    QVERIFY(child >= 0);
    if (child == 0)
        foreignPeer(addr, addrLen, request.constData(), size_t(request.size()));

    int status = 0;
    pid_t done = 0;
    const QDeadlineTimer deadline(15000);
    while ((done = waitpid(child, &status, WNOHANG)) == 0 && !deadline.hasExpired())
        QTest::qWait(10);
    if (done == 0) {
        kill(child, SIGKILL);
        waitpid(child, &status, 0);
        QFAIL("foreign client did not finish");
    }
    QVERIFY(WIFEXITED(status));
    QCOMPARE(WEXITSTATUS(status), 0); // closed by the server, not a byte sent back

    const QString rejected
            = QStringLiteral("rejected peer uid=65534 pid=%1: not this user").arg(child);
    QVERIFY(ServiceHarness::waitForLog(rejected, mark, 1, 5000, true));
    const int at = ServiceHarness::logSince(mark).indexOf(rejected);
    QVERIFY(ServiceHarness::waitForLog(callAccept, mark + at, 1, 5000, true));
    const QStringList lines = ServiceHarness::logSince(mark);
    QVERIFY(lines.value(at - 1).startsWith(QStringLiteral("accepted: client_addr=")));
    QCOMPARE(lines.value(at + 1), callAccept);
    for (const QString &line : lines)
        QVERIFY2(!line.startsWith(QStringLiteral("RecvBuff"))
                         && !line.startsWith(QStringLiteral("RecvPack")),
                 qPrintable(line));

    // The loop goes on and serves this user; the rejected peer left no trace
    // in the session (no device call, no signal).
    QCOMPARE(ServiceHarness::journalLines().size(), journalSize);
    TestClient client;
    QCOMPARE(client.open(harness.appName()), ZRUI_OK);
    QCOMPARE(zrui_begin_session(client.handle(), 1), ZRUI_OK);
    QCOMPARE(zrui_end_session(client.handle()), ZRUI_OK);
    client.close();
    QTRY_COMPARE(
            harness.recorder->since(recMark, true),
            QStringList(
                    {QStringLiteral("stopExitTimer()"), QStringLiteral("startExitTimer()"),
                     QStringLiteral("pipe_comm_failed()"), QStringLiteral("hide_pin_dialog()"),
                     QStringLiteral("hide_waiting_dialog()"), QStringLiteral("hide_list_dialog()"),
                     QStringLiteral("hide_message_dialog()"), QStringLiteral("startExitTimer()")}));
}

QTEST_GUILESS_MAIN(TestServiceSecurity)
#include "TestServiceSecurity.moc"
