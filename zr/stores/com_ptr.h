#pragma once

// One reference to an interface, released with the pointer.

#include <utility>

namespace zr {

template <typename T>
class ComPtr {
public:
    ComPtr() = default;
    ComPtr(ComPtr&& other) noexcept : object_(std::exchange(other.object_, nullptr)) {}
    ComPtr& operator=(ComPtr&& other) noexcept {
        std::swap(object_, other.object_);
        return *this;
    }
    ~ComPtr() { reset(); }

    void reset() {
        if (T* object = std::exchange(object_, nullptr)) object->Release();
    }
    T* get() const { return object_; }
    T* operator->() const { return object_; }
    explicit operator bool() const { return object_ != nullptr; }

    // Where a call stores the reference that it hands over.
    template <typename U = T>
    U** out() {
        reset();
        return reinterpret_cast<U**>(&object_);
    }

private:
    T* object_ = nullptr;
};

}  // namespace zr
