// Watches a folder of its own, changes something in it, prints what it is told, and ends.
//
// A monitor calls its listener on the thread that initialised it, while that thread handles messages. A program that
// has a message loop needs nothing more; one with another loop polls the queue's descriptor (event_loop.cpp).

#include <ZrUtility/ZrUtility.h>
#include <platform/platform.h>
#include <stdlib.h>

#include <cstdio>
#include <filesystem>
#include <fstream>
#include <functional>
#include <string>

namespace fs = std::filesystem;

namespace {

constexpr DWORD kPatience = 10000;  // milliseconds
constexpr DWORD kStep = 20;

// Names are ASCII here; FormatMessageW and ZrHostPath are there for programs that meet others.
std::string name_in(const WCHAR* path) {
    const std::u16string text(path);
    const std::u16string name = text.substr(text.rfind(u'\\') + 1);
    return {name.begin(), name.end()};
}

class Printer final : public FileSystemListener {
public:
    void OnFileCreated(const WCHAR* path) override { print("created ", name_in(path)); }
    void OnFileChanged(const WCHAR* path) override { print("changed ", name_in(path)); }
    void OnFileDeleted(const WCHAR* path) override { print("deleted ", name_in(path)); }
    void OnFileRenamed(const WCHAR* from, const WCHAR* to) override {
        print("renamed ", name_in(from) + " to " + name_in(to));
    }

    const std::string& last() const { return last_; }

private:
    void print(const char* what, const std::string& names) {
        last_ = what + names;
        std::printf("%s\n", last_.c_str());
    }

    std::string last_;
};

// Handles messages, and with them the monitor's, until it is done. False when it takes too long.
bool pump_until(const std::function<bool()>& done) {
    for (const DWORD begin = GetTickCount(); !done();) {
        if (GetTickCount() - begin > kPatience) return false;
        MsgWaitForMultipleObjectsEx(0, nullptr, kStep, QS_ALLINPUT, MWMO_INPUTAVAILABLE);
        MSG message;
        while (PeekMessageW(&message, nullptr, 0, 0, PM_REMOVE)) {
            DispatchMessageW(&message);
        }
    }
    return true;
}

void append(const fs::path& file, const char* text) {
    std::ofstream(file, std::ios::app) << text;
}

bool change_and_listen(const fs::path& folder, const Printer& printer) {
    const auto told = [&printer](const char* words) {
        return pump_until([&printer, words] { return printer.last() == words; });
    };
    // The folder is watched from some time on after the start: what is done again and again is noticed then.
    if (!pump_until([&] {
            append(folder / "hello.txt", ".");
            return !printer.last().empty();
        })) {
        return false;
    }
    // A program that saves a file writes another one first. That has not the extension that is asked for: nothing is
    // told until it is the file that it shall be.
    append(folder / "letter.tmp", "Dear Jo,\n");
    fs::rename(folder / "letter.tmp", folder / "letter.txt");
    if (!told("renamed letter.tmp to letter.txt")) return false;
    append(folder / "letter.txt", "see you soon\n");
    if (!told("changed letter.txt")) return false;
    fs::remove(folder / "letter.txt");
    return told("deleted letter.txt");
}

bool watch(const fs::path& folder) {
    WCHAR path[MAX_PATH];
    const DWORD length = ZrHandheldPath(folder.c_str(), path, MAX_PATH);
    if (length == 0 || length >= MAX_PATH) return false;
    WCHAR* folders[] = {path};
    Printer printer;
    FileSystemMonitor monitor;  // goes before its listener does
    return monitor.Initialize(&printer, folders, 1, u"txt", 0) == 1 && change_and_listen(folder, printer);
}

}  // namespace

int main() {
    std::string folder = (fs::temp_directory_path() / "folder_changes.XXXXXX").string();
    if (!mkdtemp(folder.data())) {
        std::perror("folder_changes");
        return 1;
    }
    const bool done = watch(folder);
    fs::remove_all(folder);
    std::printf(done ? "nothing more is watched\n" : "was not told in time\n");
    return done ? 0 : 1;
}
