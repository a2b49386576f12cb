#include <plexa/znr-byte-buffer.h>
#include <plexa/znr-digest.h>
#include <plexa/znr-error.h>
#include <plexa/znr-string.h>

#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>
#include <string>
#include <vector>

namespace {

std::uint64_t const kNotReady = ZNRUserError(11);
std::uint64_t const kBadBase64 = ZNRUserError(51);

std::string Hex(ZNRDigest* d) {
    ZNRString hex;
    EXPECT_EQ(0u, d->FinalHex(&hex));
    return hex.ToStdCStr();
}

std::string Bytes(ZNRByteBuffer const& b) { return std::string(reinterpret_cast<char const*>(b.GetData()), b.GetDataCount()); }

}  // namespace

// RFC 1321 A.5 and RFC 3174 vectors, fed in two pieces split at every offset
// after a Reset that drops a half-fed message; a digest is spent after Final.
TEST(Digest, KnownVectorsSplitAnywhere) {
    ZNRMd5 md5;
    ZNRSha1 sha1;
    struct {
        ZNRDigest* digest;
        std::string message;
        char const* hex;
    } const table[] = {
        {&md5, "", "d41d8cd98f00b204e9800998ecf8427e"},
        {&md5, "abc", "900150983cd24fb0d6963f7d28e17f72"},
        {&md5, "message digest", "f96b697d7cb7938d525a2f31aaf161d0"},
        {&md5, "1234567890123456789012345678901234567890" "1234567890123456789012345678901234567890",
         "57edf4a22be3c955ac49da2e2107b67a"},
        {&sha1, "", "da39a3ee5e6b4b0d3255bfef95601890afd80709"},
        {&sha1, "abc", "a9993e364706816aba3e25717850c26c9cd0d89d"},
        {&sha1, "abcdbcdecdefdefgefghfghighijhijkijkljklmklmnlmnomnopnopq", "84983e441c3bd26ebaae4aa1f95129e5e54670f1"},
    };
    for (auto const& v : table) {
        for (std::size_t cut = 0; cut <= v.message.size(); ++cut) {
            ASSERT_EQ(0u, v.digest->Reset());
            ASSERT_EQ(0u, v.digest->Update("xyz", 3));
            ASSERT_EQ(0u, v.digest->Reset());
            ASSERT_EQ(0u, v.digest->Update(v.message.data(), static_cast<unsigned int>(cut)));
            ASSERT_EQ(0u, v.digest->Update(v.message.data() + cut, static_cast<unsigned int>(v.message.size() - cut)));
            ASSERT_EQ(v.hex, Hex(v.digest)) << v.message << " cut at " << cut;
        }
    }
    unsigned char raw[16];
    ZNRString hex("kept");
    EXPECT_EQ(kNotReady, md5.Update("a", 1));
    EXPECT_EQ(kNotReady, md5.Final(raw));
    EXPECT_EQ(kNotReady, md5.FinalHex(&hex));
    EXPECT_EQ("kept", hex.ToStdCStr());
}

TEST(Digest, MillionAInUnevenPiecesAndRawBytes) {
    ZNRSha1 sha1;
    std::string const chunk(997, 'a');  // not a multiple of the 64-byte block
    for (unsigned int left = 1000000; left > 0;) {
        unsigned int const n = std::min(left, static_cast<unsigned int>(chunk.size()));
        ASSERT_EQ(0u, sha1.Update(chunk.data(), n));
        left -= n;
    }
    unsigned char raw[21];
    raw[20] = 0xEE;
    ASSERT_EQ(0u, sha1.Final(raw));
    unsigned char const want[20] = {0x34, 0xaa, 0x97, 0x3c, 0xd4, 0xc4, 0xda, 0xa4, 0xf6, 0x1e,
                                    0xeb, 0x2b, 0xdb, 0xad, 0x27, 0x31, 0x65, 0x34, 0x01, 0x6f};
    EXPECT_EQ(0, std::memcmp(want, raw, 20));
    EXPECT_EQ(0xEE, raw[20]);  // exactly 20 bytes written
}

// RFC 4648 test vectors both ways, "+" and "/", then every byte value.
TEST(Digest, Base64Vectors) {
    std::string all;
    for (int i = 0; i < 256; ++i) all += static_cast<char>(i);
    struct {
        std::string bytes;
        char const* text;  // null: only the round trip is checked
    } const table[] = {
        {"", ""},          {"f", "Zg=="},         {"fo", "Zm8="},         {"foo", "Zm9v"},
        {"foob", "Zm9vYg=="}, {"fooba", "Zm9vYmE="}, {"foobar", "Zm9vYmFy"},
        {"\xfb\xff\xbf", "+/+/"}, {all, nullptr},
    };
    for (auto const& row : table) {
        ZNRString text;
        ASSERT_EQ(0u, ZNRBase64::Encode(row.bytes.data(), static_cast<unsigned int>(row.bytes.size()), &text));
        if (row.text != nullptr) {
            EXPECT_EQ(row.text, text.ToStdCStr());
        }
        ZNRByteBuffer out(1);
        out.AppendData(reinterpret_cast<unsigned char const*>("!"), 1);  // replaced, not appended
        ASSERT_EQ(0u, ZNRBase64::Decode(row.text != nullptr ? ZNRString(row.text) : text, &out)) << text.ToStdCStr();
        EXPECT_EQ(row.bytes, Bytes(out));
    }
}

TEST(Digest, Base64RefusesBadInput) {
    ZNRString wide("Zm9v");
    wide[1] = 0x016D;  // low byte 'm', still foreign
    std::vector<ZNRString> const bad = {
        "Z", "Zg", "Zg=", "Zm9vY", "Zm9v\n",        // length
        "Zm9\n", "Zm 9", "Zm-_", "Zm9v!A==", wide,  // outside the alphabet
        "Zm=v", "=Zm9", "Z===", "====", "Zg==Zm9v", // "=" out of place
        "Zh==", "Zm9=",                             // bits set under the padding
    };
    for (ZNRString const& text : bad) {
        ZNRByteBuffer out(4);
        out.AppendData(reinterpret_cast<unsigned char const*>("keep"), 4);
        EXPECT_EQ(kBadBase64, ZNRBase64::Decode(text, &out)) << text.ToStdCStr();
        EXPECT_EQ("keep", Bytes(out));
    }
}
