// The library loaded and unloaded at run time. This program does not link it: it calls what it needs through dlsym and
// through the contacts manager's virtual operations.

#include <dlfcn.h>
#include <gtest/gtest.h>

#include <atomic>
#include <filesystem>
#include <fstream>
#include <string>
#include <thread>

#include "ZrUtility/Helpers/ContactsManager.h"
#include "ZrUtility/Helpers/VirtualMemoryManager.h"
#include "platform/base.h"
#include "platform/com.h"
#include "platform/diagnostics.h"
#include "platform/kernel.h"
#include "platform/memory.h"
#include "platform/registry.h"
#include "platform/windowing.h"
#include "support/own_process.h"
#include "support/sandbox.h"
#include "support/time_changes.h"

namespace {

struct Alive {
    LONGLONG interfaces = ZrLiveObjects(ZrLiveKind::Interfaces);
    LONGLONG strings = ZrLiveObjects(ZrLiveKind::Strings);
    LONGLONG windows = ZrLiveObjects(ZrLiveKind::Windows);
    LONGLONG blocks = ZrLiveObjects(ZrLiveKind::HeapBlocks);
    friend bool operator==(const Alive&, const Alive&) = default;
};

bool is_mapped(const char* library = "libZrUtility") {
    std::ifstream maps("/proc/self/maps");
    for (std::string line; std::getline(maps, line);) {
        if (line.find(library) != std::string::npos) return true;
    }
    return false;
}

class Library {
public:
    Library() : handle_(dlopen(ZR_LIBRARY, RTLD_NOW | RTLD_LOCAL)) { EXPECT_NE(handle_, nullptr) << dlerror(); }
    ~Library() { unload(); }
    Library(const Library&) = delete;
    Library& operator=(const Library&) = delete;

    void unload() {
        if (handle_ == nullptr) return;
        EXPECT_EQ(dlclose(handle_), 0);
        handle_ = nullptr;
    }
    template <class Function>
    Function find(const char* name) const {
        void* const function = dlsym(handle_, name);
        EXPECT_NE(function, nullptr) << name;
        return reinterpret_cast<Function>(function);
    }
    ContactsManager& manager() const {
        // OutlookManager::GetContactsManagerInstance
        const auto function = find<ContactsManager* (*)(ContactsManager::CM_MANAGER_TYPE)>(
            "_ZN14OutlookManager26GetContactsManagerInstanceEN15ContactsManager15CM_MANAGER_TYPEE");
        return *function(ContactsManager::CM_TYPE_EMAIL);
    }
    // A block of the virtual memory manager, which is made for it.
    void* block() const {
        // VirtualMemoryManager::GetInstance and GetMemory
        const auto instance = find<VirtualMemoryManager* (*)()>("_ZN20VirtualMemoryManager11GetInstanceEv");
        const auto memory = find<void* (*)(VirtualMemoryManager*, ULONG*)>("_ZN20VirtualMemoryManager9GetMemoryEPj");
        ULONG size = 1;
        return memory(instance(), &size);
    }

private:
    void* handle_;
};

// Opens and closes the store once, so that what the process keeps of it is there before anything is counted.
void warm_up() {
    Library library;
    ASSERT_GE(library.manager().Initialize(), 0);
    ASSERT_GE(library.manager().Uninitialize(0), 0);
}

}  // namespace

TEST(Unload, TheLibraryGoesWhenItWasNotUsed) {
    const Alive before;
    for (int round = 0; round < 50; ++round) {
        Library library;
        EXPECT_TRUE(is_mapped());
        library.unload();
        ASSERT_FALSE(is_mapped()) << round;
    }
    EXPECT_EQ(Alive(), before);
}

TEST(Unload, TheLibraryGoesAfterUse) {
    warm_up();
    const Alive before;
    for (int round = 0; round < 20; ++round) {
        Library library;
        ASSERT_GE(library.manager().Initialize(), 0);
        ASSERT_TRUE(library.manager().IsInitialized());
        ASSERT_GE(library.manager().Uninitialize(0), 0);
        library.unload();
        ASSERT_FALSE(is_mapped()) << round;
        ASSERT_EQ(Alive(), before) << round;
    }
}

TEST(Unload, AManagerThatIsStillInUseIsEnded) {
    warm_up();
    const Alive before;
    for (int round = 0; round < 20; ++round) {
        Library library;
        ASSERT_GE(library.manager().Initialize(), 0);
        ASSERT_GE(library.manager().Initialize(), 0);
        // Whoever unloads may have given COM back already.
        if (round % 2 != 0) CoUninitialize();
        library.unload();
        ASSERT_FALSE(is_mapped()) << round;
        ASSERT_EQ(Alive(), before) << round;
    }
}

TEST(Unload, ReservedMemoryGoesWithTheLibrary) {
    for (int round = 0; round < 3; ++round) {
        Library library;
        void* const block = library.block();
        ASSERT_NE(block, nullptr);
        *static_cast<char*>(block) = 1;
        library.unload();
        ASSERT_FALSE(is_mapped());
        // No region is there any more.
        EXPECT_FALSE(VirtualFree(block, 1, MEM_DECOMMIT));
        EXPECT_EQ(GetLastError(), ERROR_INVALID_ADDRESS);
    }
}

TEST(Unload, AWindowOfAnotherThreadIsHarmlessAfterwards) {
    warm_up();
    const Alive before;
    std::thread([] {
        Library library;
        ASSERT_GE(library.manager().Initialize(), 0);
        const HWND window = FindWindowW(u"kel.net.Contacts.Listener", nullptr);
        ASSERT_NE(window, nullptr);
        std::thread([&library] { library.unload(); }).join();
        EXPECT_FALSE(is_mapped());
        // Its procedure is gone with the library; messages to it must not go there.
        EXPECT_EQ(SendMessageW(window, 0x8100, 1, 0), 0);
        EXPECT_TRUE(DestroyWindow(window));
    }).join();
    EXPECT_EQ(Alive(), before);
}

namespace {

std::atomic<int> time_changes{0};
void count_change() {
    ++time_changes;
}

}  // namespace

TEST(Unload, AListenerForTheTimeThatNobodyReleasedIsEnded) {
    const zr::test::TimeChanges changes;
    const HANDLE named = CreateEventW(nullptr, FALSE, FALSE, u"warm up");
    const int threads = zr::test::count_threads();
    const LONGLONG handles = ZrLiveObjects(ZrLiveKind::Handles);
    for (int round = 0; round < 10; ++round) {
        Library library;
        const auto get = library.find<void* (*)()>("_ZN16SystemTimeHelper11GetInstanceEv");
        const auto start = library.find<LONG (*)(void*, void (*)())>("_ZN16SystemTimeHelper14StartListeningEPFvvE");
        ASSERT_EQ(start(get(), count_change), 0);
        if (round % 2 != 0) changes.set_clock();
        library.unload();
        ASSERT_FALSE(is_mapped()) << round;
        ASSERT_EQ(ZrLiveObjects(ZrLiveKind::Handles), handles) << round;
        ASSERT_TRUE(zr::test::until_threads(threads)) << round;
    }
    CloseHandle(named);
}

// The document of a worker that nobody waits for is carried out before the library goes.
TEST(Unload, AProxyWorkerThatIsStillAtWorkIsWaitedFor) {
    constexpr LPCWSTR entries = u"Comm\\ConnMgr\\Providers\\{EF097F4C-DC4B-4c98-8FF6-AEF805DC0E8E}\\";
    for (const char16_t* const prefix : {u"HTTP-", u"null-corp-"}) {
        const std::u16string key = std::u16string(entries) + prefix + u"{3584769F-41FC-4035-BE97-320DA11E0F02}";
        HKEY opened = nullptr;
        ASSERT_EQ(RegCreateKeyExW(HKEY_LOCAL_MACHINE, key.c_str(), 0, nullptr, 0, 0, nullptr, &opened, nullptr), 0);
        RegSetValueExW(opened, u"Proxy", 0, REG_SZ, reinterpret_cast<const BYTE*>(u"h:1"), 8);
        RegCloseKey(opened);
    }
    const HANDLE mutex = CreateMutexW(nullptr, TRUE, u"KEL.ZR.PYX.PyxProxyHelper.Mutex");
    ASSERT_NE(mutex, nullptr);
    Library library;
    const auto change = library.find<int (*)(int, int)>("ChangeProxySettings");
    EXPECT_EQ(change(1, 0), 1);
    std::atomic<bool> gone{false};
    const DWORD before = GetTickCount();
    std::thread unloading([&] {
        library.unload();
        gone = true;
    });
    // While the worker waits for the mutex the library stays; how long the other thread has been unloading is not seen.
    for (int look = 0; look < 1000; ++look) {
        ASSERT_FALSE(gone);
        ASSERT_TRUE(is_mapped());
    }
    ReleaseMutex(mutex);
    unloading.join();
    EXPECT_FALSE(is_mapped());
    EXPECT_LT(GetTickCount() - before, 15000u) << "the worker's time was up";
    CloseHandle(mutex);
    RegDeleteKeyW(HKEY_LOCAL_MACHINE, u"Comm\\ConnMgr");
}

// It is waited for while the library goes, when the loader serves nobody else.
TEST(Unload, TheThreadOfTheAddressesNeedsTheLoaderNoMore) {
    const std::filesystem::path bus = zr::test::sandbox() / "bus";
    std::ofstream(bus).put('\n');  // as if there were one
    {
        Library library;
        const auto get = library.find<void* (*)()>("_ZN14PyxProxyHelper11GetInstanceEv");
        const auto start = library.find<int (*)(void*)>("_ZN14PyxProxyHelper29StartIPAddrChangeNotificationEv");
        EXPECT_EQ(start(get()), 1);
        EXPECT_TRUE(is_mapped("libzrplatform_bus"));
        EXPECT_TRUE(is_mapped("libzrplatform_xml"));
        library.unload();
        EXPECT_FALSE(is_mapped());
    }
    std::filesystem::remove(bus);
}

TEST(Unload, DelayedCallsThatArePendingAreDropped) {
    const LONGLONG blocks = ZrLiveObjects(ZrLiveKind::HeapBlocks);
    for (int round = 0; round < 10; ++round) {
        Library library;
        using Function = void (*)(void*);
        const auto call =
            library.find<bool (*)(Function, void*, unsigned int)>("_ZN14TimerUtilities11DelayedCallEPFvPvES0_j");
        for (int i = 0; i < 25; ++i) {
            ASSERT_TRUE(call([](void*) { ADD_FAILURE(); }, nullptr, 1));
        }
        library.unload();
        ASSERT_FALSE(is_mapped()) << round;
        ASSERT_EQ(ZrLiveObjects(ZrLiveKind::HeapBlocks), blocks) << round;
        // No timer of theirs is left that would call into nothing.
        MSG message{};
        const UINT_PTR last = SetTimer(nullptr, 0, 5, nullptr);
        ASSERT_EQ(GetMessageW(&message, nullptr, WM_TIMER, WM_TIMER), 1);
        ASSERT_EQ(message.wParam, last);
        KillTimer(nullptr, last);
    }
}
