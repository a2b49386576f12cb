#ifndef PLEXA_ZNR_BLOCK_MEMORY_POOL_H
#define PLEXA_ZNR_BLOCK_MEMORY_POOL_H

#include <plexa/znr-export.h>
#include <plexa/znr-stl-adapter.h>

#include <map>
#include <vector>

/// A source of memory blocks for one thread; it takes no lock, so one
/// thread uses a pool at a time (ZNRPoolMemAllocator gives each its own).
class ZNR_API ZNRMemoryPool {
public:
    /// Base of every pool's parameters, so that Init can take any of them.
    class ZNR_API InitParamBase {
    public:
        /// Parameters are deleted through this base.
        virtual ~InitParamBase();
    };

    /// Releases what the pool holds.
    virtual ~ZNRMemoryPool();
    /// Sets the pool up from param (borrowed, read only during the call).
    virtual std::uint64_t Init(InitParamBase* param) = 0;
    /// Like the other Alloc, then sets the first size bytes to fill.
    virtual void* Alloc(unsigned int size, char fill, char const* owner_file,
                        unsigned int owner_line, std::uint64_t* error) = 0;
    /// Null on failure, with the reason in *error when error is not null;
    /// *error is left untouched on success. The block stays the pool's: give
    /// it back with Free(). owner_file must outlive the block.
    virtual void* Alloc(unsigned int size, char const* owner_file, unsigned int owner_line,
                        std::uint64_t* error) = 0;
    /// Takes back a block from Alloc(); 0 or a library error.
    virtual std::uint64_t Free(void* p) = 0;
    /// Releases every block, used ones included.
    virtual std::uint64_t Clear() = 0;
    /// Prints the pool's state; the base prints nothing.
    virtual void Dump();
    /// Most bytes the pool may ever hold.
    virtual unsigned int GetMaxCapacity() const = 0;
    /// Bytes now taken from the heap.
    virtual unsigned int GetCurrentSize() const = 0;
    /// Bytes handed out and not yet freed.
    virtual unsigned int GetUsedSize() const = 0;
};

/// Fixed-size blocks in size classes. A request is served by the smallest
/// class that fits: a free block (lowest address first), else a new block
/// while the class is under its max count, else the next class. Blocks go
/// back to the heap only in Clear and the destructor. Errors: library 42
/// (Init: a class whose block list is set), 44 (Alloc: nothing can serve),
/// 46 (Free: a pointer the pool does not hold as used). No lock: one thread
/// at a time.
class ZNR_API ZNRBlockMemoryPool : public ZNRMemoryPool {
public:
    /// A class's free set and its count of used blocks; owned by the pool.
    struct BlockList;

    /// One size class.
    struct ZNR_API BlockPoolInfo {
        /// A class of max_count blocks of block_size bytes, prealloc_count
        /// of them made at Init.
        BlockPoolInfo(std::uint32_t block_size = 4096, std::uint32_t prealloc_count = 10,
                      std::uint32_t max_count = 100)
            : block_size(block_size),
              prealloc_count(prealloc_count),
              max_count(max_count),
              block_list(nullptr) {}

        /// Bytes in every block of the class; also its sort key.
        std::uint32_t block_size;
        /// Blocks made at Init and kept free.
        std::uint32_t prealloc_count;
        /// Most blocks of the class in use at once; raised to prealloc_count
        /// (with a warning) when smaller.
        std::uint32_t max_count;
        /// The pool's own record of the class; must be null in a parameter.
        BlockList* block_list;  // must be null in a parameter
    };

    /// The classes to make; copyable, empty by default.
    class ZNR_API InitParam : public ZNRMemoryPool::InitParamBase {
    public:
        ~InitParam() override;
        /// The size classes, in any order (equal sizes keep theirs).
        ZNRStlAdapter<std::vector<BlockPoolInfo>> block_pools;
    };

    /// No classes: every Alloc fails until Init.
    ZNRBlockMemoryPool();
    /// Clear(), then drops the classes.
    ~ZNRBlockMemoryPool() override;
    ZNRBlockMemoryPool(ZNRBlockMemoryPool const&) = delete;
    ZNRBlockMemoryPool& operator=(ZNRBlockMemoryPool const&) = delete;

    /// Adds the classes of param, an InitParam, preallocating their blocks.
    /// Library error 42 when param is not an InitParam or a class has its
    /// block list set (classes before it stay); 44 when the heap cannot
    /// give the preallocated blocks. A class whose max count is below its
    /// prealloc count is logged at WARNING ("Memory block pool max count is
    /// bigger than prealloc block count, bug?, ...") and gets max = prealloc.
    std::uint64_t Init(InitParamBase* param) override;
    /// Like the other Alloc, then sets the first size bytes (not the whole
    /// block) to fill.
    void* Alloc(unsigned int size, char fill, char const* owner_file, unsigned int owner_line,
                std::uint64_t* error) override;
    /// A block of the first class that fits (see the class). Null and library
    /// error 44 in *error (when not null) when no class can serve or the heap
    /// fails; *error is left untouched on success.
    void* Alloc(unsigned int size, char const* owner_file, unsigned int owner_line,
                std::uint64_t* error) override;
    /// Puts a used block back on its class's free set; 0, or library error
    /// 46 for a pointer the pool does not hold as used (nothing changes).
    std::uint64_t Free(void* p) override;
    /// Returns every block to the heap, logging those still in use at
    /// WARNING ("Clear used memory block, size=%u, owner_info=%s:%u"). The
    /// classes and the counters stay. Returns 0.
    std::uint64_t Clear() override;
    /// Prints nothing.
    void Dump() override;
    /// Sum over the classes of block size times max count.
    unsigned int GetMaxCapacity() const override { return max_capacity_; }
    /// Bytes of the blocks taken from the heap (not reset by Clear).
    unsigned int GetCurrentSize() const override { return current_size_; }
    /// Bytes of the blocks handed out and not freed.
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
