#include "ServiceHarness.h"

#include "ServerLauncher.h"
#include "app/LogSink.h"
#include "app/TokenLibs.h"
#include "service/FIFO_Service.h"

#include <QCoreApplication>
#include <QDir>
#include <QFile>
#include <QSaveFile>
#include <QTest>

#include <cerrno>
#include <cstdio>
#include <cstdlib>

#include <poll.h>
#include <unistd.h>

namespace {

// std::mutex, not QMutex: ThreadSanitizer sees pthread locking but not the
// futex fast path of an uninstrumented QtCore.
std::mutex logMutex;
QStringList capturedLog;
bool forwardToLogFile = false;
QString tokenSimIni, tokenSimJournal;

void captureHandler(QtMsgType type, const QMessageLogContext &context, const QString &message)
{
    {
        std::lock_guard<std::mutex> locker(logMutex);
        capturedLog << message;
    }
    if (forwardToLogFile)
        printlogtofile(type, context, message);
}

QString text(const QString &s) { return s; }
QString text(unsigned long v) { return QString::number(v); }

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
    QByteArray libDir = qgetenv("ZRUI_TOKENSIM_DIR");
    if (dir.isEmpty() || !setTokenPresent(true) || libDir.isEmpty()
        || LoadLib_ZRKAPI(0, libDir.data()) != 1)
        return false;
    return start(uniqueAppName(tag));
}

bool ServiceHarness::setTokenPresent(bool present)
{
    QSaveFile file(tokenSimIni);
    return file.open(QIODevice::WriteOnly)
           && file.write("[pin]\nmin=6\nmax=16\n[token]\npresent=" + QByteArray(present ? "1" : "0")
                         + "\n[journal]\npath=" + QFile::encodeName(tokenSimJournal) + "\n")
                      > 0
           && file.commit();
}

QStringList ServiceHarness::journalLines()
{
    QFile file(tokenSimJournal);
    if (!file.open(QIODevice::ReadOnly))
        return QStringList();
    return QString::fromUtf8(file.readAll()).split(QLatin1Char('\n'), Qt::SkipEmptyParts);
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

bool ServiceHarness::waitForLog(const QString &text, int mark, int count, bool exact)
{
    return QTest::qWaitFor([&] { return countLog(text, mark, exact) >= count; }, 5000);
}

QString ServiceHarness::uniqueAppName(const QString &tag)
{
    static int counter = 0;
    return QStringLiteral("svct%1_%2_%3").arg(getpid()).arg(++counter).arg(tag);
}

QStringList ServiceHarness::events(int from, bool withExitTimer) const
{
    std::lock_guard<std::mutex> lock(eventMutex);
    QStringList out;
    for (const QString &e : recorded.mid(from)) {
        if (withExitTimer || !e.endsWith(QLatin1String("ExitTimer()")))
            out << e;
    }
    return out;
}

bool ServiceHarness::start(const QString &appName, bool expectFailure)
{
    name = appName;
    QCoreApplication::setApplicationName(appName);
    service = new FIFO_Service(&fake, nullptr);
    // Recorded directly, in the service thread, in emission order.
    const auto rec = [this](auto signal, const char *name) {
        QObject::connect(
                service, signal, &fake,
                [this, name](auto... args) {
                    const QStringList parts{text(args)...};
                    std::lock_guard<std::mutex> lock(eventMutex);
                    recorded << QStringLiteral("%1(%2)").arg(QLatin1String(name), parts.join('|'));
                },
                Qt::DirectConnection);
    };
    rec(&FIFO_Service::start_pipe_failed, "start_pipe_failed");
    rec(&FIFO_Service::pipe_comm_failed, "pipe_comm_failed");
    rec(&FIFO_Service::startExitTimer, "startExitTimer");
    rec(&FIFO_Service::stopExitTimer, "stopExitTimer");
    rec(&FIFO_Service::hide_waiting_dialog, "hide_waiting_dialog");
    rec(&FIFO_Service::hide_pin_dialog, "hide_pin_dialog");
    rec(&FIFO_Service::hide_list_dialog, "hide_list_dialog");
    rec(&FIFO_Service::hide_message_dialog, "hide_message_dialog");
    rec(&FIFO_Service::show_list_dialog, "show_list_dialog");
    rec(&FIFO_Service::show_message_dialog, "show_message_dialog");
    rec(&FIFO_Service::show_waiting_dialog, "show_waiting_dialog");
    rec(&FIFO_Service::show_pin_dialog, "show_pin_dialog");
    QObject::connect(
            service, &FIFO_Service::show_message_dialog, &fake,
            [this] {
                if (autoMsgAnswer.load() != NoAutoAnswer)
                    fake.SetMsgStatus(autoMsgAnswer.load());
            },
            Qt::DirectConnection);
    // The service thread's last act: the release/acquire pair shows
    // ThreadSanitizer its work is over before the service is deleted.
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
                failed = events().contains(QStringLiteral("start_pipe_failed()"));
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
    if (fake.GetMsgStatus() == -1) // a box still waiting would block the thread
        fake.SetMsgStatus(1);
    thread.quit();
    if (!QTest::qWaitFor([this] { return threadDone.load(std::memory_order_acquire); }, timeoutMs))
        return false;
    thread.wait();
    running = false;
    delete service;
    service = nullptr;
    std::lock_guard<std::mutex> lock(eventMutex);
    recorded.clear();
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

quint32 TestClient::ask(quint32 op, const QByteArray &data, QByteArray *out)
{
    QByteArray buf(COMMPACK_MAX_DATA, '\0');
    uint32_t len = 0, resp = 0xdead;
    if (zrui_request(h, op, data.constData(), uint32_t(data.size()), &resp, buf.data(),
                     uint32_t(buf.size()), &len)
        != ZRUI_OK)
        return 0xdead;
    if (out)
        *out = buf.left(int(len));
    return resp;
}

bool TestClient::sendRaw(const QByteArray &bytes)
{
    return zrui_send_raw(h, bytes.constData(), size_t(bytes.size())) == ZRUI_OK;
}

bool TestClient::readResponse(quint32 *resp, QByteArray *data, int timeoutMs)
{
    COMMPACK hdr;
    if (!waitReadable(timeoutMs) || zrui_recv_raw(h, &hdr, sizeof hdr) != ZRUI_OK
        || hdr.datalen > COMMPACK_MAX_DATA)
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
    int n;
    while ((n = poll(&p, 1, timeoutMs)) < 0 && errno == EINTR) { }
    return n > 0;
}

bool TestClient::waitClosed(int timeoutMs, QByteArray *extra)
{
    while (waitReadable(timeoutMs)) {
        char buf[4096];
        const ssize_t n = read(zrui_fd(h), buf, sizeof buf);
        if (n == 0)
            return true;
        if (n < 0 && errno != EINTR && errno != EAGAIN)
            return errno == ECONNRESET; // closed while bytes of ours were unread
        if (n > 0 && extra)
            extra->append(buf, int(n));
    }
    return false;
}

QByteArray TestClient::packet(quint32 op, const QByteArray &data)
{
    const quint32 len = quint32(data.size());
    return QByteArray(reinterpret_cast<const char *>(&op), 4)
           + QByteArray(reinterpret_cast<const char *>(&len), 4) + data;
}
