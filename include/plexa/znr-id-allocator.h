#ifndef PLEXA_ZNR_ID_ALLOCATOR_H
#define PLEXA_ZNR_ID_ALLOCATOR_H

#include <plexa/znr-export.h>

class ZNRString;

/// Four independent counters; the first id of each kind is 1. No lock: the
/// owner serialises its use.
class ZNR_API ZNRIdAllocator {
public:
    /// Every counter at 0.
    ZNRIdAllocator();
    /// Next 64-bit id into *id (a null id still uses one up).
    virtual void AllocNumId(std::uint64_t* id);
    /// Next signed 32-bit id into *id (a null id still uses one up).
    virtual void AllocIntNumId(int* id);
    /// Next unsigned 32-bit id into *id (a null id still uses one up).
    virtual void AllocUIntNumId(unsigned int* id);
    /// Next 32-bit id of the fourth counter into *id (a null id still uses one up).
    virtual void AllocULONGNumId(std::uint32_t* id);
    /// A random RFC 4122 version 4 UUID, lower-case, in the 36-character form.
    /// Returns 0, or the system error of the random source (errno kind, e.g.
    /// ENOSYS) with *id unchanged. A null id is allowed.
    virtual std::uint64_t AllocUUID(ZNRString* id);
    /// Nothing to release.
    virtual ~ZNRIdAllocator();

private:
    std::uint64_t num_id_;
    int int_id_;
    unsigned int uint_id_;
    std::uint32_t ulong_id_;
};

/// Ids whose top 8 bits name a group and whose low 56 bits count. One
/// counter for all groups; no lock: the owner serialises its use.
class ZNR_API ZNRGroupIdAllocator {
public:
    /// Counter at 0.
    ZNRGroupIdAllocator();
    /// Counts one up and stores group << 56 | the counter's low 56 bits in
    /// *id (the first id of group 3 is 0x0300000000000001). Null id allowed.
    virtual void AllocIdByGroup(unsigned char group, std::uint64_t* id);
    /// Nothing to release.
    virtual ~ZNRGroupIdAllocator();

private:
    std::uint64_t counter_;
};

#endif
