#include "znr-text-codec.h"

#include <cerrno>
#include <cstring>
#include <vector>

#include <iconv.h>
#include <langinfo.h>

namespace {

iconv_t const kBadDescriptor = reinterpret_cast<iconv_t>(-1);

thread_local bool t_cache_closed = false;

// Opening a descriptor loads converter modules and is far dearer than a
// conversion, so each thread keeps the ones it has used.
// A thread uses a handful of pairs: a scan of them builds no key.
class DescriptorCache {
public:
    ~DescriptorCache() {
        for (Entry& entry : descriptors_) iconv_close(entry.cd);
        t_cache_closed = true;
    }

    iconv_t Get(char const* from, char const* to) {
        for (Entry& entry : descriptors_)
            if (entry.from == from && entry.to == to) return entry.cd;
        iconv_t cd = iconv_open(to, from);
        if (cd != kBadDescriptor) descriptors_.push_back(Entry{from, to, cd});
        return cd;
    }

private:
    struct Entry {
        std::string from, to;
        iconv_t cd;
    };
    std::vector<Entry> descriptors_;
};

// Falls back to a private descriptor when the thread's cache is already gone
// (conversions run from destructors at thread or process end).
class Descriptor {
public:
    Descriptor(char const* from, char const* to) : owned_(t_cache_closed) {
        if (owned_) {
            cd_ = iconv_open(to, from);
        } else {
            thread_local DescriptorCache cache;
            cd_ = cache.Get(from, to);
        }
    }
    ~Descriptor() {
        if (owned_ && cd_ != kBadDescriptor) iconv_close(cd_);
    }
    Descriptor(Descriptor const&) = delete;
    Descriptor& operator=(Descriptor const&) = delete;

    iconv_t Get() const { return cd_; }

private:
    bool owned_;
    iconv_t cd_;
};

}  // namespace

std::string ZNRTextCodec::ProcessCharset() { return nl_langinfo(CODESET); }

char const* ZNRTextCodec::Utf16Charset() {
#if __BYTE_ORDER__ == __ORDER_BIG_ENDIAN__
    return "UTF-16BE";
#else
    return "UTF-16LE";
#endif
}

bool ZNRTextCodec::Convert(char const* from, char const* to, void const* in,
                           std::size_t in_size, std::string* out) {
    Descriptor descriptor(from, to);
    iconv_t cd = descriptor.Get();
    if (cd == kBadDescriptor) return false;
    iconv(cd, nullptr, nullptr, nullptr, nullptr);

    char* in_ptr = const_cast<char*>(static_cast<char const*>(in));
    std::size_t in_left = in_size;
    std::size_t written = out->size();
    out->resize(written + in_size * 2 + 16);
    bool ok = true;
    bool flushing = false;
    for (;;) {
        char* out_ptr = &(*out)[written];
        std::size_t out_left = out->size() - written;
        // A final call without input writes any shift sequence a stateful
        // charset still owes.
        std::size_t rc = flushing ? iconv(cd, nullptr, nullptr, &out_ptr, &out_left)
                                  : iconv(cd, &in_ptr, &in_left, &out_ptr, &out_left);
        int error = errno;
        written = static_cast<std::size_t>(out_ptr - out->data());
        if (rc != static_cast<std::size_t>(-1)) {
            if (flushing) break;
            flushing = true;
            continue;
        }
        if (error == E2BIG) {
            out->resize(out->size() * 2);
            continue;
        }
        ok = false;
        break;
    }
    out->resize(written);
    return ok;
}
