#ifndef PLEXA_ZNR_TLS_H
#define PLEXA_ZNR_TLS_H

#include <plexa/znr-export.h>

// One pointer-sized slot per thread. A stored null is a value, not an error.
class ZNR_API ZNRTLS {
public:
    ZNRTLS();
    virtual ~ZNRTLS();
    ZNRTLS(ZNRTLS const&) = delete;
    ZNRTLS& operator=(ZNRTLS const&) = delete;

    std::uint64_t Open();
    std::uint64_t Set(void* value);
    std::uint64_t Get(void** out);

private:
    std::uint32_t key_;
    bool opened_;
};

#endif
