#include "elf_file.h"

#include <elf.h>

#include <algorithm>
#include <bit>
#include <cstring>
#include <new>
#include <vector>

namespace zr::platform {
namespace {

constexpr std::uint64_t kLargestSegment = 1 << 20;  // of notes; a real one has some hundred bytes
constexpr unsigned kMostSegments = 4096;
constexpr unsigned char kOwnOrder = std::endian::native == std::endian::little ? ELFDATA2LSB : ELFDATA2MSB;

template <class T>
bool read_as(const FileBytes& file, std::uint64_t offset, T& value) {
    return file.read(offset, std::as_writable_bytes(std::span(&value, 1)));
}

bool within(std::uint64_t offset, std::uint64_t length, std::uint64_t size) {
    return offset <= size && length <= size - offset;
}

std::size_t padded(std::size_t size, std::size_t alignment) {
    return (size + alignment - 1) & ~(alignment - 1);
}

// One segment's notes, each a head, a name and a content, both padded.
bool find_in(std::span<const std::byte> notes, std::size_t alignment, VS_FIXEDFILEINFO& info) {
    constexpr char kName[] = "ZrUtility";
    while (notes.size() >= sizeof(Elf32_Nhdr)) {
        Elf32_Nhdr head;  // the same in both classes
        std::memcpy(&head, notes.data(), sizeof head);
        notes = notes.subspan(sizeof head);
        const std::size_t name_room = padded(head.n_namesz, alignment);
        if (head.n_namesz > notes.size() || name_room > notes.size()) return false;
        const std::span<const std::byte> name = notes.first(head.n_namesz);
        notes = notes.subspan(name_room);
        if (head.n_descsz > notes.size()) return false;
        const std::span<const std::byte> content = notes.first(head.n_descsz);
        const bool ours = head.n_type == kZrModuleVersionNote && name.size() == sizeof kName &&
                          std::memcmp(name.data(), kName, sizeof kName) == 0;
        if (ours && content.size() == sizeof info) {
            std::memcpy(&info, content.data(), sizeof info);
            return info.dwSignature == VS_FFI_SIGNATURE;
        }
        notes = notes.subspan(std::min(padded(content.size(), alignment), notes.size()));
    }
    return false;
}

// Calls `visit` for each segment until it returns something else than 0, which is then the result.
template <class Header, class Segment, class Visit>
DWORD for_each_segment(const FileBytes& file, Visit visit) {
    Header header;
    if (!read_as(file, 0, header)) return ERROR_BAD_EXE_FORMAT;
    if (header.e_phnum == 0) return ERROR_SUCCESS;
    if (header.e_phentsize != sizeof(Segment) || header.e_phnum > kMostSegments) return ERROR_BAD_EXE_FORMAT;
    for (unsigned i = 0; i < header.e_phnum; ++i) {
        Segment segment;
        const std::uint64_t at = header.e_phoff + std::uint64_t{i} * sizeof segment;
        if (at < header.e_phoff || !read_as(file, at, segment)) return ERROR_BAD_EXE_FORMAT;
        if (const DWORD result = visit(segment)) return result;
    }
    return ERROR_SUCCESS;
}

template <class Visit>
DWORD for_each_segment(const FileBytes& file, Visit visit) {
    unsigned char identity[EI_NIDENT];
    if (!read_as(file, 0, identity) || std::memcmp(identity, ELFMAG, SELFMAG) != 0) return ERROR_BAD_EXE_FORMAT;
    // A module of the other byte order could not be loaded either.
    if (identity[EI_DATA] != kOwnOrder) return ERROR_BAD_EXE_FORMAT;
    switch (identity[EI_CLASS]) {
        case ELFCLASS32:
            return for_each_segment<Elf32_Ehdr, Elf32_Phdr>(file, visit);
        case ELFCLASS64:
            return for_each_segment<Elf64_Ehdr, Elf64_Phdr>(file, visit);
        default:
            return ERROR_BAD_EXE_FORMAT;
    }
}

}  // namespace

DWORD find_version(const FileBytes& file, VS_FIXEDFILEINFO& info) {
    bool found = false;
    const auto look = [&](const auto& segment) -> DWORD {
        if (found || segment.p_type != PT_NOTE || segment.p_filesz > kLargestSegment) return ERROR_SUCCESS;
        if (!within(segment.p_offset, segment.p_filesz, file.size())) return ERROR_BAD_EXE_FORMAT;
        std::vector<std::byte> notes(static_cast<std::size_t>(segment.p_filesz));
        if (!file.read(segment.p_offset, notes)) return ERROR_BAD_EXE_FORMAT;
        found = find_in(notes, segment.p_align == 8 ? 8 : 4, info);
        return ERROR_SUCCESS;
    };
    try {
        const DWORD error = for_each_segment(file, look);
        if (error) return error;
    } catch (const std::bad_alloc&) {
        return ERROR_NOT_ENOUGH_MEMORY;
    }
    return found ? ERROR_SUCCESS : ERROR_RESOURCE_DATA_NOT_FOUND;
}

DWORD check_whole(const FileBytes& file) {
    return for_each_segment(file, [&](const auto& segment) -> DWORD {
        const bool there = within(segment.p_offset, segment.p_filesz, file.size());
        return there || segment.p_type == PT_NULL ? ERROR_SUCCESS : ERROR_BAD_EXE_FORMAT;
    });
}

}  // namespace zr::platform
