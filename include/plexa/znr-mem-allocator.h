#ifndef PLEXA_ZNR_MEM_ALLOCATOR_H
#define PLEXA_ZNR_MEM_ALLOCATOR_H

#include <plexa/znr-export.h>
#include <plexa/znr-singleton.h>

// Where buffers get their memory. Every request names the source file and
// line that asked for it. The default is the plain heap.
class ZNR_API ZNRMemAllocator {
public:
    ZNRMemAllocator() {}
    virtual ~ZNRMemAllocator();
    virtual void* Alloc(unsigned int size, char const* owner_file, unsigned int owner_line);
    virtual std::uint64_t Free(void* p);

    // The process-wide default (ZNRSingleton<ZNRMemAllocator>).
    static ZNRMemAllocator* Default();
};

extern template class ZNRSingleton<ZNRMemAllocator>;

#endif
