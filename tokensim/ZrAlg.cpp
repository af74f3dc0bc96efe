// libzralg.so: the stand-in algorithm library. Only the byte reversal and
// the RSA verification the UI server needs are real; the verification is
// done by OpenSSL.

#include "zrtoken.h"
#include "SimConfig.h"

#include <openssl/bn.h>
#include <openssl/core_names.h>
#include <openssl/evp.h>
#include <openssl/param_build.h>
#include <openssl/rsa.h>

#include <stdlib.h>
#include <string.h>

namespace {

// Builds an RSA public key from the blob layout documented in zrtoken.h;
// null when the blob is malformed.
EVP_PKEY *keyFromBlob(const unsigned char *blob, unsigned long blobLen)
{
    if (!blob || blobLen < 7)
        return nullptr;
    const unsigned long bits = static_cast<unsigned long>(blob[0])
                               | static_cast<unsigned long>(blob[1]) << 8
                               | static_cast<unsigned long>(blob[2]) << 16
                               | static_cast<unsigned long>(blob[3]) << 24;
    if (bits < 1024 || bits > 8192 || bits % 8 != 0)
        return nullptr;
    const unsigned long modLen = bits / 8;
    if (blobLen != 4 + modLen + 3)
        return nullptr;

    BIGNUM *n = BN_bin2bn(blob + 4, static_cast<int>(modLen), nullptr);
    BIGNUM *e = BN_bin2bn(blob + 4 + modLen, 3, nullptr);
    OSSL_PARAM_BLD *bld = OSSL_PARAM_BLD_new();
    OSSL_PARAM *params = nullptr;
    EVP_PKEY_CTX *ctx = nullptr;
    EVP_PKEY *key = nullptr;
    if (n && e && bld && !BN_is_zero(e) && OSSL_PARAM_BLD_push_BN(bld, OSSL_PKEY_PARAM_RSA_N, n)
        && OSSL_PARAM_BLD_push_BN(bld, OSSL_PKEY_PARAM_RSA_E, e)
        && (params = OSSL_PARAM_BLD_to_param(bld)) != nullptr
        && (ctx = EVP_PKEY_CTX_new_from_name(nullptr, "RSA", nullptr)) != nullptr
        && EVP_PKEY_fromdata_init(ctx) == 1) {
        if (EVP_PKEY_fromdata(ctx, &key, EVP_PKEY_PUBLIC_KEY, params) != 1)
            key = nullptr;
    }
    EVP_PKEY_CTX_free(ctx);
    OSSL_PARAM_free(params);
    OSSL_PARAM_BLD_free(bld);
    BN_free(e);
    BN_free(n);
    return key;
}

} // namespace

extern "C" {

unsigned long ZRA_ReverseData(unsigned char *in, unsigned long inLen, unsigned char *out,
                              unsigned long outLen)
{
    if (!in || !out || outLen < inLen)
        return ZRSIM_INVALID_PARAM;
    if (inLen == 0)
        return ZRSIM_OK;
    if (in == out) {
        for (unsigned long i = 0, j = inLen - 1; i < j; ++i, --j) {
            const unsigned char t = in[i];
            in[i] = in[j];
            in[j] = t;
        }
        return ZRSIM_OK;
    }
    const bool overlap = in < out + inLen && out < in + inLen;
    unsigned char *src = in;
    if (overlap) {
        src = static_cast<unsigned char *>(malloc(inLen));
        if (!src)
            return ZRSIM_NO_RESOURCE;
        memcpy(src, in, inLen);
    }
    for (unsigned long i = 0; i < inLen; ++i)
        out[i] = src[inLen - 1 - i];
    if (overlap)
        free(src);
    return ZRSIM_OK;
}

unsigned long ZRA_RSA_Verify_ZRKey(unsigned char *pubKey, unsigned long pubKeyLen,
                                   unsigned long hashAlg, unsigned char *data,
                                   unsigned long dataLen, unsigned long flag,
                                   unsigned char *signature, unsigned long signatureLen)
{
    if (hashAlg != ZRSIM_HASH_SHA256 || flag != ZRSIM_PADDING_PKCS1 || !signature
        || (!data && dataLen != 0))
        return 0;
    EVP_PKEY *key = keyFromBlob(pubKey, pubKeyLen);
    if (!key)
        return 0;
    unsigned long valid = 0;
    if (signatureLen == static_cast<unsigned long>(EVP_PKEY_get_size(key))) {
        EVP_MD_CTX *md = EVP_MD_CTX_new();
        EVP_PKEY_CTX *pctx = nullptr;
        static const unsigned char empty = 0;
        if (md && EVP_DigestVerifyInit(md, &pctx, EVP_sha256(), nullptr, key) == 1
            && EVP_PKEY_CTX_set_rsa_padding(pctx, RSA_PKCS1_PADDING) == 1
            && EVP_DigestVerify(md, signature, signatureLen, data ? data : &empty, dataLen) == 1)
            valid = 1;
        EVP_MD_CTX_free(md);
    }
    EVP_PKEY_free(key);
    return valid;
}

ZRSIM_NOT_IMPLEMENTED(ZRA_Base64_Encode)
ZRSIM_NOT_IMPLEMENTED(ZRA_Base64_Decode)
ZRSIM_NOT_IMPLEMENTED(ZRA_Hash)
ZRSIM_NOT_IMPLEMENTED(ZRA_Hash_Init)
ZRSIM_NOT_IMPLEMENTED(ZRA_Hash_Update)
ZRSIM_NOT_IMPLEMENTED(ZRA_Hash_Final)
ZRSIM_NOT_IMPLEMENTED(ZRA_SM3ZA)
ZRSIM_NOT_IMPLEMENTED(ZRA_Encrypt)
ZRSIM_NOT_IMPLEMENTED(ZRA_Decrypt)
ZRSIM_NOT_IMPLEMENTED(ZRA_StreamEncrypt_Init)
ZRSIM_NOT_IMPLEMENTED(ZRA_StreamEncrypt_Update)
ZRSIM_NOT_IMPLEMENTED(ZRA_StreamEncrypt_Final)
ZRSIM_NOT_IMPLEMENTED(ZRA_CMAC)
ZRSIM_NOT_IMPLEMENTED(ZRA_RSA_PubKey_Encrypt_ZRKey)
ZRSIM_NOT_IMPLEMENTED(ZRA_RSA_PubKey_Encrypt_RSAEuro)
ZRSIM_NOT_IMPLEMENTED(ZRA_RSA_PriKey_Decrypt_RSAEuro)
ZRSIM_NOT_IMPLEMENTED(ZRA_RSA_Verify_RSAEuro)
ZRSIM_NOT_IMPLEMENTED(ZRA_RSA_Sign_PKCS1Padding)
ZRSIM_NOT_IMPLEMENTED(ZRA_RSA_GenKey)
ZRSIM_NOT_IMPLEMENTED(ZRA_SM2_VerifySignature)
ZRSIM_NOT_IMPLEMENTED(ZRA_SM2_Sign)
ZRSIM_NOT_IMPLEMENTED(ZRA_SM2_Encrypt)
ZRSIM_NOT_IMPLEMENTED(ZRA_SM2_Decrypt)
ZRSIM_NOT_IMPLEMENTED(ZRA_ReverseMemCopy)
ZRSIM_NOT_IMPLEMENTED(ZRA_DesMAC)
ZRSIM_NOT_IMPLEMENTED(ZRA_SM4MAC)
ZRSIM_NOT_IMPLEMENTED(ZRA_Random)
ZRSIM_NOT_IMPLEMENTED(ZRA_GetHashValueSize)
ZRSIM_NOT_IMPLEMENTED(ZRA_GetSymmBlockSize)
ZRSIM_NOT_IMPLEMENTED(ZRA_GetSymmKeySize)
ZRSIM_NOT_IMPLEMENTED(ZRA_GetAsymKeyBits)
#if !defined(ZRSIM_WITHOUT_DECODE_X509)
// Left out of the start-up test variant: the UI server binds it last and
// never calls it, so its absence must still fail the start.
ZRSIM_NOT_IMPLEMENTED(ZRA_DecodeX509Cert)
#endif

} // extern "C"
