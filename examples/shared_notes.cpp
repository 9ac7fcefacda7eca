// Two threads write notes into memory that another process reads.
//
// Run without arguments, it is the writer: it creates a named region, lets two threads add to it, starts itself a
// second time as the reader and waits until that has read. A lock takes care of the threads of one process; shared
// memory has no lock of its own, so a named event tells the processes whose turn it is.

#include <spawn.h>
#include <sys/wait.h>

#include <cstdio>
#include <cstring>
#include <string>
#include <thread>

#include "ZrUtility/ZrUtility.h"
#include "platform/kernel.h"

extern char** environ;

namespace {

// The library takes names that it may write to, so these are arrays.
WCHAR region_name[] = u"example.shared.notes";
constexpr const WCHAR* kReadEvent = u"example.shared.notes.read";
constexpr ULONG kRoom = 1000;  // bytes of content

// The notes of this process, and the lock that each access holds.
class Notes {
public:
    explicit Notes(LockInterface& lock) : lock_(lock) {}

    void add(const std::string& note) {
        LockHelper hold(&lock_);  // until the end of this function
        text_ += note + "\n";
    }
    std::string text() {
        LockHelper hold(&lock_);
        return text_;
    }

private:
    LockInterface& lock_;  // which kind it is, the owner has chosen
    std::string text_;
};

// The event that the reader sets when it has read; both processes get the same one, whoever comes first.
HANDLE read_event() {
    return CreateEventW(nullptr, FALSE, FALSE, kReadEvent);
}

bool start_reader(char* program, pid_t& reader) {
    char argument[] = "read";
    char* const arguments[] = {program, argument, nullptr};
    return posix_spawn(&reader, "/proc/self/exe", nullptr, nullptr, arguments, environ) == 0;
}

int fail(const char* what) {
    std::fprintf(stderr, "shared_notes: %s: error %u\n", what, GetLastError());
    return 1;
}

int write_notes(char* program) {
    CriticalSectionLock lock;
    if (!lock.Init()) return fail("no lock");
    Notes notes(lock);
    std::thread first([&notes] { notes.add("milk"); });
    std::thread second([&notes] { notes.add("bread"); });
    first.join();
    second.join();

    // The region lives as long as some process has it open: until `memory` goes.
    SharedMemManager memory;
    if (memory.Create(region_name, kRoom, PAGE_READWRITE, nullptr) != S_OK) return fail("somebody else runs this");
    std::string text = notes.text();
    if (memory.SetContent(region_name, reinterpret_cast<unsigned char*>(text.data()),
                          static_cast<ULONG>(text.size())) != S_OK) {
        return fail("the notes do not fit");
    }

    const HANDLE has_read = read_event();
    pid_t reader = 0;
    if (!has_read || !start_reader(program, reader)) return fail("no reader");
    const DWORD result = WaitForSingleObject(has_read, 10000);
    int status = 0;
    waitpid(reader, &status, 0);
    CloseHandle(has_read);
    if (result != WAIT_OBJECT_0) return fail("the reader did not read");
    std::printf("and the writer knows that it was read\n");
    return 0;
}

int read_notes() {
    SharedMemManager memory;
    if (memory.Open(region_name, PAGE_READWRITE, nullptr) != S_OK) return fail("nobody has written");
    unsigned char* content = nullptr;
    SharedMemManager::SharedMemHeader header{};
    if (memory.GetContent(region_name, &content, &header) != S_OK) return fail("cannot read");
    std::printf("another process reads %u bytes:\n%.*s", header.contentLength, static_cast<int>(header.contentLength),
                reinterpret_cast<const char*>(content));
    std::fflush(stdout);
    const HANDLE has_read = read_event();
    if (!has_read) return fail("no event");
    SetEvent(has_read);
    CloseHandle(has_read);
    return 0;
}

}  // namespace

int main(int argc, char** argv) {
    return argc > 1 && std::strcmp(argv[1], "read") == 0 ? read_notes() : write_notes(argv[0]);
}
