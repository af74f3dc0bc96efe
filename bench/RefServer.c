/* The least a C helper does for the same packets, one client at a time: 4 (no result yet) to
 * REQ_PIN_GetPIN, 0 to the rest, and ZRUIServer's 8 log lines a request, each appended by
 * open/write/close. Usage: zrui_refserver SOCKETNAME LOGFILE */
#include "service/Protocol.h"

#include <fcntl.h>
#include <stdarg.h>
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
    if (fd < 0)
        return;
    if (write(fd, line, (size_t)n) != n) { } // a line lost, as in the server
    close(fd);
}

static const char *hex(const void *p)
{
    static char out[2 * COMMPACK_HEADER_SIZE + 1];
    for (int i = 0; i < COMMPACK_HEADER_SIZE; ++i)
        sprintf(out + 2 * i, "%02X", ((const unsigned char *)p)[i]);
    return out;
}

int main(int argc, char **argv)
{
    struct sockaddr_un addr = {.sun_family = AF_UNIX};
    size_t len = argc == 3 ? strlen(argv[1]) : sizeof addr.sun_path;
    if (len + 1 >= sizeof addr.sun_path)
        return 2;
    logPath = argv[2];
    memcpy(addr.sun_path + 1, argv[1], len);
    int ls = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    socklen_t size = (socklen_t)(sizeof addr.sun_family + 1 + len);
    if (ls < 0 || bind(ls, (struct sockaddr *)&addr, size) || listen(ls, 8))
        return 1;
    static unsigned char pack[COMMPACK_MAX_DATA];
    for (;;) {
        int c = accept(ls, NULL, NULL);
        for (COMMPACK req, resp = {0, 0};;) {
            logLine("RecvPack: RecvBuff......");
            logLine("RecvBuff: read ......");
            if (recv(c, &req, 8, MSG_WAITALL) != 8 || req.datalen > COMMPACK_MAX_DATA
                || (req.datalen && recv(c, pack, req.datalen, MSG_WAITALL) != (ssize_t)req.datalen))
                break;
            logLine("RecvBuff: readed readlen= 8 ,data= \"%s\"", hex(&req));
            logLine("RecvPack: RecvBuff recvLen= 8 , sizeof(COMMPACK)= 8 , "
                    "((PCOMMPACK)pReqData)->datalen= %u",
                    req.datalen);
            logLine("RecvPack: RecvBuff final rcount= %u", 8 + req.datalen);
            logLine(req.operation == REQ_PIN_GetPIN ? "REQ_PIN_GetPIN " : "REQ_%u", req.operation);
            resp.operation = req.operation == REQ_PIN_GetPIN ? UI_NO_RESULT : UI_OK;
            logLine("SendBuff: Send \"%s\"", hex(&resp));
            if (write(c, &resp, sizeof resp) != (ssize_t)sizeof resp)
                break;
            logLine("SendBuff: Sended writelen= 8");
        }
        close(c);
    }
}
