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

#include <atomic>
#include <map>
#include <new>
#include <set>

/// Gives each thread its own pool, made on the thread's first Alloc; what the
/// pool cannot serve comes from the heap (logged at DEBUG). Memory must be
/// freed on the thread that took it: elsewhere Free finds nothing and
/// returns library error 46. Only the making and dropping of a thread's pool
/// lock. A thread that ends holding nothing from its pool or the heap takes
/// its pool along; one that ends holding memory leaves its pool, with that
/// memory, until the allocator ends. The allocator may end before or while
/// threads that used it end. Alloc and Free are safe from any thread under
/// that rule.
template <class Pool, class Param>
class ZNR_API ZNRPoolMemAllocator : public ZNRMemAllocator {
public:
    /// Keeps a copy of param, with which each thread's pool is set up.
    explicit ZNRPoolMemAllocator(Param const& param)
        : param_(param), shared_(new Shared(this)), id_(NextId()) {
        if (tls_.Open() == 0) tls_.Set(nullptr);
    }

    /// Frees every thread's pool and heap fallback, logging at WARNING each
    /// heap block still in use ("Clear used memory, size=%u, owner=%s:%u");
    /// blocks still out dangle from then on.
    ~ZNRPoolMemAllocator() override {
        {
            ZNRGuardSpinLock guard(&shared_->lock, __FILE__, __LINE__);
            shared_->owner = nullptr;
            for (PoolRecord* record : *records_) {
                for (auto const& heap : *record->heap_blocks) {
                    ZNR_LOG(WARNING, "Clear used memory, size=%u, owner=%s:%u", heap.second.size,
                            heap.second.owner_file != nullptr ? heap.second.owner_file : "",
                            heap.second.owner_line);
                    delete[] heap.first;
                }
                delete record;
            }
            records_->clear();
        }
        shared_->Unref();
    }

    ZNRPoolMemAllocator(ZNRPoolMemAllocator const&) = delete;
    ZNRPoolMemAllocator& operator=(ZNRPoolMemAllocator const&) = delete;

    /// size bytes from the calling thread's pool, or from the heap when the
    /// pool cannot serve (logged at DEBUG as "Can not alloc memory from pool,
    /// force to use std memory allocator, ..."). Null only when the heap
    /// fails too or the thread's slot is unusable. Free it on this thread.
    void* Alloc(unsigned int size, char const* owner_file, unsigned int owner_line) final {
        PoolRecord* const record = CurrentRecord(true);
        if (record == nullptr) return nullptr;
        std::uint64_t error = 0;
        void* const p = record->pool.Pool::Alloc(size, owner_file, owner_line, &error);
        if (error == 0) return p;

        ZNR_LOG(DEBUG,
                "Can not alloc memory from pool, force to use std memory allocator, size=%u, "
                "owner=%s:%u, error=\"%s\"",
                size, owner_file != nullptr ? owner_file : "", owner_line,
                ZNRGetErrorText(error).c_str());
        unsigned char* const heap = new (std::nothrow) unsigned char[size];
        if (heap != nullptr) {
            try {
                (*record->heap_blocks)[heap] = HeapBlock{size, owner_file, owner_line};
            } catch (std::bad_alloc const&) {
                delete[] heap;
                return nullptr;
            }
        }
        return heap;
    }

    /// Gives back a block taken on the calling thread; library error 46 for
    /// one this thread does not hold (another thread's block stays used).
    std::uint64_t Free(void* p) final {
        PoolRecord* const record = CurrentRecord(false);
        if (record == nullptr) return ZNR_ERROR_POOL_FOREIGN;
        // Pool and heap blocks are distinct live allocations, so the order
        // of the two looks does not matter; the pool is the common case.
        std::uint64_t const result = record->pool.Pool::Free(p);
        if (result == 0 || record->heap_blocks->empty()) return result;
        auto heap = record->heap_blocks->find(static_cast<unsigned char*>(p));
        if (heap == record->heap_blocks->end()) return result;
        delete[] heap->first;
        record->heap_blocks->erase(heap);
        return 0;
    }

    /// Pools held now: one for each live thread that has allocated, and one
    /// for each ended thread that still held memory. Safe from any thread.
    std::size_t GetPoolCount() const {
        ZNRGuardSpinLock guard(&shared_->lock, __FILE__, __LINE__);
        return records_->size();
    }

private:
    struct HeapBlock {
        unsigned int size;
        char const* owner_file;
        unsigned int owner_line;
    };

    struct PoolRecord {
        Pool pool;
        ZNRStlAdapter<std::map<unsigned char*, HeapBlock>> heap_blocks;
    };

    // The lock and the way to the allocator, kept apart from it because the
    // exit hooks of threads that used it may run after it has ended.
    struct Shared {
        explicit Shared(ZNRPoolMemAllocator* allocator) : owner(allocator), refs(1) {}
        void Unref() {
            if (refs.fetch_sub(1, std::memory_order_acq_rel) == 1) delete this;
        }
        ZNRThreadMutex lock;
        std::atomic<ZNRPoolMemAllocator*> owner;  // null once the allocator ends
        std::atomic<unsigned int> refs;
    };

    // Drops one thread's pool when that thread ends, if it is idle.
    class ExitHook : public ZNRThreadExitHook {
    public:
        ExitHook(Shared* shared, PoolRecord* record) : shared_(shared), record_(record) {
            shared_->refs.fetch_add(1, std::memory_order_relaxed);
        }
        void OnThreadExit() override {
            ZNRGuardSpinLock guard(&shared_->lock, __FILE__, __LINE__);
            ZNRPoolMemAllocator* const owner = shared_->owner.load();
            if (owner != nullptr) owner->DropIfIdle(record_);
        }
        bool Expired() override { return shared_->owner.load() == nullptr; }

    protected:
        ~ExitHook() override { shared_->Unref(); }

    private:
        Shared* const shared_;
        PoolRecord* const record_;
    };

    // The record this thread used last, so that the common case reads one
    // thread-local pair instead of asking the slot. Allocators are told
    // apart by id, not address: a new one may take a dead one's address.
    struct LastUsed {
        std::uint64_t id;
        PoolRecord* record;
    };
    static LastUsed& Last() {
        static thread_local LastUsed last = {0, nullptr};
        return last;
    }
    static std::uint64_t NextId() {
        static std::atomic<std::uint64_t> next(1);
        return next.fetch_add(1, std::memory_order_relaxed);
    }

    // This thread's record; made (with its pool) on first use when create.
    PoolRecord* CurrentRecord(bool create) {
        LastUsed& last = Last();
        if (last.id == id_) return last.record;
        PoolRecord* const record = LookUpRecord(create);
        if (record != nullptr) last = LastUsed{id_, record};
        return record;
    }

    PoolRecord* LookUpRecord(bool create) {
        void* slot = nullptr;
        if (tls_.Get(&slot) != 0) return nullptr;
        if (slot != nullptr || !create) return static_cast<PoolRecord*>(slot);

        PoolRecord* const record = new PoolRecord();
        record->pool.Init(&param_);
        tls_.Set(record);
        {
            ZNRGuardSpinLock guard(&shared_->lock, __FILE__, __LINE__);
            records_->insert(record);
        }
        // Without the hook the pool just stays until the allocator ends.
        ExitHook* const hook = new ExitHook(shared_, record);
        if (ZNRAtThreadExit(hook) != 0) hook->Destroy();
        return record;
    }

    // On the ending thread, under the lock.
    void DropIfIdle(PoolRecord* record) {
        if (!record->heap_blocks->empty() || record->pool.GetUsedSize() != 0) return;
        records_->erase(record);
        delete record;
        tls_.Set(nullptr);
        if (Last().id == id_) Last() = LastUsed{0, nullptr};
    }

    Param param_;
    ZNRTLS tls_;
    ZNRStlAdapter<std::set<PoolRecord*>> records_;
    Shared* const shared_;
    std::uint64_t const id_;
};

/// The process-wide pooled allocator for large message buffers: 2 MiB
/// blocks, one made up front, at most 20 in use per thread. The library
/// itself never allocates from it; hosts may give it to a ZNRByteBuffer.
class ZNR_API ZNRPackMemAllocator
    : public ZNRPoolMemAllocator<ZNRBlockMemoryPool, ZNRBlockMemoryPool::InitParam> {
public:
    /// The instance, created on first use; owned by the class. Safe from any thread.
    static ZNRPackMemAllocator* Instance();
    /// Deletes the instance (see ~ZNRPoolMemAllocator); the next Instance()
    /// makes a new one. Safe from any thread, but no block may be in use.
    static void Destroy();

private:
    explicit ZNRPackMemAllocator(ZNRBlockMemoryPool::InitParam const& param);
};

#endif
