#pragma once

// Text that ends where memory ends: reading one character beyond it ends the process.

#include <sys/mman.h>
#include <unistd.h>

#include <cstring>
#include <string_view>

namespace zr::test {

class GuardedText {
public:
    explicit GuardedText(std::string_view bytes) {
        page_ = static_cast<std::size_t>(sysconf(_SC_PAGESIZE));
        base_ =
            static_cast<char*>(mmap(nullptr, 2 * page_, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0));
        mprotect(base_ + page_, page_, PROT_NONE);
        text_ = base_ + page_ - bytes.size();
        std::memcpy(text_, bytes.data(), bytes.size());
    }
    explicit GuardedText(std::u16string_view text)
        : GuardedText(std::string_view(reinterpret_cast<const char*>(text.data()), text.size() * sizeof(char16_t))) {}
    ~GuardedText() { munmap(base_, 2 * page_); }
    GuardedText(const GuardedText&) = delete;
    GuardedText& operator=(const GuardedText&) = delete;

    char* narrow() const { return text_; }
    char16_t* wide() const { return reinterpret_cast<char16_t*>(text_); }
    // Memory that cannot be touched, behind memory that can.
    void* forbidden() const { return base_ + page_; }

private:
    std::size_t page_;
    char* base_;
    char* text_;
};

}  // namespace zr::test
