#pragma once

// Copies of the test modules in a folder of the handheld's.

#include <filesystem>
#include <string>

#include "support/sandbox.h"

namespace zr::test {

class ModuleFolder {
public:
    std::u16string add(const std::string& module, const std::string& name) const {
        std::filesystem::copy_file(std::filesystem::path(ZR_TEST_MODULES) / (module + ".so"), host() / name);
        return path(name);
    }
    std::u16string path(const std::string& name) const {
        return folder_.handheld() + u"\\" + std::u16string(name.begin(), name.end());
    }
    const std::filesystem::path& host() const { return folder_.host(); }
    std::u16string handheld() const { return folder_.handheld(); }

private:
    TempFolder folder_;
};

}  // namespace zr::test
