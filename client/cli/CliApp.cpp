#include "CliApp.h"

#include "CliExit.h"
#include "DemoScript.h"
#include "SessionScript.h"

#include "client/zrui_client.h"

#include <QCommandLineParser>
#include <QHash>
#include <QJsonObject>
#include <QThread>

#include <cstdio>
#include <memory>

namespace {

// Polling interval of PIN and list answers: fast enough to feel immediate,
// slow enough to keep the server's trace log readable.
const int PollMs = 100;

struct PinKind
{
    const char *name;
    quint32 type;
    const char *what;
};

const PinKind PinKinds[] = {
        {"verify", 0, "verify the user PIN"},
        {"verify-admin", 1, "verify the administrator PIN"},
        {"change", 2, "change the user PIN"},
        {"change-admin", 3, "change the administrator PIN"},
        {"unblock", 4, "unblock (asks for the administrator PIN)"},
        {"set", 5, "set a first user PIN"},
};

int pinTypeByName(const QString &name)
{
    for (const PinKind &k : PinKinds) {
        if (name == QLatin1String(k.name))
            return int(k.type);
    }
    bool ok = false;
    const int n = name.toInt(&ok);
    return ok && n >= 0 ? n : -1;
}

void printText(const QString &text)
{
    std::fputs(text.toUtf8().constData(), stdout);
    std::fflush(stdout);
}

void printError(const QString &text)
{
    std::fprintf(stderr, "zrui-cli: %s\n", text.toUtf8().constData());
}

// Parses a subcommand's options; --help prints the subcommand's help.
// Returns -1 to go on, else the exit code.
int parseCommand(QCommandLineParser &parser, const QString &command, const QString &description,
                 const QStringList &args)
{
    parser.setApplicationDescription(description);
    parser.setSingleDashWordOptionMode(QCommandLineParser::ParseAsLongOptions);
    const QCommandLineOption help({QStringLiteral("h"), QStringLiteral("help")},
                                  QStringLiteral("Show this help."));
    parser.addOption(help);
    if (!parser.parse(QStringList{QStringLiteral("zrui-cli ") + command} + args)) {
        printError(parser.errorText());
        return CliUsage;
    }
    if (parser.isSet(help)) {
        // The generated first line names the program by its path and not the
        // subcommand: write it ourselves.
        QString text = parser.helpText();
        const int eol = text.indexOf(QLatin1Char('\n'));
        const QString usageLine = text.left(eol);
        const int opts = usageLine.indexOf(QLatin1String("[options]"));
        text = QStringLiteral("Usage: zrui-cli [--server NAME] [--json] ") + command
               + (opts >= 0 ? QLatin1Char(' ') + usageLine.mid(opts) : QString()) + text.mid(eol);
        printText(text);
        return CliOk;
    }
    return -1;
}

int timeoutMs(const QCommandLineParser &parser, const QString &name, bool *ok)
{
    *ok = true;
    if (!parser.isSet(name))
        return 24 * 3600 * 1000; // a person may take their time
    const double s = parser.value(name).toDouble(ok);
    if (!*ok || s < 0) {
        *ok = false;
        return 0;
    }
    return int(s * 1000);
}

} // namespace

int cliExitForCode(int code)
{
    switch (code) {
    case ZRUI_OK:
        return CliOk;
    case ZRUI_E_CANCEL:
        return CliCancelled;
    case ZRUI_E_STATE:
        return CliStateError;
    case ZRUI_E_TOKEN:
        return CliTokenAbsent;
    case ZRUI_E_NOSERVER:
        return CliNoServer;
    case ZRUI_E_TIMEOUT:
        return CliTimeout;
    case ZRUI_E_CLOSED:
        return CliClosed;
    case ZRUI_E_NORESULT:
        return CliNoResult;
    case ZRUI_E_PEER:
        return CliForeignServer;
    case ZRUI_E_BUSY:
        return CliBusy;
    case ZRUI_E_INVAL:
        return CliUsage;
    default:
        return CliFailure;
    }
}

CliApp::CliApp() = default;

CliApp::~CliApp()
{
    if (conn)
        zrui_close(conn);
    delete out;
}

QString CliApp::usage()
{
    return QStringLiteral(
            "Usage: zrui-cli [--server NAME] [--json] [--timeout SECONDS] COMMAND [options]\n"
            "\n"
            "Drives ZRUIServer over its per-user socket, as the token middleware does.\n"
            "\n"
            "Commands:\n"
            "  pin KIND          show a PIN dialog and wait for the answer; KIND is verify,\n"
            "                    verify-admin, change, change-admin, unblock or set\n"
            "  retry             show a PIN dialog, then report the PIN wrong (Retry/Cancel box)\n"
            "  message           show a message box\n"
            "  list ENTRY...     let the user choose a container; prints the chosen index\n"
            "  wait              show the waiting window for a while\n"
            "  session STEP...   run protocol steps on one connection (see session --help)\n"
            "  demo              walk through every dialog, printing what the middleware receives\n"
            "\n"
            "Options:\n"
            "  --server NAME     application name of the server (default ZRUIServer); the socket\n"
            "                    is NAME followed by your user id\n"
            "  --json            print the steps as one JSON document\n"
            "  --timeout SECONDS deadline for the server to take the connection (default 10;\n"
            "                    exit 11 when it is busy with another program) and, for pin,\n"
            "                    retry and list, for the answer\n"
            "  --version         print the version\n"
            "  -h, --help        show this help; COMMAND --help shows the command's options\n"
            "\n"
            "Exit status:\n"
            "  0 done, 1 socket or protocol error, 2 bad command line, 3 the user cancelled,\n"
            "  4 state error (operation not allowed now), 5 token not present, 6 no server,\n"
            "  7 no answer within --timeout, 8 connection closed by the server, 9 no result,\n"
            "  10 the socket is held by another user's process (refused), 11 the server is busy\n"
            "  with another program\n");
}

int CliApp::run(const QStringList &arguments)
{
    QStringList args;
    server = QStringLiteral("ZRUIServer");
    // Global options may stand anywhere on the line; the rest, in order, is
    // the command and its own options. --timeout also reaches the commands
    // that wait for a person.
    QString timeout;
    for (int i = 0; i < arguments.size(); ++i) {
        const QString &opt = arguments.at(i);
        const bool hasValue = i + 1 < arguments.size();
        if (opt == QLatin1String("--json")) {
            json = true;
        } else if (opt == QLatin1String("--version")) {
            printText(QStringLiteral("zrui-cli %1\n").arg(QStringLiteral(ZRUI_VERSION)));
            return CliOk;
        } else if ((opt == QLatin1String("--server") || opt == QLatin1String("--timeout"))
                   && hasValue) {
            (opt == QLatin1String("--server") ? server : timeout) = arguments.at(++i);
        } else if (opt.startsWith(QLatin1String("--server="))) {
            server = opt.mid(9);
        } else if (opt.startsWith(QLatin1String("--timeout="))) {
            timeout = opt.mid(10);
        } else if (args.isEmpty() && opt.startsWith(QLatin1Char('-'))) {
            if (opt != QLatin1String("-h") && opt != QLatin1String("--help")) {
                printError(QStringLiteral("unknown option %1 (see --help)").arg(opt));
                return CliUsage;
            }
            printText(usage());
            return CliOk;
        } else {
            args.append(opt);
        }
    }
    if (!timeout.isEmpty()) {
        bool ok = false;
        const double s = timeout.toDouble(&ok);
        if (!ok || s <= 0 || s > 24 * 3600) {
            printError(QStringLiteral("bad --timeout %1 (seconds, see --help)").arg(timeout));
            return CliUsage;
        }
        busyTimeoutMs = int(s * 1000);
        if (!args.isEmpty()
            && QStringList({QStringLiteral("pin"), QStringLiteral("retry"), QStringLiteral("list")})
                       .contains(args.first()))
            args << QStringLiteral("--timeout") << timeout;
    }
    if (args.isEmpty()) {
        printError(QStringLiteral("no command given (see --help)"));
        return CliUsage;
    }
    const QString command = args.takeFirst();
    out = new CliOutput(json);

    int rc;
    if (command == QLatin1String("pin"))
        rc = cmdPin(args);
    else if (command == QLatin1String("retry"))
        rc = cmdRetry(args);
    else if (command == QLatin1String("message"))
        rc = cmdMessage(args);
    else if (command == QLatin1String("list"))
        rc = cmdList(args);
    else if (command == QLatin1String("wait"))
        rc = cmdWait(args);
    else if (command == QLatin1String("session"))
        rc = cmdSession(args);
    else if (command == QLatin1String("demo"))
        rc = cmdDemo(args);
    else {
        printError(QStringLiteral("unknown command %1 (see --help)").arg(command));
        return CliUsage;
    }
    closeSession();
    if (rc != CliUsage)
        out->finish(rc);
    return rc;
}

int CliApp::openSession(quint64 devRef)
{
    // Bounded: while another program is served, neither the connection nor
    // its first request is answered, and that is told apart from a time-out.
    const int rc = zrui_open_timeout(server.toUtf8().constData(), busyTimeoutMs, &conn);
    if (rc != ZRUI_OK) {
        conn = nullptr;
        return fail(QStringLiteral("connect %1").arg(server), rc);
    }
    const int begin = zrui_begin_session(conn, devRef);
    out->step(QStringLiteral("REQ_BeginSession"), begin);
    if (begin == ZRUI_E_BUSY && !json)
        printError(QString::fromUtf8(zrui_strerror(begin)));
    if (begin != ZRUI_OK)
        return cliExitForCode(begin);
    return CliOk;
}

void CliApp::closeSession()
{
    if (!conn)
        return;
    zrui_close(conn);
    conn = nullptr;
}

int CliApp::fail(const QString &request, int code)
{
    out->step(request, code);
    if (!json)
        printError(QString::fromUtf8(zrui_strerror(code)));
    return cliExitForCode(code);
}

namespace {

QJsonObject pinJson(const zrui_pin_result &r, bool reveal)
{
    QJsonObject o{{QStringLiteral("oldLen"), int(r.oldLen)},
                  {QStringLiteral("newLen"), int(r.newLen)}};
    if (reveal) {
        o.insert(QStringLiteral("oldPin"), QString::fromUtf8(r.oldPin, int(r.oldLen)));
        o.insert(QStringLiteral("newPin"), QString::fromUtf8(r.newPin, int(r.newLen)));
    }
    return o;
}

QString pinText(const zrui_pin_result &r, bool reveal)
{
    QString s = QStringLiteral("old PIN %1 bytes, new PIN %2 bytes").arg(r.oldLen).arg(r.newLen);
    if (reveal) {
        s += QStringLiteral(" (old \"%1\", new \"%2\")")
                     .arg(QString::fromUtf8(r.oldPin, int(r.oldLen)),
                          QString::fromUtf8(r.newPin, int(r.newLen)));
    }
    return s;
}

} // namespace

int CliApp::waitForPin(int deadlineMs, bool reveal)
{
    zrui_pin_result r;
    const int code = zrui_pin_wait(conn, deadlineMs, PollMs, &r);
    out->step(QStringLiteral("REQ_PIN_GetPIN"), code,
              code == ZRUI_OK ? pinJson(r, reveal) : QJsonObject(),
              code == ZRUI_OK ? pinText(r, reveal) : QString());
    zrui_pin_result_wipe(&r);
    return code;
}

int CliApp::cmdPin(const QStringList &args)
{
    QCommandLineParser p;
    QString kinds;
    for (const PinKind &k : PinKinds)
        kinds += QStringLiteral("  %1%2\n")
                         .arg(QLatin1String(k.name), -14)
                         .arg(QLatin1String(k.what));
    p.addPositionalArgument(QStringLiteral("KIND"), QStringLiteral("which PIN dialog:\n") + kinds);
    p.addOption({QStringLiteral("timeout"),
                 QStringLiteral("Give up after SECONDS without an answer."),
                 QStringLiteral("SECONDS")});
    p.addOption({QStringLiteral("reveal"),
                 QStringLiteral("Print the PINs themselves, not only their lengths.")});
    p.addOption({QStringLiteral("devref"), QStringLiteral("Device reference for REQ_BeginSession."),
                 QStringLiteral("N"), QStringLiteral("0")});
    int rc = parseCommand(p, QStringLiteral("pin"),
                          QStringLiteral("Shows a PIN dialog and waits until the user answers."),
                          args);
    if (rc >= 0)
        return rc;
    if (p.positionalArguments().size() != 1) {
        printError(QStringLiteral("pin: give exactly one KIND (see pin --help)"));
        return CliUsage;
    }
    const int type = pinTypeByName(p.positionalArguments().first());
    bool ok = true;
    const int deadline = timeoutMs(p, QStringLiteral("timeout"), &ok);
    if (type < 0 || !ok) {
        printError(QStringLiteral("pin: bad KIND or --timeout (see pin --help)"));
        return CliUsage;
    }
    if ((rc = openSession(p.value(QStringLiteral("devref")).toULongLong())) != CliOk)
        return rc;
    int code = zrui_pin_show(conn, quint32(type));
    out->step(QStringLiteral("REQ_PIN_Show type=%1").arg(type), code);
    if (code != ZRUI_OK)
        return cliExitForCode(code);
    const bool reveal = p.isSet(QStringLiteral("reveal"));
    code = waitForPin(deadline, reveal);
    if (code != ZRUI_OK && code != ZRUI_E_CANCEL && code != ZRUI_E_TIMEOUT)
        return cliExitForCode(code);
    const int fin = zrui_pin_finish(conn);
    out->step(QStringLiteral("REQ_PIN_Finish"), fin);
    const int end = zrui_end_session(conn);
    out->step(QStringLiteral("REQ_EndSession"), end);
    return cliExitForCode(code != ZRUI_OK ? code : (fin != ZRUI_OK ? fin : end));
}

int CliApp::cmdRetry(const QStringList &args)
{
    QCommandLineParser p;
    p.addOption({QStringLiteral("tries"), QStringLiteral("Remaining tries to report."),
                 QStringLiteral("N")});
    p.addOption({QStringLiteral("default-forbidden"),
                 QStringLiteral("Report that the default PIN is forbidden instead of a count.")});
    p.addOption({QStringLiteral("type"),
                 QStringLiteral("PIN dialog kind or number (default verify)."),
                 QStringLiteral("KIND"), QStringLiteral("verify")});
    p.addOption({QStringLiteral("timeout"), QStringLiteral("Give up after SECONDS without a PIN."),
                 QStringLiteral("SECONDS")});
    p.addOption({QStringLiteral("reveal"), QStringLiteral("Print the PINs themselves.")});
    int rc = parseCommand(
            p, QStringLiteral("retry"),
            QStringLiteral("Shows a PIN dialog, then reports the PIN as wrong: the user "
                           "answers Retry (the PIN dialog comes again) or Cancel."),
            args);
    if (rc >= 0)
        return rc;
    const bool forbidden = p.isSet(QStringLiteral("default-forbidden"));
    bool ok = forbidden != p.isSet(QStringLiteral("tries"));
    quint32 tries = REQ_PIN_RETRY_DEFAULT_FORBIDDEN;
    if (!forbidden && ok)
        tries = p.value(QStringLiteral("tries")).toUInt(&ok);
    const int type = pinTypeByName(p.value(QStringLiteral("type")));
    bool tok = true;
    const int deadline = timeoutMs(p, QStringLiteral("timeout"), &tok);
    if (!ok || !tok || type < 0) {
        printError(
                QStringLiteral("retry: give --tries N or --default-forbidden (see retry --help)"));
        return CliUsage;
    }
    if ((rc = openSession()) != CliOk)
        return rc;
    const bool reveal = p.isSet(QStringLiteral("reveal"));
    int code = zrui_pin_show(conn, quint32(type));
    out->step(QStringLiteral("REQ_PIN_Show type=%1").arg(type), code);
    if (code != ZRUI_OK)
        return cliExitForCode(code);
    code = waitForPin(deadline, reveal);
    if (code != ZRUI_OK)
        return cliExitForCode(code);
    code = zrui_pin_retry(conn, tries);
    out->step(forbidden ? QStringLiteral("REQ_PIN_Retry default PIN forbidden")
                        : QStringLiteral("REQ_PIN_Retry tries=%1").arg(tries),
              code);
    if (code == ZRUI_E_CANCEL) {
        out->step(QStringLiteral("REQ_EndSession"), zrui_end_session(conn));
        return CliCancelled;
    }
    if (code != ZRUI_OK)
        return cliExitForCode(code);
    code = waitForPin(deadline, reveal);
    if (code != ZRUI_OK && code != ZRUI_E_CANCEL)
        return cliExitForCode(code);
    out->step(QStringLiteral("REQ_PIN_Finish"), zrui_pin_finish(conn));
    out->step(QStringLiteral("REQ_EndSession"), zrui_end_session(conn));
    return cliExitForCode(code);
}

int CliApp::cmdMessage(const QStringList &args)
{
    QCommandLineParser p;
    p.addOption({QStringLiteral("title"),
                 QStringLiteral("Title (a message key such as Title_Warning, or text)."),
                 QStringLiteral("T")});
    p.addOption({QStringLiteral("text"),
                 QStringLiteral("Message (a key such as PIN_Locked, or text)."),
                 QStringLiteral("X")});
    p.addOption({QStringLiteral("type"),
                 QStringLiteral("5: Retry and Cancel; anything else: OK only."),
                 QStringLiteral("N"), QStringLiteral("0")});
    int rc = parseCommand(
            p, QStringLiteral("message"),
            QStringLiteral("Shows a message box and waits until the user closes it. The "
                           "server answers the same for every button."),
            args);
    if (rc >= 0)
        return rc;
    bool ok = false;
    const quint32 type = p.value(QStringLiteral("type")).toUInt(&ok);
    if (!ok || !p.isSet(QStringLiteral("text"))) {
        printError(QStringLiteral("message: give --text (see message --help)"));
        return CliUsage;
    }
    if ((rc = openSession()) != CliOk)
        return rc;
    const int code
            = zrui_message_box(conn, type, p.value(QStringLiteral("title")).toUtf8().constData(),
                               p.value(QStringLiteral("text")).toUtf8().constData());
    out->step(QStringLiteral("REQ_MessageBox type=%1").arg(type), code);
    if (code != ZRUI_OK)
        return cliExitForCode(code);
    const int end = zrui_end_session(conn);
    out->step(QStringLiteral("REQ_EndSession"), end);
    return cliExitForCode(end);
}

int CliApp::cmdList(const QStringList &args)
{
    QCommandLineParser p;
    p.addPositionalArgument(QStringLiteral("ENTRY"), QStringLiteral("Container names, in order."),
                            QStringLiteral("ENTRY..."));
    p.addOption(
            {QStringLiteral("type"),
             QStringLiteral("List request type: 0 shows the list, 1 answers -1 without a window."),
             QStringLiteral("N"), QStringLiteral("0")});
    p.addOption({QStringLiteral("timeout"),
                 QStringLiteral("Give up after SECONDS without a choice."),
                 QStringLiteral("SECONDS")});
    int rc = parseCommand(p, QStringLiteral("list"),
                          QStringLiteral("Lets the user choose one container; prints its index."),
                          args);
    if (rc >= 0)
        return rc;
    bool ok = false;
    const quint32 type = p.value(QStringLiteral("type")).toUInt(&ok);
    bool tok = true;
    const int deadline = timeoutMs(p, QStringLiteral("timeout"), &tok);
    if (!ok || !tok) {
        printError(QStringLiteral("list: bad --type or --timeout (see list --help)"));
        return CliUsage;
    }
    const QStringList entries = p.positionalArguments();
    if ((rc = openSession()) != CliOk)
        return rc;
    int code = zrui_list_show(conn, type, entries.join(QLatin1Char('\n')).toUtf8().constData());
    out->step(QStringLiteral("REQ_List_Show type=%1 entries=%2").arg(type).arg(entries.size()),
              code);
    if (code != ZRUI_OK)
        return cliExitForCode(code);
    int32_t index = -1;
    code = zrui_list_wait(conn, deadline, PollMs, &index);
    const QString chosen = index >= 0 && index < entries.size() ? entries.at(index) : QString();
    out->step(QStringLiteral("REQ_List_GetSel"), code,
              code == ZRUI_OK ? QJsonObject{{QStringLiteral("index"), index},
                                            {QStringLiteral("entry"), chosen}}
                              : QJsonObject(),
              code == ZRUI_OK ? QStringLiteral("index %1%2")
                                        .arg(index)
                                        .arg(chosen.isEmpty() ? QString()
                                                              : QStringLiteral(" (%1)").arg(chosen))
                              : QString());
    if (code != ZRUI_OK && code != ZRUI_E_CANCEL)
        return cliExitForCode(code);
    const int end = zrui_end_session(conn);
    out->step(QStringLiteral("REQ_EndSession"), end);
    return cliExitForCode(code != ZRUI_OK ? code : end);
}

int CliApp::cmdWait(const QStringList &args)
{
    QCommandLineParser p;
    p.addOption({QStringLiteral("type"), QStringLiteral("Waiting window type 0-10."),
                 QStringLiteral("N"), QStringLiteral("2")});
    p.addOption({QStringLiteral("info"),
                 QStringLiteral(
                         "Information text, items KEY=VALUE separated by |, e.g. 1=30|0=wait.gif."),
                 QStringLiteral("TEXT"), QString()});
    p.addOption({QStringLiteral("seconds"),
                 QStringLiteral("How long the window stays (default 5)."), QStringLiteral("S"),
                 QStringLiteral("5")});
    int rc = parseCommand(
            p, QStringLiteral("wait"),
            QStringLiteral("Shows the waiting window (\"press the button on your token\") "
                           "and finishes it after --seconds."),
            args);
    if (rc >= 0)
        return rc;
    bool ok = false, sok = false;
    const quint32 type = p.value(QStringLiteral("type")).toUInt(&ok);
    const double seconds = p.value(QStringLiteral("seconds")).toDouble(&sok);
    if (!ok || !sok || seconds < 0) {
        printError(QStringLiteral("wait: bad --type or --seconds (see wait --help)"));
        return CliUsage;
    }
    if ((rc = openSession()) != CliOk)
        return rc;
    int code = zrui_waiting_show(conn, type, p.value(QStringLiteral("info")).toUtf8().constData());
    out->step(QStringLiteral("REQ_Waiting_Show type=%1").arg(type), code);
    if (code != ZRUI_OK)
        return cliExitForCode(code);
    QThread::msleep(ulong(seconds * 1000));
    code = zrui_waiting_finish(conn);
    out->step(QStringLiteral("REQ_Waiting_Finish"), code);
    if (code != ZRUI_OK)
        return cliExitForCode(code);
    code = zrui_end_session(conn);
    out->step(QStringLiteral("REQ_EndSession"), code);
    return cliExitForCode(code);
}

int CliApp::cmdSession(const QStringList &args)
{
    QCommandLineParser p;
    p.addPositionalArgument(QStringLiteral("STEP"), SessionScript::stepHelp(),
                            QStringLiteral("STEP..."));
    p.addOption({QStringLiteral("keep-going"),
                 QStringLiteral("Run the remaining steps after a step that did not answer OK.")});
    int rc = parseCommand(
            p, QStringLiteral("session"),
            QStringLiteral("Runs protocol steps in order on one connection, without an "
                           "implicit REQ_BeginSession, printing each response."),
            args);
    if (rc >= 0)
        return rc;
    SessionScript script(*out);
    if (!script.parse(p.positionalArguments())) {
        printError(QStringLiteral("session: %1").arg(script.errorText()));
        return CliUsage;
    }
    const int code = zrui_open_timeout(server.toUtf8().constData(), busyTimeoutMs, &conn);
    if (code != ZRUI_OK) {
        conn = nullptr;
        return fail(QStringLiteral("connect %1").arg(server), code);
    }
    return script.run(conn, p.isSet(QStringLiteral("keep-going")));
}

int CliApp::cmdDemo(const QStringList &args)
{
    QCommandLineParser p;
    p.addOption({QStringLiteral("unattended"),
                 QStringLiteral("Run only the steps that need no person (no display needed).")});
    p.addOption({QStringLiteral("reveal"), QStringLiteral("Print the PINs themselves.")});
    int rc = parseCommand(
            p, QStringLiteral("demo"),
            QStringLiteral("Walks through a PIN verification with a wrong-PIN retry, a "
                           "change, a waiting window with a countdown, a container "
                           "choice and a message box, printing what the middleware "
                           "receives."),
            args);
    if (rc >= 0)
        return rc;
    DemoScript demo(*out, server, p.isSet(QStringLiteral("reveal")));
    return p.isSet(QStringLiteral("unattended")) ? demo.runUnattended() : demo.runInteractive();
}
