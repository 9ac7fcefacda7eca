#include "base/host_error.h"

#include <cerrno>

#include "platform/errors.h"

namespace zr::platform {
namespace {

struct Row {
    int host;
    DWORD code;
};

// Read from the top in both directions: the first row with an errno gives its code, the first row with a code gives
// the errno whose text describes it.
constexpr Row kTable[] = {
    {ENOENT, ERROR_FILE_NOT_FOUND},
    {ENOENT, ERROR_PATH_NOT_FOUND},
    {ENOENT, ERROR_NO_MORE_FILES},
    {ENOTDIR, ERROR_PATH_NOT_FOUND},
    {ENOTDIR, ERROR_DIRECTORY},
    {EMFILE, ERROR_TOO_MANY_OPEN_FILES},
    {ENFILE, ERROR_TOO_MANY_OPEN_FILES},
    {EACCES, ERROR_ACCESS_DENIED},
    {EPERM, ERROR_ACCESS_DENIED},
    {EISDIR, ERROR_ACCESS_DENIED},
    {EBADF, ERROR_INVALID_HANDLE},
    {ENOMEM, ERROR_NOT_ENOUGH_MEMORY},
    {ENOMEM, ERROR_OUTOFMEMORY},
    {EXDEV, ERROR_NOT_SAME_DEVICE},
    {EROFS, ERROR_WRITE_PROTECT},
    {ENXIO, ERROR_NOT_READY},
    {ENODEV, ERROR_NOT_READY},
    {ETXTBSY, ERROR_SHARING_VIOLATION},
    {EAGAIN, ERROR_LOCK_VIOLATION},
    {EOPNOTSUPP, ERROR_NOT_SUPPORTED},
    {ENOSYS, ERROR_NOT_SUPPORTED},
    {ENOSYS, ERROR_CALL_NOT_IMPLEMENTED},
    {EEXIST, ERROR_ALREADY_EXISTS},
    {EEXIST, ERROR_FILE_EXISTS},
    {EINVAL, ERROR_INVALID_PARAMETER},
    {EINVAL, ERROR_INVALID_NAME},
    {EINVAL, ERROR_NEGATIVE_SEEK},
    {ESPIPE, ERROR_SEEK},
    {EPIPE, ERROR_BROKEN_PIPE},
    {ENOSPC, ERROR_DISK_FULL},
    {EDQUOT, ERROR_DISK_FULL},
    {ENOSPC, ERROR_HANDLE_DISK_FULL},
    {ENOTEMPTY, ERROR_DIR_NOT_EMPTY},
    {EBUSY, ERROR_BUSY},
    {ENAMETOOLONG, ERROR_FILENAME_EXCED_RANGE},
    {EFBIG, ERROR_FILE_TOO_LARGE},
    {EFAULT, ERROR_NOACCESS},
    {EIO, ERROR_IO_DEVICE},
    {EIO, ERROR_GEN_FAILURE},
    {EDEADLK, ERROR_POSSIBLE_DEADLOCK},
    {EMLINK, ERROR_TOO_MANY_LINKS},
    {ETIMEDOUT, ERROR_TIMEOUT},
    {ETIMEDOUT, WAIT_TIMEOUT},
    {ELOOP, ERROR_CANT_RESOLVE_FILENAME},
    {EILSEQ, ERROR_NO_UNICODE_TRANSLATION},
};

}  // namespace

DWORD error_from_errno(int number) noexcept {
    if (number == 0) return ERROR_SUCCESS;
    for (const Row& row : kTable)
        if (row.host == number) return row.code;
    return ERROR_GEN_FAILURE;
}

int errno_for_error(DWORD error) noexcept {
    for (const Row& row : kTable)
        if (row.code == error) return row.host;
    return 0;
}

}  // namespace zr::platform
