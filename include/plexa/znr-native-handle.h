#ifndef PLEXA_ZNR_NATIVE_HANDLE_H
#define PLEXA_ZNR_NATIVE_HANDLE_H

/// @file
/// The system's name for an open file, socket or pipe.

#if defined(_WIN32)
/// A HANDLE (or a SOCKET, which fits one).
typedef void* ZNRNativeHandle;
#else
/// A file descriptor.
typedef int ZNRNativeHandle;
#endif

/// The value that names nothing: -1, or INVALID_HANDLE_VALUE on Windows.
inline ZNRNativeHandle ZNRNoHandle() {
#if defined(_WIN32)
    return reinterpret_cast<ZNRNativeHandle>(static_cast<long long>(-1));
#else
    return -1;
#endif
}

/// Whether handle names an open file, socket or pipe.
inline bool ZNRIsHandle(ZNRNativeHandle handle) {
#if defined(_WIN32)
    return handle != ZNRNoHandle() && handle != nullptr;
#else
    return handle >= 0;
#endif
}

#endif
