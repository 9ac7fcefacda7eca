#include "support/failing_new.h"

#include <gtest/gtest.h>

#include <atomic>
#include <cstddef>
#include <cstdlib>
#include <new>

#include "ZrLog/ZrLog.h"
#include "platform/kernel.h"

namespace {

constexpr int kUnlimited = -1;
thread_local int successesLeft = kUnlimited;
std::atomic<long> alive{0};

void* allocate(std::size_t size) noexcept {
    if (successesLeft == 0) return nullptr;
    if (successesLeft > 0) --successesLeft;
    void* block = std::malloc(size != 0 ? size : 1);
    if (block != nullptr) alive.fetch_add(1, std::memory_order_relaxed);
    return block;
}

void* allocate_or_throw(std::size_t size) {
    void* block = allocate(size);
    if (block == nullptr) throw std::bad_alloc();
    return block;
}

void release(void* block) noexcept {
    if (block != nullptr) alive.fetch_sub(1, std::memory_order_relaxed);
    std::free(block);
}

// What the log keeps from its first record on, and the platform for a thread from its first wait on, is there before
// memory fails or is counted. The platform cannot do without a thread's record.
class WhatStays : public testing::Environment {
    void SetUp() override {
        zrKelDebugBinLog0("", 0, kZrLogTrace);
        WaitForSingleObject(GetCurrentProcess(), 0);
    }
};
const testing::Environment* const environment = testing::AddGlobalTestEnvironment(new WhatStays);

}  // namespace

void* operator new(std::size_t size) {
    return allocate_or_throw(size);
}
void* operator new[](std::size_t size) {
    return allocate_or_throw(size);
}
void* operator new(std::size_t size, const std::nothrow_t&) noexcept {
    return allocate(size);
}
void* operator new[](std::size_t size, const std::nothrow_t&) noexcept {
    return allocate(size);
}
void operator delete(void* block) noexcept {
    release(block);
}
void operator delete[](void* block) noexcept {
    release(block);
}
void operator delete(void* block, std::size_t) noexcept {
    release(block);
}
void operator delete[](void* block, std::size_t) noexcept {
    release(block);
}
void operator delete(void* block, const std::nothrow_t&) noexcept {
    release(block);
}
void operator delete[](void* block, const std::nothrow_t&) noexcept {
    release(block);
}

namespace zr::test {

FailingNew::FailingNew(int successes) {
    WaitForSingleObject(GetCurrentProcess(), 0);  // this thread's record
    successesLeft = successes;
}

FailingNew::~FailingNew() {
    successesLeft = kUnlimited;
}

long live_news() {
    return alive.load(std::memory_order_relaxed);
}

}  // namespace zr::test
