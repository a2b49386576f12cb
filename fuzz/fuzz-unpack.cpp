// ZNRUnpack of a marshallable with every field kind, borrowing or copying,
// with either byte-order flag; an unpack copied or assigned part way reads
// on exactly like the original. What unmarshals is packed again in both
// byte orders: the little-endian pack reads back to itself, the big-endian
// one differs only by swapped integers.
//
// Input: flags (bit 0 byte order, bit 1 copy, bits 3-7 fields read before
// the copy), then the data.
#include "fuzz-common.h"

#include <cstring>

namespace {

int const kFields = 12;

std::uint64_t PopField(ZNRUnpack* u, FuzzAllFields* f, int field) {
    switch (field) {
        case 0: return u->Pop(&f->c);
        case 1: return u->Pop(&f->uc);
        case 2: return u->Pop(&f->s);
        case 3: return u->Pop(&f->us);
        case 4: return u->Pop(&f->i);
        case 5: return u->Pop(&f->ui);
        case 6: return u->Pop(&f->i64);
        case 7: return u->Pop(&f->u64);
        case 8: return u->Pop(&f->text);
        case 9: return u->Pop(&f->bytes);
        case 10: return u->Pop(&f->buffer);
        default: return u->Pop(static_cast<ZNRMarshallable*>(&f->leaf));
    }
}

FuzzBytes Packed(FuzzAllFields const& f, bool bigendian) {
    ZNRPack pack(16, 1u << 24, bigendian);
    FUZZ_CHECK(pack.Push(static_cast<ZNRMarshallable const&>(f)) == 0);
    return BufferBytes(pack.GetBuffer());
}

// The sizes of the fixed-width fields at the front of the message.
unsigned int const kFixed[] = {1, 1, 2, 2, 4, 4, 8, 8};

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(std::uint8_t const* data, std::size_t size) {
    if (size < 1) return 0;
    bool const bigendian = (data[0] & 1) != 0, copy = (data[0] & 2) != 0;
    int const before_copy = (data[0] >> 3) % (kFields + 1);
    unsigned char const* bytes = data + 1;
    unsigned int const n = static_cast<unsigned int>(size - 1);

    ZNRUnpack whole(bytes, n, bigendian, copy);
    FUZZ_CHECK(whole.bigendian() == bigendian);
    FuzzAllFields f;
    std::uint64_t const error = whole.Pop(static_cast<ZNRMarshallable*>(&f));
    FUZZ_CHECK(whole.GetPosition() <= n);
    FUZZ_CHECK(error == 0 || error == ZNRUserError(22) || error == ZNRUserError(23));

    // Field by field, copied and assigned part way.
    ZNRUnpack first(bytes, n, bigendian, copy);
    FuzzAllFields a;
    std::uint64_t e = 0;
    int field = 0;
    for (; field < before_copy && e == 0; ++field) e = PopField(&first, &a, field);
    ZNRUnpack copied(first);
    ZNRUnpack assigned(nullptr, 0, !bigendian, !copy);
    assigned = first;
    FUZZ_CHECK(copied.GetPosition() == first.GetPosition() && copied.bigendian() == bigendian);
    FUZZ_CHECK(assigned.GetPosition() == first.GetPosition() && assigned.bigendian() == bigendian);
    FuzzAllFields b = a, c = a;
    std::uint64_t eb = e, ec = e;
    for (; field < kFields && e == 0; ++field) {
        e = PopField(&first, &a, field);
        eb = PopField(&copied, &b, field);
        ec = PopField(&assigned, &c, field);
        FUZZ_CHECK(e == eb && e == ec);
        FUZZ_CHECK(first.GetPosition() == copied.GetPosition() &&
                   first.GetPosition() == assigned.GetPosition());
    }
    FUZZ_CHECK(e == error && first.GetPosition() == whole.GetPosition());
    if (error != 0) return 0;

    FuzzBytes const little = Packed(f, false);
    FUZZ_CHECK(Packed(a, false) == little && Packed(b, false) == little && Packed(c, false) == little);
    ZNRUnpack back(little.data(), static_cast<unsigned int>(little.size()), false, false);
    FuzzAllFields g;
    FUZZ_CHECK(back.Pop(static_cast<ZNRMarshallable*>(&g)) == 0);
    FUZZ_CHECK(back.GetPosition() == little.size());
    FUZZ_CHECK(Packed(g, false) == little);

    FuzzBytes const big = Packed(f, true);
    FUZZ_CHECK(big.size() == little.size());
    std::size_t offset = 0;
    for (unsigned int width : kFixed) {
        for (unsigned int k = 0; k < width; ++k)
            FUZZ_CHECK(big[offset + k] == little[offset + width - 1 - k]);
        offset += width;
    }
    return 0;
}
