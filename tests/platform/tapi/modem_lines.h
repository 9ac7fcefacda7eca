#pragma once

// A bus of the test's own with a telephone service on it that has one modem.

#include <gtest/gtest.h>

#include <optional>
#include <string>

#include "support/mock_modems.h"
#include "tapi_support.h"

namespace zr::test {

template <class Service>
class ModemLines : public testing::Test {
protected:
    void SetUp() override {
        ZR_NEEDS_BUS(bus_);
        modems_.emplace();
        ASSERT_EQ(modems_->why(), "");
        modem_ = modems_->add_modem(0);
    }
    void TearDown() override {
        for (const LPCWSTR name : {u"phone", u"other"}) {
            lineSetAppPriority(name, LINEMEDIAMODE_INTERACTIVEVOICE, nullptr, 0, nullptr, 0);
        }
    }

    PrivateBus bus_;
    std::optional<Service> modems_;
    std::string modem_;
};

using ManagerLines = ModemLines<MockModemManager>;
using OfonoLines = ModemLines<MockOfono>;

inline DWORD owners_of(HCALL call) {
    Roomy<LINECALLINFO> info;
    EXPECT_EQ(lineGetCallInfo(call, &info.all), 0);
    return info.all.dwNumOwners;
}

}  // namespace zr::test
