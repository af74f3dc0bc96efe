#pragma once

#include <QByteArray>
#include <QString>

class CliOutput;
struct zrui_conn;

/**
 * The guided tour of zrui-cli demo: a PIN verification with a wrong-PIN
 * retry, a PIN change, a waiting window with a countdown, a container choice
 * and a message box, printing each request and what the middleware receives.
 */
class DemoScript
{
public:
    DemoScript(CliOutput &out, const QString &server, bool reveal);
    ~DemoScript();

    int runInteractive();
    // The steps that need no person: a session, a list of type 1 (answered
    // without a window) and a waiting window shown and finished.
    int runUnattended();

private:
    int open();
    void close();
    int step(const QString &request, int code);
    // Polls REQ_PIN_GetPIN until answered, printing the response bytes with
    // the PIN bytes masked unless reveal is set.
    int pollPin(QByteArray *result);
    QString maskedPinBytes(const QByteArray &result) const;

    CliOutput &out;
    QString server;
    bool reveal;
    zrui_conn *conn = nullptr;
};
