#include "zr/stores/session.h"

#include <algorithm>
#include <charconv>
#include <cstdio>
#include <utility>

#include "zr/base/text.h"

namespace zr {
namespace {

constexpr HRESULT of_error(DWORD error) {
    return HRESULT_FROM_WIN32(error);
}

}  // namespace

bool is_missing(HRESULT result) {
    return result == E_INVALIDARG || result == of_error(ERROR_NOT_FOUND);
}

Failure store_failure(HRESULT result, const std::string& doing) {
    Exit code = Exit::StoreFailed;
    std::string reason = "the contact store failed";
    if (result == of_error(ERROR_DISK_FULL) || result == of_error(ERROR_HANDLE_DISK_FULL)) {
        code = Exit::DiskFull;
        reason = "the disk is full";
    } else if (result == of_error(ERROR_REVISION_MISMATCH)) {
        code = Exit::NewerStore;
        reason = "the contact store was written by a newer version";
    } else if (result == of_error(ERROR_FILE_CORRUPT)) {
        code = Exit::DamagedStore;
        reason = "the contact store is damaged";
    } else if (result == of_error(ERROR_BUSY)) {
        reason = "another program keeps the contact store locked";
    }
    const LPCWSTR more = ZrPimLastErrorText();
    char number[16];
    std::snprintf(number, sizeof number, "0x%08X", static_cast<unsigned>(result));
    std::string text = doing + ": " + reason + " (" + number;
    if (more && *more) text += ": " + to_utf8(more);
    return {code, text + ")", is_missing(result)};
}

void check(HRESULT result, const char* doing) {
    if (FAILED(result)) throw store_failure(result, doing);
}

bool has_left(IUnknown* item) {
    constexpr const char* reading = "reading an item";
    ComPtr<IZrItem> face;
    VARIANT_BOOL left = VARIANT_FALSE;
    check(item->QueryInterface(IID_IZrItem, face.out<void>()), reading);
    check(face->get_HasLeft(&left), reading);
    return left != VARIANT_FALSE;
}

Session::Session() {
    constexpr const char* opening = "opening the contact store";
    check(CoInitializeEx(nullptr, COINIT_MULTITHREADED), opening);
    HRESULT result =
        CoCreateInstance(CLSID_Application, nullptr, CLSCTX_INPROC_SERVER, IID_IPOutlookApp, app_.out<void>());
    if (SUCCEEDED(result)) result = app_->Logon(nullptr);
    if (SUCCEEDED(result)) return;
    Failure failure = store_failure(result, opening);
    app_.reset();
    CoUninitialize();
    throw Failure(std::move(failure));
}

Session::~Session() {
    app_->Logoff();
    app_.reset();
    CoUninitialize();
}

ComPtr<IPOutlookItemCollection> Session::items(OlDefaultFolders folder) {
    constexpr const char* opening = "opening a folder";
    ComPtr<IFolder> object;
    ComPtr<IPOutlookItemCollection> items;
    check(app_->GetDefaultFolder(folder, object.out()), opening);
    check(object->get_Items(items.out()), opening);
    return items;
}

ComPtr<IDispatch> Session::with_oid(LONG oid) {
    ComPtr<IDispatch> item;
    const HRESULT result = app_->GetItemFromOid(oid, item.out());
    if (!is_missing(result)) check(result, "reading an item");
    return item;
}

ComPtr<IZrStore> Session::store(const char* doing) {
    ComPtr<IZrStore> store;
    check(app_->QueryInterface(IID_IZrStore, store.out<void>()), doing);
    return store;
}

LONG Session::with_uid(OlDefaultFolders folder, const std::string& uid, LONG after) {
    constexpr const char* doing = "looking an item up";
    LONG oid = 0;
    check(store(doing)->FindByUid(folder, to_utf16(uid).c_str(), after, &oid), doing);
    return oid;
}

LONG Session::with_email(const std::string& address, LONG after) {
    constexpr const char* doing = "looking an address up";
    LONG oid = 0;
    check(store(doing)->FindByEmail(to_utf16(address).c_str(), after, &oid), doing);
    return oid;
}

std::string made_uid(IDispatch* item, LONG oid) {
    constexpr const char* reading = "reading an item";
    ComPtr<IZrItem> face;
    LONGLONG born = 0;
    check(item->QueryInterface(IID_IZrItem, face.out<void>()), reading);
    if (const HRESULT result = face->get_Born(&born); !is_missing(result)) check(result, reading);
    char text[64];
    std::snprintf(text, sizeof text, "%08x-%016llx@zrutility", static_cast<unsigned>(oid),
                  static_cast<unsigned long long>(born));
    return text;
}

LONG number_in_made_uid(const std::string& uid) {
    unsigned oid = 0;
    const auto [end, error] = std::from_chars(uid.data(), uid.data() + std::min<std::size_t>(uid.size(), 8), oid, 16);
    const bool made = error == std::errc() && end == uid.data() + 8 && uid.ends_with("@zrutility");
    return made ? static_cast<LONG>(oid) : 0;
}

void Session::batch(const char* doing, const std::function<void()>& saves) {
    const ComPtr<IZrStore> store = this->store(doing);
    check(store->BeginBatch(), doing);
    try {
        saves();
    } catch (const Failure&) {
        store->RollbackBatch();
        throw;
    }
    check(store->CommitBatch(), doing);
}

std::vector<Refused> Session::store_all(const char* doing, std::size_t count,
                                        const std::function<void(std::size_t)>& store_one) {
    std::vector<Refused> refused;
    try {
        batch(doing, [&] {
            for (std::size_t i = 0; i < count; ++i) {
                store_one(i);
            }
        });
        return refused;
    } catch (const Failure& failure) {
        if (!failure.refused) throw;
    }
    for (std::size_t i = 0; i < count; ++i) {
        try {
            batch(doing, [&] { store_one(i); });
        } catch (const Failure& failure) {
            if (!failure.refused) throw;
            refused.push_back({i, failure.text});
        }
    }
    return refused;
}

std::string text_property(IDispatch* item, CEPROPID id) {
    constexpr const char* reading = "reading an item";
    ComPtr<IItem> properties;
    check(item->QueryInterface(IID_IItem, properties.out<void>()), reading);
    CEPROPVAL* value = nullptr;
    ULONG size = 0;
    const HRESULT result = properties->GetProps(&id, CEDB_ALLOWREALLOC, 1, &value, &size, GetProcessHeap());
    std::string out;
    if (SUCCEEDED(result) && value && !(value->wFlags & CEDB_PROPNOTFOUND) && value->val.lpwstr) {
        out = to_utf8(value->val.lpwstr);
    }
    if (value) HeapFree(GetProcessHeap(), 0, value);
    check(result, reading);
    return out;
}

void put_text_property(IDispatch* item, CEPROPID id, const std::string& text) {
    constexpr const char* writing = "writing an item";
    ComPtr<IItem> properties;
    check(item->QueryInterface(IID_IItem, properties.out<void>()), writing);
    std::u16string wide = to_utf16(text);
    CEPROPVAL value = {};
    value.propid = id;
    value.val.lpwstr = wide.data();
    check(properties->SetProps(0, 1, &value), writing);
}

std::string taken_text(BSTR text) {
    std::string out = to_utf8(text ? std::u16string_view(text) : std::u16string_view());
    SysFreeString(text);
    return out;
}

}  // namespace zr
