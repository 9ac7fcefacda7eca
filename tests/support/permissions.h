#pragma once

// Permissions in tests that may run as root.

#include <gtest/gtest.h>
#include <linux/capability.h>
#include <sys/syscall.h>
#include <unistd.h>

namespace zr::test {

// While it lives the administrator's right to pass over permissions is laid down, so that a test that runs as root
// meets them like everybody else.
class WithoutOverride {
public:
    WithoutOverride() { change(false); }
    ~WithoutOverride() { change(true); }
    WithoutOverride(const WithoutOverride&) = delete;
    WithoutOverride& operator=(const WithoutOverride&) = delete;

private:
    static void change(bool raise) {
        __user_cap_header_struct header{_LINUX_CAPABILITY_VERSION_3, 0};
        __user_cap_data_struct data[2];
        ASSERT_EQ(syscall(SYS_capget, &header, data), 0);
        constexpr unsigned kOverride = (1u << CAP_DAC_OVERRIDE) | (1u << CAP_DAC_READ_SEARCH);
        data[0].effective =
            raise ? data[0].effective | (data[0].permitted & kOverride) : data[0].effective & ~kOverride;
        ASSERT_EQ(syscall(SYS_capset, &header, data), 0);
    }
};

}  // namespace zr::test
