#include "ServiceHarness.h"

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
#include <cstring>
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
bool echoLog = false;
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
    if (echoLog)
        fprintf(stderr, "LOG: %s\n", qPrintable(message));
}

bool lineMatches(const QString &line, const QString &text, bool exact)
{
    return exact ? line == text : line.contains(text);
}

} // namespace

ServiceHarness::ServiceHarness() = default;

ServiceHarness::~ServiceHarness()
{
    if (!stop(10000)) {
        // A thread that cannot be stopped would be destroyed while running;
        // end the test run loudly instead.
        fprintf(stderr, "ServiceHarness: service thread did not stop\n");
        abort();
    }
}

void ServiceHarness::installLogCapture(bool alsoLogFile)
{
    forwardToLogFile = alsoLogFile;
    echoLog = qEnvironmentVariableIsSet("ZRUI_TEST_ECHO_LOG");
    qInstallMessageHandler(captureHandler);
}

bool ServiceHarness::loadTokenLibrary()
{
    if (ZRK_IsDevPresent)
        return true;
    QByteArray dir = qgetenv("ZRUI_TOKENSIM_DIR");
    if (dir.isEmpty())
        return false;
    return LoadLib_ZRKAPI(0, dir.data()) == 1;
}

bool ServiceHarness::useTokenSimConfig(const QString &dir)
{
    tokenSimIni = QDir(dir).filePath(QStringLiteral("tokensim.ini"));
    tokenSimJournal = QDir(dir).filePath(QStringLiteral("journal.txt"));
    qputenv("ZRTOKENSIM_CONF", QFile::encodeName(tokenSimIni));
    qunsetenv("ZRTOKENSIM_JOURNAL");
    return setTokenPresent(true);
}

bool ServiceHarness::setTokenPresent(bool present)
{
    QSaveFile file(tokenSimIni);
    if (!file.open(QIODevice::WriteOnly))
        return false;
    file.write("[pin]\nmin=6\nmax=16\n[token]\npresent=");
    file.write(present ? "1" : "0");
    file.write("\n[journal]\npath=");
    file.write(QFile::encodeName(tokenSimJournal));
    file.write("\n");
    return file.commit();
}

QString ServiceHarness::journalPath() { return tokenSimJournal; }

QStringList ServiceHarness::journalLines()
{
    QFile file(tokenSimJournal);
    if (!file.open(QIODevice::ReadOnly))
        return QStringList();
    QStringList lines = QString::fromUtf8(file.readAll()).split(QLatin1Char('\n'));
    if (!lines.isEmpty() && lines.last().isEmpty())
        lines.removeLast();
    return lines;
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
        n += lineMatches(line, text, exact) ? 1 : 0;
    return n;
}

bool ServiceHarness::waitForLog(const QString &text, int mark, int count, int timeoutMs, bool exact)
{
    QElapsedTimer timer;
    timer.start();
    for (;;) {
        if (countLog(text, mark, exact) >= count)
            return true;
        if (timer.elapsed() > timeoutMs)
            return false;
        QTest::qWait(5);
    }
}

int ServiceHarness::findLog(const QString &text, int from, bool exact)
{
    const QStringList lines = logSince(0);
    for (int i = qMax(0, from); i < lines.size(); ++i) {
        if (lineMatches(lines.at(i), text, exact))
            return i;
    }
    return -1;
}

QString ServiceHarness::uniqueAppName(const QString &tag)
{
    static int counter = 0;
    return QStringLiteral("svct%1_%2_%3").arg(getpid()).arg(++counter).arg(tag);
}

bool ServiceHarness::isListening(const QString &abstractName)
{
    // Lines: "Num RefCount Protocol Flags Type St Inode Path"; a listening
    // socket has the accept flag 00010000 and abstract names start with "@".
    QFile file(QStringLiteral("/proc/net/unix"));
    if (!file.open(QIODevice::ReadOnly))
        return false;
    const QByteArray wanted = '@' + abstractName.toUtf8();
    for (const QByteArray &line : file.readAll().split('\n')) {
        const QList<QByteArray> fields = line.simplified().split(' ');
        if (fields.size() >= 8 && fields.at(3) == "00010000" && fields.at(7) == wanted)
            return true;
    }
    return false;
}

void ServiceHarness::launch(const QString &appName)
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
}

bool ServiceHarness::start(const QString &appName, int timeoutMs)
{
    launch(appName);
    QElapsedTimer timer;
    timer.start();
    while (timer.elapsed() < timeoutMs) {
        if (isListening(socketName()))
            return true;
        if (recorder->count(QStringLiteral("start_pipe_failed()")) > 0)
            return false;
        QTest::qWait(5);
    }
    return false;
}

bool ServiceHarness::startExpectingFailure(const QString &appName, int timeoutMs)
{
    launch(appName);
    QElapsedTimer timer;
    timer.start();
    while (timer.elapsed() < timeoutMs) {
        if (recorder->count(QStringLiteral("start_pipe_failed()")) > 0)
            return true;
        QTest::qWait(5);
    }
    return false;
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
    QElapsedTimer timer;
    timer.start();
    while (!threadDone.load(std::memory_order_acquire)) {
        if (timer.elapsed() > timeoutMs)
            return false;
        QTest::qWait(5);
    }
    thread.wait();
    running = false;
    delete recorder;
    recorder = nullptr;
    delete service;
    service = nullptr;
    return true;
}

QString ServiceHarness::socketName() const { return name + QString::number(getuid()); }

TestClient::~TestClient() { close(); }

int TestClient::open(const QString &serverName, int timeoutMs)
{
    close();
    const int rc = zrui_open(serverName.toUtf8().constData(), &h);
    if (rc == ZRUI_OK)
        zrui_set_timeout(h, timeoutMs);
    return rc;
}

void TestClient::close()
{
    zrui_close(h);
    h = nullptr;
}

int TestClient::fd() const { return zrui_fd(h); }

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
    pollfd p = {fd(), POLLIN, 0};
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
        const ssize_t n = read(fd(), buf, sizeof buf);
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
    return packet(op, quint32(data.size()), data);
}

QByteArray TestClient::packet(quint32 op, quint32 declaredLength, const QByteArray &data)
{
    QByteArray p(8, '\0');
    memcpy(p.data(), &op, 4);
    memcpy(p.data() + 4, &declaredLength, 4);
    return p + data;
}
