/* The client library's API, for code inside this tree. */
#ifndef ZRUI_CLIENT_H
#define ZRUI_CLIENT_H

#include "zrui/client.h"

#endif
