#ifndef PLEXA_FUZZ_COMMON_H
#define PLEXA_FUZZ_COMMON_H

#include <plexa/plexa.h>

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <vector>

// A broken invariant is a crash, so libFuzzer keeps the input.
#define FUZZ_CHECK(cond)                                                              \
    do {                                                                              \
        if (!(cond)) {                                                                \
            std::fprintf(stderr, "%s:%d: check failed: %s\n", __FILE__, __LINE__, #cond); \
            std::abort();                                                             \
        }                                                                             \
    } while (0)

typedef std::vector<unsigned char> FuzzBytes;

inline FuzzBytes BufferBytes(ZNRByteBuffer const* buffer) {
    return FuzzBytes(buffer->GetData(), buffer->GetData() + buffer->GetDataCount());
}

// One field of every kind a pack holds, nested once, so that the unpack,
// the entity maps and the seeds share one message shape.
struct FuzzLeaf : public ZNRMarshallable {
    std::uint64_t u64 = 0;
    ZNRString text;
    std::uint64_t Marshal(ZNRPack* p) const override {
        std::uint64_t e = p->Push(u64);
        return e != 0 ? e : p->Push(text);
    }
    std::uint64_t Unmarshal(ZNRUnpack* u) override {
        std::uint64_t e = u->Pop(&u64);
        return e != 0 ? e : u->Pop(&text);
    }
};

struct FuzzAllFields : public ZNRMarshallable {
    char c = 0;
    unsigned char uc = 0;
    short s = 0;
    unsigned short us = 0;
    int i = 0;
    unsigned int ui = 0;
    std::int64_t i64 = 0;
    std::uint64_t u64 = 0;
    ZNRString text;
    std::string bytes;
    ZNRByteBuffer buffer;
    FuzzLeaf leaf;

    std::uint64_t Marshal(ZNRPack* p) const override {
        std::uint64_t e = 0;
        if ((e = p->Push(c)) || (e = p->Push(uc)) || (e = p->Push(s)) || (e = p->Push(us)) ||
            (e = p->Push(i)) || (e = p->Push(ui)) || (e = p->Push(i64)) || (e = p->Push(u64)) ||
            (e = p->Push(text)) || (e = p->Push(bytes)) || (e = p->Push(buffer)) ||
            (e = p->Push(static_cast<ZNRMarshallable const&>(leaf)))) {
            return e;
        }
        return 0;
    }
    // Stops at the first failing field, as a real message would.
    std::uint64_t Unmarshal(ZNRUnpack* u) override {
        std::uint64_t e = 0;
        if ((e = u->Pop(&c)) || (e = u->Pop(&uc)) || (e = u->Pop(&s)) || (e = u->Pop(&us)) ||
            (e = u->Pop(&i)) || (e = u->Pop(&ui)) || (e = u->Pop(&i64)) || (e = u->Pop(&u64)) ||
            (e = u->Pop(&text)) || (e = u->Pop(&bytes)) || (e = u->Pop(&buffer)) ||
            (e = u->Pop(static_cast<ZNRMarshallable*>(&leaf)))) {
            return e;
        }
        return 0;
    }
};

// The uris the entity target registers, shared with the seed builder.
constexpr unsigned int kFuzzEntityTyped = ZNRMakeEntityUri(1, 1);
constexpr unsigned int kFuzzEntityRaw = ZNRMakeEntityUri(1, 2);
constexpr unsigned int kFuzzCompatTyped = ZNRMakeCompatEntityUri(1, 1);
constexpr unsigned int kFuzzCompatRaw = ZNRMakeCompatEntityUri(2, 1);

#endif
