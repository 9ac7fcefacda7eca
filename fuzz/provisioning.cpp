// Provisioning documents: whatever is read changes nothing when it is examined, comes to changes that a registry takes
// as far as their form goes, and the document that is answered says the same when it is examined again.

#include <platform/provisioning.h>
#include <stdlib.h>

#include <cstdint>
#include <filesystem>
#include <memory>
#include <string>
#include <system_error>

#include "support/input.h"

namespace {

using zr::fuzz::require;

// What queries are answered from: a registry of nobody's, gone with the program.
struct Home {
    char folder[24] = "/tmp/zr-fuzz-XXXXXX";
    const bool made = mkdtemp(folder) != nullptr && setenv("ZR_HOME", folder, 1) == 0;

    ~Home() {
        std::error_code ignored;
        if (made) std::filesystem::remove_all(folder, ignored);
    }
} const home;

int count(const ZrRegistryChange* change, LPVOID changes) {
    require(change->Path != nullptr && change->Root != nullptr);
    require(change->Size == 0 || change->Data != nullptr);
    require(change->Step != ZrRegistryStep::DeleteKey || *change->Path != 0);
    ++*static_cast<int*>(changes);
    return 0;
}

HRESULT examine(const std::u16string& document, int& changes, std::u16string& answer) {
    LPWSTR given = nullptr;
    const HRESULT result = ZrProvisioningChanges(document.c_str(), count, &changes, &given);
    const std::unique_ptr<WCHAR[]> owner(given);
    require((given != nullptr) == (SUCCEEDED(result) || result == CONFIG_E_CSPEXCEPTION));
    require(SUCCEEDED(result) || (changes == 0 && *ZrProvisioningLastErrorText() != 0));
    if (given) answer = given;
    return result;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    require(home.made);
    const std::u16string document = zr::fuzz::text(data, size);
    int changes = 0;
    std::u16string answer;
    if (FAILED(examine(document, changes, answer))) return 0;
    // Queries are answered by other elements.
    if (document.find(u"-query") != std::u16string::npos) return 0;
    int again = 0;
    std::u16string same;
    require(SUCCEEDED(examine(answer, again, same)));
    require(again == changes && same == answer);
    return 0;
}
