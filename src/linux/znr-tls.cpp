#include <plexa/znr-error.h>
#include <plexa/znr-tls.h>

#include <cerrno>
#include <pthread.h>

ZNRTLS::ZNRTLS() : key_(0), opened_(false) {}

ZNRTLS::~ZNRTLS() {
    if (opened_) pthread_key_delete(static_cast<pthread_key_t>(key_));
}

std::uint64_t ZNRTLS::Open() {
    pthread_key_t key;
    int const rc = pthread_key_create(&key, nullptr);
    if (rc != 0) return ZNRSysError(rc);
    key_ = static_cast<std::uint32_t>(key);
    opened_ = true;
    return 0;
}

std::uint64_t ZNRTLS::Set(void* value) {
    if (!opened_) return ZNRSysError(EINVAL);
    int const rc = pthread_setspecific(static_cast<pthread_key_t>(key_), value);
    return rc == 0 ? 0 : ZNRSysError(rc);
}

std::uint64_t ZNRTLS::Get(void** out) {
    if (!opened_) return ZNRSysError(EINVAL);
    *out = pthread_getspecific(static_cast<pthread_key_t>(key_));
    return 0;
}
