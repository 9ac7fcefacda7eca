#pragma once

// A module's file, open for reading.

#include "elf_file.h"

namespace zr::platform {

class ModuleFile final : public FileBytes {
public:
    explicit ModuleFile(const char* path);
    ~ModuleFile();
    ModuleFile(const ModuleFile&) = delete;
    ModuleFile& operator=(const ModuleFile&) = delete;

    DWORD error() const { return error_; }  // why it cannot be read, else 0
    std::uint64_t size() const override { return size_; }
    bool read(std::uint64_t offset, std::span<std::byte> out) const override;

private:
    bool read_host(std::uint64_t offset, std::span<std::byte> out) const;

    const int fd_;
    DWORD error_ = 0;
    std::uint64_t size_ = 0;
    // The header, the segments' table and as a rule the notes lie at the beginning: that is read once.
    std::size_t head_size_ = 0;
    std::byte head_[2048];
};

}  // namespace zr::platform
