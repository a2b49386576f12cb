#include <plexa/znr-byte-buffer.h>
#include <plexa/znr-digest.h>
#include <plexa/znr-error.h>
#include <plexa/znr-string.h>

#include <gtest/gtest.h>

#include <cstring>
#include <string>
#include <vector>

namespace {

std::uint64_t const kNotReady = 0x800000010000000BULL;
std::uint64_t const kBadBase64 = 0x8000000100000033ULL;

std::string Hex(ZNRDigest* d) {
    ZNRString hex;
    EXPECT_EQ(0u, d->FinalHex(&hex));
    return hex.ToStdCStr();
}

std::string Repeat(std::string const& s, int n) {
    std::string out;
    for (int i = 0; i < n; ++i) out += s;
    return out;
}

struct Vector {
    std::string message;
    char const* md5;
    char const* sha1;
};

class Digest : public ::testing::Test {};

}  // namespace

// RFC 1321 appendix A.5 and RFC 3174 / FIPS 180 vectors, whole and in
// pieces split at every offset; nullptr where the RFC gives no value.
TEST_F(Digest, KnownVectorsWholeAndInPieces) {
    std::vector<Vector> const table = {
        {"", "d41d8cd98f00b204e9800998ecf8427e", "da39a3ee5e6b4b0d3255bfef95601890afd80709"},
        {"a", "0cc175b9c0f1b6a831c399e269772661", nullptr},
        {"abc", "900150983cd24fb0d6963f7d28e17f72", "a9993e364706816aba3e25717850c26c9cd0d89d"},
        {"message digest", "f96b697d7cb7938d525a2f31aaf161d0", nullptr},
        {"abcdefghijklmnopqrstuvwxyz", "c3fcd3d76192e4007dfb496cca67e13b", nullptr},
        {"ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789",
         "d174ab98d277d9f5a5611c2c9f419d9f", nullptr},
        {Repeat("1234567890", 8), "57edf4a22be3c955ac49da2e2107b67a", nullptr},
        {"abcdbcdecdefdefgefghfghighijhijkijkljklmklmnlmnomnopnopq", nullptr,
         "84983e441c3bd26ebaae4aa1f95129e5e54670f1"},
        {Repeat("01234567", 80), nullptr, "dea356a2cddd90c7a7ecedc5ebb563934f460452"},
    };
    ZNRMd5 md5;
    ZNRSha1 sha1;
    for (Vector const& v : table) {
        for (std::pair<ZNRDigest*, char const*> d : {std::make_pair<ZNRDigest*>(&md5, v.md5),
                                                     std::make_pair<ZNRDigest*>(&sha1, v.sha1)}) {
            if (d.second == nullptr) continue;
            for (std::size_t cut = 0; cut <= v.message.size(); ++cut) {
                ASSERT_EQ(0u, d.first->Reset());
                ASSERT_EQ(0u, d.first->Update(v.message.data(), static_cast<unsigned int>(cut)));
                ASSERT_EQ(0u, d.first->Update(v.message.data() + cut,
                                              static_cast<unsigned int>(v.message.size() - cut)));
                ASSERT_EQ(d.second, Hex(d.first)) << v.message << " cut at " << cut;
            }
        }
    }
}

TEST_F(Digest, MillionAInUnevenPiecesAndRawBytes) {
    ZNRSha1 sha1;
    std::string const chunk(997, 'a');  // not a multiple of the 64-byte block
    unsigned int left = 1000000;
    while (left > 0) {
        unsigned int const n = left < chunk.size() ? left : static_cast<unsigned int>(chunk.size());
        ASSERT_EQ(0u, sha1.Update(chunk.data(), n));
        left -= n;
    }
    unsigned char raw[21];
    raw[20] = 0xEE;
    ASSERT_EQ(0u, sha1.Final(raw));
    unsigned char const want[20] = {0x34, 0xaa, 0x97, 0x3c, 0xd4, 0xc4, 0xda, 0xa4, 0xf6, 0x1e,
                                    0xeb, 0x2b, 0xdb, 0xad, 0x27, 0x31, 0x65, 0x34, 0x01, 0x6f};
    EXPECT_EQ(0, std::memcmp(want, raw, 20));
    EXPECT_EQ(0xEE, raw[20]);  // exactly GetSize() bytes written
    EXPECT_EQ(20u, sha1.GetSize());
    EXPECT_EQ(16u, ZNRMd5().GetSize());
}

TEST_F(Digest, SpentUntilReset) {
    ZNRMd5 md5;
    ASSERT_EQ(0u, md5.Update("abc", 3));
    ASSERT_EQ("900150983cd24fb0d6963f7d28e17f72", Hex(&md5));
    unsigned char raw[16];
    ZNRString hex("kept");
    EXPECT_EQ(kNotReady, md5.Update("a", 1));
    EXPECT_EQ(kNotReady, md5.Final(raw));
    EXPECT_EQ(kNotReady, md5.FinalHex(&hex));
    EXPECT_EQ("kept", hex.ToStdCStr());
    // Reset also drops a half-fed message.
    ASSERT_EQ(0u, md5.Reset());
    ASSERT_EQ(0u, md5.Update("xyz", 3));
    ASSERT_EQ(0u, md5.Reset());
    ASSERT_EQ(0u, md5.Update("a", 1));
    EXPECT_EQ("0cc175b9c0f1b6a831c399e269772661", Hex(&md5));
}

// RFC 4648 section 10, both ways, plus every byte value.
TEST_F(Digest, Base64Vectors) {
    std::vector<std::pair<std::string, std::string>> const table = {
        {"", ""},          {"f", "Zg=="},         {"fo", "Zm8="},         {"foo", "Zm9v"},
        {"foob", "Zm9vYg=="}, {"fooba", "Zm9vYmE="}, {"foobar", "Zm9vYmFy"},
        {"\xfb\xff\xbf", "+/+/"},
    };
    for (auto const& row : table) {
        ZNRString text;
        ASSERT_EQ(0u, ZNRBase64::Encode(row.first.data(), static_cast<unsigned int>(row.first.size()), &text));
        EXPECT_EQ(row.second, text.ToStdCStr());
        ZNRByteBuffer out(1);
        out.AppendData(reinterpret_cast<unsigned char const*>("!"), 1);  // replaced, not appended
        ASSERT_EQ(0u, ZNRBase64::Decode(ZNRString(row.second), &out)) << row.second;
        EXPECT_EQ(row.first, std::string(reinterpret_cast<char*>(out.GetData()), out.GetDataCount()));
    }
    std::string all;
    for (int i = 0; i < 256; ++i) all += static_cast<char>(i);
    ZNRString text;
    ASSERT_EQ(0u, ZNRBase64::Encode(all.data(), 256, &text));
    ZNRByteBuffer out;
    ASSERT_EQ(0u, ZNRBase64::Decode(text, &out));
    EXPECT_EQ(all, std::string(reinterpret_cast<char*>(out.GetData()), out.GetDataCount()));
}

TEST_F(Digest, Base64RefusesBadInput) {
    std::vector<std::string> const bad = {
        "Z", "Zg", "Zg=", "Zm9vY", "Zm9v\n",      // length
        "Zm9\n", "Zm 9", "Zm-_", "Zm9v!A==",       // characters outside the alphabet
        "Zm=v", "=Zm9", "Z===", "====", "Zg==Zm9v", // "=" out of place
        "Zh==", "Zm9=",                             // bits set under the padding
    };
    for (std::string const& text : bad) {
        ZNRByteBuffer out(4);
        out.AppendData(reinterpret_cast<unsigned char const*>("keep"), 4);
        EXPECT_EQ(kBadBase64, ZNRBase64::Decode(ZNRString(text), &out)) << text;
        EXPECT_EQ("keep", std::string(reinterpret_cast<char*>(out.GetData()), out.GetDataCount()));
    }
    // A wide code unit whose low byte is a Base64 letter is still foreign.
    ZNRString wide("Zm9v");
    wide[1] = 0x016D;
    ZNRByteBuffer out;
    EXPECT_EQ(kBadBase64, ZNRBase64::Decode(wide, &out));
}
