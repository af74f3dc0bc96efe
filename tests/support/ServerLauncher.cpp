#include "ServerLauncher.h"

#include <QCoreApplication>
#include <QDir>
#include <QElapsedTimer>
#include <QFile>
#include <QFileInfo>
#include <QProcessEnvironment>
#include <QThread>

#include <atomic>
#include <unistd.h>

namespace {

std::atomic<int> launcherCounter{0};

QString envDir(const char *name) { return qEnvironmentVariable(name); }

} // namespace

ServerLauncher::ServerLauncher()
{
    name = QStringLiteral("zrt%1_%2")
                   .arg(QCoreApplication::applicationPid())
                   .arg(++launcherCounter);
    safePath = envDir("ZRUI_TOKENSIM_DIR");
    proc.setProcessChannelMode(QProcess::MergedChannels);
}

ServerLauncher::~ServerLauncher()
{
    if (isRunning())
        stop();
}

void ServerLauncher::setSafePath(const QString &dir) { safePath = dir; }

void ServerLauncher::setConfigPlacement(ConfigPlacement p) { placement = p; }

void ServerLauncher::useResourceVariant(const QString &v) { variant = v; }

void ServerLauncher::setCopyResources(bool copy) { copyResources = copy; }

void ServerLauncher::setTokenSimIni(const QByteArray &text)
{
    tokenSimText = text;
    tokenSimIni = true;
}

void ServerLauncher::setPlatform(const QString &p) { platform = p; }

void ServerLauncher::setEnv(const QString &envName, const QString &value)
{
    extraEnv.insert(envName, value);
}

QString ServerLauncher::buildDir()
{
    const QString bin = envDir("ZRUI_BIN_DIR");
    if (bin.isEmpty())
        return QString();
    return QFileInfo(bin).absoluteDir().absolutePath();
}

QString ServerLauncher::resourceVariantDir(const QString &v)
{
    return buildDir() + QStringLiteral("/test-resources/") + v;
}

QString ServerLauncher::rootDir() const { return tempDir ? tempDir->path() : QString(); }

QString ServerLauncher::binDir() const { return rootDir() + QStringLiteral("/bin"); }

QString ServerLauncher::workDir() const { return rootDir() + QStringLiteral("/work"); }

QString ServerLauncher::executablePath() const { return binDir() + QLatin1Char('/') + name; }

QString ServerLauncher::appName() const { return name; }

QString ServerLauncher::socketName() const { return name + QString::number(getuid()); }

bool ServerLauncher::fail(const QString &message)
{
    error = message;
    return false;
}

bool ServerLauncher::writeFile(const QString &relativePath, const QByteArray &content)
{
    if (!tempDir)
        return fail(QStringLiteral("writeFile before prepare()"));
    const QString path = rootDir() + QLatin1Char('/') + relativePath;
    QDir().mkpath(QFileInfo(path).absolutePath());
    QFile file(path);
    if (!file.open(QIODevice::WriteOnly) || file.write(content) != content.size())
        return fail(QStringLiteral("cannot write ") + path);
    return true;
}

bool ServerLauncher::copyFile(const QString &source, const QString &relativeDestination)
{
    if (!tempDir)
        return fail(QStringLiteral("copyFile before prepare()"));
    const QString dest = rootDir() + QLatin1Char('/') + relativeDestination;
    QDir().mkpath(QFileInfo(dest).absolutePath());
    QFile::remove(dest);
    if (!QFile::copy(source, dest))
        return fail(QStringLiteral("cannot copy %1 to %2").arg(source, dest));
    return true;
}

bool ServerLauncher::prepare()
{
    if (prepared)
        return true;
    const QString binSource = envDir("ZRUI_BIN_DIR");
    if (binSource.isEmpty())
        return fail(QStringLiteral("ZRUI_BIN_DIR is not set"));
    const QString exe = binSource + QStringLiteral("/ZRUIServer");
    if (!QFileInfo(exe).isExecutable())
        return fail(QStringLiteral("no executable ") + exe);

    tempDir.reset(new QTemporaryDir());
    if (!tempDir->isValid())
        return fail(QStringLiteral("cannot create a temporary directory"));
    if (!QDir(rootDir()).mkpath(QStringLiteral("bin"))
        || !QDir(rootDir()).mkpath(QStringLiteral("work")))
        return fail(QStringLiteral("cannot create bin/ and work/"));

    if (!copyFile(exe, QStringLiteral("bin/") + name))
        return false;
    QFile::setPermissions(executablePath(),
                          QFileDevice::ReadOwner | QFileDevice::WriteOwner | QFileDevice::ExeOwner);

    if (copyResources) {
        const QString resourceSource = variant.isEmpty() ? binSource : resourceVariantDir(variant);
        for (const char *file : {"resources.rcc", "integrityprotect.ini"}) {
            if (!copyFile(resourceSource + QLatin1Char('/') + QLatin1String(file),
                          QStringLiteral("bin/") + QLatin1String(file)))
                return false;
        }
    }

    const QString config
            = placement == ConfigBesideExecutable ? "bin/ZRUIConf.ini" : "work/ZRUIConf.ini";
    if (placement != ConfigNowhere && !writeFile(config, "SAFEPATH=" + safePath.toUtf8() + '\n'))
        return false;
    if (tokenSimIni && !writeFile(QStringLiteral("tokensim.ini"), tokenSimText))
        return false;

    prepared = true;
    return true;
}

bool ServerLauncher::start()
{
    if (!prepare())
        return false;
    QProcessEnvironment env = QProcessEnvironment::systemEnvironment();
    if (!platform.isEmpty())
        env.insert(QStringLiteral("QT_QPA_PLATFORM"), platform);
    if (tokenSimIni)
        env.insert(QStringLiteral("ZRTOKENSIM_CONF"), rootDir() + QStringLiteral("/tokensim.ini"));
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
    proc.setProgram(executablePath());
    proc.start();
    if (!proc.waitForStarted(10000))
        return fail(QStringLiteral("cannot start: ") + proc.errorString());
    return true;
}

bool ServerLauncher::isListening(const QString &abstractName)
{
    QFile table(QStringLiteral("/proc/net/unix"));
    if (!table.open(QIODevice::ReadOnly))
        return false;
    const QByteArray wanted = '@' + abstractName.toUtf8();
    // "Num RefCount Protocol Flags Type St Inode Path"; flag 0x10000 marks a
    // listening socket, type 0001 a stream socket.
    const QList<QByteArray> rows = table.readAll().split('\n');
    for (const QByteArray &row : rows) {
        const QList<QByteArray> cols = row.simplified().split(' ');
        if (cols.size() < 8 || cols.at(7) != wanted)
            continue;
        bool ok = false;
        const uint flags = cols.at(3).toUInt(&ok, 16);
        if (ok && (flags & 0x10000u) && cols.at(4) == "0001")
            return true;
    }
    return false;
}

bool ServerLauncher::waitForListening(int timeoutMs)
{
    QElapsedTimer timer;
    timer.start();
    do {
        if (isListening(socketName()))
            return true;
        if (proc.state() == QProcess::NotRunning)
            return fail(QStringLiteral("process ended before listening"));
        QCoreApplication::processEvents(QEventLoop::AllEvents, 10); // stay responsive
        QThread::msleep(20);
    } while (timer.elapsed() < timeoutMs);
    return fail(QStringLiteral("not listening after %1 ms").arg(timeoutMs));
}

bool ServerLauncher::waitForExit(int timeoutMs)
{
    if (proc.state() == QProcess::NotRunning)
        return true;
    return proc.waitForFinished(timeoutMs);
}

void ServerLauncher::stop(int timeoutMs)
{
    if (proc.state() == QProcess::NotRunning)
        return;
    proc.terminate();
    if (!proc.waitForFinished(timeoutMs)) {
        proc.kill();
        proc.waitForFinished(timeoutMs);
    }
}

bool ServerLauncher::isRunning() const { return proc.state() != QProcess::NotRunning; }

int ServerLauncher::exitCode() const { return proc.exitCode(); }

QProcess::ExitStatus ServerLauncher::exitStatus() const { return proc.exitStatus(); }

QByteArray ServerLauncher::output()
{
    collected += proc.readAll();
    return collected;
}
