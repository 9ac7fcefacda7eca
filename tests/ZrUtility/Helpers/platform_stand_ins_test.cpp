#include "platform_stand_ins.h"

#include <dlfcn.h>
#include <gtest/gtest.h>

namespace zr::test {

namespace {

template <class Function>
Function* real(const char* name) {
    return reinterpret_cast<Function*>(dlsym(RTLD_NEXT, name));
}

}  // namespace

StandIns& stand_ins() {
    static StandIns all;
    return all;
}

HRESULT process_really(LPCWSTR document, DWORD flags, LPWSTR* result) {
    return real<HRESULT(LPCWSTR, DWORD, LPWSTR*)>("_Z18DMProcessConfigXMLPKDsjPPDs")(document, flags, result);
}

}  // namespace zr::test

using zr::test::stand_ins;

#define IN_THE_WAY __attribute__((visibility("default")))

IN_THE_WAY HRESULT ConnMgrQueryDetailedStatus(CONNMGR_CONNECTION_DETAILED_STATUS* buffer, DWORD* size) {
    if (stand_ins().query) return stand_ins().query(buffer, size);
    return zr::test::real<HRESULT(CONNMGR_CONNECTION_DETAILED_STATUS*, DWORD*)>(
        "_Z26ConnMgrQueryDetailedStatusP34CONNMGR_CONNECTION_DETAILED_STATUSPj")(buffer, size);
}

IN_THE_WAY HRESULT DMProcessConfigXML(LPCWSTR document, DWORD flags, LPWSTR* result) {
    if (stand_ins().process) return stand_ins().process(document, flags, result);
    return zr::test::process_really(document, flags, result);
}

IN_THE_WAY DWORD NotifyAddrChange(HANDLE* handle, OVERLAPPED* overlapped) {
    if (stand_ins().notify) return stand_ins().notify(handle);
    return zr::test::real<DWORD(HANDLE*, OVERLAPPED*)>("_Z16NotifyAddrChangePPvP10OVERLAPPED")(handle, overlapped);
}

// The library's calls reach them.
TEST(StandIns, AreInTheWayOfTheLibrary) {
    const zr::test::StandInsOfTest own;
    int asked = 0;
    stand_ins().query = [&](CONNMGR_CONNECTION_DETAILED_STATUS*, DWORD* size) {
        *size = 0;
        ++asked;
        return S_OK;
    };
    DWORD size = 1;
    EXPECT_EQ(ConnMgrQueryDetailedStatus(nullptr, &size), S_OK);
    EXPECT_EQ(asked, 1);
}
