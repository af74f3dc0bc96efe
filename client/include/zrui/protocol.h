/*
 * The packet layout of the ZRUIServer per-user socket and the codes carried
 * in it: the one definition the server and the client library share. Plain
 * C, self-contained.
 *
 * Byte order is the host's on both sides; the header is exactly 8 bytes and
 * carries no magic, version or padding.
 */
#ifndef ZRUI_PUBLIC_PROTOCOL_H
#define ZRUI_PUBLIC_PROTOCOL_H

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

/* REQ_PIN_Show: PIN dialog types. */
enum {
    ZRUI_PIN_VERIFY_USER = 0,
    ZRUI_PIN_VERIFY_ADMIN = 1,
    ZRUI_PIN_CHANGE_USER = 2,
    ZRUI_PIN_CHANGE_ADMIN = 3,
    ZRUI_PIN_UNBLOCK = 4, /* asks for the administrator PIN only */
    ZRUI_PIN_SET_USER = 5
};

/* REQ_MessageBox: message types. Any type but ZRUI_MSG_RETRY_CANCEL shows
 * OK only. */
enum { ZRUI_MSG_OK = 0, ZRUI_MSG_RETRY_CANCEL = 5 };

/* REQ_Waiting_Show: waiting window types; the countdown comes from the
 * numbered key of the "|"-separated text ("1=30|0=wait.gif"). */
enum {
    ZRUI_WAIT_GENERATE_KEY = 0, /* countdown from key 2 */
    ZRUI_WAIT_TRANSMIT_SIGNATURE = 1, /* key 2 */
    ZRUI_WAIT_VERIFY_USER_PIN = 2, /* key 1 */
    ZRUI_WAIT_CHANGE_USER_PIN = 3, /* key 1 */
    ZRUI_WAIT_UNLOCK_PIN = 4, /* key 1 */
    ZRUI_WAIT_TRADE_CONFIRM = 5, /* key 2 */
    ZRUI_WAIT_RESTORE_DEFAULT = 6, /* key 4 */
    ZRUI_WAIT_GENERATE_KEY_2 = 7, /* key 2 */
    ZRUI_WAIT_VERIFY_ADMIN_PIN = 8, /* key 1 */
    ZRUI_WAIT_CHANGE_ADMIN_PIN = 9, /* key 1 */
    ZRUI_WAIT_SET_USER_PIN = 10 /* key 1 */
};

#ifdef __cplusplus
}
#endif

#endif
