#ifndef PLEXA_ZNR_MEM_ALLOCATOR_H
#define PLEXA_ZNR_MEM_ALLOCATOR_H

#include <plexa/znr-export.h>
#include <plexa/znr-singleton.h>

/// Where buffers get their memory. Every request names the source file and
/// line that asked for it. The default is the plain heap, safe from any
/// thread; subclasses say their own rules (ZNRPoolMemAllocator frees only
/// on the allocating thread).
class ZNR_API ZNRMemAllocator {
public:
    /// Stateless.
    ZNRMemAllocator() {}
    /// Frees nothing: memory still out stays the caller's to Free first.
    virtual ~ZNRMemAllocator();
    /// size bytes for the caller, given back with Free() on this allocator.
    /// owner_file (a string that must outlive the block) and owner_line name
    /// the requester; the heap default ignores them. Null when memory ran out.
    virtual void* Alloc(unsigned int size, char const* owner_file, unsigned int owner_line);
    /// Gives back a block from Alloc(). The heap default deletes it and
    /// returns 0; pools return library error 46 for a block they do not hold.
    virtual std::uint64_t Free(void* p);

    /// The process-wide default (ZNRSingleton<ZNRMemAllocator>), used by
    /// buffers given no allocator. Owned by the singleton; safe from any thread.
    static ZNRMemAllocator* Default();
};

extern template class ZNR_API ZNRSingleton<ZNRMemAllocator>;

#endif
