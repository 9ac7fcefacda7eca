#pragma once

// The small file beside a store through which processes wake each other, keep what others still have to read, and keep
// out of each other's way while a damaged store is renamed.
//
// Its content is read and written by calls, never mapped: whoever truncates or removes the file does no harm to those
// who use it. May throw std::bad_alloc.

#include <string>

#include "platform/export.h"
#include "platform/types.h"

namespace zr::platform {

class ZRPLATFORM_API Bell {
public:
    Bell() = default;
    ~Bell() { give_up(); }
    Bell(const Bell&) = delete;
    Bell& operator=(const Bell&) = delete;

    // Of the store at `path`. 0 or the host's error number.
    int make(const std::string& path);
    const std::string& path() const { return path_; }

    // Held by a writer from before its transaction until behind it. The kernel tells watchers that the file was closed,
    // whoever closes it: a writer that is killed behind its commit rings, too.
    class Pull {
    public:
        Pull() = default;
        ~Pull() { let_go(); }
        Pull(const Pull&) = delete;
        Pull& operator=(const Pull&) = delete;

        // Any number of writers; EBUSY when somebody renames the store for more than five seconds. 0 or the host's
        // error number.
        int take(const Bell& bell);
        // Alone: no writer is at work, and none begins.
        int take_alone(const Bell& bell);
        void let_go();

    private:
        int take(const Bell& bell, short kind);

        int file_ = -1;
    };

    // --- the watchers' places: how far in the change log each process that must not miss anything has got ---
    // Writes this process's; the first call takes a place, and the first one behind a removal of the file. 0 or the
    // host's error number; ENOLCK when all are taken.
    int set_position(LONGLONG seq);
    void give_up();
    // A child made by fork has no part in its parent's place.
    void forget_in_child();
    // The lowest position of any process; `none` when there is none. What cannot be read holds everything back.
    LONGLONG oldest_position(LONGLONG none) const;

private:
    int claim();
    bool is_removed() const;

    std::string path_;
    int file_ = -1;  // open while there is a place
    int place_ = -1;
};

}  // namespace zr::platform
