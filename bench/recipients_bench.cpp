// Taking a recipient list apart, beside GMime's address parser. Both are given the same recipients, separated by
// commas, and end with a name and an address in memory of their own for each. The argument is the number of recipients.

// The library's headers come first: GLib's make macros of TRUE and FALSE.
#include "ZrUtility/Helpers/AddressUtilities.h"
#include "ZrUtility/Helpers/StringUtilities.h"

#include <benchmark/benchmark.h>
#include <gmime/gmime.h>

#include <string>
#include <utility>
#include <vector>

namespace {

std::string recipients(std::int64_t count) {
    std::string list;
    for (std::int64_t i = 0; i < count; ++i) {
        const std::string number = std::to_string(i);
        if (i != 0) list += ", ";
        if (i % 3 == 0) list.append("Jo Doe ").append(number).append(" <jo.doe").append(number).append("@example.com>");
        if (i % 3 == 1)
            list.append("\"Smith Al ")
                .append(number)
                .append("\" <al.smith")
                .append(number)
                .append("@mail.example.org>");
        if (i % 3 == 2) list += "<someone" + number + "@example.net>";
    }
    return list;
}

void nextRecipientOurs(benchmark::State& state) {
    const std::string narrow = recipients(state.range(0));
    std::u16string list(narrow.begin(), narrow.end());
    const auto room = static_cast<unsigned int>(list.size() + 1);
    std::vector<WCHAR> name(room);
    std::vector<WCHAR> address(room);
    for (auto _ : state) {
        std::vector<std::pair<WCHAR*, WCHAR*>> found;
        for (WCHAR* at = list.data(); at != nullptr;) {
            WCHAR* next = nullptr;
            unsigned int nameLength = 0;
            unsigned int addressLength = 0;
            AddressUtilities::NextRecipient(at, &next, name.data(), room, &nameLength, address.data(), room,
                                            &addressLength, 1);
            found.emplace_back(StringUtilities::NewAndCopyString(name.data()),
                               StringUtilities::NewAndCopyString(address.data()));
            at = next;
        }
        if (found.size() != static_cast<std::size_t>(state.range(0))) state.SkipWithError("wrong count");
        benchmark::DoNotOptimize(found.data());
        for (auto& [foundName, foundAddress] : found) {
            StringUtilities::DeleteString(foundName);
            StringUtilities::DeleteString(foundAddress);
        }
    }
    state.SetItemsProcessed(state.iterations() * state.range(0));
}

void nextRecipientGmime(benchmark::State& state) {
    g_mime_init();
    const std::string list = recipients(state.range(0));
    for (auto _ : state) {
        InternetAddressList* found = internet_address_list_parse(nullptr, list.c_str());
        if (internet_address_list_length(found) != static_cast<int>(state.range(0))) state.SkipWithError("wrong count");
        benchmark::DoNotOptimize(found);
        g_object_unref(found);
    }
    state.SetItemsProcessed(state.iterations() * state.range(0));
}

BENCHMARK(nextRecipientOurs)->Name("NextRecipient/ours")->Arg(1)->Arg(20)->Arg(500);
BENCHMARK(nextRecipientGmime)->Name("NextRecipient/gmime")->Arg(1)->Arg(20)->Arg(500);

}  // namespace
