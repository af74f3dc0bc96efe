// A PIN dialog read through the real AT-SPI bus, as a screen reader reads it:
// roles and names are there, the typed PIN is in no accessible text.
#include "XDoTool.h"

#include "ServerLauncher.h"
#include "client/zrui_client.h"

#include <QtTest>

namespace {
const char Pin[] = "Kp4Zw9Xq";

// "--publish": puts the accessibility bus address on the X root window once
// the registry answers. An application name: prints its accessible tree as
// "role|name|description|text" lines once its three PIN fields are there.
const char Script[] = R"(
import pyatspi, subprocess, sys, time
def walk(a, out):
    try:
        t = a.queryText()
        text = t.getText(0, t.characterCount)
    except Exception:
        text = ''
    out.append('%s|%s|%s|%s' % (a.getRoleName(), a.name, a.description, text))
    for i in range(a.childCount):
        walk(a.getChildAtIndex(i), out)
end = time.time() + 20
while time.time() < end:
    try:
        d = pyatspi.Registry.getDesktop(0)  # raises until the registry answers
        if sys.argv[1] == '--publish':
            a = subprocess.check_output(['dbus-send', '--session', '--print-reply=literal',
                '--dest=org.a11y.Bus', '/org/a11y/bus', 'org.a11y.Bus.GetAddress'])
            sys.exit(subprocess.call(['xprop', '-root', '-f', 'AT_SPI_BUS', '8s', '-set',
                'AT_SPI_BUS', a.decode().strip()]))
        for app in [d.getChildAtIndex(i) for i in range(d.childCount)]:
            out = []
            if app is not None and app.name == sys.argv[1]:
                walk(app, out)
            if sum(l.startswith('password text|') for l in out) >= 3:
                sys.exit(print('\n'.join(out)))
    except Exception:
        pass
    time.sleep(0.2)
sys.exit(1)
)";

QString python(const QStringList &args, int *exitCode)
{
    QProcess p;
    p.start("/usr/bin/python3", QStringList{"-c", Script} + args);
    *exitCode = p.waitForFinished(40000) ? p.exitCode() : -1;
    return QString::fromUtf8(p.readAllStandardOutput() + p.readAllStandardError());
}
} // namespace

class TestAtSpi : public QObject
{
    Q_OBJECT
private slots:
    void testScreenReaderView()
    {
        int rc = -1;
        if (!XDoTool::available() || qEnvironmentVariableIsEmpty("DBUS_SESSION_BUS_ADDRESS"))
            QSKIP("needs an X display and a session bus (xvfb-run, dbus-run-session)");
        if (QProcess::execute("/usr/bin/python3", {"-c", "import pyatspi"}) != 0)
            QSKIP("needs python3-pyatspi (scripts/install-deps.sh)");
        // Qt looks for the accessibility bus once, as it starts: a bus not yet
        // published on the root window (as a desktop session does) is never used.
        const QString published = python({"--publish"}, &rc);
        QVERIFY2(rc == 0, qPrintable(published));
        ServerLauncher server;
        server.setPlatform(QString());
        server.setEnv("QT_LINUX_ACCESSIBILITY_ALWAYS_ON", "1");
        QVERIFY2(server.start() && server.waitForListening(), server.output().constData());
        zrui_conn *conn = nullptr;
        QCOMPARE(zrui_open(server.appName().toUtf8().constData(), &conn), int(ZRUI_OK));
        auto closer = qScopeGuard([&conn] { zrui_close(conn); });
        zrui_set_timeout(conn, 10000);
        QCOMPARE(zrui_begin_session(conn, 0), int(ZRUI_OK));
        QCOMPARE(zrui_pin_show(conn, 2), int(ZRUI_OK)); // change: all three fields
        const QString window = XDoTool::waitForWindow("Change USBKey password");
        // The PIN into the old PIN field (it has the focus) and, after a Tab, the next.
        QVERIFY(XDoTool::focus(window) && XDoTool::type(Pin) && XDoTool::key("Tab")
                && XDoTool::type(Pin));
        const QString tree = python({server.appName()}, &rc);
        QVERIFY2(rc == 0, qPrintable(tree));
        for (const char *line :
             {"dialog|Change USBKey password|", "password text|Old PIN:|",
              "password text|New PIN:|", "password text|Confirm PIN:|", "push button|OK|"})
            QVERIFY2(tree.startsWith(line) || tree.contains('\n' + QLatin1String(line)), line);
        QVERIFY(!tree.contains(QLatin1String(Pin).left(4))); // nor its start
    }
};

QTEST_GUILESS_MAIN(TestAtSpi)
#include "TestAtSpi.moc"
