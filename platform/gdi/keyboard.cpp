#include "keyboard.h"

#include <chrono>
#include <functional>
#include <new>
#include <string>

#include "bus/system_bus.h"

namespace zr::platform {

std::atomic<int> keyboard_patience{500};
std::atomic<int> keyboard_rest{10'000};

namespace {

constexpr const char* kName = "sm.puri.OSK0";
constexpr const char* kPath = "/sm/puri/OSK0";
constexpr const char* kProperties = "org.freedesktop.DBus.Properties";
constexpr const char* kVisible = "Visible";

// When one was last waited for in vain, and which: 0 for its owner is any.
std::atomic<std::int64_t> silent_at{0};
std::atomic<std::size_t> silent_owner{0};

std::int64_t now() {
    using std::chrono::milliseconds;
    return std::chrono::duration_cast<milliseconds>(std::chrono::steady_clock::now().time_since_epoch()).count();
}

bool rests(std::size_t owner) {
    return silent_at != 0 && silent_owner == owner && now() < silent_at + keyboard_rest;
}

void let_rest(std::size_t owner) {
    silent_owner = owner;
    silent_at = now();
}

// Its owner is looked for first: who is not there is not started for being asked.
BusAnswer ask(const char* interface, const char* member, std::vector<BusValue> arguments) {
    BusAnswer answer;
    if (rests(0)) return answer;
    answer = find_bus_owner(kName, keyboard_patience, BusKind::Session);
    if (answer.result != BusResult::Answered) {
        if (answer.result == BusResult::TimedOut) let_rest(0);
        return answer;
    }
    const std::string name(text_of(answer.first()));
    const std::size_t owner = std::hash<std::string>()(name) | 1;
    answer = {};
    if (rests(owner)) return answer;
    answer = call_bus({name, kPath, interface, member, std::move(arguments)}, keyboard_patience, BusKind::Session);
    if (answer.result == BusResult::TimedOut) let_rest(owner);
    return answer;
}

bool is_boolean(const BusValue* value) {
    return value && value->type == 'b';
}

class Watch final : public BusListener {
public:
    void begin(void (*told)(bool up) noexcept) noexcept {
        if (is_listening_.exchange(true)) return;
        told_ = told;
        constexpr const char* rule =
            "type='signal',sender='sm.puri.OSK0',path='/sm/puri/OSK0',"
            "interface='org.freedesktop.DBus.Properties',member='PropertiesChanged'";
        const char* const rules[] = {rule};
        if (listen_to_bus(*this, rules, keyboard_patience, BusKind::Session) != BusResult::Answered) {
            is_listening_ = false;
        }
    }
    void forget() noexcept { is_listening_ = false; }

    void signal(const BusSignal& signal) noexcept override {
        if (signal.values.size() < 2 || text_of(&signal.values[0]) != kName) return;
        const BusValue* const visible = signal.values[1].find(kVisible);
        if (is_boolean(visible)) told_.load()(visible->integer != 0);
    }
    void lost() noexcept override { is_listening_ = false; }
    bool is_needed() noexcept override { return true; }

private:
    std::atomic<bool> is_listening_{false};
    std::atomic<void (*)(bool up) noexcept> told_{nullptr};
};

// Never destroyed: the bus's thread may run longer than static objects live.
alignas(Watch) unsigned char watch_storage[sizeof(Watch)];
Watch& the_watch = *new (watch_storage) Watch;

}  // namespace

bool read_keyboard(bool& up) noexcept try {
    if (!may_have_bus(BusKind::Session)) return false;
    const BusAnswer answer = ask(kProperties, "Get", {bus_text(kName), bus_text(kVisible)});
    const BusValue* value = answer.first();
    if (value && value->type == 'v' && !value->items.empty()) value = &value->items.front();
    if (answer.result != BusResult::Answered || !is_boolean(value)) return false;
    up = value->integer != 0;
    return true;
} catch (const std::bad_alloc&) {
    return false;
}

bool show_keyboard(bool up) noexcept try {
    if (!may_have_bus(BusKind::Session)) return false;
    return ask(kName, "SetVisible", {bus_integer(up ? 1 : 0, 'b')}).result == BusResult::Answered;
} catch (const std::bad_alloc&) {
    return false;
}

void watch_keyboard(void (*told)(bool up) noexcept) noexcept {
    if (may_have_bus(BusKind::Session) && !rests(0)) the_watch.begin(told);
}

void forget_keyboard() noexcept {
    the_watch.forget();
}

}  // namespace zr::platform
