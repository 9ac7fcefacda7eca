// A program that runs without standard streams: none of the libraries' files takes the number of one, or what the
// program prints would end up in it.

#include <fcntl.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <functional>
#include <sstream>
#include <string>

#include "ZrLog/ZrLog.h"
#include "ZrLog/ZrLogReader.h"
#include "ZrUtility/Helpers/FileSystemMonitor.h"
#include "ZrUtility/Helpers/OutlookManager.h"
#include "ZrUtility/Helpers/RegistryAccessor.h"
#include "ZrUtility/Helpers/SystemTimeHelper.h"
#include "platform/file_changes.h"
#include "platform/files.h"
#include "platform/kernel.h"
#include "platform/windowing.h"
#include "support/child.h"
#include "support/sandbox.h"

namespace {

using zr::test::Child;

// What stands in the place of the standard streams, but for nothing and what takes nothing.
std::string in_the_streams() {
    std::string found;
    for (int stream = 0; stream <= 2; ++stream) {
        std::error_code none;
        const auto file = std::filesystem::read_symlink("/proc/self/fd/" + std::to_string(stream), none);
        if (!none && file != "/dev/null") found += " " + std::to_string(stream) + "=" + file.string();
    }
    return found;
}

class Listener final : public FileSystemListener {
public:
    void OnFileCreated(const WCHAR*) override {}
    void OnFileChanged(const WCHAR*) override {}
    void OnFileDeleted(const WCHAR*) override {}
    void OnFileRenamed(const WCHAR*, const WCHAR*) override {}
};

struct Step {
    const char* name;
    std::function<bool()> take;
};

const Step kSteps[] = {
    {"log", [] { return zrLogSetFile((zr::test::sandbox() / "streams.zrlog").c_str()); }},
    {"log reader",
     [] {
         std::string error;
         static const auto reader = ZrLogReader::open((zr::test::sandbox() / "streams.zrlog").string(), error);
         return reader != nullptr;
     }},
    {"file",
     [] {
         static const HANDLE file = CreateFileW(u"\\streams.txt", GENERIC_WRITE, 0, nullptr, CREATE_ALWAYS, 0, nullptr);
         return file != INVALID_HANDLE_VALUE;
     }},
    {"change notification",
     [] {
         static const HANDLE watch = FindFirstChangeNotificationW(u"\\", FALSE, FILE_NOTIFY_CHANGE_FILE_NAME);
         return watch != INVALID_HANDLE_VALUE;
     }},
    {"search",
     [] {
         WIN32_FIND_DATAW data;
         static const HANDLE search = FindFirstFileW(u"\\*", &data);
         return search != INVALID_HANDLE_VALUE;
     }},
    {"private mapping",
     [] {
         static const HANDLE made = CreateFileMappingW(INVALID_HANDLE_VALUE, nullptr, PAGE_READWRITE, 0, 4096, nullptr);
         return made != nullptr;
     }},
    {"named mapping",
     [] {
         static const HANDLE made =
             CreateFileMappingW(INVALID_HANDLE_VALUE, nullptr, PAGE_READWRITE, 0, 4096, u"streams");
         return made != nullptr && MapViewOfFile(made, FILE_MAP_WRITE, 0, 0, 0) != nullptr;
     }},
    {"message queue", [] { return ZrGetQueueDescriptor() > 2; }},
    {"registry",
     [] {
         RegistryAccessor::RegistrySetDWORD(HKEY_CURRENT_USER, u"Streams", u"n", 7);
         return RegistryAccessor::RegistryGetDWORD(HKEY_CURRENT_USER, u"Streams", u"n", 0) == 7;
     }},
    {"registry watch",
     [] {
         HKEY key = nullptr;
         if (RegOpenKeyExW(HKEY_CURRENT_USER, u"Streams", 0, KEY_READ, &key) != ERROR_SUCCESS) return false;
         static const HANDLE watch = CeFindFirstRegChange(key, TRUE, REG_NOTIFY_CHANGE_LAST_SET);
         return watch != INVALID_HANDLE_VALUE;
     }},
    {"contacts",
     [] {
         ContactsManager* const manager = OutlookManager::GetContactsManagerInstance(ContactsManager::CM_TYPE_EMAIL);
         return manager != nullptr && manager->Initialize() >= 0;
     }},
    {"watched folder",
     [] {
         static Listener listener;
         static FileSystemMonitor monitor;
         WCHAR folder[] = u"\\";
         WCHAR* folders[] = {folder};
         return monitor.Initialize(&listener, folders, 1, nullptr, 0) == 1;
     }},
    {"system time", [] { return SystemTimeHelper::GetInstance()->StartListening([] {}) == 0; }},
};

// Takes the steps without streams and writes into the file of its argument what was found in their place.
ZR_CHILD(without_streams) {
    std::string found;
    for (const Step& step : kSteps) {
        for (const int stream : {0, 1, 2}) {
            close(stream);
        }
        const bool done = step.take();
        if (!done) found += std::string(step.name) + " failed\n";
        if (const std::string files = in_the_streams(); !files.empty()) found += step.name + files + "\n";
    }
    const int out = open(args[0].c_str(), O_WRONLY | O_CREAT | O_CLOEXEC, 0600);
    return write(out, found.data(), found.size()) == static_cast<ssize_t>(found.size()) ? 0 : 1;
}

TEST(ClosedStreams, AreNotTakenByFilesOfTheLibraries) {
    const auto file = zr::test::sandbox() / "streams.found";
    Child child("without_streams", {file.string()});
    EXPECT_EQ(child.wait(), 0);
    std::ostringstream found;
    found << std::ifstream(file).rdbuf();
    EXPECT_EQ(found.str(), "");
}

}  // namespace
