#include "FileIntegrity.h"
#include "IniReader.h"
#include "TokenLibs.h"

#include "ZruiPublicKey.h"

#include <cstdio>
#include <cstdlib>
#include <cstring>

namespace {

constexpr size_t NAME_SIZE = 256;
constexpr size_t TEXT_SIZE = 2048;
constexpr unsigned long SIGNATURE_BYTES = 256;
constexpr unsigned long SIGNATURE_DIGITS = 512;
constexpr unsigned long PUBLIC_KEY_BYTES = 263;
// One more than the key text holds: the terminator becomes a spare byte.
constexpr unsigned long PUBLIC_KEY_DIGITS = 527;
// Selector values of the algorithm library: SHA-256, PKCS#1 v1.5 padding.
constexpr unsigned long HASH_SHA256 = 4;
constexpr unsigned long PADDING_PKCS1 = 1;

const char SIGNATURE_FILE[] = "integrityprotect.ini";
const char SIGNATURE_SECTION[] = "Kestrova 5.1";
const char EXE_PREFIX[] = "ZRUIServer";
const char EXE_SIGN_KEY[] = "ZRUIServer.exe_Sign";

static_assert(sizeof(ZRUI_PUBLIC_KEY_HEX) - 1 == 2 * PUBLIC_KEY_BYTES,
              "the public key text must hold 526 hex digits");

// dir + name into a zero-filled buffer; false when it does not fit.
bool joinPath(char *out, size_t size, const char *dir, const char *name)
{
    memset(out, 0, size);
    const int n = snprintf(out, size, "%s%s", dir, name);
    return n >= 0 && static_cast<size_t>(n) < size;
}

} // namespace

/**
 * Verifies the file against its signature in "integrityprotect.ini" of the
 * same directory. A file whose name starts with "ZRUIServer" is looked up
 * under "ZRUIServer.exe_Sign", whatever follows the prefix.
 */
int FileIntegrityProtect(char *dir, char *filename)
{
    if (!filename)
        return 0;

    char signKey[NAME_SIZE];
    memset(signKey, 0, sizeof(signKey));
    if (strncmp(filename, EXE_PREFIX, strlen(EXE_PREFIX)) == 0) {
        strcpy(signKey, EXE_SIGN_KEY);
    } else {
        const int n = snprintf(signKey, sizeof(signKey), "%s_Sign", filename);
        if (n < 0 || static_cast<size_t>(n) >= sizeof(signKey))
            return 0;
    }
    return FileVerifySignature(dir, filename, signKey);
}

/**
 * RSA-2048 / SHA-256 / PKCS#1 v1.5 check of dir + filename with the
 * compiled-in public key, done by the token stack's algorithm library. The
 * signature text stores the bytes in the reverse of the order the verifier
 * takes. Every failure (missing file or key, malformed hex, bad signature)
 * is a plain 0; the caller logs.
 */
int FileVerifySignature(char *dir, char *filename, char *signKey)
{
    int result = 0;
    if (!dir || !filename || !signKey)
        return 0;
    // Without the algorithm library nothing can be verified.
    if (!ZRA_ReverseData || !ZRA_RSA_Verify_ZRKey)
        return 0;

    char signFilePath[NAME_SIZE];
    char checkedFilePath[NAME_SIZE];
    if (!joinPath(signFilePath, sizeof(signFilePath), dir, SIGNATURE_FILE)
        || !joinPath(checkedFilePath, sizeof(checkedFilePath), dir, filename))
        return 0;

    unsigned char *data = nullptr;
    unsigned long size = 0;
    if (!ReadFileContent(checkedFilePath, &data, &size))
        return 0;

    char section[sizeof(SIGNATURE_SECTION)];
    memcpy(section, SIGNATURE_SECTION, sizeof(SIGNATURE_SECTION));
    char signText[TEXT_SIZE];
    memset(signText, 0, sizeof(signText));
    // The reader's result is at most 1023 characters: it always fits.
    strncpy(signText, GetIniKeyString(section, signKey, signFilePath), sizeof(signText) - 1);
    unsigned char signature[SIGNATURE_BYTES];
    memset(signature, 0, sizeof(signature));
    StringToBin(signature, reinterpret_cast<unsigned char *>(signText), SIGNATURE_DIGITS);
    ZRA_ReverseData(signature, SIGNATURE_BYTES, signature, SIGNATURE_BYTES);

    char keyText[TEXT_SIZE];
    memset(keyText, 0, sizeof(keyText));
    memcpy(keyText, ZRUI_PUBLIC_KEY_HEX, sizeof(ZRUI_PUBLIC_KEY_HEX) - 1);
    unsigned char keyBlob[(PUBLIC_KEY_DIGITS + 1) / 2];
    memset(keyBlob, 0, sizeof(keyBlob));
    StringToBin(keyBlob, reinterpret_cast<unsigned char *>(keyText), PUBLIC_KEY_DIGITS);

    const unsigned long rc = ZRA_RSA_Verify_ZRKey(keyBlob, PUBLIC_KEY_BYTES, HASH_SHA256, data,
                                                  size, PADDING_PKCS1, signature, SIGNATURE_BYTES);
    if (static_cast<unsigned short>(rc) != 0)
        result = 1;

    free(data);
    return result;
}

/**
 * Hex text to bytes, (digits + 1) / 2 of them: an odd count converts one
 * character more than it names. No validation on purpose: lower case
 * converts like upper case through the nibble masks, and any other
 * character yields some value rather than an error.
 */
unsigned char *StringToBin(unsigned char *out, unsigned char *hex, unsigned long digits)
{
    if (!out || !hex)
        return nullptr;

    auto nibble = [](unsigned char c) -> int { return (c >= '0' && c <= '9') ? c - '0' : c - 55; };
    const unsigned long bytes = (digits + 1) / 2;
    for (unsigned long i = 0; i < bytes; ++i) {
        const unsigned char high = static_cast<unsigned char>((nibble(hex[2 * i]) * 16) & 0xFF);
        const unsigned char low = static_cast<unsigned char>(nibble(hex[2 * i + 1]) & 0x0F);
        out[i] = high | low;
    }
    return out;
}

/**
 * Reads a whole file into a new heap buffer (caller frees). 1 on success;
 * 0 when data is null or the file cannot be opened, measured, allocated or
 * read whole.
 */
int ReadFileContent(char *path, unsigned char **data, unsigned long *size)
{
    if (!data || !path)
        return 0;

    FILE *fp = fopen(path, "rb");
    if (!fp)
        return 0;
    long length = -1;
    if (fseek(fp, 0, SEEK_END) == 0)
        length = ftell(fp);
    if (length < 0 || fseek(fp, 0, SEEK_SET) != 0) {
        fclose(fp);
        return 0;
    }
    // Zero-filled so that a short read never hands out undefined bytes.
    auto *buffer = static_cast<unsigned char *>(calloc(static_cast<size_t>(length) + 1, 1));
    if (!buffer) {
        fclose(fp);
        return 0;
    }
    const size_t got = fread(buffer, 1, static_cast<size_t>(length), fp);
    fclose(fp);
    if (got != static_cast<size_t>(length)) {
        free(buffer);
        return 0;
    }

    *data = buffer;
    if (size)
        *size = static_cast<unsigned long>(length);
    return 1;
}
