#ifndef PLEXA_SRC_ZNR_THREAD_PLATFORM_H
#define PLEXA_SRC_ZNR_THREAD_PLATFORM_H

#include <cstdint>
#include <memory>

// The platform's view of one thread: a thread started here, or a thread
// started elsewhere and adopted by the thread manager.
struct ZNRThreadHandle;

// Starts body(arg) on a new thread. A priority other than normal (see
// ZNRThread::Priority_t) is applied by the new thread before body runs; if
// that fails, body never runs, the thread is reaped and the error returned.
std::uint64_t ZNRPlatformThreadCreate(void (*body)(void*), void* arg, int priority,
                                      ZNRThreadHandle** handle);

// Waits for the thread to end, stores its exit code and frees the handle.
// On failure the handle stays valid. A null handle is "no such thread".
std::uint64_t ZNRPlatformThreadJoin(ZNRThreadHandle* handle, long* exit_code);

// Frees a handle without waiting; a started thread is left to end alone.
void ZNRPlatformThreadRelease(ZNRThreadHandle* handle);

// A handle on the calling thread, which the library did not start. Waiting
// on it returns once that thread has ended (exit code 0): the end is marked
// by a thread-exit hook added here (ZNRThreadWatchEnd), ahead of any the
// caller adds after.
ZNRThreadHandle* ZNRPlatformThreadAdoptCurrent(std::uint64_t* error);

// What waiters on an adopted thread wait for; each platform keeps its own.
struct ZNRThreadEnd;
void ZNRPlatformThreadEndMark(ZNRThreadEnd* end);

// Has end marked when the calling thread ends, before any exit hook added
// later. The hook goes once only end's waiters are gone.
std::uint64_t ZNRThreadWatchEnd(std::shared_ptr<ZNRThreadEnd> const& end);

// Names the calling thread for debuggers and tools.
void ZNRPlatformThreadSetName(char const* name);

[[noreturn]] void ZNRPlatformThreadExit(long code);

#endif
