#pragma once

// What tests of the file system monitor and of its workers share.

#include <gtest/gtest.h>

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <functional>
#include <string>
#include <vector>

#include "ZrUtility/Helpers/FileSystemMonitor.h"
#include "platform/kernel.h"
#include "platform/windowing.h"
#include "support/log_capture.h"

namespace zr::test {

inline constexpr const char* kMonitorSource = ".\\Helpers\\FileSystemMonitor.cppzrwindowsmobile";
inline constexpr DWORD kSoon = 10000;

using Told = std::vector<std::u16string>;

// Writes down what it is told: "+path" "*path" "-path" "old>new".
class Notebook final : public FileSystemListener {
public:
    void OnFileCreated(const WCHAR* path) override { note(u"+" + text(path)); }
    void OnFileChanged(const WCHAR* path) override { note(u"*" + text(path)); }
    void OnFileDeleted(const WCHAR* path) override { note(u"-" + text(path)); }
    void OnFileRenamed(const WCHAR* from, const WCHAR* to) override { note(text(from) + u">" + text(to)); }

    Told told;
    std::function<void()> on_note = [] {};

private:
    static std::u16string text(const WCHAR* path) { return path ? path : u"(null)"; }
    void note(std::u16string words) {
        told.push_back(std::move(words));
        on_note();
    }
};

inline void pump(DWORD milliseconds, const std::function<bool()>& done) {
    const DWORD begin = GetTickCount();
    while (!done() && GetTickCount() - begin < milliseconds) {
        MsgWaitForMultipleObjectsEx(0, nullptr, 50, QS_ALLINPUT, MWMO_INPUTAVAILABLE);
        MSG message;
        while (PeekMessageW(&message, nullptr, 0, 0, PM_REMOVE)) {
            DispatchMessageW(&message);
        }
    }
    EXPECT_TRUE(done());
}

inline void write_file(const std::filesystem::path& path, const std::string& text = {}) {
    std::ofstream(path) << text;
}

inline int lines(const LogCapture& log, int line) {
    int count = 0;
    for (const LoggedRecord& each : log.records()) {
        if (each.source == kMonitorSource && each.line == line) ++count;
    }
    return count;
}

inline const LoggedRecord* record(const std::vector<LoggedRecord>& records, int line) {
    for (const LoggedRecord& each : records) {
        if (each.source == kMonitorSource && each.line == line) return &each;
    }
    return nullptr;
}

}  // namespace zr::test
