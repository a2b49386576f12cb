#include <plexa/znr-pack.h>

#include <plexa/znr-byte-buffer.h>
#include <plexa/znr-error.h>
#include <plexa/znr-string.h>

#include <cstring>
#include <type_traits>

namespace {

// Writes the low `width` bytes of value, least significant first unless
// bigendian.
template <class T>
void Encode(T value, bool bigendian, unsigned char* out) {
    auto bits = static_cast<std::make_unsigned_t<T>>(value);
    for (unsigned int i = 0; i < sizeof(T); ++i) {
        unsigned int const at = bigendian ? static_cast<unsigned int>(sizeof(T)) - 1 - i : i;
        out[at] = static_cast<unsigned char>(bits & 0xFFu);
        bits = static_cast<decltype(bits)>(bits >> 4 >> 4);
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
std::uint64_t ZNRPack::Reserve(unsigned int size) {
    if (buffer_->GetFreeCapacity() >= size) return 0;
    // Fits() has kept this within max_size_.
    unsigned int const need = buffer_->GetDataCount() + size;
    if (need > buffer_->GetBlockSize()) {
        std::uint64_t block = 2 * static_cast<std::uint64_t>(buffer_->GetBlockSize());
        if (block < need) block = need;
        if (block > max_size_) block = max_size_;
        std::uint64_t const error = buffer_->Reserve(static_cast<unsigned int>(block));
        if (error != 0) return error;
    }
    return buffer_->SetCapacity(need);
}

std::uint64_t ZNRPack::Append(unsigned char const* data, unsigned int size) {
    if (!Fits(size)) return ZNR_ERROR_PACK_OVER_LIMIT;
    std::uint64_t const error = Reserve(size);
    if (error != 0) return error;
    buffer_->AppendData(data, size);
    return 0;
}

std::uint64_t ZNRPack::PushFixed(void const* value, unsigned int size) {
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

std::uint64_t ZNRPack::Push(ZNRString const& value) {
    std::string utf8;
    if (!value.ToUtf8Str(&utf8) || utf8.size() >= 0xFFFFFFFFu) return ZNR_ERROR_PACK_TEXT;
    unsigned int const count = static_cast<unsigned int>(utf8.size()) + 1;
    std::uint64_t const error = Push(count);
    if (error != 0) return error;
    // The count stays in the buffer when the text does not fit.
    return Append(reinterpret_cast<unsigned char const*>(utf8.c_str()), count);
}

std::uint64_t ZNRPack::Push(std::string const& value) {
    if (value.size() > 0xFFFF) return ZNR_ERROR_PACK_TEXT;
    unsigned int const length = static_cast<unsigned int>(value.size());
    std::uint64_t const error = Push(static_cast<unsigned short>(length));
    if (error != 0) return error;
    return Append(reinterpret_cast<unsigned char const*>(value.data()), length);
}

std::uint64_t ZNRPack::Push(ZNRByteBuffer const& value) {
    unsigned int const length = value.GetDataCount();
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
