#include "spool.h"

#include <stdlib.h>
#include <sys/types.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>

#include "last_error.h"

namespace zr::platform::mapi {
namespace {

constexpr ULONGLONG kMostMemory = 65536;
constexpr ULONGLONG kLargest = ULONGLONG{1} << 39;  // what the chunks' numbers have room for

HRESULT host_failure() {
    const int number = errno;
    const bool full = number == ENOSPC || number == EDQUOT || number == EFBIG;
    return fail(full ? MAPI_E_NOT_ENOUGH_DISK : MAPI_E_DISK_ERROR,
                std::string("A long value could not be kept for the time being: ") + std::strerror(number) + ".");
}

HRESULT write_all(int file, ULONGLONG at, const char* bytes, std::size_t size) {
    while (size != 0) {
        const ssize_t done = pwrite(file, bytes, size, static_cast<off_t>(at));
        if (done < 0 && errno == EINTR) continue;
        if (done <= 0) return host_failure();
        bytes += done;
        at += static_cast<ULONGLONG>(done);
        size -= static_cast<std::size_t>(done);
    }
    return S_OK;
}

HostFd unnamed_file(const std::string& folder) {
    HostFd file = open_host(folder.c_str(), O_RDWR | O_TMPFILE, 0600);
    if (file || (errno != EOPNOTSUPP && errno != EISDIR)) return file;
    std::string name = folder + "/mail-XXXXXX";
    HostFd named(above_standard(mkostemp(name.data(), O_CLOEXEC)));
    if (named) unlink(name.c_str());
    return named;
}

}  // namespace

HRESULT Spool::spill() {
    HostFd file = unnamed_file(folder_);
    if (!file) return host_failure();
    if (const HRESULT result = write_all(file.get(), 0, memory_.data(), memory_.size()); FAILED(result)) return result;
    file_ = std::move(file);
    std::string().swap(memory_);
    return S_OK;
}

HRESULT Spool::write(ULONGLONG at, std::span<const BYTE> bytes) {
    if (at > kLargest || bytes.size() > kLargest - at) return fail(MAPI_E_TOO_BIG);
    const ULONGLONG end = at + bytes.size();
    if (!file_ && end > kMostMemory) {
        if (const HRESULT result = spill(); FAILED(result)) return result;
    }
    if (file_) {
        const auto* const from = reinterpret_cast<const char*>(bytes.data());
        if (const HRESULT result = write_all(file_.get(), at, from, bytes.size()); FAILED(result)) return result;
    } else {
        if (end > memory_.size()) memory_.resize(static_cast<std::size_t>(end));
        std::copy(bytes.begin(), bytes.end(), memory_.begin() + static_cast<std::ptrdiff_t>(at));
    }
    size_ = std::max(size_, end);
    return S_OK;
}

HRESULT Spool::read(ULONGLONG at, std::span<BYTE> bytes, std::size_t& got) const {
    got = 0;
    if (at >= size_) return S_OK;
    const auto wanted = static_cast<std::size_t>(std::min<ULONGLONG>(bytes.size(), size_ - at));
    if (!file_) {
        std::memcpy(bytes.data(), memory_.data() + at, wanted);
        got = wanted;
        return S_OK;
    }
    while (got != wanted) {
        const ssize_t done = pread(file_.get(), bytes.data() + got, wanted - got, static_cast<off_t>(at + got));
        if (done < 0 && errno == EINTR) continue;
        if (done <= 0) return host_failure();
        got += static_cast<std::size_t>(done);
    }
    return S_OK;
}

HRESULT Spool::resize(ULONGLONG size) {
    if (size > kLargest) return fail(MAPI_E_TOO_BIG);
    if (!file_ && size > kMostMemory) {
        if (const HRESULT result = spill(); FAILED(result)) return result;
    }
    if (!file_) {
        memory_.resize(static_cast<std::size_t>(size));
    } else if (ftruncate(file_.get(), static_cast<off_t>(size)) != 0) {
        return host_failure();
    }
    size_ = size;
    return S_OK;
}

}  // namespace zr::platform::mapi
