#pragma once

// Sessions, items and texts for the tests of Pocket Outlook, with their references given back.

#include <gtest/gtest.h>

#include <filesystem>
#include <string>
#include <utility>
#include <vector>

#include "platform/pim.h"
#include "support/com_ptr.h"
#include "support/sandbox.h"

namespace zr::test {

// COM on this thread and a session that is logged on.
class TestSession {
public:
    explicit TestSession(HWND window = nullptr) {
        CoInitializeEx(nullptr, COINIT_MULTITHREADED);
        EXPECT_EQ(CoCreateInstance(CLSID_Application, nullptr, CLSCTX_INPROC_SERVER, IID_IPOutlookApp, app.any()),
                  S_OK);
        logon = app->Logon(window);
    }
    ~TestSession() {
        app->Logoff();
        app.reset();
        CoUninitialize();
    }
    Ptr<IFolder> folder(OlDefaultFolders number = olFolderContacts) const {
        Ptr<IFolder> found;
        EXPECT_EQ(app->GetDefaultFolder(number, found.out()), S_OK);
        return found;
    }
    Ptr<IPOutlookItemCollection> items(OlDefaultFolders number = olFolderContacts) const {
        Ptr<IPOutlookItemCollection> found;
        EXPECT_EQ(folder(number)->get_Items(found.out()), S_OK);
        return found;
    }
    Ptr<IContact> contact(LONG oid) const {
        Ptr<IContact> found;
        EXPECT_EQ(app->GetItemFromOid(oid, found.dispatch()), S_OK);
        return found;
    }
    Ptr<IContact> fresh() const {
        Ptr<IContact> made;
        EXPECT_EQ(app->CreateItem(olContactItem, made.dispatch()), S_OK);
        return made;
    }
    // A saved contact.
    LONG add(const WCHAR* first, const WCHAR* last, const WCHAR* email = u"") const;
    Ptr<IZrStore> store() const {
        Ptr<IZrStore> found;
        EXPECT_EQ(app->QueryInterface(IID_IZrStore, found.any()), S_OK);
        return found;
    }

    Ptr<IPOutlookApp> app;
    HRESULT logon = E_FAIL;
};

inline BSTR in(const WCHAR* text) {
    return const_cast<BSTR>(text);
}

// What a getter gives; "<failure>" if it fails.
template <class Face>
std::u16string text(Face& item, HRESULT (Face::*getter)(BSTR*)) {
    BSTR found = nullptr;
    if ((item.*getter)(&found) != S_OK || found == nullptr) return u"<failure>";
    std::u16string copy(found, SysStringLen(found));
    SysFreeString(found);
    return copy;
}

inline LONG TestSession::add(const WCHAR* first, const WCHAR* last, const WCHAR* email) const {
    const Ptr<IContact> made = fresh();
    EXPECT_EQ(made->put_FirstName(in(first)), S_OK);
    EXPECT_EQ(made->put_LastName(in(last)), S_OK);
    EXPECT_EQ(made->put_Email1Address(in(email)), S_OK);
    EXPECT_EQ(made->Save(), S_OK);
    LONG oid = 0;
    EXPECT_EQ(made->get_Oid(&oid), S_OK);
    return oid;
}

inline INT count(IPOutlookItemCollection& items) {
    INT number = -1;
    EXPECT_EQ(items.get_Count(&number), S_OK);
    return number;
}

inline LONG oid_at(IPOutlookItemCollection& items, INT index) {
    Ptr<IContact> item;
    LONG oid = 0;
    if (items.Item(index, item.dispatch()) == S_OK) item->get_Oid(&oid);
    return oid;
}

// The stores that were found damaged and set aside.
inline std::vector<std::filesystem::path> set_aside() {
    std::vector<std::filesystem::path> found;
    for (const auto& entry : std::filesystem::directory_iterator(sandbox_home())) {
        const std::string name = entry.path().filename();
        if (name.starts_with("pim.db.damaged-") && !name.ends_with("-wal")) found.push_back(entry.path());
    }
    return found;
}

}  // namespace zr::test
