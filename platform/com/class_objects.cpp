// Class objects: the program's own registrations and the platform's built-in classes.

#include <atomic>
#include <mutex>
#include <new>
#include <optional>
#include <vector>

#include "base/forks.h"
#include "base/live_count.h"
#include "com/com_class.h"
#include "initialise.h"
#include "platform/com.h"

namespace zr::platform {
namespace {

constinit BuiltinClass* builtin_classes = nullptr;

class BuiltinFactory final : public IClassFactory {
public:
    explicit BuiltinFactory(CreateObject create) noexcept : create_(create) { count_live(ZrLiveKind::Interfaces, 1); }

    HRESULT QueryInterface(REFIID riid, void** object) override {
        if (object == nullptr) return E_POINTER;
        *object = nullptr;
        if (riid != IID_IUnknown && riid != IID_IClassFactory) return E_NOINTERFACE;
        *object = static_cast<IClassFactory*>(this);
        AddRef();
        return S_OK;
    }
    ULONG AddRef() override { return references_.fetch_add(1, std::memory_order_relaxed) + 1; }
    ULONG Release() override {
        const ULONG left = references_.fetch_sub(1, std::memory_order_acq_rel) - 1;
        if (left == 0) {
            count_live(ZrLiveKind::Interfaces, -1);
            delete this;
        }
        return left;
    }
    HRESULT CreateInstance(IUnknown* outer, REFIID riid, void** object) override {
        if (object == nullptr) return E_POINTER;
        *object = nullptr;
        return outer != nullptr ? CLASS_E_NOAGGREGATION : create_(riid, object);
    }
    HRESULT LockServer(BOOL) override { return S_OK; }

private:
    ~BuiltinFactory() = default;

    const CreateObject create_;
    std::atomic<ULONG> references_{1};
};

struct Registration {
    DWORD cookie;
    CLSID clsid;
    IUnknown* factory;
    DWORD context;
    bool single_use;
};

std::mutex registrations_lock;
DWORD last_cookie = 0;

// Lives for ever: the program may revoke a class from a static object's destructor.
alignas(std::vector<Registration>) unsigned char registrations_storage[sizeof(std::vector<Registration>)];
auto& the_registrations = *new (registrations_storage) std::vector<Registration>;

std::vector<Registration>& registrations() {
    return the_registrations;
}

const AtFork at_fork{ForkRank::Com,
                     {[]() noexcept { registrations_lock.lock(); }, []() noexcept { registrations_lock.unlock(); },
                      []() noexcept { registrations_lock.unlock(); }}};

// The registered class object with a reference of its own; a single-use one is the caller's alone from then on.
IUnknown* take_registered(REFCLSID clsid, DWORD context) {
    const std::lock_guard lock(registrations_lock);
    auto& all = registrations();
    for (size_t i = 0; i < all.size(); ++i) {
        if (all[i].clsid != clsid || (all[i].context & context) == 0) continue;
        IUnknown* factory = all[i].factory;
        if (all[i].single_use) {
            all.erase(all.begin() + static_cast<std::ptrdiff_t>(i));
        } else {
            factory->AddRef();
        }
        return factory;
    }
    return nullptr;
}

}  // namespace

BuiltinClass::BuiltinClass(REFCLSID clsid, CreateObject create) noexcept
    : clsid_(clsid), create_(create), next_(builtin_classes) {
    builtin_classes = this;
}

CreateObject BuiltinClass::find(REFCLSID clsid) noexcept {
    for (const BuiltinClass* entry = builtin_classes; entry != nullptr; entry = entry->next_) {
        if (entry->clsid_ == clsid) return entry->create_;
    }
    return nullptr;
}

}  // namespace zr::platform

using namespace zr::platform;

HRESULT CoRegisterClassObject(REFCLSID clsid, IUnknown* factory, DWORD context, DWORD flags, DWORD* cookie) {
    if (cookie == nullptr || factory == nullptr) return E_INVALIDARG;
    *cookie = 0;
    if (!com_initialised()) return CO_E_NOTINITIALIZED;
    const std::lock_guard lock(registrations_lock);
    try {
        registrations().push_back({last_cookie + 1, clsid, factory, context, (flags & REGCLS_MULTIPLEUSE) == 0});
    } catch (const std::bad_alloc&) {
        return E_OUTOFMEMORY;
    }
    factory->AddRef();
    *cookie = ++last_cookie;
    return S_OK;
}

HRESULT CoRevokeClassObject(DWORD cookie) {
    IUnknown* factory = nullptr;
    {
        const std::lock_guard lock(registrations_lock);
        auto& all = registrations();
        for (size_t i = 0; i < all.size() && factory == nullptr; ++i) {
            if (all[i].cookie != cookie) continue;
            factory = all[i].factory;
            all.erase(all.begin() + static_cast<std::ptrdiff_t>(i));
        }
    }
    if (factory == nullptr) return E_INVALIDARG;
    factory->Release();  // without the lock: the class object's end is the program's code
    return S_OK;
}

HRESULT CoGetClassObject(REFCLSID clsid, DWORD context, void*, REFIID riid, void** object) {
    if (object == nullptr) return E_POINTER;
    *object = nullptr;
    if (!com_initialised()) return CO_E_NOTINITIALIZED;
    IUnknown* factory = take_registered(clsid, context);
    if (factory == nullptr && (context & CLSCTX_INPROC_SERVER) != 0) {
        if (const CreateObject create = BuiltinClass::find(clsid)) {
            factory = new (std::nothrow) BuiltinFactory(create);
            if (factory == nullptr) return E_OUTOFMEMORY;
        }
    }
    if (factory == nullptr) return REGDB_E_CLASSNOTREG;
    const HRESULT result = factory->QueryInterface(riid, object);
    factory->Release();
    return result;
}

HRESULT CoCreateInstance(REFCLSID clsid, IUnknown* outer, DWORD context, REFIID riid, void** object) {
    if (object == nullptr) return E_POINTER;
    *object = nullptr;
    IClassFactory* factory = nullptr;
    HRESULT result = CoGetClassObject(clsid, context, nullptr, IID_IClassFactory, reinterpret_cast<void**>(&factory));
    if (FAILED(result)) return result;
    result = factory->CreateInstance(outer, riid, object);
    factory->Release();
    return result;
}
