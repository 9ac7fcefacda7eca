#include "named/file_mapping.h"

#include <fcntl.h>
#include <sys/stat.h>

#include <cerrno>
#include <climits>
#include <limits>
#include <new>
#include <string>

#include "base/fail.h"
#include "base/host_error.h"
#include "base/host_fd.h"
#include "base/shared_memory.h"
#include "named/session.h"
#include "names.h"
#include "page_protection.h"
#include "platform/base.h"
#include "views.h"

namespace zr::platform::named {
namespace {

// The contents are shared memory, or a file of the user's own, which is opened once, so that it may be renamed or
// deleted. Nothing keeps a descriptor of memory.
class NamedMapping final : public Mapping {
public:
    NamedMapping(const named::Object& object, DWORD asked) noexcept
        : Mapping(object.size, object.protection, asked),
          contents_(object.contents),
          bytes_(object.size),
          device_(object.device),
          inode_(object.inode) {}

    Member& member() noexcept { return member_; }

    // After it has become a member. An error code: without contents there is no mapping.
    DWORD open_contents() noexcept {
        if (inode_ == 0) return open_memory();
        own_ = open_own_file(may_write(protection()) ? O_RDWR : O_RDONLY);
        if (!own_) return error_from_errno(errno);
        struct stat status {};
        const bool same = fstat(own_.get(), &status) == 0 && status.st_dev == device_ && status.st_ino == inode_;
        if (!same) return ERROR_FILE_INVALID;
        hold_ = MappedFileHold(status.st_dev, status.st_ino);
        return hold_ ? ERROR_SUCCESS : ERROR_NOT_ENOUGH_MEMORY;
    }

protected:
    ~NamedMapping() override = default;
    void last_handle_closed() noexcept override { member_.close(*this); }

    void* view(std::uint64_t offset, std::size_t size, int host_protection, bool copy) noexcept override {
        if (!member_.is_valid()) {
            report_invalid_handle();
            return nullptr;
        }
        if (own_) return view_file(own_.get(), offset, size, host_protection, copy, hold_);
        const auto pages = static_cast<std::size_t>(whole_pages(size));
        return keep_view({pages, host_protection, copy},
                         [&] { return memory_.view(static_cast<std::size_t>(offset), pages, host_protection, copy); });
    }

private:
    DWORD open_memory() noexcept {
        // A process with long addresses makes more than one with short ones can have.
        const std::uint64_t pages = whole_pages(bytes_);
        if (pages > std::numeric_limits<std::size_t>::max() / 2) return ERROR_NOT_ENOUGH_MEMORY;
        return error_from_errno(memory_.open(static_cast<int>(contents_), static_cast<std::size_t>(pages)));
    }

    HostFd open_own_file(int flags) const noexcept {
        try {
            return open_host(member_.session().region().contents_path(contents_).c_str(), flags);
        } catch (const std::bad_alloc&) {
            errno = ENOMEM;
            return {};
        }
    }

    const std::uint64_t contents_;
    const std::uint64_t bytes_;
    const std::uint64_t device_;
    const std::uint64_t inode_;
    SharedSegment memory_;
    HostFd own_;
    Member member_;
};

// The contents of a mapping that is not there yet: memory, or a link to the user's own file. The link's name says whose
// it is, so that it is deleted should the process end first; memory ends by itself.
class NewContents {
public:
    explicit NewContents(Session& session) noexcept : session_(session) {}
    ~NewContents() {
        if (!path_.empty()) unlink(path_.c_str());
    }
    NewContents(const NewContents&) = delete;
    NewContents& operator=(const NewContents&) = delete;

    // Room for that many bytes, all zero. 0 or an error number.
    int make(std::uint64_t size) noexcept;
    // A link to a file of the user's own, which is open.
    int link_to(int file);
    // Becomes the contents of the object that is about to be made.
    int keep_for(NewObject& wanted);

private:
    std::string unused_path() const;

    Session& session_;
    SharedSegment memory_;
    std::string path_;
};

std::string NewContents::unused_path() const {
    static std::atomic<std::uint64_t> count{0};
    return session_.region().folder() + "/" + kUnfinishedPrefix + std::to_string(session_.place()) + "." +
           std::to_string(session_.generation()) + "." + std::to_string(++count);
}

int NewContents::link_to(int file) {
    std::string path(PATH_MAX, '\0');
    const ssize_t length = readlink(("/proc/self/fd/" + std::to_string(file)).c_str(), path.data(), path.size());
    if (length < 0) return errno;
    path.resize(static_cast<std::size_t>(length));
    path_ = unused_path();
    if (symlink(path.c_str(), path_.c_str()) == 0) return 0;
    const int error = errno;
    path_.clear();
    return error;
}

int NewContents::make(std::uint64_t size) noexcept {
    const std::uint64_t pages = whole_pages(size);
    if (pages < size || pages > std::numeric_limits<std::size_t>::max() / 2) return ENOMEM;
    return memory_.make(static_cast<std::size_t>(pages));
}

int NewContents::keep_for(NewObject& wanted) {
    if (memory_) {
        wanted.contents = static_cast<std::uint64_t>(memory_.number());
        return 0;
    }
    wanted.contents = ++session_.region().header().contents;
    if (rename(path_.c_str(), session_.region().contents_path(wanted.contents).c_str()) != 0) return errno;
    path_.clear();
    return 0;
}

// The mapping of that name, in a handle object of its own. Without contents to make it of, ERROR_FILE_NOT_FOUND when
// there is none. With the members' lock held.
Ref<NamedMapping> open_or_make(Session& session, std::u16string_view name, NewObject* wanted, NewContents* contents,
                               DWORD asked, DWORD& error) {
    Region& region = session.region();
    const std::uint32_t hash = hash_of(name);
    const SessionHold hold(session);
    std::uint32_t index = find_living(region, name, hash);
    error = ERROR_ALREADY_EXISTS;
    if (index != kNone && region.at<Object>(index).kind != Kind::FileMapping) {
        error = ERROR_INVALID_HANDLE;
        return {};
    }
    if (index == kNone) {
        error = ERROR_FILE_NOT_FOUND;
        if (!contents) return {};
        int number = contents->keep_for(*wanted);
        if (number == 0) index = make(region, *wanted, name, hash, session.place(), number);
        if (index == kNone && wanted->inode != 0) unlink(region.contents_path(wanted->contents).c_str());
        error = room_error(number);
        if (index == kNone) return {};
    }
    auto mapping = Ref<NamedMapping>::adopt(new (std::nothrow) NamedMapping(region.at<Object>(index), asked));
    if (mapping) {
        mapping->member().join(session, index, nullptr);
        if (const DWORD failed = mapping->open_contents()) error = failed;
    } else {
        if (error == ERROR_SUCCESS) leave(region, index, session.place());
        error = ERROR_NOT_ENOUGH_MEMORY;
    }
    return mapping;
}

// Opens it, or learns why not; the reference goes after the locks.
HANDLE open_handle_to(Session& session, std::u16string_view name, NewObject* wanted, NewContents* contents, DWORD asked,
                      DWORD& error) {
    Ref<NamedMapping> mapping;
    const std::lock_guard guard(Member::lock());
    mapping = open_or_make(session, name, wanted, contents, asked, error);
    if (!mapping || (error != ERROR_SUCCESS && error != ERROR_ALREADY_EXISTS)) return nullptr;
    const HANDLE handle = open_handle(*mapping);
    if (!handle) error = GetLastError();
    return handle;
}

// Contents for a mapping that does not exist yet, made without a lock held as it may take long. An error code.
DWORD prepare(NewContents& contents, HANDLE file, NewObject& wanted) {
    if (file == INVALID_HANDLE_VALUE) return room_error(contents.make(wanted.size));
    MappedFile over{};
    if (const DWORD error = over.open(file, wanted.size, wanted.protection)) return error;
    struct stat status {};
    if (fstat(over.file.get(), &status) != 0) return error_from_errno(errno);
    wanted.size = over.size;
    wanted.device = status.st_dev;
    wanted.inode = status.st_ino;
    return error_from_errno(contents.link_to(over.file.get()));
}

HANDLE create(std::u16string_view name, HANDLE file, std::uint64_t size, DWORD protection) {
    Session* const session = Session::begin();
    if (!session) return nullptr;
    DWORD error = ERROR_SUCCESS;
    HANDLE handle = open_handle_to(*session, name, nullptr, nullptr, protection, error);
    if (!handle && error == ERROR_FILE_NOT_FOUND) {
        NewContents contents(*session);
        NewObject wanted{.kind = Kind::FileMapping, .size = size, .protection = protection};
        if (const DWORD failed = prepare(contents, file, wanted)) return fail(failed, nullptr);
        // Another may have been quicker: then theirs is opened.
        handle = open_handle_to(*session, name, &wanted, &contents, protection, error);
    }
    SetLastError(error);
    return handle;
}

// The protection whose access this is.
DWORD protection_for(DWORD access) noexcept {
    const bool execute = (access & FILE_MAP_EXECUTE) != 0;
    if ((access & FILE_MAP_WRITE) != 0) return execute ? PAGE_EXECUTE_READWRITE : PAGE_READWRITE;
    return execute ? PAGE_EXECUTE_READ : PAGE_READONLY;
}

}  // namespace

HANDLE create_mapping(std::u16string_view name, HANDLE file, std::uint64_t size, DWORD protection) noexcept {
    try {
        return create(name, file, size, protection);
    } catch (const std::bad_alloc&) {
        return fail(ERROR_NOT_ENOUGH_MEMORY, nullptr);
    }
}

HANDLE open_mapping(LPCWSTR name, DWORD access) noexcept {
    if (!is_name(name)) return fail(ERROR_INVALID_PARAMETER, nullptr);
    Session* const session = Session::begin();
    if (!session) return nullptr;
    DWORD error = ERROR_SUCCESS;
    try {
        const HANDLE handle = open_handle_to(*session, name, nullptr, nullptr, protection_for(access), error);
        if (!handle) SetLastError(error);
        return handle;
    } catch (const std::bad_alloc&) {
        return fail(ERROR_NOT_ENOUGH_MEMORY, nullptr);
    }
}

}  // namespace zr::platform::named
