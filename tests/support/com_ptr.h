#pragma once

// A reference that is given back.

#include <utility>

#include "platform/com.h"

namespace zr::test {

template <class T>
class Ptr {
public:
    Ptr() = default;
    explicit Ptr(T* object) : object_(object) {}
    ~Ptr() { reset(); }
    Ptr(const Ptr&) = delete;
    Ptr& operator=(const Ptr&) = delete;
    Ptr(Ptr&& other) noexcept : object_(std::exchange(other.object_, nullptr)) {}
    Ptr& operator=(Ptr&& other) noexcept {
        std::swap(object_, other.object_);
        return *this;
    }
    void reset() {
        if (object_ != nullptr) std::exchange(object_, nullptr)->Release();
    }
    T** out() {
        reset();
        return &object_;
    }
    IDispatch** dispatch() { return reinterpret_cast<IDispatch**>(out()); }
    IUnknown** unknown() { return reinterpret_cast<IUnknown**>(out()); }
    void** any() { return reinterpret_cast<void**>(out()); }
    T* operator->() const { return object_; }
    T* get() const { return object_; }
    explicit operator bool() const { return object_ != nullptr; }

private:
    T* object_ = nullptr;
};

}  // namespace zr::test
