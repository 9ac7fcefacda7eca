#include "ZrUtility/Helpers/OutlookManager.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <thread>

#include "ZrUtility/Helpers/fake_outlook.h"
#include "platform/diagnostics.h"
#include "platform/shell.h"
#include "support/log_capture.h"
#include "support/log_categories.h"
#include "support/sandbox.h"

namespace {

using testing::ElementsAre;
using zr::test::FakeOutlook;
using zr::test::kOutlookFailure;

constexpr const char* kOutlookSource = ".\\Helpers\\OutlookManager.cppzrwindowsmobile";

// Whether the calling thread has given back every initialisation of COM.
bool com_is_given_back() {
    const HRESULT result = CoInitializeEx(nullptr, COINIT_MULTITHREADED);
    if (result >= 0) CoUninitialize();
    return result == S_OK;
}

class OutlookManagerTest : public testing::Test {
protected:
    ~OutlookManagerTest() override {
        EXPECT_EQ(OutlookManager::m_pOutlookApp, nullptr);
        EXPECT_EQ(world_.objects, objects_);
        EXPECT_EQ(world_.strings, 0);
    }

    // Ends a session object that a failing log-on left behind.
    void drop_shared_session() {
        OutlookManager::m_pOutlookApp->Release();
        OutlookManager::m_pOutlookApp = nullptr;
        CoUninitialize();
    }

    FakeOutlook world_;
    const int objects_ = world_.objects;
    zr::test::LogCapture log_;
};

}  // namespace

TEST_F(OutlookManagerTest, TwoLoginsShareOneSessionThatTheLastLogoutEnds) {
    IPOutlookApp* first = nullptr;
    IPOutlookApp* second = nullptr;
    EXPECT_EQ(OutlookManager::Login(first), S_OK);
    EXPECT_EQ(world_.calls["Logon"], 1);
    EXPECT_EQ(world_.window, nullptr);
    EXPECT_EQ(OutlookManager::Login(second), S_FALSE);
    EXPECT_EQ(first, second);
    EXPECT_EQ(first, OutlookManager::m_pOutlookApp);
    EXPECT_EQ(world_.calls["CreateInstance"], 1);
    // Joining logs the count of references.
    const auto records = log_.records();
    EXPECT_EQ(records.back().category, 0x840010u);
    EXPECT_EQ(records.back().source, kOutlookSource);
    EXPECT_THAT(records.back().arguments, ElementsAre(2));

    EXPECT_EQ(OutlookManager::Logout(first), S_OK);
    EXPECT_EQ(first, nullptr);
    EXPECT_EQ(world_.calls["Logoff"], 0);
    EXPECT_EQ(OutlookManager::m_pOutlookApp, second);
    EXPECT_EQ(OutlookManager::Logout(second), S_OK);
    EXPECT_EQ(second, nullptr);
    EXPECT_EQ(world_.calls["Logoff"], 1);
    EXPECT_TRUE(com_is_given_back());
    EXPECT_EQ(log_.count(kOutlookFailure), 0);
}

TEST_F(OutlookManagerTest, JoiningOnAFreshThreadGivesThatThreadsResult) {
    IPOutlookApp* first = nullptr;
    ASSERT_EQ(OutlookManager::Login(first), S_OK);
    std::thread([] {
        IPOutlookApp* second = nullptr;
        EXPECT_EQ(OutlookManager::Login(second), S_OK);
        EXPECT_EQ(OutlookManager::Logout(second), S_OK);
        EXPECT_TRUE(com_is_given_back());
    }).join();
    EXPECT_EQ(OutlookManager::Logout(first), S_OK);
}

TEST_F(OutlookManagerTest, AFailingComSaysWhichWayItFailed) {
    ASSERT_EQ(CoInitializeEx(nullptr, COINIT_APARTMENTTHREADED), S_OK);
    auto* const untouched = reinterpret_cast<IPOutlookApp*>(0x1234);
    IPOutlookApp* app = untouched;
    EXPECT_EQ(OutlookManager::Login(app), RPC_E_CHANGED_MODE);
    EXPECT_EQ(OutlookManager::LoginEx(app, nullptr), RPC_E_CHANGED_MODE);
    EXPECT_EQ(app, untouched);
    const auto records = log_.records();
    ASSERT_EQ(records.size(), 2u);
    for (const auto& record : records) {
        EXPECT_EQ(record.category, kOutlookFailure);
        EXPECT_THAT(record.arguments, ElementsAre(2, 0x80010106));
    }
    CoUninitialize();
    EXPECT_TRUE(com_is_given_back());
}

TEST_F(OutlookManagerTest, AnApplicationThatCannotBeCreatedGivesComBack) {
    world_.results["CreateInstance"] = E_OUTOFMEMORY;
    IPOutlookApp* app = nullptr;
    EXPECT_EQ(OutlookManager::Login(app), E_OUTOFMEMORY);
    EXPECT_EQ(OutlookManager::m_pOutlookApp, nullptr);
    EXPECT_EQ(log_.count(kOutlookFailure), 1);
    EXPECT_TRUE(com_is_given_back());
}

TEST_F(OutlookManagerTest, AFailingLogonLeavesTheSessionObjectBehind) {
    world_.result_of_call["Logon"] = {1, E_ACCESSDENIED};
    auto* const untouched = reinterpret_cast<IPOutlookApp*>(0x1234);
    IPOutlookApp* app = untouched;
    EXPECT_EQ(OutlookManager::Login(app), E_ACCESSDENIED);
    EXPECT_EQ(app, untouched);
    EXPECT_EQ(OutlookManager::m_pOutlookApp, world_.application);
    EXPECT_FALSE(com_is_given_back());
    // The next one joins what is there, without logging on.
    EXPECT_EQ(OutlookManager::Login(app), S_FALSE);
    EXPECT_EQ(app, world_.application);
    EXPECT_EQ(world_.calls["Logon"], 1);
    EXPECT_EQ(OutlookManager::Logout(app), S_OK);
    EXPECT_EQ(world_.calls["Logoff"], 0);
    drop_shared_session();
    EXPECT_TRUE(com_is_given_back());
}

TEST_F(OutlookManagerTest, LogoutGivesTheResultOfLoggingOff) {
    IPOutlookApp* app = nullptr;
    ASSERT_EQ(OutlookManager::Login(app), S_OK);
    world_.results["Logoff"] = E_FAIL;
    EXPECT_EQ(OutlookManager::Logout(app), E_FAIL);
    EXPECT_EQ(app, nullptr);
    EXPECT_TRUE(com_is_given_back());
}

TEST_F(OutlookManagerTest, PrivateSessionsAreApartFromTheSharedOne) {
    const HWND window = reinterpret_cast<HWND>(0x77);
    IPOutlookApp* own = nullptr;
    EXPECT_EQ(OutlookManager::LoginEx(own, window), S_OK);
    EXPECT_EQ(world_.window, window);
    EXPECT_EQ(OutlookManager::m_pOutlookApp, nullptr);
    EXPECT_EQ(OutlookManager::LogoutEx(own), S_OK);
    EXPECT_EQ(own, nullptr);
    EXPECT_EQ(OutlookManager::LogoutEx(own), S_OK);

    IPOutlookApp* shared = nullptr;
    ASSERT_EQ(OutlookManager::LoginEx(own, nullptr), S_OK);
    ASSERT_GE(OutlookManager::Login(shared), 0);
    ASSERT_NE(own, shared);
    EXPECT_EQ(OutlookManager::Logout(own), S_OK);
    EXPECT_EQ(own, nullptr);
    EXPECT_EQ(OutlookManager::m_pOutlookApp, shared);
    EXPECT_EQ(OutlookManager::Logout(shared), S_OK);
    EXPECT_TRUE(com_is_given_back());
}

TEST_F(OutlookManagerTest, LogoutOfNothingIsASuccess) {
    IPOutlookApp* none = nullptr;
    EXPECT_EQ(OutlookManager::Logout(none), S_OK);
    EXPECT_TRUE(com_is_given_back());
}

TEST_F(OutlookManagerTest, AFurtherReferenceShowsInTheResultOfAPrivateLogout) {
    IPOutlookApp* own = nullptr;
    ASSERT_EQ(OutlookManager::LoginEx(own, nullptr), S_OK);
    IPOutlookApp* other = own;
    other->AddRef();
    other->AddRef();
    EXPECT_EQ(OutlookManager::LogoutEx(own), 2);
    EXPECT_EQ(log_.count(kOutlookFailure), 1);
    other->Release();
    other->Release();
    ASSERT_EQ(OutlookManager::LoginEx(own, nullptr), S_OK);
    other = own;
    other->AddRef();
    world_.results["Logoff"] = E_FAIL;
    EXPECT_EQ(OutlookManager::LogoutEx(own), E_FAIL | 1);
    other->Release();
}

TEST_F(OutlookManagerTest, AFailingPrivateLoginKeepsWhatItHas) {
    world_.results["Logon"] = E_FAIL;
    IPOutlookApp* own = nullptr;
    EXPECT_EQ(OutlookManager::LoginEx(own, nullptr), E_FAIL);
    ASSERT_NE(own, nullptr);
    EXPECT_FALSE(com_is_given_back());
    EXPECT_EQ(OutlookManager::LogoutEx(own), S_OK);
    EXPECT_TRUE(com_is_given_back());

    world_.results["CreateInstance"] = E_FAIL;
    EXPECT_EQ(OutlookManager::LoginEx(own, nullptr), E_FAIL);
    EXPECT_EQ(own, nullptr);
    EXPECT_FALSE(com_is_given_back());
    CoUninitialize();
}

TEST_F(OutlookManagerTest, HandsOutTheContactsFolder) {
    IPOutlookApp* app = nullptr;
    ASSERT_EQ(OutlookManager::Login(app), S_OK);
    IFolder* folder = nullptr;
    IPOutlookItemCollection* items = nullptr;
    EXPECT_EQ(OutlookManager::GetContactsCollection(app, &folder, &items), S_OK);
    EXPECT_EQ(world_.calls["GetDefaultFolder 10"], 1);
    EXPECT_EQ(OutlookManager::ReleaseContactsCollection(folder, items), 0);
    EXPECT_EQ(OutlookManager::ReleaseContactsCollection(nullptr, nullptr), 0);
    folder = nullptr;
    world_.results["get_Items"] = E_ABORT;
    EXPECT_EQ(OutlookManager::GetContactsCollection(app, &folder, &items), E_ABORT);
    OutlookManager::ReleaseContactsCollection(folder, nullptr);
    world_.results["GetDefaultFolder 10"] = E_HANDLE;
    EXPECT_EQ(OutlookManager::GetContactsCollection(app, &folder, &items), E_HANDLE);
    OutlookManager::Logout(app);
}

TEST_F(OutlookManagerTest, TheManagerIsTheSameForEveryType) {
    ContactsManager* const manager = OutlookManager::GetContactsManagerInstance(ContactsManager::CM_TYPE_CONTACTS);
    EXPECT_EQ(manager, &OutlookManager::S_ContactsManagerEmail);
    EXPECT_EQ(manager, OutlookManager::GetContactsManagerInstance(ContactsManager::CM_TYPE_EMAIL));
    EXPECT_EQ(manager, OutlookManager::GetContactsManagerInstance(static_cast<ContactsManager::CM_MANAGER_TYPE>(77)));
    EXPECT_THAT(log_.records().back().arguments, ElementsAre(77));
    OutlookManager::ReleaseContactsManagerInstance(manager);
    OutlookManager::ReleaseContactsManagerInstance(nullptr);
    EXPECT_EQ(manager->GetClassType(), 1);
}

// ---- Wiping ----

TEST_F(OutlookManagerTest, WipesEverythingOfAFolder) {
    for (LONG oid = 1; oid <= 5; ++oid) {
        world_.add(oid, {});
    }
    EXPECT_EQ(OutlookManager::WipeFolders(1, -1, nullptr), S_OK);
    EXPECT_TRUE(world_.records.empty());
    EXPECT_EQ(world_.calls["Logoff"], 1);
    EXPECT_EQ(OutlookManager::WipeFolders(1, -1, nullptr), S_OK);  // an empty folder
    EXPECT_EQ(world_.calls["Remove"], 5);
    EXPECT_TRUE(com_is_given_back());
}

TEST_F(OutlookManagerTest, WipesContactsOfOneSource) {
    const std::optional<ULONG> sources[] = {7, 7, std::nullopt, 8, 7, std::nullopt, 0};
    LONG oid = 0;
    for (const auto& source : sources) {
        world_.add(++oid, {})->source = source;
    }
    EXPECT_EQ(OutlookManager::WipeFolders(1, 7, nullptr), S_OK);
    std::vector<LONG> left;
    for (const auto& record : world_.records) {
        left.push_back(record->oid);
    }
    EXPECT_THAT(left, ElementsAre(3, 4, 6, 7));
    // An item without a source counts as source 0.
    EXPECT_EQ(OutlookManager::WipeFolders(1, 0, nullptr), S_OK);
    ASSERT_EQ(world_.records.size(), 1u);
    EXPECT_EQ(world_.records[0]->oid, 4);
}

TEST_F(OutlookManagerTest, ItemsThatCannotBeReadAreLeft) {
    for (LONG oid = 1; oid <= 4; ++oid) {
        world_.add(oid, {})->source = 3;
    }
    world_.result_of_call["Item"] = {2, E_ABORT};
    EXPECT_EQ(OutlookManager::WipeFolders(1, 3, nullptr), S_OK);  // the last step's result
    ASSERT_EQ(world_.records.size(), 1u);
    EXPECT_EQ(world_.records[0]->oid, 2);
    EXPECT_EQ(log_.count(kOutlookFailure), 1);
    world_.result_of_call["Item"] = {world_.calls["Item"] + 1, E_ABORT};
    EXPECT_EQ(OutlookManager::WipeFolders(1, 3, nullptr), E_ABORT);
    EXPECT_EQ(world_.records.size(), 1u);
}

TEST_F(OutlookManagerTest, AnItemWithoutReadableSourceIsNotDeleted) {
    for (const char* step : {"item.QueryInterface", "GetProps"}) {
        world_.records.clear();
        world_.add(1, {})->source = 3;
        world_.results[step] = E_FAIL;
        EXPECT_EQ(OutlookManager::WipeFolders(1, 3, nullptr), S_OK);
        EXPECT_EQ(world_.records.size(), 1u) << step;
        world_.results.erase(step);
    }
    world_.results["GetProps"] = S_FALSE;  // no buffer
    EXPECT_EQ(OutlookManager::WipeFolders(1, 3, nullptr), S_OK);
    EXPECT_EQ(world_.records.size(), 1u);
}

TEST_F(OutlookManagerTest, TheFirstFailingFolderEndsTheWiping) {
    world_.add(1, {});
    world_.results["GetDefaultFolder 9"] = E_ABORT;
    EXPECT_EQ(OutlookManager::WipeFolders(1 | 2 | 4, -1, nullptr), E_ABORT);
    EXPECT_TRUE(world_.records.empty());
    EXPECT_EQ(world_.calls["GetDefaultFolder 13"], 0);
    EXPECT_EQ(world_.calls["Logoff"], 1);
    for (const char* step : {"get_Items", "get_Count"}) {
        world_.results[step] = E_HANDLE;
        EXPECT_EQ(OutlookManager::WipeFolders(1, -1, nullptr), E_HANDLE) << step;
        world_.results.erase(step);
    }
    world_.add(1, {});
    world_.results["Remove"] = E_ACCESSDENIED;
    EXPECT_EQ(OutlookManager::WipeFolders(1, -1, nullptr), E_ACCESSDENIED);
    world_.results["CreateInstance"] = E_OUTOFMEMORY;
    EXPECT_EQ(OutlookManager::WipeFolders(1, -1, nullptr), E_OUTOFMEMORY);
    EXPECT_TRUE(com_is_given_back());
}

TEST_F(OutlookManagerTest, WipesCalendarAndTasksWhole) {
    world_.add(1, {})->source = 5;
    EXPECT_EQ(OutlookManager::WipeFolders(2, 99, nullptr), S_OK);
    EXPECT_TRUE(world_.records.empty());
    world_.add(1, {})->source = 5;
    EXPECT_EQ(OutlookManager::WipeFolders(4, 99, nullptr), S_OK);
    EXPECT_TRUE(world_.records.empty());
    EXPECT_EQ(world_.calls["GetDefaultFolder 9"], 1);
    EXPECT_EQ(world_.calls["GetDefaultFolder 13"], 1);
}

TEST_F(OutlookManagerTest, ACallersSessionIsUsedAndKept) {
    IPOutlookApp* own = nullptr;
    ASSERT_EQ(OutlookManager::LoginEx(own, nullptr), S_OK);
    world_.add(1, {});
    EXPECT_EQ(OutlookManager::WipeFolders(1 | 8, -1, own), S_OK);
    EXPECT_TRUE(world_.records.empty());
    EXPECT_EQ(world_.calls["CreateInstance"], 1);
    EXPECT_EQ(world_.calls["Logoff"], 0);
    EXPECT_EQ(OutlookManager::LogoutEx(own), S_OK);
}

TEST_F(OutlookManagerTest, WithTheFilesBitNoSessionIsOpened) {
    world_.add(1, {});
    EXPECT_EQ(OutlookManager::WipeFolders(8, 5, nullptr), S_OK);
    EXPECT_EQ(OutlookManager::WipeFolders(9, 5, nullptr), E_FAIL);
    EXPECT_EQ(world_.calls["CreateInstance"], 0);
    EXPECT_EQ(world_.records.size(), 1u);
    EXPECT_TRUE(com_is_given_back());
}

// ---- Notifications ----

TEST_F(OutlookManagerTest, SetsAFoldersNotifications) {
    IPOutlookApp* app = nullptr;
    LONG oid = 0;
    EXPECT_EQ(OutlookManager::SetFolderNotification(app, 10, 3, &oid), 1);  // no shared session
    EXPECT_EQ(log_.count(kOutlookFailure), 1);
    ASSERT_EQ(OutlookManager::Login(app), S_OK);
    EXPECT_EQ(OutlookManager::SetFolderNotification(app, 10, 3, &oid), 0);
    EXPECT_EQ(oid, 4711);
    EXPECT_EQ(world_.notifications, 3u);
    EXPECT_EQ(world_.calls["Save"], 1);
    OutlookManager::Logout(app);
}

TEST_F(OutlookManagerTest, EveryFailureOfSettingNotificationsIsOne) {
    IPOutlookApp* app = nullptr;
    ASSERT_EQ(OutlookManager::Login(app), S_OK);
    const int before = world_.objects;
    for (const char* step : {"GetDefaultFolder 10", "folder.QueryInterface", "SetProps", "Save"}) {
        world_.results[step] = E_FAIL;
        LONG oid = 0;
        EXPECT_EQ(OutlookManager::SetFolderNotification(app, 10, 3, &oid), 1) << step;
        EXPECT_EQ(world_.objects, before) << step;
        // Setting and saving that fail do not end the work.
        EXPECT_EQ(oid, step[0] == 'S' ? 4711 : 0) << step;
        world_.results.erase(step);
    }
    EXPECT_EQ(log_.count(kOutlookFailure), 4);
    // Without the identifier the references stay.
    const std::set<IUnknown*> known = world_.alive;
    world_.results["get_Oid"] = E_FAIL;
    LONG oid = 0;
    EXPECT_EQ(OutlookManager::SetFolderNotification(app, 10, 3, &oid), 1);
    EXPECT_EQ(world_.objects, before + 2);
    for (IUnknown* left : std::set(world_.alive)) {
        if (!known.contains(left)) left->Release();
    }
    EXPECT_EQ(world_.objects, before);
    OutlookManager::Logout(app);
}

// ---- With the real folders ----

TEST(OutlookManagerFiles, WipesTheDocumentsOfTheUserOnly) {
    WCHAR folder[MAX_PATH] = {};
    ASSERT_TRUE(SHGetSpecialFolderPath(nullptr, folder, CSIDL_PERSONAL, TRUE));
    std::string relative;
    for (const WCHAR* c = folder; *c != 0; ++c) {
        relative += *c == u'\\' ? '/' : static_cast<char>(*c);
    }
    const std::filesystem::path host = zr::test::sandbox_root().string() + relative;
    std::filesystem::create_directories(host / "below");
    for (const char* name : {"a.pwi", "B.PWI", "c.txt", "below/d.pwi"}) {
        std::ofstream(host / name) << "x";
    }
    EXPECT_EQ(OutlookManager::WipeFolders(9, 1, nullptr), E_FAIL);
    EXPECT_TRUE(std::filesystem::exists(host / "a.pwi"));
    EXPECT_EQ(OutlookManager::WipeFolders(8, 1, nullptr), S_OK);
    EXPECT_FALSE(std::filesystem::exists(host / "a.pwi"));
    EXPECT_FALSE(std::filesystem::exists(host / "B.PWI"));
    EXPECT_TRUE(std::filesystem::exists(host / "c.txt"));
    EXPECT_TRUE(std::filesystem::exists(host / "below/d.pwi"));
}
