#include "host_maps.h"

#include <fcntl.h>
#include <sys/mman.h>

#include <algorithm>
#include <cerrno>
#include <charconv>
#include <cstring>
#include <string_view>

#include "base/host_error.h"
#include "base/host_fd.h"
#include "platform/errors.h"

namespace zr::platform {
namespace {

// One line of the list: "begin-end rwxp offset device inode path".
struct Piece {
    Range pages;
    int protection;
    std::uint64_t device;  // a number for its text
    std::uint64_t inode;   // 0: no file
};

std::string_view take_word(std::string_view& line) {
    const std::size_t end = std::min(line.find(' '), line.size());
    const std::string_view word = line.substr(0, end);
    line.remove_prefix(std::min(end + 1, line.size()));
    return word;
}

std::uint64_t number(std::string_view text, int base) {
    std::uint64_t value = 0;
    std::from_chars(text.data(), text.data() + text.size(), value, base);
    return value;
}

Piece parse(std::string_view line) {
    Piece piece{};
    const std::string_view range = take_word(line);
    const std::size_t dash = std::min(range.find('-'), range.size());
    piece.pages.begin = static_cast<std::uintptr_t>(number(range.substr(0, dash), 16));
    piece.pages.end = static_cast<std::uintptr_t>(number(range.substr(std::min(dash + 1, range.size())), 16));
    const std::string_view rights = take_word(line);
    if (rights.find('r') != rights.npos) piece.protection |= PROT_READ;
    if (rights.find('w') != rights.npos) piece.protection |= PROT_WRITE;
    if (rights.find('x') != rights.npos) piece.protection |= PROT_EXEC;
    take_word(line);  // the offset
    const std::string_view device = take_word(line);
    const std::size_t colon = std::min(device.find(':'), device.size());
    piece.device =
        number(device.substr(0, colon), 16) << 32 | number(device.substr(std::min(colon + 1, device.size())), 16);
    piece.inode = number(take_word(line), 10);
    return piece;
}

// Finds the address among the pieces, which come in the order of their addresses.
class Search {
public:
    explicit Search(std::uintptr_t address) : address_(address) {}

    // False: all that there is to know is known.
    bool look_at(const Piece& piece) {
        const bool same_file = has_group_ && piece.inode != 0 && piece.inode == last_.inode &&
                               piece.device == last_.device && piece.pages.begin == last_.pages.end;
        if (found_) {
            // What comes behind only tells whether the file is a module's.
            is_module_ = is_module_ || (same_file && (piece.protection & PROT_EXEC) != 0);
            last_ = piece;
            return same_file;
        }
        if (!same_file) {
            group_ = piece;
            has_group_ = true;
            is_module_ = false;
        }
        is_module_ = is_module_ || (piece.inode != 0 && (piece.protection & PROT_EXEC) != 0);
        if (piece.pages.begin > address_) {
            free_.end = piece.pages.begin;
            return false;
        }
        last_ = piece;
        free_.begin = piece.pages.end;
        if (address_ < piece.pages.end) {
            found_ = true;
            at_ = piece;
        }
        return true;
    }

    bool result(HostMapping& out) const {
        if (found_) {
            out = {at_.pages, group_.pages.begin, at_.protection, group_.protection, is_module_};
        } else {
            out = {free_, 0, 0, 0, false};
        }
        return found_;
    }

private:
    const std::uintptr_t address_;
    bool found_ = false;
    bool has_group_ = false;
    bool is_module_ = false;
    Piece group_{};  // the first one of the allocation
    Piece last_{};
    Piece at_{};
    Range free_{0, UINTPTR_MAX};
};

// Calls look(line) for each line, while it says so. An error number.
template <class Look>
int read_lines(Look look) {
    const HostFd file = open_host("/proc/self/maps", O_RDONLY);
    if (!file) return errno;
    char buffer[8192];
    std::size_t held = 0;
    bool is_rest = false;  // of a line that was longer than the buffer
    for (;;) {
        const ssize_t got = read(file.get(), buffer + held, sizeof buffer - held);
        if (got < 0 && errno == EINTR) continue;
        if (got <= 0) return got < 0 ? errno : 0;
        std::string_view text(buffer, held + static_cast<std::size_t>(got));
        for (std::size_t end = text.find('\n'); end != text.npos; end = text.find('\n')) {
            if (!is_rest && !look(text.substr(0, end))) return 0;
            is_rest = false;
            text.remove_prefix(end + 1);
        }
        if (text.size() == sizeof buffer) {
            if (!is_rest && !look(text)) return 0;
            is_rest = true;
            text = {};
        }
        held = text.size();
        std::memmove(buffer, text.data(), held);
    }
}

}  // namespace

bool find_host_mapping(std::uintptr_t address, HostMapping& out, DWORD& error) noexcept {
    Search search(address);
    error = error_from_errno(read_lines([&](std::string_view line) { return search.look_at(parse(line)); }));
    return error == ERROR_SUCCESS && search.result(out);
}

}  // namespace zr::platform
