#include "ZrUtility/Helpers/PyxProxyHelper.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <unistd.h>

#include <atomic>
#include <cstring>
#include <random>
#include <set>
#include <thread>

#include "ZrUtility/ZrLinkList.h"
#include "platform/cursor.h"
#include "proxy_support.h"
#include "support/child.h"
#include "support/failing_new.h"
#include "support/instrumented.h"
#include "support/left_behind.h"
#include "support/log_capture.h"
#include "support/log_categories.h"
#include "support/network_space.h"
#include "support/sandbox.h"

namespace {

using namespace zr::test;
using StatusRecord = CONNMGR_CONNECTION_DETAILED_STATUS;

constexpr LPCWSTR kMutex = u"KEL.ZR.PYX.PyxProxyHelper.Mutex";
constexpr const char* kLogSource = ".\\Helpers\\PyxProxyHelper.cppzrwindowsmobile";

// The limits, which a test that is to see their end makes short.
class Limits : public PyxProxyHelper {
public:
    static void set(ULONG worker, ULONG notify) {
        m_workerLimit = worker;
        m_notifyLimit = notify;
    }
};

// Connected connections, each into a network and with an address; 0: without one.
struct FakeConnection {
    GUID network;
    DWORD status;
    BYTE address[4];
};

class ProxyHelper : public ProxyEntries {
public:
    static void connect(const std::vector<FakeConnection>& connections);

protected:
    ProxyHelper() {
        connect({{kSourceId, CONNMGR_STATUS_CONNECTED, {10, 1, 2, 3}}});
        stand_ins().process = [this](LPCWSTR document, DWORD flags, LPWSTR* result) {
            EXPECT_EQ(flags, CFGFLAG_PROCESS);
            {
                const std::lock_guard guard(mutex_);
                documents_.emplace_back(document);
            }
            return processing_ ? processing_(document, flags, result) : process_really(document, flags, result);
        };
    }
    ~ProxyHelper() override {
        PyxProxyHelper::Release();
        Limits::set(15000, 2000);
        SetCursor(nullptr);
    }

    static void connect_to(BYTE last) { connect({{kSourceId, CONNMGR_STATUS_CONNECTED, {10, 1, 2, last}}}); }

    // The client's own two entries, off, and one that leads into the Internet.
    static void have_entries() {
        for (const char16_t* const prefix : {u"HTTP-", u"null-corp-"}) {
            store(key_of(prefix + kOwn), {{u"Enable", number_value(0)}, {u"Proxy", text_value(u"127.0.0.1:8080")}});
        }
        store(key_of(u"A"), foreign());
    }
    static StoredKey foreign() {
        return {{u"DestId", text_value(kInternet)},
                {u"SrcId", text_value(kSource)},
                {u"Type", number_value(5)},
                {u"Enable", number_value(0)},
                {u"Proxy", text_value(u"old:1")}};
    }
    static StoredKey pointed(const std::u16string& proxy) {
        StoredKey values = foreign();
        values[u"Proxy"] = text_value(proxy);
        values[u"Type"] = number_value(1);
        values[u"Enable"] = number_value(1);
        return values;
    }

    std::vector<std::u16string> documents() {
        const std::lock_guard guard(mutex_);
        return documents_;
    }
    static PyxProxyHelper& helper() { return *PyxProxyHelper::GetInstance(); }

    std::function<HRESULT(LPCWSTR, DWORD, LPWSTR*)> processing_;

private:
    std::mutex mutex_;
    std::vector<std::u16string> documents_;
};

void ProxyHelper::connect(const std::vector<FakeConnection>& connections) {
    struct Block {
        StatusRecord record;
        CONNMGR_CONNECTION_IPADDR addresses;
    };
    stand_ins().query = [connections](StatusRecord* buffer, DWORD* size) {
        const auto needed = static_cast<DWORD>(connections.size() * sizeof(Block));
        const bool fits = buffer != nullptr && *size >= needed;
        *size = needed;
        if (!fits) return needed == 0 ? S_OK : HRESULT_FROM_WIN32(ERROR_INSUFFICIENT_BUFFER);
        auto* const blocks = reinterpret_cast<Block*>(buffer);
        for (std::size_t i = 0; i < connections.size(); ++i) {
            std::memset(static_cast<void*>(&blocks[i]), 0, sizeof(Block));
            StatusRecord& record = blocks[i].record;
            record.pNext = i + 1 < connections.size() ? &blocks[i + 1].record : nullptr;
            record.guidDestNet = connections[i].network;
            record.dwConnectionStatus = connections[i].status;
            record.pIPAddr = &blocks[i].addresses;
            blocks[i].addresses.cIPAddr = connections[i].address[0] != 0;
            blocks[i].addresses.IPAddr[0].ss_family = 2;
            std::memcpy(blocks[i].addresses.IPAddr[0].ss_data + 2, connections[i].address, 4);
        }
        return S_OK;
    };
}

// Holds the mutex of the documents, on a thread of its own.
class Holder {
public:
    Holder()
        : thread_([this] {
              const HANDLE mutex = CreateMutexW(nullptr, TRUE, kMutex);
              SetEvent(held_);
              WaitForSingleObject(let_go_, INFINITE);
              ReleaseMutex(mutex);
              CloseHandle(mutex);
          }) {
        WaitForSingleObject(held_, INFINITE);
    }
    ~Holder() {
        let_go();
        CloseHandle(held_);
        CloseHandle(let_go_);
    }
    void let_go() {
        if (!thread_.joinable()) return;
        SetEvent(let_go_);
        thread_.join();
    }

private:
    const HANDLE held_ = CreateEventW(nullptr, TRUE, FALSE, nullptr);
    const HANDLE let_go_ = CreateEventW(nullptr, TRUE, FALSE, nullptr);
    std::thread thread_;
};

// Whether the mutex can be had: whoever had it has done.
bool wait_for_workers() {
    const HANDLE mutex = CreateMutexW(nullptr, FALSE, kMutex);
    const bool got = WaitForSingleObject(mutex, 30000) != WAIT_TIMEOUT;
    ReleaseMutex(mutex);
    CloseHandle(mutex);
    return got;
}

}  // namespace

TEST_F(ProxyHelper, IsOne) {
    EXPECT_EQ(PyxProxyHelper::m_pInstance, nullptr);
    EXPECT_EQ(PyxProxyHelper::Release(), 0);
    PyxProxyHelper* const first = PyxProxyHelper::GetInstance();
    EXPECT_EQ(PyxProxyHelper::GetInstance(), first);
    EXPECT_EQ(PyxProxyHelper::Release(), 1);
    EXPECT_EQ(PyxProxyHelper::Release(), 0);
    const FailingNew failing;
    EXPECT_EQ(PyxProxyHelper::GetInstance(), nullptr);
    EXPECT_EQ(ChangeProxySettings(1, 1), 0);
    EXPECT_EQ(OnConnectionStatusUpdate(0x10), 0);
}

TEST_F(ProxyHelper, KnowsWhetherTheProxyIsOn) {
    EXPECT_EQ(PyxProxyHelper::IsProxyEnabled(), -1);
    store(key_of(u"HTTP-" + kOwn), {{u"Enable", number_value(1)}});
    EXPECT_EQ(PyxProxyHelper::IsProxyEnabled(), -1);
    store(key_of(u"null-corp-" + kOwn), {});
    EXPECT_EQ(PyxProxyHelper::IsProxyEnabled(), 0);
    store(key_of(u"null-corp-" + kOwn), {{u"Enable", number_value(7)}});
    EXPECT_EQ(PyxProxyHelper::IsProxyEnabled(), 1);
    store(key_of(u"null-corp-" + kOwn), {{u"Enable", text_value(u"1")}});
    EXPECT_EQ(PyxProxyHelper::IsProxyEnabled(), 0);
}

TEST_F(ProxyHelper, ChangesNothingWithoutTheClientsEntries) {
    store(key_of(u"A"), foreign());
    EXPECT_EQ(ChangeProxySettings(1, 1), 1);
    EXPECT_EQ(entry(u"A"), foreign());
    EXPECT_TRUE(documents().empty());
}

TEST_F(ProxyHelper, PointsEntriesAtTheClientAndBack) {
    have_entries();
    EXPECT_EQ(ChangeProxySettings(1, 1), 1);
    EXPECT_EQ(PyxProxyHelper::IsProxyEnabled(), 1);
    EXPECT_EQ(entry(u"A"), pointed(u"10.1.2.3:8080"));
    EXPECT_EQ(backup(u"A"),
              (StoredKey{{u"Proxy", text_value(u"old:1")}, {u"Type", number_value(5)}, {u"Enable", number_value(0)}}));
    ASSERT_EQ(documents().size(), 1u);
    EXPECT_EQ(documents()[0],
              u"<wap-provisioningdoc>\r\n <characteristic type=\"CM_ProxyEntries\">\r\n"
              u" <characteristic type=\"HTTP-" +
                  kOwn +
                  u"\">\r\n <parm name=\"Enable\" value=\"1\" />\r\n </characteristic>\r\n"
                  u" <characteristic type=\"null-corp-" +
                  kOwn +
                  u"\">\r\n <parm name=\"Enable\" value=\"1\" />\r\n </characteristic>\r\n"
                  u" <characteristic type=\"A\">\r\n <parm name=\"Type\" value=\"1\" />\r\n <parm name=\"Enable\" "
                  u"value=\"1\" />\r\n"
                  u" <parm name=\"Proxy\" value=\"10.1.2.3:8080\" />\r\n </characteristic>\r\n"
                  u" </characteristic>\r\n</wap-provisioningdoc>\r\n");
    EXPECT_EQ(ChangeProxySettings(1, 1), 1);  // it is on: at once
    EXPECT_EQ(documents().size(), 1u);
    EXPECT_EQ(ChangeProxySettings(0, 1), 1);
    EXPECT_EQ(PyxProxyHelper::IsProxyEnabled(), 0);
    EXPECT_EQ(entry(u"A"), foreign());
    EXPECT_FALSE(backup(u"A"));
    EXPECT_EQ(documents().size(), 2u);
}

TEST_F(ProxyHelper, SwitchesEntriesOffThatLeadOut) {
    have_entries();
    StoredKey out = foreign();
    out[u"DestId"] = text_value(kSource);
    out[u"SrcId"] = text_value(u"{436ef144-b4fb-4863-a041-8f905a62c572}");
    out[u"Enable"] = number_value(1);
    store(key_of(u"Out"), out);
    StoredKey other = out;
    other[u"SrcId"] = text_value(kSource);
    store(key_of(u"Other"), other);
    EXPECT_EQ(helper().ChangeProxyConnectionSettings(1, 1), 1);
    StoredKey off = out;
    off[u"Enable"] = number_value(0);
    EXPECT_EQ(entry(u"Out"), off);
    EXPECT_EQ(entry(u"Other"), other);
    EXPECT_EQ(documents()[0].find(u"\"Other\""), std::u16string::npos);
    EXPECT_EQ(helper().ChangeProxyConnectionSettings(0, 1), 1);
    EXPECT_EQ(entry(u"Out"), out);
}

TEST_F(ProxyHelper, TakesTheWorkNetworkToo) {
    have_entries();
    StoredKey work = foreign();
    work[u"DestId"] = text_value(u"{a1182988-0d73-439e-87ad-2a5b369f808b}");
    store(key_of(u"W"), work);
    helper().UpdateProxyConnectionSettings(1, 1);
    EXPECT_EQ(entry(u"W").at(u"Proxy"), text_value(u"10.1.2.3:8080"));
}

TEST_F(ProxyHelper, LeavesAnEntryRevertedWhoseConnectionIsNotThere) {
    have_entries();
    connect({{kSourceId, CONNMGR_STATUS_DISCONNECTED, {10, 1, 2, 3}}, {{}, CONNMGR_STATUS_CONNECTED, {10, 9, 9, 9}}});
    const LogCapture log;
    EXPECT_EQ(helper().ChangeProxyConnectionSettings(1, 1), 1);
    EXPECT_EQ(entry(u"A"), foreign());
    ASSERT_EQ(documents().size(), 1u);
    EXPECT_EQ(documents()[0].find(u"\"A\""), std::u16string::npos);
    EXPECT_EQ(log.count(kConnectionsFailure), 1);  // it was listed, and had nothing to say
}

TEST_F(ProxyHelper, LeavesEntriesRevertedWithoutAPort) {
    have_entries();
    store(key_of(u"HTTP-" + kOwn), {{u"Proxy", text_value(u"127.0.0.1")}});
    EXPECT_EQ(helper().ChangeProxyConnectionSettings(1, 1), 1);
    EXPECT_EQ(entry(u"A"), foreign());
    store(key_of(u"HTTP-" + kOwn), {{u"Proxy", text_value(u"[::1]:81")}});
    helper().UpdateProxyConnectionSettings(1, 1);
    EXPECT_EQ(entry(u"A").at(u"Proxy"), text_value(u"10.1.2.3:81"));
}

TEST_F(ProxyHelper, TakesEntriesOfWrongTypesForUnreadable) {
    have_entries();
    store(key_of(u"Bytes"), {{u"DestId", {REG_BINARY, {1, 2, 3, 4}}}, {u"SrcId", number_value(1)}});
    store(key_of(u"Long"), {{u"DestId", text_value(std::u16string(50000, u'x'))},
                            {u"SrcId", text_value(kInternet)},
                            {u"Enable", {REG_DWORD, {1, 0}}}});
    StoredKey no_source = foreign();
    no_source[u"SrcId"] = text_value(u"no network");
    store(key_of(u"NoSource"), no_source);
    EXPECT_EQ(helper().ChangeProxyConnectionSettings(1, 1), 1);
    EXPECT_EQ(entry(u"NoSource"), no_source);
    EXPECT_EQ(entry(u"Bytes").size(), 2u);
    EXPECT_EQ(entry(u"Long").at(u"Enable"), number_value(0));
    helper().ChangeProxyConnectionSettings(0, 1);
    EXPECT_EQ(entry(u"Long").at(u"Enable"), (StoredValue{REG_DWORD, {1, 0}}));
}

TEST_F(ProxyHelper, WritesAgainWithAnotherAddress) {
    have_entries();
    helper().ChangeProxyConnectionSettings(1, 1);
    connect_to(77);
    EXPECT_EQ(helper().OnConnectionStatusUpdate(CONNMGR_STATUS_CONNECTED), 1);
    EXPECT_EQ(entry(u"A"), pointed(u"10.1.2.77:8080"));
    EXPECT_EQ(backup(u"A")->at(u"Proxy"), text_value(u"old:1"));
    helper().ChangeProxyConnectionSettings(0, 1);
    EXPECT_EQ(entry(u"A"), foreign());
}

TEST_F(ProxyHelper, ActsOnConnectionsThatComeAndGoWhileItIsOn) {
    have_entries();
    const LogCapture log;
    EXPECT_EQ(OnConnectionStatusUpdate(CONNMGR_STATUS_CONNECTED), 0);
    EXPECT_EQ(entry(u"A"), foreign());
    EXPECT_TRUE(documents().empty());
    ASSERT_EQ(log.records().size(), 1u);
    EXPECT_EQ(log.records()[0].source, kLogSource);
    EXPECT_EQ(log.records()[0].category, kConnectionsInformation);
    EXPECT_EQ(log.records()[0].arguments, std::vector<std::uintptr_t>{0x10});
    helper().ChangeProxyConnectionSettings(1, 1);
    for (const ULONG status : {0x00u, 0x11u, 0x21u, 0x40u}) {
        EXPECT_EQ(OnConnectionStatusUpdate(status), 0);
    }
    EXPECT_EQ(documents().size(), 1u);
    EXPECT_EQ(OnConnectionStatusUpdate(CONNMGR_STATUS_DISCONNECTED), 1);
    EXPECT_EQ(documents().size(), 2u);
}

TEST_F(ProxyHelper, HasNothingToHandOverWithoutEntries) {
    EXPECT_EQ(helper().UpdateProxyConnectionSettings(1, 1), 0);
    store(key_of(u"A"), foreign());
    EXPECT_EQ(helper().UpdateProxyConnectionSettings(1, 1), 0);
    EXPECT_EQ(entry(u"A"), foreign());
    auto* const empty = new ZrLinkList;
    EXPECT_EQ(helper().UpdateProviders(empty, 1), 0);
    delete empty;
}

TEST_F(ProxyHelper, ShowsTheWaitCursorMeanwhile) {
    have_entries();
    HCURSOR seen = nullptr;
    processing_ = [&](LPCWSTR, DWORD, LPWSTR*) {
        seen = GetCursor();
        return S_OK;
    };
    helper().UpdateProxyConnectionSettings(1, 1);
    EXPECT_EQ(seen, LoadCursorW(nullptr, IDC_WAIT));
    EXPECT_EQ(GetCursor(), nullptr);
    EXPECT_EQ(PyxProxyHelper::DisplayWaitCursor(1), 0);
    EXPECT_EQ(PyxProxyHelper::DisplayWaitCursor(0), 1);
    EXPECT_EQ(PyxProxyHelper::DisplayWaitCursor(0), 0);
}

TEST_F(ProxyHelper, LogsTheDocumentItHandsOver) {
    have_entries();
    const LogCapture log;
    EXPECT_EQ(helper().ChangeProxyConnectionSettings(1, 1), 1);
    const auto records = log.records();
    ASSERT_EQ(records.size(), 4u);
    EXPECT_EQ(records[0].category, kConnectionsInformation);
    EXPECT_EQ(records[0].arguments, (std::vector<std::uintptr_t>{1, 1}));
    EXPECT_EQ(records[1].category, kConnectionsInformation);
    EXPECT_EQ(records[1].arguments, (std::vector<std::uintptr_t>{10, 1, 2, 3}));
    EXPECT_EQ(records[2].category, kConnectionsTrace);
    EXPECT_EQ(records[3].category, kConnectionsTrace | kZrLogBuffer);
    const std::u16string document = documents()[0];
    EXPECT_EQ(records[3].data, std::string(document.begin(), document.end()));
    for (const auto& record : records) {
        EXPECT_EQ(record.source, kLogSource);
    }
}

TEST_F(ProxyHelper, LogsWhatTheProcessorRefuses) {
    have_entries();
    processing_ = [](LPCWSTR, DWORD, LPWSTR* result) {
        *result = nullptr;
        return CONFIG_E_BAD_XML;
    };
    const LogCapture log;
    EXPECT_EQ(helper().ChangeProxyConnectionSettings(1, 1), 1);
    ASSERT_EQ(log.count(kConnectionsFailure), 1);
    EXPECT_EQ(log.records().back().arguments, std::vector<std::uintptr_t>{0x80042009});
    // What was written stays; the next change takes it back.
    EXPECT_EQ(entry(u"A"), pointed(u"10.1.2.3:8080"));
    helper().ChangeProxyConnectionSettings(0, 1);
    EXPECT_EQ(entry(u"A"), foreign());
}

TEST_F(ProxyHelper, RevertsTheOthersInTheRegistryAlone) {
    have_entries();
    helper().ChangeProxyConnectionSettings(1, 1);
    EXPECT_EQ(helper().RevertNullProxies(), 0);
    EXPECT_EQ(entry(u"A"), foreign());
    EXPECT_EQ(PyxProxyHelper::IsProxyEnabled(), 1);
    EXPECT_EQ(documents().size(), 1u);
}

TEST_F(ProxyHelper, RewritesAnyNumberOfEntries) {
    have_entries();
    const auto name = [](int i) { return u"many" + std::u16string(1, static_cast<WCHAR>(0x4000 + i)); };
    ASSERT_EQ(ZrRegistryBeginBatch(), 0);
    for (int i = 0; i < 600; ++i) {
        store(key_of(name(i)), foreign());
    }
    ASSERT_EQ(ZrRegistryEndBatch(TRUE), 0);
    const auto before = all();
    const auto expect_all = [&](const StoredKey& wanted) {
        for (int i = 0; i < 600; ++i) {
            ASSERT_EQ(entry(name(i)), wanted) << i;
        }
    };
    helper().ChangeProxyConnectionSettings(1, 1);
    expect_all(pointed(u"10.1.2.3:8080"));
    helper().RevertNullProxies();
    expect_all(foreign());
    EXPECT_FALSE(backup(name(599)));
    helper().UpdateProxyConnectionSettings(1, 1);
    expect_all(pointed(u"10.1.2.3:8080"));
    helper().ChangeProxyConnectionSettings(0, 1);
    EXPECT_TRUE(all() == before);
}

TEST_F(ProxyHelper, OthersMayWriteWhileItWaitsForTheConnections) {
    have_entries();
    int asked = 0;
    const auto answer = stand_ins().query;
    stand_ins().query = [&](StatusRecord* buffer, DWORD* size) {
        ++asked;
        std::thread([] { store(u"Comm\\ConnMgr\\other", {{u"v", number_value(1)}}); }).join();
        RegDeleteKeyW(HKEY_LOCAL_MACHINE, u"Comm\\ConnMgr\\other");
        return answer(buffer, size);
    };
    helper().ChangeProxyConnectionSettings(1, 1);
    EXPECT_GT(asked, 0);
    EXPECT_EQ(entry(u"A"), pointed(u"10.1.2.3:8080"));
}

TEST_F(ProxyHelper, MakesTheClientsNetworkOnce) {
    EXPECT_EQ(helper().EnsureHalcyonDestination(), 1);
    const auto made = stored(u"Comm\\ConnMgr\\Destinations\\My Halcyon");
    ASSERT_TRUE(made);
    EXPECT_EQ(made->at(u"DestId"), text_value(kOwn));
    ASSERT_EQ(documents().size(), 1u);
    EXPECT_EQ(documents()[0],
              u"<wap-provisioningdoc>\r\n  <characteristic type=\"CM_Networks\">\r\n    <characteristic type=\"My "
              u"Halcyon\">\r\n      <parm name=\"DestId\" value=\"{3584769F-41FC-4035-BE97-320DA11E0F02}\" />\r\n    "
              u"</characteristic>  </characteristic>\r\n</wap-provisioningdoc>\r\n");
    EXPECT_EQ(helper().EnsureHalcyonDestination(), 1);
    EXPECT_EQ(documents().size(), 1u);
    store(u"Comm\\ConnMgr\\Destinations\\My Halcyon",
          {{u"DestId", text_value(u"{3584769f-41fc-4035-be97-320da11e0f02}")}});
    EXPECT_EQ(helper().EnsureHalcyonDestination(), 1);
    EXPECT_EQ(documents().size(), 1u);
    store(u"Comm\\ConnMgr\\Destinations\\My Halcyon", {{u"DestId", text_value(kWork)}});
    EXPECT_EQ(helper().EnsureHalcyonDestination(), 1);
    EXPECT_EQ(documents().size(), 2u);
    RegDeleteKeyW(HKEY_LOCAL_MACHINE, u"Comm\\ConnMgr\\Destinations");
    processing_ = [](LPCWSTR, DWORD, LPWSTR*) { return E_FAIL; };
    EXPECT_EQ(helper().EnsureHalcyonDestination(), 0);
}

TEST_F(ProxyHelper, FindsTheAddressOfTheFirstThatIsConnected) {
    GUID network = kSourceId;
    ULONG address = 0;
    const auto expect = [&](const std::vector<FakeConnection>& connections, std::vector<BYTE> wanted) {
        connect(connections);
        address = PyxProxyHelper::GetDestIPAddress(network);
        std::vector<BYTE> bytes(4);
        std::memcpy(bytes.data(), &address, 4);
        EXPECT_EQ(bytes, wanted);
    };
    const GUID other = {1, 2, 3, {}};
    expect({}, {0, 0, 0, 0});
    expect({{other, 0x10, {9, 9, 9, 9}},
            {network, 0x20, {8, 8, 8, 8}},
            {network, 0x10, {1, 2, 3, 4}},
            {network, 0x10, {5, 5, 5, 5}}},
           {1, 2, 3, 4});
    expect({{network, 0x10, {}}, {network, 0x10, {5, 5, 5, 5}}}, {0, 0, 0, 0});
    stand_ins().query = [](StatusRecord* buffer, DWORD* size) {
        *size = 500;
        return buffer == nullptr ? HRESULT_FROM_WIN32(ERROR_INSUFFICIENT_BUFFER) : E_ACCESSDENIED;
    };
    EXPECT_EQ(PyxProxyHelper::GetDestIPAddress(network), 0u);
}

// ---- Workers ----

TEST_F(ProxyHelper, ADocumentWaitsForTheOthers) {
    have_entries();
    Holder holder;
    EXPECT_EQ(helper().ChangeProxyConnectionSettings(1, 0), 1);  // does not wait
    EXPECT_TRUE(documents().empty());
    const HANDLE done = CreateEventW(nullptr, TRUE, FALSE, nullptr);
    processing_ = [done](LPCWSTR, DWORD, LPWSTR*) {
        SetEvent(done);
        return S_OK;
    };
    holder.let_go();
    EXPECT_EQ(WaitForSingleObject(done, 30000), WAIT_OBJECT_0);
    EXPECT_TRUE(wait_for_workers());
    CloseHandle(done);
}

TEST_F(ProxyHelper, AWorkerGivesUpWhenOthersTakeTooLong) {
    have_entries();
    Limits::set(50, 2000);
    const Holder holder;
    const LogCapture log;
    {
        const zr::test::LeftBehind entries;  // by the worker
        EXPECT_EQ(helper().ChangeProxyConnectionSettings(1, 0), 1);
        while (log.count(kConnectionsFailure) == 0) {
            std::this_thread::yield();
        }
    }
    EXPECT_TRUE(documents().empty());
    EXPECT_EQ(entry(u"A"), pointed(u"10.1.2.3:8080"));
}

TEST_F(ProxyHelper, AWorkerThatTakesTooLongIsEnded) {
    have_entries();
    Limits::set(100, 2000);
    const HANDLE never = CreateEventW(nullptr, TRUE, FALSE, nullptr);
    std::atomic<int> ended{0};
    processing_ = [&](LPCWSTR, DWORD, LPWSTR*) -> HRESULT {
        struct Ended {
            std::atomic<int>& count;
            ~Ended() { ++count; }
        } const at_end{ended};
        WaitForSingleObject(never, INFINITE);
        return S_OK;
    };
    EXPECT_EQ(helper().ChangeProxyConnectionSettings(1, 1), 1);
    while (ended == 0) {
        std::this_thread::yield();
    }
    EXPECT_TRUE(wait_for_workers());  // it has left nothing locked
    processing_ = nullptr;
    EXPECT_EQ(helper().ChangeProxyConnectionSettings(0, 1), 1);
    EXPECT_EQ(entry(u"A"), foreign());
    CloseHandle(never);
}

TEST_F(ProxyHelper, AWorkerEndedAtAnyMomentLeavesTheEntriesWhole) {
    have_entries();
    std::mt19937 random(1);
    for (int round = 0; round < 300 / kStride; ++round) {
        {
            const zr::test::LeftBehind entries;  // by a worker that had no time for the mutex
            Limits::set(static_cast<ULONG>(random() % 4), 2000);
            EXPECT_EQ(helper().UpdateProxyConnectionSettings(1, 1), 1);
        }
        ASSERT_EQ(entry(u"A"), pointed(u"10.1.2.3:8080")) << round;
        ASSERT_EQ(PyxProxyHelper::IsProxyEnabled(), 1) << round;
        Limits::set(15000, 2000);
        ASSERT_TRUE(wait_for_workers());
        EXPECT_EQ(helper().UpdateProxyConnectionSettings(0, 1), 1);
        ASSERT_EQ(entry(u"A"), foreign()) << round;
        ASSERT_FALSE(backup(u"A"));
    }
}

TEST_F(ProxyHelper, LeavesNothingBehind) {
    have_entries();
    const auto change_often = [] {
        for (int round = 0; round < 100; ++round) {
            helper().ChangeProxyConnectionSettings(1, 1);
            helper().ChangeProxyConnectionSettings(0, 1);
        }
        helper().UpdateProxyConnectionSettings(0, 1);
    };
    change_often();  // until all is there that is kept for the next time
    const LONGLONG handles = ZrLiveObjects(ZrLiveKind::Handles);
    const long news = live_news();
    change_often();
    EXPECT_LE(ZrLiveObjects(ZrLiveKind::Handles), handles);
    EXPECT_LE(live_news(), news + 300);  // the 200 documents that this test keeps, and a thread that is ending
}

TEST_F(ProxyHelper, IsWholeWhenMemoryIsShort) {
    have_entries();
    helper().ChangeProxyConnectionSettings(1, 1);
    helper().ChangeProxyConnectionSettings(0, 1);
    for (int successes = 0;; ++successes) {
        ASSERT_LT(successes, 1000);
        int result = 0;
        {
            const FailingNew failing(successes);
            result = helper().UpdateProxyConnectionSettings(1, 1);
        }
        const StoredKey now = entry(u"A");
        EXPECT_EQ(helper().UpdateProxyConnectionSettings(0, 1), 1);
        ASSERT_EQ(entry(u"A"), foreign()) << successes;
        ASSERT_FALSE(backup(u"A"));
        if (result == 1 && now == pointed(u"10.1.2.3:8080")) break;
    }
}

// ---- Addresses ----

TEST_F(ProxyHelper, FollowsTheAddressOfThisDevice) {
    have_entries();
    helper().ChangeProxyConnectionSettings(1, 1);
    HANDLE changes = nullptr;
    stand_ins().notify = [&](HANDLE* handle) {
        changes = *handle = CreateEventW(nullptr, FALSE, FALSE, nullptr);
        return NO_ERROR;
    };
    const HANDLE processed = CreateEventW(nullptr, FALSE, FALSE, nullptr);
    processing_ = [&](LPCWSTR document, DWORD flags, LPWSTR* result) {
        const HRESULT done = process_really(document, flags, result);
        SetEvent(processed);
        return done;
    };
    ASSERT_EQ(helper().StartIPAddrChangeNotification(), 1);
    EXPECT_EQ(helper().StartIPAddrChangeNotification(), 0);
    for (const int last : {50, 51, 52}) {
        connect_to(static_cast<BYTE>(last));
        SetEvent(changes);
        ASSERT_EQ(WaitForSingleObject(processed, 30000), WAIT_OBJECT_0);
        EXPECT_EQ(entry(u"A").at(u"Proxy"),
                  text_value(u"10.1.2." + std::u16string{u'5', static_cast<WCHAR>(u'0' + last - 50)} + u":8080"));
    }
    // Without one of the client's own entries everything is put back.
    const DWORD before = GetTickCount();
    EXPECT_EQ(PyxProxyHelper::Release(), 1);
    EXPECT_LT(GetTickCount() - before, 15000u);
    CloseHandle(processed);
}

TEST_F(ProxyHelper, StartsNoNotificationThatCannotBe) {
    for (const DWORD error : {DWORD{ERROR_NOT_ENOUGH_MEMORY}, DWORD{NO_ERROR}}) {
        stand_ins().notify = [error](HANDLE* handle) {
            *handle = nullptr;
            return error;
        };
        EXPECT_EQ(helper().StartIPAddrChangeNotification(), 0);
    }
    stand_ins().notify = nullptr;
    EXPECT_EQ(helper().StartIPAddrChangeNotification(), 1);
}

TEST_F(ProxyHelper, EndsANotificationThatIsAtWork) {
    have_entries();
    helper().ChangeProxyConnectionSettings(1, 1);
    Limits::set(15000, 100);
    HANDLE changes = nullptr;
    stand_ins().notify = [&](HANDLE* handle) {
        changes = *handle = CreateEventW(nullptr, FALSE, FALSE, nullptr);
        return NO_ERROR;
    };
    const HANDLE begun = CreateEventW(nullptr, TRUE, FALSE, nullptr);
    const HANDLE go_on = CreateEventW(nullptr, TRUE, FALSE, nullptr);
    processing_ = [&](LPCWSTR, DWORD, LPWSTR*) {
        SetEvent(begun);
        WaitForSingleObject(go_on, INFINITE);
        return S_OK;
    };
    ASSERT_EQ(helper().StartIPAddrChangeNotification(), 1);
    connect_to(9);
    SetEvent(changes);
    ASSERT_EQ(WaitForSingleObject(begun, 30000), WAIT_OBJECT_0);
    const DWORD start = GetTickCount();
    EXPECT_EQ(PyxProxyHelper::Release(), 1);
    EXPECT_LT(GetTickCount() - start, 10000u);
    SetEvent(go_on);  // the worker goes to its end
    EXPECT_TRUE(wait_for_workers());
    CloseHandle(begun);
    CloseHandle(go_on);
}

TEST_F(ProxyHelper, FollowsARealInterface) {
    const NetworkSpace network;
    ZR_NEEDS_NETWORK(network);
    stand_ins().query = nullptr;
    ASSERT_TRUE(NetworkSpace::add_device("one"));
    ASSERT_TRUE(NetworkSpace::run("addr add 192.168.5.1/24 dev one"));
    have_entries();
    StoredKey source = foreign();
    source[u"SrcId"] = text_value(kWork);  // what a private network leads into
    store(key_of(u"A"), source);
    const HANDLE processed = CreateEventW(nullptr, FALSE, FALSE, nullptr);
    processing_ = [&](LPCWSTR document, DWORD flags, LPWSTR* result) {
        const HRESULT done = process_really(document, flags, result);
        SetEvent(processed);
        return done;
    };
    EXPECT_EQ(helper().ChangeProxyConnectionSettings(1, 1), 1);
    EXPECT_EQ(entry(u"A").at(u"Proxy"), text_value(u"192.168.5.1:8080"));
    // The helper's threads are of the network they were made in, as is the socket that tells.
    Limits::set(15000, 30000);  // its last rewrite is done before the next one
    ASSERT_EQ(helper().StartIPAddrChangeNotification(), 1);
    for (const char* const address : {"192.168.5.77", "10.20.30.40", "172.16.0.9"}) {
        ASSERT_TRUE(NetworkSpace::run("addr flush dev one"));
        ASSERT_TRUE(NetworkSpace::run(std::string("addr add ") + address + "/24 dev one"));
        const std::string text = std::string(address) + ":8080";
        const StoredValue wanted = text_value({text.begin(), text.end()});
        // Told of both changes or of one; the last word is the new address.
        while (WaitForSingleObject(processed, 30000) == WAIT_OBJECT_0 && entry(u"A").at(u"Proxy") != wanted) {
        }
        EXPECT_EQ(entry(u"A").at(u"Proxy"), wanted) << address;
    }
    EXPECT_EQ(PyxProxyHelper::Release(), 1);
    EXPECT_EQ(helper().ChangeProxyConnectionSettings(0, 1), 1);
    EXPECT_EQ(entry(u"A"), source);
    CloseHandle(processed);
}

// ---- Two processes, and a long walk ----

// With a file's name, which is there while a document is carried out: 2 when another one is then.
ZR_CHILD(proxy_toggling) {
    std::atomic<bool> alone{true};
    if (args.empty()) {
        ProxyHelper::connect({{kSourceId, CONNMGR_STATUS_CONNECTED, {10, 1, 2, 3}}});
    } else {
        stand_ins().process = [&](LPCWSTR document, DWORD flags, LPWSTR* result) {
            const int inside = open(args[0].c_str(), O_CREAT | O_EXCL | O_CLOEXEC, 0600);
            if (inside < 0) alone = false;
            const HRESULT done = process_really(document, flags, result);
            if (inside >= 0) {
                close(inside);
                unlink(args[0].c_str());
            }
            return done;
        };
    }
    zr::test::say("ready");
    for (int round = 0; args.empty() || round <= 20; ++round) {
        PyxProxyHelper::GetInstance()->UpdateProxyConnectionSettings(round % 2 == 0, 1);
        if (round == 3) zr::test::say("toggled");
    }
    return alone ? 0 : 2;
}

TEST_F(ProxyHelper, AKilledProcessLeavesEntriesThatCanBeReverted) {
    have_entries();
    stand_ins() = {};
    for (int kill = 0; kill < 10; ++kill) {
        Child child("proxy_toggling");
        ASSERT_EQ(child.hear(), "ready");
        if (kill % 2 != 0) {
            ASSERT_EQ(child.hear(), "toggled");
        }
        for (int look = 0; look < kill; ++look) {
            PyxProxyHelper::IsProxyEnabled();
        }
        child.kill(SIGKILL);
        EXPECT_EQ(child.wait(), -SIGKILL);
        EXPECT_EQ(helper().UpdateProxyConnectionSettings(0, 1), 1);
        ASSERT_EQ(entry(u"A"), foreign());
        ASSERT_FALSE(backup(u"A"));
        ASSERT_EQ(PyxProxyHelper::IsProxyEnabled(), 0);
    }
}

// Says when the worker begins to carry the document out.
ZR_CHILD(proxy_working) {
    ProxyHelper::connect({{kSourceId, CONNMGR_STATUS_CONNECTED, {10, 1, 2, 3}}});
    stand_ins().process = [](LPCWSTR document, DWORD flags, LPWSTR* result) {
        zr::test::say("working");
        return process_really(document, flags, result);
    };
    PyxProxyHelper::GetInstance()->UpdateProxyConnectionSettings(1, 1);
    zr::test::say("done");
    zr::test::hear();
    return 0;
}

TEST_F(ProxyHelper, AProcessKilledWhileItsWorkerRunsHasRewrittenAll) {
    have_entries();
    stand_ins() = {};
    std::mt19937 random(1);
    for (int kill = 0; kill < 100 / kStride; ++kill) {
        Child child("proxy_working");
        ASSERT_EQ(child.hear(), "working");
        for (auto look = random() % 30; look > 0; --look) {
            PyxProxyHelper::IsProxyEnabled();
        }
        child.kill(SIGKILL);
        EXPECT_EQ(child.wait(), -SIGKILL);
        ASSERT_EQ(PyxProxyHelper::IsProxyEnabled(), 1);
        ASSERT_EQ(entry(u"A"), pointed(u"10.1.2.3:8080")) << kill;
        EXPECT_EQ(helper().UpdateProxyConnectionSettings(0, 1), 1);
        ASSERT_EQ(entry(u"A"), foreign()) << kill;
        ASSERT_FALSE(backup(u"A"));
    }
}

TEST_F(ProxyHelper, TwoProcessesProvisionOneAfterTheOther) {
    have_entries();
    stand_ins() = {};
    const std::string inside = (sandbox() / "inside").string();
    Child one("proxy_toggling", {inside});
    Child two("proxy_toggling", {inside});
    EXPECT_EQ(one.wait(), 0);
    EXPECT_EQ(two.wait(), 0);
    EXPECT_EQ(helper().UpdateProxyConnectionSettings(0, 1), 1);
    EXPECT_EQ(PyxProxyHelper::IsProxyEnabled(), 0);
    EXPECT_EQ(entry(u"A"), foreign());
}

TEST_F(ProxyHelper, EndsWithTheEntriesBeforeTheFirstChange) {
    for (unsigned seed = 0; seed < 4; ++seed) {
        std::mt19937 random(seed);
        have_entries();
        for (int i = 0; i < 12; ++i) {
            StoredKey values = foreign();
            const std::u16string networks[] = {kInternet, kWork, kSource, u"{nothing}"};
            values[u"DestId"] = text_value(networks[random() % 4]);
            values[u"SrcId"] = text_value(networks[random() % 4]);
            values[u"Enable"] = number_value(random() % 2);
            values[u"Proxy"] = text_value(u"p" + std::u16string{static_cast<WCHAR>(u'0' + i)} + u":1");
            store(key_of(u"E" + std::u16string{static_cast<WCHAR>(u'a' + i)}), values);
        }
        const auto before = all();
        bool on = false;
        BYTE last = 3;
        // The model: what an entry looks like is a question of whether the proxy is on, and of the address.
        const auto expected = [&] {
            auto entries = before;
            for (auto& [name, values] : entries) {
                if (name.ends_with(kOwn)) {
                    values[u"Enable"] = number_value(on);
                } else if (on &&
                           (values[u"DestId"] == text_value(kInternet) || values[u"DestId"] == text_value(kWork))) {
                    const std::string address = "10.1.2." + std::to_string(last) + ":8080";
                    if (values[u"SrcId"] != text_value(kSource)) continue;
                    values[u"Proxy"] = text_value({address.begin(), address.end()});
                    values[u"Type"] = number_value(1);
                    values[u"Enable"] = number_value(1);
                } else if (on && (values[u"SrcId"] == text_value(kInternet) || values[u"SrcId"] == text_value(kWork))) {
                    values[u"Enable"] = number_value(0);
                }
            }
            return entries;
        };
        connect_to(last);
        for (int step = 0; step < 60; ++step) {
            switch (random() % 4) {
                case 0:
                    on = true;
                    helper().UpdateProxyConnectionSettings(1, 1);
                    break;
                case 1:
                    on = false;
                    ChangeProxySettings(0, 1);
                    break;
                case 2:
                    connect_to(last = static_cast<BYTE>(1 + random() % 250));
                    if (OnConnectionStatusUpdate(0x10) == 0) {
                        EXPECT_FALSE(on);
                    }
                    break;
                default:
                    helper().RevertNullProxies();
                    if (on) helper().UpdateProxyConnectionSettings(1, 1);
                    break;
            }
            ASSERT_EQ(all(), expected()) << "seed " << seed << " step " << step;
        }
        on = false;
        helper().UpdateProxyConnectionSettings(0, 1);
        ASSERT_EQ(all(), expected());
        EXPECT_TRUE(all() == before);
        RegDeleteKeyW(HKEY_LOCAL_MACHINE, u"Comm\\ConnMgr");
    }
}
