#include "znr-crypto.h"

#include <openssl/evp.h>

namespace {

EVP_MD_CTX* Ctx(ZNRHash* hash) { return reinterpret_cast<EVP_MD_CTX*>(hash); }

}  // namespace

ZNRHash* ZNRHashOpen(ZNRHashKind kind) {
    EVP_MD_CTX* const ctx = EVP_MD_CTX_new();
    if (ctx == nullptr) return nullptr;
    if (EVP_DigestInit_ex(ctx, kind == ZNR_HASH_MD5 ? EVP_md5() : EVP_sha1(), nullptr) != 1) {
        EVP_MD_CTX_free(ctx);
        return nullptr;
    }
    return reinterpret_cast<ZNRHash*>(ctx);
}

bool ZNRHashUpdate(ZNRHash* hash, void const* data, unsigned int size) {
    return EVP_DigestUpdate(Ctx(hash), data, size) == 1;
}

bool ZNRHashFinal(ZNRHash* hash, unsigned char* out, unsigned int size) {
    unsigned char digest[EVP_MAX_MD_SIZE];
    unsigned int n = 0;
    if (EVP_DigestFinal_ex(Ctx(hash), digest, &n) != 1 || n != size) return false;
    for (unsigned int i = 0; i < n; ++i) out[i] = digest[i];
    return true;
}

void ZNRHashClose(ZNRHash* hash) { EVP_MD_CTX_free(Ctx(hash)); }

std::string ZNRBase64Text(void const* data, unsigned int size) {
    std::string text(4 * ((static_cast<std::size_t>(size) + 2) / 3) + 1, '\0');
    int const n = EVP_EncodeBlock(reinterpret_cast<unsigned char*>(&text[0]),
                                  static_cast<unsigned char const*>(data), static_cast<int>(size));
    text.resize(n < 0 ? 0 : static_cast<std::size_t>(n));
    return text;
}

int ZNRBase64Bytes(std::string const& text, unsigned char* out) {
    return EVP_DecodeBlock(out, reinterpret_cast<unsigned char const*>(text.data()),
                           static_cast<int>(text.size()));
}
