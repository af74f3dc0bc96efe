// Round trip of a polling REQ_PIN_GetPIN over the real socket: the real
// FIFO_Service in its own thread behind FakeUiStatus, logging through the
// program's own sink into /tmp/uilog.txt (one open/write/close per line,
// as shipped). Prints median and p99 over N requests.
//
// Usage: zrui_bench_pinpoll [N]   (default 5000)
#include "FakeUiStatus.h"
#include "app/LogSink.h"
#include "app/TokenLibs.h"
#include "client/zrui_client.h"
#include "service/FIFO_Service.h"

#include <QCoreApplication>
#include <QElapsedTimer>
#include <QFile>
#include <QThread>

#include <algorithm>
#include <cstdio>
#include <ctime>
#include <vector>

#include <unistd.h>

namespace {

void discardLog(QtMsgType, const QMessageLogContext &, const QString &) { }

qint64 nowNs()
{
    timespec ts;
    clock_gettime(CLOCK_MONOTONIC, &ts);
    return qint64(ts.tv_sec) * 1000000000 + ts.tv_nsec;
}

bool waitListening(const QString &name, int timeoutMs)
{
    QElapsedTimer timer;
    timer.start();
    const QByteArray wanted = '@' + name.toUtf8();
    while (timer.elapsed() < timeoutMs) {
        QFile file(QStringLiteral("/proc/net/unix"));
        if (file.open(QIODevice::ReadOnly)) {
            for (const QByteArray &line : file.readAll().split('\n')) {
                const QList<QByteArray> f = line.simplified().split(' ');
                if (f.size() >= 8 && f.at(3) == "00010000" && f.at(7) == wanted)
                    return true;
            }
        }
        QThread::msleep(5);
    }
    return false;
}

/** Runs n GetPIN requests and prints the distribution in microseconds. */
bool measure(zrui_conn *h, int n, const char *label, quint32 expectedResp)
{
    std::vector<qint64> samples;
    samples.reserve(size_t(n));
    std::vector<unsigned char> out(COMMPACK_MAX_DATA);
    for (int i = 0; i < n + n / 10; ++i) {
        uint32_t resp = 0;
        uint32_t len = 0;
        const qint64 t0 = nowNs();
        const int rc = zrui_request(h, REQ_PIN_GetPIN, nullptr, 0, &resp, out.data(),
                                    uint32_t(out.size()), &len);
        const qint64 t1 = nowNs();
        if (rc != ZRUI_OK || resp != expectedResp) {
            fprintf(stderr, "%s: request %d failed: rc=%d resp=%u\n", label, i, rc, resp);
            return false;
        }
        if (i >= n / 10) // the first tenth warms up caches and the log file
            samples.push_back(t1 - t0);
    }
    std::sort(samples.begin(), samples.end());
    const auto at = [&](double q) {
        return double(samples[std::min(samples.size() - 1, size_t(q * double(samples.size())))])
               / 1000.0;
    };
    printf("%-44s n=%zu  median=%8.1f us  p99=%8.1f us  max=%8.1f us\n", label, samples.size(),
           at(0.5), at(0.99), double(samples.back()) / 1000.0);
    return true;
}

} // namespace

int main(int argc, char **argv)
{
    QCoreApplication app(argc, argv);
    const int n = argc > 1 ? qMax(10, atoi(argv[1])) : 5000;
    QCoreApplication::setApplicationName(QStringLiteral("zrbench%1_").arg(getpid()));

    QByteArray dir = qgetenv("ZRUI_TOKENSIM_DIR");
    if (dir.isEmpty())
        dir = ZRUI_BENCH_TOKENSIM_DIR "/";
    if (LoadLib_ZRKAPI(0, dir.data()) != 1) {
        fprintf(stderr, "cannot bind %slibzrkapi.so\n", dir.constData());
        return 1;
    }
    qInstallMessageHandler(printlogtofile);

    FakeUiStatus fake;
    auto *service = new FIFO_Service(&fake, nullptr);
    QThread thread;
    service->moveToThread(&thread);
    thread.start();
    QMetaObject::invokeMethod(service, "CreatePipeAndListen", Qt::QueuedConnection);
    const QString socketName = QCoreApplication::applicationName() + QString::number(getuid());
    if (!waitListening(socketName, 5000)) {
        fprintf(stderr, "service did not listen\n");
        return 1;
    }

    zrui_conn *h = nullptr;
    if (zrui_open(QCoreApplication::applicationName().toUtf8().constData(), &h) != ZRUI_OK
        || zrui_set_timeout(h, 10000) != ZRUI_OK || zrui_begin_session(h, 1) != ZRUI_OK
        || zrui_pin_show(h, 1) != ZRUI_OK) {
        fprintf(stderr, "session set-up failed\n");
        return 1;
    }

    bool ok = measure(h, n, "GetPIN pending (UI_NO_RESULT), full log", UI_NO_RESULT);
    unsigned char result[] = {6, 0, 0, 0, '1', '2', '3', '4', '5', '6', 0, 0, 0, 0};
    fake.SetPINStatus(1, result, sizeof result);
    ok = ok && measure(h, n, "GetPIN confirmed (14-byte result), full log", UI_OK);
    fake.SetPINStatus(-1, nullptr, 0);
    qInstallMessageHandler(discardLog);
    ok = ok && measure(h, n, "GetPIN pending, log discarded (reference)", UI_NO_RESULT);

    zrui_close(h);
    service->StopPipeListening();
    thread.quit();
    thread.wait();
    delete service;
    return ok ? 0 : 1;
}
