#pragma once

/*
 * Public interface of the stand-in token stack: three shared libraries that
 * take the place of the vendor's device, algorithm and auxiliary libraries
 * in development and in the tests.
 *
 *   libzrkapi.so  device access   ZRK_*  (26 entry points)
 *   libzralg.so   algorithms      ZRA_*  (34 entry points)
 *   libaux.so     auxiliary       Aux*   (6 entry points)
 *
 * Each library exports exactly its entry points. Only the eight that the UI
 * server calls do real work; every other entry point takes no arguments it
 * looks at, does nothing and returns ZRSIM_NOT_SUPPORTED.
 *
 * Configuration: the file named by the environment variable ZRTOKENSIM_CONF,
 * else "tokensim.ini" in the directory of the loaded library. A missing file
 * means all defaults. It is read again at every call, so presence and the PIN
 * bounds can be changed while a program runs:
 *
 *   [pin]
 *   min=6            ; record offset 260
 *   max=16           ; record offset 264
 *   [token]
 *   present=1        ; 0: ZRK_Connect fails, ZRK_IsDevPresent returns 1
 *   [aux]
 *   fail=0           ; 1: AuxLoadKestrovaIni returns null
 *   [journal]
 *   path=            ; one line per device call (ZRTOKENSIM_JOURNAL wins)
 *
 * Public key blob taken by ZRA_RSA_Verify_ZRKey (263 bytes for RSA-2048):
 *
 *   offset 0    4 bytes   modulus length in bits, little-endian (00 08 00 00)
 *   offset 4    256 bytes modulus, big-endian
 *   offset 260  3 bytes   public exponent, big-endian (01 00 01)
 *
 * Signatures are big-endian, as OpenSSL produces them. hashAlg 4 selects
 * SHA-256 and flag 1 selects PKCS#1 v1.5 signature padding; nothing else is
 * accepted.
 */

#include <stdint.h>

#define ZRSIM_OK 0x00000000UL
// Returned by every entry point the stand-in does not implement.
#define ZRSIM_NOT_SUPPORTED 0x0A000005UL
// A null pointer or a length that does not fit.
#define ZRSIM_INVALID_PARAM 0x0A000006UL
// A context or device handle that was never handed out or is already closed.
#define ZRSIM_INVALID_HANDLE 0x0A000007UL
// ZRK_Connect while the configuration says the token is absent.
#define ZRSIM_DEVICE_ABSENT 0x0A000008UL
// Every handle slot is in use.
#define ZRSIM_NO_RESOURCE 0x0A000009UL

#define ZRSIM_HASH_SHA256 4UL
#define ZRSIM_PADDING_PKCS1 1UL
#define ZRSIM_PUBKEY_BLOB_LEN 263UL

// Shared configuration record returned by AuxLoadKestrovaIni.
#define ZRSIM_CONFIG_RECORD_SIZE 512
#define ZRSIM_CONFIG_PIN_MIN_OFFSET 260
#define ZRSIM_CONFIG_PIN_MAX_OFFSET 264

#if defined(ZRSIM_BUILDING)
#define ZRSIM_EXPORT __attribute__((visibility("default")))
#else
#define ZRSIM_EXPORT
#endif

#ifdef __cplusplus
extern "C" {
#endif

/* ---- libzrkapi.so ---------------------------------------------------- */

ZRSIM_EXPORT unsigned long ZRK_EstablishContext(uint64_t *phContext);
ZRSIM_EXPORT unsigned long ZRK_ReleaseContext(uint64_t hContext);
ZRSIM_EXPORT long ZRK_GetDevList(void);
ZRSIM_EXPORT long ZRK_GetDevDescr(void);
ZRSIM_EXPORT long ZRK_WaitForDevEvent(void);
ZRSIM_EXPORT long ZRK_CancelWaitForDevEvent(void);
ZRSIM_EXPORT unsigned long ZRK_Connect(uint64_t hContext, uint64_t devRef, uint64_t *phDev,
                                       unsigned long flags);
ZRSIM_EXPORT unsigned long ZRK_Disconnect(uint64_t hDev);
ZRSIM_EXPORT long ZRK_BeginTransaction(void);
ZRSIM_EXPORT long ZRK_EndTransaction(void);
ZRSIM_EXPORT long ZRK_TransmitAPDU(void);
ZRSIM_EXPORT long ZRK_TransmitAPDUwithRetryMech(void);
// 0 while the token is present, 1 once it is gone.
ZRSIM_EXPORT unsigned long ZRK_IsDevPresent(uint64_t hDev);
ZRSIM_EXPORT long ZRK_SetCurrentADF(void);
ZRSIM_EXPORT long ZRK_GetCurrentADF(void);
ZRSIM_EXPORT long ZRK_ClearADFPinCache(void);
ZRSIM_EXPORT long ZRK_ClearADFDataCache(void);
ZRSIM_EXPORT long ZRK_ClearAllDataCache(void);
ZRSIM_EXPORT long ZRK_GetDataCache(void);
ZRSIM_EXPORT long ZRK_SetDataCache(void);
ZRSIM_EXPORT long ZRK_DelDataCache(void);
ZRSIM_EXPORT long ZRK_LineProtectSearchLineID(void);
ZRSIM_EXPORT long ZRK_LineProtectRegisterLineID(void);
ZRSIM_EXPORT long ZRK_LineProtectReleaseLineID(void);
ZRSIM_EXPORT long ZRK_GetPINCache(void);
ZRSIM_EXPORT long ZRK_SetPINCache(void);

/* ---- libzralg.so ----------------------------------------------------- */

ZRSIM_EXPORT long ZRA_Base64_Encode(void);
ZRSIM_EXPORT long ZRA_Base64_Decode(void);
ZRSIM_EXPORT long ZRA_Hash(void);
ZRSIM_EXPORT long ZRA_Hash_Init(void);
ZRSIM_EXPORT long ZRA_Hash_Update(void);
ZRSIM_EXPORT long ZRA_Hash_Final(void);
ZRSIM_EXPORT long ZRA_SM3ZA(void);
ZRSIM_EXPORT long ZRA_Encrypt(void);
ZRSIM_EXPORT long ZRA_Decrypt(void);
ZRSIM_EXPORT long ZRA_StreamEncrypt_Init(void);
ZRSIM_EXPORT long ZRA_StreamEncrypt_Update(void);
ZRSIM_EXPORT long ZRA_StreamEncrypt_Final(void);
ZRSIM_EXPORT long ZRA_CMAC(void);
ZRSIM_EXPORT long ZRA_RSA_PubKey_Encrypt_ZRKey(void);
ZRSIM_EXPORT long ZRA_RSA_PubKey_Encrypt_RSAEuro(void);
ZRSIM_EXPORT long ZRA_RSA_PriKey_Decrypt_RSAEuro(void);
// 1 when the signature verifies, 0 otherwise (also for unsupported
// hashAlg/flag values and malformed keys).
ZRSIM_EXPORT unsigned long ZRA_RSA_Verify_ZRKey(unsigned char *pubKey, unsigned long pubKeyLen,
                                                unsigned long hashAlg, unsigned char *data,
                                                unsigned long dataLen, unsigned long flag,
                                                unsigned char *signature,
                                                unsigned long signatureLen);
ZRSIM_EXPORT long ZRA_RSA_Verify_RSAEuro(void);
ZRSIM_EXPORT long ZRA_RSA_Sign_PKCS1Padding(void);
ZRSIM_EXPORT long ZRA_RSA_GenKey(void);
ZRSIM_EXPORT long ZRA_SM2_VerifySignature(void);
ZRSIM_EXPORT long ZRA_SM2_Sign(void);
ZRSIM_EXPORT long ZRA_SM2_Encrypt(void);
ZRSIM_EXPORT long ZRA_SM2_Decrypt(void);
ZRSIM_EXPORT long ZRA_ReverseMemCopy(void);
// Writes in reversed into out; in == out is allowed. 0 on success.
ZRSIM_EXPORT unsigned long ZRA_ReverseData(unsigned char *in, unsigned long inLen,
                                           unsigned char *out, unsigned long outLen);
ZRSIM_EXPORT long ZRA_DesMAC(void);
ZRSIM_EXPORT long ZRA_SM4MAC(void);
ZRSIM_EXPORT long ZRA_Random(void);
ZRSIM_EXPORT long ZRA_GetHashValueSize(void);
ZRSIM_EXPORT long ZRA_GetSymmBlockSize(void);
ZRSIM_EXPORT long ZRA_GetSymmKeySize(void);
ZRSIM_EXPORT long ZRA_GetAsymKeyBits(void);
#if !defined(ZRSIM_WITHOUT_DECODE_X509)
ZRSIM_EXPORT long ZRA_DecodeX509Cert(void);
#endif

/* ---- libaux.so ------------------------------------------------------- */

// Static record of ZRSIM_CONFIG_RECORD_SIZE bytes owned by the library, or
// null when the configuration says [aux] fail=1.
ZRSIM_EXPORT void *AuxLoadKestrovaIni(long reserved);
ZRSIM_EXPORT long AuxWriteLog(void);
ZRSIM_EXPORT long AuxRegUserCert(void);
ZRSIM_EXPORT long AuxUnRegUserCert(void);
ZRSIM_EXPORT long AuxGenContainerName(void);
ZRSIM_EXPORT long AuxExpMatch(void);

#ifdef __cplusplus
}
#endif
