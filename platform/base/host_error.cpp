#include "host_error.h"

#include <cerrno>

#include "platform/errors.h"

namespace zr::platform {

DWORD error_from_errno(int number) noexcept {
    switch (number) {
        case 0:
            return ERROR_SUCCESS;
        case ENOENT:
            return ERROR_FILE_NOT_FOUND;
        case ENOTDIR:
        case ELOOP:
            return ERROR_PATH_NOT_FOUND;
        case EACCES:
        case EPERM:
        case EISDIR:
            return ERROR_ACCESS_DENIED;
        case EROFS:
            return ERROR_WRITE_PROTECT;
        case EEXIST:
            return ERROR_ALREADY_EXISTS;
        case ENOTEMPTY:
            return ERROR_DIR_NOT_EMPTY;
        case ENOSPC:
        case EDQUOT:
            return ERROR_DISK_FULL;
        case EMFILE:
        case ENFILE:
            return ERROR_TOO_MANY_OPEN_FILES;
        case ENOMEM:
            return ERROR_NOT_ENOUGH_MEMORY;
        case ENAMETOOLONG:
            return ERROR_FILENAME_EXCED_RANGE;
        case EINVAL:
            return ERROR_INVALID_PARAMETER;
        case EBADF:
            return ERROR_INVALID_HANDLE;
        case EBUSY:
        case ETXTBSY:
            return ERROR_BUSY;
        case EXDEV:
            return ERROR_NOT_SAME_DEVICE;
        case EIO:
            return ERROR_IO_DEVICE;
        case ETIMEDOUT:
            return ERROR_TIMEOUT;
        default:
            return ERROR_GEN_FAILURE;
    }
}

}  // namespace zr::platform
