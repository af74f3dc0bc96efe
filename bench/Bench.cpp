// Side-by-side figures of the real ZRUIServer against references measured in
// the same run, each a median over ROUNDS rounds. Needs an X display (the
// bench target runs it under xvfb-run) and strace.
//
//   cmake --build build --target bench
//   or: xvfb-run -a build/bin/zrui_bench [rounds]   (env as set by the target)
#include "ServerLauncher.h"
#include "client/zrui_client.h"

#include <QApplication>
#include <QDir>
#include <QElapsedTimer>
#include <QFile>
#include <QProcess>
#include <QSocketNotifier>
#include <QTemporaryDir>
#include <QThread>
#include <QWidget>

#include <algorithm>
#include <cstdio>
#include <functional>
#include <vector>

#include <poll.h>
#include <unistd.h>
#include <xcb/xcb.h>

namespace {

qint64 nowNs()
{
    timespec ts;
    clock_gettime(CLOCK_MONOTONIC, &ts);
    return qint64(ts.tv_sec) * 1000000000 + ts.tv_nsec;
}

double median(std::vector<double> v)
{
    if (v.empty())
        return 0;
    std::sort(v.begin(), v.end());
    return v[v.size() / 2];
}

// Top-level windows mapped and unmapped on the display, seen from outside.
class MapWatch
{
public:
    bool open()
    {
        conn = xcb_connect(nullptr, nullptr);
        if (xcb_connection_has_error(conn))
            return false;
        const uint32_t mask = XCB_EVENT_MASK_SUBSTRUCTURE_NOTIFY;
        xcb_change_window_attributes(conn, xcb_setup_roots_iterator(xcb_get_setup(conn)).data->root,
                                     XCB_CW_EVENT_MASK, &mask);
        xcb_flush(conn);
        return true;
    }
    void drain()
    {
        while (xcb_generic_event_t *ev = xcb_poll_for_event(conn))
            free(ev);
    }
    // Waits for the next event of this type; false after timeoutMs.
    bool wait(uint8_t type, int timeoutMs = 10000)
    {
        const qint64 deadline = nowNs() + qint64(timeoutMs) * 1000000;
        for (;;) {
            while (xcb_generic_event_t *ev = xcb_poll_for_event(conn)) {
                const bool hit = (ev->response_type & 0x7f) == type;
                free(ev);
                if (hit)
                    return true;
            }
            const qint64 left = (deadline - nowNs()) / 1000000;
            if (left <= 0)
                return false;
            pollfd p{xcb_get_file_descriptor(conn), POLLIN, 0};
            poll(&p, 1, int(left));
        }
    }

private:
    xcb_connection_t *conn = nullptr;
};

long rssKb(qint64 pid)
{
    QFile f(QStringLiteral("/proc/%1/status").arg(pid));
    if (!f.open(QIODevice::ReadOnly))
        return -1;
    for (const QByteArray &line : f.readAll().split('\n'))
        if (line.startsWith("VmRSS:"))
            return line.mid(6).trimmed().split(' ').at(0).toLong();
    return -1;
}

/*
 * Waits until the process has gone idle: for 60 ms no CPU time used and no
 * thread runnable (on a loaded machine a thread may wait for a CPU with its
 * work undone). At most 5 s.
 */
void waitIdle(qint64 pid)
{
    auto sample = [pid] {
        QByteArray all;
        const QString taskDir = QStringLiteral("/proc/%1/task/").arg(pid);
        for (const QString &tid : QDir(taskDir).entryList(QDir::Dirs | QDir::NoDotAndDotDot)) {
            QFile f(taskDir + tid + QStringLiteral("/stat"));
            if (!f.open(QIODevice::ReadOnly))
                continue;
            const QByteArray stat = f.readAll();
            const QList<QByteArray> fields = stat.mid(stat.lastIndexOf(')') + 2).split(' ');
            if (fields.size() > 12)
                all += fields.at(0) == "R" ? QByteArray("R") : fields.at(11) + ' ' + fields.at(12);
        }
        return all;
    };
    QElapsedTimer t;
    t.start();
    QByteArray last = sample();
    int quiet = 0;
    while (quiet < 3 && t.elapsed() < 5000) {
        QThread::msleep(20);
        const QByteArray now = sample();
        quiet = now == last && !now.contains('R') ? quiet + 1 : 0;
        last = now;
    }
}

bool waitListening(const QString &name, QProcess &proc)
{
    QElapsedTimer t;
    t.start();
    while (t.elapsed() < 15000 && proc.state() != QProcess::NotRunning)
        if (ServerLauncher::isListening(name))
            return true;
    return false;
}

// p50 of n GetPIN round trips (microseconds); the answer must be "no result".
double roundTripUs(zrui_conn *h, int n)
{
    std::vector<double> us;
    for (int i = 0; i < n; ++i) {
        uint32_t resp = 0, len = 0;
        const qint64 t0 = nowNs();
        if (zrui_request(h, REQ_PIN_GetPIN, nullptr, 0, &resp, nullptr, 0, &len) != ZRUI_OK
            || resp != UI_NO_RESULT)
            return -1;
        us.push_back(double(nowNs() - t0) / 1000.0);
    }
    return median(us);
}

/*
 * strace's view of one thread while fn runs: system calls per log line
 * (every call of the logging thread except those on the socket and on the
 * token library's files, over the lines added to logFile).
 */
double syscallsPerLine(qint64 pid, const QString &logFile, const std::function<bool()> &fn)
{
    QTemporaryDir dir;
    const QString out = dir.filePath("trace");
    QProcess strace;
    strace.setProcessChannelMode(QProcess::MergedChannels);
    strace.start("strace", {"-f", "-y", "-o", out, "-p", QString::number(pid)});
    QElapsedTimer t;
    t.start();
    QByteArray said;
    while (!said.contains("attached") && t.elapsed() < 10000) {
        strace.waitForReadyRead(100);
        said += strace.readAll();
    }
    auto countLines = [&] {
        QFile f(logFile);
        return f.open(QIODevice::ReadOnly) ? f.readAll().count('\n') : 0;
    };
    const int lines0 = countLines();
    const bool ok = fn();
    const int lines = countLines() - lines0;
    strace.terminate();
    strace.waitForFinished(10000);
    QFile trace(out);
    if (!ok || lines <= 0 || !trace.open(QIODevice::ReadOnly))
        return -1;
    // The logging thread is the one that opens the log file.
    const QByteArray logName = QFile::encodeName(QFileInfo(logFile).fileName());
    const QByteArray tokenDir = qgetenv("ZRUI_TOKENSIM_DIR");
    QMap<QByteArray, int> calls, logOpens;
    for (const QByteArray &line : trace.readAll().split('\n')) {
        const QByteArray tid = line.left(line.indexOf(' '));
        if (line.contains("resumed>") || line.contains("+++") || line.contains("---")
            || line.contains("socket:[") || (!tokenDir.isEmpty() && line.contains(tokenDir))
            || tid.isEmpty())
            continue;
        ++calls[tid];
        if (line.contains("open") && line.contains(logName))
            ++logOpens[tid];
    }
    QByteArray logger;
    for (auto it = logOpens.cbegin(); it != logOpens.cend(); ++it)
        if (logger.isEmpty() || it.value() > logOpens.value(logger))
            logger = it.key();
    return logger.isEmpty() ? -1 : double(calls.value(logger)) / lines;
}

/*
 * The reference for window timings: a resident minimal Qt program that
 * creates and shows a plain top-level widget on "s", hides and deletes it on
 * "h" (read from stdin), like the server does with its dialogs.
 */
int residentWindow(int argc, char **argv)
{
    QApplication app(argc, argv);
    QWidget *window = nullptr;
    QSocketNotifier input(STDIN_FILENO, QSocketNotifier::Read);
    QObject::connect(&input, &QSocketNotifier::activated, [&] {
        char c = 0;
        if (read(STDIN_FILENO, &c, 1) != 1)
            app.quit();
        if (c == 's' && !window) {
            window = new QWidget(nullptr, Qt::WindowStaysOnTopHint);
            window->resize(400, 300);
            window->show();
        } else if (c == 'h' && window) {
            window->hide();
            delete window;
            window = nullptr;
        }
    });
    return app.exec();
}

// Times one show (map) and hide (unmap) cycle; -1 on time-out.
double cycle(MapWatch &x, const std::function<bool()> &show, const std::function<bool()> &hide)
{
    x.drain();
    const qint64 t0 = nowNs();
    if (!show() || !x.wait(XCB_MAP_NOTIFY))
        return -1;
    const double ms = double(nowNs() - t0) / 1e6;
    return hide() && x.wait(XCB_UNMAP_NOTIFY) ? ms : -1;
}

bool request(zrui_conn *h, uint32_t op, uint32_t arg = 0, uint32_t want = UI_OK)
{
    unsigned char data[8] = {};
    memcpy(data, &arg, 4);
    uint32_t resp = 0, len = 0;
    const uint32_t size = op == REQ_BeginSession ? 8 : op == REQ_PIN_Show ? 4 : 0;
    return zrui_request(h, op, data, size, &resp, nullptr, 0, &len) == ZRUI_OK && resp == want;
}

/*
 * A PIN dialog cycle on the server: begin, show (timed to the map), one
 * GetPIN, finish (waits for the unmap), end.
 */
double pinDialog(MapWatch &x, zrui_conn *h)
{
    if (!request(h, REQ_BeginSession, 1))
        return -1;
    const double ms = cycle(
            x, [&] { return request(h, REQ_PIN_Show, 1); },
            [&] {
                return request(h, REQ_PIN_GetPIN, 0, UI_NO_RESULT) && request(h, REQ_PIN_Finish);
            });
    return request(h, REQ_EndSession) ? ms : -1;
}

void print(const char *figure, double now, const char *unit, const char *reference, double ref,
           const char *refUnit)
{
    printf("%-46s %9.2f %-3s | %-40s %9.2f %-3s | ", figure, now, unit, reference, ref, refUnit);
    if (ref > 0.005)
        printf("%6.2fx\n", now / ref);
    else
        printf("     -\n");
}

} // namespace

int main(int argc, char **argv)
{
    if (argc > 1 && !strcmp(argv[1], "--resident-window"))
        return residentWindow(argc, argv);
    QCoreApplication app(argc, argv);
    const int rounds = argc > 1 ? qMax(10, atoi(argv[1])) : 10;
    const int trips = 2000, later = 20, many = 1000;
    MapWatch x;
    if (!x.open()) {
        fprintf(stderr, "zrui_bench: no X display (run under xvfb-run)\n");
        return 1;
    }
    const QString logFile = QStringLiteral("/tmp/uilog.txt");
    QTemporaryDir tmp;
    const QString refLog = tmp.filePath("uilog-ref.txt");
    const QString refName = QStringLiteral("zrui_refserver%1_").arg(getpid());
    QProcess ref;
    ref.start(QCoreApplication::applicationDirPath() + "/zrui_refserver",
              {refName + QString::number(getuid()), refLog});
    QProcessEnvironment plain = QProcessEnvironment::systemEnvironment();
    plain.insert("QT_XCB_GL_INTEGRATION", "none");
    QProcess window;
    window.setProcessEnvironment(plain);
    window.start(QCoreApplication::applicationFilePath(), {"--resident-window"});
    zrui_conn *refConn = nullptr;
    if (!waitListening(refName + QString::number(getuid()), ref) || !window.waitForStarted()
        || zrui_open(refName.toUtf8().constData(), &refConn) != ZRUI_OK) {
        fprintf(stderr, "zrui_bench: reference server or window did not start\n");
        return 1;
    }
    auto residentCycle = [&] {
        return cycle(
                x, [&] { return window.write("s") == 1 && window.waitForBytesWritten(); },
                [&] { return window.write("h") == 1 && window.waitForBytesWritten(); });
    };

    std::vector<double> startMs, refStartMs, tripUs, refTripUs, firstMs, eagerMs, laterMs, windowMs;
    std::vector<double> rssFirst;
    double perLine = -1, refPerLine = -1;
    long rssGrowth = 0, rssAfterFirst = 0, windowGrowth = 0;
    for (int r = 0; r < rounds; ++r) {
        ServerLauncher server;
        server.setPlatform(QString());
        if (!server.prepare()) {
            fprintf(stderr, "zrui_bench: %s\n", qPrintable(server.errorString()));
            return 1;
        }
        qint64 t0 = nowNs();
        if (!server.start() || !waitListening(server.socketName(), server.process())) {
            fprintf(stderr, "zrui_bench: server did not listen\n");
            return 1;
        }
        startMs.push_back(double(nowNs() - t0) / 1e6);
        QProcess refAgain;
        const QString againName = refName + "s" + QString::number(r);
        t0 = nowNs();
        refAgain.start(ref.program(), {againName + QString::number(getuid()), refLog});
        if (waitListening(againName + QString::number(getuid()), refAgain))
            refStartMs.push_back(double(nowNs() - t0) / 1e6);
        refAgain.kill();
        refAgain.waitForFinished();

        zrui_conn *h = nullptr;
        if (zrui_open(server.appName().toUtf8().constData(), &h) != ZRUI_OK) {
            fprintf(stderr, "zrui_bench: cannot connect\n");
            return 1;
        }
        zrui_set_timeout(h, 10000);
        const qint64 pid = server.process().processId();
        // A second server, asked for a dialog the moment it listens, before
        // its idle-time set-up is done.
        ServerLauncher eager;
        eager.setPlatform(QString());
        zrui_conn *e = nullptr;
        if (eager.start() && waitListening(eager.socketName(), eager.process())
            && zrui_open(eager.appName().toUtf8().constData(), &e) == ZRUI_OK) {
            zrui_set_timeout(e, 10000);
            eagerMs.push_back(pinDialog(x, e));
            zrui_close(e);
        }
        eager.stop();
        waitIdle(pid);
        firstMs.push_back(pinDialog(x, h));
        rssFirst.push_back(rssKb(pid));
        std::vector<double> l, w;
        for (int i = 0; i < later; ++i) {
            l.push_back(pinDialog(x, h));
            w.push_back(residentCycle());
        }
        laterMs.push_back(median(l));
        windowMs.push_back(median(w));

        // Round trips with the dialog up: the client polls for the PIN.
        if (!request(h, REQ_BeginSession, 1) || !request(h, REQ_PIN_Show, 1)) {
            fprintf(stderr, "zrui_bench: session set-up failed\n");
            return 1;
        }
        tripUs.push_back(roundTripUs(h, trips));
        refTripUs.push_back(roundTripUs(refConn, trips));
        if (r == 0) {
            perLine = syscallsPerLine(pid, logFile, [&] { return roundTripUs(h, 200) > 0; });
            refPerLine = syscallsPerLine(ref.processId(), refLog,
                                         [&] { return roundTripUs(refConn, 200) > 0; });
        }
        request(h, REQ_PIN_Finish);
        request(h, REQ_EndSession);
        if (r == 0) {
            rssAfterFirst = rssKb(pid);
            for (int i = 0; i < many; ++i)
                pinDialog(x, h);
            rssGrowth = rssKb(pid) - rssAfterFirst;
            const long w0 = rssKb(window.processId());
            for (int i = 0; i < many; ++i)
                residentCycle();
            windowGrowth = rssKb(window.processId()) - w0;
        }
        zrui_close(h);
        server.stop();
    }
    zrui_close(refConn);
    ref.kill();
    ref.waitForFinished();
    window.closeWriteChannel();
    window.waitForFinished(5000);

    printf("reproduce: cmake --build build --target bench   (another build: ZRUI_BIN_DIR=<its bin> "
           "ZRUI_TOKENSIM_DIR=<tokenlib>/ xvfb-run -a build/bin/zrui_bench [rounds])\n");
    printf("zrui_bench: medians over %d rounds (%d round trips, %d later dialogs each)\n", rounds,
           trips, later);
    printf("%-46s %13s | %-40s %13s | ratio\n", "figure", "ZRUIServer", "reference", "");
    print("REQ_PIN_GetPIN round trip p50 (8 log lines)", median(tripUs), "us",
          "C server, same packets and 8 lines", median(refTripUs), "us");
    print("system calls per log line", perLine, "", "C server: open, write, close", refPerLine, "");
    print("first PIN dialog, REQ_PIN_Show -> mapped", median(firstMs), "ms", "later PIN dialogs",
          median(laterMs), "ms");
    print("first PIN dialog, asked for at listening", median(eagerMs), "ms", "later PIN dialogs",
          median(laterMs), "ms");
    print("later PIN dialogs, REQ_PIN_Show -> mapped", median(laterMs), "ms",
          "resident minimal Qt window", median(windowMs), "ms");
    print("RSS after the first dialog", median(rssFirst) / 1024, "MB", "goal", 40, "MB");
    print("RSS growth over 1000 dialogs", double(rssGrowth) / 1024, "MB",
          "resident minimal Qt window", double(windowGrowth) / 1024, "MB");
    print("start -> listening", median(startMs), "ms", "C server start -> listening",
          median(refStartMs), "ms");
    return 0;
}
