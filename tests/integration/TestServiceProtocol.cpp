// The request service over real sockets: session state machine, framing,
// token presence, connection clean-up, message-box layout, endpoint set-up
// and shutdown. The real FIFO_Service runs in its own thread against
// FakeUiStatus and the stand-in device library.
#include "ServiceHarness.h"
#include "SignalRecorder.h"
#include "service/FIFO_Service.h"
#include "service/Protocol.h"

#include <QElapsedTimer>
#include <QRegularExpression>
#include <QSet>
#include <QTemporaryDir>
#include <QtTest>

#include <unistd.h>

namespace {

QByteArray u32(quint32 v) { return QByteArray(reinterpret_cast<const char *>(&v), 4); }

QByteArray u64(quint64 v) { return QByteArray(reinterpret_cast<const char *>(&v), 8); }

QByteArray cstr(const QByteArray &s) { return s + '\0'; }

// Plausible parameters for every operation, as a middleware sends them.
QByteArray defaultData(quint32 op)
{
    switch (op) {
    case REQ_BeginSession:
        return QByteArray(2, '\0') + u64(0x1122334455667788ULL);
    case REQ_PIN_Show:
        return u32(2);
    case REQ_PIN_Retry:
        return u32(3);
    case REQ_Waiting_Show:
        return u32(1) + cstr("press the button|10");
    case REQ_List_Show:
        return u32(0) + cstr("c1|c2");
    case REQ_MessageBox:
        return u32(0) + cstr("T") + cstr("msg");
    default:
        return QByteArray();
    }
}

// Response to an allowed operation when the fake UI has no answer yet
// (PIN and list pending) and message boxes are answered with `answer`.
quint32 expectedResponse(quint32 op, int answer)
{
    switch (op) {
    case REQ_PIN_GetPIN:
    case REQ_List_GetSel:
        return UI_NO_RESULT;
    case REQ_PIN_Retry:
        return answer == 1 ? UI_OK : answer == 0 ? UI_USER_CANCEL : UI_NO_RESULT;
    case REQ_MessageBox:
        return unsigned(answer) < 2 ? UI_OK : UI_NO_RESULT;
    default:
        return UI_OK;
    }
}

QList<quint32> parseOps(const QString &text)
{
    QList<quint32> ops;
    for (const QString &part : text.split(QLatin1Char(' '), Qt::SkipEmptyParts))
        ops << part.toUInt();
    return ops;
}

// The "RecvPack: RecvBuff......" line opens every wait for a request and may
// land on either side of a mark, so framing checks leave it out.
QStringList recvPackLines(int mark)
{
    QStringList out;
    for (const QString &line : ServiceHarness::logSince(mark)) {
        if (line.startsWith(QLatin1String("RecvPack:"))
            && line != QLatin1String("RecvPack: RecvBuff......"))
            out << line;
    }
    return out;
}

QStringList linesStartingWith(const QStringList &lines, const QString &prefix)
{
    QStringList out;
    for (const QString &line : lines) {
        if (line.startsWith(prefix))
            out << line;
    }
    return out;
}

} // namespace

class TestServiceProtocol : public QObject
{
    Q_OBJECT

private slots:
    void initTestCase();
    void init();
    void cleanupTestCase();

    void testTransitions_data();
    void testTransitions();
    void testPinResultBytes();
    void testListSelection_data();
    void testListSelection();
    void testRequestSplitOverThreeWrites();
    void testFirstReadOfFiveBytes();
    void testExactlyEightBytes();
    void testDatalenAboveMaximum();
    void testFullPacketWithoutTerminator();
    void testNegativeFirstReadIsOperationZero();
    void testBeginSessionPassesDeviceReference();
    void testTokenPulledOut();
    void testDisconnectMidSession();
    void testMessageBoxLayout_data();
    void testMessageBoxLayout();
    void testMessageBoxThroughClientLibrary();
    void testMessageBoxAnswers_data();
    void testMessageBoxAnswers();
    void testMessageBoxWaitsForUser();
    void testPinRetry_data();
    void testPinRetry();
    void testRetryTypeOutlivesConnection();
    void testSocketNameLimits_data();
    void testSocketNameLimits();
    void testSecondServiceSameName();
    void testStopEndsLoopWithinASecond();

private:
    // Opens a client and runs ops, checking each response; false on mismatch.
    bool runPath(TestClient &client, const QList<quint32> &ops, int answer);
    // The recorder's size now: events of earlier connections were recorded
    // before the last response went out, so they cannot leak into what
    // follows. The exit-timer signals of BeginSession/EndSession follow
    // their response, so the recorder leaves them out unless asked.
    int syncedMark();
    // Journal lines from the last Connect on; its context and device handles.
    static QStringList journalFromLastConnect(QString *ctx, QString *dev);

    QTemporaryDir tempDir;
    ServiceHarness harness;
};

void TestServiceProtocol::initTestCase()
{
    ServiceHarness::installLogCapture();
    QVERIFY(tempDir.isValid());
    QVERIFY(ServiceHarness::useTokenSimConfig(tempDir.path()));
    QVERIFY2(ServiceHarness::loadTokenLibrary(),
             "LoadLib_ZRKAPI failed on ZRUI_TOKENSIM_DIR (stand-in libraries not built?)");
    QVERIFY(harness.start(ServiceHarness::uniqueAppName(QStringLiteral("proto"))));
}

void TestServiceProtocol::init()
{
    harness.autoMsgAnswer = ServiceHarness::NoAutoAnswer;
    QVERIFY(ServiceHarness::setTokenPresent(true));
}

void TestServiceProtocol::cleanupTestCase() { QVERIFY(harness.stop()); }

bool TestServiceProtocol::runPath(TestClient &client, const QList<quint32> &ops, int answer)
{
    if (client.open(harness.appName()) != ZRUI_OK)
        return false;
    for (quint32 op : ops) {
        quint32 resp = 0xdead;
        QByteArray out;
        if (client.request(op, defaultData(op), &resp, &out) != ZRUI_OK) {
            qWarning("path op %u: no response", op);
            return false;
        }
        if (resp != expectedResponse(op, answer) || !out.isEmpty()) {
            qWarning("path op %u: response %u with %d data bytes", op, resp, int(out.size()));
            return false;
        }
    }
    return true;
}

int TestServiceProtocol::syncedMark() { return harness.recorder->size(); }

QStringList TestServiceProtocol::journalFromLastConnect(QString *ctx, QString *dev)
{
    const QStringList journal = ServiceHarness::journalLines();
    static const QRegularExpression connectLine(
            QStringLiteral("^Connect ctx=(\\d+) ref=0x[0-9a-f]{16} rc=0 dev=([1-9]\\d*)$"));
    for (int i = journal.size() - 1; i >= 0; --i) {
        const QRegularExpressionMatch m = connectLine.match(journal.at(i));
        if (m.hasMatch()) {
            *ctx = m.captured(1);
            *dev = m.captured(2);
            return journal.mid(i);
        }
    }
    return QStringList();
}

void TestServiceProtocol::testTransitions_data()
{
    QTest::addColumn<QString>("path");
    QTest::addColumn<int>("answer"); // message status the user gives
    QTest::addColumn<QString>("allowed");
    QTest::addColumn<quint32>("probe");

    struct State
    {
        const char *name;
        const char *path;
        int answer;
        const char *allowed;
    };
    // The session state machine, one state per row of its table.
    const State states[] = {
            {"connection start", "", 1, "1"},
            {"BeginSession", "1", 1, "2 3 7 10 12 14"},
            {"EndSession", "1 2", 1, "1"},
            {"PIN_Show", "1 3", 1, "4 7"},
            {"PIN_GetPIN", "1 3 4", 1, "2 4 5 6 7"},
            {"PIN_Retry accepted", "1 3 4 5", 1, "4"},
            {"PIN_Retry cancelled", "1 3 4 5", 0, "2"},
            {"PIN_Retry other status", "1 3 4 5", 3, "5"},
            {"PIN_Finish", "1 3 4 6", 1, "2 14"},
            {"Waiting_Show", "1 7", 1, "8 9"},
            {"Waiting_Finish", "1 7 9", 1, "2 5 6"},
            {"List_Show", "1 10", 1, "11"},
            {"List_GetSel", "1 10 11", 1, "2 11"},
            {"MessageBox", "1 14", 1, "2 14"},
    };
    QList<quint32> probes;
    for (quint32 op = 0; op <= 15; ++op)
        probes << op;
    probes << 0xFFFFFFFFu;
    for (const State &s : states) {
        for (quint32 probe : probes) {
            QTest::addRow("%s: op %u", s.name, probe) << QString::fromLatin1(s.path) << s.answer
                                                      << QString::fromLatin1(s.allowed) << probe;
        }
    }
}

void TestServiceProtocol::testTransitions()
{
    QFETCH(QString, path);
    QFETCH(int, answer);
    QFETCH(QString, allowed);
    QFETCH(quint32, probe);

    harness.autoMsgAnswer = answer;
    TestClient client;
    QVERIFY(runPath(client, parseOps(path), answer));

    const QList<quint32> allowedOps = parseOps(allowed);
    const int mark = ServiceHarness::logMark();
    quint32 resp = 0xdead;
    QByteArray out;

    if (!allowedOps.contains(probe)) {
        QCOMPARE(client.request(probe, defaultData(probe), &resp, &out), ZRUI_OK);
        QCOMPARE(resp, quint32(UI_STATE_ERROR));
        QCOMPARE(out.size(), 0);
        QVERIFY(client.waitClosed());
        QCOMPARE(ServiceHarness::countLog(
                         QStringLiteral("StateMachine Err, operation  %1").arg(probe), mark, true),
                 1);
        return;
    }
    if (probe == REQ_Reserved_8 || probe == REQ_Reserved_12) {
        // No handler: no response at all, the connection just ends.
        QVERIFY(client.sendRaw(TestClient::packet(probe, defaultData(probe))));
        QByteArray extra;
        QVERIFY(client.waitClosed(5000, &extra));
        QCOMPARE(extra.toHex(), QByteArray());
        QVERIFY(ServiceHarness::waitForLog(
                QStringLiteral("HandleClientRequest: unknown operation= %1").arg(probe), mark, 1,
                5000, true));
        return;
    }
    QCOMPARE(client.request(probe, defaultData(probe), &resp, &out), ZRUI_OK);
    QCOMPARE(resp, expectedResponse(probe, answer));
    QCOMPARE(out.size(), 0);
    // Still served: a code that is never allowed gets its state error.
    QCOMPARE(client.request(0, QByteArray(), &resp, &out), ZRUI_OK);
    QCOMPARE(resp, quint32(UI_STATE_ERROR));
    QVERIFY(client.waitClosed());
}

void TestServiceProtocol::testPinResultBytes()
{
    TestClient client;
    QVERIFY(runPath(client, {REQ_BeginSession, REQ_PIN_Show}, 1));
    QCOMPARE(harness.fake.pinStatusValue(), -1);

    QByteArray result = u32(5) + "12345" + u32(3) + "abc";
    harness.fake.SetPINStatus(1, reinterpret_cast<unsigned char *>(result.data()),
                              ulong(result.size()));
    quint32 resp = 0xdead;
    QByteArray out;
    QCOMPARE(client.request(REQ_PIN_GetPIN, QByteArray(), &resp, &out), ZRUI_OK);
    QCOMPARE(resp, quint32(UI_OK));
    QCOMPARE(out.toHex(), result.toHex());

    // The same result again until a new PIN_Show; the library splits it.
    zrui_pin_result pin;
    QCOMPARE(zrui_pin_get(client.handle(), &pin), ZRUI_OK);
    QCOMPARE(QByteArray(pin.oldPin), QByteArray("12345"));
    QCOMPARE(pin.oldLen, 5u);
    QCOMPARE(QByteArray(pin.newPin), QByteArray("abc"));
    QCOMPARE(pin.newLen, 3u);
    zrui_pin_result_wipe(&pin);

    harness.fake.SetPINStatus(0, nullptr, 0);
    QCOMPARE(client.request(REQ_PIN_GetPIN, QByteArray(), &resp, &out), ZRUI_OK);
    QCOMPARE(resp, quint32(UI_USER_CANCEL));
    QCOMPARE(out.size(), 0);

    // Polling a pending PIN ends with a time-out, after several polls.
    harness.fake.SetPINStatus(-1, nullptr, 0);
    const int mark = ServiceHarness::logMark();
    QCOMPARE(zrui_pin_wait(client.handle(), 150, 20, &pin), ZRUI_E_TIMEOUT);
    QVERIFY(ServiceHarness::countLog(QStringLiteral("REQ_PIN_GetPIN "), mark, true) >= 2);
}

void TestServiceProtocol::testListSelection_data()
{
    QTest::addColumn<int>("status");
    QTest::addColumn<int>("index");
    QTest::addColumn<quint32>("response");
    QTest::addColumn<QByteArray>("data");

    QTest::newRow("chosen row 7") << 1 << 7 << quint32(UI_OK) << QByteArray::fromHex("07000000");
    QTest::newRow("type 1 answer -1")
            << 1 << -1 << quint32(UI_OK) << QByteArray::fromHex("ffffffff");
    QTest::newRow("cancelled") << 0 << 0 << quint32(UI_USER_CANCEL) << QByteArray();
    QTest::newRow("pending") << -1 << 0 << quint32(UI_NO_RESULT) << QByteArray();
}

void TestServiceProtocol::testListSelection()
{
    QFETCH(int, status);
    QFETCH(int, index);
    QFETCH(quint32, response);
    QFETCH(QByteArray, data);

    TestClient client;
    QVERIFY(runPath(client, {REQ_BeginSession}, 1));
    const int recMark = syncedMark();
    quint32 resp = 0xdead;
    QByteArray out;
    QCOMPARE(client.request(REQ_List_Show, u32(0) + cstr("alpha|beta"), &resp, &out), ZRUI_OK);
    QCOMPARE(resp, quint32(UI_OK));
    QTRY_VERIFY(harness.recorder->since(recMark).contains(
            QStringLiteral("show_list_dialog(0|alpha|beta)")));
    QCOMPARE(harness.fake.listStatusValue(), -1);

    harness.fake.SetListSelectStatus(status, index);
    const int mark = ServiceHarness::logMark();
    QCOMPARE(client.request(REQ_List_GetSel, QByteArray(), &resp, &out), ZRUI_OK);
    QCOMPARE(resp, response);
    QCOMPARE(out.toHex(), data.toHex());

    // The whole response left in one write, logged in lowercase hex. The
    // "Sended" line follows the write, so wait for it.
    const QByteArray wire = u32(response) + u32(quint32(data.size())) + data;
    QVERIFY(ServiceHarness::waitForLog(
            QStringLiteral("SendBuff: Sended writelen= %1").arg(wire.size()), mark, 1, 5000, true));
    const QStringList lines = ServiceHarness::logSince(mark);
    const QString sent
            = QStringLiteral("SendBuff: Send \"%1\"").arg(QString::fromLatin1(wire.toHex()));
    QCOMPARE(linesStartingWith(lines, QStringLiteral("SendBuff: Send ")), QStringList(sent));
    const QStringList sendLines = linesStartingWith(lines, QStringLiteral("SendBuff:"));
    QCOMPARE(sendLines.value(sendLines.indexOf(sent) + 1),
             QStringLiteral("SendBuff: Sended writelen= %1").arg(wire.size()));
}

void TestServiceProtocol::testRequestSplitOverThreeWrites()
{
    TestClient client;
    QVERIFY(runPath(client, {REQ_BeginSession}, 1));
    const int recMark = syncedMark();
    const int mark = ServiceHarness::logMark();

    const QByteArray text = "Please press the button on the key|30";
    const QByteArray pkt = TestClient::packet(REQ_Waiting_Show, u32(4) + cstr(text));
    // Each part goes out only once the server has consumed the previous one.
    QVERIFY(client.sendRaw(pkt.left(10)));
    QVERIFY(ServiceHarness::waitForLog(QStringLiteral("RecvPack: RecvBuff rcount= 10"), mark, 1,
                                       5000, true));
    QVERIFY(client.sendRaw(pkt.mid(10, 7)));
    QVERIFY(ServiceHarness::waitForLog(QStringLiteral("RecvPack: RecvBuff rcount= 17"), mark, 1,
                                       5000, true));
    QVERIFY(client.sendRaw(pkt.mid(17)));
    quint32 resp = 0xdead;
    QByteArray data;
    QVERIFY(client.readResponse(&resp, &data));
    QCOMPARE(resp, quint32(UI_OK));
    QCOMPARE(data.size(), 0);

    const int datalen = pkt.size() - 8;
    const QStringList expected = {
            QStringLiteral("RecvPack: RecvBuff recvLen= 10 , sizeof(COMMPACK)= 8 , "
                           "((PCOMMPACK)pReqData)->datalen= %1")
                    .arg(datalen),
            QStringLiteral("RecvPack: RecvBuff rcount= 10"),
            QStringLiteral("RecvPack: RecvBuff recvLen= 7"),
            QStringLiteral("RecvPack: RecvBuff rcount= 17"),
            QStringLiteral("RecvPack: RecvBuff recvLen= %1").arg(pkt.size() - 17),
            QStringLiteral("RecvPack: RecvBuff final rcount= %1").arg(pkt.size()),
    };
    QCOMPARE(recvPackLines(mark), expected);
    QVERIFY(ServiceHarness::countLog(QStringLiteral("RecvBuff: readed readlen= 10 ,data= \"%1\"")
                                             .arg(QString::fromLatin1(pkt.left(10).toHex())),
                                     mark, true)
            == 1);
    QTRY_VERIFY(harness.recorder->since(recMark).contains(
            QStringLiteral("show_waiting_dialog(%1|4)").arg(QString::fromUtf8(text))));
}

void TestServiceProtocol::testFirstReadOfFiveBytes()
{
    TestClient client;
    QCOMPARE(client.open(harness.appName()), ZRUI_OK);
    const int mark = ServiceHarness::logMark();
    const QByteArray pkt = TestClient::packet(REQ_BeginSession, defaultData(REQ_BeginSession));
    QVERIFY(client.sendRaw(pkt.left(5)));
    QVERIFY(ServiceHarness::waitForLog(QStringLiteral("RecvPack() failed"), mark, 1, 5000, true));
    QByteArray extra;
    QVERIFY(client.waitClosed(5000, &extra));
    QCOMPARE(extra.toHex(), QByteArray()); // no response

    const QStringList lines = ServiceHarness::logSince(mark);
    // Datalen shows the one byte of it that arrived (10 = 0x0a).
    QVERIFY(lines.contains(QStringLiteral("RecvPack: RecvBuff recvLen= 5 , sizeof(COMMPACK)= 8 , "
                                          "((PCOMMPACK)pReqData)->datalen= 10")));
    QCOMPARE(linesStartingWith(lines, QStringLiteral("RecvPack: RecvBuff rcount=")).size(), 0);
    QVERIFY(!lines.contains(QStringLiteral("REQ_BeginSession")));
    // No response was built ("Sended" lines of earlier responses may trail).
    QCOMPARE(linesStartingWith(lines, QStringLiteral("SendBuff: Send ")).size(), 0);
}

void TestServiceProtocol::testExactlyEightBytes()
{
    TestClient client;
    QCOMPARE(client.open(harness.appName()), ZRUI_OK);
    const int mark = ServiceHarness::logMark();
    QVERIFY(client.sendRaw(TestClient::packet(REQ_BeginSession)));
    quint32 resp = 0xdead;
    QByteArray data;
    QVERIFY(client.readResponse(&resp, &data));
    QCOMPARE(resp, quint32(UI_OK));
    // One read, no loop.
    QCOMPARE(recvPackLines(mark),
             QStringList({QStringLiteral("RecvPack: RecvBuff recvLen= 8 , sizeof(COMMPACK)= 8 , "
                                         "((PCOMMPACK)pReqData)->datalen= 0"),
                          QStringLiteral("RecvPack: RecvBuff final rcount= 8")}));
    // Parameters come from the zero-filled buffer: device reference 0 ...
    QString ctx;
    QString dev;
    const QStringList journal = journalFromLastConnect(&ctx, &dev);
    QVERIFY2(journal.value(0).contains(QStringLiteral(" ref=0x0000000000000000 rc=0 dev=")),
             qPrintable(journal.join(QLatin1Char('\n'))));

    // ... PIN dialog type 0, waiting type 0 with an empty text.
    const int recMark = syncedMark();
    QCOMPARE(client.request(REQ_PIN_Show, QByteArray(), &resp, &data), ZRUI_OK);
    QCOMPARE(resp, quint32(UI_OK));
    QCOMPARE(client.request(REQ_Waiting_Show, QByteArray(), &resp, &data), ZRUI_OK);
    QCOMPARE(resp, quint32(UI_OK));
    QTRY_COMPARE(harness.recorder->since(recMark),
                 QStringList({QStringLiteral("show_pin_dialog(0)"),
                              QStringLiteral("show_waiting_dialog(|0)")}));
}

void TestServiceProtocol::testDatalenAboveMaximum()
{
    TestClient client;
    QVERIFY(runPath(client, {REQ_BeginSession}, 1));
    const int mark = ServiceHarness::logMark();
    QVERIFY(client.sendRaw(TestClient::packet(REQ_Waiting_Show, COMMPACK_MAX_DATA + 1,
                                              QByteArray(COMMPACK_MAX_DATA + 1, 'A'))));
    QByteArray extra;
    QVERIFY(client.waitClosed(5000, &extra));
    QCOMPARE(extra.toHex(), QByteArray());
    QVERIFY(ServiceHarness::waitForLog(QStringLiteral("RecvPack() failed"), mark, 1, 5000, true));
    const QStringList lines = ServiceHarness::logSince(mark);
    // The buffer fills up, then a read of 0 bytes gives 0.
    const QStringList recvLens
            = linesStartingWith(lines, QStringLiteral("RecvPack: RecvBuff recvLen="));
    QVERIFY(!recvLens.isEmpty());
    QCOMPARE(recvLens.last(), QStringLiteral("RecvPack: RecvBuff recvLen= 0"));
    QVERIFY(lines.contains(QStringLiteral("RecvPack: RecvBuff rcount= %1").arg(COMMPACK_MAX_SIZE)));
    QVERIFY(!lines.contains(QStringLiteral("REQ_Waiting_Show")));
}

void TestServiceProtocol::testFullPacketWithoutTerminator()
{
    // 10240 data bytes and no NUL: the text ends where the buffer ends.
    TestClient client;
    QVERIFY(runPath(client, {REQ_BeginSession}, 1));
    const int recMark = syncedMark();
    const QByteArray text(COMMPACK_MAX_DATA - 4, 'B');
    quint32 resp = 0xdead;
    QByteArray out;
    QCOMPARE(client.request(REQ_Waiting_Show, u32(2) + text, &resp, &out), ZRUI_OK);
    QCOMPARE(resp, quint32(UI_OK));
    QTRY_COMPARE(harness.recorder->since(recMark).value(0),
                 QStringLiteral("show_waiting_dialog(%1|2)").arg(QString::fromLatin1(text)));
}

void TestServiceProtocol::testNegativeFirstReadIsOperationZero()
{
    TestClient client;
    QVERIFY(runPath(client, {REQ_BeginSession}, 1));
    const int mark = ServiceHarness::logMark();
    QVERIFY(client.sendRaw(TestClient::packet(REQ_PIN_Show, u32(1))));
    // Leave the response unread and close: the server's next read fails
    // with ECONNRESET instead of returning 0.
    QVERIFY(client.waitReadable(5000));
    client.close();
    QVERIFY(ServiceHarness::waitForLog(QStringLiteral("HandleClientRequest() failed"), mark, 1,
                                       5000, true));
    const QStringList lines = ServiceHarness::logSince(mark);
    const int failed = lines.indexOf(QStringLiteral("RecvBuff: readed readlen= -1 ,data= \"\""));
    QVERIFY2(failed >= 0, qPrintable(lines.join(QLatin1Char('\n'))));
    const QStringList tail = lines.mid(failed);
    QCOMPARE(tail.value(1), QStringLiteral("RecvPack: RecvBuff recvLen= -1 , sizeof(COMMPACK)= 8 , "
                                           "((PCOMMPACK)pReqData)->datalen= 0"));
    QCOMPARE(tail.value(2),
             QStringLiteral("RecvPack: RecvBuff final rcount= 18446744073709551615"));
    QCOMPARE(tail.value(3), QStringLiteral("StateMachine Err, operation  0"));
    QCOMPARE(tail.value(4), QStringLiteral("SendBuff: Send \"0300000000000000\""));
    QCOMPARE(tail.value(5), QStringLiteral("SendBuff: Sended writelen= -1"));
    QCOMPARE(tail.value(6), QStringLiteral("HandleClientRequest() failed"));
    QVERIFY(!tail.contains(QStringLiteral("RecvPack() failed")));
}

void TestServiceProtocol::testBeginSessionPassesDeviceReference()
{
    TestClient client;
    QCOMPARE(client.open(harness.appName()), ZRUI_OK);
    quint32 resp = 0xdead;
    QByteArray out;
    // The 16-bit field before the reference is ignored.
    QCOMPARE(client.request(REQ_BeginSession, u32(0xBEEF).left(2) + u64(0x8877665544332211ULL),
                            &resp, &out),
             ZRUI_OK);
    QCOMPARE(resp, quint32(UI_OK));
    QString ctx1;
    QString dev1;
    QStringList journal = journalFromLastConnect(&ctx1, &dev1);
    QVERIFY2(journal.value(0).contains(QStringLiteral(" ref=0x8877665544332211 rc=0 ")),
             qPrintable(journal.value(0)));

    // A second BeginSession on the same connection (after EndSession)
    // overwrites the handles without releasing the first ones.
    QCOMPARE(zrui_end_session(client.handle()), ZRUI_OK);
    QCOMPARE(zrui_begin_session(client.handle(), 0x0102030405060708ULL), ZRUI_OK);
    QString ctx2;
    QString dev2;
    journal = journalFromLastConnect(&ctx2, &dev2);
    QVERIFY2(journal.value(0).contains(QStringLiteral(" ref=0x0102030405060708 rc=0 ")),
             qPrintable(journal.value(0)));
    QVERIFY(dev2 != dev1);
    client.close();

    // The end of the connection releases the last pair only.
    const QStringList expectedTail = {QStringLiteral("Disconnect dev=%1 rc=0").arg(dev2),
                                      QStringLiteral("ReleaseContext ctx=%1 rc=0").arg(ctx2)};
    QTRY_COMPARE(journalFromLastConnect(&ctx2, &dev2).mid(1), expectedTail);
    const QStringList all = ServiceHarness::journalLines();
    QVERIFY(!all.contains(QStringLiteral("Disconnect dev=%1 rc=0").arg(dev1)));
    QVERIFY(!all.contains(QStringLiteral("ReleaseContext ctx=%1 rc=0").arg(ctx1)));
}

void TestServiceProtocol::testTokenPulledOut()
{
    TestClient client;
    QVERIFY(runPath(client, {REQ_BeginSession}, 1));
    const int recMark = syncedMark();
    QVERIFY(ServiceHarness::setTokenPresent(false));
    const int mark = ServiceHarness::logMark();

    quint32 resp = 0xdead;
    QByteArray out;
    QCOMPARE(client.request(REQ_PIN_Show, u32(1), &resp, &out), ZRUI_OK);
    QCOMPARE(resp, quint32(UI_TOKEN_NOT_PRESENT));
    QCOMPARE(out.size(), 0);
    QVERIFY(client.waitClosed());
    QVERIFY(ServiceHarness::waitForLog(
            QStringLiteral("Service will auto exit after keepaliveseconds..."), mark, 1, 5000,
            true));
    QCOMPARE(ServiceHarness::countLog(QStringLiteral("UI_TOKEN_NOT_PRESENT"), mark, true), 1);
    QCOMPARE(ServiceHarness::countLog(QStringLiteral("REQ_PIN_Show:"), mark, true), 0);

    QString ctx;
    QString dev;
    QTRY_COMPARE(journalFromLastConnect(&ctx, &dev).mid(1),
                 QStringList({QStringLiteral("IsDevPresent dev=%1 rc=1").arg(dev),
                              QStringLiteral("Disconnect dev=%1 rc=0").arg(dev),
                              QStringLiteral("ReleaseContext ctx=%1 rc=0").arg(ctx)}));
    // No comm-failure signal here, only the end-of-connection ones.
    QTRY_COMPARE(harness.recorder->since(recMark),
                 QStringList({QStringLiteral("hide_pin_dialog()"),
                              QStringLiteral("hide_waiting_dialog()")}));
    QTRY_VERIFY(
            harness.recorder->since(recMark, true).contains(QStringLiteral("startExitTimer()")));
}

void TestServiceProtocol::testDisconnectMidSession()
{
    {
        TestClient client;
        QVERIFY(runPath(client, {REQ_BeginSession, REQ_PIN_Show}, 1));
        const int recMark = syncedMark();
        const int mark = ServiceHarness::logMark();
        client.close();

        QTRY_COMPARE(harness.recorder->since(recMark),
                     QStringList({QStringLiteral("pipe_comm_failed()"),
                                  QStringLiteral("hide_pin_dialog()"),
                                  QStringLiteral("hide_waiting_dialog()")}));
        QTRY_VERIFY(harness.recorder->since(recMark, true)
                            .contains(QStringLiteral("startExitTimer()")));
        QVERIFY(ServiceHarness::waitForLog(QStringLiteral("Clean env, handle :"), mark));
        const QStringList lines = ServiceHarness::logSince(mark);
        QVERIFY(lines.contains(QStringLiteral("RecvPack() failed")));
        QVERIFY(QRegularExpression(QStringLiteral("^Clean env, handle : [1-9]\\d*  closed$"))
                        .match(linesStartingWith(lines, QStringLiteral("Clean env")).value(0))
                        .hasMatch());
        QString ctx;
        QString dev;
        QTRY_COMPARE(journalFromLastConnect(&ctx, &dev).mid(1),
                     QStringList({QStringLiteral("IsDevPresent dev=%1 rc=0").arg(dev),
                                  QStringLiteral("Disconnect dev=%1 rc=0").arg(dev),
                                  QStringLiteral("ReleaseContext ctx=%1 rc=0").arg(ctx)}));
    }
    // The next client starts a fresh session: only BeginSession is allowed.
    TestClient next;
    QCOMPARE(next.open(harness.appName()), ZRUI_OK);
    quint32 resp = 0xdead;
    QByteArray out;
    QCOMPARE(next.request(REQ_PIN_Show, u32(1), &resp, &out), ZRUI_OK);
    QCOMPARE(resp, quint32(UI_STATE_ERROR));
    QVERIFY(next.waitClosed());
    TestClient third;
    QVERIFY(runPath(third, {REQ_BeginSession, REQ_EndSession}, 1));
}

void TestServiceProtocol::testMessageBoxLayout_data()
{
    QTest::addColumn<QByteArray>("title");
    QTest::addColumn<QByteArray>("text");
    QTest::addColumn<QString>("shownTitle");
    QTest::addColumn<QString>("shownText");

    QTest::newRow("ascii") << QByteArray("Warning") << QByteArray("Remove the key")
                           << QStringLiteral("Warning") << QStringLiteral("Remove the key");
    // Title at 12 and 13, terminator at 14, text read from 15.
    QTest::newRow("two letters") << QByteArray("ab") << QByteArray("xyz") << QStringLiteral("ab")
                                 << QStringLiteral("xyz");
    QTest::newRow("empty title") << QByteArray() << QByteArray("only text") << QString()
                                 << QStringLiteral("only text");
    // Non-ASCII titles: the text is read 13 + UTF-16 length into the packet,
    // inside the title's own bytes (kept on purpose).
    QTest::newRow("chinese title") << QByteArray("中文") << QByteArray("hello")
                                   << QStringLiteral("中文") << QStringLiteral("文");
    QTest::newRow("accent title") << QByteArray("é1") << QByteArray("zz") << QStringLiteral("é1")
                                  << QString();
    QTest::newRow("emoji title") << QByteArray("\xF0\x9F\x98\x80") << QByteArray("hi")
                                 << QString::fromUtf8("\xF0\x9F\x98\x80")
                                 << QString(QChar(QChar::ReplacementCharacter));
}

void TestServiceProtocol::testMessageBoxLayout()
{
    QFETCH(QByteArray, title);
    QFETCH(QByteArray, text);
    QFETCH(QString, shownTitle);
    QFETCH(QString, shownText);

    harness.autoMsgAnswer = 1;
    TestClient client;
    QVERIFY(runPath(client, {REQ_BeginSession}, 1));
    const int recMark = syncedMark();
    quint32 resp = 0xdead;
    QByteArray out;
    QCOMPARE(
            client.request(REQ_MessageBox, u32(0x01020304) + cstr(title) + cstr(text), &resp, &out),
            ZRUI_OK);
    QCOMPARE(resp, quint32(UI_OK));
    QTRY_COMPARE(harness.recorder->since(recMark),
                 QStringList(QStringLiteral("show_message_dialog(") + shownTitle + QLatin1Char('|')
                             + shownText + QStringLiteral("|16909060)")));
}

void TestServiceProtocol::testMessageBoxThroughClientLibrary()
{
    harness.autoMsgAnswer = 0;
    TestClient client;
    QVERIFY(runPath(client, {REQ_BeginSession}, 0));
    const int recMark = syncedMark();
    QCOMPARE(zrui_message_box(client.handle(), 9, "Token", "PIN changed"), ZRUI_OK);
    QCOMPARE(zrui_message_box(client.handle(), 1, "", "second"), ZRUI_OK);
    QCOMPARE(zrui_message_box(client.handle(), 1, "中文", "x"), ZRUI_E_INVAL);
    QCOMPARE(zrui_end_session(client.handle()), ZRUI_OK);
    QTRY_COMPARE(harness.recorder->since(recMark),
                 QStringList({QStringLiteral("show_message_dialog(Token|PIN changed|9)"),
                              QStringLiteral("show_message_dialog(|second|1)")}));
}

void TestServiceProtocol::testMessageBoxAnswers_data()
{
    QTest::addColumn<int>("answer");
    QTest::addColumn<quint32>("response");
    QTest::newRow("confirmed") << 1 << quint32(UI_OK);
    QTest::newRow("cancelled") << 0 << quint32(UI_OK);
    QTest::newRow("status 2") << 2 << quint32(UI_NO_RESULT);
    QTest::newRow("status -5") << -5 << quint32(UI_NO_RESULT);
}

void TestServiceProtocol::testMessageBoxAnswers()
{
    QFETCH(int, answer);
    QFETCH(quint32, response);
    harness.autoMsgAnswer = answer;
    TestClient client;
    QVERIFY(runPath(client, {REQ_BeginSession}, answer));
    quint32 resp = 0xdead;
    QByteArray out;
    QCOMPARE(client.request(REQ_MessageBox, defaultData(REQ_MessageBox), &resp, &out), ZRUI_OK);
    QCOMPARE(resp, response);
    // Whatever the answer, 2 and 14 are allowed next.
    QCOMPARE(client.request(REQ_MessageBox, defaultData(REQ_MessageBox), &resp, &out), ZRUI_OK);
    QCOMPARE(resp, response);
    QCOMPARE(client.request(REQ_EndSession, QByteArray(), &resp, &out), ZRUI_OK);
    QCOMPARE(resp, quint32(UI_OK));
}

void TestServiceProtocol::testMessageBoxWaitsForUser()
{
    TestClient client;
    QVERIFY(runPath(client, {REQ_BeginSession}, 1));
    const int recMark = syncedMark();
    const int mark = ServiceHarness::logMark();
    QVERIFY(client.sendRaw(TestClient::packet(REQ_MessageBox, u32(3) + cstr("T") + cstr("wait"))));
    QTRY_COMPARE(harness.recorder->since(recMark),
                 QStringList(QStringLiteral("show_message_dialog(T|wait|3)")));
    // The service polls every 200 ms, logging the status, and answers nothing.
    QVERIFY(ServiceHarness::waitForLog(QStringLiteral("wait for the message answer, msgStatus= -1"),
                                       mark, 3, 5000, true));
    QVERIFY(!client.waitReadable(0));
    harness.fake.SetMsgStatus(0);
    quint32 resp = 0xdead;
    QByteArray data;
    QVERIFY(client.readResponse(&resp, &data));
    QCOMPARE(resp, quint32(UI_OK));
    QCOMPARE(client.request(REQ_EndSession, QByteArray(), &resp, &data), ZRUI_OK);
    QCOMPARE(resp, quint32(UI_OK));
}

void TestServiceProtocol::testPinRetry_data()
{
    QTest::addColumn<quint32>("tries");
    QTest::addColumn<QString>("text");
    QTest::newRow("3") << 3u << QStringLiteral("There are 3 times remaining");
    QTest::newRow("0") << 0u << QStringLiteral("There are 0 times remaining");
    QTest::newRow("default forbidden") << 0xFFFFFFFFu << QStringLiteral("Default PIN Is Forbidden");
    QTest::newRow("signed") << 0xFFFFFFFEu << QStringLiteral("There are -2 times remaining");
}

void TestServiceProtocol::testPinRetry()
{
    QFETCH(quint32, tries);
    QFETCH(QString, text);

    harness.autoMsgAnswer = 1;
    TestClient client;
    QVERIFY(runPath(client, {REQ_BeginSession}, 1));
    quint32 resp = 0xdead;
    QByteArray out;
    QCOMPARE(client.request(REQ_PIN_Show, u32(4), &resp, &out), ZRUI_OK);
    QCOMPARE(client.request(REQ_PIN_GetPIN, QByteArray(), &resp, &out), ZRUI_OK);
    const int recMark = syncedMark();
    const int mark = ServiceHarness::logMark();
    QCOMPARE(zrui_pin_retry(client.handle(), tries), ZRUI_OK);
    QTRY_COMPARE(
            harness.recorder->since(recMark),
            QStringList(
                    {QStringLiteral("show_message_dialog(USBKey password error|%1|5)").arg(text),
                     QStringLiteral("show_pin_dialog(4)")}));
    QCOMPARE(ServiceHarness::countLog(
                     QStringLiteral("REQ_PIN_Retry Accepted: emit show_pin_dialog( 4 )"), mark,
                     true),
             1);
    QCOMPARE(harness.fake.pinStatusValue(), -1);
}

void TestServiceProtocol::testRetryTypeOutlivesConnection()
{
    // The type of the last PIN dialog of the process is used again, even by
    // a session that never showed one.
    {
        TestClient first;
        QVERIFY(runPath(first, {REQ_BeginSession}, 1));
        quint32 resp = 0xdead;
        QByteArray out;
        QCOMPARE(first.request(REQ_PIN_Show, u32(5), &resp, &out), ZRUI_OK);
    }
    harness.autoMsgAnswer = 1;
    TestClient client;
    QVERIFY(runPath(client, {REQ_BeginSession, REQ_Waiting_Show, REQ_Waiting_Finish}, 1));
    const int recMark = syncedMark();
    QCOMPARE(zrui_pin_retry(client.handle(), 2), ZRUI_OK);
    QTRY_VERIFY(harness.recorder->since(recMark).contains(QStringLiteral("show_pin_dialog(5)")));
}

void TestServiceProtocol::testSocketNameLimits_data()
{
    QTest::addColumn<int>("nameLength");
    QTest::addColumn<bool>("listens");
    QTest::newRow("106 bytes") << 106 << true;
    QTest::newRow("107 bytes") << 107 << false;
}

void TestServiceProtocol::testSocketNameLimits()
{
    QFETCH(int, nameLength);
    QFETCH(bool, listens);

    const QString uid = QString::number(getuid());
    const QString prefix = ServiceHarness::uniqueAppName(QStringLiteral("long"));
    const QString app = prefix + QString(nameLength - uid.size() - prefix.size(), QLatin1Char('x'));
    QCOMPARE(app.size() + uid.size(), nameLength);

    const int mark = ServiceHarness::logMark();
    ServiceHarness other;
    QCOMPARE(other.start(app), listens);
    QVERIFY(ServiceHarness::countLog(QStringLiteral("genPipeName: \"%1%2\"").arg(app, uid), mark,
                                     true)
            == 1);
    if (listens) {
        TestClient client;
        QCOMPARE(client.open(app), ZRUI_OK);
        quint32 resp = 0xdead;
        QByteArray out;
        QCOMPARE(client.request(REQ_BeginSession, defaultData(REQ_BeginSession), &resp, &out),
                 ZRUI_OK);
        QCOMPARE(resp, quint32(UI_OK));
    } else {
        const QStringList lines = ServiceHarness::logSince(mark);
        const int makeAddrFailed = lines.indexOf(QStringLiteral("makeAddr() failed"));
        QVERIFY(makeAddrFailed >= 0);
        QCOMPARE(lines.indexOf(QStringLiteral("bind() failed")), makeAddrFailed + 1);
        QCOMPARE(other.recorder->events(), QStringList({QStringLiteral("startExitTimer()"),
                                                        QStringLiteral("start_pipe_failed()")}));
    }
    QVERIFY(other.stop());
}

void TestServiceProtocol::testSecondServiceSameName()
{
    const int mark = ServiceHarness::logMark();
    ServiceHarness second;
    QVERIFY(second.startExpectingFailure(harness.appName()));
    QTRY_COMPARE(second.recorder->events(), QStringList({QStringLiteral("startExitTimer()"),
                                                         QStringLiteral("start_pipe_failed()")}));
    QCOMPARE(ServiceHarness::countLog(QStringLiteral("bind() failed"), mark, true), 1);
    QVERIFY(second.stop());
    // The first one serves on.
    TestClient client;
    QVERIFY(runPath(client, {REQ_BeginSession, REQ_EndSession}, 1));
}

void TestServiceProtocol::testStopEndsLoopWithinASecond()
{
    ServiceHarness other;
    QVERIFY(other.start(ServiceHarness::uniqueAppName(QStringLiteral("stop"))));
    const int mark = ServiceHarness::logMark();
    QElapsedTimer timer;
    timer.start();
    other.service->StopPipeListening();
    QVERIFY(ServiceHarness::waitForLog(QStringLiteral("Pipe Listening Exited, Exit Application"),
                                       mark, 1, 3000, true));
    // One accept time-out at most, plus scheduling slack.
    QVERIFY2(timer.elapsed() < 2000, qPrintable(QString::number(timer.elapsed())));
    const QStringList lines = ServiceHarness::logSince(mark);
    const int stopLine = lines.indexOf(QStringLiteral("StopPipeListening"));
    QVERIFY(stopLine >= 0);
    QVERIFY(stopLine < lines.indexOf(QStringLiteral("Pipe Listening Exited, Exit Application")));
    const QStringList closed = linesStartingWith(lines, QStringLiteral("m_hListenSocket:"));
    QCOMPARE(closed.size(), 1);
    QVERIFY(QRegularExpression(QStringLiteral("^m_hListenSocket: [1-9]\\d*  closed$"))
                    .match(closed.at(0))
                    .hasMatch());
    QVERIFY(!ServiceHarness::isListening(other.socketName()));
    QVERIFY(other.stop());
}

QTEST_GUILESS_MAIN(TestServiceProtocol)
#include "TestServiceProtocol.moc"
