// libzrkapi.so: the stand-in device access library. A "token" is only a
// presence flag in the configuration file; handles are fresh numbers.

#include "zrtoken.h"
#include "SimConfig.h"

#include <mutex>

namespace {

constexpr int kMaxHandles = 64;

struct HandleTable
{
    uint64_t slots[kMaxHandles] = {};

    bool add(uint64_t h)
    {
        for (uint64_t &slot : slots) {
            if (slot == 0) {
                slot = h;
                return true;
            }
        }
        return false;
    }
    bool contains(uint64_t h) const
    {
        if (h == 0)
            return false;
        for (uint64_t slot : slots) {
            if (slot == h)
                return true;
        }
        return false;
    }
    bool remove(uint64_t h)
    {
        if (h == 0)
            return false;
        for (uint64_t &slot : slots) {
            if (slot == h) {
                slot = 0;
                return true;
            }
        }
        return false;
    }
};

std::mutex g_lock;
HandleTable g_contexts;
HandleTable g_devices;
// Contexts and devices draw from one counter, so a device handle is never
// mistaken for a context handle and no handle is ever handed out twice.
uint64_t g_nextHandle = 0x1001;

unsigned long long ull(uint64_t v) { return static_cast<unsigned long long>(v); }

} // namespace

extern "C" {

unsigned long ZRK_EstablishContext(uint64_t *phContext)
{
    zrsim::Config cfg;
    zrsim::readConfig(&cfg);
    unsigned long rc = ZRSIM_OK;
    uint64_t h = 0;
    if (!phContext) {
        rc = ZRSIM_INVALID_PARAM;
    } else {
        std::lock_guard<std::mutex> guard(g_lock);
        h = g_nextHandle++;
        if (g_contexts.add(h))
            *phContext = h;
        else {
            rc = ZRSIM_NO_RESOURCE;
            h = 0;
            *phContext = 0;
        }
    }
    zrsim::journal(cfg, "EstablishContext rc=%lu ctx=%llu", rc, ull(h));
    return rc;
}

unsigned long ZRK_ReleaseContext(uint64_t hContext)
{
    zrsim::Config cfg;
    zrsim::readConfig(&cfg);
    unsigned long rc;
    {
        std::lock_guard<std::mutex> guard(g_lock);
        rc = g_contexts.remove(hContext) ? ZRSIM_OK : ZRSIM_INVALID_HANDLE;
    }
    zrsim::journal(cfg, "ReleaseContext ctx=%llu rc=%lu", ull(hContext), rc);
    return rc;
}

unsigned long ZRK_Connect(uint64_t hContext, uint64_t devRef, uint64_t *phDev, unsigned long flags)
{
    (void)flags;
    zrsim::Config cfg;
    zrsim::readConfig(&cfg);
    unsigned long rc = ZRSIM_OK;
    uint64_t h = 0;
    if (!phDev) {
        rc = ZRSIM_INVALID_PARAM;
    } else {
        std::lock_guard<std::mutex> guard(g_lock);
        if (!g_contexts.contains(hContext))
            rc = ZRSIM_INVALID_HANDLE;
        else if (!cfg.present)
            rc = ZRSIM_DEVICE_ABSENT;
        else {
            h = g_nextHandle++;
            if (!g_devices.add(h)) {
                rc = ZRSIM_NO_RESOURCE;
                h = 0;
            }
        }
        *phDev = h;
    }
    zrsim::journal(cfg, "Connect ctx=%llu ref=0x%016llx rc=%lu dev=%llu", ull(hContext),
                   ull(devRef), rc, ull(h));
    return rc;
}

unsigned long ZRK_Disconnect(uint64_t hDev)
{
    zrsim::Config cfg;
    zrsim::readConfig(&cfg);
    unsigned long rc;
    {
        std::lock_guard<std::mutex> guard(g_lock);
        rc = g_devices.remove(hDev) ? ZRSIM_OK : ZRSIM_INVALID_HANDLE;
    }
    zrsim::journal(cfg, "Disconnect dev=%llu rc=%lu", ull(hDev), rc);
    return rc;
}

unsigned long ZRK_IsDevPresent(uint64_t hDev)
{
    // Read afresh at every call: flipping "present" in the file takes effect
    // at the next request of a running program.
    zrsim::Config cfg;
    zrsim::readConfig(&cfg);
    unsigned long rc;
    {
        std::lock_guard<std::mutex> guard(g_lock);
        if (!g_devices.contains(hDev))
            rc = ZRSIM_INVALID_HANDLE;
        else
            rc = cfg.present ? 0 : 1;
    }
    zrsim::journal(cfg, "IsDevPresent dev=%llu rc=%lu", ull(hDev), rc);
    return rc;
}

ZRSIM_NOT_IMPLEMENTED(ZRK_GetDevList)
ZRSIM_NOT_IMPLEMENTED(ZRK_GetDevDescr)
ZRSIM_NOT_IMPLEMENTED(ZRK_WaitForDevEvent)
ZRSIM_NOT_IMPLEMENTED(ZRK_CancelWaitForDevEvent)
ZRSIM_NOT_IMPLEMENTED(ZRK_BeginTransaction)
ZRSIM_NOT_IMPLEMENTED(ZRK_EndTransaction)
ZRSIM_NOT_IMPLEMENTED(ZRK_TransmitAPDU)
ZRSIM_NOT_IMPLEMENTED(ZRK_TransmitAPDUwithRetryMech)
ZRSIM_NOT_IMPLEMENTED(ZRK_SetCurrentADF)
ZRSIM_NOT_IMPLEMENTED(ZRK_GetCurrentADF)
ZRSIM_NOT_IMPLEMENTED(ZRK_ClearADFPinCache)
ZRSIM_NOT_IMPLEMENTED(ZRK_ClearADFDataCache)
ZRSIM_NOT_IMPLEMENTED(ZRK_ClearAllDataCache)
ZRSIM_NOT_IMPLEMENTED(ZRK_GetDataCache)
ZRSIM_NOT_IMPLEMENTED(ZRK_SetDataCache)
ZRSIM_NOT_IMPLEMENTED(ZRK_DelDataCache)
ZRSIM_NOT_IMPLEMENTED(ZRK_LineProtectSearchLineID)
ZRSIM_NOT_IMPLEMENTED(ZRK_LineProtectRegisterLineID)
ZRSIM_NOT_IMPLEMENTED(ZRK_LineProtectReleaseLineID)
ZRSIM_NOT_IMPLEMENTED(ZRK_GetPINCache)
ZRSIM_NOT_IMPLEMENTED(ZRK_SetPINCache)

} // extern "C"
