#include "ServiceHarness.h"

#include "ServerLauncher.h"
#include "SignalRecorder.h"
#include "app/LogSink.h"
#include "app/TokenLibs.h"
#include "service/FIFO_Service.h"

#include <QCoreApplication>
#include <QDir>
#include <QElapsedTimer>
#include <QFile>
#include <QSaveFile>
#include <QTest>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <mutex>

#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

namespace {

// std::mutex, not QMutex: ThreadSanitizer sees pthread locking but not the
// futex fast path of an uninstrumented QtCore.
std::mutex logMutex;
QStringList capturedLog;
bool forwardToLogFile = false;
QString tokenSimIni;
QString tokenSimJournal;

void captureHandler(QtMsgType type, const QMessageLogContext &context, const QString &message)
{
    {
        std::lock_guard<std::mutex> locker(logMutex);
        capturedLog << message;
    }
    if (forwardToLogFile)
        printlogtofile(type, context, message);
}


} // namespace

ServiceHarness::~ServiceHarness()
{
    // A running thread must not be destroyed: end the run loudly instead.
    if (!stop(10000)) {
        fprintf(stderr, "ServiceHarness: service thread did not stop\n");
        abort();
    }
}

bool ServiceHarness::setUp(const QString &dir, const QString &tag, bool alsoLogFile)
{
    forwardToLogFile = alsoLogFile;
    qInstallMessageHandler(captureHandler);
    tokenSimIni = QDir(dir).filePath(QStringLiteral("tokensim.ini"));
    tokenSimJournal = QDir(dir).filePath(QStringLiteral("journal.txt"));
    qputenv("ZRTOKENSIM_CONF", QFile::encodeName(tokenSimIni));
    qunsetenv("ZRTOKENSIM_JOURNAL");
    QByteArray libDir = qgetenv("ZRUI_TOKENSIM_DIR");
    if (dir.isEmpty() || !setTokenPresent(true) || libDir.isEmpty()
        || LoadLib_ZRKAPI(0, libDir.data()) != 1) {
        qWarning("token stand-in not set up (ZRUI_TOKENSIM_DIR: %s)", libDir.constData());
        return false;
    }
    return start(uniqueAppName(tag));
}

bool ServiceHarness::setTokenPresent(bool present)
{
    QSaveFile file(tokenSimIni);
    if (!file.open(QIODevice::WriteOnly))
        return false;
    file.write("[pin]\nmin=6\nmax=16\n[token]\npresent=" + QByteArray(present ? "1" : "0")
               + "\n[journal]\npath=" + QFile::encodeName(tokenSimJournal) + "\n");
    return file.commit();
}

QStringList ServiceHarness::journalLines()
{
    QFile file(tokenSimJournal);
    if (!file.open(QIODevice::ReadOnly))
        return QStringList();
    return QString::fromUtf8(file.readAll()).split(QLatin1Char('\n'), Qt::SkipEmptyParts);
}

int ServiceHarness::logMark()
{
    std::lock_guard<std::mutex> locker(logMutex);
    return capturedLog.size();
}

QStringList ServiceHarness::logSince(int mark)
{
    std::lock_guard<std::mutex> locker(logMutex);
    return capturedLog.mid(mark);
}

int ServiceHarness::countLog(const QString &text, int mark, bool exact)
{
    int n = 0;
    for (const QString &line : logSince(mark))
        n += (exact ? line == text : line.contains(text)) ? 1 : 0;
    return n;
}

bool ServiceHarness::waitForLog(const QString &text, int mark, int count, int timeoutMs, bool exact)
{
    return QTest::qWaitFor([&] { return countLog(text, mark, exact) >= count; }, timeoutMs);
}

QString ServiceHarness::uniqueAppName(const QString &tag)
{
    static int counter = 0;
    return QStringLiteral("svct%1_%2_%3").arg(getpid()).arg(++counter).arg(tag);
}

bool ServiceHarness::start(const QString &appName, bool expectFailure)
{
    name = appName;
    QCoreApplication::setApplicationName(appName);
    service = new FIFO_Service(&fake, nullptr);
    recorder = new SignalRecorder(service);
    QObject::connect(
            service, &FIFO_Service::show_message_dialog, &fake,
            [this](const QString &, const QString &, unsigned long) {
                const int answer = autoMsgAnswer.load();
                if (answer != NoAutoAnswer)
                    fake.SetMsgStatus(answer);
            },
            Qt::DirectConnection);
    // Emitted by the service thread as its last act: the release/acquire
    // pair shows ThreadSanitizer that the thread's work is over before the
    // service is deleted (QThread::wait() synchronises inside QtCore, which
    // is not instrumented).
    threadDone = false;
    QObject::connect(
            &thread, &QThread::finished, &fake,
            [this] { threadDone.store(true, std::memory_order_release); }, Qt::DirectConnection);
    service->moveToThread(&thread);
    thread.start();
    running = true;
    QMetaObject::invokeMethod(service, "CreatePipeAndListen", Qt::QueuedConnection);

    bool failed = false;
    const bool settled = QTest::qWaitFor(
            [&] {
                failed = recorder->events().contains(QStringLiteral("start_pipe_failed()"));
                return failed || (!expectFailure && ServerLauncher::isListening(socketName()));
            },
            5000);
    return settled && failed == expectFailure;
}

bool ServiceHarness::stop(int timeoutMs)
{
    if (!running)
        return true;
    service->StopPipeListening();
    // A message box still waiting for its answer would block the thread.
    if (fake.GetMsgStatus() == -1)
        fake.SetMsgStatus(1);
    thread.quit();
    if (!QTest::qWaitFor([this] { return threadDone.load(std::memory_order_acquire); }, timeoutMs))
        return false;
    thread.wait();
    running = false;
    delete recorder;
    recorder = nullptr;
    delete service;
    service = nullptr;
    return true;
}

QString ServiceHarness::socketName() const { return name + QString::number(getuid()); }

int TestClient::open(const QString &serverName)
{
    close();
    const int rc = zrui_open(serverName.toUtf8().constData(), &h);
    if (rc == ZRUI_OK)
        zrui_set_timeout(h, 5000);
    return rc;
}

void TestClient::close()
{
    zrui_close(h);
    h = nullptr;
}

int TestClient::request(quint32 op, const QByteArray &data, quint32 *resp, QByteArray *out)
{
    QByteArray buf(COMMPACK_MAX_DATA, '\0');
    uint32_t len = 0;
    const int rc = zrui_request(h, op, data.constData(), uint32_t(data.size()), resp, buf.data(),
                                uint32_t(buf.size()), &len);
    if (out)
        *out = rc == ZRUI_OK ? buf.left(int(len)) : QByteArray();
    return rc;
}

bool TestClient::sendRaw(const QByteArray &bytes)
{
    return zrui_send_raw(h, bytes.constData(), size_t(bytes.size())) == ZRUI_OK;
}

bool TestClient::readResponse(quint32 *resp, QByteArray *data, int timeoutMs)
{
    if (!waitReadable(timeoutMs))
        return false;
    COMMPACK hdr;
    if (zrui_recv_raw(h, &hdr, sizeof hdr) != ZRUI_OK || hdr.datalen > COMMPACK_MAX_DATA)
        return false;
    QByteArray body(int(hdr.datalen), '\0');
    if (hdr.datalen && zrui_recv_raw(h, body.data(), hdr.datalen) != ZRUI_OK)
        return false;
    *resp = hdr.operation;
    if (data)
        *data = body;
    return true;
}

bool TestClient::waitReadable(int timeoutMs)
{
    pollfd p = {zrui_fd(h), POLLIN, 0};
    QElapsedTimer timer;
    timer.start();
    for (;;) {
        const int remaining = int(qMax<qint64>(0, timeoutMs - timer.elapsed()));
        const int n = poll(&p, 1, remaining);
        if (n > 0)
            return true;
        if (n == 0 || errno != EINTR)
            return false;
    }
}

bool TestClient::waitClosed(int timeoutMs, QByteArray *extra)
{
    QElapsedTimer timer;
    timer.start();
    for (;;) {
        const int remaining = int(qMax<qint64>(0, timeoutMs - timer.elapsed()));
        if (!waitReadable(remaining))
            return false;
        char buf[4096];
        const ssize_t n = read(zrui_fd(h), buf, sizeof buf);
        if (n == 0)
            return true;
        if (n < 0) {
            if (errno == EINTR || errno == EAGAIN)
                continue;
            // The server closed while bytes of ours were still unread.
            return errno == ECONNRESET;
        }
        if (extra)
            extra->append(buf, int(n));
    }
}

QByteArray TestClient::packet(quint32 op, const QByteArray &data)
{
    const quint32 len = quint32(data.size());
    return QByteArray(reinterpret_cast<const char *>(&op), 4)
           + QByteArray(reinterpret_cast<const char *>(&len), 4) + data;
}
