#pragma once

// Files that belong to the user alone: stores, their locks and bells.

#include <sys/types.h>

#include <string>

namespace zr::platform {

// Opens the file for reading and writing, making it with mode 0600 if it is not there; a mode that lets others read is
// narrowed. At
// least `size` bytes of it are allocated, not just counted: a full disk shows here. No symbolic link is followed, and
// what is no plain file, another user's, or can be written by others is refused. 0 and a descriptor above the standard
// ones, or the host's error number. Without `descriptor` the file is only made.
int open_private_file(const std::string& path, off_t size, int* descriptor) noexcept;

// Whether what is at `path` is a plain file of the user's that nobody else can write; 0 or the host's error number,
// ENOENT when nothing is there. Opens nothing: closing a file would end the locks that this process has on it.
int check_private_file(const std::string& path) noexcept;

// Why the file cannot be used, from the error number and what is there: "belongs to another user" and the like.
std::string file_trouble(const std::string& path, int error);

}  // namespace zr::platform
