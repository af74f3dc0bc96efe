#pragma once

#include "FakeUiStatus.h"
#include "client/zrui_client.h"

#include <QByteArray>
#include <QString>
#include <QStringList>
#include <QThread>

#include <atomic>
#include <climits>

class FIFO_Service;
class SignalRecorder;

/**
 * Runs the real FIFO_Service in a QThread of its own, as the coordinator
 * does, with FakeUiStatus as its status handler and the
 * stand-in token libraries bound through the real loader. Clients talk to
 * it over the real abstract socket. The log is captured in memory
 * (process-wide message handler), so tests can wait for exact lines.
 */
class ServiceHarness
{
public:
    static constexpr int NoAutoAnswer = INT_MIN;

    ServiceHarness() = default;
    ~ServiceHarness();
    ServiceHarness(const ServiceHarness &) = delete;
    ServiceHarness &operator=(const ServiceHarness &) = delete;

    // Once per test: installs the log capture (with alsoLogFile every line
    // also goes through the program's own sink, /tmp/uilog.txt), points the
    // stand-in at a private tokensim.ini (ZRTOKENSIM_CONF) in dir with a
    // journal beside it, binds it through LoadLib_ZRKAPI and starts this
    // service under a unique name.
    bool setUp(const QString &dir, const QString &tag, bool alsoLogFile = false);
    // Rewrites that file atomically (the stand-in re-reads it on every call).
    static bool setTokenPresent(bool present);
    static QStringList journalLines();

    static int logMark(); // number of lines so far
    static QStringList logSince(int mark);
    // Lines after mark that contain text (exact: equal to it).
    static int countLog(const QString &text, int mark = 0, bool exact = false);
    static bool waitForLog(const QString &text, int mark = 0, int count = 1, int timeoutMs = 5000,
                           bool exact = false);

    static QString uniqueAppName(const QString &tag);

    // Sets the application name, starts the thread and the accept loop and
    // waits until the socket listens or start_pipe_failed() arrives; true
    // when the outcome is the expected one (the name of a start expected to
    // fail may well be listening, through another service).
    bool start(const QString &appName, bool expectFailure = false);
    // StopPipeListening() and waits for the thread to end. False on time-out.
    bool stop(int timeoutMs = 5000);
    QString socketName() const;
    QString appName() const { return name; }

    FakeUiStatus fake;
    FIFO_Service *service = nullptr;
    SignalRecorder *recorder = nullptr;
    QThread thread;
    // When set, every show_message_dialog() is answered at once, in the
    // service thread, with this message status (as a user would).
    std::atomic<int> autoMsgAnswer{NoAutoAnswer};

private:
    QString name;
    bool running = false;
    std::atomic<bool> threadDone{false};
};

/**
 * One client connection for tests, on top of the client library. Every read
 * has a deadline, so no test can hang on a missing response.
 */
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

    // One request/response through zrui_request; data of the response in out.
    int request(quint32 op, const QByteArray &data, quint32 *resp, QByteArray *out = nullptr);
    bool sendRaw(const QByteArray &bytes);
    // Reads one response header (+ its data, into data when given).
    bool readResponse(quint32 *resp, QByteArray *data, int timeoutMs = 5000);
    // True when the server has closed the connection within the deadline.
    // Bytes that arrive first are returned in extra.
    bool waitClosed(int timeoutMs = 5000, QByteArray *extra = nullptr);
    // True when at least one byte is waiting within the deadline.
    bool waitReadable(int timeoutMs);

    // Header (datalen = data's size) and data.
    static QByteArray packet(quint32 op, const QByteArray &data = QByteArray());

private:
    zrui_conn *h = nullptr;
};
