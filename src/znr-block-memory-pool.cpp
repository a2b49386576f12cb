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

// std::less/greater give a total order even over unrelated allocations.
inline bool Below(Block a, Block b) { return std::less<Block>()(a, b); }

}  // namespace

// One class's free set and its count of used blocks; the used blocks
// themselves are in the pool's address index.
struct ZNRBlockMemoryPool::BlockList {
    explicit BlockList(std::uint32_t size)
        : lowest(nullptr), block_size(size), used_count(0), block_count(0) {}

    // The lowest free address is kept apart from the heap so that freeing a
    // block and taking it again, the common case, moves nothing.
    Block TakeLowest() {
        if (lowest != nullptr) {
            Block const block = lowest;
            lowest = nullptr;
            return block;
        }
        if (others.empty()) return nullptr;
        std::pop_heap(others.begin(), others.end(), std::greater<Block>());
        Block const block = others.back();
        others.pop_back();
        return block;
    }

    // Never reallocates: others has room for every block of the class.
    void PutFree(Block block) {
        if (lowest == nullptr) {
            if (others.empty() || Below(block, others.front())) {
                lowest = block;
                return;
            }
        } else if (Below(block, lowest)) {
            std::swap(block, lowest);
        }
        others.push_back(block);
        std::push_heap(others.begin(), others.end(), std::greater<Block>());
    }

    Block lowest;               // null, or below every address in others
    std::vector<Block> others;  // min-heap by address
    std::uint32_t block_size;
    std::uint32_t used_count;
    std::uint32_t block_count;  // free and used, as taken from the heap
};

struct ZNRBlockMemoryPool::FastIndex {
    struct Class {
        std::uint32_t block_size;
        std::uint32_t max_count;
        BlockList* list;
    };

    struct Used {
        Block block;  // null marks an empty slot
        BlockList* list;
        char const* file;
        unsigned int line;
    };

    FastIndex() : mask(0), shift(64), count(0), blocks(0) {}

    std::size_t Home(Block block) const {
        // Fibonacci hashing: the high bits of the product mix every bit of
        // the (aligned) address.
        return static_cast<std::size_t>(
            (static_cast<std::uint64_t>(reinterpret_cast<std::uintptr_t>(block)) *
             0x9E3779B97F4A7C15ULL) >>
            shift);
    }

    // Room for n used blocks at a load of at most one half, so that inserts
    // up to n never allocate.
    void Reserve(std::size_t n) {
        std::size_t want = 16;
        unsigned int bits = 4;
        while (want < 2 * n) {
            want *= 2;
            ++bits;
        }
        if (want <= slots.size()) return;
        std::vector<Used> old(want, Used{nullptr, nullptr, nullptr, 0});
        old.swap(slots);
        mask = want - 1;
        shift = 64 - bits;
        count = 0;
        for (Used const& used : old)
            if (used.block != nullptr) Insert(used);
    }

    void Insert(Used const& used) {
        std::size_t i = Home(used.block);
        while (slots[i].block != nullptr) i = (i + 1) & mask;
        slots[i] = used;
        ++count;
    }

    Used* Find(Block block) {
        if (block == nullptr || count == 0) return nullptr;
        for (std::size_t i = Home(block);; i = (i + 1) & mask) {
            if (slots[i].block == block) return &slots[i];
            if (slots[i].block == nullptr) return nullptr;
        }
    }

    // Backward-shift deletion keeps probe chains whole without tombstones.
    void Erase(Used* used) {
        std::size_t hole = static_cast<std::size_t>(used - slots.data());
        for (std::size_t j = (hole + 1) & mask; slots[j].block != nullptr; j = (j + 1) & mask) {
            std::size_t const home = Home(slots[j].block);
            if (((j - home) & mask) >= ((j - hole) & mask)) {
                slots[hole] = slots[j];
                hole = j;
            }
        }
        slots[hole].block = nullptr;
        --count;
    }

    // Makes sure a new block of list can be indexed and freed without
    // further allocation; false when memory for that is lacking.
    bool MakeRoom(BlockList* list) {
        try {
            Reserve(blocks + 1);
            std::size_t const need = list->block_count + 1;
            if (list->others.capacity() < need) {
                std::size_t room = std::max<std::size_t>(16, 2 * list->others.capacity());
                list->others.reserve(std::max(room, need));
            }
        } catch (std::bad_alloc const&) {
            return false;
        }
        ++blocks;
        ++list->block_count;
        return true;
    }

    std::vector<Class> walk;  // the classes in multimap order
    std::vector<Used> slots;  // open addressing, power-of-two size
    std::size_t mask;
    unsigned int shift;
    std::size_t count;
    std::size_t blocks;  // blocks of all classes taken from the heap
};

ZNRMemoryPool::InitParamBase::~InitParamBase() {}

ZNRMemoryPool::~ZNRMemoryPool() {}

void ZNRMemoryPool::Dump() {}

ZNRBlockMemoryPool::InitParam::~InitParam() {}

ZNRBlockMemoryPool::ZNRBlockMemoryPool()
    : max_capacity_(0), current_size_(0), used_size_(0), index_(new FastIndex()) {}

ZNRBlockMemoryPool::~ZNRBlockMemoryPool() {
    Clear();
    for (auto& entry : *classes_) delete entry.second.block_list;
    delete index_;
}

void ZNRBlockMemoryPool::RebuildWalk() {
    index_->walk.clear();
    for (auto const& entry : *classes_)
        index_->walk.push_back(FastIndex::Class{entry.second.block_size, entry.second.max_count,
                                                entry.second.block_list});
}

std::uint64_t ZNRBlockMemoryPool::Init(InitParamBase* param) {
    InitParam* const init = dynamic_cast<InitParam*>(param);
    if (init == nullptr) return ZNRUserError(42);
    for (BlockPoolInfo info : *init->block_pools) {
        if (info.block_list != nullptr) return ZNRUserError(42);
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
            Block block = new (std::nothrow) unsigned char[info.block_size];
            if (block == nullptr || !index_->MakeRoom(info.block_list)) {
                delete[] block;
                result = ZNRUserError(44);
                break;
            }
            info.block_list->PutFree(block);
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
    std::vector<FastIndex::Class> const& walk = index_->walk;
    auto it = walk.begin();
    while (it != walk.end() && it->block_size < size) ++it;
    for (; it != walk.end(); ++it) {
        BlockList* const list = it->list;
        Block block = list->TakeLowest();
        if (block == nullptr) {
            if (list->used_count >= it->max_count) continue;
            block = new (std::nothrow) unsigned char[it->block_size];
            if (block == nullptr) break;
            if (!index_->MakeRoom(list)) {
                delete[] block;
                break;
            }
            current_size_ += it->block_size;
        }
        // Room was made when the block came from the heap.
        index_->Insert(FastIndex::Used{block, list, owner_file, owner_line});
        ++list->used_count;
        used_size_ += it->block_size;
        return block;
    }
    if (error != nullptr) *error = ZNRUserError(44);
    return nullptr;
}

void* ZNRBlockMemoryPool::Alloc(unsigned int size, char fill, char const* owner_file,
                                unsigned int owner_line, std::uint64_t* error) {
    void* const p = Alloc(size, owner_file, owner_line, error);
    if (p != nullptr) std::memset(p, fill, size);
    return p;
}

std::uint64_t ZNRBlockMemoryPool::Free(void* p) {
    // A live block has one address, so the index entry names the one class
    // whose used blocks hold it.
    FastIndex::Used* const used = index_->Find(static_cast<Block>(p));
    if (used == nullptr) return ZNRUserError(46);
    BlockList* const list = used->list;
    index_->Erase(used);
    --list->used_count;
    list->PutFree(static_cast<Block>(p));
    used_size_ -= list->block_size;
    return 0;
}

std::uint64_t ZNRBlockMemoryPool::Clear() {
    std::vector<FastIndex::Used> held;
    for (FastIndex::Class const& c : index_->walk) {
        BlockList* const list = c.list;
        delete[] list->lowest;
        list->lowest = nullptr;
        for (Block block : list->others) delete[] block;
        list->others.clear();

        held.clear();
        for (FastIndex::Used const& used : index_->slots)
            if (used.block != nullptr && used.list == list) held.push_back(used);
        std::sort(held.begin(), held.end(), [](FastIndex::Used const& a, FastIndex::Used const& b) {
            return Below(a.block, b.block);
        });
        for (FastIndex::Used const& used : held) {
            ZNR_LOG(WARNING, "Clear used memory block, size=%u, owner_info=%s:%u", c.block_size,
                    used.file != nullptr ? used.file : "", used.line);
            delete[] used.block;
        }
        list->used_count = 0;
        list->block_count = 0;
    }
    for (FastIndex::Used& used : index_->slots) used.block = nullptr;
    index_->count = 0;
    index_->blocks = 0;
    return 0;
}

void ZNRBlockMemoryPool::Dump() {}
