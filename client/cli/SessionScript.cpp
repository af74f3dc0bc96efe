#include "SessionScript.h"

#include "CliExit.h"
#include "CliOutput.h"

#include "client/zrui_client.h"

#include <QJsonObject>
#include <QThread>

namespace {

const int PollMs = 100;

// Steps, the number of ':'-separated arguments each takes (min, max).
struct StepKind
{
    const char *name;
    int minArgs;
    int maxArgs;
};

const StepKind Kinds[] = {
        {"begin", 0, 1},       {"end", 0, 0},       {"pin-show", 1, 1},   {"pin-get", 0, 0},
        {"pin-wait", 0, 1},    {"retry", 1, 1},     {"pin-finish", 0, 0}, {"wait-show", 1, 2},
        {"wait-finish", 0, 0}, {"list-show", 1, 2}, {"list-get", 0, 0},   {"list-wait", 0, 1},
        {"msg", 1, 3},         {"op", 1, 2},        {"sleep", 1, 1},
};

QString unescape(QString s) { return s.replace(QLatin1String("\\n"), QLatin1String("\n")); }

int waitMs(const QString &seconds)
{
    if (seconds.isEmpty())
        return 24 * 3600 * 1000;
    return int(seconds.toDouble() * 1000);
}

} // namespace

SessionScript::SessionScript(CliOutput &out)
    : out(out)
{ }

QString SessionScript::stepHelp()
{
    return QStringLiteral(
            "steps, run in order on one connection:\n"
            "  begin[=DEVREF]          REQ_BeginSession\n"
            "  end                     REQ_EndSession\n"
            "  pin-show=TYPE           REQ_PIN_Show (0 verify .. 5 set)\n"
            "  pin-get                 one REQ_PIN_GetPIN\n"
            "  pin-wait[=SECONDS]      REQ_PIN_GetPIN until answered\n"
            "  retry=N|forbidden       REQ_PIN_Retry\n"
            "  pin-finish              REQ_PIN_Finish\n"
            "  wait-show=TYPE[:INFO]   REQ_Waiting_Show\n"
            "  wait-finish             REQ_Waiting_Finish\n"
            "  list-show=TYPE[:TEXT]   REQ_List_Show (\\n in TEXT separates entries)\n"
            "  list-get                one REQ_List_GetSel\n"
            "  list-wait[=SECONDS]     REQ_List_GetSel until answered\n"
            "  msg=TYPE[:TITLE[:TEXT]] REQ_MessageBox\n"
            "  op=CODE[:HEX]           any operation code with raw data bytes\n"
            "  sleep=MS                pause");
}

bool SessionScript::parse(const QStringList &list)
{
    steps.clear();
    if (list.isEmpty()) {
        error = QStringLiteral("no steps given (see session --help)");
        return false;
    }
    for (const QString &text : list) {
        Step s;
        s.source = text;
        const int eq = text.indexOf(QLatin1Char('='));
        s.name = eq < 0 ? text : text.left(eq);
        // Only the step's own argument count splits at ':', so a message
        // text may itself hold colons.
        const StepKind *kind = nullptr;
        for (const StepKind &k : Kinds) {
            if (s.name == QLatin1String(k.name))
                kind = &k;
        }
        if (!kind) {
            error = QStringLiteral("unknown step \"%1\"").arg(text);
            return false;
        }
        QStringList parts;
        if (eq >= 0) {
            const QString rest = text.mid(eq + 1);
            parts = rest.split(QLatin1Char(':'));
            while (parts.size() > kind->maxArgs && parts.size() > 1) {
                const QString last = parts.takeLast();
                parts.last() += QLatin1Char(':') + last;
            }
        }
        if (parts.size() < kind->minArgs || parts.size() > kind->maxArgs) {
            error = QStringLiteral("step \"%1\" takes %2 to %3 arguments")
                            .arg(text)
                            .arg(kind->minArgs)
                            .arg(kind->maxArgs);
            return false;
        }
        s.arg1 = parts.value(0);
        s.arg2 = parts.value(1);
        s.arg3 = parts.value(2);
        steps.append(s);
    }
    return true;
}

int SessionScript::run(zrui_conn *conn, bool keepGoing)
{
    int result = CliOk;
    for (const Step &s : steps) {
        const int code = runStep(conn, s);
        if (code == ZRUI_OK || code == ZRUI_E_NORESULT)
            continue;
        result = cliExitForCode(code);
        if (!keepGoing || code == ZRUI_E_CLOSED || code == ZRUI_E_STATE || code == ZRUI_E_TOKEN)
            break;
    }
    return result;
}

int SessionScript::runStep(zrui_conn *conn, const Step &s)
{
    int code = ZRUI_E_INVAL;
    QJsonObject extra;
    QString detail;
    const QString &n = s.name;
    if (n == QLatin1String("begin")) {
        code = zrui_begin_session(conn, s.arg1.toULongLong(nullptr, 0));
    } else if (n == QLatin1String("end")) {
        code = zrui_end_session(conn);
    } else if (n == QLatin1String("pin-show")) {
        code = zrui_pin_show(conn, s.arg1.toUInt());
    } else if (n == QLatin1String("pin-get") || n == QLatin1String("pin-wait")) {
        zrui_pin_result r;
        code = n == QLatin1String("pin-get") ? zrui_pin_get(conn, &r)
                                             : zrui_pin_wait(conn, waitMs(s.arg1), PollMs, &r);
        if (code == ZRUI_OK) {
            extra = {{QStringLiteral("oldLen"), int(r.oldLen)},
                     {QStringLiteral("newLen"), int(r.newLen)}};
            detail = QStringLiteral("old PIN %1 bytes, new PIN %2 bytes")
                             .arg(r.oldLen)
                             .arg(r.newLen);
        }
        zrui_pin_result_wipe(&r);
    } else if (n == QLatin1String("retry")) {
        const quint32 tries = s.arg1 == QLatin1String("forbidden") ? REQ_PIN_RETRY_DEFAULT_FORBIDDEN
                                                                   : s.arg1.toUInt();
        code = zrui_pin_retry(conn, tries);
    } else if (n == QLatin1String("pin-finish")) {
        code = zrui_pin_finish(conn);
    } else if (n == QLatin1String("wait-show")) {
        code = zrui_waiting_show(conn, s.arg1.toUInt(), s.arg2.toUtf8().constData());
    } else if (n == QLatin1String("wait-finish")) {
        code = zrui_waiting_finish(conn);
    } else if (n == QLatin1String("list-show")) {
        code = zrui_list_show(conn, s.arg1.toUInt(), unescape(s.arg2).toUtf8().constData());
    } else if (n == QLatin1String("list-get") || n == QLatin1String("list-wait")) {
        int32_t index = 0;
        code = n == QLatin1String("list-get")
                       ? zrui_list_get_sel(conn, &index)
                       : zrui_list_wait(conn, waitMs(s.arg1), PollMs, &index);
        if (code == ZRUI_OK) {
            extra = {{QStringLiteral("index"), index}};
            detail = QStringLiteral("index %1").arg(index);
        }
    } else if (n == QLatin1String("msg")) {
        code = zrui_message_box(conn, s.arg1.toUInt(), s.arg2.toUtf8().constData(),
                                s.arg3.toUtf8().constData());
    } else if (n == QLatin1String("op")) {
        const QByteArray data = QByteArray::fromHex(s.arg2.toLatin1());
        QByteArray reply(COMMPACK_MAX_DATA, '\0');
        uint32_t resp = 0;
        uint32_t len = 0;
        code = zrui_request(conn, s.arg1.toUInt(nullptr, 0), data.constData(),
                            uint32_t(data.size()), &resp, reply.data(), uint32_t(reply.size()),
                            &len);
        if (code == ZRUI_OK) {
            reply.truncate(int(len));
            extra = {{QStringLiteral("response"), int(resp)},
                     {QStringLiteral("data"), CliOutput::hex(reply)}};
            detail = QStringLiteral("response %1 datalen %2%3")
                             .arg(resp)
                             .arg(len)
                             .arg(len ? QStringLiteral(" data ") + CliOutput::hex(reply)
                                      : QString());
            code = zrui_resp_to_code(resp);
        }
    } else if (n == QLatin1String("sleep")) {
        QThread::msleep(s.arg1.toULong());
        code = ZRUI_OK;
    }
    out.step(s.source, code, extra, detail);
    return code;
}
