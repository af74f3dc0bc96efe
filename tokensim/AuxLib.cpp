// libaux.so: the stand-in auxiliary library. Its one real entry point hands
// out the shared configuration record with the PIN length bounds.

#include "zrtoken.h"
#include "SimConfig.h"

#include <mutex>
#include <string.h>

namespace {

std::mutex g_lock;
// Owned by the library for its whole life, like the real record; the UI
// server keeps the pointer and reads it long after the call.
alignas(8) unsigned char g_record[ZRSIM_CONFIG_RECORD_SIZE];

} // namespace

extern "C" {

void *AuxLoadKestrovaIni(long reserved)
{
    (void)reserved;
    zrsim::Config cfg;
    zrsim::readConfig(&cfg);
    if (cfg.auxFail)
        return nullptr;
    std::lock_guard<std::mutex> guard(g_lock);
    // Only the fields change, never the whole record: a program may read it
    // from another thread while a second call refreshes the bounds.
    static const char tag[] = "tokensim";
    memcpy(g_record, tag, sizeof tag);
    const int32_t min = cfg.pinMin;
    const int32_t max = cfg.pinMax;
    memcpy(g_record + ZRSIM_CONFIG_PIN_MIN_OFFSET, &min, sizeof min);
    memcpy(g_record + ZRSIM_CONFIG_PIN_MAX_OFFSET, &max, sizeof max);
    return g_record;
}

ZRSIM_NOT_IMPLEMENTED(AuxWriteLog)
ZRSIM_NOT_IMPLEMENTED(AuxRegUserCert)
ZRSIM_NOT_IMPLEMENTED(AuxUnRegUserCert)
ZRSIM_NOT_IMPLEMENTED(AuxGenContainerName)
ZRSIM_NOT_IMPLEMENTED(AuxExpMatch)

} // extern "C"
