// The real executable under a window manager (openbox in Xvfb) and a screen
// reader's bus (AT-SPI), driven by the client library and xdotool as the person.
#include "XDoTool.h"

#include "LogFile.h"
#include "ServerLauncher.h"
#include "client/zrui_client.h"

#include <QtTest>

#include <future>

namespace {
const char Pin[] = "Qv7Kx2Zp9W"; // distinctive: appears nowhere else in the process

// Copies of the PIN (ASCII, UTF-16, UTF-32) in the process's readable memory;
// -1 when that cannot be read (the process is not dumpable: root only).
qint64 pinCopies(qint64 pid)
{
    const QString pin(Pin);
    const QVector<uint> ucs4 = pin.toUcs4();
    const QByteArray needles[] = {Pin, QByteArray((const char *)pin.utf16(), pin.size() * 2),
                                  QByteArray((const char *)ucs4.data(), ucs4.size() * 4)};
    QFile maps(QStringLiteral("/proc/%1/maps").arg(pid)),
            mem(QStringLiteral("/proc/%1/mem").arg(pid));
    if (!maps.open(QIODevice::ReadOnly) || !mem.open(QIODevice::ReadOnly | QIODevice::Unbuffered))
        return -1;
    qint64 found = 0;
    const qint64 step = 1 << 20; // chunks overlap; a match counts in the chunk it starts in
    const QRegularExpression readableRange("^([0-9a-f]+)-([0-9a-f]+) r(?!.*\\[v)"); // not [vvar]
    for (const QByteArray &line : maps.readAll().split('\n')) {
        const QRegularExpressionMatch m = readableRange.match(QString::fromLatin1(line));
        const qint64 end = m.captured(2).toULongLong(nullptr, 16);
        for (qint64 at = m.captured(1).toULongLong(nullptr, 16); at < end && mem.seek(at);
             at += step) {
            const QByteArray chunk = mem.read(qMin(end - at, step + 64));
            for (const QByteArray &n : needles) {
                for (int i = chunk.indexOf(n); i >= 0 && i < step; i = chunk.indexOf(n, i + 1))
                    ++found;
            }
        }
    }
    return found;
}
// The accessible tree ("role|name|description|text") of the named application.
const char Script[] = R"(
import pyatspi, sys, time
def walk(a):
    try: text = a.queryText().getText(0, -1)
    except Exception: text = ''
    kids = sum((walk(a.getChildAtIndex(i)) for i in range(a.childCount)), [])
    return ['%s|%s|%s|%s' % (a.getRoleName(), a.name, a.description, text)] + kids
for _ in range(100):
    try:
        d = pyatspi.Registry.getDesktop(0)  # raises until the registry answers
        for tree in [walk(app) for app in d if app and app.name == sys.argv[1]]:
            if any(l.startswith('password text|') for l in tree): sys.exit(print('\n'.join(tree)))
    except Exception: pass
    time.sleep(0.2)
sys.exit(1)
)";

} // namespace

class TestWindowLifecycle : public QObject
{
    Q_OBJECT
    ServerLauncher server;
    zrui_conn *conn = nullptr;
    qint64 pid = 0;

    zrui_conn *openSession()
    {
        zrui_close(std::exchange(conn, nullptr));
        zrui_open(server.appName().toUtf8().constData(), &conn);
        zrui_set_timeout(conn, 10000); // a stalled server fails fast instead of waiting on a box
        return zrui_begin_session(conn, 0) == ZRUI_OK ? conn : nullptr;
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
        QVERIFY(QProcess::startDetached(openbox, {"--sm-disable"})); // goes with the X server
        const QStringList wm{"-c", "xprop -root _NET_SUPPORTING_WM_CHECK | grep -q 'window id'"};
        QTRY_VERIFY_WITH_TIMEOUT(QProcess::execute("sh", wm) == 0, 60000); // slow on a busy machine
        server.setEnv("QT_LINUX_ACCESSIBILITY_ALWAYS_ON", "1");
        server.setPlatform(QString()); // the X server of xvfb-run
        QVERIFY2(server.start() && server.waitForListening(), server.output().constData());
        pid = server.process().processId();
    }
    void cleanupTestCase() { zrui_close(std::exchange(conn, nullptr)); }
    // A window-manager close (Alt+F4 in openbox; the PIN window offers none) or Escape
    // answers as Cancel, an OK-only box as OK; no close ends the process.
    void testCloseAnswersAndServiceStays_data()
    {
        QTest::addColumn<QString>("title");
        QTest::addColumn<QString>("keys");
        QTest::addColumn<int>("answer");
        const QString pin("Verify USBKey password"), list("Select Container"),
                wait("Verify user PIN");
        QTest::newRow("pin") << pin << QString("Escape") << int(ZRUI_E_CANCEL);
        QTest::newRow("retry") << QString("USBKey password error") << QString("alt+F4")
                               << int(ZRUI_E_CANCEL);
        QTest::newRow("message") << QString("Notice") << QString("Escape") << int(ZRUI_OK);
        QTest::newRow("list") << list << QString("alt+F4") << int(ZRUI_E_CANCEL);
        QTest::newRow("waiting") << wait << QString("alt+F4") << int(ZRUI_OK);
    }
    void testCloseAnswersAndServiceStays()
    {
        QFETCH(QString, title);
        QFETCH(QString, keys);
        QFETCH(int, answer);
        const QByteArray kind = QTest::currentDataTag();
        zrui_conn *c = openSession();
        QVERIFY(c);
        zrui_pin_result pin;
        int32_t index = -7;
        std::future<int> blocked;
        if (kind == "pin" || kind == "retry")
            QVERIFY(zrui_pin_show(c, 0) == ZRUI_OK && zrui_pin_get(c, &pin) == ZRUI_E_NORESULT);
        if (kind == "retry") // box requests wait for the answer
            blocked = std::async(std::launch::async, [c] { return zrui_pin_retry(c, 3); });
        if (kind == "message")
            blocked = std::async(std::launch::async,
                                 [c] { return zrui_message_box(c, 0, "Notice", "Hi"); });
        if (kind == "list") { // a new list replaces the open one (X window and all)
            QVERIFY(zrui_list_show(c, 0, "a\nb") == ZRUI_OK
                    && zrui_list_get_sel(c, &index) == ZRUI_E_NORESULT);
            const QString first = XDoTool::waitForWindow(title, 15000, pid);
            QVERIFY(zrui_end_session(c) == ZRUI_OK && zrui_begin_session(c, 0) == ZRUI_OK
                    && zrui_list_show(c, 0, "c\nd") == ZRUI_OK);
            QTRY_VERIFY_WITH_TIMEOUT(XDoTool::waitForWindow(title, 15000, pid) != first, 15000);
            QTRY_COMPARE(XDoTool::titles(pid, true).count(title), 1);
        }
        QVERIFY(kind != "waiting" || zrui_waiting_show(c, 2, "1=30") == ZRUI_OK);
        QVERIFY(press(title, keys));
        QVERIFY(XDoTool::waitForNoWindow(title, 15000, pid));
        const int result = blocked.valid()  ? blocked.get() // bounded by the connection's time-out
                           : kind == "pin"  ? zrui_pin_wait(c, 15000, 50, &pin)
                           : kind == "list" ? zrui_list_wait(c, 15000, 50, &index)
                                            : zrui_waiting_finish(c);
        QCOMPARE(result, answer);
        zrui_close(std::exchange(conn, nullptr)); // no window outlives it, hidden ones neither
        QTRY_VERIFY_WITH_TIMEOUT(!XDoTool::titles(pid, true).contains(title), 10000);
        QVERIFY(openSession()); // the process is still there and serves the next client
    }

    // No copy of a typed PIN stays in the process, shown in clear or not.
    void testNoPinCopyOutlivesItsUse_data()
    {
        QTest::addColumn<int>("end");
        for (const char *shown : {"", ", shown"}) {
            QTest::addRow("REQ_PIN_Finish%s", shown) << 0;
            QTest::addRow("REQ_EndSession%s", shown) << 1;
            QTest::addRow("disconnect%s", shown) << 2;
        }
    }
    void testNoPinCopyOutlivesItsUse()
    {
        QFETCH(int, end);
        const bool shown = QByteArray(QTest::currentDataTag()).endsWith("shown");
#ifdef ZRUI_SANITIZED
        QSKIP("shadow memory and quarantine: the scan is meaningful in the normal build only");
#endif
        if (pinCopies(pid) < 0)
            QSKIP("cannot read the server's memory (it is not dumpable: run as root)");
        QVERIFY(openSession() && zrui_pin_show(conn, 0) == ZRUI_OK);
        const QString title("Verify USBKey password"), shownLine("PIN field shown in clear: true");
        const int timesShown = LogFile::countExact(shownLine);
        QVERIFY(press(title, Pin, true));
        qint64 masked = 0; // the field's own copy: the scan sees a PIN that is there
        QTRY_VERIFY((masked = pinCopies(pid)) >= 1);
        // The show toggle's key, then the cursor moved within the shown PIN.
        QVERIFY(!shown || press(title, "ctrl+shift+h Left Left End"));
        QVERIFY(LogFile::waitForCount(shownLine, timesShown + int(shown)));
        QCOMPARE(pinCopies(pid), masked); // showing it makes no copy
        if (shown && end == 0) { // a screen reader gets roles and names, never the PIN
            QProcess reader;
            reader.start("/usr/bin/python3", {"-c", Script, server.appName()});
            QVERIFY(reader.waitForFinished(40000) && reader.exitCode() == 0);
            const QString tree = "\n" + reader.readAllStandardOutput();
            for (const char *line : {"dialog|Verify USBKey password|", "password text|User PIN:|",
                                     "check box|Hide PIN|", "push button|OK|"})
                QVERIFY2(tree.contains("\n" + QString(line)), line);
            QVERIFY(!tree.contains(QString(Pin).left(4)));
        }
        QVERIFY(press(title, "Return"));
        zrui_pin_result pin;
        QCOMPARE(zrui_pin_wait(conn, 15000, 50, &pin), int(ZRUI_OK));
        QCOMPARE(QByteArray(pin.oldPin, int(pin.oldLen)), QByteArray(Pin));
        zrui_pin_result_wipe(&pin);
        if (end < 2)
            QCOMPARE(end ? zrui_end_session(conn) : zrui_pin_finish(conn), int(ZRUI_OK));
        zrui_close(end == 2 ? std::exchange(conn, nullptr) : nullptr); // or a disconnect
        QTRY_COMPARE_WITH_TIMEOUT(pinCopies(pid), qint64(0), 10000);
    }
};

QTEST_GUILESS_MAIN(TestWindowLifecycle)
#include "TestWindowLifecycle.moc"
