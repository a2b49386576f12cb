#ifndef PLEXA_ZNR_SINGLETON_H
#define PLEXA_ZNR_SINGLETON_H

#include <plexa/znr-export.h>
#include <plexa/znr-thread-mutex.h>

/// One lazily created instance of T per process. Every call takes the type's
/// lock, so two threads racing on first use get the same object; both
/// members are safe from any thread.
///
/// The library exports its own instantiations and declares them extern
/// (ZNR_API) next to their types, so the host program and the library share
/// one instance pointer and one lock per type; other types get theirs where
/// they are used.
template <class T>
class ZNRSingleton {
public:
    /// The instance, created with new T on first use (or first use after
    /// Destroy()). It stays the singleton's: callers never delete it.
    static T* Instance();

    /// Deletes the instance, if any; the next Instance() creates a new one.
    /// Pointers taken earlier dangle from then on.
    static void Destroy();

private:
    ZNRSingleton() = default;

    static T* instance_;
    static ZNRThreadMutex lock_;
};

// Defined outside the class, so not inline: a DLL exports the members of
// its instantiations only then (MinGW), and programs call its copies.
template <class T>
T* ZNRSingleton<T>::Instance() {
    ZNRGuardSpinLock guard(&lock_, __FILE__, __LINE__);
    if (instance_ == nullptr) instance_ = new T();
    return instance_;
}

template <class T>
void ZNRSingleton<T>::Destroy() {
    ZNRGuardSpinLock guard(&lock_, __FILE__, __LINE__);
    delete instance_;
    instance_ = nullptr;
}

template <class T>
T* ZNRSingleton<T>::instance_ = nullptr;

template <class T>
ZNRThreadMutex ZNRSingleton<T>::lock_;

#endif
