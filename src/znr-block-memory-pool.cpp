#include <plexa/znr-block-memory-pool.h>
#include <plexa/znr-error.h>
#include <plexa/znr-logger.h>

#include <algorithm>
#include <cstring>
#include <functional>
#include <map>
#include <new>
#include <vector>

namespace {

typedef unsigned char* Block;

// std::less gives a total order even over unrelated allocations.
inline bool Below(Block a, Block b) { return std::less<Block>()(a, b); }

}  // namespace

// One class's blocks, kept in address order: the free set is a bitmap
// over those ranks, so the lowest free address is the first set bit and
// taking or freeing a block moves nothing. Only making a block (rare:
// blocks never leave before Clear) shifts the ranks above it. A class with
// no free block has all its blocks in use, so it keeps no used count.
struct ZNRBlockMemoryPool::BlockList {
    struct Owner {
        char const* file;
        unsigned int line;
    };

    explicit BlockList(std::uint32_t size) : block_size(size), first_word(0) {}

    std::uint32_t Count() const { return static_cast<std::uint32_t>(blocks.size()); }

    // So that Add cannot fail. Throws std::bad_alloc.
    void Reserve(std::size_t n) {
        blocks.reserve(n);
        owners.reserve(n);
        words.reserve((n + 63) / 64);
    }

    // Files a new block, free or used, and returns its rank.
    std::uint32_t Add(Block block, bool free) {
        std::uint32_t const rank = static_cast<std::uint32_t>(
            std::lower_bound(blocks.begin(), blocks.end(), block, Below) - blocks.begin());
        blocks.insert(blocks.begin() + rank, block);
        owners.insert(owners.begin() + rank, Owner{nullptr, 0});
        InsertBit(rank, free);
        return rank;
    }

    // The rank of the free block with the lowest address, now used; the
    // count when none is free.
    std::uint32_t TakeLowest() {
        for (std::size_t w = first_word; w < words.size(); ++w) {
            std::uint64_t const word = words[w];
            if (word == 0) continue;
            first_word = w;
            words[w] = word & (word - 1);
            return static_cast<std::uint32_t>(w * 64 + static_cast<std::size_t>(__builtin_ctzll(word)));
        }
        first_word = words.size();
        return Count();
    }

    // False when the block is not in use. word is the rank's bitmap word.
    bool PutFree(std::uint32_t rank, std::uint64_t& word) {
        std::uint64_t const bit = std::uint64_t(1) << (rank % 64);
        if ((word & bit) != 0) return false;
        word |= bit;
        if (rank / 64 < first_word) first_word = rank / 64;
        return true;
    }

    bool IsUsed(std::uint32_t rank) const { return (words[rank / 64] >> (rank % 64) & 1) == 0; }

    void Reset() {
        blocks.clear();
        owners.clear();
        words.clear();
        first_word = 0;
    }

    std::uint32_t block_size;
    std::vector<Block> blocks;         // by rank
    std::vector<Owner> owners;         // by rank, for used blocks
    std::vector<std::uint64_t> words;  // bit r set: the block of rank r is free
    std::size_t first_word;            // every word below it is zero

private:
    // Shifts the bits from rank up by one and sets rank's to free.
    void InsertBit(std::uint32_t rank, bool free) {
        if (words.size() * 64 < blocks.size()) words.push_back(0);
        std::size_t const w = rank / 64;
        for (std::size_t i = words.size() - 1; i > w; --i)
            words[i] = words[i] << 1 | words[i - 1] >> 63;
        std::uint64_t const below = (std::uint64_t(1) << (rank % 64)) - 1;
        std::uint64_t const word = words[w];
        words[w] = (word & below) | (word & ~below) << 1 |
                   (free ? std::uint64_t(1) << (rank % 64) : 0);
        if (free && w < first_word) first_word = w;
    }
};

// The classes flattened in walk order, and an address index over every
// block the pool holds. Entries go in when a block is made and leave only
// in Clear, so the index needs no deletion.
struct ZNRBlockMemoryPool::IndexClass {
    std::uint32_t block_size;
    std::uint32_t max_count;
    BlockList* list;
};

struct ZNRBlockMemoryPool::IndexSlot {
    Block block;  // null marks an empty slot
    BlockList* list;
    std::uint64_t* word;  // the list's bitmap word for rank
    std::uint32_t rank;
};

namespace {

// Fibonacci hashing: the high bits of the product mix every bit of the
// (aligned) address.
inline std::size_t Home(Block block, unsigned int shift) {
    return static_cast<std::size_t>(
        (static_cast<std::uint64_t>(reinterpret_cast<std::uintptr_t>(block)) * 0x9E3779B97F4A7C15ULL) >>
        shift);
}

}  // namespace

struct ZNRBlockMemoryPool::FastIndex {

    FastIndex() : mask(0), shift(64), count(0) {}

    std::size_t Home(Block block) const { return ::Home(block, shift); }

    // Room for n blocks at a load of at most one half. Throws std::bad_alloc.
    void Reserve(std::size_t n) {
        std::size_t want = 16;
        unsigned int bits = 4;
        while (want < 2 * n) {
            want *= 2;
            ++bits;
        }
        if (want <= slots.size()) return;
        std::vector<IndexSlot> old(want, IndexSlot{nullptr, nullptr, nullptr, 0});
        old.swap(slots);
        mask = want - 1;
        shift = 64 - bits;
        count = 0;
        for (IndexSlot const& entry : old)
            if (entry.block != nullptr) Insert(entry);
    }

    void Insert(IndexSlot const& entry) {
        std::size_t i = Home(entry.block);
        while (slots[i].block != nullptr) i = (i + 1) & mask;
        slots[i] = entry;
        ++count;
    }

    IndexSlot* Find(Block block) {
        if (block == nullptr || count == 0) return nullptr;
        for (std::size_t i = Home(block);; i = (i + 1) & mask) {
            if (slots[i].block == block) return &slots[i];
            if (slots[i].block == nullptr) return nullptr;
        }
    }

    // Makes a block for list and files it; null when memory is lacking.
    Block Make(BlockList* list, bool free, std::uint32_t* rank) {
        std::uint64_t const* const words = list->words.data();
        try {
            Reserve(count + 1);
            list->Reserve(list->Count() + 1);
        } catch (std::bad_alloc const&) {
            return nullptr;
        }
        Block const block = new (std::nothrow) unsigned char[list->block_size];
        if (block == nullptr) return nullptr;
        *rank = list->Add(block, free);
        Insert(IndexSlot{block, list, nullptr, *rank});
        // Ranks above the new block moved up; all bitmap words moved when
        // the bitmap grew.
        for (std::uint32_t r = list->words.data() == words ? *rank : 0; r < list->Count(); ++r) {
            IndexSlot* const entry = Find(list->blocks[r]);
            entry->rank = r;
            entry->word = &list->words[r / 64];
        }
        return block;
    }

    std::vector<IndexClass> walk;   // the classes in multimap order
    std::vector<IndexSlot> slots;  // open addressing, power-of-two size
    std::size_t mask;
    unsigned int shift;
    std::size_t count;
};

ZNRMemoryPool::InitParamBase::~InitParamBase() {}

ZNRMemoryPool::~ZNRMemoryPool() {}

void ZNRMemoryPool::Dump() {}

ZNRBlockMemoryPool::InitParam::~InitParam() {}

ZNRBlockMemoryPool::ZNRBlockMemoryPool()
    : max_capacity_(0), current_size_(0), used_size_(0), index_(new FastIndex()), walk_(nullptr),
      walk_size_(0), slots_(nullptr), slot_mask_(0), slot_shift_(64) {}

void ZNRBlockMemoryPool::CopyHotFields() {
    walk_ = index_->walk.data();
    walk_size_ = index_->walk.size();
    slots_ = index_->slots.empty() ? nullptr : index_->slots.data();
    slot_mask_ = index_->mask;
    slot_shift_ = index_->shift;
}

ZNRBlockMemoryPool::~ZNRBlockMemoryPool() {
    Clear();
    for (auto& entry : *classes_) delete entry.second.block_list;
    delete index_;
}

void ZNRBlockMemoryPool::RebuildWalk() {
    index_->walk.clear();
    for (auto const& entry : *classes_)
        index_->walk.push_back(IndexClass{entry.second.block_size, entry.second.max_count,
                                                entry.second.block_list});
    CopyHotFields();
}

std::uint64_t ZNRBlockMemoryPool::Init(InitParamBase* param) {
    InitParam* const init = dynamic_cast<InitParam*>(param);
    if (init == nullptr) return ZNR_ERROR_POOL_INIT;
    for (BlockPoolInfo info : *init->block_pools) {
        if (info.block_list != nullptr) return ZNR_ERROR_POOL_INIT;
        if (info.max_count < info.prealloc_count) {
            ZNR_LOG(WARNING,
                    "Memory block pool max count is bigger than prealloc block count, bug?, force set "
                    "it's max to prealloc count, block_size=%u block_max_count=%u "
                    "block_prealloc_count=%u",
                    info.block_size, info.max_count, info.prealloc_count);
            info.max_count = info.prealloc_count;
        }
        info.block_list = new BlockList(info.block_size);
        std::uint64_t result = 0;
        for (std::uint32_t i = 0; i < info.prealloc_count; ++i) {
            std::uint32_t rank = 0;
            Block const made = index_->Make(info.block_list, true, &rank);
            CopyHotFields();
            if (made == nullptr) {
                result = ZNR_ERROR_POOL_EXHAUSTED;
                break;
            }
            current_size_ += info.block_size;
        }
        max_capacity_ += info.block_size * info.max_count;
        classes_->emplace(info.block_size, info);
        RebuildWalk();
        if (result != 0) return result;
    }
    return 0;
}

void* ZNRBlockMemoryPool::Alloc(unsigned int size, char const* owner_file, unsigned int owner_line,
                                std::uint64_t* error) {
    std::size_t first = 0;
    while (first < walk_size_ && walk_[first].block_size < size) ++first;
    if (first < walk_size_) {
        BlockList* const list = walk_[first].list;
        std::uint32_t const rank = list->TakeLowest();
        if (rank < list->Count()) {
            list->owners[rank] = BlockList::Owner{owner_file, owner_line};
            used_size_ += list->block_size;
            return list->blocks[rank];
        }
    }
    return AllocBeyondFree(first, owner_file, owner_line, error);
}

// Kept out of line so that taking a free block stays a short leaf.
__attribute__((noinline)) void* ZNRBlockMemoryPool::AllocBeyondFree(std::size_t first,
                                                                    char const* owner_file,
                                                                    unsigned int owner_line,
                                                                    std::uint64_t* error) {
    std::vector<IndexClass> const& walk = index_->walk;
    for (std::size_t i = first; i < walk.size(); ++i) {
        BlockList* const list = walk[i].list;
        std::uint32_t rank = i == first ? list->Count() : list->TakeLowest();
        Block block = nullptr;
        if (rank < list->Count()) {
            block = list->blocks[rank];
        } else {
            if (list->Count() >= walk[i].max_count) continue;
            block = index_->Make(list, false, &rank);
            CopyHotFields();
            if (block == nullptr) break;
            current_size_ += list->block_size;
        }
        list->owners[rank] = BlockList::Owner{owner_file, owner_line};
        used_size_ += list->block_size;
        return block;
    }
    if (error != nullptr) *error = ZNR_ERROR_POOL_EXHAUSTED;
    return nullptr;
}

void* ZNRBlockMemoryPool::Alloc(unsigned int size, char fill, char const* owner_file,
                                unsigned int owner_line, std::uint64_t* error) {
    void* const p = Alloc(size, owner_file, owner_line, error);
    if (p != nullptr) std::memset(p, fill, size);
    return p;
}

std::uint64_t ZNRBlockMemoryPool::Free(void* p) {
    // A block has one address, so the index names the one class that can
    // hold it as used.
    Block const block = static_cast<Block>(p);
    if (block == nullptr || slots_ == nullptr) return ZNR_ERROR_POOL_FOREIGN;
    for (std::size_t i = Home(block, slot_shift_);; i = (i + 1) & slot_mask_) {
        IndexSlot const& slot = slots_[i];
        if (slot.block == nullptr) return ZNR_ERROR_POOL_FOREIGN;
        if (slot.block != block) continue;
        if (!slot.list->PutFree(slot.rank, *slot.word)) return ZNR_ERROR_POOL_FOREIGN;
        used_size_ -= slot.list->block_size;
        return 0;
    }
}

std::uint64_t ZNRBlockMemoryPool::Clear() {
    for (IndexClass const& c : index_->walk) {
        BlockList* const list = c.list;
        for (std::uint32_t rank = 0; rank < list->Count(); ++rank) {
            if (list->IsUsed(rank)) {
                BlockList::Owner const& owner = list->owners[rank];
                ZNR_LOG(WARNING, "Clear used memory block, size=%u, owner_info=%s:%u", c.block_size,
                        owner.file != nullptr ? owner.file : "", owner.line);
            }
            delete[] list->blocks[rank];
        }
        list->Reset();
    }
    for (IndexSlot& entry : index_->slots) entry.block = nullptr;
    index_->count = 0;
    return 0;
}

void ZNRBlockMemoryPool::Dump() {}
