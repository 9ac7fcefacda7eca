#include "support/each_alone.h"

#include <gtest/gtest.h>
#include <stdio.h>
#include <stdlib.h>
#include <sys/mman.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstring>
#include <filesystem>
#include <set>
#include <sstream>
#include <string>
#include <vector>

#include "support/forked.h"
#include "support/sandbox.h"

namespace zr::test {
namespace {

constexpr const char* kOption = "--each-alone";
constexpr int kLimitSeconds = 600;
constexpr int kAllSkipped = 77;

// What a child prints, for the parent.
class Output {
public:
    Output() : file_(memfd_create("output", MFD_CLOEXEC)) {}
    ~Output() { close(file_); }
    Output(const Output&) = delete;
    Output& operator=(const Output&) = delete;

    void take_standard_output() const {
        dup2(file_, STDOUT_FILENO);
        dup2(file_, STDERR_FILENO);
    }
    std::string text() const {
        std::string all;
        char part[4096];
        for (ssize_t size; (size = pread(file_, part, sizeof part, static_cast<off_t>(all.size()))) > 0;) {
            all.append(part, static_cast<std::size_t>(size));
        }
        return all;
    }

private:
    const int file_;
};

std::set<std::string> left_out() {
    std::set<std::string> names;
    if (const char* const list = getenv("ZR_TESTS_LEFT_OUT")) {
        std::istringstream words(list);
        for (std::string word; words >> word;) {
            names.insert(word);
        }
    }
    return names;
}

// The tests of these suites. Throws what is not there.
std::vector<std::string> tests_of(std::vector<std::string> suites, const std::string& program) {
    const std::set<std::string> without = left_out();
    const testing::UnitTest& all = *testing::UnitTest::GetInstance();
    std::vector<std::string> names;
    const bool every = suites.empty();
    for (int i = 0; i < all.total_test_suite_count(); ++i) {
        const testing::TestSuite& suite = *all.GetTestSuite(i);
        if (!every && std::erase(suites, suite.name()) == 0) continue;
        for (int j = 0; j < suite.total_test_count(); ++j) {
            const std::string name = std::string(suite.name()) + '.' + suite.GetTestInfo(j)->name();
            if (!without.contains(program + ':' + name)) names.push_back(name);
        }
    }
    if (!suites.empty()) throw std::invalid_argument("no suite " + suites.front());
    return names;
}

int run(const std::string& name) {
    enter_sandbox();
    testing::GTEST_FLAG(filter) = name;
    const int result = RUN_ALL_TESTS();
    leave_sandbox();
    return result;
}

}  // namespace

bool wants_each_alone(int argc, char** argv) {
    return argc > 1 && std::strcmp(argv[1], kOption) == 0;
}

int run_each_alone(int argc, char** argv) {
    int shown = 1;  // the test framework starts the program anew for some of its tests, with what it is shown here
    testing::InitGoogleTest(&shown, argv);
    std::vector<std::string> names;
    try {
        names = tests_of({argv + 2, argv + argc}, std::filesystem::path(argv[0]).filename());
    } catch (const std::invalid_argument& missing) {
        fprintf(stderr, "%s: %s\n", argv[0], missing.what());
        return 2;
    }
    std::size_t failed = 0;
    std::size_t skipped = 0;
    for (const std::string& name : names) {
        const Output output;
        const auto begin = std::chrono::steady_clock::now();
        fflush(nullptr);
        const pid_t child = fork();
        if (child == 0) {
            output.take_standard_output();
            return run(name);
        }
        const int code = child > 0 ? await_child(child, kLimitSeconds) : kHung;
        const std::chrono::duration<double> took = std::chrono::steady_clock::now() - begin;
        const std::string printed = output.text();
        const bool passed_over = code == 0 && printed.find("[  SKIPPED ]") != std::string::npos;
        failed += code != 0;
        skipped += passed_over;
        printf("%s %s, %.2f s\n",
               code != 0     ? "failed "
               : passed_over ? "skipped"
                             : "passed ",
               name.c_str(), took.count());
        if (code == kHung) printf("it did not end, or could not be begun\n");
        if (code != 0) printf("%s(%d)\n", printed.c_str(), code);
        if (passed_over) printf("%s", printed.c_str());
    }
    printf("%zu tests, %zu failed, %zu skipped\n", names.size(), failed, skipped);
    if (failed != 0) return 1;
    return skipped == names.size() && skipped != 0 ? kAllSkipped : 0;
}

}  // namespace zr::test
