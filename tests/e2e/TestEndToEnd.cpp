// The whole road in a real X server: the real executable on the stand-in
// token stack, the client library on the socket, and xdotool acting as the
// person in front of the dialogs.
#include "XDoTool.h"

#include "ServerLauncher.h"
#include "client/zrui_client.h"

#include <QElapsedTimer>
#include <QThread>
#include <QtTest>

#include <atomic>
#include <thread>

class TestEndToEnd : public QObject
{
    Q_OBJECT

private slots:
    void initTestCase();
    void init();
    void cleanup();
    void cleanupTestCase();

    void testVerifyPinTypedByPerson();
    void testRetryAnsweredWithKeyboard();
    void testChooseThirdContainer();
    void testWaitingWindowAppearsAndDisappears();

private:
    // Polls REQ_PIN_GetPIN until the answer is no longer "no result".
    QByteArray waitForPinBytes(uint32_t *resp, int timeoutMs = 20000);
    bool typePin(const QString &title, const QString &pin);

    ServerLauncher server;
    zrui_conn *conn = nullptr;
};

void TestEndToEnd::initTestCase()
{
    if (!XDoTool::available())
        QSKIP("needs xdotool and an X display (run under xvfb-run)");
    server.setPlatform(QString()); // the X server of xvfb-run
    QVERIFY2(server.start(), qPrintable(server.errorString()));
    QVERIFY2(server.waitForListening(), server.output().constData());
}

void TestEndToEnd::init()
{
    QCOMPARE(zrui_open(server.appName().toUtf8().constData(), &conn), int(ZRUI_OK));
    QCOMPARE(zrui_begin_session(conn, 0), int(ZRUI_OK));
}

void TestEndToEnd::cleanup()
{
    if (conn)
        zrui_close(conn);
    conn = nullptr;
    // Closing the connection hides the PIN and waiting windows.
    QVERIFY(XDoTool::waitForNoWindow(QStringLiteral("Verify USBKey password")));
}

void TestEndToEnd::cleanupTestCase() { server.stop(); }

QByteArray TestEndToEnd::waitForPinBytes(uint32_t *resp, int timeoutMs)
{
    QByteArray reply(COMMPACK_MAX_DATA, '\0');
    QElapsedTimer t;
    t.start();
    while (t.elapsed() < timeoutMs) {
        uint32_t len = 0;
        if (zrui_request(conn, REQ_PIN_GetPIN, nullptr, 0, resp, reply.data(),
                         uint32_t(reply.size()), &len)
            != ZRUI_OK)
            return QByteArray("request failed");
        if (*resp != UI_NO_RESULT)
            return reply.left(int(len));
        QThread::msleep(50);
    }
    return QByteArray("timed out");
}

bool TestEndToEnd::typePin(const QString &title, const QString &pin)
{
    const QString window = XDoTool::waitForWindow(title);
    if (window.isEmpty())
        return false;
    return XDoTool::focus(window) && XDoTool::type(pin) && XDoTool::key(QStringLiteral("Return"));
}

void TestEndToEnd::testVerifyPinTypedByPerson()
{
    QCOMPARE(zrui_pin_show(conn, 0), int(ZRUI_OK));
    QVERIFY(typePin(QStringLiteral("Verify USBKey password"), QStringLiteral("aaaaaa")));
    uint32_t resp = 0xFF;
    const QByteArray bytes = waitForPinBytes(&resp);
    QCOMPARE(resp, uint32_t(UI_OK));
    QCOMPARE(bytes.toHex(' '), QByteArray("06 00 00 00 61 61 61 61 61 61 00 00 00 00"));
    // After OK the dialog is hidden, not gone; REQ_PIN_Finish removes it.
    QVERIFY(XDoTool::waitForNoWindow(QStringLiteral("Verify USBKey password")));
    QCOMPARE(zrui_pin_finish(conn), int(ZRUI_OK));
    QCOMPARE(zrui_end_session(conn), int(ZRUI_OK));
}

void TestEndToEnd::testRetryAnsweredWithKeyboard()
{
    QCOMPARE(zrui_pin_show(conn, 0), int(ZRUI_OK));
    QVERIFY(typePin(QStringLiteral("Verify USBKey password"), QStringLiteral("wrong1")));
    uint32_t resp = 0xFF;
    QCOMPARE(waitForPinBytes(&resp).mid(4, 6), QByteArray("wrong1"));

    // REQ_PIN_Retry blocks until the person answers the box.
    std::atomic<int> retry{1000};
    std::thread client([this, &retry] { retry = zrui_pin_retry(conn, 3); });
    const QString box = XDoTool::waitForWindow(QStringLiteral("USBKey password error"));
    const bool answered = !box.isEmpty() && XDoTool::focus(box)
                          && XDoTool::key(QStringLiteral("space")); // Retry has the focus
    if (!answered)
        zrui_close(conn); // unblocks the client thread
    client.join();
    QVERIFY(answered);
    QCOMPARE(retry.load(), int(ZRUI_OK));
    QVERIFY(XDoTool::waitForNoWindow(QStringLiteral("USBKey password error")));

    // Retry brings a fresh, empty PIN dialog of the same type.
    QVERIFY(typePin(QStringLiteral("Verify USBKey password"), QStringLiteral("right2")));
    const QByteArray bytes = waitForPinBytes(&resp);
    QCOMPARE(resp, uint32_t(UI_OK));
    QCOMPARE(bytes.toHex(' '), QByteArray("06 00 00 00 72 69 67 68 74 32 00 00 00 00"));
    QCOMPARE(zrui_pin_finish(conn), int(ZRUI_OK));
    QCOMPARE(zrui_end_session(conn), int(ZRUI_OK));
}

void TestEndToEnd::testChooseThirdContainer()
{
    QCOMPARE(zrui_list_show(conn, 0, "first\nsecond\nthird\nfourth"), int(ZRUI_OK));
    const QString window = XDoTool::waitForWindow(QStringLiteral("Select Container"));
    QVERIFY(!window.isEmpty());
    QVERIFY(XDoTool::focus(window));
    int32_t index = -7;
    QCOMPARE(zrui_list_get_sel(conn, &index), int(ZRUI_E_NORESULT));
    // The combo box has the focus: two steps down, then Tab to OK and press it.
    QVERIFY(XDoTool::key(QStringLiteral("Down Down Tab space")));
    QCOMPARE(zrui_list_wait(conn, 15000, 50, &index), int(ZRUI_OK));
    QCOMPARE(index, 2);
    QVERIFY(XDoTool::waitForNoWindow(QStringLiteral("Select Container")));
    QCOMPARE(zrui_end_session(conn), int(ZRUI_OK));
}

void TestEndToEnd::testWaitingWindowAppearsAndDisappears()
{
    QCOMPARE(zrui_waiting_show(conn, 2, "1=30"), int(ZRUI_OK));
    const QString window = XDoTool::waitForWindow(QStringLiteral("Verify user PIN"));
    QVERIFY(!window.isEmpty());
    QCOMPARE(XDoTool::windowName(window), QStringLiteral("Verify user PIN"));
    QCOMPARE(zrui_waiting_finish(conn), int(ZRUI_OK));
    QVERIFY(XDoTool::waitForNoWindow(QStringLiteral("Verify user PIN")));
    QCOMPARE(zrui_end_session(conn), int(ZRUI_OK));
}

QTEST_GUILESS_MAIN(TestEndToEnd)
#include "TestEndToEnd.moc"
