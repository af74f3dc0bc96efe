/*
 * Reference for the round-trip bench: the least a C helper must do for the
 * same packets. One client at a time; every request is answered 0, except
 * REQ_PIN_GetPIN, answered 4 (no result yet). Each request writes the same
 * 8 log lines as ZRUIServer, each with open/append/close.
 *
 * Usage: zrui_refserver SOCKETNAME LOGFILE
 */
#include "service/Protocol.h"

#include <fcntl.h>
#include <stdarg.h>
#include <stddef.h>
#include <stdio.h>
#include <string.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <time.h>
#include <unistd.h>

static const char *logPath;

static void logLine(const char *fmt, ...)
{
    char line[512];
    struct timespec ts;
    struct tm tm;
    clock_gettime(CLOCK_REALTIME, &ts);
    localtime_r(&ts.tv_sec, &tm);
    int n = (int)strftime(line, sizeof line, "[%Y-%m-%d %H:%M:%S ", &tm);
    n += snprintf(line + n, sizeof line - (size_t)n, "%03ld] ", ts.tv_nsec / 1000000);
    va_list ap;
    va_start(ap, fmt);
    n += vsnprintf(line + n, sizeof line - (size_t)n - 1, fmt, ap);
    va_end(ap);
    line[n++] = '\n';
    int fd = open(logPath, O_WRONLY | O_APPEND | O_CREAT | O_CLOEXEC, 0600);
    if (fd >= 0) {
        if (write(fd, line, (size_t)n) < 0) { }
        close(fd);
    }
}

static int readFull(int fd, unsigned char *p, size_t n)
{
    while (n > 0) {
        ssize_t r = read(fd, p, n);
        if (r <= 0)
            return -1;
        p += r;
        n -= (size_t)r;
    }
    return 0;
}

static void hex(char *out, const unsigned char *p, size_t n)
{
    for (size_t i = 0; i < n; ++i)
        sprintf(out + 2 * i, "%02X", p[i]);
}

int main(int argc, char **argv)
{
    if (argc != 3)
        return 2;
    logPath = argv[2];
    struct sockaddr_un addr = {.sun_family = AF_UNIX};
    size_t len = strlen(argv[1]);
    if (len + 1 >= sizeof addr.sun_path)
        return 2;
    memcpy(addr.sun_path + 1, argv[1], len);
    int ls = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    if (ls < 0
        || bind(ls, (struct sockaddr *)&addr,
                (socklen_t)(offsetof(struct sockaddr_un, sun_path) + 1 + len))
        || listen(ls, 8))
        return 1;
    static unsigned char pack[COMMPACK_MAX_SIZE];
    for (;;) {
        int c = accept(ls, NULL, NULL);
        if (c < 0)
            continue;
        for (;;) {
            logLine("RecvPack: RecvBuff......");
            logLine("RecvBuff: read ......");
            COMMPACK req, resp;
            if (readFull(c, pack, COMMPACK_HEADER_SIZE))
                break;
            memcpy(&req, pack, sizeof req);
            if (req.datalen > COMMPACK_MAX_DATA || readFull(c, pack + 8, req.datalen))
                break;
            char text[2 * COMMPACK_HEADER_SIZE + 1];
            hex(text, pack, COMMPACK_HEADER_SIZE);
            logLine("RecvBuff: readed readlen= 8 ,data= \"%s\"", text);
            logLine("RecvPack: RecvBuff recvLen= 8 , sizeof(COMMPACK)= 8 , "
                    "((PCOMMPACK)pReqData)->datalen= %u",
                    req.datalen);
            logLine("RecvPack: RecvBuff final rcount= %u", 8 + req.datalen);
            logLine(req.operation == REQ_PIN_GetPIN ? "REQ_PIN_GetPIN " : "REQ_%u", req.operation);
            resp.operation = req.operation == REQ_PIN_GetPIN ? UI_NO_RESULT : UI_OK;
            resp.datalen = 0;
            hex(text, (const unsigned char *)&resp, sizeof resp);
            logLine("SendBuff: Send \"%s\"", text);
            if (write(c, &resp, sizeof resp) != (ssize_t)sizeof resp)
                break;
            logLine("SendBuff: Sended writelen= 8");
        }
        close(c);
    }
}
