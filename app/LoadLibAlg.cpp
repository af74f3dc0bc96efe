// Run-time binding of the token stack's algorithm library "libzralg.so".
#include "TokenLibs.h"

#include <dlfcn.h>

namespace {

// Every entry point of the list gets the generic pointer type ...
namespace defaultTypes {
#define ZRUI_DEFAULT_TYPE(name) using PFN_##name = PFN_ZR_Unused;
ZRUI_ZRALG_ENTRY_POINTS(ZRUI_DEFAULT_TYPE)
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
ZRUI_ZRALG_ENTRY_POINTS(ZRUI_DEFINE_POINTER)
#undef ZRUI_DEFINE_POINTER

int LoadLib_Alg(long, char *dir)
{
#define ZRUI_ENTRY(name) {#name, &name},
    static const TokenLibEntry entries[] = {ZRUI_ZRALG_ENTRY_POINTS(ZRUI_ENTRY)};
#undef ZRUI_ENTRY
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
