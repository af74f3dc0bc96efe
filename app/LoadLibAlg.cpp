// Run-time binding of the token stack's algorithm library "libzralg.so".
#include "TokenLibs.h"

#include <dlfcn.h>

ZRUI_DEFINE_ENTRY_POINTS(ZRUI_ZRALG_ENTRY_POINTS)

namespace {
void *hSOModule = nullptr;
} // namespace

int LoadLib_Alg(long, char *dir)
{
    static const TokenLibEntry entries[] = {ZRUI_ZRALG_ENTRY_POINTS(ZRUI_TOKEN_LIB_ENTRY)};
    return bindTokenLib(&hSOModule, dir, "libzralg.so", ZRUI_ALG_DLOPEN_MODE, entries,
                        int(sizeof(entries) / sizeof(entries[0])));
}

void FreeLib_Alg()
{
    if (!hSOModule)
        return;
    dlclose(hSOModule);
    hSOModule = nullptr;
}
