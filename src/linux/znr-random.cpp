#include "znr-random.h"

#include <plexa/znr-error.h>

#include <cerrno>
#include <sys/random.h>

std::uint64_t ZNRRandomBytes(void* buffer, std::size_t size) {
    unsigned char* p = static_cast<unsigned char*>(buffer);
    while (size > 0) {
        ssize_t got = getrandom(p, size, 0);
        if (got < 0) {
            if (errno == EINTR) continue;
            return ZNRSysError(errno);
        }
        p += got;
        size -= static_cast<std::size_t>(got);
    }
    return 0;
}
