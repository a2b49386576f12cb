#ifndef PLEXA_ZNR_BLOCK_MEMORY_POOL_H
#define PLEXA_ZNR_BLOCK_MEMORY_POOL_H

#include <plexa/znr-export.h>
#include <plexa/znr-stl-adapter.h>

#include <map>
#include <vector>

// A source of memory blocks for one thread; it takes no lock.
class ZNR_API ZNRMemoryPool {
public:
    // Base of every pool's parameters, so that Init can take any of them.
    class ZNR_API InitParamBase {
    public:
        virtual ~InitParamBase();
    };

    virtual ~ZNRMemoryPool();
    virtual std::uint64_t Init(InitParamBase* param) = 0;
    // Like the other Alloc, then sets the first size bytes to fill.
    virtual void* Alloc(unsigned int size, char fill, char const* owner_file,
                        unsigned int owner_line, std::uint64_t* error) = 0;
    // Null on failure, with the reason in *error when error is not null;
    // *error is left untouched on success.
    virtual void* Alloc(unsigned int size, char const* owner_file, unsigned int owner_line,
                        std::uint64_t* error) = 0;
    virtual std::uint64_t Free(void* p) = 0;
    virtual std::uint64_t Clear() = 0;
    virtual void Dump();
    virtual unsigned int GetMaxCapacity() const = 0;
    virtual unsigned int GetCurrentSize() const = 0;
    virtual unsigned int GetUsedSize() const = 0;
};

// Fixed-size blocks in size classes. A request is served by the smallest
// class that fits: a free block (lowest address first), else a new block
// while the class is under its max count, else the next class. Blocks go
// back to the heap only in Clear and the destructor. Errors: library 42
// (Init: a class whose block list is set), 44 (Alloc: nothing can serve),
// 46 (Free: a pointer the pool does not hold as used).
class ZNR_API ZNRBlockMemoryPool : public ZNRMemoryPool {
public:
    // A class's free set and its count of used blocks; owned by the pool.
    struct BlockList;

    struct ZNR_API BlockPoolInfo {
        BlockPoolInfo(std::uint32_t block_size = 4096, std::uint32_t prealloc_count = 10,
                      std::uint32_t max_count = 100)
            : block_size(block_size),
              prealloc_count(prealloc_count),
              max_count(max_count),
              block_list(nullptr) {}

        std::uint32_t block_size;
        std::uint32_t prealloc_count;
        std::uint32_t max_count;
        BlockList* block_list;  // must be null in a parameter
    };

    class ZNR_API InitParam : public ZNRMemoryPool::InitParamBase {
    public:
        ~InitParam() override;
        ZNRStlAdapter<std::vector<BlockPoolInfo>> block_pools;
    };

    ZNRBlockMemoryPool();
    ~ZNRBlockMemoryPool() override;
    ZNRBlockMemoryPool(ZNRBlockMemoryPool const&) = delete;
    ZNRBlockMemoryPool& operator=(ZNRBlockMemoryPool const&) = delete;

    std::uint64_t Init(InitParamBase* param) override;
    void* Alloc(unsigned int size, char fill, char const* owner_file, unsigned int owner_line,
                std::uint64_t* error) override;
    void* Alloc(unsigned int size, char const* owner_file, unsigned int owner_line,
                std::uint64_t* error) override;
    std::uint64_t Free(void* p) override;
    // Returns every block to the heap, logging those still in use. The
    // classes and the counters stay.
    std::uint64_t Clear() override;
    void Dump() override;
    unsigned int GetMaxCapacity() const override { return max_capacity_; }
    unsigned int GetCurrentSize() const override { return current_size_; }
    unsigned int GetUsedSize() const override { return used_size_; }

private:
    // The classes flattened in walk order and an address index of the used
    // blocks of all classes, so that Alloc and Free search no tree.
    struct FastIndex;
    struct IndexClass;  // one class, in walk order
    struct IndexSlot;   // one block in the address index

    void RebuildWalk();
    void CopyHotFields();
    // Alloc once the first class that fits has no free block: from
    // class first on, a new block or a larger class's free one.
    void* AllocBeyondFree(std::size_t first, char const* owner_file, unsigned int owner_line,
                          std::uint64_t* error);

    std::uint32_t max_capacity_;
    std::uint32_t current_size_;
    std::uint32_t used_size_;
    ZNRStlAdapter<std::multimap<std::uint32_t, BlockPoolInfo>> classes_;
    FastIndex* index_;
    // Where Alloc and Free start, copied out of the index whenever it
    // changes, so that they reach it one step sooner.
    IndexClass const* walk_;
    std::size_t walk_size_;
    IndexSlot* slots_;
    std::size_t slot_mask_;
    unsigned int slot_shift_;
};

#endif
