/*
 * The packet layout of the per-user socket. Defined once, in the client
 * kit's public header, so that the server and every client agree.
 */
#ifndef ZRUI_PROTOCOL_H
#define ZRUI_PROTOCOL_H

#include "client/include/zrui/protocol.h"

#endif
