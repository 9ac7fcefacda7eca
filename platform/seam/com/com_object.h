#pragma once

// What COM objects of the platform share: reference counts, and the late-bound calls that none of them offers.

#include <atomic>
#include <new>

#include "base/live_count.h"
#include "platform/com.h"

namespace zr::platform {

// A face without type information or late binding.
template <class Face>
class EarlyBound : public Face {
public:
    HRESULT GetTypeInfoCount(UINT* count) override {
        if (count == nullptr) return E_POINTER;
        *count = 0;
        return S_OK;
    }
    HRESULT GetTypeInfo(UINT, LCID, ITypeInfo** info) override {
        if (info != nullptr) *info = nullptr;
        return E_NOTIMPL;
    }
    HRESULT GetIDsOfNames(REFIID, LPOLESTR*, UINT, LCID, DISPID*) override { return DISP_E_UNKNOWNNAME; }
    HRESULT Invoke(DISPID, REFIID, LCID, WORD, DISPPARAMS*, VARIANT*, EXCEPINFO*, UINT*) override {
        return DISP_E_MEMBERNOTFOUND;
    }

protected:
    ~EarlyBound() = default;
};

// The count behind AddRef and Release of an object that lives as long as it has references.
class References {
public:
    References() { count_live(ZrLiveKind::Interfaces, 1); }
    ~References() { count_live(ZrLiveKind::Interfaces, -1); }
    References(const References&) = delete;
    References& operator=(const References&) = delete;
    ULONG add() { return count_.fetch_add(1, std::memory_order_relaxed) + 1; }
    ULONG remove() { return count_.fetch_sub(1, std::memory_order_acq_rel) - 1; }

private:
    std::atomic<ULONG> count_{1};
};

// Clears an output in advance.
template <class T>
bool cleared(T** output) {
    if (output != nullptr) *output = nullptr;
    return output != nullptr;
}

}  // namespace zr::platform
