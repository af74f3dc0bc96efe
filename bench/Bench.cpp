// ZRUIServer against references measured in the same run, medians over >= 10 rounds;
// needs an X display and strace, exits 1 when a figure could not be taken.
#include "ServerLauncher.h"
#include "client/zrui_client.h"

#include <QApplication>
#include <QSocketNotifier>
#include <QWidget>

#include <algorithm>
#include <chrono>
#include <cmath>
#include <cstddef>
#include <functional>

#include <poll.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>
#include <xcb/xcb.h>

namespace {

using Fn = std::function<bool()>;
const double NONE = NAN; // a figure not taken

double nowMs() { return std::chrono::steady_clock::now().time_since_epoch().count() / 1e6; }

double median(std::vector<double> v)
{
    if (v.empty() || std::any_of(v.begin(), v.end(), [](double x) { return std::isnan(x); }))
        return NONE;
    std::sort(v.begin(), v.end());
    return v[v.size() / 2];
}

QByteArray readAll(const QString &path)
{
    QFile f(path);
    return f.open(QFile::ReadOnly) ? f.readAll() : "";
}

// Resident set (MB), or with field 2 (ticks of CPU time) the time the process used.
double procField(qint64 pid, int field = 1)
{
    const QByteArray stat
            = readAll(QStringLiteral("/proc/%1/stat%2").arg(pid).arg(field == 1 ? "m" : ""));
    const QList<QByteArray> f = stat.mid(stat.lastIndexOf(')') + 1).split(' ');
    if (field == 1)
        return f.size() > 1 ? f[1].toDouble() * getpagesize() / 1048576 : NONE;
    return f.size() > 15 && f[1] != "R" ? f[12].toDouble() + f[13].toDouble() : NONE;
}

// Waits (5 s at most) until the server used no CPU time for 60 ms and is not runnable.
void waitIdle(qint64 pid)
{
    for (int quiet = 0, i = 0; quiet < 3 && i < 250; ++i) {
        const double before = procField(pid, 2);
        usleep(20000);
        quiet = before == procField(pid, 2) ? quiet + 1 : 0; // NONE (running) never equals
    }
}

// Spins until the abstract socket listens (15 s at most): the start time counts.
bool listening(const QString &name, QProcess &proc)
{
    for (const double end = nowMs() + 15000; nowMs() < end && proc.state() != QProcess::NotRunning;)
        if (ServerLauncher::isListening(name))
            return true;
    return false;
}

// Top-level windows mapped and unmapped on the display, seen from outside.
struct MapWatch
{
    xcb_connection_t *c = xcb_connect(nullptr, nullptr);
    bool open()
    {
        const uint32_t mask = XCB_EVENT_MASK_SUBSTRUCTURE_NOTIFY;
        const xcb_setup_t *setup = xcb_get_setup(c); // null on a failed connection
        return setup
               && !xcb_request_check(c, xcb_change_window_attributes_checked(
                                                c, xcb_setup_roots_iterator(setup).data->root,
                                                XCB_CW_EVENT_MASK, &mask));
    }
    // Waits (10 s at most) for the next event of this type; type 0 drains.
    bool wait(uint8_t type)
    {
        for (const double end = nowMs() + 10000;;) {
            while (xcb_generic_event_t *ev = xcb_poll_for_event(c)) {
                const bool hit = type && (ev->response_type & 0x7f) == type;
                free(ev);
                if (hit)
                    return true;
            }
            pollfd p{xcb_get_file_descriptor(c), POLLIN, 0};
            if (!type || nowMs() >= end || poll(&p, 1, int(end - nowMs()) + 1) < 0)
                return !type;
        }
    }
    double cycle(const Fn &show, const Fn &hide)
    {
        wait(0);
        const double t0 = nowMs();
        const bool mapped = show() && wait(XCB_MAP_NOTIFY);
        const double ms = nowMs() - t0;
        return mapped && hide() && wait(XCB_UNMAP_NOTIFY) ? ms : NONE;
    }
};

bool request(zrui_conn *h, uint32_t op, uint32_t arg = 0, uint32_t want = UI_OK)
{
    const uint32_t data[2] = {arg, 0},
                   size = (op == REQ_BeginSession) * 8 + (op == REQ_PIN_Show) * 4;
    uint32_t resp = 0, len = 0;
    return zrui_request(h, op, data, size, &resp, nullptr, 0, &len) == ZRUI_OK && resp == want;
}

// p50 of n GetPIN round trips (us), each answered "no result yet".
double roundTripUs(zrui_conn *h, int n)
{
    std::vector<double> us;
    for (double t0 = nowMs(); n-- > 0 && request(h, REQ_PIN_GetPIN, 0, UI_NO_RESULT); t0 = nowMs())
        us.push_back((nowMs() - t0) * 1e3);
    return n < 0 ? median(us) : NONE;
}

// A PIN dialog on the server: begin, show (timed to the map), GetPIN, finish, end.
double pinDialog(MapWatch &x, zrui_conn *h)
{
    const Fn show = [h] { return request(h, REQ_PIN_Show, 1); };
    const Fn hide = [h] { return request(h, REQ_PIN_GetPIN, 0, 4) && request(h, REQ_PIN_Finish); };
    const double ms = request(h, REQ_BeginSession, 1) ? x.cycle(show, hide) : NONE;
    return request(h, REQ_EndSession) ? ms : NONE;
}

// System calls naming the log file (strace -y) per line added to it during 100 round trips.
double syscallsPerLine(qint64 pid, const QString &logFile, zrui_conn *h)
{
    QTemporaryDir dir;
    QProcess strace;
    strace.setProcessChannelMode(QProcess::MergedChannels);
    strace.start("strace", {"-f", "-y", "-o", dir.filePath("t"), "-p", QString::number(pid)});
    QByteArray said;
    for (const double end = nowMs() + 10000; !said.contains("attached") && nowMs() < end;)
        said += strace.waitForReadyRead(100) ? strace.readAll() : QByteArray();
    const int lines0 = readAll(logFile).count('\n');
    const bool ok = roundTripUs(h, 100) > 0;
    const int lines = readAll(logFile).count('\n') - lines0;
    strace.terminate();
    strace.waitForFinished(10000);
    int calls = 0;
    for (const QByteArray &line : readAll(dir.filePath("t")).split('\n'))
        calls += line.contains("uilog.txt") && !line.contains("resumed>");
    return ok && lines > 0 && calls > 0 ? double(calls) / lines : NONE;
}

// The window reference: a new plain top-level widget shown on "s", deleted on "h" (stdin).
int residentWindow(int argc, char **argv)
{
    QApplication app(argc, argv);
    app.setQuitOnLastWindowClosed(false); // a deleted shown window counts as closed
    QWidget *window = nullptr;
    QSocketNotifier input(STDIN_FILENO, QSocketNotifier::Read);
    QObject::connect(&input, &QSocketNotifier::activated, [&] {
        char c = 0;
        if (read(STDIN_FILENO, &c, 1) != 1)
            app.quit();
        delete window;
        window = c == 's' ? new QWidget(nullptr, Qt::WindowStaysOnTopHint) : nullptr;
        if (window)
            window->resize(400, 300), window->show();
    });
    return app.exec();
}

// The start reference: a Qt Widgets program that only listens on @NAME (argv[2]).
int listenOnly(int argc, char **argv)
{
    QApplication app(argc, argv);
    const QByteArray name = argc > 2 ? QByteArray(argv[2]) : QByteArray();
    sockaddr_un addr{};
    addr.sun_family = AF_UNIX;
    memcpy(addr.sun_path + 1, name.constData(), size_t(qMin(name.size(), 100)));
    const int fd = socket(AF_UNIX, SOCK_STREAM, 0);
    const socklen_t len = socklen_t(offsetof(sockaddr_un, sun_path) + 1 + qMin(name.size(), 100));
    if (name.isEmpty() || bind(fd, reinterpret_cast<sockaddr *>(&addr), len) != 0 || listen(fd, 5))
        return 1;
    return app.exec();
}

} // namespace

int main(int argc, char **argv)
{
    if (argc > 1 && !strcmp(argv[1], "--resident-window"))
        return residentWindow(argc, argv);
    if (argc > 1 && !strcmp(argv[1], "--listen"))
        return listenOnly(argc, argv);
    QCoreApplication app(argc, argv);
    const int rounds = qMax(10, argc > 1 ? atoi(argv[1]) : 10), trips = 2000, later = 20;
    MapWatch x;
    QTemporaryDir tmp;
    const QString refLog = tmp.filePath("uilog.txt"), uid = QString::number(getuid());
    const QString refName = QStringLiteral("zrui_refserver%1_").arg(getpid());
    auto startRef = [&](QProcess &p, const QString &name) {
        p.start(QCoreApplication::applicationDirPath() + "/zrui_refserver", {name + uid, refLog});
        return listening(name + uid, p);
    };
    QProcess ref, window;
    qputenv("QT_XCB_GL_INTEGRATION", "none"); // as the server sets for itself
    window.start(QCoreApplication::applicationFilePath(), {"--resident-window"});
    zrui_conn *refConn = nullptr, *h = nullptr;
    if (!x.open() || !startRef(ref, refName) || !window.waitForStarted()
        || zrui_open(refName.toUtf8().constData(), &refConn) != ZRUI_OK
        || zrui_set_timeout(refConn, 10000)) {
        fprintf(stderr, "zrui_bench: no X display, reference server or window\n");
        return 1;
    }
    auto say = [&](char c) { return window.write(&c, 1) == 1 && window.waitForBytesWritten(); };
    auto windowCycle = [&] { return x.cycle([&] { return say('s'); }, [&] { return say('h'); }); };
    QMap<QByteArray, std::vector<double>> v{{"goal", {40}}}; // figure -> a value a round
    int done = 0;
    for (; done < rounds; ++done) {
        ServerLauncher server;
        server.setPlatform(QString());
        if (!server.prepare())
            break;
        double t0 = nowMs();
        if (!server.start() || !listening(server.socketName(), server.process()))
            break;
        v["start"].push_back(nowMs() - t0);
        QProcess again;
        t0 = nowMs();
        const bool refUp = startRef(again, refName + "s" + QString::number(done));
        v["refStart"].push_back(refUp ? nowMs() - t0 : NONE);
        again.close();
        if (zrui_open(server.appName().toUtf8().constData(), &h) != ZRUI_OK
            || zrui_set_timeout(h, 10000))
            break;
        const qint64 pid = server.process().processId();
        waitIdle(pid);
        // Once the server is idle: its idle-time prewarm would slow this reference down.
        QProcess qtOnly;
        const QString qtName = QStringLiteral("zrui_qtonly%1_%2").arg(getpid()).arg(done);
        double q0 = nowMs();
        qtOnly.start(QCoreApplication::applicationFilePath(), {"--listen", qtName});
        v["qtStart"].push_back(listening(qtName, qtOnly) ? nowMs() - q0 : NONE);
        qtOnly.close();
        v["first"].push_back(pinDialog(x, h));
        v["rss"].push_back(procField(pid));
        for (int i = 0; i < later; ++i) // taken in turns, so both see the same load
            v["later"].push_back(pinDialog(x, h)), v["window"].push_back(windowCycle());
        const bool up = request(h, REQ_BeginSession, 1) && request(h, REQ_PIN_Show, 1); // polled
        v["trip"].push_back(up ? roundTripUs(h, trips) : NONE);
        v["refTrip"].push_back(roundTripUs(refConn, trips));
        v["perLine"].push_back(syscallsPerLine(pid, "/tmp/uilog.txt", h));
        v["refPerLine"].push_back(syscallsPerLine(ref.processId(), refLog, refConn));
        request(h, REQ_PIN_Finish);
        request(h, REQ_EndSession);
        if (done == 0) { // growth over 1,000 dialogs, once
            const double s0 = procField(pid), w0 = procField(window.processId());
            bool ok = true;
            for (int i = 0; i < 1000 && ok; ++i)
                ok = !std::isnan(pinDialog(x, h)) && !std::isnan(windowCycle());
            v["growth"].push_back(ok ? procField(pid) - s0 : NONE);
            v["windowGrowth"].push_back(ok ? procField(window.processId()) - w0 : NONE);
        }
        zrui_close(h);
    }
    zrui_close(refConn);
    ref.close();
    window.closeWriteChannel();
    window.waitForFinished(5000);

    printf("zrui_bench: medians over %d rounds (%d round trips, %d later dialogs each). Reproduce:"
           " cmake --build build --target bench, or for another build: ZRUI_BIN_DIR=<its bin>"
           " ZRUI_TOKENSIM_DIR=<tokenlib>/ xvfb-run -a %s [rounds]\n",
           done, trips, later, argv[0]);
    printf("%-42s %12s | %-30s %12s | ratio\n", "figure", "ZRUIServer", "reference", "");
    bool complete = done == rounds;
    const char *const rows[] = {
            "REQ_PIN_GetPIN round trip p50, 8 log lines|trip|us|C server, same packets|refTrip",
            "system calls per log line|perLine||C server: open, write, close|refPerLine",
            "first PIN dialog, REQ_PIN_Show -> mapped|first|ms|later PIN dialogs|later",
            "later PIN dialogs, REQ_PIN_Show -> mapped|later|ms|resident minimal Qt window|window",
            "RSS after the first dialog|rss|MB|goal|goal",
            "RSS growth over 1000 dialogs|growth|MB|resident minimal Qt window|windowGrowth",
            "start -> listening|start|ms|C server start -> listening|refStart",
            "start -> listening|start|ms|Qt program that only listens|qtStart"};
    for (const char *row : rows) {
        QList<QByteArray> r = QByteArray(row).split('|');
        const double now = median(v[r[1]]), ref = median(v[r[4]]);
        complete = complete && !std::isnan(now) && !std::isnan(ref);
        printf("%-42s %8.2f %-3s | %-30s %8.2f %-3s | ", r[0].data(), now, r[2].data(), r[3].data(),
               ref, r[2].data());
        printf(std::fabs(ref) > 0.005 ? "%6.2fx\n" : "     -\n", now / ref);
    }
    if (!complete)
        fprintf(stderr, "zrui_bench: some figures were not taken (nan): not a result\n");
    return complete ? 0 : 1;
}
