#include "zr/base/failure.h"

#include <cerrno>
#include <cstdio>
#include <cstring>

#include "zr/base/text.h"

namespace zr {

Failure file_failure(const std::string& path, int error) {
    const bool full = error == ENOSPC || error == EDQUOT || error == EFBIG;
    return {full ? Exit::DiskFull : Exit::Unreadable, path + ": " + std::strerror(error)};
}

void complain(const std::string& text) {
    const std::string line = "zr: " + printable(text) + "\n";
    std::fwrite(line.data(), 1, line.size(), stderr);
}

Exit combine(Exit a, Exit b) {
    const auto is_answer = [](Exit code) { return code == Exit::Ok || code == Exit::None || code == Exit::Several; };
    if (!is_answer(a)) return a;
    if (!is_answer(b)) return b;
    return a < b ? b : a;
}

}  // namespace zr
