#include "DemoScript.h"

#include "CliExit.h"
#include "CliOutput.h"

#include "client/zrui_client.h"

#include <QJsonObject>
#include <QThread>

#include <cstring>
#include <string.h>

namespace {

const int PollMs = 100;
const int CountdownSeconds = 5;

} // namespace

DemoScript::DemoScript(CliOutput &out, const QString &server, bool reveal)
    : out(out)
    , server(server)
    , reveal(reveal)
{ }

DemoScript::~DemoScript() { close(); }

int DemoScript::open()
{
    close();
    int code = zrui_open(server.toUtf8().constData(), &conn);
    if (code != ZRUI_OK) {
        conn = nullptr;
        out.step(QStringLiteral("connect %1").arg(server), code);
        return code;
    }
    return step(QStringLiteral("REQ_BeginSession"), zrui_begin_session(conn, 0));
}

void DemoScript::close()
{
    if (conn)
        zrui_close(conn);
    conn = nullptr;
}

int DemoScript::step(const QString &request, int code)
{
    out.step(QStringLiteral("  ") + request, code);
    return code;
}

QString DemoScript::maskedPinBytes(const QByteArray &result) const
{
    if (reveal || result.size() < 8)
        return CliOutput::hex(result);
    // Keep the two length words, hide the PIN bytes between and after them.
    quint32 oldLen = 0;
    std::memcpy(&oldLen, result.constData(), 4);
    QStringList bytes;
    for (int i = 0; i < result.size(); ++i) {
        const bool lengthWord = i < 4 || (i >= 4 + int(oldLen) && i < 8 + int(oldLen));
        bytes << (lengthWord ? QString::asprintf("%02x", quint8(result.at(i)))
                             : QStringLiteral("**"));
    }
    return bytes.join(QLatin1Char(' '));
}

int DemoScript::pollPin(QByteArray *result)
{
    QByteArray reply(COMMPACK_MAX_DATA, '\0');
    for (;;) {
        uint32_t resp = 0;
        uint32_t len = 0;
        int code = zrui_request(conn, REQ_PIN_GetPIN, nullptr, 0, &resp, reply.data(),
                                uint32_t(reply.size()), &len);
        if (code == ZRUI_OK)
            code = zrui_resp_to_code(resp);
        if (code == ZRUI_E_NORESULT) {
            QThread::msleep(PollMs);
            continue;
        }
        if (code == ZRUI_OK) {
            *result = reply.left(int(len));
            out.step(QStringLiteral("  REQ_PIN_GetPIN"), code,
                     QJsonObject{{QStringLiteral("data"), maskedPinBytes(*result)}},
                     QStringLiteral("data (%1 bytes): %2").arg(len).arg(maskedPinBytes(*result)));
        } else {
            out.step(QStringLiteral("  REQ_PIN_GetPIN"), code);
        }
        explicit_bzero(reply.data(), size_t(reply.size()));
        return code;
    }
}

int DemoScript::runInteractive()
{
    QByteArray pin;
    auto wipe = [&pin]() {
        explicit_bzero(pin.data(), size_t(pin.size()));
        pin.clear();
    };

    out.say(QStringLiteral(
            "ZRUIServer demo: every step shows a dialog; answer it as a user would."));
    out.say(QStringLiteral(
            "[1/6] Verify the user PIN: type any PIN of 6 to 16 characters, then OK."));
    int code = open();
    if (code != ZRUI_OK)
        return cliExitForCode(code);
    if ((code = step(QStringLiteral("REQ_PIN_Show type=0"), zrui_pin_show(conn, 0))) != ZRUI_OK)
        return cliExitForCode(code);
    code = pollPin(&pin);
    wipe();
    if (code == ZRUI_OK) {
        out.say(QStringLiteral("[2/6] The token rejects that PIN: the server asks Retry or Cancel "
                               "(3 tries left). Choose Retry and enter the PIN again."));
        code = step(QStringLiteral("REQ_PIN_Retry tries=3"), zrui_pin_retry(conn, 3));
        if (code == ZRUI_OK) {
            pollPin(&pin);
            wipe();
        }
    }
    if (code == ZRUI_OK || code == ZRUI_E_CANCEL) {
        if (code == ZRUI_OK)
            step(QStringLiteral("REQ_PIN_Finish"), zrui_pin_finish(conn));
        step(QStringLiteral("REQ_EndSession"), zrui_end_session(conn));
    }

    out.say(QStringLiteral(
            "[3/6] Change the user PIN: the old PIN, then a new PIN with letters and "
            "digits (e.g. a1b2c3), twice."));
    if ((code = open()) != ZRUI_OK)
        return cliExitForCode(code);
    if (step(QStringLiteral("REQ_PIN_Show type=2"), zrui_pin_show(conn, 2)) == ZRUI_OK) {
        if (pollPin(&pin) == ZRUI_OK)
            step(QStringLiteral("REQ_PIN_Finish"), zrui_pin_finish(conn));
        wipe();
        step(QStringLiteral("REQ_EndSession"), zrui_end_session(conn));
    }

    out.say(QStringLiteral("[4/6] The token waits for its button: a waiting window counts down "
                           "from %1 seconds.")
                    .arg(CountdownSeconds));
    if ((code = open()) != ZRUI_OK)
        return cliExitForCode(code);
    const QByteArray info = QStringLiteral("1=%1|0=wait.gif").arg(CountdownSeconds).toUtf8();
    if (step(QStringLiteral("REQ_Waiting_Show type=2 info=\"%1\"").arg(QString::fromUtf8(info)),
             zrui_waiting_show(conn, 2, info.constData()))
        == ZRUI_OK) {
        QThread::msleep(ulong(CountdownSeconds + 1) * 1000);
        step(QStringLiteral("REQ_Waiting_Finish"), zrui_waiting_finish(conn));
        step(QStringLiteral("REQ_EndSession"), zrui_end_session(conn));
    }

    out.say(QStringLiteral("[5/6] Choose the container to overwrite, then OK."));
    if ((code = open()) != ZRUI_OK)
        return cliExitForCode(code);
    if (step(QStringLiteral("REQ_List_Show type=0"),
             zrui_list_show(conn, 0, "Signing key 2024\nEncryption key 2024\nSigning key 2026"))
        == ZRUI_OK) {
        int32_t index = -1;
        code = zrui_list_wait(conn, 24 * 3600 * 1000, PollMs, &index);
        out.step(QStringLiteral("  REQ_List_GetSel"), code,
                 code == ZRUI_OK ? QJsonObject{{QStringLiteral("index"), index}} : QJsonObject(),
                 code == ZRUI_OK ? QStringLiteral("index %1").arg(index) : QString());
        step(QStringLiteral("REQ_EndSession"), zrui_end_session(conn));
    }

    out.say(QStringLiteral("[6/6] A message box; close it with OK."));
    if ((code = open()) != ZRUI_OK)
        return cliExitForCode(code);
    if (step(QStringLiteral("REQ_MessageBox type=0"),
             zrui_message_box(conn, 0, "Title_Warning", "The demo is complete."))
        == ZRUI_OK)
        step(QStringLiteral("REQ_EndSession"), zrui_end_session(conn));
    close();
    out.say(QStringLiteral("Demo finished."));
    return CliOk;
}

int DemoScript::runUnattended()
{
    out.say(QStringLiteral("ZRUIServer demo (unattended): the steps that need no person."));
    out.say(QStringLiteral("[1/3] A session opens and closes."));
    int code = open();
    if (code != ZRUI_OK)
        return cliExitForCode(code);
    if ((code = step(QStringLiteral("REQ_EndSession"), zrui_end_session(conn))) != ZRUI_OK)
        return cliExitForCode(code);

    out.say(QStringLiteral(
            "[2/3] A list request of type 1 is answered at once, without a window."));
    if ((code = step(QStringLiteral("REQ_BeginSession"), zrui_begin_session(conn, 0))) != ZRUI_OK)
        return cliExitForCode(code);
    if ((code = step(QStringLiteral("REQ_List_Show type=1"), zrui_list_show(conn, 1, "A\nB")))
        != ZRUI_OK)
        return cliExitForCode(code);
    int32_t index = 0;
    code = zrui_list_wait(conn, 10000, PollMs, &index);
    out.step(QStringLiteral("  REQ_List_GetSel"), code,
             code == ZRUI_OK ? QJsonObject{{QStringLiteral("index"), index}} : QJsonObject(),
             code == ZRUI_OK ? QStringLiteral("index %1").arg(index) : QString());
    if (code != ZRUI_OK)
        return cliExitForCode(code);
    if ((code = step(QStringLiteral("REQ_EndSession"), zrui_end_session(conn))) != ZRUI_OK)
        return cliExitForCode(code);

    out.say(QStringLiteral("[3/3] A waiting window is shown with a countdown and finished."));
    if ((code = step(QStringLiteral("REQ_BeginSession"), zrui_begin_session(conn, 0))) != ZRUI_OK)
        return cliExitForCode(code);
    if ((code = step(QStringLiteral("REQ_Waiting_Show type=2 info=\"1=3\""),
                     zrui_waiting_show(conn, 2, "1=3")))
        != ZRUI_OK)
        return cliExitForCode(code);
    QThread::msleep(1500);
    if ((code = step(QStringLiteral("REQ_Waiting_Finish"), zrui_waiting_finish(conn))) != ZRUI_OK)
        return cliExitForCode(code);
    code = step(QStringLiteral("REQ_EndSession"), zrui_end_session(conn));
    close();
    out.say(QStringLiteral("Demo finished."));
    return cliExitForCode(code);
}
