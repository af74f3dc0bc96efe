// The client kit as a middleware author meets it: installed into a staging
// directory (DESTDIR), each public header compiled alone in C and C++, and
// the C example built through pkg-config and through CMake find_package and
// run. The rows run in order; each one builds on the ones before.
#include <QDir>
#include <QProcess>
#include <QtTest>

namespace {

const QString Build = QStringLiteral(ZRUI_KIT_BUILD_DIR);
const QString Source = QStringLiteral(ZRUI_KIT_SOURCE_DIR);
const QString Prefix = QStringLiteral(ZRUI_KIT_PREFIX);
const QString Work = Build + QStringLiteral("/test-output/client-kit");
const QString Stage = Work + QStringLiteral("/stage");
const QString Include = Stage + Prefix + QStringLiteral("/include");
const QString LibDir = Stage + Prefix + QStringLiteral("/" ZRUI_KIT_LIBDIR);

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

    for (const char *component : {"client", "client-dev"})
        QTest::addRow("install %s", component)
                << "cmake" << QStringList{"--install", Build, "--component", component} << 0
                << QByteArray();
    const QString example = Source + QStringLiteral("/examples/verify-pin");
    for (const char *header : {"client", "protocol"}) {
        const QString probe = Work + QStringLiteral("/alone_%1.c").arg(QLatin1String(header));
        QFile f(probe);
        if (f.open(QIODevice::WriteOnly))
            f.write(QByteArray("#include <zrui/") + header
                    + ".h>\nint main(void) { return UI_OK + ZRUI_PIN_VERIFY_USER; }\n");
        QTest::addRow("%s.h alone in C", header)
                << "cc" << QStringList{"-std=c99", "-Wall", "-Werror", "-pedantic",  "-I" + Include,
                                       "-c",       probe,   "-o",      Work + "/c.o"}
                << 0 << QByteArray();
        QTest::addRow("%s.h alone in C++", header)
                << "c++"
                << QStringList{"-std=c++17", "-Wall", "-Werror", "-I" + Include, "-x",
                               "c++",        "-c",    probe,     "-o",           Work + "/cxx.o"}
                << 0 << QByteArray();
    }
    QTest::newRow("build through pkg-config")
            << "sh"
            << QStringList{"-c",
                           "cc -Wall -Werror \"$0\" $(pkg-config --cflags --libs zrui-client) "
                           "-o \"$1\"",
                           example + "/verify_pin.c", Work + "/verify_pin_pc"}
            << 0 << QByteArray();
    QTest::newRow("configure through find_package")
            << "cmake"
            << QStringList{"-S", example, "-B", Work + "/example",
                           "-DCMAKE_PREFIX_PATH=" + Stage + Prefix}
            << 0 << QByteArray();
    QTest::newRow("build through find_package")
            << "cmake" << QStringList{"--build", Work + "/example"} << 0 << QByteArray();
    // No server under that name: the example runs, links and says so.
    for (const QString &exe : {Work + "/verify_pin_pc", Work + "/example/verify_pin"})
        QTest::newRow(qPrintable("run " + QFileInfo(exe).fileName()))
                << exe << QStringList{"zrui-kit-no-such-server"} << 1
                << QByteArray("verify_pin: ZRUI_E_NOSERVER");
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
    QProcess p;
    QProcessEnvironment env = QProcessEnvironment::systemEnvironment();
    env.insert(QStringLiteral("DESTDIR"), Stage);
    // The staged .pc names the final prefix; the sysroot maps it into the stage.
    env.insert(QStringLiteral("PKG_CONFIG_SYSROOT_DIR"), Stage);
    env.insert(QStringLiteral("PKG_CONFIG_PATH"), LibDir + QStringLiteral("/pkgconfig"));
    env.insert(QStringLiteral("LD_LIBRARY_PATH"), LibDir);
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
