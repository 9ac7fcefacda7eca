#pragma once

// The Connection Manager's proxy entries, as zr proxy shows them.

#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "zr/base/json.h"
#include "zr/stores/registry.h"

namespace zr {

struct ProxyEntry {
    std::string name;
    bool own = false;  // the client's
    std::string from;  // networks: their names, or as they stand there
    std::string to;
    bool enabled = false;
    std::optional<unsigned> type;
    std::string proxy;
    std::string user;
    bool changed = false;  // what was before is kept beside it

    bool operator==(const ProxyEntry&) const = default;
};

// Where they are.
RegPath proxy_entries_path();

// In the order of their names; none when there is no such key.
std::vector<ProxyEntry> read_proxy_entries();

// "on host:port, Work to Internet".
std::string proxy_entry_text(const ProxyEntry& entry);
Json proxy_entry_json(const ProxyEntry& entry);

// A proxy of the Internet network that is on.
struct InternetProxy {
    std::string address;
    bool socks = false;
};
std::optional<InternetProxy> internet_proxy();

}  // namespace zr
