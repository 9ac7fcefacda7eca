#pragma once

// Classes that the platform itself offers to CoCreateInstance. A family defines one object of static storage per class:
//
//     static zr::platform::BuiltinClass application(CLSID_Application, create_application);

#include "platform/com.h"

namespace zr::platform {

// Makes an object as the interface `riid`, with one reference; *object is null on failure.
using CreateObject = HRESULT (*)(REFIID riid, void** object) noexcept;

class BuiltinClass {
public:
    BuiltinClass(REFCLSID clsid, CreateObject create) noexcept;  // only while the library is being loaded
    BuiltinClass(const BuiltinClass&) = delete;
    BuiltinClass& operator=(const BuiltinClass&) = delete;

    // Null when the platform has no such class.
    static CreateObject find(REFCLSID clsid) noexcept;

private:
    CLSID clsid_;
    CreateObject create_;
    BuiltinClass* next_;
};

}  // namespace zr::platform
