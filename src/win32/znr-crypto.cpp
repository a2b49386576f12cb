#include "znr-crypto.h"

#include <cstring>
#include <new>

#include <windows.h>
#include <bcrypt.h>
#include <wincrypt.h>

struct ZNRHash {
    BCRYPT_HASH_HANDLE handle;
};

namespace {

BCRYPT_ALG_HANDLE OpenProvider(wchar_t const* algorithm) {
    BCRYPT_ALG_HANDLE provider = nullptr;
    if (BCryptOpenAlgorithmProvider(&provider, algorithm, nullptr, 0) < 0) return nullptr;
    return provider;
}

// Opening a provider is dear; each is opened once and kept for the process.
BCRYPT_ALG_HANDLE Provider(ZNRHashKind kind) {
    static BCRYPT_ALG_HANDLE const md5 = OpenProvider(BCRYPT_MD5_ALGORITHM);
    static BCRYPT_ALG_HANDLE const sha1 = OpenProvider(BCRYPT_SHA1_ALGORITHM);
    return kind == ZNR_HASH_MD5 ? md5 : sha1;
}

}  // namespace

ZNRHash* ZNRHashOpen(ZNRHashKind kind) {
    BCRYPT_ALG_HANDLE const provider = Provider(kind);
    if (provider == nullptr) return nullptr;
    ZNRHash* const hash = new (std::nothrow) ZNRHash{nullptr};
    if (hash == nullptr) return nullptr;
    // CNG allocates the hash object itself when given no buffer.
    if (BCryptCreateHash(provider, &hash->handle, nullptr, 0, nullptr, 0, 0) < 0) {
        delete hash;
        return nullptr;
    }
    return hash;
}

bool ZNRHashUpdate(ZNRHash* hash, void const* data, unsigned int size) {
    return BCryptHashData(hash->handle, static_cast<PUCHAR>(const_cast<void*>(data)), size, 0) >= 0;
}

// CNG refuses an output size other than the digest's own.
bool ZNRHashFinal(ZNRHash* hash, unsigned char* out, unsigned int size) {
    return BCryptFinishHash(hash->handle, out, size, 0) >= 0;
}

void ZNRHashClose(ZNRHash* hash) {
    if (hash == nullptr) return;
    BCryptDestroyHash(hash->handle);
    delete hash;
}

std::string ZNRBase64Text(void const* data, unsigned int size) {
    DWORD const flags = CRYPT_STRING_BASE64 | CRYPT_STRING_NOCRLF;
    BYTE const* const bytes = static_cast<BYTE const*>(data);
    DWORD n = 0;
    // Empty data is empty text; the system is not asked to encode nothing.
    if (size == 0 || !CryptBinaryToStringA(bytes, size, flags, nullptr, &n)) return std::string();
    std::string text(n, '\0');
    if (!CryptBinaryToStringA(bytes, size, flags, &text[0], &n)) return std::string();
    text.resize(n);
    return text;
}

// The system leaves padding out of its count; it is counted here as zero
// bytes, as callers expect.
int ZNRBase64Bytes(std::string const& text, unsigned char* out) {
    DWORD const room = static_cast<DWORD>(text.size() / 4 * 3);
    DWORD n = room;
    if (text.empty()) return 0;
    if (!CryptStringToBinaryA(text.data(), static_cast<DWORD>(text.size()), CRYPT_STRING_BASE64, out, &n,
                              nullptr, nullptr)) {
        return -1;
    }
    std::memset(out + n, 0, room - n);
    return static_cast<int>(room);
}
