#ifndef PLEXA_ZNR_STL_ADAPTER_H
#define PLEXA_ZNR_STL_ADAPTER_H

#include <plexa/znr-export.h>

/// Owns a standard container on the heap so that public class layouts do not
/// depend on the standard library's own layout.
///
/// No lock: the object that holds the adapter serialises its use.
template <class C>
class ZNRStlAdapter {
public:
    /// Creates the container through OnCreateObject().
    ZNRStlAdapter() : object_(nullptr) { object_ = OnCreateObject(); }
    /// A fresh container holding a copy of other's content.
    ZNRStlAdapter(ZNRStlAdapter const& other) : object_(nullptr) {
        object_ = OnCreateObject();
        *object_ = *other.object_;
    }
    /// Deletes its container and creates a new one through OnCreateObject()
    /// holding a copy of other's content; self-assignment does nothing.
    ZNRStlAdapter& operator=(ZNRStlAdapter const& other) {
        if (this == &other) return *this;
        delete object_;
        object_ = nullptr;
        object_ = OnCreateObject();
        *object_ = *other.object_;
        return *this;
    }
    /// Deletes the container.
    virtual ~ZNRStlAdapter() { delete object_; }

    /// The container; it stays the adapter's.
    C* operator->() const { return object_; }
    /// The container; it stays the adapter's.
    C& operator*() const { return *object_; }
    /// The container; it stays the adapter's and is never null.
    C* Get() const { return object_; }

protected:
    /// Creates the container (default-constructed with new); the adapter
    /// owns what it returns.
    virtual C* OnCreateObject() { return new C(); }

private:
    C* object_;
};

#endif
