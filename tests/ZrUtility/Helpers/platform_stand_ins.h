#pragma once

// Stands in the way of the platform's calls that the connection classes make: what a test puts here is called instead.
// The library finds these before the platform's own, which are called while nothing is put here.

#include <functional>

#include "platform/connection.h"
#include "platform/iphelper.h"
#include "platform/provisioning.h"

namespace zr::test {

struct StandIns {
    std::function<HRESULT(CONNMGR_CONNECTION_DETAILED_STATUS*, DWORD*)> query;
    std::function<HRESULT(LPCWSTR, DWORD, LPWSTR*)> process;
    std::function<DWORD(HANDLE*)> notify;
};
StandIns& stand_ins();

HRESULT process_really(LPCWSTR document, DWORD flags, LPWSTR* result);

// For the length of a test.
struct StandInsOfTest {
    ~StandInsOfTest() { stand_ins() = {}; }
};

}  // namespace zr::test
