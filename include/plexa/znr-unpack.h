#ifndef PLEXA_ZNR_UNPACK_H
#define PLEXA_ZNR_UNPACK_H

#include <plexa/znr-export.h>
#include <plexa/znr-pack.h>

#include <string>

class ZNRByteBuffer;
class ZNRString;

/// Reads back what ZNRPack wrote, through a cursor that only moves forward.
/// Every integer is read little-endian whatever the byte-order flag says:
/// the flag is only stored. Failed pops return library errors 22 (not
/// enough data) or 23 (malformed text field). There is no sticky error: the
/// next pop starts where the failed one left the cursor. No lock: one
/// thread at a time.
class ZNR_API ZNRUnpack {
public:
    /// With copy the bytes are copied into a private array; otherwise the
    /// pointer is borrowed and must outlive the unpack. A null data is an
    /// empty unpack.
    ZNRUnpack(unsigned char const* data, unsigned int size, bool bigendian, bool copy);
    /// The copy always owns a private array of the source's bytes, and takes
    /// its flag and cursor.
    ZNRUnpack(ZNRUnpack const& other);
    /// As the copy constructor, after freeing its own private array.
    ZNRUnpack& operator=(ZNRUnpack const& other);
    /// Frees the private array, if any.
    virtual ~ZNRUnpack();

    /// 1 byte; error 22 at the end, cursor unchanged.
    std::uint64_t Pop(char* value);
    /// 1 byte; error 22 at the end, cursor unchanged.
    std::uint64_t Pop(unsigned char* value);
    /// 2 bytes; error 22 when fewer remain, cursor unchanged.
    std::uint64_t Pop(short* value);
    /// 2 bytes; error 22 when fewer remain, cursor unchanged.
    std::uint64_t Pop(unsigned short* value);
    /// 4 bytes; error 22 when fewer remain, cursor unchanged.
    std::uint64_t Pop(int* value);
    /// 4 bytes; error 22 when fewer remain, cursor unchanged.
    std::uint64_t Pop(unsigned int* value);
    /// 8 bytes; error 22 when fewer remain, cursor unchanged.
    std::uint64_t Pop(std::int64_t* value);
    /// 8 bytes; error 22 when fewer remain, cursor unchanged.
    std::uint64_t Pop(std::uint64_t* value);
    /// A text field (see ZNRPack::Push(ZNRString const&)). Error 22 when the
    /// count or the text is short, 23 when the last byte is not zero or the
    /// text is not UTF-8 (both logged at DEBUG: "Unpack string error, ...");
    /// once the count is read its 4 bytes stay consumed.
    std::uint64_t Pop(ZNRString* value);
    /// A u16 length and the bytes; error 22 when short (a length read stays
    /// consumed).
    std::uint64_t Pop(std::string* value);
    /// Replaces the buffer's contents with the field's bytes (u32 length
    /// first); error 22 when short (a length read stays consumed).
    std::uint64_t Pop(ZNRByteBuffer* value);
    /// value->Unmarshal(this), and its result.
    std::uint64_t Pop(ZNRMarshallable* value);

    /// The stored byte-order flag (reading ignores it).
    bool bigendian() const { return bigendian_; }
    /// Bytes read so far.
    unsigned int GetPosition() const { return position_; }
    /// Bytes in all.
    unsigned int GetSize() const { return size_; }

private:
    unsigned char const* Data() const { return copy_ ? private_ : borrowed_; }
    unsigned int Remain() const { return size_ - position_; }
    std::uint64_t PopFixed(void* value, unsigned int size);
    void CopyFrom(ZNRUnpack const& other);

    unsigned char* private_;
    unsigned char const* borrowed_;
    unsigned int size_;
    bool bigendian_;
    bool copy_;
    unsigned int position_;
};

#endif
