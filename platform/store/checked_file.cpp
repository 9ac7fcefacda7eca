#include "store/checked_file.h"
#include "base/size_limit.h"

#include <fcntl.h>
#include <sqlite3.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <bit>
#include <cerrno>
#include <cstddef>
#include <cstdio>
#include <cstring>
#include <new>
#include <utility>

#include "base/host_fd.h"
#include "platform/diagnostics.h"
#include "platform/stores.h"
#include "store/index_guard.h"
#include "store/journal_index.h"

namespace zr::platform {
namespace {

constexpr const char* kName = "zr-store";

// --- the database's file (https://sqlite.org/fileformat2.html) ---
constexpr int kHeader = 100;
constexpr int kPageSizeAt = 16;
constexpr int kReservedAt = 20;
constexpr int kMarksAt = 72;  // twenty bytes, "reserved for expansion"
constexpr int kMarksSize = 20;
constexpr int kChecksum = 8;
// --- the journal's ---
constexpr int kJournalHeader = 32;
constexpr int kFrameHeader = 24;
constexpr std::uint32_t kJournalMagic = 0x377F0682;  // its lowest bit: checksums are of big-endian words
// --- the journal's index in shared memory (https://sqlite.org/walformat.html) ---
constexpr std::size_t kBigEndianAt = 13;
constexpr std::size_t kLastFrameAt = 16;
constexpr std::size_t kFrameSumsAt = 24;
constexpr std::size_t kSaltsAt = 32;
constexpr int kWriteLock = 0;

using Byte = unsigned char;

std::uint32_t big_endian(const Byte* bytes) {
    return static_cast<std::uint32_t>(bytes[0]) << 24 | static_cast<std::uint32_t>(bytes[1]) << 16 |
           static_cast<std::uint32_t>(bytes[2]) << 8 | bytes[3];
}

// Each step maps the state one to one, and each word changes it: no damage within one word goes unseen, and any other
// with a chance of 2^-64.
std::uint64_t mix(std::uint64_t state, std::uint64_t word) {
    return std::rotl((state ^ word) * 0x9E3779B97F4A7C15u, 29);
}

std::uint64_t finish(std::uint64_t state) {
    state ^= state >> 32;
    state *= 0xD6E8FEB86659FD93u;
    return state ^ state >> 32;
}

std::uint64_t checksum(const Byte* page, int size, std::uint64_t number) {
    std::array<std::uint64_t, 4> lanes = {number, ~number, number << 1, number << 2};
    for (int at = 0; at + kChecksum < size; at += 8) {
        std::uint64_t word = 0;
        std::memcpy(&word, page + at, sizeof word);
        auto& lane = lanes[static_cast<std::size_t>(at / 8 % 4)];
        lane = mix(lane, word);
    }
    return finish(mix(mix(mix(lanes[0], lanes[1]), lanes[2]), lanes[3]));
}

std::atomic<std::uint64_t> boots_later{0};

// A number that another start of the computer does not have; 0 while that is not known.
std::uint64_t boot_number() noexcept {
    static std::atomic<std::uint64_t> known{0};
    std::uint64_t number = known.load(std::memory_order_relaxed);
    if (number == 0) {
        char id[64] = {};
        const HostFd file = open_host("/proc/sys/kernel/random/boot_id", O_RDONLY);
        if (!file || ::read(file.get(), id, sizeof id - 1) <= 0) return 0;
        std::uint64_t state = 0;
        for (const char c : id) {
            state = mix(state, static_cast<Byte>(c));
        }
        number = finish(state) | 1;
        known.store(number, std::memory_order_relaxed);
    }
    return number ^ boots_later.load(std::memory_order_relaxed);
}

// --- the marks' form ---
// Little-endian: the change (7 bytes), the boot (4), a check of both (2); the journal's number or digest (4), its check
// (3), whose bits are turned where the journal is closed. All zero: no mark.
using MarkBytes = std::array<Byte, kMarksSize>;
constexpr std::size_t kBootAt = 7;
constexpr std::size_t kCommittedCheckAt = 11;
constexpr std::size_t kJournalAt = 13;

void put(Byte* to, std::uint64_t value, std::size_t size) {
    for (std::size_t i = 0; i < size; ++i) {
        to[i] = static_cast<Byte>(value >> 8 * i);
    }
}

std::uint64_t get(const Byte* from, std::size_t size) {
    std::uint64_t value = 0;
    for (std::size_t i = 0; i < size; ++i) {
        value |= static_cast<std::uint64_t>(from[i]) << 8 * i;
    }
    return value;
}

std::uint64_t check_of(const Byte* from, std::size_t size) {
    std::uint64_t state = size;
    for (std::size_t i = 0; i < size; ++i) {
        state = mix(state, from[i] + 1u);
    }
    return finish(state);
}

void put_committed(Byte* marks, LONGLONG seq, std::uint64_t boot) {
    put(marks, static_cast<std::uint64_t>(seq), kBootAt);
    put(marks + kBootAt, boot, kCommittedCheckAt - kBootAt);
    put(marks + kCommittedCheckAt, check_of(marks, kCommittedCheckAt), kJournalAt - kCommittedCheckAt);
}

void put_journal(Byte* mark, JournalState state, std::uint32_t name) {
    put(mark, name, 4);
    const std::uint64_t check = check_of(mark, 4);
    put(mark + 4, state == JournalState::Closed ? ~check : check, 3);
}

constexpr std::uint64_t kJournalCheck = 0xFFFFFF;

// False: what is there is no mark.
bool read_journal_mark(const Byte* mark, StoreMarks& marks) {
    marks.name = static_cast<std::uint32_t>(get(mark, 4));
    const std::uint64_t check = get(mark + 4, 3);
    const std::uint64_t wanted = check_of(mark, 4);
    marks.journal = get(mark, 7) == 0                    ? JournalState::Never
                    : check == (~wanted & kJournalCheck) ? JournalState::Closed
                                                         : JournalState::Open;
    return marks.journal != JournalState::Open || check == (wanted & kJournalCheck);
}

bool is_zero(const Byte* from, std::size_t size) {
    return get(from, size < 8 ? size : 8) == 0 && (size <= 8 || get(from + 8, size - 8) == 0);
}

void read_form(const MarkBytes& bytes, StoreMarks& marks) {
    const Byte* const at = bytes.data();
    const bool no_change = is_zero(at, kJournalAt);
    const bool change_good = no_change || get(at + kCommittedCheckAt, 2) == (check_of(at, kCommittedCheckAt) & 0xFFFF);
    const bool journal_good = read_journal_mark(at + kJournalAt, marks);
    marks.legible = change_good && journal_good;
    const std::uint64_t boot = boot_number();
    const bool this_boot = boot != 0 && get(at + kBootAt, 4) == (boot & 0xFFFFFFFF);
    marks.committed = marks.legible && this_boot ? static_cast<LONGLONG>(get(at, kBootAt)) : 0;
}

// --- files ---

sqlite3_vfs* host() noexcept {
    static sqlite3_vfs* const vfs = sqlite3_vfs_find(nullptr);
    return vfs;
}

enum class Kind { Database, Journal, Other };

// The committed frames of a journal.
struct JournalEnd {
    std::uint32_t frames;
    std::uint32_t digest;  // tells the journal, and where it ended, from others; 0: no frames
};

// Followed in memory by the host's file.
struct File {
    sqlite3_file base;
    Kind kind;
    // The database's.
    int page_size;  // 0: not known yet
    bool checked;   // its pages have checksums
    Byte* scratch;  // a page; made when it is first needed
    const char* name;
    ino_t number;                // of the file; 0: not known
    JournalIndex* shared;        // null: not there yet
    const volatile Byte* index;  // its front
    JournalEnd end;              // what the index said when it was let go of
    File* journal;               // null: not open
    // The journal's.
    File* database;  // null: not known, nothing is looked at
    bool unmarked;   // its header was written, and the database's mark not yet
    bool appending;  // the last call wrote a page
    Byte* frames;    // what is held back; made when it is first needed
    int room;
    int held;  // so many bytes of it
    sqlite3_int64 held_at;
    sqlite3_int64 length;  // of the file at the last look, or less
    // A temporary one's, which the host reads until it is closed.
    char* own_name;
    Byte* between;  // room for what is read to check a frame
    int between_size;

    sqlite3_file* real() { return reinterpret_cast<sqlite3_file*>(this + 1); }
    const sqlite3_io_methods* methods() { return real()->pMethods; }
    int read(void* to, int size, sqlite3_int64 at) { return methods()->xRead(real(), to, size, at); }
    int write(const void* from, int size, sqlite3_int64 at) {
        const WithinSizeLimit no_signal;
        return methods()->xWrite(real(), from, size, at);
    }
};
static_assert(sizeof(File) % alignof(std::max_align_t) == 0 || alignof(File) >= alignof(void*));

File& file_of(sqlite3_file* file) {
    return *reinterpret_cast<File*>(file);
}

// A database's first bytes say how its pages are.
void learn(File& file, const Byte* header) {
    const int before = file.page_size;
    const int size = header[kPageSizeAt] << 8 | header[kPageSizeAt + 1];
    file.page_size = size == 1 ? 65536 : size;
    if (file.page_size != before) delete[] std::exchange(file.scratch, nullptr);
    file.checked = header[kReservedAt] == kChecksum && file.page_size >= 512 &&
                   std::has_single_bit(static_cast<unsigned>(file.page_size));
}

bool make_scratch(File& file) {
    if (file.scratch == nullptr) file.scratch = new (std::nothrow) Byte[static_cast<std::size_t>(file.page_size)];
    return file.scratch != nullptr;
}

bool is_page(const File& file, int size, sqlite3_int64 at) {
    return file.checked && size == file.page_size && at % size == 0;
}

int verify_page(const File& file, const Byte* page, sqlite3_int64 at) {
    std::uint64_t kept = 0;
    std::memcpy(&kept, page + file.page_size - kChecksum, sizeof kept);
    const auto number = static_cast<std::uint64_t>(at / file.page_size) + 1;
    return kept == checksum(page, file.page_size, number) ? SQLITE_OK : SQLITE_IOERR_DATA;
}

// Hides the marks from SQLite where a read reaches over them.
void hide_marks(Byte* bytes, int size, sqlite3_int64 at) {
    for (int i = kMarksAt; i < kMarksAt + kMarksSize; ++i) {
        if (i >= at && i - at < size) bytes[i - at] = 0;
    }
}

// From version 3.45 on SQLite reads the pages behind a long value without its cache, and no more of them than the
// value.
bool is_part_of_page(const File& file, int size, sqlite3_int64 at) {
    return file.checked && at >= file.page_size && at % file.page_size + size < file.page_size;
}

int read_part_of_page(File& file, void* to, int size, sqlite3_int64 at) {
    const sqlite3_int64 start = at - at % file.page_size;
    if (!make_scratch(file)) return SQLITE_IOERR_NOMEM;
    const int result = file.read(file.scratch, file.page_size, start);
    if (result == SQLITE_IOERR_SHORT_READ) return SQLITE_IOERR_DATA;
    if (result != SQLITE_OK) return result;
    std::memcpy(to, file.scratch + (at - start), static_cast<std::size_t>(size));
    return verify_page(file, file.scratch, start);
}

int read_database(File& file, void* to, int size, sqlite3_int64 at) {
    if (is_part_of_page(file, size, at)) return read_part_of_page(file, to, size, at);
    const int result = file.read(to, size, at);
    // SQLite asks for no page behind the file's end: it was cut off.
    if (result == SQLITE_IOERR_SHORT_READ && at != 0 && is_page(file, size, at)) return SQLITE_IOERR_DATA;
    if (result != SQLITE_OK) return result;
    auto* const bytes = static_cast<Byte*>(to);
    hide_marks(bytes, size, at);
    if (at == 0 && size >= kHeader) {
        const bool was_checked = file.checked;
        const int size_before = file.page_size;
        learn(file, bytes);
        // What had checksums has them for good.
        if (was_checked && (!file.checked || file.page_size != size_before)) {
            file.checked = true;
            file.page_size = size_before;
            return SQLITE_IOERR_DATA;
        }
    }
    return is_page(file, size, at) ? verify_page(file, bytes, at) : SQLITE_OK;
}

int write_database(File& file, const void* from, int size, sqlite3_int64 at) {
    const auto* bytes = static_cast<const Byte*>(from);
    if (at == 0 && size >= kHeader) learn(file, bytes);
    // Of a file whose first page is not there yet it is not known whether others need checksums.
    if (file.page_size == 0) return SQLITE_IOERR_WRITE;
    if (!is_page(file, size, at)) return file.write(from, size, at);
    if (!make_scratch(file)) return SQLITE_IOERR_NOMEM;
    std::memcpy(file.scratch, bytes, static_cast<std::size_t>(size));
    hide_marks(file.scratch, size, at);
    const std::uint64_t sum = checksum(file.scratch, size, static_cast<std::uint64_t>(at / size) + 1);
    std::memcpy(file.scratch + size - kChecksum, &sum, sizeof sum);
    if (at != 0) return file.write(file.scratch, size, at);
    // The marks between stay as they are: others may write them meanwhile.
    const int result = file.write(file.scratch, kMarksAt, 0);
    constexpr int kBehind = kMarksAt + kMarksSize;
    return result == SQLITE_OK ? file.write(file.scratch + kBehind, size - kBehind, kBehind) : result;
}

// SQLite's checksum of the journal, over words of the byte order that its header names.
struct JournalSum {
    bool big;
    std::uint32_t first;
    std::uint32_t second;

    void add(const Byte* bytes, int size) {
        const auto word = [this](const Byte* at) {
            return big ? big_endian(at) : static_cast<std::uint32_t>(get(at, 4));
        };
        for (int i = 0; i < size; i += 8) {
            first += word(bytes + i) + second;
            second += word(bytes + i + 4) + first;
        }
    }
};

std::uint32_t index_word(const volatile Byte* index, std::size_t at) {
    return *reinterpret_cast<const volatile std::uint32_t*>(index + at);
}

// Reads a page of a frame that is committed. A frame's checksum goes on from that of the frame in front of it, or of
// the journal's header: one read has both frames' headers, what lies between, and the page.
int read_frame(File& journal, Byte* page, int size, sqlite3_int64 at) {
    const sqlite3_int64 start = at - kFrameHeader;
    const sqlite3_int64 from = (start == kJournalHeader ? start : start - size) - 8;
    const int front = static_cast<int>(at - from);
    const int length = front + size;
    if (journal.between_size < length) {
        delete[] std::exchange(journal.between, new (std::nothrow) Byte[static_cast<std::size_t>(length)]);
        journal.between_size = journal.between != nullptr ? length : 0;
        if (journal.between == nullptr) return SQLITE_IOERR_NOMEM;
    }
    if (const int result = journal.read(journal.between, length, from); result != SQLITE_OK) return result;
    const Byte* const before = journal.between;
    const Byte* const frame = journal.between + front - kFrameHeader;
    const bool big = journal.database->index[kBigEndianAt] != 0;
    JournalSum sum = {big, big_endian(before), big_endian(before + 4)};
    sum.add(frame, 8);
    sum.add(frame + kFrameHeader, size);
    std::memcpy(page, frame + kFrameHeader, static_cast<std::size_t>(size));
    const bool good = sum.first == big_endian(frame + 16) && sum.second == big_endian(frame + 20);
    return good ? SQLITE_OK : SQLITE_IOERR_DATA;
}

// Frames behind the last commit are the writer's own, and their checksums may not be there yet.
bool is_committed_frame(const File& journal, int size, sqlite3_int64 at) {
    const File* const database = journal.database;
    if (database == nullptr || !database->checked || database->index == nullptr || size != database->page_size)
        return false;
    const sqlite3_int64 past = at - kJournalHeader - kFrameHeader;
    const sqlite3_int64 stride = size + kFrameHeader;
    if (past < 0 || past % stride != 0) return false;
    return past / stride + 1 <= index_word(database->index, kLastFrameAt);
}

int write_mark(File& database, const Byte* mark, std::size_t size, std::size_t at) {
    return database.write(mark, static_cast<int>(size), kMarksAt + static_cast<sqlite3_int64>(at));
}

int mark_journal(File& database, JournalState state, std::uint32_t name) {
    Byte mark[kMarksSize - kJournalAt];
    put_journal(mark, state, name);
    const int result = write_mark(database, mark, sizeof mark, kJournalAt);
    return result == SQLITE_OK ? database.methods()->xSync(database.real(), SQLITE_SYNC_NORMAL | SQLITE_SYNC_DATAONLY)
                               : result;
}

int read_marks_of(File& database, StoreMarks& marks) {
    MarkBytes bytes;
    const int result = database.read(bytes.data(), kMarksSize, kMarksAt);
    if (result != SQLITE_OK) return result;
    marks.checked = database.checked;
    read_form(bytes, marks);
    return SQLITE_OK;
}

JournalEnd end_in(const volatile Byte* index) {
    if (index == nullptr || index_word(index, kLastFrameAt) == 0) return {};
    std::uint64_t state = index_word(index, kLastFrameAt);
    for (const std::size_t at : {kFrameSumsAt, kFrameSumsAt + 4, kSaltsAt, kSaltsAt + 4}) {
        state = mix(state, index_word(index, at));
    }
    return {index_word(index, kLastFrameAt), static_cast<std::uint32_t>(finish(state)) | 1};
}

bool is_journal_header(const Byte* header) {
    if ((big_endian(header) & ~1u) != kJournalMagic) return false;
    JournalSum sum = {(big_endian(header) & 1) != 0, 0, 0};
    sum.add(header, kJournalHeader - 8);
    return sum.first == big_endian(header + 24) && sum.second == big_endian(header + 28);
}

std::uint32_t number_of(File& journal) {
    Byte header[kJournalHeader];
    if (journal.read(header, kJournalHeader, 0) != SQLITE_OK || !is_journal_header(header)) return 0;
    const std::uint32_t salt = big_endian(header + 16);
    return salt == 0 ? 1 : salt;
}

// All of the journal is in the file. That is on the disk before the journal is removed: or else a power cut could leave
// a file that misses its journal.
int close_journal(File& database, const JournalEnd& end) {
    StoreMarks marks = {};
    if (const int result = read_marks_of(database, marks); result != SQLITE_OK) return result;
    if (marks.legible && marks.journal != JournalState::Open && end.frames == 0) return SQLITE_OK;
    return mark_journal(database, JournalState::Closed, end.digest);
}

// A journal that is begun anew gets its header, and the next number, while the file still names the one before. SQLite
// may give it another number, by chance, where a journal has no frames.
int prepare_number(File& database, const Byte* header) {
    StoreMarks marks = {};
    if (const int result = read_marks_of(database, marks); result != SQLITE_OK) return result;
    const std::uint32_t next = big_endian(header + 16);
    const bool expected = marks.journal != JournalState::Open || next == marks.name || next == marks.name + 1;
    return expected ? SQLITE_OK : close_journal(database, {});
}

// A flush of a journal that has become longer has to bring its length to the disk too. So from some length on zeros are
// written ahead of its frames, which end it for SQLite as the file's end would. Called by who may write: nobody else
// makes the file longer meanwhile. Where there is no room for that nothing is lost.
void grow_ahead(File& journal, sqlite3_int64 end) {
    constexpr sqlite3_int64 kFrom = 16 * 1024;
    if (end <= journal.length || end < kFrom || journal.room == 0) return;
    if (journal.methods()->xFileSize(journal.real(), &journal.length) != SQLITE_OK || journal.length > end) return;
    const int more = static_cast<int>(std::min<sqlite3_int64>(end, journal.room));
    std::memset(journal.frames, 0, static_cast<std::size_t>(more));
    static_cast<void>(journal.write(journal.frames, more, end));
    journal.length = end + more;
}

// What fails is held on to: SQLite goes by what it has written, and the call that fails may be a read of its.
int write_held(File& journal) {
    if (journal.held == 0) return SQLITE_OK;
    const int result = journal.write(journal.frames, journal.held, journal.held_at);
    if (result != SQLITE_OK) return result;
    grow_ahead(journal, journal.held_at + std::exchange(journal.held, 0));
    return SQLITE_OK;
}

void make_room(File& journal, int page_size) {
    constexpr int kRoom = 64 * 1024;
    if (journal.room != 0) return;
    const int room = std::max(kRoom, kFrameHeader + page_size);
    journal.frames = new (std::nothrow) Byte[static_cast<std::size_t>(room)];
    if (journal.frames != nullptr) journal.room = room;
}

// SQLite appends a frame by two calls: its header, then its page. They are held back until the frame comes that commits
// the ones before, or the room is full: to the host they are one call. A header that is written by itself, which comes
// behind reading its frame, is not held back.
int write_frames(File& journal, const void* from, int size, sqlite3_int64 at) {
    const bool follows = std::exchange(journal.appending, false);
    const bool has_pages = journal.database != nullptr && journal.database->checked;
    const int page_size = has_pages ? journal.database->page_size : 0;
    const bool is_page = size == page_size;
    const int after_header = is_page ? 0 : page_size;  // what has to have room behind it
    const bool continues = journal.held != 0 && at == journal.held_at + journal.held &&
                           (is_page || size == kFrameHeader) && journal.held + size + after_header <= journal.room;
    if (!continues) {
        if (const int result = write_held(journal); result != SQLITE_OK) return result;
        if (!follows || size != kFrameHeader || journal.room == 0) {
            journal.appending = is_page;
            if (is_page) make_room(journal, page_size);
            return journal.write(from, size, at);
        }
        journal.held_at = at;
    }
    std::memcpy(journal.frames + journal.held, from, static_cast<std::size_t>(size));
    journal.held += size;
    journal.appending = is_page;
    const bool commits = is_page && big_endian(journal.frames + journal.held - page_size - kFrameHeader + 4) != 0;
    if (!commits) return SQLITE_OK;
    const int result = write_held(journal);
    journal.held = 0;  // a commit that has failed must not come later
    return result;
}

// Before anything else is done with the file.
int settle_journal(File& file) {
    file.appending = false;
    return write_held(file);
}

int write_journal(File& journal, const void* from, int size, sqlite3_int64 at) {
    File* const database = journal.database;
    if (at == 0) {
        journal.unmarked = true;
        if (size >= kJournalHeader && database != nullptr && database->checked) {
            const int result = prepare_number(*database, static_cast<const Byte*>(from));
            if (result != SQLITE_OK) return result;
        }
    } else if (journal.unmarked && database != nullptr && database->checked) {
        // The header has been synced by now: a journal that is marked is there, also after a power cut. And the mark is
        // synced before there is anything in the journal: what is in a journal that is not marked is another file's.
        const int result = mark_journal(*database, JournalState::Open, number_of(journal));
        if (result != SQLITE_OK) return result;
        journal.unmarked = false;
    }
    return write_frames(journal, from, size, at);
}

bool is_journal_of(const StoreMarks& marks, std::uint32_t number, const JournalEnd& end) {
    if (!marks.legible) return false;
    switch (marks.journal) {
        case JournalState::Never:
            return end.frames == 0;
        case JournalState::Closed:
            return end.frames == 0 || end.digest == marks.name;
        case JournalState::Open:
            return number == marks.name || (number == marks.name + 1 && end.frames == 0);
    }
    return false;
}

// --- what SQLite calls ---

int x_close(sqlite3_file* base) {
    File& file = file_of(base);
    if (file.database != nullptr) file.database->journal = nullptr;
    delete[] std::exchange(file.scratch, nullptr);
    delete[] std::exchange(file.frames, nullptr);
    delete[] std::exchange(file.between, nullptr);
    const int result = file.methods() == nullptr ? SQLITE_OK : file.methods()->xClose(file.real());
    delete[] std::exchange(file.own_name, nullptr);
    return result;
}

int x_read(sqlite3_file* base, void* to, int size, sqlite3_int64 at) {
    File& file = file_of(base);
    if (file.kind == Kind::Database) return read_database(file, to, size, at);
    if (const int result = settle_journal(file); result != SQLITE_OK) return result;
    const bool checked = file.kind == Kind::Journal && is_committed_frame(file, size, at);
    return checked ? read_frame(file, static_cast<Byte*>(to), size, at) : file.read(to, size, at);
}

int x_write(sqlite3_file* base, const void* from, int size, sqlite3_int64 at) {
    File& file = file_of(base);
    if (file.kind == Kind::Database) return write_database(file, from, size, at);
    return file.kind == Kind::Journal ? write_journal(file, from, size, at) : file.write(from, size, at);
}

int x_truncate(sqlite3_file* base, sqlite3_int64 size) {
    File& file = file_of(base);
    if (file.kind == Kind::Journal && size == 0 && file.database != nullptr && file.database->checked) {
        const int result = close_journal(*file.database, end_in(file.database->index));
        if (result != SQLITE_OK) return result;
    }
    if (const int result = settle_journal(file); result != SQLITE_OK) return result;
    file.length = 0;
    const WithinSizeLimit no_signal;
    return file.methods()->xTruncate(file.real(), size);
}

int x_sync(sqlite3_file* base, int flags) {
    File& file = file_of(base);
    if (const int result = settle_journal(file); result != SQLITE_OK) return result;
    return file.methods()->xSync(file.real(), flags);
}

int x_file_size(sqlite3_file* base, sqlite3_int64* size) {
    File& file = file_of(base);
    if (const int result = settle_journal(file); result != SQLITE_OK) return result;
    return file.methods()->xFileSize(file.real(), size);
}

int x_lock(sqlite3_file* base, int level) {
    File& file = file_of(base);
    return file.methods()->xLock(file.real(), level);
}

int x_unlock(sqlite3_file* base, int level) {
    File& file = file_of(base);
    return file.methods()->xUnlock(file.real(), level);
}

int x_check_reserved_lock(sqlite3_file* base, int* result) {
    File& file = file_of(base);
    return file.methods()->xCheckReservedLock(file.real(), result);
}

// Beside SQLite's: the marks (read_marks and so on).
enum Control : int { kReadMarks = 0x5A720001, kMarkCommitted, kExpectPages };

int control_marks(File& file, int what, void* argument) {
    MarkBytes bytes;
    if (file.kind != Kind::Database) return SQLITE_NOTFOUND;
    if (what == kMarkCommitted) {
        const std::uint64_t boot = boot_number();
        if (!file.checked || boot == 0) return SQLITE_OK;
        put_committed(bytes.data(), *static_cast<const LONGLONG*>(argument), boot);
        return write_mark(file, bytes.data(), kJournalAt, 0);
    }
    if (what == kExpectPages) {
        file.page_size = *static_cast<const int*>(argument);
        file.checked = true;
        return SQLITE_OK;
    }
    return read_marks_of(file, *static_cast<StoreMarks*>(argument));
}

int x_file_control(sqlite3_file* base, int what, void* argument) {
    File& file = file_of(base);
    if (what >= kReadMarks && what <= kExpectPages) return control_marks(file, what, argument);
    if (what != SQLITE_FCNTL_SIZE_HINT) return file.methods()->xFileControl(file.real(), what, argument);
    const WithinSizeLimit no_signal;  // it sets room aside
    return file.methods()->xFileControl(file.real(), what, argument);
}

int x_sector_size(sqlite3_file* base) {
    File& file = file_of(base);
    return file.methods()->xSectorSize(file.real());
}

int x_device_characteristics(sqlite3_file* base) {
    File& file = file_of(base);
    return file.methods()->xDeviceCharacteristics(file.real());
}

int attach_index(File& file) {
    auto* const shared = new (std::nothrow) JournalIndex;
    if (shared == nullptr) return SQLITE_IOERR_NOMEM;
    int result = SQLITE_OK;
    // Of the host's file only the locks are used, and others are kept from using more.
    const int error = shared->attach(file.name, file.number, [&](bool is_first) {
        void volatile* nothing = nullptr;
        result = file.methods()->xShmMap(file.real(), 0, static_cast<int>(JournalIndex::kRegionSize), 0, &nothing);
        if (result == SQLITE_OK && !guard_index(file.real(), is_first)) result = SQLITE_LOCKED;
        return result == SQLITE_OK;
    });
    if (error == 0) {
        file.shared = shared;
        file.index = shared->region(0);
        return SQLITE_OK;
    }
    file.methods()->xShmUnmap(file.real(), 0);
    delete shared;
    if (result != SQLITE_OK) return result;
    // Not SQLITE_BUSY, at which SQLite tries again: it has been waited for.
    if (error == ETIMEDOUT) return SQLITE_LOCKED;
    // The host has no more memory of that kind; its disk is not meant.
    if (error == ENOMEM || error == ENOSPC) return SQLITE_IOERR_NOMEM;
    errno = error;
    return error == EMFILE || error == ENFILE ? SQLITE_CANTOPEN : SQLITE_IOERR_SHMMAP;
}

int x_shm_map(sqlite3_file* base, int region, int size, int, void volatile** at) {
    File& file = file_of(base);
    *at = nullptr;
    if (size != static_cast<int>(JournalIndex::kRegionSize)) return SQLITE_IOERR_SHMMAP;
    if (file.shared == nullptr) {
        const WithinSizeLimit no_signal;
        if (const int result = attach_index(file); result != SQLITE_OK) return result;
    }
    const auto number = static_cast<std::size_t>(region);
    if (number >= JournalIndex::kRegions) return SQLITE_FULL;
    *at = file.shared->region(number);
    return SQLITE_OK;
}

int x_shm_lock(sqlite3_file* base, int offset, int count, int flags) {
    File& file = file_of(base);
    // Who stops writing has committed what is to stay, and the next one writes in its place.
    const bool ends_writing = offset == kWriteLock && (flags & SQLITE_SHM_UNLOCK) != 0;
    if (ends_writing && file.journal != nullptr) file.journal->held = 0;
    return file.methods()->xShmLock(file.real(), offset, count, flags);
}

void x_shm_barrier(sqlite3_file* base) {
    File& file = file_of(base);
    file.methods()->xShmBarrier(file.real());
}

int x_shm_unmap(sqlite3_file* base, int remove) {
    File& file = file_of(base);
    file.end = end_in(file.index);
    file.index = nullptr;
    if (file.shared != nullptr && remove != 0) file.shared->clear();
    // The locks first: who finds them finds the memory too.
    const int result = file.methods()->xShmUnmap(file.real(), remove);
    delete std::exchange(file.shared, nullptr);
    return result;
}

// Without xFetch: pages are read by calls, and looked at.
constexpr sqlite3_io_methods kMethods = {
    2,
    x_close,
    x_read,
    x_write,
    x_truncate,
    x_sync,
    x_file_size,
    x_lock,
    x_unlock,
    x_check_reserved_lock,
    x_file_control,
    x_sector_size,
    x_device_characteristics,
    x_shm_map,
    x_shm_lock,
    x_shm_barrier,
    x_shm_unmap,
    nullptr,
    nullptr,
};

// Of the file that was opened, not of one that has its name by now.
ino_t number_of_opened(File& file) {
    struct stat status = {};
    int moved = 1;
    if (stat(file.name, &status) != 0) return 0;
    file.methods()->xFileControl(file.real(), SQLITE_FCNTL_HAS_MOVED, &moved);
    return moved == 0 ? status.st_ino : 0;
}

// Somebody may put another file in the place of the one that was opened just now: then that one is meant.
int open_database(File& file, const char* name, int flags, int* flags_out) {
    constexpr int kTries = 100;
    file.kind = Kind::Database;
    file.name = name;
    for (int i = 0; i < kTries; ++i) {
        if (const int result = host()->xOpen(host(), name, file.real(), flags, flags_out); result != SQLITE_OK)
            return result;
        file.number = number_of_opened(file);
        if (file.number != 0) return SQLITE_OK;
        file.methods()->xClose(file.real());
    }
    return SQLITE_BUSY;
}

constinit thread_local const char* files_beside = nullptr;

// SQLite gives no name to what it sets aside; what it says otherwise (made anew, removed when it is open) stays.
const char* name_beside(File& file, const char* path) {
    constexpr std::size_t kEnd = 32;
    static std::atomic<unsigned> count{0};
    const std::size_t size = std::strlen(path) + kEnd;
    file.own_name = new (std::nothrow) char[size]{};
    if (file.own_name != nullptr)
        std::snprintf(file.own_name, size - 1, "%s.temp-%d-%u", path, static_cast<int>(getpid()), ++count);
    return file.own_name;
}

int open_other(File& file, const char* name, int flags, int* flags_out) {
    if (name == nullptr && files_beside != nullptr) name = name_beside(file, files_beside);
    if (const int result = host()->xOpen(host(), name, file.real(), flags, flags_out); result != SQLITE_OK) {
        delete[] std::exchange(file.own_name, nullptr);
        return result;
    }
    file.kind = (flags & SQLITE_OPEN_WAL) != 0 ? Kind::Journal : Kind::Other;
    if (file.kind != Kind::Journal) return SQLITE_OK;
    file.database = &file_of(sqlite3_database_file_object(name));
    file.database->journal = &file;
    return SQLITE_OK;
}

int x_open(sqlite3_vfs*, const char* name, sqlite3_file* base, int flags, int* flags_out) {
    File& file = *new (base) File{};
    const bool is_database = (flags & SQLITE_OPEN_MAIN_DB) != 0;
    const int result =
        is_database ? open_database(file, name, flags, flags_out) : open_other(file, name, flags, flags_out);
    if (result == SQLITE_OK) file.base.pMethods = &kMethods;
    return result;
}

bool is_journal(const char* name) {
    const std::size_t length = std::strlen(name);
    return length > 4 && std::memcmp(name + length - 4, "-wal", 4) == 0;
}

// SQLite removes a journal once all of it is in the file. It names it as it did when it was opened.
int x_delete(sqlite3_vfs*, const char* name, int sync_folder) {
    if (is_journal(name)) {
        sqlite3_file* const base = sqlite3_database_file_object(name);
        if (base != nullptr && base->pMethods == &kMethods && file_of(base).checked) {
            if (const int result = close_journal(file_of(base), file_of(base).end); result != SQLITE_OK) return result;
        }
    }
    return host()->xDelete(host(), name, sync_folder);
}

}  // namespace

FilesBeside::FilesBeside(const char* path) noexcept {
    files_beside = path;
}

FilesBeside::~FilesBeside() {
    files_beside = nullptr;
}

const char* checked_vfs() noexcept {
    static const bool registered = [] {
        static sqlite3_vfs vfs = *host();
        vfs.szOsFile = static_cast<int>(sizeof(File)) + host()->szOsFile;
        vfs.pNext = nullptr;
        vfs.zName = kName;
        vfs.xOpen = x_open;
        vfs.xDelete = x_delete;
        return sqlite3_vfs_register(&vfs, 0) == SQLITE_OK;
    }();
    return registered ? kName : nullptr;
}

int read_marks(sqlite3* database, StoreMarks& marks) noexcept {
    return sqlite3_file_control(database, "main", kReadMarks, &marks);
}

int mark_committed(sqlite3* database, LONGLONG seq) noexcept {
    return sqlite3_file_control(database, "main", kMarkCommitted, &seq);
}

int expect_pages(sqlite3* database, int page_size) noexcept {
    return sqlite3_file_control(database, "main", kExpectPages, &page_size);
}

int journal_fits(sqlite3* database, bool& fits) noexcept {
    sqlite3_file* file = nullptr;
    sqlite3_file* journal = nullptr;
    fits = true;
    if (sqlite3_file_control(database, "main", SQLITE_FCNTL_FILE_POINTER, &file) != SQLITE_OK) return SQLITE_ERROR;
    if (file == nullptr || file->pMethods != &kMethods || !file_of(file).checked) return SQLITE_OK;
    sqlite3_file_control(database, "main", SQLITE_FCNTL_JOURNAL_POINTER, &journal);
    const bool has_journal =
        journal != nullptr && journal->pMethods == &kMethods && file_of(journal).kind == Kind::Journal;
    StoreMarks marks = {};
    const int result = read_marks_of(file_of(file), marks);
    if (result != SQLITE_OK) return result;
    fits = is_journal_of(marks, has_journal ? number_of(file_of(journal)) : 0, end_in(file_of(file).index));
    return SQLITE_OK;
}

int reserve_checksums(sqlite3* database) noexcept {
    int reserved = kChecksum;
    return sqlite3_file_control(database, "main", SQLITE_FCNTL_RESERVE_BYTES, &reserved);
}

}  // namespace zr::platform

LPCSTR ZrStoreLayer() {
    return zr::platform::checked_vfs();
}

void ZrPretendLaterBoot() {
    zr::platform::boots_later.fetch_add(1, std::memory_order_relaxed);
}
