#include <plexa/znr-digest.h>

#include <plexa/znr-byte-buffer.h>
#include <plexa/znr-error.h>
#include <plexa/znr-string.h>

#include "znr-crypto.h"

#include <climits>
#include <string>

namespace {

ZNRHash* Hash(void* p) { return static_cast<ZNRHash*>(p); }

int Base64Value(unsigned short c) {
    if (c >= 'A' && c <= 'Z') return c - 'A';
    if (c >= 'a' && c <= 'z') return c - 'a' + 26;
    if (c >= '0' && c <= '9') return c - '0' + 52;
    if (c == '+') return 62;
    if (c == '/') return 63;
    return -1;
}

// The system's decoder may skip blanks and ignore the padding, so the
// text is checked here first. Gives the number of "=" at the end, or -1.
// Non-zero bits under the padding are refused too: each byte string has
// exactly one encoding.
int CheckBase64(ZNRString const& text) {
    unsigned int const n = text.size();
    if (n % 4 != 0) return -1;
    if (n == 0) return 0;
    int pad = 0;
    if (text[n - 1] == '=') pad = text[n - 2] == '=' ? 2 : 1;
    for (unsigned int i = 0; i < n - pad; ++i) {
        if (Base64Value(text[i]) < 0) return -1;
    }
    int const last = Base64Value(text[n - 1 - pad]);
    if (pad == 2 && (last & 0x0F) != 0) return -1;
    if (pad == 1 && (last & 0x03) != 0) return -1;
    return pad;
}

}  // namespace

ZNRDigest::ZNRDigest(Algorithm_t algorithm)
    : algorithm_(algorithm), ctx_(nullptr), state_(ZNR_ERROR_NOT_READY) {
    Reset();
}

ZNRDigest::~ZNRDigest() {
    if (ctx_ != nullptr) ZNRHashClose(Hash(ctx_));
}

unsigned int ZNRDigest::GetSize() const {
    return algorithm_ == ALGORITHM_MD5 ? static_cast<unsigned int>(ZNRMd5::DIGEST_SIZE)
                                       : static_cast<unsigned int>(ZNRSha1::DIGEST_SIZE);
}

std::uint64_t ZNRDigest::Reset() {
    if (ctx_ != nullptr) ZNRHashClose(Hash(ctx_));
    ctx_ = ZNRHashOpen(algorithm_ == ALGORITHM_MD5 ? ZNR_HASH_MD5 : ZNR_HASH_SHA1);
    state_ = ctx_ != nullptr ? 0 : ZNR_ERROR_NOT_READY;
    return state_;
}

std::uint64_t ZNRDigest::Update(void const* data, unsigned int size) {
    if (state_ != 0) return state_;
    if (size == 0) return 0;
    if (!ZNRHashUpdate(Hash(ctx_), data, size)) state_ = ZNR_ERROR_NOT_READY;
    return state_;
}

std::uint64_t ZNRDigest::Final(unsigned char* digest) {
    if (state_ != 0) return state_;
    bool const ok = ZNRHashFinal(Hash(ctx_), digest, GetSize());
    // The message is spent either way; only Reset opens a new one.
    state_ = ZNR_ERROR_NOT_READY;
    return ok ? 0 : ZNR_ERROR_NOT_READY;
}

std::uint64_t ZNRDigest::FinalHex(ZNRString* hex) {
    static char const kDigits[] = "0123456789abcdef";
    unsigned char out[ZNRSha1::DIGEST_SIZE];
    std::uint64_t const err = Final(out);
    if (err != 0) return err;
    std::string text;
    for (unsigned int i = 0; i < GetSize(); ++i) {
        text += kDigits[out[i] >> 4];
        text += kDigits[out[i] & 0x0F];
    }
    *hex = ZNRString(text);
    return 0;
}

std::uint64_t ZNRBase64::Encode(void const* data, unsigned int size, ZNRString* out) {
    if (size > INT_MAX / 4 * 3) return ZNR_ERROR_TOO_LARGE;
    *out = ZNRString(ZNRBase64Text(data, size));
    return 0;
}

std::uint64_t ZNRBase64::Decode(ZNRString const& text, ZNRByteBuffer* out) {
    int const pad = CheckBase64(text);
    if (pad < 0) return ZNR_ERROR_BAD_BASE64;
    if (text.size() > INT_MAX) return ZNR_ERROR_TOO_LARGE;
    // Every code unit is ASCII now.
    std::string const ascii(text.begin(), text.end());
    unsigned int const full = text.size() / 4 * 3;
    if (out->GetCapacity() < full) {
        std::uint64_t const err = out->ExtendCapacity(full - out->GetCapacity());
        if (err != 0) return err;
    }
    int const n = ZNRBase64Bytes(ascii, out->GetData());
    if (n < 0) return ZNR_ERROR_BAD_BASE64;
    out->ResetDataCount(static_cast<unsigned int>(n - pad));
    return 0;
}
