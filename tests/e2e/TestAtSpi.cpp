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

// With "--publish": waits for the registry, then puts the accessibility bus
// address on the X root window (see initTestCase). With an application name:
// dumps its accessible tree as "role|name|description|text" lines once its
// PIN fields are there. Deadline 20 s; exit 1 on time-out.
const char Script[] = R"(
import pyatspi, subprocess, sys, time
deadline = time.time() + 20
def apps():
    d = pyatspi.Registry.getDesktop(0)
    return [d.getChildAtIndex(i) for i in range(d.childCount)]
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
while time.time() < deadline:
    try:
        found = apps()  # raises until the registry answers
        if sys.argv[1] == '--publish':
            a = subprocess.check_output(['dbus-send', '--session', '--print-reply=literal',
                '--dest=org.a11y.Bus', '/org/a11y/bus', 'org.a11y.Bus.GetAddress'])
            sys.exit(subprocess.call(['xprop', '-root', '-f', 'AT_SPI_BUS', '8s', '-set',
                'AT_SPI_BUS', a.decode().strip()]))
        for app in found:
            out = []
            if app is not None and app.name == sys.argv[1]:
                walk(app, out)
            if sum(l.startswith('password text|') for l in out) >= 3:
                print('\n'.join(out))
                sys.exit(0)
    except Exception:
        pass
    time.sleep(0.2)
sys.stderr.write('applications: %s\n' % [a.name for a in apps()])
sys.exit(1)
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
    // Qt finds the bus either on the X root window (AT_SPI_BUS, at once) or by
    // asking the session bus, and then only after it has already tried, and
    // failed, to announce itself to the registry on the not yet connected bus:
    // it never asks again and no screen reader ever lists it. Publishing the
    // address on the root window, as a desktop session does, avoids that race.
    probe.start("/usr/bin/python3", {"-c", Script, "--publish"});
    QVERIFY(probe.waitForFinished(30000) && probe.exitCode() == 0);

    server.reset(new ServerLauncher);
    server->setPlatform(QString());
    server->setEnv("QT_LINUX_ACCESSIBILITY_ALWAYS_ON", "1");
    QVERIFY2(server->start(), qPrintable(server->errorString()));
    QVERIFY2(server->waitForListening(), server->output().constData());
    QCOMPARE(zrui_open(server->appName().toUtf8().constData(), &conn), int(ZRUI_OK));
    zrui_set_timeout(conn, 10000);
    QCOMPARE(zrui_begin_session(conn, 0), int(ZRUI_OK));
    QCOMPARE(zrui_pin_show(conn, 2), int(ZRUI_OK)); // change: all three fields
    const QString window = XDoTool::waitForWindow("Change USBKey password");
    QVERIFY(!window.isEmpty());
    // The old PIN field has the focus; the PIN goes into it and, after a Tab, the next.
    QVERIFY(XDoTool::focus(window) && XDoTool::type(Pin) && XDoTool::key("Tab")
            && XDoTool::type(Pin));

    QProcess dump;
    dump.start("/usr/bin/python3", {"-c", Script, server->appName()});
    QVERIFY(dump.waitForFinished(40000));
    QVERIFY2(dump.exitCode() == 0, dump.readAllStandardError().constData());
    tree = QString::fromUtf8(dump.readAllStandardOutput()).split('\n');
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
