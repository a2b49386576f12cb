#ifndef PLEXA_ZNR_ID_ALLOCATOR_H
#define PLEXA_ZNR_ID_ALLOCATOR_H

#include <plexa/znr-export.h>

class ZNRString;

// Four independent counters; the first id of each kind is 1. No lock: the
// owner serialises its use.
class ZNR_API ZNRIdAllocator {
public:
    ZNRIdAllocator();
    virtual void AllocNumId(std::uint64_t* id);
    virtual void AllocIntNumId(int* id);
    virtual void AllocUIntNumId(unsigned int* id);
    virtual void AllocULONGNumId(std::uint32_t* id);
    // A random RFC 4122 version 4 UUID, lower-case, in the 36-character form.
    // Returns 0, or the error of the random source with *id unchanged.
    virtual std::uint64_t AllocUUID(ZNRString* id);
    virtual ~ZNRIdAllocator();

private:
    std::uint64_t num_id_;
    int int_id_;
    unsigned int uint_id_;
    std::uint32_t ulong_id_;
};

// Ids whose top 8 bits name a group and whose low 56 bits count.
class ZNR_API ZNRGroupIdAllocator {
public:
    ZNRGroupIdAllocator();
    virtual void AllocIdByGroup(unsigned char group, std::uint64_t* id);
    virtual ~ZNRGroupIdAllocator();

private:
    std::uint64_t counter_;
};

#endif
