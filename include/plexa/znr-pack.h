#ifndef PLEXA_ZNR_PACK_H
#define PLEXA_ZNR_PACK_H

#include <plexa/znr-export.h>

#include <string>

class ZNRByteBuffer;
class ZNRPack;
class ZNRString;
class ZNRUnpack;

// A message that writes itself into a pack and reads itself back.
class ZNR_API ZNRMarshallable {
public:
    ZNRMarshallable() {}
    ZNRMarshallable(ZNRMarshallable const&) {}
    ZNRMarshallable& operator=(ZNRMarshallable const&) { return *this; }
    virtual ~ZNRMarshallable() {}

    virtual std::uint64_t Marshal(ZNRPack* pack) const = 0;
    // -1: the packed size is not known in advance.
    virtual int GetPackedSize() { return -1; }
    virtual std::uint64_t Unmarshal(ZNRUnpack* unpack) = 0;
};

// Serialises values into a buffer that grows up to a hard limit. Integers
// are written little-endian, or swapped to big-endian when the byte-order
// flag is set. Failed pushes return library errors 19 (over the limit),
// 20 (replace out of range) or 21 (text not convertible or too long), or
// the buffer's error when it cannot grow. A push that does not fit sets the
// capacity to exactly what it needs, while the block under it doubles up to
// the limit, so N pushes copy O(N) bytes.
class ZNR_API ZNRPack {
public:
    ZNRPack(unsigned int initial_capacity, unsigned int max_size, bool bigendian);
    // Copies bytes and byte order only: the copy has a limit of 0, so it
    // serves for reading and sending, not for further pushes.
    ZNRPack(ZNRPack const& other);
    // Copies bytes and byte order; the target keeps its own limit.
    ZNRPack& operator=(ZNRPack const& other);
    virtual ~ZNRPack();

    std::uint64_t Push(char value);
    std::uint64_t Push(unsigned char value);
    std::uint64_t Push(short value);
    std::uint64_t Push(unsigned short value);
    std::uint64_t Push(int value);
    std::uint64_t Push(unsigned int value);
    std::uint64_t Push(std::int64_t value);
    std::uint64_t Push(std::uint64_t value);
    // u32 count of UTF-8 bytes plus one, the bytes, a zero byte.
    std::uint64_t Push(ZNRString const& value);
    // u16 length, the bytes, no terminator.
    std::uint64_t Push(std::string const& value);
    // u32 length, the bytes.
    std::uint64_t Push(ZNRByteBuffer const& value);
    std::uint64_t Push(ZNRMarshallable const& value);

    std::uint64_t Concatenate(ZNRPack const& other);
    std::uint64_t Concatenate(unsigned char const* data, unsigned int size);

    // Overwrite bytes already written; the size never changes.
    std::uint64_t Replace(unsigned int offset, unsigned char const* data, unsigned int size);
    std::uint64_t Replace(unsigned int offset, char value);
    std::uint64_t Replace(unsigned int offset, unsigned char value);
    std::uint64_t Replace(unsigned int offset, short value);
    std::uint64_t Replace(unsigned int offset, unsigned short value);
    std::uint64_t Replace(unsigned int offset, int value);
    std::uint64_t Replace(unsigned int offset, unsigned int value);
    std::uint64_t Replace(unsigned int offset, std::int64_t value);
    std::uint64_t Replace(unsigned int offset, std::uint64_t value);

    // Empties the pack (capacity kept) and sets the byte order.
    void Rewind(bool bigendian);

    ZNRByteBuffer const* GetBuffer() const { return buffer_; }
    unsigned int GetMaxCapacity() const { return max_size_; }
    bool Bigendian() const { return bigendian_; }

private:
    std::uint64_t PushFixed(void const* value, unsigned int size);
    std::uint64_t Append(unsigned char const* data, unsigned int size);
    std::uint64_t ReplaceFixed(unsigned int offset, void const* value, unsigned int size);
    bool Fits(unsigned int size) const;
    std::uint64_t Reserve(unsigned int size);

    unsigned int max_size_;
    ZNRByteBuffer* buffer_;
    bool bigendian_;
};

#endif
