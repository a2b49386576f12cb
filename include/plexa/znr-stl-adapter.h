#ifndef PLEXA_ZNR_STL_ADAPTER_H
#define PLEXA_ZNR_STL_ADAPTER_H

#include <plexa/znr-export.h>

// Owns a standard container on the heap so that public class layouts do not
// depend on the standard library's own layout.
template <class C>
class ZNRStlAdapter {
public:
    ZNRStlAdapter() : object_(nullptr) { object_ = OnCreateObject(); }
    ZNRStlAdapter(ZNRStlAdapter const& other) : object_(nullptr) {
        object_ = OnCreateObject();
        *object_ = *other.object_;
    }
    ZNRStlAdapter& operator=(ZNRStlAdapter const& other) {
        if (this == &other) return *this;
        delete object_;
        object_ = nullptr;
        object_ = OnCreateObject();
        *object_ = *other.object_;
        return *this;
    }
    virtual ~ZNRStlAdapter() { delete object_; }

    C* operator->() const { return object_; }
    C& operator*() const { return *object_; }
    C* Get() const { return object_; }

protected:
    virtual C* OnCreateObject() { return new C(); }

private:
    C* object_;
};

#endif
