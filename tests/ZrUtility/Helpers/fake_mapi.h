#pragma once

// A message store in memory that writes down every call it gets, of which every step can be made to fail, and which
// counts what is alive. Its entry identifiers are the bytes of its objects' names.

#include <map>
#include <string>
#include <variant>
#include <vector>

#include "platform/com.h"
#include "platform/mapi.h"

namespace zr::test {

using FakeBytes = std::string;
using FakeValue = std::variant<ULONG, std::u16string, FakeBytes>;

struct FakeMapiObject {
    ULONG type = 0;  // MAPI_STORE, MAPI_FOLDER, MAPI_MESSAGE
    std::map<ULONG, FakeValue> values;
};

class FakeMapi {
public:
    FakeMapi() = default;
    FakeMapi(const FakeMapi&) = delete;
    FakeMapi& operator=(const FakeMapi&) = delete;

    // What there is, by name.
    std::map<std::string, FakeMapiObject> objects;
    // The rows of every hierarchy table, by name of the folder; a name that is not among the objects cannot be opened.
    std::vector<std::string> folders;

    // Calls as they came: "OpenEntry inbox 1", "GetProps inbox 0E090102 0FFB0102", ...
    std::vector<std::string> calls;
    // A call as it is written down, and the result that it has instead of succeeding.
    std::map<std::string, HRESULT> results;
    // What OpenEntry reports as type instead of the object's.
    std::map<std::string, ULONG> reported_types;
    // What the last Release of an object returns instead of 0.
    std::map<std::string, ULONG> releases;
    int alive = 0;  // interfaces

    IMAPISession* session();
    // Opens without a trace among the calls.
    IMAPIProp* open(const std::string& name);

    // For the objects.
    HRESULT step(const std::string& call);
};

// A stream of which only the size is known.
class FakeStream final : public IStream {
public:
    FakeStream(ULONGLONG size, HRESULT result) : size_(size), result_(result) {}
    DWORD asked() const { return asked_; }

    HRESULT QueryInterface(REFIID, void**) override { return E_NOINTERFACE; }
    ULONG AddRef() override { return 1; }
    ULONG Release() override { return 1; }
    HRESULT Read(void*, ULONG, ULONG*) override { return E_NOTIMPL; }
    HRESULT Write(const void*, ULONG, ULONG*) override { return E_NOTIMPL; }
    HRESULT Seek(LARGE_INTEGER, DWORD, ULARGE_INTEGER*) override { return E_NOTIMPL; }
    HRESULT SetSize(ULARGE_INTEGER) override { return E_NOTIMPL; }
    HRESULT CopyTo(IStream*, ULARGE_INTEGER, ULARGE_INTEGER*, ULARGE_INTEGER*) override { return E_NOTIMPL; }
    HRESULT Commit(DWORD) override { return E_NOTIMPL; }
    HRESULT Revert() override { return E_NOTIMPL; }
    HRESULT LockRegion(ULARGE_INTEGER, ULARGE_INTEGER, DWORD) override { return E_NOTIMPL; }
    HRESULT UnlockRegion(ULARGE_INTEGER, ULARGE_INTEGER, DWORD) override { return E_NOTIMPL; }
    HRESULT Stat(STATSTG* stat, DWORD flag) override;
    HRESULT Clone(IStream**) override { return E_NOTIMPL; }

private:
    ULONGLONG size_;
    HRESULT result_;
    DWORD asked_ = 0xFFFFFFFF;
};

}  // namespace zr::test
