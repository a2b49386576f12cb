#include <plexa/znr-id-allocator.h>
#include <plexa/znr-string.h>

#include "znr-random.h"

#include <cstdio>

ZNRIdAllocator::ZNRIdAllocator() : num_id_(0), int_id_(0), uint_id_(0), ulong_id_(0) {}

ZNRIdAllocator::~ZNRIdAllocator() {}

void ZNRIdAllocator::AllocNumId(std::uint64_t* id) {
    ++num_id_;
    if (id != nullptr) *id = num_id_;
}

void ZNRIdAllocator::AllocIntNumId(int* id) {
    ++int_id_;
    if (id != nullptr) *id = int_id_;
}

void ZNRIdAllocator::AllocUIntNumId(unsigned int* id) {
    ++uint_id_;
    if (id != nullptr) *id = uint_id_;
}

void ZNRIdAllocator::AllocULONGNumId(std::uint32_t* id) {
    ++ulong_id_;
    if (id != nullptr) *id = ulong_id_;
}

std::uint64_t ZNRIdAllocator::AllocUUID(ZNRString* id) {
    unsigned char b[16];
    std::uint64_t error = ZNRRandomBytes(b, sizeof(b));
    if (error != 0) return error;
    b[6] = static_cast<unsigned char>((b[6] & 0x0F) | 0x40);  // version 4
    b[8] = static_cast<unsigned char>((b[8] & 0x3F) | 0x80);  // RFC 4122 variant
    char text[37];
    std::snprintf(text, sizeof(text),
                  "%02x%02x%02x%02x-%02x%02x-%02x%02x-%02x%02x-%02x%02x%02x%02x%02x%02x",
                  b[0], b[1], b[2], b[3], b[4], b[5], b[6], b[7], b[8], b[9], b[10], b[11],
                  b[12], b[13], b[14], b[15]);
    if (id != nullptr) *id = ZNRString(text);
    return 0;
}

ZNRGroupIdAllocator::ZNRGroupIdAllocator() : counter_(0) {}

ZNRGroupIdAllocator::~ZNRGroupIdAllocator() {}

void ZNRGroupIdAllocator::AllocIdByGroup(unsigned char group, std::uint64_t* id) {
    ++counter_;
    if (id != nullptr)
        *id = (static_cast<std::uint64_t>(group) << 56) | (counter_ & 0x00FFFFFFFFFFFFFFULL);
}
