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

// Listens on "<name><uid>" and answers the requests of one client with the given replies in
// turn, each in four pieces that need a read each in mode 'p'; then hangs up at once in mode
// 'h', else waits for the client to close. Every wait has a 5 s deadline.
struct ScriptedServer
{
    ScriptedServer()
    {
        const QByteArray full = name + QByteArray::number(getuid());
        sockaddr_un addr = {AF_UNIX, {}};
        memcpy(addr.sun_path + 1, full.constData(), size_t(full.size()));
        const socklen_t len = socklen_t(offsetof(sockaddr_un, sun_path) + 1 + size_t(full.size()));
        ok = bind(listenFd, reinterpret_cast<sockaddr *>(&addr), len) == 0
             && listen(listenFd, 1) == 0;
    }
    ~ScriptedServer()
    {
        finish();
        ::close(listenFd);
    }
    zrui_conn *run(const QList<QByteArray> &replies, char mode = 'n')
    {
        const bool pieces = mode == 'p';
        worker = std::thread([this, replies, pieces, mode] {
            pollfd p = {listenFd, POLLIN, 0};
            if (poll(&p, 1, 5000) != 1 || (fd = accept(listenFd, nullptr, nullptr)) < 0)
                return;
            const timeval limit = {5, 0};
            setsockopt(fd, SOL_SOCKET, SO_RCVTIMEO, &limit, sizeof limit);
            for (const QByteArray &r : replies) {
                const QByteArray hdr = read(8);
                if (hdr.size() == 8)
                    read(int(*reinterpret_cast<const quint32 *>(hdr.constData() + 4)));
                for (const QByteArray &piece :
                     pieces ? QList<QByteArray>{r.left(3), r.mid(3, 5), r.mid(8, 2), r.mid(10)}
                            : QList<QByteArray>{r})
                    piecesOk = write(piece) && (!pieces || waitConsumed()) && piecesOk;
            }
            char c;
            while (mode != 'h' && ::recv(fd, &c, 1, 0) > 0)
                received += c;
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
        out.truncate(int(qMax<ssize_t>(n ? ::recv(fd, out.data(), size_t(n), MSG_WAITALL) : 0, 0)));
        received += out;
        return out;
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

    const QByteArray name = uniqueName();
    int listenFd = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0), fd = -1;
    bool ok = false, piecesOk = true;
    QByteArray received; // by the script thread; read after finish()
    zrui_conn *h = nullptr;
    std::thread worker;
};

QString code(int rc) { return QString::number(rc); }

QString pinGet(zrui_conn *h, int waitMs = -1)
{
    zrui_pin_result pin;
    const int rc = waitMs < 0 ? zrui_pin_get(h, &pin) : zrui_pin_wait(h, waitMs, 1, &pin);
    const QString s
            = code(rc) + (rc == ZRUI_OK ? QString(" %1/%2").arg(pin.oldPin, pin.newPin) : "");
    zrui_pin_result_wipe(&pin);
    return s;
}

QString listSel(zrui_conn *h, int waitMs = -1)
{
    int32_t index = -5;
    const int rc = waitMs < 0 ? zrui_list_get_sel(h, &index) : zrui_list_wait(h, waitMs, 1, &index);
    return code(rc) + " " + QString::number(index);
}

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
    void testTransport();
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
    QCOMPARE(zrui_open(nullptr, nullptr), int(ZRUI_E_INVAL));
    QCOMPARE(zrui_fd(nullptr), -1);
    zrui_close(nullptr); // harmless

    // Refused arguments send nothing.
    ScriptedServer server;
    QVERIFY(server.ok && (h = server.run({header(0, 0)})));
    uint32_t resp = 0;
    zrui_pin_result pin;
    int32_t index = 0;
    QByteArray big(COMMPACK_MAX_DATA + 1, 'b');
    QCOMPARE(zrui_request(nullptr, 1, nullptr, 0, &resp, nullptr, 0, nullptr), int(ZRUI_E_INVAL));
    QCOMPARE(zrui_request(h, 1, nullptr, 0, nullptr, nullptr, 0, nullptr), int(ZRUI_E_INVAL));
    QCOMPARE(zrui_request(h, 1, nullptr, 4, &resp, nullptr, 0, nullptr), int(ZRUI_E_INVAL));
    QCOMPARE(zrui_request(h, 1, big.data(), uint32_t(big.size()), &resp, nullptr, 0, nullptr),
             int(ZRUI_E_INVAL));
    QCOMPARE(zrui_request(h, 1, nullptr, 0, &resp, nullptr, 4, nullptr), int(ZRUI_E_INVAL));
    QCOMPARE(zrui_pin_get(h, nullptr), int(ZRUI_E_INVAL));
    QCOMPARE(zrui_pin_wait(nullptr, 10, 1, &pin), int(ZRUI_E_INVAL));
    QCOMPARE(zrui_pin_wait(h, -1, 1, &pin), int(ZRUI_E_INVAL));
    QCOMPARE(zrui_list_get_sel(nullptr, &index), int(ZRUI_E_INVAL));
    QCOMPARE(zrui_list_get_sel(h, nullptr), int(ZRUI_E_INVAL));
    QCOMPARE(zrui_message_box(nullptr, 0, "a", "b"), int(ZRUI_E_INVAL));
    QCOMPARE(zrui_begin_session(h, 1), int(ZRUI_OK));
    server.finish();
    QCOMPARE(server.received.toHex(), QByteArray("010000000a00000000000100000000000000"));
}

// One connection per row: the replies the server sends in turn, the client's calls, their
// results, and the exact bytes the server received.
void TestClient::testTransport()
{
    const QByteArray ok = header(0, 0), none = header(UI_NO_RESULT, 0);
    const QByteArray pin = u32(6) + "246810" + u32(0), pin2 = u32(2) + "ab" + u32(3) + "cde";
    const struct
    {
        const char *name;
        QList<QByteArray> replies;
        std::function<QStringList(zrui_conn *)> calls;
        QStringList results;
        QByteArray sent;
        char mode;
    } rows[] = {
            {"request layouts",
             {ok, ok, ok, ok, ok, ok},
             [](zrui_conn *h) {
                 return QStringList{code(zrui_begin_session(h, 0x8877665544332211ULL)),
                                    code(zrui_pin_show(h, 3)),
                                    code(zrui_pin_retry(h, 0xFFFFFFFFu)),
                                    code(zrui_waiting_show(h, 2, "press|5")),
                                    code(zrui_list_show(h, 1, nullptr)),
                                    code(zrui_message_box(h, 4, "Hi", "there"))};
             },
             {"0", "0", "0", "0", "0", "0"},
             QByteArray::fromHex("010000000a00000000001122334455667788"
                                 "030000000400000003000000"
                                 "0500000004000000ffffffff"
                                 "070000000c0000000200000070726573737c3500"
                                 "0a000000050000000100000000"
                                 "0e0000000d00000004000000486900746865726500"),
             'n'},
            {"response in pieces, one read each",
             {header(0, quint32(pin.size())) + pin},
             [](zrui_conn *h) { return QStringList{pinGet(h)}; },
             {"0 246810/"},
             header(REQ_PIN_GetPIN, 0),
             'p'},
            {"closed before the response",
             {""},
             [](zrui_conn *h) { return QStringList{listSel(h)}; },
             {code(ZRUI_E_CLOSED) + " -5"},
             header(REQ_List_GetSel, 0),
             'h'},
            {"closed mid header",
             {header(0, 4).left(5)},
             [](zrui_conn *h) { return QStringList{listSel(h)}; },
             {code(ZRUI_E_CLOSED) + " -5"},
             header(REQ_List_GetSel, 0),
             'h'},
            // Data larger than expected is drained; above the maximum the stream is out of
            // step, so later requests are refused without touching the socket.
            {"oversized responses",
             {header(0, 8) + QByteArray(8, 'x'), header(0, 4) + u32(9),
              header(0, COMMPACK_MAX_DATA + 1)},
             [](zrui_conn *h) {
                 return QStringList{listSel(h), listSel(h), pinGet(h), code(zrui_end_session(h))};
             },
             {code(ZRUI_E_PROTO) + " -5", "0 9", code(ZRUI_E_PROTO), code(ZRUI_E_IO)},
             header(REQ_List_GetSel, 0).repeated(2) + header(REQ_PIN_GetPIN, 0),
             'n'},
            // An unanswered first request means "busy"; after an answer it is a time-out.
            {"silent server",
             {ok},
             [](zrui_conn *h) {
                 zrui_set_timeout(h, 150);
                 QElapsedTimer timer;
                 timer.start();
                 const QStringList r{code(zrui_begin_session(h, 1)),
                                     code(zrui_message_box(h, 0, "t", "x")),
                                     code(zrui_end_session(h))};
                 return r + QStringList{timer.elapsed() >= 100 ? "waited" : "did not wait"};
             },
             {"0", code(ZRUI_E_TIMEOUT), code(ZRUI_E_IO), "waited"},
             QByteArray::fromHex("010000000a000000000001000000000000000e00000008000000000000007400"
                                 "7800"),
             'n'},
            {"response codes",
             {header(1, 0), header(3, 0), header(4, 0), header(5, 0), header(2, 0), ok},
             [](zrui_conn *h) {
                 return QStringList{code(zrui_pin_retry(h, 1)),   code(zrui_pin_show(h, 1)),
                                    code(zrui_pin_retry(h, 1)),   code(zrui_pin_finish(h)),
                                    code(zrui_waiting_finish(h)), listSel(h)};
             },
             {code(ZRUI_E_CANCEL), code(ZRUI_E_STATE), code(ZRUI_E_NORESULT), code(ZRUI_E_TOKEN),
              code(ZRUI_E_PROTO), code(ZRUI_E_PROTO) + " -5"},
             QByteArray(),
             'n'},
            {"waits poll until an answer",
             {none, none, header(0, quint32(pin2.size())) + pin2, none, header(UI_USER_CANCEL, 0)},
             [](zrui_conn *h) {
                 return QStringList{pinGet(h, 10000), listSel(h, 10000)};
             },
             {"0 ab/cde", code(ZRUI_E_CANCEL) + " -5"},
             header(REQ_PIN_GetPIN, 0).repeated(3) + header(REQ_List_GetSel, 0).repeated(2),
             'n'},
    };
    for (const auto &r : rows) {
        ScriptedServer server;
        zrui_conn *h = server.ok ? server.run(r.replies, r.mode) : nullptr;
        QVERIFY2(h, r.name);
        const QStringList results = r.calls(h);
        server.finish();
        QVERIFY2(server.piecesOk, r.name);
        QCOMPARE(results, r.results);
        QVERIFY2(r.sent.isEmpty() || server.received == r.sent, r.name);
    }
}

QTEST_APPLESS_MAIN(TestClient)
#include "TestClient.moc"
