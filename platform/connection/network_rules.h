#pragma once

// Which connection leads into which network.

#include <string>
#include <string_view>
#include <vector>

#include "connection_kind.h"
#include "platform/connection.h"

namespace zr::platform {

struct Judgement {
    GUID network{};
    std::u16string name;  // the network's
    ZrConnectionReason reason = ZrConnectionReason::None;
    std::u16string rule;
};

class NetworkRules {
public:
    // As the registry has them now; one that cannot be read has none. May throw std::bad_alloc.
    NetworkRules();

    // `name`: NetworkManager's for the connection.
    Judgement judge(const NetworkConnection& connection, const ConnectionKind& kind, const std::u16string& name) const;

private:
    struct Rule {
        std::u16string name;
        std::u16string interface;  // empty: all
        std::u16string connection;
        std::u16string type;
        GUID network;
    };
    struct Network {
        std::u16string name;
        GUID id;
    };

    void read_networks();
    void read_rules();
    bool find_network(const std::u16string& text, GUID& id) const;
    std::u16string name_of(const GUID& network) const;

    std::vector<Network> networks_;
    std::vector<Rule> rules_;
};

}  // namespace zr::platform
