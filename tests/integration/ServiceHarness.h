#pragma once

#include "FakeUiStatus.h"
#include "client/zrui_client.h"

#include <QStringList>
#include <QThread>

#include <atomic>
#include <climits>
#include <mutex>

class FIFO_Service;

/**
 * The real FIFO_Service in a QThread of its own, as the coordinator runs it,
 * with FakeUiStatus as its status handler and the stand-in token libraries bound through
 * the real loader; clients talk to it over the real abstract socket. The log
 * is captured in memory (process-wide), the service's signals are recorded as
 * texts such as "show_pin_dialog(3)".
 */
class ServiceHarness
{
public:
    static constexpr int NoAutoAnswer = INT_MIN;

    ServiceHarness() = default;
    ~ServiceHarness();
    ServiceHarness(const ServiceHarness &) = delete;
    ServiceHarness &operator=(const ServiceHarness &) = delete;

    // Once per test: captures the log (alsoLogFile: through the program's own
    // sink to /tmp/uilog.txt too), points the stand-in at dir/tokensim.ini
    // (journal beside it), binds it and starts a service named after tag.
    bool setUp(const QString &dir, const QString &tag, bool alsoLogFile = false);
    static bool setTokenPresent(bool present); // the stand-in re-reads it on every call
    static QStringList journalLines();

    static int logMark() { return logSince(0).size(); }
    static QStringList logSince(int mark);
    // Lines after mark containing text (exact: equal to it).
    static int countLog(const QString &text, int mark = 0, bool exact = false);
    static bool waitForLog(const QString &text, int mark = 0, int count = 1, bool exact = true);
    static QString uniqueAppName(const QString &tag);

    // Starts the thread and the accept loop; true when it listens, or with
    // expectFailure, when start_pipe_failed() arrives.
    bool start(const QString &appName, bool expectFailure = false);
    bool stop(int timeoutMs = 5000); // false when the thread did not end
    QString socketName() const;
    QString appName() const { return name; }

    // Recorded signals after the first `from`; startExitTimer()/stopExitTimer()
    // only with withExitTimer (they trail their response and may cross marks).
    QStringList events(int from = 0, bool withExitTimer = false) const;
    int eventCount() const { return events(0, true).size(); }

    FakeUiStatus fake;
    FIFO_Service *service = nullptr;
    QThread thread;
    // When set, every show_message_dialog() is answered at once with this status.
    std::atomic<int> autoMsgAnswer{NoAutoAnswer};

private:
    QString name;
    bool running = false;
    std::atomic<bool> threadDone{false};
    mutable std::mutex eventMutex; // std::mutex: visible to ThreadSanitizer
    QStringList recorded;
};

// One client connection on top of the client library; every read has a deadline.
class TestClient
{
public:
    TestClient() = default;
    ~TestClient() { close(); }
    TestClient(const TestClient &) = delete;
    TestClient &operator=(const TestClient &) = delete;

    int open(const QString &serverName);
    void close();
    zrui_conn *handle() const { return h; }

    // One request/response; the response code, or 0xdead when none came.
    quint32 ask(quint32 op, const QByteArray &data = QByteArray(), QByteArray *out = nullptr);
    bool sendRaw(const QByteArray &bytes);
    bool readResponse(quint32 *resp, QByteArray *data, int timeoutMs = 5000);
    // True when the server closed within the deadline; bytes before that go to extra.
    bool waitClosed(int timeoutMs = 5000, QByteArray *extra = nullptr);
    bool waitReadable(int timeoutMs);
    static QByteArray packet(quint32 op, const QByteArray &data = QByteArray());

private:
    zrui_conn *h = nullptr;
};
