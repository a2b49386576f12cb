#ifndef PLEXA_SRC_ZNR_CRYPTO_H
#define PLEXA_SRC_ZNR_CRYPTO_H

#include <string>

// The system's digests and Base64 (libcrypto on Linux), so that portable
// code never names the library that provides them.

enum ZNRHashKind { ZNR_HASH_MD5, ZNR_HASH_SHA1 };

struct ZNRHash;

// A new message; null when the system cannot start one.
ZNRHash* ZNRHashOpen(ZNRHashKind kind);
bool ZNRHashUpdate(ZNRHash* hash, void const* data, unsigned int size);
// Exactly size bytes of digest into out; the message is spent either way.
bool ZNRHashFinal(ZNRHash* hash, unsigned char* out, unsigned int size);
void ZNRHashClose(ZNRHash* hash);

// Base64 of data in one line, with padding.
std::string ZNRBase64Text(void const* data, unsigned int size);
// The bytes of well-formed Base64 text (checked by the caller), padding
// bytes included, into out (room for text.size() / 4 * 3); -1 on failure.
int ZNRBase64Bytes(std::string const& text, unsigned char* out);

#endif
