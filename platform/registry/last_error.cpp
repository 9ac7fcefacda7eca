#include "last_error.h"

#include <atomic>
#include <mutex>

#include "ZrLog/ZrLog.h"
#include "base/error_text.h"
#include "platform/registry.h"
#include "store/sqlite.h"

namespace zr::platform::registry {
namespace {

constexpr const char* kSource = "platform/registry/last_error.cpp";
constexpr std::uint32_t kModule = 0x70;

constinit thread_local WCHAR failure[1024] = {};

// Written once: its readers hold no lock.
constinit WCHAR set_aside[1024] = {};
constinit std::atomic<const WCHAR*> set_aside_text{u""};
std::once_flag set_aside_once;

}  // namespace

// What happened to the store is said in the registry's own terms.
DWORD registry_error(DWORD error) noexcept {
    if (error == ERROR_IO_DEVICE || error == ERROR_GEN_FAILURE) return ERROR_REGISTRY_IO_FAILED;
    return error == ERROR_FILE_CORRUPT ? ERROR_REGISTRY_CORRUPT : error;
}

void keep_failure(std::string_view sentence) noexcept {
    keep_sentence(failure, sentence);
}

DWORD fail(Connection& connection) {
    const DWORD error = connection.error();
    keep_failure(connection.sentence(kStoreName));
    return registry_error(error);
}

void announce_set_aside(std::string_view sentence) noexcept {
    zrKelDebugBinBuffer(kSource, __LINE__, zrLogCategory(kModule, kZrLogFailure) | kZrLogBuffer, sentence.data(),
                        sentence.size());
    std::call_once(set_aside_once, [&] {
        keep_sentence(set_aside, sentence);
        set_aside_text.store(set_aside, std::memory_order_release);
    });
}

}  // namespace zr::platform::registry

LPCWSTR ZrRegistryLastErrorText() {
    return zr::platform::registry::failure;
}

LPCWSTR ZrRegistrySetAsideText() {
    return zr::platform::registry::set_aside_text.load(std::memory_order_acquire);
}
