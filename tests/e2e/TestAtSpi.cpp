// A PIN dialog read back through the real AT-SPI bus, as a screen reader
// reads it: roles and names are there, the typed PIN is nowhere.
#include "XDoTool.h"

#include "ServerLauncher.h"
#include "client/zrui_client.h"

#include <QFile>
#include <QProcess>
#include <QtTest>

#include <memory>

namespace {
const char Pin[] = "Kp4Zw9Xq";

// Dumps the application's accessible tree as "role|name|description|text"
// lines once its PIN fields are there (deadline 8 s); exit 1 otherwise.
const char Dump[] = R"(
import pyatspi, sys, time
name, deadline = sys.argv[1], time.time() + 8
def walk(a, out):
    text = ''
    try:
        t = a.queryText()
        text = t.getText(0, t.characterCount)
    except Exception:
        pass
    out.append('%s|%s|%s|%s' % (a.getRoleName(), a.name, a.description, text))
    for i in range(a.childCount):
        walk(a.getChildAtIndex(i), out)
while True:
    try:
        desktop = pyatspi.Registry.getDesktop(0)
        for i in range(desktop.childCount):
            app = desktop.getChildAtIndex(i)
            if app is not None and app.name == name:
                out = []
                walk(app, out)
                if sum(l.startswith('password text|') for l in out) >= 3:
                    print('\n'.join(out))
                    sys.exit(0)
    except Exception:
        pass
    if time.time() > deadline:
        d = pyatspi.Registry.getDesktop(0)
        sys.stderr.write('applications: %s\n' % [d.getChildAtIndex(i).name for i in range(d.childCount)])
        sys.exit(1)
    time.sleep(0.2)
)";
} // namespace

class TestAtSpi : public QObject
{
    Q_OBJECT

private slots:
    void initTestCase();
    void cleanupTestCase();
    void testScreenReaderView_data();
    void testScreenReaderView();

private:
    std::unique_ptr<ServerLauncher> server;
    zrui_conn *conn = nullptr;
    QStringList tree;
};

void TestAtSpi::initTestCase()
{
    if (!XDoTool::available() || qEnvironmentVariableIsEmpty("DBUS_SESSION_BUS_ADDRESS"))
        QSKIP("needs an X display and a session bus (xvfb-run, dbus-run-session)");
    QProcess probe;
    probe.start("/usr/bin/python3", {"-c", "import pyatspi"});
    if (!probe.waitForFinished(20000) || probe.exitCode() != 0)
        QSKIP("needs python3-pyatspi (scripts/install-deps.sh)");
    // The server joins the accessibility bus as it starts: the bus comes first.
    probe.start("/usr/bin/python3", {"-c", "import pyatspi, sys, time\n"
                                           "deadline = time.time() + 20\n"
                                           "while time.time() < deadline:\n"
                                           "    try:\n"
                                           "        pyatspi.Registry.getDesktop(0).childCount\n"
                                           "        sys.exit(0)\n"
                                           "    except Exception:\n"
                                           "        time.sleep(0.1)\n"
                                           "sys.exit(1)\n"});
    QVERIFY(probe.waitForFinished(30000) && probe.exitCode() == 0);

    // Now and then a freshly started program does not join the accessibility
    // bus (the registry never lists it); that is the bus's start-up, not what
    // is tested here, so such a start is repeated.
    QByteArray output;
    for (int attempt = 0; attempt < 3 && tree.isEmpty(); ++attempt) {
        if (conn)
            zrui_close(conn);
        conn = nullptr;
        server.reset(new ServerLauncher);
        server->setPlatform(QString());
        server->setEnv("QT_LINUX_ACCESSIBILITY_ALWAYS_ON", "1");
        server->setEnv("QT_ACCESSIBILITY", "1");
        QVERIFY2(server->start(), qPrintable(server->errorString()));
        QVERIFY2(server->waitForListening(), server->output().constData());
        QCOMPARE(zrui_open(server->appName().toUtf8().constData(), &conn), int(ZRUI_OK));
        QCOMPARE(zrui_begin_session(conn, 0), int(ZRUI_OK));
        QCOMPARE(zrui_pin_show(conn, 2), int(ZRUI_OK)); // change: all three fields
        const QString window = XDoTool::waitForWindow("Change USBKey password");
        QVERIFY(!window.isEmpty());
        // The old PIN field has the focus; the PIN goes into it and, after a Tab, the next.
        QVERIFY(XDoTool::focus(window) && XDoTool::type(Pin) && XDoTool::key("Tab")
                && XDoTool::type(Pin));

        QProcess dump;
        dump.start("/usr/bin/python3", {"-c", Dump, server->appName()});
        QVERIFY(dump.waitForFinished(40000));
        output = dump.readAllStandardError();
        if (dump.exitCode() == 0)
            tree = QString::fromUtf8(dump.readAllStandardOutput()).split('\n');
    }
    // A bus whose registry lists no program at all is a broken bus start-up,
    // said openly; a registry that lists others but not this one is a failure.
    if (tree.isEmpty() && output.contains("applications: []"))
        QSKIP("the accessibility registry of this session lists no application");
    QVERIFY2(!tree.isEmpty(), output.constData());
}

void TestAtSpi::cleanupTestCase()
{
    if (conn)
        zrui_close(conn);
    if (server)
        server->stop();
}

void TestAtSpi::testScreenReaderView_data()
{
    QTest::addColumn<QString>("line"); // role|name, the start of a line that must be there
    QTest::newRow("window") << "dialog|Change USBKey password|";
    QTest::newRow("old PIN field") << "password text|Old PIN:|";
    QTest::newRow("new PIN field") << "password text|New PIN:|";
    QTest::newRow("confirm field") << "password text|Confirm PIN:|";
    QTest::newRow("OK button") << "push button|OK|";
}

void TestAtSpi::testScreenReaderView()
{
    QFETCH(QString, line);
    const auto found = std::find_if(tree.cbegin(), tree.cend(),
                                    [&line](const QString &l) { return l.startsWith(line); });
    QVERIFY2(found != tree.cend(), qPrintable(tree.join('\n')));
    // Whatever the row, the PIN (or its start) is in no accessible text.
    const QString all = tree.join('\n');
    QVERIFY(!all.contains(QLatin1String(Pin)));
    QVERIFY(!all.contains(QLatin1String(Pin).left(4)));
}

QTEST_GUILESS_MAIN(TestAtSpi)
#include "TestAtSpi.moc"
