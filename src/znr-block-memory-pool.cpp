#include <plexa/znr-block-memory-pool.h>
#include <plexa/znr-error.h>
#include <plexa/znr-logger.h>

#include <cstring>
#include <map>
#include <new>
#include <set>

namespace {

// Keeps the nodes a container gives back and hands them out again, so that
// moving a block between the free set and the used map makes no heap call
// once both have seen their first nodes.
class NodeCache {
public:
    NodeCache() : head_(nullptr), size_(0) {}
    ~NodeCache() {
        while (head_ != nullptr) {
            Node* next = head_->next;
            ::operator delete(head_);
            head_ = next;
        }
    }
    NodeCache(NodeCache const&) = delete;
    NodeCache& operator=(NodeCache const&) = delete;

    void* Take(std::size_t size) {
        if (size_ == 0 && size >= sizeof(Node)) size_ = size;
        if (size == size_ && head_ != nullptr) {
            Node* node = head_;
            head_ = node->next;
            return node;
        }
        return ::operator new(size);
    }

    void Give(void* p, std::size_t size) {
        if (size != size_) {
            ::operator delete(p);
            return;
        }
        Node* node = static_cast<Node*>(p);
        node->next = head_;
        head_ = node;
    }

private:
    struct Node {
        Node* next;
    };
    Node* head_;
    std::size_t size_;
};

template <class T>
struct NodeAllocator {
    typedef T value_type;

    explicit NodeAllocator(NodeCache* c) : cache(c) {}
    template <class U>
    NodeAllocator(NodeAllocator<U> const& other) : cache(other.cache) {}

    T* allocate(std::size_t n) {
        if (n == 1) return static_cast<T*>(cache->Take(sizeof(T)));
        return static_cast<T*>(::operator new(n * sizeof(T)));
    }
    void deallocate(T* p, std::size_t n) {
        if (n == 1)
            cache->Give(p, sizeof(T));
        else
            ::operator delete(p);
    }
    template <class U>
    bool operator==(NodeAllocator<U> const& other) const { return cache == other.cache; }
    template <class U>
    bool operator!=(NodeAllocator<U> const& other) const { return cache != other.cache; }

    NodeCache* cache;
};

struct Owner {
    char const* file;
    unsigned int line;
};

typedef unsigned char* Block;
typedef std::less<Block> ByAddress;

}  // namespace

struct ZNRBlockMemoryPool::BlockList {
    BlockList()
        : free_blocks(ByAddress(), NodeAllocator<Block>(&free_nodes)),
          used_blocks(ByAddress(), NodeAllocator<std::pair<Block const, Owner>>(&used_nodes)) {}

    // The caches outlive the containers that draw on them.
    NodeCache free_nodes;
    NodeCache used_nodes;
    std::set<Block, ByAddress, NodeAllocator<Block>> free_blocks;
    std::map<Block, Owner, ByAddress, NodeAllocator<std::pair<Block const, Owner>>> used_blocks;
};

ZNRMemoryPool::InitParamBase::~InitParamBase() {}

ZNRMemoryPool::~ZNRMemoryPool() {}

void ZNRMemoryPool::Dump() {}

ZNRBlockMemoryPool::InitParam::~InitParam() {}

ZNRBlockMemoryPool::ZNRBlockMemoryPool() : max_capacity_(0), current_size_(0), used_size_(0) {}

ZNRBlockMemoryPool::~ZNRBlockMemoryPool() {
    Clear();
    for (auto& entry : *classes_) delete entry.second.block_list;
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
        info.block_list = new BlockList();
        std::uint64_t result = 0;
        for (std::uint32_t i = 0; i < info.prealloc_count; ++i) {
            Block block = new (std::nothrow) unsigned char[info.block_size];
            if (block == nullptr) {
                result = ZNRUserError(44);
                break;
            }
            info.block_list->free_blocks.insert(block);
            current_size_ += info.block_size;
        }
        max_capacity_ += info.block_size * info.max_count;
        classes_->emplace(info.block_size, info);
        if (result != 0) return result;
    }
    return 0;
}

void* ZNRBlockMemoryPool::Alloc(unsigned int size, char const* owner_file, unsigned int owner_line,
                                std::uint64_t* error) {
    for (auto it = classes_->lower_bound(size); it != classes_->end(); ++it) {
        BlockPoolInfo const& info = it->second;
        BlockList* const list = info.block_list;
        Block block = nullptr;
        if (!list->free_blocks.empty()) {
            auto lowest = list->free_blocks.begin();
            block = *lowest;
            list->free_blocks.erase(lowest);
        } else if (list->used_blocks.size() < info.max_count) {
            block = new (std::nothrow) unsigned char[info.block_size];
            if (block == nullptr) break;
            current_size_ += info.block_size;
        } else {
            continue;
        }
        list->used_blocks.emplace(block, Owner{owner_file, owner_line});
        used_size_ += info.block_size;
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
    Block const block = static_cast<Block>(p);
    for (auto& entry : *classes_) {
        BlockList* const list = entry.second.block_list;
        // The ends of an ordered map are at hand: most classes are ruled
        // out without a search.
        if (list->used_blocks.empty() || ByAddress()(block, list->used_blocks.begin()->first) ||
            ByAddress()(list->used_blocks.rbegin()->first, block))
            continue;
        auto used = list->used_blocks.find(block);
        if (used == list->used_blocks.end()) continue;
        list->used_blocks.erase(used);
        list->free_blocks.insert(block);
        used_size_ -= entry.second.block_size;
        return 0;
    }
    return ZNRUserError(46);
}

std::uint64_t ZNRBlockMemoryPool::Clear() {
    for (auto& entry : *classes_) {
        BlockPoolInfo const& info = entry.second;
        BlockList* const list = info.block_list;
        for (Block block : list->free_blocks) delete[] block;
        list->free_blocks.clear();
        for (auto const& used : list->used_blocks) {
            ZNR_LOG(WARNING, "Clear used memory block, size=%u, owner_info=%s:%u", info.block_size,
                    used.second.file != nullptr ? used.second.file : "", used.second.line);
            delete[] used.first;
        }
        list->used_blocks.clear();
    }
    return 0;
}

void ZNRBlockMemoryPool::Dump() {}
