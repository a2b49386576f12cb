#include <plexa/znr-byte-buffer.h>
#include <plexa/znr-error.h>
#include <plexa/znr-mem-allocator.h>

#include <cstring>

namespace {

ZNRMemAllocator* OrDefault(ZNRMemAllocator* allocator) {
    return allocator != nullptr ? allocator : ZNRMemAllocator::Default();
}

}  // namespace

ZNRByteBuffer::ZNRByteBuffer(unsigned int capacity, ZNRMemAllocator* allocator)
    : capacity_(capacity), count_(0), data_(nullptr), allocator_(OrDefault(allocator)), block_size_(0) {
    if (capacity_ > 0)
        data_ = static_cast<unsigned char*>(allocator_->Alloc(capacity_, __FILE__, __LINE__));
    if (data_ != nullptr) block_size_ = capacity_;
}

ZNRByteBuffer::ZNRByteBuffer(unsigned char const* data, unsigned int size, ZNRMemAllocator* allocator)
    : capacity_(0), count_(0), data_(nullptr), allocator_(OrDefault(allocator)), block_size_(0) {
    if (data == nullptr) return;
    capacity_ = size;
    data_ = static_cast<unsigned char*>(allocator_->Alloc(size, __FILE__, __LINE__));
    if (data_ == nullptr) return;
    count_ = block_size_ = size;
    if (size > 0) std::memcpy(data_, data, size);
}

ZNRByteBuffer::ZNRByteBuffer(ZNRByteBuffer const& other)
    : capacity_(0), count_(0), data_(nullptr), allocator_(other.allocator_), block_size_(0) {
    CopyBytesOf(other);
}

ZNRByteBuffer& ZNRByteBuffer::operator=(ZNRByteBuffer const& other) {
    if (this == &other) return *this;
    if (data_ != nullptr) allocator_->Free(data_);
    CopyBytesOf(other);
    return *this;
}

// A block of other's capacity from this buffer's allocator, other's bytes in it.
void ZNRByteBuffer::CopyBytesOf(ZNRByteBuffer const& other) {
    data_ = nullptr;
    block_size_ = 0;
    capacity_ = other.capacity_;
    count_ = other.count_;
    if (capacity_ > 0) data_ = static_cast<unsigned char*>(allocator_->Alloc(capacity_, __FILE__, __LINE__));
    // A count over no block would send later cuts through a null pointer.
    if (data_ == nullptr) {
        count_ = 0;
    } else {
        block_size_ = capacity_;
    }
    if (count_ > 0) std::memcpy(data_, other.data_, count_);
}

ZNRByteBuffer::~ZNRByteBuffer() {
    if (data_ != nullptr) allocator_->Free(data_);
}

void ZNRByteBuffer::AppendData(unsigned char const* p, unsigned int n) {
    // Room is the writer's job; refusing beats writing past the block.
    if (n == 0 || data_ == nullptr || n > capacity_ - count_) return;
    std::memcpy(data_ + count_, p, n);
    count_ += n;
}

void ZNRByteBuffer::AppendData(ZNRByteBuffer const& other) {
    AppendData(other.GetData(), other.GetDataCount());
}

// A new block of `block_size` bytes holding the valid bytes, at most
// `capacity` of them. The old block goes only once the new one is there,
// so a failure changes nothing.
std::uint64_t ZNRByteBuffer::Reallocate(unsigned int capacity, unsigned int block_size) {
    unsigned char* block = static_cast<unsigned char*>(allocator_->Alloc(block_size, __FILE__, __LINE__));
    if (block == nullptr) return ZNR_ERROR_NO_MEMORY;
    if (count_ > capacity) count_ = capacity;
    if (count_ > 0) std::memcpy(block, data_, count_);
    if (data_ != nullptr) allocator_->Free(data_);
    data_ = block;
    capacity_ = capacity;
    block_size_ = block_size;
    return 0;
}

std::uint64_t ZNRByteBuffer::ExtendCapacity(unsigned int n) {
    if (n == 0) return 0;
    if (n > 0xFFFFFFFFu - capacity_) return ZNR_ERROR_TOO_LARGE;
    return SetCapacity(capacity_ + n);
}

std::uint64_t ZNRByteBuffer::SetCapacity(unsigned int n) {
    if (n == capacity_) return 0;
    if (n == 0) {
        if (data_ != nullptr) allocator_->Free(data_);
        data_ = nullptr;
        capacity_ = count_ = block_size_ = 0;
        return 0;
    }
    if (n > capacity_ && n <= block_size_) {
        capacity_ = n;
        return 0;
    }
    return Reallocate(n, n);
}

std::uint64_t ZNRByteBuffer::Reserve(unsigned int n) {
    return n <= block_size_ ? 0 : Reallocate(capacity_, n);
}

void ZNRByteBuffer::CutData(unsigned int n) {
    if (n >= count_) {
        count_ = 0;
        return;
    }
    std::memmove(data_, data_ + n, count_ - n);
    count_ -= n;
}

void ZNRByteBuffer::CutDataTail(unsigned int n) {
    count_ = n >= count_ ? 0 : count_ - n;
}
