// The client library against a scripted server on a real abstract socket: request bytes, and
// responses in pieces, silent, malformed, too large, or from a busy server.
#include "client/zrui_client.h"

#include <QtTest>

#include <thread>

#include <linux/sockios.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

namespace {
QByteArray u32(quint32 v) { return QByteArray(reinterpret_cast<const char *>(&v), 4); }
QByteArray header(quint32 code, quint32 datalen) { return u32(code) + u32(datalen); }
const QByteArray text(COMMPACK_MAX_DATA - 8, 't'), info(COMMPACK_MAX_DATA - 5, 'i');
QString rc(int code) { return QString(zrui_strerror(code)).section(':', 0, 0) + ' '; }

// Listens on "<name><uid>"; serving (else busy: it never accepts), sends one client the replies in
// 3-byte pieces, each read before the next, and records what the client sends.
struct Server
{
    Server(const QByteArray &replies = {}, bool serve = false)
    {
        static int counter = 0;
        name = "zrclt" + QByteArray::number(getpid()) + '_' + QByteArray::number(++counter);
        const QByteArray full = name + QByteArray::number(getuid());
        sockaddr_un addr = {AF_UNIX, {}};
        memcpy(addr.sun_path + 1, full.constData(), size_t(full.size()));
        const socklen_t len = socklen_t(offsetof(sockaddr_un, sun_path) + 1 + size_t(full.size()));
        if (bind(listenFd, reinterpret_cast<sockaddr *>(&addr), len) || listen(listenFd, 1)
            || !serve)
            return;
        worker = std::thread([this, replies] {
            if ((fd = accept(listenFd, nullptr, nullptr)) < 0)
                return;
            QElapsedTimer timer;
            timer.start();
            for (int at = 0, queued = 0; at < replies.size(); at += 3) {
                while ((ioctl(fd, SIOCOUTQ, &queued) || queued) && timer.elapsed() < 5000)
                    std::this_thread::yield();
                ::send(fd, replies.constData() + at, size_t(qMin(3, replies.size() - at)),
                       MSG_NOSIGNAL);
            }
            for (char c; ::recv(fd, &c, 1, 0) > 0;)
                got += c;
            ::close(fd);
        });
        if (zrui_open(name.constData(), &h) == ZRUI_OK)
            zrui_set_timeout(h, 5000);
        else
            ::shutdown(listenFd, SHUT_RDWR); // ends the accept
    }
    ~Server() { finish(); }
    void finish()
    {
        zrui_close(std::exchange(h, nullptr));
        if (worker.joinable())
            worker.join();
        ::close(std::exchange(listenFd, -1));
    }

    QByteArray name, got; // got: by the serving thread; read after finish()
    int listenFd = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0), fd = -1;
    zrui_conn *h = nullptr;
    std::thread worker;
};

QString pinGet(zrui_conn *h, int waitMs = -1)
{
    zrui_pin_result p;
    const int r = waitMs < 0 ? zrui_pin_get(h, &p) : zrui_pin_wait(h, waitMs, 1, &p);
    const QString s = rc(r) + (r ? "" : QString("%1/%2 ").arg(p.oldPin, p.newPin));
    zrui_pin_result_wipe(&p);
    return s;
}

QString listSel(zrui_conn *h, int waitMs = -1)
{
    int32_t index = -5;
    const int r = waitMs < 0 ? zrui_list_get_sel(h, &index) : zrui_list_wait(h, waitMs, 1, &index);
    return rc(r) + QString::number(index) + ' ';
}
} // namespace

class TestClient : public QObject
{
    Q_OBJECT
private slots:
    void testOpen()
    {
        // 106 bytes is the longest abstract name the server can bind.
        const int uidSize = QByteArray::number(getuid()).size();
        zrui_conn *h = reinterpret_cast<zrui_conn *>(0x1);
        QCOMPARE(zrui_open(QByteArray(106 - uidSize, 'n').constData(), &h), int(ZRUI_E_NOSERVER));
        QVERIFY(!h && zrui_open(QByteArray(107 - uidSize, 'n').constData(), &h) == ZRUI_E_INVAL);
        QCOMPARE(zrui_open(nullptr, nullptr), int(ZRUI_E_INVAL));
        // A server whose backlog is full is busy; one that listens under another uid gets no byte.
        Server server;
        QVERIFY(listen(server.listenFd, 0) == 0);
        QCOMPARE(zrui_open(server.name.constData(), &h), int(ZRUI_OK));
        QCOMPARE(zrui_open_timeout(server.name.constData(), 100, &server.h), int(ZRUI_E_BUSY));
        zrui_close(h);
        ::close(accept(server.listenFd, nullptr, nullptr));
        if (geteuid() != 0)
            QSKIP("the listener under uid 65534 needs root");
        QVERIFY(seteuid(65534) == 0);
        const int listening = listen(server.listenFd, 1);
        QVERIFY(seteuid(0) == 0 && listening == 0);
        QCOMPARE(zrui_open(server.name.constData(), &h), int(ZRUI_E_PEER));
        const int fd = accept(server.listenFd, nullptr, nullptr);
        char c;
        QCOMPARE(::recv(fd, &c, 1, 0), ssize_t(0));
        ::close(fd);
    }

    // The largest message box and waiting text fill a packet exactly; what does not fit, or a
    // title the server would misread, is never sent. A wait asks until an answer; with no time
    // left it still asks once. Data larger than asked for is drained, a PIN result whose lengths
    // do not add up or exceed 256 refused; above the maximum the stream is out of step: later
    // requests fail without a byte sent.
    void testTransport()
    {
        const QByteArray none = header(UI_NO_RESULT, 0);
        Server server(header(0, 0).repeated(6) + header(0, 14) + u32(6) + "246810" + u32(0) + none
                              + none + header(0, 13) + u32(2) + "ab" + u32(3) + "cde" + none
                              + header(UI_USER_CANCEL, 0) + none + header(0, 8) + QByteArray(8, 'x')
                              + header(0, 4) + u32(9) + header(0, 11) + u32(1) + "1" + u32(1) + "2x"
                              + header(0, 8) + u32(300) + u32(0) + header(0, COMMPACK_MAX_DATA + 1),
                      true);
        zrui_conn *h = server.h;
        QVERIFY(h);
        const QStringList results = QStringList()
                                    << rc(zrui_begin_session(h, 0x8877665544332211ULL))
                                    << rc(zrui_pin_retry(h, 0xFFFFFFFFu))
                                    << rc(zrui_list_show(h, 1, nullptr))
                                    << rc(zrui_message_box(h, 0, "T", "中"))
                                    << rc(zrui_message_box(h, 4, "Hi", text.constData()))
                                    << rc(zrui_waiting_show(h, 2, info.constData()))
                                    << rc(zrui_waiting_show(h, 2, (info + "i").constData()))
                                    << rc(zrui_message_box(h, 4, "", (text + "ttt").data()))
                                    << rc(zrui_message_box(h, 0, "中", "x")) << pinGet(h)
                                    << pinGet(h, 10000) << listSel(h, 10000) << listSel(h, 0)
                                    << listSel(h) << listSel(h) << pinGet(h) << pinGet(h)
                                    << pinGet(h) << rc(zrui_end_session(h));
        server.finish();
        QCOMPARE(results.join(""),
                 QString("ZRUI_OK ").repeated(6) + QString("ZRUI_E_INVAL ").repeated(3)
                         + "ZRUI_OK 246810/ ZRUI_OK ab/cde ZRUI_E_CANCEL -5 ZRUI_E_TIMEOUT -5 "
                         + "ZRUI_E_PROTO -5 ZRUI_OK 9 ZRUI_E_PROTO ZRUI_E_PROTO ZRUI_E_PROTO "
                           "ZRUI_E_IO ");
        QCOMPARE(server.got.toHex(),
                 (QByteArray::fromHex("010000000a00000000001122334455667788"
                                      "0500000004000000ffffffff0a000000050000000100000000"
                                      "0e0000000a000000000000005400e4b8ad00")
                  + header(REQ_MessageBox, COMMPACK_MAX_DATA) + u32(4) + "Hi" + '\0' + text + '\0'
                  + header(REQ_Waiting_Show, COMMPACK_MAX_DATA) + u32(2) + info + '\0'
                  + header(REQ_PIN_GetPIN, 0).repeated(4) + header(REQ_List_GetSel, 0).repeated(5)
                  + header(REQ_PIN_GetPIN, 0).repeated(3))
                         .toHex());
    }

    // Token gone, an unknown code; once answered, silence is a time-out that leaves the stream
    // out of step.
    void testTimeout()
    {
        Server server(header(UI_TOKEN_NOT_PRESENT, 0) + header(2, 0), true);
        QVERIFY(server.h);
        QStringList results{rc(zrui_pin_finish(server.h)), rc(zrui_waiting_finish(server.h))};
        zrui_set_timeout(server.h, 150);
        results << rc(zrui_pin_show(server.h, 3)) << rc(zrui_end_session(server.h));
        server.finish();
        QCOMPARE(results.join(""), QString("ZRUI_E_TOKEN ZRUI_E_PROTO ZRUI_E_TIMEOUT ZRUI_E_IO "));
        QCOMPARE(server.got.toHex(), (header(REQ_PIN_Finish, 0) + header(REQ_Waiting_Finish, 0)
                                      + header(REQ_PIN_Show, 4) + u32(3))
                                             .toHex());
    }
};

QTEST_APPLESS_MAIN(TestClient)
#include "TestClient.moc"
