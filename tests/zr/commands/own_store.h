#pragma once

// A fixture whose cases have stores and a folder of their own.

#include <gtest/gtest.h>
#include <stdlib.h>

#include <filesystem>
#include <string>

#include "support/sandbox.h"
#include "zr/commands/tool.h"

namespace zr::test {

class OwnStore : public testing::Test {
protected:
    void SetUp() override {
        std::filesystem::create_directory(home());
        setenv("ZR_HOME", home().c_str(), 1);
    }

    std::filesystem::path folder() const { return folder_.host(); }
    std::filesystem::path home() const { return folder_.host() / "state"; }
    std::string file(const std::string& name) const { return folder_.host() / name; }
    std::string file(const std::string& name, const std::string& text) const {
        write_file(file(name), text);
        return file(name);
    }

private:
    TempFolder folder_;
};

}  // namespace zr::test
