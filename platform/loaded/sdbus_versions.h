#pragma once

// What versions 1 and 2 of sdbus-c++ say differently. Debian 12 has the one, Debian 13 the other.

#include <sdbus-c++/sdbus-c++.h>

#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <utility>

namespace zr::platform::sdbus_versions {

// The type of a message's next value, or NUL, and what is in it where it is a container.
inline std::pair<char, std::string> peek(sdbus::Message& message);
// Handles what has come; false when nothing has.
inline bool process(sdbus::IConnection& bus);
inline std::unique_ptr<sdbus::IProxy> proxy_of(sdbus::IConnection& bus, const std::string& destination,
                                               const std::string& path);
inline sdbus::MethodCall method_call(sdbus::IProxy& proxy, const std::string& interface, const std::string& member);
// Calls `answer(sdbus::MethodReply&, const sdbus::Error* error)` when the answer comes.
template <class Answer>
void call(sdbus::IProxy& proxy, const sdbus::MethodCall& message, Answer answer, std::uint64_t microseconds);
// Calls `tell(sdbus::Message&)` for each message that the rule describes, for as long as the slot.
template <class Tell>
sdbus::Slot match(sdbus::IConnection& bus, const std::string& rule, Tell tell);

#if __has_include(<sdbus-c++/VTableItems.h>)  // version 2

// As the calls that open and enter a container take the signature of what is in it.
inline const char* signature(const std::string& text) {
    return text.c_str();
}

inline std::pair<char, std::string> peek(sdbus::Message& message) {
    const auto [type, contents] = message.peekType();
    return {type, contents ? contents : ""};
}

inline bool process(sdbus::IConnection& bus) {
    return bus.processPendingEvent();
}

inline std::unique_ptr<sdbus::IProxy> proxy_of(sdbus::IConnection& bus, const std::string& destination,
                                               const std::string& path) {
    return sdbus::createProxy(bus, sdbus::ServiceName(destination), sdbus::ObjectPath(path));
}

inline sdbus::MethodCall method_call(sdbus::IProxy& proxy, const std::string& interface, const std::string& member) {
    return proxy.createMethodCall(sdbus::InterfaceName(interface), sdbus::MethodName(member));
}

template <class Answer>
void call(sdbus::IProxy& proxy, const sdbus::MethodCall& message, Answer answer, std::uint64_t microseconds) {
    proxy.callMethodAsync(
        message,
        [answer](sdbus::MethodReply reply, std::optional<sdbus::Error> error) noexcept {
            answer(reply, error ? &*error : nullptr);
        },
        microseconds);
}

template <class Tell>
sdbus::Slot match(sdbus::IConnection& bus, const std::string& rule, Tell tell) {
    return bus.addMatch(
        rule, [tell](sdbus::Message message) noexcept { tell(message); }, sdbus::return_slot);
}

#else

inline const std::string& signature(const std::string& text) {
    return text;
}

inline std::pair<char, std::string> peek(sdbus::Message& message) {
    std::pair<std::string, std::string> found;
    message.peekType(found.first, found.second);
    return {found.first.empty() ? '\0' : found.first[0], std::move(found.second)};
}

inline bool process(sdbus::IConnection& bus) {
    return bus.processPendingRequest();
}

inline std::unique_ptr<sdbus::IProxy> proxy_of(sdbus::IConnection& bus, const std::string& destination,
                                               const std::string& path) {
    return sdbus::createProxy(bus, destination, path);
}

inline sdbus::MethodCall method_call(sdbus::IProxy& proxy, const std::string& interface, const std::string& member) {
    return proxy.createMethodCall(interface, member);
}

template <class Answer>
void call(sdbus::IProxy& proxy, const sdbus::MethodCall& message, Answer answer, std::uint64_t microseconds) {
    proxy.callMethod(message, answer, microseconds);
}

template <class Tell>
sdbus::Slot match(sdbus::IConnection& bus, const std::string& rule, Tell tell) {
    return bus.addMatch(rule, tell);
}

#endif

}  // namespace zr::platform::sdbus_versions
