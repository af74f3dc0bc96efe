#include "ServiceHarness.h"
#include "SignalRecorder.h"
#include "service/FIFO_Service.h"
#include "service/Protocol.h"

#include <QElapsedTimer>
#include <QRegularExpression>
#include <QTemporaryDir>
#include <QtTest>

#include <unistd.h>

namespace {

QByteArray u32(quint32 v) { return QByteArray(reinterpret_cast<const char *>(&v), 4); }
QByteArray u64(quint64 v) { return QByteArray(reinterpret_cast<const char *>(&v), 8); }
QByteArray cstr(const QByteArray &s) { return s + '\0'; }
QString S(const char *s) { return QString::fromUtf8(s); }

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

QStringList linesStartingWith(const QStringList &lines, const QString &prefix)
{
    QStringList out;
    for (const QString &line : lines) {
        if (line.startsWith(prefix))
            out << line;
    }
    return out;
}

// The "RecvPack: RecvBuff......" line opens every wait for a request and may
// land on either side of a mark, so framing checks leave it out.
QStringList recvPackLines(int mark)
{
    QStringList out = linesStartingWith(ServiceHarness::logSince(mark), S("RecvPack:"));
    out.removeAll(S("RecvPack: RecvBuff......"));
    return out;
}

bool logged(const QString &line, int mark, int count = 1)
{
    return ServiceHarness::waitForLog(line, mark, count, 5000, true);
}

// One request; the response code, or 0xdead when none arrived.
quint32 ask(TestClient &c, quint32 op, const QByteArray &data = {}, QByteArray *out = nullptr)
{
    quint32 resp = 0xdead;
    QByteArray o;
    if (c.request(op, data, &resp, &o) != ZRUI_OK)
        return 0xdead;
    if (out)
        *out = o;
    return resp;
}

// Journal lines from the last Connect on; its context and device handles.
QStringList journalFromLastConnect(QString *ctx, QString *dev)
{
    const QStringList journal = ServiceHarness::journalLines();
    static const QRegularExpression connectLine(
            S("^Connect ctx=(\\d+) ref=0x[0-9a-f]{16} rc=0 dev=([1-9]\\d*)$"));
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

} // namespace

class TestServiceProtocol : public QObject
{
    Q_OBJECT

private slots:
    void initTestCase();
    void init();
    void cleanupTestCase() { QVERIFY(harness.stop()); }

    void testTransitions_data();
    void testTransitions();
    void testPinResult();
    void testListSelection_data();
    void testListSelection();
    void testRequestSplitOverThreeWrites();
    void testRequestDropped_data();
    void testRequestDropped();
    void testExactlyEightBytes();
    void testFullPacketWithoutTerminator();
    void testBeginSessionPassesDeviceReference();
    void testTokenPulledOut();
    void testDisconnectMidSession();
    void testMessageBoxLayout_data();
    void testMessageBoxLayout();
    void testMessageBoxWaitsForUser();
    void testPinRetry_data();
    void testPinRetry();
    void testSecondService_data();
    void testSecondService();
    void testStopEndsLoopWithinASecond();

private:
    bool runPath(TestClient &client, const QList<quint32> &ops, int answer = 1);
    int syncedMark() { return harness.recorder->size(); }

    QTemporaryDir tempDir;
    ServiceHarness harness;
};

void TestServiceProtocol::initTestCase()
{
    QVERIFY(tempDir.isValid());
    QVERIFY(harness.setUp(tempDir.path(), S("proto")));
}

void TestServiceProtocol::init()
{
    harness.autoMsgAnswer = ServiceHarness::NoAutoAnswer;
    QVERIFY(ServiceHarness::setTokenPresent(true));
}

bool TestServiceProtocol::runPath(TestClient &client, const QList<quint32> &ops, int answer)
{
    if (client.open(harness.appName()) != ZRUI_OK)
        return false;
    for (quint32 op : ops) {
        QByteArray out;
        const quint32 resp = ask(client, op, defaultData(op), &out);
        if (resp != expectedResponse(op, answer) || !out.isEmpty()) {
            qWarning("path op %u: response %u with %d data bytes", op, resp, int(out.size()));
            return false;
        }
    }
    return true;
}

void TestServiceProtocol::testTransitions_data()
{
    QTest::addColumn<QString>("path");
    QTest::addColumn<int>("answer"); // message status the user gives
    QTest::addColumn<QString>("allowed");
    QTest::addColumn<quint32>("probe");

    // The session state machine, one state per row of its table.
    const struct
    {
        const char *name;
        const char *path;
        int answer;
        const char *allowed;
    } states[] = {
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
            {"MessageBox cancelled", "1 14", 0, "2 14"},
            {"MessageBox other status", "1 14", 2, "2 14"},
    };
    for (const auto &s : states) {
        // Every allowed code, and a sample of the refused ones: out of range
        // on both sides and the first, middle and last refused request code.
        QList<quint32> probes = parseOps(S(s.allowed));
        QList<quint32> refused;
        for (quint32 op = 1; op <= 14; ++op) {
            if (!probes.contains(op))
                refused << op;
        }
        probes << 0 << 15 << 0xFFFFFFFFu << refused.first() << refused.at(refused.size() / 2)
               << refused.last();
        for (quint32 probe : probes) {
            QTest::addRow("%s: op %u", s.name, probe)
                    << S(s.path) << s.answer << S(s.allowed) << probe;
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
    const int mark = ServiceHarness::logMark();
    QByteArray out;

    if (!parseOps(allowed).contains(probe)) {
        QCOMPARE(ask(client, probe, defaultData(probe), &out), quint32(UI_STATE_ERROR));
        QCOMPARE(out.size(), 0);
        QVERIFY(client.waitClosed());
        QCOMPARE(ServiceHarness::countLog(S("StateMachine Err, operation  %1").arg(probe), mark,
                                          true),
                 1);
        return;
    }
    if (probe == REQ_Reserved_8 || probe == REQ_Reserved_12) {
        // No handler: no response at all, the connection just ends.
        QVERIFY(client.sendRaw(TestClient::packet(probe, defaultData(probe))));
        QByteArray extra;
        QVERIFY(client.waitClosed(5000, &extra));
        QCOMPARE(extra.toHex(), QByteArray());
        QVERIFY(logged(S("HandleClientRequest: unknown operation= %1").arg(probe), mark));
        return;
    }
    QCOMPARE(ask(client, probe, defaultData(probe), &out), expectedResponse(probe, answer));
    QCOMPARE(out.size(), 0);
    // Still served: a code that is never allowed gets its state error.
    QCOMPARE(ask(client, 0), quint32(UI_STATE_ERROR));
    QVERIFY(client.waitClosed());
}

void TestServiceProtocol::testPinResult()
{
    TestClient client;
    QVERIFY(runPath(client, {REQ_BeginSession, REQ_PIN_Show}));
    harness.fake.SetPINStatus(0, nullptr, 0);
    QByteArray out;
    QCOMPARE(ask(client, REQ_PIN_GetPIN, {}, &out), quint32(UI_USER_CANCEL));
    QCOMPARE(out.size(), 0);

    harness.fake.SetPINStatus(-1, nullptr, 0);
    const int mark = ServiceHarness::logMark();
    zrui_pin_result pin;
    QCOMPARE(zrui_pin_wait(client.handle(), 150, 20, &pin), ZRUI_E_TIMEOUT);
    QVERIFY(ServiceHarness::countLog(S("REQ_PIN_GetPIN "), mark, true) >= 2);
}

void TestServiceProtocol::testListSelection_data()
{
    QTest::addColumn<int>("status");
    QTest::addColumn<int>("index");
    QTest::addColumn<quint32>("response");
    QTest::addColumn<QByteArray>("data");

    QTest::newRow("chosen row 7") << 1 << 7 << quint32(UI_OK) << QByteArray::fromHex("07000000");
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
    QVERIFY(runPath(client, {REQ_BeginSession}));
    const int recMark = syncedMark();
    QCOMPARE(ask(client, REQ_List_Show, u32(0) + cstr("alpha|beta")), quint32(UI_OK));
    QTRY_VERIFY(harness.recorder->since(recMark).contains(S("show_list_dialog(0|alpha|beta)")));
    QCOMPARE(harness.fake.listStatusValue(), -1);

    harness.fake.SetListSelectStatus(status, index);
    const int mark = ServiceHarness::logMark();
    QByteArray out;
    QCOMPARE(ask(client, REQ_List_GetSel, {}, &out), response);
    QCOMPARE(out.toHex(), data.toHex());

    // One write of the whole response; a previous "Sended" line may trail past the mark.
    const QByteArray wire = u32(response) + u32(quint32(data.size())) + data;
    const QString sent = S("SendBuff: Send \"%1\"").arg(QString::fromLatin1(wire.toHex()));
    const auto sendLines
            = [mark] { return linesStartingWith(ServiceHarness::logSince(mark), S("SendBuff:")); };
    QTRY_COMPARE(sendLines().value(sendLines().indexOf(sent) + 1),
                 S("SendBuff: Sended writelen= %1").arg(wire.size()));
    QCOMPARE(linesStartingWith(sendLines(), S("SendBuff: Send ")), QStringList(sent));
}

void TestServiceProtocol::testRequestSplitOverThreeWrites()
{
    TestClient client;
    QVERIFY(runPath(client, {REQ_BeginSession}));
    const int recMark = syncedMark();
    const int mark = ServiceHarness::logMark();

    const QByteArray text = "Please press the button on the key|30";
    const QByteArray pkt = TestClient::packet(REQ_Waiting_Show, u32(4) + cstr(text));
    QVERIFY(client.sendRaw(pkt.left(10)));
    QVERIFY(logged(S("RecvPack: RecvBuff rcount= 10"), mark));
    QVERIFY(client.sendRaw(pkt.mid(10, 7)));
    QVERIFY(logged(S("RecvPack: RecvBuff rcount= 17"), mark));
    QVERIFY(client.sendRaw(pkt.mid(17)));
    quint32 resp = 0xdead;
    QByteArray data;
    QVERIFY(client.readResponse(&resp, &data));
    QCOMPARE(resp, quint32(UI_OK));
    QCOMPARE(data.size(), 0);

    QCOMPARE(recvPackLines(mark),
             QStringList({S("RecvPack: RecvBuff recvLen= 10 , sizeof(COMMPACK)= 8 , "
                            "((PCOMMPACK)pReqData)->datalen= %1")
                                  .arg(pkt.size() - 8),
                          S("RecvPack: RecvBuff rcount= 10"), S("RecvPack: RecvBuff recvLen= 7"),
                          S("RecvPack: RecvBuff rcount= 17"),
                          S("RecvPack: RecvBuff recvLen= %1").arg(pkt.size() - 17),
                          S("RecvPack: RecvBuff final rcount= %1").arg(pkt.size())}));
    QTRY_VERIFY(harness.recorder->since(recMark).contains(
            S("show_waiting_dialog(%1|4)").arg(QString::fromUtf8(text))));
}

void TestServiceProtocol::testRequestDropped_data()
{
    QTest::addColumn<QByteArray>("bytes");
    QTest::addColumn<QString>("lastRecvLen");
    QTest::addColumn<QString>("lastRcount"); // empty: the read loop never ran
    QTest::newRow("first read of 5 bytes")
            << TestClient::packet(REQ_BeginSession, defaultData(REQ_BeginSession)).left(5)
            << S("RecvPack: RecvBuff recvLen= 5 , sizeof(COMMPACK)= 8 , "
                 "((PCOMMPACK)pReqData)->datalen= 10")
            << QString();
    QTest::newRow("datalen above maximum")
            << TestClient::packet(REQ_Waiting_Show, QByteArray(COMMPACK_MAX_DATA + 1, 'A'))
            << S("RecvPack: RecvBuff recvLen= 0")
            << S("RecvPack: RecvBuff rcount= %1").arg(COMMPACK_MAX_SIZE);
}

void TestServiceProtocol::testRequestDropped()
{
    QFETCH(QByteArray, bytes);
    QFETCH(QString, lastRecvLen);
    QFETCH(QString, lastRcount);

    TestClient client;
    QVERIFY(runPath(client, {REQ_BeginSession}));
    const int mark = ServiceHarness::logMark();
    QVERIFY(client.sendRaw(bytes));
    QVERIFY(logged(S("RecvPack() failed"), mark));
    QByteArray extra;
    QVERIFY(client.waitClosed(5000, &extra));
    QCOMPARE(extra.toHex(), QByteArray()); // no response

    const QStringList lines = ServiceHarness::logSince(mark);
    const QStringList recvLens = linesStartingWith(lines, S("RecvPack: RecvBuff recvLen="));
    const QStringList rcounts = linesStartingWith(lines, S("RecvPack: RecvBuff rcount="));
    QCOMPARE(recvLens.value(recvLens.size() - 1), lastRecvLen);
    QCOMPARE(rcounts.value(rcounts.size() - 1), lastRcount);
    QCOMPARE(linesStartingWith(lines, S("REQ_")), QStringList());
    QCOMPARE(linesStartingWith(lines, S("SendBuff: Send ")), QStringList());
}

void TestServiceProtocol::testExactlyEightBytes()
{
    TestClient client;
    QCOMPARE(client.open(harness.appName()), ZRUI_OK);
    const int mark = ServiceHarness::logMark();
    QVERIFY(client.sendRaw(TestClient::packet(REQ_BeginSession)));
    quint32 resp = 0xdead;
    QVERIFY(client.readResponse(&resp, nullptr));
    QCOMPARE(resp, quint32(UI_OK));
    QCOMPARE(recvPackLines(mark),
             QStringList({S("RecvPack: RecvBuff recvLen= 8 , sizeof(COMMPACK)= 8 , "
                            "((PCOMMPACK)pReqData)->datalen= 0"),
                          S("RecvPack: RecvBuff final rcount= 8")}));
    // Parameters come from the zero-filled buffer.
    QString ctx, dev;
    const QStringList journal = journalFromLastConnect(&ctx, &dev);
    QVERIFY2(journal.value(0).contains(S(" ref=0x0000000000000000 rc=0 dev=")),
             qPrintable(journal.join(QLatin1Char('\n'))));
    const int recMark = syncedMark();
    QCOMPARE(ask(client, REQ_PIN_Show), quint32(UI_OK));
    QCOMPARE(ask(client, REQ_Waiting_Show), quint32(UI_OK));
    QTRY_COMPARE(harness.recorder->since(recMark),
                 QStringList({S("show_pin_dialog(0)"), S("show_waiting_dialog(|0)")}));
}

void TestServiceProtocol::testFullPacketWithoutTerminator()
{
    TestClient client;
    QVERIFY(runPath(client, {REQ_BeginSession}));
    const int recMark = syncedMark();
    const QByteArray text(COMMPACK_MAX_DATA - 4, 'B');
    QCOMPARE(ask(client, REQ_Waiting_Show, u32(2) + text), quint32(UI_OK));
    QTRY_COMPARE(harness.recorder->since(recMark).value(0),
                 S("show_waiting_dialog(%1|2)").arg(QString::fromLatin1(text)));
}

void TestServiceProtocol::testBeginSessionPassesDeviceReference()
{
    TestClient client;
    QCOMPARE(client.open(harness.appName()), ZRUI_OK);
    QCOMPARE(ask(client, REQ_BeginSession, u32(0xBEEF).left(2) + u64(0x8877665544332211ULL)),
             quint32(UI_OK));
    QString ctx1, dev1;
    QStringList journal = journalFromLastConnect(&ctx1, &dev1);
    QVERIFY2(journal.value(0).contains(S(" ref=0x8877665544332211 rc=0 ")),
             qPrintable(journal.value(0)));

    // A second BeginSession overwrites the handles; only the last pair is released.
    QCOMPARE(zrui_end_session(client.handle()), ZRUI_OK);
    QCOMPARE(zrui_begin_session(client.handle(), 0x0102030405060708ULL), ZRUI_OK);
    QString ctx2, dev2;
    journal = journalFromLastConnect(&ctx2, &dev2);
    QVERIFY2(journal.value(0).contains(S(" ref=0x0102030405060708 rc=0 ")),
             qPrintable(journal.value(0)));
    QVERIFY(dev2 != dev1);
    client.close();

    QTRY_COMPARE(journalFromLastConnect(&ctx2, &dev2).mid(1),
                 QStringList({S("Disconnect dev=%1 rc=0").arg(dev2),
                              S("ReleaseContext ctx=%1 rc=0").arg(ctx2)}));
    const QStringList all = ServiceHarness::journalLines();
    QVERIFY(!all.contains(S("Disconnect dev=%1 rc=0").arg(dev1)));
    QVERIFY(!all.contains(S("ReleaseContext ctx=%1 rc=0").arg(ctx1)));
}

void TestServiceProtocol::testTokenPulledOut()
{
    TestClient client;
    QVERIFY(runPath(client, {REQ_BeginSession}));
    const int recMark = syncedMark();
    QVERIFY(ServiceHarness::setTokenPresent(false));

    QByteArray out;
    QCOMPARE(ask(client, REQ_PIN_Show, u32(1), &out), quint32(UI_TOKEN_NOT_PRESENT));
    QCOMPARE(out.size(), 0);
    QVERIFY(client.waitClosed());
    QString ctx, dev;
    QTRY_COMPARE(journalFromLastConnect(&ctx, &dev).mid(1),
                 QStringList({S("IsDevPresent dev=%1 rc=1").arg(dev),
                              S("Disconnect dev=%1 rc=0").arg(dev),
                              S("ReleaseContext ctx=%1 rc=0").arg(ctx)}));
    QTRY_COMPARE(harness.recorder->since(recMark),
                 QStringList({S("hide_pin_dialog()"), S("hide_waiting_dialog()"),
                              S("hide_list_dialog()"), S("hide_message_dialog()")}));
    QTRY_VERIFY(harness.recorder->since(recMark, true).contains(S("startExitTimer()")));
}

void TestServiceProtocol::testDisconnectMidSession()
{
    {
        TestClient client;
        QVERIFY(runPath(client, {REQ_BeginSession, REQ_PIN_Show}));
        const int recMark = syncedMark();
        const int mark = ServiceHarness::logMark();
        client.close();

        QTRY_COMPARE(harness.recorder->since(recMark),
                     QStringList({S("pipe_comm_failed()"), S("hide_pin_dialog()"),
                                  S("hide_waiting_dialog()"), S("hide_list_dialog()"),
                                  S("hide_message_dialog()")}));
        QTRY_VERIFY(harness.recorder->since(recMark, true).contains(S("startExitTimer()")));
        QVERIFY(logged(S("RecvPack() failed"), mark));
        QString ctx, dev;
        QTRY_COMPARE(journalFromLastConnect(&ctx, &dev).mid(1),
                     QStringList({S("IsDevPresent dev=%1 rc=0").arg(dev),
                                  S("Disconnect dev=%1 rc=0").arg(dev),
                                  S("ReleaseContext ctx=%1 rc=0").arg(ctx)}));
    }
    TestClient next;
    QCOMPARE(next.open(harness.appName()), ZRUI_OK);
    QCOMPARE(ask(next, REQ_PIN_Show, u32(1)), quint32(UI_STATE_ERROR));
    QVERIFY(next.waitClosed());
}

void TestServiceProtocol::testMessageBoxLayout_data()
{
    QTest::addColumn<QByteArray>("title");
    QTest::addColumn<QByteArray>("text");
    QTest::addColumn<QString>("shown"); // title|text as the dialog gets them

    QTest::newRow("ascii") << QByteArray("Warning") << QByteArray("Remove the key")
                           << S("Warning|Remove the key");
    QTest::newRow("empty title") << QByteArray() << QByteArray("only text") << S("|only text");
    // Non-ASCII titles: the text is read 13 + UTF-16 length into the packet.
    QTest::newRow("chinese title") << QByteArray("中文") << QByteArray("hello") << S("中文|文");
    QTest::newRow("emoji title") << QByteArray("\xF0\x9F\x98\x80") << QByteArray("hi")
                                 << S("\xF0\x9F\x98\x80|\xEF\xBF\xBD");
}

void TestServiceProtocol::testMessageBoxLayout()
{
    QFETCH(QByteArray, title);
    QFETCH(QByteArray, text);
    QFETCH(QString, shown);

    harness.autoMsgAnswer = 1;
    TestClient client;
    QVERIFY(runPath(client, {REQ_BeginSession}));
    const int recMark = syncedMark();
    QCOMPARE(ask(client, REQ_MessageBox, u32(0x01020304) + cstr(title) + cstr(text)),
             quint32(UI_OK));
    QTRY_COMPARE(harness.recorder->since(recMark),
                 QStringList(S("show_message_dialog(%1|16909060)").arg(shown)));
}

void TestServiceProtocol::testMessageBoxWaitsForUser()
{
    TestClient client;
    QVERIFY(runPath(client, {REQ_BeginSession}));
    const int recMark = syncedMark();
    const int mark = ServiceHarness::logMark();
    QVERIFY(client.sendRaw(TestClient::packet(REQ_MessageBox, u32(3) + cstr("T") + cstr("wait"))));
    QTRY_COMPARE(harness.recorder->since(recMark), QStringList(S("show_message_dialog(T|wait|3)")));
    QVERIFY(logged(S("wait for the message answer, msgStatus= -1"), mark, 3));
    QVERIFY(!client.waitReadable(0));
    harness.fake.SetMsgStatus(0);
    quint32 resp = 0xdead;
    QVERIFY(client.readResponse(&resp, nullptr));
    QCOMPARE(resp, quint32(UI_OK));
    QCOMPARE(ask(client, REQ_EndSession), quint32(UI_OK));
}

void TestServiceProtocol::testPinRetry_data()
{
    QTest::addColumn<quint32>("tries");
    QTest::addColumn<QString>("text");
    QTest::newRow("3") << 3u << S("There are 3 times remaining");
    QTest::newRow("0") << 0u << S("There are 0 times remaining");
    QTest::newRow("default forbidden") << 0xFFFFFFFFu << S("Default PIN Is Forbidden");
}

void TestServiceProtocol::testPinRetry()
{
    QFETCH(quint32, tries);
    QFETCH(QString, text);

    harness.autoMsgAnswer = 1;
    TestClient client;
    QVERIFY(runPath(client, {REQ_BeginSession}));
    QCOMPARE(ask(client, REQ_PIN_Show, u32(4)), quint32(UI_OK));
    QCOMPARE(ask(client, REQ_PIN_GetPIN), quint32(UI_NO_RESULT));
    const int recMark = syncedMark();
    QCOMPARE(zrui_pin_retry(client.handle(), tries), ZRUI_OK);
    QTRY_COMPARE(harness.recorder->since(recMark),
                 QStringList({S("show_message_dialog(USBKey password error|%1|5)").arg(text),
                              S("show_pin_dialog(4)")}));
    QCOMPARE(harness.fake.pinStatusValue(), -1);
}

void TestServiceProtocol::testSecondService_data()
{
    QTest::addColumn<int>("nameLength"); // of name + uid; 0: the running service's name
    QTest::addColumn<bool>("listens");
    QTest::newRow("106 bytes") << 106 << true;
    QTest::newRow("107 bytes") << 107 << false;
    QTest::newRow("same name") << 0 << false;
}

void TestServiceProtocol::testSecondService()
{
    QFETCH(int, nameLength);
    QFETCH(bool, listens);

    const QString uid = QString::number(getuid());
    const QString prefix = ServiceHarness::uniqueAppName(S("long"));
    const QString app
            = nameLength == 0
                      ? harness.appName()
                      : prefix + QString(nameLength - uid.size() - prefix.size(), QLatin1Char('x'));
    const int mark = ServiceHarness::logMark();
    ServiceHarness other;
    QVERIFY(other.start(app, !listens));
    QCOMPARE(ServiceHarness::countLog(S("genPipeName: \"%1%2\"").arg(app, uid), mark, true), 1);
    if (listens) {
        TestClient client;
        QCOMPARE(client.open(app), ZRUI_OK);
        QCOMPARE(ask(client, REQ_BeginSession, defaultData(REQ_BeginSession)), quint32(UI_OK));
    } else {
        const QStringList lines = ServiceHarness::logSince(mark);
        const int bindFailed = lines.indexOf(S("bind() failed"));
        QCOMPARE(lines.count(S("bind() failed")), 1);
        if (nameLength > 0)
            QCOMPARE(lines.value(bindFailed - 1), S("makeAddr() failed"));
        QTRY_COMPARE(other.recorder->events(),
                     QStringList({S("startExitTimer()"), S("start_pipe_failed()")}));
    }
    QVERIFY(other.stop());
    TestClient client;
    QVERIFY(runPath(client, {REQ_BeginSession, REQ_EndSession}));
}

void TestServiceProtocol::testStopEndsLoopWithinASecond()
{
    ServiceHarness other;
    QVERIFY(other.start(ServiceHarness::uniqueAppName(S("stop"))));
    const int mark = ServiceHarness::logMark();
    QElapsedTimer timer;
    timer.start();
    other.service->StopPipeListening();
    const QString exited = S("Pipe Listening Exited, Exit Application");
    QVERIFY(ServiceHarness::waitForLog(exited, mark, 1, 3000, true));
    QVERIFY2(timer.elapsed() < 2000, qPrintable(QString::number(timer.elapsed())));
    QVERIFY(!ServiceHarness::isListening(other.socketName()));
    QVERIFY(other.stop());
}

QTEST_GUILESS_MAIN(TestServiceProtocol)
#include "TestServiceProtocol.moc"
