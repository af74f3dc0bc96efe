// The client kit as a middleware author meets it: installed into a staging
// directory, each public header compiled alone in C and C++, the C example
// built through pkg-config and CMake find_package, then run. Rows build on
// the ones before.
#include <QtTest>

namespace {

const QString Build = ZRUI_KIT_BUILD_DIR, Work = Build + "/test-output/client-kit";
const QString Stage = Work + "/stage", Prefix = Stage + ZRUI_KIT_PREFIX;

} // namespace

class TestClientKit : public QObject
{
    Q_OBJECT

private slots:
    void initTestCase() { QVERIFY(QDir(Work).removeRecursively() && QDir().mkpath(Work)); }
    void testStep_data();
    void testStep();
};

void TestClientKit::testStep_data()
{
    QTest::addColumn<QStringList>("command");
    QTest::addColumn<int>("exitCode");
    const auto row = [](const QString &name, const QStringList &command, int code = 0) {
        QTest::newRow(qPrintable(name)) << command << code;
    };
    for (const QString component : {"client", "client-dev"})
        row("install " + component, {"cmake", "--install", Build, "--component", component});
    for (const QString header : {"client", "protocol"}) {
        const QString use = "#include <zrui/" + header
                            + ".h>\nint main(void) { return UI_OK + ZRUI_PIN_VERIFY_USER; }";
        for (const QString compiler : {"cc -std=c99 -pedantic -x c", "c++ -std=c++17 -x c++"})
            row(header + ".h alone: " + compiler,
                {"sh", "-c",
                 "echo \"$0\" | " + compiler + " -Wall -Werror -I\"$1\" -c - -o /dev/null", use,
                 Prefix + "/include"});
    }
    const QString example = ZRUI_KIT_SOURCE_DIR "/examples/verify-pin";
    row("build through pkg-config",
        {"sh", "-c", "cc -Wall -Werror \"$0\" $(pkg-config --cflags --libs zrui-client) -o \"$1\"",
         example + "/verify_pin.c", Work + "/verify_pin_pc"});
    row("configure through find_package",
        {"cmake", "-S", example, "-B", Work + "/example", "-DCMAKE_PREFIX_PATH=" + Prefix});
    row("build through find_package", {"cmake", "--build", Work + "/example"});
    // No server under that name: the example runs, links and says so (exit 1).
    for (const QString exe : {"/verify_pin_pc", "/example/verify_pin"})
        row("run " + exe, {Work + exe, "zrui-kit-no-such-server"}, 1);
}

void TestClientKit::testStep()
{
    QFETCH(QStringList, command);
    QFETCH(int, exitCode);
#ifdef ZRUI_SANITIZED
    // The staged library of a sanitizer build needs the sanitizer runtime the example lacks.
    if (exitCode == 1)
        QSKIP("the example is not built with the sanitizer runtime its library needs");
#endif
    QProcessEnvironment env = QProcessEnvironment::systemEnvironment();
    env.insert("DESTDIR", Stage);
    env.insert("PKG_CONFIG_SYSROOT_DIR", Stage); // the staged .pc names the final prefix
    env.insert("PKG_CONFIG_PATH", Prefix + "/" ZRUI_KIT_LIBDIR "/pkgconfig");
    env.insert("LD_LIBRARY_PATH", Prefix + "/" ZRUI_KIT_LIBDIR);
    QProcess p;
    p.setProcessEnvironment(env);
    p.setProcessChannelMode(QProcess::MergedChannels);
    p.start(command.takeFirst(), command);
    QVERIFY(p.waitForFinished(120000));
    const QByteArray out = p.readAll();
    QVERIFY2(p.exitStatus() == QProcess::NormalExit && p.exitCode() == exitCode, out.constData());
    QVERIFY2(exitCode == 0 || out.contains("verify_pin: ZRUI_E_NOSERVER"), out.constData());
}

QTEST_GUILESS_MAIN(TestClientKit)
#include "TestClientKit.moc"
