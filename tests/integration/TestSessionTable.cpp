#include "ServiceHarness.h"
#include "service/Protocol.h"
#include "service/SessionTable.h"

#include <QTemporaryDir>
#include <QtTest>

#include <queue>

using namespace SessionTable;

namespace {

constexpr int kRows = int(sizeof Transitions / sizeof Transitions[0]);
// The state of a fresh connection, walked like a row with an empty route.
constexpr int kConnectionStart = -1;

// The user's answer that selects a row: its own, or a status above 1.
int answerOf(int row)
{
    return row < 0 || Transitions[row].answer == AnyAnswer ? 2 : Transitions[row].answer;
}

/**
 * For every row, the shortest sequence of rows that a fresh connection
 * walks to end just after it (breadth-first over the table's states).
 */
QVector<QVector<int>> routes()
{
    QVector<QVector<int>> route(kRows);
    QSet<OpSet> seen{Start};
    std::queue<std::pair<OpSet, QVector<int>>> todo;
    todo.push({Start, {}});
    while (!todo.empty()) {
        const auto [state, path] = todo.front();
        todo.pop();
        for (int row = 0; row < kRows; ++row) {
            if (!allows(state, Transitions[row].operation) || !route[row].isEmpty())
                continue;
            route[row] = path + QVector<int>{row};
            if (!seen.contains(Transitions[row].next)) {
                seen.insert(Transitions[row].next);
                todo.push({Transitions[row].next, route[row]});
            }
        }
    }
    return route;
}

} // namespace

class TestSessionTable : public QObject
{
    Q_OBJECT
private slots:
    void initTestCase()
    {
        QVERIFY(tempDir.isValid());
        QVERIFY(harness.setUp(tempDir.path(), QStringLiteral("table")));
    }
    void cleanupTestCase() { QVERIFY(harness.stop()); }
    void testTransition_data();
    void testTransition();

private:
    bool step(TestClient &client, int row);

    QTemporaryDir tempDir;
    ServiceHarness harness;
    const QVector<QVector<int>> route = routes();
};

// One request of the route, header only: handlers read their fields from the
// zero-filled request buffer. Any response but a state error lets it go on.
bool TestSessionTable::step(TestClient &client, int row)
{
    const quint32 op = Transitions[row].operation;
    harness.autoMsgAnswer = answerOf(row);
    quint32 resp = UI_STATE_ERROR;
    if (!client.sendRaw(TestClient::packet(op)) || !client.readResponse(&resp, nullptr)
        || resp == UI_STATE_ERROR) {
        qWarning("route step op %u (row %d): response %u", op, row, resp);
        return false;
    }
    return true;
}

void TestSessionTable::testTransition_data()
{
    QTest::addColumn<int>("row");
    QTest::addColumn<quint32>("probe");

    // Every request code, none and the first past the last, and codes that a
    // set kept in a word would alias to allowed ones.
    QList<quint32> probes;
    for (quint32 op = 0; op <= 15; ++op)
        probes << op;
    probes << 33 << 65 << 0xFFFFFFFFu;
    for (int row = kConnectionStart; row < kRows; ++row) {
        for (const quint32 probe : probes) {
            const QByteArray state
                    = row == kConnectionStart
                              ? QByteArray("start")
                              : "op " + QByteArray::number(Transitions[row].operation) + " answer "
                                        + QByteArray::number(answerOf(row));
            QTest::addRow("%s: op %u", state.constData(), probe) << row << probe;
        }
    }
}

void TestSessionTable::testTransition()
{
    QFETCH(int, row);
    QFETCH(quint32, probe);

    TestClient client;
    QCOMPARE(client.open(harness.appName()), int(ZRUI_OK));
    if (row != kConnectionStart) {
        QVERIFY2(!route[row].isEmpty(), "row unreachable from a fresh connection");
        for (const int r : route[row])
            QVERIFY(step(client, r));
    }
    const OpSet allowed = row == kConnectionStart ? Start : Transitions[row].next;
    harness.autoMsgAnswer = answerOf(row);
    QVERIFY(client.sendRaw(TestClient::packet(probe)));

    QByteArray extra;
    if (!allows(allowed, probe)) {
        quint32 resp = 0;
        QVERIFY(client.readResponse(&resp, &extra));
        QCOMPARE(resp, quint32(UI_STATE_ERROR));
        QCOMPARE(extra.size(), 0);
        QVERIFY(client.waitClosed());
    } else if (probe == REQ_Reserved_8 || probe == REQ_Reserved_12) {
        // Allowed, but no handler: the connection ends without a response.
        QVERIFY(client.waitClosed(5000, &extra));
        QCOMPARE(extra.size(), 0);
    } else {
        quint32 resp = UI_STATE_ERROR;
        QVERIFY(client.readResponse(&resp, nullptr));
        QVERIFY(resp != UI_STATE_ERROR);
    }
}

QTEST_GUILESS_MAIN(TestSessionTable)
#include "TestSessionTable.moc"
