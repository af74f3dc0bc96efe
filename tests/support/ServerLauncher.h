#pragma once

#include <QFileInfo>
#include <QMap>
#include <QProcess>
#include <QTemporaryDir>

#include <unistd.h>

/**
 * Runs the real ZRUIServer (from env ZRUI_BIN_DIR) in a private sandbox:
 * <root>/bin/<appName> with resources.rcc, integrityprotect.ini and
 * ZRUIConf.ini beside it, <root>/work/ as working directory. The copy's
 * unique name gives every launcher a socket of its own; the destructor stops it.
 */
class ServerLauncher
{
public:
    ServerLauncher();
    ~ServerLauncher() { stop(); }

    // SAFEPATH of ZRUIConf.ini (default: env ZRUI_TOKENSIM_DIR); null: no ZRUIConf.ini.
    void setSafePath(const QString &dir) { safePath = dir; }
    // Resources from <build>/test-resources/<variant>/ instead of <build>/bin/.
    void useResourceVariant(const QString &v) { variant = v; }
    // QT_QPA_PLATFORM (default "offscreen"); empty inherits the environment.
    void setPlatform(const QString &p) { platform = p; }
    void setEnv(const QString &name, const QString &value) { env.insert(name, value); }

    bool prepare(); // creates the sandbox once; false (see errorString()) on failure
    bool writeFile(const QString &relativePath, const QByteArray &content); // in the sandbox

    QString binDir() const { return dir.path() + "/bin"; }
    QString workDir() const { return dir.path() + "/work"; }
    QString executablePath() const { return binDir() + '/' + name; }
    QString appName() const { return name; }
    QString socketName() const { return name + QString::number(getuid()); } // without the NUL
    static QString buildDir() { return QFileInfo(qEnvironmentVariable("ZRUI_BIN_DIR")).path(); }
    static QString resourceVariantDir(const QString &v)
    {
        return buildDir() + "/test-resources/" + v;
    }

    bool start(); // prepare() if needed, then start in workDir()
    bool waitForListening(int timeoutMs = 15000); // false on time-out or an early end
    bool waitForExit(int timeoutMs = 15000)
    {
        return !isRunning() || proc.waitForFinished(timeoutMs);
    }
    void stop(); // SIGTERM, then SIGKILL
    bool isRunning() const { return proc.state() != QProcess::NotRunning; }
    QByteArray output() { return collected += proc.readAll(); } // stdout and stderr so far
    QProcess &process() { return proc; }
    QString errorString() const { return error; }
    // True when an abstract stream socket of this name listens now (/proc/net/unix).
    static bool isListening(const QString &abstractName);

private:
    bool fail(const QString &message)
    {
        error = message;
        return false;
    }

    QTemporaryDir dir;
    QProcess proc;
    QString name, safePath, variant, error, platform = "offscreen";
    QMap<QString, QString> env;
    QByteArray collected;
    bool prepared = false;
};
