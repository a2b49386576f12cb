#include "znr-random.h"

#include <plexa/znr-error.h>

#include <climits>

#include <windows.h>
#include <bcrypt.h>
#include <winternl.h>

std::uint64_t ZNRRandomBytes(void* buffer, std::size_t size) {
    unsigned char* p = static_cast<unsigned char*>(buffer);
    // BCryptGenRandom takes a 32-bit length.
    while (size > 0) {
        ULONG const chunk = size > ULONG_MAX ? ULONG_MAX : static_cast<ULONG>(size);
        NTSTATUS const status = BCryptGenRandom(nullptr, p, chunk, BCRYPT_USE_SYSTEM_PREFERRED_RNG);
        if (status < 0) return ZNRSysError(static_cast<int>(RtlNtStatusToDosError(status)));
        p += chunk;
        size -= chunk;
    }
    return 0;
}
