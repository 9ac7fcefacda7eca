#pragma once

// A Pocket Outlook application in memory whose every step can be made to fail, and which counts what is alive.
// While a FakeOutlook lives, CoCreateInstance gives its application instead of the platform's.

#include <map>
#include <memory>
#include <optional>
#include <set>
#include <string>
#include <vector>

#include "platform/base.h"
#include "platform/com.h"
#include "platform/pim.h"

namespace zr::test {

struct FakeRecord {
    LONG oid = 0;
    std::map<std::string, std::u16string> fields;
    std::optional<ULONG> source;
};

class FakeOutlook {
public:
    FakeOutlook();
    ~FakeOutlook();
    FakeOutlook(const FakeOutlook&) = delete;
    FakeOutlook& operator=(const FakeOutlook&) = delete;

    // Steps by name ("Logon", "GetDefaultFolder 10", "get_Items", "get_Count", "Item", "Add", "Remove", "Sort",
    // "Logoff", "folder.QueryInterface", "SetProps", "Save", "get_Oid", "GetProps", "get_Application",
    // "GetItemFromOid", "CreateInstance", "get_FirstName", ...) and the result they have instead of succeeding.
    std::map<std::string, HRESULT> results;
    // The same for one call only: the number of the call, from 1.
    std::map<std::string, std::pair<int, HRESULT>> result_of_call;
    std::map<std::string, int> calls;

    std::vector<std::shared_ptr<FakeRecord>> records;
    int objects = 0;  // interfaces alive
    std::set<IUnknown*> alive;
    int strings = 0;  // texts handed out and not freed
    std::u16string last_sort;
    HWND window = nullptr;
    ULONG notifications = 0;
    IPOutlookApp* application = nullptr;  // the last one made

    std::shared_ptr<FakeRecord> add(LONG oid, std::map<std::string, std::u16string> fields);
    // Counts a call and tells what it is to do: S_OK to succeed.
    HRESULT step(const std::string& name);
    BSTR text(const std::u16string& value);

private:
    DWORD cookie_ = 0;
    IUnknown* factory_ = nullptr;
};

}  // namespace zr::test
