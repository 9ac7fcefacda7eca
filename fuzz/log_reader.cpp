// Any bytes as a log file: the reader ends, and hands out nothing that is longer than the format allows.

#include <sys/mman.h>
#include <unistd.h>

#include <cstdlib>
#include <string>

#include "ZrLog/ZrLogReader.h"
#include "ZrLog/format.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size);

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    static const int fd = memfd_create("log", MFD_CLOEXEC);
    if (ftruncate(fd, 0) != 0 || pwrite(fd, data, size, 0) != static_cast<ssize_t>(size)) return 0;
    std::string error;
    const auto reader = ZrLogReader::open("/proc/self/fd/" + std::to_string(fd), error, 0);
    if (!reader) return 0;
    ZrLogEntry entry;
    std::uint64_t records = 0;
    while (reader->next(entry)) {
        ++records;
        if (entry.argumentCount < 0 || entry.argumentCount > 4) std::abort();
        if (entry.data.size() > zr::log::kBufferLimit || entry.source.size() > zr::log::kTagLimit) std::abort();
        if (records > size / sizeof(zr::log::Head)) std::abort();
    }
    return 0;
}
