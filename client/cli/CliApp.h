#pragma once

#include "CliOutput.h"

#include <QString>
#include <QStringList>

struct zrui_conn;

/**
 * zrui-cli: drives ZRUIServer from the command line over the client library.
 *
 *   zrui-cli [--server NAME] [--json] COMMAND [options]
 *
 * Each command opens its own connection and session, so every path of the
 * server's session state machine can be walked by hand ("session" runs an
 * arbitrary sequence of steps on one connection).
 */
class CliApp
{
public:
    CliApp();
    ~CliApp();

    // Runs the whole command line; returns the process exit code (CliExit).
    int run(const QStringList &arguments);

    static QString usage();

private:
    int cmdPin(const QStringList &args);
    int cmdRetry(const QStringList &args);
    int cmdMessage(const QStringList &args);
    int cmdList(const QStringList &args);
    int cmdWait(const QStringList &args);
    int cmdSession(const QStringList &args);
    int cmdDemo(const QStringList &args);

    // Connects and begins a session; reports and returns the exit code on failure.
    int openSession(quint64 devRef = 0);
    // Ends the session (when still possible) and closes the connection.
    void closeSession();
    int fail(const QString &request, int code);
    // Polls REQ_PIN_GetPIN until answered and prints the result lengths
    // (the PINs only with reveal); the result is wiped before returning.
    int waitForPin(int deadlineMs, bool reveal);

    QString server;
    bool json = false;
    // Deadline of the connect and of the server's first answer.
    int busyTimeoutMs = 10000;
    CliOutput *out = nullptr;
    zrui_conn *conn = nullptr;
};
