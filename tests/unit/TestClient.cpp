// The client library: layouts and parsing, and its framing against a scripted server on a real
// abstract socket (bytes on the wire, responses in pieces, a server that closes, stays silent
// or sends what does not fit).
#include "client/zrui_client.h"

#include <QElapsedTimer>
#include <QtTest>

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

QByteArray uniqueName()
{
    static int counter = 0;
    return "zrclt" + QByteArray::number(getpid()) + '_' + QByteArray::number(++counter);
}

// Listens on "<name><uid>", runs a script on one accepted client in a thread; every wait of
// the script has a 5 s deadline, so a broken client cannot hang the test.
struct ScriptedServer
{
    ScriptedServer()
    {
        const QByteArray full = name + QByteArray::number(getuid());
        sockaddr_un addr = {AF_UNIX, {}};
        memcpy(addr.sun_path + 1, full.constData(), size_t(full.size()));
        listenFd = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
        const socklen_t len = socklen_t(offsetof(sockaddr_un, sun_path) + 1 + size_t(full.size()));
        ok = bind(listenFd, reinterpret_cast<sockaddr *>(&addr), len) == 0
             && listen(listenFd, 1) == 0;
    }
    ~ScriptedServer()
    {
        finish();
        ::close(listenFd);
    }
    zrui_conn *run(std::function<void(ScriptedServer &)> script)
    {
        worker = std::thread([this, script] {
            pollfd p = {listenFd, POLLIN, 0};
            if (poll(&p, 1, 5000) != 1 || (fd = accept(listenFd, nullptr, nullptr)) < 0)
                return;
            const timeval limit = {5, 0};
            setsockopt(fd, SOL_SOCKET, SO_RCVTIMEO, &limit, sizeof limit);
            script(*this);
            ::close(fd);
        });
        if (zrui_open(name.constData(), &h) == ZRUI_OK)
            zrui_set_timeout(h, 5000);
        return h;
    }
    void finish()
    {
        zrui_close(h);
        h = nullptr;
        if (worker.joinable())
            worker.join();
    }
    QByteArray read(int n)
    {
        QByteArray out(n, '\0');
        out.truncate(int(qMax<ssize_t>(::recv(fd, out.data(), size_t(n), MSG_WAITALL), 0)));
        received += out;
        return out;
    }
    QByteArray readRequest()
    {
        QByteArray hdr = read(8);
        quint32 len = 0;
        if (hdr.size() == 8)
            memcpy(&len, hdr.constData() + 4, 4);
        return len ? hdr + read(int(len)) : hdr;
    }
    bool write(const QByteArray &b)
    {
        return ::send(fd, b.constData(), size_t(b.size()), MSG_NOSIGNAL) == b.size();
    }
    // Until the client has read all written so far, so the next write needs a new read.
    bool waitConsumed()
    {
        QElapsedTimer timer;
        timer.start();
        for (int queued = -1; timer.elapsed() < 5000; std::this_thread::yield())
            if (ioctl(fd, SIOCOUTQ, &queued) == 0 && queued == 0)
                return true;
        return false;
    }
    void waitClientClose()
    {
        char c;
        ::recv(fd, &c, 1, 0);
    }

    const QByteArray name = uniqueName();
    bool ok = false;
    QByteArray received; // by the script thread; read after finish()
    int listenFd = -1, fd = -1;
    zrui_conn *h = nullptr;
    std::thread worker;
};

} // namespace

class TestClient : public QObject
{
    Q_OBJECT
private slots:
    void testMessageBoxLayout_data();
    void testMessageBoxLayout();
    void testParsePinResult_data();
    void testParsePinResult();
    void testNamesAndArguments();
    void testRequestBytesOnWire();
    void testResponseReadInPieces();
    void testServerClosesEarly();
    void testOversizedResponses();
    void testTimeout();
    void testResponseCodes();
    void testWaitsPollUntilAnswer();
};

void TestClient::testMessageBoxLayout_data()
{
    QTest::addColumn<QByteArray>("title");
    QTest::addColumn<QByteArray>("text");
    QTest::addColumn<int>("cap");
    QTest::addColumn<QByteArray>("hex"); // after the type word 7; empty: refused
    const QByteArray longest(COMMPACK_MAX_DATA - 6, 'q');
    QTest::newRow("ascii") << QByteArray("ab") << QByteArray("xyz") << 64
                           << QByteArray("61620078797a00");
    QTest::newRow("empty title") << QByteArray("") << QByteArray("t") << 64 << QByteArray("007400");
    // The text starts after the title's UTF-16 length, as the server reads it.
    QTest::newRow("non-ascii text")
            << QByteArray("T") << QByteArray("中") << 64 << QByteArray("5400e4b8ad00");
    QTest::newRow("non-ascii title") << QByteArray("中") << QByteArray("x") << 64 << QByteArray();
    QTest::newRow("largest") << QByteArray() << longest << COMMPACK_MAX_DATA
                             << (QByteArray("00") + longest.toHex() + "00");
    QTest::newRow("one byte too long")
            << QByteArray() << (longest + 'q') << COMMPACK_MAX_DATA + 100 << QByteArray();
    QTest::newRow("buffer too small")
            << QByteArray("ab") << QByteArray("xyz") << 10 << QByteArray();
    QTest::newRow("buffer just fits")
            << QByteArray("ab") << QByteArray("xyz") << 11 << QByteArray("61620078797a00");
}

void TestClient::testMessageBoxLayout()
{
    QFETCH(QByteArray, title);
    QFETCH(QByteArray, text);
    QFETCH(int, cap);
    QFETCH(QByteArray, hex);
    QByteArray buf(cap + 16, '\x5a');
    uint32_t len = 0xdead;
    QCOMPARE(zrui_build_message_box(7, title.constData(), text.constData(),
                                    reinterpret_cast<unsigned char *>(buf.data()), size_t(cap),
                                    &len),
             int(hex.isEmpty() ? ZRUI_E_INVAL : ZRUI_OK));
    const QByteArray wanted = "07000000" + hex;
    if (hex.isEmpty())
        QCOMPARE(len, 0xdeadu);
    else // nothing written past the layout
        QCOMPARE(buf.toHex(), wanted + QByteArray(buf.size() - int(len), '\x5a').toHex());
    QVERIFY(hex.isEmpty() || int(len) == wanted.size() / 2);
    const QByteArray mixed("a\xF0\x9F\x98\x80"
                           "b中é");
    QCOMPARE(int(zrui_utf16_length(mixed.constData())), QString::fromUtf8(mixed).length());
}

void TestClient::testParsePinResult_data()
{
    QTest::addColumn<QByteArray>("buffer");
    QTest::addColumn<QByteArray>("oldPin"); // null: refused as ZRUI_E_PROTO
    QTest::addColumn<QByteArray>("newPin");
    const QByteArray cap(ZRUI_PIN_CAP, '7'), none;
    QTest::newRow("verify") << (u32(6) + "123456" + u32(0)) << QByteArray("123456") << none;
    QTest::newRow("set") << (u32(0) + u32(8) + "abcdefgh") << QByteArray("")
                         << QByteArray("abcdefgh");
    QTest::newRow("change") << (u32(4) + "1111" + u32(6) + "Ab3$%x") << QByteArray("1111")
                            << QByteArray("Ab3$%x");
    QTest::newRow("at capacity") << (u32(ZRUI_PIN_CAP) + cap + u32(0)) << cap << none;
    QTest::newRow("above capacity") << (u32(ZRUI_PIN_CAP + 1) + cap + "7" + u32(0)) << none << none;
    QTest::newRow("short length word") << QByteArray(3, '\0') << none << none;
    QTest::newRow("old pin cut") << (u32(10) + "123") << none << none;
    QTest::newRow("new length missing") << (u32(3) + "abc") << none << none;
    QTest::newRow("new pin cut") << (u32(0) + u32(5) + "ab") << none << none;
    QTest::newRow("trailing byte") << (u32(1) + "1" + u32(1) + "2" + "x") << none << none;
    QTest::newRow("huge length") << (u32(0xFFFFFFFFu) + u32(0)) << none << none;
}

void TestClient::testParsePinResult()
{
    QFETCH(QByteArray, buffer);
    QFETCH(QByteArray, oldPin);
    QFETCH(QByteArray, newPin);
    zrui_pin_result r;
    memset(&r, 0x5a, sizeof r);
    QCOMPARE(zrui_parse_pin_result(reinterpret_cast<const unsigned char *>(buffer.constData()),
                                   size_t(buffer.size()), &r),
             int(oldPin.isNull() ? ZRUI_E_PROTO : ZRUI_OK));
    if (!oldPin.isNull()) {
        QCOMPARE(r.oldLen, quint32(oldPin.size()));
        QCOMPARE(QByteArray(r.oldPin), oldPin);
        QCOMPARE(r.newLen, quint32(newPin.size()));
        QCOMPARE(QByteArray(r.newPin), newPin);
        zrui_pin_result_wipe(&r);
    }
    // Wiped, and a refused buffer leaves nothing behind.
    QCOMPARE(QByteArray(reinterpret_cast<const char *>(&r), sizeof r), QByteArray(sizeof r, '\0'));
}

void TestClient::testNamesAndArguments()
{
    const QByteArray uid = QByteArray::number(getuid());
    char name[128];
    QCOMPARE(zrui_socket_name(nullptr, name, sizeof name), int(ZRUI_OK));
    QCOMPARE(QByteArray(name), "ZRUIServer" + uid);
    const size_t need = size_t(5 + uid.size() + 1);
    QCOMPARE(zrui_socket_name("Other", name, need), int(ZRUI_OK));
    QCOMPARE(QByteArray(name), "Other" + uid);
    QCOMPARE(zrui_socket_name("Other", name, need - 1), int(ZRUI_E_INVAL));

    zrui_conn *h = reinterpret_cast<zrui_conn *>(0x1);
    QCOMPARE(zrui_open(uniqueName().constData(), &h), int(ZRUI_E_NOSERVER));
    QVERIFY(h == nullptr);
    errno = 0;
    QVERIFY(zrui_connect(uniqueName().constData()) == nullptr);
    QCOMPARE(errno, ECONNREFUSED);
    QCOMPARE(zrui_open(QByteArray(120, 'n').constData(), &h), int(ZRUI_E_INVAL));

    uint32_t resp = 0;
    zrui_pin_result pin;
    int32_t index = 0;
    QCOMPARE(zrui_request(nullptr, 1, nullptr, 0, &resp, nullptr, 0, nullptr), int(ZRUI_E_INVAL));
    QCOMPARE(zrui_pin_wait(nullptr, 10, 1, &pin), int(ZRUI_E_INVAL));
    QCOMPARE(zrui_list_get_sel(nullptr, &index), int(ZRUI_E_INVAL));
    QCOMPARE(zrui_message_box(nullptr, 0, "a", "b"), int(ZRUI_E_INVAL));
    QCOMPARE(zrui_open(nullptr, nullptr), int(ZRUI_E_INVAL));
    QCOMPARE(zrui_fd(nullptr), -1);
    zrui_close(nullptr); // harmless
}

void TestClient::testRequestBytesOnWire()
{
    ScriptedServer server;
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

void TestClient::testResponseReadInPieces()
{
    ScriptedServer server;
    QVERIFY(server.ok);
    const QByteArray result = u32(6) + "246810" + u32(0);
    bool piecesOk = true; // read after finish()
    zrui_conn *h = server.run([&](ScriptedServer &s) {
        s.readRequest();
        const QByteArray r = header(0, quint32(result.size())) + result;
        for (const QByteArray &piece : {r.left(3), r.mid(3, 5), r.mid(8, 2), r.mid(10)})
            piecesOk = s.write(piece) && s.waitConsumed() && piecesOk;
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

void TestClient::testServerClosesEarly()
{
    for (const QByteArray &reply : {QByteArray(), header(0, 4).left(5)}) {
        ScriptedServer server;
        QVERIFY(server.ok);
        zrui_conn *h = server.run([reply](ScriptedServer &s) {
            s.readRequest();
            s.write(reply);
        });
        QVERIFY(h);
        int32_t index = 0;
        QCOMPARE(zrui_list_get_sel(h, &index), int(ZRUI_E_CLOSED));
    }
}

void TestClient::testOversizedResponses()
{
    ScriptedServer server;
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
    // Above the maximum: out of step from here on, refused without touching the socket.
    zrui_pin_result pin;
    QCOMPARE(zrui_pin_get(h, &pin), int(ZRUI_E_PROTO));
    QCOMPARE(zrui_end_session(h), int(ZRUI_E_IO));
}

void TestClient::testTimeout()
{
    ScriptedServer server;
    QVERIFY(server.ok);
    zrui_conn *h = server.run([](ScriptedServer &s) {
        s.readRequest();
        s.write(header(0, 0));
        s.readRequest();
        s.waitClientClose(); // never answers the second request
    });
    QVERIFY(h);
    QCOMPARE(zrui_set_timeout(h, 150), int(ZRUI_OK));
    QCOMPARE(zrui_begin_session(h, 1), int(ZRUI_OK));
    QElapsedTimer timer;
    timer.start();
    QCOMPARE(zrui_message_box(h, 0, "t", "x"), int(ZRUI_E_TIMEOUT));
    QVERIFY(timer.elapsed() >= 100);
    QCOMPARE(zrui_end_session(h), int(ZRUI_E_IO));
}

void TestClient::testResponseCodes()
{
    ScriptedServer server;
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
    int32_t index = 0; // an OK list answer without its 4 bytes is malformed
    QCOMPARE(zrui_list_get_sel(h, &index), int(ZRUI_E_PROTO));
}

void TestClient::testWaitsPollUntilAnswer()
{
    ScriptedServer server;
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

QTEST_APPLESS_MAIN(TestClient)
#include "TestClient.moc"
