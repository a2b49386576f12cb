#ifndef PLEXA_ZNR_BYTE_BUFFER_H
#define PLEXA_ZNR_BYTE_BUFFER_H

#include <plexa/znr-export.h>

class ZNRMemAllocator;

// Contiguous bytes from an allocator: a capacity and a count of valid bytes
// from the start. It never grows by itself: writers call ExtendCapacity.
// AppendData copies nothing when the bytes do not fit; cutting more than
// the valid bytes leaves the buffer empty.
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

    void ResetDataCount(unsigned int n) { count_ = n; }
    void AppendData(unsigned char const* p, unsigned int n);
    void AppendData(ZNRByteBuffer const& other);
    void ExtendCapacity(unsigned int n);
    void SetCapacity(unsigned int n);
    void CutData(unsigned int n);
    void CutDataTail(unsigned int n);

private:
    void Reallocate(unsigned int capacity);

    unsigned int capacity_;
    unsigned int count_;
    unsigned char* data_;
    ZNRMemAllocator* allocator_;
};

#endif
