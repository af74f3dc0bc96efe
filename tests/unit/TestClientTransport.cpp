// The client library's framing against a scripted server on a real abstract
// socket: bytes on the wire, responses that arrive in pieces, a server that
// closes or stays silent, responses that do not fit.
#include "client/zrui_client.h"

#include <QByteArray>
#include <QElapsedTimer>
#include <QtTest>

#include <atomic>
#include <cerrno>
#include <functional>
#include <thread>

#include <linux/sockios.h>
#include <poll.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

namespace {

QByteArray u32(quint32 v) { return QByteArray(reinterpret_cast<const char *>(&v), 4); }

QByteArray header(quint32 code, quint32 datalen) { return u32(code) + u32(datalen); }

/**
 * One scripted connection: listens on "<name><uid>", accepts one client in
 * a thread of its own and runs the script on it. Every wait of the script
 * has a deadline, so a broken client cannot hang the test.
 */
class ScriptedServer
{
public:
    using Script = std::function<void(ScriptedServer &)>;

    explicit ScriptedServer(const QByteArray &serverName)
    {
        const QByteArray full = serverName + QByteArray::number(getuid());
        sockaddr_un addr;
        memset(&addr, 0, sizeof addr);
        addr.sun_family = AF_UNIX;
        memcpy(addr.sun_path + 1, full.constData(), size_t(full.size()));
        listenFd = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
        const socklen_t len = socklen_t(offsetof(sockaddr_un, sun_path) + 1 + size_t(full.size()));
        ok = listenFd >= 0 && bind(listenFd, reinterpret_cast<sockaddr *>(&addr), len) == 0
             && listen(listenFd, 1) == 0;
    }
    ~ScriptedServer()
    {
        finish();
        if (listenFd >= 0)
            ::close(listenFd);
    }

    void run(Script script)
    {
        worker = std::thread([this, script] {
            pollfd p = {listenFd, POLLIN, 0};
            if (poll(&p, 1, 5000) != 1)
                return;
            fd = accept(listenFd, nullptr, nullptr);
            if (fd < 0)
                return;
            script(*this);
            closeClient();
        });
    }
    // Waits for the script to end.
    void finish()
    {
        if (worker.joinable())
            worker.join();
    }

    // Reads exactly n bytes (fewer when the peer closes or time runs out).
    QByteArray readExactly(int n, int timeoutMs = 5000)
    {
        QByteArray out;
        QElapsedTimer timer;
        timer.start();
        while (out.size() < n && timer.elapsed() < timeoutMs) {
            pollfd p = {fd, POLLIN, 0};
            if (poll(&p, 1, 50) != 1)
                continue;
            char buf[4096];
            const ssize_t got = ::read(fd, buf, size_t(qMin<int>(n - out.size(), sizeof buf)));
            if (got <= 0)
                break;
            out.append(buf, int(got));
        }
        received += out;
        return out;
    }
    // One request: header, then its data.
    QByteArray readRequest()
    {
        QByteArray hdr = readExactly(8);
        if (hdr.size() != 8)
            return hdr;
        quint32 len;
        memcpy(&len, hdr.constData() + 4, 4);
        return hdr + readExactly(int(len));
    }
    bool write(const QByteArray &bytes)
    {
        return ::send(fd, bytes.constData(), size_t(bytes.size()), MSG_NOSIGNAL) == bytes.size();
    }
    // Waits until the client has read everything written so far (the
    // socket's send queue is empty), so the next write makes a new read.
    bool waitConsumed(int timeoutMs = 5000)
    {
        QElapsedTimer timer;
        timer.start();
        while (timer.elapsed() < timeoutMs) {
            int queued = -1;
            if (ioctl(fd, SIOCOUTQ, &queued) == 0 && queued == 0)
                return true;
            std::this_thread::yield();
        }
        return false;
    }
    // Writes the pieces one after the other, each read by its own call.
    bool writeInPieces(const QList<QByteArray> &pieces)
    {
        for (const QByteArray &piece : pieces) {
            if (!write(piece) || !waitConsumed())
                return false;
        }
        return true;
    }
    // Waits until the client closes (read gives 0).
    bool waitClientClose(int timeoutMs = 5000)
    {
        pollfd p = {fd, POLLIN, 0};
        if (poll(&p, 1, timeoutMs) != 1)
            return false;
        char c;
        return ::read(fd, &c, 1) == 0;
    }
    void closeClient()
    {
        if (fd >= 0)
            ::close(fd);
        fd = -1;
    }

    bool ok = false;
    QByteArray received; // written by the script thread; read after finish()
    std::atomic<int> requests{0};

private:
    int listenFd = -1;
    int fd = -1;
    std::thread worker;
};

QByteArray uniqueName(const char *tag)
{
    static int counter = 0;
    return QByteArray("zrclt") + QByteArray::number(getpid()) + '_' + QByteArray::number(++counter)
           + '_' + tag;
}

} // namespace

class TestClientTransport : public QObject
{
    Q_OBJECT

private slots:
    void testNoServer();
    void testRequestBytesOnWire();
    void testResponseReadInPieces();
    void testServerClosesWithoutResponse();
    void testServerClosesMidHeader();
    void testResponseLargerThanBufferKeepsStep();
    void testDatalenAboveMaximum();
    void testTimeout();
    void testResponseCodes();
    void testPinWaitPollsUntilAnswer();
    void testListWait();
};

void TestClientTransport::testNoServer()
{
    zrui_conn *h = reinterpret_cast<zrui_conn *>(0x1);
    QCOMPARE(zrui_open(uniqueName("none").constData(), &h), int(ZRUI_E_NOSERVER));
    QVERIFY(h == nullptr);
    errno = 0;
    QVERIFY(zrui_connect(uniqueName("none").constData()) == nullptr);
    QCOMPARE(errno, ECONNREFUSED);
    // A name that cannot fit an abstract address.
    QCOMPARE(zrui_open(QByteArray(120, 'n').constData(), &h), int(ZRUI_E_INVAL));
}

void TestClientTransport::testRequestBytesOnWire()
{
    const QByteArray name = uniqueName("wire");
    ScriptedServer server(name);
    QVERIFY(server.ok);
    server.run([](ScriptedServer &s) {
        for (int i = 0; i < 6; ++i) {
            if (s.readRequest().isEmpty())
                return;
            s.write(header(0, 0));
        }
    });
    zrui_conn *h = nullptr;
    QCOMPARE(zrui_open(name.constData(), &h), int(ZRUI_OK));
    QCOMPARE(zrui_begin_session(h, 0x8877665544332211ULL), int(ZRUI_OK));
    QCOMPARE(zrui_pin_show(h, 3), int(ZRUI_OK));
    QCOMPARE(zrui_pin_retry(h, 0xFFFFFFFFu), int(ZRUI_OK));
    QCOMPARE(zrui_waiting_show(h, 2, "press|5"), int(ZRUI_OK));
    QCOMPARE(zrui_list_show(h, 1, nullptr), int(ZRUI_OK));
    QCOMPARE(zrui_message_box(h, 4, "Hi", "there"), int(ZRUI_OK));
    zrui_close(h);
    server.finish();
    const QByteArray expected = QByteArray::fromHex("01000000"
                                                    "0a000000"
                                                    "0000"
                                                    "1122334455667788"
                                                    "03000000"
                                                    "04000000"
                                                    "03000000"
                                                    "05000000"
                                                    "04000000"
                                                    "ffffffff"
                                                    "07000000"
                                                    "0c000000"
                                                    "02000000"
                                                    "70726573737c3500"
                                                    "0a000000"
                                                    "05000000"
                                                    "01000000"
                                                    "00"
                                                    "0e000000"
                                                    "0d000000"
                                                    "04000000"
                                                    "486900"
                                                    "746865726500");
    QCOMPARE(server.received.toHex(), expected.toHex());
}

void TestClientTransport::testResponseReadInPieces()
{
    const QByteArray name = uniqueName("pieces");
    ScriptedServer server(name);
    QVERIFY(server.ok);
    const QByteArray result = u32(6) + "246810" + u32(0);
    std::atomic<bool> piecesOk{false};
    server.run([&](ScriptedServer &s) {
        s.readRequest();
        const QByteArray response = header(0, quint32(result.size())) + result;
        piecesOk = s.writeInPieces(
                {response.left(3), response.mid(3, 5), response.mid(8, 2), response.mid(10)});
    });
    zrui_conn *h = nullptr;
    QCOMPARE(zrui_open(name.constData(), &h), int(ZRUI_OK));
    zrui_pin_result pin;
    QCOMPARE(zrui_pin_get(h, &pin), int(ZRUI_OK));
    QCOMPARE(QByteArray(pin.oldPin), QByteArray("246810"));
    QCOMPARE(pin.newLen, 0u);
    zrui_pin_result_wipe(&pin);
    zrui_close(h);
    server.finish();
    QVERIFY(piecesOk);
    QCOMPARE(server.received.toHex(), header(REQ_PIN_GetPIN, 0).toHex());
}

void TestClientTransport::testServerClosesWithoutResponse()
{
    const QByteArray name = uniqueName("close");
    ScriptedServer server(name);
    QVERIFY(server.ok);
    server.run([](ScriptedServer &s) { s.readRequest(); });
    zrui_conn *h = nullptr;
    QCOMPARE(zrui_open(name.constData(), &h), int(ZRUI_OK));
    QCOMPARE(zrui_set_timeout(h, 5000), int(ZRUI_OK));
    QCOMPARE(zrui_end_session(h), int(ZRUI_E_CLOSED));
    zrui_close(h);
}

void TestClientTransport::testServerClosesMidHeader()
{
    const QByteArray name = uniqueName("half");
    ScriptedServer server(name);
    QVERIFY(server.ok);
    server.run([](ScriptedServer &s) {
        s.readRequest();
        s.write(header(0, 4).left(5));
    });
    zrui_conn *h = nullptr;
    QCOMPARE(zrui_open(name.constData(), &h), int(ZRUI_OK));
    QCOMPARE(zrui_set_timeout(h, 5000), int(ZRUI_OK));
    int32_t index = 0;
    QCOMPARE(zrui_list_get_sel(h, &index), int(ZRUI_E_CLOSED));
    zrui_close(h);
}

void TestClientTransport::testResponseLargerThanBufferKeepsStep()
{
    const QByteArray name = uniqueName("big");
    ScriptedServer server(name);
    QVERIFY(server.ok);
    server.run([](ScriptedServer &s) {
        s.readRequest();
        s.write(header(0, 8) + QByteArray::fromHex("0102030405060708"));
        s.readRequest();
        s.write(header(0, 4) + u32(9));
    });
    zrui_conn *h = nullptr;
    QCOMPARE(zrui_open(name.constData(), &h), int(ZRUI_OK));
    QCOMPARE(zrui_set_timeout(h, 5000), int(ZRUI_OK));
    int32_t index = -5;
    QCOMPARE(zrui_list_get_sel(h, &index), int(ZRUI_E_PROTO));
    QCOMPARE(index, -5);
    // The oversized data was drained: the next response is read correctly.
    QCOMPARE(zrui_list_get_sel(h, &index), int(ZRUI_OK));
    QCOMPARE(index, 9);
    zrui_close(h);
}

void TestClientTransport::testDatalenAboveMaximum()
{
    const QByteArray name = uniqueName("huge");
    ScriptedServer server(name);
    QVERIFY(server.ok);
    server.run([](ScriptedServer &s) {
        s.readRequest();
        s.write(header(0, COMMPACK_MAX_DATA + 1));
        s.waitClientClose();
    });
    zrui_conn *h = nullptr;
    QCOMPARE(zrui_open(name.constData(), &h), int(ZRUI_OK));
    zrui_pin_result pin;
    QCOMPARE(zrui_pin_get(h, &pin), int(ZRUI_E_PROTO));
    // Out of step from here on: refused without touching the socket.
    QCOMPARE(zrui_end_session(h), int(ZRUI_E_IO));
    zrui_close(h);
}

void TestClientTransport::testTimeout()
{
    const QByteArray name = uniqueName("silent");
    ScriptedServer server(name);
    QVERIFY(server.ok);
    server.run([](ScriptedServer &s) {
        s.readRequest();
        s.waitClientClose(); // never answers
    });
    zrui_conn *h = nullptr;
    QCOMPARE(zrui_open(name.constData(), &h), int(ZRUI_OK));
    QCOMPARE(zrui_set_timeout(h, 150), int(ZRUI_OK));
    QElapsedTimer timer;
    timer.start();
    QCOMPARE(zrui_message_box(h, 0, "t", "x"), int(ZRUI_E_TIMEOUT));
    QVERIFY(timer.elapsed() >= 100);
    QCOMPARE(zrui_end_session(h), int(ZRUI_E_IO));
    zrui_close(h);
}

void TestClientTransport::testResponseCodes()
{
    const QByteArray name = uniqueName("codes");
    ScriptedServer server(name);
    QVERIFY(server.ok);
    server.run([](ScriptedServer &s) {
        for (quint32 code : {1u, 3u, 4u, 5u, 2u, 0u}) {
            s.readRequest();
            s.write(header(code, 0));
        }
    });
    zrui_conn *h = nullptr;
    QCOMPARE(zrui_open(name.constData(), &h), int(ZRUI_OK));
    QCOMPARE(zrui_set_timeout(h, 5000), int(ZRUI_OK));
    QCOMPARE(zrui_pin_retry(h, 1), int(ZRUI_E_CANCEL));
    QCOMPARE(zrui_pin_show(h, 1), int(ZRUI_E_STATE));
    QCOMPARE(zrui_pin_retry(h, 1), int(ZRUI_E_NORESULT));
    QCOMPARE(zrui_pin_finish(h), int(ZRUI_E_TOKEN));
    QCOMPARE(zrui_waiting_finish(h), int(ZRUI_E_PROTO));
    // An OK list answer without its 4 bytes is malformed.
    int32_t index = 0;
    QCOMPARE(zrui_list_get_sel(h, &index), int(ZRUI_E_PROTO));
    zrui_close(h);
}

void TestClientTransport::testPinWaitPollsUntilAnswer()
{
    const QByteArray name = uniqueName("wait");
    ScriptedServer server(name);
    QVERIFY(server.ok);
    const QByteArray result = u32(2) + "ab" + u32(3) + "cde";
    server.run([&](ScriptedServer &s) {
        for (int i = 0; i < 2; ++i) {
            s.readRequest();
            ++s.requests;
            s.write(header(UI_NO_RESULT, 0));
        }
        s.readRequest();
        ++s.requests;
        s.write(header(0, quint32(result.size())) + result);
    });
    zrui_conn *h = nullptr;
    QCOMPARE(zrui_open(name.constData(), &h), int(ZRUI_OK));
    QCOMPARE(zrui_set_timeout(h, 5000), int(ZRUI_OK));
    zrui_pin_result pin;
    QCOMPARE(zrui_pin_wait(h, 10000, 1, &pin), int(ZRUI_OK));
    QCOMPARE(QByteArray(pin.oldPin), QByteArray("ab"));
    QCOMPARE(QByteArray(pin.newPin), QByteArray("cde"));
    zrui_close(h);
    server.finish();
    QCOMPARE(server.requests.load(), 3);
    QCOMPARE(server.received.toHex(), QByteArray("0400000000000000").repeated(3));
}

void TestClientTransport::testListWait()
{
    const QByteArray name = uniqueName("list");
    ScriptedServer server(name);
    QVERIFY(server.ok);
    server.run([](ScriptedServer &s) {
        s.readRequest();
        s.write(header(UI_NO_RESULT, 0));
        s.readRequest();
        s.write(header(UI_USER_CANCEL, 0));
    });
    zrui_conn *h = nullptr;
    QCOMPARE(zrui_open(name.constData(), &h), int(ZRUI_OK));
    QCOMPARE(zrui_set_timeout(h, 5000), int(ZRUI_OK));
    int32_t index = 42;
    QCOMPARE(zrui_list_wait(h, 10000, 1, &index), int(ZRUI_E_CANCEL));
    QCOMPARE(index, 42);
    zrui_close(h);
}

QTEST_APPLESS_MAIN(TestClientTransport)
#include "TestClientTransport.moc"
