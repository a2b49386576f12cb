#ifndef PLEXA_ZNR_POOL_MEM_ALLOCATOR_H
#define PLEXA_ZNR_POOL_MEM_ALLOCATOR_H

#include <plexa/znr-block-memory-pool.h>
#include <plexa/znr-error.h>
#include <plexa/znr-export.h>
#include <plexa/znr-logger.h>
#include <plexa/znr-mem-allocator.h>
#include <plexa/znr-stl-adapter.h>
#include <plexa/znr-string.h>
#include <plexa/znr-thread-mutex.h>
#include <plexa/znr-tls.h>

#include <map>
#include <new>
#include <set>

// Gives each thread its own pool, made on the thread's first Alloc; what the
// pool cannot serve comes from the heap (logged at DEBUG). Memory must be
// freed on the thread that took it: elsewhere Free finds nothing and
// returns library error 46. Only the creation of a thread's pool locks.
template <class Pool, class Param>
class ZNR_API ZNRPoolMemAllocator : public ZNRMemAllocator {
public:
    explicit ZNRPoolMemAllocator(Param const& param) : param_(param) {
        if (tls_.Open() == 0) tls_.Set(nullptr);
    }

    ~ZNRPoolMemAllocator() override {
        ZNRGuardSpinLock guard(&lock_, __FILE__, __LINE__);
        for (PoolRecord* record : *records_) {
            for (auto const& heap : *record->heap_blocks) {
                ZNR_LOG(WARNING, "Clear used memory, size=%u, owner=%s:%u", heap.second.size,
                        heap.second.owner_file != nullptr ? heap.second.owner_file : "",
                        heap.second.owner_line);
                delete[] heap.first;
            }
            delete record->pool;
            delete record;
        }
        records_->clear();
    }

    ZNRPoolMemAllocator(ZNRPoolMemAllocator const&) = delete;
    ZNRPoolMemAllocator& operator=(ZNRPoolMemAllocator const&) = delete;

    void* Alloc(unsigned int size, char const* owner_file, unsigned int owner_line) override {
        PoolRecord* const record = CurrentRecord(true);
        if (record == nullptr) return nullptr;
        std::uint64_t error = 0;
        void* const p = record->pool->Alloc(size, owner_file, owner_line, &error);
        if (error == 0) return p;

        ZNR_LOG(DEBUG,
                "Can not alloc memory from pool, force to use std memory allocator, size=%u, "
                "owner=%s:%u, error=\"%s\"",
                size, owner_file != nullptr ? owner_file : "", owner_line,
                ZNRGetErrorText(error).c_str());
        unsigned char* const heap = new (std::nothrow) unsigned char[size];
        if (heap != nullptr) (*record->heap_blocks)[heap] = HeapBlock{size, owner_file, owner_line};
        return heap;
    }

    std::uint64_t Free(void* p) override {
        PoolRecord* const record = CurrentRecord(false);
        if (record == nullptr) return ZNRUserError(46);
        if (!record->heap_blocks->empty()) {
            auto heap = record->heap_blocks->find(static_cast<unsigned char*>(p));
            if (heap != record->heap_blocks->end()) {
                delete[] heap->first;
                record->heap_blocks->erase(heap);
                return 0;
            }
        }
        return record->pool->Free(p);
    }

private:
    struct HeapBlock {
        unsigned int size;
        char const* owner_file;
        unsigned int owner_line;
    };

    struct PoolRecord {
        ZNRStlAdapter<std::map<unsigned char*, HeapBlock>> heap_blocks;
        Pool* pool;
    };

    // This thread's record; made (with its pool) on first use when create.
    PoolRecord* CurrentRecord(bool create) {
        void* slot = nullptr;
        if (tls_.Get(&slot) != 0) return nullptr;
        if (slot != nullptr || !create) return static_cast<PoolRecord*>(slot);

        PoolRecord* const record = new PoolRecord();
        record->pool = new Pool();
        record->pool->Init(&param_);
        tls_.Set(record);
        ZNRGuardSpinLock guard(&lock_, __FILE__, __LINE__);
        records_->insert(record);
        return record;
    }

    Param param_;
    ZNRTLS tls_;
    ZNRStlAdapter<std::set<PoolRecord*>> records_;
    ZNRThreadMutex lock_;
};

// The process-wide pooled allocator for large message buffers: 2 MiB
// blocks, one made up front, at most 20 in use per thread.
class ZNR_API ZNRPackMemAllocator
    : public ZNRPoolMemAllocator<ZNRBlockMemoryPool, ZNRBlockMemoryPool::InitParam> {
public:
    static ZNRPackMemAllocator* Instance();
    static void Destroy();

private:
    explicit ZNRPackMemAllocator(ZNRBlockMemoryPool::InitParam const& param);
};

#endif
