#include "zr/base/streams.h"

#include <fcntl.h>
#include <unistd.h>

#include <initializer_list>

namespace zr {

bool hold_standard_streams() {
    for (const int stream : {STDIN_FILENO, STDOUT_FILENO, STDERR_FILENO}) {
        if (::fcntl(stream, F_GETFD) >= 0) continue;
        // Opened the wrong way round; the lowest free number is the stream's.
        if (::open("/dev/null", stream == STDIN_FILENO ? O_WRONLY : O_RDONLY) != stream) return false;
    }
    return true;
}

}  // namespace zr
