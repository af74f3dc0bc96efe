/*
 * libzrui-client: the client side of the ZRUIServer socket protocol, for the
 * token middleware and for tools. Plain C, self-contained (C99 or C++);
 * link with -lzrui-client (pkg-config zrui-client, CMake Zrui::client).
 *
 * One connection serves one session at a time: every request is answered
 * by exactly one response before the next request goes out. After a state
 * error (ZRUI_E_STATE), a missing token (ZRUI_E_TOKEN), a reserved operation
 * or a time-out the server has dropped the connection (or the stream is out
 * of step): close the handle and connect again.
 *
 * All functions return ZRUI_OK (0) or one of the negative ZRUI_E_* codes.
 */
#ifndef ZRUI_PUBLIC_CLIENT_H
#define ZRUI_PUBLIC_CLIENT_H

#include <stddef.h>
#include <stdint.h>

#include <zrui/protocol.h>

#ifdef __cplusplus
extern "C" {
#endif

enum {
    ZRUI_OK = 0,
    ZRUI_E_CANCEL = -1, /* response UI_USER_CANCEL: the user cancelled */
    ZRUI_E_STATE = -3, /* response UI_STATE_ERROR: not allowed now; connection closed */
    ZRUI_E_NORESULT = -4, /* response UI_NO_RESULT: the user has not answered yet */
    ZRUI_E_TOKEN = -5, /* response UI_TOKEN_NOT_PRESENT: token pulled out; connection closed */
    ZRUI_E_CLOSED = -10, /* the server closed the connection */
    ZRUI_E_NOSERVER = -11, /* nobody listens on the socket name */
    ZRUI_E_TIMEOUT = -12, /* no answer within the time allowed */
    ZRUI_E_IO = -13, /* other socket error (errno tells more) */
    ZRUI_E_INVAL = -14, /* bad argument, or a request that does not fit a packet */
    ZRUI_E_PROTO = -15, /* malformed or unexpected response, or larger than the buffer */
    ZRUI_E_PEER = -16, /* the server runs under another user id: refused before any request */
    ZRUI_E_BUSY = -17 /* the server is busy with another program: the connection was not
                         accepted, or its first request not answered, within the time-out */
};

/* Capacity of each PIN in a parsed result, without the terminating NUL. */
#define ZRUI_PIN_CAP 256

typedef struct zrui_conn zrui_conn;

/* The length-prefixed PIN result, split. Both PINs are NUL-terminated.
 * Wipe it with zrui_pin_result_wipe() when done. */
typedef struct zrui_pin_result
{
    uint32_t oldLen;
    char oldPin[ZRUI_PIN_CAP + 1];
    uint32_t newLen;
    char newPin[ZRUI_PIN_CAP + 1];
} zrui_pin_result;

/* Text of an error code ("ZRUI_E_STATE: ..."), never NULL. */
const char *zrui_strerror(int code);

/* Socket name for a server name: serverName (NULL = "ZRUIServer") followed by
 * the decimal real user id. Returns ZRUI_E_INVAL when it does not fit cap. */
int zrui_socket_name(const char *serverName, char *out, size_t cap);

/* Connects to the abstract socket of serverName (NULL = "ZRUIServer") for
 * this user. Abstract names carry no permissions, so any local user could
 * hold the name: a server whose SO_PEERCRED uid is not ours is refused
 * (ZRUI_E_PEER) before a byte is sent. zrui_open reports why it failed;
 * zrui_connect returns NULL then (errno keeps the system error). */
int zrui_open(const char *serverName, zrui_conn **out);
/* As zrui_open, with a deadline in milliseconds (0 = none) for the connect
 * and for the answer to the first request; later calls have the deadline of
 * zrui_set_timeout (none by default). The server serves one program at a
 * time: when the connect or the first request is not answered in time the
 * result is ZRUI_E_BUSY, not ZRUI_E_TIMEOUT. */
int zrui_open_timeout(const char *serverName, int timeoutMs, zrui_conn **out);
zrui_conn *zrui_connect(const char *serverName);
void zrui_close(zrui_conn *h);
int zrui_fd(const zrui_conn *h);

/* Per-call deadline for every following request and its response, in
 * milliseconds (0 = wait without limit, the default). A time-out leaves the
 * stream out of step (ZRUI_E_TIMEOUT, or ZRUI_E_BUSY for the first request). */
int zrui_set_timeout(zrui_conn *h, int ms);

/* Sends one request (header + len data bytes) and reads exactly one
 * response: header, then datalen bytes into outbuf (outbuf may be NULL when
 * outcap is 0). *resp gets the response code, *outlen the data length.
 * Returns ZRUI_OK when a whole response was read, whatever its code. */
int zrui_request(zrui_conn *h, uint32_t op, const void *data, uint32_t len, uint32_t *resp,
                 void *outbuf, uint32_t outcap, uint32_t *outlen);

/* Writes raw bytes exactly as given (tests: split or malformed packets). */
int zrui_send_raw(zrui_conn *h, const void *bytes, size_t len);
/* Reads exactly len bytes. */
int zrui_recv_raw(zrui_conn *h, void *bytes, size_t len);

/* Maps a response code to ZRUI_OK or a ZRUI_E_* code. */
int zrui_resp_to_code(uint32_t resp);

/* Typed operations. Each returns the mapped response code. */
int zrui_begin_session(zrui_conn *h, uint64_t devRef);
int zrui_end_session(zrui_conn *h);
int zrui_pin_show(zrui_conn *h, uint32_t type);
/* One poll: ZRUI_OK with the result, ZRUI_E_NORESULT while pending. */
int zrui_pin_get(zrui_conn *h, zrui_pin_result *out);
/* Polls every pollMs until an answer or deadlineMs have passed
 * (ZRUI_E_TIMEOUT; the connection stays usable). */
int zrui_pin_wait(zrui_conn *h, int deadlineMs, int pollMs, zrui_pin_result *out);
/* Blocks until the user answers the retry message: ZRUI_OK (show the PIN
 * dialog again), ZRUI_E_CANCEL or ZRUI_E_NORESULT. tries 0xFFFFFFFF = the
 * default PIN is forbidden. */
int zrui_pin_retry(zrui_conn *h, uint32_t tries);
int zrui_pin_finish(zrui_conn *h);
int zrui_waiting_show(zrui_conn *h, uint32_t type, const char *text);
int zrui_waiting_finish(zrui_conn *h);
int zrui_list_show(zrui_conn *h, uint32_t param, const char *text);
int zrui_list_get_sel(zrui_conn *h, int32_t *index);
int zrui_list_wait(zrui_conn *h, int deadlineMs, int pollMs, int32_t *index);
/* Blocks until the user closes the message. The server answers ZRUI_OK for
 * both OK and Cancel. */
int zrui_message_box(zrui_conn *h, uint32_t type, const char *title, const char *text);

/* Helpers, public for tests and tools. */

/* Splits a PIN result buffer (u32 LE old length, old PIN, u32 LE new length,
 * new PIN; nothing else). ZRUI_E_PROTO when the lengths do not add up or a
 * PIN exceeds ZRUI_PIN_CAP. */
int zrui_parse_pin_result(const unsigned char *buf, size_t len, zrui_pin_result *out);
void zrui_pin_result_wipe(zrui_pin_result *r);

/* Number of UTF-16 code units of a UTF-8 string, counted as the server
 * decodes it (an invalid byte counts as one replacement character). */
size_t zrui_utf16_length(const char *utf8);

/* Data part of REQ_MessageBox: type at data offset 0, title at 4 with its
 * NUL, text at 5 + the title's UTF-16 length, which is where the server reads
 * it. With a non-ASCII title that place lies inside the title's own bytes, so
 * no packet can carry both: such a title is refused with ZRUI_E_INVAL. */
int zrui_build_message_box(uint32_t type, const char *title, const char *text, unsigned char *buf,
                           size_t cap, uint32_t *len);

#ifdef __cplusplus
}
#endif

#endif
