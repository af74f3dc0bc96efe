// The binding routine the three token library loaders share.
#include "TokenLibs.h"

#include <cstring>
#include <dlfcn.h>

static_assert(sizeof(void *) == sizeof(PFN_ZR_Unused),
              "entry points are stored as dlsym gives them");

/**
 * dir is used as given: without a trailing "/" the file name is glued to the
 * last directory name and the open fails (kept on purpose). A null dir leaves
 * the bare file name to the dynamic loader's search rules. Binding stops at
 * the first missing name; the pointers bound before it stay set (the caller
 * quits anyway).
 */
int bindTokenLib(void **handle, const char *dir, const char *fileName, int mode,
                 const TokenLibEntry *entries, int count)
{
    char path[256];
    memset(path, 0, sizeof(path));
    const size_t dirLen = dir ? strlen(dir) : 0;
    const size_t nameSize = strlen(fileName) + 1;
    // Refuse rather than truncate a path that does not fit.
    if (dirLen + nameSize > sizeof(path))
        return 0;
    if (dir)
        memcpy(path, dir, dirLen);
    memcpy(path + dirLen, fileName, nameSize);

    *handle = dlopen(path, mode);
    if (!*handle)
        return 0;
    for (int i = 0; i < count; ++i) {
        void *symbol = dlsym(*handle, entries[i].name);
        if (!symbol)
            return 0;
        // The pointer's own type differs per entry point; copy the address bytes in.
        memcpy(entries[i].pointer, &symbol, sizeof(symbol));
    }
    return 1;
}
