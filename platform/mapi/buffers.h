#pragma once

// Buffers as programs get them: one block, to which others can be linked, which go with it.

#include <cstddef>

#include "platform/types.h"

namespace zr::platform::mapi {

// Null when memory is short.
void* allocate_buffer(std::size_t size) noexcept;
void free_buffer(void* buffer) noexcept;

// Frees a buffer at the end of its scope unless it was released.
template <class T>
class Buffer {
public:
    Buffer() = default;
    explicit Buffer(T* pointer) : pointer_(pointer) {}
    explicit Buffer(std::size_t size) : pointer_(static_cast<T*>(allocate_buffer(size))) {}
    Buffer(Buffer&& other) noexcept : pointer_(other.release()) {}
    Buffer& operator=(Buffer&& other) noexcept {
        free_buffer(pointer_);
        pointer_ = other.release();
        return *this;
    }
    ~Buffer() { free_buffer(pointer_); }

    explicit operator bool() const { return pointer_ != nullptr; }
    T* get() const { return pointer_; }
    T* operator->() const { return pointer_; }
    T* release() {
        T* const pointer = pointer_;
        pointer_ = nullptr;
        return pointer;
    }

private:
    T* pointer_ = nullptr;
};

}  // namespace zr::platform::mapi
