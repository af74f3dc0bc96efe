// Run-time binding of the token stack's auxiliary library "libaux.so".
#include "TokenLibs.h"

#include <dlfcn.h>

namespace {

// Every entry point of the list gets the generic pointer type ...
namespace defaultTypes {
#define ZRUI_DEFAULT_TYPE(name) using PFN_##name = PFN_ZR_Unused;
ZRUI_AUX_ENTRY_POINTS(ZRUI_DEFAULT_TYPE)
#undef ZRUI_DEFAULT_TYPE
} // namespace defaultTypes

// ... except those this program calls: a direct member of a namespace hides
// what a using-directive brings in, so these take the real signatures.
namespace entryTypes {
using namespace defaultTypes;
#define ZRUI_REAL_TYPE(name) using PFN_##name = ::PFN_##name;
ZRUI_CALLED_ENTRY_POINT_TYPES(ZRUI_REAL_TYPE)
#undef ZRUI_REAL_TYPE
} // namespace entryTypes

void *hSOModule = nullptr;

} // namespace

// One global pointer per entry point, named like the entry point.
#define ZRUI_DEFINE_POINTER(name) entryTypes::PFN_##name name = nullptr;
ZRUI_AUX_ENTRY_POINTS(ZRUI_DEFINE_POINTER)
#undef ZRUI_DEFINE_POINTER

// Set by the UI service from AuxLoadKestrovaIni(0); the record belongs to libaux.so.
void *g_ZRConfig = nullptr;

int LoadLib_Aux(long, char *dir)
{
#define ZRUI_ENTRY(name) {#name, &name},
    static const TokenLibEntry entries[] = {ZRUI_AUX_ENTRY_POINTS(ZRUI_ENTRY)};
#undef ZRUI_ENTRY
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
