#ifndef PLEXA_ZNR_PACK_H
#define PLEXA_ZNR_PACK_H

#include <plexa/znr-export.h>

#include <string>

class ZNRByteBuffer;
class ZNRPack;
class ZNRString;
class ZNRUnpack;

/// A message that writes itself into a pack and reads itself back. The
/// base holds nothing: copying it copies nothing.
class ZNR_API ZNRMarshallable {
public:
    /// Nothing to set up.
    ZNRMarshallable() {}
    /// Copies nothing.
    ZNRMarshallable(ZNRMarshallable const&) {}
    /// Copies nothing.
    ZNRMarshallable& operator=(ZNRMarshallable const&) { return *this; }
    /// Nothing to release.
    virtual ~ZNRMarshallable() {}

    /// Pushes the fields into pack (borrowed); 0 or the first push's error.
    virtual std::uint64_t Marshal(ZNRPack* pack) const = 0;
    /// -1: the packed size is not known in advance.
    virtual int GetPackedSize() { return -1; }
    /// Pops the fields from unpack (borrowed); 0 or the first pop's error.
    virtual std::uint64_t Unmarshal(ZNRUnpack* unpack) = 0;
};

/// Serialises values into a buffer that grows up to a hard limit. Integers
/// are written little-endian, or swapped to big-endian when the byte-order
/// flag is set. Failed pushes return library errors 19 (over the limit),
/// 20 (replace out of range) or 21 (text not convertible or too long), or
/// the buffer's error when it cannot grow (library error 50, no memory). A
/// push that does not fit sets the
/// capacity to exactly what it needs, while the block under it doubles (from
/// 256 bytes) up to the limit, so N pushes copy O(N) bytes. A failed push of a fixed-width
/// value leaves the pack unchanged. No lock: one thread at a time.
class ZNR_API ZNRPack {
public:
    /// An empty pack that may hold at most max_size bytes, its buffer (from
    /// the default allocator) starting at initial_capacity bytes.
    ZNRPack(unsigned int initial_capacity, unsigned int max_size, bool bigendian);
    /// Copies bytes and byte order only: the copy has a limit of 0, so it
    /// serves for reading and sending, not for further pushes.
    ZNRPack(ZNRPack const& other);
    /// Copies bytes and byte order; the target keeps its own limit.
    ZNRPack& operator=(ZNRPack const& other);
    /// Frees the buffer.
    virtual ~ZNRPack();

    /// 1 byte.
    std::uint64_t Push(char value);
    /// 1 byte.
    std::uint64_t Push(unsigned char value);
    /// 2 bytes.
    std::uint64_t Push(short value);
    /// 2 bytes.
    std::uint64_t Push(unsigned short value);
    /// 4 bytes.
    std::uint64_t Push(int value);
    /// 4 bytes.
    std::uint64_t Push(unsigned int value);
    /// 8 bytes.
    std::uint64_t Push(std::int64_t value);
    /// 8 bytes.
    std::uint64_t Push(std::uint64_t value);
    /// u32 count of UTF-8 bytes plus one, the bytes, a zero byte. Error 21
    /// when the text has no UTF-8 form; error 19 when only the count fits,
    /// which then stays in the pack.
    std::uint64_t Push(ZNRString const& value);
    /// u16 length, the bytes, no terminator. Error 21 (nothing appended)
    /// above 65,535 bytes; error 19 when only the length fits, which stays.
    std::uint64_t Push(std::string const& value);
    /// u32 length, the valid bytes. Error 19 when only the length fits,
    /// which stays.
    std::uint64_t Push(ZNRByteBuffer const& value);
    /// value.Marshal(this), and its result.
    std::uint64_t Push(ZNRMarshallable const& value);

    /// Appends other's bytes as they are; error 19 (nothing appended) past
    /// the limit.
    std::uint64_t Concatenate(ZNRPack const& other);
    /// Appends size raw bytes from data; error 19 (nothing appended) past
    /// the limit. A null data or size 0 appends nothing.
    std::uint64_t Concatenate(unsigned char const* data, unsigned int size);

    /// Overwrite bytes already written; the size never changes. Error 20
    /// (nothing written) when [offset, offset + size) is not within the
    /// pack. The value forms are swapped first when the flag is set.
    std::uint64_t Replace(unsigned int offset, unsigned char const* data, unsigned int size);
    /// 1 byte at offset.
    std::uint64_t Replace(unsigned int offset, char value);
    /// 1 byte at offset.
    std::uint64_t Replace(unsigned int offset, unsigned char value);
    /// 2 bytes at offset.
    std::uint64_t Replace(unsigned int offset, short value);
    /// 2 bytes at offset.
    std::uint64_t Replace(unsigned int offset, unsigned short value);
    /// 4 bytes at offset.
    std::uint64_t Replace(unsigned int offset, int value);
    /// 4 bytes at offset.
    std::uint64_t Replace(unsigned int offset, unsigned int value);
    /// 8 bytes at offset.
    std::uint64_t Replace(unsigned int offset, std::int64_t value);
    /// 8 bytes at offset.
    std::uint64_t Replace(unsigned int offset, std::uint64_t value);

    /// Empties the pack (capacity kept) and sets the byte order.
    void Rewind(bool bigendian);

    /// The bytes written so far; the buffer stays the pack's.
    ZNRByteBuffer const* GetBuffer() const { return buffer_; }
    /// The most bytes the pack may hold.
    unsigned int GetMaxCapacity() const { return max_size_; }
    /// True when integers are written big-endian.
    bool Bigendian() const { return bigendian_; }

private:
    std::uint64_t PushFixed(void const* value, unsigned int size);
    unsigned char* Room(unsigned int size, std::uint64_t* error);
    unsigned char* Grow(unsigned int size, std::uint64_t* error);
    std::uint64_t Append(unsigned char const* data, unsigned int size);
    std::uint64_t ReplaceFixed(unsigned int offset, void const* value, unsigned int size);
    bool Fits(unsigned int size) const;
    std::uint64_t GrowBlock(std::uint64_t need);
    std::uint64_t Reserve(unsigned int size);
    void ExpectField(std::uint64_t size);

    unsigned int max_size_;
    ZNRByteBuffer* buffer_;
    bool bigendian_;
};

#endif
