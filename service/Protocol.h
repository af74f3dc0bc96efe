/*
 * The packet layout of the per-user socket, shared by the server and the
 * client library. Plain C so that a C middleware can include it.
 *
 * Byte order is the host's on both sides; the header is exactly 8 bytes and
 * carries no magic, version or padding.
 */
#ifndef ZRUI_PROTOCOL_H
#define ZRUI_PROTOCOL_H

#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

#define COMMPACK_MAX_DATA 10240
#define COMMPACK_HEADER_SIZE 8
#define COMMPACK_MAX_SIZE (COMMPACK_HEADER_SIZE + COMMPACK_MAX_DATA)

typedef struct _COMMPACK
{
    uint32_t operation; /* request: REQ_*; response: UI_* */
    uint32_t datalen; /* bytes of data following the header */
} COMMPACK, *PCOMMPACK;

/* Operation codes. 8, 12 and 13 are reserved: 8 and 12 can be allowed by the
 * session state machine but have no handler, 13 is never allowed. */
enum {
    REQ_BeginSession = 1,
    REQ_EndSession = 2,
    REQ_PIN_Show = 3,
    REQ_PIN_GetPIN = 4,
    REQ_PIN_Retry = 5,
    REQ_PIN_Finish = 6,
    REQ_Waiting_Show = 7,
    REQ_Reserved_8 = 8,
    REQ_Waiting_Finish = 9,
    REQ_List_Show = 10,
    REQ_List_GetSel = 11,
    REQ_Reserved_12 = 12,
    REQ_Reserved_13 = 13,
    REQ_MessageBox = 14
};

/* Response codes. 2 is never sent. */
enum {
    UI_OK = 0,
    UI_USER_CANCEL = 1,
    UI_STATE_ERROR = 3,
    UI_NO_RESULT = 4,
    UI_TOKEN_NOT_PRESENT = 5
};

/* REQ_PIN_Retry: remaining tries value that means "default PIN forbidden". */
#define REQ_PIN_RETRY_DEFAULT_FORBIDDEN 0xFFFFFFFFu

#ifdef __cplusplus
}
#endif

#endif
