#include "ServerLauncher.h"

#include <QCoreApplication>
#include <QDir>
#include <QTest>

#include <atomic>

ServerLauncher::ServerLauncher()
{
    static std::atomic<int> counter{0};
    name = QStringLiteral("zrt%1_%2").arg(QCoreApplication::applicationPid()).arg(++counter);
    safePath = qEnvironmentVariable("ZRUI_TOKENSIM_DIR");
    proc.setProcessChannelMode(QProcess::MergedChannels);
}

bool ServerLauncher::writeFile(const QString &relativePath, const QByteArray &content)
{
    QFile file(dir.path() + '/' + relativePath);
    return (QDir().mkpath(QFileInfo(file).path()) && file.open(QIODevice::WriteOnly)
            && file.write(content) == content.size())
           || fail("cannot write " + file.fileName());
}

bool ServerLauncher::prepare()
{
    const QString bin = qEnvironmentVariable("ZRUI_BIN_DIR");
    const QString res = variant.isEmpty() ? bin : resourceVariantDir(variant);
    if (!prepared
        && (bin.isEmpty() || !dir.isValid() || !QDir().mkpath(workDir()) || !QDir().mkpath(binDir())
            || !QFile::copy(bin + "/ZRUIServer", executablePath())
            || !QFile::copy(res + "/resources.rcc", binDir() + "/resources.rcc")
            || !QFile::copy(res + "/integrityprotect.ini", binDir() + "/integrityprotect.ini")))
        return fail("cannot build the sandbox from " + bin + " and " + res);
    return prepared = prepared || safePath.isNull()
                      || writeFile("bin/ZRUIConf.ini", "SAFEPATH=" + safePath.toUtf8() + '\n');
}

bool ServerLauncher::start()
{
    if (!prepare())
        return false;
    QProcessEnvironment all = QProcessEnvironment::systemEnvironment();
    if (!platform.isEmpty())
        all.insert("QT_QPA_PLATFORM", platform);
#ifdef ZRUI_LSAN_SUPPRESSIONS
    // Sanitizer builds: Qt's own leaks at exit would turn every exit code into 1.
    if (!all.contains("LSAN_OPTIONS"))
        all.insert("LSAN_OPTIONS", "suppressions=" ZRUI_LSAN_SUPPRESSIONS);
#endif
    for (auto it = env.cbegin(); it != env.cend(); ++it)
        all.insert(it.key(), it.value());
    proc.setProcessEnvironment(all);
    proc.setWorkingDirectory(workDir());
    proc.start(executablePath(), QStringList());
    return proc.waitForStarted(10000) || fail("cannot start: " + proc.errorString());
}

bool ServerLauncher::isListening(const QString &abstractName)
{
    QFile table("/proc/net/unix");
    // "Num RefCount Protocol Flags Type St Inode Path": flag 0x10000 listens, type 0001 streams.
    for (const QByteArray &row :
         table.open(QIODevice::ReadOnly) ? table.readAll().split('\n') : QList<QByteArray>()) {
        const QList<QByteArray> cols = row.simplified().split(' ');
        if (cols.size() >= 8 && cols.at(7) == '@' + abstractName.toUtf8()
            && (cols.at(3).toUInt(nullptr, 16) & 0x10000u) && cols.at(4) == "0001")
            return true;
    }
    return false;
}

bool ServerLauncher::waitForListening(int timeoutMs)
{
    return (QTest::qWaitFor([this] { return isListening(socketName()) || !isRunning(); }, timeoutMs)
            && isRunning())
           || fail(isRunning() ? "not listening in time" : "process ended before listening");
}

void ServerLauncher::stop()
{
    if (isRunning()) {
        proc.terminate();
        if (!proc.waitForFinished(5000))
            proc.kill();
        proc.waitForFinished(5000);
    }
}
