#pragma once

// Stores that can be read and not written: of another user, of a backup, of a disk that is mounted so. The platform
// keeps locks and bells beside a store, so commands that only read work on a copy.

#include <string>

namespace zr {

std::string folder_of_stores();  // what ZR_HOME names, or what it is without it

// While there is one, ZR_HOME names a copy of the folder of stores, if that one is there and cannot be written to. Made
// before a store is opened. Throws Failure when the stores cannot be read either, or change all the time.
class WritableCopy {
public:
    WritableCopy();
    ~WritableCopy();
    WritableCopy(const WritableCopy&) = delete;
    WritableCopy& operator=(const WritableCopy&) = delete;

private:
    std::string copy_;
    std::string home_;  // what the variable was
};

}  // namespace zr
