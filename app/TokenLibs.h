#pragma once

/*
 * Run-time binding of the token stack's three libraries ("libzrkapi.so",
 * "libzralg.so", "libaux.so") from the SAFEPATH directory.
 *
 * Every entry point gets one global function pointer named exactly like the
 * entry point. Binding is all-or-nothing per library, in the order of the
 * lists below; a missing name stops the binder and the loader reports 0.
 * Only eight entry points are called by this program; they carry their real
 * signatures, the others a generic one.
 */

#include <cstdint>
#include <dlfcn.h>

// How the algorithm library is opened. DEEPBIND: it carries its own crypto
// code and must bind to it, not to a same-named symbol already loaded into
// this process. The sanitizer runtimes abort on RTLD_DEEPBIND, so sanitizer
// builds (ZRUI_SANITIZED, set by the build) go without.
#ifdef ZRUI_SANITIZED
#define ZRUI_ALG_DLOPEN_MODE RTLD_LAZY
#else
#define ZRUI_ALG_DLOPEN_MODE (RTLD_LAZY | RTLD_DEEPBIND)
#endif

// Entry point lists, in binding order. Keep them exactly as they are: the
// order decides which name is reported missing first.
#define ZRUI_ZRKAPI_ENTRY_POINTS(X) \
    X(ZRK_EstablishContext) \
    X(ZRK_ReleaseContext) \
    X(ZRK_GetDevList) \
    X(ZRK_GetDevDescr) \
    X(ZRK_WaitForDevEvent) \
    X(ZRK_CancelWaitForDevEvent) \
    X(ZRK_Connect) \
    X(ZRK_Disconnect) \
    X(ZRK_BeginTransaction) \
    X(ZRK_EndTransaction) \
    X(ZRK_TransmitAPDU) \
    X(ZRK_TransmitAPDUwithRetryMech) \
    X(ZRK_IsDevPresent) \
    X(ZRK_SetCurrentADF) \
    X(ZRK_GetCurrentADF) \
    X(ZRK_ClearADFPinCache) \
    X(ZRK_ClearADFDataCache) \
    X(ZRK_ClearAllDataCache) \
    X(ZRK_GetDataCache) \
    X(ZRK_SetDataCache) \
    X(ZRK_DelDataCache) \
    X(ZRK_LineProtectSearchLineID) \
    X(ZRK_LineProtectRegisterLineID) \
    X(ZRK_LineProtectReleaseLineID) \
    X(ZRK_GetPINCache) \
    X(ZRK_SetPINCache)

#define ZRUI_ZRALG_ENTRY_POINTS(X) \
    X(ZRA_Base64_Encode) \
    X(ZRA_Base64_Decode) \
    X(ZRA_Hash) \
    X(ZRA_Hash_Init) \
    X(ZRA_Hash_Update) \
    X(ZRA_Hash_Final) \
    X(ZRA_SM3ZA) \
    X(ZRA_Encrypt) \
    X(ZRA_Decrypt) \
    X(ZRA_StreamEncrypt_Init) \
    X(ZRA_StreamEncrypt_Update) \
    X(ZRA_StreamEncrypt_Final) \
    X(ZRA_CMAC) \
    X(ZRA_RSA_PubKey_Encrypt_ZRKey) \
    X(ZRA_RSA_PubKey_Encrypt_RSAEuro) \
    X(ZRA_RSA_PriKey_Decrypt_RSAEuro) \
    X(ZRA_RSA_Verify_ZRKey) \
    X(ZRA_RSA_Verify_RSAEuro) \
    X(ZRA_RSA_Sign_PKCS1Padding) \
    X(ZRA_RSA_GenKey) \
    X(ZRA_SM2_VerifySignature) \
    X(ZRA_SM2_Sign) \
    X(ZRA_SM2_Encrypt) \
    X(ZRA_SM2_Decrypt) \
    X(ZRA_ReverseMemCopy) \
    X(ZRA_ReverseData) \
    X(ZRA_DesMAC) \
    X(ZRA_SM4MAC) \
    X(ZRA_Random) \
    X(ZRA_GetHashValueSize) \
    X(ZRA_GetSymmBlockSize) \
    X(ZRA_GetSymmKeySize) \
    X(ZRA_GetAsymKeyBits) \
    X(ZRA_DecodeX509Cert)

#define ZRUI_AUX_ENTRY_POINTS(X) \
    X(AuxLoadKestrovaIni) \
    X(AuxWriteLog) \
    X(AuxRegUserCert) \
    X(AuxUnRegUserCert) \
    X(AuxGenContainerName) \
    X(AuxExpMatch)

// Signatures of the entry points this program calls. Handles of the device
// library are 64-bit values; 0 means "none". Device calls return 0 on success.
typedef unsigned long (*PFN_ZRK_EstablishContext)(uint64_t *phContext);
typedef unsigned long (*PFN_ZRK_ReleaseContext)(uint64_t hContext);
typedef unsigned long (*PFN_ZRK_Connect)(uint64_t hContext, uint64_t devRef, uint64_t *phDev,
                                         unsigned long flags);
typedef unsigned long (*PFN_ZRK_Disconnect)(uint64_t hDev);
// 0 while the device is present, non-zero once it is gone.
typedef unsigned long (*PFN_ZRK_IsDevPresent)(uint64_t hDev);
typedef unsigned long (*PFN_ZRA_ReverseData)(unsigned char *in, unsigned long inLen,
                                             unsigned char *out, unsigned long outLen);
typedef unsigned long (*PFN_ZRA_RSA_Verify_ZRKey)(unsigned char *pubKey, unsigned long pubKeyLen,
                                                  unsigned long hashAlg, unsigned char *data,
                                                  unsigned long dataLen, unsigned long flag,
                                                  unsigned char *signature,
                                                  unsigned long signatureLen);
typedef void *(*PFN_AuxLoadKestrovaIni)(long);

// Entry points bound but never called.
typedef long (*PFN_ZR_Unused)();

#define ZRUI_CALLED_ENTRY_POINT_TYPES(X) \
    X(ZRK_EstablishContext) \
    X(ZRK_ReleaseContext) \
    X(ZRK_Connect) \
    X(ZRK_Disconnect) \
    X(ZRK_IsDevPresent) \
    X(ZRA_ReverseData) \
    X(ZRA_RSA_Verify_ZRKey) \
    X(AuxLoadKestrovaIni)

// Defines one global pointer per entry point of LIST (an entry point list
// above): the real signature where this program calls it, PFN_ZR_Unused
// otherwise. Each loader expands it once for its own library.
#define ZRUI_TOKEN_LIB_UNUSED_TYPE(name) using PFN_##name = PFN_ZR_Unused;
#define ZRUI_TOKEN_LIB_CALLED_TYPE(name) using PFN_##name = ::PFN_##name;
#define ZRUI_TOKEN_LIB_POINTER(name) entryTypes::PFN_##name name = nullptr;
#define ZRUI_TOKEN_LIB_ENTRY(name) {#name, &name},
// A direct member of a namespace hides what a using-directive brings in, so
// the called entry points' real types win over the generic ones.
#define ZRUI_DEFINE_ENTRY_POINTS(LIST) \
    namespace { \
    namespace unusedTypes { \
    LIST(ZRUI_TOKEN_LIB_UNUSED_TYPE) \
    } \
    namespace entryTypes { \
    using namespace unusedTypes; \
    ZRUI_CALLED_ENTRY_POINT_TYPES(ZRUI_TOKEN_LIB_CALLED_TYPE) \
    } \
    } \
    LIST(ZRUI_TOKEN_LIB_POINTER)

extern PFN_ZRK_EstablishContext ZRK_EstablishContext;
extern PFN_ZRK_ReleaseContext ZRK_ReleaseContext;
extern PFN_ZRK_Connect ZRK_Connect;
extern PFN_ZRK_Disconnect ZRK_Disconnect;
extern PFN_ZRK_IsDevPresent ZRK_IsDevPresent;
extern PFN_ZRA_ReverseData ZRA_ReverseData;
extern PFN_ZRA_RSA_Verify_ZRKey ZRA_RSA_Verify_ZRKey;
extern PFN_AuxLoadKestrovaIni AuxLoadKestrovaIni;

// One entry point of a library: its name and the address of its pointer.
struct TokenLibEntry
{
    const char *name;
    void *pointer;
};

// Opens dir + fileName with the dlopen mode into *handle and binds entries in
// order; 1 when every name bound, else 0. Shared by the three loaders below.
int bindTokenLib(void **handle, const char *dir, const char *fileName, int mode,
                 const TokenLibEntry *entries, int count);

// Loaders: 1 when the library opened and every entry point bound, else 0.
// The long argument is ignored (callers pass 0); dir must end with "/".
int LoadLib_ZRKAPI(long, char *dir);
int LoadLib_Alg(long, char *dir);
int LoadLib_Aux(long, char *dir);
// Returns the dlclose result, or 0 when nothing was loaded.
int FreeLib_ZRKAPI();
void FreeLib_Alg();
void FreeLib_Aux();

// The token stack's shared configuration record (owned by libaux.so).
extern void *g_ZRConfig;
// Byte offsets of the two fields this program reads from it.
constexpr int ZRCONFIG_PIN_MIN_OFFSET = 260;
constexpr int ZRCONFIG_PIN_MAX_OFFSET = 264;
