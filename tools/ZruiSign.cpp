// zrui-sign: the signing tool of the build. Makes the development key,
// prints the public key blob that the program compiles in, and signs files
// into "integrityprotect.ini" in the form the integrity check reads.
//
//   zrui-sign genkey <priv.pem>
//   zrui-sign pubhex <priv-or-pub.pem>
//   zrui-sign sign <priv.pem> <dir> <file>

#include <openssl/bn.h>
#include <openssl/core_names.h>
#include <openssl/err.h>
#include <openssl/evp.h>
#include <openssl/pem.h>
#include <openssl/rsa.h>

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <fcntl.h>
#include <fstream>
#include <iterator>
#include <sstream>
#include <string>
#include <sys/stat.h>
#include <unistd.h>
#include <vector>

namespace {

constexpr int kKeyBits = 2048;
constexpr size_t kModulusBytes = kKeyBits / 8;
constexpr size_t kExponentBytes = 3;
constexpr const char *kSection = "[Kestrova 5.1]";

int fail(const std::string &message)
{
    std::fprintf(stderr, "zrui-sign: %s\n", message.c_str());
    unsigned long e;
    while ((e = ERR_get_error()) != 0) {
        char buf[256];
        ERR_error_string_n(e, buf, sizeof buf);
        std::fprintf(stderr, "zrui-sign:   %s\n", buf);
    }
    return 1;
}

bool readFile(const std::string &path, std::string *out)
{
    std::ifstream in(path, std::ios::binary);
    if (!in)
        return false;
    out->assign(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
    return !in.bad();
}

// Writes through a temporary file and rename, so a reader never sees half a file.
bool writeFileAtomic(const std::string &path, const std::string &content)
{
    const std::string tmp = path + ".tmp";
    {
        std::ofstream out(tmp, std::ios::binary | std::ios::trunc);
        if (!out)
            return false;
        out << content;
        out.flush();
        if (!out)
            return false;
    }
    return std::rename(tmp.c_str(), path.c_str()) == 0;
}

std::string hexUpper(const unsigned char *data, size_t len)
{
    static const char digits[] = "0123456789ABCDEF";
    std::string s;
    s.reserve(len * 2);
    for (size_t i = 0; i < len; ++i) {
        s += digits[data[i] >> 4];
        s += digits[data[i] & 0x0f];
    }
    return s;
}

// Accepts a private key (any PEM form OpenSSL reads) or a public key.
EVP_PKEY *loadKey(const std::string &path, bool needPrivate)
{
    std::string pem;
    if (!readFile(path, &pem))
        return nullptr;
    BIO *bio = BIO_new_mem_buf(pem.data(), static_cast<int>(pem.size()));
    EVP_PKEY *key = PEM_read_bio_PrivateKey(bio, nullptr, nullptr, nullptr);
    if (!key && !needPrivate) {
        ERR_clear_error();
        BIO_free(bio);
        bio = BIO_new_mem_buf(pem.data(), static_cast<int>(pem.size()));
        key = PEM_read_bio_PUBKEY(bio, nullptr, nullptr, nullptr);
    }
    BIO_free(bio);
    if (key && (EVP_PKEY_get_base_id(key) != EVP_PKEY_RSA || EVP_PKEY_get_bits(key) != kKeyBits)) {
        EVP_PKEY_free(key);
        return nullptr;
    }
    return key;
}

// The 263-byte blob the algorithm library takes: bit length (4 bytes,
// little-endian), modulus (256 bytes, big-endian), exponent (3 bytes, big-endian).
bool publicBlob(EVP_PKEY *key, std::vector<unsigned char> *blob)
{
    BIGNUM *n = nullptr;
    BIGNUM *e = nullptr;
    bool ok = EVP_PKEY_get_bn_param(key, OSSL_PKEY_PARAM_RSA_N, &n) == 1
              && EVP_PKEY_get_bn_param(key, OSSL_PKEY_PARAM_RSA_E, &e) == 1
              && BN_num_bytes(n) == static_cast<int>(kModulusBytes)
              && BN_num_bytes(e) <= static_cast<int>(kExponentBytes);
    if (ok) {
        blob->assign(4 + kModulusBytes + kExponentBytes, 0);
        (*blob)[0] = kKeyBits & 0xff;
        (*blob)[1] = (kKeyBits >> 8) & 0xff;
        (*blob)[2] = (kKeyBits >> 16) & 0xff;
        (*blob)[3] = (kKeyBits >> 24) & 0xff;
        ok = BN_bn2binpad(n, blob->data() + 4, kModulusBytes) == static_cast<int>(kModulusBytes)
             && BN_bn2binpad(e, blob->data() + 4 + kModulusBytes, kExponentBytes)
                        == static_cast<int>(kExponentBytes);
    }
    BN_free(n);
    BN_free(e);
    return ok;
}

int cmdGenkey(const std::string &path)
{
    EVP_PKEY *key = EVP_PKEY_Q_keygen(nullptr, nullptr, "RSA", static_cast<size_t>(kKeyBits));
    if (!key)
        return fail("key generation failed");
    // O_EXCL: never overwrite a key that may have signed something already.
    const int fd = open(path.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0600);
    if (fd < 0) {
        EVP_PKEY_free(key);
        return fail("cannot create " + path + ": " + std::strerror(errno)
                    + " (an existing key is never overwritten)");
    }
    FILE *f = fdopen(fd, "w");
    const bool ok = f && PEM_write_PrivateKey(f, key, nullptr, nullptr, 0, nullptr, nullptr) == 1;
    if (f)
        std::fclose(f);
    else
        close(fd);
    EVP_PKEY_free(key);
    if (!ok) {
        unlink(path.c_str());
        return fail("cannot write " + path);
    }
    return 0;
}

int cmdPubhex(const std::string &path)
{
    EVP_PKEY *key = loadKey(path, false);
    if (!key)
        return fail("no RSA-2048 key in " + path);
    std::vector<unsigned char> blob;
    const bool ok = publicBlob(key, &blob);
    EVP_PKEY_free(key);
    if (!ok)
        return fail("the public key of " + path + " does not fit the key blob");
    std::printf("%s\n", hexUpper(blob.data(), blob.size()).c_str());
    return 0;
}

std::string signKeyFor(const std::string &file)
{
    // Kept on purpose: the integrity check looks up every file named
    // "ZRUIServer..." under the executable's historical key.
    if (file.compare(0, 10, "ZRUIServer") == 0)
        return "ZRUIServer.exe_Sign";
    return file + "_Sign";
}

// Replaces the key's line in the section, or adds it; the section comes
// first in a new file. Always LF line ends with a final LF: the program's
// INI reader never looks at a last line without one.
std::string updatedIni(const std::string &old, const std::string &key, const std::string &value)
{
    std::vector<std::string> lines;
    std::istringstream in(old);
    for (std::string line; std::getline(in, line);) {
        if (!line.empty() && line.back() == '\r')
            line.pop_back();
        lines.push_back(line);
    }
    const std::string entry = key + "=" + value;
    const auto section = std::find(lines.begin(), lines.end(), kSection);
    if (section == lines.end()) {
        lines.insert(lines.begin(), {kSection, entry});
    } else {
        auto it = section + 1;
        for (; it != lines.end() && (it->empty() || (*it)[0] != '['); ++it) {
            if (it->compare(0, key.size() + 1, key + "=") == 0)
                break;
        }
        if (it != lines.end() && it->compare(0, key.size() + 1, key + "=") == 0)
            *it = entry;
        else
            lines.insert(it, entry);
    }
    std::string out;
    for (const std::string &line : lines)
        out += line + "\n";
    return out;
}

int cmdSign(const std::string &keyPath, std::string dir, const std::string &file)
{
    if (file.empty() || file.find('/') != std::string::npos)
        return fail("the file must be a plain name inside <dir>: " + file);
    if (!dir.empty() && dir.back() != '/')
        dir += '/';
    std::string data;
    if (!readFile(dir + file, &data))
        return fail("cannot read " + dir + file);
    EVP_PKEY *key = loadKey(keyPath, true);
    if (!key)
        return fail("no RSA-2048 private key in " + keyPath);

    std::vector<unsigned char> sig(kModulusBytes);
    size_t sigLen = sig.size();
    EVP_MD_CTX *md = EVP_MD_CTX_new();
    EVP_PKEY_CTX *pctx = nullptr;
    const bool ok
            = md && EVP_DigestSignInit(md, &pctx, EVP_sha256(), nullptr, key) == 1
              && EVP_PKEY_CTX_set_rsa_padding(pctx, RSA_PKCS1_PADDING) == 1
              && EVP_DigestSign(md, sig.data(), &sigLen,
                                reinterpret_cast<const unsigned char *>(data.data()), data.size())
                         == 1
              && sigLen == kModulusBytes;
    EVP_MD_CTX_free(md);
    EVP_PKEY_free(key);
    if (!ok)
        return fail("signing " + dir + file + " failed");

    // Kept on purpose: the signature file holds the bytes in reverse order;
    // the program reverses them back before it verifies.
    std::reverse(sig.begin(), sig.end());

    const std::string iniPath = dir + "integrityprotect.ini";
    std::string old;
    readFile(iniPath, &old);
    if (!writeFileAtomic(iniPath, updatedIni(old, signKeyFor(file), hexUpper(sig.data(), sigLen))))
        return fail("cannot write " + iniPath);
    return 0;
}

int usage()
{
    std::fprintf(stderr, "usage: zrui-sign genkey <priv.pem>\n"
                         "       zrui-sign pubhex <priv-or-pub.pem>\n"
                         "       zrui-sign sign <priv.pem> <dir> <file>\n");
    return 2;
}

} // namespace

int main(int argc, char **argv)
{
    if (argc < 2)
        return usage();
    const std::string cmd = argv[1];
    if (cmd == "genkey" && argc == 3)
        return cmdGenkey(argv[2]);
    if (cmd == "pubhex" && argc == 3)
        return cmdPubhex(argv[2]);
    if (cmd == "sign" && argc == 5)
        return cmdSign(argv[2], argv[3], argv[4]);
    return usage();
}
