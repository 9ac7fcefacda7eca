#include "fake_tapi.h"

#include <dlfcn.h>
#include <gtest/gtest.h>

#include "platform/base.h"

namespace zr::test {
namespace {

FakeTapi* the_fake = nullptr;

// The platform's own.
template <class Function>
Function* real_line(const char* name) {
    return reinterpret_cast<Function*>(dlsym(RTLD_NEXT, name));
}

// What a function's name in the library says of a DWORD_PTR.
#if __SIZEOF_POINTER__ == 8
#define ZR_NAMED_PTR "m"
#else
#define ZR_NAMED_PTR "j"
#endif

std::string numbered(const char* event, DWORD number) {
    return std::string(event) + " " + std::to_string(number);
}

}  // namespace

FakeTapi::FakeTapi() {
    the_fake = this;
}
FakeTapi::~FakeTapi() {
    the_fake = nullptr;
}
FakeTapi* FakeTapi::current() {
    return the_fake;
}

LONG FakeTapi::note(const std::string& function, const std::string& event) {
    events.push_back(event);
    const auto found = results.find(function);
    return found == results.end() ? 0 : found->second;
}

}  // namespace zr::test

using zr::test::FakeTapi;
using zr::test::numbered;
using zr::test::real_line;

#define IN_THE_WAY __attribute__((visibility("default")))

IN_THE_WAY LONG lineInitialize(LPHLINEAPP session, HINSTANCE instance, LINECALLBACK callback, LPCWSTR name,
                               LPDWORD lines) {
    FakeTapi* const fake = FakeTapi::current();
    if (!fake)
        return real_line<decltype(lineInitialize)>(
            "_Z14lineInitializePjP11HINSTANCE__PFvjj" ZR_NAMED_PTR ZR_NAMED_PTR ZR_NAMED_PTR ZR_NAMED_PTR
            "EPKDsS_")(session, instance, callback, name, lines);
    fake->callback = callback;
    *session = 1;
    *lines = static_cast<DWORD>(fake->devices.size());
    return fake->note("initialize", "initialize");
}

IN_THE_WAY LONG lineShutdown(HLINEAPP session) {
    FakeTapi* const fake = FakeTapi::current();
    if (!fake) return real_line<decltype(lineShutdown)>("_Z12lineShutdownj")(session);
    return fake->note("shutdown", "shutdown");
}

IN_THE_WAY LONG lineNegotiateAPIVersion(HLINEAPP session, DWORD device, DWORD low, DWORD high, LPDWORD version,
                                        LPLINEEXTENSIONID extension) {
    FakeTapi* const fake = FakeTapi::current();
    if (!fake) {
        return real_line<decltype(lineNegotiateAPIVersion)>("_Z23lineNegotiateAPIVersionjjjjPjP19lineextensionid_tag")(
            session, device, low, high, version, extension);
    }
    EXPECT_EQ(low, 0x20000u);
    EXPECT_EQ(high, 0x20000u);
    *version = 0x20000;
    fake->note("", numbered("negotiate", device));
    return fake->devices[device].version_result;
}

IN_THE_WAY LONG lineGetDevCaps(HLINEAPP session, DWORD device, DWORD version, DWORD extension, LPLINEDEVCAPS caps) {
    FakeTapi* const fake = FakeTapi::current();
    if (!fake) {
        return real_line<decltype(lineGetDevCaps)>("_Z14lineGetDevCapsjjjjP15linedevcaps_tag")(session, device, version,
                                                                                               extension, caps);
    }
    const auto& known = fake->devices[device];
    if (known.caps_result != 0) return known.caps_result;
    LINEDEVCAPS all{};
    all.dwMediaModes = known.media_modes;
    all.dwPermanentLineID = device;
    return fake->give(caps, all, known.caps_size);
}

IN_THE_WAY LONG lineOpen(HLINEAPP session, DWORD device, LPHLINE line, DWORD version, DWORD extension,
                         DWORD_PTR instance, DWORD privileges, DWORD modes, LPLINECALLPARAMS params) {
    FakeTapi* const fake = FakeTapi::current();
    if (!fake) {
        return real_line<decltype(lineOpen)>("_Z8lineOpenjjPjjj" ZR_NAMED_PTR "jjP18linecallparams_tag")(
            session, device, line, version, extension, instance, privileges, modes, params);
    }
    EXPECT_EQ(privileges, LINECALLPRIVILEGE_MONITOR);
    EXPECT_EQ(modes, 0u);
    EXPECT_EQ(params, nullptr);
    *line = 50;
    return fake->note("open", numbered("open", device) + numbered(" instance", static_cast<DWORD>(instance)));
}

IN_THE_WAY LONG lineClose(HLINE line) {
    FakeTapi* const fake = FakeTapi::current();
    if (!fake) return real_line<decltype(lineClose)>("_Z9lineClosej")(line);
    return fake->note("close", "close");
}

IN_THE_WAY LONG lineGetNewCalls(HLINE line, DWORD address, DWORD select, LPLINECALLLIST list) {
    FakeTapi* const fake = FakeTapi::current();
    if (!fake) {
        return real_line<decltype(lineGetNewCalls)>("_Z15lineGetNewCallsjjjP16linecalllist_tag")(line, address, select,
                                                                                                 list);
    }
    EXPECT_EQ(address, 0u);
    EXPECT_EQ(select, LINECALLSELECT_LINE);
    if (const LONG result = fake->note("new calls", "new calls")) return result;
    if (fake->list_growths > 0) {
        --fake->list_growths;
        fake->calls.push_back({LINECALLSTATE_IDLE, 0});
    }
    const auto count = static_cast<DWORD>(fake->calls.size());
    // The offset is nobody's business: the calls come right behind the list.
    const LINECALLLIST all{0, 0, 0, count, count * DWORD{4}, 0};
    const LONG result = fake->give(list, all, static_cast<DWORD>(sizeof all) + all.dwCallsSize);
    for (DWORD i = 0; result == 0 && i < count; ++i) {
        const HCALL call = 100 + i;
        std::memcpy(reinterpret_cast<unsigned char*>(list) + sizeof all + i * sizeof call, &call, sizeof call);
    }
    return result;
}

IN_THE_WAY LONG lineGetCallStatus(HCALL call, LPLINECALLSTATUS status) {
    FakeTapi* const fake = FakeTapi::current();
    if (!fake)
        return real_line<decltype(lineGetCallStatus)>("_Z17lineGetCallStatusjP18linecallstatus_tag")(call, status);
    const auto& known = fake->calls[call - 100];
    if (known.status_result != 0) return known.status_result;
    LINECALLSTATUS all{};
    all.dwCallState = known.state;
    return fake->give(status, all, sizeof all);
}

IN_THE_WAY LONG lineSetCallPrivilege(HCALL call, DWORD privilege) {
    FakeTapi* const fake = FakeTapi::current();
    if (!fake) return real_line<decltype(lineSetCallPrivilege)>("_Z20lineSetCallPrivilegejj")(call, privilege);
    return fake->note("privilege", numbered(privilege == LINECALLPRIVILEGE_OWNER ? "own" : "monitor", call));
}

IN_THE_WAY LONG lineDeallocateCall(HCALL call) {
    FakeTapi* const fake = FakeTapi::current();
    if (!fake) return real_line<decltype(lineDeallocateCall)>("_Z18lineDeallocateCallj")(call);
    return fake->note("deallocate", numbered("deallocate", call));
}

IN_THE_WAY LONG lineDrop(HCALL call, LPCSTR info, DWORD size) {
    FakeTapi* const fake = FakeTapi::current();
    if (!fake) return real_line<decltype(lineDrop)>("_Z8lineDropjPKcj")(call, info, size);
    const LONG result = fake->note("drop", numbered("drop", call));
    return result != 0 ? result : 7;
}

IN_THE_WAY LONG lineAnswer(HCALL call, LPCSTR info, DWORD size) {
    FakeTapi* const fake = FakeTapi::current();
    if (!fake) return real_line<decltype(lineAnswer)>("_Z10lineAnswerjPKcj")(call, info, size);
    const LONG result = fake->note("answer", numbered("answer", call));
    return result != 0 ? result : 7;
}

IN_THE_WAY LONG lineHandoff(HCALL call, LPCWSTR name, DWORD media_mode) {
    FakeTapi* const fake = FakeTapi::current();
    if (!fake) return real_line<decltype(lineHandoff)>("_Z11lineHandoffjPKDsj")(call, name, media_mode);
    EXPECT_EQ(name, nullptr);
    EXPECT_EQ(media_mode, LINEMEDIAMODE_INTERACTIVEVOICE);
    return fake->note("handoff", numbered("handoff", call));
}

// And without one the platform's are reached.
TEST(FakeTapi, LetsThePlatformBeReached) {
    HLINEAPP session = 0;
    DWORD count = 7;
    const auto nobody = [](DWORD, DWORD, DWORD_PTR, DWORD_PTR, DWORD_PTR, DWORD_PTR) {};
    ASSERT_EQ(lineInitialize(&session, nullptr, nobody, nullptr, &count), 0);
    EXPECT_EQ(count, 0u);
    EXPECT_EQ(lineClose(session), LINEERR_INVALLINEHANDLE);
    EXPECT_EQ(lineShutdown(session), 0);
    EXPECT_EQ(lineShutdown(session), LINEERR_INVALAPPHANDLE);
}
