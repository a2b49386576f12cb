#include <plexa/plexa.h>

#include <gtest/gtest.h>

#include <set>
#include <string>
#include <vector>

namespace {

// Records every request and checks that each block comes back exactly once.
class CountingAllocator : public ZNRMemAllocator {
public:
    void* Alloc(unsigned int size, char const* owner_file, unsigned int) override {
        sizes.push_back(size);
        files.push_back(owner_file != nullptr ? owner_file : "");
        return fail ? nullptr : *live.insert(new unsigned char[size]).first;
    }
    std::uint64_t Free(void* p) override {
        ++frees;
        EXPECT_EQ(1u, live.erase(static_cast<unsigned char*>(p)));
        delete[] static_cast<unsigned char*>(p);
        return 0;
    }
    ~CountingAllocator() override { EXPECT_TRUE(live.empty()); }

    std::vector<unsigned int> sizes;
    std::vector<std::string> files;
    std::set<unsigned char*> live;
    int frees = 0;
    bool fail = false;
};

unsigned char const* Bytes(char const* text) { return reinterpret_cast<unsigned char const*>(text); }

std::string Content(ZNRByteBuffer const& b) {
    return std::string(reinterpret_cast<char const*>(b.GetData()), b.GetDataCount());
}

TEST(ByteBufferTest, ConstructionGrowthAndOwnerNames) {
    CountingAllocator alloc;
    ZNRByteBuffer empty(0u, &alloc), null_data(nullptr, 8, &alloc);
    EXPECT_EQ(nullptr, empty.GetData());
    EXPECT_EQ(0u, null_data.GetCapacity());
    EXPECT_TRUE(alloc.sizes.empty());

    empty.ExtendCapacity(0);
    empty.ExtendCapacity(16);
    EXPECT_EQ(0u, empty.GetDataCount());
    empty.AppendData(Bytes("0123456789abcdef"), 16);
    empty.AppendData(Bytes("X"), 1);  // no room: the buffer does not grow
    EXPECT_EQ("0123456789abcdef", Content(empty));
    EXPECT_EQ(16u, empty.GetCapacity());
    empty.ExtendCapacity(4);
    ZNRByteBuffer tail(Bytes("WXYZ"), 4, &alloc);
    EXPECT_EQ(0u, tail.GetFreeCapacity());
    empty.AppendData(tail);
    EXPECT_EQ("0123456789abcdefWXYZ", Content(empty));
    empty.ResetDataCount(3);
    EXPECT_EQ(17u, empty.GetFreeCapacity());
    EXPECT_EQ((std::vector<unsigned int>{16, 20, 4}), alloc.sizes);
    EXPECT_EQ(1, alloc.frees);
    for (std::string const& file : alloc.files) EXPECT_NE(std::string::npos, file.find("znr-byte-buffer")) << file;
    EXPECT_EQ(ZNRSingleton<ZNRMemAllocator>::Instance(), ZNRByteBuffer(4).GetAllocator());

    // A failing allocator leaves a null block with the stated capacity.
    alloc.fail = true;
    ZNRByteBuffer failed(8, &alloc);
    failed.AppendData(Bytes("abc"), 3);
    EXPECT_EQ(nullptr, failed.GetData());
    EXPECT_EQ(8u, failed.GetCapacity());
    EXPECT_EQ(0u, failed.GetDataCount());
}

TEST(ByteBufferTest, SetCapacityAndCutting) {
    CountingAllocator alloc;
    ZNRByteBuffer buffer(Bytes("abcdefghij"), 10, &alloc);
    buffer.SetCapacity(10);
    buffer.SetCapacity(4);
    EXPECT_EQ("abcd", Content(buffer));
    buffer.SetCapacity(32);
    EXPECT_EQ("abcd", Content(buffer));
    EXPECT_EQ((std::vector<unsigned int>{10, 4, 32}), alloc.sizes);
    buffer.SetCapacity(0);
    buffer.SetCapacity(0);
    EXPECT_EQ(nullptr, buffer.GetData());
    EXPECT_EQ(0u, buffer.GetCapacity() + buffer.GetDataCount());
    EXPECT_EQ(3, alloc.frees);

    // The remaining bytes overlap their new place; the block stays.
    ZNRByteBuffer text(Bytes("0123456789ABCDEFGHIJ"), 20, &alloc);
    unsigned char* const block = text.GetData();
    text.CutData(2);
    EXPECT_EQ("23456789ABCDEFGHIJ", Content(text));
    text.CutDataTail(8);
    text.CutData(7);
    EXPECT_EQ("9AB", Content(text));
    EXPECT_EQ(block, text.GetData());
    text.CutData(100);
    EXPECT_EQ(0u, text.GetDataCount());
    text.ResetDataCount(2);
    text.CutDataTail(5);
    EXPECT_EQ(0u, text.GetDataCount());
    EXPECT_EQ(20u, text.GetCapacity());

    // Growth within a reserved block takes no new block; shrinking takes an exact one.
    ZNRByteBuffer reserved(Bytes("ab"), 2, &alloc);
    EXPECT_EQ(0u, reserved.Reserve(16));
    EXPECT_EQ(0u, reserved.Reserve(8));
    EXPECT_EQ(2u, reserved.GetCapacity());
    EXPECT_EQ(0u, reserved.ExtendCapacity(14));
    EXPECT_EQ(16u, reserved.GetCapacity());
    EXPECT_EQ(0u, reserved.SetCapacity(3));
    EXPECT_EQ("ab", Content(reserved));
    EXPECT_EQ(3u, reserved.GetBlockSize());
    EXPECT_EQ((std::vector<unsigned int>{10, 4, 32, 20, 2, 16, 3}), alloc.sizes);
}

// Growth that cannot be had reports why and changes nothing.
TEST(ByteBufferTest, FailedGrowthLeavesTheBufferAsItWas) {
    CountingAllocator alloc;
    std::string const hundred(100, 'h');
    ZNRByteBuffer buffer(Bytes(hundred.c_str()), 100, &alloc);
    unsigned char* const block = buffer.GetData();
    struct { bool fail; unsigned int extend, set; std::uint64_t error; } const rows[] = {
        {false, 0xFFFFFFFFu - 50, 0, ZNRUserError(49)}, {false, 0xFFFFFFFFu - 99, 0, ZNRUserError(49)},
        {true, 0xFFFFFFFFu - 100, 0, ZNRUserError(50)}, {true, 1, 0, ZNRUserError(50)},
        {true, 0, 101, ZNRUserError(50)}, {true, 0, 10, ZNRUserError(50)},
    };
    for (auto const& row : rows) {
        alloc.fail = row.fail;
        EXPECT_EQ(row.error, row.extend != 0 ? buffer.ExtendCapacity(row.extend) : buffer.SetCapacity(row.set))
            << row.extend << " " << row.set;
        EXPECT_EQ(100u, buffer.GetCapacity());
        EXPECT_EQ(block, buffer.GetData());
        EXPECT_EQ(hundred, Content(buffer));
    }
    EXPECT_EQ(0, alloc.frees);

    // Copies that get no block hold no bytes, so cutting them is harmless.
    ZNRByteBuffer copy(buffer), from_bytes(Bytes("abc"), 3, &alloc), assigned(0u, &alloc);
    assigned = buffer;
    for (ZNRByteBuffer* b : {&copy, &from_bytes, &assigned}) {
        EXPECT_EQ(0u, b->GetDataCount());
        b->CutData(1);
    }
    alloc.fail = false;
    EXPECT_EQ(0u, buffer.ExtendCapacity(28));
    buffer.CutData(98);
    EXPECT_EQ("hh", Content(buffer));
}

TEST(ByteBufferTest, CopiesKeepTheirOwnAllocators) {
    CountingAllocator alloc, other;
    ZNRByteBuffer source(Bytes("payload"), 7, &alloc);
    source.ExtendCapacity(9);
    ZNRByteBuffer copy(source), target(Bytes("old"), 3, &other);
    EXPECT_EQ(&alloc, copy.GetAllocator());
    EXPECT_NE(source.GetData(), copy.GetData());
    target = source;
    target = static_cast<ZNRByteBuffer const&>(target);
    for (ZNRByteBuffer const* b : {&copy, &target}) {
        EXPECT_EQ(16u, b->GetCapacity());
        EXPECT_EQ("payload", Content(*b));
    }
    EXPECT_EQ(&other, target.GetAllocator());
    EXPECT_EQ((std::vector<unsigned int>{3, 16}), other.sizes);

    ZNRByteBuffer empty(0u, &other), empty_copy(empty);
    target = empty;
    EXPECT_EQ(nullptr, empty_copy.GetData());
    EXPECT_EQ(nullptr, target.GetData());
    EXPECT_EQ(2u, other.sizes.size());
}

TEST(ByteBufferTest, WorksOverAPoolAllocator) {
    ZNRBlockMemoryPool::InitParam param;
    param.block_pools->push_back(ZNRBlockMemoryPool::BlockPoolInfo(64, 2, 2));
    ZNRPoolMemAllocator<ZNRBlockMemoryPool, ZNRBlockMemoryPool::InitParam> pool(param);
    ZNRByteBuffer buffer(Bytes("abc"), 3, &pool);
    unsigned char* const first = buffer.GetData();
    buffer.ExtendCapacity(10);
    EXPECT_NE(first, buffer.GetData());
    buffer.SetCapacity(3);  // the old block was freed first: it comes back
    EXPECT_EQ(first, buffer.GetData());
    buffer.SetCapacity(100);  // beyond every block size: from the heap
    EXPECT_EQ("abc", Content(buffer));
}

}  // namespace
