#ifndef PLEXA_ZNR_DIGEST_H
#define PLEXA_ZNR_DIGEST_H

#include <plexa/znr-export.h>

#include <cstdint>

class ZNRByteBuffer;
class ZNRString;

/// An incremental message digest: Update in pieces, then Final once; Reset
/// starts a new message. Update or Final after Final without a Reset give
/// library error 11 (as does any call after OpenSSL failed). One object
/// belongs to one thread at a time.
class ZNR_API ZNRDigest {
public:
    ZNRDigest(ZNRDigest const&) = delete;
    ZNRDigest& operator=(ZNRDigest const&) = delete;
    /// Frees the OpenSSL context.
    virtual ~ZNRDigest();

    /// Bytes of the digest: 16 for MD5, 20 for SHA-1.
    unsigned int GetSize() const;
    /// Adds size bytes from data to the message; error 11 after Final().
    std::uint64_t Update(void const* data, unsigned int size);
    /// Writes GetSize() bytes to digest and closes the message; error 11
    /// when it is already closed.
    std::uint64_t Final(unsigned char* digest);
    /// The digest as lower-case hexadecimal text into *hex; as Final().
    std::uint64_t FinalHex(ZNRString* hex);
    /// Starts a new message; error 11 when OpenSSL cannot.
    std::uint64_t Reset();

protected:
    /// The digests a subclass may choose.
    enum Algorithm_t { ALGORITHM_MD5, ALGORITHM_SHA1 };
    /** @var ZNRDigest::ALGORITHM_MD5
     *  MD5, 16 bytes.
     *  @var ZNRDigest::ALGORITHM_SHA1
     *  SHA-1, 20 bytes. */
    /// A digest with an open message.
    explicit ZNRDigest(Algorithm_t algorithm);

private:
    Algorithm_t algorithm_;
    void* ctx_;            // the system's hash of the open message
    std::uint64_t state_;  // 0 while a message is open, else the error to give
};

/// MD5 digest; see ZNRDigest.
class ZNR_API ZNRMd5 : public ZNRDigest {
public:
    /// Bytes of an MD5 digest.
    enum { DIGEST_SIZE = 16 };
    /// A new message open.
    ZNRMd5() : ZNRDigest(ALGORITHM_MD5) {}
};

/// SHA-1 digest; see ZNRDigest.
class ZNR_API ZNRSha1 : public ZNRDigest {
public:
    /// Bytes of a SHA-1 digest.
    enum { DIGEST_SIZE = 20 };
    /// A new message open.
    ZNRSha1() : ZNRDigest(ALGORITHM_SHA1) {}
};

/// Base64 of RFC 4648 (standard alphabet, "=" padding, no line breaks).
/// Stateless: safe from any thread.
class ZNR_API ZNRBase64 {
public:
    /// Replaces *out with the encoding of size bytes; library error 49 (too
    /// large) above about 1.5 GiB.
    static std::uint64_t Encode(void const* data, unsigned int size, ZNRString* out);
    /// Replaces the content of *out (growing it as needed) with the decoded
    /// bytes. Library error 51, *out untouched, when the text is not Base64:
    /// a length that is not a multiple of 4, a character outside the
    /// alphabet, or "=" anywhere but in the last one or two places. Library
    /// error 49 or 50 when *out cannot grow.
    static std::uint64_t Decode(ZNRString const& text, ZNRByteBuffer* out);
};

#endif
