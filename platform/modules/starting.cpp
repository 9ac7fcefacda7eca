// Starting programs.

#include <signal.h>
#include <spawn.h>
#include <unistd.h>

#include <cerrno>
#include <new>
#include <string>
#include <vector>

#include "base/host_error.h"
#include "base/utf.h"
#include "files/host_path.h"
#include "kernel/child_process.h"
#include "kernel/thread.h"
#include "platform/base.h"
#include "platform/kernel.h"
#include "platform/modules.h"

namespace zr::platform {
namespace {

bool is_blank(WCHAR character) {
    return character == u' ' || character == u'\t';
}

// The words of a command line. In front of a quote two backslashes are one, and a single one makes the quote a
// character like any other; elsewhere backslashes are themselves.
std::vector<std::u16string> words_of(LPCWSTR line) {
    std::vector<std::u16string> words;
    for (;;) {
        while (is_blank(*line))
            ++line;
        if (*line == 0) return words;
        std::u16string word;
        bool quoted = false;
        for (; *line != 0 && (quoted || !is_blank(*line)); ++line) {
            std::size_t backslashes = 0;
            for (; *line == u'\\'; ++line)
                ++backslashes;
            if (*line != u'"') {
                word.append(backslashes, u'\\');
                if (*line == 0 || (!quoted && is_blank(*line))) break;
                word += *line;
                continue;
            }
            word.append(backslashes / 2, u'\\');
            if (backslashes % 2 == 1) {
                word += u'"';
            } else {
                quoted = !quoted;
            }
        }
        words.push_back(std::move(word));
    }
}

// What the host is to run; the error when it is known that there is nothing.
std::string host_program(LPCWSTR name, DWORD& error) {
    const HostPath host = existing_host_path(name);
    if (!host.error) return host.path;
    const bool missing = host.error == ERROR_FILE_NOT_FOUND || host.error == ERROR_PATH_NOT_FOUND;
    const bool bare = *name != 0 && !wcschr(name, u'\\') && !wcschr(name, u'/');
    if (missing && bare) return wide_to_host(name);
    error = *name == 0 ? ERROR_FILE_NOT_FOUND : host.error;
    return {};
}

DWORD spawn_error(int number) {
    switch (number) {
        case ENOEXEC:
        case ELIBBAD:
            return ERROR_BAD_EXE_FORMAT;
        case E2BIG:
            return ERROR_FILENAME_EXCED_RANGE;
        case EAGAIN:
            return ERROR_NOT_ENOUGH_MEMORY;
        case EACCES:
            return ERROR_ACCESS_DENIED;
        default:
            return error_from_errno(number);
    }
}

// How the host starts a program.
class Spawning {
public:
    Spawning() {
        if (posix_spawn_file_actions_init(&actions_) != 0) throw std::bad_alloc();
        if (posix_spawnattr_init(&attributes_) != 0 ||
            posix_spawn_file_actions_addclosefrom_np(&actions_, STDERR_FILENO + 1) != 0) {
            posix_spawn_file_actions_destroy(&actions_);
            throw std::bad_alloc();
        }
        sigset_t none;
        sigset_t all;
        sigemptyset(&none);
        sigfillset(&all);
        posix_spawnattr_setsigmask(&attributes_, &none);
        posix_spawnattr_setsigdefault(&attributes_, &all);
        posix_spawnattr_setflags(&attributes_, POSIX_SPAWN_SETSIGMASK | POSIX_SPAWN_SETSIGDEF);
    }
    ~Spawning() {
        posix_spawnattr_destroy(&attributes_);
        posix_spawn_file_actions_destroy(&actions_);
    }
    Spawning(const Spawning&) = delete;
    Spawning& operator=(const Spawning&) = delete;

    // An error number.
    int run(const std::string& program, const std::vector<std::string>& arguments, pid_t& child) {
        std::vector<char*> pointers;
        pointers.reserve(arguments.size() + 1);
        for (const std::string& argument : arguments) {
            pointers.push_back(const_cast<char*>(argument.c_str()));
        }
        pointers.push_back(nullptr);
        const auto start = program.find('/') == program.npos ? posix_spawnp : posix_spawn;
        return start(&child, program.c_str(), &actions_, &attributes_, pointers.data(), environ);
    }

private:
    posix_spawn_file_actions_t actions_;
    posix_spawnattr_t attributes_;
};

DWORD start(LPCWSTR image, LPCWSTR command_line, PROCESS_INFORMATION& information) {
    std::vector<std::u16string> words = words_of(command_line ? command_line : u"");
    if (image) words.insert(words.begin(), image);
    if (words.empty()) return ERROR_INVALID_PARAMETER;
    DWORD error = ERROR_SUCCESS;
    const std::string program = host_program(words[0].c_str(), error);
    if (error != ERROR_SUCCESS) return error;
    std::vector<std::string> arguments;
    arguments.reserve(words.size());
    for (const std::u16string& word : words) {
        arguments.push_back(wide_to_host(word));
    }
    pid_t child = 0;
    if (const int number = Spawning().run(program, arguments, child)) return spawn_error(number);
    ChildHandles handles;
    error = adopt_child(child, handles);
    if (error != ERROR_SUCCESS) return error;
    information = {handles.process, handles.thread, static_cast<DWORD>(child), static_cast<DWORD>(child)};
    return ERROR_SUCCESS;
}

}  // namespace
}  // namespace zr::platform

using namespace zr::platform;

BOOL CreateProcessW(LPCWSTR image, LPCWSTR command_line, SECURITY_ATTRIBUTES* process_attributes,
                    SECURITY_ATTRIBUTES* thread_attributes, BOOL inherit, DWORD flags, LPVOID environment,
                    LPCWSTR folder, STARTUPINFOW*, PROCESS_INFORMATION* information) {
    cancellation_point();
    DWORD error = ERROR_INVALID_PARAMETER;
    const bool empty = !process_attributes && !thread_attributes && !inherit && !environment && !folder;
    if (empty && information && (flags & ~(CREATE_SUSPENDED | CREATE_NEW_CONSOLE)) == 0) {
        try {
            error = (flags & CREATE_SUSPENDED) != 0 ? ERROR_NOT_SUPPORTED : start(image, command_line, *information);
        } catch (const std::bad_alloc&) {
            error = ERROR_NOT_ENOUGH_MEMORY;
        }
    }
    if (error == ERROR_SUCCESS) return TRUE;
    SetLastError(error);
    return FALSE;
}
