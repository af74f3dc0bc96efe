#include "ServerLauncher.h"

#include <QCoreApplication>
#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QProcessEnvironment>
#include <QTest>

#include <atomic>
#include <unistd.h>

ServerLauncher::ServerLauncher()
{
    static std::atomic<int> counter{0};
    name = QStringLiteral("zrt%1_%2").arg(QCoreApplication::applicationPid()).arg(++counter);
    safePath = qEnvironmentVariable("ZRUI_TOKENSIM_DIR");
    proc.setProcessChannelMode(QProcess::MergedChannels);
}

QString ServerLauncher::buildDir()
{
    const QString bin = qEnvironmentVariable("ZRUI_BIN_DIR");
    return bin.isEmpty() ? QString() : QFileInfo(bin).absoluteDir().absolutePath();
}

QString ServerLauncher::resourceVariantDir(const QString &v)
{
    return buildDir() + QStringLiteral("/test-resources/") + v;
}

QString ServerLauncher::socketName() const { return name + QString::number(getuid()); }

bool ServerLauncher::fail(const QString &message)
{
    error = message;
    return false;
}

bool ServerLauncher::writeFile(const QString &relativePath, const QByteArray &content)
{
    QFile file(root() + QLatin1Char('/') + relativePath);
    QDir().mkpath(QFileInfo(file).absolutePath());
    if (!file.open(QIODevice::WriteOnly) || file.write(content) != content.size())
        return fail(QStringLiteral("cannot write ") + file.fileName());
    return true;
}

bool ServerLauncher::copyFile(const QString &source, const QString &relativeDestination)
{
    const QString dest = root() + QLatin1Char('/') + relativeDestination;
    QDir().mkpath(QFileInfo(dest).absolutePath());
    QFile::remove(dest);
    return QFile::copy(source, dest)
           || fail(QStringLiteral("cannot copy %1 to %2").arg(source, dest));
}

bool ServerLauncher::prepare()
{
    if (prepared)
        return true;
    const QString binSource = qEnvironmentVariable("ZRUI_BIN_DIR");
    if (binSource.isEmpty() || !tempDir.isValid())
        return fail(QStringLiteral("ZRUI_BIN_DIR unset or no temporary directory"));
    if (!QDir(root()).mkpath(QStringLiteral("work"))
        || !copyFile(binSource + QStringLiteral("/ZRUIServer"), QStringLiteral("bin/") + name))
        return false;
    QFile::setPermissions(executablePath(), QFileDevice::ReadOwner | QFileDevice::ExeOwner);
    const QString from = variant.isEmpty() ? binSource : resourceVariantDir(variant);
    for (const char *file : {"resources.rcc", "integrityprotect.ini"}) {
        if (copyResources
            && !copyFile(from + QLatin1Char('/') + QLatin1String(file),
                         QStringLiteral("bin/") + QLatin1String(file)))
            return false;
    }
    if (!safePath.isNull()
        && !writeFile(QStringLiteral("bin/ZRUIConf.ini"), "SAFEPATH=" + safePath.toUtf8() + '\n'))
        return false;
    if (!tokenSimText.isEmpty() && !writeFile(QStringLiteral("tokensim.ini"), tokenSimText))
        return false;
    return prepared = true;
}

bool ServerLauncher::start()
{
    if (!prepare())
        return false;
    QProcessEnvironment env = QProcessEnvironment::systemEnvironment();
    if (!platform.isEmpty())
        env.insert(QStringLiteral("QT_QPA_PLATFORM"), platform);
    if (!tokenSimText.isEmpty())
        env.insert(QStringLiteral("ZRTOKENSIM_CONF"), root() + QStringLiteral("/tokensim.ini"));
#ifdef ZRUI_LSAN_SUPPRESSIONS
    // Sanitizer builds: Qt's own leaks at exit would turn every exit code into 1.
    if (!env.contains(QStringLiteral("LSAN_OPTIONS")))
        env.insert(QStringLiteral("LSAN_OPTIONS"),
                   QStringLiteral("suppressions=") + QLatin1String(ZRUI_LSAN_SUPPRESSIONS));
#endif
    for (auto it = extraEnv.cbegin(); it != extraEnv.cend(); ++it)
        env.insert(it.key(), it.value());
    proc.setProcessEnvironment(env);
    proc.setWorkingDirectory(workDir());
    proc.start(executablePath(), QStringList());
    return proc.waitForStarted(10000)
           || fail(QStringLiteral("cannot start: ") + proc.errorString());
}

bool ServerLauncher::isListening(const QString &abstractName)
{
    QFile table(QStringLiteral("/proc/net/unix"));
    if (!table.open(QIODevice::ReadOnly))
        return false;
    // "Num RefCount Protocol Flags Type St Inode Path": flag 0x10000 listens, type 0001 streams.
    for (const QByteArray &row : table.readAll().split('\n')) {
        const QList<QByteArray> cols = row.simplified().split(' ');
        if (cols.size() >= 8 && cols.at(7) == '@' + abstractName.toUtf8()
            && (cols.at(3).toUInt(nullptr, 16) & 0x10000u) && cols.at(4) == "0001")
            return true;
    }
    return false;
}

bool ServerLauncher::waitForListening(int timeoutMs)
{
    if (QTest::qWaitFor([this] { return isListening(socketName()) || !isRunning(); }, timeoutMs)
        && isRunning())
        return true;
    return fail(isRunning() ? QStringLiteral("not listening in time")
                            : QStringLiteral("process ended before listening"));
}

void ServerLauncher::stop(int timeoutMs)
{
    if (!isRunning())
        return;
    proc.terminate();
    if (!proc.waitForFinished(timeoutMs)) {
        proc.kill();
        proc.waitForFinished(timeoutMs);
    }
}

QByteArray ServerLauncher::output()
{
    collected += proc.readAll();
    return collected;
}
