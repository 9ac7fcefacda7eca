#pragma once

// How zr ends. Every failure has a code of its own, so that a script can tell them apart without reading text.
// docs/zr.md and the manual page list them.

namespace zr {

enum class Exit : int {
    Ok = 0,             // done; for a search: found
    None = 1,           // nothing matches
    Usage = 2,          // the command line is wrong
    Several = 3,        // more than one contact matches
    NoSender = 4,       // a message without a usable From
    NotAMessage = 5,    // a file that is no message
    Unreadable = 6,     // a file that cannot be read, or an output that cannot be written
    DamagedCards = 7,   // the import or export is done, but for what was named
    DiskFull = 8,       // no room left for the store or the output
    NewerStore = 9,     // the contact store or the registry was written by a newer version
    DamagedStore = 10,  // the contact store or the registry is damaged
    StoreFailed = 11,   // the contact store or the registry failed otherwise
    NotALog = 12,       // a file that is no log
    NoZone = 13,        // the time zone is not there or cannot be read
    BadRegFile = 14,    // a .reg file with mistakes in it; nothing was imported
    BadDocument = 15,   // no provisioning document, or one that asks for what nobody knows; nothing was changed
    PageFailed = 16,    // a page that cannot be shown, or a script that fails in it
};

}  // namespace zr
