#include <plexa/znr-digest.h>

#include <plexa/znr-byte-buffer.h>
#include <plexa/znr-error.h>
#include <plexa/znr-string.h>

#include <openssl/evp.h>

#include <climits>
#include <string>

namespace {

EVP_MD_CTX* Ctx(void* p) { return static_cast<EVP_MD_CTX*>(p); }

int Base64Value(unsigned short c) {
    if (c >= 'A' && c <= 'Z') return c - 'A';
    if (c >= 'a' && c <= 'z') return c - 'a' + 26;
    if (c >= '0' && c <= '9') return c - '0' + 52;
    if (c == '+') return 62;
    if (c == '/') return 63;
    return -1;
}

// EVP_DecodeBlock skips blanks and does not look at the padding, so the
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
    : algorithm_(algorithm), ctx_(EVP_MD_CTX_new()), state_(ZNR_ERROR_NOT_READY) {
    Reset();
}

ZNRDigest::~ZNRDigest() { EVP_MD_CTX_free(Ctx(ctx_)); }

unsigned int ZNRDigest::GetSize() const {
    return algorithm_ == ALGORITHM_MD5 ? static_cast<unsigned int>(ZNRMd5::DIGEST_SIZE)
                                       : static_cast<unsigned int>(ZNRSha1::DIGEST_SIZE);
}

std::uint64_t ZNRDigest::Reset() {
    EVP_MD const* const md = algorithm_ == ALGORITHM_MD5 ? EVP_md5() : EVP_sha1();
    bool const ok = ctx_ != nullptr && EVP_DigestInit_ex(Ctx(ctx_), md, nullptr) == 1;
    state_ = ok ? 0 : ZNR_ERROR_NOT_READY;
    return state_;
}

std::uint64_t ZNRDigest::Update(void const* data, unsigned int size) {
    if (state_ != 0) return state_;
    if (size == 0) return 0;
    if (EVP_DigestUpdate(Ctx(ctx_), data, size) != 1) state_ = ZNR_ERROR_NOT_READY;
    return state_;
}

std::uint64_t ZNRDigest::Final(unsigned char* digest) {
    if (state_ != 0) return state_;
    unsigned char out[EVP_MAX_MD_SIZE];
    unsigned int n = 0;
    bool const ok = EVP_DigestFinal_ex(Ctx(ctx_), out, &n) == 1 && n == GetSize();
    // The context is spent either way; only Reset opens a new message.
    state_ = ZNR_ERROR_NOT_READY;
    if (!ok) return ZNR_ERROR_NOT_READY;
    for (unsigned int i = 0; i < n; ++i) digest[i] = out[i];
    return 0;
}

std::uint64_t ZNRDigest::FinalHex(ZNRString* hex) {
    static char const kDigits[] = "0123456789abcdef";
    unsigned char out[EVP_MAX_MD_SIZE];
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
    std::string text(4 * ((size + 2) / 3) + 1, '\0');
    int const n = EVP_EncodeBlock(reinterpret_cast<unsigned char*>(&text[0]),
                                  static_cast<unsigned char const*>(data), static_cast<int>(size));
    text.resize(static_cast<std::size_t>(n));
    *out = ZNRString(text);
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
    int const n = EVP_DecodeBlock(out->GetData(), reinterpret_cast<unsigned char const*>(ascii.data()),
                                  static_cast<int>(ascii.size()));
    if (n < 0) return ZNR_ERROR_BAD_BASE64;
    out->ResetDataCount(static_cast<unsigned int>(n - pad));
    return 0;
}
