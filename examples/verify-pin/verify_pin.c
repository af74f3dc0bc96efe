/* Asks the user's ZRUIServer for the user PIN, as a token middleware does,
 * and prints the length of what was typed. Build with
 *   cc verify_pin.c $(pkg-config --cflags --libs zrui-client)
 * or with CMake (see CMakeLists.txt). The optional argument names a server
 * started under another name. Exit status 0 on a PIN. */
#include <zrui/client.h>

#include <stdio.h>

int main(int argc, char **argv)
{
    zrui_conn *h = NULL;
    /* 5 s for the server to take us: it serves one program at a time. */
    int rc = zrui_open_timeout(argc > 1 ? argv[1] : NULL, 5000, &h);
    if (rc == ZRUI_OK)
        rc = zrui_begin_session(h, 0);
    if (rc == ZRUI_OK)
        rc = zrui_pin_show(h, ZRUI_PIN_VERIFY_USER);
    if (rc == ZRUI_OK) {
        zrui_pin_result pin;
        rc = zrui_pin_wait(h, 120000, 100, &pin);
        if (rc == ZRUI_OK)
            printf("PIN of %u bytes\n", (unsigned)pin.oldLen);
        zrui_pin_result_wipe(&pin);
        zrui_pin_finish(h);
        zrui_end_session(h);
    }
    if (rc != ZRUI_OK)
        fprintf(stderr, "verify_pin: %s\n", zrui_strerror(rc));
    zrui_close(h);
    return rc == ZRUI_OK ? 0 : 1;
}
