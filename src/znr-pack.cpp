#include <plexa/znr-pack.h>

#include <plexa/znr-byte-buffer.h>
#include <plexa/znr-error.h>
#include <plexa/znr-string.h>

#include "znr-text-codec.h"

#include <cstring>
#include <type_traits>

namespace {

// The first block a pack grows into: a reply of a few fields then takes one.
unsigned int const kFirstBlock = 256;

// Writes value least significant byte first unless bigendian; compilers
// make each loop one store (swapped for big-endian).
template <class T>
void Encode(T value, bool bigendian, unsigned char* out) {
    auto bits = static_cast<std::make_unsigned_t<T>>(value);
    if (bigendian) {
        for (unsigned int i = sizeof(T); i-- > 0; bits = static_cast<decltype(bits)>(bits >> 4 >> 4))
            out[i] = static_cast<unsigned char>(bits & 0xFFu);
    } else {
        for (unsigned int i = 0; i < sizeof(T); ++i, bits = static_cast<decltype(bits)>(bits >> 4 >> 4))
            out[i] = static_cast<unsigned char>(bits & 0xFFu);
    }
}

}  // namespace

ZNRPack::ZNRPack(unsigned int initial_capacity, unsigned int max_size, bool bigendian)
    : max_size_(max_size), buffer_(new ZNRByteBuffer(initial_capacity)), bigendian_(bigendian) {}

ZNRPack::ZNRPack(ZNRPack const& other)
    : max_size_(0), buffer_(new ZNRByteBuffer(*other.buffer_)), bigendian_(other.bigendian_) {}

ZNRPack& ZNRPack::operator=(ZNRPack const& other) {
    if (this != &other) {
        *buffer_ = *other.buffer_;
        bigendian_ = other.bigendian_;
    }
    return *this;
}

ZNRPack::~ZNRPack() { delete buffer_; }

bool ZNRPack::Fits(unsigned int size) const {
    return static_cast<std::uint64_t>(buffer_->GetDataCount()) + size <= max_size_;
}

// Pushes set the capacity to exactly what they need, but the block under it
// doubles (up to the limit): growing block by block would copy the whole
// pack on every push.
std::uint64_t ZNRPack::GrowBlock(std::uint64_t need) {
    std::uint64_t block = buffer_->GetBlockSize();
    if (need <= block) return 0;
    block = block * 2 > kFirstBlock ? block * 2 : kFirstBlock;
    if (block < need) block = need;
    if (block > max_size_) block = max_size_;
    return buffer_->Reserve(static_cast<unsigned int>(block));
}

std::uint64_t ZNRPack::Reserve(unsigned int size) {
    if (buffer_->GetFreeCapacity() >= size) return 0;
    // Fits() has kept this within max_size_.
    unsigned int const need = buffer_->GetDataCount() + size;
    std::uint64_t const error = GrowBlock(need);
    return error != 0 ? error : buffer_->SetCapacity(need);
}

// A length and its bytes grow the block once. A failure to grow shows in
// the push that meets it, so that the refusals stay those of each push.
void ZNRPack::ExpectField(std::uint64_t size) {
    std::uint64_t const need = buffer_->GetDataCount() + size;
    if (need > buffer_->GetCapacity() && need <= max_size_) GrowBlock(need);
}

// Small enough to inline, so that a fixed-width push is one test and a store.
inline unsigned char* ZNRPack::Room(unsigned int size, std::uint64_t* error) {
    unsigned int const count = buffer_->GetDataCount();
    unsigned int const capacity = buffer_->GetCapacity();
    unsigned char* const block = buffer_->GetData();
    // Within the capacity, the limit and a block: one test for the common case.
    unsigned int const room = block == nullptr ? 0 : capacity < max_size_ ? capacity : max_size_;
    return std::uint64_t{count} + size <= room ? block + count : Grow(size, error);
}

unsigned char* ZNRPack::Grow(unsigned int size, std::uint64_t* error) {
    *error = Fits(size) ? Reserve(size) : ZNR_ERROR_PACK_OVER_LIMIT;
    // A buffer left without a block takes nothing, as AppendData.
    if (*error != 0 || buffer_->GetData() == nullptr) return nullptr;
    return buffer_->GetData() + buffer_->GetDataCount();
}

inline std::uint64_t ZNRPack::Append(unsigned char const* data, unsigned int size) {
    std::uint64_t error = 0;
    unsigned char* const at = Room(size, &error);
    if (at == nullptr) return error;
    if (size > 0) std::memcpy(at, data, size);
    buffer_->ResetDataCount(buffer_->GetDataCount() + size);
    return 0;
}

inline std::uint64_t ZNRPack::PushFixed(void const* value, unsigned int size) {
    return Append(static_cast<unsigned char const*>(value), size);
}

std::uint64_t ZNRPack::Push(char value) { return PushFixed(&value, 1); }
std::uint64_t ZNRPack::Push(unsigned char value) { return PushFixed(&value, 1); }

#define ZNR_PACK_PUSH(TYPE)                      \
    std::uint64_t ZNRPack::Push(TYPE value) {    \
        unsigned char bytes[sizeof(TYPE)];       \
        Encode(value, bigendian_, bytes);        \
        return PushFixed(bytes, sizeof bytes);   \
    }
ZNR_PACK_PUSH(short)
ZNR_PACK_PUSH(unsigned short)
ZNR_PACK_PUSH(int)
ZNR_PACK_PUSH(unsigned int)
ZNR_PACK_PUSH(std::int64_t)
ZNR_PACK_PUSH(std::uint64_t)
#undef ZNR_PACK_PUSH

// The text is measured first and then converted straight into the buffer,
// so a text that has no UTF-8 form leaves the pack as it was.
std::uint64_t ZNRPack::Push(ZNRString const& value) {
    std::size_t length = 0;
    if (!ZNRTextCodec::Utf16ToUtf8(value.data(), value.size(), nullptr, &length) || length >= 0xFFFFFFFFu)
        return ZNR_ERROR_PACK_TEXT;
    unsigned int const count = static_cast<unsigned int>(length) + 1;
    ExpectField(4 + std::uint64_t{count});
    std::uint64_t error = Push(count);
    if (error != 0) return error;
    // The count stays in the buffer when the text does not fit.
    unsigned char* const text = Room(count, &error);
    if (text == nullptr) return error;
    ZNRTextCodec::Utf16ToUtf8(value.data(), value.size(), reinterpret_cast<char*>(text), &length);
    text[length] = 0;
    buffer_->ResetDataCount(buffer_->GetDataCount() + count);
    return 0;
}

std::uint64_t ZNRPack::Push(std::string const& value) {
    if (value.size() > 0xFFFF) return ZNR_ERROR_PACK_TEXT;
    unsigned int const length = static_cast<unsigned int>(value.size());
    ExpectField(2 + std::uint64_t{length});
    std::uint64_t const error = Push(static_cast<unsigned short>(length));
    if (error != 0) return error;
    return Append(reinterpret_cast<unsigned char const*>(value.data()), length);
}

std::uint64_t ZNRPack::Push(ZNRByteBuffer const& value) {
    unsigned int const length = value.GetDataCount();
    ExpectField(4 + std::uint64_t{length});
    std::uint64_t const error = Push(length);
    if (error != 0) return error;
    return Append(value.GetData(), length);
}

std::uint64_t ZNRPack::Push(ZNRMarshallable const& value) { return value.Marshal(this); }

std::uint64_t ZNRPack::Concatenate(ZNRPack const& other) {
    if (&other == this) {
        // Growing would move the bytes being appended.
        ZNRByteBuffer const bytes(*other.buffer_);
        return Concatenate(bytes.GetData(), bytes.GetDataCount());
    }
    return Concatenate(other.buffer_->GetData(), other.buffer_->GetDataCount());
}

std::uint64_t ZNRPack::Concatenate(unsigned char const* data, unsigned int size) {
    if (!Fits(size)) return ZNR_ERROR_PACK_OVER_LIMIT;
    if (size == 0 || data == nullptr) return 0;
    return Append(data, size);
}

std::uint64_t ZNRPack::Replace(unsigned int offset, unsigned char const* data, unsigned int size) {
    unsigned int const count = buffer_->GetDataCount();
    // On an empty pack only a replacement of nothing succeeds.
    bool const out_of_range =
        count == 0 ? size > 0 : (offset > count - 1 || count - offset < size);
    if (out_of_range) return ZNR_ERROR_PACK_RANGE;
    if (size > 0 && data != nullptr) std::memmove(buffer_->GetData() + offset, data, size);
    return 0;
}

std::uint64_t ZNRPack::ReplaceFixed(unsigned int offset, void const* value, unsigned int size) {
    return Replace(offset, static_cast<unsigned char const*>(value), size);
}

std::uint64_t ZNRPack::Replace(unsigned int offset, char value) { return ReplaceFixed(offset, &value, 1); }
std::uint64_t ZNRPack::Replace(unsigned int offset, unsigned char value) {
    return ReplaceFixed(offset, &value, 1);
}

#define ZNR_PACK_REPLACE(TYPE)                                     \
    std::uint64_t ZNRPack::Replace(unsigned int offset, TYPE value) { \
        unsigned char bytes[sizeof(TYPE)];                         \
        Encode(value, bigendian_, bytes);                          \
        return ReplaceFixed(offset, bytes, sizeof bytes);          \
    }
ZNR_PACK_REPLACE(short)
ZNR_PACK_REPLACE(unsigned short)
ZNR_PACK_REPLACE(int)
ZNR_PACK_REPLACE(unsigned int)
ZNR_PACK_REPLACE(std::int64_t)
ZNR_PACK_REPLACE(std::uint64_t)
#undef ZNR_PACK_REPLACE

void ZNRPack::Rewind(bool bigendian) {
    bigendian_ = bigendian;
    buffer_->CutDataTail(buffer_->GetDataCount());
}
