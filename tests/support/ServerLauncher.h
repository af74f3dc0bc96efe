#pragma once

#include <QByteArray>
#include <QMap>
#include <QProcess>
#include <QString>
#include <QTemporaryDir>

#include <memory>

/**
 * Runs the real ZRUIServer (from env ZRUI_BIN_DIR) in a private sandbox:
 *
 *     <root>/bin/<appName>, resources.rcc, integrityprotect.ini, ZRUIConf.ini
 *     <root>/work/          working directory of the process (empty)
 *     <root>/tokensim.ini   only after setTokenSimIni()
 *
 * The executable is copied under a unique name ("zrt<pid>_<n>"), so every
 * launcher gets a socket of its own (appName + uid) and tests may run in
 * parallel. Set-up calls shape prepare(); after prepare() tests may change
 * files in binDir()/workDir() before start(). The destructor stops the
 * process. /tmp/uilog.txt is LogFile's business (ctest lock "uilog").
 */
class ServerLauncher
{
public:
    enum ConfigPlacement { ConfigBesideExecutable, ConfigInWorkingDirectory, ConfigNowhere };

    ServerLauncher();
    ~ServerLauncher();
    ServerLauncher(const ServerLauncher &) = delete;
    ServerLauncher &operator=(const ServerLauncher &) = delete;

    // SAFEPATH of ZRUIConf.ini, written as given (default: env ZRUI_TOKENSIM_DIR).
    void setSafePath(const QString &dir);
    void setConfigPlacement(ConfigPlacement placement);
    // Resources from <build>/test-resources/<variant>/ instead of <build>/bin/.
    void useResourceVariant(const QString &variant);
    // false: neither resources.rcc nor integrityprotect.ini is copied.
    void setCopyResources(bool copy);
    // Writes <root>/tokensim.ini and passes ZRTOKENSIM_CONF.
    void setTokenSimIni(const QByteArray &text);
    // QT_QPA_PLATFORM (default "offscreen"); empty inherits the environment.
    void setPlatform(const QString &platform);
    void setEnv(const QString &name, const QString &value);

    // Creates the sandbox once; false (see errorString()) on any failure.
    // writeFile/copyFile take a destination relative to the sandbox root.
    bool prepare();
    bool writeFile(const QString &relativePath, const QByteArray &content);
    bool copyFile(const QString &source, const QString &relativeDestination);

    QString binDir() const;
    QString workDir() const;
    QString executablePath() const;
    QString appName() const;
    // Abstract socket name (without the leading NUL): appName + uid.
    QString socketName() const;
    static QString resourceVariantDir(const QString &variant);
    // <build>, the parent of ZRUI_BIN_DIR.
    static QString buildDir();

    bool start(); // prepare() if needed, then start in workDir()
    // Polls /proc/net/unix; false on time-out or when the process ends first.
    bool waitForListening(int timeoutMs = 15000);
    bool waitForExit(int timeoutMs = 15000);
    // SIGTERM, up to timeoutMs for the end, then SIGKILL.
    void stop(int timeoutMs = 5000);
    bool isRunning() const;
    int exitCode() const;
    QProcess::ExitStatus exitStatus() const;
    // stdout and stderr of the process so far (merged).
    QByteArray output();
    QProcess &process() { return proc; }
    QString errorString() const { return error; }

    // True when an abstract stream socket with this name listens right now.
    static bool isListening(const QString &abstractName);

private:
    bool fail(const QString &message);
    QString rootDir() const;

    std::unique_ptr<QTemporaryDir> tempDir;
    QProcess proc;
    QString name;
    QString safePath;
    ConfigPlacement placement = ConfigBesideExecutable;
    QString variant;
    bool copyResources = true;
    QByteArray tokenSimText;
    bool tokenSimIni = false;
    QString platform = QStringLiteral("offscreen");
    QMap<QString, QString> extraEnv;
    QByteArray collected;
    bool prepared = false;
    QString error;
};
