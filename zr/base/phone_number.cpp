#include "zr/base/phone_number.h"

#include <dlfcn.h>
#include <platform/tapi.h>

#include <algorithm>

#include "zr/base/text.h"

namespace zr {
namespace {

constexpr std::size_t kWholeNumber = 7;  // digits that are a telephone without its area
constexpr std::size_t kLastDigits = 4;

// In the folder of the platform's modules.
CompareNumbers load_number_library() {
    Dl_info info{};
    if (dladdr(reinterpret_cast<void*>(&lineInitialize), &info) == 0 || info.dli_fname == nullptr) return nullptr;
    const std::string platform = info.dli_fname;
    const std::string folder = platform.substr(0, platform.find_last_of('/') + 1);
    // It stays: what it has made is needed until the program ends.
    void* const library =
        dlopen((folder + ZR_MODULES_FOLDER "/libzr_numbers.so").c_str(), RTLD_NOW | RTLD_LOCAL | RTLD_NODELETE);
    if (library == nullptr) return nullptr;
    return reinterpret_cast<CompareNumbers>(dlsym(library, "zr_compare_numbers"));
}

std::string_view last_digits(const std::string& digits) {
    return std::string_view(digits).substr(digits.size() - std::min(kLastDigits, digits.size()));
}

// Digits and the signs of services, such as *100#.
std::string dialled(std::string_view number) {
    std::string signs;
    for (const char c : number) {
        if ((c >= '0' && c <= '9') || c == '*' || c == '#') signs += c;
    }
    return signs;
}

}  // namespace

std::string_view without_scheme(std::string_view number) {
    constexpr std::string_view scheme = "tel:";
    while (equal_ignoring_case(number.substr(0, scheme.size()), scheme))
        number.remove_prefix(scheme.size());
    return number;
}

std::string significant_digits(std::string_view number) {
    std::string digits;
    for (const char c : number) {
        const bool is_leading = c == '0' && digits.empty();
        if (c >= '0' && c <= '9' && !is_leading) digits += c;
    }
    return digits;
}

bool same_digits(std::string_view a, std::string_view b) {
    const std::string all_a = dialled(a);
    const std::string all_b = dialled(b);
    if (all_a == all_b) return !significant_digits(a).empty();
    if ((all_a + all_b).find_first_of("*#") != std::string::npos) return false;
    std::string longer = significant_digits(a);
    std::string shorter = significant_digits(b);
    if (longer.size() < shorter.size()) longer.swap(shorter);
    if (longer == shorter) return !longer.empty();
    return shorter.size() >= kWholeNumber && longer.ends_with(shorter);
}

CompareNumbers number_library() {
    static const CompareNumbers function = load_number_library();
    return function;
}

bool same_number(const std::string& a, const std::string& b) {
    // The library takes its time: nobody else can be the same.
    if (last_digits(significant_digits(a)) != last_digits(significant_digits(b))) return false;
    const CompareNumbers compare = number_library();
    const int said = compare != nullptr ? compare(a.c_str(), b.c_str()) : -1;
    return said < 0 ? same_digits(a, b) : said != 0;
}

}  // namespace zr
