#pragma once

// Libraries that only some commands need, and that take longer to load than most commands to run. Each is loaded when
// it is first needed, and stays: what it has registered, with GLib for instance, is there for good.
//
// The room that uses a library declares pointers of the functions' own names and types in this namespace, where its
// sources find them before the library's own declarations:
//
//   #define ZR_TEA_CALLS(CALL) CALL(tea_boil) CALL(tea_pour)
//   ZR_TEA_CALLS(ZR_LOADED_CALL)                 // in the header
//   ZR_TEA_CALLS(ZR_LOADED_CALL_HERE)            // in one source
//   const LoadedLibrary library(ZR_TEA_LIBRARY, "boiling water needs the package libtea");
//   ZR_TEA_CALLS(ZR_FIND_LOADED_CALL)

#define ZR_LOADED_CALL(name) extern decltype(&::name) name;
#define ZR_LOADED_CALL_HERE(name) decltype(&::name) name = nullptr;
#define ZR_FIND_LOADED_CALL(name) library.find(#name, name);

namespace zr {

class LoadedLibrary {
public:
    // `file` by the name that programs linked with it would know. Throws Failure (StoreFailed): the need and why it is
    // not met.
    LoadedLibrary(const char* file, const char* need);

    // Likewise.
    template <class Call>
    void find(const char* name, Call*& call) const {
        call = reinterpret_cast<Call*>(address(name));
    }

private:
    void* address(const char* name) const;

    const char* file_;
    const char* need_;
    void* library_;
};

}  // namespace zr
