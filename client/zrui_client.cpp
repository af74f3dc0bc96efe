// Written in the C subset of C++ (malloc, no exceptions, no standard
// library objects) so that a C program links the static library without the
// C++ runtime.
#include "zrui_client.h"

#include <errno.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <time.h>

#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

struct zrui_conn
{
    int fd;
    // Set after a time-out or a malformed header: the next bytes on the
    // stream no longer start a response.
    int broken;
    // Set once the server has answered a request on this connection.
    int answered;
    // Per-call deadline (ms, 0 = none) that replaces the opening deadline
    // once the first answer has come.
    int callTimeoutMs;
    // Outgoing packet and incoming PIN results; wiped after every use.
    unsigned char packet[COMMPACK_MAX_SIZE];
    unsigned char scratch[COMMPACK_MAX_DATA];
};

static int64_t nowMs(void)
{
    struct timespec ts;
    clock_gettime(CLOCK_MONOTONIC, &ts);
    return (int64_t)ts.tv_sec * 1000 + ts.tv_nsec / 1000000;
}

static void sleepMs(int ms)
{
    struct timespec ts;
    ts.tv_sec = ms / 1000;
    ts.tv_nsec = (long)(ms % 1000) * 1000000L;
    while (nanosleep(&ts, &ts) != 0 && errno == EINTR) { }
}

const char *zrui_strerror(int code)
{
    switch (code) {
    case ZRUI_OK:
        return "ZRUI_OK: success";
    case ZRUI_E_CANCEL:
        return "ZRUI_E_CANCEL: the user cancelled";
    case ZRUI_E_STATE:
        return "ZRUI_E_STATE: operation not allowed in this session state (connection closed)";
    case ZRUI_E_NORESULT:
        return "ZRUI_E_NORESULT: the user has not answered yet";
    case ZRUI_E_TOKEN:
        return "ZRUI_E_TOKEN: the token is not present (connection closed)";
    case ZRUI_E_CLOSED:
        return "ZRUI_E_CLOSED: the server closed the connection";
    case ZRUI_E_NOSERVER:
        return "ZRUI_E_NOSERVER: no server listens on the socket";
    case ZRUI_E_TIMEOUT:
        return "ZRUI_E_TIMEOUT: no answer in time";
    case ZRUI_E_IO:
        return "ZRUI_E_IO: socket error";
    case ZRUI_E_INVAL:
        return "ZRUI_E_INVAL: invalid argument";
    case ZRUI_E_PROTO:
        return "ZRUI_E_PROTO: malformed or unexpected response";
    case ZRUI_E_PEER:
        return "ZRUI_E_PEER: the server runs under another user id (refused)";
    case ZRUI_E_BUSY:
        return "ZRUI_E_BUSY: the server is busy with another program (no answer in time)";
    default:
        return "unknown error code";
    }
}

int zrui_socket_name(const char *serverName, char *out, size_t cap)
{
    if (!out)
        return ZRUI_E_INVAL;
    const int n = snprintf(out, cap, "%s%u", serverName ? serverName : "ZRUIServer",
                           (unsigned)getuid());
    if (n < 0 || (size_t)n >= cap)
        return ZRUI_E_INVAL;
    return ZRUI_OK;
}

int zrui_open(const char *serverName, zrui_conn **out)
{
    return zrui_open_timeout(serverName, 0, out);
}

// Both directions get the deadline: on a Unix stream socket the send
// time-out also bounds a connect that waits for room in a full backlog.
static int setDeadline(int fd, int ms)
{
    struct timeval tv;
    tv.tv_sec = ms / 1000;
    tv.tv_usec = (ms % 1000) * 1000;
    if (setsockopt(fd, SOL_SOCKET, SO_RCVTIMEO, &tv, sizeof tv) != 0
        || setsockopt(fd, SOL_SOCKET, SO_SNDTIMEO, &tv, sizeof tv) != 0)
        return ZRUI_E_IO;
    return ZRUI_OK;
}

int zrui_open_timeout(const char *serverName, int timeoutMs, zrui_conn **out)
{
    if (!out || timeoutMs < 0)
        return ZRUI_E_INVAL;
    *out = NULL;

    struct sockaddr_un addr;
    memset(&addr, 0, sizeof addr);
    addr.sun_family = AF_UNIX;
    // Abstract name: a leading NUL, then the name without terminator; the
    // server's name length limit (106 bytes) follows from the same layout.
    char name[sizeof addr.sun_path];
    if (zrui_socket_name(serverName, name, sizeof name) != ZRUI_OK
        || strlen(name) > sizeof addr.sun_path - 2)
        return ZRUI_E_INVAL;
    const size_t nameLen = strlen(name);
    memcpy(addr.sun_path + 1, name, nameLen);
    const socklen_t addrLen = (socklen_t)(offsetof(struct sockaddr_un, sun_path) + 1 + nameLen);

    zrui_conn *h = (zrui_conn *)calloc(1, sizeof *h);
    if (!h)
        return ZRUI_E_IO;
    h->fd = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    if (h->fd < 0) {
        free(h);
        return ZRUI_E_IO;
    }
    if (setDeadline(h->fd, timeoutMs) != ZRUI_OK
        || connect(h->fd, (struct sockaddr *)&addr, addrLen) != 0) {
        const int err = errno;
        close(h->fd);
        free(h);
        errno = err;
        if (err == ECONNREFUSED || err == ENOENT)
            return ZRUI_E_NOSERVER;
        // The backlog stayed full: the server serves other programs.
        return (err == EAGAIN || err == ETIMEDOUT) ? ZRUI_E_BUSY : ZRUI_E_IO;
    }
    // The name may be held by another user's process; it must not see a
    // single request (a PIN prompt it answers would be believed).
    struct ucred cred;
    socklen_t credLen = sizeof cred;
    if (getsockopt(h->fd, SOL_SOCKET, SO_PEERCRED, &cred, &credLen) != 0 || credLen != sizeof cred
        || cred.uid != getuid()) {
        const int err = errno;
        close(h->fd);
        free(h);
        errno = err;
        return ZRUI_E_PEER;
    }
    *out = h;
    return ZRUI_OK;
}

zrui_conn *zrui_connect(const char *serverName)
{
    zrui_conn *h = NULL;
    zrui_open(serverName, &h);
    return h;
}

void zrui_close(zrui_conn *h)
{
    if (!h)
        return;
    if (h->fd >= 0)
        close(h->fd);
    explicit_bzero(h, sizeof *h);
    free(h);
}

int zrui_fd(const zrui_conn *h) { return h ? h->fd : -1; }

int zrui_set_timeout(zrui_conn *h, int ms)
{
    if (!h || ms < 0)
        return ZRUI_E_INVAL;
    h->callTimeoutMs = ms;
    return setDeadline(h->fd, ms);
}

int zrui_send_raw(zrui_conn *h, const void *bytes, size_t len)
{
    if (!h || (!bytes && len))
        return ZRUI_E_INVAL;
    const unsigned char *p = (const unsigned char *)bytes;
    while (len > 0) {
        const ssize_t n = send(h->fd, p, len, MSG_NOSIGNAL);
        if (n < 0) {
            if (errno == EINTR)
                continue;
            return (errno == EPIPE || errno == ECONNRESET) ? ZRUI_E_CLOSED : ZRUI_E_IO;
        }
        p += n;
        len -= (size_t)n;
    }
    return ZRUI_OK;
}

int zrui_recv_raw(zrui_conn *h, void *bytes, size_t len)
{
    if (!h || (!bytes && len))
        return ZRUI_E_INVAL;
    unsigned char *p = (unsigned char *)bytes;
    while (len > 0) {
        const ssize_t n = read(h->fd, p, len);
        if (n == 0)
            return ZRUI_E_CLOSED;
        if (n < 0) {
            if (errno == EINTR)
                continue;
            if (errno == EAGAIN || errno == EWOULDBLOCK)
                return ZRUI_E_TIMEOUT;
            return errno == ECONNRESET ? ZRUI_E_CLOSED : ZRUI_E_IO;
        }
        p += n;
        len -= (size_t)n;
    }
    return ZRUI_OK;
}

int zrui_request(zrui_conn *h, uint32_t op, const void *data, uint32_t len, uint32_t *resp,
                 void *outbuf, uint32_t outcap, uint32_t *outlen)
{
    if (!h || !resp || len > COMMPACK_MAX_DATA || (len && !data) || (outcap && !outbuf))
        return ZRUI_E_INVAL;
    if (h->broken)
        return ZRUI_E_IO;
    if (outlen)
        *outlen = 0;

    COMMPACK hdr;
    hdr.operation = op;
    hdr.datalen = len;
    memcpy(h->packet, &hdr, sizeof hdr);
    if (len)
        memcpy(h->packet + COMMPACK_HEADER_SIZE, data, len);
    int rc = zrui_send_raw(h, h->packet, COMMPACK_HEADER_SIZE + (size_t)len);
    explicit_bzero(h->packet, COMMPACK_HEADER_SIZE + (size_t)len);
    if (rc != ZRUI_OK)
        return rc;

    rc = zrui_recv_raw(h, &hdr, sizeof hdr);
    if (rc != ZRUI_OK) {
        if (rc == ZRUI_E_TIMEOUT) {
            h->broken = 1;
            // The server takes one connection at a time: a first request
            // left unanswered waits behind another program's connection.
            if (!h->answered)
                return ZRUI_E_BUSY;
        }
        return rc;
    }
    if (!h->answered) {
        h->answered = 1;
        setDeadline(h->fd, h->callTimeoutMs);
    }
    if (hdr.datalen > COMMPACK_MAX_DATA) {
        h->broken = 1;
        return ZRUI_E_PROTO;
    }
    *resp = hdr.operation;
    if (hdr.datalen > outcap) {
        // Drain it so the stream stays in step, then refuse.
        rc = zrui_recv_raw(h, h->scratch, hdr.datalen);
        explicit_bzero(h->scratch, hdr.datalen);
        if (rc == ZRUI_E_TIMEOUT)
            h->broken = 1;
        return rc != ZRUI_OK ? rc : ZRUI_E_PROTO;
    }
    rc = zrui_recv_raw(h, outbuf, hdr.datalen);
    if (rc != ZRUI_OK) {
        if (rc == ZRUI_E_TIMEOUT)
            h->broken = 1;
        return rc;
    }
    if (outlen)
        *outlen = hdr.datalen;
    return ZRUI_OK;
}

int zrui_resp_to_code(uint32_t resp)
{
    switch (resp) {
    case UI_OK:
        return ZRUI_OK;
    case UI_USER_CANCEL:
        return ZRUI_E_CANCEL;
    case UI_STATE_ERROR:
        return ZRUI_E_STATE;
    case UI_NO_RESULT:
        return ZRUI_E_NORESULT;
    case UI_TOKEN_NOT_PRESENT:
        return ZRUI_E_TOKEN;
    default:
        return ZRUI_E_PROTO;
    }
}

// A request whose response carries no data.
static int simpleRequest(zrui_conn *h, uint32_t op, const void *data, uint32_t len)
{
    uint32_t resp = 0;
    const int rc = zrui_request(h, op, data, len, &resp, NULL, 0, NULL);
    return rc != ZRUI_OK ? rc : zrui_resp_to_code(resp);
}

static int u32Request(zrui_conn *h, uint32_t op, uint32_t value)
{
    return simpleRequest(h, op, &value, sizeof value);
}

// A u32 followed by a NUL-terminated string.
static int textRequest(zrui_conn *h, uint32_t op, uint32_t value, const char *text)
{
    if (!h)
        return ZRUI_E_INVAL;
    if (!text)
        text = "";
    const size_t textLen = strlen(text);
    if (4 + textLen + 1 > COMMPACK_MAX_DATA)
        return ZRUI_E_INVAL;
    unsigned char *data = h->scratch;
    memcpy(data, &value, 4);
    memcpy(data + 4, text, textLen + 1);
    return simpleRequest(h, op, data, (uint32_t)(4 + textLen + 1));
}

int zrui_begin_session(zrui_conn *h, uint64_t devRef)
{
    // Offset 8: a 16-bit field the server ignores; offset 10: the device
    // reference, unaligned.
    unsigned char data[10];
    memset(data, 0, 2);
    memcpy(data + 2, &devRef, sizeof devRef);
    return simpleRequest(h, REQ_BeginSession, data, sizeof data);
}

int zrui_end_session(zrui_conn *h) { return simpleRequest(h, REQ_EndSession, NULL, 0); }

int zrui_pin_show(zrui_conn *h, uint32_t type) { return u32Request(h, REQ_PIN_Show, type); }

int zrui_parse_pin_result(const unsigned char *buf, size_t len, zrui_pin_result *out)
{
    if (!out || (!buf && len))
        return ZRUI_E_INVAL;
    zrui_pin_result_wipe(out);
    uint32_t oldLen = 0;
    uint32_t newLen = 0;
    if (len < 4)
        return ZRUI_E_PROTO;
    memcpy(&oldLen, buf, 4);
    if (oldLen > ZRUI_PIN_CAP || len < 8 + (size_t)oldLen)
        return ZRUI_E_PROTO;
    memcpy(&newLen, buf + 4 + oldLen, 4);
    if (newLen > ZRUI_PIN_CAP || len != 8 + (size_t)oldLen + newLen)
        return ZRUI_E_PROTO;
    out->oldLen = oldLen;
    memcpy(out->oldPin, buf + 4, oldLen);
    out->newLen = newLen;
    memcpy(out->newPin, buf + 8 + oldLen, newLen);
    return ZRUI_OK;
}

void zrui_pin_result_wipe(zrui_pin_result *r)
{
    if (r)
        explicit_bzero(r, sizeof *r);
}

int zrui_pin_get(zrui_conn *h, zrui_pin_result *out)
{
    if (!h || !out)
        return ZRUI_E_INVAL;
    uint32_t resp = 0;
    uint32_t len = 0;
    int rc = zrui_request(h, REQ_PIN_GetPIN, NULL, 0, &resp, h->scratch, sizeof h->scratch, &len);
    if (rc == ZRUI_OK) {
        rc = zrui_resp_to_code(resp);
        if (rc == ZRUI_OK)
            rc = zrui_parse_pin_result(h->scratch, len, out);
    }
    explicit_bzero(h->scratch, sizeof h->scratch);
    return rc;
}

int zrui_pin_wait(zrui_conn *h, int deadlineMs, int pollMs, zrui_pin_result *out)
{
    if (!h || !out || deadlineMs < 0 || pollMs < 0)
        return ZRUI_E_INVAL;
    const int64_t end = nowMs() + deadlineMs;
    for (;;) {
        const int rc = zrui_pin_get(h, out);
        if (rc != ZRUI_E_NORESULT)
            return rc;
        if (nowMs() >= end)
            return ZRUI_E_TIMEOUT;
        sleepMs(pollMs);
    }
}

int zrui_pin_retry(zrui_conn *h, uint32_t tries) { return u32Request(h, REQ_PIN_Retry, tries); }

int zrui_pin_finish(zrui_conn *h) { return simpleRequest(h, REQ_PIN_Finish, NULL, 0); }

int zrui_waiting_show(zrui_conn *h, uint32_t type, const char *text)
{
    return textRequest(h, REQ_Waiting_Show, type, text);
}

int zrui_waiting_finish(zrui_conn *h) { return simpleRequest(h, REQ_Waiting_Finish, NULL, 0); }

int zrui_list_show(zrui_conn *h, uint32_t param, const char *text)
{
    return textRequest(h, REQ_List_Show, param, text);
}

int zrui_list_get_sel(zrui_conn *h, int32_t *index)
{
    if (!h || !index)
        return ZRUI_E_INVAL;
    uint32_t resp = 0;
    uint32_t len = 0;
    int32_t sel = 0;
    int rc = zrui_request(h, REQ_List_GetSel, NULL, 0, &resp, &sel, sizeof sel, &len);
    if (rc != ZRUI_OK)
        return rc;
    rc = zrui_resp_to_code(resp);
    if (rc == ZRUI_OK) {
        if (len != sizeof sel)
            return ZRUI_E_PROTO;
        *index = sel;
    }
    return rc;
}

int zrui_list_wait(zrui_conn *h, int deadlineMs, int pollMs, int32_t *index)
{
    if (!h || !index || deadlineMs < 0 || pollMs < 0)
        return ZRUI_E_INVAL;
    const int64_t end = nowMs() + deadlineMs;
    for (;;) {
        const int rc = zrui_list_get_sel(h, index);
        if (rc != ZRUI_E_NORESULT)
            return rc;
        if (nowMs() >= end)
            return ZRUI_E_TIMEOUT;
        sleepMs(pollMs);
    }
}

size_t zrui_utf16_length(const char *utf8)
{
    size_t units = 0;
    for (const unsigned char *p = (const unsigned char *)utf8; p && *p; ++p) {
        if ((*p & 0xC0) == 0x80)
            continue; // continuation byte of a sequence already counted
        units += (*p >= 0xF0) ? 2 : 1; // 4-byte sequences become surrogate pairs
    }
    return units;
}

int zrui_build_message_box(uint32_t type, const char *title, const char *text, unsigned char *buf,
                           size_t cap, uint32_t *len)
{
    if (!buf || !len)
        return ZRUI_E_INVAL;
    if (!title)
        title = "";
    if (!text)
        text = "";
    const size_t titleBytes = strlen(title);
    const size_t textOffset = 5 + zrui_utf16_length(title);
    // The server reads the text at 13 + the title's UTF-16 length into the
    // packet; a title outside ASCII puts that inside its own bytes.
    if (textOffset != 5 + titleBytes)
        return ZRUI_E_INVAL;
    const size_t total = textOffset + strlen(text) + 1;
    if (total > cap || total > COMMPACK_MAX_DATA)
        return ZRUI_E_INVAL;
    memcpy(buf, &type, 4);
    memcpy(buf + 4, title, titleBytes + 1);
    memcpy(buf + textOffset, text, strlen(text) + 1);
    *len = (uint32_t)total;
    return ZRUI_OK;
}

int zrui_message_box(zrui_conn *h, uint32_t type, const char *title, const char *text)
{
    if (!h)
        return ZRUI_E_INVAL;
    uint32_t len = 0;
    const int rc = zrui_build_message_box(type, title, text, h->scratch, sizeof h->scratch, &len);
    if (rc != ZRUI_OK)
        return rc;
    return simpleRequest(h, REQ_MessageBox, h->scratch, len);
}
