// Run-time binding of the token stack's algorithm library "libzralg.so".
#include "TokenLibs.h"

#include <cstring>
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

/**
 * Binds the entry points in list order. Stops at the first missing name;
 * the pointers bound before it stay set (the caller quits anyway).
 */
static int load_dll_fun()
{
#define ZRUI_BIND(name) \
    name = reinterpret_cast<decltype(name)>(dlsym(hSOModule, #name)); \
    if (!name) \
        return 0;
    ZRUI_ZRALG_ENTRY_POINTS(ZRUI_BIND)
#undef ZRUI_BIND
    return 1;
}

/**
 * Opens dir + "libzralg.so" and binds all its entry points; 1 on success.
 * dir is used as given: without a trailing "/" the file name is glued to the
 * last directory name and the open fails (kept on purpose). A null dir
 * leaves the bare file name to the dynamic loader's search rules.
 */
int LoadLib_Alg(long, char *dir)
{
    static const char fileName[] = "libzralg.so";
    char path[256];
    memset(path, 0, sizeof(path));
    const size_t dirLen = dir ? strlen(dir) : 0;
    // Refuse rather than truncate a path that does not fit.
    if (dirLen + sizeof(fileName) > sizeof(path))
        return 0;
    if (dir)
        memcpy(path, dir, dirLen);
    memcpy(path + dirLen, fileName, sizeof(fileName));

    hSOModule = dlopen(path, ZRUI_ALG_DLOPEN_MODE);
    if (!hSOModule)
        return 0;
    return load_dll_fun();
}

void FreeLib_Alg()
{
    if (!hSOModule)
        return;
    dlclose(hSOModule);
    hSOModule = nullptr;
}
