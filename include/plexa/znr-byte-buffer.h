#ifndef PLEXA_ZNR_BYTE_BUFFER_H
#define PLEXA_ZNR_BYTE_BUFFER_H

#include <plexa/znr-export.h>

#include <cstdint>

class ZNRMemAllocator;

/// Contiguous bytes from an allocator: a capacity and a count of valid bytes
/// from the start. It never grows by itself: writers call ExtendCapacity.
/// AppendData copies nothing when the bytes do not fit; cutting more than
/// the valid bytes leaves the buffer empty.
///
/// ExtendCapacity and SetCapacity return 0 or a library error, and a failed
/// call leaves the buffer exactly as it was: 49 when the capacity would pass
/// 0xFFFFFFFF, 50 when the allocator gives no block. A constructor or copy
/// whose allocator gives no block holds no bytes (a null block, count 0).
/// Not synchronised: a buffer passes between threads by ownership (a buffer
/// handed to a device's Send is the reactor's from then on).
class ZNR_API ZNRByteBuffer {
public:
    /// capacity bytes (no block when 0), count 0. allocator is borrowed and
    /// must outlive the buffer; null means ZNRMemAllocator::Default().
    explicit ZNRByteBuffer(unsigned int capacity = 0, ZNRMemAllocator* allocator = nullptr);
    /// A copy of size bytes from data, capacity and count both size; a null
    /// data gives an empty buffer with no block. allocator as above.
    ZNRByteBuffer(unsigned char const* data, unsigned int size, ZNRMemAllocator* allocator = nullptr);
    /// Same allocator, capacity and valid bytes as other, in a block of its own.
    ZNRByteBuffer(ZNRByteBuffer const& other);
    /// Takes other's capacity and valid bytes into a new block from this
    /// buffer's own allocator, which it keeps.
    ZNRByteBuffer& operator=(ZNRByteBuffer const& other);
    /// Frees the block through the allocator.
    virtual ~ZNRByteBuffer();

    /// The block's start (null when there is none); it stays the buffer's
    /// and moves on any capacity change.
    unsigned char* GetData() const { return data_; }
    /// Bytes that may be held without a new block being asked for.
    unsigned int GetCapacity() const { return capacity_; }
    /// Valid bytes, from the start.
    unsigned int GetDataCount() const { return count_; }
    /// Capacity minus the valid bytes.
    unsigned int GetFreeCapacity() const { return capacity_ - count_; }
    /// The allocator (borrowed) that blocks come from.
    ZNRMemAllocator* GetAllocator() const { return allocator_; }
    /// Bytes in the block: the capacity, or more after Reserve.
    unsigned int GetBlockSize() const { return block_size_; }

    /// Sets the valid count to n, unchecked: n must not pass the capacity.
    /// For writers that filled GetData() directly.
    void ResetDataCount(unsigned int n) { count_ = n; }
    /// Copies n bytes from p after the valid bytes; does nothing when they
    /// do not fit the free capacity or there is no block.
    void AppendData(unsigned char const* p, unsigned int n);
    /// AppendData(other.GetData(), other.GetDataCount()).
    void AppendData(ZNRByteBuffer const& other);
    /// Adds n bytes of capacity (n 0 does nothing), keeping the valid bytes.
    /// Library error 49 (too large) or 50 (no memory), buffer unchanged.
    std::uint64_t ExtendCapacity(unsigned int n);
    /// Makes the capacity exactly n, cutting the count to n when larger; 0
    /// frees the block. Library error 50 (no memory), buffer unchanged.
    std::uint64_t SetCapacity(unsigned int n);
    /// Makes the block hold at least n bytes; capacity and count stay. Growth
    /// within the block then takes no new block, so a writer can grow its
    /// storage geometrically while the capacity stays what it asked for.
    /// Returns 0 or error 50, the buffer unchanged.
    std::uint64_t Reserve(unsigned int n);
    /// Drops n bytes from the front, moving the rest to the start.
    void CutData(unsigned int n);
    /// Drops n bytes from the end.
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
