// Run-time binding of the token stack's device access library "libzrkapi.so".
#include "TokenLibs.h"

#include <dlfcn.h>

ZRUI_DEFINE_ENTRY_POINTS(ZRUI_ZRKAPI_ENTRY_POINTS)

namespace {
void *hSOModule = nullptr;
} // namespace

int LoadLib_ZRKAPI(long, char *dir)
{
    static const TokenLibEntry entries[] = {ZRUI_ZRKAPI_ENTRY_POINTS(ZRUI_TOKEN_LIB_ENTRY)};
    return bindTokenLib(&hSOModule, dir, "libzrkapi.so", RTLD_LAZY, entries,
                        int(sizeof(entries) / sizeof(entries[0])));
}

int FreeLib_ZRKAPI()
{
    if (!hSOModule)
        return 0;
    const int rc = dlclose(hSOModule);
    hSOModule = nullptr;
    return rc;
}
