#ifndef PLEXA_ZNR_BYTE_BUFFER_H
#define PLEXA_ZNR_BYTE_BUFFER_H

#include <plexa/znr-export.h>

#include <cstdint>

class ZNRMemAllocator;

// Contiguous bytes from an allocator: a capacity and a count of valid bytes
// from the start. It never grows by itself: writers call ExtendCapacity.
// AppendData copies nothing when the bytes do not fit; cutting more than
// the valid bytes leaves the buffer empty.
//
// ExtendCapacity and SetCapacity return 0 or a library error, and a failed
// call leaves the buffer exactly as it was: 49 when the capacity would pass
// 0xFFFFFFFF, 50 when the allocator gives no block. A constructor or copy
// whose allocator gives no block holds no bytes (a null block, count 0).
// Not synchronised: a buffer passes between threads by ownership.
class ZNR_API ZNRByteBuffer {
public:
    explicit ZNRByteBuffer(unsigned int capacity = 0, ZNRMemAllocator* allocator = nullptr);
    ZNRByteBuffer(unsigned char const* data, unsigned int size, ZNRMemAllocator* allocator = nullptr);
    ZNRByteBuffer(ZNRByteBuffer const& other);
    ZNRByteBuffer& operator=(ZNRByteBuffer const& other);
    virtual ~ZNRByteBuffer();

    unsigned char* GetData() const { return data_; }
    unsigned int GetCapacity() const { return capacity_; }
    unsigned int GetDataCount() const { return count_; }
    unsigned int GetFreeCapacity() const { return capacity_ - count_; }
    ZNRMemAllocator* GetAllocator() const { return allocator_; }
    // Bytes in the block: the capacity, or more after Reserve.
    unsigned int GetBlockSize() const { return block_size_; }

    void ResetDataCount(unsigned int n) { count_ = n; }
    void AppendData(unsigned char const* p, unsigned int n);
    void AppendData(ZNRByteBuffer const& other);
    std::uint64_t ExtendCapacity(unsigned int n);
    std::uint64_t SetCapacity(unsigned int n);
    // Makes the block hold at least n bytes; capacity and count stay. Growth
    // within the block then takes no new block, so a writer can grow its
    // storage geometrically while the capacity stays what it asked for.
    // Returns 0 or error 50, the buffer unchanged.
    std::uint64_t Reserve(unsigned int n);
    void CutData(unsigned int n);
    void CutDataTail(unsigned int n);

private:
    std::uint64_t Reallocate(unsigned int capacity, unsigned int block_size);
    void CopyBytesOf(ZNRByteBuffer const& other);

    unsigned int capacity_;
    unsigned int count_;
    unsigned char* data_;
    ZNRMemAllocator* allocator_;
    unsigned int block_size_;
};

#endif
