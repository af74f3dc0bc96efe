// Screenshots of every dialog of the real executable in English, Simplified
// and Traditional Chinese (run by the `screenshots` target at 96 and 192
// dpi). Without a window manager a grab has no title bar: each picture gets a
// grey strip with the window's title as X reports it.
#include "XDoTool.h"

#include "ServerLauncher.h"
#include "client/zrui_client.h"

#include <QDir>
#include <QElapsedTimer>
#include <QFont>
#include <QGuiApplication>
#include <QImage>
#include <QPainter>
#include <QPixmap>
#include <QResource>
#include <QScreen>
#include <QThread>
#include <QTranslator>

#include <atomic>
#include <cstdio>
#include <functional>
#include <sys/socket.h>
#include <thread>

namespace {

QString outDir;
QTranslator *translator = nullptr;
qint64 serverPid = 0;
int shotCount = 0;
int failures = 0;

QString tr(const char *context, const char *source)
{
    const QString t = translator->translate(context, source);
    return t.isEmpty() ? QString::fromUtf8(source) : t;
}

void fail(const QString &what)
{
    std::fprintf(stderr, "FAILED: %s\n", qPrintable(what));
    ++failures;
}

// Grabs until two grabs in a row agree (painting finished), at most 3 s: the
// waiting window's animation never agrees, and its last grab is taken.
QImage settledGrab(WId window)
{
    QScreen *screen = QGuiApplication::primaryScreen();
    QImage last = screen->grabWindow(window).toImage();
    QElapsedTimer t;
    t.start();
    while (t.elapsed() < 3000) {
        QThread::msleep(150);
        const QImage next = screen->grabWindow(window).toImage();
        if (!next.isNull() && next == last)
            return next;
        last = next;
    }
    return last;
}

bool shoot(const QString &title, const QString &name)
{
    const QString window = XDoTool::waitForWindow(title, 15000, serverPid);
    if (window.isEmpty()) {
        fail(QStringLiteral("no window \"%1\" for %2").arg(title, name));
        return false;
    }
    const QImage grab = settledGrab(window.toULongLong());
    if (grab.isNull()) {
        fail(QStringLiteral("cannot grab %1").arg(name));
        return false;
    }
    const QString reported = XDoTool::windowName(window);
    QFont font = QGuiApplication::font();
    const int strip = QFontMetrics(font).height() + 8;
    const int titleWidth = QFontMetrics(font).horizontalAdvance(reported) + 12;
    QImage out(qMax(grab.width(), titleWidth), grab.height() + strip, QImage::Format_RGB32);
    out.fill(QColor(96, 96, 96));
    QPainter p(&out);
    p.setFont(font);
    p.setPen(Qt::white);
    p.drawText(QRect(6, 0, out.width() - 12, strip), Qt::AlignVCenter | Qt::AlignLeft, reported);
    p.drawImage(0, strip, grab);
    p.end();
    const QString path = QDir(outDir).filePath(name + QStringLiteral(".png"));
    if (!out.save(path)) {
        fail(QStringLiteral("cannot save %1").arg(path));
        return false;
    }
    ++shotCount;
    std::printf("%s  %dx%d  \"%s\"\n", qPrintable(path), grab.width(), grab.height(),
                qPrintable(reported));
    if (reported != title)
        fail(QStringLiteral("%1: title \"%2\", expected \"%3\"").arg(name, reported, title));
    return true;
}

// A connection with an open session; closing it hides the PIN and waiting windows.
struct Session
{
    zrui_conn *conn = nullptr;
    explicit Session(const ServerLauncher &server)
    {
        if (zrui_open(server.appName().toUtf8().constData(), &conn) != ZRUI_OK
            || zrui_begin_session(conn, 0) != ZRUI_OK)
            fail(QStringLiteral("cannot open a session"));
    }
    ~Session() { zrui_close(conn); }
    // The session is open and `rc` (the request that shows a window) succeeded.
    bool ok(int rc, const QString &what)
    {
        if (conn && rc == ZRUI_OK)
            return true;
        fail(what);
        return false;
    }
};

const char *const pinTitles[]
        = {"Verify USBKey password",    "Verify USBKey so password", "Change USBKey password",
           "Change USBKey so password", "Unblock USBKey password",   "Set USBKey password"};

// A PIN dialog of each type, bare and with its on-screen keyboard opened
// (Tab from the first PIN field reaches its keyboard button).
void pinDialogs(const ServerLauncher &server, const QString &prefix, bool allTypes)
{
    for (uint32_t type = 0; type <= 5; ++type) {
        if (!allTypes && type != 0 && type != 2 && type != 5)
            continue;
        Session s(server);
        if (!s.ok(zrui_pin_show(s.conn, type), QStringLiteral("pin show %1").arg(type)))
            continue;
        const QString title = tr("PINDialog", pinTitles[type]);
        const QString name = QStringLiteral("%1pin%2").arg(prefix).arg(type);
        if (!shoot(title, name))
            continue;
        // The change dialogs hide the old row's button: the new row's is next.
        XDoTool::focus(XDoTool::waitForWindow(title, 15000, serverPid));
        // Tab order: the PIN fields, then the keyboard button.
        XDoTool::key(type == 2 || type == 3 ? QStringLiteral("Tab Tab Tab space")
                     : type == 5            ? QStringLiteral("Tab Tab space")
                                            : QStringLiteral("Tab space"));
        shoot(title, name + QStringLiteral("-keyboard"));
    }
}

// Type in the window's focused field and press keys; the window must exist.
bool typeInto(const QString &title, const QString &text, const QString &keys)
{
    const QString window = XDoTool::waitForWindow(title, 15000, serverPid);
    return !window.isEmpty() && XDoTool::focus(window) && (text.isEmpty() || XDoTool::type(text))
           && (keys.isEmpty() || XDoTool::key(keys));
}

// The red hint line with its longest texts: strength while typing, the weak
// PIN rejection, the mismatch, the length rule.
void pinHints(const ServerLauncher &server)
{
    Session s(server);
    if (!s.ok(zrui_pin_show(s.conn, 2), QStringLiteral("pin show 2 for hints")))
        return;
    const QString title = tr("PINDialog", "Change USBKey password");
    // One Tab goes from field to field (the keyboard buttons come after them);
    // after a rejection the new PIN field has the focus again.
    const char *const steps[][3] = {{"abc123", "Tab", nullptr},
                                    {"banana", "", "hint-weak-typing"},
                                    {"", "Tab", nullptr},
                                    {"banana", "Return", "hint-too-weak"},
                                    {"a1b2c3", "Tab", nullptr},
                                    {"a1b2c4", "Return", "hint-mismatch"},
                                    {"Ab1", "Return", "hint-length"}};
    for (const auto &step : steps) {
        typeInto(title, QString::fromLatin1(step[0]), QString::fromLatin1(step[1]));
        if (step[2])
            shoot(title, QString::fromLatin1(step[2]));
    }
}

// Runs a request that blocks until the person answers a box, in a thread:
// shoots the box, answers it with keys and waits for the request with a
// deadline. On time-out the socket is shut down, which ends the request.
int answerBox(zrui_conn *conn, const std::function<int()> &request, const QString &title,
              const QString &name, const QString &keys)
{
    std::atomic<int> result{1000};
    std::atomic<bool> done{false};
    std::thread client([&] {
        result = request();
        done = true;
    });
    shoot(title, name);
    const QString box = XDoTool::waitForWindow(title, 15000, serverPid);
    if (!box.isEmpty() && XDoTool::focus(box))
        XDoTool::key(keys);
    QElapsedTimer t;
    t.start();
    while (!done && t.elapsed() < 15000)
        QThread::msleep(20);
    if (!done) {
        fail(QStringLiteral("%1 not answered").arg(name));
        shutdown(zrui_fd(conn), SHUT_RDWR);
    }
    client.join();
    return result;
}

// The retry box after a wrong PIN (remaining tries, the default PIN), then
// the notices; answered with Cancel (Tab from Retry) and OK.
void boxes(const ServerLauncher &server)
{
    for (const uint32_t tries : {3u, 0xFFFFFFFFu}) {
        Session s(server);
        if (!s.ok(zrui_pin_show(s.conn, 0), QStringLiteral("pin show for retry")))
            return;
        typeInto(tr("PINDialog", "Verify USBKey password"), QStringLiteral("wrong1"),
                 QStringLiteral("Return"));
        zrui_pin_result r;
        const int rc = zrui_pin_wait(s.conn, 15000, 50, &r);
        zrui_pin_result_wipe(&r);
        if (!s.ok(rc, QStringLiteral("no PIN for retry")))
            return;
        zrui_conn *conn = s.conn;
        const int answer = answerBox(
                conn, [conn, tries] { return zrui_pin_retry(conn, tries); },
                tr("FIFO_Service", "USBKey password error"),
                tries == 3 ? QStringLiteral("retry-3") : QStringLiteral("retry-default"),
                QStringLiteral("Tab space"));
        if (answer != ZRUI_E_CANCEL)
            fail(QStringLiteral("retry box not cancelled: %1").arg(answer));
    }
    for (const char *text : {"PIN_Locked", "SPACE_FULL_Hint"}) {
        Session s(server);
        zrui_conn *conn = s.conn;
        if (!s.ok(ZRUI_OK, QStringLiteral("message box session")))
            return;
        const int answer = answerBox(
                conn, [conn, text] { return zrui_message_box(conn, 0, "Title_Warning", text); },
                tr("MessageDialog", "Title_Warning"),
                QStringLiteral("message-%1").arg(QString::fromLatin1(text)),
                QStringLiteral("space"));
        if (answer != ZRUI_OK)
            fail(QStringLiteral("message box not answered: %1").arg(answer));
    }
}

void listDialog(const ServerLauncher &server)
{
    Session s(server);
    const char *list = "Signing key 2024\n\xE7\xAD\xBE\xE5\x90\x8D\xE5\xAF\x86\xE9\x92\xA5 "
                       "2025\nEncryption key 2026";
    if (!s.ok(zrui_list_show(s.conn, 0, list), QStringLiteral("list show")))
        return;
    const QString title = tr("CertListDialog", "Form");
    shoot(title, QStringLiteral("list"));
    XDoTool::focus(XDoTool::waitForWindow(title, 15000, serverPid));
    XDoTool::key(QStringLiteral("Tab Tab space")); // Cancel
    int32_t index = 0;
    if (zrui_list_wait(s.conn, 15000, 50, &index) != ZRUI_E_CANCEL)
        fail(QStringLiteral("list not cancelled"));
}

const char *const waitingTitles[] = {"Generate Key Pair",
                                     "Transmit Signature Data",
                                     "Verify user pin",
                                     "Change user pin",
                                     "Unlock pin",
                                     "Trade Confirm",
                                     "You will restore UKey to default status",
                                     "Generate Key Pair",
                                     "Verify admin pin",
                                     "Change admin pin",
                                     "You will set the user pin",
                                     "Unknown Type"};

// Each waiting type with its own message (no time limit), and the countdown
// of each of the three limits.
void waitingDialogs(const ServerLauncher &server)
{
    const struct
    {
        uint32_t type;
        const char *info;
    } countdowns[] = {{2, "0=wait.gif|1=30"}, {5, "2=120|3=pay 100.00"}, {6, "4=9"}};
    for (uint32_t i = 0; i < 15; ++i) {
        const uint32_t type = i < 12 ? i : countdowns[i - 12].type;
        Session s(server);
        if (!s.ok(zrui_waiting_show(s.conn, type, i < 12 ? "0=wait.gif" : countdowns[i - 12].info),
                  QStringLiteral("waiting show %1").arg(type)))
            continue;
        const QString title = tr("WaitingDialog", waitingTitles[type]);
        shoot(title, QStringLiteral("waiting%1%2").arg(type).arg(i < 12 ? "" : "-countdown"));
        zrui_waiting_finish(s.conn);
        XDoTool::waitForNoWindow(title, 15000, serverPid);
    }
}

bool startServer(ServerLauncher &server, const QString &locale, const QString &variant)
{
    server.setPlatform(QString());
    server.setEnv(QStringLiteral("LANG"), locale + QStringLiteral(".UTF-8"));
    server.setEnv(QStringLiteral("LC_ALL"), locale + QStringLiteral(".UTF-8"));
    if (!variant.isEmpty())
        server.useResourceVariant(variant);
    if (!server.start() || !server.waitForListening()) {
        serverPid = 0;
        fail(QStringLiteral("server (%1 %2) did not start: %3 %4")
                     .arg(locale, variant, server.errorString(),
                          QString::fromLocal8Bit(server.output())));
        return false;
    }
    serverPid = server.process().processId();
    return true;
}

} // namespace

int main(int argc, char *argv[])
{
    QGuiApplication app(argc, argv);
    if (argc < 2) {
        std::fprintf(stderr, "usage: %s <output dir>\n", argv[0]);
        return 2;
    }
    if (!XDoTool::available()) {
        std::fprintf(stderr, "needs xdotool and an X display\n");
        return 1;
    }
    // The program's scale: logical DPI / 96, as the server computes it.
    const qreal dpi = QGuiApplication::primaryScreen()->logicalDotsPerInchX();
    const QString scaleTag = QStringLiteral("%1dpi").arg(qRound(dpi));
    std::printf("logical DPI %.1f: program scale %.2f\n", dpi, dpi / 96.0);

    const QString rcc = qEnvironmentVariable("ZRUI_BIN_DIR") + QStringLiteral("/resources.rcc");
    if (!QResource::registerResource(rcc, QStringLiteral("/shots"))) {
        std::fprintf(stderr, "cannot register %s\n", qPrintable(rcc));
        return 1;
    }

    for (const QString locale : {"en_US", "zh_CN", "zh_TW"}) {
        const QString tag = locale == QLatin1String("en_US") ? QStringLiteral("en") : locale;
        QTranslator qm;
        if (!qm.load(QStringLiteral(":/shots/uiserver.%1.qm").arg(tag))) {
            fail(QStringLiteral("no translation %1").arg(tag));
            continue;
        }
        translator = &qm;
        outDir = QDir(QString::fromLocal8Bit(argv[1])).filePath(scaleTag + QLatin1Char('/') + tag);
        QDir().mkpath(outDir);
        for (const QString variant : {"", "simple"}) { // full keyboard, simple keyboard
            ServerLauncher server;
            if (!startServer(server, locale, variant))
                continue;
            if (variant.isEmpty()) {
                pinDialogs(server, QString(), true);
                pinHints(server);
                boxes(server);
                listDialog(server);
                waitingDialogs(server);
            } else {
                pinDialogs(server, QStringLiteral("simple-"), false);
            }
            server.stop();
        }
        translator = nullptr;
    }
    std::printf("%d screenshots, %d failures\n", shotCount, failures);
    return failures == 0 ? 0 : 1;
}
