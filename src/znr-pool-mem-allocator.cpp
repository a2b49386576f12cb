#include <plexa/znr-pool-mem-allocator.h>

namespace {

ZNRThreadMutex g_pack_lock;
ZNRPackMemAllocator* g_pack_allocator = nullptr;

std::uint32_t const kPackBlockSize = 0x200000;
std::uint32_t const kPackPreallocCount = 1;
std::uint32_t const kPackMaxCount = 20;

}  // namespace

ZNRPackMemAllocator::ZNRPackMemAllocator(ZNRBlockMemoryPool::InitParam const& param)
    : ZNRPoolMemAllocator<ZNRBlockMemoryPool, ZNRBlockMemoryPool::InitParam>(param) {}

ZNRPackMemAllocator* ZNRPackMemAllocator::Instance() {
    ZNRGuardSpinLock guard(&g_pack_lock, __FILE__, __LINE__);
    if (g_pack_allocator == nullptr) {
        ZNRBlockMemoryPool::InitParam param;
        param.block_pools->push_back(
            ZNRBlockMemoryPool::BlockPoolInfo(kPackBlockSize, kPackPreallocCount, kPackMaxCount));
        g_pack_allocator = new ZNRPackMemAllocator(param);
    }
    return g_pack_allocator;
}

void ZNRPackMemAllocator::Destroy() {
    ZNRGuardSpinLock guard(&g_pack_lock, __FILE__, __LINE__);
    delete g_pack_allocator;
    g_pack_allocator = nullptr;
}
