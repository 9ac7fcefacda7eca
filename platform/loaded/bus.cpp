// The D-Bus module: sdbus-c++ behind the platform's words.

#include <map>
#include <memory>
#include <new>

#include "bus/bus_module.h"
#include "sdbus_versions.h"

namespace {

using namespace zr::platform;
using sdbus_versions::signature;

// What no sane service sends.
constexpr int kMostDepth = 64;
constexpr std::size_t kMostValues = 262'144;
// Of what the library itself waits for: that the bus takes a rule.
constexpr std::chrono::seconds kOwnPatience{2};

struct Nonsense {};

// ---- Values ----

std::string signature_of_value(const BusValue& value) {
    switch (value.type) {
        case 'a':
            return "a" + value.text;
        case 'r':
        case 'e': {
            std::string inner;
            for (const BusValue& each : value.items) {
                inner += signature_of_value(each);
            }
            return value.type == 'r' ? "(" + inner + ")" : "{" + inner + "}";
        }
        default:
            return {value.type};
    }
}

void write_value(sdbus::Message& message, const BusValue& value);

void write_items(sdbus::Message& message, const BusValue& value) {
    for (const BusValue& each : value.items) {
        write_value(message, each);
    }
}

void write_container(sdbus::Message& message, const BusValue& value) {
    const auto inner = [&] {
        std::string all;
        for (const BusValue& each : value.items) {
            all += signature_of_value(each);
        }
        return all;
    };
    switch (value.type) {
        case 'a':
            message.openContainer(signature(value.text));
            write_items(message, value);
            message.closeContainer();
            break;
        case 'r':
            message.openStruct(signature(inner()));
            write_items(message, value);
            message.closeStruct();
            break;
        case 'e':
            message.openDictEntry(signature(inner()));
            write_items(message, value);
            message.closeDictEntry();
            break;
        case 'v':
            message.openVariant(signature(inner()));
            write_items(message, value);
            message.closeVariant();
            break;
        default:
            throw Nonsense{};
    }
}

void write_value(sdbus::Message& message, const BusValue& value) {
    switch (value.type) {
        case 'y':
            message << static_cast<std::uint8_t>(value.integer);
            break;
        case 'b':
            message << (value.integer != 0);
            break;
        case 'n':
            message << static_cast<std::int16_t>(value.integer);
            break;
        case 'q':
            message << static_cast<std::uint16_t>(value.integer);
            break;
        case 'i':
            message << static_cast<std::int32_t>(value.integer);
            break;
        case 'u':
            message << static_cast<std::uint32_t>(value.integer);
            break;
        case 'x':
            message << std::int64_t{value.integer};
            break;
        case 't':
            message << static_cast<std::uint64_t>(value.integer);
            break;
        case 'd':
            message << value.real;
            break;
        case 's':
            message << value.text;
            break;
        case 'o':
            message << sdbus::ObjectPath(value.text);
            break;
        case 'g':
            message << sdbus::Signature(value.text);
            break;
        default:
            write_container(message, value);
    }
}

class Reader {
public:
    explicit Reader(sdbus::Message& message) : message_(message) {}

    // All values up to the end of the container that was entered, or of the message.
    std::vector<BusValue> read_all(int depth = 0) {
        std::vector<BusValue> values;
        for (;;) {
            const auto [type, contents] = sdbus_versions::peek(message_);
            if (type == '\0') return values;
            if (++count_ > kMostValues || depth > kMostDepth) throw Nonsense{};
            values.push_back(read(type, contents, depth));
        }
    }

private:
    template <class T>
    std::int64_t take() {
        T value{};
        message_ >> value;
        return static_cast<std::int64_t>(value);
    }

    BusValue read(char type, const std::string& contents, int depth) {
        BusValue value;
        value.type = type;
        switch (type) {
            case 'y':
                value.integer = take<std::uint8_t>();
                break;
            case 'b':
                value.integer = take<bool>();
                break;
            case 'n':
                value.integer = take<std::int16_t>();
                break;
            case 'q':
                value.integer = take<std::uint16_t>();
                break;
            case 'i':
                value.integer = take<std::int32_t>();
                break;
            case 'u':
                value.integer = take<std::uint32_t>();
                break;
            case 'x':
                value.integer = take<std::int64_t>();
                break;
            case 't':
                value.integer = take<std::uint64_t>();
                break;
            case 'd':
                message_ >> value.real;
                break;
            case 's':
                message_ >> value.text;
                break;
            case 'o':
                read_text<sdbus::ObjectPath>(value);
                break;
            case 'g':
                read_text<sdbus::Signature>(value);
                break;
            default:
                read_container(value, contents, depth);
        }
        return value;
    }

    template <class T>
    void read_text(BusValue& value) {
        T text;
        message_ >> text;
        value.text = text;
    }

    void read_container(BusValue& value, const std::string& contents, int depth) {
        switch (value.type) {
            case 'a':
                value.text = contents;
                message_.enterContainer(signature(contents));
                value.items = read_all(depth + 1);
                message_.exitContainer();
                break;
            case 'r':
                message_.enterStruct(signature(contents));
                value.items = read_all(depth + 1);
                message_.exitStruct();
                break;
            case 'e':
                message_.enterDictEntry(signature(contents));
                value.items = read_all(depth + 1);
                message_.exitDictEntry();
                break;
            case 'v':
                message_.enterVariant(signature(contents));
                value.items = read_all(depth + 1);
                message_.exitVariant();
                break;
            case 'h': {
                sdbus::UnixFd descriptor;  // nobody asks for one: closed
                message_ >> descriptor;
                break;
            }
            default:
                throw Nonsense{};
        }
    }

    sdbus::Message& message_;
    std::size_t count_ = 0;
};

// ---- A connection ----

void keep_name(const sdbus::Error& error, std::string& name) noexcept try {
    name = error.getName();
} catch (const std::bad_alloc&) {
    name.clear();
}

class Connection {
public:
    Connection(const BusEvents& events, BusKind kind)
        : events_(events),
          bus_(kind == BusKind::System ? sdbus::createSystemBusConnection() : sdbus::createSessionBusConnection()) {
        bus_->setMethodCallTimeout(kOwnPatience);
    }

    BusPoll poll() const {
        const auto data = bus_->getEventLoopPollData();
        return {data.fd, data.events, data.getPollTimeout()};
    }

    void process() {
        while (sdbus_versions::process(*bus_)) {
        }
        finished_.clear();
    }

    void call(std::uint64_t id, const BusRequest& request, std::uint64_t microseconds) {
        auto proxy = sdbus_versions::proxy_of(*bus_, request.destination, request.path);
        auto message = sdbus_versions::method_call(*proxy, request.interface, request.member);
        for (const BusValue& each : request.arguments) {
            write_value(message, each);
        }
        auto* const sender = proxy.get();
        const auto place = calls_.emplace(id, std::move(proxy)).first;
        try {
            sdbus_versions::call(
                *sender, message,
                [this, id](sdbus::MethodReply& reply, const sdbus::Error* error) noexcept { answer(id, reply, error); },
                microseconds);
        } catch (...) {
            calls_.erase(place);
            throw;
        }
    }

    void match(std::uint64_t id, const std::string& rule) {
        matches_[id] =
            sdbus_versions::match(*bus_, rule, [this, id](sdbus::Message& message) noexcept { tell(id, message); });
    }
    void unmatch(std::uint64_t id) { matches_.erase(id); }

private:
    void answer(std::uint64_t id, sdbus::MethodReply& reply, const sdbus::Error* error) noexcept {
        BusAnswer answer;
        try {
            if (error) {
                keep_name(*error, answer.error);
                answer.result = BusResult::Refused;
            } else {
                answer.values = Reader(reply).read_all();
                answer.result = BusResult::Answered;
            }
        } catch (const std::bad_alloc&) {
            answer.result = BusResult::NoMemory;
        } catch (...) {
            answer.result = BusResult::Refused;
        }
        // The proxy is being called: it goes when that has returned.
        const auto place = calls_.find(id);
        if (place != calls_.end()) finished_.insert(calls_.extract(place));
        events_.answer(events_.context, id, answer);
    }

    // Signals that cannot be understood are none.
    void tell(std::uint64_t id, sdbus::Message& message) noexcept try {
        BusSignal signal;
        signal.path = message.getPath();
        signal.interface = message.getInterfaceName();
        signal.member = message.getMemberName();
        signal.values = Reader(message).read_all();
        events_.signal(events_.context, id, signal);
    } catch (...) {
        return;
    }

    using Calls = std::map<std::uint64_t, std::unique_ptr<sdbus::IProxy>>;

    const BusEvents events_;
    const std::unique_ptr<sdbus::IConnection> bus_;
    Calls calls_;
    Calls finished_;
    std::map<std::uint64_t, sdbus::Slot> matches_;
};

Connection& of(void* connection) {
    return *static_cast<Connection*>(connection);
}

// What the library says of a connection that has ended, or is about to.
bool is_lost(const sdbus::Error& error) noexcept {
    for (const char* const name : {"org.freedesktop.DBus.Error.Disconnected", "System.Error.ENOTCONN",
                                   "System.Error.ECONNRESET", "System.Error.EPIPE", "System.Error.ESHUTDOWN"}) {
        if (error.getName() == name) return true;
    }
    return false;
}

// Runs it; what becomes of what it throws.
template <class Body>
BusResult guarded(Body&& body, std::string& error) noexcept {
    try {
        body();
        return BusResult::Answered;
    } catch (const std::bad_alloc&) {
        return BusResult::NoMemory;
    } catch (const sdbus::Error& thrown) {
        keep_name(thrown, error);
        return is_lost(thrown) ? BusResult::Lost : BusResult::Refused;
    } catch (...) {
        return BusResult::Refused;
    }
}

void* open_bus(const BusEvents* events, BusKind kind, std::string& why) noexcept {
    Connection* made = nullptr;
    guarded([&] { made = std::make_unique<Connection>(*events, kind).release(); }, why);
    return made;
}

void close_bus(void* connection) noexcept {
    std::string ignored;
    guarded([&] { delete &of(connection); }, ignored);
}

BusPoll poll_bus(void* connection) noexcept {
    BusPoll result{-1, 0, -1};
    std::string ignored;
    guarded([&] { result = of(connection).poll(); }, ignored);
    return result;
}

bool process_bus(void* connection) noexcept {
    std::string ignored;
    return guarded([&] { of(connection).process(); }, ignored) == BusResult::Answered;
}

BusResult call_on_bus(void* connection, std::uint64_t id, const BusRequest& request, std::uint64_t microseconds,
                      std::string& error) noexcept {
    return guarded([&] { of(connection).call(id, request, microseconds); }, error);
}

BusResult match_on_bus(void* connection, std::uint64_t id, const std::string& rule) noexcept {
    std::string ignored;
    return guarded([&] { of(connection).match(id, rule); }, ignored);
}

void unmatch_on_bus(void* connection, std::uint64_t id) noexcept {
    std::string ignored;
    guarded([&] { of(connection).unmatch(id); }, ignored);
}

constexpr BusFunctions functions{open_bus, close_bus, poll_bus, process_bus, call_on_bus, match_on_bus, unmatch_on_bus};

}  // namespace

extern "C" __attribute__((visibility("default"))) const BusFunctions* zr_bus_functions() {
    return &functions;
}
