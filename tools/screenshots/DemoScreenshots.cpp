// Screenshots of every step of the demo in a real X server, for the README
// and for looking at the dialogs as a person sees them. Not a test: run it
// through the `demo-screenshots` target (under xvfb-run).
#include "XDoTool.h"

#include "ServerLauncher.h"
#include "client/zrui_client.h"

#include <QDir>
#include <QElapsedTimer>
#include <QGuiApplication>
#include <QPixmap>
#include <QScreen>
#include <QThread>

#include <atomic>
#include <cstdio>
#include <thread>

namespace {

QString outDir;

bool shoot(const QString &title, const QString &file)
{
    const QString window = XDoTool::waitForWindow(title);
    if (window.isEmpty()) {
        std::fprintf(stderr, "no window \"%s\"\n", qPrintable(title));
        return false;
    }
    // Let the window finish painting (the waiting window's animation and
    // countdown need a moment) before the grab.
    QThread::msleep(600);
    const QPixmap shot = QGuiApplication::primaryScreen()->grabWindow(window.toULongLong());
    const QString path = QDir(outDir).filePath(file);
    if (shot.isNull() || !shot.save(path)) {
        std::fprintf(stderr, "cannot save %s\n", qPrintable(path));
        return false;
    }
    std::printf("%s  (%dx%d, \"%s\")\n", qPrintable(path), shot.width(), shot.height(),
                qPrintable(title));
    return true;
}

bool waitPin(zrui_conn *c)
{
    zrui_pin_result r;
    const int rc = zrui_pin_wait(c, 15000, 50, &r);
    zrui_pin_result_wipe(&r);
    return rc == ZRUI_OK;
}

} // namespace

int main(int argc, char *argv[])
{
    QGuiApplication app(argc, argv);
    outDir = argc > 1 ? QString::fromLocal8Bit(argv[1]) : QStringLiteral("demo-screenshots");
    QDir().mkpath(outDir);
    if (!XDoTool::available()) {
        std::fprintf(stderr, "needs xdotool and an X display\n");
        return 1;
    }
    ServerLauncher server;
    server.setPlatform(QString());
    if (!server.start() || !server.waitForListening()) {
        std::fprintf(stderr, "server did not start: %s\n", qPrintable(server.errorString()));
        return 1;
    }
    zrui_conn *c = nullptr;
    if (zrui_open(server.appName().toUtf8().constData(), &c) != ZRUI_OK)
        return 1;
    bool ok = zrui_begin_session(c, 0) == ZRUI_OK;

    // 1. Verify the user PIN, partly typed.
    ok = ok && zrui_pin_show(c, 0) == ZRUI_OK;
    const QString verify = XDoTool::waitForWindow(QStringLiteral("Verify USBKey password"));
    ok = ok && XDoTool::focus(verify) && XDoTool::type(QStringLiteral("abc"));
    ok = ok && shoot(QStringLiteral("Verify USBKey password"), QStringLiteral("1-verify-pin.png"));
    ok = ok && XDoTool::type(QStringLiteral("123")) && XDoTool::key(QStringLiteral("Return"))
         && waitPin(c);

    // 2. The token rejects it: Retry or Cancel.
    std::atomic<int> retry{1000};
    std::thread client([c, &retry] { retry = zrui_pin_retry(c, 3); });
    ok = ok && shoot(QStringLiteral("USBKey password error"), QStringLiteral("2-retry.png"));
    const QString box = XDoTool::waitForWindow(QStringLiteral("USBKey password error"));
    XDoTool::focus(box);
    XDoTool::key(QStringLiteral("space"));
    client.join();
    ok = ok && retry == ZRUI_OK;
    ok = ok && XDoTool::focus(XDoTool::waitForWindow(QStringLiteral("Verify USBKey password")))
         && XDoTool::type(QStringLiteral("abc123")) && XDoTool::key(QStringLiteral("Return"))
         && waitPin(c);
    ok = ok && zrui_pin_finish(c) == ZRUI_OK && zrui_end_session(c) == ZRUI_OK;

    // 3. Change the PIN, with a weak new PIN rated while typing.
    ok = ok && zrui_begin_session(c, 0) == ZRUI_OK && zrui_pin_show(c, 2) == ZRUI_OK;
    const QString change = XDoTool::waitForWindow(QStringLiteral("Change USBKey password"));
    ok = ok && XDoTool::focus(change) && XDoTool::type(QStringLiteral("abc123"))
         && XDoTool::key(QStringLiteral("Tab")) && XDoTool::type(QStringLiteral("banana"));
    ok = ok && shoot(QStringLiteral("Change USBKey password"), QStringLiteral("3-change-pin.png"));
    // REQ_PIN_Finish is only allowed after a REQ_PIN_GetPIN.
    zrui_pin_result pending;
    ok = ok && zrui_pin_get(c, &pending) == ZRUI_E_NORESULT;
    ok = ok && zrui_pin_finish(c) == ZRUI_OK && zrui_end_session(c) == ZRUI_OK;

    // 4. The token waits for its button.
    ok = ok && zrui_begin_session(c, 0) == ZRUI_OK
         && zrui_waiting_show(c, 2, "1=30|0=wait.gif") == ZRUI_OK;
    ok = ok && shoot(QStringLiteral("Verify user PIN"), QStringLiteral("4-waiting.png"));
    ok = ok && zrui_waiting_finish(c) == ZRUI_OK && zrui_end_session(c) == ZRUI_OK;

    // 5. Choose a container.
    ok = ok && zrui_begin_session(c, 0) == ZRUI_OK
         && zrui_list_show(c, 0, "Signing key 2024\nEncryption key 2024\nSigning key 2026")
                    == ZRUI_OK;
    ok = ok && shoot(QStringLiteral("Select Container"), QStringLiteral("5-container.png"));
    XDoTool::focus(XDoTool::waitForWindow(QStringLiteral("Select Container")));
    XDoTool::key(QStringLiteral("Tab space"));
    int32_t index = 0;
    ok = ok && zrui_list_wait(c, 15000, 50, &index) == ZRUI_OK && zrui_end_session(c) == ZRUI_OK;

    // 6. A message box.
    ok = ok && zrui_begin_session(c, 0) == ZRUI_OK;
    std::atomic<int> msg{1000};
    std::thread client2([c, &msg] { msg = zrui_message_box(c, 0, "Title_Warning", "PIN_Locked"); });
    const bool shot
            = shoot(QStringLiteral("Warning|Title_Warning"), QStringLiteral("6-message.png"));
    XDoTool::focus(XDoTool::waitForWindow(QStringLiteral("Warning|Title_Warning")));
    XDoTool::key(QStringLiteral("space"));
    client2.join();
    ok = ok && shot && msg == ZRUI_OK;

    zrui_close(c);
    server.stop();
    std::printf(ok ? "all screenshots taken\n" : "some steps failed\n");
    return ok ? 0 : 1;
}
