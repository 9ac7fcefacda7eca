#pragma once

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <functional>
#include <iterator>
#include <memory>
#include <sstream>
#include <string>
#include <vector>

#include "platform/kernel/kernel_support.h"
#include "platform/mapping.h"
#include "platform/memory.h"
#include "platform/objects.h"
#include "support/forked.h"

namespace zr::test {

// A second process that runs a function: forked, so that thousands of them take seconds. It has nothing of this
// process's named objects; what it opens is its own. Killed and reaped with the object.
class Fork {
public:
    explicit Fork(const std::function<int()>& body) {
        EXPECT_EQ(pipe2(pipe_, O_CLOEXEC), 0);
        pid_ = fork_beside_threads();
        if (pid_ == 0) {
            mine() = pipe_[1];
            _exit(body());
        }
        close(pipe_[1]);
    }
    ~Fork() {
        kill();
        close(pipe_[0]);
    }
    Fork(const Fork&) = delete;
    Fork& operator=(const Fork&) = delete;

    // In the child: tells the parent how far it is. In the parent: waits for that; 0 when the child has ended.
    static void say(char what) { EXPECT_EQ(write(mine(), &what, 1), 1); }
    char hear() {
        char what = 0;
        return read(pipe_[0], &what, 1) == 1 ? what : '\0';
    }

    // Which of them has something to say; waits until one has.
    static std::size_t next_to_speak(const std::vector<std::unique_ptr<Fork>>& all) {
        std::vector<pollfd> fds;
        for (const auto& one : all) {
            fds.push_back({one->pipe_[0], POLLIN, 0});
        }
        EXPECT_GT(poll(fds.data(), fds.size(), -1), 0);
        const auto ready = [](const pollfd& fd) { return fd.revents != 0; };
        return static_cast<std::size_t>(std::find_if(fds.begin(), fds.end(), ready) - fds.begin());
    }

    void kill() {
        if (pid_ > 0) ::kill(pid_, SIGKILL);
        join();
    }
    int join() {
        int status = 0;
        if (pid_ > 0) waitpid(std::exchange(pid_, -1), &status, 0);
        return WIFEXITED(status) ? WEXITSTATUS(status) : -WTERMSIG(status);
    }
    pid_t pid() const { return pid_; }

private:
    static int& mine() {
        static int fd = -1;
        return fd;
    }

    int pipe_[2] = {-1, -1};
    pid_t pid_ = -1;
};

inline Handle named_event(const char16_t* name, bool manual = false, bool signalled = false) {
    return Handle(CreateEventW(nullptr, manual ? TRUE : FALSE, signalled ? TRUE : FALSE, name));
}
inline Handle named_mutex(const char16_t* name, bool owned = false) {
    return Handle(CreateMutexW(nullptr, owned ? TRUE : FALSE, name));
}
inline Handle named_mapping(const char16_t* name, DWORD size, DWORD protection = PAGE_READWRITE) {
    return Handle(CreateFileMappingW(INVALID_HANDLE_VALUE, nullptr, protection, 0, size, name));
}

// What a listing says of an object, copied.
struct Listed {
    std::u16string name;
    ZrNamedObject object;
    std::vector<DWORD> processes;
};

inline std::vector<Listed> listed() {
    std::vector<Listed> all;
    EXPECT_TRUE(ZrEnumNamedObjects(
        [](const ZrNamedObject* object, LPVOID context) {
            static_cast<std::vector<Listed>*>(context)->push_back(
                {std::u16string(object->Name, object->NameLength),
                 *object,
                 {object->Processes, object->Processes + object->ProcessCount}});
            return TRUE;
        },
        &all));
    return all;
}

// How many bytes of the memory of all named objects are in use, in whole pages: it is the largest of its kind that this
// process has.
inline std::uintmax_t region_size() {
    std::string number;
    std::uintmax_t largest = 0;
    std::ifstream maps("/proc/self/maps");
    for (std::string line; std::getline(maps, line);) {
        if (line.find("/SYSV") == std::string::npos) continue;
        std::uintmax_t begin = 0;
        std::uintmax_t end = 0;
        std::string skip;
        std::string inode;
        std::istringstream fields(line);
        char dash = 0;
        fields >> std::hex >> begin >> dash >> end >> skip >> skip >> skip >> inode;
        if (end - begin <= largest) continue;
        largest = end - begin;
        number = inode;
    }
    std::ifstream table("/proc/sysvipc/shm");
    std::string line;
    std::getline(table, line);
    while (std::getline(table, line)) {
        std::istringstream fields(line);
        std::vector<std::string> values;
        for (std::string value; fields >> value;) {
            values.push_back(value);
        }
        if (values.size() > 14 && values[1] == number) return std::stoull(values[14]);
    }
    return 0;
}

// The runtime directory's files but for the one of all objects.
inline std::vector<std::string> content_files() {
    std::vector<std::string> names;
    const auto folder = std::filesystem::path(std::getenv("XDG_RUNTIME_DIR")) / "zrutility";
    if (!std::filesystem::exists(folder)) return names;
    for (const auto& entry : std::filesystem::directory_iterator(folder)) {
        const std::string name = entry.path().filename();
        if (!name.starts_with("objects-")) names.push_back(name);
    }
    return names;
}

// A view, unmapped with the object.
class View {
public:
    View(HANDLE mapping, DWORD access, SIZE_T offset = 0, SIZE_T size = 0)
        : base_(static_cast<char*>(MapViewOfFile(mapping, access, 0, static_cast<DWORD>(offset), size))) {}
    ~View() {
        if (base_) UnmapViewOfFile(base_);
    }
    View(const View&) = delete;
    View& operator=(const View&) = delete;
    char* operator+(SIZE_T offset) const { return base_ + offset; }
    char& operator[](SIZE_T offset) const { return base_[offset]; }
    explicit operator bool() const { return base_ != nullptr; }

private:
    char* base_;
};

}  // namespace zr::test
