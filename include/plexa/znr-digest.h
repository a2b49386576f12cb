#ifndef PLEXA_ZNR_DIGEST_H
#define PLEXA_ZNR_DIGEST_H

#include <plexa/znr-export.h>

#include <cstdint>

class ZNRByteBuffer;
class ZNRString;

// An incremental message digest: Update in pieces, then Final once; Reset
// starts a new message. Update or Final after Final without a Reset give
// library error 11. One object belongs to one thread at a time.
class ZNR_API ZNRDigest {
public:
    ZNRDigest(ZNRDigest const&) = delete;
    ZNRDigest& operator=(ZNRDigest const&) = delete;
    virtual ~ZNRDigest();

    // Bytes of the digest: 16 for MD5, 20 for SHA-1.
    unsigned int GetSize() const;
    std::uint64_t Update(void const* data, unsigned int size);
    // Writes GetSize() bytes to digest.
    std::uint64_t Final(unsigned char* digest);
    // The digest as lower-case hexadecimal text.
    std::uint64_t FinalHex(ZNRString* hex);
    std::uint64_t Reset();

protected:
    enum Algorithm_t { ALGORITHM_MD5, ALGORITHM_SHA1 };
    explicit ZNRDigest(Algorithm_t algorithm);

private:
    Algorithm_t algorithm_;
    void* ctx_;            // EVP_MD_CTX
    std::uint64_t state_;  // 0 while a message is open, else the error to give
};

class ZNR_API ZNRMd5 : public ZNRDigest {
public:
    enum { DIGEST_SIZE = 16 };
    ZNRMd5() : ZNRDigest(ALGORITHM_MD5) {}
};

class ZNR_API ZNRSha1 : public ZNRDigest {
public:
    enum { DIGEST_SIZE = 20 };
    ZNRSha1() : ZNRDigest(ALGORITHM_SHA1) {}
};

// Base64 of RFC 4648 (standard alphabet, "=" padding, no line breaks).
// Stateless: safe from any thread.
class ZNR_API ZNRBase64 {
public:
    // Replaces *out with the encoding of size bytes.
    static std::uint64_t Encode(void const* data, unsigned int size, ZNRString* out);
    // Replaces the content of *out (growing it as needed) with the decoded
    // bytes. Library error 51, *out untouched, when the text is not Base64:
    // a length that is not a multiple of 4, a character outside the
    // alphabet, or "=" anywhere but in the last one or two places.
    static std::uint64_t Decode(ZNRString const& text, ZNRByteBuffer* out);
};

#endif
