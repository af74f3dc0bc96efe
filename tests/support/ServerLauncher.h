#pragma once

#include <QByteArray>
#include <QMap>
#include <QProcess>
#include <QString>
#include <QTemporaryDir>

#include <memory>

/**
 * Runs the real ZRUIServer executable in a private sandbox, for start-up,
 * protocol and end-to-end tests.
 *
 * Layout inside a fresh QTemporaryDir:
 *
 *     <root>/bin/<appName>           copy of ZRUIServer (from env ZRUI_BIN_DIR)
 *     <root>/bin/resources.rcc       from ZRUI_BIN_DIR or a test resource variant
 *     <root>/bin/integrityprotect.ini
 *     <root>/bin/ZRUIConf.ini        "SAFEPATH=<env ZRUI_TOKENSIM_DIR>" unless changed
 *     <root>/work/                   working directory of the process (empty)
 *     <root>/tokensim.ini            only after setTokenSimIni()
 *     <root>/journal.txt             only after enableJournal()
 *
 * The executable is copied under a unique name ("zrt<pid>_<n>"): the socket
 * name is the application name followed by the user id, so every launcher
 * gets a socket of its own and tests may run in parallel.
 *
 * Typical use:
 *
 *     ServerLauncher server;
 *     server.useResourceVariant("keepalive2");     // optional
 *     QVERIFY2(server.start(), qPrintable(server.errorString()));
 *     QVERIFY(server.waitForListening());
 *     ... talk to server.socketName() ...
 *     server.stop();
 *
 * Everything set up before start() (or an explicit prepare()) shapes the
 * sandbox; after prepare() tests may change files in binDir()/workDir()
 * (for example flip a byte of resources.rcc) before calling start().
 * The destructor stops a running process (SIGTERM, then SIGKILL).
 *
 * Nothing here touches /tmp/uilog.txt; see LogFile for that (and take the
 * "uilog" ctest lock when you read it).
 */
class ServerLauncher
{
public:
    // Where prepare() writes ZRUIConf.ini.
    enum ConfigPlacement { ConfigBesideExecutable, ConfigInWorkingDirectory, ConfigNowhere };
    // How waitForListening() probes the socket.
    enum ListenProbe {
        // Reads /proc/net/unix for a listening socket of that abstract name:
        // makes no connection, so the server sees no client (default).
        ProbeProcNetUnix,
        // connect() and close at once: the server sees a short connection.
        ProbeConnect
    };

    ServerLauncher();
    ~ServerLauncher();
    ServerLauncher(const ServerLauncher &) = delete;
    ServerLauncher &operator=(const ServerLauncher &) = delete;

    // --- set-up, before prepare()/start() ---

    // SAFEPATH written into the default ZRUIConf.ini (default: env
    // ZRUI_TOKENSIM_DIR, which ends with "/"). Written as given.
    void setSafePath(const QString &dir);
    // Replaces the whole ZRUIConf.ini text (setSafePath is then ignored).
    void setConfigText(const QByteArray &text);
    void setConfigPlacement(ConfigPlacement placement);
    // Take <build>/test-resources/<variant>/{resources.rcc,integrityprotect.ini}
    // (keepalive2, simple, fullhide, defaultpin) instead of <build>/bin/.
    // <build> is the parent directory of ZRUI_BIN_DIR.
    void useResourceVariant(const QString &variant);
    // false: neither resources.rcc nor integrityprotect.ini is copied.
    void setCopyResources(bool copy);
    // Writes <root>/tokensim.ini with this text and passes ZRTOKENSIM_CONF,
    // e.g. "[token]\npresent=1\n[aux]\nfail=1\n".
    void setTokenSimIni(const QByteArray &text);
    // Passes ZRTOKENSIM_JOURNAL=<root>/journal.txt (see journalPath()).
    void enableJournal();
    // QT_QPA_PLATFORM for the process; default "offscreen". Empty: inherit
    // the test's own environment (e.g. under xvfb-run).
    void setPlatform(const QString &platform);
    // Any further environment variable for the process.
    void setEnv(const QString &name, const QString &value);
    void setArguments(const QStringList &arguments);

    // --- sandbox ---

    // Creates the sandbox once; false (see errorString()) when a source file
    // is missing or a copy fails. start() calls it when needed.
    bool prepare();
    // Writes a file relative to rootDir() (e.g. "work/ZRUIConf.ini").
    bool writeFile(const QString &relativePath, const QByteArray &content);
    // Copies a file into the sandbox (destination relative to rootDir()).
    bool copyFile(const QString &source, const QString &relativeDestination);

    QString rootDir() const;
    QString binDir() const; // <root>/bin
    QString workDir() const; // <root>/work
    QString executablePath() const; // <root>/bin/<appName>
    QString appName() const;
    // Abstract socket name (without the leading NUL): appName + uid.
    QString socketName() const;
    QString tokenSimIniPath() const; // empty unless setTokenSimIni()
    QString journalPath() const; // empty unless enableJournal()
    // Directory of the test resource variant (may not exist).
    static QString resourceVariantDir(const QString &variant);
    // <build>, the parent of ZRUI_BIN_DIR.
    static QString buildDir();

    // --- process ---

    // prepare() if needed, then start the process with its working
    // directory workDir(); true once the process is running.
    bool start();
    // Polls with a deadline until the socket listens. False on time-out or
    // when the process ends first.
    bool waitForListening(int timeoutMs = 15000, ListenProbe probe = ProbeProcNetUnix);
    // True when the process has ended within the deadline (or was not running).
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

    std::unique_ptr<QTemporaryDir> tempDir;
    QProcess proc;
    QString name;
    QString safePath;
    QByteArray configText;
    bool customConfig = false;
    ConfigPlacement placement = ConfigBesideExecutable;
    QString variant;
    bool copyResources = true;
    QByteArray tokenSimText;
    bool tokenSimIni = false;
    bool journal = false;
    QString platform = QStringLiteral("offscreen");
    QMap<QString, QString> extraEnv;
    QStringList arguments;
    QByteArray collected;
    bool prepared = false;
    QString error;
};
