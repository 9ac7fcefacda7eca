// Restricts and searches folders with any text. What one of them understands the other does, too, and Find meets an
// item where Restrict leaves some; a view with occurrences has no more of them than the series has.

#include <cstdint>
#include <cstdlib>
#include <filesystem>
#include <string>

#include "platform/pim.h"

namespace {

void check(bool condition) {
    if (!condition) std::abort();
}

// A store of its own with some items, for as long as the program runs.
class Folders {
public:
    Folders() {
        std::string name = (std::filesystem::temp_directory_path() / "zr-fuzz-XXXXXX").string();
        check(mkdtemp(name.data()) != nullptr);
        home_ = name;
        setenv("ZR_HOME", name.c_str(), 1);
        check(SUCCEEDED(CoInitializeEx(nullptr, COINIT_MULTITHREADED)));
        check(CoCreateInstance(CLSID_Application, nullptr, CLSCTX_INPROC_SERVER, IID_IPOutlookApp,
                               reinterpret_cast<void**>(&app_)) == S_OK);
        check(app_->Logon(nullptr) == S_OK);
        for (const WCHAR* first : {u"ann", u"Bob", u"or \"x\" and"}) {
            add_contact(first);
        }
        add_series();
    }
    ~Folders() {
        app_->Logoff();
        app_->Release();
        CoUninitialize();
        std::filesystem::remove_all(home_);
    }
    Folders(const Folders&) = delete;
    Folders& operator=(const Folders&) = delete;

    IPOutlookItemCollection* items(OlDefaultFolders number) {
        IFolder* folder = nullptr;
        IPOutlookItemCollection* found = nullptr;
        check(app_->GetDefaultFolder(number, &folder) == S_OK && folder->get_Items(&found) == S_OK);
        folder->Release();
        return found;
    }

private:
    void add_contact(const WCHAR* first) {
        IDispatch* item = nullptr;
        check(app_->CreateItem(olContactItem, &item) == S_OK);
        auto* contact = static_cast<IContact*>(item);
        check(contact->put_FirstName(const_cast<BSTR>(first)) == S_OK && contact->Save() == S_OK);
        contact->Release();
    }
    void add_series() {
        IDispatch* item = nullptr;
        check(app_->CreateItem(olAppointmentItem, &item) == S_OK);
        auto* series = static_cast<IAppointment*>(item);
        IRecurrencePattern* pattern = nullptr;
        check(series->put_Start(45446.375) == S_OK && series->put_Duration(60) == S_OK &&
              series->GetRecurrencePattern(&pattern) == S_OK && pattern->put_RecurrenceType(olRecursWeekly) == S_OK &&
              pattern->put_Occurrences(10) == S_OK && series->Save() == S_OK);
        pattern->Release();
        series->Release();
    }

    std::filesystem::path home_;
    IPOutlookApp* app_ = nullptr;
};

void restrict(IPOutlookItemCollection& items, BSTR text) {
    IPOutlookItemCollection* left = nullptr;
    IDispatch* found = nullptr;
    const HRESULT result = items.Restrict(text, &left);
    const HRESULT sought = items.Find(text, &found);
    check(result == S_OK || result == E_INVALIDARG);
    check((left != nullptr) == (result == S_OK) && (found != nullptr) == (sought == S_OK));
    check((result == S_OK) == SUCCEEDED(sought));
    if (left != nullptr) {
        INT count = -1;
        check(left->get_Count(&count) == S_OK && (count > 0) == (sought == S_OK));
        left->Release();
    }
    if (found != nullptr) found->Release();
}

void restrict_occurrences(IPOutlookItemCollection& items, BSTR text) {
    IPOutlookItemCollection* shown = nullptr;
    check(items.put_IncludeRecurrences(VARIANT_TRUE) == S_OK);
    const HRESULT result = items.Restrict(text, &shown);
    check((shown != nullptr) == (result == S_OK) && (result == S_OK || result == E_INVALIDARG));
    if (shown == nullptr) return;
    INT count = -1;
    check(shown->get_Count(&count) == S_OK && count >= 0 && count <= 10);
    shown->Release();
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    static Folders folders;
    std::u16string text(data, data + size);
    for (const OlDefaultFolders number : {olFolderContacts, olFolderCalendar}) {
        IPOutlookItemCollection* items = folders.items(number);
        restrict(*items, text.data());
        if (number == olFolderCalendar) restrict_occurrences(*items, text.data());
        items->Release();
    }
    return 0;
}
