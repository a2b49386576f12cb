#ifndef PLEXA_ZNR_UNPACK_H
#define PLEXA_ZNR_UNPACK_H

#include <plexa/znr-export.h>
#include <plexa/znr-pack.h>

#include <string>

class ZNRByteBuffer;
class ZNRString;

// Reads back what ZNRPack wrote, through a cursor that only moves forward.
// Every integer is read little-endian whatever the byte-order flag says:
// the flag is only stored. Failed pops return library errors 22 (not
// enough data) or 23 (malformed text field).
class ZNR_API ZNRUnpack {
public:
    // With copy the bytes are copied into a private array; otherwise the
    // pointer is borrowed and must outlive the unpack.
    ZNRUnpack(unsigned char const* data, unsigned int size, bool bigendian, bool copy);
    // The copy always owns a private array of the source's bytes.
    ZNRUnpack(ZNRUnpack const& other);
    ZNRUnpack& operator=(ZNRUnpack const& other);
    virtual ~ZNRUnpack();

    std::uint64_t Pop(char* value);
    std::uint64_t Pop(unsigned char* value);
    std::uint64_t Pop(short* value);
    std::uint64_t Pop(unsigned short* value);
    std::uint64_t Pop(int* value);
    std::uint64_t Pop(unsigned int* value);
    std::uint64_t Pop(std::int64_t* value);
    std::uint64_t Pop(std::uint64_t* value);
    std::uint64_t Pop(ZNRString* value);
    std::uint64_t Pop(std::string* value);
    // Replaces the buffer's contents with the field's bytes.
    std::uint64_t Pop(ZNRByteBuffer* value);
    std::uint64_t Pop(ZNRMarshallable* value);

    bool bigendian() const { return bigendian_; }
    unsigned int GetPosition() const { return position_; }
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
