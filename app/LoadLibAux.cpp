// Run-time binding of the token stack's auxiliary library "libaux.so".
#include "TokenLibs.h"

#include <dlfcn.h>

ZRUI_DEFINE_ENTRY_POINTS(ZRUI_AUX_ENTRY_POINTS)

namespace {
void *hSOModule = nullptr;
} // namespace

// Set by the UI service from AuxLoadKestrovaIni(0); the record belongs to libaux.so.
void *g_ZRConfig = nullptr;

int LoadLib_Aux(long, char *dir)
{
    static const TokenLibEntry entries[] = {ZRUI_AUX_ENTRY_POINTS(ZRUI_TOKEN_LIB_ENTRY)};
    return bindTokenLib(&hSOModule, dir, "libaux.so", RTLD_LAZY, entries,
                        int(sizeof(entries) / sizeof(entries[0])));
}

void FreeLib_Aux()
{
    if (!hSOModule)
        return;
    dlclose(hSOModule);
    hSOModule = nullptr;
}
