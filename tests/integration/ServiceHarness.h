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
 * does, with FakeUiStatus behind dynamic_cast<UiStatusHandler*> and the
 * stand-in token libraries bound through the real loader. Clients talk to
 * it over the real abstract socket.
 *
 * The log is captured in memory (process-wide message handler), so tests
 * can wait for exact lines without the shared log file.
 */
class ServiceHarness
{
public:
    static constexpr int NoAutoAnswer = INT_MIN;

    ServiceHarness();
    ~ServiceHarness();
    ServiceHarness(const ServiceHarness &) = delete;
    ServiceHarness &operator=(const ServiceHarness &) = delete;

    // --- process-wide set-up ---

    // Installs the capturing message handler; with alsoLogFile every line
    // also goes through the program's own log sink (/tmp/uilog.txt).
    static void installLogCapture(bool alsoLogFile = false);
    // Binds the stand-in device library through LoadLib_ZRKAPI (once).
    static bool loadTokenLibrary();
    // Points the stand-in at a private tokensim.ini (ZRTOKENSIM_CONF) with a
    // journal beside it; call once before any service starts.
    static bool useTokenSimConfig(const QString &dir);
    // Rewrites that file atomically (the stand-in re-reads it on every call).
    static bool setTokenPresent(bool present);
    static QString journalPath();
    static QStringList journalLines();

    // --- captured log ---

    static int logMark(); // number of lines so far
    static QStringList logSince(int mark);
    // Lines after mark that contain text (exact: equal to it).
    static int countLog(const QString &text, int mark = 0, bool exact = false);
    static bool waitForLog(const QString &text, int mark = 0, int count = 1, int timeoutMs = 5000,
                           bool exact = false);
    // Index (absolute) of the first line at or after from that equals/contains text, or -1.
    static int findLog(const QString &text, int from = 0, bool exact = false);

    // --- helpers ---

    static QString uniqueAppName(const QString &tag);
    // True when an abstract stream socket of that name listens (/proc/net/unix).
    static bool isListening(const QString &abstractName);

    // --- this service ---

    // Sets the application name, starts the thread and the accept loop and
    // waits until the socket listens (true) or start_pipe_failed() (false).
    bool start(const QString &appName, int timeoutMs = 5000);
    // The same, for a start that must fail: true once start_pipe_failed()
    // arrived (the name may well be listening, through another service).
    bool startExpectingFailure(const QString &appName, int timeoutMs = 5000);
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
    void launch(const QString &appName);

    QString name;
    bool running = false;
    std::atomic<bool> threadDone{false};
};

/**
 * One client connection for tests, on top of the client library. Every read
 * has a deadline (SO_RCVTIMEO), so no test can hang on a missing response.
 */
class TestClient
{
public:
    TestClient() = default;
    ~TestClient();
    TestClient(const TestClient &) = delete;
    TestClient &operator=(const TestClient &) = delete;

    int open(const QString &serverName, int timeoutMs = 5000);
    void close();
    zrui_conn *handle() const { return h; }
    int fd() const;

    // One request/response through zrui_request; data of the response in out.
    int request(quint32 op, const QByteArray &data, quint32 *resp, QByteArray *out = nullptr);
    bool sendRaw(const QByteArray &bytes);
    // Reads one response header (+ its data) with a deadline.
    bool readResponse(quint32 *resp, QByteArray *data, int timeoutMs = 5000);
    // True when the server has closed the connection within the deadline.
    // Bytes that arrive first are returned in extra.
    bool waitClosed(int timeoutMs = 5000, QByteArray *extra = nullptr);
    // True when at least one byte is waiting within the deadline.
    bool waitReadable(int timeoutMs);

    static QByteArray packet(quint32 op, const QByteArray &data = QByteArray());
    static QByteArray packet(quint32 op, quint32 declaredLength, const QByteArray &data);

private:
    zrui_conn *h = nullptr;
};
