// The real executable under a window manager (openbox in Xvfb), driven by the
// client library and by xdotool as the person.
#include "XDoTool.h"

#include "LogFile.h"
#include "ServerLauncher.h"
#include "client/zrui_client.h"

#include <QFile>
#include <QtTest>

#include <fcntl.h>
#include <future>
#include <unistd.h>

namespace {
const char Pin[] = "Qv7Kx2Zp9W"; // distinctive: appears nowhere else in the process

// Copies of the PIN (ASCII, UTF-16, UTF-32) in the process's readable memory;
// -1 when none of it can be read (it is not dumpable: root only).
qint64 pinCopies(qint64 pid)
{
    QList<QByteArray> needles{Pin, {}, {}};
    for (const char c : QByteArray(Pin)) {
        needles[1] += QByteArray(1, c) + '\0';
        needles[2] += QByteArray(1, c) + QByteArray(3, '\0');
    }
    QFile maps(QStringLiteral("/proc/%1/maps").arg(pid));
    const int mem = open(qPrintable(QStringLiteral("/proc/%1/mem").arg(pid)), O_RDONLY);
    qint64 found = 0, readable = 0;
    QByteArray chunk;
    for (const QByteArray &line :
         maps.open(QIODevice::ReadOnly) ? maps.readAll().split('\n') : QList<QByteArray>()) {
        const QList<QByteArray> f = line.simplified().split(' ');
        if (mem < 0 || f.size() < 5 || !f.at(1).startsWith('r') || line.contains("[v"))
            continue; // not readable, [vvar], [vsyscall]
        const QList<QByteArray> range = f.at(0).split('-');
        const quint64 end = range.value(1).toULongLong(nullptr, 16);
        for (quint64 at = range.value(0).toULongLong(nullptr, 16); at < end;) {
            chunk.resize(int(qMin<quint64>(end - at, 1 << 20)));
            const qint64 got = pread(mem, chunk.data(), size_t(chunk.size()), off_t(at));
            if (got <= 0)
                break;
            readable += got;
            // A match starting in the last 63 bytes is left to the next chunk.
            const qint64 step = at + quint64(got) >= end ? got : got - 63;
            chunk.resize(int(got));
            for (const QByteArray &n : needles) {
                for (int i = chunk.indexOf(n); i >= 0 && i < step; i = chunk.indexOf(n, i + 1))
                    ++found;
            }
            at += quint64(step);
        }
    }
    if (mem >= 0)
        close(mem);
    return readable > 0 ? found : -1;
}
} // namespace

class TestWindowLifecycle : public QObject
{
    Q_OBJECT
    QProcess windowManager;
    ServerLauncher server;
    zrui_conn *conn = nullptr;
    qint64 pid = 0;

    zrui_conn *openSession()
    {
        zrui_conn *c = nullptr;
        if (zrui_open(server.appName().toUtf8().constData(), &c) != ZRUI_OK)
            return nullptr;
        zrui_set_timeout(c, 10000); // a stalled server fails fast instead of waiting on a box
        if (zrui_begin_session(c, 0) == ZRUI_OK)
            return c;
        zrui_close(c);
        return nullptr;
    }
    bool press(const QString &title, const QString &keys, bool typed = false)
    {
        const QString window = XDoTool::waitForWindow(title, 15000, pid);
        return !window.isEmpty() && XDoTool::run({"windowactivate", "--sync", window})
               && (typed ? XDoTool::type(keys) : XDoTool::key(keys));
    }

private slots:
    void initTestCase()
    {
        const QString openbox = QStandardPaths::findExecutable(QStringLiteral("openbox"));
        if (!XDoTool::available() || openbox.isEmpty())
            QSKIP("needs xdotool, openbox and an X display (xvfb-run)");
        windowManager.start(openbox, {QStringLiteral("--sm-disable")});
        const auto running = [] {
            QProcess p;
            p.start(QStringLiteral("xprop"), {"-root", "_NET_SUPPORTING_WM_CHECK"});
            return p.waitForFinished(5000) && p.readAllStandardOutput().contains("window id #");
        };
        QTRY_VERIFY_WITH_TIMEOUT(running(), 60000); // slow to come up on a loaded machine
        server.setPlatform(QString()); // the X server of xvfb-run
        QVERIFY2(server.start() && server.waitForListening(), server.output().constData());
        pid = server.process().processId();
    }
    void cleanup()
    {
        if (conn)
            zrui_close(conn);
        conn = nullptr;
    }
    void cleanupTestCase()
    {
        server.stop();
        windowManager.terminate();
        windowManager.waitForFinished(5000);
    }

    // A window-manager close (Alt+F4 in openbox; the PIN window offers none) or
    // Escape answers as Cancel, an OK-only box as OK; no close ends the process.
    void testCloseAnswersAndServiceStays_data()
    {
        QTest::addColumn<QString>("kind");
        QTest::addColumn<QString>("title");
        QTest::addColumn<QString>("keys");
        QTest::addColumn<int>("answer");
        QTest::newRow("pin") << "pin"
                             << "Verify USBKey password"
                             << "Escape" << int(ZRUI_E_CANCEL);
        QTest::newRow("retry") << "retry"
                               << "USBKey password error"
                               << "alt+F4" << int(ZRUI_E_CANCEL);
        QTest::newRow("message") << "message"
                                 << "Lifecycle notice"
                                 << "Escape" << int(ZRUI_OK);
        QTest::newRow("list") << "list"
                              << "Select Container"
                              << "alt+F4" << int(ZRUI_E_CANCEL);
        QTest::newRow("waiting") << "waiting"
                                 << "Verify user PIN"
                                 << "alt+F4" << int(ZRUI_OK);
    }
    void testCloseAnswersAndServiceStays()
    {
        QFETCH(QString, kind);
        QFETCH(QString, title);
        QFETCH(QString, keys);
        QFETCH(int, answer);
        zrui_conn *c = conn = openSession();
        QVERIFY(c);
        zrui_pin_result pin;
        int32_t index = -7;
        std::future<int> blocked; // message and retry requests wait for the box
        if (kind == "pin" || kind == "retry")
            QCOMPARE(zrui_pin_show(c, 0), int(ZRUI_OK));
        if (kind == "retry") {
            QCOMPARE(zrui_pin_get(c, &pin), int(ZRUI_E_NORESULT));
            blocked = std::async(std::launch::async, [c] { return zrui_pin_retry(c, 3); });
        } else if (kind == "message") {
            blocked = std::async(std::launch::async,
                                 [c] { return zrui_message_box(c, 0, "Lifecycle notice", "Bye"); });
        } else if (kind == "list") {
            QCOMPARE(zrui_list_show(c, 0, "first\nsecond"), int(ZRUI_OK));
        } else if (kind == "waiting") {
            QCOMPARE(zrui_waiting_show(c, 2, "1=30"), int(ZRUI_OK));
        }
        QVERIFY(press(title, keys));
        QVERIFY(XDoTool::waitForNoWindow(title, 15000, pid));
        const int result = blocked.valid()  ? blocked.get() // bounded by the connection's time-out
                           : kind == "pin"  ? zrui_pin_wait(c, 15000, 50, &pin)
                           : kind == "list" ? zrui_list_wait(c, 15000, 50, &index)
                                            : zrui_waiting_finish(c);
        QCOMPARE(result, answer);
        zrui_close(conn);
        // The process is still there and serves the next client.
        QVERIFY(conn = openSession());
        QCOMPARE(zrui_end_session(conn), int(ZRUI_OK));
    }

    // A new list request replaces the open list; no window outlives its connection.
    void testWindowsReplacedAndGoWithConnection()
    {
        QVERIFY(conn = openSession());
        int32_t index = -7;
        for (int i = 0; i < 5; ++i) {
            QCOMPARE(zrui_list_show(conn, 0, "first\nsecond"), int(ZRUI_OK));
            QCOMPARE(zrui_list_get_sel(conn, &index), int(ZRUI_E_NORESULT));
            QCOMPARE(zrui_end_session(conn), int(ZRUI_OK));
            QCOMPARE(zrui_begin_session(conn, 0), int(ZRUI_OK));
        }
        QCOMPARE(zrui_waiting_show(conn, 2, "1=30"), int(ZRUI_OK));
        QVERIFY(!XDoTool::waitForWindow("Verify user PIN", 15000, pid).isEmpty());
        QCOMPARE(XDoTool::titles(pid, true).count("Select Container"), 1); // hidden ones count
        zrui_close(conn);
        conn = nullptr;
        QTRY_VERIFY_WITH_TIMEOUT(
                XDoTool::titles(pid, true)
                        .filter(QRegularExpression("^(Select Container|Verify user PIN)$"))
                        .isEmpty(),
                10000);
    }

    // No copy of a typed PIN stays in the process, shown in clear or not.
    void testNoPinCopyOutlivesItsUse_data()
    {
        QTest::addColumn<int>("end");
        QTest::addColumn<bool>("shown");
        for (const bool shown : {false, true}) {
            QTest::addRow("REQ_PIN_Finish%s", shown ? ", shown" : "") << 0 << shown;
            QTest::addRow("REQ_EndSession%s", shown ? ", shown" : "") << 1 << shown;
            QTest::addRow("disconnect%s", shown ? ", shown" : "") << 2 << shown;
        }
    }
    void testNoPinCopyOutlivesItsUse()
    {
        QFETCH(int, end);
        QFETCH(bool, shown);
#ifdef ZRUI_SANITIZED
        QSKIP("shadow memory and quarantine: the scan is meaningful in the normal build only");
#endif
        if (pinCopies(pid) < 0)
            QSKIP("cannot read the server's memory (it is not dumpable: run as root)");
        QVERIFY(conn = openSession());
        QCOMPARE(zrui_pin_show(conn, 0), int(ZRUI_OK));
        const QString shownLine = QStringLiteral("PIN field shown in clear: true");
        const int timesShown = LogFile::countExact(shownLine);
        QVERIFY(press("Verify USBKey password", Pin, true));
        QTRY_VERIFY(pinCopies(pid) >= 1); // the field's own: the scan sees a PIN that is there
        const qint64 masked = pinCopies(pid);
        // The show toggle's key, then the cursor moved within the shown PIN.
        QVERIFY(!shown || press("Verify USBKey password", "ctrl+shift+h Left Left End"));
        QVERIFY(LogFile::waitForCount(shownLine, timesShown + int(shown)));
        QCOMPARE(pinCopies(pid), masked); // showing it makes no copy
        QVERIFY(press("Verify USBKey password", "Return"));
        for (int ask = 0; ask < 2; ++ask) { // asked for again while the state allows it
            zrui_pin_result pin;
            QCOMPARE(zrui_pin_wait(conn, 15000, 50, &pin), int(ZRUI_OK));
            QCOMPARE(QByteArray(pin.oldPin, int(pin.oldLen)), QByteArray(Pin));
            zrui_pin_result_wipe(&pin);
        }
        QVERIFY(pinCopies(pid) >= 1); // the hand-off buffer
        if (end == 0)
            QCOMPARE(zrui_pin_finish(conn), int(ZRUI_OK));
        else if (end == 1)
            QCOMPARE(zrui_end_session(conn), int(ZRUI_OK));
        else
            zrui_close(conn), conn = nullptr;
        QTRY_COMPARE_WITH_TIMEOUT(pinCopies(pid), qint64(0), 10000);
    }
};

QTEST_GUILESS_MAIN(TestWindowLifecycle)
#include "TestWindowLifecycle.moc"
