#pragma once

#include <QByteArray>
#include <QMap>
#include <QProcess>
#include <QString>
#include <QTemporaryDir>

/**
 * Runs the real ZRUIServer (from env ZRUI_BIN_DIR) in a private sandbox:
 * <root>/bin/<appName> with resources.rcc, integrityprotect.ini and
 * ZRUIConf.ini beside it, <root>/work/ as working directory. The copy's
 * unique name ("zrt<pid>_<n>") gives every launcher a socket of its own.
 * Set-up calls shape prepare(); the destructor stops the process.
 */
class ServerLauncher
{
public:
    ServerLauncher();
    ~ServerLauncher() { stop(); }
    ServerLauncher(const ServerLauncher &) = delete;
    ServerLauncher &operator=(const ServerLauncher &) = delete;

    // SAFEPATH of ZRUIConf.ini (default: env ZRUI_TOKENSIM_DIR); null: no ZRUIConf.ini.
    void setSafePath(const QString &dir) { safePath = dir; }
    // Resources from <build>/test-resources/<variant>/ instead of <build>/bin/.
    void useResourceVariant(const QString &v) { variant = v; }
    void setCopyResources(bool copy) { copyResources = copy; }
    // Writes <root>/tokensim.ini and passes ZRTOKENSIM_CONF.
    void setTokenSimIni(const QByteArray &text) { tokenSimText = text; }
    // QT_QPA_PLATFORM (default "offscreen"); empty inherits the environment.
    void setPlatform(const QString &p) { platform = p; }
    void setEnv(const QString &name, const QString &value) { extraEnv.insert(name, value); }

    bool prepare(); // creates the sandbox once; false (see errorString()) on failure
    // Destinations relative to the sandbox root.
    bool writeFile(const QString &relativePath, const QByteArray &content);
    bool copyFile(const QString &source, const QString &relativeDestination);

    QString binDir() const { return root() + QStringLiteral("/bin"); }
    QString workDir() const { return root() + QStringLiteral("/work"); }
    QString executablePath() const { return binDir() + QLatin1Char('/') + name; }
    QString appName() const { return name; }
    QString socketName() const; // appName + uid, without the leading NUL
    static QString resourceVariantDir(const QString &variant);
    static QString buildDir(); // the parent of ZRUI_BIN_DIR

    bool start(); // prepare() if needed, then start in workDir()
    bool waitForListening(int timeoutMs = 15000); // false on time-out or an early end
    bool waitForExit(int timeoutMs = 15000)
    {
        return !isRunning() || proc.waitForFinished(timeoutMs);
    }
    void stop(int timeoutMs = 5000); // SIGTERM, then SIGKILL
    bool isRunning() const { return proc.state() != QProcess::NotRunning; }
    int exitCode() const { return proc.exitCode(); }
    QProcess::ExitStatus exitStatus() const { return proc.exitStatus(); }
    QByteArray output(); // stdout and stderr so far, merged
    QProcess &process() { return proc; }
    QString errorString() const { return error; }

    // True when an abstract stream socket of this name listens now (/proc/net/unix).
    static bool isListening(const QString &abstractName);

private:
    bool fail(const QString &message);
    QString root() const { return tempDir.path(); }

    QTemporaryDir tempDir;
    QProcess proc;
    QString name, safePath, variant;
    QString platform = QStringLiteral("offscreen");
    QByteArray tokenSimText;
    bool copyResources = true;
    bool prepared = false;
    QMap<QString, QString> extraEnv;
    QByteArray collected;
    QString error;
};
