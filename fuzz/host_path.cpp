// Paths and patterns of any kind: a path never leaves the root, names survive the round trip, a search finds what the
// pattern means, and nothing crashes. The first byte chooses, the rest is the text: UTF-16 as it comes, or a host name.

#include <stdlib.h>
#include <unistd.h>

#include <cstdint>
#include <cstdio>
#include <filesystem>
#include <string>

#include "files/host_path.h"
#include "platform/base.h"
#include "platform/files.h"

namespace {

namespace fs = std::filesystem;
namespace zp = zr::platform;

void require(bool condition, const char* what) {
    if (condition) return;
    fprintf(stderr, "broken: %s\n", what);
    abort();
}

// A root with a little of everything in it, removed at the end.
struct World {
    World() {
        std::string pattern = (fs::temp_directory_path() / "zrfuzz-XXXXXX").string();
        root = mkdtemp(pattern.data());
        setenv("ZR_ROOT", root.c_str(), 1);
        fs::create_directories(root / "My Documents/deep");
        for (const char* name : {"a", "A.txt", "b.TXT", "\xC3\x84.txt", "\xFF", "back\\slash", "\xEF\x81\x9C"})
            fclose(fopen((root / name).c_str(), "w"));
    }
    ~World() { fs::remove_all(root); }
    fs::path root;
};

void check_path(const std::u16string& text) {
    const zp::HostPath spelled = zp::spelled_host_path(text.c_str());
    const zp::HostPath found = zp::existing_host_path(text.c_str());
    const zp::HostPath made = zp::new_host_path(text.c_str());
    for (const zp::HostPath& host : {spelled, found, made}) {
        if (host.error) continue;
        const std::string below = zp::host_root() + "/";
        require(host.path == zp::host_root() || host.path.starts_with(below), "a path left the root");
        const std::string inside = host.path.substr(zp::host_root().size()) + "/";
        require(inside.find("/../") == inside.npos && inside.find("/./") == inside.npos, "dots were left in a path");
        require(host.path.find('\0') == host.path.npos, "a NUL in a path");
        std::u16string back;
        require(zp::handheld_path(host.path, back), "a path below the root has no handheld path");
        if (back.size() < MAX_PATH)
            require(zp::spelled_host_path(back.c_str()).path == host.path, "a path did not survive the round trip");
    }
    require((found.error == 0) == (GetFileAttributesW(text.c_str()) != INVALID_FILE_ATTRIBUTES) ||
                GetLastError() == ERROR_ACCESS_DENIED || GetLastError() == ERROR_FILENAME_EXCED_RANGE,
            "attributes and path disagree");
}

void check_name(std::string name) {
    for (char& c : name)
        if (c == '/' || c == 0) c = '_';
    const std::u16string wide = zp::handheld_name(name);
    require(wide.find(u'\\') == wide.npos && wide.find(u'/') == wide.npos, "a separator in a name");
    require(wide.find(u'\0') == wide.npos, "a NUL in a name");
    require(wide.size() <= name.size(), "a name grew");
    require(zp::host_name(wide) == name, "a name did not survive the round trip");
}

// Dynamic programming, where the search walks back.
bool matches(const std::u16string& pattern, const std::u16string& name) {
    if (pattern == u"*.*") return true;
    std::u16string reach(name.size() + 1, 0);
    reach[0] = 1;
    for (const WCHAR p : pattern) {
        std::u16string next(name.size() + 1, 0);
        for (std::size_t i = 0; i <= name.size(); ++i) {
            if (p == u'*')
                next[i] = reach[i] || (i > 0 && next[i - 1]);
            else if (i > 0)
                next[i] = reach[i - 1] && (p == u'?' || towlower(p) == towlower(name[i - 1]));
        }
        reach = next;
    }
    return reach[name.size()] != 0;
}

void check_pattern(std::u16string pattern) {
    for (WCHAR& c : pattern)
        if (c == u'\\' || c == u'/' || c == 0) c = u'*';
    if (pattern.size() > 200 || pattern.find_first_of(u"*?") == pattern.npos) return;
    int expected = 0;
    for (const auto& entry : fs::directory_iterator(zp::host_root()))
        expected += matches(pattern, zp::handheld_name(entry.path().filename().string()));
    WIN32_FIND_DATAW data;
    const HANDLE search = FindFirstFileW((u"\\" + pattern).c_str(), &data);
    int found = search != INVALID_HANDLE_VALUE;
    while (search != INVALID_HANDLE_VALUE && FindNextFileW(search, &data))
        ++found;
    if (search != INVALID_HANDLE_VALUE) FindClose(search);
    require(found == expected, "a search and its pattern disagree");
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    static const World world;
    if (size == 0) return 0;
    const int choice = data[0] % 3;
    const std::string bytes(reinterpret_cast<const char*>(data + 1), size - 1);
    std::u16string text;
    for (std::size_t i = 0; i + 1 < bytes.size(); i += 2)
        text +=
            static_cast<WCHAR>(static_cast<unsigned char>(bytes[i]) | (static_cast<unsigned char>(bytes[i + 1]) << 8));
    if (choice == 0) check_path(text);
    if (choice == 1) check_name(bytes);
    if (choice == 2) check_pattern(text);
    return 0;
}
