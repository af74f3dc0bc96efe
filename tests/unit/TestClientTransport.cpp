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
#include <sys/time.h>
#include <sys/un.h>
#include <unistd.h>

namespace {

QByteArray u32(quint32 v) { return QByteArray(reinterpret_cast<const char *>(&v), 4); }

QByteArray header(quint32 code, quint32 datalen) { return u32(code) + u32(datalen); }

QByteArray uniqueName(const char *tag)
{
    static int counter = 0;
    return QByteArray("zrclt") + QByteArray::number(getpid()) + '_' + QByteArray::number(++counter)
           + '_' + tag;
}

/**
 * One scripted connection: listens on "<name><uid>", accepts one client in
 * a thread of its own and runs the script on it. Every wait of the script
 * has a deadline, so a broken client cannot hang the test.
 */
class ScriptedServer
{
public:
    explicit ScriptedServer(const char *tag)
        : name(uniqueName(tag))
    {
        const QByteArray full = name + QByteArray::number(getuid());
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

    // Runs the script on the next client and connects one (time-out 5 s).
    zrui_conn *run(std::function<void(ScriptedServer &)> script)
    {
        worker = std::thread([this, script] {
            pollfd p = {listenFd, POLLIN, 0};
            if (poll(&p, 1, 5000) != 1 || (fd = accept(listenFd, nullptr, nullptr)) < 0)
                return;
            const timeval limit = {5, 0}; // bounds every read of the script
            setsockopt(fd, SOL_SOCKET, SO_RCVTIMEO, &limit, sizeof limit);
            script(*this);
            ::close(fd);
        });
        if (zrui_open(name.constData(), &h) == ZRUI_OK)
            zrui_set_timeout(h, 5000);
        return h;
    }
    // Closes the client and waits for the script to end.
    void finish()
    {
        zrui_close(h);
        h = nullptr;
        if (worker.joinable())
            worker.join();
    }

    // Reads exactly n bytes (fewer when the peer closes or time runs out).
    QByteArray readExactly(int n)
    {
        QByteArray out(n, '\0');
        const ssize_t got = n > 0 ? ::recv(fd, out.data(), size_t(n), MSG_WAITALL) : 0;
        out.truncate(int(qMax<ssize_t>(got, 0)));
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
    bool waitConsumed()
    {
        QElapsedTimer timer;
        timer.start();
        while (timer.elapsed() < 5000) {
            int queued = -1;
            if (ioctl(fd, SIOCOUTQ, &queued) == 0 && queued == 0)
                return true;
            std::this_thread::yield();
        }
        return false;
    }
    // Waits until the client closes (read gives 0).
    bool waitClientClose()
    {
        char c;
        return ::recv(fd, &c, 1, 0) == 0;
    }

    const QByteArray name;
    bool ok = false;
    QByteArray received; // written by the script thread; read after finish()

private:
    int listenFd = -1;
    int fd = -1;
    zrui_conn *h = nullptr;
    std::thread worker;
};

} // namespace

class TestClientTransport : public QObject
{
    Q_OBJECT

private slots:
    void testNoServer();
    void testRequestBytesOnWire();
    void testResponseReadInPieces();
    void testServerClosesEarly_data();
    void testServerClosesEarly();
    void testOversizedResponses();
    void testTimeout();
    void testResponseCodes();
    void testWaitsPollUntilAnswer();
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
    ScriptedServer server("wire");
    QVERIFY(server.ok);
    zrui_conn *h = server.run([](ScriptedServer &s) {
        while (!s.readRequest().isEmpty())
            s.write(header(0, 0));
    });
    QVERIFY(h);
    QCOMPARE(zrui_begin_session(h, 0x8877665544332211ULL), int(ZRUI_OK));
    QCOMPARE(zrui_pin_show(h, 3), int(ZRUI_OK));
    QCOMPARE(zrui_pin_retry(h, 0xFFFFFFFFu), int(ZRUI_OK));
    QCOMPARE(zrui_waiting_show(h, 2, "press|5"), int(ZRUI_OK));
    QCOMPARE(zrui_list_show(h, 1, nullptr), int(ZRUI_OK));
    QCOMPARE(zrui_message_box(h, 4, "Hi", "there"), int(ZRUI_OK));
    server.finish();
    QCOMPARE(server.received.toHex(), QByteArray("010000000a00000000001122334455667788"
                                                 "030000000400000003000000"
                                                 "0500000004000000ffffffff"
                                                 "070000000c0000000200000070726573737c3500"
                                                 "0a000000050000000100000000"
                                                 "0e0000000d00000004000000486900746865726500"));
}

void TestClientTransport::testResponseReadInPieces()
{
    ScriptedServer server("pieces");
    QVERIFY(server.ok);
    const QByteArray result = u32(6) + "246810" + u32(0);
    std::atomic<bool> piecesOk{true};
    zrui_conn *h = server.run([&](ScriptedServer &s) {
        s.readRequest();
        const QByteArray response = header(0, quint32(result.size())) + result;
        // Each piece is consumed by a read of its own.
        for (const QByteArray &piece :
             {response.left(3), response.mid(3, 5), response.mid(8, 2), response.mid(10)}) {
            if (!s.write(piece) || !s.waitConsumed())
                piecesOk = false;
        }
    });
    QVERIFY(h);
    zrui_pin_result pin;
    QCOMPARE(zrui_pin_get(h, &pin), int(ZRUI_OK));
    QCOMPARE(QByteArray(pin.oldPin), QByteArray("246810"));
    QCOMPARE(pin.newLen, 0u);
    zrui_pin_result_wipe(&pin);
    server.finish();
    QVERIFY(piecesOk);
    QCOMPARE(server.received.toHex(), header(REQ_PIN_GetPIN, 0).toHex());
}

void TestClientTransport::testServerClosesEarly_data()
{
    QTest::addColumn<QByteArray>("reply"); // written before the server closes
    QTest::newRow("no response") << QByteArray();
    QTest::newRow("mid header") << header(0, 4).left(5);
}

void TestClientTransport::testServerClosesEarly()
{
    QFETCH(QByteArray, reply);
    ScriptedServer server("close");
    QVERIFY(server.ok);
    zrui_conn *h = server.run([reply](ScriptedServer &s) {
        s.readRequest();
        s.write(reply);
    });
    QVERIFY(h);
    int32_t index = 0;
    QCOMPARE(zrui_list_get_sel(h, &index), int(ZRUI_E_CLOSED));
}

void TestClientTransport::testOversizedResponses()
{
    ScriptedServer server("big");
    QVERIFY(server.ok);
    zrui_conn *h = server.run([](ScriptedServer &s) {
        s.readRequest();
        s.write(header(0, 8) + QByteArray::fromHex("0102030405060708"));
        s.readRequest();
        s.write(header(0, 4) + u32(9));
        s.readRequest();
        s.write(header(0, COMMPACK_MAX_DATA + 1));
        s.waitClientClose();
    });
    QVERIFY(h);
    int32_t index = -5;
    QCOMPARE(zrui_list_get_sel(h, &index), int(ZRUI_E_PROTO));
    QCOMPARE(index, -5);
    // The oversized data was drained: the next response is read correctly.
    QCOMPARE(zrui_list_get_sel(h, &index), int(ZRUI_OK));
    QCOMPARE(index, 9);
    // Datalen above the maximum: out of step from here on, so refused
    // without touching the socket.
    zrui_pin_result pin;
    QCOMPARE(zrui_pin_get(h, &pin), int(ZRUI_E_PROTO));
    QCOMPARE(zrui_end_session(h), int(ZRUI_E_IO));
}

void TestClientTransport::testTimeout()
{
    ScriptedServer server("silent");
    QVERIFY(server.ok);
    zrui_conn *h = server.run([](ScriptedServer &s) {
        s.readRequest();
        s.write(header(0, 0));
        s.readRequest();
        s.waitClientClose(); // never answers the second request
    });
    QVERIFY(h);
    QCOMPARE(zrui_set_timeout(h, 150), int(ZRUI_OK));
    // An unanswered first request means "busy"; after an answer it is a time-out.
    QCOMPARE(zrui_begin_session(h, 1), int(ZRUI_OK));
    QElapsedTimer timer;
    timer.start();
    QCOMPARE(zrui_message_box(h, 0, "t", "x"), int(ZRUI_E_TIMEOUT));
    QVERIFY(timer.elapsed() >= 100);
    QCOMPARE(zrui_end_session(h), int(ZRUI_E_IO));
}

void TestClientTransport::testResponseCodes()
{
    ScriptedServer server("codes");
    QVERIFY(server.ok);
    zrui_conn *h = server.run([](ScriptedServer &s) {
        for (quint32 code : {1u, 3u, 4u, 5u, 2u, 0u}) {
            s.readRequest();
            s.write(header(code, 0));
        }
    });
    QVERIFY(h);
    QCOMPARE(zrui_pin_retry(h, 1), int(ZRUI_E_CANCEL));
    QCOMPARE(zrui_pin_show(h, 1), int(ZRUI_E_STATE));
    QCOMPARE(zrui_pin_retry(h, 1), int(ZRUI_E_NORESULT));
    QCOMPARE(zrui_pin_finish(h), int(ZRUI_E_TOKEN));
    QCOMPARE(zrui_waiting_finish(h), int(ZRUI_E_PROTO));
    // An OK list answer without its 4 bytes is malformed.
    int32_t index = 0;
    QCOMPARE(zrui_list_get_sel(h, &index), int(ZRUI_E_PROTO));
}

void TestClientTransport::testWaitsPollUntilAnswer()
{
    ScriptedServer server("wait");
    QVERIFY(server.ok);
    const QByteArray result = u32(2) + "ab" + u32(3) + "cde";
    zrui_conn *h = server.run([&](ScriptedServer &s) {
        for (const QByteArray &reply : {header(UI_NO_RESULT, 0), header(UI_NO_RESULT, 0),
                                        header(0, quint32(result.size())) + result,
                                        header(UI_NO_RESULT, 0), header(UI_USER_CANCEL, 0)}) {
            s.readRequest();
            s.write(reply);
        }
    });
    QVERIFY(h);
    zrui_pin_result pin;
    QCOMPARE(zrui_pin_wait(h, 10000, 1, &pin), int(ZRUI_OK));
    QCOMPARE(QByteArray(pin.oldPin), QByteArray("ab"));
    QCOMPARE(QByteArray(pin.newPin), QByteArray("cde"));
    int32_t index = 42;
    QCOMPARE(zrui_list_wait(h, 10000, 1, &index), int(ZRUI_E_CANCEL));
    QCOMPARE(index, 42);
    server.finish();
    QCOMPARE(server.received.toHex(), QByteArray("0400000000000000").repeated(3)
                                              + QByteArray("0b00000000000000").repeated(2));
}

QTEST_APPLESS_MAIN(TestClientTransport)
#include "TestClientTransport.moc"
