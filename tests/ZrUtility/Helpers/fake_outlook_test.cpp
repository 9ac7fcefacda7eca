#include "ZrUtility/Helpers/fake_outlook.h"

#include <gtest/gtest.h>

#include <algorithm>

namespace zr::test {
namespace {

// Counts references and live objects; Release ends the object.
template <class Interface>
class Counted : public Interface {
public:
    explicit Counted(FakeOutlook& world) : world_(world) {
        ++world_.objects;
        world_.alive.insert(this);
    }
    virtual ~Counted() {
        --world_.objects;
        world_.alive.erase(this);
    }
    Counted(const Counted&) = delete;
    Counted& operator=(const Counted&) = delete;

    HRESULT QueryInterface(REFIID, void** object) override {
        *object = nullptr;
        return E_NOINTERFACE;
    }
    ULONG AddRef() override { return ++references_; }
    ULONG Release() override {
        const ULONG left = --references_;
        if (left == 0) delete this;
        return left;
    }

protected:
    FakeOutlook& world_;

private:
    ULONG references_ = 1;
};

template <class Interface>
class CountedDispatch : public Counted<Interface> {
public:
    using Counted<Interface>::Counted;
    HRESULT GetTypeInfoCount(UINT*) override { return E_NOTIMPL; }
    HRESULT GetTypeInfo(UINT, LCID, ITypeInfo**) override { return E_NOTIMPL; }
    HRESULT GetIDsOfNames(REFIID, LPOLESTR*, UINT, LCID, DISPID*) override { return E_NOTIMPL; }
    HRESULT Invoke(DISPID, REFIID, LCID, WORD, DISPPARAMS*, VARIANT*, EXCEPINFO*, UINT*) override { return E_NOTIMPL; }
};

class FakeProperties : public CountedDispatch<IItem> {
public:
    FakeProperties(FakeOutlook& world, std::shared_ptr<FakeRecord> record)
        : CountedDispatch(world), record_(std::move(record)) {}

    HRESULT GetProps(const CEPROPID* ids, ULONG flags, WORD count, CEPROPVAL** values, ULONG* size,
                     HANDLE heap) override {
        const HRESULT result = world_.step("GetProps");
        if (result != S_OK) return result;
        if (flags != CEDB_ALLOWREALLOC || count != 1 || ids[0] != 0x001B0013) return E_INVALIDARG;
        *size = sizeof(CEPROPVAL);
        *values = static_cast<CEPROPVAL*>(HeapAlloc(heap, HEAP_ZERO_MEMORY, *size));
        (*values)->propid = ids[0];
        if (record_ && record_->source) {
            (*values)->val.ulVal = *record_->source;
        } else {
            (*values)->wFlags = CEDB_PROPNOTFOUND;
            (*values)->val.ulVal = 0xDEAD;
        }
        return S_OK;
    }
    HRESULT SetProps(ULONG, WORD count, CEPROPVAL* values) override {
        const HRESULT result = world_.step("SetProps");
        if (result == S_OK && count == 1 && values->propid == 0x10010013) world_.notifications = values->val.ulVal;
        return result;
    }
    HRESULT Save() override { return world_.step("Save"); }
    HRESULT get_Oid(LONG* oid) override {
        const HRESULT result = world_.step("get_Oid");
        if (result == S_OK) *oid = 4711;
        return result;
    }
    HRESULT Delete() override { return E_NOTIMPL; }
    HRESULT Copy(IItem**) override { return E_NOTIMPL; }
    HRESULT Display(HWND) override { return E_NOTIMPL; }
    HRESULT Edit(HWND) override { return E_NOTIMPL; }
    HRESULT get_DefaultItemType(INT*) override { return E_NOTIMPL; }
    HRESULT get_Application(IPOutlookApp**) override { return E_NOTIMPL; }

private:
    std::shared_ptr<FakeRecord> record_;
};

class FakeContact : public CountedDispatch<IContact> {
public:
    FakeContact(FakeOutlook& world, std::shared_ptr<FakeRecord> record)
        : CountedDispatch(world), record_(std::move(record)) {}

    HRESULT QueryInterface(REFIID id, void** object) override {
        *object = nullptr;
        if (id != IID_IItem) return E_NOINTERFACE;
        const HRESULT result = world_.step("item.QueryInterface");
        if (result == S_OK) *object = static_cast<IItem*>(new FakeProperties(world_, record_));
        return result;
    }

#define ZR_NO_FIELD(type, name)          \
    HRESULT get_##name(type*) override { \
        return E_NOTIMPL;                \
    }                                    \
    HRESULT put_##name(type) override {  \
        return E_NOTIMPL;                \
    }
#define ZR_TEXT(name)                           \
    HRESULT get_##name(BSTR* value) override {  \
        return get("get_" #name, #name, value); \
    }                                           \
    HRESULT put_##name(BSTR value) override {   \
        return put("put_" #name, #name, value); \
    }
    ZR_NO_FIELD(DATE, Birthday)
    ZR_NO_FIELD(DATE, Anniversary)
    ZR_TEXT(BusinessFaxNumber)
    ZR_TEXT(CompanyName)
    ZR_TEXT(Department)
    ZR_TEXT(Email1Address)
    ZR_TEXT(MobileTelephoneNumber)
    ZR_TEXT(OfficeLocation)
    ZR_TEXT(PagerNumber)
    ZR_TEXT(BusinessTelephoneNumber)
    ZR_TEXT(JobTitle)
    ZR_TEXT(HomeTelephoneNumber)
    ZR_TEXT(Email2Address)
    ZR_TEXT(Spouse)
    ZR_TEXT(Email3Address)
    ZR_TEXT(Home2TelephoneNumber)
    ZR_TEXT(HomeFaxNumber)
    ZR_TEXT(CarTelephoneNumber)
    ZR_TEXT(AssistantName)
    ZR_TEXT(AssistantTelephoneNumber)
    ZR_TEXT(Children)
    ZR_TEXT(Categories)
    ZR_TEXT(WebPage)
    ZR_TEXT(Business2TelephoneNumber)
    ZR_TEXT(Title)
    ZR_TEXT(FirstName)
    ZR_TEXT(MiddleName)
    ZR_TEXT(LastName)
    ZR_TEXT(Suffix)
    ZR_TEXT(HomeAddressStreet)
    ZR_TEXT(HomeAddressCity)
    ZR_TEXT(HomeAddressState)
    ZR_TEXT(HomeAddressPostalCode)
    ZR_TEXT(HomeAddressCountry)
    ZR_TEXT(OtherAddressStreet)
    ZR_TEXT(OtherAddressCity)
    ZR_TEXT(OtherAddressState)
    ZR_TEXT(OtherAddressPostalCode)
    ZR_TEXT(OtherAddressCountry)
    ZR_TEXT(BusinessAddressStreet)
    ZR_TEXT(BusinessAddressCity)
    ZR_TEXT(BusinessAddressState)
    ZR_TEXT(BusinessAddressPostalCode)
    ZR_TEXT(BusinessAddressCountry)
    ZR_TEXT(RadioTelephoneNumber)
    ZR_TEXT(FileAs)
    ZR_TEXT(Body)
    ZR_TEXT(YomiCompanyName)
    ZR_TEXT(YomiFirstName)
    ZR_TEXT(YomiLastName)
#undef ZR_NO_FIELD
#undef ZR_TEXT

    HRESULT Save() override {
        return world_.step("contact.Save");
    }
    HRESULT Delete() override {
        return world_.step("contact.Delete");
    }
    HRESULT Copy(IContact**) override {
        return E_NOTIMPL;
    }
    HRESULT Display() override {
        return world_.step("contact.Display");
    }
    HRESULT get_Oid(LONG* oid) override {
        const HRESULT result = world_.step("contact.get_Oid");
        if (result == S_OK) *oid = record_->oid;
        return result;
    }
    HRESULT get_Application(IPOutlookApp** app) override {
        const HRESULT result = world_.step("get_Application");
        if (result != S_OK) return result;
        world_.application->AddRef();
        *app = world_.application;
        return S_OK;
    }

private:
    HRESULT get(const char* call, const char* field, BSTR* value) {
        const HRESULT result = world_.step(call);
        if (result < 0) return result;
        *value = result == S_OK ? world_.text(record_->fields[field]) : nullptr;
        return result;
    }
    HRESULT put(const char* call, const char* field, BSTR value) {
        const HRESULT result = world_.step(call);
        if (result == S_OK) record_->fields[field] = value ? value : u"";
        return result;
    }

    std::shared_ptr<FakeRecord> record_;
};

class FakeItems : public CountedDispatch<IPOutlookItemCollection> {
public:
    using CountedDispatch::CountedDispatch;

    HRESULT Add(IDispatch** item) override {
        const HRESULT result = world_.step("Add");
        if (result == S_OK) *item = new FakeContact(world_, std::make_shared<FakeRecord>());
        return result;
    }
    HRESULT get_Count(INT* count) override {
        const HRESULT result = world_.step("get_Count");
        if (result == S_OK) *count = static_cast<INT>(world_.records.size());
        return result;
    }
    HRESULT Item(INT index, IDispatch** item) override {
        const HRESULT result = world_.step("Item");
        if (result != S_OK) return result;
        if (index < 1 || index > static_cast<INT>(world_.records.size())) return E_INVALIDARG;
        *item = new FakeContact(world_, world_.records[static_cast<std::size_t>(index - 1)]);
        return S_OK;
    }
    HRESULT Remove(INT index) override {
        const HRESULT result = world_.step("Remove");
        if (result == S_OK) world_.records.erase(world_.records.begin() + index - 1);
        return result;
    }
    HRESULT Sort(BSTR tag, VARIANT_BOOL descending) override {
        world_.last_sort = std::u16string(tag) + (descending ? u" descending" : u"");
        return world_.step("Sort");
    }
    HRESULT Find(BSTR, IDispatch**) override { return E_NOTIMPL; }
    HRESULT FindNext(IDispatch**) override { return E_NOTIMPL; }
    HRESULT Restrict(BSTR, IPOutlookItemCollection**) override { return E_NOTIMPL; }
    HRESULT get_Application(IPOutlookApp**) override { return E_NOTIMPL; }
    HRESULT get_IncludeRecurrences(VARIANT_BOOL*) override { return E_NOTIMPL; }
    HRESULT put_IncludeRecurrences(VARIANT_BOOL) override { return E_NOTIMPL; }
};

class FakeFolder : public CountedDispatch<IFolder> {
public:
    using CountedDispatch::CountedDispatch;

    HRESULT QueryInterface(REFIID id, void** object) override {
        *object = nullptr;
        const HRESULT result = world_.step("folder.QueryInterface");
        if (result != S_OK) return result;
        if (id != IID_IItem) return E_NOINTERFACE;
        *object = static_cast<IItem*>(new FakeProperties(world_, nullptr));
        return S_OK;
    }
    HRESULT get_Items(IPOutlookItemCollection** items) override {
        const HRESULT result = world_.step("get_Items");
        if (result == S_OK) *items = new FakeItems(world_);
        return result;
    }
    HRESULT get_DefaultItemType(INT*) override { return E_NOTIMPL; }
    HRESULT AddItemToInfraredFolder(IDispatch*) override { return E_NOTIMPL; }
    HRESULT SendToInfrared() override { return E_NOTIMPL; }
    HRESULT get_Application(IPOutlookApp**) override { return E_NOTIMPL; }
};

class FakeOutlookApplication : public CountedDispatch<IPOutlookApp> {
public:
    using CountedDispatch::CountedDispatch;

    HRESULT Logon(HWND window) override {
        world_.window = window;
        return world_.step("Logon");
    }
    HRESULT Logoff() override { return world_.step("Logoff"); }
    HRESULT GetDefaultFolder(OlDefaultFolders folder, IFolder** object) override {
        const HRESULT result = world_.step("GetDefaultFolder " + std::to_string(folder));
        if (result != S_OK) return result;
        *object = new FakeFolder(world_);
        return S_OK;
    }
    HRESULT GetItemFromOid(LONG oid, IDispatch** item) override {
        const HRESULT result = world_.step("GetItemFromOid");
        if (result != S_OK) return result;
        const auto found = std::find_if(world_.records.begin(), world_.records.end(),
                                        [oid](const auto& record) { return record->oid == oid; });
        if (found == world_.records.end()) return E_INVALIDARG;
        *item = new FakeContact(world_, *found);
        return S_OK;
    }
    HRESULT SysFreeString(BSTR text) override {
        if (text) --world_.strings;
        ::SysFreeString(text);
        return world_.step("SysFreeString");
    }
    HRESULT get_Version(BSTR*) override { return E_NOTIMPL; }
    HRESULT CreateItem(OlItemType, IDispatch**) override { return E_NOTIMPL; }
    HRESULT get_HomeCity(ICity**) override { return E_NOTIMPL; }
    HRESULT put_HomeCity(ICity*) override { return E_NOTIMPL; }
    HRESULT get_Application(IPOutlookApp**) override { return E_NOTIMPL; }
    HRESULT get_OutlookCompatible(VARIANT_BOOL*) override { return E_NOTIMPL; }
    HRESULT GetTimeZoneFromIndex(INT, ITimeZone**) override { return E_NOTIMPL; }
    HRESULT GetTimeZoneInformationFromIndex(INT, void*) override { return E_NOTIMPL; }
    HRESULT VariantTimeToSystemTime(DATE, SYSTEMTIME*) override { return E_NOTIMPL; }
    HRESULT SystemTimeToVariantTime(const SYSTEMTIME*, DATE*) override { return E_NOTIMPL; }
    HRESULT get_CurrentCityIndex(INT*) override { return E_NOTIMPL; }
    HRESULT put_CurrentCityIndex(INT) override { return E_NOTIMPL; }
    HRESULT ReceiveFromInfrared() override { return E_NOTIMPL; }
};

class FakeFactory : public Counted<IClassFactory> {
public:
    using Counted::Counted;

    HRESULT QueryInterface(REFIID id, void** object) override {
        *object = nullptr;
        if (id != IID_IClassFactory && id != IID_IUnknown) return E_NOINTERFACE;
        AddRef();
        *object = static_cast<IClassFactory*>(this);
        return S_OK;
    }
    HRESULT CreateInstance(IUnknown*, REFIID id, void** object) override {
        *object = nullptr;
        const HRESULT result = world_.step("CreateInstance");
        if (result != S_OK) return result;
        if (id != IID_IPOutlookApp) return E_NOINTERFACE;
        world_.application = new FakeOutlookApplication(world_);
        *object = world_.application;
        return S_OK;
    }
    HRESULT LockServer(BOOL) override { return S_OK; }
};

}  // namespace

FakeOutlook::FakeOutlook() {
    factory_ = new FakeFactory(*this);
    CoInitializeEx(nullptr, COINIT_MULTITHREADED);
    EXPECT_EQ(CoRegisterClassObject(CLSID_Application, factory_, CLSCTX_INPROC_SERVER, REGCLS_MULTIPLEUSE, &cookie_),
              S_OK);
    CoUninitialize();
}

FakeOutlook::~FakeOutlook() {
    EXPECT_EQ(CoRevokeClassObject(cookie_), S_OK);
    factory_->Release();
}

std::shared_ptr<FakeRecord> FakeOutlook::add(LONG oid, std::map<std::string, std::u16string> fields) {
    records.push_back(std::make_shared<FakeRecord>(FakeRecord{oid, std::move(fields), {}}));
    return records.back();
}

HRESULT FakeOutlook::step(const std::string& name) {
    const int number = ++calls[name];
    if (const auto one = result_of_call.find(name); one != result_of_call.end() && one->second.first == number) {
        return one->second.second;
    }
    const auto found = results.find(name);
    return found != results.end() ? found->second : S_OK;
}

BSTR FakeOutlook::text(const std::u16string& value) {
    ++strings;
    return SysAllocStringLen(value.data(), static_cast<UINT>(value.size()));
}

}  // namespace zr::test
