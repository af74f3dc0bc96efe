// The client kit as a middleware author meets it: installed into a staging
// directory (DESTDIR), each public header compiled alone in C and C++, and
// the C example built through pkg-config and CMake find_package, then run.
// The rows run in order; each builds on the ones before.
#include <QDir>
#include <QProcess>
#include <QtTest>

namespace {

const QString Build = QStringLiteral(ZRUI_KIT_BUILD_DIR);
const QString Work = Build + QStringLiteral("/test-output/client-kit");
const QString Stage = Work + QStringLiteral("/stage");
const QString Prefix = Stage + QStringLiteral(ZRUI_KIT_PREFIX);
const QString LibDir = Prefix + QStringLiteral("/" ZRUI_KIT_LIBDIR);

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
    QTest::addColumn<QString>("program");
    QTest::addColumn<QStringList>("args");
    QTest::addColumn<int>("exitCode");
    QTest::addColumn<QByteArray>("output"); // must appear in stdout/stderr
    const auto row = [](const QString &name, const QString &program, const QStringList &args,
                        int code = 0, const QByteArray &out = QByteArray()) {
        QTest::newRow(qPrintable(name)) << program << args << code << out;
    };
    for (const QString component : {"client", "client-dev"})
        row("install " + component, "cmake", {"--install", Build, "--component", component});
    for (const QString header : {"client", "protocol"}) {
        const QString probe = Work + "/alone_" + header + ".c";
        QFile f(probe);
        if (f.open(QIODevice::WriteOnly))
            f.write("#include <zrui/" + header.toUtf8()
                    + ".h>\nint main(void) { return UI_OK + ZRUI_PIN_VERIFY_USER; }\n");
        const QStringList common{"-Wall", "-Werror", "-I" + Prefix + "/include", "-c", probe};
        row(header + ".h alone in C", "cc",
            QStringList{"-std=c99", "-pedantic"} + common + QStringList{"-o", Work + "/c.o"});
        row(header + ".h alone in C++", "c++",
            QStringList{"-std=c++17", "-x", "c++"} + common + QStringList{"-o", Work + "/cxx.o"});
    }
    const QString example = QStringLiteral(ZRUI_KIT_SOURCE_DIR "/examples/verify-pin");
    row("build through pkg-config", "sh",
        {"-c", "cc -Wall -Werror \"$0\" $(pkg-config --cflags --libs zrui-client) -o \"$1\"",
         example + "/verify_pin.c", Work + "/verify_pin_pc"});
    row("configure through find_package", "cmake",
        {"-S", example, "-B", Work + "/example", "-DCMAKE_PREFIX_PATH=" + Prefix});
    row("build through find_package", "cmake", {"--build", Work + "/example"});
    // No server under that name: the example runs, links and says so.
    for (const QString exe : {"/verify_pin_pc", "/example/verify_pin"})
        row("run " + exe, Work + exe, {"zrui-kit-no-such-server"}, 1,
            "verify_pin: ZRUI_E_NOSERVER");
}

void TestClientKit::testStep()
{
    QFETCH(QString, program);
    QFETCH(QStringList, args);
    QFETCH(int, exitCode);
    QFETCH(QByteArray, output);
#ifdef ZRUI_SANITIZED
    // The example is an ordinary program; the staged library of a sanitizer build needs the
    // sanitizer runtime loaded first. The normal build runs these rows.
    if (QFileInfo(program).fileName().startsWith(QLatin1String("verify_pin")))
        QSKIP("the example is not built with the sanitizer runtime its library needs");
#endif
    QProcessEnvironment env = QProcessEnvironment::systemEnvironment();
    env.insert("DESTDIR", Stage);
    // The staged .pc names the final prefix; the sysroot maps it into the stage.
    env.insert("PKG_CONFIG_SYSROOT_DIR", Stage);
    env.insert("PKG_CONFIG_PATH", LibDir + "/pkgconfig");
    env.insert("LD_LIBRARY_PATH", LibDir);
    QProcess p;
    p.setProcessEnvironment(env);
    p.setProcessChannelMode(QProcess::MergedChannels);
    p.start(program, args);
    QVERIFY2(p.waitForFinished(120000), qPrintable(program + " did not finish"));
    const QByteArray out = p.readAll();
    QVERIFY2(p.exitStatus() == QProcess::NormalExit && p.exitCode() == exitCode, out.constData());
    QVERIFY2(out.contains(output), out.constData());
}

QTEST_GUILESS_MAIN(TestClientKit)
#include "TestClientKit.moc"
