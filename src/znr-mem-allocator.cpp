#include <plexa/znr-mem-allocator.h>

template class ZNRSingleton<ZNRMemAllocator>;

ZNRMemAllocator::~ZNRMemAllocator() {}

void* ZNRMemAllocator::Alloc(unsigned int size, char const*, unsigned int) {
    return new unsigned char[size];
}

std::uint64_t ZNRMemAllocator::Free(void* p) {
    delete[] static_cast<unsigned char*>(p);
    return 0;
}

ZNRMemAllocator* ZNRMemAllocator::Default() { return ZNRSingleton<ZNRMemAllocator>::Instance(); }
